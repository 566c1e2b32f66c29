/* The lifecycle that every checker shares, written once.
 *
 * A checker is a module with no objects: its state is static, one instance per process. It keeps a
 * list of test definitions and hands result records to the poll loop. One worker thread sleeps for
 * one check interval, or until it is woken, and then runs every test of the list (a pass).
 *
 * Threads: the poll thread calls add, modify, remove, the interval setters and the hand-over; the
 * checker's worker runs passes; the main thread starts and stops.
 *
 * Locks, in the order in which they may be taken: mon_mutex, then result_mutex or cond_mutex;
 * poll_cond_mutex, then batch_mutex.
 * mon_mutex is held for a whole pass, so the poll thread waits for a running pass before it changes
 * a test; result_mutex only for an append or the hand-over, so collecting never waits for a pass.
 *
 * Everything is usable before checker_start and after checker_stop: setting the interval of a
 * checker that does not run is harmless. */
#ifndef VINDRAL_CHECKER_H
#define VINDRAL_CHECKER_H

#include "guards.h"
#include "udc.h"

#include <cstdlib>
#include <cstring>

/* Nothing runs until the server sets an interval or adds a test. */
inline constexpr int INITIAL_CHECK_INTERVAL_S = 31536000;

struct checker {
    mutex mon_mutex{};    /* the test list and every definition in it */
    mutex result_mutex{}; /* the result buffer */
    mutex cond_mutex{};   /* the waits: interval, signals, stop */
    condition cond{};

    char* result_buffer GUARDED_BY(result_mutex) = nullptr; /* run of records; null when empty */
    int result_buffer_len GUARDED_BY(result_mutex) = 0;
    int check_interval GUARDED_BY(cond_mutex) = INITIAL_CHECK_INTERVAL_S; /* seconds; -1: stop */
    unsigned wakes GUARDED_BY(cond_mutex) = 0;                            /* signals given so far */
    bool stopped GUARDED_BY(cond_mutex) = false; /* an interval of -1 was set: for good */
    int stop_fd GUARDED_BY(cond_mutex) = -1;     /* tells of a stop; -1 until a pass asks for it */

    unsigned wakes_at_start = 0; /* signals that the worker need not heed; set before it runs */
    pthread_t worker_thread_handle = 0;
    bool running = false; /* there is a worker to join; main thread only */

    /* Set by the module. */
    const char* thread_name = nullptr;   /* at most 15 characters */
    void (*pass)() = nullptr;            /* checks every test of the list once */
    const char* attr_message = nullptr;  /* logged when the thread attributes fail */
    const char* stack_message = nullptr; /* logged when the stack size is refused */
    bool pass_on_interval_only = false;  /* a wake-up only starts a new wait */
};

/* Starts a thread of the checker, named `name` unless that is null, with a stack of
 * WORKER_STACK_SIZE. Returns 1 and the handle, or 0 as checker_start does. */
int checker_start_thread(const checker& c, const char* name, void* (*body)(void*),
                         pthread_t* handle);

/* Starts the worker with a stack of WORKER_STACK_SIZE. Returns 1, or 0 with the module's message
 * logged at level 0; a thread that could not be created gives 0 without a message. */
int checker_start(checker& c, void* (*worker)(void*));

/* The worker's loop; returns when the checker is stopped. A signal that comes while a pass runs is
 * lost: the next pass comes after a whole interval. One that comes before the first wait is not: it
 * counts as a wake-up, so that neither a first test nor a stop nor a new interval waits out the old
 * one. With pass_on_interval_only a pass comes at the end of a whole interval; what ends a wait
 * sooner begins the next one. */
void checker_work(checker& c);

/* The interval in seconds. Setting one wakes the worker, which runs a pass at once; -1 ends it for
 * good. */
int checker_get_interval(checker& c);
void checker_set_interval(checker& c, int t_sec);

/* Whether the checker was stopped. A pass that sees it leaves out what would take long; what it
 * leaves out has no record, because nothing was measured. */
bool checker_stopped(checker& c);

/* A descriptor that is readable once the checker is stopped, for a pass that waits for others. It
 * stays the checker's, until checker_stop. -1 when there is none to be had. */
int checker_stop_fd(checker& c);

/* Wakes the worker for a pass at once. The caller may hold mon_mutex. */
void checker_wake(checker& c);

/* The commands of one answer. Until it ends, workers that are due wait for it, two seconds at most.
 * So these commands cause one pass of a checker, not one for each, and every test among them is in
 * it.
 *
 * Opened without any other lock. The poll loop ends it with poll_cond_mutex held, as the last thing
 * before its wait: what a pass then finds cannot be signalled until the loop waits for it. */
class command_batch {
public:
    command_batch();
    ~command_batch() { end(); }
    command_batch(const command_batch&) = delete;
    command_batch& operator=(const command_batch&) = delete;

    void end(); /* now; nothing is left to do at the end of the scope */

private:
    bool ended_ = false;
};

/* Appends `rez_size` bytes to the result buffer; sizes below 1 are ignored. */
void checker_add_result(checker& c, const char* rez, int rez_size);

/* Appends the finished record of a writer and frees both; null adds nothing. */
void checker_add_record(checker& c, UDCW* writer);

/* Hands the whole result buffer over: returns 1 and gives the caller the memory (free), or 0 with
 * the outputs untouched when there is nothing. */
int checker_get_results(checker& c, char** rez, int* rez_size);

/* Frees the writer and gives the caller its record (free), such as an inventory. Returns 1, or 0
 * for null. */
int hand_over_record(UDCW* writer, char** rez, int* rez_size);

/* Fresh results are in the buffer, a test's first or those of a scan: ends the poll loop's wait by
 * send_pending_data. That signal is lost while the loop is at work, mostly on somebody else's fresh
 * results; these stay behind then, and the loop does not wait before it has collected them. From
 * any thread, without a lock. */
void fresh_results();

/* The poll loop's side of it. It is at work from the end of a wait until it rests; both with
 * poll_cond_mutex held, so that between them no signal is lost. It rests before each wait, and
 * learns whether fresh results stayed behind: they did until it collects, which it says before it
 * takes the first buffer. */
bool poll_loop_rests();
void poll_loop_works();
void poll_loop_collects();

/* Stops the worker, joins it (waits for the end of a running pass) and destroys the condition.
 * Definitions and uncollected results stay. Nothing to do for a checker that was not started. */
void checker_stop(checker& c);

/* Destroys a condition that nobody is to wait on any more. */
void destroy_condition(condition& c);

/* A text argument; null for an empty one. */
char* text_or_none(char* text);

/* A private copy of a text argument; null for none and for an empty one. */
char* copy_text(const char* text);

#endif

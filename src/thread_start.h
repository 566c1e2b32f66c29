/* Starting threads, in one place: what a thread is like, and what the log says when there is none,
 * is data (thread_kind). Where the lines go is data, too, as the log's own thread is started here.
 *
 *     static constexpr thread_kind PING_CHECK = {.detached = true,
 *                                                .log = leveledadd2log,
 *                                                .create_message = "No thread: %d, %s"};
 *
 *     thread_start(PING_CHECK, body, argument);               one thread
 *
 *     thread_starter checks(PING_CHECK);                      several, with one line at most about
 *     for (...; checks && ...) {                              what they have in common
 *         checks.start(body, argument);
 *     }
 *
 * From any thread, with any lock held. There is no cancellation point in here but the log's, and
 * the attributes are given back by scope. */
#ifndef VINDRAL_THREAD_START_H
#define VINDRAL_THREAD_START_H

#include "guards.h"

struct thread_kind {
    /* At most 15 characters, shown by ps and top; null: as its starter's. For joinable threads: a
     * detached one may have ended before its starter can name it, and so names itself. */
    const char* name = nullptr;
    size_t stack_size = WORKER_STACK_SIZE; /* bytes; 0: the default of the process */
    bool detached = false;

    /* Gets the message of what failed, with the error and its text as arguments, which a message
     * need not use. Null logs nothing, and so does a message that is null. */
    void (*log)(int level, const char* format, ...) = nullptr;
    int log_level = 0;
    const char* attr_message = nullptr;   /* there are no attributes */
    const char* detach_message = nullptr; /* the detached state is refused */
    const char* stack_message = nullptr;  /* the stack size is refused */
    const char* create_message = nullptr; /* there is no thread */
};

/* Starts threads of one kind. False when the attributes could not be had, with their message
 * logged. The kind has to live as long. */
class thread_starter {
public:
    explicit thread_starter(const thread_kind& kind);
    ~thread_starter();
    thread_starter(const thread_starter&) = delete;
    thread_starter& operator=(const thread_starter&) = delete;

    explicit operator bool() const { return error_ == 0; }

    /* Returns 0, or the error; what `arg` points to is then still the caller's. `handle` may be
     * null for a detached thread. */
    int start(void* (*body)(void*), void* arg, pthread_t* handle = nullptr) const;

private:
    int set_attributes();
    int failed(int error, const char* message) const;

    const thread_kind& kind_;
    pthread_attr_t attributes_;
    bool initialized_ = false;
    int error_;
};

/* One thread; as thread_starter::start. */
int thread_start(const thread_kind& kind, void* (*body)(void*), void* arg,
                 pthread_t* handle = nullptr);

#endif

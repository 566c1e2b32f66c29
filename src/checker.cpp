#include "checker.h"

#include "thread_start.h"
#include "vindral_log.h"
#include "vindral_wake.h"

#include <climits>
#include <sched.h>
#include <sys/eventfd.h>
#include <utility>

int checker_start_thread(const checker& c, const char* name, void* (*body)(void*),
                         pthread_t* handle) {
    const thread_kind kind = {.name = name,
                              .log = leveledadd2log,
                              .attr_message = c.attr_message,
                              .stack_message = c.stack_message};
    return thread_start(kind, body, nullptr, handle) == 0;
}

int checker_start(checker& c, void* (*worker)(void*)) {
    {
        lock hold(c.cond_mutex);
        c.wakes_at_start = c.wakes;
    }
    c.running = checker_start_thread(c, c.thread_name, worker, &c.worker_thread_handle) != 0;
    return c.running;
}

enum class turn { PASS, ANOTHER_WAIT, STOPPED };

/* Waits for one interval or a signal. Those that came during the pass are lost; those since the
 * start are not, they end the first wait before it begins. */
static turn wait_for_turn(checker& c, bool is_first) {
    lock hold(c.cond_mutex);
    unsigned seen = is_first ? c.wakes_at_start : c.wakes;
    if (!c.stopped && c.wakes == seen) {
        /* A negative interval other than -1 means no wait, but must not turn into a spin. */
        int wait_s = c.check_interval < 0 ? 1 : c.check_interval;
        condition_wait_until(c.cond, c.cond_mutex, deadline_in(wait_s));
    }
    if (c.stopped) {
        return turn::STOPPED;
    }
    return c.pass_on_interval_only && c.wakes != seen ? turn::ANOTHER_WAIT : turn::PASS;
}

static mutex batch_mutex;
static condition batch_ended;
static int batches GUARDED_BY(batch_mutex) = 0;

command_batch::command_batch() {
    lock hold(batch_mutex);
    batches++;
}

void command_batch::end() {
    if (!ended_) {
        ended_ = true;
        lock hold(batch_mutex);
        batches--;
        pthread_cond_broadcast(&batch_ended.handle);
    }
}

static bool poll_loop_at_work GUARDED_BY(batch_mutex) = false;
static bool results_behind GUARDED_BY(batch_mutex) = false;

void fresh_results() {
    {
        lock hold(batch_mutex);
        results_behind |= poll_loop_at_work;
    }
    send_pending_data();
}

bool poll_loop_rests() {
    lock hold(batch_mutex);
    poll_loop_at_work = false;
    return results_behind;
}

void poll_loop_works() {
    lock hold(batch_mutex);
    poll_loop_at_work = true;
}

void poll_loop_collects() {
    lock hold(batch_mutex);
    results_behind = false;
}

static void wait_for_commands() {
    timespec deadline = deadline_in(2);
    lock hold(batch_mutex);
    while (batches > 0 && condition_wait_until(batch_ended, batch_mutex, deadline) == 0) {
    }
}

void checker_work(checker& c) {
    for (bool is_first = true;; is_first = false) {
        turn next = wait_for_turn(c, is_first);
        if (next == turn::STOPPED) {
            return;
        }
        if (next == turn::PASS) {
            wait_for_commands();
            if (checker_stopped(c)) { /* by one of them */
                return;
            }
            c.pass();
        }
    }
}

int checker_get_interval(checker& c) {
    lock hold(c.cond_mutex);
    return c.check_interval;
}

void checker_set_interval(checker& c, int t_sec) {
    lock hold(c.cond_mutex);
    c.check_interval = t_sec;
    if (t_sec == -1 && !c.stopped) {
        c.stopped = true;
        if (c.stop_fd >= 0) {
            eventfd_write(c.stop_fd, 1);
        }
    }
    c.wakes++;
    pthread_cond_signal(&c.cond.handle);
}

bool checker_stopped(checker& c) {
    lock hold(c.cond_mutex);
    return c.stopped;
}

int checker_stop_fd(checker& c) {
    lock hold(c.cond_mutex);
    if (c.stop_fd < 0) {
        c.stop_fd = eventfd(c.stopped, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    return c.stop_fd;
}

void checker_wake(checker& c) {
    lock hold(c.cond_mutex);
    c.wakes++;
    pthread_cond_signal(&c.cond.handle);
}

void checker_add_result(checker& c, const char* rez, int rez_size) {
    if (rez == nullptr || rez_size < 1) {
        return;
    }
    lock hold(c.result_mutex);
    if (c.result_buffer_len > INT_MAX - rez_size) {
        return;
    }
    char* grown = static_cast<char*>(realloc(
        c.result_buffer, static_cast<size_t>(c.result_buffer_len) + static_cast<size_t>(rez_size)));
    if (grown == nullptr) {
        return;
    }
    memcpy(grown + c.result_buffer_len, rez, static_cast<size_t>(rez_size));
    c.result_buffer = grown;
    c.result_buffer_len += rez_size;
}

int hand_over_record(UDCW* writer, char** rez, int* rez_size) {
    if (writer == nullptr) {
        return 0;
    }
    *rez_size = static_cast<int>(writer->udc->size);
    *rez = reinterpret_cast<char*>(writer->udc);
    udcw_free(&writer);
    return 1;
}

void checker_add_record(checker& c, UDCW* writer) {
    char* record = nullptr;
    int size = 0;
    if (hand_over_record(writer, &record, &size)) {
        heap_text owner(record);
        checker_add_result(c, record, size);
    }
}

int checker_get_results(checker& c, char** rez, int* rez_size) {
    lock hold(c.result_mutex);
    if (c.result_buffer_len == 0) {
        return 0;
    }
    *rez = c.result_buffer;
    *rez_size = c.result_buffer_len;
    c.result_buffer = nullptr;
    c.result_buffer_len = 0;
    return 1;
}

void destroy_condition(condition& c) {
    while (pthread_cond_destroy(&c.handle) == EBUSY) {
        pthread_cond_broadcast(&c.handle);
        sched_yield();
    }
}

void checker_stop(checker& c) {
    checker_set_interval(c, -1);
    if (!c.running) {
        return;
    }
    pthread_join(c.worker_thread_handle, nullptr);
    c.running = false;
    destroy_condition(c.cond);
    c.cond = condition{}; /* a late wake-up finds a condition that nobody waits on */
    lock hold(c.cond_mutex);
    unique_fd closed(std::exchange(c.stop_fd, -1));
}

char* text_or_none(char* text) {
    return text != nullptr && text[0] != '\0' ? text : nullptr;
}

char* copy_text(const char* text) {
    return text != nullptr && text[0] != '\0' ? strdup(text) : nullptr;
}

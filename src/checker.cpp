#include "checker.h"

#include "vindral_log.h"
#include "vindral_wake.h"

#include <climits>
#include <sched.h>
#include <sys/eventfd.h>
#include <utility>

static unsigned wakes_so_far(checker& c) {
    lock hold(c.cond_mutex);
    return c.wakes;
}

int checker_start_thread(const checker& c, const char* name, void* (*body)(void*),
                         pthread_t* handle) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        leveledadd2log(0, "%s", c.attr_message);
        return 0;
    }
    if (pthread_attr_setstacksize(&attributes, WORKER_STACK_SIZE) != 0) {
        leveledadd2log(0, "%s", c.stack_message);
        pthread_attr_destroy(&attributes);
        return 0;
    }
    bool created = pthread_create(handle, &attributes, body, nullptr) == 0;
    pthread_attr_destroy(&attributes);
    if (created && name != nullptr) {
        pthread_setname_np(*handle, name);
    }
    return created;
}

int checker_start(checker& c, void* (*worker)(void*)) {
    c.wakes_at_start = wakes_so_far(c);
    c.running = checker_start_thread(c, c.thread_name, worker, &c.worker_thread_handle) != 0;
    return c.running;
}

/* Waits for one interval or a wake-up; wakes that came since `seen` end the wait before it begins.
 * Returns false when the checker was stopped. */
static bool wait_interval(checker& c, unsigned seen, int interval_s) {
    lock hold(c.cond_mutex);
    if (!c.stopped && c.wakes == seen) {
        /* A negative interval other than -1 means no wait, but must not turn into a spin. */
        condition_wait_until(c.cond, c.cond_mutex, deadline_in(interval_s < 0 ? 1 : interval_s));
    }
    return !c.stopped;
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
    for (unsigned seen = c.wakes_at_start;; seen = wakes_so_far(c)) {
        int interval_s = checker_get_interval(c);
        if (interval_s == -1 || !wait_interval(c, seen, interval_s)) {
            return;
        }
        if (c.pass_on_interval_only && wakes_so_far(c) != seen) {
            continue;
        }
        wait_for_commands();
        if (checker_stopped(c)) { /* also when the interval was set anew since */
            return;
        }
        c.pass();
    }
}

int checker_get_interval(checker& c) {
    lock hold(c.check_interval_mutex);
    return c.check_interval;
}

void checker_set_interval(checker& c, int t_sec) {
    {
        lock hold(c.check_interval_mutex);
        c.check_interval = t_sec;
    }
    lock hold(c.cond_mutex);
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

void checker_add_record(checker& c, UDCW* writer) {
    heap<UDC> record(writer->udc);
    udcw_free(&writer);
    checker_add_result(c, reinterpret_cast<const char*>(record.get()),
                       static_cast<int>(record->size));
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

int make_inventory(uint32_t code, const char* list, char** rez, int* rez_size) {
    UDCW* record = nullptr;
    if (!create_new_udcw(&record, 0, 3, 1, 0, 0, 1)) {
        return 0;
    }
    udcw_add(record, UDC_UI32, code);
    udcw_add(record, UDC_UI32, 0);
    udcw_add(record, UDC_UI32, 0);
    udcw_add(record, UDC_I64, now_in_seconds());
    udcw_add(record, UDC_STRING, list);
    *rez_size = static_cast<int>(record->udc->size);
    *rez = reinterpret_cast<char*>(record->udc);
    udcw_free(&record);
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

char* copy_text(const char* text) {
    return text != nullptr && text[0] != '\0' ? strdup(text) : nullptr;
}

#include "pingmon.h"

#include "checker.h"
#include "checks_under_way.h"
#include "ping.h"
#include "udc.h"
#include "vindral_log.h"

#include <cstdio>

static const uint32_t PING_RECORD = 48;
enum { SUCCESS = 0, FAILURE = 2 };

static constinit checker pinger = {.thread_name = "ping",
                                   .pass = do_ping_check,
                                   .attr_message = "Pthread attribute initialization failed.",
                                   .stack_message = "Can not set ping thread stack size."};
static constinit mutex& PING_MON_MUTEX = pinger.mon_mutex;
static constinit checks_under_way ping_checks{.kind = "Ping"};
static ping_data** ping_data_list GUARDED_BY(PING_MON_MUTEX);
static int ping_data_list_len GUARDED_BY(PING_MON_MUTEX);

static void free_test(ping_data* test) {
    free(test->host);
    free(test);
}

ping_data* ping_data_dup(ping_data* _hd_) {
    heap_text host(_hd_->host != nullptr ? strdup(_hd_->host) : nullptr);
    heap<ping_data> copy(static_cast<ping_data*>(malloc(sizeof(ping_data))));
    if (!copy || (_hd_->host != nullptr && !host)) {
        return nullptr;
    }
    *copy = *_hd_;
    copy->host = host.release();
    return copy.release();
}

/* What a check has found. */
struct echo_outcome {
    uint32_t status;
    int lost;
    double mean; /* ms */
    char message[128];
};

static echo_outcome all_lost(const ping_data& test) {
    return {FAILURE, test.p_count, 0.0, "All sent packages were lost"};
}

/* The mean has the precision that it has always had: single, at every step. */
static echo_outcome judge_round_trips(const ping_data& test, const double* round_trips) {
    if (round_trips == nullptr) {
        return all_lost(test);
    }
    float sum = 0.0F, mean = 0.0F;
    int answered = 0;
    for (int i = 0; i < test.p_count; i++) {
        if (round_trips[i] != 0.0) {
            sum = static_cast<float>(sum + round_trips[i]);
            answered++;
        }
    }
    if (answered > 0) {
        mean = sum / static_cast<float>(answered);
    }
    echo_outcome outcome = {SUCCESS, test.p_count - answered, mean,
                            "ICMP echo results are within acceptable limits"};
    if (outcome.lost > test.max_lost) {
        outcome.status = FAILURE;
        snprintf(outcome.message, sizeof outcome.message,
                 "Number of lost packages: %d / Max value: %d", outcome.lost, test.max_lost);
    }
    return outcome;
}

static void add_ping_record(const ping_data& test, const echo_outcome& outcome) {
    UDCW* record = nullptr;
    if (!create_new_udcw(&record, 0, 5, 1, 0, 1, 1)) {
        return;
    }
    udcw_add(record, UDC_UI32, PING_RECORD);
    udcw_add(record, UDC_UI32, test.tid);
    udcw_add(record, UDC_UI32, test.loc_id);
    udcw_add(record, UDC_UI32, outcome.status);
    udcw_add(record, UDC_UI32, outcome.lost);
    udcw_add(record, UDC_I64, now_in_seconds());
    udcw_add(record, UDC_D64, outcome.mean);
    udcw_add(record, UDC_STRING, outcome.message);
    checker_add_record(pinger, record);
}

static void report(const ping_data& test, const echo_outcome& outcome) {
    add_ping_record(test, outcome);
    if (test.isFirstCheck == 1) {
        fresh_results();
    }
}

void* ping_single_thread(void* arg) {
    auto* test = static_cast<ping_data*>(arg);
    check_under_way counted = check_under_way::begun(ping_checks, test->tid);
    heap<double> round_trips(ping(test->host, static_cast<unsigned>(test->p_timeout), test->p_count,
                                  static_cast<unsigned short>(test->p_size),
                                  static_cast<unsigned short>(test->tid)));
    report(*test, judge_round_trips(*test, round_trips.get()));
    free_test(test);
    return nullptr;
}

/* The attributes of a round's threads. */
struct thread_attributes {
    pthread_attr_t attr;
    bool initialized = false;

    /* False with the reason logged. */
    bool prepare() {
        int error = pthread_attr_init(&attr);
        if (error != 0) {
            leveledadd2log(0, "ERROR:\tpthread_attr_init returns: %d", error);
            return false;
        }
        initialized = true;
        error = pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        if (error != 0) {
            leveledadd2log(0, "ERROR:\tpthread_attr_setdetachstate returns: %d", error);
            return false;
        }
        if (pthread_attr_setstacksize(&attr, WORKER_STACK_SIZE) != 0) {
            leveledadd2log(0, "Can not set pthread stack size.");
            return false;
        }
        return true;
    }
    thread_attributes() = default;
    ~thread_attributes() {
        if (initialized) {
            pthread_attr_destroy(&attr);
        }
    }
    thread_attributes(const thread_attributes&) = delete;
    thread_attributes& operator=(const thread_attributes&) = delete;
};

/* The check has been counted; what is not started ends with the scope. */
static void start_check(ping_data* test, const pthread_attr_t* attributes,
                        check_under_way& counted) {
    ping_data* copy = ping_data_dup(test);
    if (copy == nullptr) {
        return;
    }
    pthread_t thread;
    if (int error = pthread_create(&thread, attributes, ping_single_thread, copy)) {
        free_test(copy);
        leveledadd2log(0, "Thread creation Failed, Error: %d, %s", error, strerror(error));
        return;
    }
    counted.release();
}

void do_ping_check() {
    thread_attributes attributes;
    if (!attributes.prepare()) {
        return;
    }
    lock hold(PING_MON_MUTEX);
    for (int i = 0; i < ping_data_list_len; i++) {
        check_under_way counted(ping_checks, ping_data_list[i]->tid);
        if (counted) {
            start_check(ping_data_list[i], &attributes.attr, counted);
            ping_data_list[i]->isFirstCheck = 0;
        }
    }
}

int is_new_ping(int tID) {
    lock hold(PING_MON_MUTEX);
    return test_index(ping_data_list, ping_data_list_len, &ping_data::tid, tID) < 0;
}

void add_ping(int _tid, int _loc_id, char* _ho, int p_size, int p_cpount, int p_timeout,
              int max_lost) {
    if (_tid == 0 || _ho == nullptr || !is_new_ping(_tid)) {
        return;
    }
    ping_data wanted = {_ho, _tid, _loc_id, p_cpount, p_size, p_timeout, max_lost, 1};
    ping_data* test = ping_data_dup(&wanted);
    if (test == nullptr) {
        return;
    }
    {
        lock hold(PING_MON_MUTEX);
        if (!append_test(ping_data_list, ping_data_list_len, test)) {
            free_test(test);
            return;
        }
    }
    leveledadd2log(5,
                   "INFO: add_ping. Added test. tid:%d, lid:%d, host:'%s', p_size:%d, p_cpount:%d, "
                   "p_timeout:%d, max_lost:%d",
                   _tid, _loc_id, _ho, p_size, p_cpount, p_timeout, max_lost);
    checker_wake(pinger);
}

void mod_ping(int _tid, int _loc_id, char* _ho, int p_size, int p_cpount, int p_timeout,
              int max_lost) {
    heap_text host(_ho != nullptr ? strdup(_ho) : nullptr);
    lock hold(PING_MON_MUTEX);
    int index = test_index(ping_data_list, ping_data_list_len, &ping_data::tid, _tid);
    if (index < 0 || !host) {
        return;
    }
    ping_data* test = ping_data_list[index];
    free(test->host);
    *test = {host.release(), _tid, _loc_id, p_cpount, p_size, p_timeout, max_lost, 1};
    leveledadd2log(5,
                   "INFO: mod_ping. Modified test. tid:%d, lid:%d, host:'%s', p_size:%d, "
                   "p_cpount:%d, p_timeout:%d, max_lost:%d",
                   _tid, _loc_id, _ho, p_size, p_cpount, p_timeout, max_lost);
    checker_wake(pinger);
}

void rem_ping(int t_id) {
    lock hold(PING_MON_MUTEX);
    int index = test_index(ping_data_list, ping_data_list_len, &ping_data::tid, t_id);
    if (index < 0) {
        return;
    }
    free_test(take_test(ping_data_list, ping_data_list_len, index));
    leveledadd2log(5, "INFO: rem_ping. Removed test. tid:%d", t_id);
}

int init_ping_mon() {
    return checker_start(pinger, ping_worker_thread);
}
void* ping_worker_thread(void*) {
    checker_work(pinger);
    return nullptr;
}
int get_ping_check_interval() {
    return checker_get_interval(pinger);
}
void set_ping_check_interval(int t_sec) {
    checker_set_interval(pinger, t_sec);
}
void add_ping_result(char* rez, int rez_size) {
    checker_add_result(pinger, rez, rez_size);
}
int get_ping_results(char** rez, int* rez_size) {
    return checker_get_results(pinger, rez, rez_size);
}
void shutdown_ping_checker() {
    checker_stop(pinger);
}

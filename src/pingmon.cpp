#include "pingmon.h"

#include "checker.h"
#include "checks_under_way.h"
#include "ping.h"
#include "record_writer.h"
#include "test_list.h"
#include "thread_start.h"
#include "vindral_log.h"

#include <cstdio>

static constinit checker pinger = {.thread_name = "ping",
                                   .pass = do_ping_check,
                                   .attr_message = "Pthread attribute initialization failed.",
                                   .stack_message = "Can not set ping thread stack size."};
static constinit mutex& PING_MON_MUTEX = pinger.mon_mutex;
static constinit checks_under_way ping_checks{.kind = "Ping"};
using ping_list = test_list<ping_data, &ping_data::tid, &ping_data::host>;
static constinit ping_list ping_data_list GUARDED_BY(PING_MON_MUTEX);

ping_data* ping_data_dup(ping_data* _hd_) {
    return ping_list::duplicate(*_hd_);
}

/* What a check has found. */
struct echo_outcome {
    uint32_t status;
    int lost;
    double mean; /* ms */
    char message[128];
};

static echo_outcome all_lost(const ping_data& test) {
    return {protocol::status_limit, test.p_count, 0.0, "All sent packages were lost"};
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
    echo_outcome outcome = {protocol::status_ok, test.p_count - answered, mean,
                            "ICMP echo results are within acceptable limits"};
    if (outcome.lost > test.max_lost) {
        outcome.status = protocol::status_limit;
        snprintf(outcome.message, sizeof outcome.message,
                 "Number of lost packages: %d / Max value: %d", outcome.lost, test.max_lost);
    }
    return outcome;
}

static void add_ping_record(const ping_data& test, const echo_outcome& outcome) {
    UDCW* record = make_record<protocol::ping>(
        named<"test">(test.tid), named<"location">(test.loc_id), named<"status">(outcome.status),
        named<"time">(now_in_seconds()), named<"round_trip">(outcome.mean),
        named<"lost">(outcome.lost), named<"message">(outcome.message));
    if (record != nullptr) {
        checker_add_record(pinger, record);
    }
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
    ping_list::dispose(test);
    return nullptr;
}

void do_ping_check() {
    static constexpr thread_kind PING_CHECK = {
        .detached = true,
        .log = leveledadd2log,
        .attr_message = "ERROR:\tpthread_attr_init returns: %d",
        .detach_message = "ERROR:\tpthread_attr_setdetachstate returns: %d",
        .stack_message = "Can not set pthread stack size.",
        .create_message = "Thread creation Failed, Error: %d, %s"};
    thread_starter starter(PING_CHECK);
    if (starter) {
        lock hold(PING_MON_MUTEX);
        start_checks(ping_data_list, &ping_data::tid, ping_checks, starter, ping_single_thread,
                     ping_data_dup);
    }
}

int is_new_ping(int tID) {
    lock hold(PING_MON_MUTEX);
    return ping_data_list.find(tID) == nullptr;
}

void add_ping(int _tid, int _loc_id, char* _ho, int p_size, int p_cpount, int p_timeout,
              int max_lost) {
    if (_tid == 0 || _ho == nullptr) {
        return;
    }
    {
        lock hold(PING_MON_MUTEX);
        if (!ping_data_list.add({_ho, _tid, _loc_id, p_cpount, p_size, p_timeout, max_lost, 1})) {
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
    lock hold(PING_MON_MUTEX);
    if (_ho == nullptr ||
        !ping_data_list.replace({_ho, _tid, _loc_id, p_cpount, p_size, p_timeout, max_lost, 1})) {
        return;
    }
    leveledadd2log(5,
                   "INFO: mod_ping. Modified test. tid:%d, lid:%d, host:'%s', p_size:%d, "
                   "p_cpount:%d, p_timeout:%d, max_lost:%d",
                   _tid, _loc_id, _ho, p_size, p_cpount, p_timeout, max_lost);
    checker_wake(pinger);
}

void rem_ping(int t_id) {
    lock hold(PING_MON_MUTEX);
    if (ping_data_list.remove(t_id)) {
        leveledadd2log(5, "INFO: rem_ping. Removed test. tid:%d", t_id);
    }
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

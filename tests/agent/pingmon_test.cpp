/* Ping checker: what is asked of the echo engine, judgement, records, rounds, lifecycle. */
#include "thread_library.h"

#include "pingmon.cpp"

#include "checker_place.h"
#include "fake_core.h"

#include <atomic>
#include <mutex>
#include <thread>

using thread_library::attr_error, thread_library::detach_error, thread_library::stack_error;
using thread_library::create_error, thread_library::running;

static std::atomic<int> wake_ups{0};
void send_pending_data() {
    wake_ups++;
}

namespace {

std::mutex calls_mutex;
std::string calls;               /* of the engine, one a line */
std::vector<double> round_trips; /* what it answers; empty: null */
std::atomic<bool> silent;        /* it does not, for the time being */
std::atomic<int> threads{0};
std::vector<int> started; /* the tests, in the order of their threads */

} // namespace

double* ping(const char* pDest, unsigned int nTimeout, int pCount, unsigned short ping_data_size,
             unsigned short instID) {
    while (silent) {
        std::this_thread::yield();
    }
    std::lock_guard hold(calls_mutex);
    calls += std::string(pDest) + " " + std::to_string(nTimeout) + " " + std::to_string(pCount) +
             " " + std::to_string(ping_data_size) + " " + std::to_string(instID) + "\n";
    if (round_trips.empty()) {
        return nullptr;
    }
    auto* answer = static_cast<double*>(calloc(static_cast<size_t>(pCount), sizeof(double)));
    for (size_t i = 0; i < static_cast<size_t>(pCount); i++) {
        answer[i] = round_trips[i % round_trips.size()];
    }
    return answer;
}

static int note_check(void* (*run)(void*), void* arg) {
    if (run == ping_single_thread) {
        EXPECT_EQ(PTHREAD_CREATE_DETACHED, thread_library::detach_state);
        std::lock_guard hold(calls_mutex);
        started.push_back(static_cast<ping_data*>(arg)->tid);
        threads++;
    }
    return 0;
}

namespace {

class PingChecker : public testing::Test {
protected:
    char host[12] = "db.example";

    void SetUp() override {
        thread_library::reset();
        thread_library::about_to_create = note_check;
        round_trips = {1.0};
        silent = false;
        calls.clear();
        started.clear();
        threads = wake_ups = 0;
        take_log();
    }
    void TearDown() override {
        for (int id = 1; id < 10; id++) {
            rem_ping(id);
        }
        take_records(get_ping_results);
    }
    /* Signals that the worker has got so far. */
    static unsigned signals() {
        lock hold(pinger.cond_mutex);
        return pinger.wakes;
    }
    static std::vector<udc_content> round() {
        do_ping_check();
        while (running != 0) {
            std::this_thread::yield();
        }
        return take_records(get_ping_results);
    }
    udc_content check(std::vector<double> answers, int count, int max_lost) {
        round_trips = std::move(answers);
        rem_ping(1);
        add_ping(1, 9, host, 100, count, 500, max_lost);
        auto records = round();
        EXPECT_EQ(1u, records.size());
        return records.empty() ? udc_content{} : records[0];
    }
};

udc_content record(uint32_t status, uint32_t lost, double mean, const std::string& message,
                   const udc_content& seen) {
    udc_content r;
    r.ui32 = {48, 1, 9, status, lost};
    r.i64 = seen.i64;
    r.d64 = {mean};
    r.declared_strings = 1;
    r.strings = {message};
    return r;
}

const char FINE[] = "ICMP echo results are within acceptable limits";

} // namespace

TEST_F(PingChecker, answered) {
    time_t before = now_in_seconds();
    udc_content r = check({1.0, 2.0}, 4, 0);
    EXPECT_EQ(record(0, 0, 1.5, FINE, r), r);
    EXPECT_EQ("db.example 500 4 100 1\n", calls);
    EXPECT_LE(before, r.i64.at(0));
    EXPECT_GE(now_in_seconds(), r.i64.at(0));
}

TEST_F(PingChecker, lost) {
    udc_content r = check({1.0, 0.0}, 4, 1);
    EXPECT_EQ(record(2, 2, 1.0, "Number of lost packages: 2 / Max value: 1", r), r);
    r = check({1.0, 0.0}, 4, 2);
    EXPECT_EQ(record(0, 2, 1.0, FINE, r), r);
    r = check({1.0, 0.0}, 2, 0);
    EXPECT_EQ(record(2, 1, 1.0, "Number of lost packages: 1 / Max value: 0", r), r);
    r = check({0.0}, 3, 3); /* all of them, but as many may be lost */
    EXPECT_EQ(record(0, 3, 0.0, FINE, r), r);
    r = check({0.0}, 3, 2);
    EXPECT_EQ(record(2, 3, 0.0, "Number of lost packages: 3 / Max value: 2", r), r);
}

TEST_F(PingChecker, the_engine_could_not_begin) {
    udc_content r = check({}, 4, 9);
    EXPECT_EQ(record(2, 4, 0.0, "All sent packages were lost", r), r);
    r = check({}, -1, 9);
    EXPECT_EQ(record(2, 4294967295u, 0.0, "All sent packages were lost", r), r);
}

TEST_F(PingChecker, the_mean_has_single_precision) {
    float sum = 0.0F;
    for (double v : {0.1, 0.2, 0.3}) {
        sum = static_cast<float>(sum + v);
    }
    EXPECT_EQ(static_cast<double>(sum / 3.0F), check({0.1, 0.2, 0.3}, 3, 0).d64.at(0));
    EXPECT_NE((0.1 + 0.2 + 0.3) / 3, check({0.1, 0.2, 0.3}, 3, 0).d64.at(0));
    /* What is added is not: it is a little more than half of the sum's last digit. */
    EXPECT_EQ(0x1.000002p-1, check({1.0, 0x1.0000004p-24}, 2, 0).d64.at(0));
}

/* The test id is the identifier, cut to 16 bits like the size. */
TEST_F(PingChecker, what_is_asked_of_the_engine) {
    add_ping(65537, -3, host, 65536 + 7, 2, -1, 0);
    auto records = round();
    rem_ping(65537);
    EXPECT_EQ("db.example 4294967295 2 7 1\n", calls);
    EXPECT_EQ((std::vector<uint32_t>{48, 65537, 4294967293u, 0, 0}), records.at(0).ui32);
}

TEST_F(PingChecker, every_test_has_its_thread) {
    for (int id = 1; id <= 5; id++) {
        add_ping(id, 9, host, 0, 1, 1, 0);
    }
    EXPECT_EQ(5u, round().size());
    EXPECT_EQ(5, threads);
    EXPECT_EQ(WORKER_STACK_SIZE, thread_library::stack_size);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5}), started);
    started.clear();
    rem_ping(2);
    rem_ping(5);
    EXPECT_EQ(3u, round().size());
    EXPECT_EQ((std::vector<int>{1, 3, 4}), started);
}

/* A test whose thread still runs gets another; each reports. */
TEST_F(PingChecker, rounds_do_not_wait) {
    add_ping(1, 9, host, 0, 1, 1, 0);
    silent = true;
    do_ping_check();
    do_ping_check();
    EXPECT_EQ(2, threads);
    EXPECT_EQ(2, running);
    rem_ping(1); /* they have copies */
    silent = false;
    while (running != 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(2u, take_records(get_ping_results).size());
    EXPECT_EQ(1, wake_ups); /* the second was not the first any more */
}

TEST_F(PingChecker, first_results_are_sent_at_once_and_only_they) {
    add_ping(1, 9, host, 0, 1, 1, 0);
    add_ping(2, 9, host, 0, 1, 1, 0);
    round();
    EXPECT_EQ(2, wake_ups);
    round();
    EXPECT_EQ(2, wake_ups);
    mod_ping(1, 9, host, 0, 1, 1, 0);
    round();
    EXPECT_EQ(3, wake_ups);
}

TEST_F(PingChecker, without_a_thread_nothing_is_reported) {
    create_error = EAGAIN;
    add_ping(1, 9, host, 0, 1, 1, 0);
    take_log();
    EXPECT_TRUE(round().empty());
    EXPECT_EQ("0 Thread creation Failed, Error: 11, Resource temporarily unavailable\n",
              take_log_text());
    EXPECT_EQ(0, wake_ups);
    EXPECT_EQ("", calls);
    create_error = 0;
    EXPECT_EQ(1u, round().size());
    EXPECT_EQ(0, wake_ups); /* it was started before, as far as the list knows */
}

/* As many checks of a test as there may be; others go on, and a test that comes back under the same
 * id is still the same. */
TEST_F(PingChecker, checks_under_way_are_bounded) {
    add_ping(1, 9, host, 0, 1, 1, 0);
    silent = true;
    for (int i = 0; i < MOST_CHECKS_UNDER_WAY; i++) {
        do_ping_check();
    }
    EXPECT_EQ(MOST_CHECKS_UNDER_WAY, threads);
    take_log();
    add_ping(2, 9, host, 0, 1, 1, 0);
    do_ping_check();
    do_ping_check();
    EXPECT_EQ(MOST_CHECKS_UNDER_WAY + 2, threads);
    EXPECT_NE(
        std::string::npos,
        take_log_text().find("0 Ping test 1: 64 checks are under way, one more is left out.\n"));
    rem_ping(1);
    add_ping(1, 9, host, 0, 1, 1, 0);
    do_ping_check();
    EXPECT_EQ(MOST_CHECKS_UNDER_WAY + 3, threads);
    create_error = EAGAIN;
    do_ping_check();
    create_error = 0;
    silent = false;
    while (running != 0) {
        std::this_thread::yield();
    }
    take_records(get_ping_results);
    wake_ups = 0;
    EXPECT_EQ(2u, round().size());
    EXPECT_EQ(1, wake_ups); /* the one that was left out is still new */
    take_log();
}

TEST_F(PingChecker, rounds_that_cannot_begin) {
    add_ping(1, 9, host, 0, 1, 1, 0);
    take_log();
    attr_error = ENOMEM;
    EXPECT_TRUE(round().empty());
    EXPECT_EQ("0 ERROR:\tpthread_attr_init returns: 12\n", take_log_text());
    attr_error = 0;
    detach_error = EINVAL;
    EXPECT_TRUE(round().empty());
    EXPECT_EQ("0 ERROR:\tpthread_attr_setdetachstate returns: 22\n", take_log_text());
    detach_error = 0;
    stack_error = EINVAL;
    EXPECT_TRUE(round().empty());
    EXPECT_EQ("0 Can not set pthread stack size.\n", take_log_text());
    stack_error = 0;
    EXPECT_EQ(1u, round().size());
    EXPECT_EQ(1, wake_ups); /* it was still new */
}

TEST_F(PingChecker, list_operations_and_their_lines) {
    add_ping(0, 9, host, 1, 2, 3, 4);
    add_ping(1, 9, nullptr, 1, 2, 3, 4);
    mod_ping(1, 9, host, 1, 2, 3, 4);
    rem_ping(1);
    EXPECT_EQ(1, is_new_ping(1));
    EXPECT_EQ("", take_log_text());
    add_ping(1, 9, host, 1, 2, 3, 4);
    EXPECT_EQ(0, is_new_ping(1));
    EXPECT_EQ(1, is_new_ping(2));
    add_ping(1, 8, host, 5, 5, 5, 5);
    char other[] = "h";
    mod_ping(1, 8, other, 5, 6, 7, 8);
    rem_ping(1);
    EXPECT_EQ("5 INFO: add_ping. Added test. tid:1, lid:9, host:'db.example', p_size:1, "
              "p_cpount:2, p_timeout:3, max_lost:4\n"
              "5 INFO: mod_ping. Modified test. tid:1, lid:8, host:'h', p_size:5, p_cpount:6, "
              "p_timeout:7, max_lost:8\n"
              "5 INFO: rem_ping. Removed test. tid:1\n",
              take_log_text());
}

TEST_F(PingChecker, what_a_modify_changes) {
    char other[] = "h";
    add_ping(1, 9, host, 1, 2, 3, 4);
    host[0] = 'x'; /* the list keeps copies */
    round();
    mod_ping(1, 8, other, 5, 6, 7, 0);
    other[0] = 'x';
    round_trips = {0.0};
    auto records = round();
    EXPECT_EQ("db.example 3 2 1 1\nh 7 6 5 1\n", calls);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ((std::vector<uint32_t>{48, 1, 8, 2, 6}), records[0].ui32);
    EXPECT_EQ("Number of lost packages: 6 / Max value: 0", records[0].strings.at(0));
}

static const int first_interval = get_ping_check_interval();

TEST_F(PingChecker, what_causes_a_round) {
    EXPECT_EQ(31536000, first_interval);
    unsigned before = signals();
    add_ping(0, 9, host, 1, 2, 3, 4);
    add_ping(1, 9, nullptr, 1, 2, 3, 4);
    mod_ping(1, 9, host, 1, 2, 3, 4);
    rem_ping(1);
    EXPECT_EQ(before, signals());
    add_ping(1, 9, host, 1, 2, 3, 4);
    EXPECT_EQ(before + 1, signals());
    add_ping(1, 9, host, 1, 2, 3, 4);
    EXPECT_EQ(before + 1, signals());
    mod_ping(1, 9, host, 1, 2, 3, 4);
    EXPECT_EQ(before + 2, signals());
    rem_ping(1);
    EXPECT_EQ(before + 2, signals());
    set_ping_check_interval(1234);
    EXPECT_EQ(1234, get_ping_check_interval());
    EXPECT_EQ(before + 3, signals());
}

TEST_F(PingChecker, copies) {
    ping_data test = {host, 1, 2, 3, 4, 5, 6, 1};
    ping_data* copy = ping_data_dup(&test);
    EXPECT_NE(host, copy->host);
    EXPECT_STREQ(host, copy->host);
    EXPECT_EQ(6, copy->max_lost);
    EXPECT_EQ(1, copy->isFirstCheck);
    ping_list::dispose(copy);
}

/* Everything at once from several threads, with checks in flight; the sanitizers watch. */
TEST_F(PingChecker, changes_during_rounds) {
    ASSERT_EQ(1, init_ping_mon());
    std::atomic<bool> stop{false};
    std::thread changes([&] {
        for (int i = 0; i < 300; i++) {
            add_ping(1 + i % 5, 9, host, 1, 1, 1, 1);
            mod_ping(1 + i % 3, 9, host, i, 1, 1, 1);
            rem_ping(1 + i % 4);
            set_ping_check_interval(1000 + i);
        }
        stop = true;
    });
    std::thread rounds([&] {
        while (!stop) {
            while (running > 200) {
                std::this_thread::yield();
            }
            do_ping_check();
        }
    });
    while (!stop) {
        take_records(get_ping_results);
        get_ping_check_interval();
    }
    changes.join();
    rounds.join();
    shutdown_ping_checker();
    while (running != 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(-1, get_ping_check_interval());
}

/* MySQL checker: records, rounds, list operations, lifecycle, with and without the library. */
#include "thread_library.h"

#include "mysqlmon.cpp"

#include "at_rest.h"
#include "checker_place.h"
#include "fake_core.h"

#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>

using thread_library::attr_error, thread_library::detach_error, thread_library::stack_error;
using thread_library::create_error, thread_library::running, thread_library::stack_size;

static std::atomic<int> wake_ups{0};
void send_pending_data() {
    wake_ups++;
}

/* --- the library ----------------------------------------------------------------------------- */

decltype(&mysql_init) lib_mysql_init;
decltype(&mysql_error) lib_mysql_error;
decltype(&mysql_options) lib_mysql_options;
decltype(&mysql_real_connect) lib_mysql_real_connect;
decltype(&mysql_query) lib_mysql_query;
decltype(&mysql_store_result) lib_mysql_store_result;
decltype(&mysql_num_fields) lib_mysql_num_fields;
decltype(&mysql_fetch_row) lib_mysql_fetch_row;
decltype(&mysql_free_result) lib_mysql_free_result;
decltype(&mysql_close) lib_mysql_close;

static std::string load_failure; /* empty: it loads */
char* init_mysql_lib() {
    return load_failure.empty() ? nullptr : load_failure.data();
}

static std::atomic<int> threads_ended;
void end_mysql_thread() {
    threads_ended++;
}

namespace {

/* A connection, which is at the same time its result. */
struct connection {
    int rows_left;
};
std::mutex calls_mutex;
std::string calls;          /* what connections were asked for, one a line */
std::atomic<bool> silent;   /* no connection, for the time being */
std::atomic<bool> refusing; /* none at all */
std::string refusal = "no"; /* the reason */
unsigned response_time_us;  /* of a connection */
std::atomic<int> connections_open;

void install_library() {
    lib_mysql_init = [](MYSQL*) {
        connections_open++;
        return reinterpret_cast<MYSQL*>(new connection{});
    };
    lib_mysql_error = [](MYSQL*) { return refusal.c_str(); };
    lib_mysql_options = [](MYSQL*, mysql_option, const void*) { return 0; };
    lib_mysql_real_connect = [](MYSQL* c, const char* host, const char* user, const char* pass,
                                const char*, unsigned port, const char* sock, unsigned long) {
        while (silent) {
            std::this_thread::yield();
        }
        usleep(response_time_us);
        std::lock_guard hold(calls_mutex);
        calls += std::string(host) + " " + std::to_string(port) + " " + user + " " + pass + " " +
                 (sock != nullptr ? sock : "-") + "\n";
        return refusing ? nullptr : c;
    };
    lib_mysql_query = [](MYSQL*, const char*) { return 0; };
    lib_mysql_store_result = [](MYSQL* c) {
        reinterpret_cast<connection*>(c)->rows_left = 1;
        return reinterpret_cast<MYSQL_RES*>(c);
    };
    lib_mysql_num_fields = [](MYSQL_RES*) { return 2u; };
    lib_mysql_fetch_row = [](MYSQL_RES* r) -> MYSQL_ROW {
        static char name[] = "Uptime", value[] = "150";
        static char* row[] = {name, value};
        return reinterpret_cast<connection*>(r)->rows_left-- > 0 ? row : nullptr;
    };
    lib_mysql_free_result = [](MYSQL_RES*) {};
    lib_mysql_close = [](MYSQL* c) {
        connections_open--;
        delete reinterpret_cast<connection*>(c);
    };
}

/* --- threads --------------------------------------------------------------------------------- */

std::atomic<int> threads{0};
std::vector<int> started; /* the tests, in the order of their threads */

} // namespace

static int note_check(void* (*run)(void*), void* arg) {
    bool is_worker = run == mysql_worker_thread;
    EXPECT_EQ(is_worker ? PTHREAD_CREATE_JOINABLE : PTHREAD_CREATE_DETACHED,
              thread_library::detach_state);
    if (run == do_single_mysql_check) {
        std::lock_guard hold(calls_mutex);
        started.push_back(static_cast<MySQL_Data*>(arg)->tid);
        threads++;
    }
    return 0;
}

namespace {

class MysqlChecker : public testing::Test {
protected:
    char host[12] = "db.example", user[8] = "monitor", pass[7] = "secret", uptime[12] = "Uptime";

    void SetUp() override {
        install_library();
        thread_library::reset();
        thread_library::about_to_create = note_check;
        silent = refusing = false;
        refusal = "no";
        response_time_us = 0;
        load_failure.clear();
        calls.clear();
        started.clear();
        threads = wake_ups = threads_ended = 0;
        take_log();
    }
    void TearDown() override {
        rem_mysqldesc_all();
        mysql_initialization_status = nullptr;
        take_records(get_mysql_results);
        EXPECT_EQ(0, connections_open);
    }
    void add(int tid, char* params) {
        add_mysqldesc(tid, 9, host, 3306, user, pass, nullptr, params, 10);
    }
    void add(int tid) { add(tid, uptime); }
    void modify(int tid) { modify_mysqldesc(tid, 9, host, 1, user, pass, nullptr, uptime, 10); }
    static void wait_for_checks() {
        while (running != 0) {
            std::this_thread::yield();
        }
    }
    static std::vector<udc_content> round() {
        do_mysql_check();
        wait_for_checks();
        return take_records(get_mysql_results);
    }
    /* The only record of the next round. */
    udc_content check(const char* params) {
        std::string list = params;
        rem_mysqldesc(1);
        add(1, list.data());
        auto records = round();
        EXPECT_EQ(1u, records.size());
        return records.empty() ? udc_content{} : records[0];
    }
};

udc_content record(uint32_t status, const std::vector<std::string>& strings,
                   const udc_content& seen) {
    udc_content r;
    r.ui32 = {74, 1, 9, status, seen.ui32.size() > 4 ? seen.ui32[4] : 0};
    r.i64 = seen.i64;
    r.declared_strings = 2;
    r.strings = strings;
    return r;
}

/* What is left of a time in the record: the nearest multiple of 128 s, of two that are as near the
 * even one. */
int64_t rounded(time_t t) {
    return llrint(static_cast<double>(t) / 128) * 128;
}

} // namespace

/* --- records --------------------------------------------------------------------------------- */

TEST_F(MysqlChecker, within_limits) {
    time_t before = now_in_seconds();
    udc_content r = check("Uptime|200|100");
    EXPECT_EQ(record(0, {"Uptime|150|0;"}, r), r) << "an empty text is left out";
    EXPECT_EQ(0, r.i64.at(0) % 128);
    EXPECT_LE(rounded(before), r.i64.at(0));
    EXPECT_GE(rounded(now_in_seconds()), r.i64.at(0));
    EXPECT_LT(r.ui32.at(4), 60000u);
    EXPECT_EQ("db.example 3306 monitor secret -\n", calls);
}

TEST_F(MysqlChecker, out_of_limits) {
    udc_content r = check("Uptime|100;none");
    EXPECT_EQ(record(2, {"Uptime|150|2;none| |2;", "Uptime - 150: NOK;none -  : NOK;"}, r), r);
}

TEST_F(MysqlChecker, failures) {
    refusing = true;
    refusal = "Access denied; for|'you'";
    udc_content r = check("Uptime");
    EXPECT_EQ(
        record(3, {"Error_Message|Access denied; for|'you'|3;", "Access denied; for|'you'"}, r), r);
    refusal = "";
    r = check("Uptime");
    EXPECT_EQ(record(3, {"Error_Message||3;"}, r), r);
}

TEST_F(MysqlChecker, response_time_of_the_whole_conversation) {
    response_time_us = 20000;
    uint32_t ms = check("Uptime").ui32.at(4);
    EXPECT_GE(ms, 20u);
    EXPECT_LT(ms, 15000u);
    refusing = true;
    ms = check("Uptime").ui32.at(4);
    EXPECT_GE(ms, 20u);
    EXPECT_LT(ms, 15000u);
}

TEST_F(MysqlChecker, what_a_record_is_made_of) {
    char result[] = "list", addinfo[] = "info";
    send_mysql_data(-1, 4, 2, 7.999F, 1.79e9F + 63, result, addinfo);
    send_mysql_data(1, -4, 3, -1.5F, 0, nullptr, addinfo);
    send_mysql_data(1, 4, 0, 16777216.0F, 100, result, nullptr);
    auto r = take_records(get_mysql_results);
    ASSERT_EQ(3u, r.size());
    EXPECT_EQ((std::vector<uint32_t>{74, 4294967295u, 4, 2, 7}), r[0].ui32);
    EXPECT_EQ((std::vector<int64_t>{1790000000 / 128 * 128}), r[0].i64);
    EXPECT_EQ((std::vector<std::string>{"list", "info"}), r[0].strings);
    EXPECT_EQ((std::vector<uint32_t>{74, 1, 4294967292u, 3, 4294967295u}), r[1].ui32);
    EXPECT_EQ((std::vector<std::string>{"info"}), r[1].strings);
    EXPECT_EQ((std::vector<uint32_t>{74, 1, 4, 0, 16777216}), r[2].ui32);
    EXPECT_EQ((std::vector<int64_t>{100}), r[2].i64);
    EXPECT_EQ((std::vector<std::string>{"list"}), r[2].strings);
    EXPECT_EQ(2u, r[2].declared_strings);
    EXPECT_TRUE(r[2].i32.empty() && r[2].ui64.empty() && r[2].d64.empty());
}

/* --- rounds ---------------------------------------------------------------------------------- */

TEST_F(MysqlChecker, every_test_has_its_thread) {
    for (int id = 1; id <= 5; id++) {
        add(id);
    }
    EXPECT_EQ(5u, round().size());
    EXPECT_EQ(5, threads);
    EXPECT_EQ(5, threads_ended);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(258048u, stack_size);
#endif
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4, 5}), started);
    started.clear();
    rem_mysqldesc(2);
    rem_mysqldesc(5);
    EXPECT_EQ(3u, round().size());
    EXPECT_EQ((std::vector<int>{1, 3, 4}), started);
}

/* A test whose thread still runs gets another; each reports what it was started for. */
TEST_F(MysqlChecker, rounds_do_not_wait) {
    add(1);
    silent = true;
    do_mysql_check();
    do_mysql_check();
    EXPECT_EQ(2, threads);
    EXPECT_EQ(2, running);
    rem_mysqldesc(1);
    EXPECT_TRUE(is_free(mysql.mon_mutex));
    EXPECT_EQ(0, wake_ups);
    silent = false;
    wait_for_checks();
    EXPECT_EQ(2u, take_records(get_mysql_results).size());
    EXPECT_EQ(1, wake_ups); /* the second was not the first any more */
}

/* As many checks of a test as there may be; others go on, and a test that comes back under the same
 * id is still the same. */
TEST_F(MysqlChecker, checks_under_way_are_bounded) {
    add(1);
    silent = true;
    for (int i = 0; i < MOST_CHECKS_UNDER_WAY; i++) {
        do_mysql_check();
    }
    EXPECT_EQ(64, threads);
    rem_mysqldesc(1);
    take_log();
    add(1);
    add(2);
    for (int i = 0; i < 3; i++) {
        create_error = i == 1 ? EAGAIN : 0;
        do_mysql_check();
    }
    EXPECT_EQ(66, threads);
    EXPECT_EQ("0 MySQL test 1: 64 checks are under way, one more is left out.\n"
              "0 Thread creation Failed, Error: 11, Resource temporarily unavailable\n",
              take_log_text());
    silent = false;
    wait_for_checks();
    take_records(get_mysql_results);
    wake_ups = 0;
    EXPECT_EQ(2u, round().size());
    EXPECT_EQ(1, wake_ups); /* the one that was left out is still new */
}

TEST_F(MysqlChecker, first_results_are_sent_at_once_and_only_they) {
    add(1);
    add(2);
    round();
    EXPECT_EQ(2, wake_ups);
    round();
    EXPECT_EQ(2, wake_ups);
    modify(1);
    refusing = true;
    round();
    EXPECT_EQ(3, wake_ups);
}

TEST_F(MysqlChecker, without_a_thread_nothing_is_reported) {
    create_error = EAGAIN;
    add(1);
    EXPECT_TRUE(round().empty());
    EXPECT_EQ("0 Thread creation Failed, Error: 11, Resource temporarily unavailable\n",
              take_log_text());
    create_error = 0;
    EXPECT_EQ(1u, round().size());
    EXPECT_EQ(0, wake_ups); /* it was started before, as far as the list knows */
}

TEST_F(MysqlChecker, rounds_that_cannot_begin) {
    add(1);
    attr_error = ENOMEM;
    EXPECT_TRUE(round().empty());
    EXPECT_EQ("0 MySQL mmonitoring: Pthread attribute initialization failed. Error: 12, Cannot "
              "allocate memory \n",
              take_log_text());
    attr_error = 0;
    detach_error = EINVAL;
    EXPECT_TRUE(round().empty());
    EXPECT_EQ("0 MySQL mmonitoring: Pthread detach state initialization failed. Error: 22, Invalid "
              "argument\n",
              take_log_text());
    detach_error = 0;
    stack_error = EINVAL;
    EXPECT_TRUE(round().empty());
    EXPECT_EQ("0 MySQL mmonitoring: can not set thread stack size. Error: 22, Invalid argument\n",
              take_log_text());
    stack_error = 0;
    EXPECT_EQ(1u, round().size());
    EXPECT_EQ(1, wake_ups); /* it was still new */
}

TEST_F(MysqlChecker, nothing_to_do) {
    EXPECT_TRUE(round().empty());
    EXPECT_EQ(0, threads);
    EXPECT_EQ("", take_log_text());
}

/* --- the list -------------------------------------------------------------------------------- */

TEST_F(MysqlChecker, list_operations) {
    add(0);
    modify(0);
    modify(1);
    rem_mysqldesc(0);
    rem_mysqldesc(1);
    EXPECT_TRUE(round().empty());
    EXPECT_EQ(1, is_new_mysql(1));
    add(1, nullptr);
    char empty[] = "";
    add(1, empty);
    EXPECT_EQ(1, is_new_mysql(1)) << "nothing to check";
    add(1);
    EXPECT_EQ(0, is_new_mysql(1));
    EXPECT_EQ(1, is_new_mysql(2));
    EXPECT_EQ("", take_log_text());
    rem_mysqldesc(1);
    EXPECT_EQ("5 INFO: rem_mysqldesc. Removed test. tid:1\n", take_log_text());
    EXPECT_EQ(1, is_new_mysql(1));
}

TEST_F(MysqlChecker, a_second_add_changes_nothing) {
    add(1);
    char other[] = "other";
    add_mysqldesc(1, 8, other, 1, other, other, other, other, 1);
    auto records = round();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(9u, records[0].ui32.at(2));
    EXPECT_EQ("db.example 3306 monitor secret -\n", calls);
}

TEST_F(MysqlChecker, what_a_modify_changes) {
    char other[] = "o", socket[] = "/s", names[] = "a|1";
    add(2);
    add_mysqldesc(1, 9, host, 3306, user, pass, socket, uptime, 10);
    host[0] = user[0] = pass[0] = socket[1] = uptime[0] = 'x'; /* the list keeps copies */
    rem_mysqldesc(2);
    EXPECT_EQ("Uptime|150|0;", round().at(0).strings.at(0));
    char empty[] = "";
    modify_mysqldesc(1, 8, other, 5, other, other, empty, names, 1);
    other[0] = names[0] = 'x';
    auto records = round();
    EXPECT_EQ("db.example 3306 monitor secret /s\no 5 o o -\n", calls);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(8u, records[0].ui32.at(2));
    EXPECT_EQ("a| |2;", records[0].strings.at(0));
    EXPECT_EQ(2, wake_ups);
    lock hold(MYSQL_MON_MUTEX);
    EXPECT_EQ(1u, mysql_data_list[0]->tout);
    EXPECT_EQ(1.0, *mysql_data_list[0]->maxValues[0]);
}

TEST_F(MysqlChecker, a_modify_to_nothing) {
    char empty[] = "";
    add(1);
    modify_mysqldesc(1, 9, host, 3306, user, pass, nullptr, empty, 10);
    auto records = round();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(record(0, {}, records[0]), records[0]);
    refusing = true;
    EXPECT_EQ(3u, round().at(0).ui32.at(3));
}

static const int first_interval = get_mysql_check_interval();

TEST_F(MysqlChecker, what_causes_a_round) {
    EXPECT_EQ(31536000, first_interval);
    unsigned before = wakes_of(mysql);
    add(0);
    modify(1);
    rem_mysqldesc(1);
    EXPECT_EQ(before, wakes_of(mysql));
    add(1);
    EXPECT_EQ(before + 1, wakes_of(mysql));
    add(1);
    EXPECT_EQ(before + 1, wakes_of(mysql));
    modify(1);
    EXPECT_EQ(before + 2, wakes_of(mysql));
    rem_mysqldesc(1);
    EXPECT_EQ(before + 2, wakes_of(mysql));
    set_mysql_check_interval(1234);
    EXPECT_EQ(1234, get_mysql_check_interval());
    EXPECT_EQ(before + 3, wakes_of(mysql));
}

/* --- without the library --------------------------------------------------------------------- */

TEST_F(MysqlChecker, without_the_library_every_new_test_is_answered) {
    load_failure = "MySQL: failed on loading libmysqlclient.so, why";
    EXPECT_EQ(0, init_mysql_mon());
    EXPECT_EQ("0 ERROR: init_mysql_lib() failed.\n", take_log_text());
    EXPECT_FALSE(mysql.running);
    unsigned before = wakes_of(mysql);
    time_t now = now_in_seconds();
    add(1);
    add(1);
    modify(1);
    add(0);
    modify(0);
    rem_mysqldesc(1);
    auto records = take_records(get_mysql_results);
    ASSERT_EQ(3u, records.size());
    for (const udc_content& r : records) {
        EXPECT_EQ(record(3, {"Error_Message|" + load_failure + "|3;", load_failure}, r), r);
        EXPECT_EQ(0u, r.ui32.at(4));
        EXPECT_LE(rounded(now), r.i64.at(0));
        EXPECT_GE(rounded(now_in_seconds()), r.i64.at(0));
    }
    char empty[] = "";
    add(2, empty); /* whatever it was to check */
    EXPECT_EQ(1u, take_records(get_mysql_results).size());
    EXPECT_EQ(1, is_new_mysql(1));
    EXPECT_EQ(0, wake_ups);
    EXPECT_EQ(before, wakes_of(mysql));
    shutdown_mysql_checker();
}

TEST_F(MysqlChecker, without_a_worker_every_new_test_is_answered) {
    const std::pair<std::atomic<int>*, const char*> failures[] = {
        {&attr_error, "MySQL monitoring: thread attribute initialization failed."},
        {&stack_error, "MySQL monitoring: can not set thread stack size."},
        {&create_error, "MySQL monitoring: could not create mysql worker thread."},
    };
    for (auto [error, text] : failures) {
        *error = EAGAIN;
        EXPECT_EQ(0, init_mysql_mon());
        *error = 0;
        EXPECT_EQ("0 " + std::string(text) + "\n", take_log_text());
        EXPECT_FALSE(mysql.running);
        add(1);
        auto records = take_records(get_mysql_results);
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ(record(3, {"Error_Message|" + std::string(text) + "|3;", text}, records[0]),
                  records[0]);
        mysql_initialization_status = nullptr;
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(66048u, stack_size);
#endif
    shutdown_mysql_checker();
}

/* --- lifecycle ------------------------------------------------------------------------------- */

/* Everything at once from several threads, with checks in flight; the sanitizers watch. A stop is
 * for good, so it comes last. */
TEST_F(MysqlChecker, z_changes_during_rounds) {
    {
        lock hold(mysql.cond_mutex);
        mysql.stopped = false;
    }
    set_mysql_check_interval(1000);
    ASSERT_EQ(1, init_mysql_mon());
    EXPECT_TRUE(mysql.running) << "there is a thread to join";
    pthread_setname_np(mysql.worker_thread_handle, "worker");
    EXPECT_EQ("", take_log_text());
    std::atomic<bool> stop{false};
    std::thread changes([&] {
        for (int i = 0; i < 300; i++) {
            add(1 + i % 5);
            modify(1 + i % 3);
            rem_mysqldesc(1 + i % 4);
            set_mysql_check_interval(1000 + i);
        }
        stop = true;
    });
    std::thread rounds([&] {
        while (!stop) {
            while (running > 100) {
                std::this_thread::yield();
            }
            do_mysql_check();
        }
    });
    while (!stop) {
        take_records(get_mysql_results);
        get_mysql_check_interval();
    }
    changes.join();
    rounds.join();
    wait_for_checks();
    take_records(get_mysql_results);
    rem_mysqldesc_all();
    EXPECT_TRUE(await_rest("worker"));
    add(7);
    EXPECT_TRUE(eventually([] {
        std::lock_guard hold(calls_mutex);
        return !started.empty() && started.back() == 7;
    })) << "the worker runs a round of its own";
    shutdown_mysql_checker();
    EXPECT_EQ(-1, get_mysql_check_interval());
    EXPECT_EQ(1, is_new_mysql(7));
    wait_for_checks();
    EXPECT_EQ(threads, threads_ended);
}

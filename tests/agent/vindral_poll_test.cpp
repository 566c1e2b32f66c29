/* The poll loop against a scripted exchange: what is sent, what is kept, what is logged. */
#include "fake_core.h"
#include "guards.h"
#include "tls_peer.h"
#include "vindral_common.h"
#include "vindral_config.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/* Every wait of the loop: the seconds it is for, and how it ended (0 by a signal). */
struct loop_wait {
    long seconds;
    long nanoseconds; /* of the deadline */
    int ended;
};
static std::vector<loop_wait> waits;
static bool time_flies = false; /* waits end by time as soon as they have begun */

static std::string batches_seen; /* the answers under way: at a command, at their end, at a wait */
static int open_batches();

static int recorded_wait(condition& c, mutex& m, const timespec& deadline) REQUIRES(m) {
    batches_seen += "wait with " + std::to_string(open_batches()) + "\n";
    waits.push_back({deadline.tv_sec - now_in_seconds(), deadline.tv_nsec, -1});
    int ended = condition_wait_until(c, m, time_flies ? deadline_in(0) : deadline);
    waits.back().ended = ended;
    return ended;
}

/* Whether memory is short for the next appends, one each; there is enough when it is empty. */
static std::deque<bool> no_memory;

static void scarce_append(bdata** to, const char* data, size_t length) {
    bool refused = !no_memory.empty() && no_memory.front();
    if (!no_memory.empty()) {
        no_memory.pop_front();
    }
    if (!refused) {
        bdata_append(to, data, length);
    }
}

#define condition_wait_until recorded_wait
#define bdata_append scarce_append
#include "vindral_poll.cpp"
#undef bdata_append
#undef condition_wait_until

/* The end of a batch, and whether the loop had the mutex of its wait by then. */
static int recorded_broadcast(pthread_cond_t* cond) {
    bool waiting_next = pthread_mutex_trylock(&poll_cond_mutex.handle) == EBUSY;
    if (!waiting_next) {
        pthread_mutex_unlock(&poll_cond_mutex.handle);
    }
    batches_seen += waiting_next ? "end before a wait\n" : "end\n";
    return pthread_cond_broadcast(cond);
}
#define pthread_cond_broadcast recorded_broadcast
#include "checker.cpp"
#undef pthread_cond_broadcast

static int open_batches() {
    lock hold(batch_mutex);
    return batches;
}

static const int authorized_at_start = isAuthorized;
static const int interval_at_start = get_poll_interval();

namespace {

/* One step of the script: the code that make_poll returns, the reply, and what the loop is to find
 * afterwards. */
struct answer {
    int code;
    std::string reply;
    size_t length;
};

std::mutex script_mutex;
std::deque<answer> script;
std::vector<std::string> sent; /* "(none)" for a poll without data */
std::string commands;
std::deque<std::string> checker_results; /* handed over by the one source that has any, in turn */
std::atomic<int> disk_tests{0};
std::vector<size_t> fresh_in; /* polls, from 1 on, during which results become ready */

} // namespace

int make_poll(const char* data, unsigned long size, char** reply, size_t* length) {
    std::lock_guard hold(script_mutex);
    EXPECT_EQ(data == nullptr, size == 0);
    sent.push_back(data == nullptr ? "(none)" : std::string(data, size));
    *reply = nullptr;
    *length = 0;
    if (std::find(fresh_in.begin(), fresh_in.end(), sent.size()) != fresh_in.end()) {
        fresh_results();
    }
    if (script.empty()) {
        set_poll_interval(-1);
        return 99;
    }
    answer next = script.front();
    script.pop_front();
    if (!next.reply.empty()) {
        *reply = strdup(next.reply.c_str());
        *length = next.length != 0 ? next.length : next.reply.size();
    }
    /* The next turn comes at once: the loop's wait is a second or more otherwise. */
    return next.code;
}

void parse_data(char* sdata) {
    commands += std::string(sdata) + "|";
    batches_seen += "command with " + std::to_string(open_batches()) + "\n";
    leveledadd2log(9, "parse_data");
    if (strcmp(sdata, "cancel") == 0) {
        pthread_cancel(pthread_self());
        cancel_on may_end;
        pthread_testcancel();
    }
    if (int seconds = atoi(sdata)) {
        set_poll_interval(seconds);
    }
}

static int has_results(char** buffer, int* size) {
    if (checker_results.empty()) {
        return 0;
    }
    *buffer = strdup(checker_results.front().c_str());
    *size = static_cast<int>(checker_results.front().size());
    checker_results.pop_front();
    return 1;
}
static int has_none(char**, int*) {
    return 0;
}

const result_source result_sources[] = {{has_none, "get_none"},
                                        {has_results, "get_first_results"},
                                        {has_results, "get_second_results"}};
const size_t result_source_count = 3;

int get_disk_test_results(test_result*** results, int* res_count) {
    if (disk_tests == 0) {
        *results = nullptr;
        *res_count = 0;
        return 0;
    }
    *res_count = disk_tests;
    *results =
        static_cast<test_result**>(calloc(static_cast<size_t>(disk_tests), sizeof(test_result*)));
    for (int i = 0; i < disk_tests; i++) {
        (*results)[i] = static_cast<test_result*>(calloc(1, sizeof(test_result)));
        (*results)[i]->test_id = 40 + i;
        (*results)[i]->check_time = 1000;
        (*results)[i]->test_data = i == 0 ? nullptr : strdup("status:0");
    }
    return 1;
}

namespace {

class PollLoop : public testing::Test {
protected:
    void SetUp() override {
        script.clear();
        sent.clear();
        commands.clear();
        batches_seen.clear();
        checker_results.clear();
        fresh_in.clear();
        waits.clear();
        time_flies = false;
        isAuthorized = 0;
        free_cache_copy();
        set_poll_interval(60);
        take_log();
    }
    void TearDown() override { free_cache_copy(); }

    /* Runs the loop until the script is used up, waking it out of every wait. */
    void run() {
        std::atomic<bool> ended{false};
        std::thread waker([&] {
            while (!ended) {
                send_pending_data();
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        main_worker_thread(nullptr);
        ended = true;
        waker.join();
    }

    /* The second may have turned between the two looks at the clock. */
    static void expect_waits(const std::vector<long>& seconds) {
        ASSERT_EQ(seconds.size(), waits.size());
        for (size_t i = 0; i < seconds.size(); i++) {
            EXPECT_LE(waits[i].seconds, seconds[i]) << i;
            EXPECT_GE(waits[i].seconds, seconds[i] - 1) << i;
            EXPECT_EQ(0, waits[i].nanoseconds);
        }
    }
};

const std::string LOGGED_IN = "0 Authorization was successfully completed.\n";
std::string result_line(int code) {
    return "5 INFO: main_worker_thread::make_poll result: " + std::to_string(code) + "\n";
}
const std::string COLLECT = "2 INFO: Collecting results...\n";
const std::string EMPTY = "2 INFO: data cache is empty\n";

} // namespace

TEST_F(PollLoop, login_then_results_then_nothing) {
    script = {{1, "POL\t0\t5", 0}, {1, "", 0}};
    checker_results = {"first", "second"};
    run();
    EXPECT_EQ((std::vector<std::string>{"(none)", "firstsecond", "(none)"}), sent);
    EXPECT_EQ("POL\t0\t5|", commands);
    EXPECT_EQ(result_line(1) + "9 parse_data\n" + LOGGED_IN + COLLECT +
                  "3 INFO: collect_result::get_first_results data size: 5\n"
                  "3 INFO: collect_result::get_second_results data size: 6\n"
                  "2 INFO: data cache size: 11\n" +
                  result_line(1) + COLLECT + EMPTY + result_line(99),
              take_log_text());
    EXPECT_EQ(nullptr, data_cache_copy);
}

TEST_F(PollLoop, results_that_find_no_memory_go_with_the_next_block) {
    script = {{1, "", 0}, {1, "", 0}, {1, "", 0}, {1, "", 0}};
    checker_results = {"first", "second", "third"};
    no_memory = {false, true, true}; /* also when "second" is tried again */
    run();
    EXPECT_EQ((std::vector<std::string>{"(none)", "first", "(none)", "secondthird", "(none)"}),
              sent);
}

TEST_F(PollLoop, results_that_find_no_memory_beside_a_pending_block_stay) {
    char first[] = "first", second[] = "second";
    add_to_cache(first, 5);
    EXPECT_EQ(std::string(get_cache_copy()->data_buffer, 5), "first");
    add_to_cache(second, 6);
    no_memory = {true};
    EXPECT_EQ(get_cache_copy()->data_size, 5u);
    EXPECT_EQ(get_cache_copy()->data_size, 11u);
    EXPECT_EQ(get_cache_copy()->data_size, 11u) << "once";
}

TEST_F(PollLoop, a_block_is_sent_again_until_it_is_accepted) {
    script = {{1, "", 0}, {2, "", 0}, {4, "", 0}, {3, "", 0}, {2, "", 0}, {1, "", 0}, {1, "", 0}};
    checker_results = {"block", "", "later", ""};
    run();
    EXPECT_EQ((std::vector<std::string>{"(none)", "block", "block", "block", "(none)", "(none)",
                                        "block", "later"}),
              sent);
    EXPECT_EQ(
        result_line(1) + LOGGED_IN + COLLECT +
            "3 INFO: collect_result::get_first_results data size: 5\n"
            "3 INFO: collect_result::get_second_results data size: 0\n"
            "2 INFO: data cache size: 5\n" +
            result_line(2) + "-1 Unable to establish connection to the server.\n" + result_line(4) +
            "-1 There is an internal error occurred, while trying to connect to the server.\n" +
            result_line(3) + "-1 Reauthorization is required.\n" + result_line(2) +
            "-1 Unable to establish connection to the server.\n" + result_line(1) + LOGGED_IN +
            result_line(1) + COLLECT +
            "3 INFO: collect_result::get_first_results data size: 5\n"
            "3 INFO: collect_result::get_second_results data size: 0\n"
            "2 INFO: data cache size: 5\n" +
            result_line(99),
        take_log_text());
}

TEST_F(PollLoop, refused_ends_the_loop_after_the_wait) {
    script = {{0, "", 0}, {1, "", 0}};
    run();
    EXPECT_EQ(1u, sent.size());
    EXPECT_EQ(-1, get_poll_interval());
    expect_waits({60});
    EXPECT_EQ(0, waits[0].ended); /* cut short by a checker */
    EXPECT_EQ(result_line(0) + "-1 Authorization failed, Vindral Smart Agent will be terminated.\n",
              take_log_text());
}

TEST_F(PollLoop, a_loop_that_is_told_to_stop_does_not_poll) {
    set_poll_interval(-1);
    run();
    EXPECT_TRUE(sent.empty());
}

TEST_F(PollLoop, a_reply_of_length_zero_runs_no_commands) {
    script = {{1, "", 0}, {1, "LAA", 0}};
    run();
    EXPECT_EQ("LAA|", commands);
    char text[] = "LAA";
    act_on(POLL_OK, text, 0, 60);
    EXPECT_EQ("LAA|", commands);
}

TEST_F(PollLoop, an_unknown_result_changes_nothing) {
    isAuthorized = 1;
    checker_results = {"x", ""};
    script = {{7, "LAA", 0}, {1, "", 0}};
    run();
    EXPECT_EQ((std::vector<std::string>{"x", "x", "(none)"}), sent);
    EXPECT_EQ("", commands);
}

TEST_F(PollLoop, first_wait_after_a_login_is_a_second_later_ones_the_interval) {
    EXPECT_EQ(1, act_on(POLL_OK, nullptr, 0, 60));
    EXPECT_EQ(1, isAuthorized);
    EXPECT_EQ(60, act_on(POLL_OK, nullptr, 0, 60));
    EXPECT_EQ(60, act_on(POLL_NO_CONNECTION, nullptr, 0, 60));
    EXPECT_EQ(1, isAuthorized);
    EXPECT_EQ(60, act_on(POLL_INTERNAL_ERROR, nullptr, 0, 60));
    EXPECT_EQ(1, act_on(POLL_LOGIN_AGAIN, nullptr, 0, 60));
    EXPECT_EQ(0, isAuthorized);
    isAuthorized = 1;
    EXPECT_EQ(60, act_on(POLL_REFUSED, nullptr, 0, 60));
    EXPECT_EQ(0, isAuthorized);
    EXPECT_EQ(60, act_on(99, nullptr, 0, 60));
}

TEST_F(PollLoop, starts_unauthorised_with_an_interval_of_a_minute) {
    EXPECT_EQ(0, authorized_at_start);
    EXPECT_EQ(60, interval_at_start);
}

/* An interval that the reply sets counts from the next turn on. */
TEST_F(PollLoop, waits_for_the_interval_that_its_turn_began_with) {
    script = {{1, "500", 0}, {1, "400", 0}, {2, "", 0}, {3, "", 0}, {1, "", 0}};
    run();
    expect_waits({1, 500, 400, 1, 1, 400});
}

TEST_F(PollLoop, a_negative_interval_is_no_flood_of_polls) {
    isAuthorized = 1;
    script = {{1, "-7", 0}, {1, "", 0}};
    run();
    expect_waits({60, 1, 1});
}

TEST_F(PollLoop, a_wait_ends_by_time_or_by_a_signal_sent_meanwhile) {
    time_flies = true;
    send_pending_data(); /* nobody is waiting: lost */
    command_batch commands;
    wait_for_next_poll(3600, true, commands);
    expect_waits({3600});
    EXPECT_EQ(ETIMEDOUT, waits[0].ended);
    time_flies = false;
    std::thread waker([] {
        for (bool waiting = false; !waiting; usleep(1000)) {
            lock hold(poll_cond_mutex);
            waiting = waits.size() == 2;
        }
        send_pending_data();
    });
    wait_for_next_poll(3600, true, commands);
    waker.join();
    EXPECT_EQ(0, waits[1].ended);
}

/* A worker that a command woke runs its pass when the batch has ended. It signals with the mutex of
 * the loop's wait, so it does that when the loop waits, and never before. */
TEST_F(PollLoop, the_commands_of_an_answer_end_where_the_wait_begins) {
    script = {{1, "POL\t0\t5", 0}, {2, "", 0}};
    run();
    const std::string end = "end before a wait\nwait with 0\n";
    EXPECT_EQ("command with 1\n" + end + end + end, batches_seen);
}

TEST_F(PollLoop, cancelled_between_two_commands_it_ends_their_batch) {
    script = {{1, "cancel", 0}};
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, main_worker_thread, nullptr));
    void* ended = nullptr;
    pthread_join(thread, &ended);
    EXPECT_EQ(PTHREAD_CANCELED, ended);
    EXPECT_EQ("command with 1\nend\n", batches_seen);
    EXPECT_EQ(0, open_batches());
}

/* Their signal finds nobody waiting. */
TEST_F(PollLoop, it_does_not_wait_while_fresh_results_stay_behind) {
    script = {{1, "", 0}, {1, "", 0}, {1, "", 0}, {1, "", 0}};
    fresh_in = {2};
    checker_results = {"first", "", "second", ""};
    run();
    EXPECT_EQ((std::vector<std::string>{"(none)", "first", "second", "(none)", "(none)"}), sent);
    const std::string end = "end before a wait\n", wait = "wait with 0\n";
    EXPECT_EQ(end + wait + end + end + wait + end + wait + end + wait, batches_seen);
    expect_waits({1, 60, 60, 60});
}

/* No flood of polls when the server is away; they go when the block before them has gone. */
TEST_F(PollLoop, fresh_results_behind_a_block_wait_with_it) {
    script = {{1, "", 0}, {2, "", 0}, {2, "", 0}, {1, "", 0}, {1, "", 0}};
    fresh_in = {2};
    checker_results = {"block", "", "fresh", ""};
    run();
    EXPECT_EQ((std::vector<std::string>{"(none)", "block", "block", "block", "fresh", "(none)"}),
              sent);
    expect_waits({1, 60, 60, 60, 60});
}

TEST_F(PollLoop, fresh_results_of_a_login_go_with_the_next_poll) {
    script = {{1, "", 0}, {3, "", 0}, {1, "", 0}, {1, "", 0}};
    fresh_in = {2, 3};
    run();
    EXPECT_EQ(5u, sent.size());
    expect_waits({1, 1, 1, 60, 60});
}

TEST_F(PollLoop, cancelled_in_its_wait_it_leaves_no_lock_behind) {
    script = {{1, "", 0}};
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, main_worker_thread, nullptr));
    while ([] {
        std::lock_guard hold(script_mutex);
        return sent.empty();
    }()) {
        usleep(1000);
    }
    pthread_cancel(thread);
    void* ended = nullptr;
    pthread_join(thread, &ended);
    EXPECT_EQ(PTHREAD_CANCELED, ended);
    EXPECT_EQ(0, pthread_mutex_trylock(&poll_cond_mutex.handle));
    pthread_mutex_unlock(&poll_cond_mutex.handle);
}

TEST_F(PollLoop, cache_ignores_nothing) {
    char text[] = "abc";
    add_to_cache(nullptr, 3);
    add_to_cache(text, 0);
    EXPECT_EQ(nullptr, data_cache);
    EXPECT_EQ(nullptr, get_cache_copy());
    add_to_cache(text, 3);
    ASSERT_NE(nullptr, data_cache);
    add_to_cache(text, 2);
    const bdata* copy = get_cache_copy();
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ("abcab", std::string(copy->data_buffer, copy->data_size));
    EXPECT_EQ(nullptr, data_cache);
    add_to_cache(text, 1);
    copy = get_cache_copy();
    EXPECT_EQ("abcaba", std::string(copy->data_buffer, copy->data_size));
    free_cache_copy();
    EXPECT_EQ(nullptr, data_cache_copy);
}

/* --- stored text results and the custom-monitor API ------------------------------------------ */

static const peer::step STATUS =
    peer::send("HTTP/1.0 200 OK\r\nContent-Length: 13\r\n\r\n\"status\":\"ok\"");

class SendResults : public PollLoop {
protected:
    void SetUp() override {
        PollLoop::SetUp();
        free(auth_token);
        auth_token = strdup("T0K");
    }
    void TearDown() override {
        disk_tests = 0;
        free(auth_token);
        auth_token = api_server = api_port = data_server = data_port = nullptr;
        PollLoop::TearDown();
    }

    /* Posts `count` stored results to the server; what is logged up to level 4 is returned. */
    static std::string post(int count, const tls_peer& server) {
        static char loopback[] = "127.0.0.1";
        api_server = data_server = loopback;
        api_port = data_port = const_cast<char*>(server.port());
        disk_tests = count;
        send_results();
        std::string log;
        for (const logged_line& line : take_log()) {
            if (line.level < 5) {
                log += std::to_string(line.level) + " " + line.text + "\n";
            }
        }
        return log;
    }
};

TEST_F(SendResults, nothing_is_stored) {
    send_results();
    EXPECT_EQ("4 INFO: starting send_results.\n4 INFO: send_results finished.\n", take_log_text());
}

TEST_F(SendResults, one_is_posted) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), STATUS, peer::take_rest()}});
    EXPECT_EQ("4 INFO: starting send_results.\n"
              "3 INFO: send_results::get_disk_test_results count: 1\n"
              "1 INFO: send_data: status token: ok.\n"
              "1 INFO: send_results returned 1\n"
              "4 INFO: send_results finished.\n",
              post(1, server));
    EXPECT_TRUE(server.await_end());
    EXPECT_NE(std::string::npos,
              server.request(0).find("&action=addResult&monitorId=40&checktime=1000 HTTP/1.0\r\n"));
}

/* The second fails and is dropped with the first. */
TEST_F(SendResults, of_two_the_first_is_posted) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), STATUS, peer::take_rest()}});
    EXPECT_EQ("4 INFO: starting send_results.\n"
              "3 INFO: send_results::get_disk_test_results count: 2\n"
              "1 INFO: send_data: status token: ok.\n"
              "0 ERROR: send_request: select failed with errno: 9, Bad file descriptor\n"
              "0 ERROR: send_data: send_request() failed. retVal:0\n"
              "1 INFO: send_results returned 1\n"
              "4 INFO: send_results finished.\n",
              post(2, server));
    EXPECT_TRUE(server.await_end());
    EXPECT_NE(std::string::npos, server.request(0).find("&monitorId=40&"));
}

TEST_F(SendResults, fetches_a_token_once) {
    free(auth_token);
    auth_token = nullptr;
    peer::step token =
        peer::send("HTTP/1.0 200 OK\r\nContent-Length: 17\r\n\r\n\"authToken\":\"NEW\"");
    tls_peer server(tls_peer::tcp, {{peer::take_request(), token, peer::take_rest()},
                                    {peer::take_request(), STATUS, peer::take_rest()},
                                    {peer::take_request(), STATUS, peer::take_rest()}});
    post(1, server);
    post(1, server);
    EXPECT_TRUE(server.await_end());
    EXPECT_EQ(0u, server.request(0).find("GET /api?action=authToken&"));
    for (size_t i : {1, 2}) {
        EXPECT_EQ(0u, server.request(i).find("POST /customMonitorApi?")) << i;
        EXPECT_NE(std::string::npos, server.request(i).find("&authToken=NEW&")) << i;
    }
}

TEST_F(SendResults, without_a_status_all_are_dropped) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::end_clean()}});
    EXPECT_EQ("4 INFO: starting send_results.\n"
              "3 INFO: send_results::get_disk_test_results count: 2\n"
              "0 ERROR: send_data: No content received\n"
              "1 INFO: send_results returned 0\n"
              "4 INFO: send_results finished.\n",
              post(2, server));
}

TEST_F(SendResults, frees_arrays_of_any_length) {
    free_results(nullptr, 0);
    free_results(static_cast<test_result**>(malloc(8)), 0);
    free_results(static_cast<test_result**>(malloc(8)), -1);
    free_results(static_cast<test_result**>(calloc(2, sizeof(test_result*))), 2);
}

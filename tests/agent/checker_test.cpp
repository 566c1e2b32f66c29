/* The shared lifecycle: waking, intervals, stopping, hand-over, lists. */
#include "checker.cpp"

#include "eventually.h"
#include "fake_core.h"
#include "thread_library.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore>
#include <string>
#include <thread>

namespace {

std::atomic<int> passes{0};
std::atomic<bool> hold_pass{false};
std::function<void()> in_pass;

void counting_pass() {
    if (in_pass) {
        in_pass();
    }
    passes++;
    while (hold_pass) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

checker* current;
void* worker(void*) {
    checker_work(*current);
    return nullptr;
}

/* A fresh checker per test: static state would remember the last one's stop. */
class CheckerTest : public testing::Test {
protected:
    checker c{.thread_name = "test",
              .pass = counting_pass,
              .attr_message = "no attributes",
              .stack_message = "no stack"};

    void SetUp() override {
        passes = 0;
        hold_pass = false;
        in_pass = nullptr;
        current = &c;
    }
    void start() { ASSERT_EQ(1, checker_start(c, worker)); }
    void TearDown() override {
        hold_pass = false;
        checker_stop(c);
        char* left = nullptr;
        int size = 0;
        if (checker_get_results(c, &left, &size)) {
            free(left);
        }
    }

    /* A signal that comes before the worker waits for the first time may be lost by design. */
    void wake_until_pass(int wanted) {
        ASSERT_TRUE(eventually([&] {
            if (passes < wanted) {
                checker_wake(c);
            }
            return passes >= wanted;
        }));
    }
};

} // namespace

TEST_F(CheckerTest, nothing_runs_before_the_first_wake_up) {
    EXPECT_EQ(31536000, checker_get_interval(c));
    start();
    EXPECT_EQ(0, passes);
    wake_until_pass(1);
}

TEST_F(CheckerTest, setting_the_interval_runs_a_pass_at_once) {
    start();
    wake_until_pass(1);
    int before = passes;
    ASSERT_TRUE(eventually([&] {
        if (passes == before) {
            checker_set_interval(c, 1000);
        }
        return passes > before;
    }));
    EXPECT_EQ(1000, checker_get_interval(c));
}

TEST_F(CheckerTest, a_short_interval_repeats_the_pass) {
    start();
    checker_set_interval(c, 1);
    EXPECT_TRUE(eventually([] { return passes >= 3; }));
}

TEST_F(CheckerTest, a_negative_interval_is_no_stop) {
    checker_set_interval(c, -5);
    EXPECT_EQ(turn::PASS, wait_for_turn(c, false));
}

TEST_F(CheckerTest, one_wake_up_is_one_pass) {
    start();
    checker_wake(c);
    ASSERT_TRUE(eventually([] { return passes > 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(1, passes);
}

TEST_F(CheckerTest, a_pass_on_the_interval_only) {
    c.pass_on_interval_only = true;
    start();
    for (int i = 0; i < 50; i++) {
        checker_wake(c);
        checker_set_interval(c, 1000);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(0, passes);
    checker_set_interval(c, 1);
    EXPECT_TRUE(eventually([] { return passes >= 1; }));
}

TEST_F(CheckerTest, commands_of_one_batch_are_one_pass) {
    start();
    {
        command_batch batch, nested;
        time_t before_batch = time(nullptr);
        for (int i = 0; i < 3; i++) {
            checker_wake(c);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (time(nullptr) == before_batch) {
            EXPECT_EQ(0, passes);
        }
    }
    ASSERT_TRUE(eventually([] { return passes > 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(1, passes);
}

TEST_F(CheckerTest, a_batch_without_end_holds_up_nobody) {
    start();
    command_batch batch;
    checker_wake(c);
    EXPECT_TRUE(eventually([] { return passes > 0; }));
}

TEST(Deadline, is_a_whole_second_of_the_wall_clock) {
    timespec before, after;
    clock_gettime(CLOCK_REALTIME, &before);
    timespec deadline = deadline_in(5);
    clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_EQ(0, deadline.tv_nsec);
    EXPECT_LE(before.tv_sec + 5, deadline.tv_sec);
    EXPECT_GE(after.tv_sec + 5, deadline.tv_sec);
}

TEST_F(CheckerTest, minus_one_ends_the_worker_for_good) {
    start();
    checker_set_interval(c, -1);
    checker_set_interval(c, 1);
    pthread_join(c.worker_thread_handle, nullptr);
    c.running = false;
    EXPECT_EQ(0, passes);
}

TEST_F(CheckerTest, a_stop_before_a_wait_is_not_lost) {
    checker_set_interval(c, -1);
    EXPECT_EQ(turn::STOPPED, wait_for_turn(c, true));
    EXPECT_EQ(turn::STOPPED, wait_for_turn(c, false));
}

TEST_F(CheckerTest, an_interval_set_before_the_first_wait_is_not_waited_out) {
    checker_set_interval(c, 1000);
    EXPECT_EQ(turn::PASS, wait_for_turn(c, true));
    c.pass_on_interval_only = true;
    EXPECT_EQ(turn::ANOTHER_WAIT, wait_for_turn(c, true));
}

TEST_F(CheckerTest, a_stop_is_remembered_even_when_the_interval_is_set_again) {
    checker_set_interval(c, -1);
    checker_set_interval(c, 5);
    EXPECT_EQ(turn::STOPPED, wait_for_turn(c, false));
}

TEST_F(CheckerTest, a_stop_and_a_new_interval_in_one_batch_are_a_stop) {
    start();
    wake_until_pass(1);
    int before = passes;
    {
        command_batch batch;
        checker_wake(c);
        checker_set_interval(c, -1);
        checker_set_interval(c, 5);
    }
    pthread_join(c.worker_thread_handle, nullptr);
    c.running = false;
    EXPECT_EQ(before, passes);
}

namespace {
bool is_readable(int fd) {
    pollfd readable = {fd, POLLIN, 0};
    return poll(&readable, 1, 0) == 1 && readable.revents == POLLIN;
}
} // namespace

TEST_F(CheckerTest, a_stop_is_seen_by_whoever_waits_for_others) {
    int fd = checker_stop_fd(c);
    EXPECT_EQ(fd, checker_stop_fd(c));
    checker_set_interval(c, 5);
    EXPECT_FALSE(checker_stopped(c));
    EXPECT_FALSE(is_readable(fd));
    checker_set_interval(c, -1);
    checker_set_interval(c, -1);
    checker_set_interval(c, 5);
    EXPECT_TRUE(checker_stopped(c));
    EXPECT_TRUE(is_readable(fd));
    EXPECT_EQ(fd, checker_stop_fd(c));
}

TEST_F(CheckerTest, a_stop_that_came_earlier_is_seen) {
    checker_set_interval(c, -1);
    EXPECT_TRUE(is_readable(checker_stop_fd(c)));
}

TEST_F(CheckerTest, a_stop_in_a_pass_is_seen_there) {
    std::atomic<int> seen{-1};
    in_pass = [&] {
        pollfd waited = {checker_stop_fd(c), POLLIN, 0};
        seen = -2;
        seen = poll(&waited, 1, 60000);
    };
    start();
    checker_wake(c);
    ASSERT_TRUE(eventually([&] { return seen != -1; }));
    checker_stop(c);
    EXPECT_EQ(1, seen);
    lock hold(c.cond_mutex);
    EXPECT_EQ(-1, c.stop_fd); /* closed with the worker's end */
}

TEST_F(CheckerTest, a_young_worker_stops_at_every_moment) {
    for (int i = 0; i < 300; i++) {
        checker young{.pass = counting_pass, .attr_message = "", .stack_message = ""};
        current = &young;
        ASSERT_EQ(1, checker_start(young, worker));
        std::this_thread::sleep_for(std::chrono::microseconds(i % 50));
        checker_stop(young);
    }
    current = &c;
}

TEST_F(CheckerTest, a_stop_after_each_pass_returns_wherever_the_worker_is) {
    for (int i = 0; i < 200; i++) {
        checker busy{.pass = counting_pass, .attr_message = "", .stack_message = ""};
        current = &busy;
        ASSERT_EQ(1, checker_start(busy, worker));
        passes = 0;
        ASSERT_TRUE(eventually([&] {
            if (passes == 0) {
                checker_wake(busy);
            }
            return passes > 0;
        }));
        checker_stop(busy); /* the worker is somewhere between the pass and the next wait */
    }
    current = &c;
}

TEST_F(CheckerTest, a_signal_before_the_first_wait_is_not_lost) {
    for (int i = 0; i < 100; i++) {
        checker young{.pass = counting_pass, .attr_message = "", .stack_message = ""};
        current = &young;
        passes = 0;
        ASSERT_EQ(1, checker_start(young, worker));
        checker_wake(young); /* most often before the thread has come to its first wait */
        EXPECT_TRUE(eventually([] { return passes > 0; }));
        checker_stop(young);
    }
    current = &c;
}

TEST_F(CheckerTest, stop_waits_for_a_running_pass_and_starts_no_other) {
    start();
    hold_pass = true;
    wake_until_pass(1);
    std::binary_semaphore stopped(0);
    std::thread stopper([&] {
        checker_stop(c);
        stopped.release();
    });
    EXPECT_FALSE(stopped.try_acquire_for(std::chrono::milliseconds(50)));
    hold_pass = false;
    stopper.join();
    EXPECT_EQ(1, passes);
}

TEST_F(CheckerTest, a_wake_up_during_a_pass_is_lost) {
    start();
    std::atomic<int> woken{0};
    in_pass = [&] {
        checker_wake(c);
        woken++;
    };
    wake_until_pass(1);
    /* A wake-up that was kept would give pass after pass, each waking the next. */
    int before = passes;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LE(passes, before + 1);
}

TEST_F(CheckerTest, interval_of_a_checker_that_never_ran_is_harmless) {
    checker_set_interval(c, 5);
    EXPECT_EQ(5, checker_get_interval(c));
    checker_stop(c);
    checker_set_interval(c, 7);
    checker_wake(c);
}

TEST_F(CheckerTest, stopped_twice_and_woken_afterwards) {
    start();
    checker_add_result(c, "abc", 3);
    checker_stop(c);
    checker_stop(c);
    checker_wake(c);
    EXPECT_EQ(0, passes);
    EXPECT_EQ(-1, checker_get_interval(c));
    lock hold(c.result_mutex);
    EXPECT_EQ(3, c.result_buffer_len); /* what was not collected is still there */
}

TEST_F(CheckerTest, results_are_handed_over_whole) {
    checker_add_result(c, "abc", 3);
    checker_add_result(c, "", 0);
    checker_add_result(c, "x", -1);
    checker_add_result(c, "de", 2);
    char* data = nullptr;
    int size = 0;
    ASSERT_EQ(1, checker_get_results(c, &data, &size));
    EXPECT_EQ("abcde", std::string(data, static_cast<size_t>(size)));
    free(data);
    data = reinterpret_cast<char*>(&size);
    size = 77;
    EXPECT_EQ(0, checker_get_results(c, &data, &size));
    EXPECT_EQ(77, size);
    EXPECT_EQ(reinterpret_cast<char*>(&size), data);
}

TEST_F(CheckerTest, results_outlive_the_worker) {
    start();
    checker_add_result(c, "abc", 3);
    checker_stop(c);
    char* data = nullptr;
    int size = 0;
    ASSERT_EQ(1, checker_get_results(c, &data, &size));
    EXPECT_EQ(3, size);
    free(data);
}

TEST_F(CheckerTest, results_beyond_the_length_of_an_int_are_dropped) {
    checker_add_result(c, "abc", 3);
    {
        lock hold(c.result_mutex);
        c.result_buffer_len = INT32_MAX - 2;
    }
    checker_add_result(c, "abc", 3);
    lock hold(c.result_mutex);
    EXPECT_EQ(INT32_MAX - 2, c.result_buffer_len);
    c.result_buffer_len = 3;
}

TEST_F(CheckerTest, failures_to_start) {
    take_log();
    thread_library::attr_error = ENOMEM;
    EXPECT_EQ(0, checker_start(c, worker));
    EXPECT_EQ("0 no attributes\n", take_log_text());
    thread_library::attr_error = 0;
    thread_library::stack_error = EINVAL;
    EXPECT_EQ(0, checker_start(c, worker));
    EXPECT_EQ("0 no stack\n", take_log_text());
    thread_library::stack_error = 0;
    thread_library::create_error = EAGAIN;
    EXPECT_EQ(0, checker_start(c, worker));
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ(WORKER_STACK_SIZE, thread_library::stack_asked);
    thread_library::reset();
    checker_set_interval(c, 3); /* CHK reaches it all the same */
    EXPECT_EQ(3, checker_get_interval(c));
    checker_stop(c); /* nothing to join */
}

TEST(CopyText, none_for_null_and_empty) {
    EXPECT_EQ(nullptr, copy_text(nullptr));
    EXPECT_EQ(nullptr, copy_text(""));
    char* copy = copy_text("host");
    EXPECT_STREQ("host", copy);
    free(copy);
}

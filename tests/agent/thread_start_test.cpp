/* Threads by description: what they get, what is logged when one is refused, what is given back. */
#include "thread_library.h"

#include <cerrno>
#include <cstdarg>
#include <gtest/gtest.h>
#include <semaphore>
#include <string>

namespace {

std::string lines; /* logged since the last start, "LEVEL text" each */

void keep_line(int level, const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    lines += std::to_string(level) + " " + text + "\n";
}

constexpr thread_kind TALKATIVE = {.detached = true,
                                   .log = keep_line,
                                   .log_level = -1,
                                   .attr_message = "no attributes",
                                   .detach_message = "not detached: %d",
                                   .stack_message = "stack: %d, %s ",
                                   .create_message = "no thread: %d, %s"};
constexpr thread_kind SILENT = {.detached = true, .log = keep_line};
constexpr thread_kind MUTE = {.detached = true, .create_message = "nobody hears this"};

class ThreadStart : public testing::Test {
protected:
    void SetUp() override {
        thread_library::reset();
        lines.clear();
    }
    void TearDown() override {
        thread_library::reset();
        EXPECT_EQ(0, thread_library::attributes_held);
    }
};

std::binary_semaphore thread_ran{0};

void* run_detached(void* arg) {
    *static_cast<int*>(arg) = 7;
    thread_ran.release();
    return nullptr;
}

void* return_argument(void* arg) {
    return arg;
}

void* own_name(void* name) {
    thread_ran.acquire(); /* when it has been given */
    pthread_getname_np(pthread_self(), static_cast<char*>(name), 16);
    return nullptr;
}

} // namespace

TEST_F(ThreadStart, a_joinable_thread_has_its_stack_and_a_handle) {
    static constexpr thread_kind KIND = {.stack_size = 2 * WORKER_STACK_SIZE};
    int given = 0;
    pthread_t thread;
    ASSERT_EQ(0, thread_start(KIND, return_argument, &given, &thread));
    void* returned = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &returned));
    EXPECT_EQ(&given, returned);
    EXPECT_EQ(2 * WORKER_STACK_SIZE, thread_library::stack_size);
    EXPECT_EQ(PTHREAD_CREATE_JOINABLE, thread_library::detach_state);
}

TEST_F(ThreadStart, a_joinable_thread_is_named) {
    static constexpr thread_kind KIND = {.name = "fifteen letters"};
    char name[16] = "";
    pthread_t thread;
    ASSERT_EQ(0, thread_start(KIND, own_name, name, &thread));
    thread_ran.release();
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_STREQ("fifteen letters", name);
}

TEST_F(ThreadStart, a_thread_without_a_name_has_its_starters) {
    char mine[16] = "", name[16] = "";
    pthread_getname_np(pthread_self(), mine, sizeof mine);
    pthread_t thread;
    ASSERT_EQ(0, thread_start({}, own_name, name, &thread));
    thread_ran.release();
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_STREQ(mine, name);
}

TEST_F(ThreadStart, a_detached_thread_needs_no_handle) {
    int ran = 0;
    ASSERT_EQ(0, thread_start(TALKATIVE, run_detached, &ran));
    thread_ran.acquire();
    EXPECT_EQ(7, ran);
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, thread_library::detach_state);
    EXPECT_EQ(WORKER_STACK_SIZE, thread_library::stack_size);
    EXPECT_EQ("", lines);
}

TEST_F(ThreadStart, no_size_is_the_default_of_the_process) {
    static constexpr thread_kind KIND = {.stack_size = 0};
    pthread_attr_t attributes;
    size_t usual = 0;
    pthread_attr_init(&attributes);
    pthread_attr_getstacksize(&attributes, &usual);
    pthread_attr_destroy(&attributes);
    thread_library::stack_error = EINVAL; /* nobody asks */
    pthread_t thread;
    ASSERT_EQ(0, thread_start(KIND, return_argument, nullptr, &thread));
    pthread_join(thread, nullptr);
    EXPECT_EQ(usual, thread_library::stack_size);
}

TEST_F(ThreadStart, each_failure_has_its_error_and_its_message) {
    const struct {
        std::atomic<int>& error;
        int code;
        std::string line;
    } rows[] = {
        {thread_library::attr_error, ENOMEM, "-1 no attributes\n"},
        {thread_library::detach_error, EINVAL, "-1 not detached: 22\n"},
        {thread_library::stack_error, EINVAL, "-1 stack: 22, Invalid argument \n"},
        {thread_library::create_error, EAGAIN,
         "-1 no thread: 11, Resource temporarily unavailable\n"},
    };
    for (const auto& row : rows) {
        thread_library::reset();
        row.error = row.code;
        for (const thread_kind* kind : {&TALKATIVE, &SILENT, &MUTE}) {
            lines.clear();
            pthread_t untouched = 42;
            EXPECT_EQ(row.code, thread_start(*kind, run_detached, nullptr, &untouched));
            EXPECT_EQ(kind == &TALKATIVE ? row.line : "", lines);
            EXPECT_EQ(42u, untouched);
        }
        EXPECT_EQ(0, thread_library::threads_created);
        EXPECT_EQ(0, thread_library::attributes_held) << row.line;
    }
}

TEST_F(ThreadStart, a_joinable_thread_does_not_ask_to_be_detached) {
    thread_library::detach_error = EINVAL;
    pthread_t thread;
    ASSERT_EQ(0, thread_start({}, return_argument, nullptr, &thread));
    pthread_join(thread, nullptr);
}

TEST_F(ThreadStart, attributes_are_set_once_for_many_threads) {
    thread_starter starter(TALKATIVE);
    ASSERT_TRUE(starter);
    EXPECT_EQ(1, thread_library::attributes_held);
    thread_library::attr_error = ENOMEM;
    for (int i = 0; i < 3; i++) {
        int ran = 0;
        ASSERT_EQ(0, starter.start(run_detached, &ran));
        thread_ran.acquire();
        EXPECT_EQ(7, ran);
    }
    thread_library::create_error = EAGAIN;
    EXPECT_EQ(EAGAIN, starter.start(run_detached, nullptr));
    EXPECT_EQ("-1 no thread: 11, Resource temporarily unavailable\n", lines);
    EXPECT_EQ(3, thread_library::threads_created);
}

TEST_F(ThreadStart, without_attributes_no_thread_is_tried_and_one_line_logged) {
    thread_library::stack_error = EINVAL;
    thread_starter starter(TALKATIVE);
    EXPECT_FALSE(starter);
    thread_library::stack_error = 0;
    EXPECT_EQ(EINVAL, starter.start(run_detached, nullptr));
    EXPECT_EQ(EINVAL, starter.start(run_detached, nullptr));
    EXPECT_EQ("-1 stack: 22, Invalid argument \n", lines);
    EXPECT_EQ(0, thread_library::threads_created);
}

#include "vindral_log.cpp"

/* The symbols of a backtrace, or a text of a test's choice in the place of each. */
#include <execinfo.h>
static char* symbol_text;
static char** (*make_symbols)(void* const*, int) = backtrace_symbols;
static char** chosen_symbols(void* const* addresses, int count) {
    char** symbols = make_symbols(addresses, count);
    for (int i = 0; symbol_text != nullptr && i < count; i++) {
        symbols[i] = symbol_text;
    }
    return symbols;
}
#define backtrace_symbols chosen_symbols
#include "vindral_signals.cpp"
#undef backtrace_symbols

#include "refuse_syscall.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

/* A handler that ends the process calls what the thread sanitizer does not want to see in one, and
 * leaves threads behind that nobody joins. */
extern "C" const char* __tsan_default_options() {
    return "report_signal_unsafe=0 report_thread_leaks=0";
}

/* Nor does a crash clean up; the address sanitizer asks here whether to look for leaks. */
static int leaks_unwatched = 0;
extern "C" int __lsan_is_turned_off() {
    return leaks_unwatched;
}

static std::string captured(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

/* Runs `body` in a child that exits with what it returns, without output. Returns the wait status.
 */
static int in_child(const std::function<int()>& body) {
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

static bool exited_with(int wait_status, int code) {
    return WIFEXITED(wait_status) && WEXITSTATUS(wait_status) == code;
}

static void* wait_to_be_cancelled(void*) {
    for (;;) {
        pause();
    }
}

TEST(sighup, is_logged_and_cancels_the_main_worker) {
    ASSERT_EQ(pthread_create(&main_worker_thread_handle, nullptr, wait_to_be_cancelled, nullptr),
              0);
    EXPECT_EQ(captured([] { catch_all_signals(SIGHUP); }), "\nSIGHUP Received, Shutting down.\n");
    void* result = nullptr;
    pthread_join(main_worker_thread_handle, &result);
    main_worker_thread_handle = 0;
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(sighup, without_a_worker_is_only_logged) {
    EXPECT_EQ(captured([] { catch_all_signals(SIGHUP); }), "\nSIGHUP Received, Shutting down.\n");
}

TEST(sighup, leaves_errno_alone_even_when_the_log_is_full) {
    m_logFile = fopen("/dev/full", "ae");
    log_writer_thread_id = pthread_self();
    errno = EDOM;
    catch_all_signals(SIGHUP);
    EXPECT_EQ(errno, EDOM);
    fclose(m_logFile);
    m_logFile = nullptr;
    log_writer_thread_id = 0;
}

TEST(other_signals, are_only_logged) {
    EXPECT_EQ(captured([] { catch_all_signals(SIGUSR1); }),
              "\nSignal Received: " + std::to_string(SIGUSR1) + "\n");
}

static bool is_ours(int signal_number) {
    struct sigaction action = {};
    sigaction(signal_number, nullptr, &action);
    bool empty_mask = true;
    for (int s = 1; s <= 31; s++) {
        empty_mask = empty_mask && sigismember(&action.sa_mask, s) == 0;
    }
    return action.sa_handler == catch_all_signals && (action.sa_flags & ~0x04000000) == 0 &&
           empty_mask;
}

TEST(preparation, ignores_broken_pipes) {
    int status = in_child([] {
        signal(SIGPIPE, SIG_DFL);
        prepare_signals();
        int ends[2];
        if (pipe(ends) != 0) {
            return 1;
        }
        close(ends[0]);
        return write(ends[1], "x", 1) == -1 && errno == EPIPE ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

TEST(preparation, makes_a_limit_of_file_sizes_an_error_of_the_write) {
    int status = in_child([] {
        prepare_signals();
        const rlimit none = {0, 0};
        unique_fd file(memfd_create("limited", MFD_CLOEXEC));
        if (!file || setrlimit(RLIMIT_FSIZE, &none) != 0) {
            return 1;
        }
        return write(file.get(), "x", 1) == -1 && errno == EFBIG ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

TEST(preparation, has_children_that_can_be_waited_for) {
    int status = in_child([] {
        signal(SIGCHLD, SIG_IGN);
        prepare_signals();
        return exited_with(in_child([] { return 3; }), 3) ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

TEST(installation, sets_both_handlers) {
    int status = in_child([] {
        return install_signal_handlers() == 1 && is_ours(SIGSEGV) && is_ours(SIGHUP) ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

/* What the installation says when the handler for one signal is refused, or for all (0). */
static std::string refused(int signal_number) {
    int output[2];
    EXPECT_EQ(pipe(output), 0);
    int status = in_child([&] {
        dup2(output[1], STDOUT_FILENO);
        if (!refuse_syscall(SYS_rt_sigaction, EPERM, signal_number == 0 ? -1 : 0,
                            static_cast<uint32_t>(signal_number))) {
            return 77;
        }
        int result = install_signal_handlers();
        fflush(stdout);
        return result;
    });
    close(output[1]);
    char text[256];
    ssize_t length = read(output[0], text, sizeof text);
    close(output[0]);
    return exited_with(status, 0) ? std::string(text, static_cast<size_t>(length))
                                  : "status " + std::to_string(WEXITSTATUS(status));
}

TEST(installation, says_which_handler_was_refused) {
    std::string segv = refused(SIGSEGV);
    if (segv == "status 77") {
        GTEST_SKIP() << "no seccomp filter allowed here";
    }
    EXPECT_EQ(segv, "\nCan not set SIGSEGV signal handler.\n");
    EXPECT_EQ(refused(SIGHUP), "\nCan not set SIGHUP signal handler.\n");
    EXPECT_EQ(refused(0), "\nCan not set SIGSEGV signal handler.\n") << "which comes first";
}

/* A page that nothing may touch. */
static volatile char* forbidden;

/* A crash of a child that logs to a file, as the agent does when its writer runs. */
class crash : public testing::Test {
protected:
    crash() {
        char name[] = "/tmp/vindral_signals_XXXXXX";
        directory = mkdtemp(name);
        path = directory + "/agent.log";
        forbidden =
            static_cast<char*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    }
    ~crash() override {
        munmap(const_cast<char*>(forbidden), 4096);
        fs::remove_all(directory);
    }

    /* The wait status of a child that runs `body` with log and handlers in place. */
    int run(const std::function<void()>& body) {
        return in_child([&] {
            leaks_unwatched = 1;
            log_file = path.data();
            rotate_log_file();
            log_writer_thread_id = pthread_self();
            prepare_signals();
            install_signal_handlers();
            body();
            return 99;
        });
    }

    /* The lines of the log without their stamps. */
    std::vector<std::string> lines() const {
        std::vector<std::string> all;
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            EXPECT_EQ(line.find("]\t"), strlen("[19/10/2011:23:04:05")) << line;
            all.push_back(line.substr(line.find('\t') + 1));
        }
        return all;
    }

    /* Checks the report and returns the number of addresses in it. */
    size_t addresses_reported() const {
        std::vector<std::string> all = lines();
        if (all.size() < 4) {
            ADD_FAILURE() << all.size() << " lines";
            return 0;
        }
        EXPECT_EQ(all[0], "SIGSEGV Received, vindral will be terminated.");
        EXPECT_EQ(all[1], "Backtrace:");
        EXPECT_EQ(all.back(), "end of Backtrace");
        for (size_t i = 2; i + 1 < all.size(); i++) {
            EXPECT_TRUE(all[i].starts_with(" 0x")) << all[i];
            EXPECT_NE(all[i].find(": "), std::string::npos) << all[i];
        }
        return all.size() - 3;
    }

    std::string directory, path;
};

/* Runs `body` on a thread with a worker's stack and waits for it. */
static void on_worker_stack(void* (*body)(void*)) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, WORKER_STACK_SIZE);
    pthread_t thread;
    if (pthread_create(&thread, &attributes, body, nullptr) == 0) {
        pthread_join(thread, nullptr);
    }
}

static void* touch_forbidden(void* offset) {
    forbidden[reinterpret_cast<size_t>(offset)] = 1;
    return nullptr;
}

TEST_F(crash, on_a_worker_writes_a_backtrace_and_ends_with_status_0) {
    int status = run([] { on_worker_stack(touch_forbidden); });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_GE(addresses_reported(), 3U);
}

TEST_F(crash, on_the_main_thread) {
    int status = run([] { touch_forbidden(nullptr); });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_GE(addresses_reported(), 3U);
}

TEST_F(crash, by_a_signal_from_outside) {
    int status = run([] { kill(getpid(), SIGSEGV); });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_GE(addresses_reported(), 1U);
}

TEST_F(crash, writes_waiting_lines_first) {
    int status = run([] {
        log_level = 2;
        leveledadd2log(1, "waiting");
        on_worker_stack(touch_forbidden);
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    std::vector<std::string> all = lines();
    ASSERT_GE(all.size(), 2U);
    EXPECT_EQ(all[0], "waiting");
    EXPECT_EQ(all[1], "SIGSEGV Received, vindral will be terminated.");
}

TEST_F(crash, with_the_locks_of_the_log_held) {
    int status = run([] {
        on_worker_stack([](void*) -> void* {
            pthread_mutex_lock(&stream_mutex.handle);
            pthread_mutex_lock(&LOG_WRITER_MUTEX.handle);
            return touch_forbidden(nullptr);
        });
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_GE(addresses_reported(), 3U);
}

TEST_F(crash, of_the_main_worker_itself) {
    int status = run([] {
        atexit([] { pthread_testcancel(); }); /* exit may well come to a cancellation point */
        pthread_create(&main_worker_thread_handle, nullptr, touch_forbidden, nullptr);
        pthread_join(main_worker_thread_handle, nullptr);
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_GE(addresses_reported(), 2U);
}

static std::atomic<bool> cancelled;

TEST_F(crash, cancels_the_main_worker) {
    int status = run([] {
        /* The process ends in order, and here waits for the worker to end as well; the alarm would
         * come before the loop is over. */
        atexit([] {
            while (!cancelled) {
                usleep(1000);
            }
        });
        auto wait_and_tell = [](void*) -> void* {
            struct at_the_end {
                ~at_the_end() { cancelled = true; }
            } tell;
            return wait_to_be_cancelled(nullptr);
        };
        pthread_create(&main_worker_thread_handle, nullptr, wait_and_tell, nullptr);
        on_worker_stack(touch_forbidden);
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_GE(addresses_reported(), 3U);
}

TEST_F(crash, cuts_a_line_to_1023_characters) {
    std::string text(2000, 's');
    int status = run([&] {
        symbol_text = text.data();
        on_worker_stack(touch_forbidden);
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    ASSERT_GE(addresses_reported(), 3U);
    std::string line = lines()[2];
    EXPECT_EQ(line.size(), 1023U);
    EXPECT_TRUE(line.ends_with(": " + std::string(1023 - line.find(": ") - 2, 's'))) << line;
}

TEST_F(crash, of_two_threads_is_reported_once) {
    int status = run([] {
        std::thread first([] { touch_forbidden(nullptr); });
        std::thread second([] { touch_forbidden(reinterpret_cast<void*>(64)); });
        first.join();
        second.join();
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_GE(addresses_reported(), 2U);
}

static volatile int frames_sum; /* keeps the recursion from becoming a loop */

__attribute__((noinline)) static int crash_deep(int frames) {
    if (frames == 0) {
        touch_forbidden(nullptr);
        return 0;
    }
    frames_sum = frames_sum + crash_deep(frames - 1);
    return frames_sum;
}

TEST_F(crash, reports_128_addresses_at_most) {
    int status = run([] {
        on_worker_stack([](void*) -> void* {
            crash_deep(200);
            return nullptr;
        });
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(addresses_reported(), 128U);
}

/* The log is a full pipe that nobody reads, so the report never comes to an end. */
TEST_F(crash, that_gets_stuck_is_ended_with_status_0_too) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    unique_fd pipe_held_open(open(path.c_str(), O_RDWR | O_NONBLOCK));
    char filling[4096] = {};
    while (write(pipe_held_open.get(), filling, sizeof filling) > 0) {
    }
    int status = run([] {
        signal(SIGALRM, SIG_IGN);
        sigset_t alarm_only;
        sigemptyset(&alarm_only);
        sigaddset(&alarm_only, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm_only, nullptr);
        on_worker_stack(touch_forbidden);
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

/* What a broken heap or stack may do to the making of the backtrace. */
TEST_F(crash, amid_its_own_report_ends_with_status_0_too) {
    int status = run([] {
        symbol_text = const_cast<char*>(forbidden);
        on_worker_stack(touch_forbidden);
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    ASSERT_GE(lines().size(), 2U);
    EXPECT_EQ(lines().back(), "Backtrace:");
}

/* Blocks all that can be blocked, as an agent may have it from its starter. */
static void block_all_signals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

TEST_F(crash, is_reported_where_the_starter_blocked_the_signal) {
    block_all_signals();
    int status = run([] { on_worker_stack(touch_forbidden); });
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_GE(addresses_reported(), 3U);
}

/* A fault of another kind: the file of a library may have been cut short. */
TEST_F(crash, whose_report_has_any_fault_ends_with_status_0_too) {
    for (int n : {SIGBUS, SIGFPE, SIGILL}) {
        static int fault;
        fault = n;
        int status = run([] {
            block_all_signals();
            prepare_signals();
            make_symbols = [](void* const*, int) -> char** {
                raise(fault);
                _exit(98);
            };
            on_worker_stack(touch_forbidden);
        });
        EXPECT_TRUE(exited_with(status, 0)) << n << ": " << status;
    }
}

static char** abort_for_symbols(void* const*, int) {
    abort();
}

TEST_F(crash, whose_report_is_aborted_ends_with_status_0_too) {
    int status = run([] {
        make_symbols = abort_for_symbols;
        on_worker_stack(touch_forbidden);
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    ASSERT_GE(lines().size(), 2U);
    EXPECT_EQ(lines().back(), "Backtrace:");
}

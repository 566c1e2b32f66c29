#include "thread_library.h"
#include "vindral_log.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

/* Failures of memory, on demand, and how long the main thread slept. */
static bool refuse_memory;
static thread_local time_t slept_s;
static int counted_nanosleep(const timespec* time, timespec* left) {
    slept_s += time->tv_sec;
    return nanosleep(time, left);
}
#define malloc(size) (refuse_memory ? nullptr : malloc(size))
#define realloc(block, size) (refuse_memory ? nullptr : realloc(block, size))
#define nanosleep counted_nanosleep
#include "vindral_log.cpp"
#undef malloc
#undef realloc
#undef nanosleep

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

/* The pinned clock, in seconds since 1970. */
static std::atomic<time_t> pinned_time;

static time_t utc(int year, int month, int day, int hour, int minute, int second) {
    struct tm date = {};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    date.tm_hour = hour;
    date.tm_min = minute;
    date.tm_sec = second;
    return timegm(&date);
}

static std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

static int queued() {
    lock hold(LOG_WRITER_MUTEX);
    return vLoglen;
}

static std::string captured(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

/* A directory for the log, a pinned clock, and every global as at the start of the process. */
class log_before_start : public testing::Test {
protected:
    log_before_start() {
        char name[] = "/tmp/vindral_log_XXXXXX";
        directory = mkdtemp(name);
        path = directory + "/agent.log";
        log_file = path.data();
        log_level = 6;
        pinned_time = utc(2011, 10, 19, 23, 4, 5);
        log_clock = [] { return pinned_time.load(); };
    }
    ~log_before_start() override {
        {
            lock hold(stream_mutex);
            if (m_logFile != nullptr) {
                fclose(m_logFile);
                m_logFile = nullptr;
            }
            current_day = current_mon = current_yea = 0;
        }
        log_writer_thread_id = 0;
        log_clock = system_clock;
        {
            lock hold(LOG_WRITER_MUTEX);
            for (int i = 0; i < vLoglen; i++) {
                free(vLog[i]);
            }
            free(vLog);
            vLog = nullptr;
            vLoglen = 0;
        }
        fs::remove_all(directory);
    }

    std::string log() const { return content(path); }
    std::string dated(const char* date) const { return content(path + "." + date); }

    std::string directory, path;
};

/* The same with the file open and the writer seemingly running: its work is done by hand. */
class log_open : public log_before_start {
protected:
    log_open() {
        rotate_log_file();
        log_writer_thread_id = pthread_self();
    }
};

TEST_F(log_before_start, lines_go_to_standard_output_between_line_ends) {
    EXPECT_EQ(captured([] {
                  leveledadd2log(-1, "now %d", 1);
                  leveledadd2log(3, "queued %s", "two");
              }),
              "\nnow 1\n\nqueued two\n");
    EXPECT_EQ(queued(), 0);
    EXPECT_FALSE(fs::exists(path));
}

TEST_F(log_before_start, a_line_is_logged_when_log_level_is_above_its_level) {
    auto shown_at = [](int level) {
        log_level = level;
        return captured([] {
            for (int line = -1; line <= 5; line++) {
                leveledadd2log(line, "%d", line);
            }
        });
    };
    EXPECT_EQ(shown_at(-1), "");
    EXPECT_EQ(shown_at(0), "\n-1\n");
    EXPECT_EQ(shown_at(1), "\n-1\n\n0\n");
    EXPECT_EQ(shown_at(6), "\n-1\n\n0\n\n1\n\n2\n\n3\n\n4\n\n5\n");
}

TEST_F(log_before_start, a_file_that_cannot_be_opened_ends_the_start) {
    path = directory + "/missing/agent.log";
    log_file = path.data();
    EXPECT_EQ(captured([] { EXPECT_EQ(init_log_file(), 0); }),
              "\nCannot open/create main log file: " + path +
                  "\nError Description: No such file or directory");
    EXPECT_EQ(log_writer_thread_id, 0U);
    EXPECT_EQ(m_logFile, nullptr);
}

TEST_F(log_before_start, a_writer_that_cannot_be_started_ends_the_start) {
    auto start = [] {
        std::string printed = captured([] { EXPECT_EQ(init_log_file(), 0); });
        thread_library::attr_error = thread_library::stack_error = 0;
        thread_library::create_error = 0;
        EXPECT_EQ(log_writer_thread_id, 0U);
        EXPECT_EQ(m_logFile, nullptr);
        return printed;
    };
    log_level = 0;
    thread_library::attr_error = ENOMEM;
    EXPECT_EQ(start(), "\nPthread attribute initialization failed.\n");
    thread_library::stack_error = EINVAL;
    EXPECT_EQ(start(), "\nCan not set log writer thread stack size.\n");
    thread_library::create_error = EAGAIN;
    EXPECT_EQ(start(), "");
    EXPECT_EQ(thread_library::stack_size, WORKER_STACK_SIZE);
}

TEST_F(log_before_start, a_worker_has_32768_bytes_of_stack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers use stack of their own";
#else
    EXPECT_EQ(WORKER_STACK_SIZE, 32768U);
#endif
}

TEST_F(log_before_start, shutdown_without_a_start_is_harmless) {
    EXPECT_EQ(shutdown_log_writer(), 1);
}

TEST_F(log_open, a_line_is_stamped_in_utc) {
    leveledadd2log(-1, "text");
    pinned_time = utc(2011, 10, 19, 23, 59, 59);
    leveledadd2log(0, "a\tb\nc");
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\ttext\n[19/10/2011:23:59:59]\ta\tb\nc\n");
}

TEST_F(log_open, stamps_follow_the_calendar) {
    for (time_t second :
         {time_t{0}, utc(1999, 12, 31, 23, 59, 59), utc(2000, 2, 29, 0, 0, 0),
          utc(2012, 3, 1, 12, 0, 1), utc(2038, 1, 19, 3, 14, 8), utc(2100, 3, 1, 0, 0, 0)}) {
        pinned_time = second;
        leveledadd2log(-1, "x");
        char expected[64];
        struct tm date;
        strftime(expected, sizeof expected, "[%d/%m/%Y:%H:%M:%S]\tx\n", gmtime_r(&second, &date));
        EXPECT_TRUE(log().ends_with(expected)) << log();
    }
}

TEST_F(log_open, nothing_reaches_standard_output_once_the_writer_runs) {
    EXPECT_EQ(captured([] {
                  leveledadd2log(-1, "one");
                  leveledadd2log(1, "two");
              }),
              "");
}

TEST_F(log_open, texts_of_every_length_arrive_whole) {
    for (size_t length : {0, 1, 98, 99, 100, 101, 199, 200, 4095, 4096, 1000000}) {
        std::string text(length, 'x');
        leveledadd2log(-1, "%s", text.c_str());
        leveledadd2log(1, "%s", text.c_str());
        leveledadd2log(-1, ".");
        std::string line = "[19/10/2011:23:04:05]\t" + text + "\n";
        EXPECT_TRUE(log().ends_with(line + line + "[19/10/2011:23:04:05]\t.\n")) << length;
    }
}

TEST_F(log_open, a_line_that_cannot_be_formatted_is_lost) {
    wchar_t no_character[] = {static_cast<wchar_t>(0xD800), 0};
    leveledadd2log(-1, "%ls", no_character);
    EXPECT_EQ(log(), "");
}

TEST_F(log_open, without_memory_a_line_is_lost_and_the_log_goes_on) {
    leveledadd2log(1, "waiting");
    refuse_memory = true;
    leveledadd2log(-1, "%s", std::string(100, 'x').c_str());
    leveledadd2log(1, "no room in the queue");
    leveledadd2log(-1, "short");
    refuse_memory = false;
    leveledadd2log(-1, "later");
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\twaiting\n[19/10/2011:23:04:05]\tshort\n"
                     "[19/10/2011:23:04:05]\tlater\n");
}

TEST_F(log_open, a_line_added_directly_has_no_level) {
    log_level = -1;
    add2logfile("queued", 0);
    EXPECT_EQ(queued(), 1);
    add2logfile("at once %d", 7);
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\tqueued\n[19/10/2011:23:04:05]\tat once %d\n");
}

TEST_F(log_open, null_text_is_nothing) {
    add2logfile(nullptr, 0);
    add2logfile(nullptr, 1);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(queued(), 0);
}

TEST_F(log_open, levels_above_0_wait_for_the_writer) {
    leveledadd2log(1, "first");
    leveledadd2log(5, "second");
    EXPECT_EQ(queued(), 2);
    EXPECT_EQ(log(), "");
    EXPECT_EQ(write_batch(), 1);
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\tfirst\n[19/10/2011:23:04:05]\tsecond\n");
    EXPECT_EQ(queued(), 0);
}

TEST_F(log_open, a_line_written_at_once_takes_the_waiting_ones_with_it) {
    leveledadd2log(2, "waiting");
    pinned_time += 1;
    leveledadd2log(0, "at once");
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\twaiting\n[19/10/2011:23:04:06]\tat once\n");
    EXPECT_EQ(queued(), 0);
}

TEST_F(log_open, shutdown_writes_what_still_waits) {
    leveledadd2log(1, "waiting");
    EXPECT_EQ(shutdown_log_writer(), 1);
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\twaiting\n");
    EXPECT_EQ(m_logFile, nullptr);
}

TEST_F(log_open, a_long_queue_keeps_its_order) {
    std::string expected;
    for (int i = 0; i < 3000; i++) {
        leveledadd2log(1, "line %d", i);
        expected += "[19/10/2011:23:04:05]\tline " + std::to_string(i) + "\n";
    }
    EXPECT_EQ(queued(), 3000);
    EXPECT_EQ(write_batch(), 1);
    EXPECT_EQ(log(), expected);
}

TEST_F(log_open, lines_are_dropped_while_no_file_is_open) {
    fclose(m_logFile);
    m_logFile = nullptr;
    EXPECT_EQ(captured([] {
                  leveledadd2log(-1, "lost");
                  leveledadd2log(1, "lost too");
              }),
              "");
    EXPECT_EQ(queued(), 0);
    EXPECT_EQ(log(), "");
}

/* A line that the writer thread writes, as it would. */
static void write_queued(const char* text) {
    leveledadd2log(1, "%s", text);
    EXPECT_EQ(write_batch(), 1);
}

TEST_F(log_open, the_first_line_after_midnight_begins_a_new_file) {
    write_queued("old");
    pinned_time = utc(2011, 10, 20, 0, 0, 0);
    write_queued("new");
    EXPECT_EQ(dated("2011-10-19"), "[19/10/2011:23:04:05]\told\n");
    EXPECT_EQ(log(), "[20/10/2011:00:00:00]\tnew\n");
    write_queued("newer");
    EXPECT_EQ(log(), "[20/10/2011:00:00:00]\tnew\n[20/10/2011:00:00:00]\tnewer\n");
}

TEST_F(log_open, a_line_written_at_once_stays_in_the_old_file) {
    write_queued("old");
    pinned_time = utc(2011, 10, 20, 0, 0, 1);
    leveledadd2log(-1, "error");
    EXPECT_FALSE(fs::exists(path + ".2011-10-19"));
    write_queued("new");
    EXPECT_EQ(dated("2011-10-19"), "[19/10/2011:23:04:05]\told\n[20/10/2011:00:00:01]\terror\n");
    EXPECT_EQ(log(), "[20/10/2011:00:00:01]\tnew\n");
}

TEST_F(log_open, the_date_in_the_name_is_padded) {
    pinned_time = utc(2012, 2, 3, 1, 0, 0);
    write_queued("x");
    pinned_time = utc(2012, 2, 4, 1, 0, 0);
    write_queued("y");
    EXPECT_EQ(dated("2012-02-03"), "[03/02/2012:01:00:00]\tx\n");
}

TEST_F(log_open, only_the_number_of_the_day_is_compared) {
    pinned_time = utc(2012, 11, 19, 0, 0, 0);
    write_queued("a year and a month later");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory), {}), 1);
    EXPECT_EQ(log(), "[19/11/2012:00:00:00]\ta year and a month later\n");
}

TEST_F(log_open, a_file_found_at_the_start_is_not_moved) {
    fclose(m_logFile);
    m_logFile = nullptr;
    {
        lock hold(stream_mutex);
        current_day = 0;
    }
    std::ofstream(path) << "from an earlier day\n";
    pinned_time = utc(2011, 10, 25, 0, 0, 0);
    rotate_log_file();
    write_queued("x");
    EXPECT_EQ(log(), "from an earlier day\n[25/10/2011:00:00:00]\tx\n");
}

TEST_F(log_open, a_move_that_fails_is_tried_again_under_the_same_name) {
    write_queued("old");
    fs::create_directories(path + ".2011-10-19/in the way");
    pinned_time = utc(2011, 10, 20, 0, 0, 0);
    write_queued("goes on");
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\told\n[20/10/2011:00:00:00]\tgoes on\n");
    fs::remove_all(path + ".2011-10-19");
    pinned_time = utc(2011, 10, 21, 0, 0, 0);
    write_queued("new");
    EXPECT_EQ(dated("2011-10-19"), "[19/10/2011:23:04:05]\told\n[20/10/2011:00:00:00]\tgoes on\n");
    EXPECT_EQ(log(), "[21/10/2011:00:00:00]\tnew\n");
}

TEST_F(log_open, a_file_that_was_removed_is_created_by_the_next_rotation) {
    fs::remove(path);
    pinned_time = utc(2011, 10, 20, 0, 0, 0);
    write_queued("x");
    EXPECT_EQ(log(), "[20/10/2011:00:00:00]\tx\n");
}

TEST_F(log_open, lines_wait_in_the_queue_until_the_file_can_be_opened_again) {
    leveledadd2log(-1, "old");
    leveledadd2log(1, "waiting");
    pinned_time = utc(2011, 10, 20, 0, 0, 0);
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none_left = before;
    none_left.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none_left);
    int pause_s = write_batch();
    leveledadd2log(1, "dropped");
    leveledadd2log(-1, "dropped");
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(pause_s, 5);
    EXPECT_EQ(queued(), 1);

    EXPECT_EQ(write_batch(), 1);
    EXPECT_EQ(dated("2011-10-19"), "[19/10/2011:23:04:05]\told\n");
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\twaiting\n");
}

TEST_F(log_open, a_full_disk_costs_lines_only) {
    fclose(m_logFile);
    path = "/dev/full";
    log_file = path.data();
    m_logFile = fopen(log_file, "ae");
    for (int i = 0; i < 1000; i++) {
        leveledadd2log(-1, "%01000d", i);
        leveledadd2log(1, "%01000d", i);
    }
    EXPECT_EQ(write_batch(), 1);
    EXPECT_EQ(queued(), 0);
}

TEST_F(log_open, what_follows_a_line_that_a_full_disk_cut_begins_anew) {
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    auto ignored = signal(SIGXFSZ, SIG_IGN);
    leveledadd2log(-1, "whole");
    rlimit full = before;
    full.rlim_cur = log().size() + 10;
    setrlimit(RLIMIT_FSIZE, &full);
    leveledadd2log(-1, "cut");
    leveledadd2log(-1, "lost");
    setrlimit(RLIMIT_FSIZE, &before);
    leveledadd2log(-1, "after");
    leveledadd2log(-1, "last");
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\twhole\n[19/10/201\n[19/10/2011:23:04:05]\tafter\n"
                     "[19/10/2011:23:04:05]\tlast\n");

    setrlimit(RLIMIT_FSIZE, &full);
    leveledadd2log(-1, "lost"); /* and the file of the next day does not begin with its end */
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, ignored);
    pinned_time = utc(2011, 10, 20, 0, 0, 0);
    rotate_log_file();
    leveledadd2log(-1, "new");
    EXPECT_EQ(log(), "[20/10/2011:00:00:00]\tnew\n");
}

TEST_F(log_open, no_thread_is_cancelled_while_it_logs) {
    std::atomic<bool> logged = false;
    auto body = [](void* arg) -> void* {
        pthread_cancel(pthread_self());
        leveledadd2log(-1, "at once");
        leveledadd2log(1, "queued");
        rotate_log_file();
        *static_cast<std::atomic<bool>*>(arg) = true;
        pthread_testcancel();
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &logged), 0);
    void* result;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(logged);
    EXPECT_EQ(queued(), 1);
}

TEST_F(log_before_start, no_thread_is_cancelled_while_it_prints) {
    std::atomic<bool> printed = false;
    auto body = [](void* arg) -> void* {
        pthread_cancel(pthread_self());
        leveledadd2log(-1, "text");
        fflush(nullptr); /* a cancellation point only where it writes */
        *static_cast<std::atomic<bool>*>(arg) = true;
        return nullptr;
    };
    pthread_t thread;
    std::string output = captured([&] {
        setvbuf(stdout, nullptr, _IOLBF, 0);
        ASSERT_EQ(pthread_create(&thread, nullptr, body, &printed), 0);
        pthread_join(thread, nullptr);
    });
    EXPECT_EQ(output, "\ntext\n");
    EXPECT_TRUE(printed);
}

static int exit_status(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(log_open, a_forked_child_writes_neither_its_parents_lines_nor_moves_the_file) {
    guard_forks();
    leveledadd2log(1, "the parent's");
    pid_t child = fork();
    if (child == 0) {
        pinned_time = utc(2011, 10, 20, 0, 0, 0);
        leveledadd2log(-1, "the child's");
        _exit(0);
    }
    EXPECT_EQ(exit_status(child), 0);
    EXPECT_EQ(write_batch(), 1);
    EXPECT_EQ(log(), "[20/10/2011:00:00:00]\tthe child's\n[19/10/2011:23:04:05]\tthe parent's\n");
}

TEST_F(log_open, a_child_forked_amid_logging_can_log) {
    guard_forks();
    std::atomic<bool> stop = false;
    std::thread busy([&] {
        while (!stop) {
            leveledadd2log(-1, "busy");
            leveledadd2log(1, "busy");
        }
    });
    for (int i = 0; i < 20; i++) {
        pid_t child = fork();
        if (child == 0) {
            alarm(60); /* a child that hangs fails the test instead of stopping it */
            leveledadd2log(-1, "child");
            leveledadd2log(1, "lost with the child");
            _exit(0);
        }
        EXPECT_EQ(exit_status(child), 0);
    }
    stop = true;
    busy.join();
    std::string text = log();
    size_t children = 0;
    for (size_t at = 0; (at = text.find("\tchild\n", at)) != std::string::npos; at++) {
        children++;
    }
    EXPECT_EQ(children, 20U);
}

TEST_F(log_open, a_crashed_thread_logs_without_the_locks_it_holds) {
    leveledadd2log(1, "in a queue that may be broken");
    std::thread([] {
        pthread_mutex_lock(&stream_mutex.handle);
        pthread_mutex_lock(&LOG_WRITER_MUTEX.handle);
        log_from_crash();
        leveledadd2log(-1, "first");
        pinned_time = utc(2011, 10, 20, 0, 0, 0);
        leveledadd2log(-1, "second");
        leveledadd2log(1, "given up");
        pthread_mutex_unlock(&LOG_WRITER_MUTEX.handle);
        pthread_mutex_unlock(&stream_mutex.handle);
    }).join();
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\tfirst\n[20/10/2011:00:00:00]\tsecond\n");
    EXPECT_EQ(queued(), 1);
}

TEST_F(log_open, a_crashed_thread_takes_the_locks_that_are_free) {
    leveledadd2log(1, "waiting");
    std::thread([] {
        log_from_crash();
        leveledadd2log(-1, "crash");
    }).join();
    EXPECT_EQ(log(), "[19/10/2011:23:04:05]\twaiting\n[19/10/2011:23:04:05]\tcrash\n");
}

/* All lines of all files, without their stamps, sorted. */
static std::vector<std::string> all_lines(const std::string& directory) {
    std::vector<std::string> lines;
    for (const auto& entry : fs::directory_iterator(directory)) {
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);) {
            EXPECT_EQ(line.find('\t'), strlen("[19/10/2011:23:04:05]")) << line;
            lines.push_back(line.substr(line.find('\t') + 1));
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

/* The whole life with the real writer thread, under load and with the day changing every few lines:
 * every line arrives once and whole, those logged last included. */
TEST_F(log_before_start, from_start_to_shutdown_no_line_is_lost) {
    static const int THREADS = 4, LINES = 400;
    std::ofstream(path) << "[18/10/2011:00:00:00]\tof an earlier start\n";
    ASSERT_EQ(init_log_file(), 1);
    EXPECT_NE(log_writer_thread_id, 0U);

    leveledadd2log(1, "queued");
    const std::string first_lines =
        "[18/10/2011:00:00:00]\tof an earlier start\n[19/10/2011:23:04:05]\tqueued\n";
    for (int i = 0; i < 2000 && log() != first_lines; i++) {
        usleep(5000);
    }
    EXPECT_EQ(log(), first_lines);

    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < LINES; i++) {
                leveledadd2log(i % 3 == 0 ? 0 : 2, "line %d of %d", i, t);
                if (t == 0 && i % 16 == 0) {
                    pinned_time += 86400;
                    rotate_log_file(); /* the writer thread itself comes round once a second */
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    leveledadd2log(1, "last");
    slept_s = 0;
    EXPECT_EQ(shutdown_log_writer(), 1);
    EXPECT_EQ(slept_s, 2) << "the time in which other threads may come to their last lines";
    EXPECT_EQ(m_logFile, nullptr);
    EXPECT_EQ(captured([] {
                  leveledadd2log(-1, "dropped");
                  leveledadd2log(1, "dropped");
              }),
              "");
    EXPECT_EQ(queued(), 0);

    std::vector<std::string> expected = {"of an earlier start", "queued", "last"};
    for (int t = 0; t < THREADS; t++) {
        for (int i = 0; i < LINES; i++) {
            expected.push_back("line " + std::to_string(i) + " of " + std::to_string(t));
        }
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(all_lines(directory), expected);
    EXPECT_GE(std::distance(fs::directory_iterator(directory), {}), 20);
}

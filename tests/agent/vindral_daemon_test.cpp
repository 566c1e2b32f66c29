#include "vindral_daemon.h"

#include "shell_command.h"
#include "vindral_config.h"
#include "vindral_log.h"

#include "refuse_syscall.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>

namespace fs = std::filesystem;

/* What a child ends with when it could not be brought into the state that its test is about. */
static const int NOT_POSSIBLE = 77;
/* What a daemon ends with once it has come up. */
static const int CAME_UP = 42;

static std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

static std::string read_all(int fd) {
    std::string text;
    char part[4096];
    for (ssize_t length; (length = read(fd, part, sizeof part)) > 0;) {
        text.append(part, static_cast<size_t>(length));
    }
    return text;
}

/* One start of the daemon: both processes, from daemon_init to their ends. */
struct daemon_run {
    int parent_status = -1;
    int daemon_status = -1; /* -1 when none was forked */
    pid_t daemon_pid = 0;
    std::string output; /* standard output of both */
    std::string report; /* what the daemon had to say */
};

class daemon_start : public testing::Test {
protected:
    daemon_start() {
        char name[] = "/tmp/vindral_daemon_XXXXXX";
        directory = mkdtemp(name);
        path = directory + "/vindral.pid";
        log_level = 6;
        /* The daemon loses its parent; it is to become this process's child then. */
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ~daemon_start() override { fs::remove_all(directory); }

    /* Runs `prepare` and daemon_init in a child, and `as_daemon` in what comes up; that one's
     * output is the report. Returns when both processes have ended. */
    daemon_run start(const std::function<bool()>& prepare,
                     const std::function<void(int)>& as_daemon) {
        int output[2], report[2];
        EXPECT_EQ(pipe(output), 0);
        EXPECT_EQ(pipe(report), 0);
        fflush(stdout);
        pid_t parent = fork();
        if (parent == 0) {
            dup2(output[1], STDOUT_FILENO);
            close(output[0]);
            close(output[1]);
            close(report[0]);
            lock_file = path.data();
            if (!prepare()) {
                _exit(NOT_POSSIBLE);
            }
            if (daemon_init() == 1) {
                as_daemon(report[1]);
                _exit(CAME_UP);
            }
            _exit(99);
        }
        close(output[1]);
        close(report[1]);
        daemon_run run;
        run.output = read_all(output[0]);
        run.report = read_all(report[0]);
        close(output[0]);
        close(report[0]);
        int status;
        for (pid_t ended; (ended = waitpid(-1, &status, 0)) > 0;) {
            int& place = ended == parent ? run.parent_status : run.daemon_status;
            place = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
            run.daemon_pid = ended == parent ? run.daemon_pid : ended;
        }
        return run;
    }
    daemon_run start(const std::function<bool()>& prepare = [] { return true; }) {
        return start(prepare, [](int) {});
    }

    /* A start whose `prepare` makes something fail in the process that the user started. */
    void expect_failure_before_fork(
        const std::string& message, const std::function<bool()>& prepare = [] { return true; }) {
        daemon_run run = start(prepare);
        if (run.parent_status == NOT_POSSIBLE) {
            GTEST_SKIP() << "cannot be brought about here";
        }
        EXPECT_EQ(run.parent_status, 0);
        EXPECT_EQ(run.daemon_status, -1);
        EXPECT_EQ(run.output, "\n" + message + "\n");
    }

    void expect_failure_in_child(const std::string& message, const std::function<bool()>& prepare) {
        daemon_run run = start(prepare);
        if (run.parent_status == NOT_POSSIBLE) {
            GTEST_SKIP() << "cannot be brought about here";
        }
        EXPECT_EQ(run.parent_status, 1);
        EXPECT_EQ(run.daemon_status, 0);
        EXPECT_EQ(run.output, "\n" + message + "\n");
    }

    std::string directory, path;
};

/* The number that the next open will return. */
static uint32_t next_fd() {
    int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return static_cast<uint32_t>(fd);
}

static std::string link_target(const std::string& name) {
    std::error_code error;
    return fs::read_symlink(name, error).string();
}

/* Holder of the lock on `path`, 0 for none; the lock has to cover the whole file. */
static pid_t lock_holder(const std::string& path) {
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    unique_fd file(open(path.c_str(), O_RDWR));
    EXPECT_EQ(fcntl(file.get(), F_GETLK, &range), 0);
    if (range.l_type == F_UNLCK) {
        return 0;
    }
    EXPECT_EQ(range.l_type, F_WRLCK);
    EXPECT_EQ(range.l_start, 0);
    EXPECT_EQ(range.l_len, 0);
    return range.l_pid;
}

/* Everything that makes a daemon of it, one "name value" per line. */
static void describe(int report) {
    char directory[PATH_MAX] = "";
    mode_t mask = umask(0);
    dprintf(report, "leader %d\n", getsid(0) == getpid() && getpgrp() == getpid());
    dprintf(report, "directory %s\n", getcwd(directory, sizeof directory));
    dprintf(report, "umask %03o\n", static_cast<unsigned>(mask));
    for (int fd = 0; fd <= 2; fd++) {
        dprintf(report, "fd%d %s %d\n", fd,
                link_target("/proc/self/fd/" + std::to_string(fd)).c_str(),
                fcntl(fd, F_GETFL) & O_ACCMODE);
    }
    for (int fd = 3; fd < 100; fd++) {
        if (link_target("/proc/self/fd/" + std::to_string(fd)) == lock_file) {
            dprintf(report, "pidfile %s\n",
                    fcntl(fd, F_GETFD) & FD_CLOEXEC ? "cloexec" : "inherited");
        }
    }
}

TEST_F(daemon_start, comes_up_as_a_daemon) {
    setenv("HOME", directory.c_str(), 1);
    daemon_run run = start([] { return umask(077) || true; }, describe);
    EXPECT_EQ(run.parent_status, 1);
    EXPECT_EQ(run.daemon_status, CAME_UP);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(run.report, "leader 1\ndirectory " + directory +
                              "\numask 022\nfd0 /dev/null 0\nfd1 /dev/null 1\nfd2 /dev/null 1\n"
                              "pidfile cloexec\n");
    EXPECT_EQ(content(path), std::to_string(run.daemon_pid) + "\n");
    struct stat file;
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0644U);
}

TEST_F(daemon_start, without_home_it_works_in_the_root_directory) {
    daemon_run run = start([] { return unsetenv("HOME") == 0; }, describe);
    EXPECT_NE(run.report.find("directory /\n"), std::string::npos) << run.report;
}

TEST_F(daemon_start, relative_paths_start_at_home) {
    setenv("HOME", directory.c_str(), 1);
    path = "relative.pid";
    daemon_run run = start();
    EXPECT_EQ(run.daemon_status, CAME_UP);
    EXPECT_EQ(content(directory + "/relative.pid"), std::to_string(run.daemon_pid) + "\n");
}

TEST_F(daemon_start, a_home_that_does_not_exist_is_no_failure) {
    daemon_run run = start([] { return setenv("HOME", "/does/not/exist", 1) == 0; });
    EXPECT_EQ(run.daemon_status, CAME_UP);
}

TEST_F(daemon_start, an_old_pid_is_replaced) {
    for (const char* old :
         {"", "1", "4194304\n", " 12", "-5\n", "+7", "1234567890 and more text", "7x"}) {
        std::ofstream(path) << old;
        daemon_run run = start();
        EXPECT_EQ(run.daemon_status, CAME_UP) << old;
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(content(path), std::to_string(run.daemon_pid) + "\n");
    }
}

TEST_F(daemon_start, a_pid_file_with_other_content_is_refused) {
    using namespace std::string_literals;
    const std::map<std::string, std::string> shown = {
        {"abc\n", "abc\n"}, {"no number here", "no number "},
        {"\n\n", "\n\n"},   {"-", "-"},
        {"x\0y"s, "x"},     {"\0\0"s, ""},
    };
    for (const auto& [bytes, text] : shown) {
        std::ofstream(path, std::ios::binary) << bytes;
        expect_failure_before_fork("PID File: \"" + path + "\" does not contain a valid PID (" +
                                   text + ")");
        EXPECT_EQ(content(path), bytes);
    }
}

TEST_F(daemon_start, a_pid_file_that_cannot_be_opened) {
    path = directory + "/missing/pid";
    expect_failure_before_fork("Failed on opening PID file: \"" + path +
                               "\", No such file or directory");
    path = directory;
    expect_failure_before_fork("Failed on opening PID file: \"" + path + "\", Is a directory");
}

TEST_F(daemon_start, failures_are_silent_at_log_level_0) {
    path = directory + "/missing/pid";
    daemon_run run = start([] { return (log_level = 0) == 0; });
    EXPECT_EQ(run.parent_status, 0);
    EXPECT_EQ(run.output, "");
    run = start([] { return (log_level = 1) == 1; });
    EXPECT_NE(run.output, "");
}

TEST_F(daemon_start, a_pid_file_that_cannot_be_read) {
    path = "/proc/self/mem";
    expect_failure_before_fork(
        "Failed on reading PID File: \"/proc/self/mem\", Input/output error");
}

/* A child that may not fork cannot look for leaks either: the address sanitizer asks here. */
static int leaks_unwatched = 0;
extern "C" int __lsan_is_turned_off() {
    return leaks_unwatched;
}

TEST_F(daemon_start, a_failed_fork) {
    expect_failure_before_fork("Failed on Fork: Resource temporarily unavailable", [] {
        leaks_unwatched = 1;
        return refuse_syscall(SYS_clone, EAGAIN);
    });
}

TEST_F(daemon_start, a_second_daemon_ends_and_the_first_keeps_the_lock) {
    std::ofstream(path) << "12345\n"; /* what has been read does not shift the lock */
    int go_on[2];
    ASSERT_EQ(pipe(go_on), 0);
    auto first_holds_on = [&](int report) {
        close(go_on[1]);
        dprintf(report, "up\n");
        close(report);
        char end;
        (void)!read(go_on[0], &end, 1);
    };
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    fflush(stdout);
    pid_t parent = fork();
    if (parent == 0) {
        lock_file = path.data();
        daemon_init();
        first_holds_on(report[1]);
        _exit(CAME_UP);
    }
    int status;
    ASSERT_EQ(waitpid(parent, &status, 0), parent);
    EXPECT_EQ(WEXITSTATUS(status), 1);
    close(report[1]);
    EXPECT_EQ(read_all(report[0]), "up\n");
    pid_t first = static_cast<pid_t>(std::stol(content(path)));
    EXPECT_EQ(lock_holder(path), first);

    for (int level : {6, 5}) {
        int output[2];
        ASSERT_EQ(pipe(output), 0);
        pid_t second = fork();
        if (second == 0) {
            dup2(output[1], STDOUT_FILENO);
            close(output[0]);
            close(output[1]);
            lock_file = path.data();
            log_level = level;
            daemon_init();
            _exit(99);
        }
        close(output[1]);
        EXPECT_EQ(read_all(output[0]),
                  level == 6 ? "\nPID File \"" + path + "\", " + std::to_string(first) + ".\n"
                             : "");
        close(output[0]);
        ASSERT_EQ(waitpid(second, &status, 0), second);
        EXPECT_EQ(WEXITSTATUS(status), 1);
        pid_t refused = waitpid(-1, &status, 0);
        EXPECT_NE(refused, first);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_EQ(content(path), std::to_string(first) + "\n");
        EXPECT_EQ(lock_holder(path), first);
    }

    close(go_on[0]);
    close(go_on[1]);
    close(report[0]);
    ASSERT_EQ(waitpid(first, &status, 0), first);
    EXPECT_EQ(WEXITSTATUS(status), CAME_UP);
    EXPECT_EQ(lock_holder(path), 0);
    EXPECT_EQ(start().daemon_status, CAME_UP) << "the lock is free again";
}

TEST_F(daemon_start, a_lock_held_by_a_process_that_cannot_be_seen) {
    for (int error : {EACCES, EAGAIN}) {
        expect_failure_in_child("PID File \"" + path + "\", 0.",
                                [&] { return refuse_syscall(SYS_fcntl, error, 1, F_SETLK); });
    }
}

TEST_F(daemon_start, a_lock_that_fails_otherwise) {
    expect_failure_in_child("Cannot lock PID File '" + path + "', No locks available.",
                            [] { return refuse_syscall(SYS_fcntl, ENOLCK, 1, F_SETLK); });
}

TEST_F(daemon_start, a_pid_file_that_cannot_be_positioned) {
    expect_failure_in_child("Failed on PID File \"" + path + "\" reposition, Illegal seek",
                            [] { return refuse_syscall(SYS_lseek, ESPIPE, 0, next_fd()); });
}

TEST_F(daemon_start, a_pid_file_that_cannot_be_truncated) {
    expect_failure_in_child("Failed on ftruncate: Invalid argument",
                            [] { return refuse_syscall(SYS_ftruncate, EINVAL, 0, next_fd()); });
}

TEST_F(daemon_start, a_pid_file_that_cannot_be_written) {
    expect_failure_in_child("Failed on writing PID File \"" + path + "\", No space left on device",
                            [] { return refuse_syscall(SYS_write, ENOSPC, 0, next_fd()); });
}

TEST_F(daemon_start, text_waiting_on_standard_output_is_printed_once) {
    daemon_run run = start([] { return printf("before") > 0; });
    EXPECT_EQ(run.daemon_status, CAME_UP);
    EXPECT_EQ(run.output, "before");
}

TEST_F(daemon_start, the_lock_holds_when_the_agent_starts_without_standard_descriptors) {
    daemon_run run = start(
        [] {
            fclose(stdin);
            fclose(stdout);
            fclose(stderr);
            return true;
        },
        [&](int report) {
            /* Only another process sees the lock. */
            pid_t other = fork();
            if (other == 0) {
                dprintf(report, "%s", lock_holder(path) == getppid() ? "held" : "lost");
                _exit(0);
            }
            waitpid(other, nullptr, 0);
            describe(report);
        });
    EXPECT_EQ(run.daemon_status, CAME_UP);
    EXPECT_TRUE(run.report.starts_with("held")) << run.report;
    EXPECT_TRUE(run.report.ends_with("pidfile cloexec\n")) << run.report;
}

TEST(descriptor_limit, is_raised_for_the_agent_and_not_for_its_commands) {
    rlimit before, raised;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_GT(before.rlim_max, 200U);
    rlimit lower = {200, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lower), 0);
    raise_descriptor_limit();
    getrlimit(RLIMIT_NOFILE, &raised);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(raised.rlim_cur, before.rlim_max);
    EXPECT_EQ(command_descriptors, 200U);
}

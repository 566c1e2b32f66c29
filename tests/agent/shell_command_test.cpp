/* Commands by the shell: what they inherit and what not, how they end, and who may stop waiting. */
#include "shell_command.cpp"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>

namespace {

class ShellCommand : public testing::Test {
protected:
    std::string place;

    void SetUp() override {
        char name[] = "/tmp/shell_command_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name));
        place = name;
        ASSERT_EQ(0, mkfifo((place + "/gate").c_str(), 0600));
        command_descriptors = 0;
    }
    void TearDown() override {
        command_descriptors = 0;
        std::filesystem::remove_all(place);
    }

    /* What the command prints, without the last line end. */
    std::string output_of(const std::string& command, bool literal_words = false) {
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        unique_fd reading(ends[0]), writing(ends[1]);
        pid = spawn_shell(command.c_str(), writing.get(), literal_words);
        EXPECT_GT(pid, 0);
        writing.reset();
        std::string text;
        char chunk[256];
        for (ssize_t got; (got = read(reading.get(), chunk, sizeof chunk)) > 0;) {
            text.append(chunk, static_cast<size_t>(got));
        }
        status = wait_command(pid);
        return text.ends_with('\n') ? text.substr(0, text.size() - 1) : text;
    }
    pid_t pid = -1; /* of the last command */
    int status = -1;

    /* A command that ends when open_gate is called. */
    pid_t start_waiting() {
        return spawn_shell(("read line < " + place + "/gate; exit 5").c_str(), -1, false);
    }
    void open_gate() const {
        unique_fd gate(open((place + "/gate").c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(1, write(gate.get(), "\n", 1));
    }
};

bool exited_with(int status, int code) {
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

} // namespace

TEST_F(ShellCommand, prints_to_the_descriptor_and_ends_with_its_status) {
    EXPECT_EQ("a b", output_of("echo a b; exit 3"));
    EXPECT_TRUE(exited_with(status, 3));
    EXPECT_EQ("", output_of("kill -TERM $$"));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ("", output_of("no-such-command 2> /dev/null"));
    EXPECT_TRUE(exited_with(status, 127));
}

TEST_F(ShellCommand, patterns_are_expanded_unless_words_are_literal) {
    const std::string echo = "echo " + place + "/ga*";
    EXPECT_EQ(place + "/gate", output_of(echo));
    EXPECT_EQ(place + "/ga*", output_of(echo, true));
    EXPECT_EQ("one two", output_of("x='one two'; echo $x", true)) << "only patterns";
}

TEST_F(ShellCommand, signals_are_as_in_a_fresh_process) {
    sigset_t blocked, before;
    sigemptyset(&blocked);
    for (int number : {SIGHUP, SIGTERM, SIGUSR1}) {
        sigaddset(&blocked, number);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    struct sigaction ignore = {}, old_pipe, old_size;
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &old_pipe);
    sigaction(SIGXFSZ, &ignore, &old_size);
    std::string seen = output_of("sed -n 's/^Sig\\(Blk\\|Ign\\):.//p' /proc/self/status");
    sigaction(SIGPIPE, &old_pipe, nullptr);
    sigaction(SIGXFSZ, &old_size, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ASSERT_EQ(2 * 16 + 1u, seen.size()) << seen;
    char* rest = nullptr;
    EXPECT_EQ(0u, strtoull(seen.c_str(), &rest, 16));
    unsigned long long ignored = strtoull(rest, nullptr, 16); /* others as the test found them */
    for (int number : {SIGHUP, SIGPIPE, SIGXFSZ, SIGSEGV}) {
        EXPECT_EQ(0u, ignored >> (number - 1) & 1) << number;
    }
}

TEST_F(ShellCommand, it_leads_a_process_group_of_its_own) {
    EXPECT_EQ("", output_of("exit 0"));
    std::string group = output_of("cut -d ' ' -f 5 /proc/$$/stat");
    EXPECT_EQ(std::to_string(pid), group);
}

TEST_F(ShellCommand, it_has_the_standard_streams_and_no_other_descriptor) {
    const int left_open = 57;
    unique_fd kept(dup2(STDERR_FILENO, left_open)); /* not closed on exec */
    ASSERT_EQ(left_open, kept.get());
    EXPECT_EQ("0 1 2", output_of("for n in 0 1 2 57; do [ -e /proc/$$/fd/$n ] && echo $n; done |"
                                 " tr '\\n' ' ' | sed 's/ $//'"));
}

TEST_F(ShellCommand, its_limit_of_descriptors_is_the_one_asked_for) {
    rlimit own;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &own));
    const std::string all =
        own.rlim_cur == RLIM_INFINITY ? "unlimited" : std::to_string(own.rlim_cur);
    EXPECT_EQ(all, output_of("ulimit -S -n"));
    command_descriptors = 61;
    EXPECT_EQ("61", output_of("ulimit -S -n"));
    rlimit after;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &after));
    EXPECT_EQ(own.rlim_cur, after.rlim_cur);
    EXPECT_EQ("a*", output_of("echo a*", true)) << "with the limit set before it";
}

TEST_F(ShellCommand, what_cannot_be_started_says_why) {
    std::string endless(4 << 20, 'x'); /* more than a process may be given */
    errno = 0;
    EXPECT_EQ(-1, spawn_shell(endless.c_str(), -1, false));
    EXPECT_EQ(E2BIG, errno);
}

TEST_F(ShellCommand, who_is_no_child_is_not_waited_for) {
    EXPECT_EQ(-1, wait_command(getpid()));
}

static std::atomic<int> interrupted;

TEST_F(ShellCommand, a_signal_does_not_end_the_wait) {
    struct sigaction count = {}, before;
    count.sa_handler = [](int) { interrupted++; };
    sigaction(SIGUSR1, &count, &before); /* without SA_RESTART */
    EXPECT_EQ("", output_of("kill -USR1 $PPID"));
    pid_t waited = start_waiting();
    ASSERT_GT(waited, 0);
    interrupted = 0;
    std::thread other([this, main_thread = pthread_self()] {
        pthread_kill(main_thread, SIGUSR1);
        while (interrupted == 0) {
            std::this_thread::yield();
        }
        open_gate();
    });
    EXPECT_TRUE(exited_with(wait_command(waited), 5));
    other.join();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(ShellCommand, a_cancelled_waiter_leaves_the_command_alone) {
    pid_t waited = start_waiting();
    ASSERT_GT(waited, 0);
    pthread_t waiter;
    ASSERT_EQ(0, pthread_create(
                     &waiter, nullptr,
                     [](void* of) -> void* {
                         cancel_off but_in_waits;
                         wait_command(*static_cast<pid_t*>(of));
                         return nullptr;
                     },
                     &waited));
    pthread_cancel(waiter);
    void* result = nullptr;
    pthread_join(waiter, &result);
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_EQ(0, kill(waited, 0));
    open_gate();
    EXPECT_TRUE(exited_with(wait_command(waited), 5));
}

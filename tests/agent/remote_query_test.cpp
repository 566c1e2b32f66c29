/* The guard in front of the shell, and the running of a query. */
#include "remote_query.cpp"

#include "checker_place.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <thread>

namespace {
/* A stop that comes when `come` is called, and otherwise not. */
struct stop_event {
    unique_fd fd{eventfd(0, EFD_CLOEXEC)};
    void come() { eventfd_write(fd.get(), 1); }
} never;

std::string query(const char* format, const char* host, int stop_fd = never.fd.get()) {
    heap_text output = query_remote_host(format, host, stop_fd);
    return output ? output.get() : "(none)";
}

std::string witness_path() {
    return testing::TempDir() + "remote_query_witness." + std::to_string(getpid());
}

/* Processes of a group that have not ended; who waits for those that have is not ours to say. */
int running_in_group(pid_t group) {
    int running = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        if (atoi(entry.path().filename().c_str()) == 0) {
            continue;
        }
        std::ifstream file(entry.path() / "stat");
        std::string text;
        std::getline(file, text);
        char state = 'Z';
        int parent = 0, found = 0;
        size_t name_end = text.rfind(')');
        if (name_end != text.npos &&
            sscanf(text.c_str() + name_end + 1, " %c %d %d", &state, &parent, &found) == 3) {
            running += found == group && state != 'Z' && state != 'X';
        }
    }
    return running;
}

bool no_child_is_left() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}
} // namespace

TEST(RemoteHost, names_addresses_and_ports_are_safe) {
    for (const char* host :
         {"localhost", "db-1.example.org", "10.0.0.1", "10.0.0.1:1161", "::1", "[::1]:161",
          "udp6:[fe80::1%eth0]:161", "under_score", "tcp:host:705", "X"}) {
        EXPECT_EQ(1, is_safe_host(host)) << host;
    }
}

TEST(RemoteHost, everything_else_is_refused) {
    for (const char* host :
         {"",      "-v",   "--version", "-",    "a b",         "a;b",   "a|b",    "a&b",
          "$(id)", "`id`", "a>b",       "a<b",  "a\nb",        "a\tb",  "host\r", "a'b",
          "a\"b",  "a\\b", "a*",        "a?",   "~",           "~root", "a/b",    "{a,b}",
          "a=b",   "a#b",  "!1",        "a(b)", "h\xc3\xb6st", "\x01"}) {
        EXPECT_EQ(0, is_safe_host(host)) << host;
    }
    EXPECT_EQ(0, is_safe_host(nullptr));
    EXPECT_EQ(0, is_safe_host(std::string(301, 'a').c_str()));
    EXPECT_EQ(1, is_safe_host(std::string(300, 'a').c_str()));
}

TEST(RemoteQuery, returns_what_the_command_printed) {
    EXPECT_EQ("query h1 | x\n", query("echo 'query' %s '|' x", "h1"));
    EXPECT_EQ("b\n", query("printf 'a = b\\nc\\n' %s | cut -s -d = -f 2 | tr -d ' '", "h1"));
}

TEST(RemoteQuery, exit_status_does_not_count) {
    EXPECT_EQ("out\n", query("echo out; test %s = x", "h1"));
    EXPECT_EQ("", query("test %s = x", "h1"));
}

TEST(RemoteQuery, unsafe_host_starts_no_process) {
    std::string witness = witness_path();
    std::string format = "touch " + witness + "; echo %s";
    EXPECT_EQ("(none)", query(format.c_str(), "-h"));
    EXPECT_EQ("(none)", query(format.c_str(), "a;b"));
    EXPECT_EQ("(none)", query(format.c_str(), ""));
    EXPECT_EQ("(none)", query(format.c_str(), nullptr));
    EXPECT_FALSE(std::filesystem::exists(witness));
    EXPECT_EQ("h\n", query(format.c_str(), "h"));
    EXPECT_TRUE(std::filesystem::remove(witness));
}

TEST(RemoteQuery, brackets_are_not_taken_for_a_pattern) {
    std::filesystem::path here = std::filesystem::current_path();
    std::filesystem::path place =
        std::filesystem::path(testing::TempDir()) / ("remote_query." + std::to_string(getpid()));
    std::filesystem::create_directory(place);
    std::filesystem::current_path(place);
    fclose(fopen("1", "w"));
    EXPECT_EQ("[::1]\n", query("echo %s", "[::1]"));
    std::filesystem::current_path(here);
    std::filesystem::remove_all(place);
}

TEST(RemoteQuery, long_output_is_returned_whole) {
    EXPECT_EQ(std::string(300000, 'z'), query("head -c 300000 /dev/zero | tr '\\0' %s", "z"));
}

/* Half a line could pass for a whole one with another value. */
TEST(RemoteQuery, output_beyond_the_limit_is_cut_after_a_line_and_the_command_still_ends) {
    std::string lines = query("yes %s | head -c 20000000", "sixth");
    EXPECT_EQ(OUTPUT_LIMIT / 6 * 6, lines.size());
    EXPECT_EQ("sixth\n", lines.substr(lines.size() - 6));
    lines = query("yes %s | head -c 16777216", "sixth"); /* no more than the limit: all of it */
    EXPECT_EQ(OUTPUT_LIMIT, lines.size());
    lines = query("echo first; yes %s | tr -d '\\n' | head -c 20000000", "x");
    EXPECT_TRUE(lines == "first\n") << lines.size();
    lines = query("head -c 20000000 /dev/zero | tr '\\0' %s", "z");
    EXPECT_TRUE(lines.empty()) << lines.size();
}

/* What it had printed by then counts. */
TEST(RemoteQuery, a_command_that_does_not_end_is_ended) {
    query_limit_s = 1;
    EXPECT_EQ("h\n", query("echo %s; sleep 600", "h"));
    EXPECT_EQ("h\n", query("yes %s", "h").substr(0, 2)); /* nor stop writing */
    query_limit_s = 60;
    EXPECT_TRUE(no_child_is_left());
}

/* The shell, the ends of its pipeline and what runs beside it. */
TEST(RemoteQuery, a_stop_ends_the_command_with_all_that_it_started) {
    std::string witness = witness_path();
    std::string format = "echo %s; sleep 600 & sleep 600 | cat & echo $$ > " + witness + "; wait";
    stop_event stop;
    pid_t group = 0;
    std::thread stopper([&] {
        EXPECT_TRUE(eventually([&] { return std::ifstream(witness) >> group && group > 1; }));
        EXPECT_TRUE(eventually([&] { return running_in_group(group) >= 4; }));
        stop.come();
    });
    EXPECT_EQ("(none)", query(format.c_str(), "h", stop.fd.get()));
    stopper.join();
    EXPECT_TRUE(eventually([&] { return running_in_group(group) == 0; }));
    EXPECT_TRUE(no_child_is_left());
    std::filesystem::remove(witness);
}

TEST(RemoteQuery, a_stop_ends_a_command_that_never_stops_writing) {
    stop_event stop;
    std::thread stopper([&] {
        EXPECT_TRUE(eventually([] { return !no_child_is_left(); }));
        stop.come();
    });
    EXPECT_EQ("(none)", query("yes %s", "h", stop.fd.get()));
    stopper.join();
    EXPECT_TRUE(no_child_is_left());
}

TEST(RemoteQuery, a_stop_at_any_moment) {
    for (int i = 0; i < 100; i++) {
        stop_event stop;
        std::thread stopper([&] {
            std::this_thread::sleep_for(std::chrono::microseconds(i * 20));
            stop.come();
        });
        EXPECT_EQ("(none)", query("sleep 600; echo %s", "h", stop.fd.get()));
        stopper.join();
        EXPECT_TRUE(no_child_is_left());
    }
}

TEST(RemoteQuery, after_a_stop_nothing_is_started) {
    std::string witness = witness_path();
    std::string format = "touch " + witness + "; echo %s";
    stop_event stop;
    stop.come();
    EXPECT_EQ("(none)", query(format.c_str(), "h", stop.fd.get()));
    EXPECT_EQ("(none)", query(format.c_str(), "h", stop.fd.get())); /* it stays one */
    EXPECT_EQ("(none)", query(format.c_str(), "h", -1)); /* one that could not be stopped */
    EXPECT_FALSE(std::filesystem::exists(witness));
}

TEST(RemoteQuery, without_a_pipe_there_is_none) {
    EXPECT_EQ("h\n", query("echo %s", "h"));
    descriptors_left one(1);
    EXPECT_EQ("(none)", query("echo %s", "h"));
}

TEST(RemoteQuery, commands_get_clean_signals) {
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    EXPECT_EQ("0000000000000000\n",
              query("sed -n 's/^SigBlk:[[:space:]]*//p' /proc/self/status; : %s", "h"));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(RemoteQuery, leaves_no_descriptor_and_no_child) {
    auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    query("echo %s", "a");
    auto before = descriptors();
    for (int i = 0; i < 20; i++) {
        query("echo %s", "a");
    }
    EXPECT_EQ(before, descriptors());
}

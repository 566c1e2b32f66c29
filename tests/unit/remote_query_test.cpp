/* The guard in front of the shell, and the running of a query. */
#include "remote_query.cpp"

#include "checker_place.h"

#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>

namespace {
std::string query(const char* format, const char* host) {
    heap_text output = query_remote_host(format, host);
    return output ? output.get() : "(none)";
}
} // namespace

TEST(RemoteHost, NamesAddressesAndPortsAreSafe) {
    for (const char* host :
         {"localhost", "db-1.example.org", "10.0.0.1", "10.0.0.1:1161", "::1", "[::1]:161",
          "udp6:[fe80::1%eth0]:161", "under_score", "tcp:host:705", "X"}) {
        EXPECT_EQ(1, is_safe_host(host)) << host;
    }
}

TEST(RemoteHost, EverythingElseIsRefused) {
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

TEST(RemoteQuery, ReturnsWhatTheCommandPrinted) {
    EXPECT_EQ("query h1 | x\n", query("echo 'query' %s '|' x", "h1"));
    EXPECT_EQ("b\n", query("printf 'a = b\\nc\\n' %s | cut -s -d = -f 2 | tr -d ' '", "h1"));
}

TEST(RemoteQuery, ExitStatusDoesNotCount) {
    EXPECT_EQ("out\n", query("echo out; test %s = x", "h1"));
    EXPECT_EQ("", query("test %s = x", "h1"));
}

TEST(RemoteQuery, UnsafeHostStartsNoProcess) {
    std::string witness = testing::TempDir() + "remote_query_witness." + std::to_string(getpid());
    std::string format = "touch " + witness + "; echo %s";
    EXPECT_EQ("(none)", query(format.c_str(), "-h"));
    EXPECT_EQ("(none)", query(format.c_str(), "a;b"));
    EXPECT_EQ("(none)", query(format.c_str(), ""));
    EXPECT_EQ("(none)", query(format.c_str(), nullptr));
    EXPECT_FALSE(std::filesystem::exists(witness));
    EXPECT_EQ("h\n", query(format.c_str(), "h"));
    EXPECT_TRUE(std::filesystem::remove(witness));
}

TEST(RemoteQuery, BracketsAreNotTakenForAPattern) {
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

TEST(RemoteQuery, LongOutputIsReturnedWhole) {
    heap_text output = query_remote_host("head -c 300000 /dev/zero | tr '\\0' %s", "z");
    ASSERT_TRUE(output);
    EXPECT_EQ(std::string(300000, 'z'), output.get());
}

/* Half a line could pass for a whole one with another value. */
TEST(RemoteQuery, OutputBeyondTheLimitIsCutAfterALineAndTheCommandStillEnds) {
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
TEST(RemoteQuery, ACommandThatDoesNotEndIsEnded) {
    query_limit_s = 1;
    EXPECT_EQ("h\n", query("echo %s; sleep 600", "h"));
    EXPECT_EQ("h\n", query("yes %s", "h").substr(0, 2)); /* nor stop writing */
    query_limit_s = 60;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)); /* no child is left */
    EXPECT_EQ(ECHILD, errno);
}

TEST(RemoteQuery, WithoutAPipeThereIsNone) {
    EXPECT_EQ("h\n", query("echo %s", "h"));
    descriptors_left one(1);
    EXPECT_EQ("(none)", query("echo %s", "h"));
}

TEST(RemoteQuery, CommandsGetCleanSignals) {
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    EXPECT_EQ("0000000000000000\n",
              query("sed -n 's/^SigBlk:[[:space:]]*//p' /proc/self/status; : %s", "h"));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(RemoteQuery, LeavesNoDescriptorAndNoChild) {
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

/* The command protocol: which line reaches which operation with which arguments. */
#include "vindral_commands.cpp"

#include "fake_core.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

/* What the commands reach, recorded as text. */
static std::string calls;

static std::string text_of(const char* host) {
    return host != nullptr ? host : "(none)";
}

void set_poll_interval(int poll_interval) {
    calls += "POL " + std::to_string(poll_interval) + "\n";
}
void set_check_intervals(int t_sec) {
    calls += "CHK " + std::to_string(t_sec) + "\n";
}
void add_lda(int tid, int loc_id, int la1, int la5, int la15, char* host) {
    std::ostringstream o;
    o << "add_lda " << tid << " " << loc_id << " " << la1 << " " << la5 << " " << la15 << " "
      << text_of(host) << "\n";
    calls += o.str();
}
void modify_lda(int tid, int loc_id, int la1, int la5, int la15, char* host) {
    std::ostringstream o;
    o << "modify_lda " << tid << " " << loc_id << " " << la1 << " " << la5 << " " << la15 << " "
      << text_of(host) << "\n";
    calls += o.str();
}
void rem_lda(int t_id) {
    calls += "rem_lda " + std::to_string(t_id) + "\n";
}
char* agent_home = nullptr;

/* Runs a reply and returns the calls it made. */
static std::string run(std::string reply) {
    calls.clear();
    parse_data(reply.data());
    return calls;
}

TEST(Commands, PollInterval) {
    EXPECT_EQ("POL 30\n", run("POL\t0\t30"));
    EXPECT_EQ("", run("POL\t30"));
    EXPECT_EQ("POL -1\n", run("POL\tx\t-1"));
    EXPECT_EQ("POL -7\n", run("POL\tx\t-7"));
    EXPECT_EQ("", run("POL\t1\t0"));
    EXPECT_EQ("", run("POL\t1\tabc"));
    EXPECT_EQ("", run("POL\t1\t30\t1"));
    EXPECT_EQ("", run("POL"));
    EXPECT_EQ("POL 12\n", run("POL\t\t12xyz"));
    EXPECT_EQ("POL 30\n", run("POL\t0\t30\r\n")); /* the carriage return stays in the last field */
}

TEST(Commands, CheckInterval) {
    EXPECT_EQ("", run("CHK\t1\t0"));
    EXPECT_EQ("CHK 5\n", run("CHK\t1\t5"));
    EXPECT_EQ("CHK -1\n", run("CHK\t1\t-1"));
    EXPECT_EQ("", run("CHK\t5"));
}

TEST(Commands, LoadAverage) {
    EXPECT_EQ("add_lda 7 3 1 2 4 (none)\n", run("LAA\t7\t3\t1\t2\t4"));
    EXPECT_EQ("add_lda 7 3 1 2 4 db.example\n", run("LAA\t7\t3\t1\t2\t4\tdb.example"));
    EXPECT_EQ("add_lda 7 3 -1 -1 -1 (none)\n", run("LAA\t7\t3\t-1\t-1\t-1\t"));
    EXPECT_EQ("add_lda -7 3 0 0 0 (none)\n", run("LAA\t-7\t3\tx\ty\tz"));
    EXPECT_EQ("", run("LAA\t0\t3\t1\t2\t4"));
    EXPECT_EQ("", run("LAA\tabc\t3\t1\t2\t4"));
    EXPECT_EQ("", run("LAA\t7\t3\t1\t2"));
    EXPECT_EQ("", run("LAA\t7\t3\t1\t2\t4\th\tx"));
    EXPECT_EQ("modify_lda 7 3 1 2 4 (none)\n", run("LAM\t7\t3\t1\t2\t4"));
    EXPECT_EQ("modify_lda 7 3 1 2 4 h\n", run("LAM\t7\t3\t1\t2\t4\th"));
    EXPECT_EQ("", run("LAM\t0\t3\t1\t2\t4"));
    EXPECT_EQ("", run("LAM\t7"));
    EXPECT_EQ("rem_lda 7\n", run("LAD\t7\t0"));
    EXPECT_EQ("", run("LAD\t7"));
    EXPECT_EQ("", run("LAD\t0\t0"));
    EXPECT_EQ("", run("LAD\t7\t0\t0"));
    EXPECT_EQ("", take_log_text()); /* malformed commands are dropped silently */
}

TEST(Commands, OnlyTheLow32BitsOfAnIdCount) {
    EXPECT_EQ("", run("LAD\t4294967296\t0"));
    EXPECT_EQ("rem_lda 1\n", run("LAD\t4294967297\t0"));
    EXPECT_EQ("rem_lda -1\n", run("LAD\t99999999999999999999\t0"));
}

TEST(Commands, UnknownCodesAreLogged) {
    take_log();
    EXPECT_EQ("", run("XYZ"));
    EXPECT_EQ("0 ERROR: Invalid test string received: XYZ\n", take_log_text());
    EXPECT_EQ("", run("LAAX\t7\t3\t1\t2\t4"));
    EXPECT_EQ("", run("LA\t7\t3\t1\t2\t4"));
    EXPECT_EQ("", run("laa\t7\t3\t1\t2\t4"));
    EXPECT_EQ("0 ERROR: Invalid test string received: LAAX\n"
              "0 ERROR: Invalid test string received: LA\n"
              "0 ERROR: Invalid test string received: laa\n",
              take_log_text());
    EXPECT_EQ("", run("%s%n\t1"));
    EXPECT_EQ("0 ERROR: Invalid test string received: %s%n\n", take_log_text());
}

TEST(Commands, LinesOfAReply) {
    take_log();
    EXPECT_EQ("POL 1\nadd_lda 1 1 1 1 1 (none)\nrem_lda 1\n",
              run("POL\t0\t1\n\nLAA\t1\t1\t1\t1\t1\nLAD\t1\t0\n"));
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ("", run(""));
    parse_data(nullptr);
}

TEST(Commands, NoFieldsNothingHappens) {
    take_log();
    char code[] = "XYZ";
    char* fields[] = {nullptr, code};
    add_from_array(nullptr, 3);
    add_from_array(fields, 2);
    add_from_array(fields + 1, 0);
    EXPECT_EQ("", take_log_text());
}

TEST(Commands, LongReplyCanBeCancelledBetweenTwoCommands) {
    std::string reply;
    for (int i = 0; i < 1000; i++) {
        reply += "POL\t0\t" + std::to_string(i + 1) + "\n";
    }
    calls.clear();
    pthread_t thread;
    auto cancelled = [](void* text) -> void* {
        cancel_off except_in_waits;
        pthread_cancel(pthread_self());
        parse_data(static_cast<char*>(text));
        return text;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, cancelled, reply.data()));
    void* ended = nullptr;
    pthread_join(thread, &ended);
    EXPECT_EQ(PTHREAD_CANCELED, ended);
    EXPECT_EQ("", calls);
}

namespace {

/* A home directory whose updater writes down its arguments. */
class Updater : public testing::Test {
protected:
    std::filesystem::path home =
        std::filesystem::path(testing::TempDir()) / ("commands_home." + std::to_string(getpid()));
    std::string home_text = home.string();

    void SetUp() override {
        std::filesystem::create_directories(home / "bin");
        agent_home = home_text.data();
        last_update_time = 0;
        take_log();
    }
    void TearDown() override {
        std::filesystem::remove_all(home);
        agent_home = nullptr;
    }
    void script(const std::string& body) {
        std::filesystem::path file = home / "bin" / "updater";
        std::ofstream(file) << "#!/bin/sh\n" << body;
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    }
    std::string said() {
        std::ifstream in(home / "said");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::string pid = std::to_string(getpid());
};

} // namespace

TEST_F(Updater, RunsTheUpdaterWithItsArguments) {
    script("echo \"$@\" >> " + home_text + "/said; exit 3");
    run("UPD\tvindral\thttps://x/y\tabc123");
    EXPECT_EQ(pid + " " + home_text + "/bin/vindral https://x/y abc123\n", said());
    EXPECT_EQ("-1 Starting Update...\n0 " + home_text + "/bin/updater " + pid + " " + home_text +
                  "/bin/vindral https://x/y abc123\n0 System call return: 768\n",
              take_log_text());
}

TEST_F(Updater, ASecondRequestWithinTenMinutesIsIgnored) {
    script("echo \"$@\" >> " + home_text + "/said");
    run("UPD\ta\tb\tc");
    EXPECT_NE(0, last_update_time);
    take_log();
    run("UPD\ta\tb\td");
    EXPECT_EQ("", take_log_text());
    last_update_time = time(nullptr) - 599;
    run("UPD\ta\tb\te");
    EXPECT_EQ("", take_log_text());
    last_update_time = time(nullptr) - 600;
    run("UPD\ta\tb\tf");
    EXPECT_EQ(pid + " " + home_text + "/bin/a b c\n" + pid + " " + home_text + "/bin/a b f\n",
              said());
}

TEST_F(Updater, FieldCount) {
    run("UPD\ta\tb");
    run("UPD\ta\tb\tc\td");
    EXPECT_EQ("", take_log_text());
}

TEST_F(Updater, AMissingUpdaterIsTheShellsFailure) {
    run("UPD\ta\tb\tc");
    EXPECT_NE(std::string::npos, take_log_text().find("0 System call return: 32512\n"));
}

TEST_F(Updater, OutlivesAStopOfTheAgent) {
    script("echo started >> " + home_text + "/said\n" + "while [ ! -e " + home_text +
           "/go ]; do sleep 0.01; done\necho finished >> " + home_text + "/said\n");
    pthread_t thread;
    auto update = [](void*) -> void* {
        cancel_off except_in_waits;
        char a[] = "a", b[] = "b", c[] = "c";
        start_updater(a, b, c);
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, update, nullptr));
    while (said() != "started\n") {
        usleep(1000);
    }
    pthread_cancel(thread);
    void* ended = nullptr;
    pthread_join(thread, &ended);
    EXPECT_EQ(PTHREAD_CANCELED, ended);
    EXPECT_EQ("started\n", said());
    std::ofstream(home / "go") << "";
    while (said() != "started\nfinished\n") {
        usleep(1000);
    }
}

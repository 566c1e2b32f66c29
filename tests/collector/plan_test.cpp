#include "plan/file.cpp"

#include "collector_test_support.h"
#include "plan/plan.h"

#include <chrono>
#include <gtest/gtest.h>
#include <sys/stat.h>

static double pinned_seconds = 1000;

/* A plan file in a directory of its own. The clock by which a file lies still is pinned;
 * that of its time stamps is in the past, as after a wrong clock. */
struct plan_test : testing::Test {
    scratch_directory directory;
    std::string path = directory / "plan";
    std::vector<std::string> problems; /* "number reason" */
    std::unique_ptr<plan> p;

    void SetUp() override {
        read_clock_ns = [](clockid_t clock) {
            return clock == CLOCK_MONOTONIC ? static_cast<int64_t>(pinned_seconds * 1e9) : 0;
        };
    }
    void TearDown() override { read_clock_ns = clock_ns; }

    bool start(const std::string& text) {
        write_text(path, text);
        p = std::make_unique<plan>(path, [this](const plan_problem& problem) {
            problems.push_back(std::to_string(problem.number) + " " + problem.reason);
        });
        return p->refresh();
    }

    /* What a running collector sees once the file has lain still. */
    bool settle() {
        pinned_seconds += 2;
        return p->refresh();
    }

    std::vector<std::string> take_problems() { return std::exchange(problems, {}); }
};

using strings = std::vector<std::string>;

static const std::string laa5 = "LAA\t5\t1\t1\t2\t3\n";
static const std::string laa6 = "LAA\t6\t1\t1\t2\t3\n";

TEST_F(plan_test, an_empty_path_is_an_empty_plan) {
    plan none("", nullptr);
    EXPECT_TRUE(none.refresh());
    EXPECT_EQ(none.text_after(0), "");
    EXPECT_EQ(none.newest(), 0u);
}

TEST_F(plan_test, all_lines_that_hold_are_sent_in_file_order) {
    std::string text = "POL\t0\t30\nCHK\t0\t60\n" + laa5 +
                       "LAA\t6\t1\t-1\t2\t3\thost\nLAM\t5\t1\t1\t1\t1\n"
                       "LAD\t6\t0\nUPD\tname\turl\tsum\n";
    EXPECT_TRUE(start(text));
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(p->text_after(0), text);
    EXPECT_EQ(p->text_after(p->newest()), "");
    ASSERT_EQ(p->lines().size(), 7u);
    EXPECT_EQ(p->lines()[2].number, 3);
    EXPECT_EQ(p->lines()[2].text + "\n", laa5);
}

TEST_F(plan_test, comments_blank_lines_and_carriage_returns_are_no_problem) {
    EXPECT_TRUE(start("# comment\n\n  \t \n \t# another\nCHK\t0\t60\r\n#\r\n\r\nPOL\tx\t10\r\r\n"));
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(p->text_after(0), "CHK\t0\t60\nPOL\tx\t10\n");
    EXPECT_EQ(p->lines()[1].number, 8);
}

TEST_F(plan_test, intervals_that_stop_agents_or_never_end_are_refused) {
    EXPECT_TRUE(start("POL\t0\t-1\nCHK\t0\t-1\nPOL\t0\t2147483647\nCHK\t0\t2678401\nPOL\t0\t60s\n"
                      "POL\t0\t2678400\nCHK\t0\t1\n"));
    EXPECT_EQ(take_problems(),
              (strings{"1 the number of seconds is -1, which ends agents for good: 1 to 2678400",
                       "2 the number of seconds is -1, which ends agents for good: 1 to 2678400",
                       "3 the number of seconds is 2147483647: 1 to 2678400 (31 days)",
                       "4 the number of seconds is 2678401: 1 to 2678400 (31 days)",
                       "5 the number of seconds is \"60s\", not a whole number of 32 bits"}));
    EXPECT_EQ(p->text_after(0), "POL\t0\t2678400\nCHK\t0\t1\n");
}

TEST_F(plan_test, blanks_in_place_of_tabs_are_named) {
    EXPECT_TRUE(start("POL 0 30\nLAA 5 1 1 2 3\nFOO bar\n" + laa6));
    EXPECT_EQ(take_problems(), (strings{"1 blanks stand where tabs separate the fields",
                                        "2 blanks stand where tabs separate the fields",
                                        "3 unknown code \"FOO bar\""}));
}

TEST_F(plan_test, a_file_of_which_every_line_is_refused_leaves_the_lines) {
    ASSERT_TRUE(start(laa5 + laa6));
    uint64_t newest = p->newest();
    write_text(path, "# my tests\nLAA 5 1 9 9 9\nPOL\t0\t-1\n");
    p->refresh();
    EXPECT_FALSE(settle());
    EXPECT_EQ(take_problems(),
              strings{"0 " + path +
                      ": every line is refused (line 2: blanks stand where tabs separate the "
                      "fields); the lines that were in it stay in force"});
    EXPECT_FALSE(settle());
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(p->text_after(0), laa5 + laa6);
    EXPECT_EQ(p->newest(), newest);
    write_text(path, "# no tests\n");
    p->refresh();
    EXPECT_TRUE(settle());
    EXPECT_EQ(p->text_after(0), "");
}

TEST_F(plan_test, at_a_start_refused_lines_are_all_told) {
    EXPECT_TRUE(start("POL 0 30\nPOL\t0\t0\n"));
    EXPECT_EQ(take_problems().size(), 2u);
}

TEST_F(plan_test, a_code_that_agents_know_and_do_nothing_for_is_unknown) {
    EXPECT_TRUE(start("POL\t0\t30\nSWM\t1\t1\n"));
    EXPECT_EQ(take_problems(), (strings{"2 unknown code \"SWM\""}));
}

TEST_F(plan_test, tests_of_every_checker) {
    const std::string text = "PRA\t1\t1\t90\t-1\t-1\tmy daemon\n"
                             "MMA\t2\t1\t1\t2\t3\t4\t5\n"
                             "MMA\t3\t1\t1\t2\t3\t4\t5\thost\n"
                             "DKA\t4\t1\t/(/dev/sda1|ext4)\t1.5\n"
                             "DKA\t5\t1\t/(/dev/sda1|ext4)\t-1\t1e3\n"
                             "CUA\t6\t1\t1\t2\t3\t4\t5\n"
                             "CUA\t7\t1\t1\t2\t3\t4\t5\thost\n"
                             "CUA\t8\t1\t1\t2\t3\t4\t5\thost\tlinux\n"
                             "NTA\t9\t1\teth0\t1\t2\t3\t4\t5\t6\n"
                             "NTA\t10\t1\teth0\t1\t2\t3\t4\t5\t6\tmore\tmore\n"
                             "PRM\t1\t1\t90\t-1\t-1\tx\nPRD\t1\t0\n"
                             "MMM\t2\t1\t1\t2\t3\t4\t5\nMMD\t2\t0\n"
                             "DKM\t4\t1\t/\t2\nDKD\t4\t0\n"
                             "CUM\t6\t1\t1\t2\t3\t4\t5\nCUD\t6\t0\n"
                             "NTM\t9\t1\teth0\t1\t2\t3\t4\t5\t6\nNTD\t9\t0\tmore\n"
                             "SWA\t11\t1\th\t161\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\n"
                             "STA\t12\t1\th\t161\t20\t3\t1.3\t\tmd5\tu\tp\tdes\tq\t1\t0\n"
                             "STM\t12\t1\th\t161\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\n"
                             "SPA\t13\t1\th\t0\t2\t1.3;1.4\tpublic\t\t\t\t\t\t1\t0\t1,5;-\n"
                             "SPM\t13\t1\th\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\t-\n"
                             "STD\t13\t0\nSWD\t11\n"
                             "USA\t15\t/run/feed\nUSM\t15\t/run/food\nUSD\t15\n"
                             "TSA\t15\t8080\tall\nTSM\t15\t8081\t10.0.0.1;10.0.0.2\nTSD\t15\n"
                             "MQA\t16\t1\th\t0\t\tu\tp\tUptime;Threads|9|1\t0\n"
                             "MQM\t16\t1\th\t3306\t/sock\tu\tp\tUptime\t5\nMQD\t16\t0\n"
                             "DCA\t14\t1\t10.0.0.1\t10.0.0.9\n"
                             "DCM\t14\t1\t10.0.0.1\t10.0.1.9\t1.3;1.4\nDCR\t14\n";
    EXPECT_TRUE(start(text));
    EXPECT_EQ(take_problems(), strings{});
    EXPECT_EQ(p->text_after(0), text);
}

TEST_F(plan_test, malformed_tests_of_every_checker) {
    EXPECT_TRUE(start("PRA\t1\t1\t90\t-1\t-1\n"
                      "MMA\t2\t1\t1\t2\t3\t4\t5\th\tx\n"
                      "DKA\t4\t1\t/\tmuch\n"
                      "DKA\t4\t1\t/\t1\tinf\n"
                      "CUA\t6\t1\t1\t2\t3\t4\n"
                      "NTA\t9\t1\teth0\t1\t2\t3\t4\t5\n"
                      "NTA\t9\t1\teth0\t1\t2\t3\t4\t5\tx\n"
                      "SWA\t11\t1\th\t0\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\n"
                      "SPA\t13\t1\th\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\t\n"
                      "SPA\t13\t1\th\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\t-\n"
                      "STA\t13\t1\th\t161\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\n"
                      "SPD\t13\n"
                      "TSA\t1\t0\tall\nUSM\t1\t/run/feed\nTSD\t1\n"));
    EXPECT_EQ(take_problems(),
              (strings{"1 PRA takes 7 fields, here are 6", "2 MMA takes 8 or 9 fields, here are 10",
                       "3 the amount is \"much\", not a number",
                       "4 the most that is written is \"inf\", not a number",
                       "5 CUA takes 8 to 10 fields, here are 7",
                       "6 NTA takes at least 10 fields, here are 9",
                       "7 the maximum is \"x\", not a whole number of 32 bits", "8 the port is 0",
                       "9 SPA takes 16 fields, here are 15 (the tab at the end begins no field)",
                       "11 snmp test 13 is there already, adding it again does nothing",
                       "12 SPD removes no test: use STD", "13 the port is 0",
                       "14 unix listener 1 is not there, modifying it does nothing",
                       "15 TCP listener 1 is not there, removing it does nothing"}));
    EXPECT_EQ(p->lines().size(), 1u);
}

TEST_F(plan_test, lines_that_an_agent_would_drop_are_reported_and_not_sent) {
    EXPECT_TRUE(start("XYZ\t1\t2\n"
                      "laa\t5\t1\t1\t2\t3\n"
                      "\tCHK\t0\t60\n"
                      "CHK\t60\n"
                      "CHK\t0\t60\t1\n"
                      "CHK\t0\t0\n"
                      "POL\t0\t0\n"
                      "LAA\t0\t1\t1\t2\t3\n"
                      "LAA\t4294967296\t1\t1\t2\t3\n"
                      "LAA\tfive\t1\t1\t2\t3\n"
                      "LAA\t5\t1\t1.5\t2\t3\n"
                      "LAA\t5\t\t1\t2\t3\n"
                      "LAA\t5\t1\t1\t2\n"
                      "LAA\t5\t1\t1\t2\t3\thost\tmore\n"
                      "LAD\t5\n"
                      "UPD\tname\turl\n"));
    EXPECT_EQ(
        take_problems(),
        (strings{"1 unknown code \"XYZ\"", "2 unknown code \"laa\"", "3 unknown code \"\"",
                 "4 CHK takes 3 fields, here are 2", "5 CHK takes 3 fields, here are 4",
                 "6 the number of seconds is 0", "7 the number of seconds is 0",
                 "8 the test id is 0",
                 "9 the test id is \"4294967296\", not a whole number of 32 bits",
                 "10 the test id is \"five\", not a whole number of 32 bits",
                 "11 the 1 min maximum is \"1.5\", not a whole number of 32 bits",
                 "12 the location id is \"\", not a whole number of 32 bits",
                 "13 LAA takes 6 or 7 fields, here are 5", "14 LAA takes 6 or 7 fields, here are 8",
                 "15 LAD takes 3 fields, here are 2", "16 UPD takes 4 fields, here are 3"}));
    EXPECT_EQ(p->text_after(0), "");
    EXPECT_EQ(p->newest(), 0u);
}

TEST_F(plan_test, a_blank_behind_a_number_is_shown) {
    EXPECT_TRUE(start("DKA\t1\t1\t/(/dev/sda1|ext4)\t5 \nLAA\t1\t1\t1\t1\t1  \n"));
    EXPECT_EQ(take_problems(),
              (strings{"1 the amount is \"5 \", not a number",
                       "2 the 15 min maximum is \"1  \", not a whole number of 32 bits"}));
}

TEST_F(plan_test, fields_that_the_agent_ignores_may_be_anything) {
    EXPECT_TRUE(start(laa5 + "POL\tanything\t10\nLAD\t5\tanything\n"));
    EXPECT_EQ(take_problems(), strings());
}

TEST_F(plan_test, an_empty_last_field_cannot_be_sent_but_a_tab_may_end_the_line) {
    EXPECT_TRUE(start("LAA\t5\t1\t1\t2\t3\t\n" /* six fields */
                      "LAA\t6\t1\t1\t2\t3\t\t\n"
                      "UPD\tname\turl\t\n"
                      "LAA\t7\t1\t1\t2\t\t3\n"));
    EXPECT_EQ(take_problems(),
              (strings{"2 the last field is empty, which cannot be sent",
                       "3 UPD takes 4 fields, here are 3 (the tab at the end begins no field)",
                       "4 the 15 min maximum is \"\", not a whole number of 32 bits"}));
    EXPECT_EQ(p->text_after(0), "LAA\t5\t1\t1\t2\t3\t\n");
}

TEST_F(plan_test, what_would_do_nothing_is_reported) {
    EXPECT_TRUE(start("LAD\t5\t0\n"
                      "LAM\t5\t1\t1\t2\t3\n" +
                      laa5 +
                      "LAA\t5\t1\t9\t9\t9\n"
                      "LAD\t5\t0\n"
                      "LAD\t5\t0\n"
                      "LAM\t5\t1\t1\t2\t3\n" +
                      laa5));
    EXPECT_EQ(take_problems(),
              (strings{"1 load average test 5 is not there, removing it does nothing",
                       "2 load average test 5 is not there, modifying it does nothing",
                       "4 load average test 5 is there already, adding it again does nothing",
                       "6 load average test 5 is not there, removing it does nothing",
                       "7 load average test 5 is not there, modifying it does nothing"}));
    EXPECT_EQ(p->text_after(0), laa5 + "LAD\t5\t0\n" + laa5);
}

TEST_F(plan_test, bytes_that_do_not_belong_into_a_line_are_reported) {
    std::string longest = "UPD\tn\tu\t" + std::string(65536 - 8, 'x');
    EXPECT_TRUE(
        start(std::string("CHK\t0\t6\0\n", 9) + longest + "\n" + longest + "y\n\x1b[31m\tx\n"));
    EXPECT_EQ(take_problems(),
              (strings{"1 there is a NUL byte in the line", "3 the line is longer than 64 KiB",
                       "4 unknown code \"?[31m\""}));
    EXPECT_EQ(p->text_after(0), longest + "\n");
}

TEST_F(plan_test, many_problems_are_cut_short) {
    std::string text;
    for (int i = 0; i < 1500; i++) {
        text += "bad " + std::to_string(i) + "\n";
    }
    EXPECT_TRUE(start(text));
    ASSERT_EQ(problems.size(), 1001u);
    EXPECT_EQ(problems[999], "1000 unknown code \"bad 999\"");
    EXPECT_EQ(problems[1000], "1001 there are more problems from here on");
}

TEST_F(plan_test, appended_lines_get_new_serials_at_once) {
    start(laa5);
    uint64_t before = p->newest();
    append_text(path, laa6 + "bad\n");
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(take_problems(), (strings{"3 unknown code \"bad\""}));
    EXPECT_EQ(p->text_after(before), laa6);
    EXPECT_EQ(p->text_after(0), laa5 + laa6);
    uint64_t now = p->newest();
    EXPECT_TRUE(settle());
    EXPECT_TRUE(settle());
    EXPECT_EQ(p->newest(), now);
    EXPECT_EQ(take_problems(), strings()); /* once per problem */
}

TEST_F(plan_test, the_same_line_once_more_is_a_new_line) {
    start("CHK\t0\t60\nUPD\ta\tb\tc\n");
    uint64_t before = p->newest();
    append_text(path, "CHK\t0\t30\nCHK\t0\t60\n");
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(before), "CHK\t0\t30\nCHK\t0\t60\n");
}

TEST_F(plan_test, a_problem_is_reported_again_only_when_it_is_new) {
    start("bad\n");
    EXPECT_EQ(take_problems(), (strings{"1 unknown code \"bad\""}));
    write_text(directory / "other", "# moved down\nbad\nbad\n");
    rename((directory / "other").c_str(), path.c_str());
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(take_problems(), (strings{"3 unknown code \"bad\""}));
}

TEST_F(plan_test, a_line_without_end_is_taken_at_start) {
    EXPECT_TRUE(start("CHK\t0\t60"));
    EXPECT_EQ(p->text_after(0), "CHK\t0\t60\n");
}

TEST_F(plan_test, while_running_a_line_without_end_has_to_lie_still) {
    start(laa5);
    append_text(path, "CHK\t0\t6");
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(0), laa5);
    pinned_seconds += 1.5;
    append_text(path, "0");
    EXPECT_TRUE(p->refresh());
    pinned_seconds += 1.5;
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(0), laa5);
    pinned_seconds += 0.5;
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(0), laa5 + "CHK\t0\t60\n");
}

TEST_F(plan_test, a_file_that_lay_still_before_is_taken_at_once) {
    start(laa5);
    read_clock_ns = [](clockid_t clock) {
        return clock == CLOCK_MONOTONIC ? int64_t{0} : clock_ns(clock) + 2000000000;
    };
    append_text(path, "CHK\t0\t60");
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(0), laa5 + "CHK\t0\t60\n");
}

TEST_F(plan_test, an_unended_last_line_that_was_there_stays) {
    start(laa5 + "CHK\t0\t60");
    uint64_t before = p->newest();
    write_text(directory / "other", laa6 + laa5 + "CHK\t0\t60");
    rename((directory / "other").c_str(), path.c_str());
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(before), laa6);
    EXPECT_EQ(p->text_after(0), laa6 + laa5 + "CHK\t0\t60\n");
}

TEST_F(plan_test, a_file_rewritten_in_place_has_to_lie_still) {
    start(laa5 + laa6 + "CHK\t0\t60\n");
    uint64_t before = p->newest();
    write_text(path, "# all new\n" + laa5); /* an editor wrote so far */
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->lines().size(), 3u);
    pinned_seconds += 1;
    append_text(path, laa6 + "CHK\t0\t60\nCHK\t0\t90\n");
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->lines().size(), 3u);
    EXPECT_TRUE(settle());
    EXPECT_EQ(p->text_after(before), "CHK\t0\t90\n");
    EXPECT_EQ(p->lines().size(), 4u);
    EXPECT_EQ(take_problems(), strings());
}

TEST_F(plan_test, a_replaced_file_is_taken_at_once) {
    start(laa5 + "CHK\t0\t60\n");
    uint64_t before = p->newest();
    write_text(directory / "other", laa6 + laa5);
    rename((directory / "other").c_str(), path.c_str());
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(before), laa6);
    EXPECT_EQ(p->text_after(0), laa6 + laa5);
}

TEST_F(plan_test, a_replaced_file_without_a_whole_line_has_to_lie_still) {
    start(laa5 + "CHK\t0\t60\n");
    uint64_t before = p->newest();
    write_text(directory / "other", "CHK\t0\t90");
    rename((directory / "other").c_str(), path.c_str());
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->lines().size(), 2u);
    EXPECT_TRUE(settle());
    EXPECT_EQ(p->text_after(before), "CHK\t0\t90\n");
    EXPECT_EQ(p->lines().size(), 1u);
}

/* Same size, same inode, and possibly the same time stamps: seen when the file is read once more
 * after it has lain still. */
TEST_F(plan_test, a_change_within_one_clock_tick_is_not_lost) {
    start("CHK\t0\t60\n");
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    write_text(path, "CHK\t0\t90\n");
    p->refresh();
    EXPECT_TRUE(settle());
    EXPECT_EQ(p->text_after(0), "CHK\t0\t90\n");
}

TEST_F(plan_test, removing_a_line_and_appending_its_remove_command_holds) {
    start(laa5 + laa6);
    uint64_t before = p->newest();
    write_text(path, laa6 + "LAD\t5\t0\n");
    EXPECT_TRUE(settle());
    EXPECT_TRUE(settle());
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(p->text_after(before), "LAD\t5\t0\n");
    EXPECT_EQ(p->text_after(0), laa6 + "LAD\t5\t0\n");
    /* It stays in force for agents that were away, but only once. */
    append_text(path, "LAD\t5\t1\n");
    p->refresh();
    EXPECT_EQ(take_problems(),
              (strings{"3 load average test 5 is not there, removing it does nothing"}));
    EXPECT_EQ(p->text_after(0), laa6 + "LAD\t5\t0\n");
}

TEST_F(plan_test, modifying_a_test_of_a_removed_line_holds) {
    start(laa5 + laa6);
    write_text(path, laa6 + "LAM\t5\t1\t9\t9\t9\n");
    settle();
    settle();
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(p->lines().size(), 2u);
}

TEST_F(plan_test, a_changed_add_is_sent_but_reported) {
    start(laa5);
    uint64_t before = p->newest();
    write_text(path, "LAA\t5\t1\t9\t9\t9\n");
    settle();
    EXPECT_TRUE(settle());
    EXPECT_EQ(
        take_problems(),
        (strings{"1 agents that run have load average test 5 already and keep it as it was: "
                 "modify it, or remove it first (sent all the same, for agents that start anew)"}));
    EXPECT_EQ(p->text_after(before), "LAA\t5\t1\t9\t9\t9\n");
}

TEST_F(plan_test, a_remove_and_a_changed_add_hold) {
    start(laa5);
    uint64_t before = p->newest();
    std::string text = "LAD\t5\t0\nLAA\t5\t1\t9\t9\t9\n";
    write_text(path, text);
    settle();
    EXPECT_TRUE(settle());
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(p->text_after(before), text);
}

/* Agents that run get the new line only; the test's old lines follow it, or they would lose the
 * test. */
TEST_F(plan_test, a_remove_put_above_the_add_sends_the_add_again) {
    std::string lam = "LAM\t5\t1\t7\t7\t7\n";
    start(laa6 + laa5 + lam);
    uint64_t before = p->newest();
    write_text(path, "LAD\t5\t0\n" + laa6 + laa5 + lam);
    settle();
    EXPECT_TRUE(settle());
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(p->text_after(before), "LAD\t5\t0\n" + laa5 + lam);
    before = p->newest();
    append_text(path, "CHK\t0\t60\n");
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(before), "CHK\t0\t60\n");
}

TEST_F(plan_test, what_cannot_be_read_leaves_the_lines_and_is_reported_once) {
    start(laa5);
    std::string gone = "0 " + path + ": No such file or directory";
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_FALSE(p->refresh());
    EXPECT_FALSE(settle());
    EXPECT_EQ(take_problems(), (strings{gone}));
    EXPECT_EQ(p->text_after(0), laa5);

    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_FALSE(p->refresh());
    EXPECT_FALSE(settle());
    EXPECT_EQ(take_problems(), (strings{"0 " + path + ": is not a file"}));
    ASSERT_EQ(rmdir(path.c_str()), 0);

    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(p->refresh());            /* and does not wait for a writer */
    EXPECT_EQ(take_problems(), strings()); /* the same problem still */
    ASSERT_EQ(unlink(path.c_str()), 0);

    write_text(path, laa5 + laa6);
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(0), laa5 + laa6);
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_FALSE(p->refresh());
    EXPECT_EQ(take_problems(), (strings{gone})); /* it is news again */
}

TEST_F(plan_test, a_truncated_file_leaves_the_lines) {
    start(laa5);
    write_text(path, "");
    EXPECT_FALSE(p->refresh());
    EXPECT_FALSE(settle());
    EXPECT_FALSE(settle());
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(take_problems()[0],
              "0 " + path +
                  ": is empty; the lines that were in it stay in force (one with "
                  "only a comment drops them)");
    EXPECT_EQ(p->text_after(0), laa5);
    uint64_t before = p->newest();
    write_text(path, laa5 + laa6);
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->text_after(before), laa6);
    write_text(path, "# nothing\n");
    settle();
    EXPECT_TRUE(settle());
    EXPECT_EQ(p->text_after(0), "");
}

TEST_F(plan_test, a_file_that_is_too_large_is_refused) {
    EXPECT_FALSE(start(std::string((8u << 20) + 1, '\n')));
    EXPECT_EQ(take_problems(), (strings{"0 " + path + ": is larger than 8 MiB"}));
    EXPECT_TRUE(start(std::string(8u << 20, '\n')));
}

TEST_F(plan_test, a_missing_file_at_start_is_told) {
    plan none(directory / "none", nullptr);
    EXPECT_FALSE(none.refresh());
    EXPECT_FALSE(none.refresh());
}

TEST_F(plan_test, an_unchanged_file_is_not_read_again) {
    start(laa5);
    settle();
    ASSERT_EQ(chmod(path.c_str(), 0), 0); /* a change of its own */
    p->refresh();
    settle();
    bool result = p->refresh();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(p->refresh(), result);
    }
    EXPECT_EQ(p->text_after(0), laa5);
    EXPECT_LE(problems.size(), 1u); /* root may read it all the same */
}

TEST_F(plan_test, who_follows_the_plan_is_told_of_each_change) {
    std::vector<size_t> told;
    write_text(path, laa5);
    plan followed(path, nullptr,
                  [&](const plan::line_list& lines) { told.push_back(lines.size()); });
    EXPECT_TRUE(followed.refresh());
    EXPECT_TRUE(followed.refresh());
    EXPECT_EQ(told, std::vector<size_t>{1});
    append_text(path, laa6);
    EXPECT_TRUE(followed.refresh());
    EXPECT_EQ(told, (std::vector<size_t>{1, 2}));
    write_text(path, ""); /* leaves the lines as they are */
    pinned_seconds += 2;
    followed.refresh();
    EXPECT_EQ(told.size(), 2u);
}

TEST_F(plan_test, intervals_are_those_of_the_last_lines) {
    EXPECT_TRUE(start(laa5));
    EXPECT_EQ(intervals_of(p->lines()).poll, 60);
    EXPECT_EQ(intervals_of(p->lines()).check, 0);
    EXPECT_TRUE(start("POL\t0\t5\nCHK\t0\t7\nPOL\t0\t30\n" + laa5));
    EXPECT_EQ(intervals_of(p->lines()).poll, 30);
    EXPECT_EQ(intervals_of(p->lines()).check, 7);
}

TEST_F(plan_test, planned_tests_are_those_that_remain) {
    start(laa5 + laa6 +
          "LAA\t7\t1\t1\t2\t3\nLAM\t7\t1\t1\t1\t1\nLAD\t5\t0\nCHK\t0\t60\nLAD\t7\t0\n" +
          "LAA\t7\t2\t1\t1\t1\nLAA\t-8\t1\t1\t2\t3\n" +
          "SPA\t9\t1\th\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\t-\n" +
          "STM\t9\t1\th\t161\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\n" +
          "SWA\t10\t1\th\t161\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\n" +
          "DKA\t11\t1\t/(/dev/sda1|ext4)\t-1\t1e3\nTSA\t12\t80\tall\n");
    std::vector<std::pair<uint32_t, int32_t>> found;
    for (const planned_test& test : planned_tests(p->lines())) {
        found.push_back({test.type, test.id});
    }
    EXPECT_EQ(found,
              (std::vector<std::pair<uint32_t, int32_t>>{{66, 6}, {66, 7}, {66, -8}, {67, 9}}));
}

/* ---- what logins are sent ---- */

static const std::string walk9 = "SWA\t9\t1\th\t161\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\n";
static const std::string table10 = "STA\t10\t1\th\t161\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\n";
static const std::string get11 = "SPA\t11\t1\th\t0\t2\t1.3\tpublic\t\t\t\t\t\t1\t0\t-\n";

/* An agent that has no tests complains of what it is to remove or to change. */
TEST_F(plan_test, an_agent_that_starts_is_sent_what_does_something) {
    std::string kept =
        "POL\t0\t30\n" + laa5 + "LAM\t5\t1\t9\t9\t9\nUPD\ta\tb\tc\n" + laa6 + "LAD\t6\t0\n" + laa6;
    start("DKA\t7\t1\t/\t1\n" + laa5);
    write_text(directory / "other", "DKD\t7\t0\nDKM\t7\t1\t/\t2\n" + kept);
    rename((directory / "other").c_str(), path.c_str());
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(take_problems(), (strings{"2 disk test 7 is not there, modifying it does nothing"}));
    EXPECT_EQ(p->text_for_new(), kept);
    EXPECT_EQ(plan("", nullptr).text_for_new(), "");
}

/* An add command for a test that is there is passed over, so the modify command follows. */
TEST_F(plan_test, an_agent_that_runs_is_sent_each_test_as_an_add_and_a_change) {
    const std::string rest = "CHK\t0\t60\nUPD\tLAA\tx\ty\n";
    const std::vector<std::string> adds = {
        "PRA\t1\t1\t90\t-1\t-1\td\n",
        "MMA\t1\t1\t1\t2\t3\t4\t5\n",
        "DKA\t1\t1\t/\t1\n",
        "DKA\t2\t1\t/\t1\t2\n",
        "CUA\t1\t1\t1\t2\t3\t4\t5\n",
        laa5,
        "HPA\t1\t1\th\t/\t80\t\t\t\t\t5\t0\t0\t0\t0\t0\n",
        "PGA\t1\t1\th\t64\t3\t1\t0\n",
        "USA\t1\t/run/feed\n",
        "TSA\t1\t8080\tall\n",
        "MQA\t1\t1\th\t0\t\tu\tp\tUptime\t0\n",
        "NTA\t1\t1\teth0\t1\t2\t3\t4\t5\t6\n",
    };
    std::string text, expected;
    for (const std::string& add : adds) {
        std::string change = add;
        change[2] = 'M';
        text += add;
        expected += add + change;
    }
    ASSERT_TRUE(start(text + rest));
    EXPECT_EQ(take_problems(), strings());
    EXPECT_EQ(p->text_for_running({}), expected + rest);
    EXPECT_EQ(p->text_for_new(), text + rest);
}

/* No modify command makes anything of a walk; all kinds of SNMP tests share their ids; and a scan
 * that is modified begins again. */
TEST_F(plan_test, snmp_tests_are_removed_and_added_and_scans_go_on) {
    const std::string scan = "DCA\t12\t1\t10.0.0.1\t10.0.0.9\t1.3\n";
    start(walk9 + table10 + get11 + scan);
    const std::string all = "SWD\t9\nSWD\t10\nSWD\t11\n" + walk9 + table10 + get11 + scan;
    EXPECT_EQ(p->text_for_running({}), all);
    EXPECT_EQ(p->text_for_running({{type_snmp, 9}, {type_snmp_table, 11}, {type_discovery, 12}}),
              all);
}

/* Of each test that is planned in the end and brings results, what it was told to be last. */
TEST_F(plan_test, an_agent_checks_now_by_being_told_what_its_tests_are) {
    const std::string scan = "DCA\t12\t1\t10.0.0.1\t10.0.0.9\t1.3\n";
    start("POL\t0\t30\nCHK\t0\t60\nUPD\ta\tb\tc\n" + laa5 + laa6 + "LAM\t5\t1\t9\t9\t9\n" +
          "LAD\t6\t0\n" + laa6 + walk9 + table10 + get11 + scan +
          "LAA\t7\t1\t1\t2\t3\nLAD\t7\t0\nDKA\t1\t1\t/\t1\nDKA\t2\t1\t/\t1\t2\n"
          "TSA\t1\t8080\tall\nUSA\t1\t/run/feed\n");
    EXPECT_EQ(take_problems(), strings());
    std::string table = table10, get = get11, six = laa6;
    table[2] = get[2] = six[2] = 'M';
    EXPECT_EQ(p->text_for_check(),
              "LAM\t5\t1\t9\t9\t9\n" + six + table + get + "DKM\t1\t1\t/\t1\n");
    EXPECT_EQ(p->text_for_check(), p->text_for_check());
    write_text(path, laa5);
    settle();
    settle();
    std::string five = laa5;
    five[2] = 'M';
    EXPECT_EQ(p->text_for_check(), five);
    EXPECT_EQ(plan("", nullptr).text_for_check(), "");
}

TEST_F(plan_test, what_an_agent_has_reported_is_removed_before_the_plan_comes) {
    start("POL\t0\t30\n" + laa5 + laa6);
    EXPECT_EQ(p->text_for_running({{type_load_average, 6},
                                   {type_load_average, 7},
                                   {type_ping, 5},
                                   {type_snmp_table, 8},
                                   {type_snmp, 8},
                                   {type_disk, 3},
                                   {type_discovery, 4}}),
              "LAD\t6\t0\nLAD\t7\t0\nPGD\t5\t0\nSWD\t8\nDKD\t3\t0\nDCR\t4\n"
              "POL\t0\t30\n" +
                  laa5 + "LAM\t5\t1\t1\t2\t3\n" + laa6);
}

TEST_F(plan_test, every_kind_of_test_has_its_remove_command) {
    ASSERT_TRUE(start("# no tests\n"));
    const std::pair<uint32_t, const char*> removals[] = {
        {type_network, "NTD\t-7\t0\n"},
        {type_discovery, "DCR\t-7\n"},
        {type_process, "PRD\t-7\t0\n"},
        {type_cpu, "CUD\t-7\t0\n"},
        {type_disk, "DKD\t-7\t0\n"},
        {type_memory, "MMD\t-7\t0\n"},
        {type_ping, "PGD\t-7\t0\n"},
        {type_http, "HPD\t-7\n"},
        {type_snmp, "SWD\t-7\n"},
        {type_load_average, "LAD\t-7\t0\n"},
        {type_snmp_table, "SWD\t-7\n"},
        {type_mysql, "MQD\t-7\t0\n"},
        {type_network_interfaces, ""},
        {type_process_names, ""},
        {type_file_systems, ""},
        {0, ""},
        {99, ""},
    };
    for (const auto& [type, text] : removals) {
        EXPECT_EQ(p->text_for_running({{type, -7}}), text) << type;
        bool complains = type == type_network || type == type_discovery || type == type_process ||
                         type == type_disk;
        EXPECT_EQ(p->text_for_running({{type, -7, false}}), complains ? "" : text) << type;
    }
}

/* While the collector runs, agents may have missed the remove command; or there was none. */
TEST_F(plan_test, tests_of_lines_that_are_gone_are_removed_from_agents_that_run) {
    start(laa5 + laa6);
    write_text(path, laa6 + "LAD\t6\t0\n");
    settle();
    settle();
    EXPECT_EQ(p->text_for_running({{type_load_average, 6}}),
              "LAD\t5\t0\nLAD\t6\t0\n" + laa6 + "LAD\t6\t0\n");
    EXPECT_EQ(p->text_for_new(), laa6 + "LAD\t6\t0\n");
    write_text(path, "LAD\t6\t0\n");
    settle();
    settle();
    EXPECT_EQ(p->text_for_running({}), "LAD\t5\t0\nLAD\t6\t0\n");
    EXPECT_EQ(p->text_for_new(), "");
}

/* Without a word: neither is there nothing to remove, nor is something there already. */
TEST_F(plan_test, a_test_that_the_plan_adds_and_removes_is_left_to_it) {
    std::string text = "PRA\t5\t1\t90\t-1\t-1\td\nPRD\t5\t0\n";
    start(text);
    EXPECT_EQ(p->text_for_running({}), text);
    EXPECT_EQ(p->text_for_new(), text);
}

/* A slip in the file must not take tests away. */
TEST_F(plan_test, what_a_refused_line_may_mean_is_not_removed) {
    const std::vector<known_test> known = {{type_load_average, 5}, {type_load_average, 6}};
    const std::string change6 = laa6 + "LAM\t6\t1\t1\t2\t3\n";
    const std::pair<std::string, std::string> cases[] = {
        {"# comment\n", "LAD\t5\t0\nLAD\t6\t0\n"},
        {laa6, "LAD\t5\t0\nLAD\t6\t0\n" + laa6},
        {"LAA\t5\t1\t1\t2\n" + laa6, "LAD\t6\t0\n" + laa6}, /* only this one */
        {"LAD\t5\t0\nLAM\t5\t1\t1\t2\t3\nPOL\t0\t0\n" + laa6,
         "LAD\t5\t0\nLAD\t6\t0\n" + laa6}, /* none that adds */
        {"LAA 5 1 1 2 3\n" + laa6, "LAD\t6\t0\n" + laa6},
        {"laa\t5\t1\t1\t2\t3\n" + laa6, "LAD\t6\t0\n" + laa6},
        {"LAA\tfive\t1\t1\t2\t3\n" + laa6, "LAD\t6\t0\n" + laa6},
        {"UPD\ta\tb\t" + std::string(65536, 'x') + "\n" + laa6, "LAD\t6\t0\n" + laa6},
        {"POL\t0\t0\n", ""},
        {"", ""},
    };
    for (const auto& [text, sent] : cases) {
        EXPECT_TRUE(start(text));
        EXPECT_EQ(p->text_for_running(known), sent) << text;
    }
    EXPECT_EQ(plan("", nullptr).text_for_running(known), "");

    start(laa5 + laa6);
    write_text(path, "LAA 5 1 1 2 3\n" + laa6);
    settle();
    settle();
    EXPECT_EQ(p->text_for_running({}), change6);
    write_text(path, laa6);
    settle();
    settle();
    EXPECT_EQ(p->text_for_running({}), "LAD\t5\t0\n" + change6);
}

TEST_F(plan_test, the_last_interval_between_polls_counts) {
    using std::chrono::seconds;
    start(laa5);
    EXPECT_EQ(p->poll_interval(), seconds(60));
    append_text(path, "POL\t0\t30\nPOL\tx\t+90\nCHK\t0\t5\nPOL\t0\t0\n");
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(p->poll_interval(), seconds(90));
}

TEST_F(plan_test, large_plans_are_read_in_reasonable_time) {
    std::string text;
    for (int i = 1; i <= 50000; i++) {
        text += "LAA\t" + std::to_string(i) + "\t1\t1\t2\t3\n";
    }
    auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(start(text));
    append_text(path, "CHK\t0\t60\n");
    EXPECT_TRUE(p->refresh());
    EXPECT_EQ(planned_tests(p->lines()).size(), 50000u);
    EXPECT_EQ(p->text_for_running({}).size(), 2 * p->text_for_new().size() - 9);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
    EXPECT_EQ(p->lines().size(), 50001u);
}

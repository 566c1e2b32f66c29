/* The tables that know every checker. */
#include "vindral_checkers.cpp"

#include "fake_core.h"

#include <gtest/gtest.h>
#include <string>

static std::string calls;
static int lda_starts = 1;

int init_lda_mon() {
    calls += "init_lda_mon ";
    return lda_starts;
}
void set_lda_check_interval(int t_sec) {
    calls += "lda:" + std::to_string(t_sec) + " ";
}
int get_lda_results(char**, int*) {
    return 0;
}
void shutdown_lda_checker() {
    calls += "shutdown_lda_checker ";
}

TEST(Checkers, StartInOrderAndSaySo) {
    calls.clear();
    lda_starts = 1;
    EXPECT_EQ(1, start_checkers());
    EXPECT_EQ("init_lda_mon ", calls);
    EXPECT_EQ("-1 Load Average checker initialization done\n", take_log_text());
}

TEST(Checkers, AFailureOfOneThatIsNeededEndsTheStart) {
    lda_starts = 0;
    EXPECT_EQ(0, start_checkers());
    EXPECT_EQ("-1 Load Average checker initialization failed.\n", take_log_text());
}

TEST(Checkers, IntervalReachesEveryChecker) {
    calls.clear();
    set_check_intervals(9);
    EXPECT_EQ("lda:9 ", calls);
}

TEST(Checkers, CollectionOrderAndNames) {
    ASSERT_EQ(1u, result_source_count);
    EXPECT_EQ(get_lda_results, result_sources[0].take);
    EXPECT_STREQ("get_lda_results", result_sources[0].name);
}

TEST(Checkers, StopInOrder) {
    calls.clear();
    stop_checkers();
    EXPECT_EQ("shutdown_lda_checker ", calls);
}

#include "state/expected.cpp"

#include <gtest/gtest.h>

static std::pair<int32_t, int32_t> at(const expected& e, int64_t now) {
    intervals every = e.at(now);
    return {every.poll, every.check};
}

static plan_summary plan(int32_t poll, int32_t check,
                         std::vector<std::pair<uint32_t, int32_t>> tests = {}) {
    return {.every = {.poll = poll, .check = check}, .is_planned = true, .tests = std::move(tests)};
}

using pair = std::pair<int32_t, int32_t>;

TEST(expected, without_a_plan_everything_comes_each_minute) {
    expected e;
    EXPECT_EQ(at(e, 0), pair(60, 60));
    EXPECT_EQ(e.silent_after(0), 180);
    EXPECT_EQ(e.stale_after(0), 180);
    EXPECT_TRUE(e.repeats(66, 1));
    EXPECT_EQ(e.repeats_since(66, 1), INT64_MIN);
    EXPECT_FALSE(e.repeats(40, 1)) << "discovery";
}

TEST(expected, three_intervals_and_a_minute_at_least) {
    expected e;
    e.follow(plan(10, 5), 1000);
    EXPECT_EQ(at(e, 1000), pair(10, 5)) << "there was none before the first";
    EXPECT_EQ(e.silent_after(1000), 60);
    EXPECT_EQ(e.stale_after(1000), 60);
    expected slow;
    slow.follow(plan(30, 600), 1000);
    EXPECT_EQ(slow.silent_after(1000), 90);
    EXPECT_EQ(slow.stale_after(1000), 1800) << "the longer of poll and check";
    expected rare;
    rare.follow(plan(INT32_MAX, 60), 1000);
    EXPECT_EQ(rare.silent_after(1000), 3 * int64_t{INT32_MAX});
    EXPECT_EQ(rare.stale_after(1000), 3 * int64_t{INT32_MAX});
}

TEST(expected, the_longer_interval_counts_until_it_has_passed_three_times) {
    expected e;
    e.follow(plan(600, 60), 0);
    e.follow(plan(60, 120), 1000);
    EXPECT_EQ(at(e, 1000), pair(600, 120));
    EXPECT_EQ(at(e, 1000 + 3 * 600 - 1), pair(600, 120));
    EXPECT_EQ(at(e, 1000 + 3 * 600), pair(60, 120));

    e.follow(plan(900, 120), 5000);
    EXPECT_EQ(at(e, 5000), pair(900, 120)) << "a longer one counts at once";
    e.follow(plan(60, 60), 5001);
    EXPECT_EQ(at(e, 5001 + 2699), pair(900, 120));
    EXPECT_EQ(at(e, 5001 + 2700), pair(60, 60));
}

TEST(expected, a_change_while_another_acts_goes_on_from_what_counts) {
    expected e;
    e.follow(plan(600, 60), 0);
    e.follow(plan(60, 60), 1000);
    e.follow(plan(30, 60), 2000);
    EXPECT_EQ(at(e, 2000), pair(600, 60)) << "an agent may not have heard of either";
    EXPECT_EQ(at(e, 3799), pair(600, 60));
    EXPECT_EQ(at(e, 3800), pair(30, 60));
}

TEST(expected, the_same_intervals_again_are_no_change) {
    expected e;
    e.follow(plan(600, 60), 0);
    e.follow(plan(60, 60), 1000);
    e.follow(plan(60, 60, {{66, 1}}), 2000);
    EXPECT_EQ(at(e, 2799), pair(600, 60));
    EXPECT_EQ(at(e, 2800), pair(60, 60));
}

TEST(expected, with_a_plan_only_its_tests_come_again) {
    expected e;
    e.follow(plan(60, 60, {{74, 2}, {40, 1}, {66, 1}, {66, 1}, {66, -5}}), 0);
    EXPECT_TRUE(e.repeats(66, 1));
    EXPECT_TRUE(e.repeats(66, -5));
    EXPECT_TRUE(e.repeats(74, 2));
    EXPECT_FALSE(e.repeats(66, 2));
    EXPECT_FALSE(e.repeats(48, 1));
    EXPECT_FALSE(e.repeats(40, 1)) << "discovery runs once";
    EXPECT_EQ(e.repeats_since(66, 1), INT64_MIN);
}

TEST(expected, what_a_plan_does_not_have_has_ended) {
    expected e;
    EXPECT_FALSE(e.has_ended(66, 1));
    EXPECT_FALSE(e.has_plan());
    const unsigned none = e.changes();
    e.follow({.every = {}, .is_planned = true, .tests = {{66, 1}}}, 0);
    EXPECT_NE(e.changes(), none);
    EXPECT_TRUE(e.has_plan());
    EXPECT_FALSE(e.has_ended(66, 1));
    EXPECT_TRUE(e.has_ended(66, 2));
    EXPECT_FALSE(e.has_ended(40, 2)) << "discovery";
    e.follow({.every = {.poll = 60, .check = 0}, .is_planned = true, .tests = {{66, 1}}}, 0);
    EXPECT_FALSE(e.has_ended(66, 1));
    EXPECT_TRUE(e.has_ended(66, 2));
    e.follow({}, 0);
    EXPECT_FALSE(e.has_ended(66, 2));
}

TEST(expected, tests_that_run_once_do_not_come_again) {
    expected e;
    e.follow(plan(60, 0, {{66, 1}}), 0);
    EXPECT_FALSE(e.repeats(66, 1));
    EXPECT_EQ(e.stale_after(0), 180);
    e.follow(plan(60, 60, {{66, 1}}), 500);
    EXPECT_EQ(e.repeats_since(66, 1), 500) << "what did not come before is no fault";
    e.follow(plan(60, 0, {{66, 1}}), 600);
    EXPECT_FALSE(e.repeats(66, 1)) << "at once";
}

TEST(expected, a_test_that_joins_the_plan_counts_from_then) {
    expected e;
    e.follow(plan(60, 60, {{66, 1}}), 100);
    e.follow(plan(60, 60, {{66, 2}, {66, 1}, {48, 1}}), 200);
    EXPECT_EQ(e.repeats_since(66, 1), INT64_MIN);
    EXPECT_EQ(e.repeats_since(66, 2), 200);
    EXPECT_EQ(e.repeats_since(48, 1), 200);
    e.follow(plan(60, 60, {{66, 2}}), 300);
    EXPECT_EQ(e.repeats_since(66, 2), 200);
    e.follow(plan(60, 60, {{66, 1}, {66, 2}}), 400);
    EXPECT_EQ(e.repeats_since(66, 1), 400) << "it was away";

    plan_summary none = {.every = {.poll = 60, .check = 60}, .is_planned = false, .tests = {}};
    e.follow(none, 500);
    EXPECT_EQ(e.repeats_since(66, 1), 400) << "it goes on";
    EXPECT_EQ(e.repeats_since(99, 9), 500);
    e.follow(none, 550);
    e.follow(plan(60, 60, {{66, 1}, {99, 9}}), 600);
    EXPECT_EQ(e.repeats_since(66, 1), 400);
    EXPECT_EQ(e.repeats_since(99, 9), 500) << "it was to come without a plan too";
    EXPECT_FALSE(e.repeats(66, 2));
}

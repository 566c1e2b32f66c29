#include "state/watch.cpp"

#include "state/expected.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using tests = std::vector<watch::test_key>;
using standing = watch::standing;

std::string overdue_at(watch& w, const expected& plan, int64_t now, size_t most = SIZE_MAX) {
    std::vector<watch::overdue> found(3);
    w.find_overdue(plan, now, most, found);
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.agent < b.agent; });
    std::string all;
    for (const watch::overdue& o : found) {
        auto add = [&](const char* what, const tests& which) {
            all += std::to_string(o.agent) + what;
            for (const auto& [type, number] : which) {
                all += " " + std::to_string(type) + "/" + std::to_string(number);
            }
            all += "; ";
        };
        if (o.silent || !o.tests.empty()) {
            add(o.silent ? " silent" : " stale", o.tests);
        }
        if (!o.gone.empty()) {
            add(" gone", o.gone);
        }
    }
    return all;
}

plan_summary plan_of(int32_t poll, int32_t check, tests of) {
    return {.every = {.poll = poll, .check = check}, .is_planned = true, .tests = std::move(of)};
}

} // namespace

TEST(watch, an_agent_that_is_not_heard_is_silent_once) {
    expected plan;
    watch w(0);
    EXPECT_FALSE(w.heard(1, 100));
    EXPECT_FALSE(w.heard(2, 101));
    EXPECT_EQ(overdue_at(w, plan, 280), "") << "for more than three intervals";
    EXPECT_EQ(overdue_at(w, plan, 281), "1 silent; ");
    EXPECT_EQ(overdue_at(w, plan, 282), "2 silent; ");
    EXPECT_EQ(overdue_at(w, plan, 1000), "");
    EXPECT_TRUE(w.heard(1, 1000));
    EXPECT_FALSE(w.heard(1, 1001));
    EXPECT_EQ(overdue_at(w, plan, 1182), "1 silent; ");
}

/* Its last polls did not bring a result of each test: that is no news of the tests. */
TEST(watch, a_host_that_dies_is_silent_and_its_tests_are_not_stale_before) {
    expected plan;
    plan.follow(plan_of(60, 60, {{66, 1}, {66, 2}, {66, 3}}), 0);
    watch w(0);
    w.heard(1, 700);
    w.came(1, {66, 3}, 880);
    w.heard(1, 940);
    w.came(1, {66, 2}, 940);
    w.heard(1, 1000);
    w.came(1, {66, 1}, 1000);
    EXPECT_EQ(overdue_at(w, plan, 1061), "1 stale 66/3; ") << "its next poll may be under way";
    for (int64_t now = 1062; now <= 1180; now++) {
        EXPECT_EQ(overdue_at(w, plan, now), "") << now;
    }
    EXPECT_EQ(overdue_at(w, plan, 1181), "1 silent; ");
    /* A poll under way is no reason to wait. */
    w.heard(1, 2000);
    w.came(1, {66, 1}, 2000);
    w.heard(1, 2120);
    EXPECT_EQ(overdue_at(w, plan, 2181), "1 stale 66/1 66/2; ");
}

/* A large block is stored in slices, long after it came, and its agent polls meanwhile. */
TEST(watch, what_was_heard_earlier_and_is_told_later_takes_nothing_back) {
    expected plan;
    watch w(1000);
    std::vector<watch::overdue> found;
    w.heard(1, 1000);
    w.heard(1, 1170);
    w.heard(1, 1000);
    w.find_overdue(plan, 1200, 10, found);
    EXPECT_TRUE(found.empty());
    w.find_overdue(plan, 1351, 10, found);
    EXPECT_EQ(found.size(), 1u);
}

/* That may be stored long after it came. */
TEST(watch, what_was_heard_before_a_silence_was_found_does_not_end_it) {
    expected plan;
    watch w(1000);
    w.heard(1, 1000);
    w.know(2, true, 1000);
    EXPECT_TRUE(w.is_news(1, 1000));
    EXPECT_TRUE(w.is_news(2, 1000)) << "in the second of the start";
    EXPECT_TRUE(w.is_news(3, 1000));
    ASSERT_EQ(overdue_at(w, plan, 1190), "1 silent; ");
    EXPECT_FALSE(w.is_news(1, 1189));
    EXPECT_FALSE(w.heard(1, 1189));
    EXPECT_EQ(overdue_at(w, plan, 1500), "");
    EXPECT_TRUE(w.is_news(1, 1500));
    EXPECT_TRUE(w.heard(1, 1500));
    EXPECT_FALSE(w.is_news(1, 1499)) << "its end is on its way";
    EXPECT_TRUE(w.is_news(1, 1500));
}

TEST(watch, a_test_of_which_nothing_comes_is_stale_once) {
    expected plan;
    watch w(0);
    w.heard(1, 0);
    w.came(1, {66, 2}, 10);
    w.came(1, {66, 1}, 10);
    w.came(1, {48, 1}, 50);
    w.heard(1, 190);
    EXPECT_EQ(overdue_at(w, plan, 190), "");
    EXPECT_EQ(overdue_at(w, plan, 191), "1 stale 66/1 66/2; ");
    EXPECT_EQ(overdue_at(w, plan, 230), "");
    EXPECT_EQ(overdue_at(w, plan, 231), "1 stale 48/1; ");
    w.came(1, {66, 2}, 240);
    w.heard(1, 421);
    EXPECT_EQ(overdue_at(w, plan, 420), "");
    EXPECT_EQ(overdue_at(w, plan, 421), "1 stale 66/2; ");
}

TEST(watch, while_an_agent_is_silent_its_tests_are_not_stale) {
    expected plan;
    watch w(0);
    w.heard(1, 0);
    w.came(1, {66, 1}, 0);
    EXPECT_EQ(overdue_at(w, plan, 500), "1 silent; ");
    EXPECT_EQ(overdue_at(w, plan, 501), "");
    EXPECT_TRUE(w.heard(1, 1000));
    for (int64_t now : {1060, 1120, 1180}) {
        EXPECT_EQ(overdue_at(w, plan, now), "") << "they have time from its return on";
        w.heard(1, now);
    }
    EXPECT_EQ(overdue_at(w, plan, 1181), "1 stale 66/1; ");
}

TEST(watch, what_comes_is_not_being_heard) {
    expected plan;
    watch w(0);
    w.came(1, {66, 1}, 0);
    w.came(1, {66, 1}, 100);
    EXPECT_EQ(overdue_at(w, plan, 181), "1 silent; ");
}

TEST(watch, what_the_store_knows_has_time_from_the_start) {
    expected plan;
    watch w(1000);
    w.know(1, false, 1000);
    w.know(1, {66, 1}, standing::awaited, 1000);
    w.know(1, {66, 2}, standing::stale, 1000);
    w.know(2, true, 1000);
    w.know(2, {66, 1}, standing::awaited, 1000);
    EXPECT_EQ(overdue_at(w, plan, 1180), "");
    w.heard(1, 1180);
    EXPECT_EQ(overdue_at(w, plan, 1181), "1 stale 66/1; ") << "66/2 is stale, 2 silent already";
    EXPECT_TRUE(w.heard(2, 1200));
    EXPECT_EQ(overdue_at(w, plan, 1361), "1 silent; ");
    EXPECT_EQ(overdue_at(w, plan, 1381), "2 silent; ");
}

TEST(watch, nothing_is_overdue_after_a_pause) {
    expected plan;
    watch w(0);
    w.heard(1, 0);
    w.heard(2, 0);
    w.came(2, {66, 1}, 0);
    w.pause(5000);
    EXPECT_EQ(overdue_at(w, plan, 5180), "");
    w.heard(2, 5170);
    EXPECT_EQ(overdue_at(w, plan, 5181), "1 silent; 2 stale 66/1; ");
}

TEST(watch, one_shot_and_unplanned_tests_are_never_stale) {
    expected plan;
    watch w(0);
    w.heard(1, 0);
    w.came(1, {40, 1}, 0);
    w.came(1, {66, 1}, 0);
    w.came(1, {66, 2}, 0);
    plan.follow(plan_of(60, 60, {{40, 1}, {66, 2}}), 0);
    w.heard(1, 1000);
    EXPECT_EQ(overdue_at(w, plan, 1000), "1 stale 66/2; 1 gone 66/1; ");
    EXPECT_EQ(overdue_at(w, plan, 1001), "");

    plan.follow(plan_of(60, 60, {{66, 1}, {66, 2}}), 1010);
    w.heard(1, 1190);
    EXPECT_EQ(overdue_at(w, plan, 1190), "") << "it is to come since 1010";
    EXPECT_EQ(overdue_at(w, plan, 1191), "1 stale 66/1; ");

    expected once;
    once.follow(plan_of(60, 0, {{66, 1}, {66, 2}, {66, 3}}), 0);
    w.came(1, {66, 3}, 1200);
    w.heard(1, 5000);
    EXPECT_EQ(overdue_at(w, once, 5000), "");
}

TEST(watch, a_test_that_left_the_plan_is_gone_when_nothing_came_of_it_for_as_long) {
    expected plan;
    watch w(0);
    plan.follow(plan_of(60, 60, {{66, 1}, {66, 2}, {66, 3}}), 0);
    w.heard(1, 0);
    for (int number : {1, 2, 3}) {
        w.came(1, {66, number}, 0);
    }
    w.came(1, {40, 7}, 0);
    w.heard(1, 100);
    w.came(1, {66, 1}, 100);
    w.came(1, {66, 2}, 100);
    ASSERT_EQ(overdue_at(w, plan, 181), "1 stale 66/3; ");
    plan.follow(plan_of(60, 60, {{66, 1}}), 182);
    w.came(1, {66, 1}, 182);
    EXPECT_EQ(overdue_at(w, plan, 183), "1 gone 66/3; ") << "what was stale";
    w.heard(1, 280);
    w.came(1, {66, 2}, 250); /* a last one, on its way when the plan changed */
    EXPECT_EQ(overdue_at(w, plan, 281), "");
    w.came(1, {66, 1}, 281);
    w.heard(1, 400);
    EXPECT_EQ(overdue_at(w, plan, 430), "");
    EXPECT_EQ(overdue_at(w, plan, 431), "1 gone 66/2; ");
    w.heard(1, 440);
    w.came(1, {66, 1}, 440);
    EXPECT_EQ(overdue_at(w, plan, 441), "") << "once";
    w.came(1, {66, 2}, 441);
    EXPECT_EQ(overdue_at(w, plan, 600), "");
    w.heard(1, 600);
    w.came(1, {66, 1}, 600);
    EXPECT_EQ(overdue_at(w, plan, 622), "1 gone 66/2; ") << "something came in between";
}

TEST(watch, a_test_that_is_gone_is_awaited_when_a_plan_has_it) {
    expected plan;
    watch w(0);
    plan.follow(plan_of(60, 60, {{66, 1}}), 0);
    w.know(1, false, 1000);
    w.know(1, {66, 1}, standing::awaited, 1000);
    w.know(1, {66, 2}, standing::gone, 1000);
    w.know(1, {66, 3}, standing::stale, 1000);
    w.came(1, {66, 1}, 1170);
    w.heard(1, 1170);
    EXPECT_EQ(overdue_at(w, plan, 1180), "") << "a start gives it time";
    EXPECT_EQ(overdue_at(w, plan, 1181), "1 gone 66/3; ");
    w.heard(1, 1500);
    w.came(1, {66, 1}, 1500);
    plan.follow(plan_of(60, 60, {{66, 1}, {66, 2}}), 1502);
    EXPECT_EQ(overdue_at(w, plan, 1503), "");
    w.heard(1, 1680);
    w.came(1, {66, 1}, 1680);
    EXPECT_EQ(overdue_at(w, plan, 1682), "");
    EXPECT_EQ(overdue_at(w, plan, 1683), "1 stale 66/2; ");
    plan.follow({}, 1700); /* no plan at all */
    w.heard(1, 3000);
    w.came(1, {66, 1}, 3000);
    EXPECT_EQ(overdue_at(w, plan, 3001), "") << "nor is 66/3";
}

TEST(watch, that_a_test_is_gone_is_found_again_when_it_was_not_stored) {
    expected plan;
    watch w(0);
    plan.follow(plan_of(60, 60, {}), 0);
    w.heard(1, 0);
    w.came(1, {66, 1}, 0);
    std::vector<watch::overdue> found;
    w.heard(1, 181);
    w.find_overdue(plan, 181, 10, found);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(w.still_holds(found[0]));
    w.take_back(found[0]);
    EXPECT_FALSE(w.still_holds(found[0]));
    EXPECT_EQ(overdue_at(w, plan, 182), "1 gone 66/1; ");
}

TEST(watch, longer_intervals_give_more_time) {
    expected plan;
    plan.follow(plan_of(60, 600, {{66, 1}}), 0);
    watch w(0);
    w.heard(1, 0);
    w.came(1, {66, 1}, 0);
    for (int64_t now = 60; now <= 1800; now += 60) {
        w.heard(1, now);
        EXPECT_EQ(overdue_at(w, plan, now), "");
    }
    EXPECT_EQ(overdue_at(w, plan, 1801), "1 stale 66/1; ");
    EXPECT_EQ(overdue_at(w, plan, 1981), "1 silent; ");
}

TEST(watch, no_more_agents_at_a_time_than_asked_for) {
    expected plan;
    watch w(0);
    for (int64_t agent = 1; agent <= 25; agent++) {
        w.heard(agent, 0);
    }
    std::string all;
    std::vector<watch::overdue> found;
    for (size_t expected : {10u, 10u, 5u, 0u}) {
        w.find_overdue(plan, 1000, 10, found);
        EXPECT_EQ(found.size(), expected);
    }
}

TEST(watch, what_could_not_be_stored_is_found_again) {
    expected plan;
    watch w(0);
    w.heard(1, 0);
    w.heard(2, 0);
    w.came(2, {66, 1}, 0);
    w.came(2, {66, 2}, 0);
    w.came(2, {66, 3}, 150);
    w.heard(2, 181);
    std::vector<watch::overdue> found;
    w.find_overdue(plan, 181, 10, found);
    ASSERT_EQ(found.size(), 2u);
    for (const watch::overdue& o : found) {
        w.take_back(o);
    }
    w.take_back({.agent = 77, .silent = true, .tests = {}});
    EXPECT_EQ(overdue_at(w, plan, 182), "1 silent; 2 stale 66/1 66/2; ");
    EXPECT_EQ(overdue_at(w, plan, 183), "");
}

TEST(watch, an_agent_that_is_forgotten_is_never_overdue) {
    expected plan;
    watch w(0);
    w.heard(1, 0);
    w.forget(1);
    w.forget(1);
    EXPECT_EQ(overdue_at(w, plan, 1000), "");
    EXPECT_FALSE(w.heard(1, 1000)) << "it is new";
}

TEST(watch, invented_tests_do_not_grow_for_ever) {
    expected plan;
    watch w(0);
    w.heard(1, 0);
    for (int32_t i = 0; i < 3 * agent_state::max_tests; i++) {
        w.came(1, {66, (i * 7919) % 1000003}, i);
        w.came(1, {48, 1}, i);
    }
    w.heard(1, 100000);
    std::vector<watch::overdue> found;
    w.find_overdue(plan, 100000, 10, found);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_LE(found[0].tests.size(), size_t{agent_state::max_tests});
    EXPECT_EQ(found[0].tests[0], watch::test_key(48, 1)) << "what came last is known";
    EXPECT_TRUE(std::is_sorted(found[0].tests.begin(), found[0].tests.end()));
}

TEST(watch, each_agent_by_a_plan_of_its_own) {
    expected slow, quick;
    slow.follow(plan_of(600, 600, {{66, 1}}), 0);
    quick.follow(plan_of(30, 30, {{66, 1}, {66, 2}}), 0);
    auto plan = [&](int64_t agent) -> const expected& { return agent == 1 ? slow : quick; };
    watch w(0);
    std::vector<watch::overdue> found;
    auto overdue_now = [&](int64_t now) {
        std::vector<std::string> all;
        do {
            w.find_overdue(plan, now, 1, found);
            for (const watch::overdue& o : found) {
                all.push_back(std::to_string(o.agent) + (o.silent ? " silent" : "") + " stale " +
                              std::to_string(o.tests.size()) + " gone " +
                              std::to_string(o.gone.size()));
            }
        } while (!found.empty());
        std::sort(all.begin(), all.end());
        return all;
    };
    using strings = std::vector<std::string>;
    for (int64_t agent : {1, 2, 3}) {
        w.heard(agent, 100);
        w.came(agent, {66, 1}, 100);
        w.came(agent, {66, 2}, 100);
    }
    w.heard(2, 185);
    EXPECT_EQ(overdue_now(190), strings{});
    EXPECT_EQ(overdue_now(191), (strings{"2 stale 2 gone 0", "3 silent stale 0 gone 0"}));
    w.heard(1, 1800);
    EXPECT_EQ(overdue_now(1900), strings{"2 silent stale 0 gone 0"});
    EXPECT_EQ(overdue_now(1901), strings{"1 stale 1 gone 1"});
}

/* Only what was another plan is looked at again; the agent's own goes on from the one of all. */
TEST(watch, a_plan_of_its_own_takes_the_place_of_that_of_all) {
    expected all;
    all.follow(plan_of(60, 60, {{66, 1}}), 0);
    watch w(0);
    w.heard(1, 100);
    w.came(1, {66, 1}, 100);
    std::vector<watch::overdue> found;
    w.find_overdue(all, 200, 10, found);
    EXPECT_TRUE(found.empty());
    expected own = all;
    own.follow(plan_of(60, 60, {{66, 7}}), 250);
    w.heard(1, 270);
    w.find_overdue([&](int64_t) -> const expected& { return own; }, 281, 10, found);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].gone, tests({{66, 1}}));
}

#include "state/expectations.cpp"

#include <gtest/gtest.h>
#include <malloc.h>
#include <set>

namespace {

using tests = std::vector<std::pair<uint32_t, int32_t>>;

plan_summary plan(int32_t poll, int32_t check, tests of = {}, bool is_planned = true) {
    return {
        .every = {.poll = poll, .check = check}, .is_planned = is_planned, .tests = std::move(of)};
}

void follow(expectations& all, const char* agent, const plan_summary& plan, int64_t now,
            std::optional<intervals> before = {}) {
    expectations::own one{"a@b.c", agent, &plan, before};
    all.follow({&one, 1}, now);
}

const expected& of(const expectations& all, const char* agent) {
    return all.of("a@b.c", agent);
}

} // namespace

TEST(expectations, agents_without_a_plan_of_their_own_have_that_of_all) {
    expectations all;
    EXPECT_FALSE(all.has_own());
    all.follow(plan(60, 60, {{66, 1}}), 0);
    follow(all, "web1", plan(10, 20, {{66, 2}}), 0);
    EXPECT_TRUE(all.has_own());
    EXPECT_EQ(all.find("a@b.c", "web2"), nullptr);
    EXPECT_EQ(all.find("other@b.c", "web1"), nullptr);
    EXPECT_EQ(all.find("a@b.cw", "eb1"), nullptr);
    EXPECT_EQ(&of(all, "web2"), &all.others());
    EXPECT_TRUE(of(all, "web2").repeats(66, 1));
    EXPECT_FALSE(of(all, "web1").repeats(66, 1));
    EXPECT_TRUE(of(all, "web1").repeats(66, 2));
    all.follow(plan(60, 60, {{66, 3}}), 10);
    EXPECT_TRUE(of(all, "web2").repeats(66, 3));
    EXPECT_FALSE(of(all, "web1").repeats(66, 3)) << "it is not asked any more";
    EXPECT_FALSE(of(all, "web1").has_ended(66, 2));
    EXPECT_TRUE(of(all, "web2").has_ended(66, 2));
}

TEST(expectations, the_first_of_its_own_is_a_change_of_what_all_are_told) {
    expectations all;
    all.follow(plan(600, 60, {{66, 1}}), 0);
    follow(all, "web1", plan(60, 60, {{66, 1}, {66, 2}}), 1000);
    EXPECT_EQ(of(all, "web1").at(1000).poll, 600) << "it may not have heard of it";
    EXPECT_EQ(of(all, "web1").at(1000 + 1800).poll, 60);
    EXPECT_EQ(of(all, "web1").repeats_since(66, 1), INT64_MIN) << "it had that before";
    EXPECT_EQ(of(all, "web1").repeats_since(66, 2), 1000);
    EXPECT_EQ(all.others().at(2800).poll, 600);
}

TEST(expectations, the_longer_of_two_of_its_own_counts_for_it_alone) {
    expectations all;
    follow(all, "slow", plan(900, 900), 0);
    follow(all, "web1", plan(30, 30), 0);
    follow(all, "slow", plan(30, 30), 10000);
    EXPECT_EQ(of(all, "slow").silent_after(10000), 2700);
    EXPECT_EQ(of(all, "slow").stale_after(12699), 2700);
    EXPECT_EQ(of(all, "slow").silent_after(12700), 90);
    EXPECT_EQ(of(all, "web1").silent_after(10000), 90);
}

/* After a start of the collector. */
TEST(expectations, what_an_agent_was_told_before_is_what_its_first_plan_changes) {
    expectations all;
    all.follow(plan(3600, 3600, {}, false), 0); /* the longest that anybody was told */
    all.follow(plan(60, 60, {}, false), 1);
    follow(all, "same", plan(10, 30), 2, intervals{.poll = 10, .check = 30});
    follow(all, "changed", plan(10, 30), 2, intervals{.poll = 300, .check = 30});
    follow(all, "new", plan(10, 30), 2);
    EXPECT_EQ(of(all, "same").silent_after(2), 60);
    EXPECT_EQ(of(all, "same").stale_after(2), 90);
    EXPECT_EQ(of(all, "changed").silent_after(901), 900);
    EXPECT_EQ(of(all, "changed").silent_after(902), 60);
    EXPECT_EQ(of(all, "new").silent_after(2), 10800);
    follow(all, "same", plan(20, 30), 5000, intervals{.poll = 9000, .check = 30});
    EXPECT_EQ(of(all, "same").silent_after(5000), 60) << "since then it is known better";
}

TEST(expectations, the_longest_of_all_is_known) {
    expectations all;
    EXPECT_EQ(all.longest(0), intervals{});
    EXPECT_EQ(all.longest_stale_after(0), 180);
    follow(all, "a", plan(300, 10), 0);
    follow(all, "b", plan(20, 400), 0);
    all.follow(plan(5, 5), 0);
    EXPECT_EQ(all.longest(0), (intervals{.poll = 300, .check = 400}));
    EXPECT_EQ(all.longest_stale_after(0), 1200);
    follow(all, "a", plan(10, 10), 5000);
    follow(all, "b", plan(10, 10), 6000);
    EXPECT_EQ(all.longest(5000 + 899), (intervals{.poll = 300, .check = 400}));
    EXPECT_EQ(all.longest(6000 + 1199).check, 400) << "until it has passed three times";
    EXPECT_EQ(all.longest(6000 + 1200), (intervals{.poll = 10, .check = 10}));
    EXPECT_EQ(all.longest(5000), (intervals{.poll = 300, .check = 400})) << "of an earlier time";
}

TEST(expectations, those_that_are_told_the_same_share_it) {
    expectations all;
    const plan_summary same = plan(60, 60, {{66, 1}, {46, 2}}),
                       turned = plan(60, 60, {{46, 2}, {66, 1}, {46, 2}}),
                       other = plan(60, 60, {{66, 1}});
    std::vector<expectations::own> told = {{"a", "1", &same},
                                           {"a", "2", &turned},
                                           {"a", "3", &other},
                                           {"b", "1", &same},
                                           {"b", "2", &same, intervals{.poll = 30, .check = 60}}};
    all.follow(told, 0);
    EXPECT_EQ(all.find("a", "1"), all.find("a", "2"));
    EXPECT_EQ(all.find("a", "1"), all.find("b", "1"));
    EXPECT_NE(all.find("a", "1"), all.find("a", "3"));
    EXPECT_NE(all.find("a", "1"), all.find("b", "2")) << "its intervals are another's";
    for (expectations::own& one : told) {
        one.plan = &same;
        one.before.reset();
    }
    all.follow(told, 100);
    EXPECT_EQ(all.find("a", "1"), all.find("a", "2"));
    EXPECT_NE(all.find("a", "1"), all.find("a", "3")) << "one of its tests is new";
    EXPECT_EQ(all.find("a", "3")->repeats_since(46, 2), 100);
    EXPECT_EQ(all.find("a", "1")->repeats_since(46, 2), INT64_MIN);
}

TEST(expectations, each_plan_of_an_agent_is_another) {
    expectations all;
    all.follow(plan(60, 60), 0);
    unsigned before = of(all, "web1").changes();
    for (int i = 0; i < 3; i++) {
        follow(all, "web1", plan(60, 60), i, intervals{});
        EXPECT_GT(of(all, "web1").changes(), before);
        before = of(all, "web1").changes();
        all.follow(plan(60, 60), i);
    }
}

TEST(expectations, the_same_agent_twice_is_the_last) {
    expectations all;
    const plan_summary first = plan(60, 60, {{66, 1}}), last = plan(30, 60, {{66, 2}});
    const std::vector<expectations::own> told = {{"a", "1", &first}, {"a", "1", &last}};
    all.follow(told, 0);
    EXPECT_TRUE(all.of("a", "1").repeats(66, 2));
    EXPECT_FALSE(all.of("a", "1").repeats(66, 1));
    EXPECT_EQ(all.of("a", "1").at(0).poll, 60);
}

/* 50,000 agents of which no two are alike. */
TEST(expectations, many_agents_take_little_memory) {
    constexpr int agents = 50000, each = 20;
    std::vector<std::string> names(agents);
    std::vector<plan_summary> plans(agents);
    std::vector<expectations::own> told;
    for (int a = 0; a < agents; a++) {
        names[a] = "a-host-with-a-name-of-some-length-" + std::to_string(a);
        plans[a] = plan(60, 60);
        for (int t = 0; t < each; t++) {
            plans[a].tests.emplace_back(40 + t, a + t);
        }
        told.push_back({"operations@example.org", names[a], &plans[a]});
    }
    expectations all;
    const struct mallinfo2 before = mallinfo2();
    all.follow(told, 0);
    all.follow(told, 100);
    const struct mallinfo2 after = mallinfo2();
    EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + (40u << 20));
    EXPECT_TRUE(all.of("operations@example.org", names[777]).repeats(41, 778));
}

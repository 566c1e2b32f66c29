#include "kept_fleet.h"

#include <fstream>
#include <thread>

using namespace kept_fleet;
using strings = std::vector<std::string>;

namespace {

const char* const load = "      load: {load: {1m: 8}}\n";
const char* const cpu = "      cpu: {cpu: {user: 90}}\n";

/* Polls a second each. */
void poll(sim_agent& agent, int times = 1) {
    for (int i = 0; i < times; i++) {
        pass(1);
        ASSERT_TRUE(agent.poll());
    }
}

struct fleet_keeper_test : testing::Test, place {
    sim_agent web{*this, "web-1"};
    void SetUp() override { ASSERT_TRUE(open()) << error; }

    sim_agent::test_map one(const std::string& fields, int32_t number, int32_t location,
                            uint32_t list = type_load_average) {
        return {{{list, number}, {location, fields}}};
    }
};

} // namespace

TEST_F(fleet_keeper_test, tells_nothing_before_anything_was_applied) {
    web.tests[{type_load_average, 7}] = {3, "1\t2\t3"};
    web.log_in_again();
    poll(web, 3);
    EXPECT_EQ(web.last_answer, "");
    EXPECT_EQ(web.tests.size(), 1u);
    EXPECT_EQ(keeper->standing().revision, 0);
    EXPECT_EQ(keeper->poll_interval(*web.held), std::chrono::seconds(60));
    int32_t revision = -1;
    EXPECT_EQ(keeper->text(revision), "");
    EXPECT_EQ(revision, 0);
    EXPECT_TRUE(changes().empty());
}

TEST_F(fleet_keeper_test, more_tests_than_an_agent_may_have_are_refused) {
    web.start();
    poll(web);
    std::string text = "version: 1\ngroups:\n  - {name: all, agents: ['*'], tests: {";
    for (size_t i = 0; i < most_tests_of_agent; i++) {
        text += "t" + std::to_string(i) + ": {load: {1m: 8}}, ";
    }
    EXPECT_EQ(keeper->try_out(text + "}}\n").error, "");
    text += "last: {load: {1m: 8}}}}\n";
    const std::string why =
        "Of one agent there may be 5000 tests, and " + web.held->agent + " would have 5001.";
    EXPECT_EQ(keeper->try_out(text).error, why);
    fleet_outcome outcome = keeper->apply(text, "ann", {});
    EXPECT_EQ(outcome.error, why);
    EXPECT_TRUE(outcome.is_too_large);
    EXPECT_FALSE(outcome.is_conflict);
    EXPECT_EQ(keeper->standing().revision, 0);
}

TEST_F(fleet_keeper_test, applies_tells_and_confirms) {
    web.start();
    poll(web);
    fleet_outcome outcome = apply(everything(load, "2s"));
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.revision, 1);
    EXPECT_EQ(outcome.difference.added, 1u);
    EXPECT_EQ(outcome.difference.intervals, 1u);
    EXPECT_EQ(outcome.difference.agents_in_all, 1u);
    ASSERT_EQ(outcome.difference.agents.size(), 1u);
    EXPECT_EQ(outcome.difference.agents[0].groups, strings{"everything"});
    EXPECT_EQ(outcomes(true),
              strings{"add load 1 unanswered: it goes out with the agent's next poll"});
    EXPECT_EQ(keeper->standing().waiting, 2u);

    poll(web);
    EXPECT_EQ(web.tests, one("8\t-1\t-1", 1, 1));
    EXPECT_EQ(std::pair(web.poll_s, web.check_s), std::pair(2, 2));
    EXPECT_TRUE(becomes({"add load 1 sent"}));
    EXPECT_EQ(keeper->standing().sent, 1u);
    EXPECT_EQ(keeper->poll_interval(*web.held), std::chrono::seconds(2));

    poll(web);
    EXPECT_TRUE(becomes({"add load 1 confirmed"}));
    EXPECT_EQ(keeper->standing().confirmed, 1u);
    EXPECT_EQ(keeper->standing().waiting, 0u);
    std::vector<kept_change> all;
    ASSERT_TRUE(eventually([&] {
        all = changes();
        return all.size() == 2 && all[0].outcome == change_outcome::confirmed;
    }));
    for (const kept_change& change : all) {
        EXPECT_EQ(change.outcome, change_outcome::confirmed) << change.reason;
        EXPECT_EQ(change.sent, noon + 2);
        EXPECT_EQ(change.settled, noon + 3);
        EXPECT_EQ(change.revision, 1);
    }
    EXPECT_TRUE(eventually([&] { return told().size() >= 6; })) << "each outcome is told";

    poll(web, 3);
    EXPECT_EQ(web.last_answer, "");
    auto test = keeper->test_of(web.account, web.name, type_load_average, 1);
    ASSERT_TRUE(test);
    EXPECT_EQ(test->name, "load");
    EXPECT_EQ(test->revision, 1);
    EXPECT_EQ(test->confirmed, 1);
    EXPECT_EQ(keeper->name_of(web.account, web.name, type_load_average, 1)->name, "load");
    EXPECT_FALSE(keeper->name_of(web.account, web.name, type_load_average, 2));
    EXPECT_EQ(keeper->groups_of(web.account, "anybody"), strings{"everything"});
    plan_summary plan = store->followed("web-1");
    EXPECT_TRUE(plan.is_planned);
    EXPECT_EQ(plan.every, (intervals{2, 2}));
    EXPECT_EQ(plan.tests, (std::vector<std::pair<uint32_t, int32_t>>{{type_load_average, 1}}));
}

TEST_F(fleet_keeper_test, definitions_are_stored_for_the_agent) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 3);
    EXPECT_TRUE(eventually([&] {
        size_t found = 0;
        std::string failed;
        auto store = reader();
        store->for_each_definition(
            1, 0, 0,
            [&](const test_definition& one) {
                EXPECT_EQ(one.title, "load");
                EXPECT_EQ(one.group, "everything");
                EXPECT_EQ(one.location, 1);
                EXPECT_EQ(one.text, "1\t1\t8\t-1\t-1");
                found++;
            },
            failed);
        return found == 1;
    }));
}

TEST_F(fleet_keeper_test, a_change_is_confirmed_by_its_own_revision_alone) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    ASSERT_EQ(apply(everything("      load: {load: {1m: 9}}\n")).revision, 2);
    web.extra = {result_of(type_load_average, 1, 1)}; /* as it was before */
    poll(web);
    EXPECT_EQ(web.last_answer, "LAM\t1\t2\t9\t-1\t-1\n");
    EXPECT_TRUE(becomes({"add load 1 confirmed", "change load 1 sent"}));
    poll(web);
    EXPECT_TRUE(becomes({"add load 1 confirmed", "change load 1 confirmed"}));
    EXPECT_EQ(web.tests, one("9\t-1\t-1", 1, 2));
}

TEST_F(fleet_keeper_test, a_removal_is_confirmed_by_silence) {
    web.start();
    ASSERT_EQ(apply(everything(std::string(load) + cpu, "10s")).error, "");
    for (int i = 0; i < 2; i++) {
        pass(10), web.poll();
    }
    ASSERT_EQ(apply(everything(load, "10s")).error, "");
    pass(10), web.poll();
    EXPECT_EQ(web.last_answer, "CUD\t1\t0\n");
    EXPECT_TRUE(becomes({"add cpu 1 confirmed", "add load 2 confirmed", "remove cpu 1 sent"}));
    web.extra = {result_of(type_cpu, 1, 1)}; /* which was under way */
    pass(10), web.poll();
    pass(19), web.poll();
    EXPECT_EQ(outcomes().back(), "remove cpu 1 sent");
    pass(1), web.poll();
    EXPECT_TRUE(becomes({"add cpu 1 confirmed", "add load 2 confirmed", "remove cpu 1 confirmed"}));
    EXPECT_EQ(web.last_answer, "");
    /* It is tested again: with another number. */
    ASSERT_EQ(apply(everything(std::string(load) + cpu, "10s")).error, "");
    pass(10), web.poll();
    EXPECT_EQ(web.last_answer, "CUA\t3\t3\t90\t-1\t-1\t-1\t-1\n");
}

TEST_F(fleet_keeper_test, a_name_is_not_sent) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    fleet_outcome outcome = apply(everything("      average: {was: load, load: {1m: 8}}\n"));
    EXPECT_EQ(outcome.difference.renamed, 1u);
    poll(web);
    EXPECT_EQ(web.last_answer, "");
    EXPECT_EQ(keeper->name_of(web.account, web.name, type_load_average, 1)->name, "average");
    EXPECT_TRUE(becomes({"add load 1 confirmed", "rename average 1 confirmed"}));
}

TEST_F(fleet_keeper_test, the_same_text_does_nothing) {
    web.start();
    ASSERT_EQ(apply(everything(load)).revision, 1);
    fleet_outcome outcome = apply(everything(load));
    EXPECT_TRUE(outcome.is_same);
    EXPECT_EQ(outcome.revision, 1);
    EXPECT_EQ(apply(everything(load) + "# a comment\n").revision, 2);
    EXPECT_EQ(changes().size(), 2u);
    int32_t revision = 0;
    EXPECT_EQ(keeper->text(revision), everything(load) + "# a comment\n");
    EXPECT_EQ(revision, 2);
}

TEST_F(fleet_keeper_test, a_trial_changes_nothing) {
    web.start();
    fleet_outcome outcome = keeper->try_out(everything(load));
    EXPECT_EQ(outcome.difference.added, 1u);
    EXPECT_EQ(outcome.revision, 0);
    EXPECT_EQ(keeper->standing().revision, 0);
    poll(web, 2);
    EXPECT_EQ(web.last_answer, "");
    EXPECT_TRUE(changes().empty());
    EXPECT_FALSE(keeper->try_out("version: 2\n").wrong.empty());
}

TEST_F(fleet_keeper_test, mistakes_and_conflicts) {
    fleet_outcome wrong =
        apply("version: 1\ngroups: [{name: a, agents: [b], tests: {c: {htttp: d}}}]\n");
    ASSERT_EQ(wrong.wrong.size(), 1u);
    EXPECT_EQ(wrong.wrong[0].at.line, 2);
    EXPECT_EQ(keeper->standing().revision, 0);
    ASSERT_EQ(apply(everything(load), 0).revision, 1);
    fleet_outcome late = apply(everything(cpu), 0);
    EXPECT_TRUE(late.is_conflict);
    EXPECT_EQ(late.error,
              "Revision 1 was applied by ann in between: look at the difference again.");
    EXPECT_EQ(late.revision, 1);
    EXPECT_TRUE(apply(everything(cpu), 2).is_conflict);
    /* What the collector made of it by itself is no conflict. */
    web.disks = "/(sda|ext4)\t";
    ASSERT_EQ(apply(everything("      root: {disk: /, free: 1 GB}\n"), 1).revision, 2);
    web.start();
    poll(web, 2);
    ASSERT_TRUE(eventually([&] { return keeper->standing().revision == 3; }));
    EXPECT_EQ(apply(everything(cpu), 2).revision, 4);
}

TEST_F(fleet_keeper_test, a_new_agent_has_its_tests_with_its_first_answers) {
    ASSERT_EQ(apply(everything(std::string(load) + "      root: {disk: /, free: 5 GB}\n"
                                                   "      data: {disk: /data, free: 5 GB}\n"))
                  .error,
              "");
    web.disks = "/(sda|ext4)\t/home(sdb|ext4)\t";
    web.start();
    EXPECT_EQ(web.tests, one("8\t-1\t-1", 1, 1)) << web.last_answer;
    poll(web);
    EXPECT_EQ(web.last_answer, "DKA\t2\t2\t/(sda|ext4)\t5\n");
    poll(web);
    EXPECT_TRUE(eventually([&] { return outcomes().back() == "add root 2 confirmed"; }));
    EXPECT_EQ(keeper->standing().impossible, 1u);
    EXPECT_EQ(keeper->standing().confirmed, 2u);
    /* One that is mounted later. */
    *web.disks += "/data(sdc|xfs)\t";
    poll(web);
    EXPECT_EQ(web.last_answer, "DKA\t3\t3\t/data(sdc|xfs)\t5\n");
    /* And one that is not there any more is tested still. */
    *web.disks = "/(sda|ext4)\t";
    poll(web, 3);
    EXPECT_EQ(web.last_answer, "");
    EXPECT_EQ(web.tests.size(), 3u);
}

TEST_F(fleet_keeper_test, a_share_follows_the_size) {
    ASSERT_EQ(apply(everything("      root: {disk: /, free: 10 %}\n")).error, "");
    web.disks = "/(sda|ext4)\t";
    web.whole_gb = 50;
    web.start();
    poll(web);
    EXPECT_EQ(web.last_answer, "DKA\t1\t2\t/(sda|ext4)\t0\n");
    poll(web);
    EXPECT_EQ(web.last_answer, "DKM\t1\t3\t/(sda|ext4)\t5\n");
    poll(web);
    EXPECT_TRUE(eventually([&] {
        strings all = outcomes(true);
        return !all.empty() && all.back() == "change root 1 confirmed: 10 % of 50 GB";
    })) << testing::PrintToString(outcomes(true));
    web.whole_gb = 50.1;
    poll(web, 2);
    EXPECT_EQ(web.last_answer, "");
    web.whole_gb = 60;
    poll(web);
    EXPECT_EQ(web.last_answer, "DKM\t1\t4\t/(sda|ext4)\t6\n");
    /* While it is not mounted the agent tells of another: the limit stays. */
    web.disks = "/boot(sdb|ext4)\t";
    web.whole_gb = 2;
    poll(web, 3);
    EXPECT_EQ(web.last_answer, "");
    web.disks = "/(sda|ext4)\t";
    web.whole_gb = 60;
    poll(web, 2);
    EXPECT_EQ(web.last_answer, "");
    EXPECT_EQ(web.tests, one("/(sda|ext4)\t6", 1, 4, type_disk));
}

TEST_F(fleet_keeper_test, an_agent_without_interfaces_says_so) {
    ASSERT_EQ(apply(everything("      net: {network: eth0}\n")).error, "");
    web.disks = "/(sda|ext4)\t";
    web.start();
    poll(web);
    EXPECT_TRUE(eventually([&] {
        strings all = outcomes(true);
        return all.back() == "add net 0 impossible: there is no interface eth0; there is no other";
    })) << testing::PrintToString(outcomes(true));
    web.interfaces = "lo\teth0\t";
    poll(web);
    EXPECT_EQ(web.tests.size(), 1u);
}

/* ---- restarts ---- */

TEST_F(fleet_keeper_test, goes_on_after_a_restart_of_the_collector) {
    web.start();
    ASSERT_EQ(apply(everything(std::string(load) + cpu)).error, "");
    poll(web, 3);
    const sim_agent::test_map before = web.tests;
    for (bool in_order : {true, false}) {
        ASSERT_TRUE(open_again(in_order)) << error;
        EXPECT_EQ(keeper->standing().text_revision, 1);
        web.log_in_again();
        EXPECT_EQ(web.tests, before);
        EXPECT_EQ(web.last_answer.find("LAM"), std::string::npos) << "it is known to have it";
        poll(web, 2);
        EXPECT_EQ(web.last_answer, "");
        EXPECT_TRUE(becomes({"add cpu 1 confirmed", "add load 2 confirmed"}));
        EXPECT_EQ(keeper->standing().confirmed, 2u);
        EXPECT_EQ(keeper->standing().revision, 1);
    }
    ASSERT_EQ(
        apply(everything("      load: {load: {1m: 9}}\n      memory: {memory: {free: 1 MB}}\n"))
            .error,
        "");
    poll(web, 2);
    EXPECT_EQ(web.last_answer, "");
    EXPECT_TRUE(web.tests.contains({type_memory, 3}));
    EXPECT_FALSE(web.tests.contains({type_cpu, 1}));
}

TEST_F(fleet_keeper_test, puts_right_an_agent_that_ran_on) {
    web.start();
    ASSERT_EQ(apply(everything(std::string(load) + cpu)).error, "");
    poll(web, 3);
    ASSERT_EQ(apply(everything("      load: {load: {1m: 9}}\n")).error, "");
    /* The collector ends before the agent polls. */
    ASSERT_TRUE(open_again(false)) << error;
    web.log_in_again();
    EXPECT_EQ(web.tests, one("9\t-1\t-1", 2, 2));
    poll(web, 4);
    EXPECT_TRUE(becomes({"add cpu 1 confirmed", "add load 2 confirmed", "remove cpu 1 confirmed",
                         "change load 2 confirmed"}));
}

TEST_F(fleet_keeper_test, puts_right_an_agent_that_an_earlier_run_sent_away) {
    web.start();
    ASSERT_EQ(apply(everything(std::string(load) + cpu)).error, "");
    poll(web, 3);
    ASSERT_TRUE(open_again()) << error;
    /* The agent is told to log in again, and the collector ends. */
    ASSERT_EQ(apply(everything("      load: {load: {1m: 9}}\n")).error, "");
    ASSERT_TRUE(open_again(false)) << error;
    web.log_in(false);
    EXPECT_EQ(web.tests, one("9\t-1\t-1", 2, 2));
    poll(web);
    web.start(); /* from now on it is known that it has */
    EXPECT_EQ(web.last_answer, "POL\t0\t1\nCHK\t0\t1\nLAA\t2\t2\t9\t-1\t-1\n");
}

TEST_F(fleet_keeper_test, what_a_crash_forgot_is_seen_in_the_results) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    store->holds = true; /* no outcome is stored from here on */
    poll(web, 3);
    EXPECT_EQ(keeper->standing().confirmed, 1u);
    store->fails = true;
    store->let_go();
    ASSERT_TRUE(open_again(false)) << error;
    web.log_in_again();
    EXPECT_TRUE(becomes({"add load 1 confirmed"}));
}

TEST_F(fleet_keeper_test, an_agent_that_starts_anew_is_told_all) {
    web.start();
    ASSERT_EQ(apply(everything(std::string(load) + cpu)).error, "");
    poll(web, 3);
    const sim_agent::test_map before = web.tests;
    web.start();
    EXPECT_EQ(web.tests, before);
    EXPECT_EQ(web.poll_s, 1);
    poll(web);
    EXPECT_EQ(web.last_answer, "");
}

TEST_F(fleet_keeper_test, what_nobody_gave_is_removed) {
    web.tests[{type_load_average, 7}] = {3, "1\t2\t3"};
    web.tests[{type_cpu, 9}] = {3, "1\t2\t3"};
    web.log_in_again();
    poll(web);
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web);
    EXPECT_TRUE(web.tests.contains({type_load_average, 10})) << "above all that was seen";
    poll(web, 2);
    EXPECT_EQ(web.tests.size(), 1u) << web.last_answer;
    poll(web, 3);
    EXPECT_EQ(web.last_answer, "");
    /* It comes back with one. */
    web.tests[{type_load_average, 7}] = {3, "1\t2\t3"};
    poll(web, 1);
    EXPECT_EQ(web.last_answer, "LAD\t7\t0\n");
    /* And what was stored before a restart goes when it logs in. */
    web.tests[{type_memory, 3}] = {3, "1\t2\t3"};
    web.is_deaf = true;
    poll(web);
    ASSERT_TRUE(open_again()) << error;
    web.is_deaf = false;
    web.log_in_again();
    EXPECT_EQ(web.tests.size(), 1u) << web.last_answer;
}

/* Neither are the numbers used up, nor is what is stored of the agent unreadable. */
TEST_F(fleet_keeper_test, numbers_that_no_test_has) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 3);
    for (int32_t number : {-5, INT32_MIN, INT32_MAX}) {
        web.tests[{type_load_average, number}] = {1, "1\t2\t3"};
    }
    web.is_deaf = true;
    poll(web, 2);
    for (int times = 0; times < 3; times++) {
        ASSERT_TRUE(open_again()) << error;
        EXPECT_EQ(early, strings());
        web.log_in_again();
        poll(web, 2);
    }
    web.is_deaf = false;
    ASSERT_EQ(apply(everything(std::string(load) + cpu)).error, "");
    poll(web, 2);
    EXPECT_TRUE(web.tests.contains({type_load_average, 1}));
    EXPECT_TRUE(web.tests.contains({type_cpu, 2})) << web.last_answer;
}

TEST_F(fleet_keeper_test, an_agent_of_no_group_is_to_have_nothing) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    ASSERT_EQ(apply("version: 1\nintervals: {poll: 1s, check: 1s}\n"
                    "groups: [{name: a, agents: [db-*], tests: {}}]\n")
                  .error,
              "");
    poll(web, 4);
    EXPECT_TRUE(web.tests.empty());
    EXPECT_TRUE(becomes({"add load 1 confirmed", "remove load 1 confirmed"}));
    EXPECT_TRUE(store->followed("web-1").is_planned);
    EXPECT_TRUE(store->followed("web-1").tests.empty());
}

/* ---- outcomes ---- */

TEST_F(fleet_keeper_test, what_does_not_come_is_put_right_once_more) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    web.is_deaf = true;
    poll(web, 10);
    EXPECT_TRUE(becomes({"add load 1 sent"}));
    poll(web, 12);
    ASSERT_TRUE(eventually([&] {
        return outcomes(true).back() ==
               "add load 1 unanswered: no result has come in three intervals";
    }));
    web.is_deaf = false;
    poll(web);
    EXPECT_EQ(web.last_answer, "LAA\t1\t1\t8\t-1\t-1\nLAM\t1\t1\t8\t-1\t-1\n");
    EXPECT_TRUE(becomes({"add load 1 sent"}));
    poll(web);
    EXPECT_TRUE(becomes({"add load 1 confirmed"}));
}

TEST_F(fleet_keeper_test, likely_reasons) {
    web.start();
    web.interfaces = "eth0\t";
    web.mute = {type_snmp, type_mysql, type_network, type_discovery};
    ASSERT_EQ(apply(everything("      a: {snmp: sw1, objects: [1.3.6.1.2.1.1.3.0]}\n"
                               "      b: {discovery: 10.0.0.1 - 10.0.0.9}\n"
                               "      c: {network: eth0}\n"))
                  .error,
              "");
    poll(web, 40);
    const auto has = [&](const std::string& text) {
        const bool found = eventually([&] {
            strings all = outcomes(true);
            return std::any_of(all.begin(), all.end(),
                               [&](const std::string& one) { return one.find(text) != one.npos; });
        });
        EXPECT_TRUE(found) << text << testing::PrintToString(outcomes(true));
    };
    has("add a 1 unanswered: no result has come in three intervals; an agent whose host has no "
        "SNMP");
    has("add b 2 unanswered: the scan is under way");
    has("add c 3 unanswered: no result has come in three intervals; an interface that is not up");
}

TEST_F(fleet_keeper_test, an_agent_that_is_away) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    ASSERT_EQ(apply(everything("      load: {load: {1m: 9}}\n")).error, "");
    pass(30);
    EXPECT_TRUE(eventually([&] {
        return outcomes(true).back() == "change load 1 unanswered: the agent has not polled since";
    }));
    ASSERT_EQ(apply(everything("      load: {load: {1m: 7}}\n")).error, "");
    EXPECT_TRUE(
        becomes({"add load 1 confirmed", "change load 1 unanswered", "change load 1 unanswered"}));
    EXPECT_EQ(outcomes(true)[1],
              "change load 1 unanswered: revision 3 took its place before it was sent");
    poll(web, 2);
    EXPECT_TRUE(
        becomes({"add load 1 confirmed", "change load 1 unanswered", "change load 1 confirmed"}));
    EXPECT_EQ(keeper->standing().waiting, 0u);
}

TEST_F(fleet_keeper_test, a_lost_answer_is_given_again) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    web.poll_in_vain();
    const std::string lost = web.last_answer;
    poll(web);
    EXPECT_EQ(web.last_answer, lost);
    EXPECT_EQ(web.tests.size(), 1u);
}

TEST_F(fleet_keeper_test, a_removed_test_that_goes_on_is_removed_again) {
    web.start();
    ASSERT_EQ(apply(everything(std::string(load) + cpu)).error, "");
    poll(web, 2);
    ASSERT_EQ(apply(everything(load)).error, "");
    web.is_deaf = true;
    poll(web, 40);
    EXPECT_TRUE(eventually([&] {
        return outcomes(true).back() == "remove cpu 1 unanswered: results of the test come still";
    })) << testing::PrintToString(outcomes(true));
    web.is_deaf = false;
    EXPECT_TRUE(eventually([&] {
        poll(web);
        return web.tests.size() == 1;
    }));
    poll(web, 4);
    EXPECT_TRUE(becomes({"add cpu 1 confirmed", "add load 2 confirmed", "remove cpu 1 confirmed"}));
}

/* ---- secrets ---- */

TEST_F(fleet_keeper_test, secrets_come_change_and_go) {
    web.is_proven = true;
    web.start();
    ASSERT_EQ(apply(everything("      page: {http: \"http://a.example/\", user: ann, password: "
                               "\"${secret:pw}\"}\n"))
                  .error,
              "");
    EXPECT_TRUE(becomes({"add page 0 impossible"}));
    poll(web);
    EXPECT_TRUE(web.tests.empty());
    ASSERT_TRUE(set_secret("pw", "xyzzy")) << error;
    ASSERT_TRUE(eventually([&] {
        poll(web);
        return !web.tests.empty();
    }));
    EXPECT_NE(web.last_answer.find("\txyzzy\t"), std::string::npos);
    const int32_t first = web.tests.begin()->second.location;
    poll(web);
    ASSERT_TRUE(set_secret("pw", "plugh")) << error;
    ASSERT_TRUE(eventually([&] {
        poll(web);
        return web.tests.begin()->second.location > first;
    }));
    EXPECT_NE(web.tests.begin()->second.fields.find("plugh"), std::string::npos);
    EXPECT_EQ(web.tests.size(), 1u);
    poll(web);
    /* What the agent says of it is hidden, and it is in nothing that is stored. */
    EXPECT_EQ(read_text(state_dir + "/results.db").find("plugh"), std::string::npos);
    EXPECT_EQ(log().find("plugh"), std::string::npos);
    EXPECT_EQ(secrets->list().at(0).used, 1u);
    ASSERT_TRUE(secrets->remove("pw", error)) << error;
    ASSERT_TRUE(eventually([&] { return outcomes().back() == "change page 1 impossible"; }));
    poll(web);
    EXPECT_EQ(web.tests.size(), 1u) << "what it has stays";
}

TEST_F(fleet_keeper_test, secrets_are_for_agents_that_have_proven_who_they_are) {
    ASSERT_TRUE(set_secret("pw", "xyzzy")) << error;
    web.start();
    ASSERT_EQ(apply(everything(std::string(load) + "      page: {http: \"http://a.example/\", "
                                                   "user: ann, password: \"${secret:pw}\"}\n"))
                  .error,
              "");
    poll(web, 2);
    EXPECT_EQ(web.tests.size(), 1u);
    EXPECT_TRUE(eventually([&] {
        return outcomes(true) == strings{"add load 1 confirmed",
                                         "add page 2 unanswered: the test has secrets, and the "
                                         "agent has not proven who it is"};
    })) << testing::PrintToString(outcomes(true));
    web.is_proven = true;
    web.log_in_again();
    EXPECT_EQ(web.tests.size(), 2u);
    poll(web);
    EXPECT_TRUE(becomes({"add load 1 confirmed", "add page 2 confirmed"}));
}

/* ---- retiring ---- */

TEST_F(fleet_keeper_test, a_retired_agent_has_nothing_and_begins_anew) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    std::promise<bool> done;
    store->retire(1, [&](bool ok, const std::string&) { done.set_value(ok); });
    ASSERT_TRUE(done.get_future().get());
    EXPECT_TRUE(eventually([&] { return keeper->standing().agents == 0; }));
    EXPECT_TRUE(keeper->tests_of(web.account, web.name).empty());
    ASSERT_EQ(apply(everything(cpu)).difference.agents_in_all, 0u);
    web.log_in_again();
    poll(web, 2);
    EXPECT_EQ(web.tests, one("90\t-1\t-1\t-1\t-1", 2, 3, type_cpu));
    ASSERT_TRUE(open_again()) << error;
    EXPECT_EQ(keeper->tests_of(web.account, web.name).size(), 1u);
}

/* ---- the store ---- */

TEST_F(fleet_keeper_test, what_cannot_be_stored_is_not_done) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    store->fails = true;
    fleet_outcome outcome = apply(everything(cpu));
    EXPECT_EQ(outcome.error.find("It cannot be stored, and nothing was applied"), 0u)
        << outcome.error;
    EXPECT_EQ(outcome.revision, 1);
    poll(web, 2);
    EXPECT_EQ(web.last_answer, "");
    EXPECT_EQ(keeper->standing().text_revision, 1);
    store->fails = false;
    EXPECT_GT(apply(everything(cpu)).revision, 1);
    poll(web, 2);
    EXPECT_TRUE(web.tests.contains({type_cpu, 2}));
}

TEST_F(fleet_keeper_test, an_agent_that_waits_is_answered_after_two_seconds) {
    ASSERT_EQ(apply(everything(load)).error, "");
    store->holds = true;
    const auto begun = std::chrono::steady_clock::now();
    web.start();
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
    EXPECT_EQ(web.last_answer, "");
    store->let_go();
    ASSERT_TRUE(eventually([&] { return keeper->standing().tests == 1; }));
    poll(web);
    EXPECT_EQ(web.tests, one("8\t-1\t-1", 1, 1));
    EXPECT_EQ(web.poll_s, 1);
}

TEST_F(fleet_keeper_test, a_lost_store_is_told_everything_again) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    close();
    for (const char* name : {"/results.db", "/results.db-wal", "/results.db-shm"}) {
        std::filesystem::remove(state_dir + name);
    }
    ASSERT_TRUE(open()) << error;
    EXPECT_EQ(keeper->standing().author, "collector");
    const int32_t revision = keeper->standing().text_revision;
    EXPECT_GT(revision, 1);
    web.log_in_again();
    poll(web, 3);
    ASSERT_EQ(web.tests.size(), 1u);
    EXPECT_GT(web.tests.begin()->first.second, 1000);
    EXPECT_GE(web.tests.begin()->second.location, revision);
    /* A second time all is as it was. */
    const sim_agent::test_map before = web.tests;
    ASSERT_TRUE(open_again()) << error;
    web.log_in_again();
    poll(web);
    EXPECT_EQ(web.tests, before);
    EXPECT_EQ(keeper->standing().text_revision, revision);
}

TEST_F(fleet_keeper_test, a_restored_store_goes_on_far_above) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    const std::string copy = directory / "copy.db";
    ASSERT_TRUE(back_up(
        state_dir, copy, [](int) {}, error))
        << error;
    ASSERT_EQ(
        apply(everything("      load: {load: {1m: 9}}\n      other: {load: {1m: 4}}\n")).error, "");
    poll(web, 2);
    close();
    std::string kept_as;
    ASSERT_TRUE(restore_from(
        state_dir, copy, true, [](int) {}, kept_as, error))
        << error;
    ASSERT_TRUE(open()) << error;
    EXPECT_GT(keeper->standing().revision, 1'000'000);
    EXPECT_EQ(keeper->standing().text_revision, 1);
    web.log_in_again();
    EXPECT_EQ(web.tests[(std::pair<uint32_t, int32_t>(type_load_average, 1))].fields, "8\t-1\t-1");
    poll(web, 4);
    EXPECT_EQ(web.tests.size(), 1u) << "what the copy does not know of is seen, and removed";
    ASSERT_EQ(apply(everything(std::string(load) + "      other: {load: {1m: 4}}\n")).error, "");
    poll(web, 2);
    EXPECT_GT(web.tests.rbegin()->first.second, 1000);
    const int32_t revision = keeper->standing().revision;
    ASSERT_TRUE(open_again()) << error;
    EXPECT_EQ(keeper->standing().revision, revision) << "once";
}

/* ---- a file that rules ---- */

struct fleet_file_rules_test : testing::Test, place {
    sim_agent web{*this, "web-1"};
    void put(const std::string& text) {
        write_text(file + ".new", text);
        std::filesystem::rename(file + ".new", file);
    }
    void SetUp() override { file = directory / "fleet.yaml"; }
};

TEST_F(fleet_file_rules_test, is_followed) {
    put(everything(load));
    ASSERT_TRUE(open()) << error;
    web.start();
    poll(web, 2);
    EXPECT_EQ(web.tests.size(), 1u);
    EXPECT_EQ(keeper->standing().author, "file");
    EXPECT_EQ(keeper->standing().file, file);
    EXPECT_TRUE(apply(everything(cpu)).is_conflict);
    EXPECT_FALSE(keeper->try_out(everything(cpu)).is_conflict);
    put(everything(std::string(load) + cpu));
    EXPECT_TRUE(eventually([&] { return keeper->standing().tests == 2; }));
    put(everything("      load: {lod: {1m: 8}}\n"));
    EXPECT_TRUE(eventually([&] { return !keeper->standing().file_trouble.empty(); }));
    EXPECT_NE(log().find(file + ":7:"), std::string::npos) << log();
    EXPECT_EQ(keeper->standing().tests, 2u);
    /* With the mistake in it, it starts all the same: there is a fleet in force. */
    ASSERT_TRUE(open_again()) << error;
    ASSERT_EQ(early.size(), 2u);
    EXPECT_NE(early[0].find(file + ":7:"), std::string::npos) << early[0];
    EXPECT_EQ(keeper->standing().tests, 2u);
    put(everything(cpu));
    EXPECT_TRUE(eventually([&] { return keeper->standing().tests == 1; }));
    EXPECT_EQ(keeper->standing().file_trouble, "");
    write_text(file, "");
    EXPECT_TRUE(eventually([&] { return !keeper->standing().file_trouble.empty(); }));
    EXPECT_EQ(keeper->standing().tests, 1u);
    /* Written in place, it counts when it has lain still; or at once when somebody says so. */
    write_text(file, everything(load));
    keeper->read_file();
    EXPECT_TRUE(eventually([&] { return keeper->standing().file_trouble.empty(); }));
}

TEST_F(fleet_file_rules_test, has_to_be_right_at_first) {
    EXPECT_FALSE(open());
    EXPECT_NE(error.find("fleet.yaml: No such file"), std::string::npos) << error;
    close();
    put(everything("      load: {lod: {1m: 8}}\n      x: {cpo: {user: 1}}\n"));
    EXPECT_FALSE(open());
    EXPECT_EQ(early.size(), 1u);
    EXPECT_NE(error.find(file + ":8:"), std::string::npos) << error;
}

/* ---- all at once ---- */

TEST_F(fleet_keeper_test, many_at_once) {
    std::atomic<bool> is_over = false;
    std::vector<std::thread> threads;
    std::vector<std::unique_ptr<sim_agent>> agents;
    for (int i = 0; i < 4; i++) {
        agents.push_back(std::make_unique<sim_agent>(*this, "web-" + std::to_string(i)));
        agents.back()->disks = "/(sda|ext4)\t";
    }
    /* The network is one thread. */
    threads.emplace_back([&] {
        for (auto& agent : agents) {
            agent->start();
        }
        while (!is_over) {
            for (auto& agent : agents) {
                agent->poll();
            }
            pass(1);
        }
    });
    threads.emplace_back([&] {
        while (!is_over) {
            keeper->standing();
            keeper->tests_of("me@example.org", "web-1");
            keeper->name_of("me@example.org", "web-2", type_load_average, 1);
            keeper->groups_of("me@example.org", "web-3");
            keeper->try_out(place::everything(cpu));
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 20 && !is_over; i++) {
            set_secret("pw", "value " + std::to_string(i));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    std::string text;
    for (int i = 1; i <= 15; i++) {
        text = everything("      load: {load: {1m: " + std::to_string(i) +
                          "}}\n      root: {disk: /, free: " + std::to_string(i % 3 + 1) + " %}\n" +
                          (i % 2 != 0 ? cpu : ""));
        EXPECT_EQ(apply(text).error, "");
    }
    const bool is_settled = eventually(
        [&] { return keeper->standing().confirmed == 12 && keeper->standing().waiting == 0; });
    is_over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(is_settled) << keeper->standing().confirmed << " of " << keeper->standing().tests
                            << log();
    for (auto& agent : agents) {
        std::vector<fleet_test_standing> wanted = keeper->tests_of(agent->account, agent->name);
        ASSERT_EQ(agent->tests.size(), wanted.size());
        for (const fleet_test_standing& test : wanted) {
            const auto& has =
                agent->tests[std::pair<uint32_t, int32_t>(test.kind->add->list, test.number)];
            EXPECT_EQ(has.location, test.revision) << test.name;
        }
    }
}

/* A keeper where things go wrong: what ends amid something, is damaged, or is other than it was. */
#include "counted_memory.h"
#include "kept_fleet.h"

#include <cstring>
#include <future>

using namespace kept_fleet;
using strings = std::vector<std::string>;

namespace {

const char* const load = "      load: {load: {1m: 8}}\n";
const char* const other_load = "      load: {load: {1m: 9}}\n";

/* Polls a second each. */
void poll(sim_agent& agent, int times = 1) {
    for (int i = 0; i < times; i++) {
        pass(1);
        ASSERT_TRUE(agent.poll());
    }
}

struct fleet_faults_test : testing::Test, place {
    sim_agent web{*this, "web-1"};
    void SetUp() override { ASSERT_TRUE(open()) << error; }

    void lose_store() {
        for (const char* name : {"/results.db", "/results.db-wal", "/results.db-shm"}) {
            std::filesystem::remove(state_dir + name);
        }
    }
    void retire() {
        int64_t id = 0;
        reader()->for_each_agent([&](const known_agent& row) { id = row.id; }, error);
        std::promise<bool> gone;
        store->retire(id, [&](bool ok, const std::string&) { gone.set_value(ok); });
        ASSERT_TRUE(gone.get_future().get());
    }
};

} // namespace

TEST_F(fleet_faults_test, the_copy_is_kept_when_it_ends_at_once) {
    for (int i = 1; i <= 30; i++) {
        ASSERT_EQ(apply(everything("      load: {load: {1m: " + std::to_string(i) + "}}\n")).error,
                  "");
        const int32_t revision = keeper->standing().text_revision;
        keeper->stop();
        std::optional<fleet_copy> copy;
        ASSERT_TRUE(kept->read_fleet_copy(copy, error)) << error;
        ASSERT_TRUE(copy);
        ASSERT_EQ(copy->revision, revision);
        ASSERT_TRUE(open_again()) << error;
    }
}

/* As often as it goes on by itself: what is noted in the settings is ahead of it. */
TEST_F(fleet_faults_test, no_revision_is_given_twice) {
    web.disks = "/(sda|ext4)\t";
    web.start();
    ASSERT_EQ(apply(everything("      root: {disk: /, free: 10 %}\n")).error, "");
    poll(web, 2);
    for (int i = 0; i < 1010; i++) {
        web.whole_gb = i % 2 == 0 ? 200 : 100;
        poll(web);
    }
    const int32_t given = keeper->standing().revision;
    EXPECT_GT(given, 1001);
    close();
    lose_store();
    ASSERT_TRUE(open()) << error;
    EXPECT_GT(keeper->standing().revision, given);
}

/* While it runs, and soon after its start. */
TEST_F(fleet_faults_test, a_store_that_is_lost_is_given_all_again) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    ASSERT_TRUE(becomes({"add load 1 confirmed"}));
    lose_store();
    web.mute = {type_load_average};
    poll(web, 2);
    web.is_deaf = true;
    web.extra = {result_of(type_cpu, 77, 1)}; /* something is to be stored */
    poll(web, 2);
    EXPECT_TRUE(eventually([&] {
        const stored_fleet now = stored();
        return now.in_force.has_text && now.agents.size() == 1 && now.agents[0].is_given;
    }));
    EXPECT_EQ(stored().in_force.text, everything(load));
}

/* Nobody knows any more which it had. */
TEST_F(fleet_faults_test, secrets_of_what_was_removed_stay_hidden) {
    ASSERT_TRUE(set_secret("key", "hunter2hunter2"));
    web.is_proven = true;
    web.start();
    ASSERT_EQ(
        apply(everything("      db: {mysql: 127.0.0.1, user: me, password: \"${secret:key}\"}\n"))
            .error,
        "");
    poll(web, 2);
    ASSERT_EQ(web.tests.size(), 1u);
    ASSERT_EQ(apply(everything(load)).error, "");
    ASSERT_TRUE(open_again()) << error;
    char text[] = "no hunter2hunter2 here";
    secrets->hidden().cover(text, strlen(text));
    EXPECT_STREQ(text, "no ************** here");
}

/* It is stored, and there is no memory for putting it in force: that is told, the store is put
 * right, and the next has its turn. */
TEST_F(fleet_faults_test, no_memory_when_it_has_been_stored) {
    if (sanitized) {
        GTEST_SKIP() << "a sanitizer has its own way of giving out memory";
    }
    store->around_done = [](const std::function<void()>& done) {
        refused_here_above = 800'000;
        done();
        refused_here_above = SIZE_MAX;
    };
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    const fleet_outcome outcome =
        apply(everything(other_load) + "# " + std::string(900'000, 'x') + "\n");
    EXPECT_EQ(outcome.error, "It cannot be stored, and nothing was applied: no memory.");
    EXPECT_TRUE(eventually([&] { return stored().in_force.text == everything(load); }));
    EXPECT_EQ(apply(everything(other_load)).error, "");
    poll(web, 2);
    /* The change that was stored in vain stays, and was overtaken. */
    EXPECT_TRUE(
        becomes({"add load 1 confirmed", "change load 1 unanswered", "change load 1 confirmed"}));
}

TEST_F(fleet_faults_test, retired_while_it_is_given_something) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    ASSERT_TRUE(becomes({"add load 1 confirmed"}));
    store->holds = true;
    auto applying = std::async(std::launch::async, [&] { return apply(everything(other_load)); });
    ASSERT_TRUE(eventually([&] { return store->held() > 0; }));
    retire();
    store->let_go();
    EXPECT_EQ(applying.get().error, "");
    EXPECT_TRUE(eventually([&] {
        return outcomes(true).back() == "change load 1 unanswered: the agent was retired";
    })) << outcomes(true).back();
}

/* And is back before that is stored. */
TEST_F(fleet_faults_test, retired_and_back_while_it_is_given_something) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    store->holds = true;
    auto applying = std::async(std::launch::async, [&] { return apply(everything(other_load)); });
    ASSERT_TRUE(eventually([&] { return store->held() > 0; }));
    retire();
    auto back = std::async(std::launch::async, [&] { web.log_in_again(); });
    store->let_go();
    EXPECT_EQ(applying.get().error, "");
    back.get();
    poll(web, 5);
    ASSERT_EQ(web.tests.size(), 1u);
    EXPECT_EQ(web.tests.begin()->second.fields, "9\t-1\t-1");
}

TEST_F(fleet_faults_test, what_is_damaged_begins_far_above) {
    web.mute = {type_load_average}; /* no result tells of its number */
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    ASSERT_EQ(web.tests.begin()->first.second, 1);
    const int32_t revision = keeper->standing().revision;
    std::promise<bool> damaged;
    store->update(
        [&](engine& e) {
            return e.put_fleet_agent(
                {.account = web.account, .agent = web.name, .assigned = "nonsense"});
        },
        [&](bool ok, const std::string&) { damaged.set_value(ok); });
    ASSERT_TRUE(damaged.get_future().get());
    ASSERT_TRUE(open_again(false)) << error;
    ASSERT_EQ(early.size(), 1u);
    EXPECT_NE(early[0].find("damaged"), std::string::npos) << early[0];
    web.log_in_again();
    EXPECT_GT(web.tests.rbegin()->first.second, 1000);
    EXPECT_GT(web.tests.rbegin()->second.location, revision);
}

/* As a machine that was put back to an earlier state. */
TEST_F(fleet_faults_test, an_agent_that_has_an_older_revision_again) {
    web.start();
    ASSERT_EQ(apply(everything(load)).error, "");
    poll(web, 2);
    const sim_agent::test_map before = web.tests;
    ASSERT_EQ(apply(everything(other_load)).error, "");
    poll(web, 3);
    ASSERT_TRUE(becomes({"add load 1 confirmed", "change load 1 confirmed"}));
    const sim_agent::test_map now = web.tests;
    ASSERT_NE(now, before);
    web.tests = before;
    poll(web, 2);
    EXPECT_EQ(web.tests, now);
    /* One that does not heed it, or brings something old, is not told again and again. */
    web.is_deaf = true;
    web.tests = before;
    int told = 0;
    for (int i = 0; i < 60; i++) {
        poll(web);
        told += !web.last_answer.empty();
    }
    EXPECT_GE(told, 1);
    EXPECT_LE(told, 4);
}

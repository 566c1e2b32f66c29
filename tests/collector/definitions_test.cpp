#include "ingest/definitions.h"

#include "collector_test_support.h"
#include "counted_memory.h"

#include <gtest/gtest.h>
#include <map>

using strings = std::vector<std::string>;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct definitions_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state", error;
    std::unique_ptr<engine> store;
    std::unique_ptr<definitions> kept;
    int64_t now = noon;

    void SetUp() override {
        store = open_engine({.directory = state, .keep_days = 30, .tell = {}}, error);
        ASSERT_TRUE(store) << error;
        kept = std::make_unique<definitions>(*store);
    }
    int64_t agent(const std::string& name) {
        stored_agent found;
        EXPECT_TRUE(store->begin() && store->find_agent("a@b.c", name, noon, found) &&
                    store->commit());
        return found.id;
    }
    static owned_definition test(int32_t number, int32_t location, const std::string& title) {
        return {.type = 46,
                .number = number,
                .location = location,
                .name = "/",
                .text = "/\t10",
                .title = title,
                .group = "all"};
    }
    size_t run() {
        size_t times = 0;
        for (; kept->is_due(); times++) {
            EXPECT_TRUE(kept->run(now)) << store->reason();
            EXPECT_LT(times, 10000u);
        }
        return times;
    }
    strings of(int64_t agent) {
        strings found;
        EXPECT_TRUE(store->reader().for_each_definition(
            agent, 0, 0,
            [&](const test_definition& d) {
                EXPECT_EQ(d.agent, agent);
                found.push_back(std::to_string(d.number) + "/" + std::to_string(d.location) + " " +
                                std::string(d.title));
            },
            error))
            << error;
        return found;
    }
};

TEST_F(definitions_test, each_agent_has_its_own) {
    const int64_t one = agent("one"), two = agent("two");
    kept->follow({test(1, 1, "")});
    kept->follow("a@b.c", "one", one, {test(1, 5, "root disk"), test(2, 5, "home")});
    kept->follow("a@b.c", "two", two, {test(1, 6, "root disk")});
    run();
    EXPECT_EQ(of(0), strings{"1/1 "});
    EXPECT_EQ(of(one), (strings{"1/5 root disk", "2/5 home"}));
    EXPECT_EQ(of(two), strings{"1/6 root disk"});
    EXPECT_FALSE(kept->is_due());
}

TEST_F(definitions_test, what_differs_is_stored_and_nothing_else) {
    const int64_t one = agent("one");
    auto tell = [&](std::vector<owned_definition> all) {
        kept->follow("a@b.c", "one", one, std::move(all));
        run();
    };
    tell({test(1, 5, "root disk"), test(2, 5, "home")});
    tell({test(1, 5, "root disk"), test(2, 5, "home")});
    EXPECT_EQ(of(one).size(), 2u);
    tell({test(1, 6, "root disk"), test(2, 5, "home")});
    tell({test(1, 6, "root"), test(2, 5, "home")});
    owned_definition other = test(2, 5, "home");
    other.group = "some";
    tell({test(1, 6, "root"), other});
    EXPECT_EQ(of(one),
              (strings{"1/5 root disk", "1/6 root disk", "1/6 root", "2/5 home", "2/5 home"}));
    tell({});
    EXPECT_EQ(of(one).size(), 5u) << "what a test was stays known";
    /* In another run: what is stored is looked up. */
    kept = std::make_unique<definitions>(*store);
    tell({test(1, 6, "root"), other});
    EXPECT_EQ(of(one).size(), 5u);
}

TEST_F(definitions_test, an_agent_has_them_from_its_id_on) {
    kept->follow("a@b.c", "one", 0, {test(1, 5, "root disk")});
    EXPECT_FALSE(kept->is_due());
    kept->has_id("a@b.c", "other", 7);
    EXPECT_FALSE(kept->is_due());
    const int64_t one = agent("one");
    kept->has_id("a@b.c", "one", one);
    run();
    EXPECT_EQ(of(one), strings{"1/5 root disk"});
    kept->has_id("a@b.c", "one", one);
    EXPECT_FALSE(kept->is_due());
    /* A new file, in which it has another one. */
    kept->begin();
    EXPECT_FALSE(kept->is_due());
    const int64_t two = agent("two");
    kept->has_id("a@b.c", "one", two);
    run();
    EXPECT_EQ(of(two), strings{"1/5 root disk"});
    /* One that is not to have any is left alone. */
    kept->follow("a@b.c", "one", two, {});
    EXPECT_FALSE(kept->is_due());
    kept->follow("a@b.c", "three", 0, {test(1, 6, "root disk")});
    kept->follow("a@b.c", "three", 0, {});
    kept->has_id("a@b.c", "three", agent("three"));
    EXPECT_FALSE(kept->is_due()) << "nobody was told of these";
}

/* Agents were told, and bring results of it. */
TEST_F(definitions_test, what_is_overtaken_is_stored_first) {
    const int64_t one = agent("one");
    kept->follow("a@b.c", "one", one, {test(1, 5, "root"), test(2, 5, "home")});
    kept->follow("a@b.c", "one", one, {test(1, 6, "root"), test(2, 5, "house")});
    kept->follow("a@b.c", "one", one, {test(1, 7, "root"), test(2, 5, "house")});
    run();
    EXPECT_EQ(of(one), (strings{"1/5 root", "1/6 root", "1/7 root", "2/5 house"}));
    /* Stored in part. */
    kept->follow("a@b.c", "one", one, {test(1, 8, "root")});
    kept->follow("a@b.c", "one", one, {});
    run();
    EXPECT_EQ(of(one), (strings{"1/5 root", "1/6 root", "1/7 root", "1/8 root", "2/5 house"}));
    kept->begin();
    kept->has_id("a@b.c", "one", one);
    run();
    EXPECT_EQ(of(one).size(), 5u) << "once";
    /* Also of one that has its id only then; not without end, where the store fails. */
    for (int32_t revision = 1; revision <= 3000; revision++) {
        kept->follow("a@b.c", "two", 0, {test(1, revision, "root")});
    }
    const int64_t two = agent("two");
    kept->has_id("a@b.c", "two", two);
    run();
    const strings all = of(two);
    ASSERT_EQ(all.size(), 1001u);
    EXPECT_EQ(all.front(), "1/2000 root");
    EXPECT_EQ(all.back(), "1/3000 root");
}

/* In pieces: polls are stored between them. */
TEST_F(definitions_test, many_agents_come_in_turn) {
    constexpr int agents = 1000, tests = 20;
    std::vector<int64_t> ids;
    ASSERT_TRUE(store->begin());
    for (int i = 0; i < agents; i++) {
        stored_agent found;
        ASSERT_TRUE(store->find_agent("a@b.c", "agent-" + std::to_string(i), noon, found));
        ids.push_back(found.id);
    }
    ASSERT_TRUE(store->commit());
    for (int32_t round = 1; round <= 2; round++) {
        for (int i = 0; i < agents; i++) {
            std::vector<owned_definition> all;
            for (int32_t number = 1; number <= tests; number++) {
                all.push_back(test(number, number == 7 ? round : 1, "test"));
            }
            kept->follow("a@b.c", "agent-" + std::to_string(i), ids[static_cast<size_t>(i)],
                         std::move(all));
        }
        std::chrono::steady_clock::duration longest{};
        size_t times = 0;
        for (; kept->is_due(); times++) {
            const auto begun = std::chrono::steady_clock::now();
            ASSERT_TRUE(kept->run(now)) << store->reason();
            longest = std::max(longest, std::chrono::steady_clock::now() - begun);
        }
        EXPECT_GT(times, round == 1 ? 1u : 0u);
        RecordProperty("longest_us_" + std::to_string(round),
                       static_cast<int>(
                           std::chrono::duration_cast<std::chrono::microseconds>(longest).count()));
        RecordProperty("times_" + std::to_string(round), static_cast<int>(times));
    }
    for (int64_t id : ids) {
        EXPECT_EQ(of(id).size(), tests + 1u);
    }
}

/* What an agent is told once is stored, whichever time there is no memory for it. */
TEST_F(definitions_test, no_memory) {
    size_t rows = 0;
    int64_t at_work = 0;
    std::vector<owned_definition> all;
    auto begin = [&](size_t times) {
        const std::string name = "agent " + std::to_string(times);
        at_work = agent(name);
        kept->follow("a@b.c", name, at_work, {test(1, 5, "one"), test(2, 5, "two")});
        all = {test(2, 6, "two"), test(3, 6, "three")};
    };
    begin(0);
    refuse_in_turn(
        [&] { kept->follow("a@b.c", "agent " + std::to_string(rows), at_work, std::move(all)); },
        [&](size_t times) {
            if (!all.empty()) {
                kept->follow("a@b.c", "agent " + std::to_string(rows), at_work, std::move(all));
            }
            run();
            EXPECT_EQ(of(at_work), (strings{"1/5 one", "2/5 two", "2/6 two", "3/6 three"}))
                << times;
            rows = times + 1;
            begin(rows);
        });
    EXPECT_TRUE(sanitized || rows > 4);
}

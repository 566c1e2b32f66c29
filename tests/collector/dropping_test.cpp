/* Dropping in bites as small as they come, with whatever may happen between two of them. */
#include "store/sqlite/dropping.cpp"

#include "collector_test_support.h"

#include <functional>
#include <gtest/gtest.h>

using strings = std::vector<std::string>;

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct dropping_test : testing::Test {
    scratch_directory directory;
    std::unique_ptr<engine> e;
    std::string error;

    void SetUp() override {
        bite_time = std::chrono::milliseconds(0);
        open();
    }
    void open() {
        e.reset();
        e = open_engine({directory.path(), 30, [](const std::string&) {}}, error);
        ASSERT_TRUE(e) << error;
    }
    void within(const std::function<void()>& actions) {
        ASSERT_TRUE(e->begin());
        actions();
        ASSERT_TRUE(e->commit());
    }
    /* How many times it said that there is more; `between` runs each time. */
    int bites(
        const std::function<drop_outcome()>& drop, const std::function<void()>& between = [] {}) {
        int more = 0;
        drop_outcome outcome;
        while ((outcome = drop()) == drop_outcome::more) {
            more++;
            between();
        }
        EXPECT_EQ(outcome, drop_outcome::done) << e->reason();
        return more;
    }
    size_t chunks_of(int64_t test) {
        size_t found = 0;
        auto all = [](const packed_chunk&) { return true; };
        auto count = [&](const packed_chunk&) { return ++found > 0; };
        EXPECT_TRUE(open_reader(directory.path(), error)
                        ->for_each_chunk(test, INT64_MIN, all, count, error));
        return found;
    }
    strings days() {
        strings by_turn;
        EXPECT_EQ(e->days(by_turn), drop_outcome::done);
        return by_turn;
    }
    strings undecodable() {
        strings found;
        sqlite3* handle = nullptr;
        sqlite3_open((directory / "results.db").c_str(), &handle);
        database db(handle);
        statement rows(db.get(), "SELECT reason FROM undecodable ORDER BY id");
        while (rows.row()) {
            found.emplace_back(rows.bytes(0));
        }
        return found;
    }
};

TEST_F(dropping_test, a_day_goes_on_after_a_kill_and_its_facts_come_with_the_last_bite) {
    within([&] {
        for (int64_t test = 0; test < 200; test++) {
            EXPECT_TRUE(e->append_chunk(test, {noon, noon, noon, noon, 1, "a"}));
        }
        EXPECT_TRUE(e->append_chunk(5, {noon + 86400, noon + 86400, 0, 0, 1, "kept"}));
        for (int64_t day : {-1, 0, 1, 0}) {
            const std::string reason = "day " + std::to_string(day);
            EXPECT_TRUE(e->append_undecodable(1, noon + day * 86400, {0, 1, reason, ""}));
        }
    });
    EXPECT_EQ(chunks_of(150), 1u);
    const engine::fact facts[] = {{"dropped", 7}};
    int64_t mark = 0;
    int more = bites([&] { return e->drop_day("20260501", facts); },
                     [&] {
                         EXPECT_EQ(days(), (strings{"20260501", "20260502"}));
                         EXPECT_EQ(e->read_fact("dropped"), std::nullopt);
                         EXPECT_EQ(undecodable().size(), 4u);
                         if (++mark % 2 == 0) {
                             open();
                         } else {
                             within([&] { EXPECT_TRUE(e->set_fact("between", mark)); });
                         }
                     });
    EXPECT_EQ(more, 200 / 32);
    EXPECT_EQ(days(), strings{"20260502"});
    EXPECT_EQ(e->read_fact("dropped"), 7);
    EXPECT_EQ(chunks_of(150), 0u);
    EXPECT_EQ(chunks_of(5), 1u);
    EXPECT_EQ(undecodable(), strings{"day 1"});
}

/* What comes for a day while it goes is dropped with it, or begins it anew. */
TEST_F(dropping_test, a_day_that_is_written_to_meanwhile_goes_all_the_same) {
    within([&] {
        for (int64_t test = 0; test < 100; test++) {
            EXPECT_TRUE(e->append_chunk(test, {noon, noon, noon, noon, 1, "a"}));
        }
    });
    int64_t late = 1000;
    bites([&] { return e->drop_day("20260501", {}); },
          [&] {
              within([&] {
                  EXPECT_TRUE(e->append_chunk(late++, {noon, noon, noon, noon, 1, "late"}));
              });
          });
    EXPECT_EQ(days(), strings());
    within([&] { EXPECT_TRUE(e->append_chunk(late, {noon, noon, noon, noon, 1, "new"})); });
    EXPECT_EQ(days(), strings{"20260501"});
    EXPECT_EQ(chunks_of(late), 1u);
}

TEST_F(dropping_test, months_of_roll_ups_go_one_after_the_other) {
    const int64_t april = 20544; /* its 1st */
    within([&] {
        for (int64_t test = 0; test < 50; test++) {
            for (int64_t day : {april - 31, april, april + 29, april + 30}) {
                EXPECT_TRUE(e->put_roll_up(resolution::hour, test, day, "x"));
            }
        }
    });
    auto left = [&] {
        strings found;
        EXPECT_TRUE(open_reader(directory.path(), error)
                        ->for_each_roll_up(
                            resolution::hour, 49, 0, INT64_MAX,
                            [&](int64_t day, std::string_view) {
                                found.push_back(std::to_string(day - april));
                            },
                            error));
        return found;
    };
    EXPECT_EQ(bites([&] { return e->drop_roll_ups(resolution::hour, april - 1); }), 0);
    EXPECT_EQ(left(), (strings{"-31", "0", "29", "30"}));
    EXPECT_EQ(bites([&] { return e->drop_roll_ups(resolution::hour, april + 29); }), 1);
    EXPECT_EQ(left(), (strings{"0", "29", "30"}));
    EXPECT_EQ(bites([&] { return e->drop_roll_ups(resolution::five_minutes, INT64_MAX); }), 0);
    EXPECT_EQ(bites([&] { return e->drop_roll_ups(resolution::hour, april + 100); }), 5);
    EXPECT_EQ(left(), strings());
}

TEST_F(dropping_test, events_and_the_ledger_go_in_the_order_of_their_times) {
    within([&] {
        for (int64_t i = 0; i < 100; i++) {
            int64_t id = 0;
            EXPECT_TRUE(e->append_event(
                {.id = 0, .time = noon + i, .agent = i % 3 + 1, .test = i % 7, .message = "x"},
                id));
            EXPECT_TRUE(e->add_to_ledger({i % 3 + 1, noon + i / 3 * 3600, 1, 0, 0}));
        }
    });
    auto counts = [&] {
        size_t events = 0, rows = 0;
        auto reader = open_reader(directory.path(), error);
        EXPECT_TRUE(reader->for_each_event(
            {}, [&](const stored_event&) { return ++events > 0; }, error));
        EXPECT_TRUE(reader->for_each_ledger_row(
            0, INT64_MIN, INT64_MAX, [&](const ledger_row&) { return ++rows > 0; }, error));
        return std::pair(events, rows);
    };
    EXPECT_EQ(bites([&] { return e->drop_events(noon + 70); }), 2);
    EXPECT_EQ(bites([&] { return e->drop_ledger(noon + 20 * 3600); }), 1);
    EXPECT_EQ(counts(), std::pair(size_t{30}, size_t{40}));
    EXPECT_EQ(bites([&] { return e->drop_events(noon + 70); }), 0);
    EXPECT_EQ(bites([&] { return e->drop_ledger(noon + 20 * 3600); }), 0);
    EXPECT_EQ(counts(), std::pair(size_t{30}, size_t{40}));
}

TEST_F(dropping_test, inventories_go_but_for_the_one_that_still_holds) {
    within([&] {
        for (int64_t i = 0; i < 100; i++) {
            int64_t row = 0;
            for (int64_t agent : {1, 2}) {
                const stored_inventory inventory{.row = 0,
                                                 .agent = agent,
                                                 .type = 42,
                                                 .received = noon,
                                                 .time = noon + i,
                                                 .record = "names"};
                EXPECT_TRUE(e->append_inventory(inventory, row));
            }
        }
    });
    auto at = [&](int64_t agent, int64_t time) {
        int64_t found = -1;
        EXPECT_TRUE(open_reader(directory.path(), error)
                        ->read_inventory(
                            agent, 42, noon + time,
                            [&](const stored_inventory& i) { found = i.time - noon; }, error));
        return found;
    };
    EXPECT_GT(bites([&] { return e->drop_inventories(noon + 50); }), 2);
    for (int64_t agent : {1, 2}) {
        EXPECT_EQ(at(agent, 48), -1);
        EXPECT_EQ(at(agent, 49), 49);
        EXPECT_EQ(at(agent, 99), 99);
    }
    bites([&] { return e->drop_inventories(noon + 1000); });
    EXPECT_EQ(at(2, 98), -1);
    EXPECT_EQ(at(2, 1000), 99);
    EXPECT_EQ(at(1, 1000), 99);
}

/* What others have the store's thread do: changes in a transaction of their own, and agents that
 * are retired. The clocks are pinned. */
#include "ingest/attendance.h"
#include "ingest/clock.h"
#include "ingest/ingest.h"
#include "store/sqlite/sqlite_file.cpp"

#include "collector_test_support.h"
#include "stored_records.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

using strings = std::vector<std::string>;
const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */
std::atomic<int64_t> wall = noon, steady = 1000;

struct update_test : testing::Test {
    struct listener : store_listener {
        std::mutex m;
        strings told;
        std::atomic<bool> throws = false;
        void on_record(const poll_block&, const decoded_record&) override {}
        void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                            const std::string&) override {}
        void on_event(const stored_event& e) override {
            std::lock_guard hold(m);
            told.push_back("event " + std::to_string(e.id) + " of " + std::to_string(e.agent) +
                           "/" + std::to_string(e.test) + " " +
                           std::string(state_word(static_cast<state>(e.from))) + ">" +
                           std::string(state_word(static_cast<state>(e.to))) + " " +
                           std::string(e.message));
        }
        void on_agent(int64_t, std::string_view, std::string_view agent, const agent_state&,
                      std::span<const change> changes) override {
            std::lock_guard hold(m);
            if (!changes.empty()) {
                told.push_back("agent " + std::string(agent));
            }
        }
        void on_retired(int64_t id, std::string_view account, std::string_view agent,
                        int64_t time) override {
            std::lock_guard hold(m);
            told.push_back("retired " + std::to_string(id) + " " + std::string(account) + "/" +
                           std::string(agent) + " " + std::to_string(time - noon));
        }
        void on_batch_end() override {
            if (throws) {
                throw std::bad_alloc();
            }
            std::lock_guard hold(m);
            if (!told.empty() && told.back() != "end") {
                told.emplace_back("end");
            }
        }
    } told;

    scratch_directory directory;
    std::string state_dir = directory / "state";
    counters counted;
    std::unique_ptr<ingest> s;

    void SetUp() override {
        wall = noon;
        steady = 1000;
        arrival_clock = [] { return wall.load(); };
        steady_clock = [] { return steady.load(); };
        boot_number = [] { return int64_t{1}; };
        open();
    }
    void TearDown() override {
        s.reset();
        arrival_clock = epoch_seconds;
        steady_clock = boot_seconds;
        boot_number = read_boot_number;
        lock_wait_ms = usual_lock_wait;
    }
    const int usual_lock_wait = lock_wait_ms;
    void open() {
        std::string error;
        lock_wait_ms = 50;
        s = ingest::open({.directory = state_dir, .counted = &counted}, &told, error);
        ASSERT_TRUE(s) << error;
    }
    store_result submit(const std::string& plain, const std::string& agent = "web1") {
        std::promise<store_result> result;
        s->submit({"a@b.c", agent, plain, wall}, [&](store_result r) { result.set_value(r); });
        return result.get_future().get();
    }
    using answer = std::pair<bool, std::string>;
    answer update(std::function<bool(engine&)> what) {
        std::promise<answer> result;
        s->update(std::move(what), [&](bool ok, const std::string& reason) {
            result.set_value({ok, reason});
        });
        return result.get_future().get();
    }
    answer retire(int64_t agent) {
        std::promise<answer> result;
        s->retire(agent, [&](bool ok, const std::string& reason) {
            result.set_value({ok, reason});
        });
        return result.get_future().get();
    }
    void pass(int64_t seconds) {
        for (int64_t end = steady + seconds; steady < end;) {
            wall += 5;
            steady += 5;
            submit(load_record(1, wall), "clock");
            submit(load_record(2, wall), "clock");
        }
    }
    struct row {
        int64_t retired = -1;
        size_t tests = 0;
        bool open = false;
    };
    row row_of(const std::string& agent) {
        std::string error;
        auto reader = open_reader(state_dir, error);
        row found;
        reader->read_agent(
            "a@b.c", agent,
            [&](const known_agent& a) {
                agent_state state;
                EXPECT_TRUE(state.unpack(a.state));
                found = {a.retired, state.tests.size(), state.open_bytes > 0};
            },
            error);
        return found;
    }
    size_t events_of(int64_t agent) {
        std::string error;
        auto reader = open_reader(state_dir, error);
        size_t count = 0;
        reader->for_each_event(
            {.agent = agent}, [&](const stored_event&) { return ++count, true; }, error);
        return count;
    }
    int64_t fact(const char* name) {
        std::string error;
        return open_reader(state_dir, error)->read_fact(name).value_or(-1);
    }
};

} // namespace

TEST_F(update_test, a_change_is_committed_when_its_caller_is_told) {
    EXPECT_EQ(update([](engine& e) { return e.set_fact("x", 5); }), answer(true, ""));
    EXPECT_EQ(fact("x"), 5);
}

TEST_F(update_test, nothing_is_kept_of_a_change_that_thinks_better_of_it) {
    EXPECT_EQ(update([](engine& e) { return e.set_fact("x", 5) && false; }), answer(false, ""));
    EXPECT_EQ(fact("x"), -1);
    EXPECT_EQ(submit(load_record(1, noon)), store_result::stored);
    EXPECT_EQ(update([](engine&) -> bool { throw std::bad_alloc(); }),
              answer(false, "std::bad_alloc"));
    EXPECT_EQ(submit(load_record(1, noon + 1)), store_result::stored);
}

TEST_F(update_test, who_cannot_be_told_ends_nothing) {
    told.throws = true;
    s->update([](engine& e) { return e.set_fact("x", 5); },
              [](bool, const std::string&) { throw std::bad_alloc(); });
    EXPECT_EQ(submit(load_record(1, noon)), store_result::stored);
    EXPECT_EQ(update([](engine& e) { return e.set_fact("y", 6); }), answer(true, ""));
    EXPECT_EQ(fact("x"), 5);
    s->update([](engine& e) { return e.set_fact("x", 7); },
              [](bool, const std::string&) { throw std::bad_alloc(); });
    s.reset();
}

TEST_F(update_test, a_change_that_cannot_be_stored_says_why) {
    ASSERT_EQ(submit(load_record(1, noon)), store_result::stored);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open((state_dir + "/results.db").c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    answer refused = update([](engine& e) { return e.set_fact("x", 5); });
    EXPECT_FALSE(refused.first);
    EXPECT_NE(refused.second.find("locked"), std::string::npos) << refused.second;
    sqlite3_close(other);
    EXPECT_EQ(update([](engine& e) { return e.set_fact("x", 6); }), answer(true, ""));
    EXPECT_EQ(fact("x"), 6);
}

TEST_F(update_test, changes_come_in_the_order_of_their_calls_and_none_is_forgotten_at_the_end) {
    std::atomic<int> done = 0, refused = 0;
    std::vector<int> order;
    for (int i = 0; i < 200; i++) {
        s->update([&, i](engine& e) { return order.push_back(i), e.set_fact("x", i); },
                  [&](bool ok, const std::string& reason) {
                      ok ? ++done : ++refused;
                      EXPECT_EQ(reason, ok ? "" : "the collector is stopping");
                  });
    }
    s.reset();
    EXPECT_EQ(done + refused, 200);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(update_test, events_are_told_as_they_are_stored) {
    ASSERT_EQ(submit(load_record(1, noon)), store_result::stored);
    ASSERT_EQ(submit(load_record(1, noon + 60, 2)), store_result::stored);
    for (int i = 0; i < 2; i++) { /* the second one comes behind the end of the first one's batch */
        EXPECT_EQ(update([](engine&) { return true; }), answer(true, ""));
    }
    std::lock_guard hold(told.m);
    EXPECT_EQ(told.told, (strings{"event 1 of 1/1 unknown>ok fine\n", "agent web1", "end",
                                  "event 2 of 1/1 ok>problem fine\n", "agent web1", "end"}));
    EXPECT_EQ(events_of(1), 2u);
    EXPECT_EQ(counted.events.get(), 2u);
}

TEST_F(update_test, what_is_stored_is_counted) {
    const std::string two = load_record(1, noon) + load_record(2, noon);
    ASSERT_EQ(submit(two), store_result::stored);
    ASSERT_EQ(submit(two), store_result::duplicate);
    ASSERT_EQ(submit("nonsense"), store_result::stored);
    EXPECT_EQ(counted.results.get(), 2u);
    EXPECT_EQ(counted.stored_bytes.get(), two.size() + 8);
    EXPECT_EQ(counted.undecodable.get(), 1u);
    EXPECT_EQ(counted.commits.all(), 3u);
    EXPECT_EQ(s->waiting().blocks, 0u);
    EXPECT_EQ(s->waiting().bytes, 0u);
    EXPECT_EQ(counted.store_failures.get(), 0u);
}

TEST_F(update_test, a_retired_agent_makes_no_events_and_what_it_had_is_packed) {
    ASSERT_EQ(submit(load_record(1, noon)), store_result::stored);
    ASSERT_EQ(submit(load_record(1, noon), "web2"), store_result::stored);
    EXPECT_EQ(retire(1), answer(true, ""));
    EXPECT_EQ(row_of("web1").retired, noon);
    EXPECT_EQ(row_of("web1").tests, 0u);
    EXPECT_TRUE(row_of("web1").open);
    EXPECT_EQ(row_of("web2").retired, 0);
    {
        std::lock_guard hold(told.m);
        ASSERT_GE(told.told.size(), 2u);
        EXPECT_EQ(told.told[told.told.size() - 2], "retired 1 a@b.c/web1 0");
        EXPECT_EQ(told.told.back(), "end");
    }
    pass(600);
    EXPECT_EQ(events_of(1), 1u);
    EXPECT_GT(events_of(2), 1u); /* it fell silent */
    wall += 7200;
    steady += 7200;
    pass(60);
    EXPECT_FALSE(row_of("web1").open);
    EXPECT_EQ(row_of("web1").retired, noon);
}

TEST_F(update_test, a_retired_agent_is_not_watched_after_a_restart_either) {
    ASSERT_EQ(submit(load_record(1, noon)), store_result::stored);
    EXPECT_EQ(retire(1), answer(true, ""));
    s.reset();
    open();
    pass(600);
    EXPECT_EQ(events_of(1), 1u);
    EXPECT_EQ(row_of("web1").retired, noon);
}

/* Its row may be due because it was heard before. */
TEST_F(update_test, what_was_heard_before_brings_nobody_back) {
    ASSERT_EQ(submit(load_record(1, noon)), store_result::stored);
    steady += 5;
    s->heard("a@b.c", "web1", wall, "192.0.2.1", "");
    EXPECT_EQ(retire(1), answer(true, ""));
    pass(600);
    EXPECT_EQ(row_of("web1").retired, noon);
}

TEST_F(update_test, an_agent_that_comes_back_begins_anew) {
    ASSERT_EQ(submit(load_record(1, noon) + load_record(2, noon)), store_result::stored);
    EXPECT_EQ(retire(1), answer(true, ""));
    wall += 60;
    steady += 60;
    ASSERT_EQ(submit(load_record(1, wall)), store_result::stored);
    EXPECT_EQ(row_of("web1").retired, 0);
    EXPECT_EQ(row_of("web1").tests, 1u);
    EXPECT_EQ(events_of(1), 3u); /* two that were unknown, and the one that is again */
    pass(600);
    EXPECT_GT(events_of(1), 3u);
}

TEST_F(update_test, an_agent_that_is_not_there_cannot_be_retired) {
    EXPECT_EQ(retire(7), answer(false, ""));
    EXPECT_EQ(submit(load_record(1, noon)), store_result::stored);
}

TEST_F(update_test, a_reader_that_is_renewed_sees_what_came_since) {
    ASSERT_EQ(submit(load_record(1, noon)), store_result::stored);
    std::string error;
    auto reader = open_reader(state_dir, error);
    auto agents = [&] {
        size_t count = 0;
        EXPECT_TRUE(reader->for_each_agent([&](const known_agent&) { count++; }, error)) << error;
        return count;
    };
    EXPECT_EQ(agents(), 1u);
    ASSERT_EQ(submit(load_record(1, noon), "web2"), store_result::stored);
    EXPECT_EQ(agents(), 1u);
    EXPECT_TRUE(reader->renew(error)) << error;
    EXPECT_EQ(agents(), 2u);
    reader->rest();
    ASSERT_EQ(submit(load_record(1, noon), "web3"), store_result::stored);
    EXPECT_TRUE(reader->renew(error)) << error;
    EXPECT_EQ(agents(), 3u);
    std::filesystem::rename(state_dir + "/results.db", state_dir + "/elsewhere");
    EXPECT_FALSE(reader->renew(error));
    EXPECT_NE(error.find("replaced"), std::string::npos);
}

TEST_F(update_test, a_reader_that_rests_holds_nothing_up) {
    ASSERT_EQ(submit(load_record(1, noon)), store_result::stored);
    std::string error;
    auto reader = open_reader(state_dir, error);
    auto agents = [&] {
        size_t count = 0;
        EXPECT_TRUE(reader->for_each_agent([&](const known_agent&) { count++; }, error)) << error;
        return count;
    };
    /* What was written cannot all go into the file. */
    auto log_is_held = [&] {
        sqlite3* handle = nullptr;
        sqlite3_open(database_path(state_dir).c_str(), &handle);
        database db(handle);
        EXPECT_TRUE(database_exec(handle, "SELECT 1 FROM facts"));
        int all = 0, done = 0;
        sqlite3_wal_checkpoint_v2(handle, nullptr, SQLITE_CHECKPOINT_PASSIVE, &all, &done);
        return done < all;
    };
    EXPECT_EQ(agents(), 1u);
    ASSERT_EQ(submit(load_record(1, noon), "web2"), store_result::stored);
    EXPECT_TRUE(log_is_held());
    reader->rest();
    reader->rest();
    EXPECT_FALSE(log_is_held());
    EXPECT_TRUE(reader->renew(error)) << error;
    EXPECT_EQ(agents(), 2u);
}

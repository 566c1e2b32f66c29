/* The results of an earlier version, taken over by a collector that is ended again and again: they
 * are there once, in the order in which they came, with the states and events that they make. */
#include "ingest/takeover.h"

#include "collector_test_support.h"
#include "ingest/clock.h"
#include "ingest/ingest.h"
#include "stored_records.h"

#include <csignal>
#include <future>
#include <gtest/gtest.h>
#include <random>
#include <sqlite3.h>
#include <sys/wait.h>
#include <thread>

namespace {

using strings = std::vector<std::string>;
const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct takeover_test : testing::Test {
    struct quiet : store_listener {
        std::mutex m;
        strings problems, agents;
        void on_agent(int64_t, std::string_view, std::string_view agent, const agent_state& now,
                      std::span<const change>) override {
            std::string text(agent);
            for (const test_status& t : now.tests) {
                text += " " + std::to_string(t.type) + "/" + std::to_string(t.number.value_or(0)) +
                        " " + std::string(state_word(t.now));
            }
            agents.push_back(text);
        }
        void on_record(const poll_block&, const decoded_record&) override {}
        void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                            const std::string&) override {}
        void on_problem(const std::string& text) override {
            std::lock_guard hold(m);
            problems.push_back(text);
        }
    } told;
    scratch_directory directory;
    std::string state = directory / "state";
    strings sent;

    void TearDown() override { arrival_clock = epoch_seconds; }

    static void run(sqlite3* db, const std::string& sql) {
        char* error = nullptr;
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
            << (error != nullptr ? error : "");
    }

    /* A file as version 1 made it, with two agents, in a transaction. */
    sqlite3* begin_earlier() {
        EXPECT_EQ(mkdir(state.c_str(), 0700), 0);
        sqlite3* db = nullptr;
        EXPECT_EQ(sqlite3_open((state + "/results.db").c_str(), &db), SQLITE_OK);
        run(db,
            "PRAGMA page_size = 8192; PRAGMA journal_mode = WAL;"
            "CREATE TABLE agents (id INTEGER PRIMARY KEY, account TEXT NOT NULL, name TEXT NOT "
            "NULL, first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL, last_block BLOB "
            "NOT NULL, UNIQUE (account, name));"
            "CREATE TABLE undecodable (id INTEGER PRIMARY KEY, received INTEGER NOT NULL, agent "
            "INTEGER NOT NULL, offset INTEGER NOT NULL, bytes INTEGER NOT NULL, reason TEXT "
            "NOT NULL, kept_as TEXT NOT NULL);"
            "INSERT INTO agents VALUES (3, 'a@b.c', 'web1', 0, 0, x'01'), (7, 'a@b.c', 'web2', "
            "0, 0, x'02');"
            "PRAGMA application_id = 0x564e4443; PRAGMA user_version = 1; BEGIN");
        return db;
    }
    /* A day's table, and what puts results into it. */
    static sqlite3_stmt* make_day(sqlite3* db, const std::string& table) {
        run(db, "CREATE TABLE " + table +
                    " (id INTEGER PRIMARY KEY, received INTEGER NOT NULL, agent INTEGER NOT "
                    "NULL, type INTEGER NOT NULL, test INTEGER, location INTEGER, time "
                    "INTEGER, status INTEGER, record BLOB NOT NULL)");
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(
            db,
            ("INSERT INTO " + table + " (received, agent, type, record) VALUES (?, ?, 66, ?)")
                .c_str(),
            -1, &insert, nullptr);
        return insert;
    }
    static void add(sqlite3_stmt* insert, int64_t at, int64_t agent, const std::string& r) {
        sqlite3_bind_int64(insert, 1, at);
        sqlite3_bind_int64(insert, 2, agent);
        sqlite3_bind_blob(insert, 3, r.data(), static_cast<int>(r.size()), SQLITE_TRANSIENT);
        EXPECT_EQ(sqlite3_step(insert), SQLITE_DONE);
        sqlite3_reset(insert);
    }
    static void end_earlier(sqlite3* db) {
        run(db, "COMMIT");
        sqlite3_close(db);
    }

    /* Three days of polls of two agents: a test that is a problem each afternoon, another one, and
     * an inventory with each poll that seldom changes. */
    void make_earlier(int64_t step = 600) {
        sqlite3* db = begin_earlier();
        for (int day = 0; day < 3; day++) {
            sqlite3_stmt* insert = make_day(db, "results_2026050" + std::to_string(day + 1));
            for (int64_t at = start_of(day_of(noon)) + day * 86400 + 60;
                 at < start_of(day_of(noon)) + (day + 1) * 86400; at += step) {
                for (int64_t agent : {3, 7}) {
                    bool bad = at % 86400 > 43200;
                    for (const std::string& r :
                         {load_record(5, at - 1, bad ? 2 : 0), load_record(6, at - 1),
                          record_builder{.ui32 = {type_process_names},
                          .i64 = {at},
                          .strings = {bad ? "init\tcron\t" : "init\t"}}
                              .bytes()}) {
                        add(insert, at, agent, r);
                    }
                    sent.push_back(load_record(5, at - 1, bad ? 2 : 0));
                    sent.push_back(load_record(6, at - 1));
                }
            }
            sqlite3_finalize(insert);
        }
        end_earlier(db);
    }

    std::unique_ptr<ingest> open() {
        std::string error;
        auto opened = ingest::open({.directory = state}, &told, error);
        EXPECT_TRUE(opened) << error;
        return opened;
    }
    static store_result submit(ingest& s, const std::string& plain) {
        std::promise<store_result> result;
        s.submit({"a@b.c", "other", plain, noon + 3 * 86400},
                 [&](store_result r) { result.set_value(r); });
        return result.get_future().get();
    }

    void expect_all() {
        std::string error;
        auto reader = open_reader(state, error);
        ASSERT_TRUE(reader) << error;
        strings found;
        std::vector<int64_t> last(100);
        for (const stored_agent_row& row : stored_agents(*reader, error)) {
            for (const stored_record& r : records_of(*reader, row, error)) {
                if (row.name != "other") {
                    found.push_back(r.raw);
                }
            }
            for (const test_status& test : row.state.tests) { /* by test, in order */
                int64_t before = 0;
                for (const stored_record& r : packed_records(*reader, row, test.id, error)) {
                    EXPECT_GT(r.received, before);
                    before = r.received;
                }
            }
        }
        EXPECT_EQ(error, "");
        std::sort(found.begin(), found.end());
        std::sort(sent.begin(), sent.end());
        EXPECT_TRUE(found == sent) << found.size() << " of " << sent.size();
        size_t events = 0, inventories = 0;
        reader->for_each_event(
            {},
            [&](const stored_event& e) {
                events += e.test != 0 && (e.agent == 3 || e.agent == 7);
                return true;
            },
            error);
        EXPECT_EQ(events, 2u * (2 + 6 - 1)); /* ok at first, and twice a day but for the end */
        for (int64_t agent : {3, 7}) {
            reader->read_inventory(
                agent, type_process_names, INT64_MAX,
                [&](const stored_inventory& i) { inventories += i.row > 0; }, error);
        }
        EXPECT_EQ(inventories, 2u);
    }
    int64_t count(const char* sql) {
        sqlite3* db = nullptr;
        EXPECT_EQ(sqlite3_open((state + "/results.db").c_str(), &db), SQLITE_OK);
        sqlite3_stmt* query = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(db, sql, -1, &query, nullptr), SQLITE_OK) << sql;
        int64_t number = sqlite3_step(query) == SQLITE_ROW ? sqlite3_column_int64(query, 0) : -1;
        sqlite3_finalize(query);
        sqlite3_close(db);
        return number;
    }
};

TEST_F(takeover_test, all_is_there_before_the_first_block_is_answered) {
    make_earlier();
    arrival_clock = [] { return noon + 3 * 86400; };
    auto s = open();
    EXPECT_EQ(submit(*s, load_record(9, noon)), store_result::stored);
    expect_all();
    s.reset();
    /* Who shows states is told of those that send nothing now, too. */
    EXPECT_GE(std::count(told.agents.begin(), told.agents.end(), "web1 66/5 problem 66/6 ok"), 1);
    EXPECT_GE(std::count(told.agents.begin(), told.agents.end(), "web2 66/5 problem 66/6 ok"), 1);
    EXPECT_EQ(count("SELECT count(*) FROM inventories"), 2 * 6); /* what changed */
    EXPECT_GT(count("SELECT count(*) FROM packed_20260501"), 0);
    EXPECT_GT(count("SELECT count(*) FROM rollups5_202605"), 0);
    EXPECT_EQ(count("SELECT sum(missing) FROM ledger"), 0); /* nobody knows */
    EXPECT_FALSE(std::filesystem::exists(state + "/results-earlier.db"));
    EXPECT_EQ(told.problems.size(), 2u);
}

TEST_F(takeover_test, a_kill_at_any_moment_goes_on_from_there) {
    make_earlier();
    arrival_clock = [] { return noon + 3 * 86400; };
    std::mt19937 random(5);
    const int rounds = 25;
    for (int round = 0; round < rounds; round++) {
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            auto s = open();
            pause();
            _exit(1);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 12000));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
    }
    auto s = open();
    EXPECT_EQ(submit(*s, load_record(9, noon)), store_result::stored);
    s.reset();
    expect_all();
    EXPECT_FALSE(std::filesystem::exists(state + "/results-earlier.db"));
}

/* Packing it would keep those that wait for long. */
TEST_F(takeover_test, a_poll_that_is_large_is_cut) {
    sqlite3* db = begin_earlier();
    sqlite3_stmt* insert = make_day(db, "results_20260501");
    size_t bytes = 0;
    int64_t results = 0;
    for (; bytes < 3000000; results++) {
        std::string r = load_record(static_cast<uint32_t>(results % 500), noon + results / 500);
        add(insert, noon, 3, r);
        bytes += r.size();
    }
    add(insert, noon, 7, load_record(1, noon));
    sqlite3_finalize(insert);
    end_earlier(db);

    std::string error;
    strings said;
    auto tell = [&](const std::string& text) { said.push_back(text); };
    auto store = open_engine({state, 0, tell}, error);
    ASSERT_TRUE(store) << error;
    int64_t committed = 0;
    takeover taken(*store, tell, [&](const agent_work&) { committed++; });
    ASSERT_TRUE(taken.begin());
    takeover::progress made;
    while ((made = taken.step(3600)) == takeover::progress::more) {
    }
    EXPECT_EQ(made, takeover::progress::done);
    EXPECT_EQ(said.back(),
              std::to_string(results + 1) + " results of an earlier version were taken over");
    EXPECT_EQ(count("SELECT sum(length(records)) FROM blocks WHERE agent = 3"),
              static_cast<int64_t>(bytes));
    EXPECT_LT(count("SELECT max(length(records)) FROM blocks"), 600 << 10);
    EXPECT_EQ(count("SELECT count(*) FROM blocks"), 7);
    EXPECT_EQ(committed, 7);
}

/* It is asked to stop before it is through. */
TEST_F(takeover_test, a_stop_does_not_wait_for_all_of_it) {
    make_earlier(60);
    arrival_clock = [] { return noon + 3 * 86400; };
    {
        auto s = open();
        std::promise<store_result> result;
        s->submit({"a@b.c", "other", load_record(9, noon), noon},
                  [&](store_result r) { result.set_value(r); });
        s.reset();
        EXPECT_EQ(result.get_future().wait_for(std::chrono::seconds(0)),
                  std::future_status::ready); /* stored or failed, but answered */
    }
    auto s = open();
    EXPECT_NE(submit(*s, load_record(9, noon)), store_result::failed);
    s.reset();
    expect_all();
}

} // namespace

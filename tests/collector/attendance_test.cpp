/* States through the store's thread: who falls silent and comes back, what becomes stale, and that
 * nothing is held against anybody when the collector could not listen or store. The clocks are
 * pinned; a look is taken after each block, and that is what the tests send. */
#include "ingest/attendance.h"
#include "ingest/clock.h"
#include "ingest/ingest.h"
#include "ingest/upkeep.h"
#include "store/sqlite/sqlite_file.cpp"

#include "collector_test_support.h"
#include "counted_memory.h"
#include "stored_records.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

using strings = std::vector<std::string>;
const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */
std::atomic<int64_t> wall = noon, steady = 1000;

std::string inventory(const std::string& items, int64_t time) {
    return record_builder{.ui32 = {type_process_names}, .i64 = {time}, .strings = {items}}.bytes();
}

struct attendance_test : testing::Test {
    struct listener : store_listener {
        std::mutex m;
        strings told, problems;
        std::function<void()> on_each; /* record */
        void on_record(const poll_block&, const decoded_record&) override {
            if (on_each) {
                on_each();
            }
        }
        void on_undecodable(const poll_block&, size_t, size_t, const std::string&,
                            const std::string&) override {}
        void on_agent(int64_t, std::string_view, std::string_view agent, const agent_state& now,
                      std::span<const change> changes) override {
            std::lock_guard hold(m);
            for (const change& c : changes) {
                told.push_back(std::string(agent) + " " + std::string(state_word(c.to)) +
                               (now.silent ? " (silent)" : ""));
            }
        }
        void on_problem(const std::string& text) override {
            std::lock_guard hold(m);
            problems.push_back(text);
        }
    } told;

    scratch_directory directory;
    std::string state = directory / "state";
    std::unique_ptr<ingest> s;

    void SetUp() override {
        wall = noon;
        steady = 1000;
        arrival_clock = [] { return wall.load(); };
        steady_clock = [] { return steady.load(); };
        boot_number = [] { return int64_t{1}; };
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
        s = ingest::open({.directory = state}, &told, error);
        ASSERT_TRUE(s) << error;
    }
    void restart(int64_t off) {
        s.reset();
        wall += off;
        steady += off;
        open();
    }
    store_result submit(const std::string& plain, const std::string& agent = "web1") {
        std::promise<store_result> result;
        s->submit({"a@b.c", agent, plain, wall}, [&](store_result r) { result.set_value(r); });
        return result.get_future().get();
    }
    void heard(const std::string& agent, const std::string& version = "") {
        s->heard("a@b.c", agent, wall, "192.0.2.1", version);
    }
    /* The thread has looked once more, and what it had to say is said. */
    void look() {
        submit(load_record(1, 1), "clock");
        submit(load_record(1, 1), "clock");
    }
    /* Time goes by in which that agent is heard. */
    void pass(int64_t seconds, const std::string& agent = "") {
        for (int64_t end = steady + seconds; steady < end;) {
            wall += 5;
            steady += 5;
            if (!agent.empty()) {
                heard(agent);
            }
            look();
        }
    }
    /* Of all but the clock: TIME AGENT FROM>TO MESSAGE, TIME after noon. */
    strings events() {
        look();
        std::string error;
        auto reader = open_reader(state, error);
        strings all;
        std::vector<stored_agent_row> rows = stored_agents(*reader, error);
        reader->for_each_event(
            {},
            [&](const stored_event& e) {
                auto agent = std::find_if(rows.begin(), rows.end(),
                                          [&](const auto& row) { return row.id == e.agent; });
                if (agent->name != "clock") {
                    std::string message(e.message.substr(0, e.message.find('\n')));
                    all.insert(all.begin(), std::to_string(e.time - noon) + " " + agent->name +
                                                (e.test == 0 ? "" : " test") + " " +
                                                std::string(state_word(::state(e.from))) + ">" +
                                                std::string(state_word(::state(e.to))) + " " +
                                                message);
                }
                return true;
            },
            error);
        EXPECT_EQ(error, "");
        return all;
    }
    /* Of those: AGENT FROM>TO MESSAGE, rising, of what happened at `from` after noon or later. */
    strings events_from(int64_t from) {
        strings found;
        for (const std::string& e : events()) {
            if (std::stoll(e) >= from) {
                found.push_back(e.substr(e.find(' ') + 1));
            }
        }
        std::erase_if(found, [](const std::string& e) {
            return e.find(" test unknown>ok") != e.npos; /* its first result */
        });
        std::sort(found.begin(), found.end());
        return found;
    }
    void follow(plan_summary plan, std::vector<owned_definition> definitions) {
        s->follow(std::move(plan), std::move(definitions));
    }
    void follow_agents(std::vector<ingest::agent_plan> plans) {
        s->follow_agents(std::move(plans));
        look();
    }
    static ingest::agent_plan agent_plan(const std::string& agent, int32_t poll, int32_t check,
                                         std::vector<std::pair<uint32_t, int32_t>> tests) {
        return {.account = "a@b.c",
                .agent = agent,
                .plan = {.every = {.poll = poll, .check = check},
                         .is_planned = true,
                         .tests = std::move(tests)},
                .definitions = {}};
    }
    strings query(const std::string& sql) {
        sqlite3* db = nullptr;
        EXPECT_EQ(sqlite3_open((state + "/results.db").c_str(), &db), SQLITE_OK);
        strings rows;
        auto note = [](void* to, int columns, char** values, char**) {
            std::string row;
            for (int i = 0; i < columns; i++) {
                row += (i > 0 ? "|" : "") + std::string(values[i] != nullptr ? values[i] : "");
            }
            static_cast<strings*>(to)->push_back(row);
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), note, &rows, nullptr), SQLITE_OK);
        sqlite3_close(db);
        return rows;
    }
};

TEST_F(attendance_test, an_agent_falls_silent_and_comes_back) {
    open();
    submit(load_record(5, noon - 1));
    pass(175);
    EXPECT_EQ(events(), (strings{"-1 web1 test unknown>ok fine"}));
    pass(15);
    strings all = events();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[1].ends_with(" web1 unknown>silent ") || all[1].ends_with(" web1 ok>silent "))
        << all[1];
    pass(600);
    EXPECT_EQ(events().size(), 2u); /* told once */
    heard("web1");
    pass(5);
    EXPECT_EQ(events().size(), 3u);
    EXPECT_NE(events()[2].find("web1 silent>"), std::string::npos) << events()[2];
    look();
    std::lock_guard hold(told.m);
    EXPECT_EQ(std::count(told.told.begin(), told.told.end(), "web1 silent (silent)"), 1);
}

TEST_F(attendance_test, a_block_of_a_silent_agent_brings_it_back_in_its_transaction) {
    open();
    submit(load_record(5, noon - 1));
    pass(200);
    ASSERT_EQ(events().size(), 2u);
    submit(load_record(5, wall, 2, "too much\n"));
    strings all = events();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_NE(all[2].find("web1 silent>"), std::string::npos) << all[2];
    EXPECT_NE(all[3].find("web1 test ok>problem too much"), std::string::npos) << all[3];
    pass(30, "web1");
    EXPECT_EQ(events().size(), 4u);
}

TEST_F(attendance_test, being_heard_is_enough_for_the_agent_and_not_for_its_tests) {
    open();
    submit(load_record(5, noon - 1));
    pass(400, "web1");
    strings all = events();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_NE(all[1].find("web1 test ok>stale"), std::string::npos) << all[1];
    submit(load_record(5, wall - 1));
    all = events();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_NE(all[2].find("web1 test stale>ok"), std::string::npos) << all[2];
}

TEST_F(attendance_test, a_test_that_the_plan_does_not_have_is_not_waited_for) {
    open();
    s->follow({.every = {}, .is_planned = true, .tests = {{type_load_average, 6}}}, {});
    submit(load_record(5, noon - 1) + load_record(6, noon - 1));
    pass(170, "web1");
    EXPECT_EQ(events().size(), 2u);
    pass(230, "web1");
    strings all = events();
    ASSERT_EQ(all.size(), 4u);
    std::sort(all.begin() + 2, all.end(), [](const std::string& a, const std::string& b) {
        return a.substr(a.find(' ')) < b.substr(b.find(' '));
    });
    EXPECT_TRUE(all[2].ends_with(" web1 test ok>stale ")) << all[2];
    EXPECT_TRUE(all[3].ends_with(" web1 test ok>unknown no longer planned")) << all[3];
}

/* Nobody could mend it. */
TEST_F(attendance_test, a_problem_that_left_the_plan_is_none_of_its_agents) {
    auto plan = [&](std::vector<std::pair<uint32_t, int32_t>> tests) {
        s->follow({.every = {}, .is_planned = true, .tests = std::move(tests)}, {});
    };
    auto worst = [&] {
        look();
        std::string error;
        auto reader = open_reader(state, error);
        for (const stored_agent_row& row : stored_agents(*reader, error)) {
            if (row.name == "web1") {
                return std::string(state_word(row.state.worst()));
            }
        }
        return error;
    };
    auto live =
        [&](int64_t seconds,
            bool both) { /* a poll a minute */
                         for (int64_t end = steady + seconds; steady < end;) {
                             submit(load_record(6, wall - 1) +
                                    (both ? load_record(5, wall - 1, 2, "too much\n") : ""));
                             pass(60, "web1");
                         }
        };
    open();
    plan({{type_load_average, 5}, {type_load_average, 6}});
    live(300, true);
    EXPECT_EQ(worst(), "problem");
    plan({{type_load_average, 6}});
    live(60, true); /* plans act late */
    live(120, false);
    EXPECT_EQ(worst(), "problem");
    live(120, false);
    EXPECT_EQ(worst(), "ok");
    restart(60);
    plan({{type_load_average, 6}});
    live(600, false);
    strings all = events();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_TRUE(all[2].ends_with(" web1 test problem>unknown no longer planned")) << all[2];
    plan({{type_load_average, 5}, {type_load_average, 6}});
    live(120, true);
    EXPECT_EQ(worst(), "problem");
    EXPECT_EQ(events().size(), 4u);
}

TEST_F(attendance_test, intervals_of_the_plan_count) {
    open();
    s->follow({.every = {.poll = 600, .check = 60}, .is_planned = false, .tests = {}}, {});
    submit(load_record(5, noon - 1));
    pass(1750);
    EXPECT_EQ(events().size(), 1u);
    pass(60);
    EXPECT_EQ(events().size(), 2u);
    EXPECT_EQ(query("SELECT value FROM facts WHERE name = 'stale_after'"), strings{"1800"});
}

TEST_F(attendance_test, agents_have_plans_of_their_own) {
    open();
    follow({}, {});
    follow_agents({agent_plan("web1", 600, 60, {{type_load_average, 5}}),
                   agent_plan("web2", 20, 20, {{type_load_average, 6}})});
    pass(200, "clock"); /* plans act late */
    for (const char* agent : {"web1", "web2", "web3"}) {
        submit(load_record(5, wall - 1) + load_record(6, wall - 1), agent);
    }
    const int64_t begun = wall - noon;
    pass(55);
    EXPECT_EQ(events_from(begun), strings{});
    pass(10);
    EXPECT_EQ(events_from(begun), strings{"web2 ok>silent "});
    pass(110);
    EXPECT_EQ(events_from(begun).size(), 1u);
    pass(10);
    EXPECT_EQ(events_from(begun), (strings{"web2 ok>silent ", "web3 ok>silent "}));
    for (int i = 0; i < 400; i++) {
        heard("web1");
        pass(5, "web2");
    }
    EXPECT_EQ(events_from(begun),
              (strings{"web1 test ok>stale ", "web1 test ok>unknown no longer planned",
                       "web2 ok>silent ", "web2 silent>ok ", "web2 test ok>stale ",
                       "web2 test ok>unknown no longer planned", "web3 ok>silent "}));
    pass(1820);
    EXPECT_EQ(events_from(begun).size(), 9u) << "web1 and web2 are silent";
}

TEST_F(attendance_test, an_agent_with_a_plan_need_not_be_there_yet) {
    open();
    follow({}, {});
    follow_agents({agent_plan("web1", 10, 10, {{type_load_average, 5}})});
    pass(400);
    EXPECT_EQ(events(), strings{});
    submit(load_record(5, wall - 1));
    heard("late"); /* without results, and without a plan so far */
    const int64_t begun = wall - noon;
    pass(10);
    follow_agents({agent_plan("late", 10, 10, {})});
    pass(45);
    EXPECT_EQ(events_from(begun), strings{});
    pass(20);
    EXPECT_EQ(events_from(begun), strings{"web1 ok>silent "});
    pass(130);
    EXPECT_EQ(events_from(begun), (strings{"late unknown>silent ", "web1 ok>silent "}));
}

/* The longer of the old interval and the new one counts, for the agent whose it is. */
TEST_F(attendance_test, a_changed_interval_of_one_agent_acts_late_there) {
    open();
    follow({}, {});
    follow_agents({agent_plan("web1", 300, 60, {{type_load_average, 5}}),
                   agent_plan("web2", 10, 10, {{type_load_average, 5}})});
    submit(load_record(5, wall), "web1");
    submit(load_record(5, wall), "web2");
    pass(600, "web1");
    heard("web2");
    pass(5);
    follow_agents({agent_plan("web1", 10, 60, {{type_load_average, 5}})});
    const int64_t begun = wall - noon;
    pass(70);
    EXPECT_EQ(events_from(begun), strings{"web2 ok>silent "});
    for (int i = 0; i < 8; i++) {
        pass(100);
        heard("web1");
    }
    EXPECT_EQ(events_from(begun).size(), 2u);
    pass(75);
    EXPECT_EQ(events_from(begun),
              (strings{"web1 stale>silent ", "web1 test ok>stale ", "web2 ok>silent "}));
}

/* How often results come that are missing is told by the agent's own interval. */
TEST_F(attendance_test, the_ledger_counts_by_the_interval_of_the_agent) {
    open();
    follow({}, {});
    follow_agents({agent_plan("web1", 600, 600, {{type_load_average, 5}}),
                   agent_plan("web2", 10, 10, {{type_load_average, 5}})});
    pass(1800, "clock");
    for (int64_t checked : {wall.load() - 1000, wall.load() - 400}) {
        for (const char* agent : {"web1", "web2", "web3"}) {
            submit(load_record(5, checked), agent);
        }
    }
    std::string error;
    auto reader = open_reader(state, error);
    std::map<std::string, uint64_t> missing;
    for (const stored_agent_row& row : stored_agents(*reader, error)) {
        missing[row.name] = row.state.counts.missing;
        reader->for_each_ledger_row(
            row.id, INT64_MIN, INT64_MAX,
            [&](const ledger_row& l) {
                missing[row.name] += l.missing;
                return true;
            },
            error);
    }
    EXPECT_EQ(missing["web1"], 0u);
    EXPECT_EQ(missing["web2"], 59u);
    EXPECT_EQ(missing["web3"], 9u);
}

/* What a run had told them counts in the next one, the longest of it for whom it is not known. */
TEST_F(attendance_test, after_a_start_the_longest_counts_until_an_agent_is_told_again) {
    const std::vector<ingest::agent_plan> plans = {agent_plan("slow", 400, 60, {}),
                                                   agent_plan("web1", 10, 10, {})};
    open();
    follow({}, {});
    follow_agents(plans);
    submit(load_record(5, wall), "slow");
    submit(load_record(5, wall), "web1");
    submit(load_record(5, wall), "other");
    look();
    EXPECT_EQ(query("SELECT value FROM facts WHERE name = 'poll'"), strings{"400"});
    EXPECT_EQ(query("SELECT value FROM facts WHERE name = 'stale_after'"), strings{"1200"});
    submit(load_record(5, wall), "web1");
    pass(1300, "slow");
    submit(load_record(5, wall), "web1"); /* its row says that its interval is 10 by now */
    submit(load_record(5, wall), "other");
    restart(10);
    int64_t begun = wall - noon;
    follow({}, {}); /* as without any plan */
    pass(300);
    EXPECT_EQ(events_from(begun), strings{}) << "the plans of its agents are not told yet";
    follow_agents(plans);
    pass(10);
    EXPECT_EQ(events_from(begun), strings{"web1 ok>silent "});
    pass(700);
    EXPECT_EQ(events_from(begun).size(), 1u);
    pass(400);
    EXPECT_EQ(events_from(begun).size(), 3u);

    /* Told something else while the collector was away: it may not have heard of it. */
    submit(load_record(5, wall), "slow");
    submit(load_record(5, wall), "web1");
    restart(10);
    begun = wall - noon;
    follow({}, {});
    follow_agents({agent_plan("slow", 10, 10, {}), agent_plan("web1", 10, 10, {})});
    pass(1100);
    EXPECT_EQ(events_from(begun), strings{"web1 ok>silent "});
    pass(200);
    EXPECT_EQ(events_from(begun).size(), 2u);
}

/* In a file that takes the place of another they have other rows. */
TEST_F(attendance_test, plans_of_agents_hold_in_another_file) {
    open();
    follow({}, {});
    follow_agents({agent_plan("web1", 10, 10, {{type_load_average, 5}})});
    submit(load_record(5, wall), "web2");
    submit(load_record(5, wall), "web1");
    pass(200, "web2");
    std::filesystem::remove(state + "/results.db");
    pass(10);
    submit(load_record(5, wall), "web1");
    submit(load_record(5, wall), "web2");
    const int64_t begun = wall - noon;
    pass(65);
    EXPECT_EQ(events_from(begun), strings{"web1 ok>silent "});
}

TEST_F(attendance_test, many_agents_are_told_at_once) {
    open();
    for (int i = 0; i < 1000; i++) {
        heard("host" + std::to_string(i));
    }
    pass(280);
    std::vector<std::pair<uint32_t, int32_t>> tests;
    for (int i = 1; i <= 20; i++) {
        tests.emplace_back(type_load_average, i);
    }
    std::vector<ingest::agent_plan> plans;
    for (int i = 0; i < 1000; i++) {
        tests.back().second = 20 + i; /* no two alike */
        plans.push_back(agent_plan("host" + std::to_string(i), 20, 20, tests));
    }
    const auto begun = std::chrono::steady_clock::now();
    s->follow_agents(std::move(plans));
    submit(load_record(1, wall), "host999"); /* stored behind the plans */
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
    EXPECT_EQ(query("SELECT count(*) FROM agents"), strings{"1001"});
}

TEST_F(attendance_test, after_a_start_everybody_has_time_to_come_back) {
    open();
    submit(load_record(5, noon - 1));
    look();
    restart(100000);
    pass(175);
    EXPECT_EQ(events().size(), 1u);
    heard("web1");
    submit(load_record(5, wall - 1));
    pass(100, "web1");
    EXPECT_EQ(events().size(), 1u);
    restart(100000);
    pass(200);
    EXPECT_EQ(events().size(), 2u);
    restart(100000);
    pass(200);
    EXPECT_EQ(events().size(), 2u); /* it still is */
}

TEST_F(attendance_test, a_machine_that_slept_holds_it_against_nobody) {
    open();
    submit(load_record(5, noon - 1));
    look();
    wall += 100000;
    steady += 100000;
    look();
    pass(170);
    EXPECT_EQ(events().size(), 1u);
    pass(30);
    EXPECT_EQ(events().size(), 2u);
}

TEST_F(attendance_test, clocks_that_jump_silence_nobody) {
    open();
    submit(load_record(5, noon - 1));
    wall += 1000000;
    pass(100, "web1");
    wall -= 2000000;
    pass(60, "web1");
    EXPECT_EQ(events().size(), 1u);
}

/* Holds the database's write lock until it goes. */
struct writer_lock {
    sqlite3* db = nullptr;
    explicit writer_lock(const std::string& state) {
        sqlite3_open((state + "/results.db").c_str(), &db);
        EXPECT_EQ(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~writer_lock() { sqlite3_close(db); }
};

TEST_F(attendance_test, an_outage_of_storing_makes_no_event_and_counts_nothing_twice) {
    open();
    submit(load_record(5, noon - 1));
    look();
    std::string block = load_record(5, noon + 59, 2, "too much\n");
    {
        writer_lock other(state);
        for (int i = 0; i < 3; i++) {
            wall += 100;
            steady += 100;
            EXPECT_EQ(submit(block), store_result::failed);
        }
    }
    EXPECT_EQ(submit(block), store_result::stored);
    pass(100, "web1");
    EXPECT_EQ(events(),
              (strings{"-1 web1 test unknown>ok fine", "59 web1 test ok>problem too much"}));
    EXPECT_EQ(submit(block), store_result::duplicate);
    std::string error;
    auto reader = open_reader(state, error);
    for (const stored_agent_row& row : stored_agents(*reader, error)) {
        uint64_t received = row.state.counts.received, repeated = row.state.counts.repeated;
        reader->for_each_ledger_row(
            row.id, INT64_MIN, INT64_MAX,
            [&](const ledger_row& r) {
                received += r.received;
                repeated += r.repeated;
                return true;
            },
            error);
        if (row.name == "web1") {
            EXPECT_EQ(received, 2u);
            EXPECT_EQ(repeated, 1u);
        }
    }
}

TEST_F(attendance_test, rows_say_seldom_when_somebody_was_heard_and_at_the_end) {
    open();
    submit(load_record(5, noon - 1));
    pass(60, "web1");
    const char* seen = "SELECT last_seen - 1777636800, version FROM agents WHERE name = 'web1'";
    EXPECT_EQ(query(seen), strings{"0|"});
    pass(200, "web1");
    EXPECT_NE(query(seen), strings{"0|"});
    heard("web1", "3.0");
    heard("idle", "3.1"); /* has nothing to send */
    int64_t now = wall - noon;
    s.reset();
    EXPECT_EQ(query(seen), strings{std::to_string(now) + "|3.0"});
    EXPECT_EQ(query("SELECT name, address, version, last_seen - 1777636800 FROM agents "
                    "WHERE name = 'idle'"),
              strings{"idle|192.0.2.1|3.1|" + std::to_string(now)});
}

/* In bites, and all of them in the end. */
TEST_F(attendance_test, rows_of_many_that_bring_nothing_are_written_in_one_look) {
    open();
    for (int i = 0; i < 300; i++) {
        heard("idle" + std::to_string(i));
    }
    pass(185);
    const char* rows = "SELECT count(*) FROM agents WHERE name LIKE 'idle%'";
    for (int i = 0; i < 1000 && query(rows) != strings{"300"}; i++) {
        submit(load_record(1, 1), "clock"); /* without another look: the clock stands */
    }
    EXPECT_EQ(query(rows), strings{"300"});
}

TEST_F(attendance_test, an_agent_without_results_falls_silent_too) {
    open();
    pass(400, "idle");
    EXPECT_EQ(query("SELECT count(*) FROM agents WHERE name = 'idle'"), strings{"1"});
    EXPECT_EQ(events().size(), 0u);
    pass(200);
    EXPECT_EQ(events().size(), 1u);
}

TEST_F(attendance_test, inventories_are_stored_when_their_items_change) {
    open();
    submit(inventory("init\tsshd\t", noon));
    submit(inventory("init\tsshd\t", noon + 60) + load_record(5, noon + 60));
    submit(inventory("init\tcron\t", noon + 120));
    restart(10);
    submit(inventory("init\tcron\t", noon + 180));
    submit(inventory("init\tsshd\t", noon + 240));
    EXPECT_EQ(query("SELECT time - 1777636800 FROM inventories ORDER BY id"),
              (strings{"0", "120", "240"}));
    std::string error;
    auto reader = open_reader(state, error);
    for (const stored_agent_row& row : stored_agents(*reader, error)) {
        if (row.name == "web1") {
            ASSERT_EQ(row.state.inventories.size(), 1u);
            EXPECT_EQ(row.state.inventories[0].time, noon + 240);
            EXPECT_EQ(records_of(*reader, row, error).size(), 1u); /* none lies open */
        }
    }
}

TEST_F(attendance_test, definitions_are_kept_when_they_differ) {
    open();
    owned_definition first{.type = 66, .number = 5, .location = 1, .name = "load", .text = "5\t5"};
    owned_definition other{.type = 46, .number = 6, .location = 1, .name = "/", .text = "/\t10"};
    auto follow = [&](std::vector<owned_definition> all) {
        s->follow({}, std::move(all));
        pass(5);
        look();
    };
    follow({first, other});
    follow({first, other});
    first.text = "6\t6";
    restart(10);
    follow({other, first});
    follow({first});
    EXPECT_EQ(query("SELECT type, number, location, since - 1777636800, name, text FROM "
                    "definitions ORDER BY id"),
              (strings{"66|5|1|5|load|5\t5", "46|6|1|5|/|/\t10", "66|5|1|25|load|6\t6"}));
}

/* A file that takes the place of another has them too. */
TEST_F(attendance_test, definitions_are_stored_in_another_file_again) {
    open();
    s->follow({}, {{.type = 66, .number = 5, .location = 1, .name = "load", .text = "5\t5"}});
    pass(10);
    const char* all = "SELECT number, location, name, text FROM definitions";
    ASSERT_EQ(query(all), strings{"5|1|load|5\t5"});
    std::filesystem::remove(state + "/results.db");
    pass(10);
    EXPECT_EQ(query(all), strings{"5|1|load|5\t5"});
}

/* One that comes later has them from then on, also in a file that takes the place of another. */
TEST_F(attendance_test, agents_have_definitions_of_their_own) {
    open();
    submit(load_record(5, noon - 1), "web1");
    std::vector<ingest::agent_plan> plans = {agent_plan("web1", 60, 60, {{66, 5}}),
                                             agent_plan("web2", 60, 60, {{66, 5}})};
    for (ingest::agent_plan& plan : plans) {
        plan.definitions = {{.type = 66,
                             .number = 5,
                             .location = 7,
                             .name = "of " + plan.agent,
                             .text = "x",
                             .title = "load",
                             .group = "all"}};
    }
    const char* all = "SELECT a.name, number, location, d.name, text, title, team FROM definitions "
                      "d JOIN agents a ON a.id = d.agent ORDER BY a.name, d.id";
    s->follow({}, {});
    follow_agents(plans);
    pass(10);
    EXPECT_EQ(query(all), strings{"web1|5|7|of web1|x|load|all"});
    submit(load_record(5, noon - 1), "web2");
    pass(10);
    const strings both = {"web1|5|7|of web1|x|load|all", "web2|5|7|of web2|x|load|all"};
    EXPECT_EQ(query(all), both);
    std::filesystem::remove(state + "/results.db");
    pass(10);
    EXPECT_EQ(query(all), both);
    plans[1].definitions[0].title = "load average";
    follow_agents(plans);
    pass(10);
    EXPECT_EQ(query(all), (strings{both[0], both[1], "web2|5|7|of web2|x|load average|all"}));
}

TEST_F(attendance_test, what_does_not_fit_into_the_queue_makes_no_test_stale) {
    auto look_when_there_is_room = [&] {
        for (int i = 0; i < 2; i++) {
            while (submit(load_record(1, 1), "clock") == store_result::failed) {
                std::this_thread::yield();
            }
        }
    };
    std::string error;
    s = ingest::open({.directory = state, .max_queued = 1}, &told, error); /* one waits */
    ASSERT_TRUE(s) << error;
    submit(load_record(5, noon - 1), "web1");
    submit(load_record(5, noon - 1), "web2");
    wall += 5;
    steady += 5;
    for (int i = 0; i < 35; i++) {
        wall += 5;
        steady += 5;
        heard("web1");
        heard("web2");
        look_when_there_is_room();
    }
    std::promise<void> begun, refused;
    told.on_each = [&, once = false]() mutable {
        if (!std::exchange(once, true)) {
            begun.set_value();
            refused.get_future().wait();
        }
    };
    s->submit({"a@b.c", "clock", load_record(1, 2), wall}, [](store_result) {});
    begun.get_future().wait();
    EXPECT_EQ(submit(load_record(5, wall - 1), "web2"), store_result::failed);
    refused.set_value();
    for (int i = 0; i < 4; i++) {
        wall += 3;
        steady += 3;
        heard("web1");
        heard("web2");
        look_when_there_is_room();
    }
    EXPECT_EQ(query("SELECT name FROM events e JOIN agents a ON a.id = e.agent WHERE "
                    "to_state = 3 AND name <> 'clock'"),
              strings{"web1"});
}

/* ---- by hand, without a thread ---- */

struct bites_test : attendance_test {
    std::unique_ptr<engine> store;
    roster agents;
    std::unique_ptr<attendance> present;
    strings changes; /* AGENT FROM>TO */

    void SetUp() override {
        attendance_test::SetUp();
        std::string error;
        store = open_engine({state, 14, [](const std::string&) {}}, error);
        ASSERT_TRUE(store) << error;
        present = std::make_unique<attendance>(
            *store, agents, [this](const roster_agent& agent, const agent_work& work) {
                for (const change& c : work.out.changes) {
                    changes.push_back(agent.name + " " + std::string(state_word(c.from)) + ">" +
                                      std::string(state_word(c.to)));
                }
            });
        present->begin();
    }
    void TearDown() override {
        present.reset();
        store.reset();
        attendance_test::TearDown();
    }
    /* A poll that arrived at `at` is stored. */
    void send(const std::string& name, int64_t at = steady) {
        const int64_t received = wall - (steady - at);
        const std::string plain = load_record(5, received - 1);
        block_reader reader(plain);
        ASSERT_TRUE(reader.next());
        const decoded_record one{reader.current, summarize(reader.current)};
        storing writing(*store);
        agent_work work;
        stored_agent row;
        ASSERT_TRUE(store->begin() && store->find_agent("a@b.c", name, received, row));
        work.begin(row);
        ASSERT_TRUE(writing.records(work, {&one, 1}, received, present->now(work, "a@b.c", name),
                                    present->brings_back(work.id, at)));
        ASSERT_TRUE(store->end_block(work.id, {received, "", ""}, "hash", writing.packed(work)));
        ASSERT_TRUE(store->commit());
        for (const change& c : work.out.changes) {
            if (c.of_agent) {
                changes.push_back(name + " " + std::string(state_word(c.from)) + ">" +
                                  std::string(state_word(c.to)));
            }
        }
        present->stored(work, "a@b.c", name, at, true);
    }
    void hear(const std::string& name) { present->heard("a@b.c", name, wall, "", ""); }
    void wait(int64_t seconds) {
        for (int64_t i = 0; i < seconds; i++) {
            wall++;
            steady++;
            present->run();
        }
    }
    void run_all() {
        while (present->run()) {
        }
    }
};

TEST_F(bites_test, all_who_are_overdue_are_told_of_at_once) {
    for (int i = 0; i < 300; i++) {
        send("web" + std::to_string(i));
    }
    wait(180);
    EXPECT_EQ(changes.size(), 0u);
    wall += 3;
    steady += 3;
    run_all();
    EXPECT_EQ(changes.size(), 300u);
}

/* What becomes of those who are overdue is written a few at a time. */
TEST_F(bites_test, what_comes_before_it_is_written_is_not_overdue) {
    for (int i = 0; i < 300; i++) {
        send("web" + std::to_string(i));
    }
    wait(183);
    run_all();
    ASSERT_EQ(changes.size(), 300u);
    changes.clear();
    send("late");
    wait(179);
    for (int i = 0; i < 300; i++) {
        hear("web" + std::to_string(i));
    }
    wall += 3;
    steady += 3;
    EXPECT_TRUE(present->run()); /* some of those that are back */
    send("late");
    run_all();
    EXPECT_EQ(changes.size(), 300u);
    EXPECT_EQ(std::count(changes.begin(), changes.end(), "late ok>silent"), 0);
}

/* Storage may be slow: what came before a silence, and is stored in its middle, does not end it,
 * and so there is not one more after each slice. */
TEST_F(bites_test, what_arrived_before_a_silence_does_not_end_it) {
    send("web1");
    const int64_t before = steady;
    wait(190);
    ASSERT_EQ(changes, strings{"web1 ok>silent"});
    for (int slice = 0; slice < 5; slice++) {
        send("web1", before);
        wait(200);
    }
    EXPECT_EQ(changes, strings{"web1 ok>silent"});
    EXPECT_EQ(stored_agents(store->reader(), told.problems.emplace_back()).at(0).state.silent,
              true);
    hear("web1");
    wait(5);
    EXPECT_EQ(changes, (strings{"web1 ok>silent", "web1 silent>ok"}));
    send("web1", before);
    wait(100);
    EXPECT_EQ(changes.size(), 2u);
}

/* Whichever is first of what it brings and of what it is heard by. */
TEST_F(bites_test, what_arrives_in_a_silence_ends_it_once) {
    send("web1");
    send("web2");
    const int64_t before = steady;
    wait(190);
    ASSERT_EQ(changes.size(), 2u);
    changes.clear();
    hear("web1");
    hear("web2");
    send("web1");
    send("web2", before);
    EXPECT_EQ(changes, strings{"web1 silent>ok"});
    wait(5);
    EXPECT_EQ(changes, (strings{"web1 silent>ok", "web2 silent>ok"}));
}

/* A block for which there is no room comes again, for as long as that takes. */
TEST_F(bites_test, what_could_not_be_taken_makes_no_test_stale) {
    send("web1");
    send("web2");
    for (int i = 0; i < 10; i++) {
        wait(60);
        hear("web1");
        hear("web2");
        present->held_up("a@b.c", "web1");
    }
    EXPECT_EQ(changes, strings{"web2 ok>stale"});
    wait(120);
    EXPECT_EQ(changes.size(), 1u);
    hear("web1");
    hear("web2");
    wait(120);
    EXPECT_EQ(changes, (strings{"web2 ok>stale", "web1 ok>stale"}));
}

/* What it was told once holds, whichever time there was no memory for it. */
TEST_F(attendance_test, a_plan_and_no_memory) {
    auto tests = [](size_t count) {
        std::vector<std::pair<uint32_t, int32_t>> all;
        for (size_t i = 0; i < count; i++) {
            all.emplace_back(type_load_average, static_cast<int32_t>(i));
        }
        return all;
    };
    auto definition = [](int32_t number) {
        return owned_definition{.type = type_load_average,
                                .number = number,
                                .location = 1,
                                .name = "load",
                                .text = std::string(40, 'x'),
                                .title = "",
                                .group = ""};
    };
    std::string error;
    size_t times = 0;
    int64_t web1 = 0;
    std::unique_ptr<engine> store;
    std::unique_ptr<roster> agents;
    std::unique_ptr<attendance> present;
    auto begin = [&] {
        present.reset();
        store = open_engine(
            {.directory = directory / std::to_string(times++), .keep_days = 30, .tell = {}}, error);
        ASSERT_TRUE(store) << error;
        stored_agent web;
        ASSERT_TRUE(store->begin() && store->find_agent("a@b.c", "web1", noon, web) &&
                    store->commit());
        web1 = web.id;
        agents = std::make_unique<roster>();
        present = std::make_unique<attendance>(*store, *agents,
                                               [](const roster_agent&, const agent_work&) {});
        present->begin();
        present->follow({.every = {.poll = 60, .check = 60}, .is_planned = true, .tests = tests(3)},
                        {});
        EXPECT_TRUE(present->take_plan());
        present->follow(
            {.every = {.poll = 500, .check = 60}, .is_planned = true, .tests = tests(9)},
            {definition(1)});
        plan_summary own{
            .every = {.poll = 60, .check = 700}, .is_planned = true, .tests = tests(5)};
        present->follow_agents({{"a@b.c", "web1", own, {definition(2)}},
                                {"a@b.c", "not heard yet", own, {definition(3)}}});
    };
    begin();
    refuse_in_turn([&] { present->take_plan(); },
                   [&](size_t after) {
                       EXPECT_TRUE(present->take_plan());
                       agent_work work;
                       EXPECT_EQ(present->now(work, "a@b.c", "other").stale_after, 1500) << after;
                       EXPECT_EQ(present->now(work, "a@b.c", "web1").stale_after, 2100) << after;
                       EXPECT_EQ(present->now(work, "a@b.c", "not heard yet").stale_after, 2100);
                       while (present->run()) {
                       }
                       size_t known = 0;
                       EXPECT_TRUE(store->reader().for_each_definition(
                           web1, 0, 0, [&](const test_definition&) { known++; }, error));
                       EXPECT_EQ(known, 1u) << after;
                       begin();
                   });
    EXPECT_TRUE(sanitized || times > 4);
}

} // namespace

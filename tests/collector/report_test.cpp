#include "show/report.h"

#include "collector_test_support.h"
#include "fleet/assigned.h"
#include "ingest/ingest.h"
#include "state/agent_state.h"
#include "store/sqlite/layout.h"

#include <future>
#include <gtest/gtest.h>
#include <sstream>

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

struct report_test : testing::Test {
    scratch_directory directory;
    std::string state = directory / "state";
    std::string plan_path = directory / "plan";
    std::unique_ptr<ingest> s;
    missing_count count;

    void open() {
        std::string error;
        s = ingest::open({.directory = state, .keep_days = 0}, nullptr, error);
        ASSERT_NE(s, nullptr) << error;
    }

    void submit(const std::string& plain, int64_t received, const std::string& agent = "web1") {
        std::promise<store_result> result;
        s->submit({"a@b.c", agent, plain, received}, [&](store_result r) { result.set_value(r); });
        ASSERT_EQ(result.get_future().get(), store_result::stored);
    }

    /* What is printed, or "!" and the error. */
    std::string report(const missing_age& age = {}) {
        std::ostringstream out;
        std::string error;
        bool ok = print_missing(state, plan_path, age, out, count, error);
        EXPECT_EQ(ok, error.empty());
        return ok ? out.str() : "!" + error;
    }
};

static const std::string plan_text = "LAA\t5\t1\t1\t2\t3\nLAA\t6\t1\t1\t2\t3\nLAA\t7\t1\t1\t2\t3\n"
                                     "LAD\t7\t0\n";

TEST_F(report_test, planned_tests_with_and_without_results) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon - 5) + load_record(7, noon - 5), noon);
    submit(load_record(5, noon + 55, 2), noon + 60);
    EXPECT_EQ(report(),
              "stored\ta@b.c\tweb1\tload average\t5\t2026-05-01T12:00:55Z\tlimit reached\n"
              "missing\ta@b.c\tweb1\tload average\t6\n");
    EXPECT_EQ(count.stored, 1u);
    EXPECT_EQ(count.missing, 1u);
}

TEST_F(report_test, older_results_do_not_count_and_say_when_they_came) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon - 5, 2), noon);
    submit(load_record(6, noon + 86395), noon + 86400); /* the next day's table */
    std::string five = "a@b.c\tweb1\tload average\t5\t2026-05-01T11:59:55Z\tlimit reached\n";
    std::string six = "a@b.c\tweb1\tload average\t6\t2026-05-02T11:59:55Z\tok\n";
    int64_t later = noon + 86400 + 60;
    EXPECT_EQ(report({.now = later}), "stored\t" + five + "stored\t" + six);
    EXPECT_EQ(report({.now = later, .older_than = 86460}), "stored\t" + five + "stored\t" + six);
    EXPECT_EQ(report({.now = later, .older_than = 86459}), "missing\t" + five + "stored\t" + six);
    EXPECT_EQ(count.missing, 1u);
    EXPECT_EQ(count.silent, 0u);
    EXPECT_EQ(report({.now = later, .older_than = 60}), "missing\t" + five + "stored\t" + six);
    EXPECT_EQ(report({.now = later, .older_than = 59}),
              "silent\ta@b.c\tweb1\t2026-05-02T12:00:00Z\nmissing\t" + five + "missing\t" + six);
    EXPECT_EQ(count.silent, 1u);
    EXPECT_EQ(count.missing, 2u);
}

TEST_F(report_test, a_retired_agent_misses_nothing_until_it_is_back) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon), noon);
    submit(load_record(5, noon), noon, "web2");
    std::promise<bool> retired;
    s->retire(2, [&](bool ok, const std::string&) { retired.set_value(ok); });
    ASSERT_TRUE(retired.get_future().get());
    EXPECT_EQ(report({.now = noon + 1000, .older_than = 100}).find("web2"), std::string::npos);
    EXPECT_EQ(count.silent, 1u);
    EXPECT_EQ(count.missing, 2u);
    submit(load_record(5, noon + 990), noon + 1000, "web2");
    EXPECT_NE(report({.now = noon + 1000, .older_than = 100}).find("stored\ta@b.c\tweb2"),
              std::string::npos);
}

TEST_F(report_test, a_time_far_in_the_future_is_no_age) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon) + load_record(6, noon), noon + 60 * 86400);
    report({.now = noon, .older_than = 900});
    EXPECT_EQ(count.silent, 1u);
    EXPECT_EQ(count.missing, 2u);
    submit(load_record(5, noon), noon);
    report({.now = noon - 2, .older_than = 900}); /* a clock that was put right by seconds */
    EXPECT_EQ(count.silent, 0u);
    EXPECT_EQ(count.missing, 1u);
}

TEST_F(report_test, agents_are_silent_without_a_plan_too) {
    write_text(plan_path, "# nothing\n");
    open();
    submit(load_record(5, noon), noon, "web1");
    submit(load_record(5, noon), noon + 50, "web2");
    EXPECT_EQ(report({.now = noon + 100, .older_than = 60}),
              "silent\ta@b.c\tweb1\t2026-05-01T12:00:00Z\n");
    EXPECT_EQ(count.silent, 1u);
}

/* The days, which are long, are not looked at. */
TEST_F(report_test, it_reads_the_agents_alone) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon), noon);
    s.reset();
    sqlite3* handle = nullptr;
    sqlite3_open(database_path(state).c_str(), &handle);
    database db(handle);
    ASSERT_TRUE(database_exec(handle, "DROP TABLE blocks"));
    report();
    EXPECT_EQ(count.stored, 1u);
    EXPECT_EQ(count.missing, 1u);
}

/* What the collector found when it ran last, as it stands in the agents' rows. */
static void store_state(const std::string& directory, const char* agent, const agent_state& state) {
    std::string error, packed;
    state.pack(packed);
    std::unique_ptr<engine> e = open_engine({directory, 0, {}}, error);
    ASSERT_NE(e, nullptr) << error;
    stored_agent found;
    ASSERT_TRUE(
        e->begin() && e->find_agent("a@b.c", agent, noon, found) &&
        e->end_block(found.id, {.received = noon, .address = "", .version = ""}, "", packed) &&
        e->commit())
        << e->reason();
}

static agent_state state_with(state five, state six) {
    agent_state agent;
    int32_t number = 5;
    for (state now : {five, six}) {
        agent.tests.push_back({.type = type_load_average,
                               .number = number++,
                               .now = now,
                               .since = noon,
                               .received = noon,
                               .time = noon,
                               .claimed = noon - 1,
                               .status = 0});
    }
    return agent;
}

TEST_F(report_test, a_test_that_is_stale_is_missing) {
    write_text(plan_path, plan_text);
    store_state(state, "web1", state_with(state::problem, state::stale));
    EXPECT_EQ(report(), "stored\ta@b.c\tweb1\tload average\t5\t2026-05-01T11:59:59Z\tok\n"
                        "missing\ta@b.c\tweb1\tload average\t6\t2026-05-01T11:59:59Z\tok\n");
    EXPECT_EQ(count.silent, 0u);
    EXPECT_EQ(count.missing, 1u);
}

TEST_F(report_test, of_an_agent_that_is_silent_all_is_missing) {
    write_text(plan_path, plan_text);
    agent_state silent = state_with(state::ok, state::stale);
    silent.silent = true;
    store_state(state, "web1", silent);
    store_state(state, "web2", state_with(state::ok, state::ok));
    EXPECT_EQ(report(), "silent\ta@b.c\tweb1\t2026-05-01T12:00:00Z\n"
                        "missing\ta@b.c\tweb1\tload average\t5\t2026-05-01T11:59:59Z\tok\n"
                        "missing\ta@b.c\tweb1\tload average\t6\t2026-05-01T11:59:59Z\tok\n"
                        "stored\ta@b.c\tweb2\tload average\t5\t2026-05-01T11:59:59Z\tok\n"
                        "stored\ta@b.c\tweb2\tload average\t6\t2026-05-01T11:59:59Z\tok\n");
    EXPECT_EQ(count.silent, 1u);
    EXPECT_EQ(count.missing, 2u);
}

TEST_F(report_test, each_agent_counts_for_itself) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon), noon, "web1");
    submit(load_record(6, noon), noon, "web\x1b[2J");
    EXPECT_EQ(report(), "missing\ta@b.c\tweb?[2J\tload average\t5\n"
                        "stored\ta@b.c\tweb?[2J\tload average\t6\t2026-05-01T12:00:00Z\tok\n"
                        "stored\ta@b.c\tweb1\tload average\t5\t2026-05-01T12:00:00Z\tok\n"
                        "missing\ta@b.c\tweb1\tload average\t6\n");
    EXPECT_EQ(count.stored, 2u);
    EXPECT_EQ(count.missing, 2u);
}

TEST_F(report_test, without_any_agent_all_is_missing) {
    write_text(plan_path, plan_text);
    open();
    EXPECT_EQ(report(), "missing\t-\t-\tload average\t5\nmissing\t-\t-\tload average\t6\n");
}

TEST_F(report_test, a_collector_may_have_ended_properly_or_not) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon), noon);
    std::filesystem::copy(state, directory / "as after a kill");
    s.reset();
    report();
    EXPECT_EQ(count.stored, 1u);
    state = directory / "as after a kill";
    report();
    EXPECT_EQ(count.stored, 1u);
}

TEST_F(report_test, nothing_is_written) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon), noon);
    s.reset();
    std::string before = read_text(database_path(state));
    report();
    EXPECT_EQ(read_text(database_path(state)), before);
}

TEST_F(report_test, problems_of_the_plan_are_printed) {
    write_text(plan_path, "XYZ\t1\n" + plan_text);
    open();
    EXPECT_EQ(report().substr(0, 36), "problem\tline 1: unknown code \"XYZ\"\nm");
}

TEST_F(report_test, what_is_being_taken_over_is_not_called_missing) {
    write_text(plan_path, plan_text);
    open();
    submit(load_record(5, noon), noon);
    s.reset();
    auto set_fact = [&](int value) {
        sqlite3* handle = nullptr;
        ASSERT_EQ(sqlite3_open(database_path(state).c_str(), &handle), SQLITE_OK);
        database db(handle);
        EXPECT_TRUE(database_set_fact(db.get(), "earlier", value));
    };
    set_fact(1);
    EXPECT_EQ(report(), "!" + database_path(state) +
                            ": the results of an earlier version are not all taken over yet");
    set_fact(0);
    EXPECT_EQ(report().substr(0, 7), "stored\t");
}

TEST_F(report_test, what_cannot_be_read_is_an_error) {
    EXPECT_EQ(report(), "!" + plan_path + ": No such file or directory");
    write_text(plan_path, plan_text);
    EXPECT_EQ(report(), "!" + database_path(state) +
                            ": unable to open database file: No such file or directory");
    std::filesystem::create_directory(state);
    write_text(database_path(state), "");
    EXPECT_EQ(report(), "!" + database_path(state) + ": there is nothing in it");
    write_text(database_path(state), std::string(5000, 'x'));
    EXPECT_EQ(report(), "!" + database_path(state) + ": file is not a database");
}

/* ---- the fleet that is stored ---- */

struct fleet_report_test : report_test {
    void SetUp() override {
        plan_path.clear();
        open();
    }
    void change(const std::function<bool(engine&)>& what) {
        std::promise<std::string> done;
        s->update(what, [&](bool ok, const std::string& reason) {
            done.set_value(ok ? "" : "failed: " + reason);
        });
        ASSERT_EQ(done.get_future().get(), "");
    }
    void apply() {
        change([](engine& e) {
            return e.append_fleet_revision({.revision = 7,
                                            .time = noon,
                                            .author = "file",
                                            .about = "",
                                            .text = "version: 1",
                                            .has_text = true});
        });
    }
    static assigned_test given(const char* kind, const std::string& name, int32_t number,
                               const std::string& impossible = "") {
        assigned_test test;
        test.name = name;
        test.kind = find_kind(kind);
        test.number = number;
        test.revision = test.added = 7;
        test.impossible = impossible;
        return test;
    }
    void give(const std::string& agent, std::vector<assigned_test> tests) {
        assigned_agent has;
        has.tests = std::move(tests);
        has.removed.push_back({.name = "gone", .type = type_load_average, .number = 99});
        has.next_number = 100;
        has.newest = 7;
        std::string packed;
        has.pack(packed);
        give_packed(agent, packed);
    }
    void give_packed(const std::string& agent, const std::string& packed) {
        change([&](engine& e) {
            return e.put_fleet_agent({.account = "a@b.c", .agent = agent, .assigned = packed});
        });
    }
};

TEST_F(fleet_report_test, tests_of_each_agent_have_their_names) {
    apply();
    submit(load_record(5, noon - 5) + load_record(7, noon - 5), noon);
    submit(load_record(5, noon + 55, 2), noon + 60, "web2");
    submit(load_record(5, noon), noon, "in no group");
    give("web1", {given("load", "front \tpage", 5), given("load", "load", 6)});
    give("web2", {given("load", "a load", 5)});
    EXPECT_EQ(report(),
              "stored\ta@b.c\tweb1\tload average\t5\t2026-05-01T11:59:55Z\tok\tfront  page\n"
              "missing\ta@b.c\tweb1\tload average\t6\tload\n"
              "stored\ta@b.c\tweb2\tload average\t5\t2026-05-01T12:00:55Z\tlimit reached\t"
              "a load\n");
    EXPECT_EQ(count.stored, 2u);
    EXPECT_EQ(count.missing, 1u);
    EXPECT_EQ(count.silent, 0u);
    EXPECT_EQ(count.refused, 0u);
    EXPECT_EQ(report({.now = noon + 60, .older_than = 30}).substr(0, 40),
              "silent\ta@b.c\tin no group\t2026-05-01T12:0");
    EXPECT_EQ(count.silent, 2u);
    EXPECT_EQ(count.missing, 2u);
}

/* What it was sent before goes on; what it never had has no number. */
TEST_F(fleet_report_test, what_an_agent_cannot_have_is_said) {
    apply();
    submit(load_record(5, noon), noon);
    give("web1", {given("disk", "data", 0, "there is no disk /data; there are /, /home"),
                  given("load", "load", 5, "waits for the secret x")});
    EXPECT_EQ(report(),
              "impossible\ta@b.c\tweb1\tdisk\t-\tthere is no disk /data; there are /, /home\tdata\n"
              "impossible\ta@b.c\tweb1\tload average\t5\twaits for the secret x\tload\n"
              "stored\ta@b.c\tweb1\tload average\t5\t2026-05-01T12:00:00Z\tok\tload\n");
    EXPECT_EQ(count.refused, 2u);
    EXPECT_EQ(count.missing, 0u);
    EXPECT_EQ(count.stored, 1u);
}

TEST_F(fleet_report_test, agents_that_are_not_there_miss_all_they_were_given) {
    apply();
    EXPECT_EQ(report(), "missing\t-\t-\n");
    EXPECT_EQ(count.missing, 1u);
    give("web9", {given("load", "load", 5)});
    EXPECT_EQ(report(), "missing\ta@b.c\tweb9\tload average\t5\tload\n");
    submit(load_record(5, noon), noon, "web9");
    std::promise<bool> retired;
    s->retire(1, [&](bool ok, const std::string&) { retired.set_value(ok); });
    ASSERT_TRUE(retired.get_future().get());
    submit(load_record(5, noon), noon, "web1");
    EXPECT_EQ(report(), "");
    EXPECT_EQ(count.missing + count.silent + count.refused, 0u);
}

TEST_F(fleet_report_test, without_a_fleet_there_is_nothing_to_say) {
    submit(load_record(5, noon), noon);
    EXPECT_EQ(report(), "!no fleet was ever applied here; a plan is named with --plan");
    apply();
    EXPECT_EQ(report(), "");
    give_packed("web1", "what is this?");
    EXPECT_EQ(report(), "!" + database_path(state) + ": what an agent was given is damaged");
}

#include "show/report.h"

#include "collector_test_support.h"
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

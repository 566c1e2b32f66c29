#include "show/line_views.cpp"
#include "show/output.cpp"
#include "show/table_view.cpp"

#include "collector_test_support.h"
#include "counted_memory.h"
#include "given_names.h"

#include <boost/json.hpp>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sstream>

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

/* A pipe of which the test holds the reading end. */
struct pipe_pair {
    int ends[2] = {-1, -1};
    pipe_pair() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
    ~pipe_pair() {
        close_end(0);
        close_end(1);
    }
    void close_end(int i) {
        if (ends[i] >= 0) {
            close(ends[i]);
        }
        ends[i] = -1;
    }
    int reader() const { return ends[0]; }
    int writer() const { return ends[1]; }
    /* Everything until the writing end is closed. */
    std::string read_all() {
        close_end(1);
        std::string text;
        char piece[4096];
        for (ssize_t got; (got = read(reader(), piece, sizeof(piece))) > 0;) {
            text.append(piece, static_cast<size_t>(got));
        }
        return text;
    }
    /* Up to and including `end`. */
    std::string read_until(const std::string& end) {
        std::string text;
        char byte;
        while (text.find(end) == text.npos && read(reader(), &byte, 1) == 1) {
            text += byte;
        }
        return text;
    }
};

static void show(store_listener& out, const std::string& bytes, const std::string& agent = "web1") {
    record r;
    std::string reason;
    ASSERT_TRUE(decode_record(bytes, r, reason)) << reason;
    out.on_record({"a@b.c", agent, bytes, noon, "", ""}, {r, summarize(r)});
}

TEST(output, json_is_one_object_per_line_and_record) {
    pipe_pair out, problems;
    {
        auto o =
            make_output(output_kind::json, {.fd = out.writer(), .problem_fd = problems.writer()});
        show(*o, load_record(5, noon, 2, "high\n"));
        std::string first = out.read_until("\n"); /* arrives without waiting for more */
        EXPECT_EQ(boost::json::parse(first).at("test"), 5);
        show(*o, record_builder{.ui32 = {99}}.bytes());
        o->on_problem("something\nis wrong");
        o->on_undecodable({"a@b.c", "web1", "", noon, "", ""}, 17, 4, "too short for a record",
                          "/kept/here");
    }
    std::string second = out.read_all();
    EXPECT_EQ(boost::json::parse(second).at("type"), 99);
    EXPECT_EQ(second.find('\n'), second.size() - 1);
    EXPECT_EQ(
        problems.read_all(),
        "vindral-collector: something is wrong\n"
        "vindral-collector: agent web1 of a@b.c sent 4 bytes that are no record, at offset 17 "
        "(too short for a record): kept in /kept/here\n");
}

TEST(output, plain_lines) {
    pipe_pair out, problems;
    {
        auto o =
            make_output(output_kind::plain, {.fd = out.writer(), .problem_fd = problems.writer()});
        show(*o, load_record(5, noon, 2, "first\nsecond\n"));
        show(*o, load_record(6, noon, 0, "\x1b]0;title\x07\n"), "\x1b[31mweb");
        show(*o, record_builder{.i32 = {-1}, .ui32 = {99}, .strings = {"te\x1bxt"}}.bytes());
    }
    EXPECT_EQ(
        out.read_all(),
        "2026-05-01T12:00:00Z web1 load average 5: limit reached, load1 0.5 load5 0.25 load15 "
        "0.125, first second\n"
        "2026-05-01T12:00:00Z ?[31mweb load average 6: ok, load1 0.5 load5 0.25 load15 0.125, "
        "?]0;title?\n"
        "2026-05-01T12:00:00Z web1 type 99: i32 -1 ui32 99 \"te?xt\"\n");
}

static given_names names_of_web1() {
    given_names names;
    names.all[{"a@b.c", "web1", type_load_average, 5}] = {"front page", "https://example.org/"};
    names.all[{"a@b.c", "web1", type_load_average, 6}] = {"load", ""};
    names.all[{"a@b.c", "web1", type_load_average, 7}] = {"\x1b[31mr\"ed", "\x1b]0;title\x07"};
    return names;
}

TEST(output, plain_lines_have_the_names_of_tests) {
    pipe_pair out, problems;
    const given_names names = names_of_web1();
    {
        auto o =
            make_output(output_kind::plain,
                        {.fd = out.writer(), .problem_fd = problems.writer(), .names = &names});
        for (int32_t test : {5, 6, 7, 8}) {
            show(*o, load_record(test, noon));
        }
        show(*o, load_record(5, noon), "web2");
        show(*o, record_builder{.ui32 = {99}}.bytes());
    }
    const std::string time = "2026-05-01T12:00:00Z ",
                      values = ": ok, load1 0.5 load5 0.25 load15 0.125, fine\n";
    EXPECT_EQ(out.read_all(), time + "front page on web1 (https://example.org/)" + values + time +
                                  "load on web1" + values + time +
                                  "?[31mr\"ed on web1 (?]0;title?)" + values + time +
                                  "web1 load average 8" + values + time + "web2 load average 5" +
                                  values + time + "web1 type 99: ui32 99\n");
}

TEST(output, json_has_the_names_of_tests) {
    pipe_pair out, problems;
    const given_names names = names_of_web1();
    {
        auto o =
            make_output(output_kind::json,
                        {.fd = out.writer(), .problem_fd = problems.writer(), .names = &names});
        for (int32_t test : {5, 6, 7, 8}) {
            show(*o, load_record(test, noon));
        }
    }
    std::istringstream lines(out.read_all());
    std::vector<boost::json::object> all;
    for (std::string line; std::getline(lines, line);) {
        all.push_back(boost::json::parse(line).as_object());
    }
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0].at("name"), "front page");
    EXPECT_EQ(all[0].at("target"), "https://example.org/");
    EXPECT_EQ(all[0].at("type"), type_load_average);
    EXPECT_EQ(all[0].at("test"), 5);
    EXPECT_EQ(all[1].at("name"), "load");
    EXPECT_EQ(all[1].at("target"), "");
    EXPECT_EQ(all[2].at("name"), "?[31mr\"ed");
    EXPECT_EQ(all[3].at("name"), "load average");
    EXPECT_FALSE(all[3].contains("target"));
}

TEST(output, problems_have_the_names_of_tests) {
    pipe_pair out, problems;
    const given_names names = names_of_web1();
    {
        auto o =
            make_output(output_kind::problems,
                        {.fd = out.writer(), .problem_fd = problems.writer(), .names = &names});
        show(*o, load_record(5, noon, 2, "high"));
        show(*o, load_record(5, noon, 2, "high"));
    }
    EXPECT_EQ(out.read_all(), "2026-05-01T12:00:00Z front page on web1 (https://example.org/): "
                              "limit reached, load1 0.5 load5 0.25 load15 0.125, high\n");
}

/* Whoever gives them comes after the output, and goes before it. */
TEST(output, names_come_late_and_may_go) {
    pipe_pair out, problems;
    auto o = make_output(output_kind::plain, {.fd = out.writer(), .problem_fd = problems.writer()});
    show(*o, load_record(5, noon));
    EXPECT_NE(out.read_until("\n").find("web1 load average 5"), std::string::npos);
    auto names = std::make_unique<given_names>();
    names->all = names_of_web1().all;
    o->name_tests(names.get());
    show(*o, load_record(5, noon));
    EXPECT_NE(out.read_until("\n").find("front page on web1"), std::string::npos);
    o->name_tests(nullptr);
    names.reset();
    show(*o, load_record(5, noon));
    EXPECT_NE(out.read_until("\n").find("web1 load average 5"), std::string::npos);
}

TEST(output, what_comes_behind_its_end_is_not_shown) {
    pipe_pair out, problems;
    {
        auto o = make_output(
            output_kind::plain,
            {.fd = out.writer(), .problem_fd = problems.writer(), .max_queued = 100000});
        show(*o, load_record(5, noon));
        o->finish();
        EXPECT_NE(out.read_until("\n").find("web1 load average 5"), std::string::npos);
        for (int i = 0; i < 2000; i++) {
            show(*o, load_record(6, noon));
        }
        o->on_problem("late");
        o->finish();
    }
    EXPECT_EQ(out.read_all() + problems.read_all(), "");
}

static std::string process_record(int32_t test, uint32_t pid, uint32_t status) {
    return record_builder{.ui32 = {type_process, static_cast<uint32_t>(test), 1, pid, status},
                          .i64 = {noon},
                          .d64 = {1, 2, 3}}
        .bytes();
}

TEST(output, problems_are_shown_when_they_begin_become_others_and_end) {
    pipe_pair out, problems;
    {
        auto o = make_output(output_kind::problems,
                             {.fd = out.writer(), .problem_fd = problems.writer()});
        show(*o, load_record(1, noon, 0));
        show(*o, load_record(2, noon, 2, "high"));
        show(*o, load_record(2, noon, 2, "high still"));
        show(*o, load_record(2, noon, 0), "other agent");
        show(*o, load_record(2, noon, 4, "no answer"));
        show(*o, load_record(2, noon, 0));
        show(*o, load_record(2, noon, 0));
        show(*o, record_builder{.ui32 = {99}}.bytes());
        o->on_problem("of its own");
    }
    const std::string line = "2026-05-01T12:00:00Z web1 load average 2: ";
    const std::string values = ", load1 0.5 load5 0.25 load15 0.125";
    EXPECT_EQ(out.read_all(), line + "limit reached" + values + ", high\n" + line +
                                  status_word(type_load_average, 4) + values + ", no answer\n" +
                                  line + "ok" + values + ", fine\n");
    EXPECT_EQ(problems.read_all(), "vindral-collector: of its own\n");
}

/* Each process of the name has a record, and one with id 0 says that there is none. */
TEST(output, problems_of_processes_are_those_of_each) {
    pipe_pair out, problems;
    {
        auto o = make_output(output_kind::problems,
                             {.fd = out.writer(), .problem_fd = problems.writer()});
        for (int pass = 0; pass < 3; pass++) {
            show(*o, process_record(1, 100, 0));
            show(*o, process_record(1, 101, 2));
        }
        show(*o, process_record(1, 0, 3)); /* both are gone */
        show(*o, process_record(1, 0, 3));
        show(*o, process_record(1, 100, 0)); /* and one is back */
        show(*o, process_record(1, 101, 0));
        show(*o, process_record(1, 101, 2));
    }
    std::string text = out.read_all(), said;
    for (size_t at = 0; (at = text.find(": ", at)) != text.npos; at++) {
        said += text.substr(at + 2, text.find(" cpu", at) - at - 2) + "; ";
    }
    EXPECT_EQ(said,
              "limit reached, pid 101; not found, pid 0; ok, pid 100; limit reached, pid 101; ")
        << text;
}

/* What has been forgotten is new. */
TEST(output, problems_that_are_remembered_are_bounded) {
    const given_names nobody;
    problem_view shown(nobody);
    std::string bytes = load_record(1, noon, 2), reason, out, agent;
    event e{.kind = event_kind::record, .account = "a@b.c", .received = noon};
    ASSERT_TRUE(decode_record(bytes, e.result.content, reason)) << reason;
    e.result.summary = summarize(e.result.content);
    size_t lines = 0;
    for (int i = 0; i < 600; i++) {
        agent = std::to_string(i % 300) + std::string(100000, 'a');
        e.agent = agent;
        out.clear();
        shown.show_record(e, out);
        lines += !out.empty();
    }
    EXPECT_GT(lines, 300u);
    out.clear();
    shown.show_record(e, out);
    EXPECT_EQ(out, "");
}

TEST(output, a_reader_that_stalls_holds_up_nothing_and_learns_what_it_missed) {
    pipe_pair out, problems;
    {
        auto o = make_output(
            output_kind::json,
            {.fd = out.writer(), .problem_fd = problems.writer(), .max_queued = 100000});
        for (int i = 0; i < 20000; i++) { /* several times what pipe and queue hold */
            show(*o, load_record(i, noon));
        }
        std::string text;
        while (text.find("\"test\":19999") == text.npos) {
            text = out.read_until("\n"); /* the newest come through once somebody reads */
        }
    }
    std::string said = problems.read_all();
    EXPECT_NE(said.find(" entries are not shown: the reader is too slow\n"), said.npos) << said;
}

/* Standard error is a pipe to the journal, or to whatever somebody has put there. */
TEST(output, quietly_only_problems_are_shown_and_a_stalled_reader_holds_up_nothing) {
    pipe_pair out, problems;
    {
        auto o = make_output(
            output_kind::quiet,
            {.fd = out.writer(), .problem_fd = problems.writer(), .max_queued = 100000});
        show(*o, load_record(1, noon));
        o->on_problem("first");
        std::string text = problems.read_until("\n");
        EXPECT_EQ(text, "vindral-collector: first\n");
        for (int i = 0; i < 20000; i++) { /* several times what pipe and queue hold */
            o->on_problem("problem " + std::to_string(i) + std::string(100, '.'));
        }
        size_t lines = 0;
        bool told = false;
        while (text.find("problem 19999") == text.npos) {
            text = problems.read_until("\n");
            told |= text.find(" entries are not shown: the reader is too slow") != text.npos;
            lines++;
        }
        EXPECT_TRUE(told);
        EXPECT_LT(lines, 20000u);
    }
    EXPECT_EQ(out.read_all(), "");
}

TEST(output, ending_does_not_wait_for_a_stalled_reader_for_long) {
    pipe_pair out, problems;
    auto begin = steady_clock::now();
    {
        auto o =
            make_output(output_kind::json, {.fd = out.writer(), .problem_fd = problems.writer()});
        for (int i = 0; i < 1000; i++) {
            show(*o, load_record(i, noon));
        }
    }
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(output, a_reader_that_went_away_is_no_error) {
    pipe_pair out, problems;
    out.close_end(0);
    {
        auto o =
            make_output(output_kind::json, {.fd = out.writer(), .problem_fd = problems.writer()});
        for (int i = 0; i < 1000; i++) {
            show(*o, load_record(i, noon));
        }
        o->on_problem("still here");
    }
    EXPECT_EQ(problems.read_all(), "vindral-collector: still here\n");
}

TEST(output, a_huge_record_is_only_mentioned) {
    pipe_pair out, problems;
    {
        auto o =
            make_output(output_kind::json, {.fd = out.writer(), .problem_fd = problems.writer()});
        show(*o, record_builder{.ui32 = std::vector<uint32_t>(300000, 99)}.bytes());
    }
    EXPECT_EQ(out.read_all(), "");
    EXPECT_EQ(problems.read_all(),
              "vindral-collector: a record of 1200032 bytes from web1 is stored, "
              "but too large to be shown\n");
}

TEST(output, what_there_is_no_memory_for_is_left_out_and_counted) {
    if (sanitized) {
        GTEST_SKIP() << "memory does not run out here";
    }
    pipe_pair out, problems;
    const std::string small = load_record(5, noon, 2, "high");
    const std::string large = load_record(4, noon, 2, std::string(100000, 'x'));
    {
        auto o =
            make_output(output_kind::json, {.fd = out.writer(), .problem_fd = problems.writer()});
        for (int i = 0; i < 3; i++) { /* what keeps entries is made once */
            show(*o, small);
            out.read_until("\n");
        }
        refused_above = 150000; /* enough to keep the record, and not for its line */
        std::string line;
        try {
            show(*o, large);
            show(*o, small);
            line = out.read_until("\n");
        } catch (const std::bad_alloc&) {
        }
        refused_above = SIZE_MAX;
        EXPECT_EQ(boost::json::parse(line).at("test"), 5);
        o->on_problem("else");
    }
    EXPECT_EQ(out.read_all(), "");
    std::string text = problems.read_all();
    EXPECT_NE(text.find("vindral-collector: 1 entries are not shown: there was no memory for "
                        "them\n"),
              text.npos)
        << text;
    EXPECT_NE(text.find("vindral-collector: else\n"), text.npos) << text;
}

TEST(output, many_threads_may_report) {
    pipe_pair out, problems;
    {
        auto o =
            make_output(output_kind::json, {.fd = out.writer(), .problem_fd = problems.writer()});
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++) {
            threads.emplace_back([&] {
                for (int i = 0; i < 50; i++) {
                    o->on_problem("x");
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    std::string said = problems.read_all();
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 200);
}

TEST(output, a_line_shows_the_beginning_of_a_long_record) {
    pipe_pair out, problems;
    std::string text;
    {
        auto o =
            make_output(output_kind::plain, {.fd = out.writer(), .problem_fd = problems.writer()});
        show(*o, load_record(5, noon, 2, std::string(500000, 'm')));
        show(*o, record_builder{.ui32 = {42, 0, 0},
                                .i64 = {noon},
                                .strings = {std::string(500000, '\t')}}
                     .bytes());
        text = out.read_until("\n") + out.read_until("\n");
    }
    EXPECT_LT(text.size(), 40000u);
    EXPECT_NE(text.find("mmm ...\n"), text.npos);
    EXPECT_TRUE(text.ends_with(" ...\n"));
}

/* A get that went well, of one object with this status. */
static std::string get_record(uint32_t status) {
    record_builder object{.ui32 = {9, status}, .strings = {"25", "too high"}};
    return record_builder{.ui32 = {57, 5, 7, 0, 1},
                          .i64 = {noon},
                          .d64 = {1.5},
                          .strings = {"New results are available.\n"},
                          .nested = {object.bytes()}}
        .bytes();
}

static const std::string get_line = "2026-05-01T12:00:00Z web1 snmp 5: ";

TEST(output, a_line_calls_a_get_what_its_worst_value_is) {
    pipe_pair out, problems;
    {
        auto o =
            make_output(output_kind::plain, {.fd = out.writer(), .problem_fd = problems.writer()});
        show(*o, get_record(2));
    }
    EXPECT_EQ(out.read_all(), get_line + "limit reached, objects 1 time 1.5 ms, type 9 value "
                                         "25 (limit reached), New results are available.\n");
}

TEST(output, a_value_out_of_its_limits_is_a_problem) {
    pipe_pair out, problems;
    {
        auto o = make_output(output_kind::problems,
                             {.fd = out.writer(), .problem_fd = problems.writer()});
        show(*o, get_record(0));
        show(*o, get_record(2));
        show(*o, get_record(2));
        show(*o, get_record(0));
    }
    std::string text = out.read_all();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
    EXPECT_TRUE(text.starts_with(get_line + "limit reached, ")) << text;
    EXPECT_NE(text.find("\n" + get_line + "ok, "), text.npos) << text;
}

TEST(output, log_ins_are_lines_where_there_is_no_table) {
    pipe_pair out, problems;
    {
        auto o =
            make_output(output_kind::quiet, {.fd = out.writer(), .problem_fd = problems.writer()});
        o->on_note("login: web1");
        o->on_ready("not here");
        o->on_plan({});
    }
    EXPECT_EQ(problems.read_all(), "vindral-collector: login: web1\n");
}

/* A terminal of which the test holds the other end. */
struct terminal {
    int master = -1, slave = -1;
    std::string text; /* read so far */
    terminal(unsigned short rows, unsigned short columns) {
        winsize size = {.ws_row = rows, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
    }
    ~terminal() {
        close(slave);
        close(master);
    }
    /* Forgets what was read before it. */
    void read_until(const std::string& wanted) {
        char piece[4096];
        text.clear();
        while (text.find(wanted) == text.npos) {
            ssize_t got = read(master, piece, sizeof(piece));
            ASSERT_GT(got, 0);
            text.append(piece, static_cast<size_t>(got));
        }
    }
};

/* A store that has nothing but agents and open blocks. */
struct bare_store : result_reader {
    using text = std::string;
    text place() const override { return ""; }
    bool read_agent(int64_t, const std::function<void(const known_agent&)>&, text&) override {
        return true;
    }
    bool read_agent(std::string_view, std::string_view,
                    const std::function<void(const known_agent&)>&, text&) override {
        return true;
    }
    std::optional<known_test_row> find_test(int64_t) override { return std::nullopt; }
    bool for_each_block(int64_t, const std::function<bool(const open_block&)>&, text&) override {
        return true;
    }
    bool for_each_chunk(int64_t, int64_t, const std::function<bool(const packed_chunk&)>&,
                        const std::function<bool(const packed_chunk&)>&, text&) override {
        return true;
    }
    bool for_each_agent_from(std::string_view, std::string_view,
                             const std::function<bool(const known_agent&)>&, text&) override {
        return true;
    }
    bool for_each_roll_up(resolution, int64_t, int64_t, int64_t,
                          const std::function<void(int64_t, std::string_view)>&, text&) override {
        return true;
    }
    bool for_each_event(const event_filter&, const std::function<bool(const stored_event&)>&,
                        text&) override {
        return true;
    }
    bool for_each_ledger_row(int64_t, int64_t, int64_t,
                             const std::function<bool(const ledger_row&)>&, text&) override {
        return true;
    }
    bool read_inventory(int64_t, uint32_t, int64_t,
                        const std::function<void(const stored_inventory&)>&, text&) override {
        return true;
    }
    bool has_definitions(int64_t) override { return false; }
    bool for_each_definition(int64_t, uint32_t, int32_t,
                             const std::function<void(const test_definition&)>&, text&) override {
        return true;
    }
    bool read_definition(int64_t, uint32_t, int32_t, std::optional<int32_t>, int64_t,
                         const std::function<void(const test_definition&, int64_t)>&,
                         text&) override {
        return true;
    }
    bool for_each_fleet_revision(bool, const std::function<bool(const fleet_revision&)>&,
                                 text&) override {
        return true;
    }
    bool read_fleet(int32_t, const std::function<void(const fleet_revision&)>&, text&) override {
        return true;
    }
    bool for_each_fleet_agent(const std::function<void(const fleet_agent&)>&, text&) override {
        return true;
    }
    bool for_each_change(const change_filter&, const std::function<bool(const stored_change&)>&,
                         text&) override {
        return true;
    }
    bool renew(text&) override { return true; }
    void rest() override {}
    std::optional<int64_t> read_fact(const char*) override { return std::nullopt; }
};

static known_agent known_as(int64_t id, std::string_view name, int64_t last_seen,
                            std::string_view state) {
    known_agent a;
    a.id = id;
    a.account = "a@b.c";
    a.agent = name;
    a.last_seen = last_seen;
    a.state = state;
    return a;
}

struct store_with_a_past : bare_store {
    bool for_each_agent(const std::function<void(const known_agent&)>& each, text&) override {
        int64_t now = time(nullptr);
        for (int i = 0; i < 500; i++) {
            std::string name = "host" + std::to_string(i), packed;
            agent_state agent;
            agent.last_block = i + 1;
            for (int number : {5, 6}) {
                bool bad = i == 7 && number == 6;
                agent.tests.push_back({.id = 2 * i + number,
                                       .type = type_load_average,
                                       .number = number,
                                       .now = bad ? state::problem : state::ok,
                                       .since = now - 40,
                                       .received = now - 40,
                                       .time = noon,
                                       .claimed = noon,
                                       .block = i + 1});
            }
            agent.pack(packed);
            if (i == 8) {
                packed = "damaged";
            }
            each(known_as(i + 1, name, now - 30, packed));
        }
        return true;
    }
    std::optional<known_test_row> find_test(int64_t id) override {
        return known_test_row{.id = id,
                              .agent = (id - 5) / 2 + 1,
                              .type = type_load_average,
                              .number = id % 2 == 1 ? 5 : 6};
    }
    bool for_each_block(int64_t row, const std::function<bool(const open_block&)>& each,
                        text&) override {
        std::string records =
            load_record(5, noon) + load_record(6, noon, row == 8 ? 2 : 0, "too high\n");
        each({.row = row, .received = time(nullptr) - 40, .records = records});
        return true;
    }
};

TEST(table, begins_with_what_the_store_knows) {
    terminal screen(24, 80);
    setenv("TERM", "xterm", 1);
    /* A queue that holds a small part of it: begin() waits, nothing is dropped. */
    auto o = make_output(output_kind::table, {.fd = screen.slave, .max_queued = 20000});
    store_with_a_past stored;
    o->begin(stored);
    screen.read_until("1 problem, 997 ok - 998 tests on 500 hosts");
    screen.read_until("too high");
}

TEST(table, shows_the_lines_for_hosts_until_an_agent_is_known_but_no_log_ins) {
    terminal screen(24, 80);
    setenv("TERM", "xterm", 1);
    auto o = make_output(output_kind::table, {.fd = screen.slave});
    o->on_note("2026-05-01T12:00:00Z login: web1 of a@b.c at 192.0.2.1");
    o->on_ready("Listening on 192.0.2.1:8443\n  USEHOST  https://here\n");
    o->on_problem("2026-05-01T12:00:00Z plan line 3: bad");
    screen.read_until("plan line 3: bad");
    EXPECT_NE(screen.text.find("Listening on 192.0.2.1:8443"), std::string::npos);
    EXPECT_NE(screen.text.find("  USEHOST  https://here"), std::string::npos);
    EXPECT_EQ(screen.text.find("2026-05-01"), std::string::npos); /* no second time */
    show(*o, load_record(5, noon));
    screen.read_until("1 test on 1 host");
    screen.read_until("\033[J");
    screen.read_until("\033[J");
    EXPECT_EQ(screen.text.find("USEHOST"), std::string::npos);
    EXPECT_EQ(screen.text.find("login"), std::string::npos);
}

TEST(table, tests_that_leave_the_plan_leave_the_screen) {
    terminal screen(24, 80);
    setenv("TERM", "xterm", 1);
    auto o = make_output(output_kind::table, {.fd = screen.slave});
    show(*o, load_record(5, noon));
    show(*o, load_record(6, noon));
    screen.read_until("2 tests on 1 host");
    o->on_plan({.every = {}, .is_planned = true, .tests = {{type_load_average, 5}}});
    screen.read_until("1 test on 1 host");
}

struct store_with_a_retired_agent : bare_store {
    bool for_each_agent(const std::function<void(const known_agent&)>& each, text&) override {
        known_agent retired = known_as(1, "gone", noon, "");
        retired.retired = noon;
        each(retired);
        each(known_as(2, "web1", noon, ""));
        return true;
    }
};

TEST(table, has_no_retired_agents) {
    terminal screen(24, 80);
    setenv("TERM", "xterm", 1);
    auto o = make_output(output_kind::table, {.fd = screen.slave});
    store_with_a_retired_agent stored;
    o->begin(stored);
    show(*o, load_record(5, noon));
    screen.read_until("1 test on 1 host");
    EXPECT_EQ(screen.text.find("gone"), std::string::npos);
    show(*o, load_record(6, noon), "web2");
    screen.read_until("2 tests on 2 hosts");
    o->on_retired(3, "a@b.c", "web2", noon);
    screen.read_until("1 test on 1 host");
    show(*o, load_record(6, noon), "web2"); /* it begins anew */
    screen.read_until("2 tests on 2 hosts");
}

struct store_with_an_agent : bare_store {
    bool for_each_agent(const std::function<void(const known_agent&)>& each, text&) override {
        each(known_as(1, "web1", noon, ""));
        return true;
    }
};

TEST(table, shows_what_becomes_of_an_agent) {
    terminal screen(24, 80);
    setenv("TERM", "xterm", 1);
    auto o = make_output(output_kind::table, {.fd = screen.slave});
    show(*o, load_record(5, noon));
    screen.read_until("all ok - 1 test on 1 host");
    agent_state agent;
    agent.tests.push_back({.type = type_load_average, .number = 5, .now = state::stale});
    o->on_agent(1, "a@b.c", "web1", agent, {});
    screen.read_until(" 1 stale - 1 test on 1 host");
    agent.silent = true;
    o->on_agent(1, "a@b.c", "web1", agent, {});
    screen.read_until(" 1 host silent");
}

TEST(table, a_terminal_that_takes_nothing_costs_no_state) {
    terminal screen(24, 80);
    setenv("TERM", "xterm", 1);
    int flags = fcntl(screen.slave, F_GETFL);
    fcntl(screen.slave, F_SETFL, flags | O_NONBLOCK);
    std::string filler(4096, '.');
    while (write(screen.slave, filler.data(), filler.size()) > 0) {
    }
    fcntl(screen.slave, F_SETFL, flags);
    auto o = make_output(output_kind::table, {.fd = screen.slave, .max_queued = 50000});
    show(*o, load_record(1, noon, 2, "this one is bad\n"));
    for (int i = 0; i < 30; i++) { /* several times what the queue holds */
        for (int test = 2; test < 22; test++) {
            show(*o, load_record(test, noon));
        }
        store_with_an_agent stored;
        o->begin(stored); /* waits until half of the queue is free */
    }
    screen.read_until("this one is bad");
}

TEST(table, draws_on_a_terminal_of_its_size) {
    terminal screen(6, 70);
    setenv("TERM", "xterm", 1);
    EXPECT_EQ(choose_output(screen.slave, false), output_kind::table);
    EXPECT_EQ(choose_output(screen.slave, true), output_kind::json);
    setenv("TERM", "dumb", 1);
    EXPECT_EQ(choose_output(screen.slave, false), output_kind::plain);
    auto o = make_output(output_kind::table, {.fd = screen.slave});
    for (int i = 0; i < 20; i++) {
        show(*o, load_record(i, noon));
    }
    o->on_problem("a problem");
    screen.read_until("all ok - 20 tests on 1 host");
    screen.read_until("... 18 more tests that are ok");
    screen.read_until("a problem");
}

TEST(table, shows_names_and_the_plans_of_agents) {
    terminal screen(24, 100);
    const given_names names = names_of_web1();
    auto o = make_output(output_kind::table, {.fd = screen.slave});
    o->name_tests(&names);
    o->on_agent_plans({{.account = "a@b.c",
                        .agent = "web1",
                        .plan = {.every = {},
                                 .is_planned = true,
                                 .tests = {{type_load_average, 5}, {type_load_average, 9}}}}});
    show(*o, load_record(5, noon));
    show(*o, load_record(6, noon));
    show(*o, load_record(6, noon), "web2");
    screen.read_until("all ok - 2 tests on 2 hosts");
    screen.read_until("front page");
    screen.read_until("https://example.org/");
    screen.read_until("load average 6");
}

TEST(table, has_no_colours_where_none_are_wanted) {
    terminal screen(24, 80);
    setenv("TERM", "xterm", 1);
    setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(read_screen(screen.slave).colours);
    setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(read_screen(screen.slave).colours);
    unsetenv("NO_COLOR");
    EXPECT_TRUE(read_screen(screen.slave).colours);
    EXPECT_EQ(read_screen(screen.slave).rows, 24u);
    EXPECT_EQ(read_screen(-1).columns, 80u);
}

TEST(choose, no_terminal_means_lines) {
    pipe_pair out;
    setenv("TERM", "xterm", 1);
    EXPECT_EQ(choose_output(out.writer(), false), output_kind::plain);
    EXPECT_EQ(choose_output(out.writer(), true), output_kind::json);
}

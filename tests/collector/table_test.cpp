#include "show/table.h"

#include "base/text.h"
#include "collector_test_support.h"
#include "given_names.h"
#include "plan/summary.h"
#include "show/table_words.h"
#include "state/take.h"
#include "state/watch.h"

#include <gtest/gtest.h>
#include <map>

static const int64_t noon = 1777636800; /* 2026-05-01 12:00 UTC */

static record decode(const std::string& bytes) {
    record r;
    std::string reason;
    EXPECT_TRUE(decode_record(bytes, r, reason)) << reason;
    return r;
}

/* The lines that a screen shows after the frame, without colours; checks that nothing leaves it. */
static std::vector<std::string> screen_of(const std::string& frame, const table_screen& screen) {
    std::vector<std::string> lines(1);
    for (size_t i = 0; i < frame.size(); i++) {
        if (frame[i] == '\033') {
            size_t end = frame.find_first_of("HJKmhl", i);
            EXPECT_NE(end, frame.npos);
            EXPECT_EQ(frame[i + 1], '[');
            EXPECT_TRUE(screen.colours || frame[end] != 'm');
            i = end;
        } else if (frame.substr(i, 2) == "\r\n") {
            lines.emplace_back();
            i++;
        } else {
            EXPECT_GE(static_cast<unsigned char>(frame[i]), 0x20u);
            lines.back() += frame[i];
        }
    }
    EXPECT_LE(lines.size(), screen.rows);
    for (std::string& line : lines) {
        EXPECT_LE(display_width(line), screen.columns) << line;
        while (line.ends_with(' ')) {
            line.pop_back();
        }
    }
    if (lines.back().empty()) {
        lines.pop_back();
    }
    return lines;
}

static std::string text_of(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

/* A table that is told what the store tells it: each result, and behind it what becomes of the
 * agent; and, whenever a screen is drawn, of whom nothing came for too long. */
struct table_test : testing::Test {
    given_names called;
    live_table table{noon};
    int64_t now = noon;
    using agent_name = std::pair<std::string, std::string>; /* account, agent */
    std::map<agent_name, agent_state> agents;
    std::map<int64_t, agent_name> names; /* by id */
    std::map<agent_name, int64_t> ids;
    expected awaited;
    watch overdue{noon};

    int64_t id_of(const agent_name& name) {
        auto [at, added] = ids.try_emplace(name, static_cast<int64_t>(ids.size()) + 1);
        names[at->second] = name;
        return at->second;
    }
    void tell(const agent_name& name) { table.take(name.first, name.second, now, agents[name]); }
    void add_bytes(const std::string& agent, const std::string& bytes,
                   const std::string& account = "a@b.c") {
        add_block(agent, {bytes}, account);
    }
    void add_block(const std::string& agent, const std::vector<std::string>& block,
                   const std::string& account = "a@b.c") {
        std::vector<decoded_record> records;
        for (const std::string& bytes : block) {
            record r = decode(bytes);
            records.push_back({r, summarize(r)});
            table.take(account, agent, now, r);
        }
        agent_name name{account, agent};
        agent_state& state = agents[name];
        outcome out;
        if (overdue.heard(id_of(name), now)) {
            take_heard(state, now, out);
        }
        std::vector<size_t> places;
        patience how_long{.interval = awaited.at(now).check,
                          .stale_after = awaited.stale_after(now)};
        take_results(state, records, now, how_long, out, places);
        for (size_t place : places) {
            if (place != SIZE_MAX && state.tests[place].number) {
                const test_status& test = state.tests[place];
                overdue.came(id_of(name), {test.type, *test.number}, now);
            }
        }
        tell(name);
    }
    /* A poll without results. */
    void hear(const std::string& agent) {
        agent_name name{"a@b.c", agent};
        table.hear(name.first, name.second, now);
        outcome out;
        if (overdue.heard(id_of(name), now)) {
            take_heard(agents[name], now, out);
            tell(name);
        }
    }
    /* From before the start. */
    void know(const std::string& agent, int64_t received, const std::vector<std::string>& block) {
        agent_name name{"a@b.c", agent};
        agent_state& state = agents[name];
        outcome out;
        std::vector<size_t> places;
        std::vector<decoded_record> records;
        for (const std::string& bytes : block) {
            record r = decode(bytes);
            records.push_back({r, summarize(r)});
        }
        take_results(state, records, received, {}, out, places);
        overdue.know(id_of(name), state.silent, noon);
        for (const test_status& test : state.tests) {
            overdue.know(id_of(name), {test.type, test.number.value_or(0)},
                         watch::standing::awaited, noon);
        }
        table.know(name.first, name.second, received, state);
        for (const decoded_record& r : records) {
            table.know(name.first, name.second, received, r.content);
        }
    }
    void look_for_overdue() {
        std::vector<watch::overdue> found;
        overdue.find_overdue(awaited, now, SIZE_MAX, found);
        for (const watch::overdue& each : found) {
            const agent_name& name = names[each.agent];
            outcome out;
            if (each.silent) {
                take_silence(agents[name], now, out);
            } else {
                take_stale(agents[name], each.tests, now, out);
            }
            tell(name);
        }
    }

    void add(const std::string& agent, uint32_t test, uint32_t status = 0,
             const std::string& message = "fine\n") {
        add_bytes(agent, load_record(test, now, status, message));
    }
    static std::string process(uint32_t test, uint32_t pid, uint32_t status, int64_t checked,
                               const std::string& message = "") {
        record_builder b{.ui32 = {43, test, 7, pid, status}, .i64 = {checked}, .d64 = {1, 2, 3}};
        if (message.empty()) {
            b.missing_strings = 1;
        } else {
            b.strings = {message};
        }
        return b.bytes();
    }
    void plan(const std::vector<std::string>& lines) {
        std::vector<plan_line> list;
        for (const std::string& line : lines) {
            list.push_back({list.size() + 1, static_cast<int>(list.size()) + 1, line});
        }
        awaited.follow(summary_of(list), now);
        table.follow(summary_of(list), now);
    }
    std::vector<std::string> screen(size_t rows = 24, size_t columns = 100) {
        look_for_overdue();
        table_screen s{rows, columns, true};
        return screen_of(table.draw(s, now), s);
    }
    std::string text(size_t rows = 24, size_t columns = 100) {
        return text_of(screen(rows, columns));
    }
};

static const std::string load_test = "\t1\t-1\t-1\t-1";

TEST_F(table_test, nothing_is_known_at_first) {
    EXPECT_EQ(screen(), std::vector<std::string>{" no agent is known yet" + std::string(66, ' ') +
                                                 " 12:00:00Z"});
    table.introduce("Listening\n  \033[2Jhere\n");
    EXPECT_EQ(screen().at(1), "Listening");
    EXPECT_EQ(screen().at(2), "  ?[2Jhere");
    add("web1", 5);
    EXPECT_EQ(text().find("Listening"), std::string::npos);
}

TEST_F(table_test, one_host_has_a_line_and_its_tests_below) {
    add("web1", 5);
    add("web1", 6, 10, "no answer\n");
    now += 7;
    EXPECT_EQ(text(24, 80),
              " 1 problem, 1 ok - 2 tests on 1 host                                 12:00:07Z\n"
              "web1  1 problem, 1 ok\n"
              "  ! load average 6  for 7s   no answer  load1 0.5 load5 0.25 load15 0.125\n"
              "    load average 5  7s ago   load1 0.5 load5 0.25 load15 0.125  fine\n");
    now += 1000;
    add("web1", 5);
    add("web1", 6, 10, "no answer\n"); /* still */
    EXPECT_NE(text().find("  ! load average 6  for 16m  no answer"), std::string::npos) << text();
    now++;
    add("web1", 6, 0);
    EXPECT_EQ(screen()[0].substr(0, 25), " all ok - 2 tests on 1 ho");
    EXPECT_EQ(screen()[1], "web1  2 ok");
}

TEST_F(table_test, a_problem_without_a_message_has_its_status_in_words) {
    add_bytes("web1",
              record_builder{
                  .ui32 = {66, 5, 7, 10}, .i64 = {1}, .d64 = {-1, -1, -1}, .missing_strings = 1}
                  .bytes());
    EXPECT_NE(text().find("remote query failed  load1 -1"), std::string::npos) << text();
}

TEST_F(table_test, problems_are_on_top_the_newest_first) {
    add("a", 1, 2, "old\n");
    add("b", 1);
    now += 10;
    add("c", 1, 2, "new\n");
    add("c", 2, 2, "newer\n");
    add("d", 1);
    std::vector<std::string> lines = screen();
    ASSERT_EQ(lines.size(), 10u) << text();
    EXPECT_EQ(lines[1], "c     2 problems");
    EXPECT_EQ(lines[4], "a     1 problem");
    EXPECT_EQ(lines[6].substr(0, 4), "b   ");
    EXPECT_NE(lines[0].find(" 3 problems, 2 ok - 5 tests on 4 hosts"), std::string::npos);
}

TEST_F(table_test, tests_that_have_names_are_called_by_these) {
    add("web1", 5);
    add("web1", 6, 2, "too much\n");
    add("web1", 7);
    const std::string without = text();
    table.name_tests(&called);
    EXPECT_EQ(text(), without) << "nobody gave any";
    called.all[{"a@b.c", "web1", type_load_average, 5}] = {"front page", "https://example.org/"};
    called.all[{"a@b.c", "web1", type_load_average, 6}] = {"load", ""};
    called.all[{"other@b.c", "web1", type_load_average, 7}] = {"of another account", ""};
    EXPECT_EQ(
        text(),
        " 1 problem, 2 ok - 3 tests on 1 host" + std::string(53, ' ') +
            "12:00:00Z\n"
            "web1  1 problem, 2 ok\n"
            "  ! load                                  for 0s   too much  load1 0.5 load5 0.25 "
            "load15 0.125\n"
            "    front page      https://example.org/  0s ago   load1 0.5 load5 0.25 load15 0.125  "
            "fine\n"
            "    load average 7                        0s ago   load1 0.5 load5 0.25 load15 0.125  "
            "fine\n");
    EXPECT_EQ(screen(3).at(1), "web1  load: too much  load1 0.5 load5 0.25 load15 0.125");
    table.name_tests(nullptr);
    EXPECT_EQ(text(), without);
}

/* The name comes first, then what the result says, then what is looked at. */
TEST_F(table_test, what_a_test_looks_at_has_the_room_that_is_left) {
    table.name_tests(&called);
    add("web1", 5, 2, "too much\n");
    called.all[{"a@b.c", "web1", type_load_average, 5}] = {
        "front page", "https://shop.example.org/with/a/path/that/is/long?and=a&query=too"};
    EXPECT_EQ(screen(24, 120).at(2).substr(0, 70),
              "  ! front page  https://shop.example.org/with/a/path/that/is/long?and=");
    EXPECT_EQ(screen(24, 80).at(2),
              "  ! front page  https://shop.example.org/  for 0s   too much  load1 0.5 load5 0");
    EXPECT_EQ(screen(24, 64).at(2),
              "  ! front page  https://s  for 0s   too much  load1 0.5 load5 0");
    EXPECT_EQ(screen(24, 60).at(2), "  ! front page  for 0s   too much  load1 0.5 load5 0.25 loa");
    EXPECT_EQ(screen(24, 30).at(2), "  ! front page  for 0s   too");
    EXPECT_EQ(screen(24, 18).at(2), "  ! front   for 0");
    called.all[{"a@b.c", "web1", type_load_average, 5}] = {
        "\xe4\xb8\xad\xe6\x96\x87\xe4\xb8\xad\xe6\x96\x87 " + std::string(70, 'n'), "/"};
    for (size_t columns = 1; columns < 130; columns++) {
        screen(24, columns); /* nothing leaves it */
    }
}

TEST_F(table_test, agents_have_plans_of_their_own) {
    plan({"LAA\t5" + load_test});
    add("web1", 5);
    add("web2", 5);
    add("web2", 6);
    EXPECT_EQ(screen()[0].substr(0, 30), " all ok - 2 tests on 2 hosts  ");
    const plan_summary own{.every = {.poll = 20, .check = 20},
                           .is_planned = true,
                           .tests = {{type_load_average, 6}, {type_load_average, 7}, {40, 8}}};
    table.follow({{"a@b.c", "web2", own}, {"a@b.c", "not there yet", own}}, now);
    EXPECT_EQ(screen()[0].substr(0, 30), " all ok - 1 test on 2 hosts   ");
    add("web2", 5);
    add("web2", 6);
    add("web1", 6);
    EXPECT_EQ(screen()[0].substr(0, 30), " all ok - 2 tests on 2 hosts  ");
    for (int i = 0; i < 19; i++) { /* the longer interval acts on */
        now += 9;
        add("web2", 6);
        add("web1", 5);
        EXPECT_EQ(text().find("unknown"), std::string::npos);
    }
    now += 61;
    add("web2", 5);
    add("web2", 6);
    add("web1", 5);
    table.name_tests(&called);
    called.all[{"a@b.c", "web2", type_load_average, 7}] = {"seven", ""};
    EXPECT_NE(text().find("  ? seven"), std::string::npos) << text();
    EXPECT_NE(text().find("1 unknown, 2 ok - 3 tests on 2 hosts"), std::string::npos) << text();
    EXPECT_NE(text().find("1 unknown, 1 ok, and tests that are not planned"), std::string::npos)
        << text();
    add("not there yet", 7);
    EXPECT_NE(text().find("seven"), std::string::npos);
    plan({"LAA\t9" + load_test});
    EXPECT_EQ(screen()[0].substr(0, 42), " 1 unknown, 2 ok - 3 tests on 3 hosts     ");
}

TEST_F(table_test, inventories_are_no_rows_but_a_sign_of_life) {
    add_bytes("web1",
              record_builder{.ui32 = {42, 0, 0}, .i64 = {1}, .strings = {"init\t"}}.bytes());
    EXPECT_EQ(screen()[0].substr(0, 9), " no tests");
    EXPECT_EQ(screen()[1], "web1  no tests");
    EXPECT_EQ(screen().size(), 2u);
}

TEST_F(table_test, an_object_of_a_get_that_is_out_of_its_limits_is_a_problem) {
    record_builder good{.ui32 = {8, 0}, .strings = {"core-1", "OID: 1.2 the result"}};
    record_builder bad{.ui32 = {9, 2}, .strings = {"25", "OID:  1.3\nValue:  25\n"}};
    record_builder bare{.ui32 = {9, 2}, .missing_strings = 2};
    record_builder get{.ui32 = {57, 5, 7, 0, 2},
                       .i64 = {now},
                       .d64 = {1.5},
                       .strings = {"New results are available.\n"},
                       .nested = {good.bytes(), bad.bytes()}};
    add_bytes("web1", get.bytes());
    EXPECT_EQ(screen()[1], "web1  1 problem");
    EXPECT_NE(text().find("  ! snmp 5  for 0s   OID: 1.3 Value: 25  objects 2 time 1.5 ms"),
              std::string::npos)
        << text();
    get.nested.push_back(bare.bytes());
    get.i64 = {++now};
    add_bytes("web1", get.bytes());
    EXPECT_NE(text().find("OID: 1.3 Value: 25 (and 1 more)  objects"), std::string::npos) << text();
    get.i64 = {++now};
    get.nested = {bare.bytes(), good.bytes()}; /* one whose strings are empty */
    add_bytes("web1", get.bytes());
    EXPECT_NE(text().find("! snmp 5  for 2s   limit reached  objects"), std::string::npos)
        << text();
    get.i64 = {++now};
    get.nested = {good.bytes()};
    add_bytes("web1", get.bytes());
    EXPECT_EQ(screen()[1], "web1  1 ok");
}

TEST_F(table_test, a_process_among_several_is_a_problem_until_all_are_well) {
    add_block("web1", {process(3, 10, 0, noon), process(3, 11, 2, noon, "Current CPU usage: 91%"),
                       process(3, 12, 0, noon + 1)});
    EXPECT_NE(text().find("! process 3  for 0s   1 of 3 processes: Current CPU usage: 91%  pid 11"),
              std::string::npos)
        << text();
    now += 60; /* the next pass: the state has not changed in between */
    add_block("web1", {process(3, 10, 0, noon + 60),
                       process(3, 11, 2, noon + 60, "Current CPU usage: 92%")});
    EXPECT_NE(text().find("! process 3  for 60s  1 of 2 processes: Current CPU usage: 92%  pid 11"),
              std::string::npos)
        << text();
    now += 60;
    add_block("web1", {process(3, 10, 0, noon + 120), process(3, 11, 0, noon + 120)});
    EXPECT_NE(text().find("    process 3  0s ago   2 processes: pid 10"), std::string::npos)
        << text();
    now += 1; /* passes a second apart are told apart by the ids */
    add_block("web1", {process(3, 10, 3, noon + 121, "gone")});
    EXPECT_EQ(text().find("processes"), std::string::npos) << text();
}

TEST_F(table_test, a_pass_that_is_well_so_far_shows_what_was_wrong_until_it_is_whole) {
    add_block("web1", {process(3, 10, 0, noon), process(3, 11, 2, noon, "Current CPU usage: 91%")});
    now += 60;
    add_block("web1", {process(3, 10, 0, noon + 60)});
    EXPECT_NE(text().find("! process 3  for 60s  Current CPU usage: 91%  pid 11"),
              std::string::npos)
        << text();
    add_block("web1", {process(3, 11, 0, noon + 60)});
    EXPECT_NE(text().find("    process 3  0s ago   2 processes: pid 1"), std::string::npos)
        << text();
}

/* What was late does not change what is shown of what came before it. */
TEST_F(table_test, what_is_overtaken_changes_no_line) {
    plan({"CHK\t0\t60", "LAA\t1" + load_test, "LAA\t2" + load_test});
    now += 3600;
    add_bytes("web1", load_record(1, now, 2, "high\n"));
    add_block("web1", {load_record(1, now - 3000, 0, "low\n"), load_record(2, now)});
    EXPECT_EQ(screen()[1], "web1  1 problem, 1 ok");
    EXPECT_NE(text().find("! load average 1  for 0s   high"), std::string::npos) << text();
}

TEST_F(table_test, any_check_time_may_be_claimed) {
    for (int64_t checked : {INT64_MIN, INT64_MAX, int64_t{-1}, INT64_MIN, INT64_MAX}) {
        add_bytes("web1", load_record(1, checked, 2, "high\n"));
        add_block("web1", {process(3, 10, 0, checked), process(3, 11, 0, checked)});
        EXPECT_EQ(screen()[1], "web1  1 problem, 1 ok");
        EXPECT_NE(text().find("high"), std::string::npos) << text();
    }
}

TEST_F(table_test, between_a_result_and_its_state_the_old_line_is_shown) {
    add("web1", 1);
    std::string bad = load_record(1, now, 2, "high\n");
    table.take("a@b.c", "web1", now, decode(bad));
    EXPECT_NE(text().find("    load average 1  0s ago   load1 0.5"), std::string::npos) << text();
    EXPECT_EQ(text().find("high"), std::string::npos);
}

TEST_F(table_test, records_that_nobody_knows_are_shown_as_unclear) {
    add_bytes("web1", record_builder{.ui32 = {99}, .strings = {"te\x1bxt"}}.bytes());
    add("web1", 5);
    EXPECT_EQ(screen()[1], "web1  1 of unknown types, 1 ok");
    EXPECT_NE(text().find("  ? type 99         0s ago   unknown type: ui32 99 \"te?xt\""),
              std::string::npos)
        << text();
}

TEST_F(table_test, a_host_that_says_nothing_for_three_polls_is_silent) {
    plan({"POL\t0\t30", "CHK\t0\t30", "LAA\t1" + load_test, "LAA\t2" + load_test});
    add("web1", 1);
    add("web1", 2, 2, "high\n");
    add("web2", 1);
    add("web2", 2);
    now += 90;
    add("web2", 1);
    add("web2", 2);
    EXPECT_EQ(text().find("silent"), std::string::npos);
    now += 1;
    std::vector<std::string> lines = screen();
    EXPECT_EQ(lines[0].substr(0, 49), " 1 host silent, 2 ok - 4 tests on 2 hosts        ");
    EXPECT_EQ(lines[1], "web1  silent for 91s, before that 1 problem, 1 ok");
    EXPECT_EQ(lines[2], "web2  2 ok");
    std::string frame = table.draw({}, now);
    EXPECT_NE(frame.find("\033[31mweb1  silent for 91s"), frame.npos);
    now += 60;
    hear("web2");
    now += 60;
    hear("web1"); /* its results come with the next poll */
    hear("web2");
    EXPECT_EQ(screen()[1], "web1  1 problem, 1 ok");
    EXPECT_EQ(screen()[4], "web2  2 stale");
}

TEST_F(table_test, silence_counts_from_our_own_start) {
    plan({"POL\t0\t60", "CHK\t0\t60", "LAA\t1" + load_test, "LAA\t2" + load_test});
    know("web1", noon - 7200,
         {load_record(1, noon - 7200), load_record(2, noon - 7200, 2, "high\n")});
    EXPECT_EQ(screen()[1], "web1  1 problem, 1 ok, last heard 2h ago");
    EXPECT_NE(text().find("! load average 2  for 2h   high"), std::string::npos) << text();
    now += 180;
    EXPECT_EQ(screen()[1], "web1  1 problem, 1 ok, last heard 2h ago");
    now += 1;
    EXPECT_EQ(screen()[1], "web1  silent for 2h, before that 1 problem, 1 ok");
    now += 86400;
    add("web2", 1, 2, "high\n"); /* what is new comes before a host that is gone for a day */
    EXPECT_EQ(screen()[1], "web2  1 problem");
    EXPECT_EQ(screen()[3], "web1  silent for 26h, before that 1 problem, 1 ok");
}

TEST_F(table_test, what_the_store_has_from_the_future_is_of_now) {
    know("web1", noon + 1000000, {load_record(1, noon + 1000000, 2, "high\n")});
    now += 200;
    EXPECT_EQ(screen()[1], "web1  silent for 3m, before that 1 problem");
}

TEST_F(table_test, a_test_without_a_result_for_three_intervals_is_stale) {
    plan({"POL\t0\t30", "CHK\t0\t60", "LAA\t1" + load_test, "LAA\t2" + load_test,
          "DCA\t3\t1\t192.0.2.1\t192.0.2.9"});
    add("web1", 1);
    add("web1", 2, 2, "high\n");
    add_bytes("web1",
              record_builder{.ui32 = {40, 3, 1}, .i64 = {1}, .d64 = {0}, .strings = {"finished"}}
                  .bytes());
    for (int i = 0; i < 3; i++) {
        now += 60;
        hear("web1");
    }
    EXPECT_EQ(screen()[1], "web1  1 problem, 2 ok");
    now += 1;
    EXPECT_EQ(screen()[1], "web1  2 stale, 1 ok");
    EXPECT_NE(text().find("? load average 2  3m ago   stale, was a problem: high"),
              std::string::npos)
        << text();
    EXPECT_NE(text().find("? load average 1  3m ago   stale, was ok: load1"), std::string::npos)
        << text();
    add("web1", 2, 2, "high\n");
    EXPECT_EQ(screen()[1], "web1  1 problem, 1 stale, 1 ok");
}

TEST_F(table_test, without_an_interval_nothing_is_stale_or_unknown) {
    plan({"POL\t0\t30", "LAA\t1" + load_test, "LAA\t2" + load_test});
    add("web1", 1);
    now += 1000;
    hear("web1");
    EXPECT_EQ(screen()[1], "web1  1 ok");
}

TEST_F(table_test, a_shorter_interval_makes_nothing_stale_before_agents_have_it) {
    plan({"POL\t0\t600", "CHK\t0\t600", "LAA\t1" + load_test});
    add("web1", 1);
    plan({"POL\t0\t10", "CHK\t0\t10", "LAA\t1" + load_test});
    now += 1000;
    EXPECT_EQ(screen()[1], "web1  1 ok");
    now += 801;
    EXPECT_NE(screen()[1].find("silent"), std::string::npos);
}

TEST_F(table_test, a_planned_test_without_any_result_is_unknown_after_a_while) {
    plan({"CHK\t0\t60", "LAA\t1" + load_test, "LAA\t2" + load_test});
    add("web1", 1);
    EXPECT_EQ(screen()[1], "web1  1 ok");
    now += 90;
    add("web1", 1);
    now += 90;
    add("web1", 1);
    EXPECT_EQ(screen()[1], "web1  1 ok");
    now += 1;
    EXPECT_EQ(screen()[1], "web1  1 unknown, 1 ok");
    EXPECT_EQ(screen()[2], "  ? load average 2           unknown: no result yet");
    EXPECT_NE(screen()[0].find(" 1 unknown, 1 ok - 2 tests on 1 host"), std::string::npos);
}

TEST_F(table_test, many_unknown_tests_are_counted_and_the_first_named) {
    std::vector<std::string> lines = {"CHK\t0\t60", "DCA\t3\t1\t192.0.2.1\t192.0.2.9"};
    for (int i = 1; i <= 1000; i++) {
        lines.push_back("LAA\t" + std::to_string(i) + load_test);
    }
    plan(lines);
    for (int i = 0; i < 6; i++, now += 60) {
        add("web1", 2);
    }
    EXPECT_EQ(screen()[1], "web1  999 unknown, 1 ok");
    EXPECT_EQ(screen()[2].substr(0, 20), "  ? load average 1  ");
    EXPECT_EQ(screen()[3].substr(0, 20), "  ? load average 3  ");
    EXPECT_EQ(screen()[23], "... 978 more tests stale or unknown, 1 more test that is ok");
}

TEST_F(table_test, tests_that_leave_the_plan_vanish_whatever_agents_still_send) {
    plan({"CHK\t0\t60", "LAA\t1" + load_test, "LAA\t2" + load_test});
    add("web1", 1);
    add("web1", 2, 2, "high\n");
    plan({"CHK\t0\t60", "LAA\t1" + load_test});
    EXPECT_EQ(text(24, 60), " all ok - 1 test on 1 host                       12:00:00Z\n"
                            "web1  1 ok\n"
                            "    load average 1  0s ago   load1 0.5 load5 0.25 load15 0.\n");
    add("web1", 2, 2, "high\n"); /* was on its way */
    EXPECT_EQ(screen()[1], "web1  1 ok");
    now += 150;
    add("web1", 1);
    add("web1", 2, 2, "high\n"); /* is not */
    EXPECT_EQ(screen()[1], "web1  1 ok, and tests not in the plan");
    now += 150;
    add("web1", 1);
    now += 31;
    EXPECT_EQ(screen()[1], "web1  1 ok");
}

TEST_F(table_test, hosts_of_several_accounts_are_told_apart) {
    add("web1", 1);
    add_bytes("web1", load_record(1, 1, 2, "high\n"), "x@y.z");
    EXPECT_EQ(screen()[1], "web1 (x@y.z)  1 problem");
    EXPECT_EQ(screen()[3], "web1 (a@b.c)  1 ok");
}

TEST_F(table_test, what_does_not_fit_is_counted) {
    for (int i = 0; i < 30; i++) {
        add("web", i, i == 25 ? 2 : 0, i == 25 ? "high\n" : "fine\n");
    }
    std::vector<std::string> lines = screen(10, 80);
    ASSERT_EQ(lines.size(), 10u);
    EXPECT_NE(lines[2].find("! load average 25"), std::string::npos) << lines[2];
    EXPECT_EQ(lines[9], "... 23 more tests that are ok");
    lines = screen(3, 80);
    EXPECT_EQ(lines[1], "web   load average 25: high  load1 0.5 load5 0.25 load15 0.125");
    EXPECT_EQ(lines[2], "... 29 more tests that are ok");
    lines = screen(2, 80);
    EXPECT_EQ(lines[1], "web   load average 25: high  load1 0.5 load5 0.25 load15 0.125");
    EXPECT_EQ(screen(3, 24)[2], "... more: 29 ok");
}

TEST_F(table_test, what_a_host_does_beside_the_plan_is_told_before_what_is_counted_below) {
    std::vector<std::string> lines = {"CHK\t0\t60"};
    for (int i = 1; i <= 20; i++) {
        lines.push_back("LAA\t" + std::to_string(i) + load_test);
    }
    plan(lines);
    now += 150;
    for (int i = 1; i <= 21; i++) {
        add("web1", i, 2, "high\n");
    }
    EXPECT_EQ(screen(10, 80)[1],
              "web1  20 problems, and tests not in the plan (13 more problems not shown)");
}

TEST_F(table_test, each_host_with_problems_has_a_line_before_any_has_many) {
    for (int host = 0; host < 10; host++) {
        for (int i = 0; i < 20; i++) {
            add("web" + std::to_string(host), i, host < 5 && i < 10 ? 2 : 0, "high\n");
        }
    }
    std::vector<std::string> lines = screen(24, 80);
    ASSERT_EQ(lines.size(), 24u);
    EXPECT_NE(lines[0].find(" 50 problems, 150 ok - 200 tests on 10 hosts"), std::string::npos);
    for (int host = 0; host < 5; host++) {
        std::string name = "web" + std::to_string(host);
        size_t own = 0;
        for (const std::string& line : lines) {
            own += line.starts_with(name);
        }
        EXPECT_EQ(own, 1u) << name;
    }
    EXPECT_EQ(lines[1], "web0  10 problems, 10 ok (6 more problems not shown)");
    EXPECT_EQ(lines[23], "... 33 more problems, 150 more tests that are ok, on 5 more hosts");
    lines = screen(5, 80);
    EXPECT_EQ(lines[3].substr(0, 44), "web2  load average: (9 more problems) high  ");
    EXPECT_EQ(lines[4], "... 47 more problems, 150 more tests that are ok, on 7 more hosts");
}

TEST_F(table_test, many_silent_hosts_leave_room_for_problems) {
    plan({"CHK\t0\t60", "LAA\t1" + load_test});
    for (int i = 0; i < 100; i++) {
        add("web" + std::to_string(i), 1);
    }
    now += 200;
    for (int i = 0; i < 5; i++) {
        add("db" + std::to_string(i), 1, 2, "high\n");
    }
    now += 100;
    std::string shown = text(24, 80);
    for (int i = 0; i < 5; i++) {
        EXPECT_NE(shown.find("db" + std::to_string(i) + "   "), shown.npos) << shown;
    }
    EXPECT_EQ(shown.substr(0, 23), " 5 problems, 100 hosts ");
    EXPECT_NE(shown.find("... 83 more hosts that are silent"), shown.npos) << shown;
}

TEST_F(table_test, what_the_collector_says_is_at_the_bottom) {
    add("web1", 5);
    table.say("plan line 3: \033[2Jbad\n", now);
    now += 5;
    table.say("no TLS", now);
    table.say("no TLS", now);
    std::vector<std::string> lines = screen();
    ASSERT_EQ(lines.size(), 5u) << text();
    EXPECT_EQ(lines[3], "* 12:00:00 plan line 3: ?[2Jbad");
    EXPECT_EQ(lines[4], "* 12:00:05 (2 times) no TLS");
    for (int i = 0; i < 100; i++) {
        table.say("line " + std::to_string(i), now);
    }
    lines = screen(10, 80);
    EXPECT_EQ(lines.back(), "* 12:00:05 line 99");
    now += 3601;
    EXPECT_EQ(text().find("line 99"), std::string::npos);
}

TEST_F(table_test, what_the_collector_says_is_broken_into_lines) {
    add("web1", 5);
    table.say("an older one that is long enough not to fit", now);
    table.say("plan line 4: agents that run have it already and keep it just as it was before",
              now);
    std::vector<std::string> lines = screen(24, 40);
    ASSERT_EQ(lines.size(), 8u) << text(24, 40);
    EXPECT_EQ(lines[3], "* 12:00:00 an older one that is long");
    EXPECT_EQ(lines[4], "  enough not to fit");
    EXPECT_EQ(lines[5], "* 12:00:00 plan line 4: agents that run");
    EXPECT_EQ(lines[6], "  have it already and keep it just as");
    EXPECT_EQ(lines[7], "  it was before");
    /* Where there is no room for all of it, the newest one has it. */
    for (int i = 0; i < 40; i++) {
        add("web1", 100 + i);
    }
    lines = screen(20, 40);
    ASSERT_EQ(lines.size(), 20u);
    EXPECT_EQ(lines[16], "* 12:00:00 an older one that is long en");
    EXPECT_EQ(lines[17], "* 12:00:00 plan line 4: agents that run");
    EXPECT_EQ(lines[19], "  it was before");
    lines = screen(10, 40);
    EXPECT_EQ(lines[8], "* 12:00:00 plan line 4: agents that run");
    EXPECT_EQ(lines[9], "  have it already and keep it just as i");
    lines = screen(5, 40);
    EXPECT_EQ(lines[4], "* 12:00:00 plan line 4: agents that run");
}

TEST_F(table_test, fits_any_screen) {
    plan({"CHK\t0\t30", "POL\t0\t30"});
    table = live_table(noon);
    for (int i = 0; i < 100; i++) {
        add("agent \xe6\xbc\xa2 with a long name " + std::to_string(i), i + 1, i % 7 == 0 ? 2 : 0,
            std::string(300, 'm'));
        table.say(std::to_string(i) + std::string(300, 'p'), now);
    }
    for (size_t rows : {1, 2, 3, 4, 5, 10, 24, 200}) {
        for (size_t columns : {1, 2, 5, 20, 40, 80, 1000}) {
            EXPECT_LE(screen(rows, columns).size(), rows);
        }
    }
    std::string plain = table.draw({24, 80, false}, now);
    screen_of(plain, {24, 80, false});
}

TEST_F(table_test, a_narrow_screen_shows_the_id_of_each_test) {
    add("web1", 101);
    add("web1", 102, 2, "bad\n");
    add_bytes("web1",
              record_builder{.ui32 = {66, 2147483647, 7, 0}, .i64 = {1}, .d64 = {0, 0, 0}}.bytes());
    EXPECT_EQ(text(24, 40), " 1 problem, 2 ok             12:00:00Z\n"
                            "web1  1 problem, 2 ok\n"
                            "  ! load aver 102  for 0s   bad  load1\n"
                            "    load aver 101  0s ago   load1 0.5 l\n"
                            "    lo 2147483647  0s ago   load1 0 loa\n");
}

TEST_F(table_test, text_from_agents_cannot_steer_the_terminal) {
    add("\x1b[2J\x9b"
        "evil\n",
        5, 2, "\x1b]0;owned\x07\r\n\xc2\x9b 5m");
    add_bytes("\xe2\x80\xaeweb", load_record(1, 1, 2, "high\n"), "\x1b[31m@b.c");
    table.say("\x1b[1;1Hgotcha", now);
    screen(); /* checks that there is nothing but what we draw with */
}

TEST_F(table_test, invented_tests_cost_bounded_memory_and_hide_no_problem) {
    const size_t bound = 200000;
    table = live_table(noon, bound);
    add("honest", 1, 2, "this is wrong\n");
    add("honest", 2);
    for (uint32_t i = 0; i < 5000; i++) {
        add("liar", i);
        ASSERT_LE(table.bytes(), bound);
    }
    EXPECT_EQ(screen()[2].substr(0, 38), "  ! load average 1   for 0s   this is ") << text();
    EXPECT_NE(screen()[0].find(" 1 problem, 5001 ok - 5002 tests on 2 hosts"), std::string::npos)
        << screen()[0];
    EXPECT_EQ(screen()[23], "... 4982 more tests that are ok");
    for (uint32_t i = 0; i < 5000; i++) { /* not even with problems */
        add("liar", i, 2, "I am ill\n");
        ASSERT_LE(table.bytes(), bound);
    }
    EXPECT_NE(text(1000).find("this is wrong"), std::string::npos);
    EXPECT_NE(screen()[0].find(" more than can be held, "), std::string::npos) << screen()[0];
}

TEST_F(table_test, invented_hosts_cost_bounded_memory_and_drive_out_no_other) {
    const size_t bound = 200000;
    table = live_table(noon, bound);
    table.know("a@b.c", "old", noon - 50000, agent_state{});
    add("honest", 1, 2, "this is wrong\n");
    now++;
    for (uint32_t i = 0; i < 5000; i++) {
        add("liar" + std::to_string(i), 1);
        ASSERT_LE(table.bytes(), bound);
    }
    EXPECT_NE(text(2000).find("this is wrong"), std::string::npos);
    EXPECT_NE(text(2000).find("\nold "), std::string::npos);
    EXPECT_NE(screen(24, 150)[0].find(" hosts more than can be held, "), std::string::npos)
        << screen()[0];
}

TEST_F(table_test, what_is_counted_as_not_held_is_forgotten_when_it_stops) {
    plan({"CHK\t0\t60"});
    table = live_table(noon, 100000);
    for (uint32_t i = 0; i < 1000; i++) {
        add("liar", i);
    }
    EXPECT_NE(screen()[0].find("all ok - 1000 tests on 1 host"), std::string::npos) << screen()[0];
    now += 60;
    screen();
    now += 60;
    EXPECT_EQ(screen()[0].find("1000"), std::string::npos) << screen()[0];
}

/* A record may be as large as a block. */
TEST_F(table_test, a_huge_record_costs_a_line) {
    add("web1", 1, 2, std::string(900000, 'm'));
    add_bytes(
        "web1",
        record_builder{.ui32 = {99}, .strings = std::vector<std::string>(300000, "x")}.bytes());
    std::string part = record_builder{.ui32 = {9, 2}, .strings = {"25", "too high"}}.bytes();
    add_bytes("web1", record_builder{.ui32 = {57, 5, 7, 0, 1},
                                     .i64 = {1},
                                     .d64 = {1},
                                     .strings = {"m"},
                                     .nested = std::vector<std::string>(15000, part)}
                          .bytes());
    EXPECT_LT(table.bytes(), 5000u);
    EXPECT_NE(text(24, 1000).find(" ..."), std::string::npos);
    EXPECT_NE(text().find("too high (and 14999 more)"), std::string::npos) << text();
}

TEST(table, ages) {
    EXPECT_EQ(live::age_text(-5), "0s");
    EXPECT_EQ(live::age_text(99), "99s");
    EXPECT_EQ(live::age_text(100), "1m");
    EXPECT_EQ(live::age_text(5999), "99m");
    EXPECT_EQ(live::age_text(6000), "1h");
    EXPECT_EQ(live::age_text(100 * 3600), "4d");
}

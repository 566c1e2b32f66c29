#include "output.cpp"

#include "collector_test_support.h"

#include <boost/json.hpp>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>

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
    out.on_record({"a@b.c", agent, bytes, noon}, r);
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
        o->on_undecodable({"a@b.c", "web1", "", noon}, 17, 4, "too short for a record",
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

/* The lines that a screen shows after the frame, without colours; checks that nothing leaves it. */
static std::vector<std::string> screen_of(const std::string& frame, screen_size size) {
    std::vector<std::string> lines(1);
    for (size_t i = 0; i < frame.size(); i++) {
        if (frame[i] == '\033') {
            size_t end = frame.find_first_of("HJKmhl", i);
            EXPECT_NE(end, frame.npos);
            EXPECT_EQ(frame[i + 1], '[');
            i = end;
        } else if (frame.substr(i, 2) == "\r\n") {
            lines.emplace_back();
            i++;
        } else {
            EXPECT_GE(static_cast<unsigned char>(frame[i]), 0x20u);
            lines.back() += frame[i];
        }
    }
    EXPECT_LE(lines.size(), size.rows);
    for (std::string& line : lines) {
        EXPECT_LE(display_width(line), size.columns) << line;
        while (line.ends_with(' ')) {
            line.pop_back();
        }
    }
    return lines;
}

struct table_test : testing::Test {
    table_view table{-1};
    std::string unused;

    void add(const std::string& agent, uint32_t test, uint32_t status = 0,
             const std::string& message = "fine\n") {
        std::string bytes = load_record(test, noon, status, message);
        event e{"a@b.c", agent, noon, bytes, ""};
        record r;
        std::string reason;
        ASSERT_TRUE(decode_record(bytes, r, reason));
        table.show_record(e, r, unused);
    }

    std::vector<std::string> screen(screen_size size, int64_t now = noon + 7) {
        std::string frame;
        table.draw(size, now, frame);
        return screen_of(frame, size);
    }
};

TEST_F(table_test, shows_the_last_result_of_each_test) {
    add("web1", 5);
    add("web1", 6, 10, "no answer\n");
    add("db", 5);
    add("web1", 5, 2, "too high\n");
    table.show_problem("plan line 3: bad", unused, unused);
    std::vector<std::string> lines = screen({24, 120});
    ASSERT_EQ(lines.size(), 7u); /* the last is below the problem */
    EXPECT_EQ(lines[0], "vindral-collector  2026-05-01T12:00:07Z  3 tests, 2 not ok");
    EXPECT_EQ(lines[1], "AGENT  TEST            AGE   STATUS               VALUES");
    EXPECT_EQ(lines[2],
              "db     load average 5  7s    ok                   load1 0.5 load5 0.25 load15 "
              "0.125  fine");
    EXPECT_EQ(lines[3],
              "web1   load average 5  7s    limit reached        load1 0.5 load5 0.25 load15 "
              "0.125  too high");
    EXPECT_EQ(lines[4],
              "web1   load average 6  7s    remote query failed  load1 0.5 load5 0.25 load15 "
              "0.125  no answer");
    EXPECT_EQ(lines[5].substr(0, 2), "! ");
    EXPECT_EQ(lines[5].substr(11), "plan line 3: bad");
}

TEST_F(table_test, fits_any_screen) {
    for (int i = 0; i < 100; i++) {
        add("agent \xe6\xbc\xa2 with a long name " + std::to_string(i), i, i % 7 == 0 ? 2 : 0,
            std::string(300, 'm'));
        table.show_problem(std::string(300, 'p'), unused, unused);
    }
    for (size_t rows : {1, 2, 3, 4, 5, 10, 24, 200}) {
        for (size_t columns : {1, 2, 5, 20, 40, 80, 1000}) {
            screen({rows, columns});
        }
    }
}

TEST_F(table_test, what_is_not_ok_comes_first_when_not_all_fits) {
    for (int i = 0; i < 30; i++) {
        add("web", i, i == 25 ? 2 : 0);
    }
    std::vector<std::string> lines = screen({10, 80});
    ASSERT_EQ(lines.size(), 10u);
    EXPECT_NE(lines[2].find("load average 25"), std::string::npos) << lines[2];
    EXPECT_EQ(lines[9], "... and 23 more");
}

TEST_F(table_test, text_from_agents_cannot_steer_the_terminal) {
    add("\x1b[2J\x9b"
        "evil\n",
        5, 2, "\x1b]0;owned\x07\r\n\xc2\x9b 5m");
    table.show_problem("\x1b[1;1Hgotcha", unused, unused);
    screen({24, 100}); /* checks that there is nothing but what we draw with */
}

TEST_F(table_test, the_oldest_give_way_when_there_are_too_many) {
    for (uint32_t i = 0; i < 10005; i++) {
        add("web", i);
    }
    EXPECT_EQ(screen({3, 80})[0], "vindral-collector  2026-05-01T12:00:07Z  10000 tests, 0 not ok");
}

TEST(table, ages) {
    EXPECT_EQ(age_text(-5), "0s");
    EXPECT_EQ(age_text(99), "99s");
    EXPECT_EQ(age_text(100), "1m");
    EXPECT_EQ(age_text(5999), "99m");
    EXPECT_EQ(age_text(6000), "1h");
    EXPECT_EQ(age_text(100 * 3600), "4d");
}

TEST(table, draws_on_a_terminal_of_its_size) {
    winsize size = {.ws_row = 6, .ws_col = 70, .ws_xpixel = 0, .ws_ypixel = 0};
    int master, slave;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
    setenv("TERM", "xterm", 1);
    EXPECT_EQ(choose_output(slave, false), output_kind::table);
    EXPECT_EQ(choose_output(slave, true), output_kind::json);
    setenv("TERM", "dumb", 1);
    EXPECT_EQ(choose_output(slave, false), output_kind::plain);
    std::string text;
    {
        auto o = make_output(output_kind::table, {.fd = slave});
        for (int i = 0; i < 20; i++) {
            show(*o, load_record(i, noon));
        }
        o->on_problem("a problem");
        char piece[4096];
        while (text.find("a problem") == text.npos) {
            ssize_t got = read(master, piece, sizeof(piece));
            ASSERT_GT(got, 0);
            text.append(piece, static_cast<size_t>(got));
        }
    }
    close(slave);
    close(master);
    EXPECT_NE(text.find("20 tests, 0 not ok"), text.npos);
    EXPECT_NE(text.find("... and 18 more"), text.npos);
}

TEST(choose, no_terminal_means_lines) {
    pipe_pair out;
    setenv("TERM", "xterm", 1);
    EXPECT_EQ(choose_output(out.writer(), false), output_kind::plain);
    EXPECT_EQ(choose_output(out.writer(), true), output_kind::json);
}

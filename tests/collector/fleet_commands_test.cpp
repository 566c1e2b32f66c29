#include "fleet/assigned.h"

#include "fleet_tests.h"
#include "plan/line.h"
#include "plan/placeholder.h"

namespace {

const std::vector<std::string_view> all_kinds = {"load",    "cpu",        "memory", "disk",
                                                 "process", "network",    "ping",   "http",
                                                 "snmp",    "snmp table", "mysql",  "discovery"};

strings lines_of(const std::string& text) {
    strings lines;
    for (size_t from = 0, end; (end = text.find('\n', from)) != text.npos; from = end + 1) {
        lines.push_back(text.substr(from, end - from));
    }
    EXPECT_TRUE(text.empty() || text.ends_with('\n'));
    return lines;
}

/* "LAA 1", code and id, of each line. */
strings short_of(const std::string& text) {
    strings all;
    for (const std::string& line : lines_of(text)) {
        EXPECT_EQ(why_refused(line, parse_line(line)), "") << line;
        all.push_back(line.substr(0, 3) + " " + line.substr(4, line.find('\t', 4) - 4));
    }
    return all;
}

struct fleet_commands : testing::Test {
    assigned_agent now;
    std::map<std::string, std::string, std::less<>> secrets;
    std::map<std::string, uint64_t, std::less<>> serials;
    uint64_t serial = 0;
    int32_t revision = 0;
    fleet_intervals intervals;
    agent_inventory has = {.file_systems = strings{"/(/dev/sda1|ext4)"},
                           .interfaces = strings{"eth0"}};
    bool proven = true;

    void apply(const std::vector<test_maker>& tests) {
        fleet all = fleet_of(of(tests));
        all.intervals = intervals;
        assign(now, wanted_of(all, "me", "web-1", has, now.found()), ++revision,
               [this](std::string_view name) -> uint64_t {
                   auto found = serials.find(name);
                   return found != serials.end() ? found->second : 0;
               });
    }
    void set(const std::string& name, const std::string& value) {
        secrets[name] = value;
        serials[name] = ++serial;
    }
    void unset(const std::string& name) {
        secrets.erase(name);
        serials.erase(name);
    }
    expand_function expand = [this](std::string_view line) -> std::optional<std::string> {
        std::string text;
        placeholder at;
        size_t from = 0;
        for (; find_placeholder(line, from, at); from = at.end) {
            auto found = secrets.find(at.name);
            if (found == secrets.end()) {
                return std::nullopt;
            }
            text += line.substr(from, at.begin - from);
            text += found->second;
        }
        return text += line.substr(from);
    };
    std::string after(int32_t from) { return commands_after(now, from, proven, expand); }
    std::string login(bool has_run) { return commands_for_login(now, has_run, proven, expand); }
};

test_maker load(std::string name) {
    return test_maker(std::move(name), "load");
}

} // namespace

TEST_F(fleet_commands, no_agent_refuses_a_line_of_any_kind) {
    std::vector<test_maker> tests, changed;
    for (std::string_view kind : all_kinds) {
        tests.emplace_back(std::string(kind), kind);
        changed.emplace_back(std::string(kind), kind);
    }
    ASSERT_EQ(test_kinds().size(), all_kinds.size()) << "each kind is tried";
    apply(tests);
    std::string added = login(false);
    EXPECT_EQ(short_of(added).size(), all_kinds.size() + 2);
    EXPECT_EQ(after(0), added);
    const strings lines = lines_of(added);
    for (const test_kind& kind : test_kinds()) {
        const assigned_test* test = now.find(kind.word);
        ASSERT_NE(test, nullptr) << kind.word;
        command_line line;
        for (const std::string& text : lines) {
            if (text.starts_with(kind.add->code)) {
                line = parse_line(text);
            }
        }
        ASSERT_FALSE(line.fields.empty()) << kind.word;
        EXPECT_EQ(line.fields.size(), test->its_fields().size() + 3);
        EXPECT_EQ(line.fields[1], std::to_string(test->number));
        EXPECT_EQ(line.fields[2], "1") << "the location id is the revision";
    }
    for (test_maker& maker : changed) {
        maker.test.fields.back() += "1";
    }
    apply(changed);
    for (std::string_view kind : all_kinds) {
        EXPECT_NE(after(1).find(std::string(find_kind(kind)->modify->code) + "\t"),
                  std::string::npos)
            << kind;
    }
    EXPECT_EQ(short_of(after(1)).size(), all_kinds.size());
    EXPECT_EQ(short_of(login(true)).size(), 2 * all_kinds.size() + 2);
    EXPECT_EQ(short_of(commands_for_check(now, true, expand)).size(), all_kinds.size() - 1);
    apply({});
    EXPECT_EQ(short_of(after(2)).size(), all_kinds.size());
    for (std::string_view kind : all_kinds) {
        EXPECT_NE(after(2).find(std::string(find_kind(kind)->remove->code) + "\t"),
                  std::string::npos)
            << kind;
    }
    EXPECT_EQ(lines_of(after(2))[0].find("\t0\t"), std::string::npos);
}

TEST_F(fleet_commands, lines_say_what_the_test_is) {
    intervals = {.poll = 30, .check = 45};
    apply({load("a"), test_maker("d", "disk")});
    EXPECT_EQ(login(false), "POL\t0\t30\nCHK\t0\t45\nLAA\t1\t1\t8\t6\t4\n"
                            "DKA\t2\t1\t/(/dev/sda1|ext4)\t5\n");
    apply({load("a").field(0, "9")});
    EXPECT_EQ(after(1), "DKD\t2\t0\nLAM\t1\t2\t9\t6\t4\n");
    EXPECT_EQ(after(2), "");
    EXPECT_EQ(after(3), "");
}

TEST_F(fleet_commands, only_what_is_newer_goes_out) {
    apply({load("a"), load("b"), load("c")});
    apply({load("a"), load("b").field(0, "9"), load("d")});
    EXPECT_EQ(short_of(after(1)), (strings{"LAD 3", "LAM 2", "LAA 4"}));
    EXPECT_EQ(short_of(after(0)),
              (strings{"LAD 3", "POL 0", "CHK 0", "LAA 1", "LAA 2", "LAM 2", "LAA 4"}))
        << "what was added and changed since: the addition may have arrived";
    EXPECT_EQ(after(2), "");
}

TEST_F(fleet_commands, an_interval_goes_out_alone) {
    apply({load("a")});
    intervals.poll = 30;
    apply({load("a")});
    EXPECT_EQ(after(1), "POL\t0\t30\n");
    intervals.check = 20;
    apply({load("a")});
    EXPECT_EQ(after(2), "CHK\t0\t20\n");
    EXPECT_EQ(after(1), "POL\t0\t30\nCHK\t0\t20\n");
}

TEST_F(fleet_commands, a_rename_needs_no_command) {
    apply({load("a")});
    apply({load("b").was("a")});
    EXPECT_EQ(after(1), "");
}

TEST_F(fleet_commands, one_that_ran_is_put_right) {
    apply({load("a"), load("b"), load("c"), load("d")});
    apply({load("a"), load("b").field(0, "9"), load("c").field(0, "9")});
    now.find("a")->confirmed = 1;
    now.find("b")->confirmed = 2;
    now.find("c")->confirmed = 1;
    EXPECT_EQ(short_of(login(true)),
              (strings{"LAD 4", "POL 0", "CHK 0", "LAA 1", "LAA 2", "LAA 3", "LAM 3"}));
    EXPECT_EQ(short_of(login(false)), (strings{"POL 0", "CHK 0", "LAA 1", "LAA 2", "LAA 3"}));
    now.removed[0].is_over = true;
    EXPECT_EQ(short_of(login(true))[0], "POL 0");
}

TEST_F(fleet_commands, what_an_agent_would_log_as_an_error_is_not_sent_without_need) {
    apply({test_maker("n", "network"), test_maker("p", "process"), test_maker("d", "disk")});
    for (assigned_test& test : now.tests) {
        test.confirmed = 1;
    }
    EXPECT_EQ(short_of(login(true)),
              (strings{"POL 0", "CHK 0", "DKA 1", "NTD 2", "NTA 2", "PRD 3", "PRA 3"}));
    now.find("p")->confirmed = 0;
    EXPECT_EQ(short_of(login(true)),
              (strings{"POL 0", "CHK 0", "DKA 1", "NTD 2", "NTA 2", "PRA 3", "PRM 3"}));
}

TEST_F(fleet_commands, a_scan_is_not_begun_again) {
    auto scan = [](const char* end) { return test_maker("s", "discovery").field(1, end); };
    apply({scan("10.0.0.9")});
    EXPECT_EQ(short_of(login(true)), (strings{"POL 0", "CHK 0", "DCA 1"}));
    now.find("s")->confirmed = 1;
    EXPECT_EQ(short_of(login(true)), (strings{"POL 0", "CHK 0"}));
    EXPECT_EQ(short_of(login(false)), (strings{"POL 0", "CHK 0", "DCA 1"}));
    EXPECT_EQ(commands_for_check(now, true, expand), "");
    EXPECT_EQ(short_of(commands_for_test(now, *now.find("s"), true, expand)), strings{"DCA 1"});
    apply({scan("10.0.0.99")});
    EXPECT_EQ(after(1), "DCM\t1\t2\t10.0.0.1\t10.0.0.99\n");
    EXPECT_EQ(short_of(login(true)), (strings{"POL 0", "CHK 0", "DCA 1", "DCM 1"}))
        << "whether the other range was begun is not known";
    now.find("s")->confirmed = 2;
    EXPECT_EQ(short_of(login(true)), (strings{"POL 0", "CHK 0"}));
    apply({});
    EXPECT_EQ(after(2), "DCR\t1\n");
}

TEST_F(fleet_commands, a_test_is_put_right_by_adding_and_changing) {
    apply({load("a")});
    EXPECT_EQ(short_of(commands_for_test(now, *now.find("a"), true, expand)),
              (strings{"LAA 1", "LAM 1"}));
}

TEST_F(fleet_commands, what_is_impossible_is_not_sent) {
    apply({test_maker("x", "disk").at("/x"), load("a")});
    EXPECT_EQ(short_of(after(0)), (strings{"POL 0", "CHK 0", "LAA 1"}));
    EXPECT_EQ(short_of(login(true)), (strings{"POL 0", "CHK 0", "LAA 1", "LAM 1"}));
    EXPECT_EQ(commands_for_test(now, *now.find("x"), true, expand), "");
}

TEST_F(fleet_commands, secrets_go_to_those_who_have_proven_who_they_are) {
    set("db", "pass word");
    apply({test_maker("q", "mysql").field(4, "${secret:db}"), load("a")});
    EXPECT_EQ(after(0), "POL\t0\t60\nCHK\t0\t60\nLAA\t1\t1\t8\t6\t4\n"
                        "MQA\t2\t1\tlocalhost\t0\t/run/my.sock\tmonitor\tpass word\tUptime\t5\n");
    proven = false;
    EXPECT_EQ(short_of(after(0)), (strings{"POL 0", "CHK 0", "LAA 1"}));
    EXPECT_EQ(short_of(login(true)), (strings{"POL 0", "CHK 0", "LAA 1", "LAM 1"}));
    EXPECT_EQ(short_of(commands_for_check(now, proven, expand)), strings{"LAM 1"});
    EXPECT_EQ(commands_for_test(now, *now.find("q"), proven, expand), "");
    apply({});
    EXPECT_EQ(short_of(after(1)), (strings{"LAD 1", "MQD 2"})) << "a removal goes to everybody";
}

TEST_F(fleet_commands, another_value_is_a_change) {
    set("db", "one");
    apply({test_maker("q", "mysql").field(4, "${secret:db}")});
    now.find("q")->confirmed = 1;
    set("db", "two");
    apply({test_maker("q", "mysql").field(4, "${secret:db}")});
    EXPECT_EQ(after(1), "MQM\t1\t2\tlocalhost\t0\t/run/my.sock\tmonitor\ttwo\tUptime\t5\n");
}

TEST_F(fleet_commands, what_comes_back_is_added_and_changed) {
    set("db", "one");
    auto all = [] {
        return std::vector<test_maker>{test_maker("q", "mysql").field(4, "${secret:db}")};
    };
    apply(all());
    now.find("q")->confirmed = 1;
    unset("db");
    apply(all());
    EXPECT_EQ(after(1), "");
    EXPECT_EQ(short_of(login(true)), (strings{"POL 0", "CHK 0"})) << "it keeps what it has";
    set("db", "one");
    apply(all());
    EXPECT_EQ(short_of(after(1)), (strings{"MQA 1", "MQM 1"}))
        << "an agent that was started meanwhile does not have it";
    EXPECT_EQ(after(3), "");
    now.find("q")->confirmed = 3;
    set("db", "two");
    apply(all());
    EXPECT_EQ(short_of(after(3)), strings{"MQM 1"});
}

TEST_F(fleet_commands, a_value_never_becomes_a_field_or_a_line) {
    for (const std::string& value : strings{"a\tb", "a\nPOL\t0\t1", "a\rb", std::string("a\0b", 3),
                                            "a\x1b", "\x7f", std::string(70000, 'x')}) {
        set("db", value);
        apply({test_maker("q", "mysql").field(4, "${secret:db}"), load("a")});
        for (const std::string& text :
             {login(false), login(true), after(0), commands_for_check(now, true, expand)}) {
            EXPECT_EQ(text.find("MQ"), text.npos) << value;
            EXPECT_NE(text.find("LA"), text.npos) << "the others are";
            short_of(text);
        }
    }
    set("db", "${secret:db}");
    apply({test_maker("q", "mysql").field(4, "${secret:db}")});
    EXPECT_NE(after(0).find("monitor\t${secret:db}\tUptime"), std::string::npos)
        << "a value is not looked at again";
}

TEST_F(fleet_commands, a_line_is_64_kib_at_the_most) {
    set("db", "x");
    auto page = [](size_t length) {
        return test_maker("q", "http").field(3, std::string(length, 'y')).field(6, "${secret:db}");
    };
    apply({page(100)});
    size_t rest = lines_of(after(0)).back().size() - 100;
    for (size_t more : {0u, 1u}) {
        apply({page(longest_plan_line - rest + more)});
        EXPECT_EQ(after(0).find("HPA") == std::string::npos, more == 1);
        short_of(after(0));
    }
    apply({test_maker("q", "http").field(3, std::string(70000, 'y'))});
    EXPECT_EQ(after(0).find("HPA"), std::string::npos);
}

TEST_F(fleet_commands, what_was_kept_back_for_its_value_comes_once_that_can_be_sent) {
    set("db", "a\tb");
    apply({test_maker("q", "mysql").field(4, "${secret:db}")});
    EXPECT_EQ(after(0).find("MQA"), std::string::npos);
    set("db", "ab");
    apply({test_maker("q", "mysql").field(4, "${secret:db}")});
    EXPECT_EQ(short_of(after(1)), (strings{"MQA 1", "MQM 1"}));
}

TEST_F(fleet_commands, after_a_restart_only_what_is_known_is_sent) {
    apply({load("a"), load("b")});
    apply({load("a")});
    std::string packed;
    now.pack(packed);
    ASSERT_TRUE(now.unpack(packed));
    EXPECT_EQ(short_of(login(true)), (strings{"LAD 2", "POL 0", "CHK 0"}));
    apply({load("a")});
    EXPECT_EQ(short_of(login(true)), (strings{"LAD 2", "POL 0", "CHK 0", "LAA 1", "LAM 1"}));
}

TEST_F(fleet_commands, what_nobody_gave_is_removed) {
    now.removed.push_back({.type = protocol::snmp_table.code, .number = 9, .revision = 5});
    now.removed.push_back({.type = 4711, .number = 9, .revision = 5});
    now.removed.push_back({.type = protocol::http.code, .number = 3, .revision = 5});
    now.newest = 5;
    EXPECT_EQ(after(4), "STD\t9\t0\nHPD\t3\n");
    EXPECT_EQ(after(5), "");
}

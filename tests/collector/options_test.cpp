#include "life/options.h"

#include <gtest/gtest.h>

struct parsed {
    options o;
    options_result result;
    std::string text;
};

static parsed parse(std::vector<std::string> words) {
    words.insert(words.begin(), "vindral-collector");
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    parsed p;
    p.result = parse_options(int(words.size()), argv.data(), p.o, p.text);
    return p;
}

static void expect_wrong(std::vector<std::string> words, const std::string& reason) {
    parsed p = parse(std::move(words));
    EXPECT_EQ(p.result, options_result::wrong);
    EXPECT_EQ(p.text, "vindral-collector: " + reason + "\nTry 'vindral-collector --help'.\n");
}

TEST(collector_options, defaults) {
    parsed p = parse({});
    EXPECT_EQ(p.result, options_result::run);
    EXPECT_EQ(p.o.listen, "127.0.0.1");
    EXPECT_EQ(p.o.port, 8443);
    EXPECT_EQ(p.o.state_dir, "/var/lib/vindral-collector");
    EXPECT_EQ(p.o.does, task::collect);
    EXPECT_EQ(p.o.keep_days, 14);
    EXPECT_EQ(p.o.keep_5min_days, 90);
    EXPECT_EQ(p.o.keep_hour_days, 730);
    EXPECT_EQ(p.o.keep_event_days, 0);
    EXPECT_EQ(p.o.keep_ledger_days, 730);
    EXPECT_EQ(p.o.keep_change_days, 90);
    EXPECT_EQ(p.o.max_body_mb, 16u);
    EXPECT_TRUE(p.o.plan.empty() && p.o.cert.empty() && p.o.key.empty() && p.o.allow.empty());
    EXPECT_FALSE(p.o.end_refused);
    EXPECT_FALSE(p.o.json || p.o.problems || p.o.quiet || p.o.missing);
}

TEST(collector_options, all_of_them) {
    parsed p = parse({"--listen",
                      "::1",
                      "--port",
                      "0",
                      "--port-file=pf",
                      "--state-dir",
                      "sd",
                      "--plan",
                      "pl",
                      "--cert",
                      "c",
                      "--key",
                      "k",
                      "--end-refused",
                      "--allow",
                      "a@b.c",
                      "--allow",
                      "d@e.f",
                      "--json",
                      "--quiet",
                      "--keep-days",
                      "0",
                      "--keep-5min-days",
                      "1",
                      "--keep-hour-days",
                      "2",
                      "--keep-event-days",
                      "3",
                      "--keep-ledger-days",
                      "4",
                      "--keep-change-days",
                      "5",
                      "--max-connections",
                      "7",
                      "--max-per-address",
                      "3",
                      "--max-body-mb",
                      "2",
                      "--max-behind",
                      "3",
                      "--max-logins",
                      "50",
                      "--missing",
                      "--older-than",
                      "15m"});
    EXPECT_EQ(p.result, options_result::run) << p.text;
    EXPECT_EQ(p.o.older_than, 900);
    EXPECT_EQ(p.o.listen, "::1");
    EXPECT_EQ(p.o.port, 0);
    EXPECT_EQ(p.o.port_file, "pf");
    EXPECT_EQ(p.o.state_dir, "sd");
    EXPECT_EQ(p.o.plan, "pl");
    EXPECT_EQ(p.o.cert, "c");
    EXPECT_EQ(p.o.key, "k");
    EXPECT_EQ(p.o.allow, (std::vector<std::string>{"a@b.c", "d@e.f"}));
    EXPECT_TRUE(p.o.end_refused);
    EXPECT_TRUE(p.o.json && p.o.quiet && p.o.missing);
    EXPECT_EQ(p.o.keep_days, 0);
    EXPECT_EQ(p.o.keep_5min_days, 1);
    EXPECT_EQ(p.o.keep_hour_days, 2);
    EXPECT_EQ(p.o.keep_event_days, 3);
    EXPECT_EQ(p.o.keep_ledger_days, 4);
    EXPECT_EQ(p.o.keep_change_days, 5);
    EXPECT_EQ(p.o.max_connections, 7u);
    EXPECT_EQ(p.o.max_per_address, 3u);
    EXPECT_EQ(p.o.max_body_mb, 2u);
    EXPECT_EQ(p.o.max_behind, 3);
    EXPECT_EQ(p.o.max_logins, 50u);
}

TEST(collector_options, agents_are_let_in_by_one_of_three_modes) {
    EXPECT_EQ(parse({}).o.agents, agents_mode::any);
    EXPECT_EQ(parse({"--agents", "any"}).o.agents, agents_mode::any);
    EXPECT_EQ(parse({"--agents", "known"}).o.agents, agents_mode::known);
    EXPECT_EQ(parse({"--agents=proven"}).o.agents, agents_mode::proven);
    for (const char* wrong : {"", "all", "Proven", "proven "}) {
        expect_wrong({"--agents", wrong},
                     "--agents takes any, known or proven, not \"" + std::string(wrong) + "\"");
    }
    expect_wrong({"authority", "--agents", "known"}, "--agents does not go with authority");
}

TEST(collector_options, the_exchange_of_authorities) {
    parsed p = parse({"authority", "--state-dir", "sd"});
    EXPECT_EQ(p.result, options_result::run) << p.text;
    EXPECT_EQ(p.o.does, task::show_authorities);
    EXPECT_EQ(p.o.state_dir, "sd");
    for (const char* whose : {"agents", "server"}) {
        p = parse({"authority", "renew", whose});
        EXPECT_EQ(p.result, options_result::run) << p.text;
        EXPECT_EQ(p.o.does, task::renew_authority);
        EXPECT_EQ(p.o.whose, whose);
        p = parse({"authority", "finish", whose});
        EXPECT_EQ(p.o.does, task::finish_authority);
        EXPECT_EQ(p.o.whose, whose);
        EXPECT_FALSE(p.o.force);
        p = parse({"authority", "--force", "finish", whose});
        EXPECT_EQ(p.result, options_result::run) << p.text;
        EXPECT_TRUE(p.o.force);
    }
    expect_wrong({"authority", "renew"}, "authority renew needs agents or server");
    expect_wrong({"authority", "finish", ""}, "authority finish needs agents or server");
    expect_wrong({"authority", "finish", "all"}, "authority takes agents or server, not \"all\"");
    expect_wrong({"authority", "agents"}, "unexpected argument \"agents\"");
    expect_wrong({"authority", "renew", "agents", "server"}, "unexpected argument \"server\"");
    expect_wrong({"authority", "renew", "agents", "--force"},
                 "--force does not go with authority renew");
    expect_wrong({"authority", "--force"}, "--force does not go with authority");
    expect_wrong({"--force"}, "--force needs authority finish");
}

TEST(collector_options, of_json_and_problems_the_later_one_counts) {
    parsed p = parse({"--problems", "--json"});
    EXPECT_TRUE(p.o.json && !p.o.problems);
    p = parse({"--json", "--problems"});
    EXPECT_TRUE(!p.o.json && p.o.problems);
}

TEST(collector_options, help_and_version_end_at_once) {
    parsed p = parse({"--help", "--port", "x"});
    EXPECT_EQ(p.result, options_result::done);
    EXPECT_EQ(p.text.substr(0, p.text.find("Collection")),
              "Usage: vindral-collector [OPTION]...\n"
              "       vindral-collector --missing [--plan FILE] [--older-than DURATION]\n"
              "       vindral-collector backup FILE\n"
              "       vindral-collector restore FILE [--replace]\n"
              "       vindral-collector check\n"
              "       vindral-collector token add NAME --role ROLE\n"
              "       vindral-collector token list\n"
              "       vindral-collector token remove NAME\n"
              "       vindral-collector link [--role ROLE]\n"
              "       vindral-collector authority\n"
              "       vindral-collector authority renew agents|server\n"
              "       vindral-collector authority finish agents|server [--force]\n");
    p = parse({"--version"});
    EXPECT_EQ(p.result, options_result::done);
    EXPECT_EQ(p.text.substr(0, 18), "vindral-collector ");
    EXPECT_EQ(p.text.back(), '\n');
}

TEST(collector_options, mistakes_are_named) {
    expect_wrong({"--port", "65536"}, "--port takes a number from 0 to 65535, not \"65536\"");
    expect_wrong({"--port", "-1"}, "--port takes a number from 0 to 65535, not \"-1\"");
    expect_wrong({"--port", "84x"}, "--port takes a number from 0 to 65535, not \"84x\"");
    expect_wrong({"--port="}, "--port takes a number from 0 to 65535, not \"\"");
    expect_wrong({"--port"}, "--port needs a value");
    expect_wrong({"--keep-days", "-1"}, "--keep-days takes a number from 0 to 36500, not \"-1\"");
    expect_wrong({"--max-connections", "0"},
                 "--max-connections takes a number from 1 to 1000000, not \"0\"");
    expect_wrong({"--max-behind", "16"}, "--max-behind takes a number from 1 to 15, not \"16\"");
    expect_wrong({"--max-logins", "0"}, "--max-logins takes a number from 1 to 100000, not \"0\"");
    expect_wrong({"--json", "--colour"}, "unknown option --colour");
    expect_wrong({"--json", "-x"}, "unknown option -x");
    expect_wrong(
        {"--json", "here"},
        "unexpected argument \"here\"; the commands are backup, restore, check, token, link, "
        "authority");
    expect_wrong({"--allow", ""}, "--allow takes an e-mail address");
    expect_wrong({"--end-refused"}, "--end-refused needs --allow");
    expect_wrong({"--cert", "c"}, "--cert and --key belong together");
    expect_wrong({"--key", "k"}, "--cert and --key belong together");
    EXPECT_TRUE(parse({"--missing"}).o.missing);
    expect_wrong({"--older-than", "1h"}, "--older-than needs --missing");
}

TEST(collector_options, days_to_keep_may_be_minus_nothing) {
    EXPECT_EQ(parse({"--keep-days", "-0"}).o.keep_days, 0);
    expect_wrong({"--port", "-0"}, "--port takes a number from 0 to 65535, not \"-0\"");
}

TEST(collector_options, durations_have_a_unit) {
    auto seconds = [](const char* text) {
        return parse({"--missing", "--plan", "p", "--older-than", text}).o.older_than;
    };
    EXPECT_EQ(seconds("90s"), 90);
    EXPECT_EQ(seconds("15m"), 900);
    EXPECT_EQ(seconds("2h"), 7200);
    EXPECT_EQ(seconds("1d"), 86400);
    EXPECT_EQ(seconds("36500d"), int64_t{36500} * 86400);
    for (const char* wrong : {"", "15", "m", "0m", "-1h", "1.5h", "2h30m", "1w", "1 d", "36501d",
                              "99999999999999999999d", "9223372036854775807d"}) {
        expect_wrong({"--missing", "--plan", "p", "--older-than", wrong},
                     "--older-than takes a number and a unit, as 90s, 15m, 2h or 1d, not \"" +
                         std::string(wrong) + "\"");
    }
}

TEST(collector_options, the_limit_of_connections_follows_the_descriptors) {
    EXPECT_EQ(default_connections(1024), 960u);
    EXPECT_EQ(default_connections(1048576), 10000u);
    EXPECT_EQ(default_connections(20), 16u);
}

TEST(collector_options, commands) {
    parsed p = parse({"backup", "file", "--state-dir", "sd"});
    EXPECT_EQ(p.result, options_result::run) << p.text;
    EXPECT_EQ(p.o.does, task::back_up);
    EXPECT_EQ(p.o.file, "file");
    EXPECT_EQ(p.o.state_dir, "sd");
    p = parse({"--state-dir", "sd", "restore", "--replace", "file"});
    EXPECT_EQ(p.o.does, task::restore);
    EXPECT_EQ(p.o.file, "file");
    EXPECT_TRUE(p.o.replace);
    EXPECT_FALSE(parse({"restore", "file"}).o.replace);
    p = parse({"check"});
    EXPECT_EQ(p.o.does, task::check);
    EXPECT_EQ(p.o.state_dir, "/var/lib/vindral-collector");
    EXPECT_EQ(parse({"backup", "--", "--file"}).o.file, "--file");
    EXPECT_EQ(parse({"backup", "--help"}).result, options_result::done);
}

TEST(collector_options, where_the_api_is) {
    parsed p = parse({});
    EXPECT_EQ(p.o.web_address, "127.0.0.1");
    EXPECT_EQ(p.o.web_port, 8080);
    EXPECT_FALSE(p.o.web_given);
    p = parse({"--web", "[::1]:0", "--web-port-file", "wf"});
    EXPECT_EQ(p.o.web_address, "::1");
    EXPECT_EQ(p.o.web_port, 0);
    EXPECT_TRUE(p.o.web_given);
    EXPECT_EQ(p.o.web_port_file, "wf");
    EXPECT_EQ(parse({"--web", "0.0.0.0:443"}).o.web_port, 443);
    p = parse({"--web=off"});
    EXPECT_EQ(p.o.web_address, "");
    EXPECT_TRUE(p.o.web_given);
    for (const char* wrong :
         {"", "on", ":8080", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:x",
          "127.0.0.1:80 ", "::1:8080", "[::1]", "[127.0.0.1]:80", "[::1:80", "a b:80"}) {
        expect_wrong({"--web", wrong},
                     "--web takes an address and a port, as 127.0.0.1:8080 or [::1]:8080, or off, "
                     "not \"" +
                         std::string(wrong) + "\"");
    }
}

TEST(collector_options, tokens_and_links) {
    parsed p = parse({"token", "add", "my script", "--role", "viewer", "--state-dir", "sd"});
    EXPECT_EQ(p.result, options_result::run) << p.text;
    EXPECT_EQ(p.o.does, task::add_token);
    EXPECT_EQ(p.o.token, "my script");
    EXPECT_EQ(p.o.role, "viewer");
    EXPECT_EQ(parse({"token", "list"}).o.does, task::list_tokens);
    p = parse({"token", "remove", "a"});
    EXPECT_EQ(p.o.does, task::remove_token);
    EXPECT_EQ(p.o.token, "a");
    p = parse({"link", "--web", "127.0.0.1:99"});
    EXPECT_EQ(p.o.does, task::make_link);
    EXPECT_EQ(p.o.role, "");
    EXPECT_EQ(p.o.web_port, 99);
    expect_wrong({"token"}, "token needs add, list or remove");
    expect_wrong({"token", "make", "x"}, "token needs add, list or remove");
    expect_wrong({"token", "add"}, "token add needs a name");
    expect_wrong({"token", "remove", ""}, "token remove needs a name");
    expect_wrong({"token", "list", "x"}, "unexpected argument \"x\"");
    expect_wrong({"token", "add", "x", "y"}, "unexpected argument \"y\"");
    expect_wrong({"token", "add", "x"}, "token add needs --role viewer, operator or admin");
    expect_wrong({"token", "add", "x", "--role", "root"},
                 "--role takes viewer, operator or admin, not \"root\"");
    expect_wrong({"token", "list", "--role", "admin"}, "--role does not go with token list");
    expect_wrong({"token", "list", "--web", "off"}, "--web does not go with token list");
    expect_wrong({"--role", "admin"}, "--role needs token add or link");
}

TEST(collector_options, mistakes_with_commands_are_named) {
    expect_wrong({"backup"}, "backup needs a file");
    expect_wrong({"restore", ""}, "restore needs a file");
    expect_wrong({"backup", "a", "b"}, "unexpected argument \"b\"");
    expect_wrong({"check", "a"}, "unexpected argument \"a\"");
    expect_wrong({"backups", "a"},
                 "unexpected argument \"backups\"; the commands are backup, restore, check, token, "
                 "link, authority");
    expect_wrong({"backup", "a", "--replace"}, "--replace does not go with backup");
    expect_wrong({"check", "--plan", "p"}, "--plan does not go with check");
    expect_wrong({"--replace"}, "--replace needs restore");
}

TEST(collector_options, names) {
    EXPECT_EQ(parse({"--name", "a.example", "--name=192.0.2.1"}).o.names,
              (std::vector<std::string>{"a.example", "192.0.2.1"}));
    expect_wrong({"--name", "a b"}, "--name takes a host name or an address, not \"a b\"");
    expect_wrong({"--name", ""}, "--name takes a host name or an address, not \"\"");
    expect_wrong({"--cert", "c", "--key", "k", "--name", "a"},
                 "--name is for a certificate that is made, not for --cert");
}

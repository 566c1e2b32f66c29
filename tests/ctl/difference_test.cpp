#include "ctl/difference.h"
#include "ctl/text.h"

#include <gtest/gtest.h>
#include <sstream>

namespace json = boost::json;

namespace {

json::object read(const std::string& text) {
    return json::parse(text).as_object();
}

std::string agent(const std::string& name, const std::string& changes,
                  const std::string& account = "a@b.c") {
    return R"({"agent": {"id": 1, "account": ")" + account + R"(", "name": ")" + name +
           R"("}, "groups": [], "poll": 60, "check": 60, "about": null, "changes": [)" + changes +
           "]}";
}

std::string change(const std::string& action, const std::string& test, const std::string& type,
                   const std::string& more = "") {
    return R"({"test": ")" + test + R"(", "was": null, "action": ")" + action + R"(", "type": ")" +
           type + R"(", "number": 4, "impossible": null, "reason": null, "fields": [])" +
           (more.empty() ? "" : ", ") + more + "}";
}

json::object outcome(const std::vector<std::string>& agents, const std::string& more = "0") {
    std::string all;
    for (const std::string& each : agents) {
        all += (all.empty() ? "" : ", ") + each;
    }
    json::object read_back = read(R"({"revision": 7, "same": false, "agents": [)" + all +
                                  R"(], "more": )" + more + R"(, "notes": [], "summary": {}})");
    return read_back;
}

/* The later of two members of a name counts. */
std::string field(const std::string& name, const std::string& from, const std::string& to) {
    auto quoted = [](const std::string& text) {
        return text.empty() ? "null" : "\"" + text + "\"";
    };
    return R"({"name": ")" + name + R"(", "from": )" + quoted(from) + R"(, "to": )" + quoted(to) +
           "}";
}

std::string fields(const std::string& all) {
    return "\"fields\": [" + all + "]";
}

const screen file, wide{.width = 80, .ascii = true, .color = false},
    narrow{.width = 40, .ascii = true, .color = false},
    colored{.width = 80, .ascii = true, .color = true};

} // namespace

TEST(difference, nothing) {
    EXPECT_EQ(difference_text(outcome({}), wide), "");
    EXPECT_EQ(difference_text({}, wide), "");
    EXPECT_FALSE(makes_difference({}));
    EXPECT_EQ(difference_summary(read(R"({"summary": {"agents": 3, "unchanged": 12}})")),
              "no test changes; 12 tests as before");
}

TEST(difference, what_agents_have_in_common_stands_once) {
    const std::string front = change(
        "add", "front page", "http",
        fields(field("http", "", "https://shop.example.org/") + "," + field("within", "", "5s")));
    const std::string disk =
        change("change", "root disk", "disk", fields(field("free", "5 GB", "10 %")));
    const std::string text = difference_text(
        outcome({agent("web-1", front + "," + disk), agent("web-2", front + "," + disk),
                 agent("web-3", front + "," + change("remove", "old", "process"))}),
        wide);
    EXPECT_EQ(text, "web-1, web-2 and web-3:\n"
                    "  + front page  http https://shop.example.org/, within 5s\n"
                    "web-1 and web-2:\n"
                    "  ~ root disk   disk: free 5 GB -> 10 %\n"
                    "web-3:\n"
                    "  - old         process\n");
}

TEST(difference, every_kind_of_change) {
    const std::string text = difference_text(
        outcome({agent("web-1",
                       R"({"test": null, "was": null, "action": "intervals", "type": null,
                           "number": null, "impossible": null,
                           "reason": "30s of web servers is shorter", "fields": [)" +
                           field("poll", "60s", "30s") + "," + field("check", "", "60s") + "]}," +
                           R"({"test": "shop", "was": "front", "action": "rename", "type": "http",
                               "number": 4, "impossible": null, "reason": null, "fields": []},
                              {"test": "data", "was": null, "action": "add", "type": "disk",
                               "number": null, "impossible": "there is no disk /data",
                               "reason": null, "fields": []},)" +
                           change("change", "web", "http", fields(field("text", "Hi", ""))))}),
        wide);
    EXPECT_EQ(text, "web-1:\n"
                    "  ~ intervals  poll 60s -> 30s, check now 60s; 30s of web servers is shorter\n"
                    "  > shop       http: was front\n"
                    "  ! data       disk: there is no disk /data\n"
                    "  ~ web        http: without text (was Hi)\n");
}

/* A difference between agents only in what is not shown is none: the numbers of tests are. */
TEST(difference, many_agents) {
    std::vector<std::string> agents;
    for (int i = 1; i <= 200; i++) {
        agents.push_back(agent("web-" + std::to_string(i), change("add", "load", "load average")));
    }
    const std::string text = difference_text(outcome(agents, "17"), wide);
    EXPECT_EQ(text, "web-1, web-2, web-3, web-4, web-5, web-6, web-7, web-8, web-9 and 191 more:\n"
                    "  + load  load average\n"
                    "and 17 more changes, of agents that are not listed\n");
    EXPECT_EQ(difference_text(outcome({agent(std::string(100, 'x'), change("add", "l", "cpu")),
                                       agent("y", change("add", "l", "cpu"))}),
                              narrow)
                  .substr(0, 113),
              std::string(100, 'x') + " and 1 more:\n");
    const std::string all = difference_text(outcome(agents), file);
    EXPECT_NE(all.find("a@b.c/web-199 and a@b.c/web-200:\n"), std::string::npos);
}

TEST(difference, accounts_where_they_tell_something) {
    const json::object two = outcome({agent("web-1", change("add", "load", "cpu")),
                                      agent("web-1", change("add", "load", "cpu"), "d@e.f")});
    EXPECT_EQ(difference_text(two, wide), "a@b.c/web-1 and d@e.f/web-1:\n  + load  cpu\n");
}

TEST(difference, fits_the_screen) {
    std::string long_text;
    for (int i = 0; i < 30; i++) {
        long_text += "word" + std::to_string(i) + " ";
    }
    const json::object one = outcome({agent("web-1", change("change", std::string(60, 'n'), "http",
                                                            fields(field("text", "x", long_text))) +
                                                         "," + change("remove", "a", "http"))});
    for (const screen& on : {wide, colored}) {
        std::istringstream lines(difference_text(one, on));
        for (std::string line; std::getline(lines, line);) {
            if (!on.color) {
                EXPECT_LE(display_width(line), 80u) << line;
            }
        }
    }
    EXPECT_NE(difference_text(one, wide).find("word29"), std::string::npos);
    EXPECT_EQ(difference_text(one, file).find(std::string(60, 'n')), 17u);
    EXPECT_NE(difference_text(one, colored).find("\x1b["), std::string::npos);
}

TEST(difference, texts_steer_no_terminal) {
    const std::string text = difference_text(
        outcome({agent(R"(we\u001b[2Jb)", change("add", R"(a\u009b\nb)", R"(\u202e)",
                                                 R"("reason": "x\u0007", "fields": [)" +
                                                     field("a\\u0000", "", "\\r\\n+ b") + "]"))}),
        file);
    for (char c : text) {
        EXPECT_TRUE(c == '\n' || (c >= ' ' && c < 0x7f)) << int{c};
    }
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

/* What a server that is none of ours answers is shown as far as it goes. */
TEST(difference, odd_answers) {
    for (const char* odd :
         {R"({"agents": 3})", R"({"agents": [3, null, {}]})", R"({"agents": [{"agent": 3}]})",
          R"({"agents": [{"changes": [3, {}]}], "summary": 3})",
          R"({"agents": [{"changes": [{"fields": [3, {"name": 3}]}]}], "more": "x"})"}) {
        const json::object what = read(odd);
        EXPECT_FALSE(difference_text(what, wide).starts_with("x")) << odd;
        EXPECT_FALSE(makes_difference(what));
        difference_summary(what);
    }
}

TEST(difference, summaries) {
    const json::object all = read(R"({"summary": {"add": 3, "change": 2, "rename": 1, "remove": 4,
        "intervals": 1, "impossible": 2, "unchanged": 316, "agents": 20, "agents_changed": 4}})");
    EXPECT_TRUE(makes_difference(all));
    EXPECT_EQ(difference_summary(all),
              "3 added, 2 changed, 1 renamed, 4 removed, 1 with other intervals on 4 of 20 agents; "
              "2 cannot be; 316 tests as before");
    const json::object none =
        read(R"({"summary": {"impossible": 1, "agents": 1, "agents_changed": 1}})");
    EXPECT_TRUE(makes_difference(none));
    EXPECT_EQ(difference_summary(none),
              "nothing is sent on 1 of 1 agent; 1 cannot be; 0 tests as before");
}

#include "api/series.cpp"

#include "api_place.h"

#include "api/encoding.h"

#include <algorithm>

namespace json = boost::json;

static const int64_t noon = api_noon;

static std::string load(uint32_t test, int64_t time, double load1 = 0.5, uint32_t status = 0,
                        const std::string& message = "fine\n") {
    return record_builder{.ui32 = {type_load_average, test, 7, status},
                          .i64 = {time},
                          .d64 = {load1, 0.25, 0.125},
                          .strings = {message}}
        .bytes();
}

static std::string disk(uint32_t test, int64_t time, uint32_t status = 0) {
    return record_builder{.ui32 = {type_disk, test, 7, status},
                          .i64 = {time},
                          .d64 = {100, 12.5},
                          .strings = {status != 0 ? "too little" : "enough"}}
        .bytes();
}

static std::string process(uint32_t pid, int64_t time, uint32_t status = 0) {
    record_builder record{
        .ui32 = {type_process, 301, 7, pid, status}, .i64 = {time}, .d64 = {12.5, 100, 200}};
    if (status != 0) {
        record.strings = {"too much"};
    } else {
        record.missing_strings = 1;
    }
    return record.bytes();
}

static const owned_definition load_101{
    .type = type_load_average, .number = 101, .location = 7, .name = "", .text = "101\t7\t8\t6\t4"};
static const owned_definition disk_401{.type = type_disk,
                                       .number = 401,
                                       .location = 7,
                                       .name = "/home",
                                       .text = "401\t7\t/home(/dev/sda2|ext4)\t5.5"};

class api_resources_test : public api_place {
protected:
    std::string id_of(const std::string& q) { return column(get("/api/v1/tests?q=" + q), "id"); }
    std::string states(const std::string& query = "") {
        json::value list = get("/api/v1/tests" + query);
        std::string names = column(list, "name"), all;
        for (const json::value& item : list.at("items").as_array()) {
            all += (all.empty() ? "" : ", ") + std::string(item.at("name").as_string()) + " " +
                   std::string(item.at("state").as_string()) +
                   (item.as_object().contains("stale") ? " stale" : "");
        }
        return all;
    }
    /* Time goes by, and the store's thread sees it go: another agent polls meanwhile. */
    void let_pass(int64_t seconds) {
        for (int64_t end = now + seconds; now < end;) {
            now = std::min(end, now + 5);
            submit(load(101, now), "other");
        }
    }
};

/* ---- agents ---- */

TEST_F(api_resources_test, no_agents) {
    EXPECT_EQ(ask("/api/v1/agents").body, "{\"items\":[],\"next\":null}");
    EXPECT_EQ(
        refused("/api/v1/agents/1", 404),
        "There is no agent \"1\": give its id, or its account and name with a slash between.");
}

TEST_F(api_resources_test, an_agent_with_all_that_is_known_of_it) {
    submit(load(101, noon - 5) + disk(401, noon - 5, 2));
    json::value agent = get("/api/v1/agents").at("items").at(0);
    EXPECT_EQ(agent.at("account"), "a@b.c");
    EXPECT_EQ(agent.at("name"), "web-1");
    EXPECT_EQ(agent.at("state"), "problem");
    EXPECT_EQ(agent.at("since"), "2026-05-01T11:59:55Z");
    EXPECT_EQ(agent.at("last_poll"), "2026-05-01T12:00:00Z");
    EXPECT_EQ(agent.at("address"), "192.0.2.1");
    EXPECT_EQ(agent.at("version"), "3.0");
    EXPECT_EQ(agent.at("groups"), json::array());
    EXPECT_EQ(json_text(agent.at("tests")), "{\"ok\":1,\"problem\":1,\"unknown\":0}");

    json::value one = get("/api/v1/agents/" + json_text(agent.at("id")));
    EXPECT_EQ(one.at("inventories"), json::object());
    one.as_object().erase("inventories");
    EXPECT_EQ(one, agent);
    EXPECT_EQ(get("/api/v1/agents/a%40b.c%2Fweb-1").at("id"), agent.at("id"));
    refused("/api/v1/agents/a@b.c%2fweb-2", 404);
    refused("/api/v1/agents/web-1", 404);
    refused("/api/v1/agents/0", 404);
    refused("/api/v1/agents/99999999999999999999", 404);
}

/* What is wrong with an agent is said by the page that it stands on. */
TEST_F(api_resources_test, pages_say_what_is_wrong_on_them) {
    for (const char* name : {"a", "b", "c", "d"}) {
        submit(load(101, noon), name);
    }
    change_store(*with, [](engine& e) { return e.set_state(4, "damaged"); });
    for (const std::string list : {"agents", "tests"}) {
        const std::string path = "/api/v1/" + list + "?limit=2";
        json::value first = get(path);
        EXPECT_FALSE(first.as_object().contains("incomplete")) << list;
        json::value second = get(path + "&next=" + std::string(first.at("next").as_string()));
        EXPECT_EQ(second.at("items").as_array().size(), list == "agents" ? 2u : 1u);
        EXPECT_TRUE(second.as_object().contains("incomplete")) << list;
        EXPECT_TRUE(get(path + "&q=c").as_object().contains("items"));
    }
}

/* Also what is read in one call, as a series is: the reader itself gives up. */
TEST_F(api_resources_test, what_takes_too_long_is_no_answer) {
    submit(load(101, noon));
    const std::string test = "/api/v1/tests/" + id_of("load");
    deadline = std::chrono::steady_clock::now() - std::chrono::seconds(1);
    for (const std::string& target : {std::string("/api/v1/agents"), std::string("/api/v1/tests"),
                                      std::string("/api/v1/events"), std::string("/api/v1/ledger"),
                                      test + "/results", test + "/series"}) {
        EXPECT_NE(refused(target, 503).find("took too long"), std::string::npos) << target;
    }
    deadline = std::chrono::steady_clock::time_point::max();
    EXPECT_EQ(get(test + "/series").at("count").as_array().size(), 1u) << "the reader is good yet";
}

TEST_F(api_resources_test, an_inventory_of_millions_is_cut) {
    std::string items;
    for (int i = 0; i < 300000; i++) {
        items += std::to_string(i) + "\t";
    }
    submit(load(101, noon) +
           record_builder{.ui32 = {type_file_systems, 0, 0}, .i64 = {noon}, .strings = {items}}
               .bytes());
    json::value found = get("/api/v1/agents/a@b.c%2Fweb-1").at("inventories").at("file systems");
    const size_t shown = found.at("items").as_array().size();
    EXPECT_GT(shown, 10000u);
    EXPECT_EQ(shown + found.at("left_out").to_number<size_t>(), 300000u);
}

TEST_F(api_resources_test, inventories_are_with_their_agent) {
    std::string names = record_builder{.ui32 = {type_file_systems, 0, 0},
                                       .i64 = {noon},
                                       .strings = {"/(/dev/sda1|ext4)\t/b\t"}}
                            .bytes();
    submit(load(101, noon) + names);
    EXPECT_EQ(json_text(get("/api/v1/agents/a@b.c%2Fweb-1").at("inventories")),
              "{\"file systems\":{\"time\":\"2026-05-01T12:00:00Z\",\"items\":[\"/(/dev/"
              "sda1|ext4)\",\"/b\"]}}");
}

TEST_F(api_resources_test, agents_by_name_state_and_page) {
    for (const char* name : {"web-2", "db-1", "web-1", "db-2"}) {
        submit(load(101, noon, 1, name[0] == 'd' ? 2 : 0), name);
    }
    submit(load(101, noon), "web-1", "x@b.c");
    EXPECT_EQ(column(get("/api/v1/agents"), "name"), "db-1 db-2 web-1 web-2 web-1");
    EXPECT_EQ(column(get("/api/v1/agents?state=problem"), "name"), "db-1 db-2");
    EXPECT_EQ(column(get("/api/v1/agents?state=ok,silent&q=WEB-1"), "account"), "a@b.c x@b.c");
    EXPECT_EQ(column(get("/api/v1/agents?q=nowhere"), "name"), "");
    for (int limit : {1, 2, 3, 4, 5, 6}) {
        EXPECT_EQ(pages("/api/v1/agents", "name", limit), "db-1 db-2 web-1 web-2 web-1");
        EXPECT_EQ(pages("/api/v1/agents?q=web", "name", limit), "web-1 web-2 web-1");
    }
    json::value first = get("/api/v1/agents?limit=2");
    submit(load(101, noon), "db-0"); /* ahead of the page that comes next */
    EXPECT_EQ(
        column(get("/api/v1/agents?next=" + std::string(first.at("next").as_string())), "name"),
        "web-1 web-2 web-1");
}

TEST_F(api_resources_test, silent_agents_have_unknown_tests) {
    follow({load_101});
    submit(load(101, noon));
    let_pass(400);
    json::value list = get("/api/v1/agents?q=web");
    json::value agent = list.at("items").at(0);
    EXPECT_EQ(agent.at("state"), "silent");
    EXPECT_EQ(json_text(agent.at("tests")), "{\"ok\":0,\"problem\":0,\"unknown\":1}");
    EXPECT_EQ(states("?agent=a@b.c/web-1"), "load average 101 unknown");
    EXPECT_EQ(column(get("/api/v1/tests?q=web"), "since"), agent.at("since").as_string());
    EXPECT_EQ(column(get("/api/v1/events?state=silent"), "from"), "ok");
    EXPECT_EQ(column(get("/api/v1/events?state=silent"), "test"), "null");
    EXPECT_EQ(column(get("/api/v1/agents?state=silent"), "name"), "web-1");
    EXPECT_EQ(column(get("/api/v1/agents?state=ok"), "name"), "other");
}

TEST_F(api_resources_test, retiring_an_agent) {
    submit(load(101, noon));
    submit(load(101, noon), "web-2");
    refused("/api/v1/agents/1", 403, "DELETE", "", role::viewer);
    noting->failure = "disk full";
    EXPECT_EQ(refused("/api/v1/agents/1", 503, "DELETE"),
              "The change could not be stored: disk full.");
    noting->failure = "";
    noting->is_missing = true; /* somebody else was quicker */
    refused("/api/v1/agents/1", 404, "DELETE");
    noting->is_missing = false;
    refused("/api/v1/agents/7", 404, "DELETE");
    EXPECT_TRUE(told.empty()) << "only who is retired is sent away";

    now += 60;
    api_answer answer = ask("/api/v1/agents/a@b.c%2Fweb-1", "DELETE", "", role::operates);
    EXPECT_EQ(answer.status, 204);
    EXPECT_EQ(answer.body, "");
    EXPECT_EQ(answer.audit, "retired agent a@b.c/web-1");
    EXPECT_EQ(told, std::vector<std::string>{"away a@b.c/web-1"});
    EXPECT_EQ(column(get("/api/v1/agents"), "name"), "web-2");
    EXPECT_EQ(column(get("/api/v1/tests"), "agent.name"), "web-2");
    EXPECT_EQ(column(get("/api/v1/tests?agent=1"), "agent.name"), "");
    EXPECT_EQ(column(get("/api/v1/events"), "agent.name"), "web-2 web-1")
        << "these keep their names";
    json::value agent = get("/api/v1/agents/1");
    EXPECT_EQ(agent.at("retired"), "2026-05-01T12:01:00Z");
    EXPECT_EQ(agent.at("state"), "unknown");
    EXPECT_EQ(get("/api/v1/tests/1").at("state"), "unknown");
    refused("/api/v1/agents/1", 409, "DELETE");
    refused("/api/v1/agents/1/check", 409, "POST");
    noting->failure = "disk full";
    EXPECT_EQ(ask("/api/v1/agents/2", "DELETE").audit, "asked to retire agent a@b.c/web-2");
    noting->failure = "";
    now += 60;
    submit(load(101, noon + 120));
    EXPECT_EQ(column(get("/api/v1/agents"), "name"), "web-1 web-2") << "it begins anew";
}

TEST_F(api_resources_test, checking_now) {
    submit(load(101, noon));
    refused("/api/v1/agents/1/check", 403, "POST", "", role::viewer);
    json::value answer = get("/api/v1/agents/1/check", 202, "POST", "", role::operates);
    EXPECT_EQ(answer.at("agent").at("name"), "web-1");
    EXPECT_EQ(told, std::vector<std::string>{"check a@b.c/web-1"});
    EXPECT_EQ(ask("/api/v1/agents/1/check", "POST").audit, "had agent a@b.c/web-1 check now");
    has_session = false;
    EXPECT_EQ(refused("/api/v1/agents/1/check", 409, "POST").substr(0, 29),
              "a@b.c/web-1 cannot be told: i");
    EXPECT_EQ(ask("/api/v1/agents/1/check", "POST").audit, "");
    refused("/api/v1/agents/7/check", 404, "POST");
    refused("/api/v1/agents/1/check", 400, "POST", "{}");
    with->check_now = [](std::string_view, std::string_view) -> bool {
        throw_unavailable("The collector is busy.");
    };
    api_answer late = ask("/api/v1/agents/1/check", "POST");
    EXPECT_EQ(late.status, 503);
    EXPECT_EQ(late.audit, "asked to have agent a@b.c/web-1 check now") << "it may be told yet";
}

/* ---- tests ---- */

TEST_F(api_resources_test, a_test_with_its_last_result) {
    follow({load_101, disk_401});
    submit(load(101, noon - 65) + disk(401, noon - 65));
    now += 60;
    submit(load(101, noon, 1.5) + disk(401, noon, 2));
    json::value list = get("/api/v1/tests");
    EXPECT_EQ(column(list, "name"), "/home load average 101") << "by type and number";
    json::value test = list.at("items").at(0);
    EXPECT_EQ(json_text(test.at("agent")), "{\"id\":1,\"account\":\"a@b.c\",\"name\":\"web-1\"}");
    EXPECT_TRUE(test.at("group").is_null());
    EXPECT_EQ(test.at("type"), "disk");
    EXPECT_EQ(test.at("number"), 401);
    EXPECT_EQ(test.at("target"), "/home");
    EXPECT_EQ(test.at("state"), "problem");
    EXPECT_EQ(test.at("since"), "2026-05-01T12:00:00Z");
    EXPECT_EQ(test.at("time"), "2026-05-01T12:00:00Z");
    EXPECT_EQ(test.at("status"), "limit reached");
    EXPECT_EQ(test.at("message"), "too little");
    EXPECT_EQ(json_text(test.at("values")), "{\"total\":{\"value\":100,\"unit\":\"GB\"},"
                                            "\"available\":{\"value\":12.5,\"unit\":\"GB\"}}");
    json::object definition = test.at("definition").as_object();
    EXPECT_EQ(definition.at("name"), "/home");
    EXPECT_EQ(definition.at("location"), 7);
    EXPECT_EQ(json_text(definition.at("fields")),
              "{\"name\":\"/home(/dev/sda2|ext4)\",\"amount\":5.5}");
    EXPECT_EQ(get("/api/v1/tests/" + json_text(test.at("id"))), test);

    json::value other = list.at("items").at(1);
    EXPECT_TRUE(other.at("target").is_null());
    EXPECT_EQ(other.at("since"), "2026-05-01T11:58:55Z");
    EXPECT_EQ(json_text(other.at("values").at("load1")), "{\"value\":1.5,\"unit\":\"\"}");
    EXPECT_EQ(json_text(other.at("definition").at("fields")),
              "{\"1 min maximum\":8,\"5 min maximum\":6,\"15 min maximum\":4}");
    refused("/api/v1/tests/99", 404);
    refused("/api/v1/tests/-1", 404);
    refused("/api/v1/tests/x", 404);
}

TEST_F(api_resources_test, a_pass_of_several_records_is_one_result) {
    submit(process(100, noon) + process(101, noon, 2));
    now += 1;
    submit(process(102, noon + 1));
    json::value test = get("/api/v1/tests").at("items").at(0);
    EXPECT_EQ(test.at("message"), "too much");
    EXPECT_EQ(json_text(test.at("values").at("processes").at("value")), "3");
    EXPECT_EQ(json_text(test.at("values").at("cpu").at("value")), "37.5");
}

TEST_F(api_resources_test, tests_by_agent_type_state_name_and_page) {
    follow({load_101, disk_401});
    for (const char* name : {"web-2", "web-1", "db-1"}) {
        submit(load(101, noon) + load(102, noon, 9, name[0] == 'd' ? 2 : 0) + disk(401, noon),
               name);
    }
    std::string all = "/home load average 101 load average 102";
    EXPECT_EQ(column(get("/api/v1/tests"), "name"), all + " " + all + " " + all);
    EXPECT_EQ(column(get("/api/v1/tests"), "agent.name"),
              "db-1 db-1 db-1 web-1 web-1 web-1 web-2 web-2 web-2");
    EXPECT_EQ(column(get("/api/v1/tests?agent=a@b.c/web-1"), "agent.name"), "web-1 web-1 web-1");
    EXPECT_EQ(column(get("/api/v1/tests?agent=1&type=load+average"), "number"), "101 102");
    EXPECT_EQ(column(get("/api/v1/tests?state=problem"), "agent.name"), "db-1");
    EXPECT_EQ(column(get("/api/v1/tests?type=disk,ping"), "number"), "401 401 401");
    EXPECT_EQ(column(get("/api/v1/tests?q=HOME"), "number"), "401 401 401");
    EXPECT_EQ(column(get("/api/v1/tests?q=web-2"), "number"), "401 101 102");
    EXPECT_EQ(column(get("/api/v1/tests?q=average+102&agent=3"), "number"), "102");
    EXPECT_EQ(column(get("/api/v1/tests?group=web"), "number"), "");
    refused("/api/v1/tests?agent=nobody", 404);
    for (int limit : {1, 2, 3, 4, 9, 10}) {
        EXPECT_EQ(pages("/api/v1/tests", "name", limit), all + " " + all + " " + all);
        EXPECT_EQ(pages("/api/v1/tests?type=disk", "agent.name", limit), "db-1 web-1 web-2");
    }
}

TEST_F(api_resources_test, long_messages_make_short_pages_and_keep_nobody_out) {
    std::string all;
    for (int i = 101; i <= 180; i++) {
        submit(load(i, noon, 1, 0, std::string(i == 101 ? 8u << 20 : 70000, '\x01')));
        all += (i > 101 ? " " : "") + std::to_string(i);
    }
    const std::string first = ask("/api/v1/tests?limit=1000").body;
    EXPECT_LT(first.size(), 32u << 20) << "what an answer may have";
    json::value page = get("/api/v1/tests?limit=1000");
    EXPECT_LT(page.at("items").as_array().size(), 80u);
    EXPECT_GT(page.at("items").as_array().size(), 1u);
    EXPECT_EQ(page.at("items").at(0).at("message").as_string(),
              std::string(64u << 10, '\x01') + " ...");
    EXPECT_EQ(pages("/api/v1/tests", "number", 1000), all);
    EXPECT_EQ(get("/api/v1/tests/1").at("message").as_string().size(), 1u << 20);
}

TEST_F(api_resources_test, stale_tests_are_unknown) {
    follow({load_101, disk_401});
    submit(load(101, noon) + disk(401, noon));
    for (int i = 1; i <= 7; i++) {
        let_pass(60);
        submit(load(101, now));
    }
    const std::string web = "?agent=a@b.c/web-1";
    EXPECT_EQ(states(web), "/home unknown stale, load average 101 ok");
    EXPECT_EQ(states(web + "&state=unknown"), "/home unknown stale");
    EXPECT_EQ(states("?state=stale"), "/home unknown stale");
    EXPECT_EQ(states(web + "&state=ok"), "load average 101 ok");
    EXPECT_EQ(states("?state=problem"), "");
    json::value test = get("/api/v1/tests?state=stale").at("items").at(0);
    EXPECT_EQ(test.at("message"), "enough") << "what was known last";
    EXPECT_EQ(column(get("/api/v1/agents?state=stale"), "state"), "unknown");
    EXPECT_TRUE(get("/api/v1/agents?q=web").at("items").at(0).as_object().contains("stale"));
    json::value event = get("/api/v1/events?state=stale").at("items").at(0);
    EXPECT_EQ(event.at("from"), "ok");
    EXPECT_EQ(event.at("to"), "unknown");
    EXPECT_EQ(event.at("stale"), true);
}

TEST_F(api_resources_test, text_of_agents_cannot_break_an_answer) {
    submit(load(101, noon, 1, 2, "a\x01\x1b[2J\xff\xc2\x9b\"\\\n\xe2\x82\xac"), "we\xff"
                                                                                "b\"");
    std::string body = ask("/api/v1/tests").body;
    EXPECT_NE(body.find("a\\u0001\\u001b[2J\xef\xbf\xbd\\u009b\\\"\\\\\\n\xe2\x82\xac"),
              std::string::npos)
        << body;
    EXPECT_NE(body.find("we\xef\xbf\xbd"), std::string::npos) << body;
    get("/api/v1/tests");
    get("/api/v1/events");
}

/* ---- results ---- */

TEST_F(api_resources_test, results_newest_first) {
    follow({load_101});
    for (int i = 0; i < 5; i++) {
        now = noon + 60 * i;
        submit(load(101, now - 2, i, i == 3 ? 2 : 0));
    }
    const std::string path = "/api/v1/tests/" + id_of("load") + "/results";
    json::value list = get(path);
    EXPECT_EQ(column(list, "values.load1.value"), "4 3 2 1 0");
    EXPECT_EQ(column(list, "state"), "ok problem ok ok ok");
    EXPECT_EQ(column(list, "status"), "ok limit reached ok ok ok");
    EXPECT_EQ(list.at("items").at(1).at("time"), "2026-05-01T12:02:58Z");
    EXPECT_EQ(list.at("items").at(1).at("received"), "2026-05-01T12:03:00Z");
    EXPECT_EQ(column(get(path + "?from=2026-05-01T12:00:58Z&to=2026-05-01T12:02:58Z"),
                     "values.load1.value"),
              "2 1");
    for (int limit : {1, 2, 5, 6}) {
        EXPECT_EQ(pages(path, "values.load1.value", limit), "4 3 2 1 0");
    }
    json::value first = get(path + "?limit=2");
    now += 60;
    submit(load(101, now - 2, 5) + load(101, noon + 178, 9)); /* one that comes late, too */
    EXPECT_EQ(column(get(path + "?next=" + std::string(first.at("next").as_string())),
                     "values.load1.value"),
              "2 1 0");
    refused(path + "?from=2026-05-01T12:00:00Z&to=2026-05-01T12:00:00Z", 400);
    refused("/api/v1/tests/77/results", 404);
    refused(path + "?next=" + std::string(first.at("next").as_string()) +
                "&to=2026-05-01T12:00:00Z",
            400);
}

TEST_F(api_resources_test, results_of_one_second_are_paged_once_each) {
    std::string records;
    for (int i = 0; i < 6; i++) { /* of another location each: passes of their own */
        records += record_builder{
            .ui32 = {type_load_average, 101, static_cast<uint32_t>(i), 0},
            .i64 = {noon},
            .d64 = {static_cast<double>(i), 0, 0},
            .strings = {
                "m"}}.bytes();
    }
    submit(load(101, noon - 60, 9) + records);
    const std::string path = "/api/v1/tests/" + id_of("load") + "/results";
    const std::string all = column(get(path), "values.load1.value");
    EXPECT_EQ(all, "5 4 3 2 1 0 9");
    for (int limit : {1, 2, 3, 4, 7}) {
        EXPECT_EQ(pages(path, "values.load1.value", limit), all);
    }
    /* How many came before is a number that anybody can write. */
    const std::string place =
        from_base64url(std::string(get(path + "?limit=2").at("next").as_string())).value_or("");
    const std::string until_number = place.substr(0, place.find('\n', place.find('\n') + 1) + 1);
    auto page = [&](const std::string& number) {
        std::string next = base64url(until_number + number + "\n0\n");
        return column(get(path + "?limit=2&next=" + next), "values.load1.value");
    };
    EXPECT_EQ(page("6"), "3 2");
    EXPECT_EQ(page("9223372036854775807"), "3 2");
    EXPECT_EQ(page("-9223372036854775808"), "3");
}

/* In JSON a control character is six. */
TEST_F(api_resources_test, a_page_is_bounded_by_what_it_has_to_say) {
    const std::string large(700000, '\x01');
    for (uint32_t i = 0; i < 3; i++) {
        now = noon + 60 * i;
        submit(load(101, now, i, 0, large) + load(102 + i, now, i, 0, large));
    }
    const std::string path = "/api/v1/tests/" + id_of("101") + "/results";
    EXPECT_EQ(get(path + "?limit=10").at("items").as_array().size(), 1u);
    EXPECT_LT(ask(path + "?limit=10").body.size(), 5u << 20);
    EXPECT_EQ(pages(path, "values.load1.value", 10), "2 1 0");
    EXPECT_LT(ask("/api/v1/tests?limit=10").body.size(), 5u << 20);
    EXPECT_EQ(pages("/api/v1/tests", "number", 10), "101 102 103 104");
}

/* Each with more than a page may have, and all of one second. */
TEST_F(api_resources_test, large_results_of_one_second_are_paged_once_each) {
    for (uint32_t i = 0; i < 4; i++) {
        submit(record_builder{.ui32 = {type_load_average, 101, i, 0},
                              .i64 = {noon},
                              .d64 = {static_cast<double>(i), 0, 0},
                              .strings = {std::string(i < 2 ? 5000000 : 1500000, 'm')}}
                   .bytes());
    }
    submit(load(101, noon - 1, 9));
    const std::string path = "/api/v1/tests/" + id_of("101") + "/results";
    for (int limit : {1, 2, 5}) {
        EXPECT_EQ(pages(path, "values.load1.value", limit), "3 2 1 0 9") << limit;
    }
    EXPECT_EQ(get(path).at("items").at(0).at("message").as_string().size(), 1u << 20)
        << "the beginning of it";
}

/* Its labels stand in each of its rows. */
TEST_F(api_resources_test, a_table_that_would_become_gigabytes_is_cut) {
    record_builder cells;
    for (uint32_t row = 0; row < 20000; row++) {
        cells.ui32.push_back(row);
        cells.ui32.push_back(0);
        cells.strings.emplace_back("x");
    }
    std::string columns =
        record_builder{.ui32 = {2}, .strings = {std::string(500000, 'l')}}.bytes();
    submit(record_builder{.ui32 = {type_snmp_table, 1, 7, 0},
                          .i64 = {noon},
                          .strings = {"m"},
                          .nested = {columns, cells.bytes()}}
               .bytes());
    const std::string path = "/api/v1/tests/" + id_of("snmp") + "/results";
    json::value all = get(path).at("items").at(0);
    EXPECT_EQ(all.at("parts_left_out"), true);
    EXPECT_GT(all.at("parts").as_array().size(), 10u);
    EXPECT_LT(ask(path).body.size(), 8u << 20);
}

TEST_F(api_resources_test, parts_of_results) {
    auto parts = [&](const std::string& records, const std::string& agent) {
        submit(records, agent);
        std::string id = column(get("/api/v1/tests?agent=a@b.c/" + agent), "id");
        return json_text(get("/api/v1/tests/" + id + "/results").at("items").at(0).at("parts"));
    };
    EXPECT_EQ(parts(process(100, noon) + process(101, noon, 2), "p"),
              "[{\"name\":\"100\",\"status\":\"ok\",\"message\":null,\"values\":{\"cpu\":{"
              "\"value\":12.5,\"unit\":\"%\"},\"resident\":{\"value\":100,\"unit\":\"MB\"},"
              "\"virtual\":{\"value\":200,\"unit\":\"MB\"}}},{\"name\":\"101\",\"status\":\"limit "
              "reached\",\"message\":\"too much\",\"values\":{\"cpu\":{\"value\":12.5,\"unit\":\"%"
              "\"},\"resident\":{\"value\":100,\"unit\":\"MB\"},\"virtual\":{\"value\":200,"
              "\"unit\":\"MB\"}}}]");
    std::string object = record_builder{.ui32 = {2, 2}, .strings = {"17", "out of limits"}}.bytes();
    EXPECT_EQ(parts(record_builder{.ui32 = {type_snmp, 1, 7, 0, 1},
                                   .i64 = {noon},
                                   .d64 = {1.5},
                                   .strings = {"m"},
                                   .nested = {object}}
                        .bytes(),
                    "s"),
              "[{\"name\":\"object 1\",\"status\":\"limit reached\",\"message\":\"out of limits\","
              "\"values\":{\"type\":{\"value\":2,\"unit\":\"\"},\"value\":{\"value\":\"17\","
              "\"unit\":\"\"}}}]");
    std::string columns = record_builder{.ui32 = {2, 2}, .strings = {"name", "name"}}.bytes();
    std::string cells = record_builder{
        .ui32 = {0, 0, 0, 1, 1, 0, 1, 1},
        .strings = {"eth0", "a", "eth1",
                    "b"}}.bytes();
    EXPECT_EQ(parts(record_builder{.ui32 = {type_snmp_table, 1, 7, 0},
                                   .i64 = {noon},
                                   .strings = {"m"},
                                   .nested = {columns, cells}}
                        .bytes(),
                    "t"),
              "[{\"name\":\"row 1\",\"status\":null,\"message\":null,\"values\":{\"name\":{"
              "\"value\":\"eth0\",\"unit\":\"\"},\"name (column 2)\":{\"value\":\"a\",\"unit\":"
              "\"\"}}},{\"name\":\"row 2\",\"status\":null,\"message\":null,\"values\":{\"name\":{"
              "\"value\":\"eth1\",\"unit\":\"\"},\"name (column 2)\":{\"value\":\"b\",\"unit\":"
              "\"\"}}}]");
    EXPECT_EQ(parts(record_builder{.ui32 = {type_mysql, 1, 7, 2, 15},
                                   .i64 = {noon / 128 * 128},
                                   .strings = {"Threads|12|0;Uptime|x|2;", "Uptime - x: NOK;"}}
                        .bytes(),
                    "m"),
              "[{\"name\":\"Threads\",\"status\":\"ok\",\"message\":null,\"values\":{\"value\":{"
              "\"value\":12,\"unit\":\"\"}}},{\"name\":\"Uptime\",\"status\":\"limit reached\","
              "\"message\":null,\"values\":{\"value\":{\"value\":\"x\",\"unit\":\"\"}}}]");
    std::string processor =
        record_builder{.ui32 = {0}, .d64 = {1, 2, 3, 4, 5}, .strings = {"m"}}.bytes();
    EXPECT_EQ(parts(record_builder{.ui32 = {type_cpu, 1, 7, 0},
                                   .i64 = {noon},
                                   .d64 = {1, 2, 3, 4, 5},
                                   .strings = {"m"},
                                   .nested = {processor}}
                        .bytes(),
                    "c"),
              "[{\"name\":\"processor 1\",\"status\":\"ok\",\"message\":\"m\",\"values\":{\"user\":"
              "{\"value\":1,\"unit\":\"%\"},\"system\":{\"value\":3,\"unit\":\"%\"},\"nice\":{"
              "\"value\":2,\"unit\":\"%\"},\"idle\":{\"value\":4,\"unit\":\"%\"},\"iowait\":{"
              "\"value\":5,\"unit\":\"%\"}}}]")
        << "as their names say, whatever the record has crossed";
}

/* ---- series ---- */

TEST_F(api_resources_test, a_series_of_results) {
    for (int i = 0; i < 4; i++) {
        now = noon + 60 * i;
        submit(load(101, now, i * i, i == 1 ? 2 : 0));
    }
    const std::string path = "/api/v1/tests/" + id_of("load") + "/series";
    json::value all = get(path);
    EXPECT_EQ(all.at("resolution"), 0);
    EXPECT_EQ(json_text(all.at("time")),
              "[\"2026-05-01T12:00:00Z\",\"2026-05-01T12:01:00Z\",\"2026-05-01T12:02:00Z\","
              "\"2026-05-01T12:03:00Z\"]");
    EXPECT_EQ(json_text(all.at("count")), "[1,1,1,1]");
    EXPECT_EQ(json_text(all.at("values").at("load1")),
              "{\"unit\":\"\",\"min\":[0,1,4,9],\"mean\":[0,1,4,9],\"max\":[0,1,4,9]}");
    EXPECT_EQ(json_text(all.at("state").at("problem")), "[0,60,0,0]");
    EXPECT_EQ(json_text(get(path + "?rate=1")), json_text(all)) << "nothing of it counts up";
    EXPECT_EQ(json_text(get(path + "?rate=0")), json_text(all));
    EXPECT_EQ(
        json_text(
            get(path + "?from=2026-05-01T12:01:00Z&to=2026-05-01T14:02:00%2B02:00").at("count")),
        "[1]");
    EXPECT_EQ(json_text(get(path + "?points=2").at("resolution")), "43200");
    refused(path + "?from=2026-05-01T12:01:00Z&to=2026-05-01T12:01:00Z", 400);
    refused(path + "?from=2030-01-01T00:00:00Z", 400);
    EXPECT_EQ(get(path + "?from=1900-01-01T00:00:00Z").at("from"), "1900-01-01T00:00:00Z");
    refused("/api/v1/tests/99/series", 404);
}

TEST_F(api_resources_test, points_end_with_the_present) {
    for (int i = 0; i < 10; i++) {
        now = noon + 60 * i;
        submit(load(101, now, i));
    }
    now = noon + 600;
    json::value all = get("/api/v1/tests/" + id_of("load") +
                          "/series?points=1&from=2026-05-01T12:00:00Z&to=2026-05-03T12:00:00Z");
    EXPECT_EQ(json_text(all.at("time")), "[\"2026-05-01T12:00:00Z\"]");
    EXPECT_EQ(all.at("resolution"), 3600);
    EXPECT_EQ(json_text(all.at("count")), "[10]");
    int64_t seconds = 0;
    for (const char* state : {"ok", "problem", "unknown"}) {
        seconds += all.at("state").at(state).at(0).to_number<int64_t>();
    }
    EXPECT_GE(seconds, 600);
    EXPECT_LE(seconds, 600 + 180) << "what the last result still reaches into";
}

TEST_F(api_resources_test, rates_of_a_counter_that_begins_anew) {
    auto object = [](uint32_t type, const std::string& value) {
        return record_builder{.ui32 = {type, 0}, .strings = {value, "fine"}}.bytes();
    };
    auto query = [&](const std::vector<std::string>& objects) {
        return record_builder{.ui32 = {type_snmp, 501, 7, 0, static_cast<uint32_t>(objects.size())},
                              .i64 = {now},
                              .d64 = {2},
                              .strings = {"m"},
                              .nested = objects}
            .bytes();
    };
    for (const char* count : {"100", "160", "280", "10", "70"}) {
        submit(query({object(14, count), object(13, count), object(3, count)}));
        now += 60;
    }
    submit(query({})); /* a query that failed says nothing of its objects */
    json::value values =
        get("/api/v1/tests/" + id_of("snmp") + "/series?rate=1&to=2026-05-01T12:05:00Z")
            .at("values");
    ASSERT_TRUE(values.as_object().contains("object 1")) << json_text(values);
    EXPECT_EQ(json_text(values.at("object 1").at("max")), "[null,1,2,null,1]");
    EXPECT_EQ(values.at("object 1").at("unit"), "/s");
    EXPECT_EQ(json_text(values.at("object 2").at("max")), "[100,160,280,10,70]") << "a gauge";
    EXPECT_EQ(values.at("object 2").at("unit"), "");
    EXPECT_EQ(values.at("object 3").at("mean"), values.at("object 1").at("mean"));
    EXPECT_EQ(json_text(values.at("time").at("max")), "[2,2,2,2,2]");
}

/* A MySQL value does not say what it is. */
TEST_F(api_resources_test, rates_of_a_mysql_test) {
    for (const char* count : {"100", "340"}) {
        submit(record_builder{.ui32 = {type_mysql, 1, 7, 0, 15},
                              .i64 = {now / 128 * 128},
                              .strings = {"Questions|" + std::string(count) + "|0;", "m"}}
                   .bytes());
        now += 128;
    }
    json::value all = get("/api/v1/tests/" + id_of("mysql") + "/series?rate=1");
    EXPECT_EQ(all.at("values").at("result").at("unit"), "/s");
    EXPECT_EQ(all.at("values").at("time").at("unit"), "ms");
    EXPECT_EQ(json_text(all.at("values").at("time").at("max")), "[15,15]");
}

TEST_F(api_resources_test, a_test_with_hundreds_of_values_has_fewer_points) {
    std::string list;
    for (int i = 0; i < 250; i++) {
        list += "v|" + std::to_string(i) + "|0;";
    }
    for (int i = 0; i < 12; i++) {
        submit(record_builder{.ui32 = {type_mysql, 1, 7, 0, 15},
                              .i64 = {now / 128 * 128},
                              .strings = {list, "m"}}
                   .bytes() +
               load(101, now));
        now += 600;
    }
    const size_t usual = std::exchange(most_cells, 3000);
    const std::string range = "/series?points=100&from=2026-05-01T12:00:00Z";
    json::value many = get("/api/v1/tests/" + id_of("mysql") + range);
    EXPECT_EQ(many.at("values").as_object().size(), 251u);
    EXPECT_GE(many.at("time").as_array().size(), 2u);
    EXPECT_LE(251 * many.at("time").as_array().size(), most_cells);
    most_cells = 251 * 12;
    many = get("/api/v1/tests/" + id_of("mysql") + range);
    EXPECT_EQ(many.at("time").as_array().size(), 12u) << "as many as there is room for";
    EXPECT_EQ(get("/api/v1/tests/" + id_of("load") + range).at("time").as_array().size(), 12u);
    most_cells = usual;
}

/* ---- events ---- */

TEST_F(api_resources_test, events_newest_first) {
    follow({load_101, disk_401});
    submit(load(101, noon - 10) + disk(401, noon - 10));
    now += 60;
    submit(load(101, noon + 50, 9, 2, "Load: 9\n") + disk(401, noon + 50));
    now += 60;
    submit(load(101, noon + 110) + disk(401, noon + 110), "db-1");
    json::value list = get("/api/v1/events");
    EXPECT_EQ(column(list, "to"), "ok ok problem ok ok");
    json::value event = list.at("items").at(2);
    EXPECT_EQ(event.at("from"), "ok");
    EXPECT_EQ(event.at("time"), "2026-05-01T12:00:50Z");
    EXPECT_EQ(event.at("agent").at("name"), "web-1");
    EXPECT_EQ(event.at("test").at("type"), "load average");
    EXPECT_EQ(event.at("test").at("name"), "load average 101");
    EXPECT_EQ(event.at("message"), "Load: 9\n");

    EXPECT_EQ(column(get("/api/v1/events?state=problem"), "id"), json_text(event.at("id")));
    EXPECT_EQ(column(get("/api/v1/events?agent=a@b.c/db-1"), "agent.name"), "db-1 db-1");
    EXPECT_EQ(column(get("/api/v1/events?type=disk"), "test.name"), "/home /home");
    EXPECT_EQ(column(get("/api/v1/events?test=" + json_text(event.at("test").at("id"))), "to"),
              "problem ok");
    EXPECT_EQ(
        column(get("/api/v1/events?agent=2&test=" + json_text(event.at("test").at("id"))), "to"),
        "");
    EXPECT_EQ(column(get("/api/v1/events?q=load:+9"), "to"), "problem");
    EXPECT_EQ(column(get("/api/v1/events?q=/HOME&agent=1"), "to"), "ok");
    EXPECT_EQ(column(get("/api/v1/events?q=db-1"), "to"), "ok ok");
    EXPECT_EQ(column(get("/api/v1/events?from=2026-05-01T12:00:00Z&to=2026-05-01T12:01:00Z"), "to"),
              "problem");
    EXPECT_EQ(column(get("/api/v1/events?group=x"), "to"), "");
    refused("/api/v1/events?from=2026-05-01T12:01:00Z&to=2026-05-01T12:00:00Z", 400);
    refused("/api/v1/events?test=99", 404);
    refused("/api/v1/events?agent=99", 404);
    const std::string ids = column(list, "id");
    for (int limit : {1, 2, 3, 4, 5, 6}) {
        EXPECT_EQ(pages("/api/v1/events", "id", limit), ids);
    }
    json::value first = get("/api/v1/events?limit=3");
    now += 60;
    submit(load(101, noon + 170, 9, 2), "db-1");
    EXPECT_EQ(column(get("/api/v1/events?next=" + std::string(first.at("next").as_string())), "id"),
              ids.substr(6));
}

TEST_F(api_resources_test, a_filter_that_lets_little_through_goes_on) {
    submit(load(101, noon));
    for (int i = 1; i <= 600; i++) { /* 40 changes each */
        std::string records;
        for (int j = 0; j < 40; j++) {
            records += load(101, noon + 60 * i + j, 1, j % 2 == 0 ? 2 : 0);
        }
        now = noon + 60 * i + 40;
        submit(records);
    }
    const std::string path = "/api/v1/events?q=nothing+like+it";
    json::value list = get(path);
    ASSERT_TRUE(list.at("next").is_string());
    int pages = 1;
    for (; list.at("next").is_string() && pages < 100; pages++) {
        EXPECT_TRUE(list.at("items").as_array().empty());
        list = get(path + "&next=" + std::string(list.at("next").as_string()));
    }
    EXPECT_EQ(pages, 3) << "10,000 events each";
}

/* ---- ledger ---- */

TEST_F(api_resources_test, the_ledger_has_the_hour_that_is_counted) {
    follow({load_101});
    for (int i = 0; i <= 65; i++) {
        now = noon + 60 * i;
        if (i < 10 || i > 15) {
            submit(load(101, now));
        }
        if (i == 20) {
            submit(load(101, now)); /* nothing new */
        }
    }
    now = noon + 66 * 60;
    submit(load(101, noon + 66 * 60), "db-1");
    json::value list = get("/api/v1/ledger");
    EXPECT_EQ(column(list, "hour"),
              "2026-05-01T12:00:00Z 2026-05-01T13:00:00Z 2026-05-01T13:00:00Z");
    EXPECT_EQ(column(list, "agent.name"), "web-1 web-1 db-1");
    EXPECT_EQ(column(list, "expected"), "60 6 1");
    EXPECT_EQ(column(list, "missing"), "6 0 0");
    EXPECT_EQ(column(list, "received"), "54 6 1");
    EXPECT_EQ(column(get("/api/v1/ledger?agent=2"), "received"), "1");
    EXPECT_EQ(column(get("/api/v1/ledger?from=2026-05-01T12:30:00Z"), "received"), "6 1");
    EXPECT_EQ(column(get("/api/v1/ledger?to=2026-05-01T13:00:00Z"), "received"), "54");
    refused("/api/v1/ledger?from=2030-05-01T13:00:00Z", 400);
    for (int limit : {1, 2, 3, 4}) {
        EXPECT_EQ(pages("/api/v1/ledger", "received", limit), "54 6 1");
    }
}

/* ---- tokens ---- */

TEST_F(api_resources_test, tokens_are_shown_once) {
    for (role may : {role::viewer, role::operates}) {
        refused("/api/v1/tokens", 403, "GET", "", may);
        refused("/api/v1/tokens", 403, "POST", "{\"name\":\"x\",\"role\":\"admin\"}", may);
        refused("/api/v1/tokens/1", 403, "DELETE", "", may);
    }
    EXPECT_TRUE(kept.tokens.empty());
    json::value added =
        get("/api/v1/tokens", 201, "POST", "{\"name\":\"grafana\",\"role\":\"viewer\"}");
    std::string secret(added.at("token").as_string());
    EXPECT_EQ(secret.size(), 46u);
    EXPECT_EQ(secret.substr(0, 3), "vt_");
    EXPECT_TRUE(added.at("ends").is_null());
    EXPECT_EQ(added.at("made"), "2026-05-01T12:00:00Z");
    std::string list = ask("/api/v1/tokens").body;
    EXPECT_EQ(list.find(secret.substr(3)), std::string::npos);
    EXPECT_EQ(column(get("/api/v1/tokens"), "name"), "grafana");
    EXPECT_EQ(kept.tokens.at(1).role, 1);

    api_answer other =
        ask("/api/v1/tokens", "POST",
            "{\"role\":\"admin\",\"name\":\"bob\",\"ends\":\"2026-05-02T00:00:00Z\"}");
    EXPECT_EQ(other.audit, "added token bob with the role admin");
    EXPECT_EQ(other.audit.find("vt_"), std::string::npos);
    EXPECT_EQ(pages("/api/v1/tokens", "name", 1), "grafana bob");
    EXPECT_EQ(pages("/api/v1/tokens", "own", 1), "true false") << "1 asks";
    EXPECT_EQ(refused("/api/v1/tokens", 409, "POST", "{\"name\":\"bob\",\"role\":\"viewer\"}"),
              "There is a token of the name \"bob\" already: remove it first, or choose another "
              "name.");
    now = noon + 86400;
    EXPECT_EQ(column(get("/api/v1/tokens"), "name"), "grafana") << "the other one has ended";
    now = noon;
    api_answer dropped = ask("/api/v1/tokens/1", "DELETE");
    EXPECT_EQ(dropped.status, 204);
    EXPECT_EQ(dropped.audit, "removed token grafana");
    refused("/api/v1/tokens/1", 404, "DELETE");
    refused("/api/v1/tokens/x", 404, "DELETE");
    EXPECT_EQ(column(get("/api/v1/tokens"), "name"), "bob");
    kept.failure = "disk full";
    for (const char* method : {"GET", "POST"}) {
        EXPECT_EQ(refused("/api/v1/tokens", 503, method,
                          method[0] == 'P' ? "{\"name\":\"c\",\"role\":\"viewer\"}" : ""),
                  "The tokens cannot be read or changed: disk full.");
    }
}

TEST_F(api_resources_test, bodies_that_make_no_token) {
    const char* bodies[] = {
        "",
        "{",
        "[]",
        "null",
        "{\"name\":\"x\"}",
        "{\"role\":\"viewer\"}",
        "{\"name\":\"\",\"role\":\"viewer\"}",
        "{\"name\":7,\"role\":\"viewer\"}",
        "{\"name\":\"a\\nb\",\"role\":\"viewer\"}",
        "{\"name\":\"x\",\"role\":\"root\"}",
        "{\"name\":\"x\",\"role\":\"none\"}",
        "{\"name\":\"x\",\"role\":\"viewer\",\"ends\":\"tomorrow\"}",
        "{\"name\":\"x\",\"role\":\"viewer\",\"ends\":\"2020-01-01T00:00:00Z\"}",
        "{\"name\":\"x\",\"role\":\"viewer\",\"id\":1}",
        "{\"name\":\"x\",\"role\":\"viewer\"} {}",
        "{\"name\":\"\xff\",\"role\":\"viewer\"}"};
    for (const char* body : bodies) {
        EXPECT_NE(refused("/api/v1/tokens", 400, "POST", body), "") << body;
    }
    refused("/api/v1/tokens", 400, "POST",
            "{\"name\":\"" + std::string(101, 'x') + "\",\"role\":\"viewer\"}");
    refused("/api/v1/tokens", 400, "POST", std::string(100000, '['));
    EXPECT_TRUE(kept.tokens.empty());
    json::value errors = get("/api/v1/tokens", 400, "POST", "{\n  \"name\" \"x\"}").at("errors");
    EXPECT_EQ(errors.at(0).at("line"), 2);
    EXPECT_EQ(errors.at(0).at("column"), 10);
}

/* ---- health ---- */

/* The store has none of these; a text in such a place is not shown all the same. */
TEST_F(api_resources_test, of_passwords_the_names_of_secrets_are_shown) {
    follow({{.type = type_mysql,
             .number = 9,
             .location = 1,
             .name = "db1",
             .text = "9\t1\tdb1\t0\t\tu\t${secret:db}\tUptime\t5"},
            {.type = type_mysql,
             .number = 10,
             .location = 1,
             .name = "db2",
             .text = "10\t1\tdb2\t0\t\tu\thunter2${secret:db}\tUptime\t5"}});
    settle();
    for (uint32_t number : {9u, 10u}) {
        submit(record_builder{.ui32 = {type_mysql, number, 1, 0, 5}, .i64 = {now}, .strings = {"x"}}
                   .bytes());
    }
    json::value first = get("/api/v1/tests/1"), second = get("/api/v1/tests/2");
    EXPECT_EQ(json_text(first.at("definition").at("fields")),
              R"({"host":"db1","port":0,"text 2":"u","text 3":"${secret:db}",)"
              R"("text 4":"Uptime","time limit":5})");
    EXPECT_EQ(json_text(second.at("definition").at("fields")),
              R"({"host":"db2","port":0,"text 2":"u","text 4":"Uptime","time limit":5})");
}

/* ---- secrets of tests ---- */

TEST_F(api_resources_test, secrets_are_set_listed_and_removed_and_never_said) {
    for (role may : {role::none, role::viewer, role::operates}) {
        const int status = may == role::none ? 401 : 403;
        refused("/api/v1/secrets", status, "GET", "", may);
        refused("/api/v1/secrets/db", status, "PUT", "{\"value\":\"s3cret\"}", may);
        refused("/api/v1/secrets/db", status, "DELETE", "", may);
    }
    EXPECT_TRUE(kept.secrets.empty());
    EXPECT_EQ(ask("/api/v1/secrets").body, R"({"items":[],"next":null})");

    api_answer set = ask("/api/v1/secrets/db", "PUT", "{\"value\":\"s3cret\"}");
    EXPECT_EQ(set.status, 200);
    EXPECT_EQ(set.body, R"({"name":"db","made":"2026-05-01T12:00:00Z","by":"ann",)"
                        R"("readable":true,"used":0})");
    EXPECT_EQ(set.audit, "set secret db");
    EXPECT_EQ(set.headers.size(), 0u);
    std::string missing;
    EXPECT_EQ(secrets.expand("${secret:db}", missing), "s3cret");
    EXPECT_EQ(kept.secrets.at("db").by, "ann");
    EXPECT_EQ(kept.secrets.at("db").sealed.find("s3cret"), std::string::npos);

    api_answer before = ask("/api/v1/secrets");
    get("/api/v1/secrets/a.b", 200, "PUT", "{\"value\":\"\\u00e4\\\\ \"}");
    EXPECT_EQ(secrets.expand("${secret:a.b}", missing), "\xc3\xa4\\ ");
    get("/api/v1/secrets/a%2eb", 200, "PUT", "{\"value\":\"other\"}");
    EXPECT_EQ(secrets.expand("${secret:a.b}", missing), "other");
    EXPECT_EQ(pages("/api/v1/secrets", "name", 1), "a.b db");
    secrets.note_uses({{"db", 3}}, {});
    EXPECT_EQ(column(get("/api/v1/secrets"), "used"), "0 3");

    /* Another value is another time, and nothing else. */
    api_answer list = ask("/api/v1/secrets");
    get("/api/v1/secrets/db", 200, "PUT", "{\"value\":\"an0ther\"}");
    EXPECT_EQ(ask("/api/v1/secrets").body, list.body);

    api_answer dropped = ask("/api/v1/secrets/db", "DELETE");
    EXPECT_EQ(dropped.status, 204);
    EXPECT_EQ(dropped.audit, "removed secret db");
    EXPECT_EQ(refused("/api/v1/secrets/db", 404, "DELETE"), "There is no secret db.");
    EXPECT_EQ(column(get("/api/v1/secrets"), "name"), "a.b");
}

TEST_F(api_resources_test, bodies_that_set_no_secret_are_not_said_again) {
    const std::string long_value(4097, 'x');
    for (const std::string& body :
         {std::string(), std::string("{}"), std::string("hunter2"), std::string("\"hunter2\""),
          std::string("{\"value\":\"hunter2\""), std::string("{\"hunter2\":1}"),
          std::string("{\"value\":null}"), std::string("{\"value\":7}"),
          std::string("{\"value\":[\"hunter2\"]}"), std::string("{\"value\":\"\"}"),
          std::string("{\"value\":\"hunter2\",\"more\":1}"),
          std::string("{\"value\":\"hunter2\",\"value\":\"x\"}"),
          std::string("{\"value\":\"hunter2\\n\"}"), std::string("{\"value\":\"hun\\tter2\"}"),
          std::string("{\"value\":\"hunter2\\u0000\"}"), std::string("{\"value\":\"hunter2\xff\"}"),
          "{\"value\":\"" + long_value + "\"}"}) {
        api_answer answer = ask("/api/v1/secrets/db", "PUT", body);
        EXPECT_EQ(answer.status, 400) << body;
        for (const char* part : {"hun", "ter2", "xxxx"}) {
            EXPECT_EQ(answer.body.find(part), std::string::npos) << answer.body;
        }
        EXPECT_EQ(answer.audit, "");
    }
    for (const char* name : {"a%20b", "a%2Fb", "%24%7Bsecret%3Aa%7D", "%00", "%ff"}) {
        const std::string path = std::string("/api/v1/secrets/") + name;
        EXPECT_EQ(refused(path, 400, "PUT", "{\"value\":\"x\"}"),
                  "The name of a secret has to be 1 to 64 letters, digits, '-', '_' and '.'.");
        refused(path, 400, "DELETE");
    }
    EXPECT_TRUE(kept.secrets.empty());
}

TEST_F(api_resources_test, secrets_that_cannot_be_kept_are_told_without_them) {
    kept.decisions_failure = "disk full";
    EXPECT_EQ(refused("/api/v1/secrets/db", 503, "PUT", "{\"value\":\"s3cret\"}"),
              "The secret cannot be kept: disk full.");
    EXPECT_EQ(refused("/api/v1/secrets/db", 503, "DELETE"),
              "The secret cannot be removed: disk full.");
    kept.decisions_failure = "";
    get("/api/v1/secrets/db", 200, "PUT", "{\"value\":\"s3cret\"}");
    std::filesystem::remove(state + "/secrets.key");
    std::string error;
    EXPECT_FALSE(secrets.refresh(error));
    EXPECT_EQ(column(get("/api/v1/secrets"), "readable"), "false");
    const std::string detail =
        refused("/api/v1/secrets/web", 503, "PUT", "{\"value\":\"hunter2\"}");
    EXPECT_TRUE(detail.ends_with("(put the key back, or remove the secrets that were sealed with "
                                 "it: db)."))
        << detail;
    EXPECT_EQ(detail.find("hunter2"), std::string::npos);
}

TEST_F(api_resources_test, health_and_readiness_need_no_token) {
    EXPECT_EQ(get("/healthz", 200, "GET", "", role::none).as_object().size(), 1u);
    EXPECT_EQ(get("/healthz").at("version"), "3.0");
    EXPECT_EQ(get("/healthz").at("name"), "ann");
    EXPECT_EQ(get("/healthz").at("role"), "admin");
    notes = {"two"};
    EXPECT_EQ(json_text(get("/readyz", 200, "GET", "", role::none).at("notes")), "[\"two\"]");
    is_ready = false;
    notes = {"results cannot be stored", "x"};
    EXPECT_EQ(refused("/readyz", 503, "GET", "", role::none), "results cannot be stored x");
}

/* ---- what is damaged, missing, or takes too long ---- */

TEST_F(api_resources_test, without_a_store) {
    with.reset();
    noting.reset();
    store.reset();
    std::filesystem::remove_all(state);
    reader_pool none(directory / "nowhere");
    std::string error;
    scratch_directory other;
    auto writer = ingest::open({.directory = other / "s"}, nullptr, error);
    noting_ingest noted(*writer);
    api_services without{.stored = none,
                         .results = noted,
                         .hub = hub,
                         .kept = kept,
                         .agents = agents,
                         .where_agents_poll = {},
                         .secrets = secrets,
                         .counted = counted,
                         .now = [] { return now.load(); },
                         .check_now = {},
                         .send_away = {},
                         .readiness = {},
                         .version = ""};
    for (const char* path :
         {"/api/v1/agents", "/api/v1/enrolments", "/api/v1/tests", "/api/v1/events",
          "/api/v1/ledger", "/api/v1/tests/1", "/api/v1/agents/1"}) {
        api_request asked;
        asked.who.may = role::viewer;
        api_answer answer = answer_request("GET", path, asked, without);
        EXPECT_EQ(answer.status, 503) << answer.body;
        EXPECT_NE(answer.body.find("What is stored cannot be read: "), std::string::npos);
    }
}

TEST_F(api_resources_test, a_deadline_ends_what_takes_long) {
    submit(load(101, noon));
    deadline = std::chrono::steady_clock::now() - std::chrono::seconds(1);
    for (const char* path : {"/api/v1/agents", "/api/v1/tests", "/api/v1/tests?q=nothing",
                             "/api/v1/tests/1/results", "/api/v1/ledger"}) {
        EXPECT_NE(refused(path, 503).find("took too long"), std::string::npos) << path;
    }
}

TEST_F(api_resources_test, what_is_unchanged_is_not_sent_again) {
    submit(load(101, noon));
    for (const char* path : {"/api/v1/agents", "/api/v1/tests", "/api/v1/tests/1",
                             "/api/v1/tests/1/results", "/api/v1/events", "/openapi.json"}) {
        if_none_match = "";
        api_answer answer = ask(path);
        ASSERT_FALSE(answer.headers.empty());
        EXPECT_EQ(answer.headers[0].first, "ETag");
        const std::string tag = answer.headers[0].second;
        for (const std::string& known : {tag, "W/" + tag, "\"x\", " + tag, std::string("*")}) {
            if_none_match = known;
            api_answer again = ask(path);
            EXPECT_EQ(again.status, 304) << known;
            EXPECT_EQ(again.body, "");
            EXPECT_EQ(again.headers[0].second, tag);
        }
        if_none_match = "\"x\"";
        EXPECT_EQ(ask(path).status, 200);
    }
    if_none_match = "";
    std::string before = ask("/api/v1/tests").headers[0].second;
    now += 60;
    submit(load(101, noon + 60, 3));
    EXPECT_NE(ask("/api/v1/tests").headers[0].second, before);
}

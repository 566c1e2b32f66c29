/* Tests by the names that the fleet's file gave them, wherever the API names a test. */
#include "eventually.h"
#include "live_place.h"

namespace json = boost::json;

static const int64_t noon = api_noon;

static std::string http(uint32_t location, int64_t time, uint32_t status = 0, uint32_t test = 801) {
    return record_builder{.ui32 = {type_load_average, test, location, status},
                          .i64 = {time},
                          .d64 = {0.5, 0.25, 0.125},
                          .strings = {status != 0 ? "no answer\n" : "fine\n"}}
        .bytes();
}

class api_names_test : public api_place {
protected:
    /* What a test of an agent is from now on. */
    void define(int64_t agent, int32_t location, const std::string& title,
                const std::string& target, int32_t number = 801) {
        const int64_t since = now;
        change_store(*with, [=](engine& e) {
            return e.append_definition({.agent = agent,
                                        .type = type_load_average,
                                        .number = number,
                                        .location = location,
                                        .since = since,
                                        .name = target,
                                        .text = "801\t7\t8\t6\t4",
                                        .title = title,
                                        .group = title.empty() ? "" : "web servers"});
        });
    }
    void let_pass(int64_t seconds) { now += seconds; }
};

TEST_F(api_names_test, a_test_has_its_name_and_what_it_looks_at_beside_it) {
    submit(http(7, noon));
    submit(http(7, noon), "web-2");
    define(1, 7, "front page", "https://shop.example.org/");
    define(2, 7, "front page", "https://other.example.org/");
    json::value list = get("/api/v1/tests");
    EXPECT_EQ(column(list, "name"), "front page front page");
    EXPECT_EQ(column(list, "target"), "https://shop.example.org/ https://other.example.org/");
    EXPECT_EQ(column(list, "group"), "web servers web servers");
    EXPECT_EQ(column(list, "number"), "801 801");
    json::value test = get("/api/v1/tests/1");
    EXPECT_EQ(test.at("name"), "front page");
    EXPECT_EQ(test.at("definition").at("title"), "front page");
    EXPECT_EQ(test.at("definition").at("name"), "https://shop.example.org/");
    json::value event = get("/api/v1/events?agent=1").at("items").at(0);
    EXPECT_EQ(event.at("test").at("name"), "front page");
    EXPECT_EQ(event.at("test").at("target"), "https://shop.example.org/");
    json::value series = get("/api/v1/tests/1/series?from=2026-05-01T11:00:00Z");
    EXPECT_EQ(series.at("definitions").at(0).at("title"), "front page");
    const std::string metrics = ask("/metrics?fleet").body;
    EXPECT_NE(metrics.find("agent=\"web-1\",test=\"front page\""), metrics.npos) << metrics;
}

/* What nobody has called anything is as it was. */
TEST_F(api_names_test, without_a_name_it_is_what_it_looks_at) {
    submit(http(7, noon));
    define(0, 7, "", "the load");
    json::value test = get("/api/v1/tests/1");
    EXPECT_EQ(test.at("name"), "the load");
    EXPECT_EQ(test.at("target"), "the load");
    EXPECT_TRUE(test.at("group").is_null());
    EXPECT_TRUE(test.at("definition").at("title").is_null());
    submit(http(8, noon, 0, 802));
    EXPECT_EQ(get("/api/v1/tests/2").at("name"), "load average 802");
    EXPECT_TRUE(get("/api/v1/tests/2").at("target").is_null());
    define(1, 8, "load", "", 802);
    EXPECT_EQ(get("/api/v1/tests/2").at("name"), "load");
    EXPECT_TRUE(get("/api/v1/tests/2").at("target").is_null());
}

TEST_F(api_names_test, found_by_name_target_and_agent) {
    submit(http(7, noon) + http(7, noon, 0, 802));
    submit(http(7, noon), "web-2");
    define(1, 7, "Front Page", "https://shop.example.org/");
    define(1, 7, "load", "", 802);
    define(2, 7, "front page", "https://other.example.org/");
    for (const char* list : {"/api/v1/tests", "/api/v1/events"}) {
        auto found = [&, list](const std::string& q) {
            json::value answer = get(list + ("?q=" + q));
            return answer.at("items").as_array().size();
        };
        SCOPED_TRACE(list);
        EXPECT_EQ(found("FRONT+page"), 2u);
        EXPECT_EQ(found("shop.EXAMPLE"), 1u);
        EXPECT_EQ(found("example.org"), 2u);
        EXPECT_EQ(found("web-2"), 1u);
        EXPECT_EQ(found("web-1"), 2u);
        EXPECT_EQ(found("nothing"), 0u);
    }
}

TEST_F(api_names_test, by_group_of_the_agent) {
    for (const char* agent : {"web-1", "web-2", "db-1"}) {
        submit(http(7, noon), agent);
    }
    fleet.groups = {{"a@b.c/web-1", {"web servers", "everything"}},
                    {"a@b.c/web-2", {"web servers"}},
                    {"a@b.c/db-1", {"everything"}}};
    for (const char* list : {"/api/v1/tests", "/api/v1/events"}) {
        SCOPED_TRACE(list);
        const std::string of = list;
        const bool newest_first = of.ends_with("events");
        EXPECT_EQ(column(get(of + "?group=web+servers"), "agent.name"),
                  newest_first ? "web-2 web-1" : "web-1 web-2");
        EXPECT_EQ(column(get(of + "?group=everything"), "agent.name"),
                  newest_first ? "db-1 web-1" : "db-1 web-1");
        EXPECT_EQ(column(get(of + "?group=everything&agent=a@b.c/web-2"), "agent.name"), "");
        EXPECT_EQ(column(get(of + "?group=everything&agent=a@b.c/web-1"), "agent.name"), "web-1");
        EXPECT_EQ(column(get(of + "?group=none"), "agent.name"), "");
        EXPECT_EQ(pages(of + "?group=web+servers", "agent.name", 1),
                  newest_first ? "web-2 web-1" : "web-1 web-2");
    }
    with->fleet = nullptr; /* a plan of raw commands rules */
    EXPECT_EQ(column(get("/api/v1/tests?group=everything"), "agent.name"), "");
    EXPECT_EQ(column(get("/api/v1/events?group=everything"), "agent.name"), "");
}

/* An event has the name that its test had; the test has the one that it has. */
TEST_F(api_names_test, events_keep_the_names_that_tests_had) {
    submit(http(7, noon));
    define(1, 7, "page", "https://shop.example.org/");
    let_pass(60);
    submit(http(7, now, 1));
    let_pass(60);
    define(1, 7, "front page", "https://shop.example.org/"); /* a new name is no new revision */
    let_pass(60);
    submit(http(7, now));
    EXPECT_EQ(column(get("/api/v1/events?agent=1"), "test.name"), "front page page page");
    EXPECT_EQ(get("/api/v1/tests/1").at("name"), "front page");
    /* It was removed long ago, and its number says nothing else. */
    let_pass(100 * 86400);
    EXPECT_EQ(get("/api/v1/tests/1").at("name"), "front page");
}

/* A result that comes late is what it was judged by. */
TEST_F(api_names_test, results_have_the_definition_of_their_revision) {
    submit(http(7, noon));
    define(1, 7, "front page", "https://old.example.org/");
    let_pass(60);
    define(1, 9, "front page", "https://new.example.org/");
    EXPECT_EQ(get("/api/v1/tests/1").at("target"), "https://old.example.org/");
    let_pass(60);
    submit(http(7, now)); /* the agent has not heard of it */
    EXPECT_EQ(get("/api/v1/tests/1").at("target"), "https://old.example.org/");
    let_pass(60);
    submit(http(9, now));
    EXPECT_EQ(get("/api/v1/tests/1").at("target"), "https://new.example.org/");
    let_pass(60);
    submit(http(11, now)); /* a revision that nobody remembers */
    EXPECT_EQ(get("/api/v1/tests/1").at("name"), "front page");
}

using live_names_test = live_place<api_names_test>;

TEST_F(live_names_test, the_stream_says_them_too) {
    submit(http(7, noon), "web-2");
    submit(http(7, noon));
    define(1, 7, "front page", "https://other.example.org/");
    define(2, 7, "front page", "https://shop.example.org/");
    let_pass(60);
    submit(http(7, now, 1));
    std::string result, event;
    auto are_told = [&] {
        std::vector<hub_message> found;
        bool lost = false;
        uint64_t position = 0;
        hub.read(position, {}, SIZE_MAX, found, lost);
        for (const hub_message& each : found) {
            (each.kind == hub_kind::result  ? result
             : each.kind == hub_kind::event ? event
                                            : told.emplace_back()) = *each.json;
        }
        return event.find("no answer") != event.npos;
    };
    ASSERT_TRUE(eventually(are_told)) << event;
    const json::value reference = json::parse(result).at("test");
    EXPECT_EQ(reference.at("name"), "front page");
    EXPECT_EQ(reference.at("target"), "https://shop.example.org/");
    EXPECT_EQ(json::parse(event).at("test"), reference);
    EXPECT_EQ(misfit(json::parse(result), "live_result"), "");
}

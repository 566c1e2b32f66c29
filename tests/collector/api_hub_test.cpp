#include "api/services.cpp"

#include "eventually.h"
#include "live_place.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <pthread.h>
#include <thread>

namespace json = boost::json;

/* ---- the ring ---- */

class event_hub_test : public testing::Test {
protected:
    void publish(event_hub& to, int count, hub_kind kind = hub_kind::result, int64_t agent = 1,
                 int64_t test = 1) {
        for (int i = 0; i < count; i++) {
            to.publish(kind, agent, test, "message " + std::to_string(to.newest() + 1));
        }
    }
    std::string read(const event_hub& from, uint64_t& position, const hub_filter& which = {},
                     size_t most = SIZE_MAX) {
        std::vector<hub_message> found;
        bool lost = false;
        from.read(position, which, most, found, lost);
        std::string all = lost ? "lost " : "";
        for (const hub_message& each : found) {
            EXPECT_EQ(*each.json, "message " + std::to_string(each.position));
            all += std::to_string(each.position) + " ";
        }
        return all;
    }
    event_hub hub;
};

TEST_F(event_hub_test, each_message_once_in_order) {
    uint64_t a = 0, b = 0;
    EXPECT_EQ(read(hub, a), "");
    publish(hub, 3);
    EXPECT_EQ(read(hub, a), "1 2 3 ");
    EXPECT_EQ(a, 3u);
    EXPECT_EQ(read(hub, a), "");
    publish(hub, 2);
    EXPECT_EQ(read(hub, b, {}, 1), "1 ") << "one at least";
    EXPECT_EQ(read(hub, b, {}, 18), "2 3 ");
    EXPECT_EQ(read(hub, b), "4 5 ");
    EXPECT_EQ(read(hub, a), "4 5 ");
    uint64_t ahead = 99;
    EXPECT_EQ(read(hub, ahead), "");
    EXPECT_EQ(ahead, 5u);
}

/* Somebody may read, or come and go, while others are woken. */
TEST_F(event_hub_test, wakes_without_a_lock) {
    int woken = 0;
    std::atomic<uint64_t> read = 0;
    uint64_t first = 0, second = 0;
    first = hub.subscribe([&] {
        woken++;
        std::thread reader([&] { read = hub.newest(); });
        EXPECT_TRUE(eventually([&] { return read > 0; }));
        reader.join();
        hub.unsubscribe(second);
    });
    second = hub.subscribe([&] { woken += 10; });
    hub.subscribe([&] { woken += 100; });
    publish(hub, 1);
    hub.flush();
    EXPECT_EQ(woken, 101);
    hub.unsubscribe(first);
}

TEST_F(event_hub_test, filters) {
    publish(hub, 1, hub_kind::result, 1, 10);
    publish(hub, 1, hub_kind::event, 1, 10);
    publish(hub, 1, hub_kind::agent, 2, 0);
    publish(hub, 1, hub_kind::event, 2, 20);
    auto read_all = [&](const hub_filter& which) {
        uint64_t position = 0;
        std::string all = read(hub, position, which);
        EXPECT_EQ(position, 4u) << "all were looked at";
        return all;
    };
    EXPECT_EQ(read_all({}), "1 2 3 4 ");
    EXPECT_EQ(read_all({.kinds = static_cast<uint8_t>(hub_kind::event)}), "2 4 ");
    EXPECT_EQ(read_all({.agent = 2}), "3 4 ");
    EXPECT_EQ(read_all({.test = 10}), "1 2 ");
    EXPECT_EQ(read_all({.kinds = 2, .agent = 1, .test = 10}), "2 ");
    EXPECT_EQ(read_all({.agent = 3}), "");
    publish(hub, 1, hub_kind::result, 3, 30);
    auto results = [&](std::vector<int64_t> agents, std::vector<int64_t> tests) {
        uint64_t position = 0;
        return read(hub, position,
                    {.result_agents = std::move(agents), .result_tests = std::move(tests)});
    };
    EXPECT_EQ(results({3}, {}), "2 3 4 5 ") << "what is no result is of all";
    EXPECT_EQ(results({}, {10}), "1 2 3 4 ");
    EXPECT_EQ(results({1, 2}, {7, 30}), "1 2 3 4 5 ");
    EXPECT_EQ(results({2}, {11}), "2 3 4 ");
}

TEST_F(event_hub_test, a_ring_of_bounded_size) {
    event_hub few(1u << 20, 4);
    publish(few, 3);
    uint64_t position = 1;
    publish(few, 5);
    EXPECT_EQ(read(few, position), "lost 5 6 7 8 ");
    position = 4;
    EXPECT_EQ(read(few, position), "5 6 7 8 ") << "nothing lies between";
    event_hub small(30);
    publish(small, 10);
    position = 0;
    EXPECT_EQ(read(small, position), "lost 8 9 10 ");
    small.publish(hub_kind::event, 1, 1, std::string(31, 'x'));
    position = 10;
    EXPECT_EQ(read(small, position), "lost ") << "larger than the ring";
    EXPECT_EQ(position, 11u);
    publish(small, 1);
    EXPECT_EQ(read(small, position), "12 ");
}

TEST_F(event_hub_test, what_there_are_no_messages_of_is_lost) {
    publish(hub, 3);
    uint64_t old = 1, last = hub.newest();
    hub.flush();
    int woken = 0;
    uint64_t id = hub.subscribe([&] { woken++; });
    hub.skip();
    hub.flush();
    hub.unsubscribe(id);
    EXPECT_EQ(woken, 1);
    uint64_t fresh = hub.newest();
    EXPECT_EQ(read(hub, old), "lost ");
    EXPECT_EQ(read(hub, last), "lost ");
    EXPECT_EQ(read(hub, last), "") << "told once";
    EXPECT_EQ(read(hub, fresh), "");
    publish(hub, 1);
    EXPECT_EQ(read(hub, fresh), "5 ");
    EXPECT_EQ(read(hub, last), "5 ");
}

TEST_F(event_hub_test, positions_of_this_run_only) {
    publish(hub, 3);
    EXPECT_EQ(hub.position_of(hub.run() + "-2"), 2u);
    EXPECT_EQ(hub.position_of(hub.run() + "-3"), 3u);
    EXPECT_EQ(hub.position_of(hub.run() + "-0"), 0u);
    for (const std::string& wrong :
         {hub.run() + "-4", hub.run() + "--1", hub.run() + "-", hub.run(), std::string(""),
          hub.run() + "-1x", hub.run() + "-99999999999999999999", "1" + hub.run() + "-1"}) {
        EXPECT_EQ(hub.position_of(wrong), std::nullopt) << wrong;
    }
}

TEST_F(event_hub_test, wakes_once_for_each_batch) {
    EXPECT_FALSE(hub.is_heard());
    int woken = 0, other = 0;
    uint64_t id = hub.subscribe([&] { woken++; });
    uint64_t second = hub.subscribe([&] { other++; });
    EXPECT_NE(id, second);
    EXPECT_TRUE(hub.is_heard());
    hub.flush();
    EXPECT_EQ(woken, 0) << "nothing new";
    publish(hub, 5);
    EXPECT_EQ(woken, 0);
    hub.flush();
    hub.flush();
    EXPECT_EQ(woken, 1);
    hub.unsubscribe(id);
    hub.unsubscribe(id);
    publish(hub, 1);
    hub.flush();
    EXPECT_EQ(woken, 1);
    EXPECT_EQ(other, 2);
    hub.unsubscribe(second);
    EXPECT_FALSE(hub.is_heard());
}

TEST_F(event_hub_test, many_readers_while_it_is_written) {
    event_hub busy(1u << 20, 1000);
    std::atomic<bool> done = false;
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; i++) {
        readers.emplace_back([&] {
            uint64_t position = 0, before = 0;
            while (!done || position < busy.newest()) {
                std::vector<hub_message> found;
                bool lost = false;
                busy.read(position, {}, 4096, found, lost);
                for (const hub_message& each : found) {
                    EXPECT_GT(each.position, before);
                    before = each.position;
                }
                uint64_t id = busy.subscribe([] {});
                busy.unsubscribe(id);
            }
            EXPECT_EQ(before, 20000u);
        });
    }
    for (int i = 0; i < 200; i++) {
        publish(busy, 100);
        busy.flush();
    }
    done = true;
    for (std::thread& each : readers) {
        each.join();
    }
}

/* ---- what is published ---- */

class live_test : public live_place<api_place> {
protected:
    /* What came of the block; waits for how the agent stands, which is told last. */
    std::vector<std::pair<hub_kind, json::value>> publish(const std::string& records,
                                                          const std::string& agent = "web-1") {
        submit(records, agent);
        std::vector<hub_message> found;
        std::vector<std::pair<hub_kind, json::value>> all;
        bool lost = false;
        uint64_t until = position;
        auto is_told = [&] {
            hub.read(until = position, {}, SIZE_MAX, found, lost);
            return !found.empty() && found.back().kind == hub_kind::agent &&
                   json::parse(*found.back().json).at("name").as_string() == agent;
        };
        EXPECT_TRUE(eventually(is_told));
        position = until;
        for (const hub_message& each : found) {
            EXPECT_EQ(each.json->find('\n'), std::string::npos);
            all.emplace_back(each.kind, json::parse(*each.json));
            EXPECT_EQ(misfit(all.back().second, each.kind == hub_kind::result  ? "live_result"
                                                : each.kind == hub_kind::event ? "event"
                                                                               : "live_agent"),
                      "")
                << *each.json;
            EXPECT_EQ(each.agent,
                      (each.kind == hub_kind::agent ? all.back().second.at("id")
                                                    : all.back().second.at("agent").at("id"))
                          .as_int64());
        }
        return all;
    }
    static std::string kinds(const std::vector<std::pair<hub_kind, json::value>>& all) {
        std::string text;
        for (const auto& [kind, value] : all) {
            text += kind == hub_kind::result  ? "result "
                    : kind == hub_kind::event ? "event "
                                              : "agent ";
        }
        return text;
    }

    uint64_t position = 0;
};

TEST_F(live_test, results_events_and_the_agent) {
    follow({{.type = type_load_average,
             .number = 5,
             .location = 7,
             .name = "the load",
             .text = "5\t7"}});
    submit(load_record(5, api_noon), "db-1"); /* the definitions are kept behind it */
    publish(load_record(5, api_noon), "db-2");
    auto all = publish(load_record(5, api_noon));
    ASSERT_EQ(kinds(all), "result event agent ");
    const json::value& result = all[0].second;
    EXPECT_EQ(json_text(result.at("agent")), "{\"id\":3,\"account\":\"a@b.c\",\"name\":\"web-1\"}");
    EXPECT_EQ(json_text(result.at("test")),
              "{\"id\":3,\"type\":\"load average\",\"number\":5,\"name\":\"the "
              "load\",\"target\":\"the load\"}");
    EXPECT_EQ(result.at("state"), "ok");
    EXPECT_EQ(json_text(result.at("values").at("load1")), "{\"value\":0.5,\"unit\":\"\"}");
    EXPECT_EQ(all[1].second.at("to"), "ok");
    EXPECT_EQ(all[1].second.at("agent"), result.at("agent"));
    EXPECT_EQ(all[1].second.at("test"), result.at("test"));
    EXPECT_EQ(all[2].second.at("state"), "ok");
    EXPECT_EQ(json_text(all[2].second.at("tests")), "{\"ok\":1,\"problem\":0,\"unknown\":0}");

    now += 60;
    EXPECT_EQ(kinds(publish(load_record(5, api_noon + 60))), "result agent ");
    now += 60;
    all = publish(load_record(5, api_noon + 120, 2, "bad\xff\n") + load_record(6, api_noon + 120));
    ASSERT_EQ(kinds(all), "result result event event agent ");
    EXPECT_EQ(all[0].second.at("message"), "bad\xef\xbf\xbd\n");
    EXPECT_EQ(all[2].second.at("message"), "bad\xef\xbf\xbd\n");
}

TEST_F(live_test, an_agent_is_retired) {
    publish(load_record(5, api_noon));
    uint64_t before = hub.newest();
    retire_stored(*with, 1);
    ASSERT_TRUE(eventually([&] { return hub.newest() > before; }));
    std::vector<hub_message> found;
    bool lost = false;
    hub.read(before, {.kinds = static_cast<uint8_t>(hub_kind::agent), .agent = 1}, SIZE_MAX, found,
             lost);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_FALSE(lost);
    boost::json::value told = boost::json::parse(*found[0].json);
    EXPECT_EQ(misfit(told, "live_agent"), "");
    EXPECT_EQ(json_text(told), "{\"id\":1,\"account\":\"a@b.c\",\"name\":\"web-1\",\"state\":"
                               "\"unknown\",\"since\":null,\"tests\":{\"ok\":0,\"problem\":0,"
                               "\"unknown\":0},\"retired\":\"2026-05-01T12:00:00Z\"}");
    /* Who watches only this agent is not told of what others do. */
    position = before = hub.newest();
    publish(load_record(5, api_noon), "web-2");
    hub.read(before, {.agent = 1}, SIZE_MAX, found, lost);
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(before, hub.newest()) << "nothing is left to look at";
}

/* Also when the thread that makes messages has not come to them yet. */
TEST_F(live_test, a_retirement_comes_behind_what_came_before) {
    std::atomic<bool> is_held = false, go = false;
    const uint64_t holder = hub.subscribe([&] {
        char name[16] = "";
        pthread_getname_np(pthread_self(), name, sizeof(name));
        is_held = is_held || strcmp(name, "live") == 0;
        while (strcmp(name, "live") == 0 && !go) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    submit(load_record(5, api_noon));
    EXPECT_TRUE(eventually([&] { return is_held.load(); }));
    now += 60;
    submit(load_record(5, api_noon + 60));
    retire_stored(*with, 1);
    go = true;
    std::vector<hub_message> found;
    auto is_told = [&] {
        bool lost = false;
        uint64_t from = position;
        hub.read(from, {}, SIZE_MAX, found, lost);
        return std::any_of(found.begin(), found.end(), [](const hub_message& each) {
            return each.json->find("\"retired\"") != std::string::npos;
        });
    };
    EXPECT_TRUE(eventually(is_told));
    hub.unsubscribe(holder);
    ASSERT_FALSE(found.empty());
    EXPECT_NE(found.back().json->find("\"retired\""), std::string::npos) << *found.back().json;
    EXPECT_EQ(std::count_if(found.begin(), found.end(),
                            [](const hub_message& each) { return each.kind == hub_kind::result; }),
              2);
}

TEST_F(live_test, nothing_while_nobody_listens) {
    publish(load_record(5, api_noon));
    hub.unsubscribe(id);
    uint64_t before = hub.newest();
    now += 60;
    submit(load_record(5, api_noon + 60));
    submit(load_record(5, api_noon + 60), "web-2");
    /* For each of the two batches only this: that there was something. */
    ASSERT_TRUE(eventually([&] { return hub.newest() >= before + 2; }));
    std::vector<hub_message> found;
    bool lost = false;
    hub.read(before, {}, SIZE_MAX, found, lost);
    EXPECT_TRUE(found.empty());
    EXPECT_TRUE(lost);
    position = before;
    id = hub.subscribe([] {});
    now += 60;
    EXPECT_EQ(kinds(publish(load_record(5, api_noon + 120))), "result agent ");
}

/* Nothing is made of them before the first batch ends, so that the second agent finds no room. */
TEST_F(live_test, what_does_not_fit_is_lost_and_said_so) {
    live_messages small(hub, state, 1);
    agent_state stands;
    uint64_t told = hub.newest();
    small.on_agent(1, "a@b.c", "web-1", stands, {});
    small.on_agent(2, "a@b.c", "web-2", stands, {});
    small.on_batch_end();
    std::vector<hub_message> found;
    bool lost = false;
    ASSERT_TRUE(eventually([&] { return hub.newest() >= told + 2; }));
    hub.read(told, {}, SIZE_MAX, found, lost);
    EXPECT_TRUE(lost);
    EXPECT_TRUE(found.empty());
    ASSERT_TRUE(eventually([&] { /* as soon as there is room again */
                                 small.on_agent(2, "a@b.c", "web-2", stands, {});
                                 small.on_batch_end();
                                 hub.read(told, {}, SIZE_MAX, found, lost);
                                 return !found.empty();
    }));
    EXPECT_EQ(found[0].agent, 2);
}

TEST_F(live_test, the_streams_filter) {
    submit(load_record(5, api_noon));
    auto filter = [&](const std::string& target, role may = role::viewer) {
        api_request asked;
        asked.who.may = may;
        hub_filter which = stream_filter(target, asked, *with);
        return std::to_string(which.kinds) + " " + std::to_string(which.agent) + " " +
               std::to_string(which.test);
    };
    const std::string path = "/api/v1/stream";
    EXPECT_EQ(filter(path), "15 0 0");
    EXPECT_EQ(filter(path + "?kind=event,agent"), "6 0 0");
    EXPECT_EQ(filter(path + "?agent=a@b.c%2Fweb-1&kind=result"), "1 1 0");
    EXPECT_EQ(filter(path + "?test=1&agent=1"), "15 1 1");
    auto results = [&](const std::string& query) {
        api_request asked;
        asked.who.may = role::viewer;
        hub_filter which = stream_filter(path + query, asked, *with);
        EXPECT_EQ(which.kinds, 15);
        return std::pair(which.result_agents, which.result_tests);
    };
    using ids = std::vector<int64_t>;
    EXPECT_EQ(results(""), std::pair(ids{}, ids{}));
    EXPECT_EQ(results("?result_agent=30,2&result_test=7"), std::pair(ids({2, 30}), ids{7}))
        << "of what is not there, too: it may come";
    std::string hundred = "?result_test=1";
    for (int i = 2; i <= 100; i++) {
        hundred += "," + std::to_string(i);
    }
    EXPECT_EQ(results(hundred).second.size(), 100u);
    auto status = [&](const std::string& target, role may = role::viewer) {
        try {
            filter(target, may);
        } catch (const problem& what) {
            return what.status;
        }
        return 200;
    };
    EXPECT_EQ(status(path, role::none), 401);
    EXPECT_EQ(status(path + "?kind=x"), 400);
    EXPECT_EQ(status(path + "?x"), 400);
    EXPECT_EQ(status(path + "?agent=7"), 404);
    EXPECT_EQ(status(path + "?test=7"), 404);
    for (const char* no :
         {"", "0", "-1", "x", "1,", ",1", "1,,2", "1 2", "1.5", "99999999999999999999"}) {
        EXPECT_EQ(status(path + "?result_agent=" + no), 400) << no;
    }
    EXPECT_EQ(status(path + hundred + ",101"), 400);
}

/* ---- readers that are lent, changes that are waited for ---- */

class services_test : public api_place {
protected:
    void TearDown() override {
        longest_wait_for_reader = std::chrono::seconds(5);
        longest_wait_for_store = std::chrono::seconds(10);
        longest_wait_for_turn = std::chrono::seconds(1);
        api_place::TearDown();
    }
};

TEST_F(services_test, a_reader_sees_what_was_there_when_it_was_lent) {
    submit(load_record(5, api_noon));
    auto agents = [&](result_reader& store) {
        size_t count = 0;
        std::string error;
        EXPECT_TRUE(store.for_each_agent([&](const known_agent&) { count++; }, error)) << error;
        return count;
    };
    result_reader* first = nullptr;
    {
        reader_pool::lent a = stored.lend();
        first = a.operator->();
        EXPECT_EQ(agents(*a), 1u);
    }
    submit(load_record(5, api_noon), "web-2");
    reader_pool::lent a = stored.lend();
    EXPECT_EQ(a.operator->(), first) << "it is lent again";
    EXPECT_EQ(agents(*a), 2u);
    reader_pool::lent b = stored.lend();
    EXPECT_NE(b.operator->(), first);
    EXPECT_EQ(agents(*b), 2u);
}

TEST_F(services_test, who_comes_when_all_are_lent_waits) {
    reader_pool two(state, 2);
    auto a = std::make_unique<reader_pool::lent>(two.lend());
    auto b = std::make_unique<reader_pool::lent>(two.lend());
    std::thread other([&] { a.reset(); });
    auto c = std::make_unique<reader_pool::lent>(two.lend());
    other.join();
    longest_wait_for_reader = std::chrono::milliseconds(20);
    try {
        two.lend();
        FAIL();
    } catch (const problem& what) {
        EXPECT_EQ(what.status, 503);
    }
    b.reset();
    c.reset();
    two.lend();
}

TEST_F(services_test, another_file_is_opened_anew) {
    submit(load_record(5, api_noon));
    { stored.lend(); }
    with.reset();
    noting.reset();
    store.reset();
    std::filesystem::rename(state, directory / "old");
    begin();
    submit(load_record(5, api_noon), "db-1");
    EXPECT_EQ(column(get("/api/v1/agents"), "name"), "db-1");
}

/* Somebody has to be able to read meanwhile. */
TEST_F(services_test, one_at_a_time_waits_for_a_store_that_is_blocked) {
    noting->answers = false;
    longest_wait_for_turn = std::chrono::milliseconds(20);
    std::thread first([&] { change_store(*with, [](engine&) { return true; }); });
    ASSERT_TRUE(eventually([&] { return noting->changes == 1; }));
    try {
        change_store(*with, [](engine&) { return true; });
        ADD_FAILURE();
    } catch (const problem& what) {
        EXPECT_EQ(what.status, 503);
        EXPECT_NE(what.detail.find("another change"), std::string::npos) << what.detail;
    }
    EXPECT_EQ(noting->changes, 1) << "it was not begun";
    noting->unanswered[0](true, "");
    first.join();
}

TEST_F(services_test, changes_are_waited_for) {
    submit(load_record(5, api_noon));
    auto definition = [](engine& e) {
        return e.append_definition(
            {.type = 66, .number = 5, .location = 7, .since = 1, .name = "x", .text = ""});
    };
    change_store(*with, definition);
    EXPECT_EQ(get("/api/v1/tests/1").at("name"), "x");
    auto failure = [&](std::function<bool(engine&)> what) {
        try {
            change_store(*with, std::move(what));
        } catch (const problem& wrong) {
            EXPECT_EQ(wrong.status, 503);
            return wrong.detail;
        }
        return std::string();
    };
    EXPECT_NE(failure([](engine&) { return false; }), "");
    noting->failure = "disk full";
    EXPECT_EQ(failure(definition), "The change could not be stored: disk full.");
    noting->failure = "";
    noting->answers = false;
    longest_wait_for_store = std::chrono::milliseconds(20);
    EXPECT_NE(failure(definition).find("The store is busy"), std::string::npos);
}

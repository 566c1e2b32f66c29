#include "state/definition.h"

#include "collector_test_support.h"

#include <gtest/gtest.h>

#include "fake_store.h"

static const uint32_t load = type_load_average, disk = type_disk;

class definition_test : public testing::Test {
protected:
    void add(int64_t since, const char* name, int32_t location = 1, int32_t number = 401,
             uint32_t type = disk) {
        store.definitions.push_back({.type = type,
                                     .number = number,
                                     .location = location,
                                     .since = since,
                                     .name = name,
                                     .text = "x"});
    }
    std::string name_at(int64_t time, std::optional<int32_t> location = 1,
                        std::optional<int32_t> number = 401, uint32_t type = disk) {
        auto name = [&](definition_reader& from) {
            std::string error;
            definition_pointer found = from.of(1, type, number, location, time, error);
            EXPECT_EQ(error, "");
            return found ? found->name : "none";
        };
        definition_reader fresh(store);
        EXPECT_EQ(name(fresh), name(reader)) << "remembered otherwise, " << time;
        return name(reader);
    }
    std::string names(int64_t from, int64_t to) {
        std::vector<definition_pointer> found;
        std::string text, error;
        EXPECT_TRUE(read_definitions(store, {1, 1, disk, 401}, from, to, found, error)) << error;
        for (const definition_pointer& d : found) {
            text += d->name + " ";
        }
        return text;
    }

    fake_store store;
    definition_reader reader{store};
};

TEST_F(definition_test, the_last_of_the_location_that_was_there) {
    add(100, "first");
    add(200, "second");
    add(250, "of another revision", 2);
    add(300, "third");
    EXPECT_EQ(name_at(300), "third");
    EXPECT_EQ(name_at(INT64_MAX), "third");
    EXPECT_EQ(name_at(299), "second");
    EXPECT_EQ(name_at(260), "second");
    EXPECT_EQ(name_at(200), "second");
    EXPECT_EQ(name_at(199), "first");
    EXPECT_EQ(name_at(99), "first") << "the oldest, before all of them";
    EXPECT_EQ(name_at(INT64_MIN), "first");
    EXPECT_EQ(name_at(500, 2), "of another revision");
    EXPECT_EQ(name_at(10, 2), "of another revision");
}

TEST_F(definition_test, nothing_where_none_is_known) {
    add(100, "disk");
    EXPECT_EQ(name_at(200, 3), "none");
    EXPECT_EQ(name_at(200, 1, 402), "none");
    EXPECT_EQ(name_at(200, 1, 401, load), "none");
    EXPECT_EQ(name_at(200, 1, std::nullopt), "none");
    EXPECT_EQ(name_at(200, 1, 0), "none") << "not of all numbers";
}

TEST_F(definition_test, a_removed_tests_number_is_used_again) {
    add(100, "/home");
    add(100, "load", 1, 401, load);
    add(500, "/var");
    EXPECT_EQ(name_at(450), "/home");
    EXPECT_EQ(name_at(500), "/var");
    EXPECT_EQ(name_at(500, 1, 401, load), "load");
}

TEST_F(definition_test, a_clock_that_went_back) {
    add(1000, "ahead");
    add(500, "right");
    add(700, "later");
    EXPECT_EQ(name_at(1200), "later") << "stored last";
    EXPECT_EQ(name_at(600), "right");
    EXPECT_EQ(name_at(400), "ahead") << "stored first";
    EXPECT_EQ(names(400, 2000), "ahead right later ");
    EXPECT_EQ(names(500, 700), "right ");
    EXPECT_EQ(names(900, 2000), "later ");
}

TEST_F(definition_test, by_the_time_alone_without_a_location) {
    add(100, "first", 1);
    add(200, "second", 2);
    add(300, "third", 1);
    EXPECT_EQ(name_at(250, std::nullopt), "second");
    EXPECT_EQ(name_at(350, std::nullopt), "third");
    EXPECT_EQ(name_at(50, std::nullopt), "first");
}

TEST_F(definition_test, any_times_in_any_order) {
    for (int64_t since : {500, 300, 700, 100, 900, 600, 600, 50, 800}) {
        add(since, std::to_string(store.definitions.size()).c_str());
    }
    for (int64_t i = 0; i < 2000; i++) {
        name_at(i * 7919 % 1000); /* a reader that remembers says the same as a fresh one */
    }
}

TEST_F(definition_test, looked_up_once_for_all_that_it_judged) {
    add(100, "first");
    add(200, "second");
    std::string error;
    for (int64_t time = 400; time > 0; time--) {
        definition_pointer found = reader.of(1, disk, 401, 1, time, error);
        EXPECT_EQ(found ? found->name : "", time >= 200 ? "second" : "first");
        EXPECT_EQ(reader.of(1, disk, 402, 1, time, error), nullptr);
    }
    EXPECT_EQ(store.definitions_read, 4u) << "second, first, what is older than it, none";
}

TEST_F(definition_test, that_of_a_tests_last_result) {
    add(100, "first");
    add(200, "second");
    std::string error;
    test_status test{.type = disk, .number = 401, .time = 150, .location = 1};
    definition_pointer found = reader.of(1, test, error);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->name, "first");
    test.time = 250;
    EXPECT_EQ(reader.of(1, test, error)->name, "second");
}

TEST_F(definition_test, what_a_test_was_in_some_time) {
    EXPECT_EQ(names(0, 1000), "");
    add(100, "first");
    add(200, "second", 2);
    add(300, "third");
    add(150, "of another", 1, 402);
    EXPECT_EQ(names(0, 50), "first ");
    EXPECT_EQ(names(0, 200), "first ");
    EXPECT_EQ(names(0, 201), "first second ");
    EXPECT_EQ(names(200, 300), "second ");
    EXPECT_EQ(names(250, 1000), "second third ");
    EXPECT_EQ(names(400, 1000), "third ");
}

/* Agent 1 has some of its own. */
TEST_F(definition_test, an_agents_own_come_before_those_of_all) {
    auto own = [&](int64_t since, const char* name, int32_t location, int32_t number = 401) {
        add(since, name, location, number);
        store.definitions.back().agent = 1;
    };
    auto of = [&](int64_t agent, std::optional<int32_t> location, int64_t time,
                  int32_t number = 401) {
        std::string error;
        definition_reader fresh(store);
        definition_pointer found = fresh.of(agent, disk, number, location, time, error);
        definition_pointer again = reader.of(agent, disk, number, location, time, error);
        EXPECT_EQ(error, "");
        EXPECT_EQ(found ? found->name : "none", again ? again->name : "none");
        return found ? found->name : "none";
    };
    add(100, "of all", 1);
    add(100, "of all, 402", 1, 402);
    add(150, "of all, 8", 8);
    own(200, "own", 7);
    own(300, "own, changed", 9);
    own(400, "own, renamed", 9);
    /* By the location, whatever the time. */
    EXPECT_EQ(of(1, 7, 1000), "own");
    EXPECT_EQ(of(1, 7, 0), "own");
    EXPECT_EQ(of(1, 9, 0), "own, changed");
    EXPECT_EQ(of(1, 9, 399), "own, changed");
    EXPECT_EQ(of(1, 9, 400), "own, renamed");
    EXPECT_EQ(of(1, 1, 1000), "of all") << "a result of the time before";
    EXPECT_EQ(of(1, 8, 1000), "of all, 8");
    /* By the time, where nobody knows the location. */
    EXPECT_EQ(of(1, 5, 250), "own");
    EXPECT_EQ(of(1, 5, 350), "own, changed");
    EXPECT_EQ(of(1, std::nullopt, 350), "own, changed");
    EXPECT_EQ(of(1, std::nullopt, 0), "own");
    /* What it has none for, and who has none. */
    EXPECT_EQ(of(1, 1, 0, 402), "of all, 402");
    EXPECT_EQ(of(1, std::nullopt, 0, 402), "of all, 402");
    EXPECT_EQ(of(1, 5, 0, 402), "none");
    EXPECT_EQ(of(2, 7, 1000), "none");
    EXPECT_EQ(of(2, 1, 1000), "of all");
    EXPECT_EQ(of(2, std::nullopt, 1000), "of all, 8");
    EXPECT_EQ(names(0, 1000), "own own, changed own, renamed ");
    std::vector<definition_pointer> found;
    std::string error;
    EXPECT_TRUE(read_definitions(store, {1, 2, disk, 401}, 0, 1000, found, error));
    EXPECT_EQ(found.size(), 2u);
}

TEST_F(definition_test, those_of_all_are_looked_up_once_for_all_agents) {
    add(100, "of all");
    std::string error;
    for (int64_t agent = 1; agent <= 1000; agent++) {
        ASSERT_TRUE(reader.of(agent, disk, 401, 1, 500, error));
    }
    EXPECT_EQ(store.definitions_read, 1u);
}

TEST_F(definition_test, a_title_and_a_group_come_with_it) {
    store.definitions.push_back({.type = disk,
                                 .number = 401,
                                 .location = 1,
                                 .name = "/",
                                 .title = "root disk",
                                 .group = "all",
                                 .agent = 3});
    std::string error;
    definition_pointer found = reader.of(3, disk, 401, 1, 5, error);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->title, "root disk");
    EXPECT_EQ(found->group, "all");
    EXPECT_EQ(found->agent, 3);
}

TEST_F(definition_test, why_it_cannot_be_read) {
    store.failure = "gone";
    std::string error;
    EXPECT_EQ(reader.of(1, disk, 401, 1, 5, error), nullptr);
    EXPECT_EQ(error, "gone");
    error = "worse";
    EXPECT_EQ(reader.of(1, disk, 401, 1, 5, error), nullptr);
    EXPECT_EQ(error, "worse");
    store.failure = "";
    add(1, "disk");
    EXPECT_EQ(name_at(5), "disk") << "a failure is not remembered";
    store.failure = "gone";
    std::vector<definition_pointer> found;
    EXPECT_FALSE(read_definitions(store, {1, 1, disk, 401}, 0, 9, found, error));
    EXPECT_EQ(error, "gone");
}

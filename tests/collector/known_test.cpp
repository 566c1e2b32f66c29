#include "plan/known.h"

#include "collector_test_support.h"

#include <gtest/gtest.h>

static const latest_result result_of(const char* agent, int64_t received,
                                     const std::string& record) {
    return {.account = "a@b.c", .agent = agent, .received = received, .record = record};
}

static std::string known_text(const known_tests& known, const char* agent) {
    std::string text;
    for (const known_test& test : known.of("a@b.c", agent)) {
        text += std::to_string(test.type) + "/" + std::to_string(test.id) +
                (test.recent ? " " : " old ");
    }
    return text;
}

TEST(known_tests, tests_of_an_agent_until_they_are_forgotten) {
    known_tests known;
    known.add(result_of("one", 1000, load_record(5, 999)));
    known.add(result_of("one", 1000, load_record(uint32_t(-6), 999)));
    known.add(result_of("two", 1000, load_record(7, 999)));
    EXPECT_EQ(known_text(known, "one"), "66/5 66/-6 ");
    EXPECT_EQ(known_text(known, "two"), "66/7 ");
    EXPECT_EQ(known_text(known, "three"), "");
    EXPECT_EQ(known.of("b@b.c", "one").size(), 0u);
    known.forget("a@b.c", "one");
    known.forget("a@b.c", "three");
    EXPECT_EQ(known_text(known, "one"), "");
    EXPECT_EQ(known.size(), 1u);
}

TEST(known_tests, recent_is_measured_by_the_agents_last_result) {
    known_tests known;
    known.add(result_of("one", 1000000 - 86400, load_record(5, 1)));
    known.add(result_of("one", 1000000 - 86401, load_record(6, 1)));
    known.add(result_of("one", INT64_MIN, load_record(7, 1)));
    known.add(result_of("one", 1000000, load_record(8, 1)));
    EXPECT_EQ(known_text(known, "one"), "66/5 66/6 old 66/7 old 66/8 ");
}

TEST(known_tests, what_is_no_tests_result_is_passed_over) {
    known_tests known;
    std::string load = load_record(5, 1);
    for (const std::string& record :
         {std::string(), load.substr(1), load_record(0, 1),
          record_builder{.ui32 = {42, 0, 0}, .i64 = {1}, .strings = {"init"}}.bytes(),
          record_builder{.ui32 = {99, 5, 0, 0}, .i64 = {1}}.bytes(), record_builder{}.bytes()}) {
        known.add(result_of("one", 1000, record));
    }
    EXPECT_EQ(known.size(), 0u);
    EXPECT_EQ(known.left_out(), 0u);
}

TEST(known_tests, there_are_only_so_many) {
    known_tests known(3);
    for (uint32_t i = 1; i <= 5; ++i) {
        known.add(result_of(i % 2 ? "one" : "two", 1000, load_record(i, 1)));
    }
    EXPECT_EQ(known.size(), 3u);
    EXPECT_EQ(known.left_out(), 2u);
    EXPECT_EQ(known_text(known, "one"), "66/1 66/3 ");
}

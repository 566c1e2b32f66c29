#include "plan/known.h"

#include <gtest/gtest.h>

static const uint32_t load_average = 66;

static agent_state state_of(const std::vector<std::pair<int32_t, int64_t>>& tests) {
    agent_state state;
    for (auto [number, received] : tests) {
        state.tests.push_back({.type = load_average, .number = number, .received = received});
    }
    return state;
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
    known.add("a@b.c", "one", state_of({{-6, 1000}, {5, 1000}}));
    known.add("a@b.c", "two", state_of({{7, 1000}}));
    EXPECT_EQ(known_text(known, "one"), "66/-6 66/5 ");
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
    known.add("a@b.c", "one",
              state_of({{5, 1000000 - 86400}, {6, 1000000 - 86401}, {7, INT64_MIN}, {8, 1000000}}));
    EXPECT_EQ(known_text(known, "one"), "66/5 66/6 old 66/7 old 66/8 ");
}

TEST(known_tests, what_an_earlier_version_left_and_what_is_in_the_row_already) {
    known_tests known;
    const left_test left[] = {
        {load_average, 5, 1000}, {load_average, 6, 200000}, {load_average, 0, 9}};
    known.add_left("a@b.c", "one", left);
    known.add_left("a@b.c", "two", left);
    EXPECT_EQ(known_text(known, "one"), "66/5 old 66/6 ");
    known.add("a@b.c", "one", state_of({{4, 200000}, {5, 200000}, {6, 100}}));
    EXPECT_EQ(known_text(known, "one"), "66/4 66/5 66/6 ") << "each once";
    EXPECT_EQ(known_text(known, "two"), "66/5 old 66/6 ");
    known.forget("a@b.c", "one");
    EXPECT_EQ(known.size(), 2u);
}

TEST(known_tests, what_has_no_number_is_passed_over) {
    known_tests known;
    agent_state state = state_of({{0, 1000}});
    state.tests.push_back({.type = 99, .received = 1000});
    known.add("a@b.c", "one", state);
    known.add("a@b.c", "two", {});
    EXPECT_EQ(known.size(), 0u);
    EXPECT_EQ(known.left_out(), 0u);
}

TEST(known_tests, there_are_only_so_many) {
    known_tests known(3);
    known.add("a@b.c", "one", state_of({{1, 1000}, {3, 1000}}));
    known.add("a@b.c", "two", state_of({{2, 1000}, {4, 1000}, {5, 1000}}));
    EXPECT_EQ(known.size(), 3u);
    EXPECT_EQ(known.left_out(), 2u);
    EXPECT_EQ(known_text(known, "one"), "66/1 66/3 ");
    EXPECT_EQ(known_text(known, "two"), "66/2 ");
}

#include "session.h"

#include <gtest/gtest.h>
#include <set>

using namespace std::chrono_literals;

static const session_table::time noon{1000h};

TEST(collector_session, an_id_is_128_random_bits_in_hexadecimal) {
    session_table table;
    std::set<std::string> ids;
    for (int i = 0; i < 1000; ++i) {
        auto s = table.log_in("a@b.c", "agent" + std::to_string(i), noon);
        ASSERT_EQ(s->id.size(), 32u);
        ASSERT_EQ(s->id.find_first_not_of("0123456789abcdef"), std::string::npos);
        ids.insert(s->id);
    }
    EXPECT_EQ(ids.size(), 1000u);
}

TEST(collector_session, a_session_is_found_by_its_whole_id_only) {
    session_table table;
    auto s = table.log_in("a@b.c", "agent", noon);
    EXPECT_EQ(s->account, "a@b.c");
    EXPECT_EQ(s->agent, "agent");
    EXPECT_EQ(table.find(s->id, noon), s);
    EXPECT_EQ(table.find(s->id.substr(1), noon), nullptr);
    EXPECT_EQ(table.find("", noon), nullptr);
    EXPECT_EQ(table.find(answer_log_in_again, noon), nullptr);
    EXPECT_EQ(table.find(answer_not_authorised, noon), nullptr);
}

TEST(collector_session, an_agent_has_one_session) {
    session_table table;
    auto first = table.log_in("a@b.c", "agent", noon);
    auto other_agent = table.log_in("a@b.c", "agent2", noon);
    auto other_account = table.log_in("a@b.d", "agent", noon);
    auto second = table.log_in("a@b.c", "agent", noon);
    EXPECT_EQ(table.size(), 3u);
    EXPECT_EQ(table.find(first->id, noon), nullptr);
    for (const auto& s : {other_agent, other_account, second}) {
        EXPECT_EQ(table.find(s->id, noon), s);
    }
    EXPECT_EQ(first->agent, "agent"); /* still good for the poll that holds it */
}

TEST(collector_session, where_the_account_ends_counts) {
    session_table table;
    table.log_in("ab", "c", noon);
    table.log_in("a", "bc", noon);
    EXPECT_EQ(table.size(), 2u);
}

TEST(collector_session, a_day_without_a_poll_ends_it) {
    session_table table;
    auto s = table.log_in("a@b.c", "agent", noon);
    EXPECT_EQ(table.find(s->id, noon + 23h), s);
    EXPECT_EQ(table.find(s->id, noon + 46h), s);
    EXPECT_EQ(table.find(s->id, noon + 70h), nullptr);
    EXPECT_EQ(table.size(), 0u);
}

TEST(collector_session, ended_ones_are_cleared_away_at_a_login) {
    session_table table;
    for (int i = 0; i < 10; ++i) {
        table.log_in("a@b.c", std::to_string(i), noon + std::chrono::hours(i));
    }
    table.log_in("a@b.c", "late", noon + 28h);
    EXPECT_EQ(table.size(), 6u);
}

TEST(collector_session, the_one_unused_longest_makes_room) {
    session_table table({.most = 3});
    auto a = table.log_in("a@b.c", "a", noon);
    auto b = table.log_in("a@b.c", "b", noon + 1s);
    auto c = table.log_in("a@b.c", "c", noon + 2s);
    table.find(a->id, noon + 3s);
    auto d = table.log_in("a@b.c", "d", noon + 4s);
    EXPECT_EQ(table.size(), 3u);
    EXPECT_EQ(table.find(b->id, noon + 5s), nullptr);
    for (const auto& s : {a, c, d}) {
        EXPECT_EQ(table.find(s->id, noon + 5s), s);
    }
    /* A login that replaces a session of its own pushes nobody out. */
    table.log_in("a@b.c", "d", noon + 6s);
    EXPECT_EQ(table.find(a->id, noon + 6s), a);
}

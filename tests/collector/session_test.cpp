#include "ingest/session.h"

#include <gtest/gtest.h>
#include <set>

using namespace std::chrono_literals;

static const session_table::time noon{1000h};

TEST(collector_session, an_id_is_96_random_bits_and_a_tag_of_the_name_in_hexadecimal) {
    session_table table;
    std::set<std::string> ids, tags, random;
    for (int i = 0; i < 1000; ++i) {
        auto s = table.log_in("a@b.c", "agent" + std::to_string(i % 500), noon);
        ASSERT_EQ(s->id.size(), 32u);
        ASSERT_EQ(s->id.find_first_not_of("0123456789abcdef"), std::string::npos);
        ids.insert(s->id);
        random.insert(s->id.substr(0, 24));
        tags.insert(s->id.substr(24));
    }
    EXPECT_EQ(ids.size(), 1000u);
    EXPECT_EQ(random.size(), 1000u);
    EXPECT_EQ(tags.size(), 500u);
    EXPECT_EQ(table.log_in("a@b.c", "agent", noon)->id.substr(24), "1ece9656"); /* in every run */
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

/* One restart may look like another host's coming: which it is shows when the old session is used.
 */
TEST(collector_session, the_older_session_of_a_name_ends_once_it_was_silent) {
    session_table table;
    auto first = table.log_in("a@b.c", "agent", noon);
    auto other_agent = table.log_in("a@b.c", "agent2", noon);
    auto other_account = table.log_in("a@b.d", "agent", noon);
    auto second = table.log_in("a@b.c", "agent", noon + 10s);
    EXPECT_EQ(table.size(), 4u);
    for (auto t = noon + 60s; t <= noon + 195s; t += 60s) {
        EXPECT_EQ(table.find(second->id, t), second);
        EXPECT_EQ(table.size(), 4u);
    }
    EXPECT_EQ(table.find(second->id, noon + 196s), second); /* three minutes and an exchange */
    EXPECT_EQ(table.size(), 3u);
    EXPECT_EQ(table.find(first->id, noon + 197s), nullptr);
    EXPECT_EQ(table.find(other_agent->id, noon + 198s), other_agent);
    EXPECT_EQ(table.find(other_account->id, noon + 198s), other_account);
    EXPECT_EQ(first->agent, "agent"); /* still good for the poll that holds it */
}

/* A restart loop, an answer that is lost again and again: never refused, and never more than two.
 */
TEST(collector_session, logins_alone_are_no_conflict) {
    session_table table;
    name_conflict conflict;
    for (int i = 0; i < 50; ++i) {
        auto t = noon + i * 5s;
        std::string address = "10.0.0." + std::to_string(i % 7);
        auto s = table.log_in("a@b.c", "agent", t, address, &conflict);
        ASSERT_TRUE(s);
        EXPECT_EQ(s->address, address);
        if (i % 3 == 0) {
            EXPECT_EQ(table.find(s->id, t + 1s, "10.0.0.9", &conflict), s); /* many ways out */
        }
        EXPECT_LE(table.size(), 2u);
    }
    EXPECT_FALSE(conflict.found);
}

/* A poll that was on its way when its agent was ended may come after the next login. */
TEST(collector_session, one_late_poll_is_no_conflict) {
    session_table table;
    name_conflict conflict;
    auto before = table.log_in("a@b.c", "agent", noon, "10.0.0.1", &conflict);
    auto after = table.log_in("a@b.c", "agent", noon + 1s, "10.0.0.1", &conflict);
    EXPECT_EQ(table.find(before->id, noon + 2s, "10.0.0.1", &conflict), before);
    auto again = table.log_in("a@b.c", "agent", noon + 3s, "10.0.0.1", &conflict);
    ASSERT_TRUE(again);
    EXPECT_EQ(table.find(after->id, noon + 4s, "10.0.0.1", &conflict), nullptr);
    EXPECT_EQ(table.find(again->id, noon + 4s, "10.0.0.1", &conflict), again);
    EXPECT_FALSE(conflict.found);
}

struct two_hosts : testing::TestWithParam<const char*> {
    session_table table;
    name_conflict conflict;
    std::shared_ptr<session> kept, other;
    const std::string first = "10.0.0.1", second = GetParam();

    /* Both log in and poll each minute. */
    void SetUp() override {
        kept = table.log_in("a@b.c", "agent", noon, first, &conflict);
        other = table.log_in("a@b.c", "agent", noon + 10s, second, &conflict);
        ASSERT_TRUE(other);
        EXPECT_EQ(table.find(kept->id, noon + 60s, first, &conflict), kept);
        EXPECT_EQ(table.find(other->id, noon + 70s, second, &conflict), other);
        EXPECT_FALSE(conflict.found);
        EXPECT_EQ(table.find(kept->id, noon + 120s, first, &conflict), kept);
        EXPECT_TRUE(conflict.found);
        EXPECT_TRUE(conflict.tell);
        EXPECT_EQ(conflict.account, "a@b.c");
        EXPECT_EQ(conflict.agent, "agent");
        EXPECT_EQ(conflict.kept, first);
        EXPECT_EQ(conflict.refused, second);
        EXPECT_EQ(table.find(other->id, noon + 130s, second), nullptr);
        EXPECT_EQ(table.size(), 1u);
        conflict = {};
    }
    std::shared_ptr<session> other_logs_in(session_table::time t) {
        conflict = {};
        return table.log_in("a@b.c", "agent", t, second, &conflict);
    }
};
INSTANTIATE_TEST_SUITE_P(addresses, two_hosts, testing::Values("10.0.0.2", "10.0.0.1"));

TEST_P(two_hosts, the_one_that_was_first_keeps_the_name_and_an_hour_goes_by_between_two_lines) {
    int told = 0;
    for (auto t = noon + 3min; t < noon + 150min; t += 60s) {
        EXPECT_EQ(table.find(kept->id, t, first, &conflict), kept);
        EXPECT_EQ(other_logs_in(t + 10s), nullptr);
        EXPECT_TRUE(conflict.found);
        EXPECT_EQ(conflict.kept, first);
        EXPECT_EQ(conflict.refused, second);
        told += conflict.tell;
    }
    EXPECT_EQ(told, 2);
}

TEST_P(two_hosts, the_other_gets_the_name_when_the_first_is_silent) {
    for (auto after : {140s, 200s, 260s, 315s}) {
        EXPECT_EQ(other_logs_in(noon + after), nullptr);
    }
    auto now = other_logs_in(noon + 316s);
    ASSERT_TRUE(now);
    EXPECT_FALSE(conflict.found);
    EXPECT_EQ(table.find(kept->id, noon + 317s, first, &conflict), nullptr);
    /* And then keeps it. */
    auto back = table.log_in("a@b.c", "agent", noon + 318s, first, &conflict);
    ASSERT_TRUE(back);
    table.find(now->id, noon + 376s, second, &conflict);
    table.find(now->id, noon + 436s, second, &conflict);
    EXPECT_TRUE(conflict.found);
    EXPECT_TRUE(conflict.tell);
    EXPECT_EQ(conflict.kept, second);
    EXPECT_EQ(conflict.refused, first);
    EXPECT_EQ(table.find(back->id, noon + 437s, first), nullptr);
}

TEST_P(two_hosts, a_conflict_is_over_when_the_other_is_silent) {
    EXPECT_EQ(other_logs_in(noon + 140s), nullptr);
    for (auto t = noon + 180s; t <= noon + 340s; t += 30s) {
        table.find(kept->id, t, first);
    }
    auto restarted = table.log_in("a@b.c", "agent", noon + 341s, first, &(conflict = {}));
    EXPECT_TRUE(restarted);
    EXPECT_FALSE(conflict.found);
}

TEST_P(two_hosts, the_first_may_restart_where_its_address_tells_it_from_the_other) {
    EXPECT_EQ(other_logs_in(noon + 140s), nullptr);
    auto restarted = table.log_in("a@b.c", "agent", noon + 150s, first, &(conflict = {}));
    EXPECT_EQ(restarted != nullptr, first != second);
    EXPECT_EQ(conflict.found, first == second);
    if (restarted) {
        EXPECT_EQ(other_logs_in(noon + 200s), nullptr);
        for (auto t = noon + 210s; t < noon + 600s; t += 60s) {
            EXPECT_EQ(table.find(restarted->id, t, first, &(conflict = {})), restarted);
            EXPECT_FALSE(conflict.found);
            EXPECT_EQ(other_logs_in(t + 10s), nullptr);
            EXPECT_EQ(conflict.kept, first);
        }
    }
}

TEST(collector_session, a_third_host_does_not_hide_the_second) {
    session_table table;
    name_conflict conflict;
    auto kept = table.log_in("a@b.c", "agent", noon, "1", &conflict);
    for (int i = 1; i < 5; ++i) { /* two others take turns between polls of the first */
        auto s = table.log_in("a@b.c", "agent", noon + i * 50s, i % 2 ? "2" : "3", &conflict);
        EXPECT_EQ(s == nullptr, conflict.found);
        EXPECT_EQ(table.find(kept->id, noon + i * 50s + 20s, "1", &conflict), kept);
    }
    EXPECT_TRUE(conflict.found);
    EXPECT_EQ(conflict.kept, "1");
}

/* POL acts one wait late, so the longer of the last two counts. */
TEST(collector_session, silence_is_measured_by_the_agents_interval) {
    session_table table;
    auto s = table.log_in("a@b.c", "agent", noon);
    s->told(10s);
    EXPECT_EQ(s->longest_wait, 10s);
    table.find(s->id, noon + 1s);
    s->told(600s);
    EXPECT_EQ(s->longest_wait, 600s);
    table.find(s->id, noon + 11s);
    s->told(10s);
    EXPECT_EQ(s->longest_wait, 600s);
    auto next = table.log_in("a@b.c", "agent", noon + 12s);
    next->told(10s);
    table.find(next->id, noon + 13s);
    next->told(10s);
    EXPECT_EQ(next->longest_wait, 10s);
    auto t = noon + 13s;
    for (; t <= noon + 11s + 1815s; t += 8s) {
        EXPECT_EQ(table.find(next->id, t), next);
        ASSERT_EQ(table.size(), 2u);
    }
    table.find(next->id, t);
    EXPECT_EQ(table.size(), 1u);
}

TEST(collector_session, an_agent_that_was_sent_away_is_known_to_run) {
    session_table earlier, table;
    auto old = earlier.log_in("a@b.c", "agent", noon);
    EXPECT_FALSE(old->running);
    EXPECT_FALSE(table.log_in("a@b.c", "agent", noon)->running);
    EXPECT_EQ(table.find(old->id, noon), nullptr);
    table.sent_away(old->id, noon);
    EXPECT_FALSE(table.log_in("a@b.c", "agent2", noon)->running);
    EXPECT_FALSE(table.log_in("a@b.d", "agent", noon)->running);
    auto lost = table.log_in("a@b.c", "agent", noon + 1s);
    EXPECT_TRUE(lost->running);
    auto again = table.log_in("a@b.c", "agent", noon + 61s); /* the answer was lost */
    EXPECT_TRUE(again->running);
    table.find(again->id, noon + 62s);
    EXPECT_FALSE(table.log_in("a@b.c", "agent", noon + 63s)->running); /* that is a restart */
}

TEST(collector_session, the_one_that_polls_is_known_by_its_name) {
    session_table table;
    EXPECT_EQ(table.polling("a@b.c", "agent", noon), nullptr);
    auto first = table.log_in("a@b.c", "agent", noon);
    table.log_in("a@b.c", "agent2", noon);
    EXPECT_EQ(table.polling("a@b.c", "agent", noon), first);
    EXPECT_EQ(table.polling("a@b", ".cagent", noon), nullptr);
    auto second = table.log_in("a@b.c", "agent", noon + 10s);
    EXPECT_EQ(table.polling("a@b.c", "agent", noon + 10s), second);
    table.find(first->id, noon + 20s); /* that one polls */
    EXPECT_EQ(table.polling("a@b.c", "agent", noon + 20s), first);
    EXPECT_EQ(table.polling("a@b.c", "agent", noon + 20s + 195s), first);
    EXPECT_EQ(table.polling("a@b.c", "agent", noon + 20s + 196s), nullptr); /* silent */
    EXPECT_EQ(table.find(first->id, noon + 300s), first);                   /* it is there again */
    EXPECT_EQ(table.polling("a@b.c", "agent", noon + 300s), first);
}

TEST(collector_session, all_of_a_name_are_ended) {
    session_table table;
    EXPECT_FALSE(table.end_all("a@b.c", "agent"));
    auto first = table.log_in("a@b.c", "agent", noon), other = table.log_in("a@b.c", "b", noon);
    auto second = table.log_in("a@b.c", "agent", noon);
    table.find(first->id, noon);
    table.find(first->id, noon); /* contested: the second has gone */
    auto third = table.log_in("a@b.c", "agent", noon, "192.0.2.1");
    EXPECT_EQ(third, nullptr);
    EXPECT_TRUE(table.end_all("a@b.c", "agent"));
    EXPECT_EQ(table.size(), 1u);
    EXPECT_FALSE(table.end_all("a@b.c", "agent"));
    EXPECT_EQ(table.find(first->id, noon), nullptr);
    EXPECT_EQ(table.find(second->id, noon), nullptr);
    EXPECT_EQ(table.find(other->id, noon), other);
    auto a = table.log_in("a@b.c", "agent", noon), b = table.log_in("a@b.c", "agent", noon);
    EXPECT_TRUE(table.end_all("a@b.c", "agent")); /* two at once */
    EXPECT_EQ(table.find(a->id, noon), nullptr);
    EXPECT_EQ(table.find(b->id, noon), nullptr);
    EXPECT_EQ(table.size(), 1u);
}

TEST(collector_session, who_was_sent_away_is_forgotten_after_a_day_or_when_there_are_too_many) {
    session_table earlier;
    std::vector<std::string> ids;
    for (int i = 0; i < 4; ++i) {
        ids.push_back(earlier.log_in("a@b.c", std::to_string(i), noon)->id);
    }
    session_table table({.most = 3});
    for (const std::string& id : ids) {
        table.sent_away(id, noon);
    }
    for (const char* nonsense : {"", "111111", "0123456789abcdef0123456789abcdeg"}) {
        table.sent_away(nonsense, noon);
    }
    EXPECT_FALSE(table.log_in("a@b.c", "0", noon)->running);
    EXPECT_TRUE(table.log_in("a@b.c", "1", noon + 23h)->running);
    EXPECT_FALSE(table.log_in("a@b.c", "2", noon + 24h)->running);
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

#include "ingest/pacing.h"

#include <gtest/gtest.h>
#include <memory>
#include <vector>

using namespace std::chrono_literals;

/* ---- the gate ---- */

TEST(backlog_gate, opens_only_when_half_of_the_limit_is_left) {
    backlog_gate gate(5s);
    EXPECT_FALSE(gate.look(0ms));
    EXPECT_FALSE(gate.look(5000ms));
    EXPECT_TRUE(gate.look(5001ms));
    EXPECT_TRUE(gate.look(4000ms));
    EXPECT_TRUE(gate.look(2501ms));
    EXPECT_FALSE(gate.look(2500ms));
    EXPECT_FALSE(gate.look(5000ms));
}

/* ---- logins ---- */

struct login_pace_test : testing::Test {
    login_pace all{{.rate = 10, .idle = 2s, .wait = 4s}};
    login_pace::time now{1000s};
    std::vector<std::unique_ptr<login_pace::place>> places;

    /* In ms; -1: it has none. */
    int64_t come(uint64_t address, bool logs_in = true) {
        places.push_back(std::make_unique<login_pace::place>(all, address, now, logs_in));
        return places.back()->refused() ? -1 : places.back()->wait().count();
    }
    /* How many of so many, each from an address of its own, need not wait. */
    int at_once(int count) {
        int found = 0;
        for (int i = 0; i < count; i++) {
            found += come(next_address_++) == 0;
        }
        return found;
    }

    uint64_t next_address_ = 1000;
};

TEST_F(login_pace_test, what_was_not_used_of_two_seconds_is_there_at_once) {
    EXPECT_EQ(at_once(20), 20);
    EXPECT_EQ(come(1), 100);
    EXPECT_EQ(come(2), 200);
    now += 1s;
    EXPECT_EQ(at_once(8), 8); /* two of the ten had been given out */
    EXPECT_EQ(come(3), 100);
    now += 1h;
    EXPECT_EQ(at_once(30), 20); /* an hour without any saves no more */
}

TEST_F(login_pace_test, whose_turn_is_too_far_off_has_none) {
    at_once(20);
    int waiting = 0;
    for (uint64_t address = 1; come(address) > 0; address++) {
        waiting++;
    }
    EXPECT_EQ(waiting, 40);
    EXPECT_EQ(come(77), -1);
    now += 100ms; /* who was refused has taken nothing */
    EXPECT_EQ(come(78), 4000);
    EXPECT_EQ(come(79), -1);
}

/* Over any time no more than the rate and what had been saved. */
TEST_F(login_pace_test, turns_keep_the_rate_however_many_come) {
    int turns = 0;
    for (int tenth = 0; tenth < 600; tenth++) {
        for (int i = 0; i < 7; i++) {
            turns += come(next_address_++) >= 0;
        }
        places.clear();
        now += 100ms;
    }
    EXPECT_LE(turns, 600 + 20 + 40);
    EXPECT_GE(turns, 600 + 20 + 39);
}

TEST_F(login_pace_test, one_address_leaves_room_for_others) {
    at_once(20);
    int waiting = 0;
    while (come(1) > 0) {
        waiting++;
    }
    EXPECT_EQ(waiting, 10); /* a quarter of forty */
    EXPECT_EQ(come(2), 1100);
    places.clear(); /* who has had his turn, or is gone, waits no more */
    EXPECT_GT(come(1), 0);
}

TEST_F(login_pace_test, alone_an_address_has_the_whole_rate) {
    int turns = 0;
    for (int second = 0; second < 10; second++) {
        for (int i = 0; i < 50; i++) {
            turns += come(1) >= 0;
        }
        places.clear();
        now += 1s;
    }
    EXPECT_GE(turns, 20 + 9 * 10);
}

TEST_F(login_pace_test, who_was_sent_away_in_turn_logs_in_at_once) {
    at_once(20);
    EXPECT_EQ(come(1, false), 100);
    all.sent_away(now);
    EXPECT_EQ(come(2, false), 200); /* that turn is for a login */
    EXPECT_EQ(come(3), 0);
    EXPECT_EQ(come(4), 300);
    all.sent_away(now);
    now += 5s + 1ms; /* it did not come */
    at_once(20);
    EXPECT_GT(come(5), 0);
}

TEST_F(login_pace_test, a_rate_of_one_lets_in_one_after_the_other) {
    login_pace slow({.rate = 1, .idle = 2s, .wait = 5s});
    std::vector<int64_t> waits;
    for (uint64_t address = 0; address < 8; address++) {
        places.push_back(std::make_unique<login_pace::place>(slow, address, now, true));
        waits.push_back(places.back()->refused() ? -1 : places.back()->wait().count());
    }
    EXPECT_EQ(waits, (std::vector<int64_t>{0, 0, 1000, 2000, 3000, 4000, 5000, -1}));
    places.clear(); /* before `slow` */
}

#include "state/take.cpp"

#include "collector_test_support.h"
#include "protocol/record.h"

#include <cmath>
#include <gtest/gtest.h>
#include <random>
#include <set>

namespace {

constexpr int64_t noon = 1777636800; /* the beginning of an hour */

std::string load(int32_t test, int64_t time, uint32_t status = 0, uint32_t location = 7,
                 const std::string& message = "") {
    return record_builder{.ui32 = {66, static_cast<uint32_t>(test), location, status},
                          .i64 = {time},
                          .d64 = {0.5, 0.25, 0.125},
                          .strings = {message.empty() ? (status != 0 ? "high" : "fine") : message}}
        .bytes();
}

std::string process(int32_t test, uint32_t pid, int64_t time, uint32_t status = 0,
                    uint32_t location = 7) {
    return record_builder{.ui32 = {43, static_cast<uint32_t>(test), location, pid, status},
                          .i64 = {time},
                          .d64 = {1, 2, 3},
                          .strings = {"pid " + std::to_string(pid)}}
        .bytes();
}

std::string mysql(int32_t test, int64_t time, uint32_t status = 0) {
    return record_builder{.ui32 = {74, static_cast<uint32_t>(test), 7, status, 5},
                          .i64 = {time},
                          .strings = {"1", "row"}}
        .bytes();
}

std::string snmp(int32_t test, int64_t time, const std::vector<uint32_t>& of_objects) {
    record_builder r{
        .ui32 = {57, static_cast<uint32_t>(test), 7, 0, static_cast<uint32_t>(of_objects.size())},
        .i64 = {time},
        .d64 = {1.5},
        .strings = {"answered"}};
    for (uint32_t status : of_objects) {
        r.nested.push_back(record_builder{.ui32 = {2, status}, .strings = {"5", "beyond"}}.bytes());
    }
    return r.bytes();
}

std::string discovery(int32_t test, int64_t time) {
    return record_builder{.ui32 = {40, static_cast<uint32_t>(test), 7},
                          .i64 = {time},
                          .d64 = {0},
                          .strings = {"192.0.2.1", "name"}}
        .bytes();
}

std::string inventory(int64_t time) {
    return record_builder{.ui32 = {42, 0, 0}, .i64 = {time}, .strings = {"init\tsh\t"}}.bytes();
}

std::string strange(uint32_t type) {
    return record_builder{.ui32 = {type, 5}, .strings = {"?"}}.bytes();
}

/* An agent to which things happen. */
struct host {
    agent_state agent;
    outcome out;
    patience now;
    std::vector<size_t> places;
    std::map<int64_t, hour_counts> ledger;
    std::vector<change> changes; /* all of them */

    static std::vector<decoded_record> decoded(const std::string& block) {
        std::vector<decoded_record> records;
        for (block_reader r(block); r.next();) {
            EXPECT_TRUE(r.good) << r.reason;
            records.push_back({r.current, summarize(r.current)});
        }
        return records;
    }

    /* What changed, as text. */
    std::string block(int64_t arrival, const std::string& bytes) {
        out.clear();
        keep();
        take_results(agent, decoded(bytes), arrival, now, out, places);
        return note();
    }
    std::string repeat(int64_t arrival, const std::string& bytes) {
        out.clear();
        keep();
        take_repetition(agent, decoded(bytes), arrival, out);
        return note();
    }
    std::string heard(int64_t time) {
        out.clear();
        take_heard(agent, time, out);
        return note();
    }
    std::string silence(int64_t time) {
        out.clear();
        take_silence(agent, time, out);
        return note();
    }
    std::string stale(int64_t time, const std::vector<std::pair<uint32_t, int32_t>>& tests) {
        out.clear();
        take_stale(agent, tests, time, out);
        return note();
    }

    std::string gone(int64_t time, const std::vector<std::pair<uint32_t, int32_t>>& tests) {
        out.clear();
        take_gone(agent, tests, time, out);
        return note();
    }

    /* As it is between two blocks. */
    void keep() {
        std::string packed, again;
        agent.pack(packed);
        agent_state other;
        ASSERT_TRUE(other.unpack(packed));
        other.pack(again);
        ASSERT_EQ(packed, again);
        agent = other;
    }

    std::string note() {
        std::string all;
        for (const change& c : out.changes) {
            all += c.of_agent ? "agent"
                              : std::to_string(c.type) + "/" +
                                    (c.number ? std::to_string(*c.number) : "-");
            all += " " + std::string(state_word(c.from)) + ">" + std::string(state_word(c.to)) +
                   " " + std::to_string(minus(c.time, noon)) +
                   (c.message.empty() ? "" : " " + c.message) + "; ";
            changes.push_back(c);
        }
        std::set<int64_t> seen;
        for (const hour_counts& h : out.hours) {
            EXPECT_NE(h.hour, agent.counts.hour);
            EXPECT_EQ(h.hour % 3600, 0);
            hour_sums::add(ledger[h.hour], h);
        }
        return all;
    }

    /* "hour: received repeated missing; ", hours counted from noon. */
    std::string hours() const {
        std::map<int64_t, hour_counts> all = ledger;
        hour_sums::add(all[agent.counts.hour], agent.counts);
        std::string text;
        for (const auto& [hour, h] : all) {
            text += std::to_string(minus(hour, noon) / 3600) + ": " + std::to_string(h.received) +
                    " " + std::to_string(h.repeated) + " " + std::to_string(h.missing) + "; ";
        }
        return text;
    }
    hour_counts total() const {
        hour_counts all = agent.counts;
        for (const auto& [hour, h] : ledger) {
            hour_sums::add(all, h);
        }
        return all;
    }
    state of(uint32_t type, int32_t number) const {
        const test_status* t = agent.find(type, number);
        return t != nullptr ? t->now : state::silent;
    }
};

} // namespace

/* ---- states and events ---- */

TEST(take, a_change_of_state_makes_an_event_at_the_time_of_the_pass) {
    host h;
    EXPECT_EQ(h.block(noon + 5, load(1, noon)), "66/1 unknown>ok 0 fine; ");
    EXPECT_EQ(h.block(noon + 65, load(1, noon + 60)), "");
    EXPECT_EQ(h.block(noon + 125, load(1, noon + 120, 2)), "66/1 ok>problem 120 high; ");
    EXPECT_EQ(h.block(noon + 185, load(1, noon + 180, 10)), "") << "another problem is a problem";
    const test_status* t = h.agent.find(66, 1);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->since, noon + 120);
    EXPECT_EQ(t->time, noon + 180);
    EXPECT_EQ(t->received, noon + 185);
    EXPECT_EQ(t->status, 10);
    EXPECT_EQ(t->location, 7);
    EXPECT_EQ(h.block(noon + 245, load(1, noon + 240)), "66/1 problem>ok 240 fine; ");
}

TEST(take, several_passes_in_one_block_each_make_their_event) {
    host h;
    EXPECT_EQ(h.block(noon + 500, load(1, noon) + load(1, noon + 60, 2) + load(1, noon + 120, 2) +
                                      load(1, noon + 180)),
              "66/1 unknown>ok 0 fine; 66/1 ok>problem 60 high; 66/1 problem>ok 180 fine; ");
}

TEST(take, the_worst_of_the_parts_counts) {
    host h;
    EXPECT_EQ(h.block(noon, snmp(1, noon, {0, 0})), "57/1 unknown>ok 0 answered; ");
    EXPECT_EQ(h.block(noon + 60, snmp(1, noon + 60, {0, 2, 2})),
              "57/1 ok>problem 60 beyond (and 1 more); ");
    EXPECT_EQ(h.block(noon + 120, snmp(1, noon + 120, {0})), "57/1 problem>ok 120 answered; ");
    EXPECT_EQ(h.block(noon + 180, process(2, 10, noon + 180) + process(2, 11, noon + 180, 2) +
                                      process(2, 12, noon + 180)),
              "43/2 unknown>problem 180 pid 11; ")
        << "one event for all of them, with the message of the worst";
    EXPECT_EQ(h.block(noon + 240, process(2, 10, noon + 240) + snmp(1, noon + 240, {0}) +
                                      process(2, 11, noon + 240) + process(2, 12, noon + 240)),
              "43/2 problem>ok 240 pid 10; ")
        << "wherever they lie in the block";
}

TEST(take, a_message_is_shortened) {
    host h;
    h.block(noon, load(1, noon, 2, 7, std::string(100000, 'x')));
    ASSERT_EQ(h.changes.size(), 1u);
    EXPECT_LE(h.changes[0].message.size(), max_message);
    EXPECT_GT(h.changes[0].message.size(), max_message / 2);
}

TEST(take, a_result_without_a_status_is_ok) {
    host h;
    EXPECT_EQ(h.block(noon, discovery(3, noon - 5) + discovery(3, noon)),
              "40/3 unknown>ok -5 192.0.2.1; ");
    EXPECT_EQ(h.hours(), "-1: 1 0 0; 0: 1 0 0; ");
}

TEST(take, types_that_are_not_known_have_no_state) {
    host h;
    EXPECT_EQ(h.block(noon, strange(99) + load(1, noon) + strange(99)), "66/1 unknown>ok 0 fine; ");
    ASSERT_EQ(h.agent.tests.size(), 2u);
    const test_status* t = h.agent.find(99, {});
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->now, state::unknown);
    EXPECT_EQ(t->since, noon);
    EXPECT_EQ(t->time, noon);
    EXPECT_EQ(h.agent.worst(), state::ok);
    h.block(noon + 600, strange(99));
    EXPECT_EQ(h.hours(), "0: 4 0 0; ") << "each counts, and nothing is missing between";
}

TEST(take, inventories_are_passed_over) {
    host h;
    EXPECT_EQ(h.block(noon, inventory(noon)), "");
    EXPECT_EQ(h.places, std::vector<size_t>{SIZE_MAX});
    EXPECT_TRUE(h.agent.tests.empty());
    EXPECT_EQ(h.total().received, 0u);
}

TEST(take, places_tell_the_test_of_each_record) {
    host h;
    h.block(noon, load(5, noon) + inventory(noon) + load(2, noon) + strange(7) + load(5, noon + 1));
    auto numbers = [&] {
        std::string all;
        for (size_t place : h.places) {
            if (place == SIZE_MAX) {
                all += "none ";
                continue;
            }
            const test_status& t = h.agent.tests.at(place);
            all += std::to_string(t.type) + "/" + std::to_string(t.number.value_or(-1)) + " ";
        }
        return all;
    };
    EXPECT_EQ(numbers(), "66/5 none 66/2 7/-1 66/5 ");
    h.block(noon + 60, load(2, noon + 60) + load(5, noon + 60) + load(2, noon + 61));
    EXPECT_EQ(numbers(), "66/2 66/5 66/2 ");
    h.block(noon + 120, load(6, noon + 120) + load(2, noon + 120) + load(1, noon + 120));
    EXPECT_EQ(numbers(), "66/6 66/2 66/1 ");
}

/* ---- passes ---- */

TEST(take, a_process_test_is_ok_again_when_as_many_have_come) {
    host h;
    h.block(noon, process(1, 10, noon) + process(1, 11, noon, 2) + process(1, 12, noon));
    EXPECT_EQ(h.of(43, 1), state::problem);
    EXPECT_EQ(h.block(noon + 60, process(1, 10, noon + 60) + process(1, 11, noon + 60)), "")
        << "the third may be on its way";
    EXPECT_EQ(h.block(noon + 120, process(1, 12, noon + 60)), "43/1 problem>ok 60 pid 12; ");
}

TEST(take, the_rest_of_a_pass_may_be_the_problem) {
    host h;
    h.block(noon, process(1, 10, noon) + process(1, 11, noon, 2));
    EXPECT_EQ(h.block(noon + 60, process(1, 10, noon + 60)), "");
    EXPECT_EQ(h.block(noon + 120, process(1, 11, noon + 60, 2) + process(1, 10, noon + 120) +
                                      process(1, 11, noon + 120, 2)),
              "");
    EXPECT_EQ(h.agent.find(43, 1)->since, noon) << "it was one problem all the time";
    EXPECT_EQ(h.block(noon + 180, process(1, 10, noon + 180) + process(1, 11, noon + 180)),
              "43/1 problem>ok 180 pid 10; ");
    EXPECT_EQ(h.block(noon + 240, process(1, 11, noon + 180, 2)), "")
        << "a process that came already";
    EXPECT_EQ(h.block(noon + 241, process(1, 12, noon + 180, 2)), "43/1 ok>problem 180 pid 12; ");
}

TEST(take, a_process_that_ended_is_known_by_the_next_block) {
    host h;
    h.block(noon, load(1, noon) + process(1, 10, noon) + process(1, 11, noon, 2));
    EXPECT_EQ(h.block(noon + 60, load(1, noon + 60) + process(1, 10, noon + 60)), "");
    EXPECT_EQ(h.block(noon + 90, load(1, noon + 90)), "43/1 problem>ok 60; ")
        << "nothing of the pass came with it";
    EXPECT_EQ(h.block(noon + 120, load(1, noon + 120) + process(1, 10, noon + 120)), "");
}

TEST(take, a_process_that_ended_is_known_by_the_next_pass) {
    host h;
    h.block(noon, process(1, 10, noon) + process(1, 11, noon, 2));
    EXPECT_EQ(h.block(noon + 200, process(1, 10, noon + 60) + process(1, 10, noon + 120) +
                                      process(1, 10, noon + 180, 2)),
              "43/1 problem>ok 60; 43/1 ok>problem 180 pid 10; ");
}

TEST(take, a_pass_may_come_in_three_blocks) {
    host h;
    h.block(noon, process(1, 10, noon) + process(1, 11, noon, 2) + process(1, 12, noon, 2) +
                      process(1, 13, noon));
    EXPECT_EQ(h.changes.at(0).message, "pid 11") << "the first one that is a problem";
    EXPECT_EQ(h.block(noon + 60, process(1, 10, noon + 60)), "");
    EXPECT_EQ(h.block(noon + 61, process(1, 11, noon + 60)), "") << "so there may be more";
    EXPECT_EQ(h.block(noon + 62, load(1, noon + 62)),
              "66/1 unknown>ok 62 fine; 43/1 problem>ok 60; ");
}

TEST(take, each_pass_that_is_waited_for_has_its_own_block) {
    host h;
    h.block(noon, process(1, 10, noon) + process(1, 11, noon, 2));
    EXPECT_EQ(h.block(noon + 60, process(1, 10, noon + 60)), "");
    EXPECT_EQ(h.block(noon + 180, process(1, 10, noon + 120) + process(1, 11, noon + 120, 2) +
                                      process(1, 10, noon + 180)),
              "43/1 problem>ok 60; 43/1 ok>problem 120 pid 11; ");
    EXPECT_EQ(h.block(noon + 240, load(1, noon + 240)),
              "66/1 unknown>ok 240 fine; 43/1 problem>ok 180; ");
}

TEST(take, a_process_that_is_started_again_is_ok) {
    host h;
    EXPECT_EQ(h.block(noon, process(1, 0, noon, 3)), "43/1 unknown>problem 0 pid 0; ");
    EXPECT_EQ(h.block(noon + 60, process(1, 20, noon + 60) + process(1, 21, noon + 60)),
              "43/1 problem>ok 60 pid 20; ");
    EXPECT_EQ(h.block(noon + 62, process(1, 0, noon + 62, 3)), "43/1 ok>problem 62 pid 0; ");
    EXPECT_EQ(h.block(noon + 64, process(1, 22, noon + 63)), "43/1 problem>ok 63 pid 22; ")
        << "a pass of its own although it follows at once";
}

TEST(take, a_pass_may_outlast_a_second) {
    host h;
    h.now.interval = 10;
    EXPECT_EQ(h.block(noon, process(1, 10, noon, 2) + process(1, 11, noon + 1) +
                                process(1, 12, noon + 2)),
              "43/1 unknown>problem 0 pid 10; ");
    EXPECT_EQ(h.total().received, 1u);
    EXPECT_EQ(h.agent.find(43, 1)->parts, 3u);
    h.block(noon + 3, process(1, 13, noon + 3));
    EXPECT_EQ(h.total().received, 2u) << "that is too long";
    h.block(noon + 4, process(1, 13, noon + 4));
    EXPECT_EQ(h.total().received, 3u) << "the same process is another pass";
}

TEST(take, another_location_is_another_pass) {
    host h;
    EXPECT_EQ(h.block(noon, load(1, noon, 2, 7) + load(1, noon, 0, 8)),
              "66/1 unknown>problem 0 high; 66/1 problem>ok 0 fine; ")
        << "a test that was changed runs at once";
    EXPECT_EQ(h.total().received, 2u);
    EXPECT_EQ(h.block(noon, process(1, 5, noon, 2, 7) + process(1, 6, noon, 0, 8)),
              "43/1 unknown>problem 0 pid 5; 43/1 problem>ok 0 pid 6; ");
}

TEST(take, a_pass_that_comes_again_changes_nothing) {
    host h;
    std::string block = load(1, noon) + process(1, 10, noon) + process(1, 11, noon, 2) +
                        snmp(2, noon, {0, 2}) + inventory(noon);
    h.block(noon, block);
    std::string before, after;
    h.agent.pack(before);
    EXPECT_EQ(h.block(noon, block), "");
    EXPECT_EQ(h.block(noon + 100, block), "");
    EXPECT_EQ(h.hours(), "0: 3 0 0; ");
    EXPECT_EQ(h.agent.find(43, 1)->parts, 2u);
}

/* ---- time ---- */

TEST(take, a_clock_that_is_ahead_is_replaced_by_the_arrival) {
    host h;
    EXPECT_EQ(h.block(noon, load(1, noon + 300)), "66/1 unknown>ok 300 fine; ");
    EXPECT_EQ(h.block(noon + 10, load(2, noon + 311)), "66/2 unknown>ok 10 fine; ");
    EXPECT_EQ(h.agent.find(66, 2)->time, noon + 10);
    EXPECT_EQ(h.agent.find(66, 2)->claimed, noon + 311);
    EXPECT_EQ(h.block(noon + 60, load(1, noon + 360, 2)), "66/1 ok>problem 360 high; ");
}

TEST(take, an_event_does_not_lie_before_the_state_that_it_ends) {
    host h;
    h.block(noon, load(1, noon + 250)); /* a clock that is ahead ... */
    EXPECT_EQ(h.block(noon + 60, load(1, noon + 60, 2)), "66/1 ok>problem 250 high; ")
        << "... and is put right";
    EXPECT_EQ(h.stale(noon + 245, {{66, 1}}), "66/1 problem>stale 250; ");
}

TEST(take, a_collector_whose_clock_is_set_back_goes_back) {
    host h;
    h.block(noon + 7200, load(1, noon + 7200));
    EXPECT_EQ(h.stale(noon, {{66, 1}}), "66/1 ok>stale 0; ");
    EXPECT_EQ(h.silence(noon + 7200), "agent stale>silent 7200; ");
    EXPECT_EQ(h.heard(noon + 6900), "agent silent>stale 7200; ");
    EXPECT_EQ(h.silence(noon + 6899), "agent stale>silent 6899; ");
}

TEST(take, mysql_counts_by_arrival) {
    host h;
    EXPECT_EQ(h.block(noon + 10, mysql(1, noon - 128)), "74/1 unknown>ok 10 row; ");
    EXPECT_EQ(h.block(noon + 70, mysql(1, noon, 3)), "74/1 ok>problem 70 row; ");
    EXPECT_EQ(h.block(noon + 130, mysql(1, noon)), "74/1 problem>ok 130 row; ")
        << "the same time does not make it the same pass";
    EXPECT_EQ(h.block(noon + 190, mysql(1, noon + 128)), "");
    EXPECT_EQ(h.agent.find(74, 1)->time, noon + 190);
    EXPECT_EQ(h.hours(), "0: 4 0 0; ") << "128 seconds are as near as its times can be";
}

TEST(take, a_clock_that_is_set_back_counts) {
    host h;
    h.block(noon + 7200, load(1, noon + 7200));
    EXPECT_EQ(h.block(noon + 7260, load(1, noon + 3660, 2)), "66/1 ok>problem 7260 high; ")
        << "at the arrival";
    EXPECT_EQ(h.block(noon + 7320, load(1, noon + 3720)), "66/1 problem>ok 7320 fine; ");
    EXPECT_EQ(h.block(noon + 7380, load(1, noon + 3780)), "");
    EXPECT_EQ(h.total().missing, 0u);
    EXPECT_EQ(h.agent.find(66, 1)->reached, noon + 3780);
    EXPECT_EQ(h.block(noon + 11400, load(1, noon + 7800, 2)), "66/1 ok>problem 7800 high; ")
        << "what is later than the state is at its own time again";
}

TEST(take, a_clock_behind_for_good_is_none_that_is_late) {
    host h;
    int64_t behind = 3600;
    for (int64_t at = noon; at < noon + 600; at += 60) {
        h.block(at, load(1, at - behind) + mysql(2, at - at % 128));
    }
    ASSERT_EQ(h.changes.size(), 2u);
    EXPECT_EQ(h.stale(noon + 800, {{66, 1}, {74, 2}}), "66/1 ok>stale 800; 74/2 ok>stale 800; ");
    EXPECT_EQ(h.block(noon + 900, load(1, noon + 900 - behind) + mysql(2, noon)),
              "66/1 stale>ok 900 fine; 74/2 stale>ok 900 row; ")
        << "MySQL's times, which are the arrival, say nothing of it";
    EXPECT_EQ(h.block(noon + 960, load(1, noon + 960 - behind, 2)), "66/1 ok>problem 960 high; ");
}

TEST(take, a_check_that_took_longer_than_the_next_one_counts) {
    host h;
    h.block(noon + 61, load(1, noon + 60));
    EXPECT_EQ(h.block(noon + 95, load(1, noon, 2)), "66/1 ok>problem 95 high; ");
    EXPECT_EQ(h.block(noon + 121, load(1, noon + 120)), "66/1 problem>ok 120 fine; ");
    EXPECT_EQ(h.hours(), "0: 3 0 0; ") << "nothing is missing between these";
}

TEST(take, extreme_times_do_no_harm) {
    const int64_t times[] = {least, least + 1, least + 3599, least + 3600, -1,  0,
                             1,     noon,      most - 3600,  most - 1,     most};
    for (int64_t arrival : times) {
        host h;
        h.now = {.interval = 1, .stale_after = most};
        for (int64_t first : times) {
            for (int64_t second : times) {
                for (int32_t interval : {0, 1, INT32_MAX}) {
                    h.now.interval = interval;
                    h.block(arrival, load(1, first) + load(1, second, 2) + process(2, 1, second) +
                                         process(2, 2, first) + mysql(3, second));
                    h.repeat(second, load(1, first));
                    h.stale(second, {{66, 1}});
                    h.silence(first);
                    h.heard(second);
                }
            }
        }
    }
}

/* ---- outages ---- */

/* Three days in one block: what was a problem meanwhile is told, at its time. */
TEST(take, an_outage_in_one_block_is_as_if_it_had_come_in_time) {
    host h;
    h.block(noon + 5, load(1, noon));
    EXPECT_EQ(h.silence(noon + 200), "agent ok>silent 200; ");
    std::string block;
    int64_t end = noon + 3 * 86400;
    for (int64_t at = noon + 60; at <= end; at += 60) {
        bool is_bad = at == noon + 120 || (at >= noon + 86400 && at < noon + 90000);
        block += load(1, at, is_bad ? 2 : 0);
    }
    EXPECT_EQ(h.heard(end + 10), "agent silent>ok 259210; ");
    EXPECT_EQ(h.block(end + 11, block), "66/1 ok>problem 120 high; 66/1 problem>ok 180 fine; "
                                        "66/1 ok>problem 86400 high; 66/1 problem>ok 90000 fine; ")
        << "one lies before the silence began";
    EXPECT_EQ(h.total().received, 3 * 1440u + 1);
    EXPECT_EQ(h.total().missing, 0u);
    EXPECT_EQ(h.ledger.size(), 72u);
    EXPECT_EQ(h.ledger.at(noon).received, 60u);
}

TEST(take, what_is_overtaken_changes_nothing) {
    host h;
    h.block(noon + 5, load(1, noon));
    EXPECT_EQ(h.stale(noon + 300, {{66, 1}}), "66/1 ok>stale 300; ");
    EXPECT_EQ(
        h.block(noon + 1000, load(1, noon + 60, 2) + load(1, noon + 120) + load(2, noon + 1000)),
        "66/2 unknown>ok 1000 fine; ")
        << "it is known that it was stale from then on";
    EXPECT_EQ(h.of(66, 1), state::stale);
    EXPECT_EQ(h.agent.find(66, 1)->time, noon);
    EXPECT_EQ(h.agent.find(66, 1)->received, noon + 1000) << "but it came";
    EXPECT_EQ(h.total().received, 4u);
    EXPECT_EQ(h.block(noon + 1100, load(1, noon + 360, 2) + load(2, noon + 1060)),
              "66/1 stale>problem 360 high; ")
        << "late, but nothing overtook it";
    EXPECT_EQ(h.block(noon + 1200, load(1, noon + 300) + load(2, noon + 1120)), "");
    EXPECT_EQ(h.of(66, 1), state::problem);
}

TEST(take, what_is_overtaken_is_not_missing) {
    host h;
    h.block(noon + 5, load(1, noon));
    h.stale(noon + 300, {{66, 1}});
    std::string late;
    for (int64_t time = 60; time <= 600; time += 60) {
        late += time == 240 ? "" : load(1, noon + time);
    }
    EXPECT_EQ(h.block(noon + 610, late), "66/1 stale>ok 300 fine; ");
    EXPECT_EQ(h.total().received, 10u);
    EXPECT_EQ(h.total().missing, 1u) << "the one of 240";
    EXPECT_EQ(h.block(noon + 1000, load(1, noon + 780)), "");
    EXPECT_EQ(h.total().missing, 3u);
}

TEST(take, late_is_what_lies_more_than_stale_after_before_the_newest) {
    auto second = [](int64_t time, int64_t newest, int64_t arrival) {
        host h;
        h.block(noon, load(1, noon));
        h.block(noon + 900, load(1, noon + 900));
        return h.block(noon + arrival, load(1, noon + time, 2) + load(2, noon + newest));
    };
    const std::string other = "66/2 unknown>ok ";
    EXPECT_EQ(second(720, 900, 960), "66/1 ok>problem 720 high; " + other + "900 fine; ");
    EXPECT_EQ(second(719, 900, 960), other + "900 fine; ")
        << "before the latest pass, though not before the state began";
    EXPECT_EQ(second(780, 1260, 960), "66/1 ok>problem 780 high; " + other + "1260 fine; ")
        << "before the arrival, where that is earlier";
    EXPECT_EQ(second(779, 1260, 960), other + "1260 fine; ");
    EXPECT_EQ(second(960, 1260, 960), "66/1 ok>problem 960 high; " + other + "1260 fine; ");
}

TEST(take, the_rest_of_a_pass_may_be_overtaken) {
    host h;
    h.block(noon, process(1, 10, noon));
    h.stale(noon + 300, {{43, 1}});
    EXPECT_EQ(h.block(noon + 400, process(1, 11, noon, 2)), "43/1 stale>problem 400 pid 11; ")
        << "all that there is is not late";
    host other;
    other.block(noon, process(1, 10, noon));
    other.stale(noon + 300, {{43, 1}});
    other.block(noon + 400, process(1, 11, noon, 2) + load(1, noon + 400));
    EXPECT_EQ(other.of(43, 1), state::stale);
    EXPECT_EQ(other.total().received, 2u);
}

TEST(take, an_overtaken_pass_of_processes_counts_once) {
    host h;
    h.block(noon + 600, process(1, 5, noon + 600));
    h.block(noon + 660, process(1, 5, noon) + process(1, 6, noon) + process(1, 7, noon + 1) +
                            process(1, 5, noon + 60) + load(1, noon + 660));
    EXPECT_EQ(h.hours(), "0: 4 0 0; ");
    EXPECT_EQ(h.agent.find(43, 1)->time, noon + 600);
    h.block(noon + 720, process(1, 6, noon + 60) + process(1, 5, noon + 60) +
                            process(1, 8, noon + 61) + load(1, noon + 720));
    EXPECT_EQ(h.total().received, 5u) << "in two blocks too";
    h.block(noon + 721, process(1, 5, noon + 660) + process(1, 5, noon + 60) + load(1, noon + 721));
    EXPECT_EQ(h.total().received, 8u) << "but what came before the last pass is not known";
}

TEST(take, a_first_result_is_never_late) {
    host h;
    EXPECT_EQ(h.block(noon + 86400, load(1, noon) + load(2, noon + 86400)),
              "66/1 unknown>ok 0 fine; 66/2 unknown>ok 86400 fine; ");
    EXPECT_EQ(h.block(noon, load(3, -noon) + load(2, noon)), "66/3 unknown>ok -3555273600 fine; ");
}

/* ---- the ledger ---- */

TEST(take, passes_count_in_the_hours_of_their_times) {
    host h;
    h.block(noon + 3700, load(1, noon + 3590) + load(1, noon + 3650) + load(2, noon + 3599) +
                             load(2, noon + 3659));
    EXPECT_EQ(h.hours(), "0: 2 0 0; 1: 2 0 0; ");
    EXPECT_EQ(h.agent.counts.hour, noon + 3600);
    h.block(noon + 7300, load(1, noon + 3710) + load(2, noon + 3719));
    EXPECT_EQ(h.agent.counts.received, 4u);
    EXPECT_TRUE(h.out.hours.empty());
    h.block(noon + 7300, load(1, noon + 7250) + load(2, noon + 7259));
    EXPECT_EQ(h.agent.counts.hour, noon + 7200);
    ASSERT_FALSE(h.out.hours.empty());
}

TEST(take, what_is_missing_is_counted_where_it_should_have_been) {
    host h;
    h.block(noon, load(1, noon));
    h.block(noon + 90, load(1, noon + 90));
    EXPECT_EQ(h.total().missing, 0u) << "at more than one and a half intervals";
    h.block(noon + 181, load(1, noon + 181));
    EXPECT_EQ(h.total().missing, 1u);
    h.block(noon + 3690, load(1, noon + 3690));
    EXPECT_EQ(h.hours(), "0: 3 0 57; 1: 1 0 1; ") << "58.5 intervals are 58 missing";
    host other;
    other.now.interval = 7;
    other.block(noon, load(1, noon));
    other.block(noon + 7207, load(1, noon + 7207));
    EXPECT_EQ(other.hours(), "0: 1 0 514; 1: 0 0 514; 2: 1 0 1; ");
}

TEST(take, missing_add_up_however_the_gaps_lie) {
    std::mt19937 random(3);
    for (int i = 0; i < 300; i++) {
        int64_t interval = 1 + static_cast<int64_t>(random() % 5000),
                begin = noon - static_cast<int64_t>(random() % 100000),
                distance = static_cast<int64_t>(random() % 1000000);
        host h;
        h.now.interval = static_cast<int32_t>(interval);
        h.block(begin, load(1, begin));
        h.block(begin + distance, load(1, begin + distance));
        std::map<int64_t, uint64_t> expected;
        if (distance * 2 > 3 * interval) {
            auto n = std::llround(static_cast<double>(distance) / static_cast<double>(interval));
            for (int64_t k = 1; k < n; k++) {
                expected[hour_of(begin + distance - k * interval)]++;
            }
        }
        std::map<int64_t, uint64_t> found;
        hour_sums::add(h.ledger[h.agent.counts.hour], h.agent.counts);
        for (const auto& [hour, counts] : h.ledger) {
            if (counts.missing > 0) {
                found[hour] = counts.missing;
            }
        }
        ASSERT_EQ(found, expected) << interval << " " << begin << " " << distance;
    }
}

TEST(take, nothing_is_missing_where_none_was_to_come) {
    auto missing = [](patience now, const std::string& first, const std::string& second,
                      int64_t arrival = noon + 3600) {
        host h;
        h.now = now;
        h.block(noon, first);
        h.block(arrival, second);
        return h.total().missing;
    };
    EXPECT_EQ(missing({}, load(1, noon), load(1, noon + 3600)), 59u);
    EXPECT_EQ(missing({}, load(1, noon), load(1, noon + 3600, 0, 8)), 0u) << "another location";
    EXPECT_EQ(missing({.interval = 0}, load(1, noon), load(1, noon + 3600)), 0u) << "runs once";
    EXPECT_EQ(missing({}, discovery(1, noon), discovery(1, noon + 3600)), 0u);
    EXPECT_EQ(missing({}, strange(99), strange(99)), 0u);
    EXPECT_EQ(missing({}, load(1, noon), load(1, noon - 7200)), 0u) << "a clock set back";
    EXPECT_EQ(missing({}, load(1, noon), load(1, noon + 3600 + 86400)), 59u)
        << "a clock ahead: by arrival";
    EXPECT_EQ(missing({}, load(1, noon + 86400), load(1, noon + 86460)), 0u)
        << "a clock that has been ahead: by its own";
    EXPECT_EQ(missing({}, load(1, noon), load(1, noon + max_gap_s), noon + max_gap_s),
              31 * 1440u - 1);
    EXPECT_EQ(missing({}, load(1, noon), load(1, noon + max_gap_s + 1), noon + max_gap_s + 1), 0u)
        << "another life";
    EXPECT_EQ(missing({}, load(1, noon), load(1, noon + 3600), noon + 3600 + max_gap_s), 59u);
    EXPECT_EQ(missing({}, load(1, noon), load(1, noon + 3600), noon + 3601 + max_gap_s), 0u)
        << "too old";
    EXPECT_EQ(missing({}, mysql(1, noon), mysql(1, noon + 3584)), 57u) << "3456 seconds for sure";
}

TEST(take, a_clock_ahead_with_several_passes_in_a_block_misses_nothing) {
    host h;
    for (int64_t arrival = noon; arrival < noon + 3600; arrival += 300) {
        std::string block;
        for (int64_t back = 240; back >= 0; back -= 60) {
            block += load(1, arrival + 5000 - back) + mysql(2, (arrival - back) / 128 * 128);
        }
        h.block(arrival, block);
    }
    EXPECT_EQ(h.hours(), "0: 120 0 0; ");
}

TEST(take, a_repeated_block_counts_as_repeated_and_nothing_else) {
    host h;
    std::string block = load(1, noon - 60) + load(1, noon) + load(1, noon + 600, 2) +
                        process(1, 3, noon) + process(1, 4, noon + 1) + inventory(noon) +
                        mysql(1, noon) + mysql(1, noon) + strange(99);
    h.block(noon + 600, block);
    std::string before, after;
    hour_counts counts = h.agent.counts;
    h.agent.counts = {};
    h.agent.pack(before);
    h.agent.counts = counts;
    EXPECT_EQ(h.repeat(noon + 615, block), "");
    EXPECT_EQ(h.hours(), "-1: 1 1 0; 0: 6 6 9; ");
    h.agent.counts = {};
    h.agent.pack(after);
    EXPECT_EQ(before, after);
}

TEST(take, a_repetition_alone_counts_too) {
    host h;
    h.repeat(noon, load(1, noon - 5) + load(1, noon));
    EXPECT_EQ(h.hours(), "-493788: 0 0 0; -1: 0 1 0; 0: 0 1 0; ");
    EXPECT_TRUE(h.agent.tests.empty());
}

/* ---- what happens without results ---- */

TEST(take, silence_is_an_event_of_the_agent) {
    host h;
    EXPECT_EQ(h.heard(noon), "") << "for the first time";
    EXPECT_EQ(h.agent.since, noon);
    h.block(noon, load(1, noon) + load(2, noon, 2));
    EXPECT_EQ(h.silence(noon + 181), "agent problem>silent 181; ");
    EXPECT_EQ(h.silence(noon + 200), "") << "once";
    EXPECT_EQ(h.of(66, 1), state::ok) << "tests stay as they are";
    EXPECT_EQ(h.heard(noon + 1000), "agent silent>problem 1000; ");
    EXPECT_EQ(h.heard(noon + 1001), "");
    EXPECT_EQ(h.agent.since, noon + 1000);
    host nothing;
    EXPECT_EQ(nothing.silence(noon), "agent unknown>silent 0; ");
    EXPECT_EQ(nothing.heard(noon + 1), "agent silent>unknown 1; ");
}

TEST(take, tests_become_stale_once) {
    host h;
    h.block(noon, load(1, noon) + load(2, noon, 2) + load(3, noon));
    EXPECT_EQ(h.stale(noon + 181, {{66, 1}, {66, 2}, {66, 9}, {48, 1}}),
              "66/1 ok>stale 181; 66/2 problem>stale 181; ");
    EXPECT_EQ(h.stale(noon + 182, {{66, 1}}), "");
    EXPECT_EQ(h.agent.worst(), state::stale);
    EXPECT_EQ(h.block(noon + 300, load(1, noon + 300)), "66/1 stale>ok 300 fine; ");
}

TEST(take, a_test_that_is_gone_is_unknown_until_something_comes_of_it) {
    host h;
    h.block(noon, load(1, noon) + load(2, noon, 2) + load(3, noon));
    h.stale(noon + 181, {{66, 3}});
    EXPECT_EQ(h.gone(noon + 182, {{66, 2}, {66, 3}, {66, 9}, {48, 1}}),
              "66/2 problem>unknown 182 no longer planned; "
              "66/3 stale>unknown 182 no longer planned; ");
    EXPECT_EQ(h.gone(noon + 183, {{66, 2}}), "");
    h.keep();
    EXPECT_EQ(h.agent.worst(), state::ok) << "of the one that is left";
    EXPECT_EQ(h.gone(noon + 184, {{66, 1}}), "66/1 ok>unknown 184 no longer planned; ");
    EXPECT_EQ(h.agent.worst(), state::unknown);
    /* Back in the plan, after a day in which none was to come. */
    EXPECT_EQ(h.block(noon + 86400, load(2, noon + 86340) + load(2, noon + 86400, 2)),
              "66/2 unknown>ok 86340 fine; 66/2 ok>problem 86400 high; ");
    EXPECT_EQ(h.total().missing, 0u);
    EXPECT_EQ(h.block(noon + 86640, load(2, noon + 86640, 2)), "");
    EXPECT_EQ(h.total().missing, 3u);
    /* And once more nothing is heard of it. */
    EXPECT_EQ(h.gone(noon + 90000, {{66, 3}}), "");
    EXPECT_EQ(h.stale(noon + 90000, {{66, 3}}), "66/3 unknown>stale 90000; ");
}

/* ---- many of them ---- */

TEST(take, tests_that_are_too_many_are_forgotten) {
    host h;
    h.block(noon, load(1, noon, 2));
    h.agent.tests[0].id = 1;
    std::string block;
    const int32_t many = 2 * agent_state::max_tests + 500;
    for (int32_t i = 0; i < many; i++) {
        block += load(1000 + static_cast<int32_t>(i * 7919LL % 1000003), noon + 60);
    }
    h.block(noon + 60, block);
    EXPECT_EQ(h.agent.tests.size(), size_t{agent_state::max_tests});
    EXPECT_EQ(h.out.changes.size(), size_t{many});
    EXPECT_EQ(h.of(66, 1), state::silent) << "heard of longest ago";
    EXPECT_EQ(h.total().received, 1u + many);
    size_t forgotten = 0;
    for (size_t i = 0; i < h.places.size(); i++) {
        if (h.places[i] == SIZE_MAX) {
            forgotten++;
            continue;
        }
        EXPECT_EQ(h.agent.tests.at(h.places[i]).number,
                  1000 + static_cast<int32_t>(static_cast<int64_t>(i) * 7919 % 1000003));
    }
    EXPECT_EQ(forgotten, size_t{many} - agent_state::max_tests);
    for (size_t i = 1; i < h.agent.tests.size(); i++) {
        ASSERT_LT(h.agent.tests[i - 1].key(), h.agent.tests[i].key());
    }
}

/* The work is in proportion to the block, whatever it says: this would take minutes otherwise. */
TEST(take, invented_tests_and_times_take_no_longer_than_others) {
    std::string block;
    for (uint32_t i = 0; i < 60000; i++) {
        block += load(static_cast<int32_t>(i * 2654435761u >> 1), noon - i * int64_t{86400});
    }
    for (uint32_t i = 0; i < 30000; i++) { /* each a month behind the one before */
        block += load(5, (int64_t{i} - 30000) * max_gap_s);
    }
    host h;
    h.block(noon, block);
    EXPECT_EQ(h.total().received, 90000u);
    EXPECT_EQ(h.total().missing, 0u);
}

/* ---- histories ---- */

namespace {

/* An agent with its own clock and its own ideas. */
class random_history {
public:
    explicit random_history(uint32_t seed) : random_(seed) { h_.now.interval = 60; }

    void run() {
        for (int i = 0; i < 400; i++) {
            step();
            if (testing::Test::HasFailure()) {
                return;
            }
        }
    }

private:
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

    std::string pass() {
        std::string block;
        while (used_.lower_bound(now_ + clock_ - 2) != used_.upper_bound(now_ + clock_ + 2)) {
            clock_ += 5; /* a pass that cannot be told from another is another matter */
        }
        int64_t time = now_ + clock_;
        used_.insert(time);
        for (int32_t test = 1; test <= 3; test++) {
            if (below(8) != 0) {
                block += load(test, time, below(5) == 0 ? 2 : 0, 7 + below(50) / 49);
                passes_++;
            }
        }
        if (below(4) != 0) {
            uint32_t many = 1 + below(4);
            for (uint32_t pid = 1; pid <= many; pid++) {
                block += process(4, 10 * pid, time, below(9) == 0 ? 2 : 0);
            }
            passes_++;
        }
        if (below(4) != 0) {
            block += mysql(5, time / 128 * 128, below(5) == 0 ? 3 : 0);
            passes_++;
        }
        if (below(30) == 0) {
            block += inventory(time) + strange(99);
            passes_++;
        }
        return block;
    }

    void step() {
        size_t known = h_.changes.size();
        switch (below(12)) {
        case 0: /* an outage */
            h_.silence(now_ += 181);
            check(known);
            known = h_.changes.size();
            for (uint32_t n = below(200); n > 0; n--) {
                now_ += 60;
                waiting_ += pass();
            }
            h_.heard(now_);
            break;
        case 1:
            h_.stale(now_ += 181, {{66, 1}, {43, 4}, {74, 5}});
            break;
        case 2: /* the clock jumps */
            clock_ += static_cast<int64_t>(below(8000)) - 4000;
            break;
        case 3:
            clock_ = 0;
            break;
        case 4:
            if (!last_.empty()) {
                repeat();
            }
            break;
        default:
            now_ += 55 + below(10);
            waiting_ += pass();
            if (below(3) != 0) {
                send();
            }
        }
        check(known);
    }

    void send() {
        last_ = std::exchange(waiting_, {});
        arrived_ = now_ + below(5);
        now_ = arrived_;
        h_.block(arrived_, last_);
        EXPECT_EQ(h_.total().received, passes_);
    }

    void repeat() {
        std::string before, after;
        hour_counts sum = h_.total(), counts = h_.agent.counts;
        h_.agent.counts = {};
        h_.agent.pack(before);
        h_.agent.counts = counts;
        EXPECT_EQ(h_.repeat(now_, last_), "");
        counts = std::exchange(h_.agent.counts, {});
        h_.agent.pack(after);
        h_.agent.counts = counts;
        EXPECT_EQ(before, after);
        EXPECT_GT(h_.total().repeated, sum.repeated);
        EXPECT_EQ(h_.total().received, sum.received);
        EXPECT_EQ(h_.total().missing, sum.missing);
    }

    void check(size_t from) {
        for (size_t i = from; i < h_.changes.size(); i++) {
            const change& c = h_.changes[i];
            EXPECT_NE(c.from, c.to);
            if (c.of_agent) {
                EXPECT_NE(c.from == state::silent, c.to == state::silent);
                continue;
            }
            ASSERT_TRUE(c.number);
            auto [last, is_first] = last_of_.try_emplace({c.type, *c.number}, c);
            if (is_first) {
                EXPECT_EQ(c.from, state::unknown);
            } else {
                EXPECT_EQ(c.from, last->second.to);
                EXPECT_GE(c.time, last->second.time) << c.type;
                last->second = c;
            }
            EXPECT_LE(c.time, now_ + skew_s);
        }
        for (const auto& [key, last] : last_of_) {
            const test_status* t = h_.agent.find(key.first, key.second);
            ASSERT_NE(t, nullptr);
            EXPECT_EQ(t->now, last.to);
            EXPECT_EQ(t->since, last.time);
            EXPECT_GE(t->reached, t->time);
        }
    }

    std::mt19937 random_;
    host h_;
    int64_t now_ = noon, clock_ = 0, arrived_ = noon;
    std::string waiting_, last_;
    uint64_t passes_ = 0;
    std::set<int64_t> used_;
    std::map<std::pair<uint32_t, int32_t>, change> last_of_;
};

} // namespace

TEST(take, whatever_happens_the_events_are_a_chain) {
    for (uint32_t seed = 1; seed <= 25; seed++) {
        random_history(seed).run();
        ASSERT_FALSE(HasFailure()) << seed;
    }
}

/* An agent that is well: what came and what is missing make up all there should have been, in each
 * hour, however it comes. */
TEST(take, what_came_and_what_is_missing_are_all) {
    std::mt19937 random(5);
    for (int round = 0; round < 20; round++) {
        host h;
        std::string waiting;
        int64_t end = noon + 2 * 86400;
        bool is_off = false;
        for (int64_t at = noon; at < end; at += 60) {
            is_off = random() % 200 == 0 ? !is_off : is_off;
            bool is_edge = at == noon || at + 60 == end;
            if (!is_off || is_edge) {
                waiting += load(1, at) + load(2, at);
            }
            if (random() % 20 == 0 || is_edge) {
                h.block(at + 3, std::exchange(waiting, {}));
            }
        }
        hour_sums::add(h.ledger[h.agent.counts.hour], h.agent.counts);
        EXPECT_EQ(h.ledger.size(), 48u);
        for (const auto& [hour, counts] : h.ledger) {
            EXPECT_EQ(counts.received + counts.missing, 120u) << hour;
        }
    }
}

/* A block in slices comes to the same as the whole. */
TEST(take, slices_come_to_the_same) {
    std::mt19937 random(7);
    for (int round = 0; round < 50; round++) {
        std::string all;
        std::vector<size_t> cuts;
        for (int64_t at = noon; at < noon + 7200; at += 60) {
            uint32_t status = random() % 10 == 0 ? 2 : 0;
            for (uint32_t pid = 1; pid <= 1 + random() % 3; pid++) {
                all += process(1, pid, at, random() % 10 == 0 ? 2 : 0);
                cuts.push_back(all.size());
            }
            all += load(1, at, status);
            cuts.push_back(all.size());
        }
        host whole, sliced;
        whole.block(noon + 7200, all);
        for (size_t from = 0, to; from < all.size(); from = to) {
            to = all.size();
            for (size_t cut : cuts) {
                if (cut > from && random() % 10 == 0) {
                    to = cut;
                    break;
                }
            }
            sliced.block(noon + 7200, all.substr(from, to - from));
        }
        whole.block(noon + 7260, load(1, noon + 7260));
        sliced.block(noon + 7260, load(1, noon + 7260));
        EXPECT_EQ(whole.hours(), sliced.hours());
        for (uint32_t type : {43u, 66u}) {
            EXPECT_EQ(whole.of(type, 1), sliced.of(type, 1));
            EXPECT_EQ(whole.agent.find(type, 1)->time, sliced.agent.find(type, 1)->time);
        }
    }
}

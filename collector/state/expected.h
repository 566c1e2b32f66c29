/* When results are to come: the intervals that agents are told, and the tests that they are to
 * have. Changes act late at the agents, so that the longer of an interval and the one before it
 * counts from the change on until the longest of the four has passed three times; a change while
 * that lasts goes on from what counts then. Following the same intervals again changes nothing,
 * and before the first plan there is none. Pure; times of a clock that never jumps, in seconds. */
#ifndef VINDRAL_COLLECTOR_EXPECTED_H
#define VINDRAL_COLLECTOR_EXPECTED_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

struct intervals {
    int32_t poll = 60;
    int32_t check = 60; /* 0: tests run once */

    bool operator==(const intervals&) const = default;
};

/* What the plan comes to. */
struct plan_summary {
    intervals every = {};
    bool is_planned = false; /* false: there is no plan, and every test that came may come again */
    std::vector<std::pair<uint32_t, int32_t>> tests; /* type of the records, number */
};

class expected {
public:
    void follow(const plan_summary& plan, int64_t now);
    /* These intervals were told long ago: nothing acts late, whatever was followed before. */
    void resume(const intervals& every);

    /* What counts now. */
    intervals at(int64_t now) const;
    /* Until when it does, unless something else is followed; INT64_MAX: for ever. */
    int64_t until(int64_t now) const { return now < longer_until_ ? longer_until_ : INT64_MAX; }

    /* Seconds without a poll, or without a result, after which an agent is silent, a test stale:
     * three intervals, a test's being the longer of poll and check, and a minute at least. */
    int64_t silent_after(int64_t now) const;
    int64_t stale_after(int64_t now) const;

    /* Whether results of the test are to come again and again, and since when: nothing before is
     * held against it. Those of discovery never are, none are while `check` is 0, and with a plan
     * only those in it. INT64_MIN: from the start. */
    std::optional<int64_t> repeats_since(uint32_t type, int32_t number) const;
    /* Whether there is a plan, and the test is not in it: nothing is to come of it any more. False
     * of discovery, of which nothing is awaited in any case. */
    bool has_ended(uint32_t type, int32_t number) const;
    bool has_plan() const { return is_planned_; }
    /* Grows when another plan is followed; a copy goes on from there. */
    unsigned changes() const { return changes_; }
    bool repeats(uint32_t type, int32_t number) const {
        return repeats_since(type, number).has_value();
    }

    /* The tests of the plan; of the last one, when there is none now. */
    struct planned {
        std::pair<uint32_t, int32_t> test;
        int64_t since;
    };
    std::span<const planned> tests() const { return tests_; } /* rising, each once */
    bool has_test(uint32_t type, int32_t number) const { return find(type, number) != nullptr; }
    /* How many of them come again and again, when anything does. */
    size_t repeating() const { return repeating_; }
    /* When the plan came. */
    int64_t followed() const { return followed_; }

private:
    void follow_tests(const plan_summary& plan, int64_t now);
    const planned* find(uint32_t type, int32_t number) const;

    intervals now_, longer_;
    int64_t longer_until_ = INT64_MIN;
    unsigned changes_ = 0;
    bool is_followed_ = false, is_planned_ = false;
    int64_t repeating_since_ = INT64_MIN; /* tests at all */
    int64_t unplanned_since_ = INT64_MIN; /* tests that are in no plan */
    int64_t followed_ = 0;
    size_t repeating_ = 0;
    std::vector<planned> tests_;
};

#endif

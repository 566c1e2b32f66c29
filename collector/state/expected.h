/* When results are to come: the intervals that agents are told, and the tests that they are to
 * have. Changes act late at the agents, so that the longer of an interval and the one before it
 * counts until the longer one has passed three times. Pure; times of a clock that never jumps, in
 * seconds. */
#ifndef VINDRAL_COLLECTOR_EXPECTED_H
#define VINDRAL_COLLECTOR_EXPECTED_H

#include <cstdint>
#include <set>
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

    /* What counts now. */
    intervals at(int64_t now) const;

    /* Seconds without a poll, or without a result, after which an agent is silent, a test stale:
     * three intervals, a test's being the longer of poll and check, and a minute at least. */
    int64_t silent_after(int64_t now) const;
    int64_t stale_after(int64_t now) const;

    /* Whether results of the test are to come again and again. */
    bool repeats(uint32_t type, int32_t number) const;

private:
    intervals now_, longer_;
    int64_t longer_until_ = INT64_MIN;
    bool is_planned_ = false;
    std::set<std::pair<uint32_t, int32_t>> tests_;
};

#endif

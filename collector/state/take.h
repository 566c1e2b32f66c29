/* What becomes of an agent when results come, when nothing comes, and when it comes back: states,
 * events and the ledger. Pure functions; whoever calls them stores what they say in the transaction
 * that stores the results.
 *
 * ORDER  Results count in the order in which they arrive from the agent. Records of one test with
 * the same check time are one pass; a pass may go on in the next block. A test's state is the worst
 * of its pass: what judge() makes of each record. A process test that was a problem is ok again
 * only when as many records have come as in the pass before, or the next block shows that there are
 * no more: the others may be on their way.
 *
 * TIME  The time of a pass is its check time; the arrival where that lies more than skew_s after
 * the arrival, and always for MySQL, whose times are coarse. (`claimed` keeps what the agent said.)
 *
 * EVENTS  A pass whose state differs from the test's makes an event at the time of the pass. A pass
 * is late when its time lies more than the time after which a test is stale before the newest check
 * time in its block (before the arrival, where that is earlier). One that is late and lies before
 * the last pass or before the present state began is overtaken: it is stored and counted, and
 * changes nothing. One that lies before these without being late comes from a clock that was set
 * back: it counts, and its event is at the arrival. A pass that comes again changes nothing.
 *
 * LEDGER  A pass counts in the hour of its time. Passes of a test that follow each other at more
 * than 1.5 intervals have round(distance / interval) - 1 missing between them, each counted in the
 * hour in which it should have been; nothing is missing before a pass whose location id differs
 * from that of the one before, of tests that run once, of records without a test, and behind a
 * clock that was set back. More than max_gap_s is no gap but another life: nothing is missing. */
#ifndef VINDRAL_COLLECTOR_TAKE_H
#define VINDRAL_COLLECTOR_TAKE_H

#include "base/record_summary.h"
#include "state/agent_state.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

constexpr int64_t skew_s = 300;
constexpr int64_t max_gap_s = 31 * 86400;

/* How long things take now (expected.h). */
struct patience {
    int32_t interval = 60;     /* seconds between two passes; 0: they run once */
    int64_t stale_after = 180; /* seconds */
};

/* A change of state. */
struct change {
    uint32_t type = 0; /* of the test */
    std::optional<int32_t> number = {};
    bool of_agent = false; /* of the agent itself: no test */
    int64_t time = 0;
    state from = state::unknown, to = state::unknown;
    std::string message = {}; /* of the result that made it */
};

/* What came of a call; the memory is kept. */
struct outcome {
    std::vector<change> changes;    /* in order */
    std::vector<hour_counts> hours; /* to be added to the ledger: hours that are not the one being
                                       counted in agent_state::counts */
    void clear() {
        changes.clear();
        hours.clear();
    }
};

/* The time of a record as reckoned. */
int64_t reckoned_time(const record_summary& what, int64_t arrival);

/* Whether it is an inventory, which has no state. */
bool is_inventory(const record_summary& what);

/* Records of a block (or a slice of it), which arrived then. New tests come into `agent` with id 0;
 * the caller gives them ids, and sets `block`. Inventories are passed over. The test of each record
 * is at `places[i]` in agent.tests afterwards (SIZE_MAX for an inventory). */
void take_results(agent_state& agent, std::span<const decoded_record> records, int64_t arrival,
                  const patience& now, outcome& out, std::vector<size_t>& places);

/* The same block once more: nothing but counts in the ledger. */
void take_repetition(agent_state& agent, std::span<const decoded_record> records, int64_t arrival,
                     outcome& out);

/* The agent was heard at `time`. */
void take_heard(agent_state& agent, int64_t time, outcome& out);
/* Nothing was heard of it for too long; nothing came of these tests for too long. */
void take_silence(agent_state& agent, int64_t time, outcome& out);
void take_stale(agent_state& agent, std::span<const std::pair<uint32_t, int32_t>> tests,
                int64_t time, outcome& out);

#endif

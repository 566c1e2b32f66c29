/* What becomes of an agent when results come, when nothing comes, and when it comes back: states,
 * events and the ledger. Pure functions; whoever calls them stores what they say in the transaction
 * that stores the results.
 *
 * PASSES  Results count in the order in which they arrive from the agent. Records of one test with
 * the same check time and location id are one pass; so are records of a process test whose check
 * time is up to pass_s later than the first one's, as long as the ids of the processes rise and are
 * not 0. One of a process test with the check time and the location id of the last pass whose id
 * does not rise repeats a part of it: nothing becomes of it, here or in the ledger. Each record of
 * MySQL, whose times are coarse, and each without a number is a pass of its own. A pass may go on
 * in the next block.
 *
 * STATES  The state of a pass is the worst of its records as judge() sees them: problem where there
 * is a status that is not 0, else ok; what came of it in one block is judged together. A record
 * without a number (of a type that is not known) has no state: there are no events of it, and its
 * test stays unknown. A process test that is a problem stays one while a pass without problems has
 * fewer records than the pass before: the others may be on their way. That there are no more is
 * known when the next pass of the test begins, or the next block (or slice of it) brings nothing of
 * the pass; then the pass makes the event that it would have made, without a message. A test that
 * is gone (watch.h) is unknown until something comes of it.
 *
 * TIME  The time of a pass is its first record's check time; the arrival where that lies more than
 * skew_s after the arrival, always for MySQL, and where there is none. (`claimed` keeps what the
 * agent said.) `reached` is the latest time that a test's passes came to.
 *
 * EVENTS  A pass whose state differs from the test's makes an event at the time of the pass. The
 * first pass of a test always counts. A later one is late when its time lies more than the time
 * after which a test is stale before the newest check time in its block, those of MySQL left out;
 * before the arrival, where that is earlier or there is no such check time. One that is late and
 * lies before `reached` or before the present state began is overtaken: it is stored and counted in
 * the ledger, and changes nothing but `reached`, where that lies before it: it is not missing. What
 * of a pass comes in a block in which it would be overtaken changes nothing. A pass that is
 * overtaken does not end the one before it. One that lies before these without being late counts:
 * where it lies before the present state began, its event is at the arrival.
 * Where it lies more than the time after which a test is stale before `reached`, the agent's clock
 * was set back, and `reached` goes back to it; less than that, a check took longer than the one
 * that was begun after it.
 *
 * An event at the arrival, or at the time of a call below, that lies before the present state began
 * by skew_s or less is at that beginning: an agent's clock may be that much ahead. So the times of
 * a test's events only go back where the collector's own clock was set back.
 *
 * LEDGER  A pass counts as received in the hour of its time, once. The distance of a pass from the
 * test's pass before it is what lies between their check times as the agent had them, for MySQL
 * coarse_s less; or what lies between its time and `reached`, where that is shorter. At more than
 * 1.5 intervals, round(distance / interval) - 1 passes are missing: one interval before the pass,
 * two before it, and so on, each counted in the hour in which it should have been. Nothing is
 * missing before a pass that is overtaken or does not lie after `reached`, before one whose
 * location id differs from that of the one before, before the first one of a test that was gone,
 * and of tests that run once (all of them with
 * interval 0, and discovery) or have no number. At more than max_gap_s there is no gap but another
 * life, and what lies more than max_gap_s before its arrival is too old to tell: nothing is missing
 * before it. */
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
constexpr int64_t pass_s = 2;
constexpr size_t max_message = 1000;
constexpr const char* gone_message = "no longer planned";
constexpr int64_t coarse_s = 128; /* between two times that a MySQL record can hold */

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
    std::string message = {};    /* of the record that made it, max_message bytes at most */
    int64_t event = 0, test = 0; /* ids in the store, once it is there */
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

pass_mark mark_of(const decoded_record& r, int64_t arrival);

/* What a record of a test is to the pass before it. */
enum class continuation : uint8_t { another_pass, same_pass, repetition };
continuation continues(const record_summary& what, const pass_mark& pass, const pass_mark& next);

/* Whether it is an inventory, which has no state. */
bool is_inventory(const record_summary& what);

/* Records of a block (or a slice of it), which arrived then. New tests come into `agent` with id 0;
 * the caller gives them ids, and sets `block`. Inventories are passed over. The test of each record
 * is at `places[i]` in agent.tests afterwards; SIZE_MAX for an inventory, and for a test that is
 * forgotten again because its block has more than agent_state::max_tests. The hour that is counted
 * in agent_state::counts is then that of the block's latest pass. */
void take_results(agent_state& agent, std::span<const decoded_record> records, int64_t arrival,
                  const patience& now, outcome& out, std::vector<size_t>& places);

/* The same block once more: its passes, those in it taken alone, count as repeated in the hours of
 * their times; nothing else. */
void take_repetition(agent_state& agent, std::span<const decoded_record> records, int64_t arrival,
                     outcome& out);

/* The agent was heard at `time`: the end of a silence is an event of the agent, from silent to the
 * worst of its tests. */
void take_heard(agent_state& agent, int64_t time, outcome& out);
/* Nothing was heard of it for too long: an event of the agent, from the worst of its tests, which
 * stay as they are, to silent. Nothing came of these tests for too long: each becomes stale; or it
 * is gone, and becomes unknown, with gone_message. What is so already, and what is not known, is
 * passed over. */
void take_silence(agent_state& agent, int64_t time, outcome& out);
void take_stale(agent_state& agent, std::span<const std::pair<uint32_t, int32_t>> tests,
                int64_t time, outcome& out);
void take_gone(agent_state& agent, std::span<const std::pair<uint32_t, int32_t>> tests,
               int64_t time, outcome& out);

#endif

/* When something is dropped.
 *
 * Which day of raw results goes is told by the order in which days were written to, not by the
 * clock, which may jump: of the days on which results arrived the last ones are kept. Days that a
 * wrong clock made up thus take their turn like any other, cost at most as many right ones, and
 * those go one an hour.
 *
 * All else goes by its age. What counts as today for that follows the clock by a day an hour at
 * most, and back at once; so a clock that was far ahead for an hour costs a day of what is oldest.
 * The clock itself cannot say that it is not ahead. So today, when it lies far back because the
 * clock did once (at the first start, say), is brought up in two ways, neither of which follows a
 * jump of the clock:
 * - It is earliest_day at least, since no clock that is right says less. That costs nothing that is
 *   not too old.
 * - When the clock has run on for sure_hours without a jump, by the one that never does, and
 * agents' clocks bore it out all the time, it is believed, and today is what it says. Meanwhile a
 * day an hour has passed, so that is no worse than what a clock which is wrong for as long costs
 * anyway; and whoever has all clocks wrong for two weeks has had time to see it. A jump, or agents'
 * clocks that say otherwise, begin it anew; so does a start behind more than three days. When
 * agents' clocks bear out one that lies before today, today goes back to it for good: what one that
 * was ahead had come to is not there for the next jump. */
#ifndef VINDRAL_COLLECTOR_EXPIRY_H
#define VINDRAL_COLLECTOR_EXPIRY_H

#include "ingest/roll_up_day.h"
#include "ingest/trouble.h"
#include "ingest/undecodable.h"
#include "ingest/witness.h"
#include "store/engine.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

/* Days that are kept; 0 keeps all. */
struct kept_days {
    int raw = 0, five_minutes = 0, hour = 0, events = 0, ledger = 0;
    int changes = 0; /* of what agents are to do */
};

/* One thread. */
class expiry {
public:
    static constexpr int64_t sure_hours = 14 * 24;

    expiry(engine& results, undecodable_files& aside, const kept_days& keep, tell_function tell)
        : engine_(results), aside_(aside), keep_(keep), tell_(std::move(tell)) {}

    /* A start is no reason to drop a day sooner after the last one; that fewer days are to be kept
     * is one to drop them all at once. */
    void begin();

    /* Drops some of what is due, in one small transaction. The days that were written to last stay:
     * the last one and keep_.raw before it. What fails is tried again later. False when nothing (or
     * nothing more) is due. */
    bool run(witness::verdict clock);

    /* Of which days roll-ups are kept. */
    kept_from roll_ups() const;

private:
    bool is_due();
    bool list_days();
    bool drop_some();
    drop_outcome drop(const std::string& day);
    void end_days();
    void follow_clock(witness::verdict clock);
    bool runs_on();
    void count_sure(int64_t hours);
    bool drop_by_age(witness::verdict clock);
    int64_t today() const;

    engine& engine_;
    undecodable_files& aside_;
    const kept_days keep_;
    const tell_function tell_;

    trouble trouble_{tell_, "old days are dropped again"};
    bool days_changed_ = true;        /* there is something to look at */
    bool drop_at_once_ = false;       /* fewer days are to be kept than in the last run */
    int64_t next_drop_ = 0;           /* not before, by steady_clock */
    std::deque<std::string> to_drop_; /* the first of them may be dropped in part */
    size_t dropped_ = 0, damaged_ = 0, over_ = 0; /* days of this time */
    std::string failure_;

    trouble age_trouble_{tell_, "what is too old is dropped again"};
    std::optional<int64_t> known_today_; /* never ahead of it: see above */
    int64_t next_by_age_ = 0;            /* by steady_clock */
    int64_t sure_ = 0;                   /* hours for which the clock was believed, as stored */
    std::optional<int64_t> seen_,
        seen_steady_; /* the clocks, then; only the first: in another run */
    size_t step_ = 0; /* which kind is at it; behind the last: none */
};

#endif

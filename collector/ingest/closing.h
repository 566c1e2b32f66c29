/* Days that are over: each test's roll-ups are made once, a while after midnight by the arrival
 * clock, and again by whoever packs results that come later. Days follow each other without a gap,
 * the tests of a day by their ids; how far that got is stored in the transaction that does it.
 * A clock that jumps ahead closes days early, and what comes then is late: that is right all the
 * same, but each hour's results make their day anew. When the clock is back, and agents' clocks
 * bear it out, these days are open again; in the end they are made of all that is packed, in place
 * of what there is. Never those of which raw results may have been dropped. One thread. */
#ifndef VINDRAL_COLLECTOR_CLOSING_H
#define VINDRAL_COLLECTOR_CLOSING_H

#include "ingest/clock.h"
#include "ingest/roll_up_day.h"
#include "store/engine.h"

#include <cstdint>
#include <string>
#include <vector>

class closing {
public:
    explicit closing(engine& store) : engine_(store) {}

    /* At the start, and in another file. In one that was just begun the days before `now` are
     * closed, since nothing of them is there. */
    bool begin(int64_t now);

    /* Whether it has been made already: what comes for it is late. */
    bool is_closed(int64_t test, int64_t day) const {
        return day <= through_ || (day == through_ + 1 && test <= test_);
    }

    /* Whether a day is closed that is not over. */
    bool is_ahead(int64_t now) const { return through_ >= day_of(now); }
    /* Opens it again, and those behind it: the clock is right. False when the engine failed. */
    bool go_back(int64_t now);

    /* Whether a day is over and not closed. What was received before until() has to be packed
     * first. */
    bool is_due(int64_t now) const;
    int64_t until() const;

    /* Some tests of that day, in a transaction. `newest`: no result has a later time, so that days
     * behind it are closed at once. False when the engine failed. */
    bool run(int64_t now, int64_t newest, int64_t stale_after, const kept_from& kept,
             std::string& unreadable);

private:
    bool close_tests(int64_t day, int64_t stale_after, const kept_from& kept,
                     std::string& unreadable, int64_t& test);

    bool drop(resolution r, int64_t test, int64_t from);

    engine& engine_;
    int64_t through_ = 0, test_ = 0; /* as stored */
    std::vector<known_test_row> tests_;
};

#endif

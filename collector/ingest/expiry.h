/* When a day is dropped. Which one is told by the order in which days were written to, not by the
 * clock, which may jump: of the days on which results arrived the last ones are kept. Days that a
 * wrong clock made up thus take their turn like any other, cost at most as many right ones, and
 * those go one an hour. */
#ifndef VINDRAL_COLLECTOR_EXPIRY_H
#define VINDRAL_COLLECTOR_EXPIRY_H

#include "ingest/trouble.h"
#include "ingest/undecodable.h"
#include "store/engine.h"

#include <cstdint>
#include <string>

/* One thread. */
class expiry {
public:
    expiry(engine& results, undecodable_files& aside, int keep_days, tell_function tell)
        : engine_(results), aside_(aside), keep_days_(keep_days), tell_(std::move(tell)) {}

    /* A start is no reason to drop a day sooner after the last one; that fewer days are to be kept
     * is one to drop them all at once. */
    void begin();

    /* Drops what is due. The days that were written to last stay: today's and keep_days before it.
     * What fails is tried again later. */
    void run();

private:
    bool is_due();
    drop_outcome drop(const std::string& day);

    engine& engine_;
    undecodable_files& aside_;
    const int64_t keep_days_; /* 0 keeps all */
    const tell_function tell_;
    trouble trouble_{tell_, "old days are dropped again"};
    bool days_changed_ = true;  /* there is something to look at */
    bool drop_at_once_ = false; /* fewer days are to be kept than in the last run */
    int64_t next_drop_ = 0;     /* not before, by steady_clock */
};

#endif

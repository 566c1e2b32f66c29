/* What is done to the store between the blocks, a little at a time: what lies open for an hour is
 * packed, days that are over are rolled up, and what is old is dropped. Each piece is a transaction
 * that leaves a whole. What fails is told once and tried later; polls do not wait for it. A file
 * that turns out to be damaged is set aside as when storing meets that. One thread. */
#ifndef VINDRAL_COLLECTOR_UPKEEP_H
#define VINDRAL_COLLECTOR_UPKEEP_H

#include "ingest/closing.h"
#include "ingest/expiry.h"
#include "ingest/packing.h"
#include "ingest/roster.h"
#include "ingest/trouble.h"
#include "ingest/witness.h"
#include "store/engine.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>

/* How things stand. */
struct upkeep_view {
    int64_t now = 0;                                 /* by the clock by which polls arrive */
    int64_t newest = 0;                              /* no result has a later time */
    int64_t stale_after = 0;                         /* seconds, for tests */
    witness::verdict clock = witness::verdict::none; /* what agents' clocks say of it */
};

/* A test makes it quicker. */
struct upkeep_pace {
    std::chrono::milliseconds bite{20};    /* how long it may keep others waiting */
    std::chrono::milliseconds storing{20}; /* of that, in a transaction with what was packed */
    /* Seconds that blocks lie open: at least that, and up to so much longer by agent. */
    int64_t open_for = 3600, spread = 1800;
    uint64_t open_most = 1 << 20;                   /* bytes of an agent that do */
    int64_t between_looks = 2;                      /* seconds, for what is due */
    int64_t after_failure = 60, of_an_agent = 3600; /* seconds until what failed is tried again */
};
extern upkeep_pace pace;

class upkeep {
public:
    upkeep(engine& store, roster& agents, undecodable_files& aside, const kept_days& keep,
           const tell_function& tell)
        : engine_(store), agents_(agents), expiry_(store, aside, keep, tell), tell_(tell) {}

    /* At the start, and in another file. */
    void begin();

    /* Blocks of an agent were stored. */
    void grown(const roster_agent& agent);
    /* Whether so much of an agent lies open that its next large block had better wait. */
    bool is_behind() const;

    /* For a spell. True when more is due. */
    bool run(const upkeep_view& view);
    /* The same without dropping anything. */
    bool run_without_expiry(const upkeep_view& view);

private:
    enum class progress { none, some, failed };
    progress step(const upkeep_view& view, bool with_expiry);
    bool run(const upkeep_view& view, bool with_expiry);
    template <typename Do>
    bool surely(Do all);
    progress pack(const upkeep_view& view);
    progress close(const upkeep_view& view);
    void look_for_due(const upkeep_view& view);
    bool is_due(const roster_agent& agent, const upkeep_view& view) const;
    bool is_much(int64_t agent) const;
    progress gather();
    void failed();
    void note_unreadable(const std::string& unreadable);

    engine& engine_;
    roster& agents_;
    closing closing_{engine_};
    packing packing_{engine_, agents_, closing_};
    expiry expiry_;
    const tell_function tell_;
    trouble trouble_{tell_, "what is stored is packed again"};
    std::string unreadable_; /* what was told last */

    bool has_begun_ = false;
    int64_t not_before_ = INT64_MIN; /* after a failure; by steady_clock, as the next one */
    int64_t looked_ = INT64_MIN;     /* for agents that are due */
    int64_t looked_for_ = INT64_MIN; /* up to when what came has to be packed */
    bool one_by_one_ = false;        /* agents: one of them fails */
    std::deque<int64_t> due_;
};

#endif

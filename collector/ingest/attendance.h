/* Who was heard, and who was not: agents that fall silent and come back, tests of which nothing
 * comes any more. What is heard counts from the moment it arrives, on any thread; what follows from
 * it is written by the store's thread, a little at a time. Where that cannot be, because the
 * collector was asleep or the store fails, nothing is held against anybody. */
#ifndef VINDRAL_COLLECTOR_ATTENDANCE_H
#define VINDRAL_COLLECTOR_ATTENDANCE_H

#include "ingest/agent_plan.h"
#include "ingest/definitions.h"
#include "ingest/roster.h"
#include "ingest/storing.h"
#include "ingest/witness.h"
#include "state/expectations.h"
#include "state/watch.h"
#include "store/engine.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

class attendance {
public:
    using tell_state = std::function<void(const roster_agent&, const agent_work&)>;

    attendance(engine& store, roster& agents, tell_state tell)
        : engine_(store), agents_(agents), tell_(std::move(tell)) {}

    /* ---- any thread ---- */

    void heard(std::string_view account, std::string_view agent, int64_t received,
               std::string_view address, std::string_view version);
    /* It brought a block that was turned away. */
    void held_up(std::string_view account, std::string_view agent);
    void follow(plan_summary plan, std::vector<owned_definition> definitions);
    void follow_agents(std::vector<agent_plan> plans);

    /* ---- the store's thread ---- */

    /* Learns the agents from their rows, those that can be read; after the start, and in another
     * file. */
    void begin();

    /* Takes in the plan that was told last. False when none was told yet: then that of the last run
     * holds, as far as the intervals go. */
    bool take_plan();
    /* How long things take now with an agent whose block is being stored; its row is to say so,
     * too. */
    patience now(agent_work& agent, std::string_view account, std::string_view name) const;
    /* Of all agents: no test is stale before. */
    int64_t longest_stale_after() const;

    /* Whether a block that arrived at `at`, by steady_clock, ends its agent's silence: one that
     * came before that was found, and is stored only now, does not. */
    bool brings_back(int64_t agent, int64_t at) const { return watch_.is_news(agent, at); }
    /* What is committed: records of an agent that arrived at `at`, by steady_clock; and whether its
     * row says that it was heard then. */
    void stored(const agent_work& agent, std::string_view account, std::string_view name,
                int64_t at, bool in_row);
    /* What agents' clocks say of the one by which polls arrive. */
    witness::verdict on_clock() { return witness_.says(clock()); }
    /* Newest time of a result so far. */
    int64_t newest() const { return newest_; }

    /* The agent is retired: not watched any more, until it is heard again. */
    void forget(int64_t agent);

    /* It could not be stored. */
    void failed() { watch_.pause(clock()); }

    /* Takes in what was told, and writes what is due; every few seconds, more often does no harm.
     * True when more is due at once. What fails is tried again later. */
    bool run();
    /* At the end: all rows say when their agents were heard last. */
    void finish();

private:
    struct heard_agent {
        std::string account = {}, name = {}, address = {}, version = {};
        int64_t received = 0;
        int64_t at = 0,
                first = 0; /* by steady_clock: the last time, and since its row was written */
    };
    using inbox = std::unordered_map<std::string, heard_agent>; /* by account, NUL, name */

    static int64_t clock();
    void know(const known_agent& row, const agent_state& state, int64_t now);
    roster_agent& add_to_roster(int64_t id, std::string_view account, std::string_view name);
    void take_agent_plans();
    void take_in();
    bool write_patience();
    void look_for_overdue(int64_t now);
    bool write_states();
    bool write_state(watch::overdue& what, agent_work& work);
    bool write_rows(int64_t due);
    bool write_row(const heard_agent& what, agent_work& work);
    void put_back(int64_t now);

    engine& engine_;
    roster& agents_;
    const tell_state tell_;
    storing storing_{engine_};
    definitions definitions_{engine_};

    std::mutex mutex_; /* guards the next five */
    inbox heard_;
    std::set<std::pair<std::string, std::string>> held_up_; /* account and name */
    std::optional<plan_summary> plan_;
    std::optional<std::vector<owned_definition>> told_;
    std::vector<agent_plan> agent_plans_;

    /* What was told and is not gone through yet: where there is no memory, it is tried again. */
    struct {
        std::optional<plan_summary> plan = {};
        std::optional<std::vector<owned_definition>> told = {};
        std::vector<agent_plan> plans = {};
        size_t defined = 0; /* of these */
    } taken_;

    expectations expected_;
    std::unordered_map<int64_t, expectations::shared> own_; /* of those that have an id, by that */
    std::unordered_map<int64_t, intervals> before_;         /* what the last run told them */
    watch watch_{clock()};
    witness witness_;
    int64_t looked_ = clock(); /* when somebody was overdue, the last time */
    int64_t newest_ = INT64_MIN;
    std::optional<int64_t> stale_after_; /* as the store has it, */
    std::optional<intervals> every_;     /* and these */
    bool is_told_ = false;               /* a plan */

    inbox unwritten_;                           /* heard, and their rows do not say so */
    std::unordered_map<int64_t, int64_t> back_; /* agents that were silent, and when heard */
    std::vector<watch::overdue> overdue_;       /* and what became of it is not written */
    bool found_all_ = true;                     /* no more are overdue, at the last look */
    bool written_all_ = true;                   /* of what was to be written at the last look */
    std::vector<agent_work> works_;             /* of a transaction */
};

#endif

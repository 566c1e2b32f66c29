/* What became of the changes of one agent, and of what it is not to have any more. Pure: it is told
 * what happened, and when.
 *
 * A change is `unanswered`, with the reason why it is not sent, until the answer with its command
 * was written; then `sent`. A result with its revision makes it `confirmed`. When three intervals
 * bring none it is `unanswered` again, with the likely reason, and put right once more. One that
 * another takes the place of says so. What needs nothing to be sent, as a rename, is confirmed at
 * once; what cannot be sent is `impossible`, and that is all there is to say.
 *
 * A removal is confirmed when the agent polled for two intervals and no result of the test came;
 * intervals when the agent has the answer that told of them. */
#ifndef VINDRAL_COLLECTOR_FLEET_OUTCOMES_H
#define VINDRAL_COLLECTOR_FLEET_OUTCOMES_H

#include "fleet/given.h"
#include "store/engine.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* Seconds since the epoch, for what is stored; and of a clock that never jumps, for what lasts. */
struct moment {
    int64_t wall = 0, steady = 0;
};

/* stored_change (store/engine.h) with its own texts. */
struct kept_change {
    int64_t id = 0;
    int32_t revision = 0;
    int64_t time = 0;
    std::string test = {}, was = {};
    change_action action = change_action::add;
    uint32_t type = 0;
    int32_t number = 0;
    int64_t sent = 0, settled = 0;
    change_outcome outcome = change_outcome::unanswered;
    std::string reason = {};

    std::string about = {}; /* what is to be said of it besides: "10 % of 50 GB" */

    bool is_over = false;      /* nothing becomes of it any more */
    bool is_unsaved = false;   /* it is not stored as it is */
    int64_t since = INT64_MIN; /* steady; known to be open, since the start */
    int64_t told = INT64_MIN;  /* steady; when it was sent last, since the start */
    int64_t due = INT64_MAX;   /* likewise; when a result of it is late */
    bool is_repeated = false;  /* it was put right once more */

    test_key key() const { return {type, number}; }
};
stored_change view_of(const kept_change& one, std::string_view account, std::string_view agent);
kept_change copy_of(const stored_change& one);

/* As of `now`, before anything became of it. */
kept_change make_change(const fleet_change& what, int64_t id, int32_t revision, int64_t now);

/* Whether the agent is still to be what a change made of it. */
bool is_in_force(const kept_change& change, const given_agent& agent);

/* What is known of the agent's being there, for reasons. */
struct agent_presence {
    bool is_silent = false;
    int64_t silent_since = 0;   /* seconds since the epoch */
    bool is_here = false;       /* it logged in since the start, */
    bool is_proven = false;     /* and showed a certificate then */
    int64_t polled = INT64_MIN; /* by the steady clock: its last block was stored */
    std::string kept_away = {}; /* why it is not let in; empty: it is, or nobody knows */
};

class agent_changes {
public:
    /* At the start: one that was stored, and is still in force. */
    void restore(kept_change one, moment now);
    /* New ones of the agent, which overtake what is open of the same tests. */
    void take(std::vector<kept_change> fresh, moment now);

    /* What the agent is to have has changed: of what it is not to have is known who goes. */
    void follow(const given_agent& agent);

    /* The agent is not watched any more. */
    void give_up(moment now);

    /* An answer was written; the agent has all up to `upto` now, but for tests with secrets when it
     * is not `proven`. `login`: the answer to one, which has everything. */
    void answered(const given_agent& agent, int32_t upto, bool proven, bool login, moment now);
    /* And in that answer these were put right. */
    void repeated(const given_agent& agent, const std::vector<test_key>& tests, moment now);
    /* It has that answer, too. */
    void arrived(int32_t upto, moment now);
    /* A result of that revision came, of a test that the agent has. */
    void came(test_key test, int32_t revision, moment now);
    /* And of one that it should not have any more; once a block. */
    void came_still(test_key test, moment now);
    /* A block was stored and told of; `gone` are those of what it was not to have that it has not.
     */
    void polled(const given_agent& agent, moment now, std::vector<test_key>& gone);

    /* Time has passed. Tests that are to be put right are added to `again`. */
    void look(const given_agent& agent, const agent_presence& here, moment now,
              std::vector<test_key>& again);
    int64_t next_look() const { return next_look_; } /* steady; INT64_MAX: never */
    void look_soon() { next_look_ = open_.empty() && leaving_.empty() ? INT64_MAX : INT64_MIN; }

    const std::vector<kept_change>& open() const { return open_; }
    bool has_intervals() const { return has_intervals_; }
    bool has_unsaved() const;
    /* Those that are to be stored, by id; and that these copies of them were. */
    void unsaved(std::vector<kept_change>& into) const;
    void note_saved(const std::vector<kept_change>& saved);

    /* The change that is about what the test is now; null: there is none. */
    const kept_change* newest_of(test_key test) const;

private:
    /* A test that the agent may have and is not to have. */
    struct leaving {
        test_key test;
        int32_t revision = 0;
        int64_t sent = INT64_MIN;  /* steady; INT64_MIN: not yet */
        int64_t quiet = INT64_MIN; /* since then no result came */
        size_t polls = 0;          /* that were stored since */
        size_t blocks_with = 0;    /* with a result of it, since it was sent */
    };
    void overtake(const kept_change& by, size_t before, moment now);
    static void tell(kept_change& one, const given_agent& agent, moment now);
    void note_open();

    std::vector<kept_change> open_; /* by id; those that are over are not stored yet */
    std::vector<leaving> leaving_;
    int64_t next_look_ = INT64_MAX;
    bool has_intervals_ = false; /* among those that are open */
};

/* How long a change may take to be confirmed, in seconds, with intervals of that length. */
int64_t patience_for(int32_t interval);

#endif

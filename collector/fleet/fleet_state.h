/* The fleet as it is kept in memory: the text in force, the agents, what is due. Everything of it
 * is guarded by one mutex that is held for moments: what an agent was given is looked up in an
 * object that is shared and never changed; who changes something makes another and puts it there.
 *
 * TURN  Work on the fleet (fleet_work.h) is made outside of the mutex and written in one
 * transaction. One piece of it is under way at a time; so numbers and revisions are given out by
 * one. */
#ifndef VINDRAL_COLLECTOR_FLEET_STATE_H
#define VINDRAL_COLLECTOR_FLEET_STATE_H

#include "fleet/given.h"
#include "fleet/inventories.h"
#include "fleet/outcomes.h"
#include "fleet/stored_fleet.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

struct fleet_work;

/* An agent. It stays where it is until the end, so that others may point to it. */
struct kept_agent {
    kept_agent(std::string_view of, std::string_view agent) : account(of), name(agent) {}

    const std::string account, name;

    bool is_there = false; /* it polls, or did, and is not retired */
    std::shared_ptr<const given_agent> given = std::make_shared<given_agent>();
    bool is_given = false;   /* anything ever was */
    bool is_ready = false;   /* in this run: so it is known what its tests are */
    bool may_run = false;    /* with tests from before the start: it has not logged in since */
    bool is_due = false;     /* what is wanted of it has to be looked at */
    bool is_awaited = false; /* that is under way */
    bool is_unsaved = false; /* what it was given is not stored as it is now */
    bool is_noted = false;   /* it is in the list of those of which something is to be stored */
    std::shared_ptr<const known_inventory> has = {};
    std::vector<test_key> strays = {}; /* that it may have, from before the start */
    int32_t highest = 0;               /* number that any test of it ever had */
    agent_presence presence = {};
    agent_changes changes = {};
    std::vector<test_key> again = {};       /* to be put right with the next answer */
    std::vector<test_key> again_given = {}; /* were in an answer that is being written */
    int64_t not_before = INT64_MIN;         /* steady: what is other than it is known to be is put
                                               right again */

    struct tally {
        size_t tests = 0, sent = 0, confirmed = 0, unanswered = 0, impossible = 0, waiting = 0;
    } counted = {};
};

class fleet_state {
public:
    using clock = std::chrono::steady_clock;

    mutable std::mutex mutex; /* guards all of this; held by who calls */
    std::condition_variable changed;

    std::unordered_map<std::string, std::unique_ptr<kept_agent>> agents; /* account, NUL, name */
    std::shared_ptr<const fleet> file = {}; /* in force; null: there is none */
    kept_revision in_force = {};            /* the text's */
    kept_revision newest = {};              /* without its text */
    int32_t highest_revision = 0;           /* that was ever given out */
    int64_t newest_change = 0;
    fleet_facts facts = {};
    std::string file_trouble = {}; /* of --fleet */

    std::vector<kept_agent*> due = {}, noted = {};
    std::unordered_set<kept_agent*> open = {}; /* with changes of which something may become */
    kept_agent::tally counted = {};
    size_t with_tests = 0;

    bool is_started = false, is_stopping = false;
    bool is_woken = false;         /* the keeper's thread has something to do */
    bool is_busy = false;          /* somebody has the turn */
    const char* differs = nullptr; /* why the store has not what is here, and gets all of it */
    clock::time_point retry = {};  /* what failed is not tried again before */
    std::vector<std::shared_ptr<fleet_work>> finished = {}; /* and not told of */

    /* Answers to agents that cannot be made yet. */
    struct waiting_answer {
        kept_agent* of;
        std::function<void()> ready;
        clock::time_point until;
    };
    std::vector<waiting_answer> waiting = {};

    /* Null: it is not kept. */
    kept_agent* find(std::string_view account, std::string_view agent) const;
    kept_agent* find_or_make(std::string_view account, std::string_view agent);

    /* What is wanted of it is to be looked at; nothing where no fleet is in force. */
    void make_due(kept_agent& of);
    /* It is another: it is counted anew, and what is to be stored is noted. */
    void note(kept_agent& of);

    /* False when nobody gave it back meanwhile. */
    bool take_turn(std::unique_lock<std::mutex>& hold, std::chrono::milliseconds most);
    void give_turn_back();
    /* The same, amid it: what was under way has to be looked at again, in a second. */
    void break_off_turn();

private:
    void count(kept_agent& of);
};

/* Does something with the turn; where that throws, the turn is given back. Without the mutex. */
void with_turn(fleet_state& state, const std::function<void()>& what);

/* By the clocks of the thread that stores. */
moment present_moment();

#endif

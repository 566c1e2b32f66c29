/* Wanted against present: keeps what each agent is to have and what it is known to have, tells
 * agents the difference, and notes what became of each change.
 *
 * THREADS  The network thread asks for commands (instructions) and never waits for the store; the
 * store's thread tells of results (store_listener), in order and once they are committed; the API
 * asks and applies on threads of its own (fleet_service), one applying at a time. A thread of the
 * keeper's own makes what follows from inventories, results and secrets, once a second and when it
 * is woken: numbers and revisions are in the store before anybody is told of them.
 *
 * OUTCOMES  A change is unanswered until it is sent, with the reason why it is not; sent when the
 * answer with its command has been written; confirmed by the first result that has its revision, a
 * removal when polls were stored for two intervals and brought no result of the test, intervals by
 * the next poll; unanswered again when nothing has come for three intervals, with the likely
 * reason; then the test is put right once more (add and modify). A change that another one has
 * overtaken says so. A result of a test that the agent is not to have has it removed. */
#ifndef VINDRAL_COLLECTOR_FLEET_KEEPER_H
#define VINDRAL_COLLECTOR_FLEET_KEEPER_H

#include "fleet/service.h"
#include "ingest/ingest.h"
#include "ingest/instructions.h"
#include "ingest/test_names.h"
#include "plan/known_secrets.h"
#include "state/expectations.h"
#include "store/settings.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct keeper_options {
    std::string directory;            /* the state directory: what was stored is read from there */
    std::string file = {};            /* --fleet; empty: the API applies */
    known_secrets* secrets = nullptr; /* null: there are none; outlives it */
    settings* kept = nullptr;         /* with a copy of the fleet; null: there is none; likewise */
    std::function<void(const std::string&)> log = {}; /* a line; any thread */
    /* A change as the API shows it has another outcome, or is new: for the stream. Any thread. */
    std::function<void(const stored_change&)> on_change = {};
    /* What is to come of these agents, as ingest::follow_agents() is told. Any thread. */
    std::function<void(std::vector<agent_summary>)> on_plans = {};
};

class fleet_keeper : public instructions,
                     public store_listener,
                     public fleet_service,
                     public test_names {
public:
    /* Null with one line in `error`. Reads what is stored: the store has been opened before, so
     * that it has the layout of this version. `early`: what is to be said, line by line: with a
     * file that is wrong and a fleet that was in force before, that one goes on, and the file's
     * errors are in here; with none before, it is an error. */
    static std::unique_ptr<fleet_keeper> open(keeper_options options,
                                              std::vector<std::string>& early, std::string& error);

    /* From now on things are written and agents told. Before that nothing but listening is called.
     * `results` outlives stop(), and this outlives `results`, whose thread tells it things. False
     * with one line in `error` when there can be no thread. */
    virtual bool start(ingest& results, std::string& error) = 0;
    /* Looks at --fleet's file now, and reads it whatever its time says. Any thread. */
    virtual void read_file() = 0;
    /* Writes what is due and ends the thread. */
    virtual void stop() = 0;
};

#endif

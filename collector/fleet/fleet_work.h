/* What is wanted becomes what is given: made of the fleet and of what is known of the agents, and
 * then written in one transaction (fleet_storing.h). */
#ifndef VINDRAL_COLLECTOR_FLEET_WORK_H
#define VINDRAL_COLLECTOR_FLEET_WORK_H

#include "fleet/fleet_state.h"
#include "fleet/revision_counter.h"
#include "plan/known_secrets.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/* What an agent is to be given, made of what was known of it at a moment. */
struct agent_basis {
    kept_agent* of = nullptr;
    std::shared_ptr<const given_agent> given = {};
    bool is_given = false, is_ready = false;
    std::shared_ptr<const known_inventory> has = {};
    std::vector<test_key> strays = {};
    int32_t highest = 0;
};

struct fleet_work {
    struct agent {
        kept_agent* of = nullptr;
        std::shared_ptr<const given_agent> base = {};
        std::shared_ptr<const given_agent> now = {}; /* null: it is only to be stored */
        std::vector<std::string> groups = {};
        std::string about_intervals = {};
        int32_t revision = 0; /* of what changed */
        std::vector<fleet_change> differences = {};
        std::vector<kept_change> changes = {};  /* the same */
        std::vector<kept_change> outcomes = {}; /* of changes that were there, to be stored */
        bool is_changed = false;                /* it has to be stored */
        bool is_first = false;                  /* of this run */
    };
    std::shared_ptr<const fleet> file = {}; /* null: that in force */
    kept_revision revision = {};            /* 0: none is made */
    std::vector<agent> agents = {};
    bool is_all = false; /* all that is known, where the store has not got it */
    moment now = {};
    bool ok = false;
    std::string reason = {};                          /* why not */
    std::function<void(const fleet_work&)> done = {}; /* on the store's thread */
};

class work_maker {
public:
    using pointer = std::shared_ptr<fleet_work>;

    /* `secrets` may be null; all outlive it. */
    work_maker(fleet_state& state, revision_counter& revisions, const known_secrets* secrets)
        : state_(state), revisions_(revisions), secrets_(secrets) {}

    /* ---- with the mutex ---- */

    static agent_basis basis_of(kept_agent& of);
    /* Agents that are due, those first that somebody waits for. */
    void take_due(std::vector<agent_basis>& due);
    /* What is not stored as it is; null: there is nothing. */
    pointer collect_unsaved();
    /* All that is known, for a store that has not got it: with the text or without. Its revision
     * comes with complete(). */
    pointer collect_all(const char* why, bool with_text);

    /* ---- without, and with the turn but for make_agent() ---- */

    void make_agent(fleet_work::agent& made, const agent_basis& basis, const fleet& file,
                    int32_t revision) const;
    /* Agents of which something else has changed than the file: a new one has the revision that is
     * in force, others get one of their own. */
    void make_due(fleet_work& work, const std::vector<agent_basis>& due);
    void complete(fleet_work& all);
    pointer make_application(std::string_view text, std::shared_ptr<const fleet> file,
                             const std::string& author);

private:
    void number_changes(fleet_work& work);
    uint64_t serial_of(std::string_view secret) const;

    fleet_state& state_;
    revision_counter& revisions_;
    const known_secrets* const secrets_;
};

#endif

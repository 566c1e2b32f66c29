/* The fleet as it is stored: what of it is read at the start, and one piece of what is written. */
#ifndef VINDRAL_COLLECTOR_FLEET_STORED_FLEET_H
#define VINDRAL_COLLECTOR_FLEET_STORED_FLEET_H

#include "fleet/inventories.h"
#include "fleet/outcomes.h"
#include "store/engine.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/* fleet_revision (store/engine.h) with its own texts. */
struct kept_revision {
    int32_t revision = 0;
    int64_t time = 0;
    std::string author = {}, about = {}, text = {};
    bool has_text = false;
};

struct stored_fleet {
    struct agent {
        std::string account, name;
        bool is_there = false;   /* it has a row, and is not retired */
        bool is_given = false;   /* something was ever assigned to it */
        bool is_damaged = false; /* what was cannot be read */
        assigned_agent given = {};
        std::shared_ptr<const known_inventory> has = {}; /* null: nothing is known */
        /* Tests that it had results of and is not to have, as far as it may have them still; and
         * the highest number of any test. */
        std::vector<test_key> strays = {};
        int32_t highest = 0;
        bool is_silent = false;
        int64_t since = 0; /* of that, seconds since the epoch */
        /* That may still be confirmed, by id. */
        std::vector<kept_change> open = {};
        /* Results came of the revision that is in force: they were not noted before the end. */
        std::vector<test_key> confirmed = {};
    };
    kept_revision newest;   /* without its text; revision 0: there is none */
    kept_revision in_force; /* the last one with a text */
    int32_t highest = 0;    /* of all revisions that anything has */
    int64_t newest_change = 0;
    int64_t restored = 0, restored_seen = 0; /* see restored_fact */
    int64_t first_number = 1;                /* of an agent of which nothing is stored */
    std::vector<agent> agents = {};
};

/* What is stored besides. */
struct fleet_facts {
    int64_t restored_seen = 0; /* the value of restored_fact that was worked with */
    int64_t first_number = 1;  /* of an agent of which nothing is stored */
};

/* False with the reason in `error`; what could be read is there. */
bool read_stored_fleet(result_reader& store, stored_fleet& found, std::string& error);

/* What is written in one transaction. */
struct fleet_writing {
    struct agent {
        std::string account, name;
        std::string packed;               /* empty: it stays as it is */
        std::vector<kept_change> changes; /* new ones, and those that have another outcome */
    };
    kept_revision revision = {}; /* 0: none is made */
    std::vector<agent> agents = {};
    std::optional<fleet_facts> facts = {};

    bool is_empty() const { return revision.revision == 0 && agents.empty() && !facts; }
};
bool write_fleet(engine& store, const fleet_writing& what);

#endif

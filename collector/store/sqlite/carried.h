/* What a new file takes from the one before it: who the agents are and which ids their tests have,
 * and how often a copy was restored (what agents are to do is kept in settings.db besides);
 * from a file of an earlier version also what could not be decoded. */
#ifndef VINDRAL_COLLECTOR_CARRIED_H
#define VINDRAL_COLLECTOR_CARRIED_H

#include "store/sqlite/database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct carried_rows {
    /* Rows without what hangs on the results. */
    struct agent {
        int64_t id, first_seen, last_seen;
        std::string account, name, last_block, address, version;
        int64_t retired;
    };
    struct test {
        int64_t id, agent, type;
        std::optional<int64_t> number;
    };
    struct piece {
        int64_t id, received, agent, offset, bytes;
        std::string reason, kept_as;
    };
    struct fact {
        std::string name;
        int64_t value;
    };
    std::vector<agent> agents;
    std::vector<test> tests;
    int64_t last_agent = 0, last_test = 0; /* ids that were given last */
    std::vector<piece> pieces;
    std::vector<fact> facts;

    /* Any layout; as much as can be read. */
    void read(sqlite3* db);
    void read_pieces_and_facts(sqlite3* db);

    /* Into a new file, in the transaction that is under way. */
    bool write(sqlite3* db) const;
};

#endif

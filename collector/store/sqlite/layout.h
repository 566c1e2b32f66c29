/* What is in the result database, results.db in a state directory. Times are seconds since the
 * epoch.
 *
 *   agents
 *     id, account, name, first_seen, last_seen
 *     last_block      SHA-256 of the agent's last stored block, by which the same block is
 *                     recognised when it comes again; behind it, while that block is stored in
 *                     part, how many bytes of it are
 *     address         where that came from
 *     version         of the agent
 *     state           of the agent and its tests, packed: state/agent_state.h
 *
 *   tests             id (never given twice), agent, type (of the records), number (null: of a type
 *                     that is not known)
 *
 *   blocks            what came in the last hour or so, a row for each poll, or each slice of a
 *                     large one
 *     id              rises, and is never given twice: see facts
 *     agent, received
 *     before          id of the agent's block before this one; 0 when that is packed
 *     records         as sent, one behind the other, but for inventories
 *
 *   packed_YYYYMMDD   a table for each day (UTC) of arrival: chunks, each the records of one test
 *                     from some blocks. Dropped with its day
 *     id              test << 34 | received_first, or the next one above that is free; so the
 *                     chunks of a test lie together, in order
 *     received_first  arrival of its first record; null when it is what the id says
 *     received_last   of its last record; the day is that of this one
 *     first, last     lowest and highest check time
 *     results         how many records
 *     data            store/pack.h
 *
 *   rollups5_YYYYMM, rollups60_YYYYMM
 *                     a table for each month: what became of a test in a day, by 5 and 60 minutes
 *     id              test << 20 | day (since the epoch, of the check times)
 *     data            store/pack.h
 *
 *   events            id (rises), time, agent, test (0: the agent itself), from_state, to_state,
 *                     message
 *   ledger            agent, hour (when it begins), received, repeated, missing
 *   inventories       id, agent, type, received, time, record: a row when it changed
 *   definitions       id, type, number, location, since, name, text, agent (0: of all that have
 * none of their own), title, team (the group): what tests were defined as
 *
 *   fleet_revisions   revision (rises), time, author, about, text (null: that of the one before)
 *   fleet_agents      id, account, agent, assigned (fleet/assigned.h)
 *   fleet_changes     id (rises), revision, time, account, agent, test, was, action, type, number,
 *                     sent, settled, outcome, reason
 *
 *   undecodable       id, received, agent, offset, bytes, reason, kept_as (name of the file)
 *
 *   days
 *     day             YYYYMMDD
 *     turn            grows whenever the collector turns to another day's table, so that the one
 *                     with the lowest is the one written to longest ago, whatever the clock said
 *   facts             name, value
 *     keep_days       of the last run
 *     dropped, boot   when a day was dropped last, in seconds since which start of the machine
 *     blocks          the highest id that blocks may have got
 *     earlier         1 while an earlier version's file has to be taken over, 0 when that can go
 *                     (earlier.h)
 *     restored        how often a copy was put in its place (engine.h)
 *     and those of upkeep
 *
 * user_version is the version of this layout; application_id marks the file as ours. */
#ifndef VINDRAL_COLLECTOR_LAYOUT_H
#define VINDRAL_COLLECTOR_LAYOUT_H

#include "store/engine.h"
#include "store/sqlite/database.h"

#include <cstdint>
#include <string>
#include <vector>

enum {
    database_version = 4,
    database_version_renewed = 3, /* it becomes the present one where it is */
    database_application_id = 0x564e4443
};

/* The database's file in a state directory. */
std::string database_path(const std::string& directory);

enum class database_layout {
    none,    /* a file without any content: the tables are still to be made */
    earlier, /* of an earlier version: earlier.h */
    renewed, /* database_version_renewed: it lacks columns of definitions, and all of the fleet */
    current, /* database_version */
};

/* Whether the file is one of ours that this program understands. */
bool database_check(sqlite3* db, database_layout& layout, std::string& error);

/* Makes the tables that are always there, in the transaction that is under way. */
bool database_make_tables(sqlite3* db);

/* Makes a file of layout `renewed` one of the present layout, in the transaction that is under way.
 * Takes no longer for many results than for few. */
bool database_renew(sqlite3* db);

/* Opens the database of a state directory for reading only, and begins a transaction: one state of
 * it for all that is read, also while a collector writes. `layout`: null, or what it may also be
 * but current: renewed. */
bool database_open_reading(const std::string& directory, database& db, std::string& error,
                           database_layout* layout = nullptr);
/* The same for a file anywhere. */
bool database_open_file(const std::string& path, database& db, std::string& error,
                        database_layout* layout = nullptr);

/* ---- tables that come and go ---- */

constexpr const char* packed_prefix = "packed_";   /* and a day, YYYYMMDD */
constexpr const char* results_prefix = "results_"; /* the same in earlier versions */
const char* roll_up_prefix(resolution r);          /* and a month, YYYYMM */

/* Names of the tables, in order, that are `prefix` and so many digits. False when they cannot be
 * read. */
bool database_tables(sqlite3* db, const char* prefix, int digits, std::vector<std::string>& names);

std::string packed_table(int64_t received);
std::string roll_up_table(resolution r, int64_t day);
bool make_packed_table(sqlite3* db, const std::string& name);
bool make_roll_up_table(sqlite3* db, const std::string& name);

/* ---- keys ---- */

constexpr int received_bits = 34, day_bits = 20;
constexpr int64_t max_test = (int64_t{1} << (63 - received_bits)) - 1;
constexpr int64_t days_end = int64_t{1} << day_bits;
/* What is left above them is for more chunks of the same second. */
constexpr int64_t max_received = (int64_t{1} << received_bits) - (int64_t{1} << 20);

/* A time of arrival as keys have it: within 0 and max_received. */
int64_t key_time(int64_t received);
constexpr int64_t chunk_key(int64_t test, int64_t key_time) {
    return test << received_bits | key_time;
}
constexpr int64_t roll_up_key(int64_t test, int64_t day) {
    return test << day_bits | day;
}

#endif

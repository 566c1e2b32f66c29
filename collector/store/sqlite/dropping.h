/* Dropping what is no longer kept, in bites: each a transaction of its own that takes no longer
 * than a poll can wait. */
#ifndef VINDRAL_COLLECTOR_DROPPING_H
#define VINDRAL_COLLECTOR_DROPPING_H

#include "store/engine.h"
#include "store/sqlite/database.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

/* What came of one: a result code of SQLite, and whether something is left. */
struct bite {
    int result = SQLITE_OK;
    bool more = false;
};

bite read_days(sqlite3* db, std::vector<std::string>& by_turn);

/* Some of a day's chunks; with the last of them the table and what tells of the day, and the facts.
 */
bite drop_some_of_day(sqlite3* db, const std::string& day, std::span<const engine::fact> facts);

/* Of months that are over on that day. */
bite drop_some_roll_ups(sqlite3* db, resolution r, int64_t day);

bite drop_some_events(sqlite3* db, int64_t time);
bite drop_some_ledger_rows(sqlite3* db, int64_t time);
/* Of the fleet; and revisions without texts, but for the newest of all. */
bite drop_some_changes(sqlite3* db, int64_t time);

/* Where the last bite ended. */
struct inventory_cursor {
    int64_t agent = 0, type = -1;
};
bite drop_some_inventories(sqlite3* db, int64_t time, inventory_cursor& from);

#endif

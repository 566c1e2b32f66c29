#include "store/sqlite/layout.h"

#include "base/text.h"

#include <algorithm>
#include <sys/stat.h>
#include <system_error>

namespace {

const char tables[] =
    "CREATE TABLE agents (id INTEGER PRIMARY KEY AUTOINCREMENT, account TEXT NOT NULL, name TEXT "
    "NOT NULL,"
    " first_seen INTEGER NOT NULL, last_seen INTEGER NOT NULL, last_block BLOB NOT NULL,"
    " address TEXT NOT NULL DEFAULT '', version TEXT NOT NULL DEFAULT '',"
    " state BLOB NOT NULL DEFAULT x'', retired INTEGER NOT NULL DEFAULT 0, UNIQUE (account, name));"

    "CREATE TABLE tests (id INTEGER PRIMARY KEY AUTOINCREMENT, agent INTEGER NOT NULL,"
    " type INTEGER NOT NULL, number INTEGER);"
    "CREATE INDEX tests_of_agent ON tests (agent, type, number);"

    "CREATE TABLE blocks (id INTEGER PRIMARY KEY, agent INTEGER NOT NULL,"
    " received INTEGER NOT NULL, before INTEGER NOT NULL, records BLOB NOT NULL);"

    "CREATE TABLE events (id INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, test INTEGER NOT NULL, from_state INTEGER NOT NULL,"
    " to_state INTEGER NOT NULL, message TEXT NOT NULL);"
    "CREATE INDEX events_of_test ON events (test, time);"
    "CREATE INDEX events_of_agent ON events (agent, time);"
    "CREATE INDEX events_by_time ON events (time);"

    "CREATE TABLE ledger (agent INTEGER NOT NULL, hour INTEGER NOT NULL,"
    " received INTEGER NOT NULL, repeated INTEGER NOT NULL, missing INTEGER NOT NULL,"
    " PRIMARY KEY (hour, agent)) WITHOUT ROWID;"
    "CREATE INDEX ledger_of_agent ON ledger (agent, hour);"

    "CREATE TABLE inventories (id INTEGER PRIMARY KEY AUTOINCREMENT, agent INTEGER NOT NULL,"
    " type INTEGER NOT NULL, received INTEGER NOT NULL, time INTEGER NOT NULL,"
    " record BLOB NOT NULL);"
    "CREATE INDEX inventories_of_agent ON inventories (agent, type, time);"

    "CREATE TABLE definitions (id INTEGER PRIMARY KEY, type INTEGER NOT NULL,"
    " number INTEGER NOT NULL, location INTEGER NOT NULL, since INTEGER NOT NULL,"
    " name TEXT NOT NULL, text TEXT NOT NULL, agent INTEGER NOT NULL DEFAULT 0,"
    " title TEXT NOT NULL DEFAULT '', team TEXT NOT NULL DEFAULT '');"

    "CREATE TABLE days (day TEXT PRIMARY KEY, turn INTEGER NOT NULL);"
    "CREATE TABLE facts (name TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "CREATE TABLE undecodable (id INTEGER PRIMARY KEY, received INTEGER NOT NULL,"
    " agent INTEGER NOT NULL, offset INTEGER NOT NULL, bytes INTEGER NOT NULL,"
    " reason TEXT NOT NULL, kept_as TEXT NOT NULL);";

/* What layout 3 has not; the indices of definitions are others there. */
const char tables_since_4[] =
    "CREATE INDEX definitions_of_test ON definitions (agent, type, number);"
    "CREATE INDEX definitions_of_location ON definitions (agent, type, number, location);"

    "CREATE TABLE fleet_revisions (revision INTEGER PRIMARY KEY, time INTEGER NOT NULL,"
    " author TEXT NOT NULL, about TEXT NOT NULL, text TEXT);"
    "CREATE INDEX fleet_texts ON fleet_revisions (revision) WHERE text IS NOT NULL;"
    "CREATE INDEX fleet_revisions_by_time ON fleet_revisions (time) WHERE text IS NULL;"

    "CREATE TABLE fleet_agents (id INTEGER PRIMARY KEY, account TEXT NOT NULL,"
    " agent TEXT NOT NULL, assigned BLOB NOT NULL, UNIQUE (account, agent));"

    "CREATE TABLE fleet_changes (id INTEGER PRIMARY KEY, revision INTEGER NOT NULL,"
    " time INTEGER NOT NULL, account TEXT NOT NULL, agent TEXT NOT NULL, test TEXT NOT NULL,"
    " was TEXT NOT NULL, action INTEGER NOT NULL, type INTEGER NOT NULL, number INTEGER NOT NULL,"
    " sent INTEGER NOT NULL, settled INTEGER NOT NULL, outcome INTEGER NOT NULL,"
    " reason TEXT NOT NULL);"
    "CREATE INDEX fleet_changes_of_revision ON fleet_changes (revision);"
    "CREATE INDEX fleet_changes_of_agent ON fleet_changes (account, agent);"
    "CREATE INDEX fleet_changes_by_time ON fleet_changes (time);";

const char from_3_to_4[] = "ALTER TABLE definitions ADD COLUMN agent INTEGER NOT NULL DEFAULT 0;"
                           "ALTER TABLE definitions ADD COLUMN title TEXT NOT NULL DEFAULT '';"
                           "ALTER TABLE definitions ADD COLUMN team TEXT NOT NULL DEFAULT '';"
                           "DROP INDEX IF EXISTS definitions_of_test;"
                           "DROP INDEX IF EXISTS definitions_of_location;";

bool set_version(sqlite3* db) {
    return database_exec(db, "PRAGMA user_version = " + std::to_string(database_version));
}

/* A change of the file itself, not of its log, was cut short: a reader may not undo it. */
bool undo_cut_short(const std::string& path) {
    sqlite3* handle = nullptr;
    int result = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
    database db(handle);
    sqlite3_busy_timeout(handle, 2000);
    return result == SQLITE_OK && database_exec(handle, "SELECT 1 FROM sqlite_schema LIMIT 1");
}

bool read_number(sqlite3* db, const char* sql, int64_t& number, std::string& error) {
    statement query(db, sql);
    if (query.row()) {
        number = query.integer(0);
        return true;
    }
    error = sqlite3_errmsg(db);
    return false;
}

} // namespace

std::string database_path(const std::string& directory) {
    return directory + "/results.db";
}

bool database_check(sqlite3* db, database_layout& layout, std::string& error) {
    int64_t version, application, objects;
    if (!read_number(db, "PRAGMA user_version", version, error) ||
        !read_number(db, "PRAGMA application_id", application, error) ||
        !read_number(db, "SELECT count(*) FROM sqlite_schema", objects, error)) {
        return false;
    }
    if (version == 0 && application == 0 && objects == 0) {
        layout = database_layout::none;
        return true;
    }
    if (application != database_application_id) {
        error = "it is a database of another program";
        return false;
    }
    if (version < 1 || version > database_version) {
        error = "its layout has version " + std::to_string(version) +
                ", this program knows version " + std::to_string(database_version);
        return false;
    }
    layout = version == database_version           ? database_layout::current
             : version == database_version_renewed ? database_layout::renewed
                                                   : database_layout::earlier;
    return true;
}

bool database_make_tables(sqlite3* db) {
    return database_exec(db, tables) && database_exec(db, tables_since_4) &&
           database_exec(db,
                         "PRAGMA application_id = " + std::to_string(database_application_id)) &&
           set_version(db);
}

bool database_renew(sqlite3* db) {
    return database_exec(db, from_3_to_4) && database_exec(db, tables_since_4) && set_version(db);
}

bool database_open_reading(const std::string& directory, database& db, std::string& error,
                           database_layout* layout) {
    return database_open_file(database_path(directory), db, error, layout);
}

bool database_open_file(const std::string& path, database& db, std::string& error,
                        database_layout* layout) {
    std::string reason;
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        error = path + ": it is no file"; /* and opening a pipe would wait for a writer */
        return false;
    }
    sqlite3* handle = nullptr;
    int result =
        sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    db.reset(handle);
    if (result != SQLITE_OK) {
        int why = handle != nullptr ? sqlite3_system_errno(handle) : 0;
        error = path + ": " + sqlite3_errstr(result) +
                (result == SQLITE_CANTOPEN && why != 0
                     ? std::string(": ") + std::generic_category().message(why)
                     : "");
        return false;
    }
    sqlite3_busy_timeout(handle, 2000);
    database_layout found{};
    auto look = [&] {
        reason.clear();
        return database_exec(handle, "BEGIN") && database_check(handle, found, reason);
    };
    if (!look() && !(sqlite3_extended_errcode(handle) == SQLITE_READONLY_ROLLBACK &&
                     undo_cut_short(path) && database_exec(handle, "ROLLBACK") && look())) {
        reason = reason.empty() ? sqlite3_errmsg(handle) : reason;
    } else if (found == database_layout::none) {
        reason = "there is nothing in it";
    } else if (found == database_layout::earlier ||
               (found == database_layout::renewed && layout == nullptr)) {
        reason = "its layout is that of an earlier version; a start of the collector renews it";
    }
    if (layout != nullptr) {
        *layout = found;
    }
    error = reason.empty() ? "" : path + ": " + reason;
    return reason.empty();
}

const char* roll_up_prefix(resolution r) {
    return r == resolution::five_minutes ? "rollups5_" : "rollups60_";
}

bool database_tables(sqlite3* db, const char* prefix, int digits, std::vector<std::string>& names) {
    names.clear();
    std::string pattern = prefix;
    for (int i = 0; i < digits; i++) {
        pattern += "[0-9]";
    }
    statement query(
        db, "SELECT name FROM sqlite_schema WHERE type = 'table' AND name GLOB ? ORDER BY name");
    query.bind_text(pattern);
    int result;
    while ((result = query.step()) == SQLITE_ROW) {
        names.emplace_back(query.bytes(0));
    }
    return result == SQLITE_DONE;
}

std::string packed_table(int64_t received) {
    return packed_prefix + utc_day(key_time(received));
}

std::string roll_up_table(resolution r, int64_t day) {
    return roll_up_prefix(r) + utc_day(day * 86400).substr(0, 6);
}

bool make_packed_table(sqlite3* db, const std::string& name) {
    return database_exec(db, "CREATE TABLE IF NOT EXISTS " + name +
                                 " (id INTEGER PRIMARY KEY, received_first INTEGER,"
                                 " received_last INTEGER NOT NULL, first INTEGER NOT NULL,"
                                 " last INTEGER NOT NULL, results INTEGER NOT NULL,"
                                 " data BLOB NOT NULL)");
}

bool make_roll_up_table(sqlite3* db, const std::string& name) {
    return database_exec(db, "CREATE TABLE IF NOT EXISTS " + name +
                                 " (id INTEGER PRIMARY KEY, data BLOB NOT NULL)");
}

int64_t key_time(int64_t received) {
    return std::clamp<int64_t>(received, 0, max_received);
}

#include "store/sqlite/dropping.h"

#include "base/text.h"
#include "store/sqlite/layout.h"

#include <algorithm>
#include <chrono>

namespace {

/* How long rows are dropped before the transaction ends, and how many between two looks at the
 * clock. */
std::chrono::milliseconds bite_time{10};
constexpr int64_t at_once = 32;

/* A transaction, rolled back unless commit() was reached. */
class transaction {
public:
    explicit transaction(sqlite3* db) : db_(db), begun_(database_exec(db, "BEGIN IMMEDIATE")) {}
    ~transaction() {
        if (begun_) {
            database_exec(db_, "ROLLBACK");
        }
    }
    transaction(const transaction&) = delete;
    transaction& operator=(const transaction&) = delete;
    bool begun() const { return begun_; }
    bool commit() {
        bool ok = database_exec(db_, "COMMIT");
        begun_ = !ok;
        return ok;
    }
    /* To be asked before the end. */
    bite failed() const {
        int result = sqlite3_errcode(db_);
        return {.result = result != SQLITE_OK ? result : SQLITE_ERROR};
    }

private:
    sqlite3* const db_;
    bool begun_;
};

/* Runs the statement, whose last parameter says how many rows it may drop, until it finds fewer or
 * time is up; `all` is whether there are no more. */
template <typename Bind>
bool drop_rows(sqlite3* db, const std::string& sql, Bind bind, bool& all) {
    using clock = std::chrono::steady_clock;
    const clock::time_point until = clock::now() + bite_time;
    statement drop(db, sql);
    all = false;
    do {
        bind(drop);
        if (!drop.bind(at_once).run()) {
            return false;
        }
        all = sqlite3_changes(db) < at_once;
    } while (!all && clock::now() < until);
    return true;
}

bool drop_first_rows(sqlite3* db, const std::string& table, bool& all) {
    return drop_rows(
        db,
        "DELETE FROM " + table + " WHERE id IN (SELECT id FROM " + table + " ORDER BY id LIMIT ?)",
        [](statement&) {}, all);
}

/* One transaction of rows of a table that stays. */
bite drop_before(sqlite3* db, const char* sql, int64_t time) {
    transaction t(db);
    bool all = false;
    bool ok = t.begun() &&
              drop_rows(
                  db, sql, [time](statement& drop) { drop.bind(time); }, all) &&
              t.commit();
    return ok ? bite{SQLITE_OK, !all} : t.failed();
}

/* The day as seconds since the epoch; -1 when it is none. */
int64_t begin_of_day(sqlite3* db, const std::string& day) {
    statement query(db, "SELECT CAST(strftime('%s', substr(?1, 1, 4) || '-' || substr(?1, 5, 2) || "
                        "'-' || substr(?1, 7, 2)) AS INTEGER)");
    return query.bind_text(day).row() && !query.is_null(0) ? query.integer(0) : -1;
}

/* What arrived undecodable before the end of that day and on no day that is kept. Rows are in the
 * order of arrival. */
bool forget_undecodable(sqlite3* db, const std::string& day) {
    int64_t begin = begin_of_day(db, day);
    return statement(db, "DELETE FROM undecodable WHERE id <= (SELECT max(id) FROM undecodable "
                         "WHERE received >= ?1 AND received < ?1 + 86400) AND NOT EXISTS (SELECT 1 "
                         "FROM days WHERE day = strftime('%Y%m%d', received, 'unixepoch'))")
        .bind(begin)
        .run();
}

} // namespace

bite read_days(sqlite3* db, std::vector<std::string>& by_turn) {
    statement query(db, "SELECT day FROM days JOIN sqlite_schema "
                        "ON name = 'packed_' || day AND type = 'table' ORDER BY turn");
    int result;
    while ((result = query.step()) == SQLITE_ROW) {
        by_turn.emplace_back(query.bytes(0));
    }
    return {.result = result == SQLITE_DONE ? SQLITE_OK : result};
}

bite drop_some_of_day(sqlite3* db, const std::string& day, std::span<const engine::fact> facts) {
    transaction t(db);
    bool all = false;
    bool ok = t.begun() && drop_first_rows(db, packed_prefix + day, all);
    if (ok && all) {
        ok = database_exec(db, "DROP TABLE " + (packed_prefix + day)) &&
             statement(db, "DELETE FROM days WHERE day = ?").bind_text(day).run() &&
             forget_undecodable(db, day) &&
             std::all_of(facts.begin(), facts.end(), [db](const engine::fact& f) {
                 return database_set_fact(db, f.first, f.second);
             });
    }
    ok = ok && t.commit();
    return ok ? bite{SQLITE_OK, !all} : t.failed();
}

bite drop_some_roll_ups(sqlite3* db, resolution r, int64_t day) {
    std::vector<std::string> tables;
    const std::string kept = roll_up_table(r, std::clamp<int64_t>(day, 0, days_end - 1));
    transaction t(db);
    if (!t.begun() || !database_tables(db, roll_up_prefix(r), 6, tables)) {
        return t.failed();
    }
    if (tables.empty() || tables.front() >= kept) {
        return {};
    }
    bool all = false;
    bool ok = drop_first_rows(db, tables.front(), all) &&
              (!all || database_exec(db, "DROP TABLE " + tables.front())) && t.commit();
    return ok ? bite{SQLITE_OK, !all || (tables.size() > 1 && tables[1] < kept)} : t.failed();
}

bite drop_some_events(sqlite3* db, int64_t time) {
    return drop_before(db,
                       "DELETE FROM events WHERE id IN (SELECT id FROM events WHERE time < ? "
                       "ORDER BY time LIMIT ?)",
                       time);
}

bite drop_some_ledger_rows(sqlite3* db, int64_t time) {
    return drop_before(db,
                       "DELETE FROM ledger WHERE (hour, agent) IN (SELECT hour, agent FROM ledger "
                       "WHERE hour < ? ORDER BY hour, agent LIMIT ?)",
                       time);
}

bite drop_some_changes(sqlite3* db, int64_t time) {
    bite of_changes =
        drop_before(db,
                    "DELETE FROM fleet_changes WHERE id IN (SELECT id FROM fleet_changes WHERE "
                    "time < ? ORDER BY time LIMIT ?)",
                    time);
    if (of_changes.result != SQLITE_OK || of_changes.more) {
        return of_changes;
    }
    return drop_before(db,
                       "DELETE FROM fleet_revisions WHERE revision IN (SELECT revision FROM "
                       "fleet_revisions WHERE text IS NULL AND time < ? AND revision < (SELECT "
                       "max(revision) FROM fleet_revisions) ORDER BY time LIMIT ?)",
                       time);
}

/* For each agent and type the last one before that time stays. */
bite drop_some_inventories(sqlite3* db, int64_t time, inventory_cursor& from) {
    using clock = std::chrono::steady_clock;
    const clock::time_point until = clock::now() + bite_time;
    transaction t(db);
    statement next(db, "SELECT agent, type FROM inventories WHERE (agent, type) > (?, ?) "
                       "ORDER BY agent, type LIMIT 1");
    statement drop(db,
                   "DELETE FROM inventories WHERE id IN (SELECT id FROM inventories WHERE "
                   "agent = ?1 AND type = ?2 AND time < (SELECT max(time) FROM inventories WHERE "
                   "agent = ?1 AND type = ?2 AND time < ?3) ORDER BY time LIMIT ?4)");
    bool ok = t.begun(), more = true;
    do {
        int result = next.bind(from.agent).bind(from.type).step();
        more = result == SQLITE_ROW;
        ok = ok && (more || result == SQLITE_DONE);
        inventory_cursor at;
        if (ok && more) {
            at = {next.integer(0), next.integer(1)};
            ok = drop.bind(at.agent).bind(at.type).bind(time).bind(at_once).run();
            from = sqlite3_changes(db) < at_once ? at : from;
        }
        next.reset();
    } while (ok && more && clock::now() < until);
    ok = ok && t.commit();
    if (!ok || !more) {
        from = {};
    }
    return ok ? bite{SQLITE_OK, more} : t.failed();
}

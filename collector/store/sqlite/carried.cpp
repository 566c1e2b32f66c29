#include "store/sqlite/carried.h"

#include "store/engine.h"
#include "store/sqlite/layout.h"

#include <algorithm>

namespace {

/* As ids above what could be read may have been given. */
constexpr int64_t skipped_ids = 100000;

/* False when there may be more rows than could be read. */
template <typename Do>
bool each_row(sqlite3* db, const char* sql, Do each) {
    statement rows(db, sql);
    int result;
    while ((result = rows.step()) == SQLITE_ROW) {
        each(rows);
    }
    return result == SQLITE_DONE;
}

std::string text(const statement& row, int column) {
    return std::string(row.bytes(column));
}

bool has_column(sqlite3* db, const char* table, const char* column) {
    statement query(db, "SELECT 1 FROM pragma_table_info(?) WHERE name = ?");
    return query.bind_text(table).bind_text(column).row();
}

/* Whether the id makes sense; then it raises the one that was given last. */
bool was_given(int64_t id, int64_t& last) {
    bool makes_sense = id > 0 && id < max_test - skipped_ids;
    last = makes_sense ? std::max(last, id) : last;
    return makes_sense;
}

/* Adds what the file says of ids that were given and whose rows may be gone. */
void settle_last(sqlite3* db, const std::string& table, bool all, int64_t& last) {
    if (has_column(db, "sqlite_sequence", "seq")) {
        statement given(db, "SELECT seq FROM sqlite_sequence WHERE name = ?");
        int result = given.bind_text(table).step();
        all = all &&
              (result == SQLITE_ROW ? was_given(given.integer(0), last) : result == SQLITE_DONE);
    }
    last += all ? 0 : skipped_ids;
}

bool set_last(sqlite3* db, const char* table, int64_t last) {
    return last == 0 ||
           (statement(db, "DELETE FROM sqlite_sequence WHERE name = ?").bind_text(table).run() &&
            statement(db, "INSERT INTO sqlite_sequence VALUES (?, ?)")
                .bind_text(table)
                .bind(last)
                .run());
}

} // namespace

void carried_rows::read(sqlite3* db) {
    std::string query = "SELECT id, first_seen, last_seen, account, name, last_block";
    /* What earlier versions did not have. */
    query += has_column(db, "agents", "address") ? ", address, version" : ", '', ''";
    query += has_column(db, "agents", "retired") ? ", retired FROM agents" : ", 0 FROM agents";
    bool all = each_row(db, query.c_str(), [&](const statement& row) {
        if (was_given(row.integer(0), last_agent)) {
            agents.push_back({row.integer(0), row.integer(1), row.integer(2), text(row, 3),
                              text(row, 4), text(row, 5), text(row, 6), text(row, 7),
                              row.integer(8)});
        }
    });
    settle_last(db, "agents", all, last_agent);
    if (std::optional<int64_t> restored = database_fact(db, restored_fact)) {
        facts.push_back({restored_fact, *restored});
    }
    if (!has_column(db, "tests", "number")) {
        return;
    }
    all = each_row(db, "SELECT id, agent, type, number FROM tests", [&](const statement& row) {
        if (was_given(row.integer(0), last_test)) {
            tests.push_back({row.integer(0), row.integer(1), row.integer(2),
                             row.is_null(3) ? std::nullopt : std::optional(row.integer(3))});
        }
    });
    settle_last(db, "tests", all, last_test);
}

void carried_rows::read_pieces_and_facts(sqlite3* db) {
    each_row(db, "SELECT id, received, agent, offset, bytes, reason, kept_as FROM undecodable",
             [&](const statement& row) {
                 pieces.push_back({row.integer(0), row.integer(1), row.integer(2), row.integer(3),
                                   row.integer(4), text(row, 5), text(row, 6)});
             });
    each_row(db, "SELECT name, value FROM facts WHERE name IN ('dropped', 'boot')",
             [&](const statement& row) {
                 facts.push_back({text(row, 0), row.integer(1)});
             });
}

bool carried_rows::write(sqlite3* db) const {
    statement agent_row(db, "INSERT OR IGNORE INTO agents (id, first_seen, last_seen, account, "
                            "name, last_block, address, version, retired) "
                            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
    bool ok = std::all_of(agents.begin(), agents.end(), [&](const agent& a) {
        agent_row.bind(a.id).bind(a.first_seen).bind(a.last_seen).bind_text(a.account);
        agent_row.bind_text(a.name).bind_blob(a.last_block).bind_text(a.address);
        return agent_row.bind_text(a.version).bind(a.retired).run();
    });
    statement test_row(db, "INSERT OR IGNORE INTO tests VALUES (?, ?, ?, ?)");
    ok = ok && std::all_of(tests.begin(), tests.end(), [&](const test& t) {
             return test_row.bind(t.id).bind(t.agent).bind(t.type).bind(t.number).run();
         });
    statement piece_row(db, "INSERT OR IGNORE INTO undecodable VALUES (?, ?, ?, ?, ?, ?, ?)");
    ok = ok && std::all_of(pieces.begin(), pieces.end(), [&](const piece& p) {
             piece_row.bind(p.id).bind(p.received).bind(p.agent).bind(p.offset).bind(p.bytes);
             return piece_row.bind_text(p.reason).bind_text(p.kept_as).run();
         });
    ok = ok && std::all_of(facts.begin(), facts.end(), [&](const fact& f) {
             return database_set_fact(db, f.name.c_str(), f.value);
         });
    return ok && set_last(db, "agents", last_agent) && set_last(db, "tests", last_test);
}

/* What agents are to do: the rows of fleet_revisions, fleet_agents and fleet_changes, for the
 * engine that writes and the reader. Texts that come twenty thousand at a time go through
 * statements that are prepared once. */
#include "store/sqlite/sqlite_engine.h"
#include "store/sqlite/sqlite_reader.h"

/* ---- writing ---- */

/* A key that is there already would count as damage, so it is looked for. */
bool sqlite_engine::append_fleet_revision(const fleet_revision& what) {
    int64_t newest = 0;
    bool ok;
    {
        auto last = take("SELECT coalesce(max(revision), 0) FROM fleet_revisions");
        ok = last->row();
        newest = ok ? last->integer(0) : 0;
    }
    if (ok && what.revision <= newest) {
        return fail("a revision of the fleet that was given before");
    }
    if (ok) {
        auto insert = take(what.has_text ? "INSERT INTO fleet_revisions (revision, time, author, "
                                           "about, text) VALUES (?, ?, ?, ?, ?)"
                                         : "INSERT INTO fleet_revisions (revision, time, author, "
                                           "about) VALUES (?, ?, ?, ?)");
        insert->bind(int64_t{what.revision}).bind(what.time);
        insert->bind_text(what.author).bind_text(what.about);
        if (what.has_text) {
            insert->bind_text(what.text);
        }
        ok = insert->run();
    }
    if (ok && what.has_text) {
        auto drop = take("DELETE FROM fleet_revisions WHERE revision < (SELECT revision FROM "
                         "fleet_revisions WHERE text IS NOT NULL ORDER BY revision DESC LIMIT 1 "
                         "OFFSET ?)");
        ok = drop->bind(static_cast<int64_t>(most_fleet_texts) - 1).run();
    }
    return go_on(ok);
}

bool sqlite_engine::put_fleet_agent(const fleet_agent& what) {
    bool ok;
    if (what.assigned.empty()) {
        auto drop = take("DELETE FROM fleet_agents WHERE account = ? AND agent = ?");
        ok = drop->bind_text(what.account).bind_text(what.agent).run();
    } else {
        auto put = take("INSERT INTO fleet_agents (account, agent, assigned) VALUES (?, ?, ?) "
                        "ON CONFLICT (account, agent) DO UPDATE SET assigned = excluded.assigned");
        put->bind_text(what.account).bind_text(what.agent);
        ok = put->bind_blob(what.assigned).run();
    }
    return go_on(ok);
}

bool sqlite_engine::put_change(const stored_change& what) {
    bool ok;
    {
        auto put = take("INSERT OR REPLACE INTO fleet_changes (id, revision, time, account, agent, "
                        "test, was, action, type, number, sent, settled, outcome, reason) "
                        "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
        put->bind(what.id).bind(int64_t{what.revision}).bind(what.time);
        put->bind_text(what.account).bind_text(what.agent).bind_text(what.test);
        put->bind_text(what.was).bind(int64_t{what.action}).bind(int64_t{what.type});
        put->bind(int64_t{what.number}).bind(what.sent).bind(what.settled);
        put->bind(static_cast<int64_t>(what.outcome)).bind_text(what.reason);
        ok = put->run();
    }
    return go_on(ok);
}

/* ---- reading ---- */

/* A row of revision, time, author, about, whether there is a text, and perhaps that. */
static fleet_revision revision_of(const statement& row, bool with_text) {
    return {.revision = static_cast<int32_t>(row.integer(0)),
            .time = row.integer(1),
            .author = row.bytes(2),
            .about = row.bytes(3),
            .text = with_text ? row.bytes(5) : std::string_view(),
            .has_text = row.integer(4) != 0};
}

bool sqlite_reader::for_each_fleet_revision(bool texts,
                                            const std::function<bool(const fleet_revision&)>& each,
                                            std::string& error) {
    error.clear();
    auto rows = take(texts ? "SELECT revision, time, author, about, text IS NOT NULL, text FROM "
                             "fleet_revisions ORDER BY revision DESC"
                           : "SELECT revision, time, author, about, text IS NOT NULL FROM "
                             "fleet_revisions ORDER BY revision DESC");
    each_row(
        *rows, [&] { return each(revision_of(*rows, texts)); }, error);
    return error.empty();
}

bool sqlite_reader::read_fleet(int32_t revision,
                               const std::function<void(const fleet_revision&)>& each,
                               std::string& error) {
    error.clear();
    auto row = take("SELECT revision, time, author, about, 1, text FROM fleet_revisions WHERE "
                    "revision <= ? AND text IS NOT NULL ORDER BY revision DESC LIMIT 1");
    row->bind(int64_t{revision});
    each_row(
        *row, [&] { return each(revision_of(*row, true)), true; }, error);
    return error.empty();
}

/* The index tells the order and the ids; so a row that is damaged hides no other. */
bool sqlite_reader::for_each_fleet_agent(const std::function<void(const fleet_agent&)>& each,
                                         std::string& error) {
    error.clear();
    auto ids = take("SELECT id FROM fleet_agents ORDER BY account, agent");
    auto row = take("SELECT account, agent, assigned FROM fleet_agents WHERE id = ?");
    auto each_id = [&] {
        row->reset();
        int result = row->bind(ids->integer(0)).step();
        if (result == SQLITE_ROW) {
            each({.account = row->bytes(0), .agent = row->bytes(1), .assigned = row->bytes(2)});
        }
        return note(result, error) || database_is_damaged(result);
    };
    each_row(*ids, each_id, error);
    return error.empty();
}

static stored_change change_of(const statement& row) {
    return {.id = row.integer(0),
            .revision = static_cast<int32_t>(row.integer(1)),
            .time = row.integer(2),
            .account = row.bytes(3),
            .agent = row.bytes(4),
            .test = row.bytes(5),
            .was = row.bytes(6),
            .action = static_cast<uint8_t>(row.integer(7)),
            .type = static_cast<uint32_t>(row.integer(8)),
            .number = static_cast<int32_t>(row.integer(9)),
            .sent = row.integer(10),
            .settled = row.integer(11),
            .outcome = static_cast<change_outcome>(row.integer(12)),
            .reason = row.bytes(13)};
}

/* By the index of what is asked for, all of which tell the ids in order too. */
bool sqlite_reader::for_each_change(const change_filter& which,
                                    const std::function<bool(const stored_change&)>& each,
                                    std::string& error) {
    error.clear();
    const bool of_agent = !which.account.empty() || !which.agent.empty();
    std::string sql =
        "SELECT id, revision, time, account, agent, test, was, action, type, number, sent, "
        "settled, outcome, reason FROM fleet_changes WHERE id < ?1 AND ";
    sql += of_agent ? "account = ?2 AND agent = ?3 AND " : "?2 = ?3 AND ";
    sql += which.revision == 0 ? "?4 = 0 AND "
           : of_agent          ? "+revision = ?4 AND " /* an agent has fewer than a revision */
                               : "revision = ?4 AND ";
    sql += which.test.empty() ? "?5 = '' AND " : "test = ?5 AND ";
    sql += which.outcomes == 0 ? "?6 = 0 AND " : "(?6 >> outcome) & 1 = 1 AND ";
    sql += "+time >= ?7 AND +time < ?8 ORDER BY id DESC";
    auto rows = take(sql);
    rows->bind(which.below).bind_text(which.account).bind_text(which.agent);
    rows->bind(int64_t{which.revision}).bind_text(which.test).bind(int64_t{which.outcomes});
    rows->bind(which.from).bind(which.to);
    auto each_change = [&] {
        const stored_change change = change_of(*rows);
        const bool known =
            change_outcome::sent <= change.outcome && change.outcome <= change_outcome::impossible;
        return !known || each(change); /* what nobody of ours wrote is passed over */
    };
    each_row(*rows, each_change, error);
    return error.empty();
}

#include "store/sqlite/sqlite_engine.h"

#include "base/text.h"
#include "store/sqlite/earlier.h"
#include "store/sqlite/layout.h"

#include <algorithm>
#include <cstring>

namespace {

/* Bytes of a block: pieces of more are not copied to be one, and one piece of more is not copied
 * for the database. */
constexpr size_t most_joined = 64 << 10, most_bound = 1 << 20;

size_t total_size(std::span<const std::string_view> pieces) {
    size_t bytes = 0;
    for (std::string_view piece : pieces) {
        bytes += piece.size();
    }
    return bytes;
}

} // namespace

/* ---- the file and its transactions ---- */

bool sqlite_engine::start(std::string& error) {
    bool ok = file_.take_directory(reason_) && open();
    error = ok ? "" : reason_;
    return ok;
}

bool sqlite_engine::open() {
    bool ok = file_.open(reason_);
    if (ok) {
        reader_.use(file_.handle(), file_.path());
        std::vector<std::string> tables;
        for (resolution r : {resolution::five_minutes, resolution::hour}) {
            ok = ok && database_tables(file_.handle(), roll_up_prefix(r), 6, tables);
            roll_ups_.insert(tables.begin(), tables.end());
        }
        /* A file that lacks one of its tables is of no use. */
        ok = ok && execute("SELECT 1 FROM agents, tests, blocks, events, ledger, inventories, "
                           "definitions, days, facts, undecodable, fleet_revisions, "
                           "fleet_agents, fleet_changes LIMIT 0");
        if (!ok) {
            reason_.clear();
            file_.refuse(reason_); /* while what failed can still be asked for its reason */
            release();
        }
    }
    failure_ = ok ? SQLITE_OK : file_.failure();
    return ok;
}

/* What hangs on the connection, before it is closed. */
void sqlite_engine::release() {
    statements_.clear();
    reader_.leave();
    packed_.clear();
    roll_ups_.clear();
    last_block_row_ = last_reserved_ = 0;
    inventories_ = {};
}

void sqlite_engine::look_after() {
    damaged_ = 0;
    if (is_open() && file_.was_replaced() && file_.can_be_left()) {
        release();
        file_.leave();
    }
}

bool sqlite_engine::begin() {
    return (is_open() || open()) && go_on(file_.settle()) && go_on(execute("BEGIN IMMEDIATE"));
}

bool sqlite_engine::commit() {
    bool ok = go_on(execute("COMMIT"));
    damaged_ = ok ? 0 : damaged_;
    return ok;
}

/* Ends the transaction unless all is well. */
bool sqlite_engine::go_on(bool ok) {
    if (!ok) {
        int result = sqlite3_errcode(file_.handle());
        failure_ = result != SQLITE_OK ? result : SQLITE_ERROR;
        reason_ = is_open() ? sqlite3_errmsg(file_.handle()) : "the database is not open";
        give_up();
    }
    return ok;
}

/* The same for reasons of our own. */
bool sqlite_engine::fail(const char* why) {
    failure_ = SQLITE_ERROR;
    reason_ = why;
    give_up();
    return false;
}

void sqlite_engine::give_up() {
    if (is_open()) {
        execute("ROLLBACK");
        release();
        file_.close();
    }
}

/* Damage may be in what was read before only: it has to show in a file opened anew. */
bool sqlite_engine::recover() {
    if (!database_is_damaged(failure_) || ++damaged_ > 2) {
        return false;
    }
    return damaged_ == 1 || file_.set_aside(reason_);
}

/* ---- agents and tests ---- */

/* What the row says, when there is one. */
bool sqlite_engine::found_agent(statement& row, int result, stored_agent& found) {
    last_block_.clear();
    state_.clear();
    found = {};
    if (result == SQLITE_ROW) {
        last_block_ = row.bytes(1);
        state_ = row.bytes(2);
        found = {.id = row.integer(0), .last_block = last_block_, .state = state_};
    }
    return result == SQLITE_ROW;
}

bool sqlite_engine::find_agent(std::string_view account, std::string_view agent, int64_t received,
                               stored_agent& found) {
    int result;
    {
        auto select = take(
            "SELECT id, last_block, state, retired FROM agents WHERE account = ? AND name = ?");
        result = select->bind_text(account).bind_text(agent).step();
        if (found_agent(*select, result, found) && select->integer(3) == 0) {
            return true;
        }
    }
    if (result == SQLITE_ROW) { /* it is back */
        return go_on(take("UPDATE agents SET retired = 0 WHERE id = ?")->bind(found.id).run());
    }
    bool ok = result == SQLITE_DONE;
    if (ok) {
        auto insert = take("INSERT INTO agents (account, name, first_seen, last_seen, last_block) "
                           "VALUES (?, ?, ?, 0, x'')");
        ok = insert->bind_text(account).bind_text(agent).bind(received).run();
        found.id = sqlite3_last_insert_rowid(file_.handle());
    }
    return go_on(ok);
}

bool sqlite_engine::find_agent(int64_t id, stored_agent& found) {
    int result;
    {
        auto select = take("SELECT id, last_block, state FROM agents WHERE id = ?");
        result = select->bind(id).step();
        if (found_agent(*select, result, found)) {
            return true;
        }
    }
    reason_.clear();
    go_on(result == SQLITE_DONE);
    return false;
}

bool sqlite_engine::find_test(int64_t agent, uint32_t type, std::optional<int32_t> number,
                              int64_t& id) {
    std::optional<int64_t> wide = number;
    int result;
    {
        auto select = take("SELECT id FROM tests WHERE agent = ? AND type = ? AND number IS ?");
        result = select->bind(agent).bind(int64_t{type}).bind(wide).step();
        if (result == SQLITE_ROW) {
            id = select->integer(0);
            return true;
        }
    }
    bool ok = result == SQLITE_DONE;
    if (ok) {
        auto insert = take("INSERT INTO tests (agent, type, number) VALUES (?, ?, ?)");
        ok = insert->bind(agent).bind(int64_t{type}).bind(wide).run();
        id = sqlite3_last_insert_rowid(file_.handle());
    }
    return ok && id > max_test ? fail("there are no more ids for tests") : go_on(ok);
}

bool sqlite_engine::tests_after(int64_t after, size_t most, std::vector<known_test_row>& found) {
    found.clear();
    int result;
    {
        auto rows =
            take("SELECT id, agent, type, number FROM tests WHERE id > ? ORDER BY id LIMIT ?");
        rows->bind(after).bind(static_cast<int64_t>(most));
        while ((result = rows->step()) == SQLITE_ROW) {
            found.push_back({.id = rows->integer(0),
                             .agent = rows->integer(1),
                             .type = static_cast<uint32_t>(rows->integer(2)),
                             .number = {}});
            if (!rows->is_null(3)) {
                found.back().number = static_cast<int32_t>(rows->integer(3));
            }
        }
    }
    return go_on(result == SQLITE_DONE);
}

/* An address or a version that is not known leaves the last one. */
bool sqlite_engine::end_block(int64_t agent, const agent_news& news, std::string_view last_block,
                              std::string_view state) {
    bool ok;
    {
        auto update = take("UPDATE agents SET last_seen = ?, last_block = ?, state = ?, "
                           "address = coalesce(nullif(?, ''), address), "
                           "version = coalesce(nullif(?, ''), version) WHERE id = ?");
        update->bind(news.received).bind_blob(last_block).bind_blob(state);
        ok = update->bind_text(news.address).bind_text(news.version).bind(agent).run();
    }
    return go_on(ok);
}

bool sqlite_engine::retire_agent(int64_t id, int64_t time) {
    bool ok = take("UPDATE agents SET retired = ? WHERE id = ?")->bind(time).bind(id).run();
    return go_on(ok);
}

bool sqlite_engine::set_state(int64_t agent, std::string_view state) {
    bool ok = take("UPDATE agents SET state = ? WHERE id = ?")->bind_blob(state).bind(agent).run();
    return go_on(ok);
}

/* ---- what comes with a block ---- */

/* The ids are set aside by the thousand: what AUTOINCREMENT notes with each row is a page more that
 * each poll would write. */
bool sqlite_engine::next_block(int64_t& row) {
    constexpr int64_t at_once = 1000;
    if (last_reserved_ == 0) {
        statement highest(file_.handle(), "SELECT coalesce(max(id), 0) FROM blocks");
        if (!highest.row()) {
            return false;
        }
        last_reserved_ = std::clamp<int64_t>(
            std::max(read_fact("blocks").value_or(0), highest.integer(0)), 0, INT64_MAX / 2);
        last_block_row_ = last_reserved_;
    }
    if (last_block_row_ == last_reserved_) {
        if (!database_set_fact(file_.handle(), "blocks", last_reserved_ + at_once)) {
            return false;
        }
        last_reserved_ += at_once;
    }
    row = ++last_block_row_;
    return true;
}

bool sqlite_engine::append_block(int64_t agent, int64_t received, int64_t before,
                                 std::span<const std::string_view> pieces, int64_t& row) {
    const size_t bytes = total_size(pieces);
    const bool filled = bytes > (pieces.size() > 1 ? most_joined : most_bound);
    bool ok = next_block(row);
    if (ok) {
        auto insert = take(
            "INSERT INTO blocks (id, agent, received, before, records) VALUES (?, ?, ?, ?, ?)");
        insert->bind(row).bind(agent).bind(received).bind(before);
        if (filled) {
            insert->bind_unfilled_blob(bytes);
        } else if (pieces.size() == 1) {
            insert->bind_blob(pieces.front());
        } else {
            joined_.clear();
            for (std::string_view piece : pieces) {
                joined_ += piece;
            }
            insert->bind_blob(joined_);
        }
        ok = insert->run();
    }
    return go_on(ok &&
                 (!filled || database_fill_blob(file_.handle(), "blocks", "records", pieces)));
}

bool sqlite_engine::append_inventory(const stored_inventory& inventory, int64_t& row) {
    const bool filled = inventory.record.size() > most_bound;
    bool ok;
    {
        auto insert = take("INSERT INTO inventories (agent, type, received, time, record) "
                           "VALUES (?, ?, ?, ?, ?)");
        insert->bind(inventory.agent).bind(int64_t{inventory.type}).bind(inventory.received);
        insert->bind(inventory.time);
        if (filled) {
            insert->bind_unfilled_blob(inventory.record.size());
        } else {
            insert->bind_blob(inventory.record);
        }
        ok = insert->run();
        row = sqlite3_last_insert_rowid(file_.handle());
    }
    return go_on(ok && (!filled || database_fill_blob(file_.handle(), "inventories", "record",
                                                      {&inventory.record, 1})));
}

bool sqlite_engine::append_undecodable(int64_t agent, int64_t received,
                                       const undecodable_piece& piece) {
    bool ok;
    {
        auto insert = take("INSERT INTO undecodable (received, agent, offset, bytes, reason, "
                           "kept_as) VALUES (?, ?, ?, ?, ?, ?)");
        insert->bind(received).bind(agent);
        insert->bind(static_cast<int64_t>(piece.offset)).bind(static_cast<int64_t>(piece.bytes));
        ok = insert->bind_text(piece.reason).bind_text(piece.kept_as).run();
    }
    return go_on(ok);
}

bool sqlite_engine::append_event(const stored_event& event, int64_t& id) {
    bool ok;
    {
        auto insert = take("INSERT INTO events (time, agent, test, from_state, to_state, message) "
                           "VALUES (?, ?, ?, ?, ?, ?)");
        insert->bind(event.time).bind(event.agent).bind(event.test);
        insert->bind(int64_t{event.from}).bind(int64_t{event.to});
        ok = insert->bind_text(event.message).run();
        id = sqlite3_last_insert_rowid(file_.handle());
    }
    return go_on(ok);
}

bool sqlite_engine::add_to_ledger(const ledger_row& counts) {
    bool ok;
    {
        auto add = take("INSERT INTO ledger (agent, hour, received, repeated, missing) "
                        "VALUES (?, ?, ?, ?, ?) ON CONFLICT (hour, agent) DO UPDATE SET "
                        "received = received + excluded.received, "
                        "repeated = repeated + excluded.repeated, "
                        "missing = missing + excluded.missing");
        add->bind(counts.agent).bind(counts.hour).bind(static_cast<int64_t>(counts.received));
        add->bind(static_cast<int64_t>(counts.repeated));
        ok = add->bind(static_cast<int64_t>(counts.missing)).run();
    }
    return go_on(ok);
}

bool sqlite_engine::append_definition(const test_definition& definition) {
    bool ok;
    {
        auto insert = take("INSERT INTO definitions (type, number, location, since, name, text, "
                           "agent, title, team) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
        insert->bind(int64_t{definition.type}).bind(int64_t{definition.number});
        insert->bind(int64_t{definition.location}).bind(definition.since);
        insert->bind_text(definition.name).bind_text(definition.text).bind(definition.agent);
        ok = insert->bind_text(definition.title).bind_text(definition.group).run();
    }
    return go_on(ok);
}

/* ---- upkeep ---- */

bool sqlite_engine::use_day(const std::string& table) {
    if (table == packed_) {
        return true;
    }
    statement turn(file_.handle(), "INSERT OR REPLACE INTO days "
                                   "SELECT ?, 1 + coalesce(max(turn), 0) FROM days");
    bool ok = make_packed_table(file_.handle(), table) &&
              turn.bind_text(std::string_view(table).substr(strlen(packed_prefix))).run();
    packed_ = ok ? table : "";
    days_changed_ = days_changed_ || ok;
    return ok;
}

/* The first key from `key` on that is free. */
bool sqlite_engine::free_key(const std::string& table, int64_t& key) {
    auto select = take("SELECT 1 FROM " + table + " WHERE id = ?");
    for (;; key++) {
        int result = select->bind(key).step();
        select->reset();
        if (result != SQLITE_ROW) {
            return result == SQLITE_DONE;
        }
    }
}

bool sqlite_engine::append_chunk(int64_t test, const packed_chunk& chunk) {
    if (test < 0 || test > max_test) {
        return fail("a chunk of no test");
    }
    const std::string table = packed_table(chunk.received_last);
    int64_t key = chunk_key(test, key_time(chunk.received_first));
    if (!go_on(use_day(table) && free_key(table, key))) {
        return false;
    }
    bool told = key == chunk_key(test, 0) + chunk.received_first;
    bool ok;
    {
        auto insert = take("INSERT INTO " + table +
                           " (id, received_first, received_last, first, last, results, data) "
                           "VALUES (?, ?, ?, ?, ?, ?, ?)");
        insert->bind(key).bind(told ? std::nullopt : std::optional(chunk.received_first));
        insert->bind(chunk.received_last).bind(chunk.first).bind(chunk.last);
        ok = insert->bind(int64_t{chunk.results}).bind_blob(chunk.data).run();
    }
    return go_on(ok);
}

bool sqlite_engine::drop_blocks(int64_t row) {
    int result = SQLITE_ROW;
    {
        auto drop = take("DELETE FROM blocks WHERE id = ? RETURNING before");
        while (row > 0 && (result = drop->bind(row).step()) == SQLITE_ROW) {
            int64_t before = drop->integer(0);
            result = drop->step();
            drop->reset();
            if (result != SQLITE_DONE || before >= row) {
                break;
            }
            row = before;
        }
    }
    return go_on(result == SQLITE_DONE || result == SQLITE_ROW);
}

bool sqlite_engine::use_roll_ups(const std::string& table) {
    bool ok = roll_ups_.contains(table) || make_roll_up_table(file_.handle(), table);
    if (ok) {
        roll_ups_.insert(table);
    }
    return ok;
}

bool sqlite_engine::put_roll_up(resolution r, int64_t test, int64_t day, std::string_view data) {
    if (test < 0 || test > max_test) {
        return fail("a roll-up of no test");
    }
    if (day < 0 || day >= days_end) {
        return true;
    }
    const std::string table = roll_up_table(r, day);
    if (!go_on(use_roll_ups(table))) {
        return false;
    }
    bool ok = take("INSERT OR REPLACE INTO " + table + " VALUES (?, ?)")
                  ->bind(roll_up_key(test, day))
                  .bind_blob(data)
                  .run();
    return go_on(ok);
}

bool sqlite_engine::drop_roll_up(resolution r, int64_t test, int64_t day) {
    const std::string table = roll_up_table(r, std::clamp<int64_t>(day, 0, days_end - 1));
    if (day < 0 || day >= days_end || !roll_ups_.contains(table)) {
        return true;
    }
    auto drop = take("DELETE FROM " + table + " WHERE id BETWEEN ? AND ?");
    return go_on(drop->bind(roll_up_key(test, 0)).bind(roll_up_key(test, day)).run());
}

bool sqlite_engine::set_fact(const char* name, int64_t value) {
    return go_on(database_set_fact(file_.handle(), name, value));
}

/* ---- dropping ---- */

drop_outcome sqlite_engine::outcome_of(const bite& taken) {
    if (taken.result == SQLITE_OK) {
        return taken.more ? drop_outcome::more : drop_outcome::done;
    }
    reason_ = sqlite3_errstr(taken.result);
    return database_is_damaged(taken.result) ? drop_outcome::damaged : drop_outcome::failed;
}

drop_outcome sqlite_engine::days(std::vector<std::string>& by_turn) {
    return outcome_of(read_days(file_.handle(), by_turn));
}

drop_outcome sqlite_engine::drop_day(const std::string& day, std::span<const fact> facts) {
    packed_.clear(); /* it may be this one */
    return outcome_of(drop_some_of_day(file_.handle(), day, facts));
}

drop_outcome sqlite_engine::drop_roll_ups(resolution r, int64_t day) {
    bite taken = drop_some_roll_ups(file_.handle(), r, day);
    const std::string kept = roll_up_table(r, std::clamp<int64_t>(day, 0, days_end - 1));
    roll_ups_.erase(roll_ups_.lower_bound(roll_up_prefix(r)), roll_ups_.lower_bound(kept));
    return outcome_of(taken);
}

drop_outcome sqlite_engine::drop_events(int64_t time) {
    return outcome_of(drop_some_events(file_.handle(), time));
}

drop_outcome sqlite_engine::drop_ledger(int64_t time) {
    return outcome_of(drop_some_ledger_rows(file_.handle(), time));
}

drop_outcome sqlite_engine::drop_changes(int64_t time) {
    return outcome_of(drop_some_changes(file_.handle(), time));
}

drop_outcome sqlite_engine::drop_inventories(int64_t time) {
    return outcome_of(drop_some_inventories(file_.handle(), time, inventories_));
}

/* ---- what an earlier version left ---- */

std::unique_ptr<earlier_results> sqlite_engine::earlier() {
    if (!is_open() || read_fact("earlier") != 1) {
        return nullptr;
    }
    if (!earlier_is_there(options_.directory)) {
        options_.tell(earlier_path(options_.directory) +
                      " is gone: what was not taken over from it is lost");
        forget_earlier();
        return nullptr;
    }
    std::string error;
    auto damaged = [this](const std::string& why) { file_.keep_damaged_earlier(why); };
    std::unique_ptr<earlier_results> found = read_earlier(options_.directory, damaged, error);
    if (!found) {
        options_.tell("results of an earlier version cannot be taken over: " + error);
    }
    return found;
}

bool sqlite_engine::forget_earlier() {
    if (!is_open() || !execute("BEGIN IMMEDIATE") || !set_fact("earlier", 0) ||
        !execute("DELETE FROM facts WHERE name = 'earlier_position'; COMMIT")) {
        return go_on(false);
    }
    bool ok = file_.drop_earlier();
    return go_on(!ok || execute("DELETE FROM facts WHERE name = 'earlier'")) && ok;
}

std::unique_ptr<engine> open_engine(const engine_options& options, std::string& error) {
    if (options.directory.empty()) {
        error = "no state directory is named";
        return nullptr;
    }
    auto opened = std::make_unique<sqlite_engine>(options);
    return opened->start(error) ? std::move(opened) : nullptr;
}

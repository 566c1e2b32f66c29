#include "store/sqlite/sqlite_reader.h"

#include "store/sqlite/layout.h"

#include <algorithm>
#include <limits>

namespace {

const char agent_columns[] =
    "SELECT id, account, name, address, version, first_seen, last_seen, state, "
    "retired FROM agents";

known_agent agent_of(const statement& row) {
    return {.id = row.integer(0),
            .account = row.bytes(1),
            .agent = row.bytes(2),
            .address = row.bytes(3),
            .version = row.bytes(4),
            .first_seen = row.integer(5),
            .last_seen = row.integer(6),
            .state = row.bytes(7),
            .retired = row.integer(8)};
}

} // namespace

bool sqlite_reader::open(const std::string& directory, std::string& error) {
    place_ = database_path(directory);
    bool ok = database_open_reading(directory, own_, error);
    db_ = own_.get();
    return ok;
}

bool sqlite_reader::is_too_late() const {
    return give_up_at_ != never && std::chrono::steady_clock::now() > give_up_at_;
}

void sqlite_reader::give_up_at(std::chrono::steady_clock::time_point when) {
    constexpr int often = 20000; /* steps of SQLite's: a millisecond or so */
    give_up_at_ = when;
    if (own_) {
        sqlite3_progress_handler(
            own_.get(), when != never ? often : 0,
            [](void* self) { return static_cast<sqlite_reader*>(self)->is_too_late() ? 1 : 0; },
            this);
    }
}

void sqlite_reader::rest() {
    give_up_at(never);
    if (own_ && sqlite3_get_autocommit(own_.get()) == 0) {
        database_exec(own_.get(), "COMMIT");
    }
}

/* The writer begins another file where one is damaged. Its own connection sees all. */
bool sqlite_reader::renew(std::string& error) {
    error.clear();
    if (!own_) {
        return true;
    }
    rest();
    int moved = 0;
    if (sqlite3_file_control(own_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK ||
        moved != 0) {
        error = place_ + ": it was replaced";
        return false;
    }
    /* A transaction begins with the first that is read. */
    bool ok = database_exec(own_.get(), "BEGIN");
    if (ok) {
        int result = statement(own_.get(), "SELECT 1 FROM facts LIMIT 1").step();
        ok = result == SQLITE_ROW || result == SQLITE_DONE;
    }
    if (!ok) {
        error = place_ + ": " + sqlite3_errmsg(own_.get());
    }
    return ok;
}

void sqlite_reader::use(sqlite3* db, const std::string& place) {
    statements_.clear();
    db_ = db;
    place_ = place;
}

void sqlite_reader::leave() {
    statements_.clear();
    db_ = nullptr;
}

bool sqlite_reader::note(int result, std::string& error) {
    bool ok = result == SQLITE_ROW || result == SQLITE_DONE;
    if (!ok && error.empty()) {
        error = result == SQLITE_INTERRUPT ? too_late
                : db_ != nullptr           ? sqlite3_errmsg(db_)
                                           : "it is not open";
    }
    return ok;
}

/* ---- agents and tests ---- */

bool sqlite_reader::for_each_agent(const std::function<void(const known_agent&)>& each,
                                   std::string& error) {
    return for_each_agent_from(
        "", "", [&](const known_agent& agent) { return each(agent), true; }, error);
}

/* The index tells the order and the ids; so a row that is damaged hides no other. */
bool sqlite_reader::for_each_agent_from(std::string_view account, std::string_view agent,
                                        const std::function<bool(const known_agent&)>& each,
                                        std::string& error) {
    error.clear();
    auto ids = take("SELECT id FROM agents WHERE (account, name) >= (?, ?) ORDER BY account, name");
    auto row = take(std::string(agent_columns) + " WHERE id = ?");
    ids->bind_text(account).bind_text(agent);
    auto each_id = [&] {
        row->reset();
        int result = row->bind(ids->integer(0)).step();
        if (result == SQLITE_ROW && !each(agent_of(*row))) {
            return false;
        }
        return note(result, error) || database_is_damaged(result);
    };
    each_row(*ids, each_id, error);
    return error.empty();
}

bool sqlite_reader::read_agent(int64_t id, const std::function<void(const known_agent&)>& each,
                               std::string& error) {
    error.clear();
    auto row = take(std::string(agent_columns) + " WHERE id = ?");
    row->bind(id);
    each_row(
        *row, [&] { return each(agent_of(*row)), true; }, error);
    return error.empty();
}

bool sqlite_reader::read_agent(std::string_view account, std::string_view agent,
                               const std::function<void(const known_agent&)>& each,
                               std::string& error) {
    error.clear();
    auto row = take(std::string(agent_columns) + " WHERE account = ? AND name = ?");
    row->bind_text(account).bind_text(agent);
    each_row(
        *row, [&] { return each(agent_of(*row)), true; }, error);
    return error.empty();
}

std::optional<known_test_row> sqlite_reader::find_test(int64_t id) {
    auto row = take("SELECT agent, type, number FROM tests WHERE id = ?");
    if (!row->bind(id).row()) {
        return std::nullopt;
    }
    known_test_row found{.id = id,
                         .agent = row->integer(0),
                         .type = static_cast<uint32_t>(row->integer(1)),
                         .number = {}};
    if (!row->is_null(2)) {
        found.number = static_cast<int32_t>(row->integer(2));
    }
    return found;
}

/* ---- results ---- */

bool sqlite_reader::for_each_block(int64_t row, const std::function<bool(const open_block&)>& each,
                                   std::string& error) {
    error.clear();
    auto block = take("SELECT received, before, records FROM blocks WHERE id = ?");
    while (row > 0) {
        if (is_too_late()) {
            error = too_late;
            break;
        }
        block->reset();
        int result = block->bind(row).step();
        if (result != SQLITE_ROW) {
            note(result, error);
            break;
        }
        open_block found{.row = row,
                         .received = block->integer(0),
                         .before = block->integer(1),
                         .records = block->bytes(2)};
        if (found.before >= row) {
            error = "a block that follows itself";
            break;
        }
        row = found.before;
        if (!each(found)) {
            break;
        }
    }
    return error.empty();
}

/* Of one day; `more` is whether any other is wanted. False when nothing else can be read. */
bool sqlite_reader::chunks_of(const std::string& table, int64_t test, int64_t from,
                              const std::function<bool(const packed_chunk&)>& wanted,
                              const std::function<bool(const packed_chunk&)>& each, bool& more,
                              std::string& error) {
    auto rows = take("SELECT id, received_first, received_last, first, last, results FROM " +
                     table + " WHERE id >= ? AND id < ? ORDER BY id DESC");
    auto data = take("SELECT data FROM " + table + " WHERE id = ?");
    rows->bind(chunk_key(test, 0)).bind(chunk_key(test + 1, 0));
    auto each_chunk = [&] {
        int64_t id = rows->integer(0);
        packed_chunk chunk{.received_first =
                               rows->is_null(1) ? id - chunk_key(test, 0) : rows->integer(1),
                           .received_last = rows->integer(2),
                           .first = rows->integer(3),
                           .last = rows->integer(4),
                           .results = static_cast<uint32_t>(rows->integer(5)),
                           .data = {}};
        if (chunk.received_last < from || !wanted(chunk)) {
            return true;
        }
        data->reset();
        int result = data->bind(id).step();
        if (result == SQLITE_ROW) {
            chunk.data = data->bytes(0);
            more = each(chunk);
            return more;
        }
        return note(result, error) || database_is_damaged(result);
    };
    return each_row(*rows, each_chunk, error);
}

bool sqlite_reader::for_each_chunk(int64_t test, int64_t from,
                                   const std::function<bool(const packed_chunk&)>& wanted,
                                   const std::function<bool(const packed_chunk&)>& each,
                                   std::string& error) {
    error.clear();
    std::vector<std::string> tables;
    if (!database_tables(db_, packed_prefix, 8, tables)) {
        note(SQLITE_ERROR, error);
        return false;
    }
    const std::string first = packed_table(from);
    bool more = test >= 0 && test <= max_test;
    for (auto table = tables.rbegin(); more && table != tables.rend() && *table >= first; ++table) {
        more = chunks_of(*table, test, from, wanted, each, more, error) && more;
    }
    return error.empty();
}

bool sqlite_reader::for_each_roll_up(resolution r, int64_t test, int64_t from, int64_t to,
                                     const std::function<void(int64_t, std::string_view)>& each,
                                     std::string& error) {
    error.clear();
    from = std::clamp<int64_t>(from, 0, days_end);
    to = std::clamp<int64_t>(to, 0, days_end);
    if (from >= to || test < 0 || test > max_test) {
        return true;
    }
    std::vector<std::string> tables;
    if (!database_tables(db_, roll_up_prefix(r), 6, tables)) {
        note(SQLITE_ERROR, error);
        return false;
    }
    auto table = std::lower_bound(tables.begin(), tables.end(), roll_up_table(r, from));
    const std::string last = roll_up_table(r, to - 1);
    for (bool more = true; more && table != tables.end() && *table <= last; ++table) {
        auto rows =
            take("SELECT id, data FROM " + *table + " WHERE id >= ? AND id < ? ORDER BY id");
        rows->bind(roll_up_key(test, from)).bind(roll_up_key(test, to - 1) + 1);
        more = each_row(
            *rows, [&] { return each(rows->integer(0) & (days_end - 1), rows->bytes(1)), true; },
            error);
    }
    return error.empty();
}

/* ---- what else there is ---- */

bool sqlite_reader::for_each_event(const event_filter& which,
                                   const std::function<bool(const stored_event&)>& each,
                                   std::string& error) {
    error.clear();
    if (which.from >= which.to) {
        return true;
    }
    std::string sql = "SELECT id, time, agent, test, from_state, to_state, message FROM events "
                      "WHERE ";
    sql += which.test != 0    ? "test = ?1 AND "
           : which.agent != 0 ? "agent = ?1 AND "
                              : "?1 = 0 AND ";
    sql += "time >= ?2 AND time < ?3 AND (time < ?4 OR id < ?5) ORDER BY time DESC, id DESC";
    auto rows = take(sql);
    rows->bind(which.test != 0 ? which.test : which.agent);
    rows->bind(which.from).bind(which.to).bind(which.to - 1).bind(which.below);
    auto each_event = [&] {
        stored_event event{.id = rows->integer(0),
                           .time = rows->integer(1),
                           .agent = rows->integer(2),
                           .test = rows->integer(3),
                           .from = static_cast<uint8_t>(rows->integer(4)),
                           .to = static_cast<uint8_t>(rows->integer(5)),
                           .message = rows->bytes(6)};
        return each(event);
    };
    each_row(*rows, each_event, error);
    return error.empty();
}

bool sqlite_reader::for_each_ledger_row(int64_t agent, int64_t from, int64_t to,
                                        const std::function<bool(const ledger_row&)>& each,
                                        std::string& error) {
    error.clear();
    auto rows = take(
        agent != 0
            ? "SELECT agent, hour, received, repeated, missing FROM ledger WHERE agent = ?3 AND "
              "hour >= ?1 AND hour < ?2 ORDER BY hour"
            : "SELECT agent, hour, received, repeated, missing FROM ledger WHERE hour >= ?1 AND "
              "hour < ?2 AND ?3 = 0 ORDER BY hour, agent");
    rows->bind(from).bind(to).bind(agent);
    auto each_hour = [&] {
        ledger_row row{.agent = rows->integer(0),
                       .hour = rows->integer(1),
                       .received = static_cast<uint64_t>(rows->integer(2)),
                       .repeated = static_cast<uint64_t>(rows->integer(3)),
                       .missing = static_cast<uint64_t>(rows->integer(4))};
        return each(row);
    };
    each_row(*rows, each_hour, error);
    return error.empty();
}

bool sqlite_reader::read_inventory(int64_t agent, uint32_t type, int64_t time,
                                   const std::function<void(const stored_inventory&)>& each,
                                   std::string& error) {
    error.clear();
    auto row = take("SELECT id, received, time, record FROM inventories WHERE agent = ? AND "
                    "type = ? AND time <= ? ORDER BY time DESC, id DESC LIMIT 1");
    row->bind(agent).bind(int64_t{type}).bind(time);
    auto found = [&] {
        each({.row = row->integer(0),
              .agent = agent,
              .type = type,
              .received = row->integer(1),
              .time = row->integer(2),
              .record = row->bytes(3)});
        return true;
    };
    each_row(*row, found, error);
    return error.empty();
}

bool sqlite_reader::has_definitions(int64_t agent) {
    return take("SELECT 1 FROM definitions WHERE agent = ? LIMIT 1")->bind(agent).row();
}

/* A row of type, number, location, since, name, text, title and team. */
static test_definition definition_of(const statement& row, int64_t agent) {
    return {.agent = agent,
            .type = static_cast<uint32_t>(row.integer(0)),
            .number = static_cast<int32_t>(row.integer(1)),
            .location = static_cast<int32_t>(row.integer(2)),
            .since = row.integer(3),
            .name = row.bytes(4),
            .text = row.bytes(5),
            .title = row.bytes(6),
            .group = row.bytes(7)};
}

bool sqlite_reader::read_definition(
    int64_t agent, uint32_t type, int32_t number, std::optional<int32_t> location, int64_t time,
    const std::function<void(const test_definition&, int64_t until)>& each, std::string& error) {
    error.clear();
    const std::string which = std::string("WHERE agent = ?1 AND type = ?2 AND number = ?3 AND ") +
                              (location ? "location = ?4 " : "?4 = 0 ");
    const std::string sql = "SELECT type, number, location, since, name, text, title, team, "
                            "(SELECT min(since) FROM definitions " +
                            which + "AND id > d.id) FROM definitions d " + which;
    bool found = false;
    auto read = [&](statement& row) {
        auto take_it = [&] {
            found = true;
            each(definition_of(row, agent),
                 row.is_null(8) ? std::numeric_limits<int64_t>::max() : row.integer(8));
            return true;
        };
        row.bind(agent).bind(int64_t{type}).bind(int64_t{number});
        row.bind(int64_t{location.value_or(0)}).bind(time);
        return each_row(row, take_it, error);
    };
    auto last = take(sql + "AND since <= ?5 ORDER BY id DESC LIMIT 1");
    if (read(*last) && !found) {
        auto first = take(sql + "AND ?5 = ?5 ORDER BY id LIMIT 1");
        read(*first);
    }
    return error.empty();
}

bool sqlite_reader::for_each_definition(int64_t agent, uint32_t type, int32_t number,
                                        const std::function<void(const test_definition&)>& each,
                                        std::string& error) {
    error.clear();
    std::string sql = "SELECT type, number, location, since, name, text, title, team FROM "
                      "definitions WHERE agent = ?1 ";
    sql += number != 0 ? "AND type = ?2 AND number = ?3 ORDER BY id"
           : type != 0 ? "AND type = ?2 AND ?3 = 0 ORDER BY number, id"
                       : "AND ?2 = ?3 ORDER BY type, number, id";
    auto rows = take(sql);
    rows->bind(agent).bind(int64_t{type}).bind(int64_t{number});
    auto each_definition = [&] {
        each(definition_of(*rows, agent));
        return true;
    };
    each_row(*rows, each_definition, error);
    return error.empty();
}

std::unique_ptr<result_reader> open_reader(const std::string& directory, std::string& error) {
    auto reader = std::make_unique<sqlite_reader>();
    return reader->open(directory, error) ? std::move(reader) : nullptr;
}

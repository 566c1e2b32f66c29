#include "store/sqlite/sqlite_settings.h"

namespace {

constexpr int most_sessions = 1000; /* of a token, or by links */

const char columns[] = "SELECT id, kind, role, name, hash, made, ends, parent FROM tokens ";

/* False for what add_token() has not written. */
bool read_token(const statement& row, stored_token& out) {
    int64_t kind = row.integer(1), role = row.integer(2);
    if (kind < 1 || kind > 3 || role < 0 || role > 255 || !read_hash(row.bytes(4), out.hash)) {
        return false;
    }
    out.id = row.integer(0);
    out.kind = static_cast<token_kind>(kind);
    out.role = static_cast<uint8_t>(role);
    out.name = row.bytes(3);
    out.made = row.integer(5);
    out.ends = row.integer(6);
    out.parent = row.integer(7);
    return true;
}

} // namespace

bool sqlite_settings::add_token(const stored_token& what, int64_t& id, std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto add = [&](bool& wanted) {
        statement ended(db(), "DELETE FROM tokens WHERE ends > 0 AND ends <= ?");
        if (!ended.bind(what.made).run()) {
            return false;
        }
        if (what.kind == token_kind::token) {
            statement same(db(), "SELECT count(*) FROM tokens WHERE kind = 1 AND name = ?");
            if (!same.bind_text(what.name).row()) {
                return false;
            }
            if (same.integer(0) > 0) {
                return true;
            }
        } else {
            statement oldest(db(),
                             "DELETE FROM tokens WHERE id IN (SELECT id FROM tokens WHERE kind = ?"
                             "  AND parent = ? ORDER BY id DESC LIMIT -1 OFFSET ?)");
            oldest.bind(int64_t(what.kind)).bind(what.parent);
            if (!oldest.bind(int64_t{most_sessions - 1}).run()) {
                return false;
            }
        }
        if (what.kind == token_kind::session && what.parent != 0) {
            /* It may have been removed since it was looked at. */
            statement parent(db(), "SELECT count(*) FROM tokens WHERE id = ?");
            if (!parent.bind(what.parent).row()) {
                return false;
            }
            if (parent.integer(0) == 0) {
                return true;
            }
        }
        statement insert(db(), "INSERT INTO tokens(kind, role, name, hash, made, ends, parent)"
                               " VALUES (?, ?, ?, ?, ?, ?, ?)");
        wanted = insert.bind(int64_t(what.kind))
                     .bind(int64_t{what.role})
                     .bind_text(what.name)
                     .bind_blob(bytes_of(what.hash))
                     .bind(what.made)
                     .bind(what.ends)
                     .bind(what.parent)
                     .run();
        id = sqlite3_last_insert_rowid(db());
        return wanted;
    };
    return change(add, error);
}

bool sqlite_settings::drop_token(int64_t id, std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto drop = [&](bool& wanted) {
        statement gone(db(), "DELETE FROM tokens WHERE id = ?");
        if (!gone.bind(id).run()) {
            return false;
        }
        wanted = sqlite3_changes(db()) > 0;
        statement sessions(db(), "DELETE FROM tokens WHERE parent = ?");
        return sessions.bind(id).run();
    };
    return change(drop, error);
}

bool sqlite_settings::for_each_token(const std::function<void(const stored_token&)>& each,
                                     std::string& error) {
    return each_row(std::string(columns) + "ORDER BY id", read_token, each, error);
}

bool sqlite_settings::find_token(const token_hash& hash, int64_t now,
                                 std::optional<stored_token>& found, std::string& error) {
    const turn mine(*this);
    found.reset();
    if (!ready(error)) {
        return false;
    }
    stored_token row;
    {
        statement one(db(), std::string(columns) + "WHERE hash = ?");
        one.bind_blob(bytes_of(hash));
        int result = one.step();
        if (result == SQLITE_DONE) {
            return true;
        }
        if (result != SQLITE_ROW) {
            one = statement();
            return fail(error);
        }
        if (!read_token(one, row) || (row.ends > 0 && row.ends <= now)) {
            return true;
        }
    }
    if (row.kind == token_kind::link) {
        auto use = [&](bool& wanted) {
            statement gone(db(), "DELETE FROM tokens WHERE id = ?");
            bool done = gone.bind(row.id).run();
            wanted = done && sqlite3_changes(db()) > 0; /* not when another was quicker */
            return done;
        };
        if (!change(use, error)) {
            return error.empty();
        }
    }
    found = std::move(row);
    return true;
}

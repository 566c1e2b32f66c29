#include "store/sqlite/sqlite_settings.h"

namespace {

constexpr char last_secret[] = "last_secret"; /* a fact: the serial that was given last */

bool read_secret(const statement& row, stored_secret& out) {
    out.name = row.bytes(0);
    out.sealed = row.bytes(1);
    out.by = row.bytes(2);
    out.made = row.integer(3);
    out.serial = static_cast<uint64_t>(row.integer(4));
    return !out.name.empty() && !out.sealed.empty() && row.integer(4) > 0;
}

} // namespace

bool sqlite_settings::for_each_secret(const std::function<void(const stored_secret&)>& each,
                                      std::string& error) {
    return each_row("SELECT name, sealed, who, made, serial FROM secrets ORDER BY name",
                    read_secret, each, error);
}

bool sqlite_settings::put_secret(const stored_secret& what, std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto put = [&](bool& wanted) {
        const int64_t serial = database_fact(db(), last_secret).value_or(0) + 1;
        statement insert(db(), "INSERT OR REPLACE INTO secrets(name, sealed, who, made, serial)"
                               " VALUES (?, ?, ?, ?, ?)");
        wanted = database_set_fact(db(), last_secret, serial) && insert.bind_text(what.name)
                                                                     .bind_blob(what.sealed)
                                                                     .bind_text(what.by)
                                                                     .bind(what.made)
                                                                     .bind(serial)
                                                                     .run();
        return wanted;
    };
    return change(put, error);
}

bool sqlite_settings::drop_secret(std::string_view name, std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto drop = [&](bool& wanted) {
        statement gone(db(), "DELETE FROM secrets WHERE name = ?");
        bool done = gone.bind_text(name).run();
        wanted = done && sqlite3_changes(db()) > 0;
        return done;
    };
    return change(drop, error);
}

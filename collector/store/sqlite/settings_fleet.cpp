#include "store/sqlite/sqlite_settings.h"

#include <limits>

namespace {

bool read_copy(const statement& row, fleet_copy& out) {
    out.newest = static_cast<int32_t>(row.integer(0));
    out.revision = static_cast<int32_t>(row.integer(1));
    out.time = row.integer(2);
    out.author = row.bytes(3);
    out.text = row.bytes(4);
    auto is_revision = [](int64_t number) {
        return number >= 0 && number <= std::numeric_limits<int32_t>::max();
    };
    return is_revision(row.integer(0)) && is_revision(row.integer(1));
}

} // namespace

bool sqlite_settings::keep_fleet(const fleet_copy& what, std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto keep = [&](bool& wanted) {
        statement put(db(), "INSERT INTO fleet(id, newest, revision, time, author, text)"
                            " VALUES (1, ?, ?, ?, ?, ?) ON CONFLICT(id) DO UPDATE SET"
                            " newest = max(newest, excluded.newest), revision = excluded.revision,"
                            " time = excluded.time, author = excluded.author,"
                            " text = excluded.text");
        put.bind(int64_t{what.newest}).bind(int64_t{what.revision}).bind(what.time);
        wanted = put.bind_text(what.author).bind_text(what.text).run();
        return wanted;
    };
    return change(keep, error, true);
}

bool sqlite_settings::read_fleet_copy(std::optional<fleet_copy>& found, std::string& error) {
    found.reset();
    auto note = [&](const fleet_copy& what) { found = what; };
    return each_row<fleet_copy>("SELECT newest, revision, time, author, text FROM fleet WHERE id = "
                                "1",
                                read_copy, note, error);
}

#include "store/sqlite/check.h"

#include "base/text.h"
#include "protocol/record.h"
#include "store/pack.h"

#include <algorithm>
#include <limits>

namespace {

class checker {
public:
    checker(sqlite3* db, const std::function<void(const std::string&)>& found,
            const whole_texts& is_whole)
        : db_(db), found_(found), is_whole_(is_whole) {}

    void pages();
    void agents();
    void owners();
    void blocks();
    void chains();
    void chunks();
    void roll_ups(resolution r);
    void fleet();

private:
    /* Calls each(row), and says so when not all rows can be read. */
    template <typename Do>
    void for_each_row(const std::string& what, const std::string& sql, Do each);
    void chunk(const std::string& table, const statement& row);
    void roll_up(const std::string& table, resolution r, const statement& row);

    sqlite3* const db_;
    const std::function<void(const std::string&)>& found_;
    const whole_texts& is_whole_;
};

template <typename Do>
void checker::for_each_row(const std::string& what, const std::string& sql, Do each) {
    statement rows(db_, sql);
    int result;
    while ((result = rows.step()) == SQLITE_ROW) {
        each(rows);
    }
    if (result != SQLITE_DONE) {
        found_(what + " cannot be read: " + sqlite3_errmsg(db_));
    }
}

std::string number(int64_t value) {
    return std::to_string(value);
}

void checker::pages() {
    for_each_row("the file", "PRAGMA integrity_check", [this](const statement& row) {
        if (row.bytes(0) != "ok") {
            found_(printable(row.bytes(0)));
        }
    });
}

void checker::agents() {
    if (!is_whole_.state) {
        return;
    }
    for_each_row("agents", "SELECT id, state FROM agents", [this](const statement& row) {
        if (!row.bytes(1).empty() && !is_whole_.state(row.bytes(1))) {
            found_("the state of agent " + number(row.integer(0)) + " is damaged");
        }
    });
}

/* What hangs on an agent or a test that there is not. */
void checker::owners() {
    for (const char* table : {"tests", "blocks", "events", "ledger", "inventories"}) {
        for_each_row(table,
                     std::string("SELECT agent, count(*) FROM ") + table +
                         " WHERE agent NOT IN (SELECT id FROM agents) GROUP BY agent",
                     [&](const statement& row) {
                         found_(std::string(table) + ": " + number(row.integer(1)) + " of agent " +
                                number(row.integer(0)) + ", which there is not");
                     });
    }
    for_each_row(
        "events",
        "SELECT test, count(*) FROM events WHERE test <> 0 AND test NOT IN (SELECT id FROM "
        "tests) GROUP BY test",
        [&](const statement& row) {
            found_("events: " + number(row.integer(1)) + " of test " + number(row.integer(0)) +
                   ", which there is not");
        });
}

void checker::blocks() {
    for_each_row("blocks", "SELECT id, records FROM blocks", [this](const statement& row) {
        for (block_reader reader(row.bytes(1)); reader.next();) {
            if (!reader.good) {
                found_("block " + number(row.integer(0)) + ": at " + std::to_string(reader.offset) +
                       ": " + reader.reason);
                break;
            }
        }
    });
}

/* Blocks are found by going back from an agent's last one. */
void checker::chains() {
    for_each_row("blocks",
                 "SELECT b.id, b.before, b.agent, p.agent FROM blocks b LEFT JOIN blocks p ON p.id "
                 "= b.before WHERE b.before >= b.id OR p.agent <> b.agent",
                 [this](const statement& row) {
                     found_("block " + number(row.integer(0)) + " of agent " +
                            number(row.integer(2)) + " follows block " + number(row.integer(1)) +
                            (row.integer(1) >= row.integer(0)
                                 ? std::string(", which came later")
                                 : " of agent " + number(row.integer(3))));
                 });
    for_each_row("blocks",
                 "SELECT agent, count(*) FROM blocks WHERE id NOT IN (SELECT before FROM blocks) "
                 "GROUP BY agent HAVING count(*) > 1",
                 [this](const statement& row) {
                     found_("blocks of agent " + number(row.integer(0)) + ": " +
                            number(row.integer(1)) + " are followed by none");
                 });
}

void checker::chunk(const std::string& table, const statement& row) {
    int64_t id = row.integer(0), test = id >> received_bits, last = row.integer(2);
    auto wrong = [&](const std::string& why) {
        found_(table + ": chunk " + number(id) + " of test " + number(test) + " " + why);
    };
    if (row.is_null(5)) {
        wrong("is of a test that there is not");
    }
    if (packed_table(last) != table) {
        wrong("is of another day");
    }
    int64_t records = 0, latest = std::numeric_limits<int64_t>::min();
    bool readable = true;
    std::string reason;
    bool whole = unpack_chunk(row.bytes(4), [&](const arrived_record& one) {
        record r;
        readable = readable && decode_record(one.record, r, reason);
        records++;
        latest = std::max(latest, one.received);
        return true;
    });
    if (!whole) {
        wrong("is damaged");
    } else if (!readable) {
        wrong("holds what is no record: " + reason);
    } else if (records != row.integer(3) || latest > last) {
        wrong("holds other results than its row says");
    }
}

void checker::chunks() {
    std::vector<std::string> tables;
    if (!database_tables(db_, packed_prefix, 8, tables)) {
        found_(std::string("the tables cannot be listed: ") + sqlite3_errmsg(db_));
    }
    for (const std::string& table : tables) {
        for_each_row(table,
                     "SELECT p.id, p.received_first, p.received_last, p.results, p.data, t.id "
                     "FROM " +
                         table + " p LEFT JOIN tests t ON t.id = p.id >> " + number(received_bits) +
                         " ORDER BY p.id",
                     [&](const statement& row) { chunk(table, row); });
    }
}

void checker::roll_up(const std::string& table, resolution r, const statement& row) {
    int64_t id = row.integer(0), day = id & (days_end - 1);
    auto wrong = [&](const std::string& why) {
        found_(table + ": test " + number(id >> day_bits) + " on day " + number(day) + " " + why);
    };
    if (row.is_null(2)) {
        wrong("is a test that there is not");
    }
    if (roll_up_table(r, day) != table) {
        wrong("is of another month");
    }
    uint32_t width = r == resolution::hour ? 3600 : 300;
    std::vector<bucket> buckets;
    if (!unpack_roll_up(row.bytes(1), buckets)) {
        wrong("is damaged");
    } else if (std::any_of(buckets.begin(), buckets.end(), [width](const bucket& one) {
                   return one.start % width != 0 || one.start >= 86400;
               })) {
        wrong("has times that are none of its resolution");
    }
}

void checker::roll_ups(resolution r) {
    std::vector<std::string> tables;
    if (!database_tables(db_, roll_up_prefix(r), 6, tables)) {
        found_(std::string("the tables cannot be listed: ") + sqlite3_errmsg(db_));
    }
    for (const std::string& table : tables) {
        for_each_row(table,
                     "SELECT p.id, p.data, t.id FROM " + table +
                         " p LEFT JOIN tests t ON t.id = p.id >> " + number(day_bits) +
                         " ORDER BY p.id",
                     [&](const statement& row) { roll_up(table, r, row); });
    }
}

void checker::fleet() {
    for_each_row("definitions",
                 "SELECT agent, count(*) FROM definitions WHERE agent <> 0 AND agent NOT IN "
                 "(SELECT id FROM agents) GROUP BY agent",
                 [this](const statement& row) {
                     found_("definitions: " + number(row.integer(1)) + " of agent " +
                            number(row.integer(0)) + ", which there is not");
                 });
    for_each_row("fleet_revisions",
                 "SELECT revision FROM fleet_revisions WHERE revision NOT BETWEEN 1 AND 2147483647 "
                 "OR typeof(text) NOT IN ('text', 'null')",
                 [this](const statement& row) {
                     found_("revision " + number(row.integer(0)) + " of the fleet is none");
                 });
    for_each_row("fleet_agents", "SELECT id, account, agent, assigned FROM fleet_agents",
                 [this](const statement& row) {
                     if (is_whole_.assigned && !is_whole_.assigned(row.bytes(3))) {
                         found_("what " + printable(row.bytes(1)) + "/" + printable(row.bytes(2)) +
                                " was given of the fleet is damaged");
                     }
                 });
    for_each_row("fleet_changes",
                 "SELECT id, outcome FROM fleet_changes WHERE outcome NOT BETWEEN 1 AND 4",
                 [this](const statement& row) {
                     found_("change " + number(row.integer(0)) + " has outcome " +
                            number(row.integer(1)) + ", which there is not");
                 });
}

} // namespace

void check_database(sqlite3* db, database_layout layout,
                    const std::function<void(const std::string&)>& found,
                    const whole_texts& is_whole) {
    checker look(db, found, is_whole);
    look.pages();
    look.agents();
    look.owners();
    look.blocks();
    look.chains();
    look.chunks();
    look.roll_ups(resolution::five_minutes);
    look.roll_ups(resolution::hour);
    if (layout == database_layout::current) {
        look.fleet();
    }
}

bool check_store(const std::string& directory, const std::function<void(const std::string&)>& found,
                 std::string& error, const whole_texts& is_whole) {
    database db;
    database_layout layout{};
    if (!database_open_reading(directory, db, error, &layout)) {
        return false;
    }
    check_database(db.get(), layout, found, is_whole);
    return true;
}

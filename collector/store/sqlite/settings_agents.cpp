#include "store/sqlite/sqlite_settings.h"

#include <algorithm>
#include <limits>

namespace {

constexpr size_t longest_name = 254; /* bytes */
constexpr int64_t kept_after_end_s = 24 * 60 * 60;
constexpr int64_t last_generation = std::numeric_limits<uint32_t>::max();

const char identity_columns[] =
    "SELECT account, agent, admitted, who, highest, good_from, revoked, key_hash, authority,"
    "  issued, ends, knows FROM identities ";
const char enrolment_columns[] =
    "SELECT hash, account, agent, who, made, ends, key_hash, generation FROM enrolments ";

bool are_names(std::string_view account, std::string_view agent, std::string& error) {
    if (!is_agent_name(account) || !is_agent_name(agent)) {
        error = "an account or agent has 1 to 254 bytes and no control characters";
        return false;
    }
    return true;
}

bool read_generation(int64_t number, uint32_t& out) {
    out = static_cast<uint32_t>(number);
    return number >= 0 && number <= last_generation;
}

bool read_identity(const statement& row, stored_identity& out) {
    out.account = row.bytes(0);
    out.agent = row.bytes(1);
    out.admitted = row.integer(2);
    out.by = row.bytes(3);
    out.revoked = row.integer(6);
    out.issued = row.integer(9);
    out.ends = row.integer(10);
    return is_agent_name(out.account) && is_agent_name(out.agent) &&
           read_generation(row.integer(4), out.highest) &&
           read_generation(row.integer(5), out.good_from) && read_hash(row.bytes(7), out.key) &&
           read_hash(row.bytes(8), out.authority) && read_hash(row.bytes(11), out.knows);
}

bool read_enrolment(const statement& row, stored_enrolment& out) {
    out.account = row.bytes(1);
    out.agent = row.bytes(2);
    out.by = row.bytes(3);
    out.made = row.integer(4);
    out.ends = row.integer(5);
    if (!row.is_null(6)) {
        if (!read_hash(row.bytes(6), out.key.emplace())) {
            return false;
        }
    }
    return is_agent_name(out.account) && is_agent_name(out.agent) &&
           read_hash(row.bytes(0), out.hash) && read_generation(row.integer(7), out.generation);
}

} // namespace

bool is_agent_name(std::string_view text) {
    auto is_control = [](unsigned char c) { return c < ' ' || c == 0x7f; };
    return !text.empty() && text.size() <= longest_name &&
           std::none_of(text.begin(), text.end(), is_control);
}

/* What is kept of the name; all else stays as it is when there is nothing. */
bool sqlite_settings::find_identity(stored_identity& what) {
    statement one(db(), std::string(identity_columns) + "WHERE account = ? AND agent = ?");
    int result = one.bind_text(what.account).bind_text(what.agent).step();
    stored_identity found;
    if (result == SQLITE_ROW && read_identity(one, found)) {
        what = std::move(found);
    }
    return result == SQLITE_ROW || result == SQLITE_DONE;
}

bool sqlite_settings::write_identity(const stored_identity& what) {
    statement insert(db(),
                     "INSERT OR REPLACE INTO identities(account, agent, admitted, who,"
                     "  highest, good_from, revoked, key_hash, authority, issued, ends, knows)"
                     " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    return insert.bind_text(what.account)
        .bind_text(what.agent)
        .bind(what.admitted)
        .bind_text(what.by)
        .bind(int64_t{what.highest})
        .bind(int64_t{what.good_from})
        .bind(what.revoked)
        .bind_blob(bytes_of(what.key))
        .bind_blob(bytes_of(what.authority))
        .bind(what.issued)
        .bind(what.ends)
        .bind_blob(bytes_of(what.knows))
        .run();
}

bool sqlite_settings::for_each_identity(const std::function<void(const stored_identity&)>& each,
                                        std::string& error) {
    return each_row(std::string(identity_columns) + "ORDER BY account, agent", read_identity, each,
                    error);
}

bool sqlite_settings::put_identity(const stored_identity& what, std::string& error) {
    const turn mine(*this);
    if (!ready(error) || !are_names(what.account, what.agent, error)) {
        return false;
    }
    return change([&](bool& wanted) { return wanted = write_identity(what); }, error);
}

bool sqlite_settings::drop_identity(std::string_view account, std::string_view agent,
                                    std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto drop = [&](bool& wanted) {
        statement gone(db(), "DELETE FROM identities WHERE account = ? AND agent = ?");
        bool done = gone.bind_text(account).bind_text(agent).run();
        wanted = done && sqlite3_changes(db()) > 0;
        return done;
    };
    return change(drop, error);
}

bool sqlite_settings::change_identity(std::string_view account, std::string_view agent,
                                      const std::function<bool(stored_identity&)>& change,
                                      std::string& error) {
    const turn mine(*this);
    if (!ready(error) || !are_names(account, agent, error)) {
        return false;
    }
    auto work = [&](bool& wanted) {
        stored_identity what{.account = std::string(account), .agent = std::string(agent)};
        if (!find_identity(what)) {
            return false;
        }
        if (!change(what)) {
            return true;
        }
        what.account = account;
        what.agent = agent;
        return wanted = write_identity(what);
    };
    return settings_file::change(work, error);
}

bool sqlite_settings::admit_at_first(const std::vector<std::pair<std::string, std::string>>& names,
                                     int64_t now, size_t& admitted, std::string& error) {
    const turn mine(*this);
    admitted = 0;
    if (!ready(error)) {
        return false;
    }
    auto admit = [&](bool& wanted) {
        if (database_fact(db(), admitted_at_first)) {
            return true;
        }
        statement insert(db(), "INSERT INTO identities VALUES"
                               " (?, ?, ?, '', 0, 0, 0, zeroblob(32), zeroblob(32), 0, 0,"
                               "  zeroblob(32)) ON CONFLICT DO NOTHING");
        for (const auto& [account, agent] : names) {
            if (is_agent_name(account) && is_agent_name(agent)) {
                if (!insert.bind_text(account).bind_text(agent).bind(now).run()) {
                    return false;
                }
                admitted += static_cast<size_t>(sqlite3_changes(db()));
            }
        }
        return wanted = database_set_fact(db(), admitted_at_first, 1);
    };
    if (change(admit, error)) {
        return true;
    }
    admitted = 0;
    return error.empty();
}

bool sqlite_settings::find_enrolment(const token_hash& hash,
                                     std::optional<stored_enrolment>& found) {
    statement one(db(), std::string(enrolment_columns) + "WHERE hash = ?");
    int result = one.bind_blob(bytes_of(hash)).step();
    stored_enrolment row;
    if (result == SQLITE_ROW && read_enrolment(one, row)) {
        found = std::move(row);
    }
    return result == SQLITE_ROW || result == SQLITE_DONE;
}

bool sqlite_settings::write_enrolment(const stored_enrolment& what) {
    statement insert(db(),
                     "INSERT OR REPLACE INTO enrolments(hash, account, agent, who, made, ends,"
                     "  key_hash, generation) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    insert.bind_blob(bytes_of(what.hash)).bind_text(what.account).bind_text(what.agent);
    insert.bind_text(what.by).bind(what.made).bind(what.ends);
    if (what.key) {
        insert.bind_blob(bytes_of(*what.key));
    } else {
        insert.bind(std::optional<int64_t>());
    }
    return insert.bind(int64_t{what.generation}).run();
}

bool sqlite_settings::add_enrolment(const stored_enrolment& what, std::string& error) {
    const turn mine(*this);
    if (!ready(error) || !are_names(what.account, what.agent, error)) {
        return false;
    }
    auto add = [&](bool& wanted) {
        statement ended(db(), "DELETE FROM enrolments WHERE ends <= ?");
        return wanted = ended.bind(what.made - kept_after_end_s).run() && write_enrolment(what);
    };
    return change(add, error);
}

bool sqlite_settings::open_enrolment(const token_hash& hash, const token_hash& key,
                                     std::string_view account, std::string_view agent, int64_t now,
                                     opened& what, stored_enrolment& found, std::string& error) {
    const turn mine(*this);
    what = opened::no_token;
    if (!ready(error)) {
        return false;
    }
    auto use = [&](bool& wanted) {
        std::optional<stored_enrolment> row;
        if (!find_enrolment(hash, row)) {
            return false;
        }
        if (!row) {
            return true;
        }
        if ((!account.empty() && account != row->account) ||
            (!agent.empty() && agent != row->agent)) {
            what = opened::other_name;
            return true;
        }
        if (row->ends <= now || (row->key && *row->key != key)) {
            what = row->ends <= now ? opened::late : opened::used;
            return true;
        }
        found = *row;
        what = opened::yes;
        if (row->generation != 0) {
            return true; /* the answer was lost */
        }
        stored_identity of{.account = row->account, .agent = row->agent};
        if (!find_identity(of)) {
            return false;
        }
        if (of.highest == last_generation) {
            error = "no more certificates can be made for this name";
            return true;
        }
        of.highest++;
        if (of.revoked != 0) {
            of.good_from = std::max(of.good_from, of.highest); /* older ones stay revoked */
            of.revoked = 0;
            of.admitted = 0;
        }
        of.admitted = of.admitted != 0 ? of.admitted : now;
        of.by = row->by;
        found.key = key;
        found.generation = of.highest;
        return wanted = write_identity(of) && write_enrolment(found);
    };
    return change(use, error) || error.empty();
}

bool sqlite_settings::drop_enrolments(std::string_view account, std::string_view agent,
                                      std::string& error) {
    const turn mine(*this);
    if (!ready(error)) {
        return false;
    }
    auto drop = [&](bool& wanted) {
        statement gone(db(), "DELETE FROM enrolments"
                             " WHERE account = ? AND agent = ? AND generation = 0");
        bool done = gone.bind_text(account).bind_text(agent).run();
        wanted = done && sqlite3_changes(db()) > 0;
        return done;
    };
    return change(drop, error) || error.empty();
}

bool sqlite_settings::for_each_enrolment(const std::function<void(const stored_enrolment&)>& each,
                                         std::string& error) {
    return each_row(std::string(enrolment_columns) + "ORDER BY account, agent, made, hash",
                    read_enrolment, each, error);
}

/* Reading for everybody but the writer: a connection of its own, and a transaction that shows one
 * state of the file. */
#include "base/text.h"
#include "store/engine.h"
#include "store/sqlite/database.h"
#include "store/sqlite/latest.h"

#include <algorithm>
#include <tuple>

namespace {

constexpr size_t looked_up_at_once = 100000; /* results, or one agent's */

/* A result to look up: the day of its table, its id there, and whose it is. */
struct wanted_row {
    std::string day;
    int64_t row;
    size_t agent;
};

struct agent_name {
    int64_t id;
    std::string account, name;
};

class sqlite_reader final : public result_reader {
public:
    bool open(const std::string& directory, std::string& error) {
        place_ = database_path(directory);
        return database_open_reading(directory, db_, error);
    }
    std::string place() const override { return place_; }

    bool for_each_agent(const std::function<void(const known_agent&)>& each,
                        std::string& error) override {
        statement rows(db_.get(), "SELECT account, name, address, version, first_seen, last_seen "
                                  "FROM agents ORDER BY id");
        return for_each(
            rows, [&] { each(agent_of(rows)); }, error);
    }

    bool for_each_latest(const std::function<void(const latest_result&)>& each,
                         std::string& error) override;

    bool for_each_tested(
        const std::function<void(const known_agent&, std::span<const latest_entry>)>& each,
        std::string& error) override {
        statement rows(db_.get(), "SELECT account, name, address, version, first_seen, last_seen, "
                                  "latest FROM agents ORDER BY account, name");
        latest_results latest;
        auto each_row = [&] {
            latest.unpack(rows.bytes(6));
            each(agent_of(rows), latest.entries());
        };
        return for_each(rows, each_row, error);
    }

private:
    static known_agent agent_of(const statement& row) {
        return {.account = row.bytes(0),
                .agent = row.bytes(1),
                .address = row.bytes(2),
                .version = row.bytes(3),
                .first_seen = row.integer(4),
                .last_seen = row.integer(5)};
    }

    template <typename Do>
    bool for_each(statement& rows, Do each, std::string& error) {
        int result = SQLITE_ERROR;
        while (rows.ok() && (result = rows.step()) == SQLITE_ROW) {
            each();
        }
        error = result == SQLITE_DONE ? "" : sqlite3_errmsg(db_.get());
        return result == SQLITE_DONE;
    }

    bool look_up(const std::vector<agent_name>& agents, std::vector<wanted_row>& wanted,
                 const std::vector<std::string>& days,
                 const std::function<void(const latest_result&)>& each, std::string& error);

    std::string place_;
    database db_;
};

/* The last results of some agents, in the order in which the tables have them. A row that is gone
 * with its day is passed over, and so is one that is damaged, which is an error in the end: then
 * `error` says so, and true is returned all the same. */
bool sqlite_reader::look_up(const std::vector<agent_name>& agents, std::vector<wanted_row>& wanted,
                            const std::vector<std::string>& days,
                            const std::function<void(const latest_result&)>& each,
                            std::string& error) {
    std::sort(wanted.begin(), wanted.end(), [](const wanted_row& a, const wanted_row& b) {
        return std::tie(a.day, a.row) < std::tie(b.day, b.row);
    });
    statement select;
    bool ok = true;
    for (size_t i = 0; ok && i < wanted.size(); i++) {
        const wanted_row& w = wanted[i];
        std::string table = "results_" + w.day;
        if (!std::binary_search(days.begin(), days.end(), table)) {
            continue;
        }
        if (i == 0 || wanted[i - 1].day != w.day) {
            select = statement(db_.get(), "SELECT received, record FROM " + table +
                                              " WHERE id = ? AND agent = ?");
        }
        select.bind(w.row).bind(agents[w.agent].id);
        int result = select.step();
        if (result == SQLITE_ROW) {
            each({.account = agents[w.agent].account,
                  .agent = agents[w.agent].name,
                  .received = select.integer(0),
                  .record = select.bytes(1)});
        }
        if (database_is_damaged(result)) {
            error = sqlite3_errmsg(db_.get());
        }
        select.reset();
        ok = result == SQLITE_ROW || result == SQLITE_DONE || database_is_damaged(result);
    }
    return ok;
}

/* Some agents at a time: all of a large fleet's would take much memory. */
bool sqlite_reader::for_each_latest(const std::function<void(const latest_result&)>& each,
                                    std::string& error) {
    error.clear();
    std::vector<agent_name> agents;
    std::vector<wanted_row> wanted;
    std::vector<std::string> days;
    latest_results latest;
    bool ok = database_days(db_.get(), days);
    statement query(db_.get(), "SELECT id, account, name, latest FROM agents ORDER BY id");
    int result = SQLITE_ERROR;
    while (ok && query.ok() && (result = query.step()) == SQLITE_ROW) {
        latest.unpack(query.bytes(3));
        for (const latest_entry& e : latest.entries()) {
            wanted.push_back({utc_day(e.received), e.row, agents.size()});
        }
        agents.push_back(
            {query.integer(0), std::string(query.bytes(1)), std::string(query.bytes(2))});
        if (wanted.size() >= looked_up_at_once) {
            ok = look_up(agents, wanted, days, each, error);
            agents.clear();
            wanted.clear();
        }
    }
    ok = ok && result == SQLITE_DONE && look_up(agents, wanted, days, each, error);
    if (!ok) {
        error = sqlite3_errmsg(db_.get());
    }
    return error.empty();
}

} // namespace

std::unique_ptr<result_reader> open_reader(const std::string& directory, std::string& error) {
    auto reader = std::make_unique<sqlite_reader>();
    return reader->open(directory, error) ? std::move(reader) : nullptr;
}

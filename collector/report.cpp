#include "report.h"

#include "database.h"
#include "plan.h"
#include "schema.h"
#include "text.h"

#include <map>
#include <tuple>

namespace {

struct agent_row {
    int64_t id;
    std::string account, name;
};

/* Agent, record type, test id. */
using test_of_agent = std::tuple<int64_t, uint32_t, int32_t>;

struct last_result {
    bool found = false;
    int64_t time = 0;
    int32_t status = 0;
};
using result_map = std::map<test_of_agent, last_result>;

bool read_agents(sqlite3* db, std::vector<agent_row>& agents) {
    statement query(db, "SELECT id, account, name FROM agents ORDER BY account, name");
    if (!query.ok()) {
        return false;
    }
    int result;
    while ((result = query.step()) == SQLITE_ROW) {
        agents.push_back(
            {query.integer(0), std::string(query.bytes(1)), std::string(query.bytes(2))});
    }
    return result == SQLITE_DONE;
}

/* Goes through the days from the last one back, and ends as soon as every test has been found. */
bool read_last_results(sqlite3* db, int64_t since, result_map& wanted) {
    std::vector<std::string> days;
    if (!database_days(db, days)) {
        return false;
    }
    size_t open = wanted.size();
    for (auto day = days.rbegin(); day != days.rend() && open > 0; ++day) {
        if (*day < "results_" + utc_day(since)) {
            break;
        }
        statement query(db, "SELECT agent, type, test, time, status FROM " + *day +
                                " WHERE received >= ? AND test IS NOT NULL ORDER BY id DESC");
        if (!query.ok()) {
            return false;
        }
        query.bind(since);
        int result = SQLITE_DONE;
        while (open > 0 && (result = query.step()) == SQLITE_ROW) {
            auto found = wanted.find({query.integer(0), static_cast<uint32_t>(query.integer(1)),
                                      static_cast<int32_t>(query.integer(2))});
            if (found != wanted.end() && !found->second.found) {
                found->second = {true, query.integer(3), static_cast<int32_t>(query.integer(4))};
                open--;
            }
        }
        if (open > 0 && result != SQLITE_DONE) {
            return false;
        }
    }
    return true;
}

void print_test(std::ostream& out, const agent_row& agent, const planned_test& test,
                const last_result& last, missing_count& count) {
    ++(last.found ? count.stored : count.missing);
    out << (last.found ? "stored" : "missing") << '\t' << printable(agent.account) << '\t'
        << printable(agent.name) << '\t' << type_name(test.type) << '\t' << test.id;
    if (last.found) {
        out << '\t' << utc_time(last.time) << '\t' << status_word(test.type, last.status);
    }
    out << '\n';
}

} // namespace

bool print_missing(const std::string& directory, const std::string& plan_path, int64_t since,
                   std::ostream& out, missing_count& count, std::string& error) {
    count = {};
    std::string unreadable;
    plan planned(plan_path, [&](const plan_problem& p) {
        if (p.number == 0) {
            unreadable = p.reason;
        } else {
            ++count.refused;
            out << "problem\tline " << p.number << ": " << p.reason << '\n';
        }
    });
    if (!planned.refresh()) {
        error = unreadable;
        return false;
    }
    database db;
    if (!database_open_reading(directory, db, error)) {
        return false;
    }
    std::vector<planned_test> tests = planned_tests(planned.lines());
    std::vector<agent_row> agents;
    result_map results;
    bool read = read_agents(db.get(), agents);
    for (const agent_row& agent : agents) {
        for (const planned_test& test : tests) {
            results[{agent.id, test.type, test.id}] = {};
        }
    }
    if (!read || !read_last_results(db.get(), since, results)) {
        error = database_path(directory) + ": " + sqlite3_errmsg(db.get());
        return false;
    }
    if (agents.empty()) {
        agents.push_back({0, "-", "-"});
    }
    for (const agent_row& agent : agents) {
        for (const planned_test& test : tests) {
            print_test(out, agent, test, results[{agent.id, test.type, test.id}], count);
        }
    }
    return true;
}

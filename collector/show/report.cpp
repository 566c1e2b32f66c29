#include "show/report.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "plan/plan.h"
#include "store/database.h"
#include "store/latest.h"

#include <algorithm>
#include <functional>

namespace {

struct agent_row {
    int64_t last_seen = 0;
    std::string account = "-", name = "-";
    latest_results latest;
};

bool too_old(const missing_age& age, int64_t received) {
    return age.older_than &&
           (received < age.now - *age.older_than || received > age.now + *age.older_than);
}

/* Calls each() with every agent, by account and name. */
bool read_agents(sqlite3* db, const std::function<void(agent_row&)>& each) {
    statement query(db,
                    "SELECT last_seen, account, name, latest FROM agents ORDER BY account, name");
    int result = SQLITE_ERROR;
    while (query.ok() && (result = query.step()) == SQLITE_ROW) {
        agent_row agent{query.integer(0), std::string(query.bytes(1)), std::string(query.bytes(2)),
                        latest_results(query.bytes(3))};
        each(agent);
    }
    return result == SQLITE_DONE;
}

/* The last result of the test, or null. */
const latest_entry* find_result(const std::vector<latest_entry>& results,
                                const planned_test& test) {
    auto key = std::pair(test.type, std::optional<int32_t>(test.id));
    auto found = std::lower_bound(results.begin(), results.end(), key,
                                  [](const latest_entry& e, const auto& k) { return e.key() < k; });
    return found != results.end() && found->key() == key ? &*found : nullptr;
}

void print_test(std::ostream& out, const agent_row& agent, const planned_test& test,
                const latest_entry* last, bool old, missing_count& count) {
    bool stored = last != nullptr && !old;
    ++(stored ? count.stored : count.missing);
    out << (stored ? "stored" : "missing") << '\t' << printable(agent.account) << '\t'
        << printable(agent.name) << '\t' << type_name(test.type) << '\t' << test.id;
    if (last != nullptr) {
        out << '\t' << utc_time(last->time.value_or(0)) << '\t'
            << status_word(test.type, last->status.value_or(0));
    }
    out << '\n';
}

void print_agent(std::ostream& out, agent_row& agent, const std::vector<planned_test>& tests,
                 const missing_age& age, missing_count& count) {
    for (const planned_test& test : tests) {
        const latest_entry* last = find_result(agent.latest.entries(), test);
        print_test(out, agent, test, last, last != nullptr && too_old(age, last->received), count);
    }
}

} // namespace

bool print_missing(const std::string& directory, const std::string& plan_path,
                   const missing_age& age, std::ostream& out, missing_count& count,
                   std::string& error) {
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
    bool any = false;
    bool read = read_agents(db.get(), [&](agent_row& agent) {
        any = true;
        if (too_old(age, agent.last_seen)) {
            ++count.silent;
            out << "silent\t" << printable(agent.account) << '\t' << printable(agent.name) << '\t'
                << utc_time(agent.last_seen) << '\n';
        }
        print_agent(out, agent, tests, age, count);
    });
    if (!read) {
        error = database_path(directory) + ": " + sqlite3_errmsg(db.get());
        return false;
    }
    if (!any) {
        agent_row nobody;
        print_agent(out, nobody, tests, age, count);
    }
    return true;
}

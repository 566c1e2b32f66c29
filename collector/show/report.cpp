#include "show/report.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "plan/plan.h"
#include "store/engine.h"

#include <algorithm>

namespace {

bool too_old(const missing_age& age, int64_t received) {
    return age.older_than &&
           (received < age.now - *age.older_than || received > age.now + *age.older_than);
}

/* The last result of the test, or null. */
const latest_entry* find_result(std::span<const latest_entry> results, const planned_test& test) {
    auto key = std::pair(test.type, std::optional<int32_t>(test.id));
    auto found = std::lower_bound(results.begin(), results.end(), key,
                                  [](const latest_entry& e, const auto& k) { return e.key() < k; });
    return found != results.end() && found->key() == key ? &*found : nullptr;
}

void print_test(std::ostream& out, const known_agent& agent, const planned_test& test,
                const latest_entry* last, bool old, missing_count& count) {
    bool stored = last != nullptr && !old;
    ++(stored ? count.stored : count.missing);
    out << (stored ? "stored" : "missing") << '\t' << printable(agent.account) << '\t'
        << printable(agent.agent) << '\t' << type_name(test.type) << '\t' << test.id;
    if (last != nullptr) {
        out << '\t' << utc_time(last->time.value_or(0)) << '\t'
            << status_word(test.type, last->status.value_or(0));
    }
    out << '\n';
}

void print_agent(std::ostream& out, const known_agent& agent, std::span<const latest_entry> results,
                 const std::vector<planned_test>& tests, const missing_age& age,
                 missing_count& count) {
    for (const planned_test& test : tests) {
        const latest_entry* last = find_result(results, test);
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
    std::unique_ptr<result_reader> stored = open_reader(directory, error);
    if (!stored) {
        return false;
    }
    std::vector<planned_test> tests = planned_tests(planned.lines());
    bool any = false;
    auto print = [&](const known_agent& agent, std::span<const latest_entry> results) {
        any = true;
        if (too_old(age, agent.last_seen)) {
            ++count.silent;
            out << "silent\t" << printable(agent.account) << '\t' << printable(agent.agent) << '\t'
                << utc_time(agent.last_seen) << '\n';
        }
        print_agent(out, agent, results, tests, age, count);
    };
    if (!stored->for_each_tested(print, error)) {
        error = stored->place() + ": " + error;
        return false;
    }
    if (!any) {
        print_agent(out, {"-", "-", {}, {}}, {}, tests, age, count);
    }
    return true;
}

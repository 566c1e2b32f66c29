#include "show/report.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "plan/plan.h"
#include "state/agent_state.h"
#include "store/engine.h"
namespace {

bool too_old(const missing_age& age, int64_t received) {
    return age.older_than &&
           (received < age.now - *age.older_than || received > age.now + *age.older_than);
}

void print_test(std::ostream& out, const known_agent& agent, const planned_test& test,
                const test_status* last, bool comes, missing_count& count) {
    ++(comes ? count.stored : count.missing);
    out << (comes ? "stored" : "missing") << '\t' << printable(agent.account) << '\t'
        << printable(agent.agent) << '\t' << type_name(test.type) << '\t' << test.id;
    if (last != nullptr) {
        out << '\t' << utc_time(last->claimed) << '\t'
            << status_word(test.type, last->status.value_or(0));
    }
    out << '\n';
}

void print_agent(std::ostream& out, const known_agent& agent, const agent_state& state,
                 const std::vector<planned_test>& tests, const missing_age& age,
                 missing_count& count) {
    for (const planned_test& test : tests) {
        const test_status* last = state.find(test.type, test.id);
        bool comes = last != nullptr && !state.silent && last->now != state::stale &&
                     last->now != state::unknown && /* it had gone from the plan, and is back */
                     !too_old(age, last->received);
        print_test(out, agent, test, last, comes, count);
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
    if (stored->read_fact("earlier") == 1) {
        error = stored->place() + ": the results of an earlier version are not all taken over yet";
        return false;
    }
    std::vector<planned_test> tests = planned_tests(planned.lines());
    bool any = false, damaged = false;
    agent_state state;
    auto print = [&](const known_agent& agent) {
        if (agent.retired != 0) {
            return;
        }
        any = true;
        if (!state.unpack(agent.state)) {
            damaged = true;
            return;
        }
        if (state.silent || too_old(age, agent.last_seen)) {
            ++count.silent;
            out << "silent\t" << printable(agent.account) << '\t' << printable(agent.agent) << '\t'
                << utc_time(agent.last_seen) << '\n';
        }
        print_agent(out, agent, state, tests, age, count);
    };
    bool read = stored->for_each_agent(print, error);
    if (read && damaged) {
        error = "what is known of an agent is damaged";
    }
    if (!read || damaged) {
        error = stored->place() + ": " + error;
        return false;
    }
    if (!any) {
        known_agent nobody;
        nobody.account = nobody.agent = "-";
        print_agent(out, nobody, {}, tests, age, count);
    }
    return true;
}

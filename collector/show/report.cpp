#include "show/report.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "fleet/assigned.h"
#include "plan/plan.h"
#include "state/agent_state.h"
#include "store/engine.h"

#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace {

bool too_old(const missing_age& age, int64_t received) {
    return age.older_than &&
           (received < age.now - *age.older_than || received > age.now + *age.older_than);
}

/* Writes the lines, and counts them. */
class report {
public:
    report(const missing_age& age, std::ostream& out, missing_count& count)
        : age_(age), out_(out), count_(count) {}

    /* The agent's line, when it is silent; those of its tests follow. */
    void agent(const known_agent& agent, const agent_state& state) {
        if (state.silent || too_old(age_, agent.last_seen)) {
            ++count_.silent;
            out_ << "silent\t" << printable(agent.account) << '\t' << printable(agent.agent) << '\t'
                 << utc_time(agent.last_seen) << '\n';
        }
    }

    /* `name`: empty: nobody gave it one. */
    void test(const known_agent& agent, const agent_state& state, const planned_test& test,
              std::string_view name) {
        const test_status* last = state.find(test.type, test.id);
        const bool comes = last != nullptr && !state.silent && last->now != state::stale &&
                           last->now != state::unknown && /* it had gone, and is back */
                           !too_old(age_, last->received);
        ++(comes ? count_.stored : count_.missing);
        begin(comes ? "stored" : "missing", agent, test.type);
        out_ << '\t' << test.id;
        if (last != nullptr) {
            out_ << '\t' << utc_time(last->claimed) << '\t'
                 << status_word(test.type, last->status.value_or(0));
        }
        end(name);
    }

    /* Of the fleet. */
    void tests(const known_agent& agent, const agent_state& state, const assigned_agent& has) {
        for (const assigned_test& given : has.tests) {
            const uint32_t type = given.kind->record->code;
            if (!given.impossible.empty()) {
                ++count_.refused;
                begin("impossible", agent, type);
                out_ << '\t' << (given.number != 0 ? std::to_string(given.number) : "-") << '\t'
                     << printable(given.impossible);
                end(given.name);
            }
            if (given.number != 0) {
                test(agent, state, {type, given.number}, given.name);
            }
        }
    }

    void nobody() {
        ++count_.missing;
        out_ << "missing\t-\t-\n";
    }

    void problem(size_t line, const std::string& reason) {
        ++count_.refused;
        out_ << "problem\tline " << line << ": " << reason << '\n';
    }

private:
    void begin(const char* word, const known_agent& agent, uint32_t type) {
        out_ << word << '\t' << printable(agent.account) << '\t' << printable(agent.agent) << '\t'
             << type_name(type);
    }
    void end(std::string_view name) {
        if (!name.empty()) {
            out_ << '\t' << printable(name);
        }
        out_ << '\n';
    }

    const missing_age age_;
    std::ostream& out_;
    missing_count& count_;
};

std::unique_ptr<result_reader> open_stored(const std::string& directory, std::string& error) {
    std::unique_ptr<result_reader> stored = open_reader(directory, error);
    if (stored && stored->read_fact("earlier") == 1) {
        error = stored->place() + ": the results of an earlier version are not all taken over yet";
        return nullptr;
    }
    return stored;
}

/* Every agent that is not retired, with its state. False with the reason in `error`, also when one
 * of them was damaged. */
bool for_each_present(result_reader& stored,
                      const std::function<void(const known_agent&, const agent_state&)>& each,
                      std::string& error) {
    bool damaged = false;
    agent_state state;
    const bool read = stored.for_each_agent(
        [&](const known_agent& agent) {
            if (agent.retired != 0) {
                return;
            }
            if (state.unpack(agent.state)) {
                each(agent, state);
            } else {
                damaged = true;
            }
        },
        error);
    if (read && !damaged) {
        return true;
    }
    error = stored.place() + ": " + (read ? "what is known of an agent is damaged" : error);
    return false;
}

bool print_planned(const std::string& directory, const std::string& plan_path, report& to,
                   std::string& error) {
    std::string unreadable;
    plan planned(plan_path, [&](const plan_problem& p) {
        if (p.number == 0) {
            unreadable = p.reason;
        } else {
            to.problem(p.number, p.reason);
        }
    });
    if (!planned.refresh()) {
        error = unreadable;
        return false;
    }
    std::unique_ptr<result_reader> stored = open_stored(directory, error);
    if (!stored) {
        return false;
    }
    const std::vector<planned_test> tests = planned_tests(planned.lines());
    bool any = false;
    auto print = [&](const known_agent& agent, const agent_state& state) {
        any = true;
        for (const planned_test& test : tests) {
            to.test(agent, state, test, {});
        }
    };
    const bool all = for_each_present(
        *stored,
        [&](const known_agent& agent, const agent_state& state) {
            to.agent(agent, state);
            print(agent, state);
        },
        error);
    if (all && !any) {
        known_agent nobody;
        nobody.account = nobody.agent = "-";
        print(nobody, {});
    }
    return all;
}

/* What agents were given, packed, by account and name. */
using given_tests = std::map<std::pair<std::string, std::string>, std::string>;

bool read_fleet(result_reader& stored, given_tests& given, std::string& error) {
    bool any = false;
    auto note = [&](const fleet_agent& agent) {
        given[{std::string(agent.account), std::string(agent.agent)}] = agent.assigned;
    };
    auto is_there = [&](const fleet_revision&) {
        any = true;
        return false;
    };
    if (!stored.for_each_fleet_revision(false, is_there, error) ||
        !stored.for_each_fleet_agent(note, error)) {
        error = stored.place() + ": " + error;
        return false;
    }
    if (!any && given.empty()) {
        error = "no fleet was ever applied here; a plan is named with --plan";
        return false;
    }
    return true;
}

/* Whether there is such an agent, if only as one that is retired. */
bool is_retired(result_reader& stored, const std::pair<std::string, std::string>& who) {
    bool retired = false;
    std::string error;
    stored.read_agent(
        who.first, who.second, [&](const known_agent& agent) { retired = agent.retired != 0; },
        error);
    return retired;
}

bool print_fleet(const std::string& directory, report& to, std::string& error) {
    std::unique_ptr<result_reader> stored = open_stored(directory, error);
    given_tests given;
    if (!stored || !read_fleet(*stored, given, error)) {
        return false;
    }
    bool any = false, damaged = false;
    assigned_agent has;
    auto print = [&](const known_agent& agent, const agent_state& state,
                     const std::string& assigned) {
        if (has.unpack(assigned)) {
            to.tests(agent, state, has);
        } else {
            damaged = true;
        }
    };
    auto print_known = [&](const known_agent& agent, const agent_state& state) {
        any = true;
        to.agent(agent, state);
        auto found = given.find({std::string(agent.account), std::string(agent.agent)});
        if (found != given.end()) {
            print(agent, state, found->second);
            given.erase(found);
        }
    };
    if (!for_each_present(*stored, print_known, error)) {
        return false;
    }
    for (const auto& [who, assigned] : given) {
        if (!is_retired(*stored, who)) {
            known_agent away;
            away.account = who.first;
            away.agent = who.second;
            any = true;
            print(away, {}, assigned);
        }
    }
    if (damaged) {
        error = stored->place() + ": what an agent was given is damaged";
        return false;
    }
    if (!any) {
        to.nobody();
    }
    return true;
}

} // namespace

bool print_missing(const std::string& directory, const std::string& plan_path,
                   const missing_age& age, std::ostream& out, missing_count& count,
                   std::string& error) {
    count = {};
    report lines(age, out, count);
    return plan_path.empty() ? print_fleet(directory, lines, error)
                             : print_planned(directory, plan_path, lines, error);
}

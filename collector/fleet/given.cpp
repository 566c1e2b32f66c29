#include "fleet/given.h"

#include "plan/placeholder.h"
#include "plan/summary.h"

#include <algorithm>

test_key key_of(const assigned_test& test) {
    return {test.kind != nullptr ? test.kind->record->code : 0, test.number};
}

static bool uses_secrets(const assigned_test& test) {
    placeholder at;
    const std::vector<std::string>& fields = test.its_fields();
    return std::any_of(fields.begin(), fields.end(),
                       [&](const std::string& field) { return find_placeholder(field, 0, at); });
}

given_agent::given_agent(assigned_agent what) : all_(std::move(what)) {
    places_.reserve(all_.tests.size());
    secrets_.reserve(all_.tests.size());
    for (const assigned_test& test : all_.tests) {
        if (test.number != 0 && test.kind != nullptr) {
            places_.emplace_back(key_of(test), static_cast<uint32_t>(secrets_.size()));
        }
        secrets_.push_back(uses_secrets(test));
        any_secrets_ = any_secrets_ || secrets_.back();
    }
    std::sort(places_.begin(), places_.end());
}

const assigned_test* given_agent::find(test_key key) const {
    auto found = std::lower_bound(places_.begin(), places_.end(), std::pair(key, uint32_t{0}));
    return found != places_.end() && found->first == key ? &all_.tests[found->second] : nullptr;
}

const assigned_test* given_agent::find(std::string_view name) const {
    auto found = std::find_if(all_.tests.begin(), all_.tests.end(),
                              [&](const assigned_test& test) { return test.name == name; });
    return found != all_.tests.end() ? &*found : nullptr;
}

const removed_test* given_agent::find_removed(test_key key) const {
    auto found =
        std::find_if(all_.removed.begin(), all_.removed.end(), [&](const removed_test& test) {
            return test_key(test.type, test.number) == key;
        });
    return found != all_.removed.end() ? &*found : nullptr;
}

bool given_agent::has_secrets(const assigned_test& test) const {
    return any_secrets_ && secrets_[static_cast<size_t>(&test - all_.tests.data())];
}

int32_t given_agent::slowest() const {
    const int32_t longer = std::max(all_.poll, all_.check);
    return longer > 0 ? longer : default_interval_s;
}

std::string packed(const given_agent& agent) {
    std::string text;
    agent.all().pack(text);
    return text;
}

plan_summary plan_of(const given_agent& agent) {
    plan_summary plan;
    plan.is_planned = true;
    if (agent.all().poll > 0) {
        plan.every = {.poll = agent.all().poll, .check = agent.all().check};
    }
    for (const assigned_test& test : agent.all().tests) {
        if (test.impossible.empty() && test.number != 0) {
            plan.tests.push_back(key_of(test));
        }
    }
    return plan;
}

/* The command that adds it, as one of a plan. */
static plan_line line_of(const assigned_test& test) {
    plan_line line = {.serial = 0, .number = 0, .text = {}};
    line.text.append(test.kind->add->code).append("\t").append(std::to_string(test.number));
    line.text.append("\t").append(std::to_string(test.revision));
    for (const std::string& field : test.its_fields()) {
        line.text.append("\t").append(field);
    }
    return line;
}

std::vector<owned_definition> definitions_of(const given_agent& agent) {
    std::vector<owned_definition> all;
    for (const assigned_test& test : agent.all().tests) {
        if (!test.impossible.empty() || test.number == 0 || !test.what) {
            continue;
        }
        for (owned_definition& one : definitions_of({line_of(test)})) {
            if (!test.what->target.empty()) {
                one.name = test.what->target;
            }
            one.title = test.name;
            one.group = test.group;
            all.push_back(std::move(one));
        }
    }
    return all;
}

void add_secrets(const given_agent& agent, std::map<test_key, std::vector<std::string>>& names) {
    for (const assigned_test& test : agent.all().tests) {
        if (test.number == 0 || !agent.has_secrets(test)) {
            continue;
        }
        std::vector<std::string>& known = names[key_of(test)];
        for (const std::string& field : test.its_fields()) {
            for (std::string& name : secrets_in(field)) {
                if (std::find(known.begin(), known.end(), name) == known.end()) {
                    known.push_back(std::move(name));
                }
            }
        }
    }
}

#include "state/definition.h"

#include <limits>
#include <utility>

static constexpr size_t most_found = 10000; /* that are remembered */

static definition_pointer own(const test_definition& d) {
    return std::make_shared<const definition>(definition{.type = d.type,
                                                         .number = d.number,
                                                         .location = d.location,
                                                         .since = d.since,
                                                         .name = std::string(d.name),
                                                         .text = std::string(d.text),
                                                         .title = std::string(d.title),
                                                         .group = std::string(d.group),
                                                         .agent = d.agent});
}

bool definition_reader::has_own(int64_t agent) {
    if (agent == 0) {
        return false;
    }
    auto [known, is_new] = has_own_.try_emplace(agent, false);
    if (is_new) {
        known->second = store_.has_definitions(agent);
    }
    return known->second;
}

definition_pointer definition_reader::of(int64_t agent, uint32_t type,
                                         std::optional<int32_t> number,
                                         std::optional<int32_t> location, int64_t time,
                                         std::string& error) {
    if (!number || *number == 0) {
        return nullptr; /* no test of a plan's */
    }
    const key of_all{0, type, *number, location};
    if (!has_own(agent)) {
        return look_up(of_all, time, error);
    }
    definition_pointer found = look_up({agent, type, *number, location}, time, error);
    if (!found) {
        found = look_up(of_all, time, error);
    }
    return found || !location ? found : look_up({agent, type, *number, std::nullopt}, time, error);
}

definition_pointer definition_reader::look_up(const key& wanted, int64_t time, std::string& error) {
    auto known = found_.find(wanted);
    if (known != found_.end() && time >= known->second.from && time < known->second.until) {
        return known->second.what;
    }
    constexpr int64_t earliest = std::numeric_limits<int64_t>::min();
    constexpr int64_t latest = std::numeric_limits<int64_t>::max();
    entry next{nullptr, earliest, latest};
    std::string reason;
    auto note = [&](const test_definition& d, int64_t until) {
        next = {own(d), d.since <= time ? d.since : earliest, until};
    };
    const auto& [agent, type, number, location] = wanted;
    if (!store_.read_definition(agent, type, number, location, time, note, reason)) {
        if (error.empty()) {
            error = reason;
        }
        return next.what;
    }
    if (found_.size() >= most_found) {
        found_.clear();
    }
    return found_.insert_or_assign(wanted, std::move(next)).first->second.what;
}

bool read_definitions(result_reader& store, const known_test_row& test, int64_t from, int64_t to,
                      std::vector<definition_pointer>& found, std::string& error) {
    found.clear();
    error.clear();
    if (!test.number || *test.number == 0) {
        return true;
    }
    auto note = [&](const test_definition& d) {
        if (d.since <= from) {
            found.clear();
        }
        while (found.size() > 1 && found.back()->since >= d.since) {
            found.pop_back(); /* the clock was ahead: it never was the last one */
        }
        if (found.empty() || d.since < to) {
            found.push_back(own(d));
        }
    };
    return (test.agent == 0 ||
            store.for_each_definition(test.agent, test.type, *test.number, note, error)) &&
           (!found.empty() || store.for_each_definition(0, test.type, *test.number, note, error));
}

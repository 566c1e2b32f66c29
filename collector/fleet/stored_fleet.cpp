#include "fleet/stored_fleet.h"

#include "state/agent_state.h"

#include <algorithm>
#include <unordered_map>

namespace {

constexpr char restored_seen_fact[] = "fleet_restored", first_number_fact[] = "fleet_first_number";
constexpr int64_t recent_s = 86400;
constexpr size_t most_below = 200'000; /* changes that are looked through in vain */

std::string name_key(std::string_view account, std::string_view agent) {
    return std::string(account).append(1, '\0').append(agent);
}

/* An agent logs an error when it is to remove one that it does not have. */
bool must_be_there(uint32_t type) {
    using namespace protocol;
    return type == disk.code || type == process.code || type == network.code ||
           type == discovery.code;
}

bool was_removed(const assigned_agent& agent, uint32_t type, int32_t number) {
    return std::any_of(agent.removed.begin(), agent.removed.end(), [=](const removed_test& each) {
        return each.type == type && each.number == number;
    });
}

class stored_reading {
public:
    stored_reading(result_reader& store, stored_fleet& found) : store_(store), found_(found) {}

    bool read(std::string& error) {
        const bool ok =
            read_revisions(error) && read_given(error) && read_agents(error) && read_changes(error);
        found_.restored = store_.read_fact(restored_fact).value_or(0);
        found_.restored_seen = store_.read_fact(restored_seen_fact).value_or(0);
        found_.first_number = store_.read_fact(first_number_fact).value_or(1);
        return ok;
    }

private:
    static void copy(const fleet_revision& from, kept_revision& into) {
        into = {.revision = from.revision,
                .time = from.time,
                .author = std::string(from.author),
                .about = std::string(from.about),
                .text = std::string(from.text),
                .has_text = from.has_text};
    }

    bool read_revisions(std::string& error) {
        auto take = [&](const fleet_revision& one) {
            copy(one, found_.newest);
            return false;
        };
        if (!store_.for_each_fleet_revision(false, take, error)) {
            return false;
        }
        found_.highest = found_.newest.revision;
        return found_.newest.revision == 0 ||
               store_.read_fleet(
                   found_.newest.revision,
                   [&](const fleet_revision& one) { copy(one, found_.in_force); }, error);
    }

    stored_fleet::agent& agent_of(std::string_view account, std::string_view name) {
        auto [place, is_new] = places_.try_emplace(name_key(account, name), found_.agents.size());
        if (is_new) {
            found_.agents.push_back({.account = std::string(account), .name = std::string(name)});
        }
        return found_.agents[place->second];
    }

    bool read_given(std::string& error) {
        return store_.for_each_fleet_agent(
            [&](const fleet_agent& one) {
                stored_fleet::agent& agent = agent_of(one.account, one.agent);
                agent.is_given = agent.given.unpack(one.assigned);
                agent.is_damaged = !agent.is_given;
                found_.highest = std::max(found_.highest, agent.given.newest);
            },
            error);
    }

    bool read_agents(std::string& error) {
        std::vector<std::pair<int64_t, size_t>> ids;
        agent_state state;
        bool ok = store_.for_each_agent(
            [&](const known_agent& row) {
                if (row.retired != 0) {
                    return;
                }
                stored_fleet::agent& agent = agent_of(row.account, row.agent);
                agent.is_there = true;
                ids.emplace_back(row.id, static_cast<size_t>(&agent - found_.agents.data()));
                state.unpack(row.state);
                take_state(agent, state);
            },
            error);
        for (const auto& [id, place] : ids) {
            ok = read_inventories(id, found_.agents[place], error) && ok;
        }
        return ok;
    }

    static void take_state(stored_fleet::agent& agent, const agent_state& state) {
        agent.is_silent = state.silent;
        agent.since = state.since;
        int64_t newest = INT64_MIN;
        for (const test_status& test : state.tests) {
            newest = std::max(newest, test.received);
        }
        for (const test_status& test : state.tests) {
            const int32_t number = test.number.value_or(0);
            if (number <= 0) {
                continue;
            }
            if (number <= highest_believed) {
                agent.highest = std::max(agent.highest, number);
            }
            if (const assigned_test* known = agent.given.find(test.type, number)) {
                if (test.location == known->revision && known->confirmed < known->revision) {
                    agent.confirmed.emplace_back(test.type, number);
                }
            } else if (!was_removed(agent.given, test.type, number) &&
                       (newest - test.received <= recent_s || !must_be_there(test.type))) {
                agent.strays.emplace_back(test.type, number);
            }
        }
    }

    bool read_inventories(int64_t id, stored_fleet::agent& agent, std::string& error) {
        bool ok = true;
        for (uint32_t type : {protocol::file_systems.code, protocol::network_interfaces.code}) {
            auto take = [&](const stored_inventory& one) {
                decoded_record decoded;
                std::string reason;
                if (decode_record(one.record, decoded.content, reason)) {
                    decoded.summary = summarize(decoded.content);
                    if (auto now = known_inventory::with(agent.has, type, items_of(decoded))) {
                        agent.has = std::move(now);
                    }
                }
            };
            ok = store_.read_inventory(id, type, INT64_MAX, take, error) && ok;
        }
        return ok;
    }

    /* The lowest revision that something may still be confirmed of. */
    int32_t lowest_open() const {
        int32_t lowest = INT32_MAX;
        for (const stored_fleet::agent& agent : found_.agents) {
            for (const assigned_test& test : agent.given.tests) {
                if (test.impossible.empty() && test.confirmed < test.revision) {
                    lowest = std::min(lowest, test.revision);
                }
            }
            for (const removed_test& test : agent.given.removed) {
                lowest = test.is_over ? lowest : std::min(lowest, test.revision);
            }
            if (agent.is_given) { /* whether intervals are confirmed only the changes say */
                lowest = std::min(lowest, std::max(agent.given.intervals_revision(), 1));
            }
        }
        return lowest;
    }

    bool read_changes(std::string& error) {
        auto newest = [&](const stored_change& one) {
            found_.newest_change = one.id;
            return false;
        };
        if (!store_.for_each_change({}, newest, error)) {
            return false;
        }
        const int32_t lowest = lowest_open();
        std::unordered_map<size_t, given_agent> looked_up;
        size_t below = 0; /* a new agent's have the revision that was in force */
        auto take = [&](const stored_change& one) {
            auto place = places_.find(name_key(one.account, one.agent));
            if (place != places_.end()) {
                stored_fleet::agent& agent = found_.agents[place->second];
                auto [given, is_new] = looked_up.try_emplace(place->second);
                if (is_new) {
                    given->second = given_agent(agent.given);
                }
                kept_change copied = copy_of(one);
                if (is_in_force(copied, given->second)) {
                    agent.open.insert(agent.open.begin(), std::move(copied));
                }
            }
            return one.revision >= lowest || ++below < most_below;
        };
        const auto bit = [](change_outcome outcome) {
            return 1u << static_cast<unsigned>(outcome);
        };
        change_filter open;
        open.outcomes =
            static_cast<uint8_t>(bit(change_outcome::sent) | bit(change_outcome::unanswered));
        return store_.for_each_change(open, take, error);
    }

    result_reader& store_;
    stored_fleet& found_;
    std::unordered_map<std::string, size_t> places_;
};

} // namespace

bool read_stored_fleet(result_reader& store, stored_fleet& found, std::string& error) {
    return stored_reading(store, found).read(error);
}

bool write_fleet(engine& store, const fleet_writing& what) {
    const kept_revision& made = what.revision;
    if (made.revision != 0 && !store.append_fleet_revision({.revision = made.revision,
                                                            .time = made.time,
                                                            .author = made.author,
                                                            .about = made.about,
                                                            .text = made.text,
                                                            .has_text = made.has_text})) {
        return false;
    }
    for (const fleet_writing::agent& agent : what.agents) {
        if (!agent.packed.empty() &&
            !store.put_fleet_agent(
                {.account = agent.account, .agent = agent.name, .assigned = agent.packed})) {
            return false;
        }
        for (const kept_change& one : agent.changes) {
            if (!store.put_change(view_of(one, agent.account, agent.name))) {
                return false;
            }
        }
    }
    return !what.facts || (store.set_fact(restored_seen_fact, what.facts->restored_seen) &&
                           store.set_fact(first_number_fact, what.facts->first_number));
}

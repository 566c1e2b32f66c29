#include "ingest/storing.h"

#include "ingest/hash.h"

#include <algorithm>

/* The items of an inventory, as the agent wrote them. */
static std::string_view items_of(const decoded_record& result) {
    std::optional<size_t> list =
        result.summary.schema != nullptr
            ? index_of(result.summary.schema->values, protocol::value_role::list)
            : std::nullopt;
    const string_list& strings = result.content.strings;
    return list && *list < strings.size() ? strings[*list] : std::string_view();
}

bool storing::records(agent_work& agent, std::span<const decoded_record> results, int64_t received,
                      const patience& now, bool brings_back) {
    if (agent.state.silent && brings_back) {
        take_heard(agent.state, received, agent.out);
    }
    take_results(agent.state, results, received, now, agent.out, agent.places);
    int64_t row = 0;
    if (!open_block(agent, results, received, row)) {
        return false;
    }
    for (size_t i = 0; i < results.size(); i++) {
        if (is_inventory(results[i].summary)) {
            if (!inventory(agent, results[i], received)) {
                return false;
            }
        } else if (agent.places[i] < agent.state.tests.size()) {
            test_status& test = agent.state.tests[agent.places[i]];
            test.block = row;
            if (test.id == 0 && !engine_.find_test(agent.id, test.type, test.number, test.id)) {
                return false;
            }
        }
    }
    return changes(agent);
}

/* All but the inventories, by the runs in which they lie in the block: nothing is copied. */
bool storing::open_block(agent_work& agent, std::span<const decoded_record> results,
                         int64_t received, int64_t& row) {
    pieces_.clear();
    size_t bytes = 0;
    for (const decoded_record& result : results) {
        std::string_view raw = result.content.raw;
        if (is_inventory(result.summary)) {
            continue;
        }
        if (!pieces_.empty() && pieces_.back().data() + pieces_.back().size() == raw.data()) {
            pieces_.back() = {pieces_.back().data(), pieces_.back().size() + raw.size()};
        } else {
            pieces_.push_back(raw);
        }
        bytes += raw.size();
    }
    if (pieces_.empty()) {
        return true;
    }
    agent_state& state = agent.state;
    if (!engine_.append_block(agent.id, received, state.last_block, pieces_, row)) {
        return false;
    }
    state.open_since = state.open_bytes == 0 ? received : state.open_since;
    state.open_bytes += bytes;
    state.last_block = row;
    return true;
}

/* Stored when its items are not those of the last one; when it came is noted all the same. */
bool storing::inventory(agent_work& agent, const decoded_record& result, int64_t received) {
    std::vector<inventory_status>& all = agent.state.inventories;
    auto known = std::find_if(all.begin(), all.end(), [&](const inventory_status& one) {
        return one.type == result.summary.type;
    });
    if (known == all.end()) {
        known = all.insert(all.end(), {.type = result.summary.type});
    }
    const block_hash whole = sha256(items_of(result));
    known->received = received;
    known->time = reckoned_time(result.summary, received);
    if (known->row != 0 && std::equal(known->hash.begin(), known->hash.end(), whole.begin())) {
        return true;
    }
    std::copy_n(whole.begin(), known->hash.size(), known->hash.begin());
    return engine_.append_inventory({.agent = agent.id,
                                     .type = known->type,
                                     .received = received,
                                     .time = known->time,
                                     .record = result.content.raw},
                                    known->row);
}

bool storing::repetition(agent_work& agent, std::span<const decoded_record> results,
                         int64_t received, bool brings_back) {
    if (agent.state.silent && brings_back) {
        take_heard(agent.state, received, agent.out);
    }
    take_repetition(agent.state, results, received, agent.out);
    return changes(agent);
}

/* Also of a test that is no longer among those that are remembered. */
bool storing::find_test(int64_t agent, agent_state& state, uint32_t type,
                        std::optional<int32_t> number, int64_t& id) {
    test_status* known = state.find(type, number);
    id = known != nullptr ? known->id : 0;
    if (id != 0) {
        return true;
    }
    if (!engine_.find_test(agent, type, number, id)) {
        return false;
    }
    if (known != nullptr) {
        known->id = id;
    }
    return true;
}

bool storing::changes(agent_work& agent) {
    for (change& c : agent.out.changes) {
        c.test = 0;
        if ((!c.of_agent && !find_test(agent.id, agent.state, c.type, c.number, c.test)) ||
            !engine_.append_event({.time = c.time,
                                   .agent = agent.id,
                                   .test = c.test,
                                   .from = static_cast<uint8_t>(c.from),
                                   .to = static_cast<uint8_t>(c.to),
                                   .message = c.message},
                                  c.event)) {
            return false;
        }
    }
    return std::all_of(agent.out.hours.begin(), agent.out.hours.end(), [&](const hour_counts& h) {
        return engine_.add_to_ledger({.agent = agent.id,
                                      .hour = h.hour,
                                      .received = h.received,
                                      .repeated = h.repeated,
                                      .missing = h.missing});
    });
}

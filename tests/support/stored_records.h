/* What is stored, as its readers have it: the records of each agent in the order of arrival,
 * whether they lie open or are packed. Order and bytes alone: nothing is judged. */
#ifndef STORED_RECORDS_H
#define STORED_RECORDS_H

#include "base/record_summary.h"
#include "protocol/record.h"
#include "state/agent_state.h"
#include "store/engine.h"
#include "store/pack.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

struct stored_record {
    std::string agent;
    int64_t agent_id = 0, received = 0;
    std::string raw = {};
    bool is_packed = false;

    record_summary summary() const {
        record r;
        std::string reason;
        return decode_record(raw, r, reason) ? summarize(r) : record_summary();
    }
};

struct stored_agent_row {
    int64_t id = 0;
    std::string account, name, address, version;
    int64_t first_seen = 0, last_seen = 0;
    agent_state state = {};
};

inline std::vector<stored_agent_row> stored_agents(result_reader& store, std::string& error) {
    std::vector<stored_agent_row> all;
    store.for_each_agent(
        [&](const known_agent& a) {
            all.push_back({a.id, std::string(a.account), std::string(a.agent),
                           std::string(a.address), std::string(a.version), a.first_seen,
                           a.last_seen});
            all.back().state.unpack(a.state);
        },
        error);
    return all;
}

/* Records that lie open, in the order of their blocks. */
inline std::vector<stored_record> open_records(result_reader& store, const stored_agent_row& agent,
                                               std::string& error) {
    std::vector<std::pair<int64_t, std::string>> blocks;
    if (agent.state.last_block != 0) {
        store.for_each_block(
            agent.state.last_block,
            [&](const open_block& b) {
                blocks.emplace_back(b.received, b.records);
                return true;
            },
            error);
    }
    std::vector<stored_record> all;
    for (auto block = blocks.rbegin(); block != blocks.rend(); ++block) {
        for (block_reader reader(block->second); reader.next();) {
            if (reader.good) {
                all.push_back(
                    {agent.name, agent.id, block->first, std::string(reader.current.raw), false});
            }
        }
    }
    return all;
}

inline std::vector<stored_record> packed_records(result_reader& store,
                                                 const stored_agent_row& agent, int64_t test,
                                                 std::string& error) {
    std::vector<std::vector<stored_record>> chunks;
    store.for_each_chunk(
        test, INT64_MIN, [](const packed_chunk&) { return true; },
        [&](const packed_chunk& chunk) {
            chunks.emplace_back();
            unpack_chunk(chunk.data, [&](const arrived_record& r) {
                chunks.back().push_back(
                    {agent.name, agent.id, r.received, std::string(r.record), true});
                return true;
            });
            return true;
        },
        error);
    std::vector<stored_record> all;
    for (auto chunk = chunks.rbegin(); chunk != chunks.rend(); ++chunk) {
        all.insert(all.end(), chunk->begin(), chunk->end());
    }
    return all;
}

/* All of an agent; what is packed by tests, and what is open behind it. */
inline std::vector<stored_record> records_of(result_reader& store, const stored_agent_row& agent,
                                             std::string& error) {
    std::vector<stored_record> all;
    for (const test_status& test : agent.state.tests) {
        auto packed = packed_records(store, agent, test.id, error);
        all.insert(all.end(), packed.begin(), packed.end());
    }
    auto open = open_records(store, agent, error);
    all.insert(all.end(), open.begin(), open.end());
    return all;
}

inline std::vector<stored_record> stored_records(result_reader& store, std::string& error) {
    std::vector<stored_record> all;
    for (const stored_agent_row& agent : stored_agents(store, error)) {
        auto more = records_of(store, agent, error);
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

#endif

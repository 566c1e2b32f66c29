/* What is made of an agent's records in the transaction that stores them: the open block, states,
 * events, the ledger, and inventories that changed. All of it begins with the agent's row as it is
 * stored, so that a transaction that failed and is tried again counts nothing twice. One thread. */
#ifndef VINDRAL_COLLECTOR_STORING_H
#define VINDRAL_COLLECTOR_STORING_H

#include "base/record_summary.h"
#include "state/agent_state.h"
#include "state/take.h"
#include "store/engine.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/* An agent in a transaction. The memory is kept for the next one. */
struct agent_work {
    int64_t id = 0;
    agent_state state;
    outcome out;                /* so far */
    std::vector<size_t> places; /* of the last records: take_results() */

    /* Begins with what the row says. */
    void begin(const stored_agent& row) {
        id = row.id;
        state.unpack(row.state); /* where it is damaged, nothing is known of the agent */
        out.clear();
        places.clear();
    }
};

/* The calls return false when the engine failed. */
class storing {
public:
    explicit storing(engine& store) : engine_(store) {}

    /* Records of a block, or of a slice of it, in the order in which they stand there; views of its
     * bytes. `brings_back`: an agent that is silent is heard by it. */
    bool records(agent_work& agent, std::span<const decoded_record> results, int64_t received,
                 const patience& now, bool brings_back = true);
    /* The same block once more. */
    bool repetition(agent_work& agent, std::span<const decoded_record> results, int64_t received,
                    bool brings_back = true);
    /* The events and the counts of `agent.out`. The two above do it by themselves. */
    bool changes(agent_work& agent);

    /* The agent's state as its row is to have it; until the next call. */
    std::string_view packed(const agent_work& agent) {
        agent.state.pack(packed_);
        return packed_;
    }

private:
    bool open_block(agent_work& agent, std::span<const decoded_record> results, int64_t received,
                    int64_t& row);
    bool inventory(agent_work& agent, const decoded_record& result, int64_t received);
    bool find_test(int64_t agent, agent_state& state, uint32_t type, std::optional<int32_t> number,
                   int64_t& id);

    engine& engine_;
    std::vector<std::string_view> pieces_;
    std::string packed_;
};

#endif

/* The agents that have a row, as far as the thread that stores has to know them between two
 * transactions: what they are called, and how much of them lies open. Made from the rows at the
 * start; a view of what is committed, never of what is under way. One thread. */
#ifndef VINDRAL_COLLECTOR_ROSTER_H
#define VINDRAL_COLLECTOR_ROSTER_H

#include "state/agent_state.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

struct roster_agent {
    int64_t id = 0;
    std::string account = {}, name = {};
    int64_t open_since = 0; /* agent_state */
    uint64_t open_bytes = 0;
    int64_t row_written = 0;     /* when it said last that the agent was heard, by steady_clock */
    int64_t pack_not_before = 0; /* by steady_clock: it failed */
};

class roster {
public:
    roster_agent* find(int64_t id) {
        auto found = by_id_.find(id);
        return found != by_id_.end() ? &found->second : nullptr;
    }
    roster_agent* find(std::string_view account, std::string_view name) {
        set_key(account, name);
        auto found = by_name_.find(key_);
        return found != by_name_.end() ? find(found->second) : nullptr;
    }

    /* The agent, which is new when it is not there yet. */
    roster_agent& add(int64_t id, std::string_view account, std::string_view name) {
        auto [place, fresh] = by_id_.try_emplace(id);
        if (fresh) {
            place->second.id = id;
            place->second.account = account;
            place->second.name = name;
            set_key(account, name);
            by_name_[key_] = id;
        }
        return place->second;
    }
    void clear() {
        by_id_.clear();
        by_name_.clear();
    }

    auto begin() { return by_id_.begin(); }
    auto end() { return by_id_.end(); }

private:
    void set_key(std::string_view account, std::string_view name) {
        key_.assign(account).append(1, '\0').append(name);
    }

    std::unordered_map<int64_t, roster_agent> by_id_;
    std::unordered_map<std::string, int64_t> by_name_; /* account, NUL, name */
    std::string key_;
};

/* How an agent's row says it lies open. */
inline void note_open(roster_agent& agent, const agent_state& state) {
    agent.open_since = state.open_since;
    agent.open_bytes = state.open_bytes;
}

#endif

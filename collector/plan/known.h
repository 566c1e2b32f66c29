/* Which tests the agents had reported when an earlier run of the collector ended, for putting right
 * those that have run on meanwhile. One thread; no network in here.
 *
 * An agent's entry is dropped when it has been put right; those that never come back stay. So the
 * memory is bounded, by what the store had at the start and by `most`. */
#ifndef VINDRAL_COLLECTOR_KNOWN_H
#define VINDRAL_COLLECTOR_KNOWN_H

#include "plan/plan.h"
#include "state/agent_state.h"
#include "store/engine.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class known_tests {
public:
    /* `most`: tests of all agents, some 16 bytes each; further ones are left out. */
    explicit known_tests(size_t most = 4u << 20) : most_(most) {}

    /* What the agent's row says. Tests without a number are passed over. */
    void add(std::string_view account, std::string_view agent, const agent_state& known);
    /* What an earlier version left, which may not be in its row yet. */
    void add_left(std::string_view account, std::string_view agent,
                  std::span<const left_test> left);

    std::vector<known_test> of(const std::string& account, const std::string& agent) const;
    void forget(const std::string& account, const std::string& agent);

    size_t size() const { return size_; }
    size_t left_out() const { return left_out_; }

private:
    struct entry {
        int64_t received;
        uint32_t type;
        int32_t id;
    };

    template <typename Tests>
    void add_all(std::string_view account, std::string_view agent, const Tests& tests);

    size_t most_;
    size_t size_ = 0, left_out_ = 0;
    std::unordered_map<std::string, std::vector<entry>> agents_;
};

#endif

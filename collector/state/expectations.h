/* When results are to come where agents are told different things: an `expected` for each agent
 * that has a plan of its own, and one for all others. Those that are told the same at the same
 * times share one, so that many agents take little memory. Pure; one thread. */
#ifndef VINDRAL_COLLECTOR_EXPECTATIONS_H
#define VINDRAL_COLLECTOR_EXPECTATIONS_H

#include "state/expected.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

/* The plan of an agent, which need not be there yet. */
struct agent_summary {
    std::string account, agent;
    plan_summary plan;
};

class expectations {
public:
    using shared = std::shared_ptr<const expected>;

    /* Of all agents that have no plan of their own. */
    void follow(const plan_summary& plan, int64_t now);

    struct own {
        std::string_view account, agent;
        const plan_summary* plan = nullptr;
        /* What it is known to have been told, by a run before this one: the first plan of its own
         * changes that. None: what all others are told. */
        std::optional<intervals> before = {};
    };
    /* Of these agents; the same test twice is one. */
    void follow(std::span<const own> plans, int64_t now);

    const expected& others() const { return others_; }
    /* Its own; null when it has none. */
    shared find(std::string_view account, std::string_view agent) const;
    const expected& of(std::string_view account, std::string_view agent) const {
        const shared own = find(account, agent);
        return own ? *own : others_; /* which this holds, too */
    }
    bool has_own() const { return !own_.empty(); }

    /* The longest that counts for any of them now. */
    intervals longest(int64_t now) const;
    int64_t longest_stale_after(int64_t now) const;

    /* Grows when anything is followed. */
    unsigned changes() const { return changes_; }

private:
    struct longest_now {
        intervals every;
        int64_t stale_after = 0;
        int64_t from = INT64_MAX, until = INT64_MIN; /* from <= now < until */
    };
    const longest_now& look_at_all(int64_t now) const;
    static void set_key(std::string& key, std::string_view account, std::string_view agent);

    expected others_;
    std::unordered_map<std::string, shared> own_; /* by account, NUL, agent */
    unsigned changes_ = 0;
    mutable longest_now longest_;
    mutable std::string key_;
};

#endif

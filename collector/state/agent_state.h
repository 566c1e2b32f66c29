/* What is known of an agent at the moment: the state of each of its tests, its inventories, and
 * what of its results is not packed yet. One packed text in the agent's row, changed in the
 * transaction that stores the results; so it is right whatever ends the process, and a fleet is
 * read by its agents' rows alone.
 *
 * An agent that invents tests does not make it grow for ever: beyond max_tests the ones heard of
 * longest ago are forgotten, and found again by the store when they come back. */
#ifndef VINDRAL_COLLECTOR_AGENT_STATE_H
#define VINDRAL_COLLECTOR_AGENT_STATE_H

#include "state/expected.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* The numbers are stored. Of a test `unknown` (nothing has come yet, or it is gone: the plan does
 * not have it, and nothing comes any more) to `stale` (it was known, and nothing has come for too
 * long), of an agent as well `silent`. */
enum class state : uint8_t { unknown = 0, ok = 1, problem = 2, stale = 3, silent = 4 };

std::string_view state_word(state s);

/* By what the records of a pass are known: of the first record, but the process id of the last. */
struct pass_mark {
    int64_t claimed = 0; /* check time as the agent had it; the arrival where there is none */
    std::optional<int32_t> location = {};
    uint32_t pid = 0;
};

/* What is known of a test. */
struct test_status {
    int64_t id = 0; /* in the store */
    uint32_t type = 0;
    std::optional<int32_t> number = {}; /* none: of a type that is not known */
    state now = state::unknown;
    int64_t since = 0;    /* of the state */
    int64_t received = 0; /* its last record, whatever became of it */
    int64_t time = 0;     /* of the last pass, as reckoned */
    int64_t claimed = 0;  /* the same as the agent had it */
    int64_t reached = 0;  /* the latest `time` since its clock was set back */
    int64_t block = 0;    /* row of the block that has the last record; it may be packed */
    std::optional<int32_t> location = {}, status = {}; /* of the last pass: its last record */
    /* Records of the last pass so far, of them those that are problems, and of the pass before. */
    uint32_t parts = 0, bad_parts = 0, parts_before = 0;
    uint32_t pid = 0; /* of process tests: in the last record; 0: no process */
    /* The pass that came last, where that is one that changed nothing but the ledger. */
    std::optional<pass_mark> overtaken = {};

    auto key() const { return std::pair(type, number); }
};

struct inventory_status {
    uint32_t type = 0;
    int64_t row = 0, received = 0, time = 0; /* row of what is stored; times of what came last */
    std::array<char, 16> hash = {};          /* of the items */
};

struct hour_counts {
    int64_t hour = 0; /* seconds at which it begins */
    uint64_t received = 0, repeated = 0, missing = 0;
};

struct agent_state {
    enum { max_tests = 10000 };

    std::vector<test_status> tests; /* by key */
    std::vector<inventory_status> inventories;
    bool silent = false;
    int64_t since = 0; /* when it fell silent, or was heard again */
    /* The intervals that counted when its last results came, of an agent with a plan of its own. */
    std::optional<intervals> every = {};

    /* Blocks that are not packed: the newest, and since when and how much there is. */
    int64_t last_block = 0, open_since = 0;
    uint64_t open_bytes = 0;

    /* Of the hour that is being counted; the ledger gets it when another one begins. */
    hour_counts counts;

    /* Reads what pack() made, in place of what was there; nothing is the state of an agent that is
     * not known yet. False when it is damaged: then it is empty. Memory is kept for the next agent.
     */
    bool unpack(std::string_view packed);
    void pack(std::string& into) const;

    test_status* find(uint32_t type, std::optional<int32_t> number);
    const test_status* find(uint32_t type, std::optional<int32_t> number) const;

    /* The worst of the tests, or silent: problem, stale, ok; unknown where none of them is known.
     * Those without a number are none. */
    state worst() const;
};

/* The `counts` of a packed state, without the rest; none where nothing was counted, or it is
 * damaged. */
std::optional<hour_counts> packed_counts(std::string_view packed);

/* What a test looks like from outside: unknown while its agent is silent. */
state shown_state(const agent_state& agent, const test_status& test);
/* Since when: of a test that was ok or a problem since its agent is silent. */
int64_t shown_since(const agent_state& agent, const test_status& test);

#endif

/* By which definition of its test a result was judged. An agent may have definitions of its own;
 * what it has none for is as all agents have it (agent 0).
 *
 * A result echoes the location id of the definition that its agent had. Of several with the same
 * one, as when a plan is edited and the id is left as it was, it is the last that was there at the
 * time of the result, or the first when it is older than all of them: what the agents had before
 * the collector noted what. Last and first go by the order of storing, whatever the clock said.
 * Where nobody knows the id, a definition of the agent's own is taken by the time alone: at least
 * the test's name is right. */
#ifndef VINDRAL_COLLECTOR_DEFINITION_H
#define VINDRAL_COLLECTOR_DEFINITION_H

#include "state/agent_state.h"
#include "store/engine.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

/* test_definition (store/engine.h) with its own texts. */
struct definition {
    uint32_t type = 0;
    int32_t number = 0, location = 0;
    int64_t since = 0;
    std::string name = {}, text = {};
    std::string title = {}, group = {}; /* empty: none was given */
    int64_t agent = 0;
};

using definition_pointer = std::shared_ptr<const definition>;

/* Looks up each definition once, whatever the number of results that it judged. Of the reader's
 * state of the store, and not to be kept for longer. */
class definition_reader {
public:
    explicit definition_reader(result_reader& store) : store_(store) {}

    /* Null when none is known; also, with the reason in `error` unless there is one already, when
     * that cannot be read. Without a location, as for an event, the time alone tells. */
    definition_pointer of(int64_t agent, uint32_t type, std::optional<int32_t> number,
                          std::optional<int32_t> location, int64_t time, std::string& error);
    /* That of the test's last result. */
    definition_pointer of(int64_t agent, const test_status& test, std::string& error) {
        return of(agent, test.type, test.number, test.location, test.time, error);
    }

private:
    struct entry {
        definition_pointer what;
        int64_t from, until; /* from <= time < until: it is the one */
    };
    using key = std::tuple<int64_t, uint32_t, int32_t, std::optional<int32_t>>;

    bool has_own(int64_t agent);
    definition_pointer look_up(const key& wanted, int64_t time, std::string& error);

    result_reader& store_;
    std::map<key, entry> found_;                /* the last of each */
    std::unordered_map<int64_t, bool> has_own_; /* by agent */
};

/* What a test was from `from` to `to`, whatever the location ids: what it was at `from`, and then
 * each that took the place of the one before; the agent's own, if there are any of the test. False
 * with the reason in `error`. */
bool read_definitions(result_reader& store, const known_test_row& test, int64_t from, int64_t to,
                      std::vector<definition_pointer>& found, std::string& error);

#endif

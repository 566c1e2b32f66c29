/* The last result of each of many tests. Those of an agent mostly lie in one block, which is read
 * once for all of them; what is packed already is looked up one by one. */
#ifndef VINDRAL_COLLECTOR_LAST_RESULTS_H
#define VINDRAL_COLLECTOR_LAST_RESULTS_H

#include "state/agent_state.h"
#include "state/result.h"
#include "store/engine.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class last_results {
public:
    explicit last_results(result_reader& store) : store_(store) {}

    /* Without its records; one without anything when it is there no more. What cannot be read is
     * told in `error`, unless there is something in it. Cheapest agent by agent. */
    result of(const test_status& test, std::string& error);

private:
    struct arrived {
        int64_t received = 0;
        std::string record;
    };
    using key = std::pair<uint32_t, int32_t>; /* type, number */
    struct block {
        int64_t row = 0, before = 0;
        std::map<key, std::vector<arrived>> records;
    };

    const block& read(block& into, int64_t row);
    std::optional<result> find_open(const test_status& test);

    result_reader& store_;
    block last_, before_; /* the ones read last */
};

#endif

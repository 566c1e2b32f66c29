/* Results as people ask for them: all records of one pass of a test as one, with named values and
 * parts. Pure.
 *
 * Values have ids, by which they are packed in roll-ups: the place of a value's row in the type's
 * table (protocol/record_types.h); 100 and on for what a whole pass has besides: `processes` (how
 * many records with a process) of process tests, whose other values are sums over the pass;
 * `result` of MySQL tests, where it is a number; `rows` of SNMP tables; from 1000 on the objects of
 * an SNMP get that are numbers, "object 1" first. Quantities that are not available are no values.
 */
#ifndef VINDRAL_COLLECTOR_RESULT_H
#define VINDRAL_COLLECTOR_RESULT_H

#include "base/record_summary.h"
#include "state/agent_state.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct result_value {
    uint32_t id = 0;
    double value = 0;
};

/* Name ("load1", "object 2") and unit ("%", "MB", "") of a value; numbers of type and id that have
 * none are "value ID" without a unit. */
std::string value_name(uint32_t type, uint32_t id);
std::string_view value_unit(uint32_t type, uint32_t id);

struct result {
    int64_t time = 0;     /* as reckoned */
    int64_t claimed = 0;  /* as the agent had it; differs by the clock's skew */
    int64_t received = 0; /* of the first record */
    state judged = state::unknown;
    std::optional<int32_t> status = {}, location = {}; /* of the worst record */
    std::string message = {};                          /* of the worst record: judge() */
    std::vector<result_value> values = {};             /* by id */
    std::vector<std::string> records = {}; /* as sent: the parts are read from them when shown */
};

/* Puts records of one test, in the order of arrival, together to results. A record that repeats one
 * of the same pass to the byte is left out. */
class result_builder {
public:
    explicit result_builder(bool keep_records) : keep_records_(keep_records) {}

    /* Bytes of a record that does not decode are passed over. */
    void add(std::string_view record, int64_t received);
    /* Those that are complete so far, or all at the end; in the order of arrival. */
    std::vector<result> take_all();

private:
    const bool keep_records_;
    std::vector<result> done_;
    std::vector<std::string> pass_; /* records of the last one, to know repetitions */
};

#endif

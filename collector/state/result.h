/* Results as people ask for them: all records of one pass of a test as one, with named values and
 * parts. Pure.
 *
 * PASS  Records that follow each other and have the same check time and location id. Those of a
 * process test may be spread over two seconds, as long as the ids of the processes rise. A MySQL
 * test has one record a pass, whose coarse time tells nothing; so has what has no time at all.
 *
 * VALUES  have ids, by which they are packed in roll-ups: the place of a value's row in the type's
 * table (protocol/record_types.h); 100 and on for what a whole pass has besides: `processes` (how
 * many records with a process) of process tests, whose other values are sums over the pass; `rows`
 * of SNMP tables. From 1000 on stand numbers out of lists, each where its place in the list is: the
 * objects of an SNMP get, "object 1" first, and the values of a MySQL test, "result", "result 2"
 * and so on; max_listed of them. What agents cross (base/record_summary.h) is uncrossed.
 *
 * Quantities that are not available are no values: what the protocol says is none, what is not
 * finite, all of a remote query that failed or a disk that was not found, and the round trip of a
 * ping without answer. */
#ifndef VINDRAL_COLLECTOR_RESULT_H
#define VINDRAL_COLLECTOR_RESULT_H

#include "base/record_summary.h"
#include "state/agent_state.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

struct definition;

enum : uint32_t {
    value_processes = 100,
    value_rows = 102,
    value_listed = 1000, /* the first of a list */
    max_listed = 256
};

struct result_value {
    uint32_t id = 0;
    double value = 0;
};

/* Name ("load1", "object 2") and unit ("%", "MB", "") of a value; what has no name is "value ID",
 * without a unit. */
std::string value_name(uint32_t type, uint32_t id);
std::string_view value_unit(uint32_t type, uint32_t id);

/* Ids of the values in a record that count up and begin anew now and then, as it says itself:
 * objects of an SNMP get. Of a record that does not decode, or of another type, there are none. */
std::vector<uint32_t> counters_in(std::string_view record);

struct result {
    uint32_t type = 0;    /* of its records */
    int64_t time = 0;     /* as reckoned */
    int64_t claimed = 0;  /* as the agent had it; differs by the clock's skew */
    int64_t received = 0; /* of the first record */
    state judged = state::unknown;
    std::optional<int32_t> status = {}, location = {}; /* of the worst record */
    std::string message = {};                          /* of the worst record: judge() */
    std::vector<result_value> values = {};             /* by id */
    std::vector<std::string> records = {}; /* as sent: the parts are read from them when shown */
    std::shared_ptr<const definition> judged_by = {}; /* definition.h; by who reads it back */
};

/* Puts records of one test, in the order of arrival, together to results. A record that repeats one
 * of the same pass to the byte is left out. */
class result_builder {
public:
    explicit result_builder(bool keep_records) : keep_records_(keep_records) {}

    /* Bytes of a record that does not decode are passed over. */
    void add(std::string_view bytes, int64_t received);
    void add(const decoded_record& what, int64_t received);
    size_t size() const { return done_.size(); }
    /* All that are there, in the order of arrival. The next record begins another pass. */
    std::vector<result> take_all();

private:
    bool goes_on(const decoded_record& what) const;

    const bool keep_records_;
    std::vector<result> done_;
    bool in_pass_ = false; /* the last of them may go on */
    uint32_t last_process_ = 0;
    std::string first_; /* records of the pass, to know repetitions: the first, and the others */
    std::unordered_set<std::string> others_;
};

#endif

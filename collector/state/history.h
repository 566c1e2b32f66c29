/* Reading back: results, series, events and the ledger of tests, out of what lies open, what is
 * packed and what is rolled up. One reader, one state of the store. Not for two threads at once. */
#ifndef VINDRAL_COLLECTOR_HISTORY_H
#define VINDRAL_COLLECTOR_HISTORY_H

#include "state/result.h"
#include "store/engine.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/* Results of a test with from <= time < to, newest first, `most` of them at the most. False with
 * the reason in `error` when not all could be read. */
bool read_results(result_reader& store, int64_t test, int64_t from, int64_t to, size_t most,
                  std::vector<result>& found, std::string& error);

/* Columns: `time[i]` is where a point begins, each column as long as `time`. */
struct series {
    int64_t from = 0, to = 0;
    int64_t resolution = 0; /* seconds a point; 0: every result is one */
    std::vector<int64_t> time;
    std::vector<uint32_t> count;
    struct column {
        uint32_t id = 0;                    /* value_name() */
        std::vector<double> min, mean, max; /* NaN where there is none */
    };
    std::vector<column> values;                 /* by id */
    std::vector<uint32_t> ok, problem, unknown; /* seconds */
};

/* About `points` of them, or fewer: every result where these are not more, else 5 minutes, an hour,
 * or a whole number of hours, the finest that fits and is still kept for that time. */
bool read_series(result_reader& store, int64_t test, int64_t from, int64_t to, size_t points,
                 series& found, std::string& error);

/* The newest record of a test as it was sent, with its arrival; `each` is not called when it is
 * gone. */
bool read_newest(result_reader& store, const known_agent& agent, int64_t test,
                 const std::function<void(int64_t received, std::string_view record)>& each,
                 std::string& error);

#endif

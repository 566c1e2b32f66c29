/* Reading back: results and series of a test, out of what lies open, what is packed and what is
 * rolled up. One reader, one state of the store. Not for two threads at once.
 *
 * TIMES  are those of results, as reckoned, whenever these arrived: those that came days late stand
 * where they belong. Times that lie more than 30,000 years from the epoch are not looked at.
 *
 * ONCE  The roll-ups of the days up to the fact "closed_through" have exactly what is packed of
 * these days. A result of such a day that lies open has come late: it is added to them, each time
 * they are read, until it is packed and they are made anew; its state covers what was unknown. For
 * days after that nothing but the results themselves is read, even where there is a roll-up
 * already.
 *
 * WORK  Of the packed results those chunks are unpacked that have something of the time asked for,
 * of the open blocks those of the test's agent, of which there is little. */
#ifndef VINDRAL_COLLECTOR_HISTORY_H
#define VINDRAL_COLLECTOR_HISTORY_H

#include "state/definition.h"
#include "state/result.h"
#include "store/engine.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/* Results of a test with from <= time < to, newest first, `most` of them at the most; fewer where
 * these have more than `most_bytes` in their records, but one at least. Each has the definition
 * that it was judged by, where one is known. `more`: there may be others before them. To go on, ask
 * for `to` = the last one's time + 1, because of those that have the same time. False with the
 * reason in `error` when not all could be read; `found` has the others. */
constexpr size_t max_result_bytes = 64u << 20;

bool read_results(result_reader& store, int64_t test, int64_t from, int64_t to, size_t most,
                  std::vector<result>& found, std::string& error, bool* more = nullptr,
                  size_t most_bytes = max_result_bytes);

/* Columns: `time[i]` is where a point begins, each column as long as `time`. Points of 5 minutes
 * and more begin at multiples of that since the epoch and follow each other without gaps; those at
 * the ends are whole, so that `from` and `to` may lie a little outside of what was asked for.
 * States hold as in roll_up.h. Of what lies in the future nothing is known, like of any time
 * without results: who asks cuts it off. */
struct series {
    int64_t from = 0, to = 0;
    int64_t resolution = 0; /* seconds a point; 0: every result is one */
    std::vector<int64_t> time;
    std::vector<uint32_t> count;
    struct column {
        uint32_t id = 0;                    /* value_name() */
        std::vector<double> min, mean, max; /* NaN where there is none */
    };
    std::vector<column> values;                  /* by id */
    std::vector<uint32_t> ok, problem, unknown;  /* seconds */
    std::vector<definition_pointer> definitions; /* what the test was: read_definitions() */
};

/* About `points` of them, or fewer (max_points at the most): every result where these are not more,
 * else 5 minutes, an hour, or a whole number of hours, the finest that fits and is still kept for
 * all of that time. False as above. */
bool read_series(result_reader& store, int64_t test, int64_t from, int64_t to, size_t points,
                 series& found, std::string& error);

constexpr size_t max_points = 10000;

/* The newest record of a test as it was sent, with its arrival; `each` is not called when it is
 * gone. */
bool read_newest(result_reader& store, const known_agent& agent, int64_t test,
                 const std::function<void(int64_t received, std::string_view record)>& each,
                 std::string& error);

#endif

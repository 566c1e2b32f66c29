/* What became of a test in a day, from its results. Pure.
 *
 * A result counts in the bucket of its time. Its state holds from then until the next result, but
 * not longer than a test takes to become stale; what no result covers is unknown. */
#ifndef VINDRAL_COLLECTOR_ROLL_UP_H
#define VINDRAL_COLLECTOR_ROLL_UP_H

#include "state/result.h"
#include "store/pack.h"

#include <cstdint>
#include <span>
#include <vector>

/* Results of a test by time (order_by_time()), those of the day and those around it that reach into
 * it. `day` in days since the epoch; `width` of a bucket in seconds: 300 or 3600. */
std::vector<bucket> roll_up(std::span<const result> results, int64_t day, uint32_t width,
                            int64_t stale_after);

/* By time, those of one time in the order of arrival, in which they come here. A pass that came
 * again (its time, claimed time and location are the same) is one result, as it came last. */
void order_by_time(std::vector<result>& results);

/* Buckets of a day into those that are wider by a whole number of times. */
std::vector<bucket> widen(const std::vector<bucket>& narrow, uint32_t width);

/* Counts, values and states of a bucket into those of another, which goes on from it. */
void add_up(bucket& into, const bucket& more);

/* Late results into a day of which the others are gone: counts and values are added, states cover
 * what was unknown. */
void add_to(std::vector<bucket>& day, const std::vector<bucket>& late, uint32_t width);

#endif

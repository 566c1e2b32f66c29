/* What the lines of a plan come to. */
#ifndef VINDRAL_COLLECTOR_PLANNED_H
#define VINDRAL_COLLECTOR_PLANNED_H

#include "plan/line.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/* A test that the lines add and do not remove, in the order of the adding lines. Tests whose
 * results do not come as records (walks, limits of a disk's traffic) are not among them. */
struct planned_test {
    uint32_t type; /* of the records that its results are */
    int32_t id;
    size_t line = 0; /* place of the line that says last what it is */
};
std::vector<planned_test> planned_tests(const std::vector<plan_line>& lines);

/* The intervals that an agent has when it has heeded all lines, in seconds. */
struct planned_intervals {
    int32_t poll = 60;
    int32_t check = 0; /* none: a test runs once */
};
planned_intervals intervals_of(const std::vector<plan_line>& lines);

#endif

/* The tables that know every checker: the agent's table of contents. Adding a checker is one row in
 * each of them. */
#ifndef VINDRAL_CHECKERS_H
#define VINDRAL_CHECKERS_H

#include <cstddef>

/* Starts every checker in order and logs each outcome at the always level. Returns 0 as soon as one
 * fails that the agent does not run without, else 1. Main thread. */
int start_checkers();

/* Sets the check interval of every checker, in order. */
void set_check_intervals(int t_sec);

/* Stops every checker that runs, in order; waits for passes under way. Main thread. */
void stop_checkers();

/* Where results come from, in the order in which they are collected. `take` hands over a malloc'd
 * buffer and its size and returns 1, or returns 0 when there is nothing; `name` is its name in the
 * log. */
struct result_source {
    int (*take)(char** buffer, int* size);
    const char* name;
};
extern const result_source result_sources[];
extern const size_t result_source_count;

#endif

/* Which planned tests have results and which have not (vindral-collector --missing). */
#ifndef VINDRAL_COLLECTOR_REPORT_H
#define VINDRAL_COLLECTOR_REPORT_H

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

struct missing_count {
    size_t stored = 0;  /* planned tests with a result, each agent counted for itself */
    size_t missing = 0; /* planned tests without */
    size_t refused = 0; /* lines of the plan that are left out, and with them the tests they add */
};

/* Prints one line for each agent that ever sent results and each test that the plan adds and does
 * not remove, fields separated by tabs:
 *
 *   stored    ACCOUNT  AGENT  load average  5  2026-05-01T12:00:00Z  ok
 *   missing   ACCOUNT  AGENT  load average  6
 *
 * A test is stored when a record of it was received at or after `since` (seconds since the epoch);
 * the time and status are those of the last one. While no agent has sent anything, ACCOUNT and
 * AGENT are
 * "-" and every test is missing. Problems in the plan go to `out` too, each as a line
 * "problem<tab>line N: reason".
 *
 * Reads the database only, also while a collector writes to it. False with the reason in `error`
 * when the plan or the database cannot be read. */
bool print_missing(const std::string& directory, const std::string& plan_path, int64_t since,
                   std::ostream& out, missing_count& count, std::string& error);

#endif

/* Which planned tests have results and which have not (vindral-collector --missing). */
#ifndef VINDRAL_COLLECTOR_REPORT_H
#define VINDRAL_COLLECTOR_REPORT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

struct missing_count {
    size_t stored = 0;  /* planned tests with a result, each agent counted for itself */
    size_t missing = 0; /* planned tests without, or of which nothing comes any more */
    size_t silent = 0;  /* agents of which nothing comes any more */
    size_t refused = 0; /* lines of the plan that are left out, and with them the tests they add;
                           tests of the fleet that an agent cannot have */
};

/* What is too old: what the server received further away from `now` than `seconds`. A time that
 * far in the future comes from a clock that was wrong and says no more than one in the past. */
struct missing_age {
    int64_t now = 0;                        /* seconds since the epoch */
    std::optional<int64_t> older_than = {}; /* none: nothing is too old */
};

/* Prints one line for each agent that ever sent results and each test that the plan adds and does
 * not remove, fields separated by tabs:
 *
 *   stored    ACCOUNT  AGENT  load average  5  2026-05-01T12:00:00Z  ok
 *   missing   ACCOUNT  AGENT  load average  6
 *   missing   ACCOUNT  AGENT  load average  7  2026-04-01T12:00:00Z  ok
 *   silent    ACCOUNT  AGENT  2026-04-01T12:00:00Z
 *
 * Time and status are those of the last result. A missing test has them, too, when there was one:
 * it is stale, or its agent silent, or that result is too old. An agent that is silent, or of which
 * everything is too old, has a line with the time when it was heard last, before those of its
 * tests. Stale and silent are what the collector found when it ran last (state/watch.h); it judges
 * nothing while it does not run, which is what ages are for. While no agent has sent anything,
 * ACCOUNT and AGENT are "-" and every test is missing. Problems in the plan go to `out` too, each
 * as a line "problem<tab>line N: reason".
 *
 * With an empty `plan_path` it is the fleet that is stored: of each agent the tests that it was
 * given, with their names as one more field at the end:
 *
 *   stored      ACCOUNT  AGENT  http  801  2026-05-01T12:00:00Z  ok  front page
 *   missing     ACCOUNT  AGENT  http  802  login page
 *   impossible  ACCOUNT  AGENT  disk  -  there is no disk /data; there are /, /home  data
 *
 * What is impossible was not given to the agent as it stands in the fleet file, because it cannot
 * have it; it counts as refused. One that has a number goes on as it was before, and has another
 * line for that. An agent that was given tests and is not there has a line for each, too. While
 * there is no agent at all there is one line, "missing<tab>-<tab>-".
 *
 * It looks at the agents' rows alone, whatever the number of results. Reads the database only, also
 * while a collector writes to it. False with the reason in `error` when the plan or the database
 * cannot be read. */
bool print_missing(const std::string& directory, const std::string& plan_path,
                   const missing_age& age, std::ostream& out, missing_count& count,
                   std::string& error);

#endif

/* Stands in for the log writer: lines are kept, at every level, in the order of the calls. */
#ifndef VINDRAL_FAKE_CORE_H
#define VINDRAL_FAKE_CORE_H

#include <string>
#include <vector>

struct logged_line {
    int level;
    std::string text;
};

/* Takes all lines logged since the last call. From any thread. */
std::vector<logged_line> take_log();

/* The texts of take_log(), one below the other, each "LEVEL text". */
std::string take_log_text();

#endif

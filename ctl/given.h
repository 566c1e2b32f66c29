/* What a command line says, as it was typed. */
#ifndef VINDRAL_CTL_GIVEN_H
#define VINDRAL_CTL_GIVEN_H

#include <cstdint>
#include <string>
#include <vector>

constexpr int64_t not_given = -1;

struct given {
    /* Of all commands; what the environment says fills in what is not there. */
    std::string url, token, token_file, ca;
    bool json = false, ascii = false, no_color = false;

    /* Of some. */
    std::string word; /* the one behind the command: AGENT, TEST, NAME, FILE or REVISION */
    std::string agent, test, type, state, q, from, to, kind, role, ends, account, key, group,
        outcome;
    std::vector<std::string> values;
    int64_t limit = not_given, points = not_given, height = not_given; /* limit 0: all */
    int64_t revision = not_given, wait = not_given;                    /* seconds */
    bool rate = false, fail = false, quiet = false, yes = false, all = false, open = false;
};

#endif

/* Which agents a group has: "web-*" by name, "me@example.org/web-1" by account and name, each with
 * "*" for any characters and "?" for one. Whole names; letters count as they stand. Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_PATTERN_H
#define VINDRAL_COLLECTOR_FLEET_PATTERN_H

#include <string>
#include <string_view>

struct agent_pattern {
    std::string account; /* empty: any; may have "*" and "?" too */
    std::string name;

    bool matches(std::string_view of_account, std::string_view of_name) const;
};

/* At the last "/": an account may have one, a name in a pattern has none. */
agent_pattern pattern_of(std::string_view text);

/* Takes linear time but for the patterns' stars: no backtracking further than the last one. */
bool matches_pattern(std::string_view text, std::string_view pattern);

#endif

/* One line of a plan, taken for what an agent takes it: fields separated by tabs, checked against
 * the protocol's table of commands. */
#ifndef VINDRAL_COLLECTOR_PLAN_LINE_H
#define VINDRAL_COLLECTOR_PLAN_LINE_H

#include "protocol/commands.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t longest_plan_line = 64u << 10; /* bytes, with the secrets in it, too */

struct plan_line {
    uint64_t serial; /* grows with each line first seen, across re-readings; never reused */
    int number;      /* line number in the file */
    std::string text;
};

/* A test of an agent: one of its lists, and the id in there. */
struct test_place {
    uint32_t list = 0;
    int32_t id = 0;
    auto operator<=>(const test_place&) const = default;
};

/* "load average test 5", "TCP listener 7". */
std::string name_of(const test_place& test);

struct command_line {
    const protocol::command_def* command; /* null: no agent does a thing for it */
    std::vector<std::string_view> fields; /* views into the line; one at least */

    /* The test that it is about; all 0 for none. */
    test_place test() const;

    /* The type of the records that the test brings, 0 when it brings none. */
    uint32_t results() const;
};
command_line parse_line(std::string_view text);

/* The reason why an agent would not do what the line says, "" for none. */
std::string why_refused(std::string_view text, const command_line& line);

/* A whole number that the agent's ids and limits can hold, and nothing else in the field. */
bool read_number(std::string_view field, int32_t& number);

#endif

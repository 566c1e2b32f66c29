/* Agents and tests by what people call them. */
#ifndef VINDRAL_CTL_LOOKUP_H
#define VINDRAL_CTL_LOOKUP_H

#include "ctl/api.h"

#include <cstdint>
#include <string>

/* As people read it. */
struct found_thing {
    int64_t id = 0;
    std::string called;    /* "account/name", "account/name:test"; printable */
    std::string more = {}; /* " (disk 401)" where several are listed: names may be the same */
};

/* An id, "account/name", or the name where only one agent has it. Throws failure: absent, with
 * names that have the text in them, or usage when several fit, which are listed. */
found_thing find_agent(api& with, const std::string& called);

/* An id, "AGENT:NAME" with an agent as above, or the name where only one test has it. When no test
 * is called so, one that looks at that will do, and then one that has the text in its name or in
 * what it looks at, if it is the only one. A test of the fleet that was removed gives way to
 * another of its name. Throws likewise, with the tests of the agent when it has none like it. */
found_thing find_test(api& with, const std::string& called);

/* What `called` is when it is all digits, and fits. */
bool is_id(const std::string& called);

#endif

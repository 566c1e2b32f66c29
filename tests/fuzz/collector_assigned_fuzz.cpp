/* An agent's tests as a damaged database may hold them: the sum is made right, or nothing would
 * ever get past it. What is read is sound enough to be told to agents and to be packed again. */
#include "fleet/assigned.h"
#include "fuzz.h"
#include "plan/line.h"

#include <set>
#include <zlib.h>

static void check_commands(const std::string& text) {
    for (const std::string& line : split(text, "\n")) {
        require(line.empty() || why_refused(line, parse_line(line)).empty());
    }
}

static void check_agent(assigned_agent& agent) {
    std::set<int32_t> numbers;
    for (const assigned_test& test : agent.tests) {
        require(test.kind != nullptr && agent.find(test.name) == &test);
        require(test.number == 0 || agent.find(test.kind->record->code, test.number) == &test);
        require(test.number >= 0 && test.number < agent.next_number);
        require(test.number == 0 || numbers.insert(test.number).second);
    }
    expand_function expand = [](std::string_view) { return std::nullopt; };
    check_commands(commands_after(agent, 0, true, expand));
    check_commands(commands_for_login(agent, true, true, expand));
    int32_t next = agent.next_number;
    assign(agent, {}, INT32_MAX, [](std::string_view) -> uint64_t { return 1; });
    require(agent.tests.empty() && agent.next_number >= next);
    check_commands(commands_after(agent, 0, true, expand));
}

static void check(const std::string& packed) {
    assigned_agent agent, again;
    if (!agent.unpack(packed)) {
        require(agent.tests.empty() && agent.removed.empty() && agent.next_number == 1);
        return;
    }
    std::string once, twice;
    agent.pack(once);
    require(again.unpack(once) && again.tests.size() == agent.tests.size());
    again.pack(twice);
    require(once == twice);
    check_agent(agent);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string packed(reinterpret_cast<const char*>(data), size);
    auto sum = static_cast<uint32_t>(crc32_z(0, data, size));
    packed.append(reinterpret_cast<const char*>(&sum), sizeof(sum));
    require_no_growth([&] { check(packed); });
    return 0;
}

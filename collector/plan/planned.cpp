#include "plan/planned.h"

#include <algorithm>
#include <map>

using protocol::command_effect;

std::vector<planned_test> planned_tests(const std::vector<plan_line>& lines) {
    struct added_test {
        size_t line;
        planned_test test;
    };
    std::map<test_place, added_test> added;
    for (size_t i = 0; i < lines.size(); i++) {
        command_line line = parse_line(lines[i].text);
        test_place place = line.test();
        command_effect does = line.command != nullptr ? line.command->does : command_effect::none;
        if (does == command_effect::adds) {
            added[place] = {i, {line.results(), place.id, i}};
        } else if (does == command_effect::removes) {
            added.erase(place);
        } else if (does == command_effect::modifies && added.contains(place)) {
            added[place].test.type = line.results();
            added[place].test.line = i;
        }
    }
    std::vector<added_test> ordered;
    for (const auto& [place, test] : added) {
        if (test.test.type != 0) {
            ordered.push_back(test);
        }
    }
    std::sort(ordered.begin(), ordered.end(),
              [](const added_test& a, const added_test& b) { return a.line < b.line; });
    std::vector<planned_test> tests;
    tests.reserve(ordered.size());
    for (const added_test& test : ordered) {
        tests.push_back(test.test);
    }
    return tests;
}

planned_intervals intervals_of(const std::vector<plan_line>& lines) {
    planned_intervals intervals;
    for (const plan_line& line : lines) {
        std::vector<std::string_view> fields = parse_line(line.text).fields;
        int32_t seconds = 0;
        if (fields.size() > 2 && read_number(fields[2], seconds) && seconds > 0) {
            (fields[0] == "POL"   ? intervals.poll
             : fields[0] == "CHK" ? intervals.check
                                  : seconds) = seconds;
        }
    }
    return intervals;
}

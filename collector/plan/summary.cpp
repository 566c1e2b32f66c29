#include "plan/summary.h"

#include "plan/placeholder.h"
#include "plan/planned.h"

#include <algorithm>
#include <string_view>

using protocol::field_def;

namespace {

constexpr std::string_view path_end = "?";

/* A page's path, which has no name of its own in the table. */
constexpr size_t page_path = 3;

/* Up to the text, or all of it. */
std::string_view before(std::string_view all, std::string_view text) {
    return all.substr(0, all.find(text));
}

/* The fields that the table calls so, with a text between. */
std::string joined(const command_line& line, std::string_view name, const char* between,
                   size_t most) {
    std::string all;
    const auto& table = line.command->fields;
    for (size_t i = 0; i < table.size() && i + 1 < line.fields.size() && most > 0; i++) {
        if (table[i].name == name) {
            all.append(all.empty() ? "" : between).append(line.fields[i + 1]);
            most--;
        }
    }
    return all;
}

/* What the test looks at, for people: "/home", "nginx", "www.example.org/status". */
std::string name_of(uint32_t type, const command_line& line) {
    if (type == protocol::disk.code) { /* DIRECTORY(DEVICE|TYPE) */
        return std::string(before(joined(line, "name", "", 1), "("));
    }
    if (type == protocol::process.code || type == protocol::network.code) {
        return joined(line, "name", "", 1);
    }
    if (type == protocol::discovery.code) {
        return joined(line, "address", " to ", 2);
    }
    std::string host = joined(line, "host", "", 1);
    return type == protocol::http.code && page_path + 1 < line.fields.size()
               ? host.append(before(line.fields[page_path + 1], path_end))
               : host;
}

/* Of fields that are beyond the table agents know nothing, and neither do we. */
std::string text_of(uint32_t type, const command_line& line) {
    std::string text;
    const auto& table = line.command->fields;
    for (size_t i = 0; i < table.size() && i + 1 < line.fields.size(); i++) {
        std::string_view field = line.fields[i + 1];
        if (table[i].secret) {
            field = is_only_placeholders(field) ? field : std::string_view();
        } else if (type == protocol::http.code && i == page_path) {
            field = before(field, path_end);
        }
        text.append(i > 0 ? "\t" : "").append(field);
    }
    return text;
}

int32_t location_of(const command_line& line) {
    int32_t location = 0;
    read_number(joined(line, "location id", "", 1), location);
    return location;
}

} // namespace

plan_summary summary_of(const std::vector<plan_line>& lines) {
    planned_intervals every = intervals_of(lines);
    plan_summary summary;
    summary.every = {.poll = every.poll, .check = every.check};
    summary.is_planned = true;
    for (const planned_test& test : planned_tests(lines)) {
        summary.tests.emplace_back(test.type, test.id);
    }
    return summary;
}

std::vector<owned_definition> definitions_of(const std::vector<plan_line>& lines) {
    std::vector<owned_definition> definitions;
    for (const planned_test& test : planned_tests(lines)) {
        command_line line = parse_line(lines[test.line].text);
        definitions.push_back({.type = test.type,
                               .number = test.id,
                               .location = location_of(line),
                               .name = name_of(test.type, line),
                               .text = text_of(test.type, line)});
    }
    return definitions;
}

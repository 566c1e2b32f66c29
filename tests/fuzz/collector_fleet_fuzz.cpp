/* The fleet file: whatever the text, what comes of it are commands, a field for each value, or
 * remarks with a place in the text. */
#include "api/fleet_schema.h"
#include "fleet/file.h"
#include "fleet/text_check.h"
#include "fuzz.h"
#include "plan/line.h"
#include "plan/placeholder.h"

#include <algorithm>
#include <limits>

static bool is_line(std::string_view text) {
    return first_control(text) == text.npos && first_no_utf8(text) == text.npos;
}

/* Secrets by name only, and only whole names. */
static void check_secrets(const fleet& all, std::string_view field) {
    for (const std::string& name : secrets_in(field)) {
        require(std::find(all.secrets.begin(), all.secrets.end(), name) != all.secrets.end());
    }
    placeholder at;
    for (size_t from = 0; find_placeholder(field, from, at); from = at.end) {
        require(!at.name.empty());
    }
}

/* As it goes to an agent, with the longest numbers. */
static void check_command(const fleet_test& test, const protocol::command_def& command) {
    std::string line(command.code);
    line += "\t2147483647\t2147483647";
    for (const std::string& field : test.fields) {
        require(is_line(field));
        line.append("\t").append(field);
    }
    const command_line parsed = parse_line(line);
    require(why_refused(line, parsed).empty());
    require(parsed.command == &command && parsed.fields.size() == test.fields.size() + 3);
    for (size_t i = 0; i < test.fields.size(); i++) {
        require(parsed.fields[i + 3] == test.fields[i]);
    }
    require(parsed.results() == test.kind->record->code);
}

static void check_test(const fleet& all, const fleet_group& group, const fleet_test& test) {
    require(is_line(test.name) && !test.name.empty() && characters_of(test.name) <= 100);
    require(test.group == group.name && is_line(test.was) && is_line(test.target));
    require(is_line(test.looks_for) && test.was != test.name);
    if (test.kind == nullptr) {
        require(test.fields.empty() && test.shown.empty());
        return;
    }
    check_command(test, *test.kind->add);
    check_command(test, *test.kind->modify);
    require(!test.fields.empty() && !test.fields.back().empty());
    for (const std::string& field : test.fields) {
        check_secrets(all, field);
    }
    for (const auto& [key, value] : test.shown) {
        require(!key.empty() && is_line(value));
    }
    require(test.looks_for.empty() || test.fields[0] == test.looks_for);
    require(!test.free_share || (*test.free_share > 0 && *test.free_share < 100));
}

static void check_fleet(const fleet& all) {
    for (const fleet_group& group : all.groups) {
        require(is_line(group.name) && !group.name.empty());
        for (const agent_pattern& pattern : group.agents) {
            require(!pattern.name.empty());
            pattern.matches("me@example.org", "web-1");
        }
        for (const auto& test : group.tests) {
            check_test(all, group, *test);
        }
    }
    for (const std::string& name : all.secrets) {
        require(is_secret_name(name));
    }
}

static void check_remarks(std::string_view text, const std::vector<remark>& remarks) {
    const auto lines = 1 + std::count(text.begin(), text.end(), '\n');
    int last = 1;
    for (const remark& each : remarks) {
        require(each.at.line >= last && each.at.line <= lines && each.at.column >= 1);
        require(is_line(each.text) && !each.text.empty() && each.text.size() < 1000);
        last = each.at.line;
        size_t begin = 0;
        for (int line = 1; line < each.at.line; line++) {
            begin = text.find('\n', begin) + 1;
        }
        const size_t length = std::min(text.find('\n', begin), text.size()) - begin;
        require(static_cast<size_t>(each.at.column) <= length + 1);
    }
}

/* Written as JSON and read again it is the same. */
static void check_as_json(std::string_view text, const fleet& one) {
    fleet other;
    std::vector<remark> wrong;
    require(read_fleet(fleet_as_json(text), other, wrong));
    require(one.groups.size() == other.groups.size() && one.secrets == other.secrets);
    for (size_t i = 0; i < one.groups.size(); i++) {
        const auto &tests = one.groups[i].tests, &others = other.groups[i].tests;
        require(tests.size() == others.size());
        for (size_t j = 0; j < tests.size(); j++) {
            require(tests[j]->fields == others[j]->fields && tests[j]->name == others[j]->name);
            require(tests[j]->shown == others[j]->shown);
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    fleet found;
    std::vector<remark> wrong;
    const bool is_sound = read_fleet(text, found, wrong);
    require(is_sound == wrong.empty() && wrong.size() <= 100);
    check_remarks(text, wrong);
    check_remarks(text, found.notes);
    if (is_sound) {
        check_fleet(found);
        check_as_json(text, found);
    } else {
        require(found.groups.empty());
    }
    return 0;
}

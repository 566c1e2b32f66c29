#include "plan/check.h"

using protocol::command_effect;

static bool is_comment(std::string_view line) {
    size_t first = line.find_first_not_of(" \t");
    return first == line.npos || line[first] == '#';
}

bool line_reader::next(checked_line& line) {
    while (!rest_.empty()) {
        size_t end = rest_.find('\n');
        std::string_view text = rest_.substr(0, end);
        rest_.remove_prefix(end == rest_.npos ? rest_.size() : end + 1);
        while (text.ends_with('\r')) {
            text.remove_suffix(1);
        }
        number_++;
        if (!is_comment(text)) {
            line = {.number = number_, .text = text};
            return true;
        }
    }
    return false;
}

std::string presence::apply(checked_line& line) {
    command_line parsed = parse_line(line.text);
    /* Without a command it may be meant to add a test, whatever is wrong with it. */
    line.does = parsed.command != nullptr ? parsed.command->does : command_effect::adds;
    line.test = parsed.test();
    std::string reason = why_refused(line.text, parsed);
    return reason.empty() ? apply(line.does, line.test) : reason;
}

std::string presence::apply(command_effect does, const test_place& test) {
    if (does == command_effect::none) {
        return "";
    }
    auto known = tests_.find(test);
    bool there = known != tests_.end() && known->second;
    bool maybe_there = there || (known == tests_.end() && earlier_.contains(test));
    if (does == command_effect::adds && there) {
        return name_of(test) + " is there already, adding it again does nothing";
    }
    if (does == command_effect::modifies && !maybe_there) {
        return name_of(test) + " is not there, modifying it does nothing";
    }
    if (does == command_effect::removes && !maybe_there) {
        return name_of(test) + " is not there, removing it does nothing";
    }
    if (does != command_effect::modifies) {
        tests_[test] = does == command_effect::adds;
    }
    return "";
}

bool presence::has(const test_place& test) const {
    auto known = tests_.find(test);
    return known != tests_.end() && known->second;
}

std::string why_none(std::string_view text, const std::map<test_place, bool>& earlier) {
    presence tests(earlier);
    std::string first;
    checked_line line;
    for (line_reader lines(text); lines.next(line);) {
        std::string reason = tests.apply(line);
        if (reason.empty()) {
            return "";
        }
        if (first.empty()) {
            first = "line " + std::to_string(line.number) + ": " + reason;
        }
    }
    return first;
}

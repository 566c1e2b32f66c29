#include "plan/line.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "plan/placeholder.h"

#include <charconv>
#include <cmath>
#include <system_error>

using protocol::command_def;
using protocol::command_effect;
using protocol::field_def;
using protocol::field_kind;

namespace {

std::string why_unreadable(std::string_view line) {
    return line.size() > longest_plan_line ? "the line is longer than 64 KiB"
           : line.find('\0') != line.npos  ? "there is a NUL byte in the line"
                                           : "";
}

/* As the agent splits: a tab that ends the line begins no field. */
std::vector<std::string_view> split_fields(std::string_view line) {
    std::vector<std::string_view> fields;
    if (line.ends_with('\t')) {
        line.remove_suffix(1);
    }
    for (size_t tab; (tab = line.find('\t')) != line.npos; line.remove_prefix(tab + 1)) {
        fields.push_back(line.substr(0, tab));
    }
    fields.push_back(line);
    return fields;
}

/* Null, too, for one that agents know and do nothing for. */
const command_def* find_useful(std::string_view code) {
    const command_def* found = protocol::find_command(code);
    return found != nullptr && found->does != command_effect::ignored ? found : nullptr;
}

/* A number with or without a fraction, and nothing else in the field. */
bool is_real(std::string_view field) {
    double number = 0;
    auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), number);
    return error == std::errc() && end == field.data() + field.size() && std::isfinite(number);
}

std::string quoted(std::string_view field) {
    bool cut = field.size() > 40;
    /* The quotation mark goes through, too: what is wrong may be a blank at the end. */
    return "\"" + printable(std::string(field.substr(0, 40)) + (cut ? "...\"" : "\""));
}

std::string why_wrong_count(const command_def& c, size_t count, bool ends_in_tab) {
    std::string takes = (c.most == protocol::any_more ? "at least " : "") + std::to_string(c.least);
    if (c.most != protocol::any_more && c.most > c.least) {
        takes += (c.most > c.least + 1 ? " to " : " or ") + std::to_string(c.most);
    }
    return std::string(c.code) + " takes " + takes + " fields, here are " + std::to_string(count) +
           (ends_in_tab ? " (the tab at the end begins no field)" : "");
}

std::string why_no_interval(const std::string& subject, int32_t number) {
    const int32_t longest = protocol::longest_interval_s;
    if (number > 0 && number <= longest) {
        return "";
    }
    std::string range = ": 1 to " + std::to_string(longest);
    return subject + std::to_string(number) +
           (number == -1 ? ", which ends agents for good" + range : range + " (31 days)");
}

/* Of a field that a secret may not stand in, or that has none where one is begun. What was written
 * instead of a name is not said again: it may be the secret. */
std::string why_no_secret(const field_def* f, std::string_view field) {
    placeholder at;
    if (f != nullptr && f->kind == field_kind::useless) {
        return "";
    }
    for (size_t from = 0; find_placeholder(field, from, at); from = at.end) {
        if (f == nullptr || f->kind == field_kind::ignored) {
            return "a secret stands in a field that means nothing";
        }
        if (f->kind != field_kind::text) {
            return "the " + std::string(f->name) + " is a number, which no secret can be";
        }
        if (at.name.empty()) {
            return "\"${secret:\" is begun, and no name and \"}\" follow: a name is 1 to " +
                   std::to_string(longest_secret_name) + " letters, digits, \"-\", \"_\" and \".\"";
        }
    }
    return "";
}

std::string why_wrong(const field_def& f, std::string_view field) {
    std::string subject = "the " + std::string(f.name) + " is ";
    int32_t number = 0;
    switch (f.kind) {
    case field_kind::ignored:
    case field_kind::text:
        return "";
    case field_kind::useless:
        return f.name;
    case field_kind::real:
        return is_real(field) ? "" : subject + quoted(field) + ", not a number";
    default:
        break;
    }
    if (!read_number(field, number)) {
        return subject + quoted(field) + ", not a whole number of 32 bits";
    }
    if (f.kind != field_kind::number && number == 0) {
        return subject + "0";
    }
    return f.kind == field_kind::interval ? why_no_interval(subject, number) : "";
}

} // namespace

bool read_number(std::string_view field, int32_t& number) {
    std::string_view digits = field.starts_with('+') ? field.substr(1) : field;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return error == std::errc() && end == digits.data() + digits.size();
}

std::string name_of(const test_place& test) {
    std::string kind = test.list == protocol::tcp_listeners    ? "TCP listener "
                       : test.list == protocol::unix_listeners ? "unix listener "
                                                               : type_name(test.list) + " test ";
    return kind + std::to_string(test.id);
}

test_place command_line::test() const {
    if (command == nullptr || command->does == command_effect::none || fields.size() < 2) {
        return {};
    }
    int32_t id = 0;
    read_number(fields[1], id);
    return {command->list, id};
}

uint32_t command_line::results() const {
    /* Limits of a disk's traffic are reported elsewhere. */
    bool disk_traffic = command->results == protocol::disk.code && fields.size() > command->least;
    return disk_traffic ? 0 : command->results;
}

command_line parse_line(std::string_view text) {
    if (!why_unreadable(text).empty()) {
        return {nullptr, {text}};
    }
    command_line line{nullptr, split_fields(text)};
    line.command = find_useful(line.fields[0]);
    return line;
}

std::string why_refused(std::string_view text, const command_line& line) {
    if (std::string why = why_unreadable(text); !why.empty()) {
        return why;
    }
    std::string_view code = line.fields[0];
    if (line.command == nullptr) {
        return find_useful(code.substr(0, code.find(' '))) != nullptr
                   ? "blanks stand where tabs separate the fields"
                   : "unknown code " + quoted(code);
    }
    if (line.fields.back().empty()) {
        return "the last field is empty, which cannot be sent";
    }
    const command_def& c = *line.command;
    if (line.fields.size() < c.least || line.fields.size() > c.most) {
        return why_wrong_count(c, line.fields.size(), text.ends_with('\t'));
    }
    std::string why;
    for (size_t i = 1; i < line.fields.size() && why.empty(); i++) {
        const field_def* f = i <= c.fields.size() ? &c.fields[i - 1] : nullptr;
        why = why_no_secret(f, line.fields[i]);
        if (why.empty() && f != nullptr) {
            why = why_wrong(*f, line.fields[i]);
        }
    }
    return why;
}

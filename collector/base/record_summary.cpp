#include "base/record_summary.h"

#include <algorithm>
#include <array>

using protocol::value_def;
using protocol::value_role;

namespace {

/* A record without it is not what its type says. */
constexpr bool is_required(const value_def& row) {
    switch (row.role) {
    case value_role::test:
    case value_role::location:
    case value_role::status:
    case value_role::time:
        return true;
    case value_role::value:
        return !row.may_be_missing;
    default:
        return false;
    }
}

/* What a table comes to: where things are, and how many values of each type there must be. */
struct shape {
    const protocol::record_def* type = nullptr;
    std::optional<size_t> test, location, status, time, message;
    std::array<size_t, 6> least = {}; /* by protocol::value_type */
};

constexpr shape shape_of(std::span<const value_def> table) {
    shape s = {.test = index_of(table, value_role::test),
               .location = index_of(table, value_role::location),
               .status = index_of(table, value_role::status),
               .time = index_of(table, value_role::time),
               .message = index_of(table, value_role::message)};
    for (size_t i = 0; i < table.size(); i++) {
        size_t& least = s.least[static_cast<size_t>(table[i].type)];
        least = is_required(table[i]) ? index_of(table, i) + 1 : least;
    }
    return s;
}

/* Of all types; worked out by the compiler, since each record that comes in is looked at. */
constexpr auto shapes = [] {
    std::array<shape, std::size(protocol::record_types)> all = {};
    for (size_t i = 0; i < all.size(); i++) {
        all[i] = shape_of(protocol::record_types[i]->values);
        all[i].type = protocol::record_types[i];
    }
    return all;
}();
static_assert(std::all_of(shapes.begin(), shapes.end(), [](const shape& s) { return s.time; }));

bool has_all(const record& r, const shape& s) {
    return r.i32.size() >= s.least[0] && r.ui32.size() >= s.least[1] &&
           r.i64.size() >= s.least[2] && r.ui64.size() >= s.least[3] &&
           r.d64.size() >= s.least[4] && r.strings.size() >= s.least[5];
}

} // namespace

record_summary summarize(const record& r) {
    record_summary summary{.type = r.type()};
    auto found = std::find_if(shapes.begin(), shapes.end(),
                              [&](const shape& s) { return s.type->code == summary.type; });
    if (found == shapes.end() || !has_all(r, *found)) {
        return summary;
    }
    /* The agent's ids are signed; the record's slots are not. */
    auto signed_at = [&](std::optional<size_t> index) -> std::optional<int32_t> {
        return index ? std::optional(static_cast<int32_t>(r.ui32[*index])) : std::nullopt;
    };
    summary.schema = found->type;
    summary.test = signed_at(found->test);
    summary.location = signed_at(found->location);
    summary.status = signed_at(found->status);
    summary.time = r.i64[found->time.value_or(0)]; /* there is always one: see above */
    if (found->message && *found->message < r.strings.size()) {
        summary.message = r.strings[*found->message];
    }
    return summary;
}

std::string type_name(uint32_t type) {
    const protocol::record_def* schema = protocol::find_record(type);
    return schema != nullptr ? schema->name : "type " + std::to_string(type);
}

std::string status_word(uint32_t type, int32_t status) {
    static constexpr protocol::record_def any = {};
    const protocol::record_def* found = protocol::find_record(type);
    const protocol::record_def& schema = found != nullptr ? *found : any;
    switch (status) {
    case protocol::status_ok:
        return "ok";
    case protocol::status_limit:
        return schema.failed;
    case protocol::status_not_found:
        return schema.not_found;
    case protocol::status_remote_failed:
        return "remote query failed";
    default:
        return "status " + std::to_string(status);
    }
}

/* ---- a local CPU ---- */

bool is_crossed(const record& r, std::span<const value_def> table) {
    return table.data() == std::data(protocol::rows::processor) ||
           (table.data() == std::data(protocol::rows::cpu) && !r.nested.empty());
}

size_t uncrossed_index(const value_def& row, size_t index) {
    constexpr std::string_view system = "system", nice = "nice";
    return row.name == system ? index + 1 : row.name == nice ? index - 1 : index;
}

/* The order in which for_each_value() finds them. */
static_assert(std::string_view(protocol::rows::cpu[5].name) == "system" &&
              std::string_view(protocol::rows::cpu[6].name) == "nice" &&
              std::string_view(protocol::rows::processor[1].name) == "system" &&
              std::string_view(protocol::rows::processor[2].name) == "nice");

namespace {

/* Each line of it begins with what it is about. */
std::string uncrossed(std::string_view message) {
    constexpr std::string_view system = "System", nice = "Nice", about = " CPU usage:";
    auto is_about = [&](std::string_view line, std::string_view what) {
        return line.starts_with(what) && line.substr(what.size()).starts_with(about);
    };
    std::string text;
    while (!message.empty()) {
        std::string_view line =
            message.substr(0, std::min(message.find('\n'), message.size() - 1) + 1);
        message.remove_prefix(line.size());
        if (is_about(line, system)) {
            text.append(nice).append(line.substr(system.size()));
        } else if (is_about(line, nice)) {
            text.append(system).append(line.substr(nice.size()));
        } else {
            text += line;
        }
    }
    return text;
}

} // namespace

std::string message_of(const record& r, const record_summary& summary) {
    return summary.schema != nullptr && is_crossed(r, summary.schema->values)
               ? uncrossed(summary.message)
               : std::string(summary.message);
}

std::string message_of(const record& part, const protocol::part_def& schema) {
    std::optional<size_t> index = index_of(schema.values, value_role::message);
    if (!index || *index >= part.strings.size()) {
        return "";
    }
    return is_crossed(part, schema.values) ? uncrossed(part.strings[*index])
                                           : std::string(part.strings[*index]);
}

verdict judge(const record& r, const record_summary& summary) {
    verdict v{summary.status, message_of(r, summary)};
    const protocol::part_def* known = summary.schema != nullptr ? summary.schema->parts : nullptr;
    if (summary.status != protocol::status_ok || known == nullptr || !known->judged_alone) {
        return v;
    }
    size_t bad = 0;
    for_each_nested(r, [&](const record& part) {
        /* Whatever else it lacks: a value that is an empty text is no reason to overlook it. */
        int32_t status = status_of(part, *known).value_or(protocol::status_ok);
        if (status != protocol::status_ok && bad++ == 0) {
            v.status = status;
            v.reason = part.strings.empty() ? "" : part.strings[part.strings.size() - 1];
        }
    });
    if (bad > 1) {
        v.reason += " (and " + std::to_string(bad - 1) + " more)";
    }
    return v;
}

std::optional<int32_t> status_of(const record& part, const protocol::part_def& schema) {
    std::optional<size_t> index = index_of(schema.values, value_role::status);
    return index && *index < part.ui32.size()
               ? std::optional(static_cast<int32_t>(part.ui32[*index]))
               : std::nullopt;
}

/* What a D64 holds that stands for a quantity that is not available: all ones of 64 bits, rounded.
 */
bool is_none(const record& r, const value_def& row, size_t index) {
    return row.may_be_none && r.d64[index] == 18446744073709551616.0;
}

bool is_as_described(const record& part, const protocol::part_def& schema) {
    return part.strings.size() == part.declared_strings && has_all(part, shape_of(schema.values));
}

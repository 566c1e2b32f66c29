#include "base/record_summary.h"

using protocol::value_def;
using protocol::value_role;

namespace {

/* A record without it is not what its type says. */
bool is_required(const value_def& row) {
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

bool has_all(const record& r, std::span<const value_def> table) {
    bool all = true;
    for_each_row(table, [&](const value_def& row, size_t index) {
        all = all && (!is_required(row) || has_value(r, row.type, index));
    });
    return all;
}

void take_value(record_summary& summary, const record& r, const value_def& row, size_t index) {
    switch (row.role) { /* the agent's ids are signed; the record's slots are not */
    case value_role::test:
        summary.test = static_cast<int32_t>(r.ui32[index]);
        break;
    case value_role::location:
        summary.location = static_cast<int32_t>(r.ui32[index]);
        break;
    case value_role::status:
        summary.status = static_cast<int32_t>(r.ui32[index]);
        break;
    case value_role::time:
        summary.time = r.i64[index];
        break;
    case value_role::message:
        summary.message = index < r.strings.size() ? r.strings[index] : "";
        break;
    default:
        break;
    }
}

} // namespace

record_summary summarize(const record& r) {
    record_summary summary{.type = r.type()};
    const protocol::record_def* schema = protocol::find_record(summary.type);
    if (schema != nullptr && has_all(r, schema->values)) {
        summary.schema = schema;
        for_each_row(schema->values, [&](const value_def& row, size_t index) {
            take_value(summary, r, row, index);
        });
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

verdict judge(const record& r, const record_summary& summary) {
    verdict v{summary.status, std::string(summary.message)};
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

std::optional<size_t> index_of(std::span<const value_def> table, value_role role) {
    const value_def* row = find_role(table, role);
    return row != nullptr ? std::optional(index_of(table, static_cast<size_t>(row - table.data())))
                          : std::nullopt;
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
    return part.strings.size() == part.declared_strings && has_all(part, schema.values);
}

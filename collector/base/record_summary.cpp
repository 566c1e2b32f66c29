#include "base/record_summary.h"

#include <algorithm>

static const std::vector<schema_value> cpu_shares = {{value_type::d64, 0, "user", "%"},
                                                     {value_type::d64, 1, "system", "%"},
                                                     {value_type::d64, 2, "nice", "%"},
                                                     {value_type::d64, 3, "idle", "%"},
                                                     {value_type::d64, 4, "iowait", "%"}};

/* One row for each type. */
static const std::vector<record_schema> schemas = {
    {.type = type_network,
     .name = "network",
     .test = 1,
     .location = 2,
     .status = 9,
     .time = 0,
     .values = {{value_type::ui32, 3, "received", " B/s"},
                {value_type::ui32, 4, "received_packets", "/s"},
                {value_type::ui32, 5, "received_errors", "/s"},
                {value_type::ui32, 6, "sent", " B/s"},
                {value_type::ui32, 7, "sent_packets", "/s"},
                {value_type::ui32, 8, "sent_errors", "/s"}}},
    {.type = type_network_interfaces,
     .name = "network interfaces",
     .time = 0,
     .list = "interfaces"},
    {.type = type_discovery, /* "finished" in place of the address at the end of a scan */
     .name = "discovery",
     .test = 1,
     .location = 2,
     .time = 0,
     .values = {{value_type::string, 1, "name", "", false, true},
                {value_type::string, 2, "description", "", false, true},
                {value_type::string, 3, "object", "", false, true},
                {value_type::string, 4, "object_id", "", false, true}},
     .parts = part_schema{.name = "objects",
                          .values = {{value_type::string, 0, "oid", ""},
                                     {value_type::string, 1, "value", ""}},
                          .shown_in_line = true}},
    {.type = type_process_names, .name = "process names", .time = 0, .list = "names"},
    {.type = type_process,
     .name = "process",
     .test = 1,
     .location = 2,
     .status = 4,
     .time = 0,
     .values = {{value_type::ui32, 3, "pid", ""},
                {value_type::d64, 0, "cpu", "%"},
                {value_type::d64, 1, "resident", " MB"},
                {value_type::d64, 2, "virtual", " MB"}}},
    {.type = type_cpu,
     .name = "cpu",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .values = cpu_shares,
     .parts = part_schema{.name = "processors", .status = 0, .values = cpu_shares, .message = 0}},
    {.type = type_file_systems, .name = "file systems", .time = 0, .list = "file_systems"},
    {.type = type_disk,
     .name = "disk",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .values = {{value_type::d64, 0, "total", " GB"}, {value_type::d64, 1, "available", " GB"}}},
    {.type = type_memory,
     .name = "memory",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .values = {{value_type::d64, 0, "free", " MB", true},
                {value_type::d64, 1, "total", " MB", true},
                {value_type::d64, 2, "swap_free", " MB", true},
                {value_type::d64, 3, "swap_total", " MB", true},
                {value_type::d64, 4, "buffers", " MB", true},
                {value_type::d64, 5, "cached", " MB", true},
                {value_type::d64, 6, "virtual_total", " MB", true},
                {value_type::d64, 7, "virtual_free", " MB", true}}},
    {.type = type_ping,
     .name = "ping",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .values = {{value_type::d64, 0, "round_trip", " ms"}, {value_type::ui32, 4, "lost", ""}},
     .failed = "failed"},
    {.type = type_http,
     .name = "http",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .values = {{value_type::ui32, 4, "time", " ms"},
                {value_type::ui32, 5, "code", ""},
                {value_type::ui32, 6, "size", " bytes"}},
     .failed = "failed"},
    {.type = type_snmp,
     .name = "snmp",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .values = {{value_type::ui32, 4, "objects", ""}, {value_type::d64, 0, "time", " ms"}},
     .not_found = "failed",
     .parts = part_schema{.name = "results",
                          .status = 1,
                          .values = {{value_type::ui32, 0, "type", ""},
                                     {value_type::string, 0, "value", ""}},
                          .message = 1,
                          .shown_in_line = true,
                          .judged_alone = true}},
    {.type = type_load_average,
     .name = "load average",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .values = {{value_type::d64, 0, "load1", ""},
                {value_type::d64, 1, "load5", ""},
                {value_type::d64, 2, "load15", ""}}},
    {.type = type_snmp_table,
     .name = "snmp table",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .failed = "failed",
     .is_table = true},
    {.type = type_mysql,
     .name = "mysql",
     .test = 1,
     .location = 2,
     .status = 3,
     .time = 0,
     .values = {{value_type::ui32, 4, "time", " ms"}, {value_type::string, 0, "result", ""}},
     .message = 1,
     .not_found = "failed"},
};

const record_schema* find_schema(uint32_t type) {
    for (const record_schema& schema : schemas) {
        if (schema.type == type) {
            return &schema;
        }
    }
    return nullptr;
}

bool has_value(const record& r, const schema_value& value) {
    return value.index < with_values(
                             r, value.type, [](const auto& of) { return of.size(); });
}

static bool has_values(const record& r, const std::vector<schema_value>& values) {
    return std::all_of(values.begin(), values.end(), [&](const schema_value& value) {
        return value.may_be_missing || has_value(r, value);
    });
}

static bool is_as_described(const record& r, const record_schema& schema) {
    for (std::optional<size_t> index : {schema.test, schema.location, schema.status}) {
        if (index && *index >= r.ui32.size()) {
            return false;
        }
    }
    return has_values(r, schema.values) && schema.time < r.i64.size();
}

bool is_as_described(const record& r, const part_schema& schema) {
    return r.strings.size() == r.declared_strings &&
           (!schema.status || *schema.status < r.ui32.size()) && has_values(r, schema.values);
}

record_summary summarize(const record& r) {
    record_summary summary;
    summary.type = r.type();
    const record_schema* schema = find_schema(r.type());
    if (schema == nullptr || !is_as_described(r, *schema)) {
        return summary;
    }
    summary.schema = schema;
    /* The agent's ids are signed; the record's slots are not. */
    auto signed_at = [&](std::optional<size_t> index) -> std::optional<int32_t> {
        return index ? std::optional(static_cast<int32_t>(r.ui32[*index])) : std::nullopt;
    };
    summary.test = signed_at(schema->test);
    summary.location = signed_at(schema->location);
    summary.status = signed_at(schema->status);
    summary.time = r.i64[schema->time];
    if (schema->list == nullptr && schema->message < r.strings.size()) {
        summary.message = r.strings[schema->message];
    }
    return summary;
}

std::string type_name(uint32_t type) {
    const record_schema* schema = find_schema(type);
    return schema != nullptr ? schema->name : "type " + std::to_string(type);
}

std::string status_word(uint32_t type, int32_t status) {
    const record_schema* schema = find_schema(type);
    switch (status) {
    case 0:
        return "ok";
    case 2:
        return schema != nullptr ? schema->failed : "limit reached";
    case 3:
        return schema != nullptr ? schema->not_found : "not found";
    case 10:
        return "remote query failed";
    default:
        return "status " + std::to_string(status);
    }
}

/* What a D64 holds that stands for a quantity that is not available: all ones of 64 bits, rounded.
 */
bool is_none(const record& r, const schema_value& value) {
    return value.may_be_none && r.d64[value.index] == 18446744073709551616.0;
}

verdict judge(const record& r, const record_summary& summary) {
    verdict v{summary.status, std::string(summary.message)};
    if (summary.status != 0 || !summary.schema->parts || !summary.schema->parts->judged_alone) {
        return v;
    }
    const part_schema& known = *summary.schema->parts;
    size_t bad = 0;
    for_each_nested(r, [&](const record& part) {
        /* Whatever else it lacks: a value that is an empty text is no reason to overlook it. */
        int32_t status =
            *known.status < part.ui32.size() ? static_cast<int32_t>(part.ui32[*known.status]) : 0;
        if (status != 0 && bad++ == 0) {
            v.status = status;
            v.reason = part.strings.empty() ? "" : part.strings[part.strings.size() - 1];
        }
    });
    if (bad > 1) {
        v.reason += " (and " + std::to_string(bad - 1) + " more)";
    }
    return v;
}

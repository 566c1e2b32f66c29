#include "show/schema.h"

#include "base/text.h"

#include <algorithm>
#include <boost/json/src.hpp>
#include <cmath>
#include <cstdio>

namespace json = boost::json;

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

static size_t count_of(const record& r, value_type type) {
    switch (type) {
    case value_type::i32:
        return r.i32.size();
    case value_type::ui32:
        return r.ui32.size();
    case value_type::i64:
        return r.i64.size();
    case value_type::ui64:
        return r.ui64.size();
    case value_type::d64:
        return r.d64.size();
    case value_type::string:
        return r.strings.size();
    }
    return 0;
}

static bool is_there(const record& r, const schema_value& value) {
    return value.index < count_of(r, value.type);
}

static bool has_values(const record& r, const std::vector<schema_value>& values) {
    return std::all_of(values.begin(), values.end(), [&](const schema_value& value) {
        return value.may_be_missing || is_there(r, value);
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

/* An empty string is not in a record: those behind it move up. */
static bool is_as_described(const record& r, const part_schema& schema) {
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

static std::string number_text(double value) {
    if (std::isnan(value)) {
        return "nan"; /* whatever its sign is */
    }
    bool whole = value == std::floor(value) && std::fabs(value) < 1e15;
    char text[32];
    snprintf(text, sizeof(text), whole ? "%.0f" : "%.6g", value);
    return text;
}

/* What a D64 holds that stands for a quantity that is not available: all ones of 64 bits, rounded.
 */
static bool is_none(const record& r, const schema_value& value) {
    return value.may_be_none && r.d64[value.index] == 18446744073709551616.0;
}

/* The items of an inventory. */
static std::vector<std::string_view> items_of(const record& r) {
    std::vector<std::string_view> items;
    std::string_view rest = r.strings.empty() ? std::string_view() : r.strings[0];
    while (!rest.empty()) {
        size_t end = std::min(rest.find('\t'), rest.size());
        items.push_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return items;
}

/* Those that cannot be read are passed over. Ends early when `each` returns false. */
template <typename Do>
static void for_each_nested_while(const record& r, Do each) {
    std::string reason;
    record inner;
    for (std::string_view bytes : r.nested) {
        if (decode_record(bytes, inner, reason) && !each(inner)) {
            return;
        }
    }
}

template <typename Do>
static void for_each_nested(const record& r, Do each) {
    for_each_nested_while(r, [&](const record& inner) {
        each(inner);
        return true;
    });
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

static std::string_view string_at(const record& r, size_t index) {
    return index < r.strings.size() ? r.strings[index] : std::string_view();
}

struct table_content {
    bool readable = true;
    std::vector<std::string> columns; /* labels */
    std::vector<std::vector<std::string>> rows;
};

/* Rows are counted from 0, one after the other, each with all its columns. */
static table_content table_of(const record& r) {
    table_content table;
    size_t number = 0;
    for_each_nested(r, [&](const record& part) {
        if (number++ == 0) {
            table.columns.assign(part.strings.begin(), part.strings.end());
            return;
        }
        table.readable = table.readable && part.ui32.size() == 2 * part.strings.size();
        for (size_t i = 0; table.readable && i < part.strings.size(); i++) {
            size_t row = part.ui32[2 * i], column = part.ui32[2 * i + 1];
            if (row == table.rows.size() && column == 0) {
                table.rows.emplace_back();
            }
            table.readable = row + 1 == table.rows.size() && column == table.rows.back().size();
            if (table.readable) {
                table.rows.back().emplace_back(part.strings[i]);
            }
        }
    });
    return table;
}

std::string value_text(const record& r, const schema_value& value) {
    switch (value.type) {
    case value_type::i32:
        return std::to_string(r.i32[value.index]);
    case value_type::ui32:
        return std::to_string(r.ui32[value.index]);
    case value_type::i64:
        return std::to_string(r.i64[value.index]);
    case value_type::ui64:
        return std::to_string(r.ui64[value.index]);
    case value_type::d64:
        return is_none(r, value) ? "n/a" : number_text(r.d64[value.index]);
    case value_type::string:
        return std::string(r.strings[value.index]);
    }
    return "";
}

/* Enough to recognise a record by; the whole is in the database and in the JSON. */
static const size_t generic_values_shown = 16;

template <typename T>
static void append_generic(std::string& text, const char* name, const value_array<T>& values) {
    if (values.size() == 0) {
        return;
    }
    text += text.empty() ? "" : " ";
    text += name;
    for (size_t i = 0; i < values.size() && i < generic_values_shown; i++) {
        text += ' ';
        if constexpr (std::is_same_v<T, double>) {
            text += number_text(values[i]);
        } else {
            text += std::to_string(values[i]);
        }
    }
    text += values.size() > generic_values_shown ? " ..." : "";
}

static std::string generic_text(const record& r) {
    std::string text;
    append_generic(text, "i32", r.i32);
    append_generic(text, "ui32", r.ui32);
    append_generic(text, "i64", r.i64);
    append_generic(text, "ui64", r.ui64);
    append_generic(text, "d64", r.d64);
    for (size_t i = 0; i < r.strings.size() && i < generic_values_shown; i++) {
        text.append(text.empty() ? "\"" : " \"").append(r.strings[i].substr(0, 256)).append("\"");
    }
    if (!r.nested.empty()) {
        text += (text.empty() ? "" : " ") + std::to_string(r.nested.size()) + " nested";
    }
    return text;
}

static void append_values(std::string& text, const record& r,
                          const std::vector<schema_value>& values) {
    for (const schema_value& value : values) {
        if (is_there(r, value)) {
            text.append(text.empty() ? "" : " ").append(value.name).append(" ");
            text.append(value_text(r, value)).append(is_none(r, value) ? "" : value.unit);
        }
    }
}

static void append_parts(std::string& text, const record& r, const record_schema& schema,
                         size_t most) {
    for_each_nested_while(r, [&](const record& part) {
        if (!is_as_described(part, *schema.parts)) {
            return true;
        }
        std::string values;
        append_values(values, part, schema.parts->values);
        text.append(", ").append(values);
        auto status =
            schema.parts->status ? static_cast<int32_t>(part.ui32[*schema.parts->status]) : 0;
        text += status != 0 ? " (" + status_word(schema.type, status) + ")" : "";
        return text.size() <= most;
    });
}

static std::string table_text(const record& r) {
    table_content table = table_of(r);
    if (!table.readable) {
        return generic_text(r);
    }
    return std::to_string(table.rows.size()) + " rows of " + std::to_string(table.columns.size()) +
           " columns";
}

static std::string cut(std::string text, size_t most) {
    if (text.size() > most) {
        /* Between characters, not within one. */
        while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xc0) == 0x80) {
            most--;
        }
        text.resize(most);
        text += " ...";
    }
    return text;
}

static std::string items_text(const record& r, size_t most) {
    std::vector<std::string_view> items = items_of(r);
    std::string text = std::to_string(items.size());
    for (std::string_view item : items) {
        if (text.size() > most) {
            break;
        }
        text.append(" ").append(item);
    }
    return text;
}

std::string values_text(const record& r, const record_summary& summary, size_t most) {
    if (summary.schema == nullptr) {
        return cut(generic_text(r), most);
    }
    if (summary.schema->list != nullptr) {
        return cut(items_text(r, most), most);
    }
    if (summary.schema->is_table) {
        return cut(table_text(r), most);
    }
    std::string text;
    append_values(text, r, summary.schema->values);
    if (summary.schema->parts && summary.schema->parts->shown_in_line) {
        append_parts(text, r, *summary.schema, most);
    }
    return cut(std::move(text), most);
}

template <typename T>
static json::value json_number(T value) {
    if constexpr (std::is_same_v<T, double>) {
        if (!std::isfinite(value)) {
            return nullptr;
        }
    }
    return value;
}

static json::value json_value(const record& r, const schema_value& value) {
    switch (value.type) {
    case value_type::i32:
        return r.i32[value.index];
    case value_type::ui32:
        return r.ui32[value.index];
    case value_type::i64:
        return r.i64[value.index];
    case value_type::ui64:
        return r.ui64[value.index];
    case value_type::d64:
        return is_none(r, value) ? nullptr : json_number(r.d64[value.index]);
    case value_type::string:
        return json::value(valid_utf8(r.strings[value.index]));
    }
    return nullptr;
}

template <typename T>
static void add_generic(json::object& object, const char* name, const value_array<T>& values) {
    if (values.size() == 0) {
        return;
    }
    json::array array;
    array.reserve(values.size());
    for (size_t i = 0; i < values.size(); i++) {
        array.push_back(json_number(values[i]));
    }
    object.emplace(name, std::move(array));
}

static json::object generic_values(const record& r) {
    json::object values;
    add_generic(values, "i32", r.i32);
    add_generic(values, "ui32", r.ui32);
    add_generic(values, "i64", r.i64);
    add_generic(values, "ui64", r.ui64);
    add_generic(values, "d64", r.d64);
    if (!r.strings.empty()) {
        json::array strings;
        for (std::string_view text : r.strings) {
            strings.push_back(json::value(valid_utf8(text)));
        }
        values.emplace("strings", std::move(strings));
    }
    return values;
}

/* Recursion ends at record_max_depth: decode_record() refuses what is deeper. */
static void add_nested(json::object& object, const record& r) {
    if (r.nested.empty()) {
        return;
    }
    json::array nested;
    for_each_nested(r, [&](const record& inner) {
        json::object values = generic_values(inner);
        add_nested(values, inner);
        nested.push_back(std::move(values));
    });
    object.emplace("nested", std::move(nested));
}

static json::object named_values(const record& r, const std::vector<schema_value>& named) {
    json::object values;
    for (const schema_value& value : named) {
        if (is_there(r, value)) {
            values.emplace(value.name, json_value(r, value));
        }
    }
    return values;
}

static json::object values_of(const record& r, const record_schema& schema) {
    json::object values = named_values(r, schema.values);
    if (schema.list != nullptr) {
        json::array items;
        for (std::string_view item : items_of(r)) {
            items.push_back(json::value(valid_utf8(item)));
        }
        values.emplace(schema.list, std::move(items));
    }
    return values;
}

/* Nested records that the type knows, each with its status, values and message. */
static void add_parts(json::object& object, const record& r, const record_schema& schema,
                      const part_schema& known) {
    json::array parts;
    for_each_nested(r, [&](const record& part) {
        if (!is_as_described(part, known)) {
            parts.push_back(generic_values(part));
            return;
        }
        json::object shown;
        if (known.status) {
            auto status = static_cast<int32_t>(part.ui32[*known.status]);
            shown.emplace("status", status);
            shown.emplace("status_text", status_word(schema.type, status));
        }
        shown.emplace("values", named_values(part, known.values));
        if (known.message) {
            shown.emplace("message", valid_utf8(string_at(part, *known.message)));
        }
        parts.push_back(std::move(shown));
    });
    object.emplace(known.name, std::move(parts));
}

static void add_table(json::object& object, const record& r) {
    table_content table = table_of(r);
    if (!table.readable) {
        add_nested(object, r);
        return;
    }
    json::array columns, rows;
    for (const std::string& label : table.columns) {
        columns.push_back(json::value(valid_utf8(label)));
    }
    for (const std::vector<std::string>& row : table.rows) {
        json::array cells;
        for (const std::string& cell : row) {
            cells.push_back(json::value(valid_utf8(cell)));
        }
        rows.push_back(std::move(cells));
    }
    object.emplace("columns", std::move(columns));
    object.emplace("rows", std::move(rows));
}

template <typename T>
static json::value json_optional(const std::optional<T>& value) {
    return value ? json::value(*value) : json::value(nullptr);
}

/* DEL and U+0080 to U+009F may stand in JSON as they are, but a terminal obeys them. Outside
 * strings there is nothing but ASCII. */
static std::string escape_controls(const std::string& text) {
    std::string safe;
    safe.reserve(text.size());
    for (size_t i = 0; i < text.size(); i++) {
        auto byte = [&](size_t at) {
            return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u;
        };
        unsigned control = byte(i) == 0x7f ? 0x7f : 0;
        if (byte(i) == 0xc2 && byte(i + 1) < 0xa0) {
            control = byte(++i);
        }
        if (control == 0) {
            safe += text[i];
            continue;
        }
        char escaped[8];
        snprintf(escaped, sizeof(escaped), "\\u%04x", control);
        safe += escaped;
    }
    return safe;
}

std::string record_json(std::string_view account, std::string_view agent, int64_t received,
                        const record& r) {
    record_summary summary = summarize(r);
    json::object object;
    object.emplace("agent", valid_utf8(agent));
    object.emplace("account", valid_utf8(account));
    object.emplace("received", received);
    object.emplace("type", summary.type);
    object.emplace("name", type_name(summary.type));
    object.emplace("test", json_optional(summary.test));
    object.emplace("location", json_optional(summary.location));
    object.emplace("time", json_optional(summary.time));
    object.emplace("status", json_optional(summary.status));
    if (summary.schema == nullptr) {
        object.emplace("status_text", nullptr);
        object.emplace("values", generic_values(r));
        object.emplace("message", nullptr);
    } else {
        object.emplace("status_text", summary.status
                                          ? json::value(status_word(summary.type, *summary.status))
                                          : nullptr);
        object.emplace("values", values_of(r, *summary.schema));
        object.emplace("message", valid_utf8(summary.message));
    }
    if (summary.schema != nullptr && summary.schema->is_table) {
        add_table(object, r);
    } else if (summary.schema != nullptr && summary.schema->parts) {
        add_parts(object, r, *summary.schema, *summary.schema->parts);
    } else {
        add_nested(object, r);
    }
    return escape_controls(json::serialize(object));
}

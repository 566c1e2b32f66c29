#include "show/json.h"

#include "base/record_summary.h"
#include "base/text.h"
#include "show/record_content.h"

#include <boost/json.hpp>
#include <cmath>
#include <cstdio>

namespace json = boost::json;

template <typename T>
static json::value json_of(T number) {
    return number;
}

static json::value json_of(double number) {
    return std::isfinite(number) ? json::value(number) : nullptr;
}

static json::value json_of(std::string_view text) {
    return json::value(valid_utf8(text));
}

static json::value json_of(const std::string& text) {
    return json_of(std::string_view(text));
}

/* Any list that has size() and an index. */
template <typename List>
static json::array json_array(const List& list) {
    json::array array;
    array.reserve(list.size());
    for (size_t i = 0; i < list.size(); i++) {
        array.push_back(json_of(list[i]));
    }
    return array;
}

static json::object generic_values(const record& r) {
    json::object values;
    for_each_array(
        r, [&](const char* name, const auto& array) { values.emplace(name, json_array(array)); });
    if (!r.strings.empty()) {
        values.emplace("strings", json_array(r.strings));
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

static json::object named_values(const record& r, std::span<const protocol::value_def> table) {
    json::object values;
    for_each_value(r, table, [&](const protocol::value_def& row, size_t index) {
        json::value& value = values[row.name];
        if (!is_none(r, row, index)) {
            with_values(r, row.type, [&](const auto& all) { value = json_of(all[index]); });
        }
    });
    if (const protocol::value_def* list = find_role(table, protocol::value_role::list)) {
        values.emplace(list->name, json_array(items_of(r)));
    }
    return values;
}

/* Nested records that the type knows, each with its status, values and message. */
static void add_parts(json::object& object, const record& r, const protocol::record_def& schema) {
    const protocol::part_def& known = *schema.parts;
    const bool has_message = find_role(known.values, protocol::value_role::message) != nullptr;
    json::array parts;
    for_each_nested(r, [&](const record& part) {
        if (!is_as_described(part, known)) {
            parts.push_back(generic_values(part));
            return;
        }
        json::object shown;
        if (std::optional<int32_t> status = status_of(part, known)) {
            shown.emplace("status", *status);
            shown.emplace("status_text", status_word(schema.code, *status));
        }
        shown.emplace("values", named_values(part, known.values));
        if (has_message) {
            shown.emplace("message", json_of(message_of(part, known)));
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
    json::array rows;
    for (const std::vector<std::string>& row : table.rows) {
        rows.push_back(json_array(row));
    }
    object.emplace("columns", json_array(table.columns));
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
                        const record& r, const std::optional<called_test>& called) {
    record_summary summary = summarize(r);
    json::object object;
    object.emplace("agent", valid_utf8(agent));
    object.emplace("account", valid_utf8(account));
    object.emplace("received", received);
    object.emplace("type", summary.type);
    if (called) {
        object.emplace("name", json_of(called->name));
        object.emplace("target", json_of(called->target));
    } else {
        object.emplace("name", type_name(summary.type));
    }
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
        object.emplace("values", named_values(r, summary.schema->values));
        object.emplace("message", valid_utf8(message_of(r, summary)));
    }
    if (summary.schema != nullptr && summary.schema->is_table) {
        add_table(object, r);
    } else if (summary.schema != nullptr && summary.schema->parts != nullptr) {
        add_parts(object, r, *summary.schema);
    } else {
        add_nested(object, r);
    }
    return escape_controls(json::serialize(object));
}

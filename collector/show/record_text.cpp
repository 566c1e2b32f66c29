#include "show/record_text.h"

#include "base/text.h"
#include "show/record_content.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

static std::string text_of(double value) {
    if (std::isnan(value)) {
        return "nan"; /* whatever its sign is */
    }
    bool whole = value == std::floor(value) && std::fabs(value) < 1e15;
    char text[32];
    snprintf(text, sizeof(text), whole ? "%.0f" : "%.6g", value);
    return text;
}

template <typename T>
static std::string text_of(T whole_number) {
    return std::to_string(whole_number);
}

static std::string text_of(std::string_view text) {
    return std::string(text);
}

/* Enough to recognise a record by; the whole is in the database and in the JSON. */
static const size_t generic_values_shown = 16;

static std::string generic_text(const record& r) {
    std::string text;
    for_each_array(r, [&](const char* name, const auto& values) {
        text.append(text.empty() ? "" : " ").append(name);
        for (size_t i = 0; i < values.size() && i < generic_values_shown; i++) {
            text.append(" ").append(text_of(values[i]));
        }
        text += values.size() > generic_values_shown ? " ..." : "";
    });
    for (size_t i = 0; i < r.strings.size() && i < generic_values_shown; i++) {
        text.append(text.empty() ? "\"" : " \"").append(r.strings[i].substr(0, 256)).append("\"");
    }
    if (!r.nested.empty()) {
        text += (text.empty() ? "" : " ") + std::to_string(r.nested.size()) + " nested";
    }
    return text;
}

static void append_values(std::string& text, const record& r,
                          std::span<const protocol::value_def> table) {
    for_each_value(r, table, [&](const protocol::value_def& row, size_t index) {
        text.append(text.empty() ? "" : " ").append(row.name).append(" ");
        if (is_none(r, row, index)) {
            text += "n/a";
            return;
        }
        with_values(r, row.type, [&](const auto& values) { text += text_of(values[index]); });
        text += row.unit;
    });
}

static void append_parts(std::string& text, const record& r, const protocol::record_def& schema,
                         size_t most) {
    for_each_nested_while(r, [&](const record& part) {
        if (!is_as_described(part, *schema.parts)) {
            return true;
        }
        std::string values;
        append_values(values, part, schema.parts->values);
        text.append(", ").append(values);
        int32_t status = status_of(part, *schema.parts).value_or(protocol::status_ok);
        text += status != protocol::status_ok ? " (" + status_word(schema.code, status) + ")" : "";
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
        return shortened(generic_text(r), most);
    }
    if (find_role(summary.schema->values, protocol::value_role::list) != nullptr) {
        return shortened(items_text(r, most), most);
    }
    if (summary.schema->is_table) {
        return shortened(table_text(r), most);
    }
    std::string text;
    append_values(text, r, summary.schema->values);
    if (summary.schema->parts != nullptr && summary.schema->parts->shown_in_line) {
        append_parts(text, r, *summary.schema, most);
    }
    return shortened(std::move(text), most);
}

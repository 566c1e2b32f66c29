#include "api/shapes.h"

#include "api/encoding.h"
#include "api/json.h"
#include "api/parameters.h"
#include "base/record_summary.h"
#include "plan/placeholder.h"
#include "protocol/commands.h"
#include "show/record_content.h"

#include <algorithm>
#include <charconv>

namespace json = boost::json;
using protocol::value_def;

namespace {

/* An agent may send what becomes very much in words: the labels of a table's columns stand in each
 * of its rows. So parts of a result and the texts in them have bounds. */
constexpr size_t most_part_bytes = 4u << 20, most_text = 64u << 10, most_message = 1u << 20;

/* ---- definitions ---- */

std::span<const protocol::field_def> fields_of(uint32_t type) {
    for (const protocol::command_def& command : protocol::commands) {
        if (command.does == protocol::command_effect::adds && command.results == type) {
            return command.fields;
        }
    }
    return {};
}

/* "maximum 2": the second of that name. */
std::string field_name(std::span<const protocol::field_def> fields, size_t place) {
    std::string_view name = fields[place].name;
    auto is_it = [&](const protocol::field_def& each) { return each.name == name; };
    if (std::count_if(fields.begin(), fields.end(), is_it) == 1) {
        return std::string(name);
    }
    auto until = fields.begin() + static_cast<std::ptrdiff_t>(place) + 1;
    return std::string(name) + " " + std::to_string(std::count_if(fields.begin(), until, is_it));
}

template <typename T>
json::value number_in_text(std::string_view text) {
    T value{};
    auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    bool whole = failure == std::errc() && end == text.data() + text.size();
    return whole ? json::value(value) : json::value(text);
}

json::value field_value(protocol::field_kind kind, std::string_view text) {
    switch (kind) {
    case protocol::field_kind::number:
    case protocol::field_kind::nonzero:
    case protocol::field_kind::wanted:
    case protocol::field_kind::interval:
        return number_in_text<int64_t>(text);
    case protocol::field_kind::real:
        return number_in_text<double>(text);
    default:
        return json::value(text);
    }
}

json::object fields_as_object(const definition& what) {
    std::span<const protocol::field_def> fields = fields_of(what.type);
    json::object object;
    std::string_view rest = what.text;
    for (size_t i = 0; i < fields.size(); i++) {
        std::string_view text = rest.substr(0, rest.find('\t'));
        rest.remove_prefix(std::min(text.size() + 1, rest.size()));
        bool is_id = fields[i].name == protocol::rows::test_id.name ||
                     fields[i].name == protocol::rows::location_id.name;
        const bool may_be_shown = !fields[i].secret || is_only_placeholders(text);
        if (!text.empty() && !is_id && may_be_shown &&
            fields[i].kind != protocol::field_kind::ignored) {
            object.emplace(field_name(fields, i), field_value(fields[i].kind, text));
        }
    }
    return object;
}

/* ---- parts ---- */

class part_list {
public:
    bool has_room() {
        is_cut_ = is_cut_ || bytes_ > most_part_bytes;
        return !is_cut_;
    }
    void add(json::object part) {
        bytes_ += weight_of(part);
        all.push_back(std::move(part));
    }
    bool is_cut() const { return is_cut_; }

    json::array all;

private:
    size_t bytes_ = 0;
    bool is_cut_ = false;
};

json::object value_object(json::value value, std::string_view unit) {
    unit.remove_prefix(std::min(unit.find_first_not_of(' '), unit.size()));
    return {{"value", std::move(value)}, {"unit", unit}};
}

json::value json_number(double number) {
    return number;
}
json::value json_number(std::string_view text) {
    return json::value(text.substr(0, most_text));
}
template <typename T>
json::value json_number(T number) {
    return number;
}

json::object values_of(const record& r, std::span<const value_def> table, std::string_view but) {
    json::object values;
    for_each_value(r, table, [&](const value_def& row, size_t index) {
        if (row.name == but) {
            return;
        }
        json::value value;
        if (!is_none(r, row, index)) {
            with_values(r, row.type, [&](const auto& all) { value = json_number(all[index]); });
        }
        values.emplace(row.name, value_object(std::move(value), row.unit));
    });
    return values;
}

json::object part_of(std::string name, json::object values, json::value status = nullptr,
                     std::string_view message = "") {
    name.resize(std::min(name.size(), most_text));
    return {{"name", std::move(name)},
            {"status", std::move(status)},
            {"message", json_or_null(message.substr(0, most_text))},
            {"values", std::move(values)}};
}

constexpr size_t most_generic_values = 256;

/* Of a type that is not known: all of its numbers and texts. */
json::object generic_part(const record& r, size_t place) {
    json::object values;
    auto add = [&](const char* name, const auto& all) {
        for (size_t i = 0; i < all.size() && i < most_generic_values; i++) {
            values.emplace(std::string(name) + " " + std::to_string(i + 1),
                           value_object(json_number(all[i]), ""));
        }
    };
    for_each_array(r, add);
    add("string", r.strings);
    return part_of("record " + std::to_string(place), std::move(values));
}

void add_nested(part_list& parts, const record& r, const protocol::record_def& schema) {
    const protocol::part_def& known = *schema.parts;
    const std::string one = schema.code == protocol::cpu.code ? "processor " : "object ";
    size_t place = 0;
    for_each_nested_while(r, [&](const record& part) {
        if (!parts.has_room()) {
            return false;
        }
        place++;
        if (!is_as_described(part, known)) {
            parts.add(generic_part(part, place));
            return true;
        }
        std::optional<int32_t> status = status_of(part, known);
        parts.add(part_of(one + std::to_string(place), values_of(part, known.values, ""),
                          json_status(schema.code, status), message_of(part, known)));
        return true;
    });
}

void add_table(part_list& parts, const record& r) {
    table_content table = table_of(r);
    if (!table.readable) {
        return;
    }
    for (size_t i = 0; i < table.rows.size() && parts.has_room(); i++) {
        json::object values;
        for (size_t column = 0; column < table.rows[i].size(); column++) {
            std::string label = column < table.columns.size() && !table.columns[column].empty()
                                    ? table.columns[column]
                                    : "column " + std::to_string(column + 1);
            if (values.contains(label)) {
                label += " (column " + std::to_string(column + 1) + ")";
            }
            values.emplace(std::string_view(label).substr(0, most_text),
                           value_object(json_number(std::string_view(table.rows[i][column])), ""));
        }
        parts.add(part_of("row " + std::to_string(i + 1), std::move(values)));
    }
}

/* "name|value|status;" of each. */
void add_listed(part_list& parts, std::string_view list) {
    while (!list.empty() && parts.has_room()) {
        std::string_view entry = list.substr(0, list.find(';'));
        list.remove_prefix(std::min(entry.size() + 1, list.size()));
        size_t begin = entry.find('|'), end = entry.rfind('|');
        if (begin == end) {
            continue;
        }
        json::value status = number_in_text<int32_t>(entry.substr(end + 1));
        json::object values;
        values.emplace(
            "value",
            value_object(number_in_text<double>(entry.substr(begin + 1, end - begin - 1)), ""));
        parts.add(part_of(std::string(entry.substr(0, begin)), std::move(values),
                          status.is_int64() ? json_status(protocol::mysql.code,
                                                          static_cast<int32_t>(status.get_int64()))
                                            : json::value(nullptr)));
    }
}

void add_parts(part_list& parts, const record& r, size_t place) {
    record_summary what = summarize(r);
    if (what.schema == nullptr) {
        parts.add(generic_part(r, place));
    } else if (what.schema->is_table) {
        add_table(parts, r);
    } else if (what.type == protocol::process.code) {
        constexpr size_t pid = protocol::index_of(protocol::rows::process, 3);
        if (r.ui32[pid] != 0) {
            parts.add(part_of(std::to_string(r.ui32[pid]),
                              values_of(r, protocol::rows::process, "pid"),
                              json_status(what.type, what.status), what.message));
        }
    } else if (what.type == protocol::mysql.code) {
        add_listed(parts, r.strings.empty() ? std::string_view() : r.strings[0]);
    } else if (what.type == protocol::discovery.code) {
        parts.add(part_of(std::string(what.message), values_of(r, what.schema->values, "")));
        add_nested(parts, r, *what.schema);
    } else if (what.schema->parts != nullptr) {
        add_nested(parts, r, *what.schema);
    }
}

} // namespace

std::string_view shown_word(state s) {
    return state_word(s == state::stale ? state::unknown : s);
}

bool has_state(const chosen& wanted, state s) {
    return wanted.has(shown_word(s)) || (s == state::stale && wanted.has("stale"));
}

json::object agent_reference(int64_t id, std::string_view account, std::string_view name) {
    return {{"id", id}, {"account", account}, {"name", name}};
}

std::string test_name(uint32_t type, std::optional<int32_t> number, const definition* what) {
    if (what != nullptr && !(what->title.empty() && what->name.empty())) {
        return what->title.empty() ? what->name : what->title;
    }
    return number ? type_name(type) + " " + std::to_string(*number) : type_name(type);
}

json::value test_target(const definition* what) {
    return json_or_null(what != nullptr ? std::string_view(what->name) : std::string_view());
}

bool test_has_text(uint32_t type, std::optional<int32_t> number, const definition* what,
                   const std::string& text) {
    return has_text(test_name(type, number, what), text) ||
           (what != nullptr && has_text(what->name, text));
}

static json::value json_optional(std::optional<int32_t> number) {
    return number ? json::value(*number) : json::value(nullptr);
}

json::object test_reference(int64_t id, uint32_t type, std::optional<int32_t> number,
                            const definition* what) {
    return {{"id", id},
            {"type", type_name(type)},
            {"number", json_optional(number)},
            {"name", test_name(type, number, what)},
            {"target", test_target(what)}};
}

json::value json_definition(const definition* what) {
    if (what == nullptr) {
        return nullptr;
    }
    return json::object{{"name", what->name},
                        {"title", json_or_null(what->title)},
                        {"since", time_text(what->since)},
                        {"location", what->location},
                        {"fields", fields_as_object(*what)}};
}

json::object json_values(uint32_t type, std::span<const result_value> values) {
    json::object object;
    for (const result_value& each : values) {
        object.emplace(value_name(type, each.id),
                       value_object(each.value, value_unit(type, each.id)));
    }
    return object;
}

json::value json_status(uint32_t type, std::optional<int32_t> status) {
    return status ? json::value(status_word(type, *status)) : json::value(nullptr);
}

std::string_view shown_message(std::string_view message) {
    return message.substr(0, most_message);
}

json::array json_parts(const result& what, bool& is_cut) {
    part_list parts;
    record r;
    std::string reason;
    for (size_t i = 0; i < what.records.size() && parts.has_room(); i++) {
        if (decode_record(what.records[i], r, reason)) {
            add_parts(parts, r, i + 1);
        }
    }
    is_cut = parts.is_cut();
    return std::move(parts.all);
}

json::object json_result(const result& what) {
    json::object object{{"time", time_text(what.time)},
                        {"received", time_text(what.received)},
                        {"state", shown_word(what.judged)},
                        {"status", json_status(what.type, what.status)},
                        {"message", shown_message(what.message)},
                        {"values", json_values(what.type, what.values)},
                        {"location", json_optional(what.location)}};
    if (!what.records.empty()) {
        bool is_cut = false;
        object.emplace("parts", json_parts(what, is_cut));
        if (is_cut) {
            object.emplace("parts_left_out", true);
        }
    }
    return object;
}

json::object json_event(const stored_event& event, json::object agent, json::value test) {
    auto to = static_cast<state>(event.to);
    json::object object{{"id", event.id},
                        {"time", time_text(event.time)},
                        {"agent", std::move(agent)},
                        {"test", std::move(test)},
                        {"from", shown_word(static_cast<state>(event.from))},
                        {"to", shown_word(to)},
                        {"message", event.message}};
    if (to == state::stale) {
        object.emplace("stale", true);
    }
    return object;
}

json::object json_counts(const agent_state& now) {
    size_t ok = 0, problem = 0, unknown = 0;
    for (const test_status& t : now.tests) {
        if (t.number) {
            state s = shown_state(now, t);
            (s == state::ok ? ok : s == state::problem ? problem : unknown)++;
        }
    }
    return {{"ok", ok}, {"problem", problem}, {"unknown", unknown}};
}

int64_t worst_since(const agent_state& now) {
    state worst = now.worst();
    int64_t since = 0;
    if (worst == state::silent) {
        return now.since;
    }
    for (const test_status& t : now.tests) {
        if (!t.number || t.now != worst) {
            continue;
        }
        /* Bad as soon as the first is, well when the last is. */
        bool is_it = since == 0 || (worst == state::ok ? t.since > since : t.since < since);
        since = is_it ? t.since : since;
    }
    return since != 0 ? since : now.since;
}

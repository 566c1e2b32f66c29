#include "state/result.h"

#include "state/take.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

using protocol::value_def;
using protocol::value_role;
using protocol::value_type;

namespace {

constexpr size_t position_of(std::span<const value_def> table, std::string_view name) {
    for (size_t i = 0; i < table.size(); i++) {
        if (table[i].name == name) {
            return i;
        }
    }
    return table.size();
}

constexpr size_t pid_row = position_of(protocol::rows::process, "pid");
constexpr size_t pid_index = index_of(protocol::rows::process, pid_row);
constexpr size_t round_trip_row = position_of(protocol::rows::ping, "round_trip");
constexpr size_t mysql_list =
    index_of(protocol::rows::mysql, position_of(protocol::rows::mysql, "result"));
constexpr size_t object_type = index_of(protocol::rows::snmp_object, 0);
constexpr size_t object_value =
    index_of(protocol::rows::snmp_object, position_of(protocol::rows::snmp_object, "value"));

/* Whether the row has numbers of which a curve can be drawn. */
bool is_number(uint32_t type, std::span<const value_def> table, size_t position) {
    return table[position].role == value_role::value &&
           table[position].type != value_type::string &&
           !(type == protocol::process.code && position == pid_row);
}

bool is_listed(uint32_t type) {
    return type == protocol::snmp.code || type == protocol::mysql.code;
}

std::optional<double> number_of(std::string_view text) {
    double value = 0;
    auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    bool whole = failure == std::errc() && end == text.data() + text.size();
    return whole && std::isfinite(value) ? std::optional(value) : std::nullopt;
}

/* Of an SNMP value: docs/records.md. */
bool is_number_type(uint32_t type) {
    return (type >= 1 && type <= 6) || type == 9 || (type >= 12 && type <= 15);
}

/* Counter64, its like in an Opaque, Counter32. */
bool is_counter_type(uint32_t type) {
    return type == 3 || type == 4 || type == 14;
}

void add_objects(const record& r, std::vector<result_value>& values) {
    uint32_t place = 0;
    for_each_nested_while(r, [&](const record& object) {
        if (object.ui32.size() > object_type && is_number_type(object.ui32[object_type]) &&
            is_as_described(object, protocol::rows::snmp_results)) {
            if (auto number = number_of(object.strings[object_value])) {
                values.push_back({value_listed + place, *number});
            }
        }
        return ++place < max_listed;
    });
}

/* "name|value|status;" of each. */
void add_list(std::string_view list, std::vector<result_value>& values) {
    for (uint32_t place = 0; !list.empty() && place < max_listed; place++) {
        std::string_view entry = list.substr(0, list.find(';'));
        list.remove_prefix(std::min(entry.size() + 1, list.size()));
        size_t begin = entry.find('|'), end = entry.rfind('|');
        if (begin == end) {
            continue;
        }
        if (auto number = number_of(entry.substr(begin + 1, end - begin - 1))) {
            values.push_back({value_listed + place, *number});
        }
    }
}

/* The first nested record are the columns, the second the cells: each row's begins with one in
 * column 0. */
double rows_of(const record& r) {
    size_t number = 0, rows = 0;
    for_each_nested_while(r, [&](const record& part) {
        for (size_t i = 0; number == 1 && 2 * i + 1 < part.ui32.size(); i++) {
            rows += part.ui32[2 * i + 1] == 0;
        }
        return ++number < 2;
    });
    return static_cast<double>(rows);
}

/* Whether what the record has in place of numbers means nothing. */
bool is_without_values(const record_summary& what) {
    int32_t status = what.status.value_or(protocol::status_ok);
    return what.schema == nullptr || status == protocol::status_remote_failed ||
           (what.type == protocol::disk.code && status == protocol::status_not_found) ||
           (what.schema->is_table && status != protocol::status_ok);
}

void read_values(const record& r, const record_summary& what, std::vector<result_value>& values) {
    values.clear();
    if (is_without_values(what)) {
        return;
    }
    std::span<const value_def> table = what.schema->values;
    for_each_value(r, table, [&](const value_def& row, size_t index) {
        auto position = static_cast<size_t>(&row - table.data());
        if (!is_number(what.type, table, position) || is_none(r, row, index)) {
            return;
        }
        double value = 0;
        switch (row.type) {
        case value_type::ui32:
            value = r.ui32[index];
            break;
        case value_type::d64:
            value = r.d64[index];
            break;
        default:
            return; /* no row has numbers of other types */
        }
        if (!std::isfinite(value) ||
            (what.type == protocol::ping.code && position == round_trip_row && value == 0)) {
            return;
        }
        values.push_back({static_cast<uint32_t>(position), value});
    });
    if (what.type == protocol::process.code) {
        values.push_back({value_processes, r.ui32[pid_index] != 0 ? 1.0 : 0.0});
    } else if (what.schema->is_table) {
        values.push_back({value_rows, rows_of(r)});
    } else if (what.type == protocol::snmp.code) {
        add_objects(r, values);
    } else if (what.type == protocol::mysql.code && r.strings.size() > mysql_list) {
        add_list(r.strings[mysql_list], values);
    }
}

/* Both have the values of a process record: those that are finite. */
void add_up(std::vector<result_value>& sums, const std::vector<result_value>& more) {
    for (const result_value& value : more) {
        auto at =
            std::lower_bound(sums.begin(), sums.end(), value.id,
                             [](const result_value& known, uint32_t id) { return known.id < id; });
        if (at == sums.end() || at->id != value.id) {
            sums.insert(at, value);
        } else if (std::isfinite(at->value + value.value)) {
            at->value += value.value;
        }
    }
}

state state_of(const record_summary& what, const verdict& found) {
    if (what.schema == nullptr) {
        return state::unknown;
    }
    return found.status.value_or(protocol::status_ok) == protocol::status_ok ? state::ok
                                                                             : state::problem;
}

uint32_t process_of(const decoded_record& what) {
    return what.summary.schema != nullptr && what.summary.type == protocol::process.code
               ? what.content.ui32[pid_index]
               : 0;
}

} // namespace

std::vector<uint32_t> counters_in(std::string_view bytes) {
    std::vector<uint32_t> ids;
    record r;
    std::string reason;
    if (!decode_record(bytes, r, reason) || summarize(r).type != protocol::snmp.code) {
        return ids;
    }
    uint32_t place = 0;
    for_each_nested_while(r, [&](const record& object) {
        if (object.ui32.size() > object_type && is_counter_type(object.ui32[object_type])) {
            ids.push_back(value_listed + place);
        }
        return ++place < max_listed;
    });
    return ids;
}

std::string value_name(uint32_t type, uint32_t id) {
    const protocol::record_def* schema = protocol::find_record(type);
    if (schema != nullptr && id < schema->values.size() && is_number(type, schema->values, id)) {
        return schema->values[id].name;
    }
    if (type == protocol::process.code && id == value_processes) {
        return "processes";
    }
    if (schema != nullptr && schema->is_table && id == value_rows) {
        return "rows";
    }
    if (is_listed(type) && id >= value_listed && id < value_listed + max_listed) {
        std::string place = std::to_string(id - value_listed + 1);
        if (type == protocol::snmp.code) {
            return "object " + place;
        }
        return id == value_listed ? "result" : "result " + place;
    }
    return "value " + std::to_string(id);
}

std::string_view value_unit(uint32_t type, uint32_t id) {
    const protocol::record_def* schema = protocol::find_record(type);
    if (schema == nullptr || id >= schema->values.size() || !is_number(type, schema->values, id)) {
        return "";
    }
    std::string_view unit = schema->values[id].unit;
    return unit.substr(std::min(unit.find_first_not_of(' '), unit.size()));
}

void result_builder::add(std::string_view bytes, int64_t received) {
    decoded_record what;
    std::string reason;
    if (decode_record(bytes, what.content, reason)) {
        what.summary = summarize(what.content);
        add(what, received);
    }
}

bool result_builder::goes_on(const decoded_record& what) const {
    const record_summary& summary = what.summary;
    if (!in_pass_ || !summary.time || summary.type != done_.back().type ||
        summary.type == protocol::mysql.code || summary.location != done_.back().location) {
        return false;
    }
    int64_t began = done_.back().claimed, time = *summary.time;
    if (time == began) {
        return true;
    }
    bool soon = time > began &&
                static_cast<uint64_t>(time) - static_cast<uint64_t>(began) <= uint64_t{pass_s};
    return soon && last_process_ != 0 &&
           (process_of(what) > last_process_ || others_.contains(std::string(what.content.raw)));
}

void result_builder::add(const decoded_record& what, int64_t received) {
    const record& r = what.content;
    verdict found = judge(r, what.summary);
    state judged = state_of(what.summary, found);
    if (!goes_on(what)) {
        done_.push_back({.type = what.summary.type,
                         .time = reckoned_time(what.summary, received),
                         .claimed = what.summary.time.value_or(received),
                         .received = received,
                         .judged = judged,
                         .status = found.status,
                         .location = what.summary.location,
                         .message = std::move(found.reason)});
        read_values(r, what.summary, done_.back().values);
        first_ = r.raw;
        others_.clear();
        in_pass_ = what.summary.time.has_value();
    } else {
        if (r.raw == first_ || !others_.emplace(r.raw).second) {
            return;
        }
        result& pass = done_.back();
        if (judged == state::problem && pass.judged != state::problem) {
            pass.judged = judged;
            pass.status = found.status;
            pass.message = std::move(found.reason);
        }
        std::vector<result_value> values;
        read_values(r, what.summary, values);
        if (what.summary.type == protocol::process.code) {
            add_up(pass.values, values);
        } else {
            pass.values = std::move(values);
        }
    }
    last_process_ = process_of(what);
    if (keep_records_) {
        done_.back().records.emplace_back(r.raw);
    }
}

std::vector<result> result_builder::take_all() {
    in_pass_ = false;
    return std::exchange(done_, {});
}

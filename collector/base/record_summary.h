/* What the values of each record type mean: one row of a table per type. A type without a row, or a
 * record that lacks what its row names, is shown generically. */
#ifndef VINDRAL_COLLECTOR_RECORD_SUMMARY_H
#define VINDRAL_COLLECTOR_RECORD_SUMMARY_H

#include "protocol/record.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum {
    type_network = 38,
    type_network_interfaces = 39,
    type_discovery = 40,
    type_process_names = 42,
    type_process = 43,
    type_cpu = 44,
    type_file_systems = 45,
    type_disk = 46,
    type_memory = 47,
    type_ping = 48,
    type_http = 49,
    type_snmp = 57,
    type_load_average = 66,
    type_snmp_table = 67,
    type_mysql = 74
};

enum class value_type { i32, ui32, i64, ui64, d64, string };

struct schema_value {
    value_type type;
    size_t index; /* among the record's values of this type */
    const char* name;
    const char* unit;            /* "" for a plain number */
    bool may_be_none = false;    /* D64 2^64 stands for a quantity that is not available */
    bool may_be_missing = false; /* the record may end before it */
};

/* What nested records are. One that is not as described is shown generically. */
struct part_schema {
    const char* name; /* of all of them */
    std::optional<size_t> status = {};
    std::vector<schema_value> values = {};
    std::optional<size_t> message = {};
    bool shown_in_line = false; /* few enough for one line */
    bool judged_alone =
        false; /* a part may be a problem of which the record's status says nothing */
};

/* A test's result, or an inventory: what there is on the agent's machine that can be tested. */
struct record_schema {
    uint32_t type; /* UI32 0 */
    const char* name;
    std::optional<size_t> test = {}, location = {},
                          status = {}; /* UI32 indices; none: an inventory */
    size_t time;                       /* I64 index: seconds since the epoch */
    std::vector<schema_value> values = {};
    size_t message = 0; /* string index; the string may be missing */
    const char* list =
        nullptr; /* an inventory: string 0 holds items of this name, a tab behind each */
    const char* failed = "limit reached"; /* what status 2 means */
    const char* not_found = "not found";  /* what status 3 means */
    std::optional<part_schema> parts = {};
    /* The nested records are a list of columns (types and labels) and one of cells (row, column and
     * text). */
    bool is_table = false;
};

/* Null for a type that has no row. */
const record_schema* find_schema(uint32_t type);

/* What every test result has. Without a schema only `type` is set, and everything is in the record.
 */
struct record_summary {
    uint32_t type = 0;
    const record_schema* schema = nullptr;
    std::optional<int32_t> test, location, status;
    std::optional<int64_t> time;
    std::string_view message;
};
record_summary summarize(const record& r);

/* "load average", or "type 99" for one that has no row. */
std::string type_name(uint32_t type);

/* "ok", "limit reached" or what else 2 means for this type, "not found", "remote query failed", or
 * "status 7". */
std::string status_word(uint32_t type, int32_t status);

/* What a result comes to: its status, or, where that is "ok", the status of a part that is not: an
 * object of an SNMP get that is out of its limits. `reason` is what the record says of it: its
 * message, or that of the first such part and how many more there are. */
struct verdict {
    std::optional<int32_t> status; /* none: nothing that is judged */
    std::string reason;
};
verdict judge(const record& r, const record_summary& summary);

/* ---- for showing every value of a record ---- */

/* Calls `use` with the record's values of that type. */
template <typename Do>
auto with_values(const record& r, value_type type, Do use) {
    switch (type) {
    case value_type::i32:
        return use(r.i32);
    case value_type::ui32:
        return use(r.ui32);
    case value_type::i64:
        return use(r.i64);
    case value_type::ui64:
        return use(r.ui64);
    case value_type::d64:
        return use(r.d64);
    case value_type::string:
        break;
    }
    return use(r.strings);
}

/* Whether the record has it. */
bool has_value(const record& r, const schema_value& value);

/* Whether it stands for a quantity that is not available. The record must have it. */
bool is_none(const record& r, const schema_value& value);

/* Whether a nested record has all that the schema names: an empty string is not in a record, and
 * those behind it move up. */
bool is_as_described(const record& part, const part_schema& schema);

/* Calls `each` with every nested record until it returns false. Those that cannot be read are
 * passed over. */
template <typename Do>
void for_each_nested_while(const record& r, Do each) {
    std::string reason;
    record inner;
    for (std::string_view bytes : r.nested) {
        if (decode_record(bytes, inner, reason) && !each(inner)) {
            return;
        }
    }
}

template <typename Do>
void for_each_nested(const record& r, Do each) {
    for_each_nested_while(r, [&](const record& inner) {
        each(inner);
        return true;
    });
}

#endif

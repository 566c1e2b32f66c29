/* What the values of each record type mean: one row of a table per type. A type without a row, or a
 * record that lacks what its row names, is shown generically. */
#ifndef VINDRAL_COLLECTOR_SCHEMA_H
#define VINDRAL_COLLECTOR_SCHEMA_H

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

/* The value as text, without unit. `r` must have it: summarize() found a schema. */
std::string value_text(const record& r, const schema_value& value);

/* All values in one line: "load1 0.5 load5 0.25 ...". Generic for a record without a schema. Once
 * `most` bytes are reached " ..." ends it. */
std::string values_text(const record& r, const record_summary& summary, size_t most = SIZE_MAX);

/* One JSON object (no line end) with agent, account, received, type, name, test, location, time,
 * status, status_text, values, message and, where there are any, nested records under their name.
 * An inventory has no status and its items as an array in values. Without a schema
 * the members that a test result would have are null, and "values" holds an array per value type.
 * Bytes that are no UTF-8 become U+FFFD; a number that JSON cannot express becomes null. */
std::string record_json(std::string_view account, std::string_view agent, int64_t received,
                        const record& r);

#endif

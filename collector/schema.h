/* What the values of each record type mean: one row of a table per type. A type without a row, or a
 * record that lacks what its row names, is shown generically. */
#ifndef VINDRAL_COLLECTOR_SCHEMA_H
#define VINDRAL_COLLECTOR_SCHEMA_H

#include "record.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum { type_load_average = 66 };

enum class value_type { i32, ui32, i64, ui64, d64 };

struct schema_value {
    value_type type;
    size_t index; /* among the record's values of this type */
    const char* name;
    const char* unit; /* "" for a plain number */
};

struct record_schema {
    uint32_t type; /* UI32 0 */
    const char* name;
    size_t test, location, status; /* UI32 indices */
    size_t time;                   /* I64 index: seconds since the epoch */
    std::vector<schema_value> values;
    size_t message; /* string index; the string may be missing */
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

/* "ok", "limit reached", "not found", "remote query failed", or "status 7". */
std::string status_word(int32_t status);

/* The value as text, without unit. `r` must have it: summarize() found a schema. */
std::string value_text(const record& r, const schema_value& value);

/* All values in one line: "load1 0.5 load5 0.25 ...". Generic for a record without a schema. */
std::string values_text(const record& r, const record_summary& summary);

/* One JSON object (no line end) with agent, account, received, type, name, test, location, time,
 * status, status_text, values, message and, where there are any, nested records. Without a schema
 * the members that a test result would have are null, and "values" holds an array per value type.
 * Bytes that are no UTF-8 become U+FFFD; a number that JSON cannot express becomes null. */
std::string record_json(std::string_view account, std::string_view agent, int64_t received,
                        const record& r);

#endif

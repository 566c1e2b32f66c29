/* Records as JSON, a line each. */
#ifndef VINDRAL_COLLECTOR_JSON_H
#define VINDRAL_COLLECTOR_JSON_H

#include "ingest/test_names.h"
#include "protocol/record.h"

#include <cstdint>
#include <string>
#include <string_view>

/* One JSON object (no line end) with agent, account, received, type, name, test, location, time,
 * status, status_text, values, message and, where there are any, nested records under their name.
 * The name is that of the type, or what the test is called; then "target" stands behind it.
 * An inventory has no status and its items as an array in values. Without a schema
 * the members that a test result would have are null, and "values" holds an array per value type.
 * Bytes that are no UTF-8 become U+FFFD; a number that JSON cannot express becomes null. */
std::string record_json(std::string_view account, std::string_view agent, int64_t received,
                        const record& r, const std::optional<called_test>& called = {});

#endif

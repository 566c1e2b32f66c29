/* What records hold beside single values, taken apart for showing. */
#ifndef VINDRAL_COLLECTOR_RECORD_CONTENT_H
#define VINDRAL_COLLECTOR_RECORD_CONTENT_H

#include "protocol/record.h"

#include <string>
#include <string_view>
#include <vector>

/* The items of an inventory; views into the record. */
std::vector<std::string_view> items_of(const record& r);

struct table_content {
    bool readable = true;
    std::vector<std::string> columns; /* labels */
    std::vector<std::vector<std::string>> rows;
};

/* Of a record whose schema says that it is a table. Rows are counted from 0, one after the other,
 * each with all its columns; one that is not so is not readable. */
table_content table_of(const record& r);

/* Calls use(name, values) for each array of numbers that the record has. */
template <typename Do>
void for_each_array(const record& r, Do use) {
    auto unless_empty = [&](const char* name, const auto& values) {
        if (values.size() > 0) {
            use(name, values);
        }
    };
    unless_empty("i32", r.i32);
    unless_empty("ui32", r.ui32);
    unless_empty("i64", r.i64);
    unless_empty("ui64", r.ui64);
    unless_empty("d64", r.d64);
}

#endif

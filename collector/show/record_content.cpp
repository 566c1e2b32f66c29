#include "show/record_content.h"

#include "base/record_summary.h"

#include <algorithm>

std::vector<std::string_view> items_of(const record& r) {
    std::vector<std::string_view> items;
    std::string_view rest = r.strings.empty() ? std::string_view() : r.strings[0];
    while (!rest.empty()) {
        size_t end = std::min(rest.find('\t'), rest.size());
        items.push_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return items;
}

table_content table_of(const record& r) {
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

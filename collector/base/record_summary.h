/* Reading a record by the protocol's table of its type (protocol/record_types.h). A record of a
 * type that the table does not have, or that lacks what its row names, has no schema: it is kept
 * and shown as it is. */
#ifndef VINDRAL_COLLECTOR_RECORD_SUMMARY_H
#define VINDRAL_COLLECTOR_RECORD_SUMMARY_H

#include "protocol/record.h"
#include "protocol/record_types.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/* What every test result has. Without a schema only `type` is set, and everything is in the record.
 */
struct record_summary {
    uint32_t type = 0;
    const protocol::record_def* schema = nullptr;
    std::optional<int32_t> test = {}, location = {}, status = {};
    std::optional<int64_t> time = {};
    std::string_view message = {};
};
record_summary summarize(const record& r);

/* A record and what was read from it when it was decoded, which is done once. Views of the block.
 */
struct decoded_record {
    record content;
    record_summary summary;
};

/* CROSSED  Agents exchange two shares of a local CPU test: what they send as the system's is that
 * of nice processes, and the other way round, in values and messages, of all processors together
 * and of each. Everybody here gets it uncrossed by for_each_value(), message_of() and judge(); the
 * record itself stays as it was sent. Of a remote host, whose records have no processors, nothing
 * is crossed. */

/* The message of the record, and of a nested one. */
std::string message_of(const record& r, const record_summary& summary);
std::string message_of(const record& part, const protocol::part_def& schema);

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

/* ---- for whoever shows every value ---- */

/* Calls use(values) with the record's values of that type. */
template <typename Do>
auto with_values(const record& r, protocol::value_type type, Do use) {
    switch (type) {
    case protocol::value_type::i32:
        return use(r.i32);
    case protocol::value_type::ui32:
        return use(r.ui32);
    case protocol::value_type::i64:
        return use(r.i64);
    case protocol::value_type::ui64:
        return use(r.ui64);
    case protocol::value_type::d64:
        return use(r.d64);
    case protocol::value_type::string:
        break;
    }
    return use(r.strings);
}

/* Whether the record has a value of that type at `index`. */
inline bool has_value(const record& r, protocol::value_type type, size_t index) {
    return index < with_values(
                       r, type, [](const auto& values) { return values.size(); });
}

/* Whether the record, or the nested one that the table describes, is of a local CPU. */
bool is_crossed(const record& r, std::span<const protocol::value_def> table);
/* Where the value that such a row names is, which is at `index` by the table. */
size_t uncrossed_index(const protocol::value_def& row, size_t index);

/* Calls use(row, index among the values of its type) for each row of role `value` that the record
 * has. */
template <typename Do>
void for_each_value(const record& r, std::span<const protocol::value_def> table, Do use) {
    size_t next[6] = {}; /* one for each protocol::value_type */
    const bool crossed = is_crossed(r, table);
    for (const protocol::value_def& row : table) {
        size_t index = next[static_cast<size_t>(row.type)]++;
        index = crossed ? uncrossed_index(row, index) : index;
        if (row.role == protocol::value_role::value && has_value(r, row.type, index)) {
            use(row, index);
        }
    }
}

/* The index, among the values of its type, of the row that has the role. */
constexpr std::optional<size_t> index_of(std::span<const protocol::value_def> table,
                                         protocol::value_role role) {
    for (size_t i = 0; i < table.size(); i++) {
        if (table[i].role == role) {
            return index_of(table, i);
        }
    }
    return std::nullopt;
}

/* The status of a nested record, if there is one. */
std::optional<int32_t> status_of(const record& part, const protocol::part_def& schema);

/* Whether a value that the record has stands for a quantity that is not available. */
bool is_none(const record& r, const protocol::value_def& row, size_t index);

/* Whether a nested record has all that its table names: an empty string is not in a record, and
 * those behind it move up. */
bool is_as_described(const record& part, const protocol::part_def& schema);

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

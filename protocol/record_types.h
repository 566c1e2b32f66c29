/* What an agent reports: one table for each type of record, with its values in order. The agent
 * makes its records by it, the collector reads them by it, docs/records.md describes it to people.
 * How a record lies in memory is in record.h.
 *
 * The values of one type (UI32, D64, ...) stand in a record in the order in which they stand here,
 * and so do the strings; between the types the record has an order of its own. */
#ifndef VINDRAL_PROTOCOL_RECORD_TYPES_H
#define VINDRAL_PROTOCOL_RECORD_TYPES_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace protocol {

enum class value_type : uint8_t { i32, ui32, i64, ui64, d64, string };

/* What a value is for. Of each but `value` and `unused` a record has one at most. */
enum class value_role : uint8_t {
    value,
    code,     /* the type of the record, UI32 0 */
    test,     /* id, given by the server */
    location, /* id, given by the server with the test and handed back */
    status,   /* a status_code */
    time,     /* of the check, seconds since the epoch */
    message,  /* for people; may be missing */
    list,     /* the items of an inventory, a tab behind each */
    unused    /* always 0 */
};

enum status_code : uint32_t {
    status_ok = 0,
    status_limit = 2,     /* or, for a test without limits, failed */
    status_not_found = 3, /* or failed, where `not_found` says so */
    status_remote_failed = 10
};

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct value_def {
    const char* name;
    value_type type;
    value_role role = value_role::value;
    const char* unit = "";       /* behind the number; "" for a plain one */
    bool may_be_none = false;    /* D64 2^64 stands for a quantity that is not available */
    bool may_be_missing = false; /* the record may end before it */
};

/* A nested record: one for each thing of the same kind that the test looks at. */
struct part_def {
    const char* name; /* of all of them */
    std::span<const value_def> values;
    bool shown_in_line = false; /* few enough for one line */
    bool judged_alone = false;  /* may be a problem of which the record's status says nothing */
};

struct record_def {
    uint32_t code;
    const char* name;
    std::span<const value_def> values;
    const part_def* parts = nullptr;
    const char* failed = "limit reached"; /* what status 2 means */
    const char* not_found = "not found";  /* what status 3 means */
    bool is_table = false; /* the nested records are a list of columns (types and labels) and one of
                              cells (row, column and text) */
};

/* How many values of a type there are, strings included. */
constexpr size_t count_of(std::span<const value_def> values, value_type type) {
    size_t count = 0;
    for (const value_def& value : values) {
        count += value.type == type;
    }
    return count;
}

/* Place of the value at `position` among those of its type. */
constexpr size_t index_of(std::span<const value_def> values, size_t position) {
    return count_of(values.first(position), values[position].type);
}

constexpr const value_def* find_role(std::span<const value_def> values, value_role role) {
    for (const value_def& value : values) {
        if (value.role == role) {
            return &value;
        }
    }
    return nullptr;
}

/* The rows are read more easily with short names. */
namespace rows {
inline constexpr value_type ui32 = value_type::ui32, i64 = value_type::i64, d64 = value_type::d64,
                            string = value_type::string;
inline constexpr value_role value = value_role::value;
inline constexpr value_def code = {"code", ui32, value_role::code},
                           test = {"test", ui32, value_role::test},
                           location = {"location", ui32, value_role::location},
                           status = {"status", ui32, value_role::status},
                           time = {"time", i64, value_role::time},
                           message = {"message", string, value_role::message},
                           unused = {"unused", ui32, value_role::unused};

inline constexpr value_def network[] = {code,
                                        test,
                                        location,
                                        time,
                                        {"received", ui32, value, " B/s"},
                                        {"received_packets", ui32, value, "/s"},
                                        {"received_errors", ui32, value, "/s"},
                                        {"sent", ui32, value, " B/s"},
                                        {"sent_packets", ui32, value, "/s"},
                                        {"sent_errors", ui32, value, "/s"},
                                        status,
                                        message};

inline constexpr value_def network_interfaces[] = {
    code, unused, unused, time, {"interfaces", string, value_role::list}};
inline constexpr value_def process_names[] = {
    code, unused, unused, time, {"names", string, value_role::list}};
inline constexpr value_def file_systems[] = {
    code, unused, unused, time, {"file_systems", string, value_role::list}};

inline constexpr value_def discovery[] = {code,
                                          test,
                                          location,
                                          time,
                                          {"reserved", d64, value_role::unused},
                                          message, /* the address */
                                          {"name", string, value, "", false, true},
                                          {"description", string, value, "", false, true},
                                          {"object", string, value, "", false, true},
                                          {"object_id", string, value, "", false, true}};
/* The end of a scan. */
inline constexpr value_def discovery_finished[] = {
    code, test, location, time, {"reserved", d64, value_role::unused}, message};
inline constexpr value_def discovered_object[] = {{"oid", string}, {"value", string}};

inline constexpr value_def process[] = {code,
                                        test,
                                        location,
                                        {"pid", ui32},
                                        status,
                                        time,
                                        {"cpu", d64, value, "%"},
                                        {"resident", d64, value, " MB"},
                                        {"virtual", d64, value, " MB"},
                                        message};

inline constexpr value_def cpu[] = {code,
                                    test,
                                    location,
                                    time,
                                    {"user", d64, value, "%"},
                                    {"system", d64, value, "%"},
                                    {"nice", d64, value, "%"},
                                    {"idle", d64, value, "%"},
                                    {"iowait", d64, value, "%"},
                                    status,
                                    message};
inline constexpr value_def processor[] = {{"user", d64, value, "%"},
                                          {"system", d64, value, "%"},
                                          {"nice", d64, value, "%"},
                                          {"idle", d64, value, "%"},
                                          {"iowait", d64, value, "%"},
                                          status,
                                          message};

inline constexpr value_def disk[] = {
    code,   test,   location, time, {"total", d64, value, " GB"}, {"available", d64, value, " GB"},
    status, message};

inline constexpr value_def memory[] = {code,
                                       test,
                                       location,
                                       time,
                                       {"free", d64, value, " MB", true},
                                       {"total", d64, value, " MB", true},
                                       {"swap_free", d64, value, " MB", true},
                                       {"swap_total", d64, value, " MB", true},
                                       {"buffers", d64, value, " MB", true},
                                       {"cached", d64, value, " MB", true},
                                       {"virtual_total", d64, value, " MB", true},
                                       {"virtual_free", d64, value, " MB", true},
                                       status,
                                       message};

inline constexpr value_def ping[] = {
    code, test, location, status, time, {"round_trip", d64, value, " ms"}, {"lost", ui32}, message};

inline constexpr value_def http[] = {code,
                                     test,
                                     location,
                                     status,
                                     {"time", ui32, value, " ms"},
                                     {"code", ui32},
                                     {"size", ui32, value, " bytes"},
                                     time,
                                     message};

inline constexpr value_def snmp[] = {
    code, test, location, status, time, {"objects", ui32}, {"time", d64, value, " ms"}, message};
inline constexpr value_def snmp_object[] = {{"type", ui32}, status, {"value", string}, message};

inline constexpr value_def load_average[] = {
    code, test, location, time, {"load1", d64}, {"load5", d64}, {"load15", d64}, status, message};

inline constexpr value_def snmp_table[] = {code, test, location, status, time, message};

inline constexpr value_def mysql[] = {
    code, test, location, status, {"time", ui32, value, " ms"}, time, {"result", string}, message};

inline constexpr part_def objects = {
    .name = "objects", .values = discovered_object, .shown_in_line = true};
inline constexpr part_def processors = {.name = "processors", .values = processor};
inline constexpr part_def snmp_results = {
    .name = "results", .values = snmp_object, .shown_in_line = true, .judged_alone = true};
} // namespace rows

inline constexpr record_def network = {38, "network", rows::network};
inline constexpr record_def network_interfaces = {39, "network interfaces",
                                                  rows::network_interfaces};
inline constexpr record_def discovery = {40, "discovery", rows::discovery, &rows::objects};
inline constexpr record_def discovery_finished = {40, "discovery", rows::discovery_finished};
inline constexpr record_def process_names = {42, "process names", rows::process_names};
inline constexpr record_def process = {43, "process", rows::process};
inline constexpr record_def cpu = {44, "cpu", rows::cpu, &rows::processors};
inline constexpr record_def file_systems = {45, "file systems", rows::file_systems};
inline constexpr record_def disk = {46, "disk", rows::disk};
inline constexpr record_def memory = {47, "memory", rows::memory};
inline constexpr record_def ping = {
    .code = 48, .name = "ping", .values = rows::ping, .failed = "failed"};
inline constexpr record_def http = {
    .code = 49, .name = "http", .values = rows::http, .failed = "failed"};
inline constexpr record_def snmp = {.code = 57,
                                    .name = "snmp",
                                    .values = rows::snmp,
                                    .parts = &rows::snmp_results,
                                    .not_found = "failed"};
inline constexpr record_def load_average = {66, "load average", rows::load_average};
inline constexpr record_def snmp_table = {.code = 67,
                                          .name = "snmp table",
                                          .values = rows::snmp_table,
                                          .failed = "failed",
                                          .is_table = true};
inline constexpr record_def mysql = {
    .code = 74, .name = "mysql", .values = rows::mysql, .not_found = "failed"};

/* All of them, by code. The end of a discovery is read as a discovery that lacks what may be
 * missing.
 */
inline constexpr const record_def* record_types[] = {&network,      &network_interfaces,
                                                     &discovery,    &process_names,
                                                     &process,      &cpu,
                                                     &file_systems, &disk,
                                                     &memory,       &ping,
                                                     &http,         &snmp,
                                                     &load_average, &snmp_table,
                                                     &mysql};

/* Null for a code that no type has. */
constexpr const record_def* find_record(uint32_t code) {
    for (const record_def* type : record_types) {
        if (type->code == code) {
            return type;
        }
    }
    return nullptr;
}

} // namespace protocol

#endif

/* What a server may tell an agent: one row for each command, with its fields. The agent executes
 * commands by it, the collector checks its plan by it, docs/commands.md describes it to people.
 *
 * A command is a line of fields separated by tabs. Field 0 is the code; counts of fields include
 * it. An agent silently drops a command with a wrong number of fields, or with a 0 where `nonzero`
 * or `interval` stands, unless its own table says otherwise. */
#ifndef VINDRAL_PROTOCOL_COMMANDS_H
#define VINDRAL_PROTOCOL_COMMANDS_H

#include "record_types.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace protocol {

/* What a command does to the tests of an agent. */
enum class command_effect : uint8_t {
    none,
    adds,     /* nothing when there is a test of this id */
    modifies, /* nothing when there is none */
    removes,  /* so is this */
    ignored   /* the agent knows the code, and does nothing */
};

enum class field_kind : uint8_t {
    ignored, /* must be there, means nothing */
    text,
    number,   /* a whole number of 32 bits */
    nonzero,  /* with 0 the command is dropped */
    wanted,   /* 0 is heeded, but means something that nobody wants */
    interval, /* seconds; 0 is dropped, -1 ends things for good */
    real,     /* with or without a fraction */
    useless   /* only the one value is heeded that has no use */
};

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct field_def {
    field_kind kind;
    const char* name;    /* of `useless`: what to use instead */
    bool secret = false; /* nobody's business but the agent's */
};

/* As long as a month; no interval should be longer. */
inline constexpr int32_t longest_interval_s = 31 * 86400;

/* Fields beyond the least are ignored. */
inline constexpr size_t any_more = SIZE_MAX;

/* The lists of tests that an agent has, each with ids of its own: by the code of the results, or
 * one of these, whose members bring none. */
inline constexpr uint32_t tcp_listeners = UINT32_MAX, unix_listeners = UINT32_MAX - 1;

struct command_def {
    std::string_view code;
    command_effect does;
    uint32_t list;                     /* of tests that it changes; 0: none */
    uint32_t results;                  /* code of the records that the test brings; 0: none */
    size_t least, most;                /* fields, the code included */
    std::span<const field_def> fields; /* from field 1 on */
    size_t heeded = least; /* so few fields an agent still obeys, but they say too little */
};

namespace rows {
inline constexpr field_def test_id = {field_kind::nonzero, "test id"};
inline constexpr field_def any_id = {field_kind::wanted, "test id"};
inline constexpr field_def location_id = {field_kind::number, "location id"};
inline constexpr field_def no_field = {field_kind::ignored, ""};
inline constexpr field_def host = {field_kind::text, "host"};
inline constexpr field_def name = {field_kind::text, "name"};
inline constexpr field_def address = {field_kind::text, "address"};
inline constexpr field_def text = {field_kind::text, "text"};
inline constexpr field_def secret = {field_kind::text, "text", true};
inline constexpr field_def minimum = {field_kind::number, "minimum"};
inline constexpr field_def maximum = {field_kind::number, "maximum"};
inline constexpr field_def flag = {field_kind::number, "switch"};
inline constexpr field_def port = {field_kind::number, "port"};
inline constexpr field_def version = {field_kind::number, "version"};
inline constexpr field_def retries = {field_kind::number, "number of retries"};
inline constexpr field_def timeout = {field_kind::number, "time limit"};

inline constexpr field_def interval_fields[] = {no_field,
                                                {field_kind::interval, "number of seconds"}};
inline constexpr field_def update_fields[] = {name, address, text}; /* program, URL, checksum */
inline constexpr field_def remove_fields[] = {test_id, no_field};
inline constexpr field_def remove_short_fields[] = {test_id};
inline constexpr field_def remove_any_fields[] = {any_id};
/* user, system, nice, idle, I/O wait; then [host [, system]] */
inline constexpr field_def cpu_fields[] = {test_id, location_id, maximum, maximum, maximum,
                                           minimum, maximum,     host,    name};
/* free, swap, virtual, buffers, cached [, host] */
inline constexpr field_def memory_fields[] = {test_id, location_id, minimum, minimum,
                                              minimum, maximum,     maximum, host};
/* the least that is free in GB; or the most that is read and written in KB */
inline constexpr field_def disk_fields[] = {test_id,
                                            location_id,
                                            name,
                                            {field_kind::real, "amount"},
                                            {field_kind::real, "most that is written"}};
/* CPU, resident, virtual, name */
inline constexpr field_def process_fields[] = {test_id, location_id, maximum,
                                               maximum, maximum,     name};
/* the most per second: packets, bytes and errors, each sent and received */
inline constexpr field_def network_fields[] = {test_id, location_id, name,    maximum, maximum,
                                               maximum, maximum,     maximum, maximum};
inline constexpr field_def ping_fields[] = {test_id,
                                            location_id,
                                            host,
                                            {field_kind::nonzero, "packet size"},
                                            {field_kind::nonzero, "number of packets"},
                                            {field_kind::nonzero, "time limit"},
                                            {field_kind::number, "number of lost packets"}};
/* host, path, port, match text, form data, user, password, seconds; TLS, redirects, whole page,
 * must be found, method */
inline constexpr field_def page_fields[] = {
    test_id, location_id, host, text,   text,
    text,    secret,      text, secret, text,
    flag,    flag,        flag, flag,   {field_kind::number, "method"}};
inline constexpr field_def load_fields[] = {test_id,
                                            location_id,
                                            {field_kind::number, "1 min maximum"},
                                            {field_kind::number, "5 min maximum"},
                                            {field_kind::number, "15 min maximum"},
                                            host};
/* host, port, repetitions, version, object, community, authentication, user, pass phrase, privacy,
 * its pass phrase, seconds, retries. With port 0 the agent asks port 0, of another location. */
inline constexpr field_def walk_fields[] = {
    test_id, location_id, host,   {field_kind::wanted, "port"},
    flag,    version,     text,   secret,
    text,    text,        secret, text,
    secret,  timeout,     retries};
/* host, port, version, objects, community, authentication, user, pass phrase, privacy, whether its
 * pass phrase is used, seconds, retries, limits */
inline constexpr field_def get_fields[] = {test_id, location_id, host,    port,    version,
                                           text,    secret,      text,    text,    secret,
                                           text,    secret,      timeout, retries, text};
/* An agent only heeds it with an id of 0, which no test can have. */
inline constexpr field_def remove_get_fields[] = {
    {field_kind::useless, "SPD removes no test: use STD"}};
/* first and last address, objects asked for besides */
inline constexpr field_def range_fields[] = {test_id, location_id, address, address, text};
/* host, port, socket, user, password, names and limits, seconds */
inline constexpr field_def mysql_fields[] = {test_id, location_id, host, port,   text,
                                             text,    secret,      text, timeout};
inline constexpr field_def unix_fields[] = {test_id, {field_kind::text, "path"}};
inline constexpr field_def tcp_fields[] = {
    test_id, {field_kind::nonzero, "port"}, {field_kind::text, "list of addresses"}};
} // namespace rows

/* One row for each code that the agent knows. */
inline constexpr command_def commands[] = {
    {"POL", command_effect::none, 0, 0, 3, 3, rows::interval_fields},
    {"CHK", command_effect::none, 0, 0, 3, 3, rows::interval_fields},
    {"UPD", command_effect::none, 0, 0, 4, 4, rows::update_fields},
    {"PRA", command_effect::adds, process.code, process.code, 7, 7, rows::process_fields},
    {"PRM", command_effect::modifies, process.code, process.code, 7, 7, rows::process_fields},
    {"PRD", command_effect::removes, process.code, process.code, 3, 3, rows::remove_fields},
    {"MMA", command_effect::adds, memory.code, memory.code, 8, 9, rows::memory_fields},
    {"MMM", command_effect::modifies, memory.code, memory.code, 8, 9, rows::memory_fields},
    {"MMD", command_effect::removes, memory.code, memory.code, 3, 3, rows::remove_fields},
    {"DKA", command_effect::adds, disk.code, disk.code, 5, 6, rows::disk_fields},
    {"DKM", command_effect::modifies, disk.code, disk.code, 5, 6, rows::disk_fields},
    {"DKD", command_effect::removes, disk.code, disk.code, 3, 3, rows::remove_fields},
    {"CUA", command_effect::adds, cpu.code, cpu.code, 8, 10, rows::cpu_fields},
    {"CUM", command_effect::modifies, cpu.code, cpu.code, 8, 10, rows::cpu_fields},
    {"CUD", command_effect::removes, cpu.code, cpu.code, 3, 3, rows::remove_fields},
    {"LAA", command_effect::adds, load_average.code, load_average.code, 6, 7, rows::load_fields},
    {"LAM", command_effect::modifies, load_average.code, load_average.code, 6, 7,
     rows::load_fields},
    {"LAD", command_effect::removes, load_average.code, load_average.code, 3, 3,
     rows::remove_fields},
    {"HPA", command_effect::adds, http.code, http.code, 16, 16, rows::page_fields},
    {"HPM", command_effect::modifies, http.code, http.code, 16, 16, rows::page_fields},
    {"HPD", command_effect::removes, http.code, http.code, 2, 2, rows::remove_short_fields},
    {"PGA", command_effect::adds, ping.code, ping.code, 8, 8, rows::ping_fields},
    {"PGM", command_effect::modifies, ping.code, ping.code, 8, 8, rows::ping_fields},
    {"PGD", command_effect::removes, ping.code, ping.code, 3, 3, rows::remove_fields},
    {"USA", command_effect::adds, unix_listeners, 0, 3, 3, rows::unix_fields},
    {"USM", command_effect::modifies, unix_listeners, 0, 3, 3, rows::unix_fields},
    {"USD", command_effect::removes, unix_listeners, 0, 2, 2, rows::remove_any_fields},
    {"TSA", command_effect::adds, tcp_listeners, 0, 4, 4, rows::tcp_fields},
    {"TSM", command_effect::modifies, tcp_listeners, 0, 4, 4, rows::tcp_fields},
    {"TSD", command_effect::removes, tcp_listeners, 0, 2, 2, rows::remove_short_fields},
    {"MQA", command_effect::adds, mysql.code, mysql.code, 10, 10, rows::mysql_fields},
    {"MQM", command_effect::modifies, mysql.code, mysql.code, 10, 10, rows::mysql_fields},
    {"MQD", command_effect::removes, mysql.code, mysql.code, 3, 3, rows::remove_fields},
    {"SWA", command_effect::adds, snmp.code, 0, 16, 16, rows::walk_fields},
    {"SWM", command_effect::ignored, 0, 0, 1, any_more, {}},
    {"SWD", command_effect::removes, snmp.code, 0, 2, 2, rows::remove_short_fields},
    {"STA", command_effect::adds, snmp.code, snmp_table.code, 16, 16, rows::walk_fields},
    {"STM", command_effect::modifies, snmp.code, snmp_table.code, 16, 16, rows::walk_fields},
    {"STD", command_effect::removes, snmp.code, 0, 3, 3, rows::remove_fields},
    {"SPA", command_effect::adds, snmp.code, snmp.code, 16, 16, rows::get_fields},
    {"SPM", command_effect::modifies, snmp.code, snmp.code, 16, 16, rows::get_fields},
    {"SPD", command_effect::none, 0, 0, 2, 2, rows::remove_get_fields},
    {"DCA", command_effect::adds, discovery.code, discovery.code, 5, any_more, rows::range_fields},
    {"DCM", command_effect::modifies, discovery.code, discovery.code, 5, any_more,
     rows::range_fields, 4},
    {"DCR", command_effect::removes, discovery.code, discovery.code, 2, any_more,
     rows::remove_short_fields},
    {"NTA", command_effect::adds, network.code, network.code, 10, any_more, rows::network_fields},
    {"NTM", command_effect::modifies, network.code, network.code, 10, any_more,
     rows::network_fields},
    {"NTD", command_effect::removes, network.code, network.code, 3, any_more, rows::remove_fields},
};

/* Null for a code that there is not. */
constexpr const command_def* find_command(std::string_view code) {
    for (const command_def& command : commands) {
        if (command.code == code) {
            return &command;
        }
    }
    return nullptr;
}

} // namespace protocol

#endif

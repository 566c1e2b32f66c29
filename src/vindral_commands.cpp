#include "vindral_commands.h"

#include "../protocol/commands.h"
#include "cpumon.h"
#include "diskmon.h"
#include "feedlistener.h"
#include "guards.h"
#include "httpmon.h"
#include "memmon.h"
#include "monloadaverage.h"
#include "mysqlmon.h"
#include "ndismon.h"
#include "netmon.h"
#include "pingmon.h"
#include "processmon.h"
#include "shell_command.h"
#include "snmpmon.h"
#include "vindral_checkers.h"
#include "vindral_config.h"
#include "vindral_interval.h"
#include "vindral_log.h"
#include "vindral_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

time_t last_update_time = 0;

static const time_t UPDATE_PAUSE_S = 600;

/* Low 32 bits of the decimal number; 0 for text that is none. */
static int number_of(const char* field) {
    return static_cast<int>(strtol(field, nullptr, 10));
}

namespace {

/* The fields of a command that has as many as its row wants; 0 is the code. */
struct command_fields {
    char** text;
    size_t count;

    char* operator[](size_t i) const { return text[i]; }
    int number(size_t i) const { return number_of(text[i]); }
    int number_or(size_t i, int standard) const { return number(i) != 0 ? number(i) : standard; }
    double real(size_t i) const { return strtod(text[i], nullptr); }
    char* optional(size_t i) const { return i < count ? text[i] : nullptr; }
    char* or_none(size_t i) const { return text[i][0] != '\0' ? text[i] : nullptr; }
};
using fields = const command_fields&;

void nothing(fields) {}

struct command_handler {
    std::string_view code;
    void (*obey)(fields);
    void (*wrong_count)(fields) = nothing;
    void (*zero_id)(fields) = nothing;
};

} // namespace

/* --- one line or two for each command: fields into arguments ---------------------------------- */

template <auto Set>
static void interval(fields f) {
    Set(f.number(2));
}

template <auto Remove>
static void remove(fields f) {
    Remove(f.number(1));
}

template <auto Operation>
static void process(fields f) {
    Operation(f[6], f.number(1), f.number(2), f.number(3), f.number(4), f.number(5));
}

template <auto Operation>
static void page(fields f) {
    Operation(f.number(1), f.number(2), f[3], f[4], f[5], f[6], f[7], f[8], f[9], f[10], nullptr,
              f.number(11), f.number(12), f.number(13), f.number(14), f.number(15));
}

template <auto Operation>
static void ping(fields f) {
    Operation(f.number(1), f.number(2), f[3], f.number(4), f.number(5), f.number(6), f.number(7));
}

template <auto Operation>
static void memory(fields f) {
    Operation(f.number(1), f.number(2), f.number(3), f.number(4), f.number(5), f.number(6),
              f.number(7), f.optional(8));
}

/* What a disk test watches is told by the number of its fields; -1 is not watched. */
template <auto Operation>
static void disk(fields f) {
    bool space = f.count == 5;
    Operation(f.number(1), f.number(2), f[3], space ? f.real(4) : -1.0, space ? -1.0 : f.real(4),
              space ? -1.0 : f.real(5));
}

template <auto Operation>
static void cpu(fields f) {
    Operation(f.number(1), f.number(2), f.number(3), f.number(4), f.number(5), f.number(6),
              f.number(7), f.optional(8), f.optional(9));
}

template <auto Operation>
static void load_average(fields f) {
    Operation(f.number(1), f.number(2), f.number(3), f.number(4), f.number(5), f.optional(6));
}

template <auto Operation>
static void network(fields f) {
    Operation(f.number(1), f.number(2), f[3], f.number(4), f.number(5), f.number(6), f.number(7),
              f.number(8), f.number(9));
}

template <auto Operation>
static void unix_listener(fields f) {
    Operation(f.number(1), f[2]);
}

/* The list of addresses passes to the listener; one that begins with "all" is empty there, which
 * admits everyone. So a list that is empty to begin with is refused, and where there is no memory
 * for the list nothing is done. */
template <auto Operation>
static void tcp_listener(fields f) {
    if (f[3][0] == '\0') {
        leveledadd2log(0, "ERROR: %s address list is empty, the command is ignored: %s", f[0],
                       f[1]);
        return;
    }
    char** addresses = nullptr;
    size_t count = 0;
    if (!uparser(f[3], &addresses, &count, ';')) {
        return;
    }
    if (strcmp(addresses[0], "all") == 0) {
        free_uparser_array(&addresses, &count);
        addresses = nullptr;
    }
    Operation(f.number(1), f.number(2), addresses, static_cast<int>(count));
}

template <auto Operation>
static void database(fields f) {
    Operation(f.number(1), f.number(2), f[3], f.number_or(4, 3306), f[6], f[7], f[5], f[8],
              static_cast<unsigned>(f.number_or(9, 10)));
}

/* A walk or a table. Without a port the standard one lands in the location, where servers are used
 * to find it; the test then asks port 0. */
template <auto Operation, int Type>
static void snmp_subtree(fields f) {
    int port = f.number(4);
    Operation(f.number(1), port == 0 ? SNMP_PORT : f.number(2), Type, f.number(5), f.or_none(7),
              f.or_none(3), port, f.number(6), f.number(14), f.number(15), f.or_none(8),
              f.or_none(10), f.or_none(11), f.or_none(13), f.or_none(9), f.or_none(12), nullptr);
}

/* Field 12 only tells whether there is a privacy pass phrase; field 11, the protocol, is used as
 * such. */
template <auto Operation>
static void snmp_get(fields f) {
    Operation(f.number(1), f.number(2), SNMP_GET_TEST, 0, f.or_none(6), f.or_none(3),
              f.number_or(4, SNMP_PORT), f.number(5), f.number(13), f.number(14), f.or_none(7),
              f.or_none(9), f.or_none(10), f[12][0] != '\0' ? f.or_none(11) : nullptr, f.or_none(8),
              f.or_none(11), f.or_none(15));
}

/* The other way round than every other remove command: only the id 0 is heeded. */
static void remove_snmp_get(fields f) {
    if (f.number(1) == 0) {
        rem_snmp(0);
    }
}

static void scan_add(fields f) {
    add_ndis(f.number(1), f.number(2), f[3], f[4], f.optional(5));
}

static void scan_modify(fields f) {
    mod_ndis(f.number(1), f.number(2), f[3], f.optional(4), f.optional(5));
}

static void update(fields f) {
    start_updater(f[1], f[2], f[3]);
}

/* --- what is wrong ---------------------------------------------------------------------------- */

/* Of most commands a wrong count or id goes without a word. */
static void wrong_page_count(fields f) {
    leveledadd2log(0, "ERROR: %s argument's count is %d, expected 16", f[0],
                   static_cast<int>(f.count));
}
static void wrong_page_id(fields f) {
    leveledadd2log(0, "ERROR: %s test ID is incorrect: %s, %d", f[0], f[1], 0);
}
static void wrong_scan_count(fields f) {
    leveledadd2log(0, "ERROR: Wrong number of parameters for %s: ", f[0]);
}

/* --- the table -------------------------------------------------------------------------------- */

/* What obeys each command, in the order of the protocol's table. */
static constexpr command_handler handlers[] = {
    {"POL", interval<set_poll_interval>},
    {"CHK", interval<set_check_intervals>},
    {"UPD", update},
    {"PRA", process<add_proc>},
    {"PRM", process<mod_proc>},
    {"PRD", remove<rem_proc>},
    {"MMA", memory<add_mem>},
    {"MMM", memory<modify_mem>},
    {"MMD", remove<rem_mem>},
    {"DKA", disk<add_diskdesc>},
    {"DKM", disk<modify_disk>},
    {"DKD", remove<rem_disk>},
    {"CUA", cpu<add_cpu>},
    {"CUM", cpu<modify_cpu>},
    {"CUD", remove<rem_cpu>},
    {"LAA", load_average<add_lda>},
    {"LAM", load_average<modify_lda>},
    {"LAD", remove<rem_lda>},
    {"HPA", page<add_http>, wrong_page_count, wrong_page_id},
    {"HPM", page<modify_http>, wrong_page_count, wrong_page_id},
    {"HPD", remove<rem_http>},
    {"PGA", ping<add_ping>},
    {"PGM", ping<mod_ping>},
    {"PGD", remove<rem_ping>},
    {"USA", unix_listener<add_unix_server>},
    {"USM", unix_listener<modify_unix_server>},
    {"USD", remove<remove_unix_server>},
    {"TSA", tcp_listener<add_tcp_server>},
    {"TSM", tcp_listener<modify_tcp_server>},
    {"TSD", remove<remove_tcp_server>},
    {"MQA", database<add_mysqldesc>},
    {"MQM", database<modify_mysqldesc>},
    {"MQD", remove<rem_mysqldesc>},
    {"SWA", snmp_subtree<add_snmp, SNMP_WALK_TEST>},
    {"SWM", nothing},
    {"SWD", remove<rem_snmp>},
    {"STA", snmp_subtree<add_snmp, SNMP_TABLE_TEST>},
    {"STM", snmp_subtree<mod_snmp, SNMP_TABLE_TEST>},
    {"STD", remove<rem_snmp>},
    {"SPA", snmp_get<add_snmp>},
    {"SPM", snmp_get<mod_snmp>},
    {"SPD", remove_snmp_get},
    {"DCA", scan_add, wrong_scan_count},
    {"DCM", scan_modify, wrong_scan_count},
    {"DCR", remove<rem_ndis>},
    {"NTA", network<add_nettest>},
    {"NTM", network<modify_nettest>},
    {"NTD", remove<rem_nettest>},
};
static_assert(std::ranges::equal(handlers, protocol::commands, {}, &command_handler::code,
                                 &protocol::command_def::code));

static const size_t FIELDS_USED = 16; /* at most, by any command; more only count */
static_assert(std::ranges::all_of(protocol::commands, [](const auto& command) {
    return command.least <= FIELDS_USED &&
           (command.most <= FIELDS_USED || command.most == protocol::any_more);
}));

/* The first field that is 0 and must not be; FIELDS_USED for none. */
static size_t zero_field(const protocol::command_def& command, fields f) {
    for (size_t i = 0; i < command.fields.size() && i + 1 < f.count; i++) {
        protocol::field_kind kind = command.fields[i].kind;
        if ((kind == protocol::field_kind::nonzero || kind == protocol::field_kind::interval) &&
            f.number(i + 1) == 0) {
            return i + 1;
        }
    }
    return FIELDS_USED;
}

/* A command of `count` fields, of which the first FIELDS_USED are there. */
static void execute(char** text, size_t count) {
    const protocol::command_def* command = protocol::find_command(text[0]);
    if (command == nullptr) {
        leveledadd2log(0, "ERROR: Invalid test string received: %s", text[0]);
        return;
    }
    const auto& handler = handlers[command - protocol::commands];
    const command_fields f = {text, count};
    if (count < command->heeded || count > command->most) {
        handler.wrong_count(f);
        return;
    }
    size_t zero = zero_field(*command, f);
    if (zero == FIELDS_USED) {
        handler.obey(f);
    } else if (zero == 1) {
        handler.zero_id(f);
    }
}

void add_from_array(char** ms, size_t msl) {
    if (ms != nullptr && msl != 0 && ms[0] != nullptr) {
        execute(ms, msl);
    }
}

/* Nothing happens for an empty line, and without memory. A line may have millions of fields. */
static void execute_line(const text_piece& line) {
    heap_text copies[FIELDS_USED];
    char* fields[FIELDS_USED];
    size_t count = 0;
    text_piece field;
    for (int more = first_field(line, '\t', &field); more; more = next_field(line, '\t', &field)) {
        if (count < FIELDS_USED) {
            copies[count].reset(strndup(field.begin, static_cast<size_t>(field.end - field.begin)));
            fields[count] = copies[count].get();
            if (fields[count] == nullptr) {
                return;
            }
        }
        count++;
    }
    if (count != 0) {
        execute(fields, count);
    }
}

void parse_data(char* sdata) {
    if (sdata == nullptr) {
        return;
    }
    const text_piece reply = {sdata, sdata + strlen(sdata)};
    text_piece line;
    for (int more = first_field(reply, '\n', &line); more; more = next_field(reply, '\n', &line)) {
        {
            /* A long reply must not hold up a stop: nothing is half-done between two commands. */
            cancel_on may_end;
            pthread_testcancel();
        }
        execute_line(line);
    }
}

void start_updater(char* dname, char* url, char* chsum) {
    if (time(nullptr) - last_update_time < UPDATE_PAUSE_S) {
        return;
    }
    leveledadd2log(-1, "Starting Update...");
    char* built = nullptr;
    if (asprintf(&built, "%s/bin/updater %lu %s/bin/%s %s %s", agent_home,
                 static_cast<unsigned long>(getpid()), agent_home, dname, url, chsum) < 0) {
        return;
    }
    heap_text command_line(built);
    pid_t pid = spawn_shell(command_line.get(), -1, false);
    int status = pid < 0 ? -1 : wait_command(pid);
    leveledadd2log(0, "%s", command_line.get());
    leveledadd2log(0, "System call return: %d", status);
    last_update_time = time(nullptr);
}

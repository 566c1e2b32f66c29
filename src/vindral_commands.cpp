#include "vindral_commands.h"

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
#include <iterator>

time_t last_update_time = 0;

static const time_t UPDATE_PAUSE_S = 600;

/* Low 32 bits of the decimal number; 0 for text that is none. */
static int number(const char* field) {
    return static_cast<int>(strtol(field, nullptr, 10));
}

/* So, but `standard` for 0. */
static int number_or(const char* field, int standard) {
    int n = number(field);
    return n != 0 ? n : standard;
}

/* The field at `index`, or null when the command has fewer. */
static char* optional_field(char** f, size_t count, size_t index) {
    return index < count ? f[index] : nullptr;
}

static void cmd_poll_interval(char** f, size_t) {
    if (int seconds = number(f[2])) {
        set_poll_interval(seconds);
    }
}

static void cmd_check_interval(char** f, size_t) {
    if (int seconds = number(f[2])) {
        set_check_intervals(seconds);
    }
}

static void cmd_add_proc(char** f, size_t) {
    add_proc(f[6], number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]));
}

static void cmd_modify_proc(char** f, size_t) {
    mod_proc(f[6], number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]));
}

static void cmd_remove_proc(char** f, size_t) {
    rem_proc(number(f[1]));
}

/* The one pair of commands that answers a wrong count or id in the log. */
static bool is_http_test(char** f, size_t count) {
    if (count != 16) {
        leveledadd2log(0, "ERROR: %s argument's count is %d, expected 16", f[0],
                       static_cast<int>(count));
        return false;
    }
    if (number(f[1]) == 0) {
        leveledadd2log(0, "ERROR: %s test ID is incorrect: %s, %d", f[0], f[1], 0);
        return false;
    }
    return true;
}

static void cmd_add_http(char** f, size_t count) {
    if (is_http_test(f, count)) {
        add_http(number(f[1]), number(f[2]), f[3], f[4], f[5], f[6], f[7], f[8], f[9], f[10],
                 nullptr, number(f[11]), number(f[12]), number(f[13]), number(f[14]),
                 number(f[15]));
    }
}

static void cmd_modify_http(char** f, size_t count) {
    if (is_http_test(f, count)) {
        modify_http(number(f[1]), number(f[2]), f[3], f[4], f[5], f[6], f[7], f[8], f[9], f[10],
                    nullptr, number(f[11]), number(f[12]), number(f[13]), number(f[14]),
                    number(f[15]));
    }
}

static void cmd_remove_http(char** f, size_t) {
    rem_http(number(f[1]));
}

/* A ping without a size, a count or a time-out is none. */
static bool is_ping_test(char** f) {
    return number(f[4]) != 0 && number(f[5]) != 0 && number(f[6]) != 0;
}

static void cmd_add_ping(char** f, size_t) {
    if (is_ping_test(f)) {
        add_ping(number(f[1]), number(f[2]), f[3], number(f[4]), number(f[5]), number(f[6]),
                 number(f[7]));
    }
}

static void cmd_modify_ping(char** f, size_t) {
    if (is_ping_test(f)) {
        mod_ping(number(f[1]), number(f[2]), f[3], number(f[4]), number(f[5]), number(f[6]),
                 number(f[7]));
    }
}

static void cmd_remove_ping(char** f, size_t) {
    rem_ping(number(f[1]));
}

static void cmd_add_mem(char** f, size_t count) {
    add_mem(number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]), number(f[6]),
            number(f[7]), optional_field(f, count, 8));
}

static void cmd_modify_mem(char** f, size_t count) {
    modify_mem(number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]), number(f[6]),
               number(f[7]), optional_field(f, count, 8));
}

static void cmd_remove_mem(char** f, size_t) {
    rem_mem(number(f[1]));
}

struct disk_limits {
    double min_free, max_read, max_write;
};

/* What a disk test watches is told by the number of its fields; -1 is not watched. */
static disk_limits disk_fields(char** f, size_t count) {
    if (count == 5) {
        return {strtod(f[4], nullptr), -1.0, -1.0};
    }
    return {-1.0, strtod(f[4], nullptr), strtod(f[5], nullptr)};
}

static void cmd_add_disk(char** f, size_t count) {
    disk_limits limits = disk_fields(f, count);
    add_diskdesc(number(f[1]), number(f[2]), f[3], limits.min_free, limits.max_read,
                 limits.max_write);
}

static void cmd_modify_disk(char** f, size_t count) {
    disk_limits limits = disk_fields(f, count);
    modify_disk(number(f[1]), number(f[2]), f[3], limits.min_free, limits.max_read,
                limits.max_write);
}

static void cmd_remove_disk(char** f, size_t) {
    rem_disk(number(f[1]));
}

static void cmd_add_cpu(char** f, size_t count) {
    add_cpu(number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]), number(f[6]),
            number(f[7]), optional_field(f, count, 8), optional_field(f, count, 9));
}

static void cmd_modify_cpu(char** f, size_t count) {
    modify_cpu(number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]), number(f[6]),
               number(f[7]), optional_field(f, count, 8), optional_field(f, count, 9));
}

static void cmd_remove_cpu(char** f, size_t) {
    rem_cpu(number(f[1]));
}

static void cmd_add_lda(char** f, size_t count) {
    add_lda(number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]),
            optional_field(f, count, 6));
}

static void cmd_modify_lda(char** f, size_t count) {
    modify_lda(number(f[1]), number(f[2]), number(f[3]), number(f[4]), number(f[5]),
               optional_field(f, count, 6));
}

static void cmd_remove_lda(char** f, size_t) {
    rem_lda(number(f[1]));
}

static void cmd_add_net(char** f, size_t) {
    add_nettest(number(f[1]), number(f[2]), f[3], number(f[4]), number(f[5]), number(f[6]),
                number(f[7]), number(f[8]), number(f[9]));
}

static void cmd_modify_net(char** f, size_t) {
    modify_nettest(number(f[1]), number(f[2]), f[3], number(f[4]), number(f[5]), number(f[6]),
                   number(f[7]), number(f[8]), number(f[9]));
}

static void cmd_remove_net(char** f, size_t) {
    rem_nettest(number(f[1]));
}

static void cmd_add_unix_server(char** f, size_t) {
    add_unix_server(number(f[1]), f[2]);
}

static void cmd_modify_unix_server(char** f, size_t) {
    modify_unix_server(number(f[1]), f[2]);
}

static void cmd_remove_unix_server(char** f, size_t) {
    remove_unix_server(number(f[1]));
}

/* A listener without a port is none. The list of addresses passes to the listener; one that begins
 * with "all" is empty there, which admits everyone. So a list that is empty to begin with is
 * refused, and where there is no memory for the list nothing is done. */
static void tcp_server(void (*operation)(int, int, char**, int), char** f) {
    int port = number(f[2]);
    if (port == 0) {
        return;
    }
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
    operation(number(f[1]), port, addresses, static_cast<int>(count));
}

static void cmd_add_tcp_server(char** f, size_t) {
    tcp_server(add_tcp_server, f);
}

static void cmd_modify_tcp_server(char** f, size_t) {
    tcp_server(modify_tcp_server, f);
}

static void cmd_remove_tcp_server(char** f, size_t) {
    remove_tcp_server(number(f[1]));
}

static void cmd_add_mysql(char** f, size_t) {
    add_mysqldesc(number(f[1]), number(f[2]), f[3], number_or(f[4], 3306), f[6], f[7], f[5], f[8],
                  static_cast<unsigned>(number_or(f[9], 10)));
}

static void cmd_modify_mysql(char** f, size_t) {
    modify_mysqldesc(number(f[1]), number(f[2]), f[3], number_or(f[4], 3306), f[6], f[7], f[5],
                     f[8], static_cast<unsigned>(number_or(f[9], 10)));
}

static void cmd_remove_mysql(char** f, size_t) {
    rem_mysqldesc(number(f[1]));
}

static char* text_or_none(char* field) {
    return field[0] != '\0' ? field : nullptr;
}

using snmp_operation = decltype(&add_snmp);

/* A walk or a table. Without a port the standard one lands in the location, where servers are used
 * to find it; the test then asks port 0. */
static void snmp_subtree(snmp_operation operation, int type, char** f) {
    int port = number(f[4]);
    operation(number(f[1]), port == 0 ? SNMP_PORT : number(f[2]), type, number(f[5]),
              text_or_none(f[7]), text_or_none(f[3]), port, number(f[6]), number(f[14]),
              number(f[15]), text_or_none(f[8]), text_or_none(f[10]), text_or_none(f[11]),
              text_or_none(f[13]), text_or_none(f[9]), text_or_none(f[12]), nullptr);
}

static void cmd_add_walk(char** f, size_t) {
    snmp_subtree(add_snmp, SNMP_WALK_TEST, f);
}

static void cmd_add_table(char** f, size_t) {
    snmp_subtree(add_snmp, SNMP_TABLE_TEST, f);
}

static void cmd_modify_table(char** f, size_t) {
    snmp_subtree(mod_snmp, SNMP_TABLE_TEST, f);
}

/* Field 12 only tells whether there is a privacy pass phrase; field 11, the protocol, is used as
 * such. */
static void snmp_get(snmp_operation operation, char** f) {
    char* privacy_protocol = text_or_none(f[11]);
    operation(number(f[1]), number(f[2]), SNMP_GET_TEST, 0, text_or_none(f[6]), text_or_none(f[3]),
              number_or(f[4], SNMP_PORT), number(f[5]), number(f[13]), number(f[14]),
              text_or_none(f[7]), text_or_none(f[9]), text_or_none(f[10]),
              f[12][0] != '\0' ? privacy_protocol : nullptr, text_or_none(f[8]), privacy_protocol,
              text_or_none(f[15]));
}

static void cmd_add_get(char** f, size_t) {
    snmp_get(add_snmp, f);
}

static void cmd_modify_get(char** f, size_t) {
    snmp_get(mod_snmp, f);
}

static void cmd_remove_snmp(char** f, size_t) {
    rem_snmp(number(f[1]));
}

/* The other way round than every other remove command: only the id 0 is heeded. */
static void cmd_remove_get(char** f, size_t) {
    if (number(f[1]) == 0) {
        rem_snmp(0);
    }
}

static void cmd_ignore(char**, size_t) {}

/* A wrong count is answered in the log, fields behind the last one are absent. */
static bool is_scan(char** f, size_t count, size_t least) {
    if (count < least) {
        leveledadd2log(0, "ERROR: Wrong number of parameters for %s: ", f[0]);
        return false;
    }
    return number(f[1]) != 0;
}

static void cmd_add_ndis(char** f, size_t count) {
    if (is_scan(f, count, 5)) {
        add_ndis(number(f[1]), number(f[2]), f[3], f[4], optional_field(f, count, 5));
    }
}

static void cmd_modify_ndis(char** f, size_t count) {
    if (is_scan(f, count, 4)) {
        mod_ndis(number(f[1]), number(f[2]), f[3], optional_field(f, count, 4),
                 optional_field(f, count, 5));
    }
}

static void cmd_remove_ndis(char** f, size_t) {
    rem_ndis(number(f[1]));
}

static void cmd_update(char** f, size_t) {
    start_updater(f[1], f[2], f[3]);
}

static const size_t FIELDS_USED = 16;       /* at most, by any command; more only count */
static const size_t MORE_FIELDS = SIZE_MAX; /* those beyond the least are ignored */

enum test_id { NO_ID, NONZERO_ID }; /* NONZERO_ID: field 1 is the test id; 0 drops the command */

static constexpr struct {
    const char* code;
    size_t least, most; /* fields, the code included */
    test_id id;
    void (*execute)(char** fields, size_t count);
} commands[] = {
    {"POL", 3, 3, NO_ID, cmd_poll_interval},  /* -, seconds */
    {"CHK", 3, 3, NO_ID, cmd_check_interval}, /* -, seconds */
    /* t_id, loc_id, cpu_critical, rss_critical, vsize_critical, pr_name */
    {"PRA", 7, 7, NONZERO_ID, cmd_add_proc},
    {"PRM", 7, 7, NONZERO_ID, cmd_modify_proc},
    {"PRD", 3, 3, NONZERO_ID, cmd_remove_proc}, /* t_id, - */
    /* _id, _loc_id, _host, _url, _port, _mutch, _post, _user, _pass, _tout, _isSSL, _Redirect,
     * _loadFullPage, _mustbefound, _method; checked by the handlers, which log what is wrong */
    {"HPA", 1, MORE_FIELDS, NO_ID, cmd_add_http},
    {"HPM", 1, MORE_FIELDS, NO_ID, cmd_modify_http},
    {"HPD", 2, 2, NONZERO_ID, cmd_remove_http}, /* t_id */
    /* _tid, _loc_id, _ho, p_size, p_cpount, p_timeout, max_lost */
    {"PGA", 8, 8, NONZERO_ID, cmd_add_ping},
    {"PGM", 8, 8, NONZERO_ID, cmd_modify_ping},
    {"PGD", 3, 3, NONZERO_ID, cmd_remove_ping}, /* t_id, - */
    /* _tid, loc_id, mem_min, swap_min, virt_min, buffered_max, cached_max [, host] */
    {"MMA", 8, 9, NONZERO_ID, cmd_add_mem},
    {"MMM", 8, 9, NONZERO_ID, cmd_modify_mem},
    {"MMD", 3, 3, NONZERO_ID, cmd_remove_mem}, /* t_id, - */
    /* _tid, _lid, _mp, min_free_space; or _tid, _lid, _mp, max_read, max_write */
    {"DKA", 5, 6, NONZERO_ID, cmd_add_disk},
    {"DKM", 5, 6, NONZERO_ID, cmd_modify_disk},
    {"DKD", 3, 3, NONZERO_ID, cmd_remove_disk}, /* _tid, - */
    /* tid, loc_id, user_max, system_max, nice_max, idle_min, iowait_max [, host [, system]] */
    {"CUA", 8, 10, NONZERO_ID, cmd_add_cpu},
    {"CUM", 8, 10, NONZERO_ID, cmd_modify_cpu},
    {"CUD", 3, 3, NONZERO_ID, cmd_remove_cpu}, /* t_id, - */
    /* tid, loc_id, la1, la5, la15 [, host] */
    {"LAA", 6, 7, NONZERO_ID, cmd_add_lda},
    {"LAM", 6, 7, NONZERO_ID, cmd_modify_lda},
    {"LAD", 3, 3, NONZERO_ID, cmd_remove_lda}, /* t_id, - */
    /* tid, lid, adapter, then the most per second: packets, bytes and errors, sent and received */
    {"NTA", 10, MORE_FIELDS, NONZERO_ID, cmd_add_net},
    {"NTM", 10, MORE_FIELDS, NONZERO_ID, cmd_modify_net},
    {"NTD", 3, MORE_FIELDS, NONZERO_ID, cmd_remove_net}, /* tid, - */
    {"USA", 3, 3, NONZERO_ID, cmd_add_unix_server},      /* tid, us_path */
    {"USM", 3, 3, NONZERO_ID, cmd_modify_unix_server},   /* tid, new_upath */
    {"USD", 2, 2, NO_ID, cmd_remove_unix_server},        /* tid */
    {"TSA", 4, 4, NONZERO_ID, cmd_add_tcp_server},       /* tid, port, ip_list */
    {"TSM", 4, 4, NONZERO_ID, cmd_modify_tcp_server},
    {"TSD", 2, 2, NONZERO_ID, cmd_remove_tcp_server}, /* tid */
    /* _tid, loc_id, host, port, unixsock, user, pass, param_list, timeout */
    {"MQA", 10, 10, NONZERO_ID, cmd_add_mysql},
    {"MQM", 10, 10, NONZERO_ID, cmd_modify_mysql},
    {"MQD", 3, 3, NONZERO_ID, cmd_remove_mysql}, /* t_id, - */
    /* v_tid, v_loc_id, v_host, v_port, v_bulk, v_version, v_oid_string, v_community, v_authproto,
     * v_login, v_passwd, v_privproto, v_privpasswd, v_timeout, v_retries */
    {"SWA", 16, 16, NONZERO_ID, cmd_add_walk},
    {"SWM", 1, MORE_FIELDS, NO_ID, cmd_ignore},
    {"SWD", 2, 2, NONZERO_ID, cmd_remove_snmp}, /* t_id */
    {"STA", 16, 16, NONZERO_ID, cmd_add_table},
    {"STM", 16, 16, NONZERO_ID, cmd_modify_table},
    {"STD", 3, 3, NONZERO_ID, cmd_remove_snmp}, /* t_id, - */
    /* v_tid, v_loc_id, v_host, v_port, v_version, v_oid_string, v_community, v_authproto, v_login,
     * v_passwd, v_privproto, whether there is a privacy pass phrase, v_timeout, v_retries,
     * v_min_max */
    {"SPA", 16, 16, NONZERO_ID, cmd_add_get},
    {"SPM", 16, 16, NONZERO_ID, cmd_modify_get},
    {"SPD", 2, 2, NO_ID, cmd_remove_get}, /* 0 */
    {"UPD", 4, 4, NO_ID, cmd_update},     /* dname, url, chsum */
    /* _tid, _lid, ipstart, ipend, oids; counted by the handlers, which log what is wrong */
    {"DCA", 1, MORE_FIELDS, NO_ID, cmd_add_ndis},
    {"DCM", 1, MORE_FIELDS, NO_ID, cmd_modify_ndis},
    {"DCR", 2, MORE_FIELDS, NONZERO_ID, cmd_remove_ndis}, /* _tid */
};
static_assert(std::all_of(std::begin(commands), std::end(commands), [](const auto& command) {
    return command.least <= FIELDS_USED &&
           (command.most <= FIELDS_USED || command.most == MORE_FIELDS);
}));

/* A command of `count` fields, of which the first FIELDS_USED are there. */
static void execute(char** fields, size_t count) {
    for (const auto& command : commands) {
        if (strcmp(fields[0], command.code) != 0) {
            continue;
        }
        bool counted = count >= command.least && count <= command.most;
        if (counted && (command.id == NO_ID || number(fields[1]) != 0)) {
            command.execute(fields, count);
        }
        return;
    }
    leveledadd2log(0, "ERROR: Invalid test string received: %s", fields[0]);
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

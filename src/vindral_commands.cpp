#include "vindral_commands.h"

#include "checker.h"
#include "cpumon.h"
#include "diskmon.h"
#include "guards.h"
#include "httpmon.h"
#include "memmon.h"
#include "monloadaverage.h"
#include "netmon.h"
#include "pingmon.h"
#include "processmon.h"
#include "shell_command.h"
#include "vindral_checkers.h"
#include "vindral_config.h"
#include "vindral_interval.h"
#include "vindral_log.h"
#include "vindral_text.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

time_t last_update_time = 0;

static const time_t UPDATE_PAUSE_S = 600;

/* Low 32 bits of the decimal number; 0 for text that is none. */
static int number(const char* field) {
    return static_cast<int>(strtol(field, nullptr, 10));
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

static void cmd_update(char** f, size_t) {
    start_updater(f[1], f[2], f[3]);
}

static const size_t MORE_FIELDS = SIZE_MAX; /* those beyond the least are ignored */

enum test_id { NO_ID, NONZERO_ID }; /* NONZERO_ID: field 1 is the test id; 0 drops the command */

static const struct {
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
    {"UPD", 4, 4, NO_ID, cmd_update},                    /* dname, url, chsum */
};

void add_from_array(char** ms, size_t msl) {
    if (ms == nullptr || msl == 0 || ms[0] == nullptr) {
        return;
    }
    for (const auto& command : commands) {
        if (strcmp(ms[0], command.code) != 0) {
            continue;
        }
        bool counted = msl >= command.least && msl <= command.most;
        if (counted && (command.id == NO_ID || number(ms[1]) != 0)) {
            command.execute(ms, msl);
        }
        return;
    }
    leveledadd2log(0, "ERROR: Invalid test string received: %s", ms[0]);
}

namespace {

/* What uparser made, freed by scope. */
struct split_text {
    char** parts = nullptr;
    size_t count = 0;

    split_text(const char* text, char separator) { uparser(text, &parts, &count, separator); }
    ~split_text() {
        if (parts != nullptr) {
            free_uparser_array(&parts, &count);
        }
    }
    split_text(const split_text&) = delete;
    split_text& operator=(const split_text&) = delete;
};

} // namespace

void parse_data(char* sdata) {
    split_text lines(sdata, '\n');
    command_batch batch;
    for (size_t i = 0; i < lines.count; i++) {
        {
            /* A long reply must not hold up a stop: nothing is half-done between two commands. */
            cancel_on may_end;
            pthread_testcancel();
        }
        split_text fields(lines.parts[i], '\t');
        add_from_array(fields.parts, fields.count);
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

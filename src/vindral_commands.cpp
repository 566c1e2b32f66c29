#include "vindral_commands.h"

#include "guards.h"
#include "monloadaverage.h"
#include "shell_command.h"
#include "vindral_checkers.h"
#include "vindral_config.h"
#include "vindral_interval.h"
#include "vindral_log.h"
#include "vindral_text.h"

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

static void cmd_update(char** f, size_t) {
    start_updater(f[1], f[2], f[3]);
}

enum test_id { NO_ID, NONZERO_ID }; /* NONZERO_ID: field 1 is the test id; 0 drops the command */

static const struct {
    const char* code;
    size_t least, most; /* fields, the code included */
    test_id id;
    void (*execute)(char** fields, size_t count);
} commands[] = {
    {"POL", 3, 3, NO_ID, cmd_poll_interval},   /* -, seconds */
    {"CHK", 3, 3, NO_ID, cmd_check_interval},  /* -, seconds */
    {"LAA", 6, 7, NONZERO_ID, cmd_add_lda},    /* tid, loc_id, la1, la5, la15 [, host] */
    {"LAM", 6, 7, NONZERO_ID, cmd_modify_lda}, /* as LAA */
    {"LAD", 3, 3, NONZERO_ID, cmd_remove_lda}, /* t_id, - */
    {"UPD", 4, 4, NO_ID, cmd_update},          /* dname, url, chsum */
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

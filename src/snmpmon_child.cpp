#include "snmpmon_child.h"

#include "budget.h"
#include "fork_gate.h"
#include "snmpmon_checks.h"
#include "vindral_log.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/prctl.h>

static const long PIPE_WAIT_US = 5000000;
static const long MOST_DESCRIPTORS = 65536; /* that are closed one by one */

/* --- the pipe -------------------------------------------------------------------------------- */

int wait_pipe(int fd, short events) {
    for (;;) {
        long budget_us = PIPE_WAIT_US;
        int ready = wait_socket(fd, events, &budget_us);
        if (ready != 0) {
            return ready;
        }
    }
}

int write_to_pipe(int fd, char* src, int src_len) {
    if (src == nullptr) {
        return 1;
    }
    for (;;) {
        if (wait_pipe(fd, POLLOUT) < 0) {
            if (errno == EINTR) {
                continue;
            }
            leveledadd2log(0, "Error %d - %s", errno, strerror(errno));
            return src_len < 1;
        }
        ssize_t written = write(fd, src, static_cast<size_t>(std::max(src_len, 0)));
        if (written < 0 && !try_again(errno)) {
            return src_len < 1;
        }
        if (written >= src_len) {
            return 1;
        }
        if (written > 0) {
            src += written;
            src_len -= static_cast<int>(written);
        }
    }
}

/* --- in the child, as all up to live_as_child ------------------------------------------------- */

/* What the agent catches has no meaning here. SIGPIPE stays ignored. */
static void restore_signals() {
    signal(SIGSEGV, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

static void close_descriptors(unsigned first, unsigned last) {
    if (first > last || close_range(first, last, 0) == 0) {
        return;
    }
    long limit = sysconf(_SC_OPEN_MAX); /* below 0: none */
    for (long fd = first; fd <= last && fd != limit && fd < MOST_DESCRIPTORS; fd++) {
        close(static_cast<int>(fd));
    }
}

/* No listening socket, session, lock file or pipe of another test lives on in a child. The standard
 * streams stay, so that the library's sockets never take their place. */
static void keep_only(int fd) {
    const unsigned kept = static_cast<unsigned>(fd), first = STDERR_FILENO + 1;
    if (kept > first) {
        close_descriptors(first, kept - 1);
    }
    close_descriptors(std::max(kept + 1, first), ~0U);
}

/* The result text of the check, or null. The walks do not say how long theirs is: nothing of it is
 * ever sent. */
static char* make_query(snmp_def* def, int* length) {
    char* text = nullptr;
    switch (def->req_type) {
    case SNMP_TABLE_TEST:
        def->bulk ? do_single_full_table_bulk_check(def, &text, length)
                  : do_single_full_table_check(def, &text, length);
        return text;
    case SNMP_GET_TEST:
        do_single_full_check(def, &text, length);
        return text;
    case SNMP_WALK_TEST:
        return def->bulk ? do_single_full_walk_bulk_check(def) : do_single_full_walk_check(def);
    default:
        return nullptr;
    }
}

/* The child's life. Level -1 logs nothing. */
[[noreturn]] static void live_as_child(snmp_def* def, int write_end) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    log_level = -1;
    restore_signals();
    keep_only(write_end);

    int length = 0;
    char* text = make_query(def, &length);
    free_snmp_def(&def);
    if (text == nullptr) {
        text = strdup("NO check results");
        length = 0;
    }
    write_to_pipe(write_end, text, length);
    free(text);
    close(write_end);
    _exit(1);
}

/* --- in the agent ---------------------------------------------------------------------------- */

pid_t fork_snmp_child(snmp_def* def, int write_end) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pid_t child = gated_fork();
    if (child == 0) {
        live_as_child(def, write_end);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return child;
}

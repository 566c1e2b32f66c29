#include "vindral_signals.h"

#include "vindral_log.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <execinfo.h>
#include <initializer_list>
#include <unistd.h>

pthread_t main_worker_thread_handle = 0;

static const int BACKTRACE_DEPTH = 128;

static void cancel_main_worker() {
    if (main_worker_thread_handle != 0) {
        pthread_cancel(main_worker_thread_handle);
    }
}

static void unblock(std::initializer_list<int> signal_numbers) {
    sigset_t wanted;
    sigemptyset(&wanted);
    for (int n : signal_numbers) {
        sigaddset(&wanted, n);
    }
    pthread_sigmask(SIG_UNBLOCK, &wanted, nullptr);
}

static void end_at_once(int) {
    _exit(0);
}

/* Ends the process at the latest when CRASH_TIME_S are over, whatever happens until then. A second
 * crash of this thread gets to the handler, too, and waits there for that. */
static void set_crash_alarm() {
    /* The allocator answers a broken heap with SIGABRT; a library's file that was cut short in the
     * meantime makes a SIGBUS of the search for symbols. */
    for (int n : {SIGALRM, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
        signal(n, end_at_once);
    }
    unblock({SIGALRM, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV});
    alarm(CRASH_TIME_S);
}

/* The symbols are not freed: the heap may be broken, and the process is at its end. */
static void log_backtrace() {
    void* addresses[BACKTRACE_DEPTH];
    int count = backtrace(addresses, BACKTRACE_DEPTH);
    char** symbols = backtrace_symbols(addresses, count);
    for (int i = 0; i < count; i++) {
        char line[1024];
        snprintf(line, sizeof line, " %p: %s", addresses[i], symbols != nullptr ? symbols[i] : "");
        leveledadd2log(-1, "%s", line);
    }
}

[[noreturn]] static void end_after_crash() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    static std::atomic_flag ending = ATOMIC_FLAG_INIT;
    while (ending.test_and_set()) {
        pause(); /* another thread crashed first, or the report did: the process is about to end */
    }
    set_crash_alarm();
    log_from_crash();
    leveledadd2log(-1, "SIGSEGV Received, vindral will be terminated.");
    leveledadd2log(-1, "Backtrace:");
    log_backtrace();
    leveledadd2log(-1, "end of Backtrace");
    cancel_main_worker();
    exit(0);
}

void catch_all_signals(int n) {
    int saved = errno;
    switch (n) {
    case SIGSEGV:
        end_after_crash();
    case SIGHUP:
        leveledadd2log(-1, "SIGHUP Received, Shutting down.");
        cancel_main_worker();
        break;
    default:
        leveledadd2log(-1, "Signal Received: %d", n);
        break;
    }
    errno = saved;
}

void prepare_signals() {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
    unblock({SIGSEGV}); /* a fault while it is blocked ends the process without the handler */
}

static int install(int signal_number) {
    struct sigaction action = {};
    action.sa_handler = catch_all_signals;
    sigemptyset(&action.sa_mask);
    return sigaction(signal_number, &action, nullptr) == 0;
}

int install_signal_handlers() {
    /* The first backtrace opens libgcc_s and takes memory, which a crashed thread should not. */
    void* here[1];
    backtrace(here, 1);
    if (!install(SIGSEGV)) {
        leveledadd2log(-1, "Can not set SIGSEGV signal handler.");
        return 0;
    }
    if (!install(SIGHUP)) {
        leveledadd2log(-1, "Can not set SIGHUP signal handler.");
        return 0;
    }
    return 1;
}

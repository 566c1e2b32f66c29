/* What the agent does on signals.
 *
 * SIGHUP ends it in order: the main worker thread is cancelled and main shuts down. The signal is
 * blocked on every thread; main reads it as an event and then calls the handler itself, where it
 * holds no lock: only so may the handler log.
 *
 * SIGSEGV writes a backtrace to the log and ends the process with status 0, on whatever thread and
 * with whatever lock held it comes. When that gets stuck, as it must for a crash inside malloc, an
 * alarm ends the process after CRASH_TIME_S seconds instead; a report that itself crashes or aborts
 * ends it, too. All of that with status 0, also where the starter has blocked the signal.
 *
 * SIGPIPE and SIGXFSZ are ignored: a peer that hangs up, or a file that may not grow, is an error
 * of the write. SIGCHLD has its default, also where the starter ignored it: the status of a child
 * would be lost. */
#ifndef VINDRAL_SIGNALS_H
#define VINDRAL_SIGNALS_H

#include <pthread.h>

/* The thread that SIGHUP cancels; 0 = none. Set by main once it runs, 0 again once it is joined. */
extern pthread_t main_worker_thread_handle;

inline constexpr unsigned CRASH_TIME_S = 3;

/* Sets what the handlers are not for, and unblocks SIGSEGV. The first thing that main does: whoever
 * reads its standard output may have gone, and threads inherit what is blocked. */
void prepare_signals();

/* Installs the handlers, SIGSEGV's first. Returns 1, or 0 after logging which one was refused.
 * Once, from main, before other threads may crash: it also loads what a backtrace needs. */
int install_signal_handlers();

/* The handler for SIGHUP and SIGSEGV; any other number is only logged. */
void catch_all_signals(int n);

#endif

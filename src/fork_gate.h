/* Forking in a process of many threads.
 *
 * A child inherits the locks that other threads held at the fork, and nobody in it will release
 * them. glibc brings its own locks to rest (memory, streams, loader, name service), the log writer
 * its own (vindral_log.cpp); OpenSSL does not. So a thread that is about to call it passes the gate
 * (shared), for the call only, never while it waits for a peer, and a fork closes the gate
 * (exclusive). Who waits to fork goes before who wants to pass, so a busy gate cannot keep a fork
 * waiting for longer than the calls that are inside; nor can many forks, one behind the other, keep
 * the gate closed: after each one those who wait pass.
 *
 * The connections' calls pass by themselves: init_ssl_variables (libsslloader.h) puts the gate into
 * the pointers that they go through. So does a thread that made such calls, once more at its end,
 * when the library frees what it kept for it. */
#ifndef VINDRAL_FORK_GATE_H
#define VINDRAL_FORK_GATE_H

#include <sys/types.h>

/* Inside one of these no gated fork happens. From any thread; no cancellation point, and errno
 * stays. Not nested in one another: the second would wait for a fork that waits for the first. */
class fork_gate {
public:
    fork_gate();
    ~fork_gate();
    fork_gate(const fork_gate&) = delete;
    fork_gate& operator=(const fork_gate&) = delete;
};

/* fork() while nobody is inside the gate. Returns what fork returns, errno with it; the child finds
 * the gate open. Not from inside the gate. */
pid_t gated_fork();

/* Waits for a fork under way; every later one fails with ECANCELED. For the end of the process:
 * exit takes away the handlers that libraries have for forks, and the C library aborts when that
 * happens amid one. */
void end_gated_forks();

#endif

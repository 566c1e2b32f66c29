/* Forking in a process of many threads.
 *
 * A child inherits the locks that other threads held at the fork, and nobody in it will release
 * them. glibc brings its own locks to rest, the log writer its own (vindral_log.cpp); OpenSSL does
 * not. So a thread that is about to call a library with locks that children need passes the gate
 * (shared), for the call only, never while it waits for a peer; a fork closes it (exclusive). */
#ifndef VINDRAL_FORK_GATE_H
#define VINDRAL_FORK_GATE_H

#include <sys/types.h>

/* Inside one of these no fork happens. Not nested in one another. */
class fork_gate {
public:
    fork_gate();
    ~fork_gate();
    fork_gate(const fork_gate&) = delete;
    fork_gate& operator=(const fork_gate&) = delete;
};

/* fork() with every passer outside the gate. */
pid_t gated_fork();

#endif

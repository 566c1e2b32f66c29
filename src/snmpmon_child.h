/* The child process that makes one query of the SNMP checker.
 *
 * It is forked with the log, OpenSSL and all signals at rest (fork_gate.h), and goes on in one
 * thread. Locks that other threads held stay locked in it for good, so it takes none but those of
 * the C library, which sees to its own, and calls the SNMP library, which only children call: it
 * logs nothing, looks up no name and touches none of the agent's lists. It leads a process group of
 * its own, handles signals as a fresh process does, has no descriptor but the standard streams and
 * its end of the pipe, and is killed when the agent ends. Its exit status is always 1. */
#ifndef VINDRAL_SNMPMON_CHILD_H
#define VINDRAL_SNMPMON_CHILD_H

#include "snmpmon_def.h"

#include <cerrno>
#include <sys/types.h>

/* Forks with all signals blocked, so that none meets the agent's handlers in the child, which makes
 * the query and writes its text to the pipe. Returns the child's id, or -1 with errno set. From a
 * thread with a stack of the default size, on which the child runs the library. */
pid_t fork_snmp_child(snmp_def* def, int write_end);

/* --- the pipe, at both of its ends ----------------------------------------------------------- */

/* As wait_socket, but a time-out only begins the next wait. */
int wait_pipe(int fd, short events);

inline bool try_again(int error) {
    return error == EAGAIN || error == EINTR;
}

/* In the child: writes all of it to a non-blocking pipe, however long the other end takes to read.
 * 1 when that is done and when there is nothing to write (src null), 0 when writing failed. */
int write_to_pipe(int fd, char* src, int src_len);

#endif

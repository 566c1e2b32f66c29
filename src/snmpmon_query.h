/* The queries of the SNMP checker, seen from the agent: the child of each, its text, its end.
 *
 * Every query has a child process of its own (snmpmon_child.h), which sends its result through a
 * pipe. So requests never meet in the library's shared state, and one that crashes takes only its
 * result along. Names are looked up before the fork. The last descriptors are left to the rest of
 * the agent: without one it could not reach its server. A child that never ends keeps whoever waits
 * for its text; one that dies leaves no result, and nothing is reported.
 *
 * The threads work on copies of tests and touch the results (snmpmon_results.h) only; no lock is
 * held while a child runs. */
#ifndef VINDRAL_SNMPMON_QUERY_H
#define VINDRAL_SNMPMON_QUERY_H

#include "snmpmon_child.h"
#include "snmpmon_def.h"

#include <sys/types.h>

/* 1 when the host is a name, which must be looked up before the fork. Not when it is an address in
 * dotted form, nor one with colons in it, which may name the transport and is the library's to
 * read. */
int snmp_needs_lookup(const snmp_def* def);

/* The tests of a pass: copies that the round owns, null when their check has ended. */
struct snmp_round {
    snmp_def** tests;
    int count;
};
void free_snmp_round(snmp_round** p);

/* Starts a child for every test of the round that `arg` is, which it frees, and appends the results
 * as they come. Returns when all have ended. */
void* snmp_round_thread(void* arg);

/* Runs the test that `arg` is a copy of, which it frees. A walk adds nothing to the results: its
 * text has never been sent. */
void* snmp_single_thread(void* arg);

/* Makes one query the same way and waits for it: *buffer (caller frees) and *buffer_len take the
 * result, and stay untouched when there is none. Frees the definition. Always 0. From a thread with
 * a stack of the default size, on which the child runs the library. */
int get_snmp_values(snmp_def* def_snmp, char** buffer, int* buffer_len);

/* Reads a non-blocking pipe until its other end is closed. Returns 1 and hands the bytes out, or
 * appends them to the results when an output is null; 0 with the outputs untouched when there were
 * none, or more than fit into memory. */
int read_from_pipe(int fd, char** buffer, int* buffer_len);

/* Has a detached thread wait for the end of a child (forkwait_thread, whose argument is a malloc'd
 * pid_t that it frees). Without a thread the child is not waited for. */
void wait4forked(pid_t p);
void* forkwait_thread(void* arg);

#endif

/* SNMP checker: walk, table and get tests of other machines' SNMP agents.
 *
 * Every test of a pass has a child process of its own that makes the requests (snmpmon_checks.h)
 * and sends its result through a pipe. So requests never meet in the library's shared state, and
 * one that crashes takes only its result along. A pass waits for nothing: a detached thread (the
 * round) forks the children one after another, takes in between the results of those that have
 * ended, and then waits for the others. A fork costs more the more threads there are (with 500 it
 * takes seven times as long as with one), and each child takes a page along for each of them. So
 * there is one for all tests; only while a host's name is looked up, which may take long, there is
 * one more. A test whose child of the last pass still runs gets a second one, and so on to the
 * bound of checks_under_way.h. The records are described with the checks.
 *
 * The child (snmpmon_child.cpp) is forked with the log, OpenSSL and all signals at rest
 * (fork_gate.h). It leads a process group of its own, handles signals as a fresh process does, logs
 * nothing, has no descriptor but the standard streams and its end of the pipe, and is killed when
 * the agent ends. Names are looked up before the fork. Its exit status is always 1. The last
 * descriptors are left to the rest of the agent: without one it could not reach its server. A
 * child that never ends keeps its round; one that dies leaves no result, and nothing is reported.
 *
 * All of it needs the library: without it (snmp_lib_status 0) tests are neither added, changed nor
 * removed, and there are no results.
 *
 * Lifecycle, threads and locks are those of checker.h. The threads of a pass work on copies and
 * touch the result buffer only; no lock is held while a child runs. A stop does not wait for them.
 *
 * The line that reports a new test at level 5 shows its community and its pass phrases. */
#ifndef VINDRAL_SNMPMON_H
#define VINDRAL_SNMPMON_H

#include "checks_under_way.h"
#include "snmpmon_def.h"

#include <sys/types.h>

inline constexpr int SNMP_PORT = 161;

/* Main thread, once: binds the library, starts it, and starts the worker. 1 when both are there, 0
 * otherwise (messages logged at level 0). */
int init_snmp_mon();
void* snmp_worker_thread(void* arg);
int get_snmp_check_interval();
void set_snmp_check_interval(int t_sec);

/* Poll thread. An id that is present (add, logged at level 0) or unknown (modify, remove) and a
 * definition that make_snmp_def refuses change nothing. The texts are copied. Each add and modify
 * causes a pass of all tests at once, after which the first result for that test is sent at once.
 */
void add_snmp(int v_tid, int v_loc_id, int v_type, int v_bulk, char* v_oid_string, char* v_host,
              int v_port, int v_version, int v_timeout, int v_retries, char* v_community,
              char* v_login, char* v_passwd, char* v_privpasswd, char* v_authproto,
              char* v_privproto, char* v_min_max);
void mod_snmp(int v_tid, int v_loc_id, int v_type, int v_bulk, char* v_oid_string, char* v_host,
              int v_port, int v_version, int v_timeout, int v_retries, char* v_community,
              char* v_login, char* v_passwd, char* v_privpasswd, char* v_authproto,
              char* v_privproto, char* v_min_max);
void rem_snmp(int t_id);

/* 1 when no test has this id. */
int is_new_snmp(int tID);

/* One pass over all tests. A test for which there is no thread, no child or no memory is left out,
 * and so is one that has as many checks under way as it may have. */
void do_snmp_check();

/* The checks of tests, not those that get_snmp_values makes. */
extern checks_under_way snmp_checks;

/* Frees the copy of a test that has been counted for a check, which ends with it. */
void end_snmp_check(snmp_def** p);

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

/* Writes all of it to a non-blocking pipe, however long the other end takes to read. 1 when that is
 * done and when there is nothing to write (src null), 0 when writing failed. */
int write_to_pipe(int fd, char* src, int src_len);

/* Reads a non-blocking pipe until its other end is closed. Returns 1 and hands the bytes out, or
 * appends them to the results when an output is null; 0 with the outputs untouched when there were
 * none, or more than fit into memory. */
int read_from_pipe(int fd, char** buffer, int* buffer_len);

/* Has a detached thread wait for the end of a child (forkwait_thread, whose argument is a malloc'd
 * pid_t that it frees). Without a thread the child is not waited for. */
void wait4forked(pid_t p);
void* forkwait_thread(void* arg);

/* Sizes below 1 are ignored, as is everything without the library. */
void add_snmp_result(char* rez, int rez_size);
int get_snmp_results(char** res, int* len);

/* Stops the worker, shuts the library down and frees what results there still are. */
void shutdown_snmp_checker();

#endif

/* SNMP checker: walk, table and get tests of other machines' SNMP agents.
 *
 * Every test of a pass has a query of its own, made by a child process (snmpmon_query.h). A pass
 * waits for nothing: a detached thread (the round) forks the children one after another, takes in
 * between the results of those that have ended, and then waits for the others. A fork costs more
 * the more threads there are (with 500 it takes seven times as long as with one), and each child
 * takes a page along for each of them. So there is one for all tests; only while a host's name is
 * looked up, which may take long, there is one more. A test whose child of the last pass still runs
 * gets a second one, and so on to the bound of checks_under_way.h. The records are described with
 * the checks (snmpmon_checks.h).
 *
 * All of it needs the library: without it (snmp_lib_status 0) tests are neither added, changed nor
 * removed, and there are no results.
 *
 * Lifecycle, threads and locks are those of checker.h. The threads of a pass work on copies and
 * touch the result buffer only. A stop does not wait for them.
 *
 * The line that reports a new test at level 5 shows its community and its pass phrases. */
#ifndef VINDRAL_SNMPMON_H
#define VINDRAL_SNMPMON_H

#include "snmpmon_query.h"
#include "snmpmon_results.h"

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

int get_snmp_results(char** res, int* len);

/* Stops the worker, shuts the library down and frees what results there still are. */
void shutdown_snmp_checker();

#endif

/* MySQL checker: status counters and variables of MySQL and MariaDB servers, compared with limits.
 * This module keeps the tests and starts their checks; mysqlmon_check.h says how a check is done,
 * and mysqlmon_lib.h where the client library comes from.
 *
 * Record, type code 74 (0 I32, 5 UI32, 1 I64, 0 UI64, 0 D64, 2 strings), in this order:
 *   UI32  74, test id, loc_id, status (0 all within limits, 2 a value is out of them or missing,
 *         3 error), response time in whole ms, cut off
 *   I64   time at the start of the check, seconds since the epoch in single precision: rounded to
 *         a multiple of 128
 *   text  result list: "NAME|VALUE|0;" for what is OK and "NAME|VALUE|2;" for what is not; of a
 *         check that failed "Error_Message|REASON|3;"
 *   text  additional information: "NAME - VALUE: NOK;" for each value that is not OK, or the reason
 *         of the failure; absent when there is none, as an empty text is no part of a record
 *
 * Lifecycle and locks are those of checker.h, with two differences. A pass does not check anything
 * itself: it starts a detached thread ("mysql_check") for every test, with a copy of the test, and
 * does not wait for it; one that takes longer than the check interval overlaps the next ones of the
 * same test, up to the bound of checks_under_way.h, and shutting down does not wait for checks. And
 * without the client library there is neither a worker nor a list: each new test is answered with
 * an error at once. */
#ifndef VINDRAL_MYSQLMON_H
#define VINDRAL_MYSQLMON_H

#include "mysqlmon_check.h"

/* Binds the library and starts the worker. Returns 1; or 0 with the reason kept for the answers to
 * add and modify, and a line at level 0. Main thread, before the first add. */
int init_mysql_mon();
void* mysql_worker_thread(void* arg);
int get_mysql_check_interval();
void set_mysql_check_interval(int t_sec);

/* Poll thread. Nothing changes for an id of 0, an id already present or an empty parameter list
 * (add) and an unknown id (modify, remove). All texts are copied; an empty unixsock is none. A
 * modify replaces everything but the id; with an empty parameter list nothing is left to compare,
 * and the test only tells whether the server can be asked. Each add and modify causes a round at
 * once; the result of the new test is sent as soon as it is there. Removing logs "INFO:
 * rem_mysqldesc. Removed test. tid:%d" at level 5. */
void add_mysqldesc(int _tid, int loc_id, char* host, int port, char* user, char* pass,
                   char* unixsock, char* param_list, unsigned int timeout);
void modify_mysqldesc(int _tid, int loc_id, char* host, int port, char* user, char* pass,
                      char* unixsock, char* param_list, unsigned int timeout);
void rem_mysqldesc(int t_id);
void rem_mysqldesc_all();

/* 1 when no test has this id, else 0. */
int is_new_mysql(int tID);

/* One round: starts a check of every test. A test whose thread cannot be started is left out, with
 * a line at level 0. */
void do_mysql_check();

/* One check, with its record, of the copy of a test that `arg` points to and that it frees. */
void* do_single_mysql_check(void* arg);

/* Adds a record to the results. respTime is in ms, checkTime in seconds since the epoch; the texts
 * may be null. */
void send_mysql_data(int tid, int locid, int status, float respTime, float checkTime, char* pResult,
                     char* pAddinfo);

void add_mysql_result(char* rez, int rez_size);
int get_mysql_results(char** rez, int* rez_size);

/* Stops the worker and removes all tests. */
void shutdown_mysql_checker();

#endif

/* HTTP checker: pages of web servers, plain and over TLS, checked from this machine. This module
 * keeps the tests and starts their checks; httpmon_exchange.h says how a check is done, and
 * httpmon_text.h what is sent and understood.
 *
 * Record, type code 49 (0 I32, 7 UI32, 1 I64, 0 UI64, 0 D64, 1 string):
 *   UI32  49, test id, loc_id, status (0 OK, 2 failed), time spent in whole ms, HTTP status code of
 *         the last response (0: none), bytes of its body
 *   text  the outcome in words; absent when the failed step has none
 *   I64   time of the record, seconds since the epoch
 *
 * Lifecycle and locks are those of checker.h, with one difference: a pass does not check anything
 * itself. It starts a detached thread ("http_check", stack of WORKER_STACK_SIZE) for every test,
 * with a copy of the test, and does not wait for it. So a check that takes longer than the check
 * interval overlaps the next ones of the same test, up to the bound of checks_under_way.h; one
 * whose test is changed or removed meanwhile still reports what it was started for, and shutting
 * down does not wait for checks. */
#ifndef VINDRAL_HTTPMON_H
#define VINDRAL_HTTPMON_H

#include "httpmon_exchange.h"

/* Stands in for a user agent that was not given. */
inline constexpr const char* DEFAULT_USER_AGENT =
    "User-Agent: Mozilla/5.0 (compatible; Vindral Smart Agent/3.0; +https://vindral.example/)\r\n";

/* 1 when the worker runs, 0 otherwise (message logged at level 0). */
int init_http_mon();
void* http_worker_thread(void* arg);
int get_http_check_interval();
void set_http_check_interval(int t_sec);

/* Poll thread. Nothing changes and nothing is logged for an id of 0, a null host, url or port, an
 * id already present (add) and an unknown id (modify, remove). All texts are copied; a null or
 * empty match text, form data, user or password is none, a null or empty time-out is "10", a null
 * or empty user agent the default line. Modifying replaces everything but the id. Each add and
 * modify causes a round at once; the result of the new test is sent as soon as it is there. */
void add_http(long _id, int _loc_id, char* _host, char* _url, char* _port, char* _mutch,
              char* _post, char* _user, char* _pass, char* _tout, char* _userAgent, int _isSSL,
              int _Redirect, int _loadFullPage, int _mustbefound, int _method);
void modify_http(long _id, int _loc_id, char* _host, char* _url, char* _port, char* _mutch,
                 char* _post, char* _user, char* _pass, char* _tout, char* _userAgent, int _isSSL,
                 int _Redirect, int _loadFullPage, int _mustbefound, int _method);
void rem_http(int t_id);

/* 1 when no test has this id, else 0. */
int is_new_http(int tID);

/* A copy for one check, without userAgent, timeout and currNokCount. Null for null and without
 * memory. Freed with free_aHost. */
aHost* dup_aHost(aHost* pah);

/* Frees the test with its texts and sets the pointer to null. Null is allowed. */
void free_aHost(aHost** pah);

/* One round: starts a check of every test. A test whose thread cannot be started is left out, with
 * a line at level 0. */
void do_http_check();

/* One check, with its record, of the copy of a test that `arg` points to and that it frees. */
void* http_check_thread(void* arg);

void add_http_result(char* rez, int rez_size);
int get_http_results(char** rez, int* rez_size);
void shutdown_http_checker();

#endif

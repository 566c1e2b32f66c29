/* Run-time binding of the MySQL client library.
 *
 * The agent is not linked to it: it looks for the library on the host and calls it through the
 * pointers below, each named after the function it stands for. Two families carry these names,
 * MySQL's libmysqlclient and MariaDB's libmariadb; what is used of them has one and the same
 * meaning in both, the numbers of the time-outs (MYSQL_OPT_CONNECT_TIMEOUT and so on) included.
 *
 * The pointers are written on the main thread before the checker's worker exists and only read
 * afterwards. The library is never closed: threads that still run at exit may be inside it.
 *
 * TLS. Both families call OpenSSL, for TLS and for the passwords of some of MySQL's own accounts
 * (caching_sha2_password, sha256_password). Nothing here asks for TLS. libmariadb up to 3.3 then
 * uses none, and hashes the usual passwords (mysql_native_password) with code of its own: after its
 * initialisation it does not call OpenSSL at all. Later releases of it, and libmysqlclient, use TLS
 * where the server offers it. The calls of a check do not pass the fork gate (fork_gate.h), since
 * the library waits for the server inside of them: a child that is forked meanwhile and needs
 * OpenSSL may then find a lock taken for good. */
#ifndef VINDRAL_MYSQLMON_LIB_H
#define VINDRAL_MYSQLMON_LIB_H

/* The header of either family. */
#if __has_include(<mysql.h>)
#include <mysql.h>
#elif __has_include(<mariadb/mysql.h>)
#include <mariadb/mysql.h>
#else
#include <mysql/mysql.h>
#endif

extern decltype(&mysql_init) lib_mysql_init;
extern decltype(&mysql_error) lib_mysql_error;
extern decltype(&mysql_options) lib_mysql_options;
extern decltype(&mysql_real_connect) lib_mysql_real_connect;
extern decltype(&mysql_query) lib_mysql_query;
extern decltype(&mysql_store_result) lib_mysql_store_result;
extern decltype(&mysql_num_fields) lib_mysql_num_fields;
extern decltype(&mysql_fetch_row) lib_mysql_fetch_row;
extern decltype(&mysql_free_result) lib_mysql_free_result;
extern decltype(&mysql_close) lib_mysql_close;

/* Opens the first candidate that loads, binds every function from it and initialises it, once for
 * the process: what it would do at its first use is not safe in several threads at a time. Returns
 * null; or the reason of the failure, which the caller frees: no candidate loads (nothing is
 * logged), or the one that does lacks a function (logged at level 0; it is closed and no other is
 * tried). */
char* init_mysql_lib();

/* To be called at the end of every thread that has used the library: gives back what the library
 * keeps for the thread. */
void end_mysql_thread();

#endif

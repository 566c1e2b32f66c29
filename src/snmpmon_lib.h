/* Run-time binding of the SNMP library, and the sessions that are opened with it.
 *
 * The agent is not linked to Net-SNMP: it looks for the library on the host and calls it through
 * the pointers below, each named after the function it stands for. Types and option numbers come
 * from the headers of release 5.9; 5.8 has the same layout of sessions, requests and the MIB tree.
 *
 * The pointers are written on the main thread before any other thread exists and only read
 * afterwards. A library that was bound stays open. Sessions are opened in the child processes of
 * the SNMP checker, which have one thread: nothing here is locked. */
#ifndef VINDRAL_SNMPMON_LIB_H
#define VINDRAL_SNMPMON_LIB_H

#include "snmpmon_def.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

extern const char* snmp_lib_file_name; /* the first name tried, and the one that messages name */
extern void* lib_handle;               /* null until a library is bound */
extern int snmp_lib_status;            /* 1 when the SNMP checker may use the library, else 0 */

/* Sessions and data. */
extern decltype(&init_snmp) libpo_init_snmp;
extern decltype(&generate_Ku) libpo_generate_Ku;
extern decltype(&snmp_open) libpo_snmp_open;
extern decltype(&snmp_close) libpo_snmp_close;
extern decltype(&snmp_sess_init) libpo_snmp_sess_init;
extern decltype(&snmp_shutdown) libpo_snmp_shutdown;
extern decltype(&snmp_pdu_create) libpo_snmp_pdu_create;
extern decltype(&snmp_add_null_var) libpo_snmp_add_null_var;
extern decltype(&snmp_free_pdu) libpo_snmp_free_pdu;
extern decltype(&snmp_synch_response) libpo_snmp_synch_response;
extern decltype(&sprint_realloc_variable) libpo_sprint_realloc_variable;
extern decltype(&snmp_error) libpo_snmp_error;
extern decltype(&snmp_parse_oid) libpo_snmp_parse_oid;
extern decltype(&snmp_api_errstring) libpo_snmp_api_errstring;
extern decltype(&snmp_errstring) libpo_snmp_errstring;
extern decltype(&sprint_realloc_objid) libpo_sprint_realloc_objid;
extern decltype(&sprint_realloc_value) libpo_sprint_realloc_value;
extern decltype(&snmp_strcat) libpo_snmp_strcat;
extern decltype(&get_tree) libpo_get_tree;
extern decltype(&snmp_oid_compare) libpo_snmp_oid_compare;
extern decltype(&snmp_fix_pdu) libpo_snmp_fix_pdu;
extern decltype(&get_tree_head) libpo_get_tree_head;

/* Logging and options. */
extern decltype(&snmp_enable_filelog) lib_snmp_enable_filelog;
extern decltype(&netsnmp_ds_toggle_boolean) lib_netsnmp_ds_toggle_boolean;
extern decltype(&snmp_disable_log) lib_snmp_disable_log;
extern decltype(&get_logh_head) lib_get_logh_head;
extern decltype(&netsnmp_remove_loghandler) lib_netsnmp_remove_loghandler;
extern decltype(&netsnmp_ds_set_boolean) lib_netsnmp_ds_set_boolean;
extern decltype(&snmp_disable_syslog) lib_snmp_disable_syslog;
extern decltype(&snmp_disable_filelog) lib_snmp_disable_filelog;
extern decltype(&snmp_disable_stderrlog) lib_snmp_disable_stderrlog;
extern decltype(&snmp_disable_calllog) lib_snmp_disable_calllog;
extern decltype(&netsnmp_register_loghandler) lib_netsnmp_register_loghandler;

/* Opens the library (libsnmp.so, which only development packages install, then the names of the
 * releases 5.9 and 5.8) and binds every function from it. Returns 1 when all are bound or a library
 * was bound before; 0 with a line at level 0 when none opens or the library lacks a function: it is
 * closed then. The SNMPv3 protocols that it lacks are left out and fail in init_session. */
int init_snmp_lib();

/* Sets how values print (bare, without units; time-ticks and enumerations as numbers; two-digit
 * hexadecimal) and silences the library. To be called once, after init_snmp_lib and before
 * init_snmp: most options are toggled, so a second call would undo them. Returns 1. */
int init_defaults();

/* Opens a session for `p`. `session` is the caller's, filled by snmp_sess_init; it points into `p`
 * afterwards. The result is closed by the caller with snmp_close. Null on failure with the reason
 * in *error, a malloc'd text, or null when there is no memory for one.
 *
 * p->host becomes "host:port" and names the peer in messages: to be called once per definition.
 * p->address, when it is set, is where the session really leads; an empty one stands for a host
 * whose name does not resolve and fails as the library would fail, without trying. So no name is
 * looked up here as long as the caller has done that, which matters in a child: the resolver's
 * locks may have been held by another thread when it was forked.
 *
 * SNMPv3 (any version but SNMPv1 and SNMPv2c) authenticates always, with HMAC-MD5 or HMAC-SHA1, and
 * encrypts with DES or AES when there is a privacy pass phrase. With privacy no authentication key
 * is derived, as the server has always had it: agents answer that authentication failed. An SNMPv3
 * session asks the agent for its engine id while it opens, which takes as long as a request. */
netsnmp_session* init_session(snmp_def* p, netsnmp_session* session, char** error);

#endif

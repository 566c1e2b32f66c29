/* Run-time binding of the SNMP library, and the sessions that are opened with it. */
#ifndef VINDRAL_SNMPMON_LIB_H
#define VINDRAL_SNMPMON_LIB_H

#include "snmpmon_def.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

extern const char* snmp_lib_file_name;
extern void* lib_handle;
extern int snmp_lib_status;

extern decltype(&snmp_sess_init) libpo_snmp_sess_init;
extern decltype(&snmp_open) libpo_snmp_open;
extern decltype(&snmp_close) libpo_snmp_close;
/* ... one for each bound function: libpo_ for sessions and data, lib_ for logging and options */

int init_snmp_lib();
int init_defaults();
netsnmp_session* init_session(snmp_def* p, netsnmp_session* session, char** error);

#endif

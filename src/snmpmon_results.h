/* What those who make the queries of the SNMP checker (snmpmon_query.h) and those who order them
 * (snmpmon.h) share: the results, and which checks are under way. From any thread of the agent, but
 * never in a child: another thread may have held the locks when it was forked. */
#ifndef VINDRAL_SNMPMON_RESULTS_H
#define VINDRAL_SNMPMON_RESULTS_H

#include "checker.h"
#include "checks_under_way.h"
#include "snmpmon_def.h"

/* Its pass is set by its worker. */
extern checker snmp_checker;

/* The checks of tests, not those that get_snmp_values makes. */
extern checks_under_way snmp_checks;

/* Frees the copy of a test that has been counted for a check, which ends with it. Null is fine. */
void end_snmp_check(snmp_def** p);

/* Sizes below 1 are ignored, as is everything without the library. */
void add_snmp_result(char* rez, int rez_size);

#endif

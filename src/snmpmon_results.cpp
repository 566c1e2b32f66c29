#include "snmpmon_results.h"

#include "snmpmon_lib.h"

constinit checker snmp_checker = {.thread_name = "snmp",
                                  .attr_message = "Pthread attribute initialization failed.",
                                  .stack_message = "Can not set ping thread stack size."};
constinit checks_under_way snmp_checks{.kind = "SNMP"};

void end_snmp_check(snmp_def** p) {
    if (*p != nullptr) {
        int tid = (*p)->tid;
        free_snmp_def(p);
        check_ends(snmp_checks, tid);
    }
}

void add_snmp_result(char* rez, int rez_size) {
    if (snmp_lib_status == 1) {
        checker_add_result(snmp_checker, rez, rez_size);
    }
}

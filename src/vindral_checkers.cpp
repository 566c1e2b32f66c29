#include "vindral_checkers.h"

#include "cpumon.h"
#include "diskmon.h"
#include "feedlistener.h"
#include "httpmon.h"
#include "memmon.h"
#include "monloadaverage.h"
#include "mysqlmon.h"
#include "ndismon.h"
#include "netmon.h"
#include "pingmon.h"
#include "processmon.h"
#include "snmpmon.h"
#include "vindral_log.h"

enum failure {
    FATAL,            /* the agent does not run without it */
    OPTIONAL,         /* the agent runs without it */
    OPTIONAL_AND_DONE /* so, and logs that it is done, too */
};

/* Start-up order. The texts go to the log as they stand, with and without a full stop. */
static const struct {
    int (*init)();
    const char* done;
    const char* failed;
    failure when_failed;
} startup[] = {
    {init_proc_variables, "Process monitoring initialization done.",
     "Process monitoring initialization failed.", OPTIONAL_AND_DONE},
    {init_http_mon, "HTTP checker initialization done", "HTTP checker initialization failed.",
     FATAL},
    {init_ping_mon, "PING checker initialization done", "PING checker initialization failed.",
     FATAL},
    {init_mem_mon, "MEMORY checker initialization done", "MEMORY checker initialization failed.",
     FATAL},
    {init_disk_mon, "DISK checker initialization done", "DISK checker initialization failed.",
     FATAL},
    {init_cpu_mon, "CPU checker initialization done", "CPU checker initialization failed.", FATAL},
    {init_lda_mon, "Load Average checker initialization done",
     "Load Average checker initialization failed.", FATAL},
    {init_feed, "Feed Listener initialization done", "Feed Listener initialization failed.", FATAL},
    {init_snmp_mon, "SNMP monitor initialization done", "SNMP monitor initialization failed.",
     OPTIONAL},
    {init_mysql_mon, "MySQL checker initialization done", "MySQL checker initialization failed.",
     OPTIONAL},
    {init_ndis_mon, "NDIS monitor initialization done", "NDIS monitor initialization failed.",
     OPTIONAL},
    {init_net_mon, "NET monitor initialization done", "NET monitor initialization failed.",
     OPTIONAL},
};

/* The order in which CHK reaches the checkers. */
static void (*const interval_setters[])(int) = {
    set_proc_check_interval, set_http_check_interval, set_ping_check_interval,
    set_mem_check_interval,  set_disk_check_interval, set_cpu_check_interval,
    set_lda_check_interval,  set_snmp_check_interval, set_mysql_check_interval,
    set_ndis_check_interval, set_net_check_interval,
};

const result_source result_sources[] = {
    {get_proc_name_list, "get_proc_name_list"}, {get_proc_results, "get_proc_results"},
    {get_cpu_results, "get_cpu_results"},       {get_mounted_list, "get_mounted_list"},
    {get_disk_results, "get_disk_results"},     {get_http_results, "get_http_results"},
    {get_mem_results, "get_mem_results"},       {get_lda_results, "get_lda_results"},
    {get_ping_results, "get_ping_results"},     {get_snmp_results, "get_snmp_results"},
    {get_ndis_results, "get_ndis_results"},     {get_mysql_results, "get_mysql_results"},
    {get_adapter_list, "get_adapter_list"},     {get_net_results, "get_net_results"},
};
const size_t result_source_count = sizeof result_sources / sizeof result_sources[0];

static void (*const stops[])() = {
    shutdown_net_checker,    shutdown_proc_checker,  shutdown_http_checker, shutdown_ping_checker,
    shutdown_mem_checker,    shutdown_disk_checker,  shutdown_cpu_checker,  shutdown_lda_checker,
    shutdown_snmp_checker,   shutdown_mysql_checker, shutdown_ndis,         remove_all_tcp_servers,
    remove_all_unix_servers,
};

int start_checkers() {
    for (const auto& checker : startup) {
        bool started = checker.init() != 0;
        if (!started) {
            leveledadd2log(-1, "%s", checker.failed);
            if (checker.when_failed == FATAL) {
                return 0;
            }
        }
        if (started || checker.when_failed == OPTIONAL_AND_DONE) {
            leveledadd2log(-1, "%s", checker.done);
        }
    }
    return 1;
}

void set_check_intervals(int t_sec) {
    for (auto set_interval : interval_setters) {
        set_interval(t_sec);
    }
}

void stop_checkers() {
    for (auto stop : stops) {
        stop();
    }
}

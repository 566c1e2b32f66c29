#include "snmpmon.h"

#include "fork_gate.h"
#include "snmpmon_lib.h"
#include "test_list.h"
#include "thread_start.h"
#include "vindral_log.h"

static const char LIBRARY_USER[] = "Vindral_snmp";

template <>
struct test_ownership<snmp_def> {
    static void dispose(snmp_def* test) { free_snmp_def(&test); }
};

static constinit mutex& SNMP_MON_MUTEX = snmp_checker.mon_mutex;
using snmp_list = test_list<snmp_def, &snmp_def::tid>;
static constinit snmp_list snmp_def_list GUARDED_BY(SNMP_MON_MUTEX);

/* --- the pass -------------------------------------------------------------------------------- */

/* Copies of the tests that may have one more check; null when there are none, and without memory.
 */
static snmp_round* make_round() {
    auto* round = static_cast<snmp_round*>(calloc(1, sizeof(snmp_round)));
    if (round == nullptr) {
        return nullptr;
    }
    pointer_list<snmp_def> copies;
    lock hold(SNMP_MON_MUTEX);
    for (snmp_def* test : snmp_def_list) {
        check_under_way counted(snmp_checks, test->tid);
        if (!counted) {
            continue;
        }
        snmp_def* copy = snmp_def_dup(test);
        test->isFirstCheck = 0;
        if (copy != nullptr && copies.append(copy)) {
            counted.release();
        } else {
            free_snmp_def(&copy);
        }
    }
    round->tests = copies.hand_over(&round->count);
    if (round->count == 0) {
        free_snmp_round(&round);
    }
    return round;
}

/* The thread has a stack of the default size: the library runs on it, in the children. */
void do_snmp_check() {
    static constexpr thread_kind ROUND = {.stack_size = 0,
                                          .detached = true,
                                          .log = leveledadd2log,
                                          .attr_message = "ERROR:\tpthread_attr_init returns: %d",
                                          .detach_message =
                                              "ERROR:\tpthread_attr_setdetachstate returns: %d"};
    thread_starter starter(ROUND);
    snmp_round* round = starter ? make_round() : nullptr;
    if (round != nullptr && starter.start(snmp_round_thread, round) != 0) {
        free_snmp_round(&round);
    }
}

/* --- the list -------------------------------------------------------------------------------- */

int is_new_snmp(int tID) {
    lock hold(SNMP_MON_MUTEX);
    return snmp_def_list.find(tID) == nullptr;
}

static void log_new_test(const snmp_def& test) {
    leveledadd2log(5,
                   "INFO: NEW SNMP TEST:\nTest ID:       %d\nLocation ID:   %d\n"
                   "OID:           %s\nOID length:    %d\nHost:          %s\n"
                   "Port:          %d\nVersion:       %d\nTimeout:       %d\n"
                   "Reries:        %d\nCommunity:     %s\nLogin:         %s\n"
                   "Password:      %s\nPriv. Pass:    %s\nAuth. Prot.:   %s\n"
                   "Priv. Prot.:   %s\nRequest Type:  %d\nBulk:          %d\n\n\n",
                   test.tid, test.loc_id, shown(test.oid_string), static_cast<int>(test.oid_len),
                   shown(test.host), test.port, test.version, test.timeout, test.retries,
                   shown(test.community), shown(test.login), shown(test.passwd),
                   shown(test.privpasswd), shown(test.authproto), shown(test.privproto),
                   test.req_type, test.bulk);
}

void add_snmp(int v_tid, int v_loc_id, int v_type, int v_bulk, char* v_oid_string, char* v_host,
              int v_port, int v_version, int v_timeout, int v_retries, char* v_community,
              char* v_login, char* v_passwd, char* v_privpasswd, char* v_authproto,
              char* v_privproto, char* v_min_max) {
    if (snmp_lib_status != 1 || !is_new_snmp(v_tid)) {
        leveledadd2log(0, "INFO: snmp_lib_status = %d v_tid = %d", snmp_lib_status, v_tid);
        return;
    }
    snmp_def* test = make_snmp_def(0, v_tid, v_loc_id, v_type, v_bulk, v_oid_string, v_host, v_port,
                                   v_version, v_timeout, v_retries, v_community, v_login, v_passwd,
                                   v_privpasswd, v_authproto, v_privproto, v_min_max);
    if (test == nullptr) {
        leveledadd2log(0, "INFO: make_snmp_def result is NULL");
        return;
    }
    log_new_test(*test);
    {
        lock hold(SNMP_MON_MUTEX);
        if (!snmp_def_list.adopt(test)) {
            return;
        }
    }
    checker_wake(snmp_checker);
}

void mod_snmp(int v_tid, int v_loc_id, int v_type, int v_bulk, char* v_oid_string, char* v_host,
              int v_port, int v_version, int v_timeout, int v_retries, char* v_community,
              char* v_login, char* v_passwd, char* v_privpasswd, char* v_authproto,
              char* v_privproto, char* v_min_max) {
    if (snmp_lib_status != 1) {
        return;
    }
    snmp_def* test = make_snmp_def(0, v_tid, v_loc_id, v_type, v_bulk, v_oid_string, v_host, v_port,
                                   v_version, v_timeout, v_retries, v_community, v_login, v_passwd,
                                   v_privpasswd, v_authproto, v_privproto, v_min_max);
    lock hold(SNMP_MON_MUTEX);
    if (snmp_def_list.replace_by(test)) {
        checker_wake(snmp_checker);
    }
}

void rem_snmp(int t_id) {
    if (snmp_lib_status == 1) {
        lock hold(SNMP_MON_MUTEX);
        snmp_def_list.remove(t_id);
    }
}

/* --- the lifecycle --------------------------------------------------------------------------- */

int init_snmp_mon() {
    snmp_lib_status = init_snmp_lib();
    if (!snmp_lib_status) {
        return 0;
    }
    init_defaults();
    libpo_init_snmp(LIBRARY_USER);
    return checker_start(snmp_checker, snmp_worker_thread);
}
void* snmp_worker_thread(void*) {
    snmp_checker.pass = do_snmp_check;
    checker_work(snmp_checker);
    return nullptr;
}
int get_snmp_check_interval() {
    return checker_get_interval(snmp_checker);
}
void set_snmp_check_interval(int t_sec) {
    checker_set_interval(snmp_checker, t_sec);
}
int get_snmp_results(char** res, int* len) {
    return snmp_lib_status == 1 ? checker_get_results(snmp_checker, res, len) : 0;
}
void shutdown_snmp_checker() {
    if (snmp_lib_status != 1) {
        return;
    }
    checker_stop(snmp_checker);
    {
        fork_gate no_child_halfway;
        libpo_snmp_shutdown(LIBRARY_USER);
    }
    char* unsent = nullptr;
    int length = 0;
    checker_get_results(snmp_checker, &unsent, &length);
    free(unsent);
}

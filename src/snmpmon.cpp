#include "snmpmon.h"

#include "checker.h"
#include "fork_gate.h"
#include "snmpmon_lib.h"
#include "vindral_log.h"

static const char LIBRARY_USER[] = "Vindral_snmp";

static constinit checker snmp = {.thread_name = "snmp",
                                 .pass = do_snmp_check,
                                 .attr_message = "Pthread attribute initialization failed.",
                                 .stack_message = "Can not set ping thread stack size."};
static constinit mutex& SNMP_MON_MUTEX = snmp.mon_mutex;
static snmp_def** snmp_def_list GUARDED_BY(SNMP_MON_MUTEX);
static int snmp_def_list_len GUARDED_BY(SNMP_MON_MUTEX);
constinit checks_under_way snmp_checks{.kind = "SNMP"};

/* --- the pass -------------------------------------------------------------------------------- */

void end_snmp_check(snmp_def** p) {
    if (*p != nullptr) {
        int tid = (*p)->tid;
        free_snmp_def(p);
        check_ends(snmp_checks, tid);
    }
}

void free_snmp_round(snmp_round** p) {
    snmp_round* round = *p;
    for (int i = 0; i < round->count; i++) {
        end_snmp_check(&round->tests[i]);
    }
    free(round->tests);
    free(round);
    *p = nullptr;
}

/* Copies of the tests that may have one more check; null when there are none, and without memory.
 */
static snmp_round* make_round() {
    lock hold(SNMP_MON_MUTEX);
    auto* round = static_cast<snmp_round*>(calloc(1, sizeof(snmp_round)));
    for (int i = 0; round != nullptr && i < snmp_def_list_len; i++) {
        check_under_way counted(snmp_checks, snmp_def_list[i]->tid);
        if (!counted) {
            continue;
        }
        snmp_def* copy = snmp_def_dup(snmp_def_list[i]);
        snmp_def_list[i]->isFirstCheck = 0;
        if (copy != nullptr && append_test(round->tests, round->count, copy)) {
            counted.release();
        } else {
            free_snmp_def(&copy);
        }
    }
    if (round != nullptr && round->count == 0) {
        free_snmp_round(&round);
    }
    return round;
}

static void start_tests(const pthread_attr_t* attributes) {
    snmp_round* round = make_round();
    pthread_t thread;
    if (round != nullptr && pthread_create(&thread, attributes, snmp_round_thread, round) != 0) {
        free_snmp_round(&round);
    }
}

/* The thread has a stack of the default size: the library runs on it, in the children. */
void do_snmp_check() {
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0) {
        leveledadd2log(0, "ERROR:\tpthread_attr_init returns: %d", error);
        return;
    }
    error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (error != 0) {
        leveledadd2log(0, "ERROR:\tpthread_attr_setdetachstate returns: %d", error);
    } else {
        start_tests(&attributes);
    }
    pthread_attr_destroy(&attributes);
}

/* --- the list -------------------------------------------------------------------------------- */

int is_new_snmp(int tID) {
    lock hold(SNMP_MON_MUTEX);
    return test_index(snmp_def_list, snmp_def_list_len, &snmp_def::tid, tID) < 0;
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
        if (!append_test(snmp_def_list, snmp_def_list_len, test)) {
            free_snmp_def(&test);
            return;
        }
    }
    checker_wake(snmp);
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
    if (test == nullptr) {
        return;
    }
    lock hold(SNMP_MON_MUTEX);
    int index = test_index(snmp_def_list, snmp_def_list_len, &snmp_def::tid, v_tid);
    if (index < 0) {
        free_snmp_def(&test);
        return;
    }
    free_snmp_def(&snmp_def_list[index]);
    snmp_def_list[index] = test;
    checker_wake(snmp);
}

void rem_snmp(int t_id) {
    if (snmp_lib_status != 1) {
        return;
    }
    lock hold(SNMP_MON_MUTEX);
    int index = test_index(snmp_def_list, snmp_def_list_len, &snmp_def::tid, t_id);
    if (index < 0) {
        return;
    }
    snmp_def* test = take_test(snmp_def_list, snmp_def_list_len, index);
    free_snmp_def(&test);
}

/* --- the lifecycle --------------------------------------------------------------------------- */

int init_snmp_mon() {
    snmp_lib_status = init_snmp_lib();
    if (!snmp_lib_status) {
        return 0;
    }
    init_defaults();
    libpo_init_snmp(LIBRARY_USER);
    return checker_start(snmp, snmp_worker_thread);
}
void* snmp_worker_thread(void*) {
    checker_work(snmp);
    return nullptr;
}
int get_snmp_check_interval() {
    return checker_get_interval(snmp);
}
void set_snmp_check_interval(int t_sec) {
    checker_set_interval(snmp, t_sec);
}
void add_snmp_result(char* rez, int rez_size) {
    if (snmp_lib_status == 1) {
        checker_add_result(snmp, rez, rez_size);
    }
}
int get_snmp_results(char** res, int* len) {
    return snmp_lib_status == 1 ? checker_get_results(snmp, res, len) : 0;
}
void shutdown_snmp_checker() {
    if (snmp_lib_status != 1) {
        return;
    }
    checker_stop(snmp);
    {
        fork_gate no_child_halfway;
        libpo_snmp_shutdown(LIBRARY_USER);
    }
    char* unsent = nullptr;
    int length = 0;
    checker_get_results(snmp, &unsent, &length);
    free(unsent);
}

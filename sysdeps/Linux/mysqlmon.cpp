#include "mysqlmon.h"

#include "checker.h"
#include "checks_under_way.h"
#include "mysqlmon_lib.h"
#include "udc.h"
#include "vindral_common.h"
#include "vindral_log.h"

#include <algorithm>

static const uint32_t MYSQL_RECORD = 74;
static const int FAILED = 3;

/* Bytes. The library runs on the stack of a check. */
static const size_t MYSQL_WORKER_STACK_SIZE = std::max<size_t>(66048, WORKER_STACK_SIZE);
static const size_t CHECK_STACK_SIZE = std::max<size_t>(258048, WORKER_STACK_SIZE);

static constinit checker mysql = {.thread_name = "mysql", .pass = do_mysql_check};
static constinit mutex& MYSQL_MON_MUTEX = mysql.mon_mutex;
static constinit checks_under_way mysql_checks{.kind = "MySQL"};
static MySQL_Data** mysql_data_list GUARDED_BY(MYSQL_MON_MUTEX);
static int mysql_data_list_len GUARDED_BY(MYSQL_MON_MUTEX);

/* Why the checker does not run, owned; null when it does. Set by the main thread at start-up. */
static char* mysql_initialization_status = nullptr;

/* --- one check ------------------------------------------------------------------------------- */

void send_mysql_data(int tid, int locid, int status, float respTime, float checkTime, char* pResult,
                     char* pAddinfo) {
    UDCW* record = nullptr;
    if (!create_new_udcw(&record, 0, 5, 1, 0, 0, 2)) {
        return;
    }
    udcw_add(record, UDC_UI32, MYSQL_RECORD);
    udcw_add(record, UDC_UI32, tid);
    udcw_add(record, UDC_UI32, locid);
    udcw_add(record, UDC_UI32, status);
    udcw_add(record, UDC_UI32, static_cast<long>(respTime));
    udcw_add(record, UDC_I64, static_cast<long>(checkTime));
    udcw_add(record, UDC_STRING, pResult);
    udcw_add(record, UDC_STRING, pAddinfo);
    checker_add_record(mysql, record);
}

static void send_error(int tid, int locid, float respTime, time_t checked_at, char* reason) {
    char* result = nullptr;
    adv_strcat(&result, "Error_Message|");
    adv_strcat(&result, reason);
    adv_strcat(&result, "|3;");
    send_mysql_data(tid, locid, FAILED, respTime, static_cast<float>(checked_at), result, reason);
    free(result);
}

static void send_values(MySQL_Data* test, float respTime, time_t checked_at, char** values) {
    char *result = nullptr, *addinfo = nullptr;
    int status = CheckValues(test, values, &addinfo, &result);
    send_mysql_data(test->tid, test->locid, status, respTime, static_cast<float>(checked_at),
                    result, addinfo);
    free(result);
    free(addinfo);
}

static void check_mysql_test(MySQL_Data* test, char** values) {
    time_t checked_at = now_in_seconds();
    int64_t begin_us = monotonic_us();
    char* addinfo = nullptr;
    int failed = GetValuesFromDB(test, &addinfo, values);
    float respTime = static_cast<float>(monotonic_us() - begin_us) / 1000;
    if (failed) {
        send_error(test->tid, test->locid, respTime, checked_at, addinfo);
    } else {
        send_values(test, respTime, checked_at, values);
    }
    free(addinfo);
    if (test->isFirstCheck == 1) {
        fresh_results();
    }
}

void* do_single_mysql_check(void* arg) {
    pthread_setname_np(pthread_self(), "mysql_check");
    auto* test = static_cast<MySQL_Data*>(arg);
    check_under_way counted = check_under_way::begun(mysql_checks, test->tid);
    auto** values = static_cast<char**>(calloc(test->arr_len + 1, sizeof(char*)));
    if (values != nullptr) {
        check_mysql_test(test, values);
        for (size_t i = 0; i < test->arr_len; i++) {
            free(values[i]);
        }
        free(values);
    }
    free_mysql_data(&test);
    end_mysql_thread();
    return nullptr;
}

/* --- the round ------------------------------------------------------------------------------- */

/* Attributes of a check's thread. Returns 1, and the caller destroys them, or 0 with a line in the
 * log; the server's operators know these texts, spelling and blank included. */
static int make_check_attributes(pthread_attr_t* attributes) {
    if (int error = pthread_attr_init(attributes)) {
        leveledadd2log(0,
                       "MySQL mmonitoring: Pthread attribute initialization failed. Error: %d, %s ",
                       error, strerror(error));
        return 0;
    }
    if (int error = pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED)) {
        leveledadd2log(
            0, "MySQL mmonitoring: Pthread detach state initialization failed. Error: %d, %s",
            error, strerror(error));
        pthread_attr_destroy(attributes);
        return 0;
    }
    if (int error = pthread_attr_setstacksize(attributes, CHECK_STACK_SIZE)) {
        leveledadd2log(0, "MySQL mmonitoring: can not set thread stack size. Error: %d, %s", error,
                       strerror(error));
        pthread_attr_destroy(attributes);
        return 0;
    }
    return 1;
}

/* The check has been counted; what is not started ends with the scope. */
static void start_check(MySQL_Data* test, const pthread_attr_t* attributes,
                        check_under_way& counted) {
    MySQL_Data* copy = mysql_data_dup(test);
    if (copy == nullptr) {
        return;
    }
    pthread_t thread;
    if (int error = pthread_create(&thread, attributes, do_single_mysql_check, copy)) {
        free_mysql_data(&copy);
        leveledadd2log(0, "Thread creation Failed, Error: %d, %s", error, strerror(error));
        return;
    }
    counted.release();
}

void do_mysql_check() {
    pthread_attr_t attributes;
    if (!make_check_attributes(&attributes)) {
        return;
    }
    {
        lock hold(MYSQL_MON_MUTEX);
        for (int i = 0; i < mysql_data_list_len; i++) {
            check_under_way counted(mysql_checks, mysql_data_list[i]->tid);
            if (counted) {
                start_check(mysql_data_list[i], &attributes, counted);
                mysql_data_list[i]->isFirstCheck = 0;
            }
        }
    }
    pthread_attr_destroy(&attributes);
}

/* --- the list -------------------------------------------------------------------------------- */

static int mysql_index(int tid) REQUIRES(MYSQL_MON_MUTEX) {
    return test_index(mysql_data_list, mysql_data_list_len, &MySQL_Data::tid, tid);
}

int is_new_mysql(int tID) {
    lock hold(MYSQL_MON_MUTEX);
    return mysql_index(tID) < 0 ? 1 : 0;
}

/* Without names; null when memory is short. */
static MySQL_Data* make_test(int _tid, int loc_id, char* host, int port, char* user, char* pass,
                             char* unixsock, unsigned int timeout) {
    MySQL_Data given = {};
    given.tid = _tid;
    given.locid = loc_id;
    given.host = host;
    given.port = port;
    given.user = user;
    given.pass = pass;
    given.unixsock = unixsock != nullptr && unixsock[0] != '\0' ? unixsock : nullptr;
    given.tout = timeout;
    given.isFirstCheck = 1;
    return mysql_data_dup(&given);
}

void add_mysqldesc(int _tid, int loc_id, char* host, int port, char* user, char* pass,
                   char* unixsock, char* param_list, unsigned int timeout) {
    if (_tid == 0 || !is_new_mysql(_tid)) {
        return;
    }
    if (mysql_initialization_status != nullptr) {
        send_error(_tid, loc_id, 0, now_in_seconds(), mysql_initialization_status);
        return;
    }
    MySQL_Data* test = make_test(_tid, loc_id, host, port, user, pass, unixsock, timeout);
    if (test == nullptr || !parse_mysql_params(test, param_list)) {
        free_mysql_data(&test);
        return;
    }
    {
        lock hold(MYSQL_MON_MUTEX);
        if (!append_test(mysql_data_list, mysql_data_list_len, test)) {
            free_mysql_data(&test);
            return;
        }
    }
    checker_wake(mysql);
}

void modify_mysqldesc(int _tid, int loc_id, char* host, int port, char* user, char* pass,
                      char* unixsock, char* param_list, unsigned int timeout) {
    if (_tid == 0) {
        return;
    }
    if (mysql_initialization_status != nullptr) {
        send_error(_tid, loc_id, 0, now_in_seconds(), mysql_initialization_status);
        return;
    }
    {
        lock hold(MYSQL_MON_MUTEX);
        int index = mysql_index(_tid);
        if (index < 0) {
            return;
        }
        MySQL_Data* test = make_test(_tid, loc_id, host, port, user, pass, unixsock, timeout);
        if (test == nullptr) {
            return;
        }
        parse_mysql_params(test, param_list);
        free_mysql_data(&mysql_data_list[index]);
        mysql_data_list[index] = test;
    }
    checker_wake(mysql);
}

void rem_mysqldesc(int t_id) {
    if (t_id == 0) {
        return;
    }
    lock hold(MYSQL_MON_MUTEX);
    int index = mysql_index(t_id);
    if (index < 0) {
        return;
    }
    MySQL_Data* test = take_test(mysql_data_list, mysql_data_list_len, index);
    free_mysql_data(&test);
    leveledadd2log(5, "INFO: rem_mysqldesc. Removed test. tid:%d", t_id);
}

void rem_mysqldesc_all() {
    lock hold(MYSQL_MON_MUTEX);
    for (int i = 0; i < mysql_data_list_len; i++) {
        free_mysql_data(&mysql_data_list[i]);
    }
    free(mysql_data_list);
    mysql_data_list = nullptr;
    mysql_data_list_len = 0;
}

/* --- lifecycle ------------------------------------------------------------------------------- */

/* Returns null, or what failed. */
static const char* start_worker() {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return "MySQL monitoring: thread attribute initialization failed.";
    }
    const char* failed = nullptr;
    if (pthread_attr_setstacksize(&attributes, MYSQL_WORKER_STACK_SIZE) != 0) {
        failed = "MySQL monitoring: can not set thread stack size.";
    } else if (pthread_create(&mysql.worker_thread_handle, &attributes, mysql_worker_thread,
                              nullptr) != 0) {
        failed = "MySQL monitoring: could not create mysql worker thread.";
    } else {
        pthread_setname_np(mysql.worker_thread_handle, mysql.thread_name);
        mysql.running = true;
    }
    pthread_attr_destroy(&attributes);
    return failed;
}

int init_mysql_mon() {
    mysql_initialization_status = init_mysql_lib();
    if (mysql_initialization_status != nullptr) {
        leveledadd2log(0, "ERROR: init_mysql_lib() failed.");
        return 0;
    }
    if (const char* failed = start_worker()) {
        char* text = strdup(failed);
        mysql_initialization_status = text != nullptr ? text : const_cast<char*>(failed);
        leveledadd2log(0, "%s", failed);
        return 0;
    }
    return 1;
}
void* mysql_worker_thread(void*) {
    checker_work(mysql);
    return nullptr;
}
int get_mysql_check_interval() {
    return checker_get_interval(mysql);
}
void set_mysql_check_interval(int t_sec) {
    checker_set_interval(mysql, t_sec);
}
void add_mysql_result(char* rez, int rez_size) {
    checker_add_result(mysql, rez, rez_size);
}
int get_mysql_results(char** rez, int* rez_size) {
    return checker_get_results(mysql, rez, rez_size);
}
void shutdown_mysql_checker() {
    checker_stop(mysql);
    rem_mysqldesc_all();
}

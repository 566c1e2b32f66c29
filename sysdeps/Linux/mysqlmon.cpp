#include "mysqlmon.h"

#include "checker.h"
#include "checks_under_way.h"
#include "mysqlmon_lib.h"
#include "record_writer.h"
#include "test_list.h"
#include "thread_start.h"
#include "vindral_common.h"
#include "vindral_log.h"

#include <algorithm>

/* Bytes. The library runs on the stack of a check. */
static constexpr size_t MYSQL_WORKER_STACK_SIZE = std::max<size_t>(66048, WORKER_STACK_SIZE);
static constexpr size_t CHECK_STACK_SIZE = std::max<size_t>(258048, WORKER_STACK_SIZE);

template <>
struct test_ownership<MySQL_Data> {
    static void dispose(MySQL_Data* test) { free_mysql_data(&test); }
};

static constinit checker mysql = {.pass = do_mysql_check};
static constinit mutex& MYSQL_MON_MUTEX = mysql.mon_mutex;
static constinit checks_under_way mysql_checks{.kind = "MySQL"};
using mysql_list = test_list<MySQL_Data, &MySQL_Data::tid>;
static constinit mysql_list mysql_data_list GUARDED_BY(MYSQL_MON_MUTEX);

/* Why the checker does not run, for the life of the process; null when it does. Set by the main
 * thread at start-up. */
static const char* mysql_initialization_status = nullptr;

/* --- one check ------------------------------------------------------------------------------- */

static void add_mysql_record(int tid, int locid, int status, float respTime, float checkTime,
                             const char* result, const char* addinfo) {
    UDCW* record = make_record<protocol::mysql>(
        named<"test">(tid), named<"location">(locid), named<"status">(status),
        named<"time">(static_cast<long>(respTime)), named<"time">(static_cast<long>(checkTime)),
        named<"result">(result), named<"message">(addinfo));
    if (record != nullptr) {
        checker_add_record(mysql, record);
    }
}

void send_mysql_data(int tid, int locid, int status, float respTime, float checkTime, char* pResult,
                     char* pAddinfo) {
    add_mysql_record(tid, locid, status, respTime, checkTime, pResult, pAddinfo);
}

static void send_error(int tid, int locid, float respTime, time_t checked_at, const char* reason) {
    char* result = nullptr;
    adv_strcat(&result, "Error_Message|");
    adv_strcat(&result, reason);
    adv_strcat(&result, "|3;");
    add_mysql_record(tid, locid, protocol::status_not_found, respTime,
                     static_cast<float>(checked_at), result, reason);
    free(result);
}

static void send_values(MySQL_Data* test, float respTime, time_t checked_at, char** values) {
    char *result = nullptr, *addinfo = nullptr;
    int status = CheckValues(test, values, &addinfo, &result);
    add_mysql_record(test->tid, test->locid, status, respTime, static_cast<float>(checked_at),
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

/* The server's operators know these texts, spelling and blank included. */
static constexpr thread_kind MYSQL_CHECK = {
    .stack_size = CHECK_STACK_SIZE,
    .detached = true,
    .log = leveledadd2log,
    .attr_message = "MySQL mmonitoring: Pthread attribute initialization failed. Error: %d, %s ",
    .detach_message =
        "MySQL mmonitoring: Pthread detach state initialization failed. Error: %d, %s",
    .stack_message = "MySQL mmonitoring: can not set thread stack size. Error: %d, %s",
    .create_message = "Thread creation Failed, Error: %d, %s"};

void do_mysql_check() {
    thread_starter starter(MYSQL_CHECK);
    if (starter) {
        lock hold(MYSQL_MON_MUTEX);
        start_checks(mysql_data_list, &MySQL_Data::tid, mysql_checks, starter,
                     do_single_mysql_check, mysql_data_dup);
    }
}

/* --- the list -------------------------------------------------------------------------------- */

int is_new_mysql(int tID) {
    lock hold(MYSQL_MON_MUTEX);
    return mysql_data_list.find(tID) == nullptr ? 1 : 0;
}

/* Takes a copy of the definition, with the names and limits of the parameter list, in as a new test
 * or in place of the one with its id, and causes a round. */
static void put_test(MySQL_Data given, const char* param_list, bool as_new) {
    if (given.tid == 0 || (as_new && !is_new_mysql(given.tid))) {
        return;
    }
    if (mysql_initialization_status != nullptr) {
        send_error(given.tid, given.locid, 0, now_in_seconds(), mysql_initialization_status);
        return;
    }
    if (given.unixsock != nullptr && given.unixsock[0] == '\0') {
        given.unixsock = nullptr;
    }
    MySQL_Data* test = mysql_data_dup(&given);
    if (test == nullptr || (!parse_mysql_params(test, param_list) && as_new)) {
        free_mysql_data(&test);
        return;
    }
    {
        lock hold(MYSQL_MON_MUTEX);
        if (!(as_new ? mysql_data_list.adopt(test) : mysql_data_list.replace_by(test))) {
            return;
        }
    }
    checker_wake(mysql);
}

void add_mysqldesc(int _tid, int loc_id, char* host, int port, char* user, char* pass,
                   char* unixsock, char* param_list, unsigned int timeout) {
    put_test({.tid = _tid,
              .locid = loc_id,
              .host = host,
              .port = port,
              .user = user,
              .pass = pass,
              .unixsock = unixsock,
              .tout = timeout},
             param_list, true);
}

void modify_mysqldesc(int _tid, int loc_id, char* host, int port, char* user, char* pass,
                      char* unixsock, char* param_list, unsigned int timeout) {
    put_test({.tid = _tid,
              .locid = loc_id,
              .host = host,
              .port = port,
              .user = user,
              .pass = pass,
              .unixsock = unixsock,
              .tout = timeout},
             param_list, false);
}

void rem_mysqldesc(int t_id) {
    lock hold(MYSQL_MON_MUTEX);
    if (mysql_data_list.remove(t_id)) {
        leveledadd2log(5, "INFO: rem_mysqldesc. Removed test. tid:%d", t_id);
    }
}

void rem_mysqldesc_all() {
    lock hold(MYSQL_MON_MUTEX);
    mysql_data_list.clear();
}

/* --- lifecycle ------------------------------------------------------------------------------- */

/* Says in the log, and to whoever adds a test, why there is no worker. */
static void worker_failed(int level, const char* reason, ...) {
    mysql_initialization_status = reason;
    leveledadd2log(level, "%s", reason);
}

static constexpr thread_kind MYSQL_WORKER = {
    .name = "mysql",
    .stack_size = MYSQL_WORKER_STACK_SIZE,
    .log = worker_failed,
    .attr_message = "MySQL monitoring: thread attribute initialization failed.",
    .stack_message = "MySQL monitoring: can not set thread stack size.",
    .create_message = "MySQL monitoring: could not create mysql worker thread."};

int init_mysql_mon() {
    mysql_initialization_status = init_mysql_lib();
    if (mysql_initialization_status != nullptr) {
        leveledadd2log(0, "ERROR: init_mysql_lib() failed.");
        return 0;
    }
    mysql.running =
        thread_start(MYSQL_WORKER, mysql_worker_thread, nullptr, &mysql.worker_thread_handle) == 0;
    return mysql.running;
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

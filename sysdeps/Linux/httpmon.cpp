#include "httpmon.h"

#include "checker.h"
#include "checks_under_way.h"
#include "record_writer.h"
#include "test_list.h"
#include "thread_start.h"
#include "vindral_log.h"

static constinit checker http = {.thread_name = "http",
                                 .pass = do_http_check,
                                 .attr_message = "Pthread attribute initialization failed.",
                                 .stack_message = "Can not set ping thread stack size."};
static constinit mutex& HTTP_MON_MUTEX = http.mon_mutex;
static constinit checks_under_way http_checks{.kind = "HTTP"};
using http_list =
    test_list<aHost, &aHost::id, &aHost::host, &aHost::uri, &aHost::port, &aHost::mutch,
              &aHost::regexp, &aHost::post, &aHost::dns, &aHost::expIP, &aHost::expAuth,
              &aHost::user, &aHost::pass, &aHost::tout, &aHost::userAgent>;
static constinit http_list host_list GUARDED_BY(HTTP_MON_MUTEX);

/* --- the definition -------------------------------------------------------------------------- */

aHost* dup_aHost(aHost* pah) {
    if (pah == nullptr) {
        return nullptr;
    }
    aHost carried = *pah;
    carried.timeout = 0;
    carried.userAgent = nullptr;
    carried.currNokCount = 0;
    return http_list::duplicate(carried);
}

void free_aHost(aHost** pah) {
    if (*pah != nullptr) {
        http_list::dispose(*pah);
        *pah = nullptr;
    }
}

/* --- one check ------------------------------------------------------------------------------- */

static void add_http_record(const com_result& r, const char* addInfo) {
    UDCW* record = make_record<protocol::http>(
        named<"test">(r.tid), named<"location">(r.loc_id), named<"status">(r.newStatus),
        named<"time">(static_cast<long>(r.spentTime)), named<"code">(r.rsp_code),
        named<"size">(r.content_length), named<"time">(now_in_seconds()),
        named<"message">(addInfo));
    if (record != nullptr) {
        checker_add_record(http, record);
    }
}

static void check_http_test(aHost* test) {
    heap_text addInfo(static_cast<char*>(calloc(1, ADD_INFO_SIZE)));
    if (!addInfo) {
        return;
    }
    heap<com_result> r(make_http_check(test, addInfo.get()));
    if (!r) {
        return;
    }
    leveledadd2log(5,
                   "Result Info:\nTest ID:  %d\nLoc  ID:  %d\nStatus:   %d\nResp:     %d\n"
                   "Header:   %d Byte\nContent:  %d Byte\nTime:     %.2f ms\nAdd Info: %s\n\n",
                   r->tid, r->loc_id, r->newStatus, r->rsp_code, r->header_size, r->content_length,
                   static_cast<double>(r->spentTime), addInfo.get());
    add_http_record(*r, addInfo.get());
    if (test->isFirstCheck == 1) {
        fresh_results();
    }
}

void* http_check_thread(void* arg) {
    pthread_setname_np(pthread_self(), "http_check");
    aHost* test = static_cast<aHost*>(arg);
    check_under_way counted = check_under_way::begun(http_checks, test->id);
    check_http_test(test);
    free_aHost(&test);
    return nullptr;
}

/* --- the round ------------------------------------------------------------------------------- */

void do_http_check() {
    static constexpr thread_kind HTTP_CHECK = {
        .detached = true,
        .log = leveledadd2log,
        .attr_message = "pthread_attr_init failed. Error: %d, %s",
        .detach_message = "pthread_attr_setdetachstate failed. Error: %d, %s",
        .stack_message = "pthread_attr_setstacksize failed. Error: %d, %s",
        .create_message = "Thread creation Failed, Error: %d, %s"};
    thread_starter starter(HTTP_CHECK);
    if (starter) {
        lock hold(HTTP_MON_MUTEX);
        start_checks(host_list, &aHost::id, http_checks, starter, http_check_thread, dup_aHost);
    }
}

/* --- the list -------------------------------------------------------------------------------- */

int is_new_http(int tID) {
    lock hold(HTTP_MON_MUTEX);
    return host_list.find(tID) == nullptr ? 1 : 0;
}

/* The text is only read: the list makes copies. */
static char* or_default(char* text, const char* otherwise) {
    return text != nullptr && text[0] != '\0' ? text : const_cast<char*>(otherwise);
}

static bool is_complete(const aHost& test) {
    return test.id != 0 && test.host != nullptr && test.uri != nullptr && test.port != nullptr;
}

static void log_new_test(const aHost& test) {
    leveledadd2log(5,
                   "HTTP test:\n\tID:          %d\n\tLoc:         %d\n\tHost:        %s\n"
                   "\tURL:         %s\n\tPort:        %s\n\tMutch:       %s\n\tPost:        %s\n"
                   "\tUser:        %s\n\tPass:        %s\n\tTout:        %s\n\tUserAgent    %s\n"
                   "\tSSL:         %d\n\tRedir:       %d\n\tFull:        %d\n\tFound:       %d\n"
                   "\tMeth:        %d\n",
                   static_cast<int>(test.id), test.loc_id, test.host, test.uri, test.port,
                   or_default(test.mutch, "N/A"), or_default(test.post, "N/A"),
                   or_default(test.user, "N/A"), or_default(test.pass, "N/A"), shown(test.tout),
                   shown(test.userAgent), test.isSSL, test.Redirect, test.loadFullPage,
                   test.mustbefound, test.method);
}

/* What is empty is as good as not given, and the test is new. */
static aHost filled_in(aHost test) {
    for (auto text : {&aHost::mutch, &aHost::post, &aHost::user, &aHost::pass}) {
        test.*text = or_default(test.*text, nullptr);
    }
    test.tout = or_default(test.tout, "10");
    test.userAgent = or_default(test.userAgent, DEFAULT_USER_AGENT);
    test.isFirstCheck = 1;
    return test;
}

void add_http(long _id, int _loc_id, char* _host, char* _url, char* _port, char* _mutch,
              char* _post, char* _user, char* _pass, char* _tout, char* _userAgent, int _isSSL,
              int _Redirect, int _loadFullPage, int _mustbefound, int _method) {
    const aHost given = {.id = _id,
                         .loc_id = _loc_id,
                         .host = _host,
                         .uri = _url,
                         .port = _port,
                         .mutch = _mutch,
                         .post = _post,
                         .user = _user,
                         .pass = _pass,
                         .tout = _tout,
                         .isSSL = _isSSL,
                         .Redirect = _Redirect,
                         .loadFullPage = _loadFullPage,
                         .mustbefound = _mustbefound,
                         .method = _method,
                         .userAgent = _userAgent};
    {
        lock hold(HTTP_MON_MUTEX);
        if (!is_complete(given) || host_list.find(_id) != nullptr) {
            return;
        }
        log_new_test(given);
        if (!host_list.add(filled_in(given))) {
            return;
        }
    }
    checker_wake(http);
}

void modify_http(long _id, int _loc_id, char* _host, char* _url, char* _port, char* _mutch,
                 char* _post, char* _user, char* _pass, char* _tout, char* _userAgent, int _isSSL,
                 int _Redirect, int _loadFullPage, int _mustbefound, int _method) {
    const aHost given = {.id = _id,
                         .loc_id = _loc_id,
                         .host = _host,
                         .uri = _url,
                         .port = _port,
                         .mutch = _mutch,
                         .post = _post,
                         .user = _user,
                         .pass = _pass,
                         .tout = _tout,
                         .isSSL = _isSSL,
                         .Redirect = _Redirect,
                         .loadFullPage = _loadFullPage,
                         .mustbefound = _mustbefound,
                         .method = _method,
                         .userAgent = _userAgent};
    {
        lock hold(HTTP_MON_MUTEX);
        if (!is_complete(given) || !host_list.replace(filled_in(given))) {
            return;
        }
    }
    checker_wake(http);
}

void rem_http(int t_id) {
    lock hold(HTTP_MON_MUTEX);
    host_list.remove(t_id);
}

int init_http_mon() {
    return checker_start(http, http_worker_thread);
}
void* http_worker_thread(void*) {
    checker_work(http);
    return nullptr;
}
int get_http_check_interval() {
    return checker_get_interval(http);
}
void set_http_check_interval(int t_sec) {
    checker_set_interval(http, t_sec);
}
void add_http_result(char* rez, int rez_size) {
    checker_add_result(http, rez, rez_size);
}
int get_http_results(char** rez, int* rez_size) {
    return checker_get_results(http, rez, rez_size);
}
void shutdown_http_checker() {
    checker_stop(http);
}

#include "httpmon.h"

#include "checker.h"
#include "checks_under_way.h"
#include "udc.h"
#include "vindral_common.h"

#include <climits>

static const uint32_t HTTP_RECORD = 49;

static constinit checker http = {.thread_name = "http",
                                 .pass = do_http_check,
                                 .attr_message = "Pthread attribute initialization failed.",
                                 .stack_message = "Can not set ping thread stack size."};
static constinit mutex& HTTP_MON_MUTEX = http.mon_mutex;
static constinit checks_under_way http_checks{.kind = "HTTP"};
static aHost** host_list GUARDED_BY(HTTP_MON_MUTEX);
static int host_list_len GUARDED_BY(HTTP_MON_MUTEX);

/* --- the definition -------------------------------------------------------------------------- */

/* What a copy for a check carries; the user agent is not among it. */
static char* aHost::*const COPIED_TEXTS[] = {
    &aHost::host, &aHost::uri,   &aHost::port,    &aHost::mutch, &aHost::regexp, &aHost::post,
    &aHost::dns,  &aHost::expIP, &aHost::expAuth, &aHost::user,  &aHost::pass,   &aHost::tout,
};

aHost* dup_aHost(aHost* pah) {
    aHost* copy = pah != nullptr ? static_cast<aHost*>(malloc(sizeof(aHost))) : nullptr;
    if (copy == nullptr) {
        return nullptr;
    }
    *copy = *pah;
    copy->timeout = 0;
    copy->userAgent = nullptr;
    copy->currNokCount = 0;
    bool complete = true;
    for (auto text : COPIED_TEXTS) {
        if (pah->*text != nullptr) {
            copy->*text = strdup(pah->*text);
            complete = complete && copy->*text != nullptr;
        }
    }
    if (!complete) {
        free_aHost(&copy);
    }
    return copy;
}

void free_aHost(aHost** pah) {
    if (*pah == nullptr) {
        return;
    }
    for (auto text : COPIED_TEXTS) {
        free((*pah)->*text);
    }
    free((*pah)->userAgent);
    free(*pah);
    *pah = nullptr;
}

/* --- one check ------------------------------------------------------------------------------- */

static void add_http_record(const com_result& r, const char* addInfo) {
    UDCW* record = nullptr;
    if (!create_new_udcw(&record, 0, 7, 1, 0, 0, 1)) {
        return;
    }
    udcw_add(record, UDC_UI32, HTTP_RECORD);
    udcw_add(record, UDC_UI32, r.tid);
    udcw_add(record, UDC_UI32, r.loc_id);
    udcw_add(record, UDC_UI32, r.newStatus);
    udcw_add(record, UDC_UI32, static_cast<long>(r.spentTime));
    udcw_add(record, UDC_UI32, r.rsp_code);
    udcw_add(record, UDC_UI32, r.content_length);
    udcw_add(record, UDC_STRING, addInfo);
    udcw_add(record, UDC_I64, now_in_seconds());
    checker_add_record(http, record);
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

/* Attributes of a check's thread. Returns 1, and the caller destroys them, or 0 with a line in the
 * log. */
static int make_check_attributes(pthread_attr_t* attributes) {
    if (int error = pthread_attr_init(attributes)) {
        leveledadd2log(0, "pthread_attr_init failed. Error: %d, %s", error, strerror(error));
        return 0;
    }
    const char* failed = "pthread_attr_setdetachstate";
    int error = pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED);
    if (error == 0) {
        failed = "pthread_attr_setstacksize";
        error = pthread_attr_setstacksize(attributes, WORKER_STACK_SIZE);
    }
    if (error != 0) {
        leveledadd2log(0, "%s failed. Error: %d, %s", failed, error, strerror(error));
        pthread_attr_destroy(attributes);
        return 0;
    }
    return 1;
}

/* The check has been counted; what is not started ends with the scope. */
static void start_check(aHost* test, const pthread_attr_t* attributes, check_under_way& counted) {
    aHost* copy = dup_aHost(test);
    if (copy == nullptr) {
        return;
    }
    pthread_t thread;
    if (int error = pthread_create(&thread, attributes, http_check_thread, copy)) {
        free_aHost(&copy);
        leveledadd2log(0, "Thread creation Failed, Error: %d, %s", error, strerror(error));
        return;
    }
    counted.release();
}

void do_http_check() {
    pthread_attr_t attributes;
    if (!make_check_attributes(&attributes)) {
        return;
    }
    {
        lock hold(HTTP_MON_MUTEX);
        for (int i = 0; i < host_list_len; i++) {
            check_under_way counted(http_checks, host_list[i]->id);
            if (counted) {
                start_check(host_list[i], &attributes, counted);
                host_list[i]->isFirstCheck = 0;
            }
        }
    }
    pthread_attr_destroy(&attributes);
}

/* --- the list -------------------------------------------------------------------------------- */

static int http_index(long id) REQUIRES(HTTP_MON_MUTEX) {
    return test_index(host_list, host_list_len, &aHost::id, id);
}

int is_new_http(int tID) {
    lock hold(HTTP_MON_MUTEX);
    return http_index(tID) < 0 ? 1 : 0;
}

static const char* or_default(const char* text, const char* otherwise) {
    return text != nullptr && text[0] != '\0' ? text : otherwise;
}

static const char* or_null(const char* text) {
    return text != nullptr ? text : "(null)";
}

/* Null when memory is short; a text that is optional and could not be copied is then missing. */
static aHost* make_test(long _id, int _loc_id, const char* _host, const char* _url,
                        const char* _port, const char* _mutch, const char* _post, const char* _user,
                        const char* _pass, const char* _tout, const char* _userAgent, int _isSSL,
                        int _Redirect, int _loadFullPage, int _mustbefound, int _method) {
    aHost* test = static_cast<aHost*>(calloc(1, sizeof(aHost)));
    if (test == nullptr) {
        return nullptr;
    }
    test->id = _id;
    test->loc_id = _loc_id;
    test->host = strdup(_host);
    test->uri = strdup(_url);
    test->port = strdup(_port);
    test->mutch = copy_text(_mutch);
    test->post = copy_text(_post);
    test->user = copy_text(_user);
    test->pass = copy_text(_pass);
    test->tout = strdup(or_default(_tout, "10"));
    test->userAgent = strdup(or_default(_userAgent, DEFAULT_USER_AGENT));
    test->isSSL = _isSSL;
    test->Redirect = _Redirect;
    test->loadFullPage = _loadFullPage;
    test->mustbefound = _mustbefound;
    test->method = _method;
    test->isFirstCheck = 1;
    if (test->host == nullptr || test->uri == nullptr || test->port == nullptr ||
        test->tout == nullptr) {
        free_aHost(&test);
    }
    return test;
}

void add_http(long _id, int _loc_id, char* _host, char* _url, char* _port, char* _mutch,
              char* _post, char* _user, char* _pass, char* _tout, char* _userAgent, int _isSSL,
              int _Redirect, int _loadFullPage, int _mustbefound, int _method) {
    if (_id == 0 || _host == nullptr || _url == nullptr || _port == nullptr) {
        return;
    }
    {
        lock hold(HTTP_MON_MUTEX);
        if (http_index(_id) >= 0) {
            return;
        }
        leveledadd2log(
            5,
            "HTTP test:\n\tID:          %d\n\tLoc:         %d\n\tHost:        %s\n"
            "\tURL:         %s\n\tPort:        %s\n\tMutch:       %s\n\tPost:        %s\n"
            "\tUser:        %s\n\tPass:        %s\n\tTout:        %s\n\tUserAgent    %s\n"
            "\tSSL:         %d\n\tRedir:       %d\n\tFull:        %d\n\tFound:       %d\n"
            "\tMeth:        %d\n",
            static_cast<int>(_id), _loc_id, _host, _url, _port, or_default(_mutch, "N/A"),
            or_default(_post, "N/A"), or_default(_user, "N/A"), or_default(_pass, "N/A"),
            or_null(_tout), or_null(_userAgent), _isSSL, _Redirect, _loadFullPage, _mustbefound,
            _method);
        aHost* test =
            make_test(_id, _loc_id, _host, _url, _port, _mutch, _post, _user, _pass, _tout,
                      _userAgent, _isSSL, _Redirect, _loadFullPage, _mustbefound, _method);
        if (test == nullptr) {
            return;
        }
        if (!append_test(host_list, host_list_len, test)) {
            free_aHost(&test);
            return;
        }
    }
    checker_wake(http);
}

void modify_http(long _id, int _loc_id, char* _host, char* _url, char* _port, char* _mutch,
                 char* _post, char* _user, char* _pass, char* _tout, char* _userAgent, int _isSSL,
                 int _Redirect, int _loadFullPage, int _mustbefound, int _method) {
    if (_id == 0 || _host == nullptr || _url == nullptr || _port == nullptr) {
        return;
    }
    {
        lock hold(HTTP_MON_MUTEX);
        int index = http_index(_id);
        if (index < 0) {
            return;
        }
        aHost* test =
            make_test(_id, _loc_id, _host, _url, _port, _mutch, _post, _user, _pass, _tout,
                      _userAgent, _isSSL, _Redirect, _loadFullPage, _mustbefound, _method);
        if (test == nullptr) {
            return;
        }
        free_aHost(&host_list[index]);
        host_list[index] = test;
    }
    checker_wake(http);
}

void rem_http(int t_id) {
    if (t_id == 0) {
        return;
    }
    lock hold(HTTP_MON_MUTEX);
    int index = http_index(t_id);
    if (index < 0) {
        return;
    }
    aHost* test = take_test(host_list, host_list_len, index);
    free_aHost(&test);
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

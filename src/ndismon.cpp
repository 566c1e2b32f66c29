#include "ndismon.h"

#include "checker.h"
#include "ping.h"
#include "record_writer.h"
#include "snmpmon.h"
#include "snmpmon_lib.h"
#include "test_list.h"
#include "thread_start.h"
#include "vindral_log.h"
#include "vindral_text.h"

#include <algorithm>
#include <arpa/inet.h>

static const int MAX_ADDRESSES = 65536;
static const int MAX_THREADS = 32, LEAST_SHARE = 5;
static const int ECHO_TIMEOUT_MS = 1000;
static const char SYSTEM_DESCRIPTION[] = "1.3.6.1.2.1.1.1.0",
                  SYSTEM_OBJECT_ID[] = "1.3.6.1.2.1.1.2.0", SYSTEM_NAME[] = "1.3.6.1.2.1.1.5.0";

/* The child of a query runs the SNMP library on the stack of its scan thread. */
static constexpr thread_kind SCAN = {
    .stack_size = std::max<size_t>(0x36000, WORKER_STACK_SIZE),
    .detached = true,
    .log = leveledadd2log,
    .attr_message = "ERROR: run_discovery(). pthread_attr_init returns: %d",
    .detach_message = "ERROR: run_discovery(). pthread_attr_setdetachstate returns: %d",
    .stack_message = "ERROR: run_discovery(). Can not set pthread stack size.",
    .create_message = "ERROR: run_discovery(). pthread_create returns: %d"};

static constinit checker discoverer = {
    .thread_name = "ndis",
    .pass = run_discovery,
    .attr_message = "NDIS monitoring: thread attribute initialization failed.",
    .stack_message = "NDIS monitoring: can not set thread stack size.",
    .pass_on_interval_only = true};
static constinit mutex& _gndis_mon_mutex = discoverer.mon_mutex;

static void clear_test(ndis_args* test) {
    free(test->oids);
    free(test->addresses_list);
    free(test->threadargs_list);
    *test = ndis_args{};
}

template <>
struct test_ownership<ndis_args> {
    static void dispose(ndis_args* test) {
        clear_test(test);
        free(test);
    }
};
static constinit test_list<ndis_args, &ndis_args::tid>
    _gndis_args_list GUARDED_BY(_gndis_mon_mutex);

static void free_share(thread_scan_args* share) {
    free(share->oids);
    free(share->addrs);
    free(share);
}

/* A thread's own copy; null without memory. */
static thread_scan_args* copy_share(const thread_scan_args& share, int* thread_count) {
    auto* copy = static_cast<thread_scan_args*>(malloc(sizeof(thread_scan_args)));
    if (copy == nullptr) {
        return nullptr;
    }
    *copy = share;
    copy->thread_count = thread_count;
    copy->oids = copy_text(share.oids);
    copy->addrs = nullptr;
    if (share.addrs_len > 0) {
        size_t size = static_cast<size_t>(share.addrs_len) * sizeof(in_addr);
        copy->addrs = static_cast<in_addr*>(malloc(size));
        if (copy->addrs != nullptr) {
            memcpy(copy->addrs, share.addrs, size);
        }
    }
    if ((share.addrs_len > 0 && copy->addrs == nullptr) ||
        (share.oids != nullptr && copy->oids == nullptr)) {
        free_share(copy);
        return nullptr;
    }
    return copy;
}

long nextipaddress(long ipaddr) {
    uint32_t address = ntohl(static_cast<uint32_t>(ipaddr));
    address += (address & 0xFF) == 0xFF ? 2 : 1;
    return htonl(address);
}

/* The first address of a range may be one of the two that nothing is to be sent to. */
static bool ends_range(in_addr_t address, in_addr_t end) {
    return address == end || address == 0 || address == htonl(0xFFFFFF00);
}

static in_addr_t next_address(in_addr_t address) {
    return static_cast<in_addr_t>(nextipaddress(address));
}

/* Counts no further than one too many: an end below the start is a walk round all addresses. */
static int count_addresses(in_addr_t start, in_addr_t end) {
    int count = 0;
    for (; count <= MAX_ADDRESSES && !ends_range(start, end); start = next_address(start)) {
        count++;
    }
    return count;
}

/* Shares of five, or thirty-two equal ones; the last of these may be short or find nothing left. */
static void divide(ndis_args* test) {
    int threads = (test->addresses_list_len + LEAST_SHARE - 1) / LEAST_SHARE, size = LEAST_SHARE;
    if (threads > MAX_THREADS) {
        threads = MAX_THREADS;
        size = (test->addresses_list_len + MAX_THREADS - 1) / MAX_THREADS;
    }
    test->threadargs_list = static_cast<thread_scan_args*>(
        calloc(static_cast<size_t>(threads), sizeof(thread_scan_args)));
    if (test->threadargs_list == nullptr) {
        return;
    }
    test->threadargs_list_len = threads;
    for (int i = 0; i < threads; i++) {
        int left = test->addresses_list_len - i * size;
        test->threadargs_list[i] = {.id = i,
                                    .tid = test->tid,
                                    .lid = test->lid,
                                    .oids = test->oids,
                                    .addrs = left > 0 ? test->addresses_list + i * size : nullptr,
                                    .addrs_len = std::min(left, size),
                                    .thread_count = nullptr};
    }
}

/* Gives a test its addresses and shares; false when there is nothing to scan. */
static bool plan_scan(ndis_args* test, const char* ipstart, const char* ipend, const char* oids) {
    in_addr_t start = inet_addr(ipstart), end = inet_addr(ipend);
    if (start == INADDR_NONE || end == INADDR_NONE) {
        return false;
    }
    test->oids = copy_text(oids);
    int count = count_addresses(start, end);
    if (count == 0 || count > MAX_ADDRESSES) {
        return false;
    }
    test->addresses_list =
        static_cast<in_addr*>(malloc(static_cast<size_t>(count) * sizeof(in_addr)));
    if (test->addresses_list == nullptr) {
        return false;
    }
    test->addresses_list_len = count;
    for (int i = 0; i < count; i++, start = next_address(start)) {
        test->addresses_list[i].s_addr = start;
    }
    divide(test);
    return test->threadargs_list != nullptr;
}

/* A value that a host gave, as text that is not empty; null for none. */
static heap_text query(const thread_scan_args& share, const char* host, const char* oid) {
    if (snmp_lib_status != 1) {
        return nullptr;
    }
    auto text = [](const char* constant) { return const_cast<char*>(constant); }; /* copied */
    snmp_def* def =
        make_snmp_def(1, share.tid, share.lid, 2, 0, text(oid), text(host), 161, 2, 1, 1,
                      text("public"), nullptr, nullptr, nullptr, nullptr, nullptr, text("1,1"));
    if (def == nullptr) {
        return nullptr;
    }
    char* bytes = nullptr;
    int length = 0;
    get_snmp_values(def, &bytes, &length);
    heap_text owner(bytes);
    if (bytes == nullptr || length < 1 || bytes[0] == '\0') {
        return nullptr;
    }
    heap_text value(strndup(bytes, static_cast<size_t>(length)));
    if (value) {
        leveledadd2log(5,
                       "INFO: discovery_thread(). SNMP object value received: ID: %d; TID: %d; "
                       "Host: %s; OID: %s, OID Value: %s",
                       share.id, share.tid, host, oid, value.get());
    }
    return value;
}

static const char* value_or_none(const heap_text& value) {
    return value ? value.get() : "N/A";
}

static void report_host(const thread_scan_args& share, const char* host) {
    time_t answered = now_in_seconds();
    heap_text name = query(share, host, SYSTEM_NAME);
    heap_text description = query(share, host, SYSTEM_DESCRIPTION);
    heap_text object_id = query(share, host, SYSTEM_OBJECT_ID);
    heap_text object = object_id ? query(share, host, object_id.get()) : nullptr;
    UDCW* record = make_record<protocol::discovery>(
        named<"test">(share.tid), named<"location">(share.lid), named<"time">(answered),
        named<"message">(host), named<"name">(value_or_none(name)),
        named<"description">(value_or_none(description)), named<"object">(value_or_none(object)),
        named<"object_id">(value_or_none(object_id)));
    char** oids = nullptr;
    size_t count = 0;
    uparser(share.oids, &oids, &count, ';');
    for (size_t i = 0; record != nullptr && i < count; i++) {
        heap_text value = query(share, host, oids[i]);
        add_part(record, make_part<protocol::rows::objects>(named<"oid">(oids[i]),
                                                            named<"value">(value_or_none(value))));
    }
    free_uparser_array(&oids, &count);
    checker_add_record(discoverer, record);
}

void send_finished(int tid, int lid) {
    checker_add_record(discoverer,
                       make_record<protocol::discovery_finished>(
                           named<"test">(tid), named<"location">(lid),
                           named<"time">(now_in_seconds()), named<"message">("finished")));
    fresh_results();
}

/* So many threads less; the counter is gone after the last. */
static void leave_scan(const thread_scan_args& share, int* thread_count, int leaving)
    REQUIRES(_gndis_mon_mutex) {
    *thread_count -= leaving;
    if (*thread_count > 0) {
        return;
    }
    leveledadd2log(5, "INFO: discovery_thread(). Scan End: ID: %d; TID: %d; LID: %d", share.id,
                   share.tid, share.lid);
    free(thread_count);
    send_finished(share.tid, share.lid);
}

static bool answers(const char* host, int id) {
    heap<double> round_trip(ping(host, ECHO_TIMEOUT_MS, 1, 0, static_cast<unsigned short>(id)));
    return round_trip && *round_trip > 0.0;
}

void* discovery_thread(void* args) {
    auto* share = static_cast<thread_scan_args*>(args);
    for (int i = 0; i < share->addrs_len; i++) {
        char host[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &share->addrs[i], host, sizeof host);
        if (answers(host, share->id)) {
            leveledadd2log(
                5, "INFO: discovery_thread(). Echo Response received: ID: %d; TID: %d; Host: %s",
                share->id, share->tid, host);
            report_host(*share, host);
        }
    }
    leveledadd2log(5, "INFO: discovery_thread(). End: ID: %d; TID: %d; LID: %d", share->id,
                   share->tid, share->lid);
    {
        lock hold(_gndis_mon_mutex);
        leave_scan(*share, share->thread_count, 1);
    }
    free_share(share);
    return nullptr;
}

/* The threads cannot leave before all are started: the list mutex is held. So only a scan none of
 * whose threads could be started ends here. */
static void start_scan(ndis_args* test, const thread_starter& scans) REQUIRES(_gndis_mon_mutex) {
    test->scan_started = 1;
    if (test->threadargs_list_len == 0) {
        return;
    }
    auto* thread_count = static_cast<int*>(malloc(sizeof(int)));
    if (thread_count == nullptr) {
        send_finished(test->tid, test->lid);
        return;
    }
    *thread_count = test->threadargs_list_len;
    int lost = 0;
    for (int i = 0; i < test->threadargs_list_len; i++) {
        thread_scan_args* copy = copy_share(test->threadargs_list[i], thread_count);
        if (copy == nullptr) {
            leveledadd2log(0, SCAN.create_message, ENOMEM);
            lost++;
        } else if (scans.start(discovery_thread, copy) != 0) {
            free_share(copy);
            lost++;
        }
    }
    if (lost > 0) {
        leave_scan(test->threadargs_list[test->threadargs_list_len - 1], thread_count, lost);
    }
} // NOLINT(clang-analyzer-unix.Malloc): the last thread frees the counter

void run_discovery() {
    thread_starter scans(SCAN);
    if (!scans) {
        return;
    }
    lock hold(_gndis_mon_mutex);
    for (ndis_args* test : _gndis_args_list) {
        if (test->scan_started == 0) {
            start_scan(test, scans);
        }
    }
}

int is_new_ndis(int tID) {
    lock hold(_gndis_mon_mutex);
    return _gndis_args_list.find(tID) == nullptr;
}

void add_ndis(int _tid, int _lid, char* ipstart, char* ipend, char* oids) {
    if (_tid == 0 || ipstart == nullptr || ipend == nullptr || !is_new_ndis(_tid)) {
        leveledadd2log(0, "ERROR: Add. Invalid or existing ndis test. Test ID: %d", _tid);
        return;
    }
    leveledadd2log(5, "INFO: New ndis test. Test ID: %d; Location ID: %d; Start IP: %s; End IP: %s",
                   _tid, _lid, ipstart, ipend);
    leveledadd2log(5, "OIDs: %s", oids != nullptr ? oids : "NULL");
    auto* test = static_cast<ndis_args*>(malloc(sizeof(ndis_args)));
    if (test == nullptr) {
        return;
    }
    *test = ndis_args{};
    test->tid = _tid;
    test->lid = _lid;
    lock hold(_gndis_mon_mutex);
    if (!_gndis_args_list.adopt(test)) {
        return;
    }
    if (!plan_scan(test, ipstart, ipend, oids)) {
        send_finished(_tid, _lid);
        return;
    }
    leveledadd2log(5,
                   "INFO: ndis test sucessfully added. Test ID: %d; Location ID: %d; Threads "
                   "count: %d; Address count: %d",
                   _tid, _lid, test->threadargs_list_len, test->addresses_list_len);
}

void mod_ndis(int _tid, int _lid, char* ipstart, char* ipend, char* oids) {
    if (_tid == 0 || ipstart == nullptr || ipend == nullptr) {
        leveledadd2log(0, "ERROR: Modify. Invalid or existing ndis test. Test ID: %d", _tid);
        return;
    }
    leveledadd2log(
        5, "INFO: Modified ndis test. Test ID: %d; Location ID: %d; Start IP: %s; End IP: %s", _tid,
        _lid, ipstart, ipend);
    lock hold(_gndis_mon_mutex);
    ndis_args* test = _gndis_args_list.find(_tid);
    if (test == nullptr) {
        leveledadd2log(0, "ERROR: Modify. Unknown test ID: %d", _tid);
        return;
    }
    clear_test(test);
    test->tid = _tid;
    test->lid = _lid;
    if (!plan_scan(test, ipstart, ipend, oids)) {
        send_finished(_tid, _lid);
        return;
    }
    leveledadd2log(5,
                   "INFO: ndis test sucessfully modified. Test ID: %d; Location ID: %d; Threads "
                   "count: %d; Address count: %d",
                   _tid, _lid, test->threadargs_list_len, test->addresses_list_len);
}

void rem_ndis(int _tid) {
    leveledadd2log(5, "INFO: Remove ndis test. Test ID: %d", _tid);
    lock hold(_gndis_mon_mutex);
    if (_gndis_args_list.remove(_tid)) {
        leveledadd2log(5, "INFO: Removed ndis test. Test ID: %d", _tid);
    } else {
        leveledadd2log(0, "ERROR: Remove. Unknown test ID: %d", _tid);
    }
}

int init_ndis_mon() {
    return checker_start(discoverer, ndis_worker_thread);
}
void* ndis_worker_thread(void*) {
    run_discovery();
    checker_work(discoverer);
    return nullptr;
}
int get_ndis_check_interval() {
    return checker_get_interval(discoverer);
}
void set_ndis_check_interval(int t_sec) {
    checker_set_interval(discoverer, t_sec);
}
void add_ndis_result(char* rez, int rez_size) {
    checker_add_result(discoverer, rez, rez_size);
}
int get_ndis_results(char** rez, int* rez_size) {
    return checker_get_results(discoverer, rez, rez_size);
}
void shutdown_ndis() {
    checker_stop(discoverer);
}

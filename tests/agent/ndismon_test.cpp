/* Network discovery: ranges, shares, what is asked of echo engine and SNMP, records, scans, list
 * operations, the worker. */
#include "ndismon.cpp"

#include "checker_place.h"
#include "fake_core.h"
#include "thread_library.h"

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>

static std::atomic<int> wake_ups{0};
void send_pending_data() {
    wake_ups++;
}

namespace {

std::mutex fakes_mutex;
std::multiset<std::string> probed;         /* addresses */
std::string echo_calls;                    /* one a line */
std::string queries;                       /* one a line */
std::map<std::string, std::string> values; /* by OID */
std::map<std::string, double> alive;       /* round trips by address; 0.0 and none: silent */
bool engine_fails;                         /* ping gives null */
std::atomic<bool> hold_echo{false};        /* every probe waits */
std::atomic<bool> count_only{false};       /* no calls are written down */
std::atomic<int> echoes{0};
std::set<int> refused_threads; /* indexes within the scans of a test */

std::string text_of(const char* text) {
    return text != nullptr ? text : "-";
}

} // namespace

int snmp_lib_status = 1;

double* ping(const char* pDest, unsigned int nTimeout, int pCount, unsigned short ping_data_size,
             unsigned short instID) {
    echoes++;
    while (hold_echo) {
        std::this_thread::yield();
    }
    std::lock_guard hold(fakes_mutex);
    probed.insert(pDest);
    if (!count_only) {
        echo_calls += std::string(pDest) + " " + std::to_string(nTimeout) + " " +
                      std::to_string(pCount) + " " + std::to_string(ping_data_size) + " " +
                      std::to_string(instID) + "\n";
    }
    if (engine_fails) {
        return nullptr;
    }
    auto* answer = static_cast<double*>(calloc(1, sizeof(double)));
    *answer = alive.contains(pDest) ? alive[pDest] : 0.0;
    return answer;
}

snmp_def* make_snmp_def(int v_mode, int v_tid, int v_loc_id, int v_type, int v_bulk,
                        char* v_oid_string, char* v_host, int v_port, int v_version, int v_timeout,
                        int v_retries, char* v_community, char* v_login, char* v_passwd,
                        char* v_privpasswd, char* v_authproto, char* v_privproto, char* v_min_max) {
    std::lock_guard hold(fakes_mutex);
    for (int number : {v_mode, v_tid, v_loc_id, v_type, v_bulk}) {
        queries += std::to_string(number) + " ";
    }
    queries += text_of(v_oid_string) + " " + text_of(v_host) + " ";
    for (int number : {v_port, v_version, v_timeout, v_retries}) {
        queries += std::to_string(number) + " ";
    }
    for (const char* text :
         {v_community, v_login, v_passwd, v_privpasswd, v_authproto, v_privproto, v_min_max}) {
        queries += text_of(text) + " ";
    }
    queries.back() = '\n';
    if (v_oid_string[0] == '\0') {
        return nullptr;
    }
    auto* def = static_cast<snmp_def*>(calloc(1, sizeof(snmp_def)));
    def->oid_string = strdup(v_oid_string);
    return def;
}

/* Consumes the definition; hands bytes over that no NUL ends. */
int get_snmp_values(snmp_def* def_snmp, char** buffer, int* buffer_len) {
    std::lock_guard hold(fakes_mutex);
    auto found = values.find(def_snmp->oid_string);
    if (found != values.end()) {
        *buffer_len = static_cast<int>(found->second.size());
        *buffer =
            static_cast<char*>(malloc(found->second.size() + (found->second.empty() ? 1 : 0)));
        memcpy(*buffer, found->second.data(), found->second.size());
    }
    free(def_snmp->oid_string);
    free(def_snmp);
    return 0;
}

static int before_scan_thread(void* (*body)(void*), void* arg) {
    if (body == ndis_worker_thread) {
        return 0;
    }
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, thread_library::detach_state);
    return refused_threads.contains(static_cast<thread_scan_args*>(arg)->id) ? EAGAIN : 0;
}

namespace {

std::string dotted(in_addr address) {
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text);
}

/* A test as it stands in the list. */
struct planned {
    int lid = 0;
    int started = -1; /* -1: there is no such test */
    std::string oids;
    std::vector<std::string> addresses;
    struct share {
        int id, lid;
        std::string oids, first;
        int count;
        bool operator==(const share&) const = default;
    };
    std::vector<share> shares;
};
std::ostream& operator<<(std::ostream& out, const planned::share& s) {
    return out << s.id << " " << s.lid << " " << s.oids << " " << s.first << " " << s.count;
}

planned plan_of(int tid) {
    lock hold(_gndis_mon_mutex);
    planned p;
    const ndis_args* found = _gndis_args_list.find(tid);
    if (found == nullptr) {
        return p;
    }
    const ndis_args& test = *found;
    p.lid = test.lid;
    p.started = test.scan_started;
    p.oids = text_of(test.oids);
    for (int i = 0; i < test.addresses_list_len; i++) {
        p.addresses.push_back(dotted(test.addresses_list[i]));
    }
    for (int i = 0; i < test.threadargs_list_len; i++) {
        const thread_scan_args& s = test.threadargs_list[i];
        EXPECT_EQ(tid, s.tid);
        EXPECT_EQ(nullptr, s.thread_count);
        p.shares.push_back({s.id, s.lid, text_of(s.oids),
                            s.addrs != nullptr ? dotted(*s.addrs) : "", s.addrs_len});
    }
    return p;
}

void add(int tid, int lid, std::string start, std::string end) {
    add_ndis(tid, lid, start.data(), end.data(), nullptr);
}
void add(int tid, int lid, std::string start, std::string end, std::string oids) {
    add_ndis(tid, lid, start.data(), end.data(), oids.data());
}
void modify(int tid, int lid, std::string start, std::string end) {
    mod_ndis(tid, lid, start.data(), end.data(), nullptr);
}
void modify(int tid, int lid, std::string start, std::string end, std::string oids) {
    mod_ndis(tid, lid, start.data(), end.data(), oids.data());
}

udc_content finished(uint32_t tid, uint32_t lid, const udc_content& seen) {
    udc_content r;
    r.ui32 = {40, tid, lid};
    r.i64 = seen.i64;
    r.d64 = {0.0};
    r.declared_strings = 1;
    r.strings = {"finished"};
    return r;
}

udc_content extra(const std::string& oid, const std::string& value) {
    udc_content r;
    r.declared_strings = 2;
    r.strings = {oid, value};
    return r;
}

udc_content host(uint32_t tid, uint32_t lid, const std::vector<std::string>& texts,
                 const udc_content& seen) {
    udc_content r;
    r.ui32 = {40, tid, lid};
    r.i64 = seen.i64;
    r.d64 = {0.0};
    r.declared_strings = 5;
    r.strings = texts;
    return r;
}

class Discovery : public testing::Test {
protected:
    void SetUp() override {
        snmp_lib_status = 1;
        engine_fails = count_only = hold_echo = false;
        thread_library::reset();
        thread_library::about_to_create = before_scan_thread;
        refused_threads.clear();
        values.clear();
        alive.clear();
        forget();
        take_log();
    }
    void TearDown() override {
        hold_echo = false;
        wait();
        for (int tid = 1; tid < 10; tid++) {
            rem_ndis(tid);
        }
        take_records(get_ndis_results);
        take_log();
    }
    static void forget() {
        probed.clear();
        echo_calls.clear();
        queries.clear();
        wake_ups = thread_library::threads_created = echoes = 0;
    }
    static void wait() {
        while (thread_library::running != 0) {
            std::this_thread::yield();
        }
    }
    static std::vector<udc_content> scan() {
        run_discovery();
        wait();
        return take_records(get_ndis_results);
    }
    /* A test that ends with "finished" and stays, without addresses. */
    static void expect_finished_at_once(const std::string& start, const std::string& end) {
        SCOPED_TRACE(start + " " + end);
        take_log();
        wake_ups = 0;
        add(1, 9, start, end, "1.2");
        EXPECT_EQ("5 INFO: New ndis test. Test ID: 1; Location ID: 9; Start IP: " + start +
                      "; End IP: " + end + "\n5 OIDs: 1.2\n",
                  take_log_text());
        EXPECT_EQ(1, wake_ups);
        auto records = take_records(get_ndis_results);
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ(finished(1, 9, records[0]), records[0]);
        EXPECT_TRUE(plan_of(1).addresses.empty());
        EXPECT_TRUE(plan_of(1).shares.empty());
        EXPECT_EQ(0, plan_of(1).started);
        EXPECT_TRUE(scan().empty());
        EXPECT_EQ(1, plan_of(1).started);
        EXPECT_EQ(1, wake_ups);
        EXPECT_EQ(0, thread_library::threads_created);
        EXPECT_EQ(0, is_new_ndis(1));
        rem_ndis(1);
    }
};

std::string next(const char* address) {
    long after = nextipaddress(static_cast<long>(inet_addr(address)));
    return dotted({static_cast<in_addr_t>(after)});
}

} // namespace

TEST_F(Discovery, the_next_address) {
    EXPECT_EQ("10.0.0.2", next("10.0.0.1"));
    EXPECT_EQ("10.0.0.1", next("10.0.0.0"));
    EXPECT_EQ("10.0.0.255", next("10.0.0.254"));
    EXPECT_EQ("10.0.1.1", next("10.0.0.255"));
    EXPECT_EQ("10.1.0.1", next("10.0.255.255"));
    EXPECT_EQ("11.0.0.1", next("10.255.255.255"));
    EXPECT_EQ("255.255.255.255", next("255.255.255.254"));
    EXPECT_EQ(0x01000000, nextipaddress(-1)); /* 0.0.0.1 */
    EXPECT_EQ(0xFF0000FFL, nextipaddress(0xFE0000FFL));
}

TEST_F(Discovery, the_end_is_not_probed) {
    add(1, 9, "10.0.0.1", "10.0.0.4");
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1", "10.0.0.2", "10.0.0.3"}), plan_of(1).addresses);
    EXPECT_EQ("5 INFO: New ndis test. Test ID: 1; Location ID: 9; Start IP: 10.0.0.1; "
              "End IP: 10.0.0.4\n"
              "5 OIDs: NULL\n"
              "5 INFO: ndis test sucessfully added. Test ID: 1; Location ID: 9; Threads count: 1; "
              "Address count: 3\n",
              take_log_text());
    EXPECT_EQ(0, plan_of(1).started);
    EXPECT_EQ(0, wake_ups);
    auto records = scan();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(finished(1, 9, records[0]), records[0]);
    EXPECT_EQ("10.0.0.1 1000 1 0 0\n10.0.0.2 1000 1 0 0\n10.0.0.3 1000 1 0 0\n", echo_calls);
    EXPECT_EQ(1, wake_ups);
}

TEST_F(Discovery, zero_is_skipped_where_the_range_rolls_over) {
    add(1, 9, "10.0.0.250", "10.0.1.3");
    EXPECT_EQ((std::vector<std::string>{"10.0.0.250", "10.0.0.251", "10.0.0.252", "10.0.0.253",
                                        "10.0.0.254", "10.0.0.255", "10.0.1.1", "10.0.1.2"}),
              plan_of(1).addresses);
    add(2, 9, "10.0.0.0", "10.0.0.2"); /* but not at the start */
    EXPECT_EQ((std::vector<std::string>{"10.0.0.0", "10.0.0.1"}), plan_of(2).addresses);
}

TEST_F(Discovery, ranges_without_addresses) {
    expect_finished_at_once("10.0.0.1", "10.0.0.1");
    expect_finished_at_once("0.0.0.0", "0.0.0.3");
    expect_finished_at_once("255.255.255.0", "255.255.255.9");
    expect_finished_at_once("10.0.0.x", "10.0.0.9");
    expect_finished_at_once("10.0.0.1", "10.0.0.999");
    expect_finished_at_once("", "10.0.0.9");
    expect_finished_at_once("10.0.0.1", "");
    expect_finished_at_once("255.255.255.255", "0.0.0.4"); /* what inet_addr calls invalid */
    expect_finished_at_once("255.255.255.250", "255.255.255.255");
}

TEST_F(Discovery, ranges_with_too_many_addresses) {
    expect_finished_at_once("10.0.0.1", "10.1.1.3"); /* 65537 */
    expect_finished_at_once("10.0.0.9", "10.0.0.1");
    expect_finished_at_once("10.0.0.1", "10.0.1.0"); /* skipped, so never met */
    expect_finished_at_once("10.0.0.1", "0.0.0.0");
}

TEST_F(Discovery, addresses_are_read_as_inet_addr_does) {
    add(1, 9, "10.1", "0x0a.0.0.03");
    EXPECT_EQ((std::vector<std::string>{"10.0.0.1", "10.0.0.2"}), plan_of(1).addresses);
}

/* 255.255.255.0 is never stepped on: a range round the top of the address space goes on at 0.0.0.1.
 */
TEST_F(Discovery, round_the_top) {
    add(1, 9, "255.255.255.253", "0.0.0.3");
    EXPECT_EQ((std::vector<std::string>{"255.255.255.253", "255.255.255.254", "255.255.255.255",
                                        "0.0.0.1", "0.0.0.2"}),
              plan_of(1).addresses);
}

TEST_F(Discovery, shares_of_five) {
    using share = planned::share;
    add(1, 9, "10.0.0.1", "10.0.0.13", "1.2;3.4");
    EXPECT_EQ((std::vector<share>{{0, 9, "1.2;3.4", "10.0.0.1", 5},
                                  {1, 9, "1.2;3.4", "10.0.0.6", 5},
                                  {2, 9, "1.2;3.4", "10.0.0.11", 2}}),
              plan_of(1).shares);
    add(2, 9, "10.0.0.1", "10.0.0.6");
    EXPECT_EQ((std::vector<share>{{0, 9, "-", "10.0.0.1", 5}}), plan_of(2).shares);
    add(3, 9, "10.0.0.1", "10.0.0.161");
    std::vector<share> most = plan_of(3).shares;
    ASSERT_EQ(32u, most.size());
    EXPECT_EQ((share{31, 9, "-", "10.0.0.156", 5}), most[31]);
}

TEST_F(Discovery, thirty_two_shares) {
    using share = planned::share;
    add(1, 9, "10.0.0.1", "10.0.0.162"); /* 161: six each */
    std::vector<share> shares = plan_of(1).shares;
    ASSERT_EQ(32u, shares.size());
    EXPECT_EQ((share{25, 9, "-", "10.0.0.151", 6}), shares[25]);
    EXPECT_EQ((share{26, 9, "-", "10.0.0.157", 5}), shares[26]);
    EXPECT_EQ((share{27, 9, "-", "", -1}), shares[27]);
    EXPECT_EQ((share{31, 9, "-", "", -25}), shares[31]);
    add(2, 9, "10.0.0.1", "10.0.0.201"); /* 200: seven each */
    shares = plan_of(2).shares;
    ASSERT_EQ(32u, shares.size());
    EXPECT_EQ((share{0, 9, "-", "10.0.0.1", 7}), shares[0]);
    EXPECT_EQ((share{28, 9, "-", "10.0.0.197", 4}), shares[28]);
    EXPECT_EQ((share{29, 9, "-", "", -3}), shares[29]);
    EXPECT_NE(std::string::npos, take_log_text().find("Threads count: 32; Address count: 200\n"));
    rem_ndis(1);
    auto records = scan();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(finished(2, 9, records[0]), records[0]);
    EXPECT_EQ(32, thread_library::threads_created);
    EXPECT_EQ(200u, probed.size());
    EXPECT_NE(std::string::npos, echo_calls.find("10.0.0.200 1000 1 0 28\n"));
}

TEST_F(Discovery, the_largest_range) {
    count_only = true;
    add(1, 9, "10.0.0.1", "10.1.1.2");
    std::vector<std::string> addresses = plan_of(1).addresses;
    ASSERT_EQ(65536u, addresses.size());
    EXPECT_EQ("10.1.1.1", addresses.back());
    EXPECT_EQ(2048, plan_of(1).shares.at(31).count);
    EXPECT_EQ(1u, scan().size());
    EXPECT_EQ(std::multiset<std::string>(addresses.begin(), addresses.end()), probed);
    EXPECT_EQ(32, thread_library::threads_created);
}

TEST_F(Discovery, what_is_asked_and_reported) {
    alive["10.0.0.7"] = 0.25;
    values = {{"1.3.6.1.2.1.1.5.0", "gate"},
              {"1.3.6.1.2.1.1.1.0", "router, 2 ports"},
              {"1.3.6.1.2.1.1.2.0", "1.3.6.1.4.1.9"},
              {"1.3.6.1.4.1.9", "nine"},
              {"1.2.3", "x"}};
    add(1, 9, "10.0.0.7", "10.0.0.8", "1.2.3;1.2.4");
    take_log();
    auto records = scan();
    ASSERT_EQ(2u, records.size());
    udc_content r =
        host(1, 9, {"10.0.0.7", "gate", "router, 2 ports", "nine", "1.3.6.1.4.1.9"}, records[0]);
    r.records = {extra("1.2.3", "x"), extra("1.2.4", "N/A")};
    EXPECT_EQ(r, records[0]);
    EXPECT_EQ(finished(1, 9, records[1]), records[1]);
    const std::string rest = " 10.0.0.7 161 2 1 1 public - - - - - 1,1\n";
    EXPECT_EQ("1 1 9 2 0 1.3.6.1.2.1.1.5.0" + rest + "1 1 9 2 0 1.3.6.1.2.1.1.1.0" + rest +
                  "1 1 9 2 0 1.3.6.1.2.1.1.2.0" + rest + "1 1 9 2 0 1.3.6.1.4.1.9" + rest +
                  "1 1 9 2 0 1.2.3" + rest + "1 1 9 2 0 1.2.4" + rest,
              queries);
    const std::string value = "5 INFO: discovery_thread(). SNMP object value received: ID: 0; "
                              "TID: 1; Host: 10.0.0.7; OID: ";
    EXPECT_EQ("5 INFO: discovery_thread(). Echo Response received: ID: 0; TID: 1; "
              "Host: 10.0.0.7\n" +
                  value + "1.3.6.1.2.1.1.5.0, OID Value: gate\n" + value +
                  "1.3.6.1.2.1.1.1.0, OID Value: router, 2 ports\n" + value +
                  "1.3.6.1.2.1.1.2.0, OID Value: 1.3.6.1.4.1.9\n" + value +
                  "1.3.6.1.4.1.9, OID Value: nine\n" + value +
                  "1.2.3, OID Value: x\n"
                  "5 INFO: discovery_thread(). End: ID: 0; TID: 1; LID: 9\n"
                  "5 INFO: discovery_thread(). Scan End: ID: 0; TID: 1; LID: 9\n",
              take_log_text());
    EXPECT_EQ(1, wake_ups);
}

/* The D64 that is declared and never filled is on the wire. */
TEST_F(Discovery, bytes_of_the_records) {
    using namespace std::string_literals;
    time_t before = now_in_seconds();
    alive["10.0.0.7"] = 0.25;
    values = {{"1.3.6.1.2.1.1.5.0", "gate"}, {"1.2.3", "x"}};
    add(0x0102, -2, "10.0.0.7", "10.0.0.8", "1.2.3");
    run_discovery();
    wait();
    char* bytes = nullptr;
    int size = 0;
    ASSERT_EQ(1, get_ndis_results(&bytes, &size));
    std::string data(bytes, static_cast<size_t>(size));
    free(bytes);
    const std::string head = "\0\0\0\0\x03\0\0\0\x01\0\0\0\0\0\0\0\x01\0\0\0"s;
    const std::string ids = "\x28\0\0\0\x02\x01\0\0\xFE\xFF\xFF\xFF"s;
    const std::string no_double(8, '\0');
    const std::string nested = "\x28\0\0\0"s + std::string(20, '\0') +
                               "\x02\0\0\0\0\0\0\0"
                               "1.2.3\0x\0"s;
    const std::string texts = "10.0.0.7\0gate\0N/A\0N/A\0N/A\0"s;
    ASSERT_EQ(32u + 12 + 8 + 8 + 26 + 40 + 32 + 12 + 8 + 8 + 9, data.size());
    const std::string time = data.substr(44, 8), end_time = data.substr(126 + 44, 8);
    EXPECT_EQ("\x7E\0\0\0"s + head + "\x05\0\0\0\x01\0\0\0"s + ids + time + no_double + texts +
                  nested,
              data.substr(0, 126));
    EXPECT_EQ("\x45\0\0\0"s + head + "\x01\0\0\0\0\0\0\0"s + ids + end_time + no_double +
                  "finished\0"s,
              data.substr(126));
    for (const std::string& t : {time, end_time}) {
        int64_t seconds = 0;
        memcpy(&seconds, t.data(), 8);
        EXPECT_LE(before, seconds);
        EXPECT_GE(now_in_seconds(), seconds);
    }
    rem_ndis(0x0102);
}

TEST_F(Discovery, values_that_are_not_there) {
    alive["10.0.0.7"] = 1.0;
    auto report = [](const std::string& oids) {
        modify(1, 9, "10.0.0.7", "10.0.0.8", oids);
        auto records = scan();
        EXPECT_EQ(2u, records.size());
        return records.empty() ? udc_content{} : records[0];
    };
    add(1, 9, "10.0.0.7", "10.0.0.7");
    take_records(get_ndis_results);

    udc_content r = report("");
    EXPECT_EQ(host(1, 9, {"10.0.0.7", "N/A", "N/A", "N/A", "N/A"}, r), r);

    /* Without an object id nothing is asked in its place. */
    EXPECT_EQ(3, std::count(queries.begin(), queries.end(), '\n'));

    values = {{"1.3.6.1.2.1.1.2.0", "1.3.6.1.4.1.9"}};
    r = report("");
    EXPECT_EQ(host(1, 9, {"10.0.0.7", "N/A", "N/A", "N/A", "1.3.6.1.4.1.9"}, r), r);

    /* An empty value would not be stored and the fields behind it would move up. */
    values = {{"1.3.6.1.2.1.1.5.0", ""},
              {"1.3.6.1.2.1.1.1.0", std::string("\0x", 2)},
              {"1.3.6.1.2.1.1.2.0", std::string("1.2\0y", 5)},
              {"1.2", "two"}};
    r = report("1.2;;");
    udc_content expected = host(1, 9, {"10.0.0.7", "N/A", "N/A", "two", "1.2"}, r);
    udc_content nameless = extra("N/A", "");
    nameless.strings.pop_back();
    expected.records = {extra("1.2", "two"), nameless};
    EXPECT_EQ(expected, r);
}

TEST_F(Discovery, without_the_library_nothing_is_asked) {
    alive["10.0.0.7"] = 1.0;
    values = {{"1.3.6.1.2.1.1.5.0", "gate"}};
    snmp_lib_status = 0;
    add(1, 9, "10.0.0.7", "10.0.0.8", "1.2");
    auto records = scan();
    ASSERT_EQ(2u, records.size());
    udc_content r = host(1, 9, {"10.0.0.7", "N/A", "N/A", "N/A", "N/A"}, records[0]);
    r.records = {extra("1.2", "N/A")};
    EXPECT_EQ(r, records[0]);
    EXPECT_EQ("", queries);
}

TEST_F(Discovery, silent_hosts) {
    alive = {{"10.0.0.1", 0.0}, {"10.0.0.2", -1.0}, {"10.0.0.3", 0.001}};
    add(1, 9, "10.0.0.1", "10.0.0.5");
    auto records = scan();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("10.0.0.3", records[0].strings.at(0));
    engine_fails = true;
    modify(1, 9, "10.0.0.1", "10.0.0.5");
    EXPECT_EQ(1u, scan().size());
    EXPECT_EQ(8u, probed.size());
}

TEST_F(Discovery, a_test_is_scanned_once_and_again_when_modified) {
    add(1, 9, "10.0.0.1", "10.0.0.13");
    EXPECT_EQ(1u, scan().size());
    EXPECT_EQ(3, thread_library::threads_created);
    EXPECT_EQ(1, plan_of(1).started);
    EXPECT_TRUE(scan().empty());
    EXPECT_EQ(3, thread_library::threads_created);
    add(2, 9, "10.0.0.1", "10.0.0.3");
    EXPECT_EQ(1u, scan().size()); /* the new one only */
    EXPECT_EQ(4, thread_library::threads_created);
    modify(1, 7, "10.0.0.1", "10.0.0.3", "1.2");
    EXPECT_EQ(0, plan_of(1).started);
    auto records = scan();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(finished(1, 7, records[0]), records[0]);
    EXPECT_EQ(5, thread_library::threads_created);
    EXPECT_EQ("1.2", plan_of(1).oids);
}

TEST_F(Discovery, the_last_thread_ends_the_scan) {
    count_only = true;
    add(1, 9, "10.0.0.1", "10.0.0.161");
    take_log();
    EXPECT_EQ(1u, scan().size());
    EXPECT_EQ(1, wake_ups);
    std::vector<logged_line> lines = take_log();
    ASSERT_EQ(33u, lines.size());
    EXPECT_EQ(0u, lines.back().text.find("INFO: discovery_thread(). Scan End: ID: "));
    std::set<std::string> ends;
    for (size_t i = 0; i < 32; i++) {
        ends.insert(lines[i].text);
    }
    EXPECT_EQ(32u, ends.size());
    EXPECT_TRUE(ends.contains("INFO: discovery_thread(). End: ID: 31; TID: 1; LID: 9"));
}

TEST_F(Discovery, modified_while_it_is_scanned) {
    alive = {{"10.0.0.2", 1.0}, {"10.9.0.1", 1.0}};
    hold_echo = true;
    add(1, 9, "10.0.0.1", "10.0.0.8", "1.2");
    run_discovery();
    modify(1, 8, "10.9.0.1", "10.9.0.3", "3.4");
    run_discovery(); /* both scans run */
    EXPECT_EQ(3, thread_library::threads_created);
    hold_echo = false;
    wait();
    auto records = take_records(get_ndis_results);
    std::multiset<std::string> seen;
    for (const udc_content& r : records) {
        seen.insert(r.strings.at(0) + " " + std::to_string(r.ui32.at(2)));
    }
    EXPECT_EQ((std::multiset<std::string>{"10.0.0.2 9", "10.9.0.1 8", "finished 8", "finished 9"}),
              seen);
    for (const udc_content& r : records) {
        if (r.strings.at(0) == "10.0.0.2") {
            EXPECT_EQ((std::vector<udc_content>{extra("1.2", "N/A")}), r.records);
        } else if (r.strings.at(0) == "10.9.0.1") {
            EXPECT_EQ((std::vector<udc_content>{extra("3.4", "N/A")}), r.records);
        }
    }
    EXPECT_EQ(9u, probed.size());
}

TEST_F(Discovery, removed_while_it_is_scanned) {
    alive["10.0.0.2"] = 1.0;
    hold_echo = true;
    add(1, 9, "10.0.0.1", "10.0.0.8", "1.2");
    run_discovery();
    rem_ndis(1);
    EXPECT_EQ(1, is_new_ndis(1));
    add(1, 5, "10.0.0.1", "10.0.0.2"); /* the id is free again */
    hold_echo = false;
    wait();
    auto records = take_records(get_ndis_results);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("10.0.0.2", records[0].strings.at(0));
    EXPECT_EQ((std::vector<udc_content>{extra("1.2", "N/A")}), records[0].records);
    EXPECT_EQ(finished(1, 9, records[1]), records[1]);
    EXPECT_EQ(7u, probed.size());
    EXPECT_EQ(0, plan_of(1).started);
}

TEST_F(Discovery, modified_to_a_range_without_addresses) {
    add(1, 9, "10.0.0.1", "10.0.0.4", "1.2");
    take_log();
    modify(1, 8, "10.0.0.1", "nonsense");
    EXPECT_EQ("5 INFO: Modified ndis test. Test ID: 1; Location ID: 8; Start IP: 10.0.0.1; "
              "End IP: nonsense\n",
              take_log_text());
    auto records = take_records(get_ndis_results);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(finished(1, 8, records[0]), records[0]);
    EXPECT_TRUE(plan_of(1).addresses.empty());
    EXPECT_TRUE(plan_of(1).shares.empty());
    EXPECT_EQ("-", plan_of(1).oids);
    EXPECT_TRUE(scan().empty());
    EXPECT_EQ(1, wake_ups);
}

TEST_F(Discovery, shares_without_a_thread_are_lost) {
    add(1, 9, "10.0.0.1", "10.0.0.13");
    take_log();
    refused_threads = {0, 2};
    auto records = scan();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(finished(1, 9, records[0]), records[0]);
    EXPECT_EQ(
        (std::multiset<std::string>{"10.0.0.6", "10.0.0.7", "10.0.0.8", "10.0.0.9", "10.0.0.10"}),
        probed);
    std::vector<logged_line> lines = take_log();
    EXPECT_EQ(0, lines.at(0).level);
    EXPECT_EQ("ERROR: run_discovery(). pthread_create returns: 11", lines.at(0).text);
    EXPECT_EQ("INFO: discovery_thread(). Scan End: ID: 1; TID: 1; LID: 9", lines.back().text);
    EXPECT_EQ(1, wake_ups);
}

TEST_F(Discovery, without_any_thread_the_scan_ends_at_once) {
    add(1, 9, "10.0.0.1", "10.0.0.13");
    refused_threads = {0, 1, 2};
    auto records = scan();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(finished(1, 9, records[0]), records[0]);
    EXPECT_EQ(1, wake_ups);
    EXPECT_EQ(1, plan_of(1).started);
    EXPECT_EQ("", echo_calls);
    refused_threads.clear();
    EXPECT_TRUE(scan().empty());
}

TEST_F(Discovery, scans_that_cannot_begin) {
    add(1, 9, "10.0.0.1", "10.0.0.4");
    take_log();
    thread_library::attr_error = ENOMEM;
    EXPECT_TRUE(scan().empty());
    EXPECT_EQ("0 ERROR: run_discovery(). pthread_attr_init returns: 12\n", take_log_text());
    thread_library::attr_error = 0;
    thread_library::detach_error = EINVAL;
    EXPECT_TRUE(scan().empty());
    EXPECT_EQ("0 ERROR: run_discovery(). pthread_attr_setdetachstate returns: 22\n",
              take_log_text());
    thread_library::detach_error = 0;
    thread_library::stack_error = EINVAL;
    EXPECT_TRUE(scan().empty());
    EXPECT_EQ("0 ERROR: run_discovery(). Can not set pthread stack size.\n", take_log_text());
    thread_library::stack_error = 0;
    EXPECT_EQ(0, plan_of(1).started);
    EXPECT_EQ(1u, scan().size());
    EXPECT_EQ(std::max<size_t>(221184, WORKER_STACK_SIZE), thread_library::stack_size);
}

TEST_F(Discovery, arguments_and_unknown_tests) {
    char ip[] = "10.0.0.1", end[] = "10.0.0.4";
    add_ndis(0, 9, ip, end, nullptr);
    add_ndis(1, 9, nullptr, end, nullptr);
    add_ndis(1, 9, ip, nullptr, nullptr);
    EXPECT_EQ("0 ERROR: Add. Invalid or existing ndis test. Test ID: 0\n"
              "0 ERROR: Add. Invalid or existing ndis test. Test ID: 1\n"
              "0 ERROR: Add. Invalid or existing ndis test. Test ID: 1\n",
              take_log_text());
    EXPECT_EQ(1, is_new_ndis(1));
    mod_ndis(0, 9, ip, end, nullptr);
    mod_ndis(1, 9, nullptr, end, nullptr);
    mod_ndis(1, 9, ip, nullptr, nullptr);
    mod_ndis(1, 9, ip, end, nullptr);
    EXPECT_EQ("0 ERROR: Modify. Invalid or existing ndis test. Test ID: 0\n"
              "0 ERROR: Modify. Invalid or existing ndis test. Test ID: 1\n"
              "0 ERROR: Modify. Invalid or existing ndis test. Test ID: 1\n"
              "5 INFO: Modified ndis test. Test ID: 1; Location ID: 9; Start IP: 10.0.0.1; "
              "End IP: 10.0.0.4\n"
              "0 ERROR: Modify. Unknown test ID: 1\n",
              take_log_text());
    rem_ndis(1);
    rem_ndis(0);
    EXPECT_EQ("5 INFO: Remove ndis test. Test ID: 1\n0 ERROR: Remove. Unknown test ID: 1\n"
              "5 INFO: Remove ndis test. Test ID: 0\n0 ERROR: Remove. Unknown test ID: 0\n",
              take_log_text());
    EXPECT_EQ(0, wake_ups);
    EXPECT_TRUE(take_records(get_ndis_results).empty());
}

TEST_F(Discovery, list_operations_and_their_lines) {
    add(1, 9, "10.0.0.1", "10.0.0.4");
    add(2, 9, "10.0.0.1", "10.0.0.5");
    add(3, 9, "10.0.0.1", "10.0.0.6");
    EXPECT_EQ(0, is_new_ndis(2));
    EXPECT_EQ(1, is_new_ndis(4));
    take_log();
    add(2, 8, "10.0.0.1", "10.0.0.3");
    EXPECT_EQ(9, plan_of(2).lid);
    EXPECT_EQ(4u, plan_of(2).addresses.size());
    modify(2, 8, "10.0.0.1", "10.0.0.13", "1.2");
    EXPECT_EQ(8, plan_of(2).lid);
    EXPECT_EQ(8, plan_of(2).shares.at(2).lid);
    EXPECT_EQ("1.2", plan_of(2).shares.at(0).oids);
    EXPECT_EQ(12u, plan_of(2).addresses.size());
    rem_ndis(1);
    EXPECT_EQ("0 ERROR: Add. Invalid or existing ndis test. Test ID: 2\n"
              "5 INFO: Modified ndis test. Test ID: 2; Location ID: 8; Start IP: 10.0.0.1; "
              "End IP: 10.0.0.13\n"
              "5 INFO: ndis test sucessfully modified. Test ID: 2; Location ID: 8; Threads "
              "count: 3; Address count: 12\n"
              "5 INFO: Remove ndis test. Test ID: 1\n"
              "5 INFO: Removed ndis test. Test ID: 1\n",
              take_log_text());
    EXPECT_EQ(1, is_new_ndis(1));
    EXPECT_EQ(12u, plan_of(2).addresses.size());
    EXPECT_EQ(5u, plan_of(3).addresses.size());
}

TEST_F(Discovery, results) {
    char bytes[] = "abc";
    add_ndis_result(bytes, 3);
    add_ndis_result(bytes, 0);
    add_ndis_result(bytes, -1);
    add_ndis_result(bytes, 1);
    char* data = nullptr;
    int size = 0;
    ASSERT_EQ(1, get_ndis_results(&data, &size));
    EXPECT_EQ("abca", std::string(data, static_cast<size_t>(size)));
    free(data);
    EXPECT_EQ(0, get_ndis_results(&data, &size));
}

/* In one test, because the worker starts only once in a process. At last everything at once from
 * several threads, with scans in flight; the sanitizers watch. */
TEST_F(Discovery, worker_and_changes_during_scans) {
    EXPECT_EQ(31536000, get_ndis_check_interval());
    alive["10.0.0.3"] = 1.0;
    add(1, 9, "10.0.0.1", "10.0.0.4");
    ASSERT_EQ(1, init_ndis_mon());
    ASSERT_TRUE(eventually([] { return plan_of(1).started == 1; })); /* once at the start */
    wait();
    EXPECT_EQ(2u, take_records(get_ndis_results).size());

    /* A wake-up is no reason to scan, the end of an interval is. */
    add(2, 9, "10.0.0.1", "10.0.0.4");
    for (int i = 0; i < 50; i++) {
        set_ndis_check_interval(1000);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(1000, get_ndis_check_interval());
    EXPECT_EQ(0, plan_of(2).started);
    set_ndis_check_interval(1);
    ASSERT_TRUE(eventually([] { return plan_of(2).started == 1; }));
    wait();
    EXPECT_EQ(2u, take_records(get_ndis_results).size());

    std::atomic<bool> stop{false};
    std::thread changes([&] {
        for (int i = 0; i < 200; i++) {
            add(1 + i % 5, 9, "10.0.0.1", "10.0.0.12", "1.2;3.4");
            modify(1 + i % 3, 9, "10.0.0.1", "10.0.0.40");
            rem_ndis(1 + i % 4);
            set_ndis_check_interval(1000 + i);
        }
        stop = true;
    });
    std::thread scans([&] {
        while (!stop) {
            while (thread_library::running > 200) {
                std::this_thread::yield();
            }
            run_discovery();
        }
    });
    while (!stop) {
        take_records(get_ndis_results);
        get_ndis_check_interval();
    }
    changes.join();
    scans.join();
    hold_echo = true;
    modify(5, 9, "10.0.0.1", "10.0.0.12");
    run_discovery();
    shutdown_ndis(); /* the scan that runs is not waited for */
    EXPECT_EQ(-1, get_ndis_check_interval());
}

/* HTTP checker: definitions, rounds, bytes of the record, lifecycle, many checks at once. */
#include "at_rest.h"
#include "checker.h"
#include "fake_core.h"
#include "guards.h"
#include "libsslloader.h"
#include "thread_library.h"
#include "tls_peer.h"
#include "udc_reader.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "httpmon.cpp"

using thread_library::attr_error, thread_library::detach_error, thread_library::stack_error;

static std::deque<int> create_errors;   /* of the next checks; 0 creates */
static std::atomic<size_t> created = 0; /* threads of checks */
static int note_thread(void* (*body)(void*), void*) {
    if (body == http_worker_thread) {
        return 0;
    }
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, thread_library::detach_state);
    int error = 0;
    if (!create_errors.empty()) {
        error = create_errors.front();
        create_errors.pop_front();
    }
    created += error == 0;
    return error;
}

static std::atomic<int> wake_ups{0};
void send_pending_data() {
    wake_ups++;
}

/* --------------------------------------------------------------------------------------------- */

using namespace std::string_literals;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static const int MANY = 500;
#else
static const int MANY = 2000;
#endif

namespace {

class process_set_up : public testing::Environment {
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(1, init_ssl_variables());
        rlimit files;
        getrlimit(RLIMIT_NOFILE, &files);
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
};
testing::Environment* const set_up = testing::AddGlobalTestEnvironment(new process_set_up);

/* Writable text for the interfaces that do not say const. */
char* text(const char* t) {
    return const_cast<char*>(t);
}

struct arguments {
    long id = 1;
    int loc = 2;
    const char* host = "127.0.0.1";
    const char* url = "/page";
    const char* port = "80";
    const char* mutch = nullptr;
    const char* post = nullptr;
    const char* user = nullptr;
    const char* pass = nullptr;
    const char* tout = "20";
    const char* agent = nullptr;
    int ssl = 0, redirect = 0, full = 0, found = 0, method = 0;
};

template <typename F>
void call(F function, const arguments& a) {
    function(a.id, a.loc, text(a.host), text(a.url), text(a.port), text(a.mutch), text(a.post),
             text(a.user), text(a.pass), text(a.tout), text(a.agent), a.ssl, a.redirect, a.full,
             a.found, a.method);
}
void add(const arguments& a) {
    call(add_http, a);
}
void modify(const arguments& a) {
    call(modify_http, a);
}

/* A result of type 49. */
struct http_record {
    uint32_t id, location, status, ms, code, length;
    std::string info;
};

std::vector<http_record> take_records() {
    char* data = nullptr;
    int size = 0;
    std::vector<http_record> records;
    if (!get_http_results(&data, &size)) {
        return records;
    }
    auto list = read_udc_list(data, static_cast<size_t>(size));
    free(data);
    EXPECT_TRUE(list);
    for (const udc_content& c : list ? *list : std::vector<udc_content>{}) {
        EXPECT_EQ(7u, c.ui32.size());
        EXPECT_EQ(49u, c.ui32.at(0));
        EXPECT_EQ(1u, c.i64.size());
        EXPECT_EQ(1u, c.declared_strings);
        EXPECT_LE(now_in_seconds() - c.i64.at(0), 60);
        records.push_back({c.ui32[1], c.ui32[2], c.ui32[3], c.ui32[4], c.ui32[5], c.ui32[6],
                           c.strings.empty() ? "" : c.strings[0]});
    }
    return records;
}

/* Waits for this many records, then for the ends of their threads; half a minute at most. */
std::vector<http_record> await_records(size_t count) {
    std::vector<http_record> all;
    for (int i = 0; i < 30000 && all.size() < count; i++) {
        for (http_record& r : take_records()) {
            all.push_back(std::move(r));
        }
        usleep(all.size() < count ? 1000 : 0);
    }
    EXPECT_EQ(count, all.size());
    all.resize(count); /* that a failure is no crash, too */
    for (int i = 0; i < 30000 && count_threads("http_check") > 0; i++) {
        usleep(1000);
    }
    return all;
}

class http_checker : public testing::Test {
protected:
    void SetUp() override {
        thread_library::reset();
        thread_library::about_to_create = note_thread;
        wake_ups = 0;
        take_log();
    }
    void TearDown() override {
        create_errors.clear();
        thread_library::reset();
        lock hold(HTTP_MON_MUTEX);
        host_list.clear();
    }
    /* The test at this place of the list. */
    const aHost& listed(int index) NO_THREAD_SAFETY_ANALYSIS {
        EXPECT_LT(index, host_list.size());
        return *host_list[index];
    }
    std::string ids() {
        lock hold(HTTP_MON_MUTEX);
        std::string all;
        for (const aHost* test : host_list) {
            all += std::to_string(test->id) + " ";
        }
        return all;
    }
};

const std::vector<peer::step> ANSWER = {
    peer::take_request(), peer::send("HTTP/1.1 200 OK\r\n\r\nbody"), peer::end_clean()};

} // namespace

/* --- the list -------------------------------------------------------------------------------- */

TEST_F(http_checker, add_keeps_what_it_is_given) {
    add({.id = 5,
         .loc = 6,
         .host = "h",
         .url = "/u",
         .port = "81",
         .mutch = "m",
         .post = "p=1",
         .user = "us",
         .pass = "pw",
         .tout = "7",
         .agent = "User-Agent: me\r\n",
         .ssl = 1,
         .redirect = 1,
         .full = 1,
         .found = 1,
         .method = 2});
    const aHost& t = listed(0);
    EXPECT_EQ(5, t.id);
    EXPECT_EQ(6, t.loc_id);
    EXPECT_STREQ("h", t.host);
    EXPECT_STREQ("/u", t.uri);
    EXPECT_STREQ("81", t.port);
    EXPECT_STREQ("m", t.mutch);
    EXPECT_STREQ("p=1", t.post);
    EXPECT_STREQ("us", t.user);
    EXPECT_STREQ("pw", t.pass);
    EXPECT_STREQ("7", t.tout);
    EXPECT_STREQ("User-Agent: me\r\n", t.userAgent);
    EXPECT_EQ(1, t.isSSL);
    EXPECT_EQ(1, t.Redirect);
    EXPECT_EQ(1, t.loadFullPage);
    EXPECT_EQ(1, t.mustbefound);
    EXPECT_EQ(2, t.method);
    EXPECT_EQ(1, t.isFirstCheck);
    EXPECT_EQ(0, t.interval);
    EXPECT_EQ(0, t.nextcheck);
    EXPECT_EQ(0, t.htype);
    EXPECT_EQ(nullptr, t.regexp);
    EXPECT_EQ(nullptr, t.dns);
    EXPECT_EQ(nullptr, t.expIP);
    EXPECT_EQ(nullptr, t.expAuth);
    EXPECT_EQ(0, t.ReCheckCnt + t.ReCheckInt + t.timeout + t.currNokCount);
    EXPECT_EQ("5 HTTP test:\n\tID:          5\n\tLoc:         6\n\tHost:        h\n"
              "\tURL:         /u\n\tPort:        81\n\tMutch:       m\n\tPost:        p=1\n"
              "\tUser:        us\n\tPass:        pw\n\tTout:        7\n"
              "\tUserAgent    User-Agent: me\r\n\n\tSSL:         1\n\tRedir:       1\n"
              "\tFull:        1\n\tFound:       1\n\tMeth:        2\n\n",
              take_log_text());
}

TEST_F(http_checker, add_fills_in_what_is_missing) {
    add({.id = 1,
         .host = "",
         .url = "",
         .port = "",
         .mutch = "",
         .post = "",
         .user = "",
         .pass = "",
         .tout = nullptr});
    const aHost& t = listed(0);
    EXPECT_STREQ("", t.host);
    EXPECT_STREQ("", t.uri);
    EXPECT_STREQ("", t.port);
    EXPECT_EQ(nullptr, t.mutch);
    EXPECT_EQ(nullptr, t.post);
    EXPECT_EQ(nullptr, t.user);
    EXPECT_EQ(nullptr, t.pass);
    EXPECT_STREQ("10", t.tout);
    EXPECT_STREQ(DEFAULT_USER_AGENT, t.userAgent);
    EXPECT_EQ("5 HTTP test:\n\tID:          1\n\tLoc:         2\n\tHost:        \n"
              "\tURL:         \n\tPort:        \n\tMutch:       N/A\n\tPost:        N/A\n"
              "\tUser:        N/A\n\tPass:        N/A\n\tTout:        (null)\n"
              "\tUserAgent    (null)\n\tSSL:         0\n\tRedir:       0\n"
              "\tFull:        0\n\tFound:       0\n\tMeth:        0\n\n",
              take_log_text());
    add({.id = 2, .tout = "", .agent = ""});
    EXPECT_STREQ("10", listed(1).tout);
    EXPECT_STREQ(DEFAULT_USER_AGENT, listed(1).userAgent);
    add({.id = 3, .tout = "ten"});
    EXPECT_STREQ("ten", listed(2).tout);
}

TEST_F(http_checker, the_default_user_agent_is_a_whole_header_line) {
    std::string line = DEFAULT_USER_AGENT;
    EXPECT_TRUE(line.starts_with("User-Agent: Mozilla/5.0 (compatible; ")) << line;
    EXPECT_TRUE(line.ends_with(")\r\n")) << line;
}

TEST_F(http_checker, add_ignores_what_it_cannot_use) {
    add({.id = 0});
    add({.host = nullptr});
    add({.url = nullptr});
    add({.port = nullptr});
    EXPECT_EQ("", ids());
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_checker, a_second_test_with_the_same_id_changes_nothing) {
    add({.id = 1, .url = "/first"});
    take_log();
    add({.id = 1, .url = "/second"});
    EXPECT_EQ("1 ", ids());
    EXPECT_STREQ("/first", listed(0).uri);
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_checker, ids_that_are_new) {
    EXPECT_EQ(1, is_new_http(7));
    add({.id = 7});
    EXPECT_EQ(0, is_new_http(7));
    EXPECT_EQ(1, is_new_http(8));
    rem_http(7);
    EXPECT_EQ(1, is_new_http(7));
}

TEST_F(http_checker, modify_replaces_everything_but_the_id) {
    add({.id = 1,
         .loc = 2,
         .mutch = "m",
         .post = "p",
         .user = "u",
         .pass = "w",
         .tout = "7",
         .agent = "User-Agent: me\r\n",
         .ssl = 1,
         .redirect = 1,
         .full = 1,
         .found = 1,
         .method = 1});
    add({.id = 2});
    {
        lock hold(HTTP_MON_MUTEX);
        host_list[0]->isFirstCheck = 0;
    }
    take_log();
    modify({.id = 1,
            .loc = 9,
            .host = "h2",
            .url = "/u2",
            .port = "82",
            .mutch = "m2",
            .post = "p2",
            .user = "u2",
            .pass = "w2",
            .tout = "8",
            .agent = "User-Agent: x\r\n",
            .method = 3});
    const aHost& t = listed(0);
    EXPECT_EQ("1 2 ", ids());
    EXPECT_EQ(9, t.loc_id);
    EXPECT_STREQ("h2", t.host);
    EXPECT_STREQ("/u2", t.uri);
    EXPECT_STREQ("82", t.port);
    EXPECT_STREQ("m2", t.mutch);
    EXPECT_STREQ("p2", t.post);
    EXPECT_STREQ("u2", t.user);
    EXPECT_STREQ("w2", t.pass);
    EXPECT_STREQ("8", t.tout);
    EXPECT_STREQ("User-Agent: x\r\n", t.userAgent);
    EXPECT_EQ(0, t.isSSL + t.Redirect + t.loadFullPage + t.mustbefound);
    EXPECT_EQ(3, t.method);
    EXPECT_EQ(1, t.isFirstCheck);
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_checker, modify_clears_what_is_not_given_any_more) {
    add({.id = 1,
         .mutch = "m",
         .post = "p",
         .user = "u",
         .pass = "w",
         .tout = "7",
         .agent = "User-Agent: me\r\n"});
    for (const char* none : {"", static_cast<const char*>(nullptr)}) {
        modify({.id = 1,
                .mutch = none,
                .post = none,
                .user = none,
                .pass = none,
                .tout = none,
                .agent = none});
        const aHost& t = listed(0);
        EXPECT_EQ(nullptr, t.mutch);
        EXPECT_EQ(nullptr, t.post);
        EXPECT_EQ(nullptr, t.user);
        EXPECT_EQ(nullptr, t.pass);
        EXPECT_STREQ("10", t.tout);
        EXPECT_STREQ(DEFAULT_USER_AGENT, t.userAgent);
    }
}

TEST_F(http_checker, modify_ignores_what_it_cannot_use) {
    add({.id = 1, .url = "/first"});
    modify({.id = 0, .url = "/second"});
    modify({.id = 2, .url = "/second"});
    modify({.id = 1, .host = nullptr, .url = "/second"});
    modify({.id = 1, .url = nullptr, .port = "81"});
    modify({.id = 1, .url = "/second", .port = nullptr});
    EXPECT_EQ("1 ", ids());
    EXPECT_STREQ("/first", listed(0).uri);
    EXPECT_STREQ("80", listed(0).port);
}

TEST_F(http_checker, remove_closes_the_gap) {
    for (long id : {1, 2, 3, 4}) {
        add({.id = id});
    }
    take_log();
    rem_http(2);
    EXPECT_EQ("1 3 4 ", ids());
    rem_http(0);
    rem_http(2);
    EXPECT_EQ("1 3 4 ", ids());
    rem_http(4);
    rem_http(1);
    rem_http(3);
    rem_http(3);
    EXPECT_EQ("", ids());
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_checker, a_copy_for_a_check) {
    aHost original = {};
    char* aHost::*const texts[] = {&aHost::host,    &aHost::uri,  &aHost::port, &aHost::mutch,
                                   &aHost::regexp,  &aHost::post, &aHost::dns,  &aHost::expIP,
                                   &aHost::expAuth, &aHost::user, &aHost::pass, &aHost::tout};
    const std::string letters = "abcdefghijkl";
    std::vector<std::string> values;
    for (char c : letters) {
        values.push_back(std::string(1, c));
    }
    for (size_t i = 0; i < values.size(); i++) {
        original.*texts[i] = values[i].data();
    }
    original.userAgent = text("User-Agent: me\r\n");
    original.id = 1L << 40;
    original.loc_id = 2;
    original.interval = 3;
    original.nextcheck = 4;
    original.htype = 5;
    original.isSSL = 6;
    original.ReCheckCnt = 7;
    original.ReCheckInt = 8;
    original.Redirect = 9;
    original.loadFullPage = 10;
    original.mustbefound = 11;
    original.method = 12;
    original.timeout = 13;
    original.currNokCount = 14;
    original.isFirstCheck = 15;
    aHost* copy = dup_aHost(&original);
    for (size_t i = 0; i < values.size(); i++) {
        EXPECT_NE(original.*texts[i], copy->*texts[i]);
        EXPECT_EQ(values[i], copy->*texts[i]);
    }
    EXPECT_EQ(nullptr, copy->userAgent);
    EXPECT_EQ(1L << 40, copy->id);
    EXPECT_EQ(2, copy->loc_id);
    EXPECT_EQ(3, copy->interval);
    EXPECT_EQ(4, copy->nextcheck);
    EXPECT_EQ(5, copy->htype);
    EXPECT_EQ(6, copy->isSSL);
    EXPECT_EQ(7, copy->ReCheckCnt);
    EXPECT_EQ(8, copy->ReCheckInt);
    EXPECT_EQ(9, copy->Redirect);
    EXPECT_EQ(10, copy->loadFullPage);
    EXPECT_EQ(11, copy->mustbefound);
    EXPECT_EQ(12, copy->method);
    EXPECT_EQ(0, copy->timeout);
    EXPECT_EQ(0, copy->currNokCount);
    EXPECT_EQ(15, copy->isFirstCheck);
    free_aHost(&copy);
    EXPECT_EQ(nullptr, copy);
    free_aHost(&copy);

    const aHost empty = {};
    copy = dup_aHost(const_cast<aHost*>(&empty));
    EXPECT_EQ(0, memcmp(&empty, copy, sizeof empty));
    free_aHost(&copy);
    EXPECT_EQ(nullptr, dup_aHost(nullptr));
}

/* --- one check ------------------------------------------------------------------------------- */

TEST_F(http_checker, the_bytes_of_a_record) {
    const com_result r = {.spentTime = 12.987f,
                          .newStatus = 2,
                          .rsp_code = 404,
                          .header_size = 50,
                          .content_length = 1000,
                          .tid = 77,
                          .loc_id = -1};
    time_t before = now_in_seconds();
    add_http_record(r, "some words");
    char* data = nullptr;
    int size = 0;
    ASSERT_EQ(1, get_http_results(&data, &size));
    heap_text held(data);
    uint32_t header[8], ui32[7];
    int64_t time;
    ASSERT_EQ(32 + 7 * 4 + 8 + 11, size);
    memcpy(header, data, sizeof header);
    memcpy(ui32, data + 32, sizeof ui32);
    memcpy(&time, data + 60, sizeof time);
    const uint32_t expected_header[8] = {79, 0, 7, 1, 0, 0, 1, 0};
    EXPECT_EQ(0, memcmp(expected_header, header, sizeof header));
    const uint32_t expected[7] = {49, 77, 0xFFFFFFFF, 2, 12, 404, 1000};
    EXPECT_EQ(0, memcmp(expected, ui32, sizeof ui32));
    EXPECT_LE(before, time);
    EXPECT_GE(now_in_seconds(), time);
    EXPECT_STREQ("some words", data + 68);
    EXPECT_EQ(0, get_http_results(&data, &size));
}

TEST_F(http_checker, a_record_without_words_has_no_text) {
    add_http_record({}, "");
    char* data = nullptr;
    int size = 0;
    ASSERT_EQ(1, get_http_results(&data, &size));
    auto record = read_udc(data, static_cast<size_t>(size));
    free(data);
    ASSERT_TRUE(record);
    EXPECT_EQ(1u, record->declared_strings);
    EXPECT_TRUE(record->strings.empty());
}

TEST_F(http_checker, one_check) {
    tls_peer server(tls_peer::tcp, {ANSWER});
    std::string port = server.port();
    aHost test = {};
    test.id = 5;
    test.loc_id = 6;
    test.host = text("127.0.0.1");
    test.uri = text("/");
    test.port = port.data();
    test.tout = text("20");
    test.userAgent = text("User-Agent: me\r\n");
    std::thread(http_check_thread, dup_aHost(&test)).join();
    std::vector<http_record> records = take_records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(5u, records[0].id);
    EXPECT_EQ(6u, records[0].location);
    EXPECT_EQ(0u, records[0].status);
    EXPECT_EQ(200u, records[0].code);
    EXPECT_EQ(4u, records[0].length);
    EXPECT_LT(records[0].ms, 20000u);
    EXPECT_TRUE(records[0].info.starts_with("HTTP OK HTTP/1.1 200 OK - ")) << records[0].info;
    EXPECT_EQ(
        "GET / HTTP/1.0\r\nUser-Agent: (null)\r\nConnection: close\r\nHost: 127.0.0.1\r\n\r\n",
        server.request(0));
    const logged_line last = take_log().back();
    EXPECT_EQ(5, last.level);
    const std::string& log = last.text;
    size_t time = log.find("Time:     ");
    ASSERT_NE(std::string::npos, time) << log;
    EXPECT_EQ("Result Info:\nTest ID:  5\nLoc  ID:  6\nStatus:   0\nResp:     200\n"
              "Header:   19 Byte\nContent:  4 Byte\n",
              log.substr(0, time));
    EXPECT_TRUE(log.ends_with(" ms\nAdd Info: " + records[0].info + "\n\n")) << log;
    EXPECT_EQ(0, wake_ups);
}

TEST_F(http_checker, the_first_result_is_sent_at_once_and_only_that) {
    std::string port = closed_port();
    add({.id = 1, .port = port.c_str()});
    EXPECT_EQ(1, listed(0).isFirstCheck);
    do_http_check();
    EXPECT_EQ(0, listed(0).isFirstCheck);
    EXPECT_EQ("Connection Failed.", await_records(1)[0].info);
    EXPECT_EQ(1, wake_ups);
    do_http_check();
    await_records(1);
    EXPECT_EQ(1, wake_ups);
    modify({.id = 1, .port = port.c_str()});
    do_http_check();
    await_records(1);
    EXPECT_EQ(2, wake_ups);
}

/* --- rounds ---------------------------------------------------------------------------------- */

namespace {

/* A server that lets any number of requests wait until it may answer them. */
class crowd_server {
public:
    crowd_server() : thread_([this] { serve(); }) {}
    ~crowd_server() {
        stopping_ = true;
        thread_.join();
        close(listener_);
    }
    const char* port() const { return port_.c_str(); }
    int waiting() const { return waiting_; } /* requests without an answer */
    void release() { released_ = true; }

private:
    int listen_on_loopback() {
        int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), size));
        EXPECT_EQ(0, listen(listener, 4096));
        EXPECT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size));
        port_ = std::to_string(ntohs(address.sin_port));
        return listener;
    }

    void serve() {
        std::map<int, std::string> asking;
        std::vector<int> asked;
        while (!stopping_) {
            std::vector<pollfd> waits = {{listener_, POLLIN, 0}};
            for (const auto& [fd, request] : asking) {
                waits.push_back({fd, POLLIN, 0});
            }
            poll(waits.data(), waits.size(), 5);
            for (const pollfd& ready : waits) {
                if (ready.revents != 0 && ready.fd == listener_) {
                    for (int fd; (fd = accept4(listener_, nullptr, nullptr,
                                               SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;) {
                        asking[fd];
                    }
                } else if (ready.revents != 0) {
                    read_request(ready.fd, asking, asked);
                }
            }
            waiting_ = static_cast<int>(asked.size());
            if (released_) {
                for (int fd : asked) {
                    static const char answer[] = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody";
                    send(fd, answer, sizeof answer - 1, MSG_NOSIGNAL);
                    close(fd);
                }
                asked.clear();
            }
        }
        for (const auto& [fd, request] : asking) {
            close(fd);
        }
        for (int fd : asked) {
            close(fd);
        }
    }

    static void read_request(int fd, std::map<int, std::string>& asking, std::vector<int>& asked) {
        char room[1024];
        ssize_t got = recv(fd, room, sizeof room, 0);
        if (got <= 0) {
            asking.erase(fd);
            close(fd);
            return;
        }
        asking[fd].append(room, static_cast<size_t>(got));
        if (asking[fd].ends_with("\r\n\r\n")) {
            asking.erase(fd);
            asked.push_back(fd);
        }
    }

    std::string port_;
    int listener_ = listen_on_loopback();
    std::atomic<bool> stopping_ = false, released_ = false;
    std::atomic<int> waiting_ = 0;
    std::thread thread_;
};

} // namespace

TEST_F(http_checker, no_tests_no_threads) {
    do_http_check();
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ(0, count_threads("http_check"));
}

TEST_F(http_checker, every_test_gets_a_thread_of_its_own) {
    tls_peer slow(tls_peer::tcp, {{peer::take_request(), peer::pause(),
                                   peer::send("HTTP/1.1 200 OK\r\n\r\n"), peer::end_clean()}});
    tls_peer quick(tls_peer::tcp, {ANSWER});
    add({.id = 1, .port = slow.port()});
    add({.id = 2, .port = quick.port()});
    do_http_check();
    EXPECT_EQ(WORKER_STACK_SIZE, thread_library::stack_asked);
    EXPECT_TRUE(slow.await_pauses(1));
    std::vector<http_record> records;
    while (records.empty()) {
        records = take_records();
    }
    EXPECT_EQ(2u, records[0].id);
    /* What happens to the test now is of no concern to its check. */
    modify({.id = 1, .loc = 99, .port = "1"});
    rem_http(1);
    slow.proceed();
    records = await_records(1);
    EXPECT_EQ(1u, records[0].id);
    EXPECT_EQ(2u, records[0].location);
    EXPECT_EQ(0u, records[0].status);
}

TEST_F(http_checker, a_slow_check_overlaps_the_next) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::pause()}, {peer::end_clean()}});
    add({.id = 1, .port = server.port()});
    do_http_check();
    EXPECT_TRUE(server.await_pauses(1));
    do_http_check();
    server.proceed();
    await_records(2);
}

/* As many checks of a test as there may be; others go on, and a test that comes back under the same
 * id is still the same. */
TEST_F(http_checker, checks_under_way_are_bounded) {
    crowd_server server;
    add({.id = 1, .port = server.port(), .tout = "60"});
    created = 0;
    for (int i = 0; i < MOST_CHECKS_UNDER_WAY; i++) {
        do_http_check();
    }
    EXPECT_EQ(64u, created);
    take_log();
    rem_http(1);
    add({.id = 1, .port = server.port(), .tout = "60"});
    add({.id = 2, .port = server.port(), .tout = "60"});
    create_errors = {EAGAIN, 0};
    for (int i = 0; i < 3; i++) {
        do_http_check();
    }
    EXPECT_EQ(66u, created);
    EXPECT_EQ(1, listed(0).isFirstCheck);
    EXPECT_EQ(0, listed(1).isFirstCheck);
    std::string errors;
    for (const logged_line& line : take_log()) {
        errors += line.level == 0 ? line.text + "\n" : "";
    }
    EXPECT_EQ("HTTP test 1: 64 checks are under way, one more is left out.\n"
              "Thread creation Failed, Error: 11, Resource temporarily unavailable\n",
              errors);
    server.release();
    await_records(66);
    do_http_check();
    await_records(2);
}

TEST_F(http_checker, a_thread_that_cannot_be_created_is_one_test_left_out) {
    tls_peer server(tls_peer::tcp, {ANSWER, ANSWER});
    for (long id : {1, 2, 3}) {
        add({.id = id, .port = server.port()});
    }
    take_log();
    create_errors = {0, EAGAIN, 0};
    do_http_check();
    std::set<uint32_t> seen;
    for (const http_record& r : await_records(2)) {
        seen.insert(r.id);
        EXPECT_EQ(0u, r.status);
    }
    EXPECT_EQ((std::set<uint32_t>{1, 3}), seen);
    EXPECT_EQ(0, listed(1).isFirstCheck);
    std::string errors;
    for (const logged_line& line : take_log()) {
        errors += line.level == 0 ? line.text : "";
    }
    EXPECT_EQ("Thread creation Failed, Error: 11, Resource temporarily unavailable", errors);
}

TEST_F(http_checker, attributes_that_fail_skip_the_round) {
    add({.id = 1});
    take_log();
    attr_error = ENOMEM;
    do_http_check();
    EXPECT_EQ("0 pthread_attr_init failed. Error: 12, Cannot allocate memory\n", take_log_text());
    attr_error = 0;
    detach_error = EINVAL;
    do_http_check();
    EXPECT_EQ("0 pthread_attr_setdetachstate failed. Error: 22, Invalid argument\n",
              take_log_text());
    detach_error = 0;
    stack_error = EINVAL;
    do_http_check();
    EXPECT_EQ("0 pthread_attr_setstacksize failed. Error: 22, Invalid argument\n", take_log_text());
    EXPECT_EQ(1, listed(0).isFirstCheck);
}

/* --- many checks at once --------------------------------------------------------------------- */

namespace {

bool enough_descriptors() {
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    return files.rlim_cur > 5000;
}

} // namespace

TEST_F(http_checker, many_tests_of_one_round_all_report) {
    if (!enough_descriptors()) {
        GTEST_SKIP() << "too few descriptors";
    }
    crowd_server server;
    for (int id = 1; id <= MANY; id++) {
        add({.id = id, .loc = id + 1, .port = server.port(), .tout = "60"});
    }
    take_log();
    int descriptors = count_descriptors();
    do_http_check();
    for (int i = 0; i < 30000 && server.waiting() < MANY; i++) {
        usleep(1000);
    }
    EXPECT_EQ(MANY, server.waiting()); /* all of them in flight */
    server.release();
    std::set<uint32_t> seen;
    for (const http_record& r : await_records(MANY)) {
        EXPECT_EQ(r.id + 1, r.location);
        EXPECT_EQ(0u, r.status) << r.info;
        EXPECT_EQ(200u, r.code);
        EXPECT_EQ(4u, r.length);
        seen.insert(r.id);
    }
    EXPECT_EQ(static_cast<size_t>(MANY), seen.size());
    EXPECT_EQ(MANY, wake_ups);
    for (int i = 0; i < 30000 && count_descriptors() > descriptors; i++) {
        usleep(1000);
    }
    EXPECT_EQ(descriptors, count_descriptors());
}

TEST_F(http_checker, where_the_descriptors_end_checks_fail_with_words) {
    for (int id = 1; id <= 100; id++) {
        add({.id = id});
    }
    take_log();
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = {3, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    do_http_check();
    std::vector<http_record> records;
    while (records.size() < 100) {
        for (http_record& r : take_records()) {
            records.push_back(std::move(r));
        }
        usleep(1000);
    }
    setrlimit(RLIMIT_NOFILE, &before);
    await_records(0);
    for (const http_record& r : records) {
        EXPECT_EQ(2u, r.status);
        EXPECT_EQ(0u, r.code);
        EXPECT_EQ("Connection Failed.", r.info);
    }
}

/* The poll thread changes the list and collects, the worker starts rounds, checks are under way. */
TEST_F(http_checker, tests_come_and_go_while_checks_are_under_way) {
    if (!enough_descriptors()) {
        GTEST_SKIP() << "too few descriptors";
    }
    const int in_flight = 500;
    crowd_server server;
    const char* port = server.port();
    for (int id = 1; id <= in_flight; id++) {
        add({.id = id, .port = port, .tout = "60"});
    }
    created = 0;
    do_http_check();
    for (int i = 0; i < 30000 && server.waiting() < in_flight; i++) {
        usleep(1000);
    }
    EXPECT_EQ(in_flight, server.waiting());
    std::thread rounds([] {
        for (int i = 0; i < 3; i++) {
            do_http_check();
            usleep(1000);
        }
    });
    for (int id = 1; id <= in_flight; id++) {
        modify({.id = id, .loc = id, .url = "/other", .port = port, .user = "u", .tout = "60"});
        rem_http(id % 3 == 0 ? id : 0);
        add({.id = in_flight + id % 100 + 1, .port = port, .tout = "60"});
        is_new_http(id);
    }
    rounds.join();
    server.release();
    await_records(created);
    EXPECT_LE(4u * in_flight / 3 * 2, created);
}

/* --- lifecycle ------------------------------------------------------------------------------- */

TEST_F(http_checker, from_start_to_stop) {
    EXPECT_EQ(31536000, get_http_check_interval());
    std::string port = closed_port();
    ASSERT_EQ(1, init_http_mon());
    add({.id = 1, .port = port.c_str()});
    await_records(1);
    EXPECT_TRUE(await_rest("http"));
    modify({.id = 1, .loc = 7, .port = port.c_str()});
    std::vector<http_record> changed = await_records(1);
    ASSERT_EQ(1u, changed.size());
    EXPECT_EQ(7u, changed[0].location);
    EXPECT_TRUE(await_rest("http"));
    set_http_check_interval(3600);
    EXPECT_EQ(3600, get_http_check_interval());
    await_records(1);
    rem_http(1);
    shutdown_http_checker();
    EXPECT_EQ(-1, get_http_check_interval());
    EXPECT_TRUE(take_records().empty());
    shutdown_http_checker();
}

TEST_F(http_checker, results_below_one_byte_are_ignored) {
    char one[] = "x";
    add_http_result(one, 0);
    add_http_result(one, -1);
    char* data = one;
    int size = 77;
    EXPECT_EQ(0, get_http_results(&data, &size));
    EXPECT_EQ(one, data);
    EXPECT_EQ(77, size);
}

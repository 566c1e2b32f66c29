/* One HTTP check from connect to judgement, against scripted servers and against a system and a TLS
 * library that misbehave on order. */
#include "budget.h"
#include "fake_core.h"
#include "guards.h"
#include "httpmon_exchange.h"
#include "libsslloader.h"
#include "scripted_tls.h"
#include "tls_peer.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <vector>

/* --- the system as a check meets it once it is connected -------------------------------------- */

/* What the next waits return instead of waiting: 1, 0 or a negative errno. */
static std::deque<int> wait_results;
static std::atomic<int> waits = 0;
static std::atomic<long> longest_patience = 0;
static std::vector<short> wait_events; /* what the waits were for */
static std::deque<long> charges;       /* of the next steps, in microseconds, whatever they take */
static std::deque<int> read_errors;    /* of the next reads; 0 reads */
static std::deque<int> send_errors;    /* of the next sends; 0 sends */
static std::deque<size_t> read_sizes;  /* what the next reads give at most */
static int reads_before_silence = -1;  /* then every wait to read is in vain; -1: never */
static bool no_request = false;

static int test_wait_socket(int sk, short events, long* budget_us) {
    waits++;
    wait_events.push_back(events);
    longest_patience = std::max(longest_patience.load(), *budget_us);
    if (reads_before_silence == 0 && events == POLLIN) {
        return 0;
    }
    if (wait_results.empty()) {
        return wait_socket(sk, events, budget_us);
    }
    int result = wait_results.front();
    wait_results.pop_front();
    if (result < 0) {
        errno = -result;
        return -1;
    }
    return result;
}

static void test_charge_budget(long* budget_us, struct timeval* start) {
    if (charges.empty()) {
        charge_budget(budget_us, start);
        return;
    }
    *budget_us -= charges.front();
    charges.pop_front();
}

/* False, with errno, when the call has to fail. */
static bool passes(std::deque<int>& errors) {
    int error = 0;
    if (!errors.empty()) {
        error = errors.front();
        errors.pop_front();
    }
    errno = error;
    return error == 0;
}

static ssize_t test_read(int fd, void* room, size_t size) {
    EXPECT_EQ(4095u, size);
    reads_before_silence -= reads_before_silence > 0;
    if (!passes(read_errors)) {
        return -1;
    }
    if (!read_sizes.empty()) {
        size = std::min(size, read_sizes.front());
        read_sizes.pop_front();
    }
    return read(fd, room, size);
}

static ssize_t test_send(int fd, const void* data, size_t size, int flags) {
    return passes(send_errors) ? send(fd, data, size, flags) : -1;
}

static char* test_make_http_request(const char* host, const char* url, int method, const char* post,
                                    char* agent, char* user, char* password) {
    return no_request ? nullptr : make_http_request(host, url, method, post, agent, user, password);
}

#define wait_socket test_wait_socket
#define charge_budget test_charge_budget
#define read test_read
#define send test_send
#define make_http_request test_make_http_request
#include "httpmon_exchange.cpp"
#include "stream.cpp"
#undef wait_socket
#undef charge_budget
#undef read
#undef send
#undef make_http_request

/* --------------------------------------------------------------------------------------------- */

using namespace std::string_literals;

static const long SECOND = 1000000;

static int contexts = 0, sessions = 0; /* that the checks have made and not freed */

static void count_tls_objects() {
    lib_SSL_CTX_new = [](const SSL_METHOD* method) {
        contexts++;
        return SSL_CTX_new(method);
    };
    lib_SSL_CTX_free = [](SSL_CTX* context) {
        contexts--;
        SSL_CTX_free(context);
    };
    lib_SSL_new = [](SSL_CTX* context) {
        sessions++;
        return SSL_new(context);
    };
    lib_SSL_free = [](SSL* session) {
        sessions--;
        SSL_free(session);
    };
}

class process_set_up : public testing::Environment {
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(1, init_ssl_variables());
        count_tls_objects();
        take_log();
    }
};
static testing::Environment* const set_up = testing::AddGlobalTestEnvironment(new process_set_up);

/* Every test ends with as many descriptors as it began with, and without TLS objects. */
class http_exchange : public testing::Test {
protected:
    void SetUp() override {
        take_log();
        descriptors_ = count_descriptors();
        waits = 0;
        wait_events.clear();
        longest_patience = 0;
    }
    void TearDown() override {
        wait_results.clear();
        charges.clear();
        read_errors.clear();
        send_errors.clear();
        read_sizes.clear();
        reads_before_silence = -1;
        no_request = false;
        EXPECT_EQ(descriptors_, count_descriptors());
        EXPECT_EQ(0, contexts);
        EXPECT_EQ(0, sessions);
    }

private:
    int descriptors_ = 0;
};

/* The texts logged at level 0, one per line. */
static std::string errors_logged() {
    std::string all;
    for (const logged_line& line : take_log()) {
        all += line.level == 0 ? line.text + "\n" : "";
    }
    return all;
}

/* --- whole checks ---------------------------------------------------------------------------- */

struct options {
    std::string url = "/page";
    int ssl = 0, redirect = 0, full = 0, found = 1, method = 0;
    const char* match = nullptr;
    const char* post = nullptr;
    const char* user = nullptr;
    const char* password = nullptr;
    std::string timeout = "20";
    std::string host = "127.0.0.1";
};

struct outcome {
    int status = 0, code = 0, header = 0, content = 0;
    std::string info = {};
    bool operator==(const outcome&) const = default;
};

static std::ostream& operator<<(std::ostream& out, const outcome& o) {
    return out << "status " << o.status << ", code " << o.code << ", " << o.header << "+"
               << o.content << " bytes: " << o.info;
}

/* The text with its response time, which has three decimals, as "T". */
static std::string without_time(const std::string& info) {
    static const std::string unit = " second response time";
    if (!info.ends_with(unit)) {
        return info;
    }
    size_t end = info.size() - unit.size();
    size_t point = info.rfind('.', end);
    EXPECT_EQ(end - 4, point) << info;
    size_t start = info.find_last_not_of("0123456789", point - 1) + 1;
    return info.substr(0, start) + "T";
}

/* The text with every number behind one of these labels as "#". */
static std::string without_numbers(std::string text, std::initializer_list<const char*> labels) {
    for (const std::string label : labels) {
        for (size_t at = 0; (at = text.find(label, at)) != std::string::npos;) {
            at += label.size();
            text.replace(at, text.find_first_not_of("0123456789.", at) - at, "#");
        }
    }
    return text;
}

/* Of the last check: its text, and its time in milliseconds. */
static std::string last_info;
static float last_spent;

/* The outcome with its time as "T". */
static outcome check(const std::string& port, const options& o = {}) {
    auto text = [](const char* t) { return const_cast<char*>(t); };
    aHost test = {};
    test.id = 7;
    test.loc_id = 8;
    test.host = text(o.host.c_str());
    test.uri = text(o.url.c_str());
    test.port = text(port.c_str());
    test.tout = text(o.timeout.c_str());
    test.mutch = text(o.match);
    test.post = text(o.post);
    test.user = text(o.user);
    test.pass = text(o.password);
    test.isSSL = o.ssl;
    test.Redirect = o.redirect;
    test.loadFullPage = o.full;
    test.mustbefound = o.found;
    test.method = o.method;
    std::unique_ptr<char[]> info(new char[ADD_INFO_SIZE]());
    strcpy(info.get(), "old text");
    heap<com_result> r(make_http_check(&test, info.get()));
    last_info = info.get();
    last_spent = r->spentTime;
    EXPECT_EQ(7, r->tid);
    EXPECT_EQ(8, r->loc_id);
    EXPECT_GE(r->spentTime, 0);
    EXPECT_LT(r->spentTime, 30000);
    return {r->newStatus, r->rsp_code, r->header_size, r->content_length, without_time(info.get())};
}

using conversation = tls_peer::conversation;

static conversation answering(const std::string& response) {
    return {peer::take_request(), peer::send(response), peer::end_clean()};
}

static outcome check_answer(const std::string& response, const options& o = {}) {
    tls_peer server(o.ssl ? tls_peer::tls : tls_peer::tcp, {answering(response)});
    return check(server.port(), o);
}

static const char OK_HEADER[] = "HTTP/1.1 200 OK\r\nServer: x\r\n\r\n";
static const int OK_SIZE = sizeof OK_HEADER - 1;
static const char OK_TEXT[] = "HTTP OK HTTP/1.1 200 OK - T";

TEST_F(http_exchange, a_page) {
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 4, OK_TEXT}), check_answer(OK_HEADER + "body"s));
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 0, OK_TEXT}), check_answer(OK_HEADER));
    EXPECT_EQ((outcome{0, 200, 17, 2, OK_TEXT}), check_answer("HTTP/1.1 200 OK\n\nab"));
}

TEST_F(http_exchange, a_page_over_tls) {
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 4, OK_TEXT}),
              check_answer(OK_HEADER + "body"s, {.ssl = 1}));
}

TEST_F(http_exchange, what_the_server_sees) {
    tls_peer server(tls_peer::tcp, {answering(OK_HEADER)});
    check(server.port(),
          {.url = "/p?q=1", .method = 1, .post = "a=b", .user = "u", .password = "p"});
    EXPECT_EQ("POST /p?q=1 HTTP/1.0\r\nUser-Agent: (null)\r\nConnection: close\r\n"
              "Host: 127.0.0.1\r\nAuthorization: Basic dTpw\r\n"
              "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 3\r\n\r\na=b",
              server.request(0));
}

TEST_F(http_exchange, a_tls_session_is_closed_in_order) {
    tls_peer server(tls_peer::tls, {{peer::take_request(),
                                     peer::send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nab"),
                                     peer::take_rest()}});
    EXPECT_EQ((outcome{0, 200, 38, 2, OK_TEXT}), check(server.port(), {.ssl = 1, .full = 1}));
    EXPECT_TRUE(server.await_end());
    EXPECT_EQ(1, server.clean_client_ends());
}

TEST_F(http_exchange, the_log_of_a_check) {
    tls_peer server(tls_peer::tcp, {answering(OK_HEADER)});
    check(server.port(), {.full = 1, .match = "x"});
    std::string log = take_log_text();
    EXPECT_EQ("5 connecting...\nhost:\t127.0.0.1\nurl:\t/page\nport:\t"s + server.port() +
                  "\nmutch:\tx\n\n\n"
                  "5 Connected!\ntime spent:\t#\ntime  left:\t#\n\n\n"
                  "5 Sending request:\n\n"
                  "*************************************************************\n\n"
                  "GET /page HTTP/1.0\r\nUser-Agent: (null)\r\nConnection: close\r\n"
                  "Host: 127.0.0.1\r\n\r\n\n\n"
                  "*************************************************************\n\n\n"
                  "5 Request Sent!\ntime spent:\t#\ntime left:\t#\n\n\n"
                  "5 Starting receive...\n",
              without_numbers(log, {"spent:\t", "left:\t"}));
    check(closed_port());
    EXPECT_NE(std::string::npos, take_log_text().find("\nmutch:\t\n\n\n"));
}

/* A send that takes 1.5 seconds of the 20, and the same time in all units. */
TEST_F(http_exchange, the_time_of_a_check) {
    charges = {1500000};
    tls_peer server(tls_peer::tcp, {answering(OK_HEADER)});
    check(server.port());
    EXPECT_GE(last_spent, 1500);
    EXPECT_LT(last_spent, 15000);
    float seconds = 0;
    ASSERT_EQ(1, sscanf(last_info.c_str(), "HTTP OK HTTP/1.1 200 OK - %f second", &seconds));
    EXPECT_NEAR(last_spent / 1000, seconds, 0.002);

    std::string log = take_log_text();
    size_t sent = log.find("Request Sent!");
    ASSERT_NE(std::string::npos, sent);
    long left = 0;
    ASSERT_EQ(
        2, sscanf(&log[sent], "Request Sent!\ntime spent:\t%f\ntime left:\t%ld", &seconds, &left));
    EXPECT_GE(seconds, 1.5);
    EXPECT_NEAR(20, seconds + static_cast<float>(left) / 1000000, 0.002);
}

TEST_F(http_exchange, codes_that_are_good_and_codes_that_are_not) {
    for (const char* code : {"100", "199", "200", "299", "300", "302", "399", "401", "403"}) {
        std::string line = "HTTP/1.0 "s + code + " x";
        EXPECT_EQ((outcome{0, atoi(code), 18, 1, "HTTP OK " + line + " - T"}),
                  check_answer(line + "\r\n\r\nb"));
    }
    for (const char* code : {"001", "099", "400", "402", "404", "500", "503", "999"}) {
        std::string line = "HTTP/1.0 "s + code + " x";
        EXPECT_EQ((outcome{2, atoi(code), 18, 1, "HTTP CRITICAL " + line + " - T"}),
                  check_answer(line + "\r\n\r\nb"));
    }
}

TEST_F(http_exchange, status_lines_of_bad_shape) {
    EXPECT_EQ((outcome{2, 0, 19, 0, "HTTP CRITICAL Invalid Status code (HTTP/1.1 2000 OK)"}),
              check_answer("HTTP/1.1 2000 OK\n\r\n"));
    EXPECT_EQ((outcome{2, 0, 12, 1, "HTTP CRITICAL Invalid Status Line (HTTP/1.1)"}),
              check_answer("HTTP/1.1\r\n\r\nb"));
    EXPECT_EQ((outcome{2, 0, 0, 0, "HTTP CRITICAL Invalid Status Line ()"}), check_answer(""));
    EXPECT_EQ((outcome{2, 0, 4, 3, "HTTP CRITICAL Invalid Status Line ()"}),
              check_answer("\r\n\r\n200"));
    EXPECT_EQ((outcome{2, 0, 0, 9, "HTTP CRITICAL Invalid Status Line (no-header)"}),
              check_answer("no-header"));
    EXPECT_EQ((outcome{2, 0, 0, 300,
                       "HTTP CRITICAL Invalid Status Line (" + std::string(255, 'x') + ")"}),
              check_answer(std::string(300, 'x')));
    EXPECT_EQ((outcome{2, 0, 21, 1, ""}), check_answer("HTTP/1.1 000 OK\r\nA:\n\n\n"s));
}

TEST_F(http_exchange, a_response_without_an_end_of_its_headers_is_all_body) {
    EXPECT_EQ((outcome{0, 200, 0, 23, OK_TEXT}), check_answer("HTTP/1.1 200 OK\r\nA: b\r\n"));
    EXPECT_EQ((outcome{0, 200, 0, 23, OK_TEXT}),
              check_answer("HTTP/1.1 200 OK\r\nA: b\r\n", {.full = 1, .match = "A: b"}));
}

TEST_F(http_exchange, the_body_ends_at_its_first_nul) {
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 2, OK_TEXT}), check_answer(OK_HEADER + "ab\0cd"s));
    EXPECT_EQ((outcome{2, 200, OK_SIZE, 2, "HTTP CRITICAL - string not found"}),
              check_answer(OK_HEADER + "ab\0cd"s, {.full = 1, .match = "cd"}));
}

/* --- the content match ----------------------------------------------------------------------- */

TEST_F(http_exchange, the_text_must_or_must_not_be_found) {
    const std::string page = OK_HEADER + "some text"s;
    const outcome good = {0, 200, OK_SIZE, 9, OK_TEXT};
    EXPECT_EQ(good, check_answer(page, {.full = 1, .found = 1, .match = "e t"}));
    EXPECT_EQ(good, check_answer(page, {.full = 1, .found = 0, .match = "other"}));
    EXPECT_EQ((outcome{2, 200, OK_SIZE, 9, "HTTP CRITICAL - string not found"}),
              check_answer(page, {.full = 1, .found = 1, .match = "Some"}));
    EXPECT_EQ((outcome{2, 200, OK_SIZE, 9, "HTTP CRITICAL - string found"}),
              check_answer(page, {.full = 1, .found = 0, .match = "some text"}));
}

TEST_F(http_exchange, headers_are_not_searched) {
    EXPECT_EQ((outcome{2, 200, OK_SIZE, 1, "HTTP CRITICAL - string not found"}),
              check_answer(OK_HEADER + "b"s, {.full = 1, .match = "Server"}));
}

TEST_F(http_exchange, without_the_full_page_nothing_is_searched) {
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 1, OK_TEXT}),
              check_answer(OK_HEADER + "b"s, {.full = 0, .match = "missing"}));
}

TEST_F(http_exchange, a_bad_code_is_not_searched) {
    EXPECT_EQ((outcome{2, 404, 25, 1, "HTTP CRITICAL HTTP/1.1 404 Not here - T"}),
              check_answer("HTTP/1.1 404 Not here\r\n\r\nb", {.full = 1, .match = "missing"}));
    EXPECT_EQ((outcome{2, 403, 22, 1, "HTTP CRITICAL - string not found"}),
              check_answer("HTTP/1.1 403 Denied\n\r\nb", {.full = 1, .match = "missing"}));
}

/* --- connecting ------------------------------------------------------------------------------ */

TEST_F(http_exchange, nobody_listens) {
    EXPECT_EQ((outcome{2, 0, 0, 0, "Connection Failed."}), check(closed_port()));
    EXPECT_EQ("Error in delayed connection() 111 - Connection refused\n", errors_logged());
}

TEST_F(http_exchange, a_host_that_cannot_be_resolved) {
    EXPECT_EQ((outcome{2, 0, 0, 0, "Host: ::1 Error: Address family for hostname not supported"}),
              check("80", {.host = "::1"}));
    EXPECT_EQ("Host: ::1 Error: Address family for hostname not supported\n", errors_logged());
}

TEST_F(http_exchange, long_texts_are_cut) {
    std::string host(5000, 'h');
    outcome o = check("80", {.host = host});
    EXPECT_EQ("Host: " + host.substr(0, 4089), o.info);
}

TEST_F(http_exchange, no_answer_to_the_connect) {
    full_listener server;
    char info[ADD_INFO_SIZE] = "";
    long budget = SECOND / 50;
    EXPECT_EQ(-1, make_connection("127.0.0.1", server.port(), &budget, info));
    EXPECT_STREQ("Connection to host: \"127.0.0.1\" timed out after 0 seconds", info);
    EXPECT_EQ("Connection to host: \"127.0.0.1\" timed out after 0 seconds\n", errors_logged());
    EXPECT_LT(budget, 1);
}

TEST_F(http_exchange, a_time_out_that_is_no_number_gives_no_time_at_all) {
    full_listener server;
    EXPECT_EQ((outcome{2, 0, 0, 0, "Connection to host: \"127.0.0.1\" timed out after 0 seconds"}),
              check(server.port(), {.timeout = "ten"}));
    EXPECT_EQ((outcome{2, 0, 0, 0, "Connection to host: \"127.0.0.1\" timed out after -5 seconds"}),
              check(server.port(), {.timeout = "-5"}));
    tls_peer quick(tls_peer::tcp, {{peer::take_rest()}});
    outcome o = check(quick.port(), {.timeout = ""});
    EXPECT_EQ(2, o.status);
    EXPECT_TRUE(o.info == "Connection timed out." || /* the connect was done at once */
                o.info == "Connection to host: \"127.0.0.1\" timed out after 0 seconds")
        << o;
}

TEST_F(http_exchange, budgets_beyond_all_measure) {
    EXPECT_EQ(10 * SECOND, time_budget("10"));
    EXPECT_EQ(5 * SECOND, time_budget(" 5x"));
    EXPECT_EQ(10 * SECOND, time_budget("010"));
    EXPECT_EQ(0, time_budget("ten"));
    EXPECT_EQ(9223372036854L * SECOND, time_budget("99999999999999999999"));
    EXPECT_EQ(-9223372036854L * SECOND, time_budget("-99999999999999999999"));
    for (const char* timeout : {"9223372036854775807", "9223372036854"}) {
        tls_peer server(tls_peer::tcp, {answering(OK_HEADER)});
        EXPECT_EQ(0, check(server.port(), {.timeout = timeout}).status);
    }
}

TEST_F(http_exchange, no_descriptor_left) {
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    outcome o = check("80");
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ((outcome{2, 0, 0, 0, "Connection Failed."}), o);
    EXPECT_EQ("Error creating socket (24 Too many open files)\n\n", errors_logged());
}

TEST_F(http_exchange, descriptors_above_1023) {
    unique_fd high(fcntl(0, F_DUPFD_CLOEXEC, 1500));
    if (!high) {
        GTEST_SKIP() << "descriptors above 1023 are not to be had";
    }
    std::vector<unique_fd> filler;
    while (filler.empty() || filler.back().get() < 1100) {
        filler.emplace_back(dup(0));
        ASSERT_TRUE(filler.back());
    }
    for (int ssl : {0, 1}) {
        EXPECT_EQ((outcome{0, 200, OK_SIZE, 4, OK_TEXT}),
                  check_answer(OK_HEADER + "body"s, {.ssl = ssl}));
    }
}

/* --- redirections ---------------------------------------------------------------------------- */

static std::string redirect(const std::string& location) {
    return "HTTP/1.1 302 Found\r\nLocation: " + location + "\r\n\r\n";
}

TEST_F(http_exchange, redirections_of_all_shapes) {
    tls_peer plain(tls_peer::tcp, {answering(OK_HEADER + "end"s)});
    tls_peer secure(tls_peer::tls, {answering(redirect("http://127.0.0.1:"s + plain.port()))});
    tls_peer first(tls_peer::tcp,
                   {answering(redirect("/a/b")), answering(redirect("c?d=1")),
                    answering(redirect("https://127.0.0.1:"s + secure.port() + "/e"))});
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 3, OK_TEXT}), check(first.port(), {.redirect = 1}));
    EXPECT_TRUE(first.request(0).starts_with("GET /page HTTP/1.0\r\n"));
    EXPECT_TRUE(first.request(1).starts_with("GET /a/b HTTP/1.0\r\n"));
    EXPECT_TRUE(first.request(2).starts_with("GET /a/c?d=1 HTTP/1.0\r\n"));
    EXPECT_TRUE(secure.request(0).starts_with("GET /e HTTP/1.0\r\n"));
    EXPECT_TRUE(plain.request(0).starts_with("GET / HTTP/1.0\r\n"));
}

TEST_F(http_exchange, a_redirection_is_good_when_it_is_not_followed) {
    EXPECT_EQ((outcome{0, 302, 36, 0, "HTTP OK HTTP/1.1 302 Found - T"}),
              check_answer(redirect("/x")));
}

TEST_F(http_exchange, codes_from_300_to_399_are_followed) {
    for (const char* code : {"299", "300", "399", "400"}) {
        std::string head = "HTTP/1.1 "s + code + " x\r\nLocation: /x\r\n\r\n";
        tls_peer server(tls_peer::tcp, {answering(head), answering(OK_HEADER)});
        EXPECT_EQ(code[0] == '3' ? 200 : atoi(code), check(server.port(), {.redirect = 1}).code);
    }
}

TEST_F(http_exchange, the_request_is_repeated_as_it_was) {
    tls_peer server(tls_peer::tcp, {answering(redirect("/x")), answering(OK_HEADER)});
    check(server.port(), {.redirect = 1, .method = 1, .post = "a=b", .user = "u", .password = "p"});
    EXPECT_EQ("POST /x HTTP/1.0\r\nUser-Agent: (null)\r\nConnection: close\r\n"
              "Host: 127.0.0.1\r\nAuthorization: Basic dTpw\r\n"
              "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 3\r\n\r\na=b",
              server.request(1));
}

TEST_F(http_exchange, the_request_names_the_host_it_goes_to) {
    tls_peer second(tls_peer::tcp, {answering(OK_HEADER)});
    EXPECT_EQ(200, check_answer(redirect("http://127.1:"s + second.port()), {.redirect = 1}).code);
    EXPECT_EQ("GET / HTTP/1.0\r\nUser-Agent: (null)\r\nConnection: close\r\nHost: 127.1\r\n\r\n",
              second.request(0));
}

TEST_F(http_exchange, a_loop) {
    tls_peer server(tls_peer::tcp, {answering(redirect("/page"))});
    EXPECT_EQ((outcome{2, 302, 39, 0,
                       "HTTP WARNING - redirection creates an infinite loop - http://127.0.0.1:"s +
                           server.port() + "/page\n"}),
              check(server.port(), {.redirect = 1}));
    tls_peer secure(tls_peer::tls, {answering(redirect("page"))});
    EXPECT_EQ((outcome{2, 302, 38, 0,
                       "HTTP WARNING - redirection creates an infinite loop - https://127.0.0.1:"s +
                           secure.port() + "/page\n"}),
              check(secure.port(), {.url = "page", .ssl = 1, .redirect = 1}));
}

TEST_F(http_exchange, locations_that_lead_nowhere) {
    tls_peer server(tls_peer::tcp, {answering(redirect("http://127.0.0.1:70000/")),
                                    answering("HTTP/1.1 301 Moved\r\nLocation: /x\r\n"),
                                    answering("HTTP/1.1 301 Moved\r\n\r\n"),
                                    answering(redirect("")), answering(redirect("<x>"))});
    options follow = {.redirect = 1};
    EXPECT_EQ((outcome{2, 302, 57, 0,
                       "HTTP UNKNOWN - Redirection to port above 65535 - http://127.0.0.1:"s +
                           server.port() + "/page"}),
              check(server.port(), follow));
    /* Without an end of the headers there are none. */
    EXPECT_EQ((outcome{2, 301, 0, 34, ""}), check(server.port(), follow));
    EXPECT_EQ((outcome{2, 301, 22, 0,
                       "HTTP UNKNOWN - Could not find redirect location - HTTP/1.1 301 Moved"}),
              check(server.port(), follow));
    EXPECT_EQ((outcome{2, 302, 34, 0, "HTTP UNKNOWN - Empty redirect location"}),
              check(server.port(), follow));
    EXPECT_EQ((outcome{2, 302, 37, 0, "HTTP UNKNOWN - Could not parse redirect location - <x>\n"}),
              check(server.port(), follow));
}

/* `count` redirections, each to the next page, then a page. */
static std::vector<conversation> chain(int count) {
    std::vector<conversation> script;
    for (int i = 0; i < count; i++) {
        script.push_back(answering(redirect("/" + std::to_string(i))));
    }
    script.push_back(answering(OK_HEADER + "end"s));
    return script;
}

TEST_F(http_exchange, sixteen_redirections_are_followed) {
    tls_peer server(tls_peer::tcp, chain(16));
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 3, OK_TEXT}), check(server.port(), {.redirect = 1}));
    EXPECT_TRUE(server.request(16).starts_with("GET /15 "));
}

TEST_F(http_exchange, the_seventeenth_is_not) {
    tls_peer server(tls_peer::tcp, chain(17));
    EXPECT_EQ((outcome{2, 302, 37, 0,
                       "HTTP WARNING - maximum redirection depth 15 exceeded - http://127.0.0.1:"s +
                           server.port() + "/15"}),
              check(server.port(), {.redirect = 1}));
    tls_peer secure(tls_peer::tls, chain(17));
    EXPECT_EQ("HTTP WARNING - maximum redirection depth 15 exceeded - https://127.0.0.1:"s +
                  secure.port() + "/15",
              check(secure.port(), {.ssl = 1, .redirect = 1}).info);
}

TEST_F(http_exchange, a_redirection_to_nobody_leaves_the_figures_of_the_last_response) {
    std::string gone = closed_port();
    tls_peer server(tls_peer::tcp, {answering(redirect("http://127.0.0.1:" + gone) + "body"),
                                    answering(redirect("/x")), answering("")});
    int size = 51 + static_cast<int>(gone.size());
    EXPECT_EQ((outcome{2, 302, size, 4, "Connection Failed."}),
              check(server.port(), {.redirect = 1}));
    EXPECT_EQ((outcome{2, 0, 0, 0, "HTTP CRITICAL Invalid Status Line ()"}),
              check(server.port(), {.redirect = 1}));
}

TEST_F(http_exchange, a_response_that_fails_leaves_of_the_one_before_only_its_code) {
    tls_peer server(tls_peer::tls,
                    {answering(redirect("/x") + "body"),
                     {peer::take_request(), peer::send(OK_HEADER + "b"s), peer::end_dirty()}});
    EXPECT_EQ(
        (outcome{2, 302, OK_SIZE, 1,
                 "HTTP CRITICAL - error:0A000126:SSL routines::unexpected eof while reading"}),
        check(server.port(), {.ssl = 1, .redirect = 1}));
}

TEST_F(http_exchange, redirections_share_one_budget) {
    tls_peer server(tls_peer::tcp, chain(3));
    std::string port = server.port();
    aHost test = {};
    test.Redirect = 1;
    std::unique_ptr<char[]> info(new char[ADD_INFO_SIZE]());
    exchange e{.test = test,
               .info = info.get(),
               .budget_us = 20 * SECOND,
               .host = heap_text(strdup("127.0.0.1")),
               .port = heap_text(strdup(port.c_str())),
               .url = heap_text(strdup("/")),
               .ssl = 0};
    bool again = true;
    for (int turn = 0; turn < 3; turn++) {
        long before = e.left_us;
        EXPECT_EQ(0, take_turn(e, &again));
        EXPECT_TRUE(again);
        EXPECT_LT(e.left_us, before);
    }
    e.left_us = 0;
    EXPECT_EQ(0, take_turn(e, &again));
    EXPECT_FALSE(again);
    EXPECT_NE(nullptr, strstr(info.get(), "timed out"));
}

/* --- TLS ------------------------------------------------------------------------------------- */

/* A library whose functions a test replaces; they come back at its end. */
class http_tls : public http_exchange {
    void TearDown() override {
        lib_SSL_CTX_new = ctx_new_;
        lib_SSL_new = new_;
        lib_SSL_connect = connect_;
        lib_SSL_write = write_;
        lib_SSL_read = read_;
        lib_SSL_get_error = get_error_;
        lib_ERR_get_error = err_get_error_;
        lib_ERR_error_string = err_error_string_;
        http_exchange::TearDown();
    }
    decltype(lib_SSL_CTX_new) ctx_new_ = lib_SSL_CTX_new;
    decltype(lib_SSL_new) new_ = lib_SSL_new;
    decltype(lib_SSL_connect) connect_ = lib_SSL_connect;
    decltype(lib_SSL_write) write_ = lib_SSL_write;
    decltype(lib_SSL_read) read_ = lib_SSL_read;
    decltype(lib_SSL_get_error) get_error_ = lib_SSL_get_error;
    decltype(lib_ERR_get_error) err_get_error_ = lib_ERR_get_error;
    decltype(lib_ERR_error_string) err_error_string_ = lib_ERR_error_string;
};

TEST_F(http_tls, no_context) {
    lib_SSL_CTX_new = [](const SSL_METHOD*) -> SSL_CTX* { return nullptr; };
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_EQ((outcome{2, 0, 0, 0, "CRITICAL - Cannot create SSL context. "}),
              check(server.port(), {.ssl = 1}));
}

TEST_F(http_tls, no_session) {
    lib_SSL_new = [](SSL_CTX*) -> SSL* { return nullptr; };
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_EQ((outcome{2, 0, 0, 0,
                       "CRITICAL - Cannot establish SSL connection. "
                       "error:00000000:lib(0)::reason(0)"}),
              check(server.port(), {.ssl = 1}));
}

TEST_F(http_tls, a_handshake_that_succeeds_otherwise_fails_without_words) {
    lib_SSL_connect = [](SSL*) { return 2; };
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_EQ((outcome{2, 0, 0, 0, ""}), check(server.port(), {.ssl = 1}));
    EXPECT_EQ("", errors_logged()); /* no request is tried */
}

TEST_F(http_tls, a_server_that_speaks_no_tls) {
    tls_peer server(tls_peer::tcp, {{peer::send("HTTP/1.0 400 x\r\n\r\n"), peer::take_rest()}});
    EXPECT_EQ((outcome{2, 0, 0, 0,
                       "CRITICAL - Cannot establish SSL connection. "
                       "error:0A00010B:SSL routines::wrong version number"}),
              check(server.port(), {.ssl = 1}));
}

TEST_F(http_tls, a_server_that_hangs_up_in_the_handshake) {
    tls_peer server(tls_peer::tcp, {{peer::end_dirty()}});
    outcome o = check(server.port(), {.ssl = 1});
    EXPECT_EQ(2, o.status);
    EXPECT_TRUE(o.info.starts_with("CRITICAL - Cannot establish SSL connection. error:")) << o;
}

static std::atomic<int> connects;

/* The check waits on after its time is over, and calls the library only when there is news. */
TEST_F(http_tls, a_server_that_accepts_and_says_nothing_is_waited_for) {
    connects = 0;
    lib_SSL_connect = [](SSL* session) {
        connects++;
        return SSL_connect(session);
    };
    tls_peer server(tls_peer::tcp, {{peer::pause(), peer::end_dirty()}});
    outcome o;
    std::thread checking([&] { o = check(server.port(), {.ssl = 1, .timeout = "1"}); });
    EXPECT_TRUE(server.await_pauses(1));
    while (waits == 0) {
        usleep(1000);
    }
    server.proceed();
    checking.join();
    EXPECT_LE(connects, 3);
    EXPECT_EQ(HANDSHAKE_PATIENCE_US, longest_patience);
    EXPECT_EQ(2, o.status);
    EXPECT_TRUE(o.info.starts_with("CRITICAL - Cannot establish SSL connection. error:")) << o;
}

/* However long the check may take. */
TEST_F(http_tls, a_handshake_has_a_minute) {
    for (const char* timeout : {"20", "60", "100000"}) {
        wait_results = {0};
        waits = 0;
        tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
        EXPECT_EQ(2, check(server.port(), {.ssl = 1, .timeout = timeout}).status);
        EXPECT_EQ(1, waits);
        EXPECT_EQ(60 * SECOND, longest_patience);
    }
}

/* A peer that sends a byte now and then does not begin the minute anew. */
TEST_F(http_tls, all_waits_of_a_handshake_share_the_minute) {
    lib_SSL_connect = [](SSL*) { return -1; };
    lib_SSL_get_error = [](const SSL*, int) { return SSL_ERROR_WANT_READ; };
    socket_pair pair;
    pair.feed("always readable");
    long patience = SECOND / 20;
    stream_outcome shaken =
        stream_shake_hands({pair.ours.get(), nullptr, &patience}, handshake_clock::steady);
    EXPECT_EQ(stream_end::wait_timed_out, shaken.end);
    EXPECT_EQ(-1, shaken.count);
    EXPECT_GT(waits, 1);
    EXPECT_LE(longest_patience, SECOND / 20);
}

TEST_F(http_tls, patience_comes_to_an_end) {
    wait_results = {-EINTR, 0};
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_EQ((outcome{2, 0, 0, 0,
                       "CRITICAL - Cannot establish SSL connection. "
                       "error:00000000:lib(0)::reason(0)"}),
              check(server.port(), {.ssl = 1}));
}

/* A handshake that ends after the budget is none too late; the next step is. */
TEST_F(http_tls, a_handshake_is_charged_but_not_bounded) {
    tls_peer server(tls_peer::tls, {{peer::take_rest()}});
    std::string port = server.port();
    aHost test = {};
    std::unique_ptr<char[]> info(new char[ADD_INFO_SIZE]());
    exchange e{.test = test,
               .info = info.get(),
               .budget_us = SECOND,
               .host = heap_text(strdup("127.0.0.1")),
               .port = heap_text(strdup(port.c_str())),
               .url = heap_text(strdup("/")),
               .ssl = 1};
    stream_connection c;
    long other_budget = 20 * SECOND;
    c.socket.reset(make_connection("127.0.0.1", server.port(), &other_budget, info.get()));
    ASSERT_TRUE(c.socket);
    e.left_us = 1;
    EXPECT_EQ(1, start_tls(e, c));
    EXPECT_LT(e.left_us, 0);
    take_log();
    EXPECT_EQ(0, send_page_request(e, c));
    EXPECT_STREQ("Connection timed out.", info.get());
    EXPECT_EQ("Request failed: Connection timed out.\n\n\n", errors_logged());
}

TEST_F(http_tls, an_old_error_of_the_thread_is_not_taken_for_one_of_the_check) {
    for (int i = 0; i < 5; i++) {
        ERR_put_error(ERR_LIB_SSL, 0, 1, "old", 1);
    }
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 1, OK_TEXT}), check_answer(OK_HEADER + "b"s, {.ssl = 1}));
    for (int i = 0; i < 20; i++) {
        ERR_put_error(ERR_LIB_SSL, 0, 1, "old", 1);
    }
    lib_SSL_new = [](SSL_CTX*) -> SSL* { return nullptr; };
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_EQ("CRITICAL - Cannot establish SSL connection. error:00000000:lib(0)::reason(0)",
              check(server.port(), {.ssl = 1}).info);
}

TEST_F(http_tls, an_end_without_the_closing_alert_is_a_failure) {
    tls_peer server(tls_peer::tls,
                    {{peer::take_request(), peer::send(OK_HEADER + "body"s), peer::end_dirty()}});
    EXPECT_EQ(
        (outcome{2, 0, OK_SIZE, 4,
                 "HTTP CRITICAL - error:0A000126:SSL routines::unexpected eof while reading"}),
        check(server.port(), {.ssl = 1}));
    EXPECT_EQ("error:0A000126:SSL routines::unexpected eof while reading\n", errors_logged());
}

TEST_F(http_tls, unless_the_page_is_complete) {
    tls_peer server(tls_peer::tls, {{peer::take_request(),
                                     peer::send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody"),
                                     peer::end_dirty()}});
    EXPECT_EQ((outcome{0, 200, 38, 4, OK_TEXT}), check(server.port(), {.ssl = 1, .full = 1}));
}

static std::atomic<int> chunks_read;

TEST_F(http_tls, a_reset) {
    chunks_read = 0;
    lib_SSL_read = [](SSL* session, void* room, int size) {
        int got = SSL_read(session, room, size);
        chunks_read += got > 0;
        return got;
    };
    tls_peer server(tls_peer::tls,
                    {{peer::take_request(), peer::send(OK_HEADER), peer::pause(), peer::reset()}});
    outcome o;
    std::thread checking([&] { o = check(server.port(), {.ssl = 1}); });
    EXPECT_TRUE(server.await_pauses(1));
    while (chunks_read == 0) {
        usleep(1000);
    }
    server.proceed();
    checking.join();
    EXPECT_EQ((outcome{2, 0, OK_SIZE, 0, "HTTP CRITICAL - error:00000000:lib(0)::reason(0)"}), o);
}

TEST_F(http_tls, large_pages) {
    for (int size : {4094, 4095, 4096, 8190, 16384, 16385, 1000000}) {
        std::string body(static_cast<size_t>(size), 'x');
        EXPECT_EQ((outcome{0, 200, OK_SIZE, size, OK_TEXT}),
                  check_answer(OK_HEADER + body, {.ssl = 1}));
    }
}

/* A record is larger than a read: what is left of it lies in the session, and the peer, who waits
 * for us, sends nothing that would show on the socket. */
TEST_F(http_tls, the_rest_of_a_record_is_not_waited_for) {
    std::string response =
        "HTTP/1.1 200 OK\r\nContent-Length: 10000\r\n\r\n" + std::string(10000, 'x');
    tls_peer server(tls_peer::tls,
                    {{peer::take_request(), peer::send(response), peer::take_rest()}});
    EXPECT_EQ((outcome{0, 200, 42, 10000, OK_TEXT}), check(server.port(), {.ssl = 1, .full = 1}));
}

/* --- sending --------------------------------------------------------------------------------- */

static char step_info[ADD_INFO_SIZE];

static int send_text(int sk, const std::string& text, long budget = 10 * SECOND,
                     SSL* session = nullptr) {
    strcpy(step_info, "old text");
    return send_request(sk, text.data(), text.size(), &budget, step_info, session);
}

TEST_F(http_exchange, sends_in_as_many_pieces_as_it_takes) {
    socket_pair pair;
    std::string text(3000000, 'x'), received;
    for (size_t i = 0; i < text.size(); i++) {
        text[i] = static_cast<char>(i % 251);
    }
    std::thread reader([&] {
        char room[4096];
        for (ssize_t got; (got = read(pair.theirs.get(), room, sizeof room)) > 0;) {
            received.append(room, static_cast<size_t>(got));
        }
    });
    send_errors = {EAGAIN, 0, EAGAIN};
    long budget = 10 * SECOND;
    EXPECT_EQ(1,
              send_request(pair.ours.get(), text.data(), text.size(), &budget, step_info, nullptr));
    EXPECT_LT(budget, 10 * SECOND);
    EXPECT_STREQ("", step_info);
    pair.ours.reset();
    reader.join();
    EXPECT_TRUE(text == received);
}

TEST_F(http_exchange, sending_to_somebody_who_takes_nothing) {
    socket_pair pair;
    std::string block(65536, 'x');
    while (write(pair.ours.get(), block.data(), block.size()) > 0) {
    }
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", SECOND / 50));
    EXPECT_STREQ("Connection timed out.", step_info);
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_exchange, a_budget_that_ends_with_the_send_is_a_failure) {
    socket_pair pair;
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", 0));
    EXPECT_STREQ("Connection timed out.", step_info);
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", -1));
    EXPECT_STREQ("Connection timed out.", step_info);
}

/* The last microsecond is still inside. */
TEST_F(http_exchange, a_send_is_charged) {
    socket_pair pair;
    wait_results = {1, 1};
    charges = {999, 1000};
    EXPECT_EQ(1, send_text(pair.ours.get(), "x", 1000));
    EXPECT_STREQ("", step_info);
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", 1000));
    EXPECT_STREQ("Connection timed out.", step_info);
}

TEST_F(http_exchange, a_failed_send_has_no_words) {
    socket_pair pair;
    pair.theirs.reset();
    EXPECT_EQ(0, send_text(pair.ours.get(), "x"));
    EXPECT_STREQ("", step_info);
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_exchange, a_failed_wait_to_send_is_logged) {
    socket_pair pair;
    wait_results = {-ENOMEM};
    EXPECT_EQ(0, send_text(pair.ours.get(), "x"));
    EXPECT_STREQ("", step_info);
    EXPECT_EQ("0 Error 12 - Cannot allocate memory\n", take_log_text());
    wait_results = {-EINTR};
    EXPECT_EQ(1, send_text(pair.ours.get(), "x"));
}

TEST_F(http_exchange, a_failed_send_ends_the_check) {
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    send_errors = {EPIPE};
    EXPECT_EQ((outcome{2, 0, 0, 0, ""}), check(server.port()));
    EXPECT_EQ("Request failed: \n\n\n", errors_logged());
}

TEST_F(http_exchange, no_memory_for_the_request) {
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    no_request = true;
    EXPECT_EQ((outcome{2, 0, 0, 0, ""}), check(server.port()));
    EXPECT_EQ("make_http_request FAILED!!!\n", errors_logged());
}

/* --- a TLS session that plays a script -------------------------------------------------------- */

class http_fake_tls : public http_tls {
    scripted_tls played_;
};

static int send_tls_text(const std::string& text, std::vector<tls_step> script,
                         long budget = SECOND) {
    socket_pair pair;
    tls_script = std::move(script);
    tls_calls = 0;
    return send_text(pair.ours.get(), text, budget, fake_session);
}

TEST_F(http_fake_tls, written_is_what_is_more_than_one_byte) {
    EXPECT_EQ(1, send_tls_text("request", {{7, 0}}));
    EXPECT_EQ("5 SSL_write: retV = 0 ret = 7\n", take_log_text());
    EXPECT_EQ(0, send_tls_text("x", {{1, 0}}));
    EXPECT_EQ("5 SSL_write: retV = 0 ret = 1\n", take_log_text());
    EXPECT_STREQ("", step_info);
}

TEST_F(http_fake_tls, a_write_is_repeated_while_the_session_wants_the_socket) {
    wait_results = {1, 1, 1};
    EXPECT_EQ(1, send_tls_text("request",
                               {{-1, SSL_ERROR_WANT_WRITE}, {-1, SSL_ERROR_WANT_READ}, {7, 0}}));
    EXPECT_EQ(3u, tls_calls);
    EXPECT_EQ((std::vector<short>{POLLOUT, POLLOUT, POLLIN}), wait_events);
}

TEST_F(http_fake_tls, a_session_that_waits_in_vain_does_not_spin) {
    EXPECT_EQ(0, send_tls_text("request", {{-1, SSL_ERROR_WANT_READ}}, SECOND / 50));
    EXPECT_STREQ("Connection timed out.", step_info);
    EXPECT_LE(tls_calls, 2u);
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_fake_tls, a_write_that_ends_after_the_budget_has_still_gone_out) {
    EXPECT_EQ(1, send_tls_text("request", {{7, 0}}, 0));
    EXPECT_STREQ("Connection timed out.", step_info);
    EXPECT_EQ(0, send_tls_text("x", {{1, 0}}, 0));
    EXPECT_STREQ("Connection timed out.", step_info);
    EXPECT_EQ(0, send_tls_text("request", {{7, 0}}, -1));
    EXPECT_EQ(0u, tls_calls);
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_fake_tls, a_write_is_charged) {
    wait_results = {1, 1};
    charges = {999, 1000};
    EXPECT_EQ(1, send_tls_text("request", {{7, 0}}, 1000));
    EXPECT_STREQ("", step_info);
    EXPECT_EQ(1, send_tls_text("request", {{7, 0}}, 1000));
    EXPECT_STREQ("Connection timed out.", step_info);
}

TEST_F(http_fake_tls, a_write_that_fails) {
    const tls_step errors[] = {{0, SSL_ERROR_ZERO_RETURN},
                               {0, SSL_ERROR_SYSCALL},
                               {-1, SSL_ERROR_SYSCALL},
                               {-1, SSL_ERROR_SSL}};
    for (const tls_step& error : errors) {
        EXPECT_EQ(0, send_tls_text("request", {error}));
        EXPECT_EQ("5 SSL_write: retV = " + std::to_string(error.code) +
                      " ret = " + std::to_string(error.result) + "\n",
                  take_log_text());
        EXPECT_STREQ("", step_info);
    }
}

/* --- receiving ------------------------------------------------------------------------------- */

struct received {
    int result = 0, header = 0;
    std::string data = {}, info = {};
    bool operator==(const received&) const = default;
};

static std::ostream& operator<<(std::ostream& out, const received& r) {
    return out << r.result << " " << r.header << " \"" << r.data << "\" [" << r.info << "]";
}

static received receive(int sk, int full, long budget = 10 * SECOND, SSL* session = nullptr) {
    strcpy(step_info, "old text");
    char* data = step_info;
    int header = -1;
    int result =
        receive_response(sk, 10 * SECOND, &budget, step_info, full, &data, &header, session);
    EXPECT_NE(step_info, data);
    EXPECT_TRUE(result == 0 || data != nullptr);
    heap_text held(data);
    return {result, header, held ? data : "", step_info};
}

/* Of a peer that sends this and hangs up. */
static received receive_all(const std::string& response, int full) {
    socket_pair pair;
    pair.feed(response);
    pair.theirs.reset();
    return receive(pair.ours.get(), full);
}

/* Of a peer that sends this and waits. */
static received receive_open(const std::string& response, int full, long budget = SECOND / 50) {
    socket_pair pair;
    pair.feed(response);
    return receive(pair.ours.get(), full, budget);
}

/* Of a peer that sends this and is never heard of again. */
static received receive_stalled(const std::string& response, int full) {
    reads_before_silence = 1;
    return receive_open(response, full, 10 * SECOND);
}

/* With what had come until then. */
static received timed_out_after(const std::string& data, int header = 0) {
    return {0, header, data, "HTTP CRITICAL - Connection timed out."};
}

TEST_F(http_exchange, the_end_of_the_header_in_every_split) {
    for (const std::string& end : {"\r\n\r\n"s, "\n\n"s, "\n\r\n"s}) {
        std::string header = "HTTP/1.0 200 OK\r\nContent-Length: 3" + end;
        std::string response = header + "abc";
        int size = static_cast<int>(header.size());
        for (size_t first = 1; first < response.size(); first++) {
            for (size_t second : {1u, 2u, 3u}) {
                for (int full : {0, 1}) {
                    read_sizes = {first, second};
                    EXPECT_EQ((received{1, size, response, ""}), receive_all(response, full))
                        << first << " " << second << " " << full;
                }
                read_sizes = {first, second};
                EXPECT_EQ((received{1, size, response, ""}), receive_open(response, 1, 10 * SECOND))
                    << first << " " << second;
            }
        }
    }
}

TEST_F(http_exchange, byte_by_byte) {
    std::string response = "HTTP/1.0 200 OK\r\nContent-Length: 3\r\n\r\nabc";
    read_sizes.assign(response.size(), 1);
    EXPECT_EQ((received{1, 38, response, ""}), receive_open(response, 1, 10 * SECOND));
}

/* Reads that leave room for one more, but not for the NUL behind it. */
TEST_F(http_exchange, the_nul_behind_the_data_has_a_place_of_its_own) {
    for (size_t first : {1u, 2u, 4094u, 4095u}) {
        std::string response(20000, 'x');
        read_sizes = {first};
        EXPECT_EQ((received{1, 0, response, ""}), receive_all(response, 0));
    }
}

TEST_F(http_exchange, content_headers_add_up) {
    std::string header = "HTTP/1.0 200 OK\r\nContent-Length: 3\r\nContent-Type: 2/x\r\n\r\n";
    EXPECT_EQ((received{1, 57, header + "abcde", ""}),
              receive_open(header + "abcde", 1, 10 * SECOND));
    EXPECT_EQ(timed_out_after(header + "abc", 57), receive_stalled(header + "abc", 1));
    reads_before_silence = -1;
    EXPECT_EQ((received{1, 57, header + "abc", ""}), receive_all(header + "abc", 1));
}

TEST_F(http_exchange, more_than_announced_is_read_to_the_end) {
    std::string response = "HTTP/1.0 200 OK\r\nContent-Length: 3\r\n\r\nabcd";
    EXPECT_EQ(timed_out_after(response, 38), receive_stalled(response, 1));
    reads_before_silence = -1;
    EXPECT_EQ((received{1, 38, response, ""}), receive_all(response, 1));
}

/* Without the full page nobody looks at the length: only the end of the stream ends it. */
TEST_F(http_exchange, a_check_without_full_page_reads_to_the_end) {
    std::string response = "HTTP/1.0 200 OK\r\nContent-Length: 3\r\n\r\nabc";
    EXPECT_EQ(timed_out_after(response, 38), receive_stalled(response, 0));
    reads_before_silence = -1;
    EXPECT_EQ((received{1, 38, response, ""}), receive_all(response, 0));
}

/* Headers that announce nothing announce no body: they end the page when they come alone. */
TEST_F(http_exchange, a_full_page_without_a_length_may_end_behind_its_headers) {
    for (const char* length : {"", "Content-Length: 0\r\n", "Content-Type: text/html\r\n"}) {
        std::string header = "HTTP/1.0 200 OK\r\n"s + length + "\r\n";
        int size = static_cast<int>(header.size());
        EXPECT_EQ((received{1, size, header, ""}), receive_open(header, 1, 10 * SECOND));
        read_sizes = {header.size()};
        EXPECT_EQ((received{1, size, header, ""}), receive_all(header + "body", 1));
        EXPECT_EQ((received{1, size, header + "body", ""}), receive_all(header + "body", 1));
        read_sizes = {header.size() - 1};
        EXPECT_EQ((received{1, size, header + "body", ""}), receive_all(header + "body", 1));
    }
}

TEST_F(http_exchange, lengths_that_cannot_be_reached) {
    for (const char* length : {"-3", "-40", "9223372036854775806", "4294967299"}) {
        std::string response = "HTTP/1.0 200 OK\r\nContent-Length: "s + length + "\r\n\r\nabc";
        EXPECT_EQ((received{1, static_cast<int>(response.size()) - 3, response, ""}),
                  receive_all(response, 1));
    }
}

TEST_F(http_exchange, nothing_at_all) {
    EXPECT_EQ((received{1, 0, "", ""}), receive_all("", 0));
    EXPECT_EQ((received{1, 0, "", ""}), receive_all("", 1));
    EXPECT_EQ(timed_out_after(""), receive_open("", 0));
    EXPECT_EQ(timed_out_after(""), receive_open("", 0, -1));
    EXPECT_EQ(timed_out_after(""), receive_open("abc", 0, 0)); /* the read takes longer */
}

TEST_F(http_exchange, a_read_is_charged) {
    for (long last : {999, 1000}) {
        socket_pair pair;
        pair.feed("abc");
        pair.theirs.reset();
        wait_results = {1, 1};
        charges = {0, last};
        EXPECT_EQ(last == 999 ? (received{1, 0, "abc", ""}) : timed_out_after("abc"),
                  receive(pair.ours.get(), 0, 1000));
    }
}

TEST_F(http_exchange, a_response_slower_than_the_budget) {
    tls_peer server(tls_peer::tcp,
                    {{peer::take_request(), peer::take_rest()},
                     {peer::take_request(), peer::send(OK_HEADER + "bo"s), peer::take_rest()},
                     {peer::take_request(), peer::send("HTTP/1.1 200"), peer::take_rest()}});
    const std::string text = "HTTP CRITICAL - Connection timed out.";
    EXPECT_EQ((outcome{2, 0, 0, 0, text}), check(server.port(), {.timeout = "1"}));
    reads_before_silence = 1;
    EXPECT_EQ((outcome{2, 0, OK_SIZE, 2, text}), check(server.port()));
    /* As of a response that ends so: without an end of the headers all is text. */
    reads_before_silence = 1;
    EXPECT_EQ((outcome{2, 0, 0, 12, text}), check(server.port()));
}

TEST_F(http_exchange, a_body_that_keeps_dripping_is_charged_for_every_read) {
    socket_pair pair;
    std::atomic<bool> done = false;
    std::thread dripping([&] {
        while (!done) {
            EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
            usleep(500);
        }
    });
    received r = receive(pair.ours.get(), 0, SECOND / 20);
    EXPECT_EQ(timed_out_after(std::string(r.data.size(), 'x')), r);
    done = true;
    dripping.join();
}

TEST_F(http_exchange, a_reset_counts_as_the_end) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::send(OK_HEADER + "bo"s),
                                     peer::pause(), peer::reset()},
                                    {peer::take_request(), peer::reset()}});
    outcome o;
    std::thread checking([&] { o = check(server.port()); });
    EXPECT_TRUE(server.await_pauses(1));
    while (waits < 3) { /* to send, to receive what there is, to receive more */
        usleep(1000);
    }
    server.proceed();
    checking.join();
    EXPECT_EQ((outcome{0, 200, OK_SIZE, 2, OK_TEXT}), o);
    EXPECT_EQ((outcome{2, 0, 0, 0, "HTTP CRITICAL Invalid Status Line ()"}), check(server.port()));
}

TEST_F(http_exchange, read_errors_that_end_the_check_and_others_that_do_not) {
    for (int error : {EINTR, EAGAIN}) {
        read_errors = {0, error};
        read_sizes = {3};
        EXPECT_EQ((received{0, 0, "HTT", ""}), receive_all("HTTP/1.0 200 OK\r\n\r\n", 0));
        EXPECT_EQ("0 Error " + std::to_string(error) + " - " + strerror(error) + "\n",
                  take_log_text());
    }
    read_errors = {ECONNRESET, EIO, 0, ETIMEDOUT};
    EXPECT_EQ((received{1, 19, "HTTP/1.0 200 OK\r\n\r\n", ""}),
              receive_all("HTTP/1.0 200 OK\r\n\r\n", 0));
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_exchange, a_failed_wait_to_receive_is_logged) {
    wait_results = {-ENOMEM};
    EXPECT_EQ((received{0, 0, "", ""}), receive_all("x", 0));
    EXPECT_EQ("0 Error 12 - Cannot allocate memory\n", take_log_text());
    wait_results = {-EINTR, -EINTR};
    EXPECT_EQ((received{1, 0, "x", ""}), receive_all("x", 0));
}

TEST_F(http_exchange, a_response_without_an_end) {
    socket_pair pair;
    ssize_t poured = 0;
    std::thread pouring([&] {
        std::string block(1 << 20, '\n'); /* headers that never end, as a NUL follows each */
        for (size_t i = 1; i < block.size(); i += 2) {
            block[i] = '\0';
        }
        for (ssize_t sent;
             (sent = send(pair.theirs.get(), block.data(), block.size(), MSG_NOSIGNAL)) > 0;) {
            poured += sent;
        }
    });
    received r = receive(pair.ours.get(), 0, 60 * SECOND);
    pair.ours.reset();
    pouring.join();
    EXPECT_EQ((received{0, 0, "\n", "HTTP CRITICAL - more than 67108864 bytes received."}), r);
    EXPECT_GT(poured, MAX_RESPONSE_SIZE);
}

static received receive_tls(std::vector<tls_step> script, const std::string& data, int full = 0) {
    socket_pair pair;
    pair.feed("readable");
    tls_script = std::move(script);
    tls_calls = 0;
    tls_read_data = data;
    return receive(pair.ours.get(), full, SECOND, fake_session);
}

TEST_F(http_fake_tls, ends_of_a_session) {
    EXPECT_EQ((received{1, 0, "abc", ""}),
              receive_tls({{3, 0}, {0, SSL_ERROR_ZERO_RETURN}}, "abc"));
    EXPECT_EQ((received{1, 0, "abc", ""}), receive_tls({{3, 0}, {0, SSL_ERROR_SYSCALL}}, "abc"));
    EXPECT_EQ((received{1, 0, "", ""}), receive_tls({{-1, SSL_ERROR_ZERO_RETURN}}, ""));
    EXPECT_EQ("", take_log_text());
}

TEST_F(http_fake_tls, errors_of_a_session) {
    for (const tls_step& error : {tls_step{-1, SSL_ERROR_SYSCALL}, tls_step{0, SSL_ERROR_SSL},
                                  tls_step{-1, SSL_ERROR_SSL}}) {
        EXPECT_EQ((received{0, 0, "abc", "HTTP CRITICAL - error text 42"}),
                  receive_tls({{3, 0}, error}, "abc"));
        EXPECT_EQ("0 error text 42\n", take_log_text());
    }
}

TEST_F(http_fake_tls, reads_are_repeated_while_the_session_wants_the_socket) {
    wait_results = {1, 1, 1, 1};
    EXPECT_EQ((received{1, 0, "abc", ""}), receive_tls({{-1, SSL_ERROR_WANT_READ},
                                                        {-1, SSL_ERROR_WANT_WRITE},
                                                        {3, 0},
                                                        {0, SSL_ERROR_ZERO_RETURN}},
                                                       "abc"));
    EXPECT_EQ(4u, tls_calls);
    EXPECT_EQ((std::vector<short>{POLLIN, POLLIN, POLLOUT, POLLIN}), wait_events);
}

TEST_F(http_fake_tls, a_handshake_is_repeated_while_the_session_wants_the_socket) {
    lib_SSL_connect = [](SSL*) { return play_tls(); };
    tls_script = {{-1, SSL_ERROR_WANT_WRITE}, {-1, SSL_ERROR_WANT_READ}, {-1, SSL_ERROR_SSL}};
    wait_results = {1, 1};
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_EQ((outcome{2, 0, 0, 0, "CRITICAL - Cannot establish SSL connection. error text 42"}),
              check(server.port(), {.ssl = 1}));
    EXPECT_EQ(3u, tls_calls);
    EXPECT_EQ((std::vector<short>{POLLOUT, POLLIN}), wait_events);
}

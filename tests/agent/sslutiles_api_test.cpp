#include "fake_core.h"
#include "guards.h"
#include "tls_peer.h"
#include "vindral_common.h"
#include "vindral_config.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <vector>

/* 2024-02-29 03:04:05 UTC, a second later with every look. Whoever looks is building a request,
 * which no cancellation may cut short. */
static const time_t CLOCK_START = 1709175845;
static time_t clock_now = CLOCK_START;
static void (*on_look)() = nullptr;

static time_t test_clock() {
    int state;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, state);
    pthread_setcancelstate(state, nullptr);
    if (on_look != nullptr) {
        on_look();
    }
    return clock_now++;
}

/* Nobody has the name "no.name"; which port was asked for with it is kept. */
static std::string port_asked_for;

static int test_getaddrinfo(const char* host, const char* port, const addrinfo* hints,
                            addrinfo** list) {
    if (strcmp(host, "no.name") == 0) {
        port_asked_for = port;
        return EAI_NONAME;
    }
    return getaddrinfo(host, port, hints, list);
}

/* The nth allocation of a text from now on fails; 0: none does. */
static int failing_asprintf = 0, failing_encode = 0, failing_strndup = 0;

template <typename... T>
static int test_asprintf(char** text, const char* format, T... values) {
    return failing_asprintf > 0 && --failing_asprintf == 0 ? -1 : asprintf(text, format, values...);
}

static char* test_encode(const char* text, size_t length) {
    return failing_encode > 0 && --failing_encode == 0 ? nullptr : get_URL_Encode(text, length);
}

static char* test_strndup(const char* text, size_t length) {
    return failing_strndup > 0 && --failing_strndup == 0 ? nullptr : strndup(text, length);
}

#define getaddrinfo test_getaddrinfo
#include "resolve.cpp"
#undef getaddrinfo
#define now_in_seconds test_clock
#define asprintf test_asprintf
#define get_URL_Encode test_encode
#define strndup test_strndup
#include "sslutiles_api.cpp"
#undef now_in_seconds
#undef asprintf
#undef get_URL_Encode
#undef strndup

using namespace std::string_literals;

static const char* const token_at_start = auth_token;
static const long budget_at_start = api_budget_us;

class process_set_up : public testing::Environment {
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        setenv("TZ", "XYZ-5:30", 1); /* nothing is to show local time */
        tzset();
    }
};
static testing::Environment* const set_up = testing::AddGlobalTestEnvironment(new process_set_up);

static const std::string LINE(91, '*');
static const std::string FIRST_STAMP = "2024%2D02%2D29%2003%3A04%3A05",
                         SECOND_STAMP = "2024%2D02%2D29%2003%3A04%3A06";

static char api_host[] = "127.0.0.1", api_path[] = "/the/api", other_host[] = "127.0.0.2",
            data_path[] = "/the/data", key[] = "k&1", secret[] = "s 2/", nowhere[] = "no.name";

static std::string with_body(const std::string& body) {
    return "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

static const std::string TOKEN_REPLY = with_body("{\"authToken\":\"T0K\"}"),
                         STATUS_REPLY = with_body("{\"status\":\"ok\"}");

/* A result whose text belongs to the test. */
static test_result result_of(int id, time_t when, const char* text) {
    return {id, when, const_cast<char*>(text)};
}

static int send_one(test_result result) {
    test_result* results[] = {&result};
    return send_data(results, 1);
}

/* Takes the figures behind each `name` out of the log, and puts a T in their place. */
static std::vector<std::string> take_figures(std::string& log, const std::string& name) {
    std::vector<std::string> figures;
    for (size_t at = 0; (at = log.find(name, at)) != std::string::npos;) {
        at += name.size();
        size_t length = std::min(log.find_first_not_of("-.0123456789", at), log.size()) - at;
        figures.push_back(log.substr(at, length));
        log.replace(at, length, "T");
    }
    return figures;
}

static std::string timeless_log() {
    std::string log = take_log_text();
    take_figures(log, "spent:\t");
    take_figures(log, "left:\t");
    return log;
}

/* The lines of level 0 and 1. */
static std::string short_log() {
    std::string all;
    for (const logged_line& line : take_log()) {
        if (line.level <= 1) {
            all += std::to_string(line.level) + " " + line.text + "\n";
        }
    }
    return all;
}

/* Every test ends with as many descriptors as it began with. */
class api_client : public testing::Test {
protected:
    void SetUp() override {
        descriptors_ = count_descriptors();
        api_server = data_server = api_host;
        api_url = api_path;
        data_url = data_path;
        api_key = key;
        secret_key = secret;
        clock_now = CLOCK_START;
        take_log();
    }
    void TearDown() override {
        api_server = api_port = api_url = data_server = data_port = data_url = nullptr;
        api_key = secret_key = nullptr;
        api_budget_us = budget_at_start;
        EXPECT_EQ(0, failing_asprintf + failing_encode + failing_strndup);
        forget_token();
        EXPECT_EQ(descriptors_, count_descriptors());
    }

    static void have_token(const char* text) {
        forget_token();
        auth_token = strdup(text);
    }
    static void forget_token() {
        free(auth_token);
        auth_token = nullptr;
    }
    static std::string token() { return auth_token != nullptr ? auth_token : "-"; }

    static char* port_of(const tls_peer& server) { return const_cast<char*>(server.port()); }

    /* get_auth_token answered with these bytes, of which the connection's end is one. */
    int token_from(const std::string& response, peer::step end = peer::end_clean()) {
        tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::send(response), end}});
        api_port = port_of(server);
        int got = get_auth_token();
        EXPECT_TRUE(server.await_end());
        request_ = server.request(0);
        return got;
    }

    /* send_data, with a token, answered in the same way. */
    int status_from(const std::string& response, test_result result = result_of(7, 1000, "x")) {
        tls_peer server(tls_peer::tcp,
                        {{peer::take_request(), peer::send(response), peer::end_clean()}});
        data_port = port_of(server);
        int sent = send_one(result);
        EXPECT_TRUE(server.await_end());
        request_ = server.request(0);
        return sent;
    }

    std::string request_;

private:
    int descriptors_ = 0;
};

/* --- the token ------------------------------------------------------------------------------- */

TEST_F(api_client, there_is_no_token_at_first_and_ten_seconds_per_connection) {
    EXPECT_EQ(nullptr, token_at_start);
    EXPECT_EQ(10000000, budget_at_start);
}

TEST_F(api_client, a_token_is_fetched) {
    data_server = other_host; /* nobody is there */
    EXPECT_EQ(1, token_from(TOKEN_REPLY, peer::take_rest()));
    EXPECT_EQ("T0K", token());
    std::string request =
        "GET /the/api?action=authToken&apikey=k&1&secretkey=s 2/&timestamp=" + FIRST_STAMP +
        " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    EXPECT_EQ(request, request_);
    EXPECT_EQ("5 INFO: get_auth_token: Connected, time spent:\tT time left:\tT\n"
              "5 INFO: get_auth_token: sending request:\n" +
                  LINE + "\n" + request + "\n" + LINE +
                  "\n"
                  "5 INFO: get_auth_token: send_request: 1\n"
                  "5 INFO: get_auth_token: Response received!\n"
                  "time spent:\tT; time  left:\tT\n" +
                  LINE + "\n" + TOKEN_REPLY + "\n" + LINE +
                  "\n"
                  "Content Length: 19; Header Size: 39\n\n"
                  "1 INFO: get_auth_token: auth token: T0K.\n",
              timeless_log());
}

/* Both figures of a line belong together, and the budget goes on from one step to the next. */
TEST_F(api_client, time_spent_and_left) {
    EXPECT_EQ(1, token_from(TOKEN_REPLY));
    std::string log = take_log_text();
    std::vector<std::string> spent = take_figures(log, "spent:\t"),
                             left = take_figures(log, "left:\t");
    ASSERT_EQ(2u, spent.size());
    ASSERT_EQ(2u, left.size());
    for (size_t i = 0; i < 2; i++) {
        char text[32];
        snprintf(text, sizeof text, "%.3f", (10000000 - std::stod(left[i])) / 1000000);
        EXPECT_EQ(text, spent[i]);
    }
    EXPECT_GE(10000000, std::stol(left[0]));
    EXPECT_GT(std::stol(left[0]), std::stol(left[1]));
}

TEST_F(api_client, a_token_replaces_the_one_before_and_a_failure_keeps_it) {
    have_token("old");
    EXPECT_EQ(0, token_from(with_body("{}")));
    EXPECT_EQ("old", token());
    EXPECT_EQ(1, token_from(TOKEN_REPLY));
    EXPECT_EQ("T0K", token());
}

TEST_F(api_client, defaults_of_host_path_and_keys) {
    ASSERT_STREQ("localhost", DEFAULT_API_SERVER);
    api_server = api_url = api_key = secret_key = nullptr;
    EXPECT_EQ(1, token_from(TOKEN_REPLY));
    EXPECT_EQ("GET /api?action=authToken&apikey=(null)&secretkey=(null)&timestamp=" + FIRST_STAMP +
                  " HTTP/1.0\r\nHost: localhost\r\n\r\n",
              request_);
    data_server = data_url = nullptr;
    EXPECT_EQ(1, status_from(STATUS_REPLY));
    EXPECT_EQ("POST /customMonitorApi?apikey=(null)&validation=token&authToken=T0K&timestamp=" +
                  SECOND_STAMP +
                  "&version=2&action=addResult&monitorId=7&checktime=1000&results=x HTTP/1.0\r\n"
                  "Connection: Keep-Alive\r\nHost: localhost\r\n"
                  "Content-Type: application/octet-stream\r\nContent-Length: 0\r\n\r\n",
              request_);
}

TEST_F(api_client, default_ports) {
    api_server = data_server = nowhere;
    EXPECT_EQ(0, get_auth_token());
    EXPECT_EQ("80", port_asked_for);
    EXPECT_EQ("0 Host: no.name Error: Name or service not known\n"
              "0 ERROR: get_auth_token: make_connection() failed\n",
              take_log_text());
    port_asked_for.clear();
    have_token("T0K");
    EXPECT_EQ(0, send_one(result_of(7, 1000, "x")));
    EXPECT_EQ("80", port_asked_for);
    EXPECT_EQ("0 Host: no.name Error: Name or service not known\n"
              "0 ERROR: send_data: make_connection() failed\n",
              take_log_text());
}

TEST_F(api_client, no_connection) {
    std::string closed = closed_port();
    api_port = data_port = closed.data();
    EXPECT_EQ(0, get_auth_token());
    have_token("T0K");
    EXPECT_EQ(0, send_one(result_of(7, 1000, "x")));
    EXPECT_EQ("0 Error in delayed connection() 111 - Connection refused\n"
              "0 ERROR: get_auth_token: make_connection() failed\n"
              "0 Error in delayed connection() 111 - Connection refused\n"
              "0 ERROR: send_data: make_connection() failed\n",
              take_log_text());
}

/* --- what a reply must hold ------------------------------------------------------------------ */

static const std::string NO_CONTENT = "0 ERROR: get_auth_token: No content received\n",
                         NO_TOKEN = "0 ERROR: get_auth_token: No auth token in the content.\n",
                         NO_VALUE =
                             "0 ERROR: get_auth_token: No value for auth token in the content.\n";

static std::string announced(const std::string& length, const std::string& body) {
    return "HTTP/1.0 200 OK\r\nContent-Length: " + length + "\r\n\r\n" + body;
}

class token_reply : public api_client {
protected:
    void expect_refused(const std::string& log, const std::string& response) {
        EXPECT_EQ(0, token_from(response)) << response;
        EXPECT_EQ(log, short_log()) << response;
        EXPECT_EQ("-", token()) << response;
    }
    void expect_token(const std::string& value, const std::string& response) {
        EXPECT_EQ(1, token_from(response)) << response;
        EXPECT_EQ("1 INFO: get_auth_token: auth token: " + value + ".\n", short_log()) << response;
        EXPECT_EQ(value, token()) << response;
        forget_token();
    }
};

TEST_F(token_reply, without_a_body) {
    expect_refused(NO_CONTENT, "");
    expect_refused(NO_CONTENT, "HTTP/1.0 200 OK");
    expect_refused(NO_CONTENT, "HTTP/1.0 200 OK\r\nContent-Length: 19\r\n");
    expect_refused(NO_CONTENT, "HTTP/1.0 200 OK\nContent-Length: 19\n\n{\"authToken\":\"T0K\"}");
    expect_refused(NO_CONTENT, "\0\r\n\r\n\"authToken\":\"T0K\""s);
    expect_refused(NO_TOKEN, "\r\n\r\n");
    expect_refused(NO_TOKEN, announced("0", ""));
}

TEST_F(token_reply, without_the_key) {
    expect_refused(NO_TOKEN, with_body("{}"));
    expect_refused(NO_TOKEN, with_body("{authToken:\"T0K\"}"));
    expect_refused(NO_TOKEN, with_body("{\"authtoken\":\"T0K\"}"));
    expect_refused(NO_TOKEN, with_body("{\"authToken:\"T0K\"}"));
    expect_refused(NO_TOKEN, with_body("{\"status\":\"ok\"}"));
    expect_refused(NO_TOKEN, with_body("\0\"authToken\":\"T0K\""s));
    expect_refused(NO_TOKEN,
                   "HTTP/1.0 200 OK\r\nX: \"authToken\":\"head\"\r\nContent-Length: 2\r\n\r\n{}");
}

TEST_F(token_reply, without_the_value) {
    expect_refused(NO_VALUE, with_body("\"authToken\""));
    expect_refused(NO_VALUE, with_body("{\"authToken\":12}"));
    expect_refused(NO_VALUE, with_body("{\"authToken\":\""));
    expect_refused(NO_VALUE, with_body("{\"authToken\":\"T0K}"));
    expect_refused(NO_VALUE, with_body("{\"authToken\":\"T\0K\"}"s));
}

TEST_F(token_reply, of_any_shape_with_a_value) {
    expect_token("", with_body("{\"authToken\":\"\"}"));
    expect_token("T", with_body("\"authToken\"\"T\""));
    expect_token("a b,\r\n\r\n{%s}\xff", with_body("\"authToken\" : \"a b,\r\n\r\n{%s}\xff\""));
    expect_token("back\\", with_body("{\"authToken\":\"back\\\"slash\"}"));
    expect_token("next", with_body("{\"authToken\":12,\"next\":\"x\"}"));
    expect_token("first", with_body("{\"authToken\":\"first\",\"authToken\":\"second\"}"));
    expect_token("T0K", "HTTP/1.0 500 Oh no\r\nContent-Length: 19\r\n\r\n{\"authToken\":\"T0K\"}");
    expect_token(std::string(20000, 'x'),
                 with_body("{\"authToken\":\"" + std::string(20000, 'x') + "\"}"));
}

/* The key may begin anywhere but must end by the announced length; the value need not. */
TEST_F(token_reply, that_lies_about_its_length) {
    const std::string body = "{\"authToken\":\"T0K\"}";
    for (int length : {0, 1, 2, 11}) {
        expect_refused(NO_VALUE, announced(std::to_string(length), body));
    }
    for (int length : {12, 13, 14, 18, 19, 20, 100, INT_MAX}) {
        expect_token("T0K", announced(std::to_string(length), body));
    }
    for (const char* length : {"-1", "-19", "-2147483648", "none", ""}) {
        expect_refused(NO_VALUE, announced(length, body));
    }
    expect_refused(NO_VALUE, "HTTP/1.0 200 OK\r\n\r\n" + body);
    expect_refused(NO_VALUE, announced("4294967295", body)); /* -1 as an int */
}

/* "\r\n\r\n" begins the body for the length as well, wherever the headers ended. */
TEST_F(token_reply, whose_headers_end_twice) {
    expect_token("T0K", "HTTP/1.0 200 OK\nContent-Length: 12\n\nxx\r\n\r\n{\"authToken\":\"T0K\"}");
    expect_refused(NO_VALUE,
                   "HTTP/1.0 200 OK\nContent-Length: 11\n\nxx\r\n\r\n{\"authToken\":\"T0K\"}");
}

TEST_F(token_reply, that_is_cut_at_any_place) {
    for (size_t length = 0; length < TOKEN_REPLY.size(); length++) {
        std::string part = TOKEN_REPLY.substr(0, length);
        if (length == TOKEN_REPLY.size() - 1) {
            expect_token("T0K", part); /* only the brace is missing */
            continue;
        }
        expect_refused(length < 39 ? NO_CONTENT : length < 51 ? NO_TOKEN : NO_VALUE, part);
    }
}

TEST_F(token_reply, in_small_pieces) {
    tls_peer::conversation pieces = {peer::take_request()};
    for (char c : TOKEN_REPLY) {
        pieces.push_back(peer::send(std::string(1, c)));
    }
    pieces.push_back(peer::take_rest());
    tls_peer server(tls_peer::tcp, {pieces});
    api_port = port_of(server);
    EXPECT_EQ(1, get_auth_token());
    EXPECT_TRUE(server.await_end());
    EXPECT_EQ("T0K", token());
}

/* --- posting results ------------------------------------------------------------------------- */

static std::string post(const std::string& stamp, const std::string& rest) {
    return "POST /the/data?apikey=k&1&validation=token&authToken=T0K&timestamp=" + stamp +
           "&version=2&action=addResult&" + rest +
           " HTTP/1.0\r\nConnection: Keep-Alive\r\nHost: 127.0.0.1\r\n"
           "Content-Type: application/octet-stream\r\nContent-Length: 0\r\n\r\n";
}

class result_post : public api_client {
protected:
    void SetUp() override {
        api_client::SetUp();
        have_token("T0K");
    }
};

TEST_F(result_post, with_a_text) {
    EXPECT_EQ(1, status_from(STATUS_REPLY, result_of(42, 1709175800, "status:0;a=1 2/\xc3%")));
    std::string request = post(FIRST_STAMP, "monitorId=42&checktime=1709175800&results="
                                            "status%3A0%3Ba%3D1%202%2F%FF%25");
    EXPECT_EQ(request, request_);
    EXPECT_EQ("5 INFO: send_data: Connected, time spent:\tT time left:\tT\n"
              "5 INFO: send_data: sending request:\n" +
                  LINE + "\n" + request + "\n" + LINE +
                  "\n"
                  "5 INFO: send_data: send_request: 1\n"
                  "5 INFO: send_data: Response received!\n"
                  "time spent:\tT; time  left:\tT\n" +
                  LINE + "\n" + STATUS_REPLY + "\n" + LINE +
                  "\n"
                  "Content Length: 15; Header Size: 39\n\n"
                  "1 INFO: send_data: status token: ok.\n",
              timeless_log());
}

TEST_F(result_post, without_a_text) {
    EXPECT_EQ(1, status_from(STATUS_REPLY, result_of(42, 1709175800, nullptr)));
    EXPECT_EQ(post(FIRST_STAMP, "monitorId=42&checktime=1709175800"), request_);
    EXPECT_EQ(1, status_from(STATUS_REPLY, result_of(42, 1709175800, "")));
    EXPECT_EQ(post(SECOND_STAMP, "monitorId=42&checktime=1709175800"), request_);
}

TEST_F(result_post, extreme_numbers) {
    EXPECT_EQ(1, status_from(STATUS_REPLY, result_of(INT_MIN, -1, nullptr)));
    EXPECT_EQ(post(FIRST_STAMP, "monitorId=-2147483648&checktime=18446744073709551615"), request_);
}

TEST_F(result_post, to_another_host_than_the_one_it_names) {
    static char same_place[] = "localhost";
    data_server = same_place;
    EXPECT_EQ(1, status_from(STATUS_REPLY, result_of(1, 2, nullptr)));
    EXPECT_EQ(post(FIRST_STAMP, "monitorId=1&checktime=2"), request_);
}

TEST_F(result_post, goes_to_the_host_of_the_data) {
    std::string closed = closed_port();
    api_port = closed.data();
    api_server = other_host; /* nobody is there */
    EXPECT_EQ(1, status_from(STATUS_REPLY, result_of(1, 2, nullptr)));
    EXPECT_NE(std::string::npos, request_.find("\r\nHost: 127.0.0.2\r\n"));
}

TEST_F(result_post, nothing_to_post) {
    forget_token();
    test_result one = result_of(1, 2, nullptr);
    test_result* results[] = {&one};
    EXPECT_EQ(0, send_data(nullptr, 1));
    EXPECT_EQ(0, send_data(results, 0));
    EXPECT_EQ(0, send_data(results, -1));
    EXPECT_EQ("", take_log_text());
}

TEST_F(result_post, fetches_a_token_first_when_there_is_none) {
    for (const char* before : {static_cast<const char*>(nullptr), ""}) {
        forget_token();
        if (before != nullptr) {
            have_token(before);
        }
        clock_now = CLOCK_START;
        tls_peer server(tls_peer::tcp,
                        {{peer::take_request(), peer::send(TOKEN_REPLY), peer::take_rest()},
                         {peer::take_request(), peer::send(STATUS_REPLY), peer::take_rest()}});
        api_port = data_port = port_of(server);
        EXPECT_EQ(1, send_one(result_of(1, 2, nullptr)));
        EXPECT_TRUE(server.await_end());
        EXPECT_EQ(0u, server.request(0).find("GET /the/api?action=authToken&"));
        EXPECT_EQ(post(SECOND_STAMP, "monitorId=1&checktime=2"), server.request(1));
        EXPECT_EQ("1 INFO: get_auth_token: auth token: T0K.\n"
                  "1 INFO: send_data: status token: ok.\n",
                  short_log());
    }
}

/* An empty token is one for the call that fetched it. */
TEST_F(result_post, with_an_empty_token) {
    forget_token();
    std::string empty = with_body("{\"authToken\":\"\"}");
    tls_peer server(tls_peer::tcp,
                    {{peer::take_request(), peer::send(empty), peer::take_rest()},
                     {peer::take_request(), peer::send(STATUS_REPLY), peer::take_rest()}});
    api_port = data_port = port_of(server);
    EXPECT_EQ(1, send_one(result_of(1, 2, nullptr)));
    EXPECT_TRUE(server.await_end());
    EXPECT_NE(std::string::npos, server.request(1).find("&authToken=&timestamp="));
    EXPECT_EQ("", token());
}

TEST_F(result_post, without_a_token_nothing_is_posted) {
    forget_token();
    EXPECT_EQ(0, [&] {
        tls_peer server(tls_peer::tcp,
                        {{peer::take_request(), peer::send(with_body("{}")), peer::end_clean()}});
        api_port = data_port = port_of(server);
        return send_one(result_of(1, 2, nullptr));
    }());
    EXPECT_EQ(NO_TOKEN + "0 ERROR: send_data: get_auth_token() failed\n", short_log());
}

/* The token is used as it is, also one that the API has just turned down. */
TEST_F(result_post, keeps_its_token_whatever_the_status) {
    for (const char* status : {"expired", "", "error: no such monitor"}) {
        EXPECT_EQ(1, status_from(with_body("{\"status\":\"" + std::string(status) + "\"}")));
        EXPECT_EQ("1 INFO: send_data: status token: " + std::string(status) + ".\n", short_log());
        EXPECT_EQ("T0K", token());
    }
    EXPECT_EQ(1, status_from("HTTP/1.0 403 No\r\nContent-Length: 13\r\n\r\n\"status\":\"no\""));
    EXPECT_EQ("T0K", token());
}

TEST_F(result_post, whose_reply_is_no_status) {
    const std::string no_content = "0 ERROR: send_data: No content received\n",
                      no_status = "0 ERROR: send_data: No status token in the content.\n",
                      no_value = "0 ERROR: send_data: No value for status token in the content.\n";
    const std::vector<std::pair<std::string, std::string>> replies = {
        {"", no_content},
        {"HTTP/1.0 200 OK\r\n", no_content},
        {with_body("{}"), no_status},
        {with_body("{status:\"ok\"}"), no_status},
        {with_body("{\"authToken\":\"T0K\"}"), no_status},
        {with_body("{\"status\":1}"), no_value},
        {with_body("{\"status\":\"ok}"), no_value},
        {announced("8", "{\"status\":\"ok\"}"), no_value},
        {"HTTP/1.0 200 OK\r\n\r\n{\"status\":\"ok\"}", no_value},
        {announced("9", "{\"status\":\"ok\"}"), "1 INFO: send_data: status token: ok.\n"}};
    for (const auto& [response, log] : replies) {
        EXPECT_EQ(log[0] == '1', status_from(response)) << response;
        EXPECT_EQ(log, short_log()) << response;
    }
}

/* The first reply ends the connection. */
TEST_F(result_post, a_second_result_fails) {
    test_result first = result_of(1, 2, "a"), second = result_of(3, 4, "b"),
                third = result_of(5, 6, "c");
    test_result* results[] = {&first, &second, &third};
    for (int count : {2, 3}) {
        clock_now = CLOCK_START;
        tls_peer server(tls_peer::tcp,
                        {{peer::take_request(), peer::send(STATUS_REPLY), peer::take_rest()}});
        data_port = port_of(server);
        EXPECT_EQ(1, send_data(results, count));
        EXPECT_TRUE(server.await_end());
        EXPECT_EQ(post(FIRST_STAMP, "monitorId=1&checktime=2&results=a"), server.request(0));
        std::string log = timeless_log();
        const std::string status = "1 INFO: send_data: status token: ok.\n";
        ASSERT_NE(std::string::npos, log.find(status));
        EXPECT_EQ("5 INFO: send_data: sending request:\n" + LINE + "\n" +
                      post(SECOND_STAMP, "monitorId=3&checktime=4&results=b") + "\n" + LINE +
                      "\n"
                      "0 ERROR: send_request: select failed with errno: 9, Bad file descriptor\n"
                      "5 INFO: send_data: send_request: 0\n"
                      "0 ERROR: send_data: send_request() failed. retVal:0\n",
                  log.substr(log.find(status) + status.size()));
    }
}

/* Nothing goes to whoever has got the descriptor's number meanwhile. */
TEST_F(result_post, a_second_result_does_not_go_astray) {
    static int pairs[2][2]; /* one is opened with each request, the second after the first reply */
    static int opened;
    opened = 0;
    on_look = [] {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pairs[opened++ % 2]));
    };
    test_result first = result_of(1, 2, "a"), second = result_of(3, 4, "b");
    test_result* results[] = {&first, &second};
    tls_peer server(tls_peer::tcp,
                    {{peer::take_request(), peer::send(STATUS_REPLY), peer::take_rest()}});
    data_port = port_of(server);
    EXPECT_EQ(1, send_data(results, 2));
    on_look = nullptr;
    EXPECT_TRUE(server.await_end());
    EXPECT_EQ(2, opened);
    for (auto& pair : pairs) {
        for (int fd : pair) {
            char byte;
            EXPECT_EQ(-1, recv(fd, &byte, 1, MSG_DONTWAIT));
        }
    }
    for (auto& pair : pairs) {
        close(pair[0]);
        close(pair[1]);
    }
}

TEST_F(result_post, stops_at_the_first_that_fails) {
    test_result first = result_of(1, 2, "a"), second = result_of(3, 4, "b");
    test_result* results[] = {&first, &second};
    tls_peer server(tls_peer::tcp,
                    {{peer::take_request(), peer::send(with_body("{}")), peer::take_rest()}});
    data_port = port_of(server);
    EXPECT_EQ(0, send_data(results, 2));
    EXPECT_TRUE(server.await_end());
    EXPECT_EQ("0 ERROR: send_data: No status token in the content.\n", short_log());
}

/* --- a server that does not keep up ---------------------------------------------------------- */

TEST_F(result_post, no_answer_within_the_budget) {
    api_budget_us = 50000;
    tls_peer server(tls_peer::tcp,
                    {{peer::take_request(), peer::pause()}, {peer::take_request(), peer::pause()}});
    api_port = data_port = port_of(server);
    EXPECT_EQ(0, get_auth_token());
    server.proceed();
    EXPECT_EQ("0 ERROR: receive_response: select: Connection timed out.\n"
              "0 ERROR: get_auth_token: receive_response() failed. retVal:0\n",
              short_log());
    EXPECT_EQ("T0K", token());
    EXPECT_EQ(0, send_one(result_of(1, 2, nullptr)));
    EXPECT_EQ("0 ERROR: receive_response: select: Connection timed out.\n"
              "0 ERROR: send_data: receive_response() failed. retVal:0\n",
              short_log());
    EXPECT_EQ("T0K", token());
}

TEST_F(result_post, no_connection_within_the_budget) {
    api_budget_us = 50000;
    full_listener server;
    api_port = const_cast<char*>(server.port());
    EXPECT_EQ(0, get_auth_token());
    EXPECT_EQ("0 Connection to host: \"127.0.0.1\" timed out after 0 seconds\n"
              "0 ERROR: get_auth_token: make_connection() failed\n",
              take_log_text());
}

/* A token gets a budget of its own. */
TEST_F(result_post, a_peer_that_takes_nothing) {
    api_budget_us = 50000;
    std::string large(20000000, 'x');
    tls_peer server(tls_peer::tcp, {{peer::pause()}, {peer::pause()}});
    api_port = data_port = port_of(server);
    secret_key = large.data();
    EXPECT_EQ(0, get_auth_token());
    std::string log = short_log();
    EXPECT_NE(std::string::npos, log.find("0 send_request: se")) << log;
    EXPECT_NE(std::string::npos,
              log.find(" timed out.\n0 ERROR: get_auth_token: send_request() failed. retVal:0\n"))
        << log;
    server.proceed();
    EXPECT_EQ(0, send_one(result_of(1, 2, large.c_str())));
    log = short_log();
    EXPECT_NE(std::string::npos,
              log.find(" timed out.\n0 ERROR: send_data: send_request() failed. retVal:0\n"))
        << log;
}

TEST_F(result_post, a_peer_that_resets_the_connection) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::reset()}});
    api_port = port_of(server);
    EXPECT_EQ(0, get_auth_token()); /* a reset reads as an empty reply */
    EXPECT_EQ(NO_CONTENT, short_log());
}

/* --- without memory -------------------------------------------------------------------------- */

TEST_F(result_post, without_memory) {
    const std::string request = "no memory for the request\n", answer = "no memory for the reply\n";
    auto post_in_vain = [&](const char* text) {
        tls_peer server(tls_peer::tcp,
                        {{peer::take_request(), peer::send(STATUS_REPLY), peer::end_clean()}});
        data_port = port_of(server);
        EXPECT_EQ(0, send_one(result_of(1, 2, text)));
        return short_log();
    };
    failing_asprintf = 1;
    EXPECT_EQ("0 ERROR: send_data: " + request, post_in_vain("x"));
    failing_encode = 1;
    EXPECT_EQ("0 ERROR: send_data: " + request, post_in_vain("x"));
    failing_encode = 2;
    EXPECT_EQ("0 ERROR: send_data: " + request, post_in_vain("x"));
    failing_strndup = 1;
    EXPECT_EQ("0 ERROR: send_data: " + answer, post_in_vain("x"));
    for (int* failing : {&failing_asprintf, &failing_encode}) {
        tls_peer server(tls_peer::tcp, {{peer::take_request()}});
        api_port = port_of(server);
        *failing = 1;
        EXPECT_EQ(0, get_auth_token());
        EXPECT_EQ("0 ERROR: get_auth_token: " + request, short_log());
    }
    failing_strndup = 1;
    EXPECT_EQ(0, token_from(TOKEN_REPLY));
    EXPECT_EQ("0 ERROR: get_auth_token: " + answer, short_log());
    EXPECT_EQ("T0K", token());
}

/* --- cancellation ---------------------------------------------------------------------------- */

static void* post_for_ever(void* arg) {
    send_one(*static_cast<test_result*>(arg));
    return nullptr;
}

class cancelled_api : public api_client {
protected:
    static void post_and_cancel(const std::function<bool()>& ready) {
        test_result result = result_of(1, 2, "x");
        pthread_t thread;
        ASSERT_EQ(0, pthread_create(&thread, nullptr, post_for_ever, &result));
        EXPECT_TRUE(ready());
        ASSERT_EQ(0, pthread_cancel(thread));
        void* ended = nullptr;
        pthread_join(thread, &ended);
        EXPECT_EQ(PTHREAD_CANCELED, ended);
    }
};

TEST_F(cancelled_api, while_waiting_for_the_token) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::pause()}});
    api_port = data_port = port_of(server);
    post_and_cancel([&] { return server.await_pauses(1); });
    EXPECT_EQ("-", token());
}

TEST_F(cancelled_api, while_waiting_for_the_status) {
    have_token("T0K");
    tls_peer server(tls_peer::tcp,
                    {{peer::take_request(), peer::send("HTTP/1.0 200 OK\r\n"), peer::pause()}});
    api_port = data_port = port_of(server);
    post_and_cancel([&] { return server.await_pauses(1); });
    EXPECT_EQ("T0K", token());
}

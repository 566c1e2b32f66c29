#include "certificates.h"
#include "eventually.h"
#include "fake_core.h"
#include "tls_peer.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <semaphore>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <vector>
#include <zlib.h>

/* The exchange with the layers below it in one piece, so that the tests see its waits: a wait that
 * does not end at once is announced before it begins. */
static std::counting_semaphore<> blocked(0);

static int test_ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    int ready = poll(fds, count, 0);
    if (ready != 0) {
        return ready;
    }
    blocked.release();
    return ppoll(fds, count, timeout, mask);
}

/* "slow.name" is answered when the test says so, every other name with an address nobody is at. */
static std::counting_semaphore<> may_answer(0);
static std::string port_asked_for;

static int test_getaddrinfo(const char* host, const char* port, const addrinfo* hints,
                            addrinfo** list) {
    if (strcmp(host, "no.name") == 0) {
        port_asked_for = port;
        return EAI_NONAME;
    }
    if (strcmp(host, "slow.name") != 0 || (hints->ai_flags & AI_NUMERICHOST)) {
        return getaddrinfo(host, port, hints, list);
    }
    blocked.release();
    may_answer.acquire();
    return getaddrinfo("127.0.0.1", port, hints, list);
}

#define ppoll test_ppoll
#define getaddrinfo test_getaddrinfo
#include "budget.cpp"
#include "resolve.cpp"
#include "sslutiles.cpp"
#include "sslutiles_poll.cpp"
#include "stream.cpp"
#include "stream_connect.cpp"
#undef ppoll
#undef getaddrinfo

using namespace std::string_literals;

class process_set_up : public testing::Environment {
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(1, init_ssl_variables());
        ASSERT_EQ(1, isZLIBloaded);
        take_log();
    }
};
static testing::Environment* const set_up = testing::AddGlobalTestEnvironment(new process_set_up);

struct outcome {
    int code;
    std::string body; /* "-" for none */
    size_t size;
};

static char email[] = "someone@example.com", name[] = "the agent", host[] = "127.0.0.1",
            path[] = "/the/path";

/* Every test ends with as many descriptors as it began with. */
class poll_exchange : public testing::Test {
protected:
    void SetUp() override {
        descriptors_ = count_descriptors();
        user_email = email;
        agent_name = name;
        alt_server = host;
        alt_url = path;
        log_out();
        take_log();
    }
    void TearDown() override {
        log_out();
        user_email = agent_name = alt_server = alt_port = alt_url = alt_version = nullptr;
        ca_file = cert_file = key_file = nullptr;
        isZLIBloaded = 1;
        lib_compress2 = compress2_;
        lib_adler32 = adler32_;
        lib_SSL_CTX_new = ctx_new_;
        lib_SSL_new = new_;
        lib_SSL_connect = connect_;
        lib_SSL_get_error = get_error_;
        lib_SSL_write = write_;
        lib_SSL_shutdown = shutdown_;
        lib_SSL_free = free_;
        lib_SSL_CTX_free = ctx_free_;
        EXPECT_EQ(descriptors_, count_descriptors());
    }

    static void log_in_as(const char* id) {
        free(szSessionID);
        szSessionID = strdup(id);
    }
    static void log_out() {
        free(szSessionID);
        szSessionID = nullptr;
    }
    static std::string session() { return szSessionID != nullptr ? szSessionID : "-"; }

    static outcome poll_server(const char* port, const std::string& data = "") {
        std::string copy = port;
        alt_port = copy.data();
        char* text = const_cast<char*>("untouched");
        size_t size = 4711;
        int code = make_poll(data.empty() ? nullptr : data.data(), data.size(), &text, &size);
        alt_port = nullptr;
        outcome all = {code, text != nullptr ? text : "-", size};
        free(text);
        return all;
    }

    /* One poll answered with `response`, which says where it ends; the request that the server saw
     * goes to request_. */
    outcome answered(const std::string& response, const std::string& data = "") {
        tls_peer server(tls_peer::tls,
                        {{peer::take_request(), peer::send(response), peer::take_rest()}});
        outcome all = poll_server(server.port(), data);
        EXPECT_TRUE(server.await_end());
        EXPECT_EQ(1, server.clean_client_ends());
        EXPECT_EQ(0, server.naming_clients());
        request_ = server.request(0);
        return all;
    }

    /* The same with a response that ends with the connection. */
    outcome answered_and_ended(const std::string& response, const std::string& data = "",
                               peer::step end = peer::end_clean()) {
        tls_peer server(tls_peer::tls, {{peer::take_request(), peer::send(response), end}});
        outcome all = poll_server(server.port(), data);
        EXPECT_TRUE(server.await_end());
        request_ = server.request(0);
        return all;
    }

    std::string request_;

private:
    int descriptors_ = 0;
    decltype(lib_compress2) compress2_ = lib_compress2;
    decltype(lib_adler32) adler32_ = lib_adler32;
    decltype(lib_SSL_CTX_new) ctx_new_ = lib_SSL_CTX_new;
    decltype(lib_SSL_new) new_ = lib_SSL_new;
    decltype(lib_SSL_connect) connect_ = lib_SSL_connect;
    decltype(lib_SSL_get_error) get_error_ = lib_SSL_get_error;
    decltype(lib_SSL_write) write_ = lib_SSL_write;
    decltype(lib_SSL_shutdown) shutdown_ = lib_SSL_shutdown;
    decltype(lib_SSL_free) free_ = lib_SSL_free;
    decltype(lib_SSL_CTX_free) ctx_free_ = lib_SSL_CTX_free;
};

#define EXPECT_OUTCOME(want_code, want_body, want_size, actual)                                    \
    do {                                                                                           \
        outcome o = actual;                                                                        \
        EXPECT_EQ(want_code, o.code);                                                              \
        EXPECT_EQ(want_body, o.body);                                                              \
        EXPECT_EQ(static_cast<size_t>(want_size), o.size);                                         \
    } while (0)

static std::string with_body(const std::string& body, const std::string& headers = "") {
    return "HTTP/1.0 200 OK\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

static std::string first_answer(const std::string& id, const std::string& body) {
    return with_body(body, "Vnd-SessionID: " + id + "\r\n");
}

/* --- who may poll, and where to -------------------------------------------------------------- */

TEST_F(poll_exchange, without_an_account_or_a_name_nothing_is_tried) {
    static char empty[] = "";
    for (char* missing : {static_cast<char*>(nullptr), empty}) {
        user_email = missing;
        EXPECT_OUTCOME(0, "-", 0, poll_server("1"));
        user_email = email;
        agent_name = missing;
        EXPECT_OUTCOME(0, "-", 0, poll_server("1"));
        agent_name = name;
    }
    EXPECT_EQ("", take_log_text());
}

TEST_F(poll_exchange, no_connection) {
    log_in_as("s1");
    EXPECT_OUTCOME(2, "-", 0, poll_server(closed_port().c_str()));
    EXPECT_EQ("0 Error in delayed connection() 111 - Connection refused\n"
              "0 ERROR: make_poll: make_connection() failed\n",
              take_log_text());
    EXPECT_EQ("s1", session());
}

TEST_F(poll_exchange, a_server_that_cannot_be_verified_is_an_internal_error_and_gets_nothing) {
    char missing[] = "/nonexistent/ca.pem", no_file[] = "/", no_name[] = "";
    for (char* bundle : {missing, no_file, no_name}) {
        tls_peer server(tls_peer::tls, {{peer::take_request(), peer::end_clean()}});
        log_in_as("s1");
        ca_file = bundle;
        outcome all = poll_server(server.port(), "results");
        EXPECT_EQ(all.code, 4);
        EXPECT_EQ(all.body, "-");
        EXPECT_EQ(session(), "s1");
        EXPECT_NE(take_log_text().find(std::string("0 ERROR: make_poll: Cannot use CAFILE \"") +
                                       bundle + "\": "),
                  std::string::npos);
        EXPECT_TRUE(server.await_end());
        EXPECT_EQ(server.request(0), "");
    }
}

TEST_F(poll_exchange, defaults_of_host_path_and_version) {
    alt_server = nullptr; /* the default host is this one, by name */
    alt_url = nullptr;
    ASSERT_STREQ("localhost", DEFAULT_SERVER);
    EXPECT_OUTCOME(1, "x", 1, answered(first_answer("s1", "x")));
    EXPECT_EQ("POST /fcgi-bin/agentgateway HTTP/1.0\r\n"
              "Content-Type: application/octet-stream\r\nContent-Length: 0\r\n"
              "Vnd-EMail: someone@example.com\r\nVnd-AName: the agent\r\n"
              "Vnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n",
              request_);
}

TEST_F(poll_exchange, default_port) {
    static char nowhere[] = "no.name";
    alt_server = nowhere;
    char* text = nullptr;
    size_t size = 0;
    EXPECT_EQ(2, make_poll(nullptr, 0, &text, &size));
    EXPECT_EQ("443", port_asked_for);
    EXPECT_EQ("0 Host: no.name Error: Name or service not known\n"
              "0 ERROR: make_poll: make_connection() failed\n",
              take_log_text());
}

/* --- the first poll -------------------------------------------------------------------------- */

TEST_F(poll_exchange, a_first_poll_names_account_and_agent) {
    static char version[] = "3.1";
    alt_version = version;
    EXPECT_OUTCOME(1, "LAA\t1\n", 6, answered(first_answer("id 42", "LAA\t1\n")));
    EXPECT_EQ("POST /the/path HTTP/1.0\r\n"
              "Content-Type: application/octet-stream\r\nContent-Length: 0\r\n"
              "Vnd-EMail: someone@example.com\r\nVnd-AName: the agent\r\n"
              "Vnd-Platform: linux64\r\nVnd-Version: 3.1\r\n\r\n",
              request_);
    EXPECT_EQ("id 42", session());
}

TEST_F(poll_exchange, a_first_poll_sends_its_data_as_it_is) {
    std::string data(5000, 'x');
    EXPECT_OUTCOME(1, "b", 1, answered(first_answer("s1", "b"), data));
    EXPECT_EQ("POST /the/path HTTP/1.0\r\n"
              "Content-Type: application/octet-stream\r\nContent-Length: 5000\r\n"
              "Vnd-EMail: someone@example.com\r\nVnd-AName: the agent\r\n"
              "Vnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n" +
                  data,
              request_);
}

TEST_F(poll_exchange, account_and_agent_go_out_unescaped) {
    static char odd[] = "a b%20\"\xc3\xa4\r\nX: y";
    agent_name = odd;
    EXPECT_OUTCOME(1, "b", 1, answered(first_answer("s1", "b")));
    EXPECT_NE(std::string::npos,
              request_.find("Vnd-AName: a b%20\"\xc3\xa4\r\nX: y\r\nVnd-Platform: "));
}

TEST_F(poll_exchange, a_first_poll_without_a_session_id_is_an_internal_error) {
    EXPECT_OUTCOME(4, "-", 0, answered(with_body("body")));
    EXPECT_EQ("-", session());
    EXPECT_OUTCOME(4, "-", 0, answered(with_body("body", "Vnd-SessionID: \r\n")));
    EXPECT_OUTCOME(4, "-", 0, answered(with_body("body", "vnd-sessionid: s1\r\n")));
    EXPECT_OUTCOME(4, "-", 0, answered(with_body("\r\nVnd-SessionID: s1\r\n")));
    EXPECT_OUTCOME(4, "-", 0, answered_and_ended("Vnd-SessionID: s1\r\n"));
    EXPECT_EQ("-", session());
}

TEST_F(poll_exchange, a_first_poll_may_get_nothing_at_all) {
    tls_peer server(tls_peer::tls, {{peer::take_request(), peer::end_clean()}});
    EXPECT_OUTCOME(4, "-", 0, poll_server(server.port()));
    EXPECT_EQ("-", session());
}

TEST_F(poll_exchange, a_first_poll_may_be_refused_or_sent_back) {
    EXPECT_OUTCOME(0, "-", 0, answered(first_answer("666666", "body")));
    EXPECT_EQ("-", session());
    EXPECT_OUTCOME(3, "-", 0, answered(first_answer("111111", "body")));
    EXPECT_EQ("-", session());
    EXPECT_OUTCOME(1, "body", 4, answered(first_answer("1111111", "body")));
    EXPECT_EQ("1111111", session());
}

TEST_F(poll_exchange, the_body_of_a_first_poll_counts_as_well) {
    EXPECT_OUTCOME(3, "-", 0, answered(first_answer("s1", "111111")));
    EXPECT_EQ("-", session());
    EXPECT_OUTCOME(0, "-", 0, answered(first_answer("s1", "666666")));
    EXPECT_EQ("-", session());
    EXPECT_OUTCOME(1, "-", 0, answered_and_ended(first_answer("s1", "")));
    EXPECT_EQ("s1", session());
}

/* --- later polls ----------------------------------------------------------------------------- */

static std::string later_head(const std::string& id, size_t length, size_t compression,
                              unsigned long checksum) {
    return "POST /the/path HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
           "Content-Length: " +
           std::to_string(length) + "\r\nVnd-SessionID: " + id +
           "\r\nVnd-Compression: " + std::to_string(compression) +
           "\r\nVnd-CheckSum: " + std::to_string(checksum) +
           "\r\nVnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n";
}

static unsigned long checksum_of(const std::string& bytes) {
    return adler32(adler32(0, nullptr, 0), reinterpret_cast<const Bytef*>(bytes.data()),
                   static_cast<uInt>(bytes.size()));
}

static std::string results(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<char>(i * i / 7);
    }
    return bytes;
}

TEST_F(poll_exchange, a_later_poll_compresses_and_checksums_its_data) {
    for (size_t size : {1, 2, 300, 50000}) {
        log_in_as("s1");
        std::string data = results(size);
        EXPECT_OUTCOME(1, "ok", 2, answered(with_body("ok"), data));
        size_t head = request_.find("\r\n\r\n") + 4;
        std::string body = request_.substr(head);
        EXPECT_EQ(later_head("s1", body.size(), size, checksum_of(body)), request_.substr(0, head));

        std::string plain(size + 1, '\0');
        uLongf plain_size = plain.size();
        EXPECT_EQ(Z_OK, uncompress(reinterpret_cast<Bytef*>(plain.data()), &plain_size,
                                   reinterpret_cast<const Bytef*>(body.data()), body.size()));
        EXPECT_EQ(size, plain_size);
        EXPECT_EQ(data, plain.substr(0, plain_size));
    }
}

TEST_F(poll_exchange, a_later_poll_without_data_sends_only_a_head) {
    log_in_as("s1");
    EXPECT_OUTCOME(1, "ok", 2, answered(with_body("ok")));
    EXPECT_EQ(later_head("s1", 0, 0, 0), request_);
    tls_peer server(tls_peer::tls,
                    {{peer::take_request(), peer::send(with_body("ok")), peer::take_rest()}});
    std::string port = server.port();
    alt_port = port.data();
    char* text = nullptr;
    size_t size = 0;
    EXPECT_EQ(1, make_poll(nullptr, 12, &text, &size));
    EXPECT_STREQ("ok", text);
    free(text);
    EXPECT_EQ(later_head("s1", 0, 0, 0), server.request(0));
}

TEST_F(poll_exchange, without_zlib_data_goes_raw_and_unchecked) {
    isZLIBloaded = 0;
    log_in_as("s1");
    std::string data = results(300);
    EXPECT_OUTCOME(1, "ok", 2, answered(with_body("ok"), data));
    EXPECT_EQ(later_head("s1", 300, 0, 0) + data, request_);
}

TEST_F(poll_exchange, when_compression_fails_the_raw_data_is_announced_and_checksummed) {
    lib_compress2 = [](Bytef*, uLongf*, const Bytef*, uLong, int) { return Z_BUF_ERROR; };
    log_in_as("s1");
    std::string data = results(300);
    EXPECT_OUTCOME(1, "ok", 2, answered(with_body("ok"), data));
    EXPECT_EQ(later_head("s1", 300, 0, checksum_of(data)) + data, request_);
    EXPECT_NE(std::string::npos,
              take_log_text().find(
                  "0 ERROR: compress_data: there was not enough room in the output buffer\n"));
}

TEST_F(poll_exchange, a_checksum_of_0_sends_the_raw_data) {
    lib_adler32 = [](uLong, const Bytef*, uInt) -> uLong { return 0; };
    log_in_as("s1");
    std::string data = results(300);
    EXPECT_OUTCOME(1, "ok", 2, answered(with_body("ok"), data));
    EXPECT_EQ(later_head("s1", 300, 0, 0) + data, request_);
}

TEST_F(poll_exchange, a_later_body_may_end_the_session) {
    log_in_as("s1");
    EXPECT_OUTCOME(3, "-", 0, answered(with_body("111111")));
    EXPECT_EQ("-", session());
    log_in_as("s1");
    EXPECT_OUTCOME(0, "-", 0, answered(with_body("666666")));
    EXPECT_EQ("-", session());
}

TEST_F(poll_exchange, only_the_whole_body_ends_the_session) {
    log_in_as("s1");
    for (const char* body : {"111111\n", "1111111", "11111", " 111111", "666666\n", "6666666"}) {
        EXPECT_OUTCOME(1, body, strlen(body), answered(with_body(body)));
        EXPECT_EQ("s1", session());
    }
    /* What comes behind the announced length is body as well. */
    EXPECT_OUTCOME(1, "111111x", 6, answered_and_ended(with_body("111111") + "x"));
    EXPECT_EQ("s1", session());
    /* And what does not come is not. */
    EXPECT_OUTCOME(3, "-", 0,
                   answered_and_ended("HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\n111111"));
    EXPECT_EQ("-", session());
}

TEST_F(poll_exchange, a_body_without_a_content_length_is_none) {
    log_in_as("s1");
    EXPECT_OUTCOME(1, "-", 0, answered_and_ended("HTTP/1.0 200 OK\r\n\r\n111111"));
    /* A connection that breaks off is no answer: the block has to be sent again. */
    EXPECT_OUTCOME(2, "-", 0,
                   answered_and_ended("HTTP/1.0 200 OK\r\n\r\n666666", "", peer::end_dirty()));
    EXPECT_OUTCOME(2, "-", 0, answered_and_ended("", "", peer::end_dirty()));
    EXPECT_EQ("s1", session());
}

TEST_F(poll_exchange, a_later_header_neither_renews_nor_ends_the_session) {
    log_in_as("s1");
    for (const char* id : {"s2", "111111", "666666"}) {
        EXPECT_OUTCOME(1, "ok", 2, answered(first_answer(id, "ok")));
        EXPECT_EQ("s1", session());
    }
}

TEST_F(poll_exchange, the_status_line_is_not_looked_at) {
    log_in_as("s1");
    EXPECT_OUTCOME(1, "oops", 4,
                   answered("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 4\r\n\r\noops"));
}

TEST_F(poll_exchange, the_body_is_what_arrived_up_to_its_first_nul) {
    log_in_as("s1");
    EXPECT_OUTCOME(1, "ab", 5, answered(with_body("ab\0cd"s)));
    EXPECT_OUTCOME(1, "", 2, answered(with_body("\0a"s)));
    EXPECT_OUTCOME(1, "abc", 2000000000,
                   answered_and_ended("HTTP/1.0 200 OK\r\nContent-Length: 2000000000\r\n\r\nabc"));
    EXPECT_OUTCOME(1, "", 9, answered_and_ended("HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\n"));
    EXPECT_OUTCOME(1, "-", 0,
                   answered_and_ended("HTTP/1.0 200 OK\r\nContent-Length: -3\r\n\r\nabc"));
    EXPECT_OUTCOME(1, "-", 0, answered_and_ended("no HTTP at all"));
    EXPECT_OUTCOME(1, "7", 13, answered_and_ended("Content-Type: 12\nContent-Length: 1\n\n7"));
}

/* --- the whole life of a session, and what the log says -------------------------------------- */

TEST_F(poll_exchange, a_session_from_login_to_end) {
    std::vector<tls_peer::conversation> script;
    for (const std::string& response :
         {first_answer("s1", "a"), with_body("b"), with_body("111111"), first_answer("s2", "c")}) {
        script.push_back({peer::take_request(), peer::send(response), peer::take_rest()});
    }
    tls_peer server(tls_peer::tls, std::move(script));
    EXPECT_OUTCOME(1, "a", 1, poll_server(server.port()));
    EXPECT_OUTCOME(1, "b", 1, poll_server(server.port()));
    EXPECT_OUTCOME(3, "-", 0, poll_server(server.port()));
    EXPECT_OUTCOME(1, "c", 1, poll_server(server.port()));
    EXPECT_EQ("s2", session());
    EXPECT_TRUE(server.await_end());
    EXPECT_EQ(4, server.clean_client_ends());
    EXPECT_NE(std::string::npos, server.request(0).find("\r\nVnd-EMail: someone@example.com\r\n"));
    EXPECT_NE(std::string::npos, server.request(1).find("\r\nVnd-SessionID: s1\r\n"));
    EXPECT_NE(std::string::npos, server.request(2).find("\r\nVnd-SessionID: s1\r\n"));
    EXPECT_NE(std::string::npos, server.request(3).find("\r\nVnd-AName: the agent\r\n"));
}

/* Replaces the number behind `label`, which has as many digits as `sample`. */
static void mask(std::string& text, const char* label, const char* sample, const char* by) {
    size_t at = text.find(label);
    if (at == std::string::npos) {
        return;
    }
    at += strlen(label);
    for (size_t i = 0; sample[i] != '\0'; i++) {
        EXPECT_EQ(sample[i] == '.', text[at + i] == '.') << text;
        EXPECT_TRUE(sample[i] == '.' || isdigit(text[at + i])) << text;
    }
    text.replace(at, strlen(sample), by);
}

TEST_F(poll_exchange, the_log_of_a_poll) {
    static const std::string stars(91, '*');
    log_in_as("s1");
    isZLIBloaded = 0;
    std::string response = with_body("ok");
    EXPECT_OUTCOME(1, "ok", 2, answered(response, "results"));
    std::vector<logged_line> log = take_log();
    int left = 0;
    ASSERT_FALSE(log.empty());
    ASSERT_EQ(1, sscanf(log[0].text.c_str(),
                        "INFO: make_poll: Connected, time spent:\t%*f time left:\t%d", &left));
    EXPECT_LE(left, 15000000);
    EXPECT_GT(left, 14000000);
    for (logged_line& line : log) {
        mask(line.text, "spent:\t", "0.123", "S");
        mask(line.text, "left:\t", "14999999", "L");
    }
    std::string head = later_head("s1", 7, 0, 0), head_size = std::to_string(head.size());
    std::vector<logged_line> expected = {
        {5, "INFO: make_poll: Connected, time spent:\tS time left:\tL"},
        {5, "INFO: make_poll: sending request:\n" + stars + "\n" + head + "\n" + stars},
        {1, "send_request: SSL_write: retV = " + head_size + " ret = " + head_size},
        {5, "INFO: make_poll: send_request: 1"},
        {5, "INFO: make_poll: sending data: 7 bytes"},
        {1, "send_request: SSL_write: retV = 7 ret = 7"},
        {5, "INFO: make_poll: send_request: 1"},
        {5, "INFO: make_poll: Response received!\ntime spent:\tS; time  left:\tL\n" + stars + "\n" +
                response + "\n" + stars + "\nContent Length: 2; Header Size: 38\n"},
    };
    ASSERT_EQ(expected.size(), log.size());
    for (size_t i = 0; i < log.size(); i++) {
        EXPECT_EQ(expected[i].level, log[i].level);
        EXPECT_EQ(expected[i].text, log[i].text);
    }
}

/* --- a certificate of the agent's own -------------------------------------------------------- */

namespace {

/* Asks clients for a certificate, and takes any of which `error` says X509_V_OK. */
struct asking_server {
    explicit asking_server(int version,
                           int mode = SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT) {
        SSL_CTX_use_certificate(context, certificate.get());
        SSL_CTX_use_PrivateKey(context, key.get());
        SSL_CTX_set_max_proto_version(context, version);
        SSL_CTX_set_verify(context, mode, nullptr);
        SSL_CTX_set_cert_verify_callback(context, judge, this);
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context, 0);
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    }
    /* Who has shown a certificate may resume; without a `place` it is offered and refused. */
    void let_resume(bool place) {
        SSL_CTX_set_num_tickets(context, 1);
        SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_SERVER);
        if (place) {
            SSL_CTX_set_session_id_context(context, reinterpret_cast<const unsigned char*>("x"), 1);
        } else {
            SSL_CTX_clear_options(context, SSL_OP_NO_TICKET);
        }
    }
    ~asking_server() { SSL_CTX_free(context); }
    asking_server(const asking_server&) = delete;
    asking_server& operator=(const asking_server&) = delete;

    /* On the server's thread. */
    static int judge(X509_STORE_CTX* chain, void* arg) {
        auto* self = static_cast<asking_server*>(arg);
        char name[100] = "";
        X509_NAME_get_text_by_NID(X509_get_subject_name(X509_STORE_CTX_get0_cert(chain)),
                                  NID_commonName, name, sizeof name);
        self->shown += name + " "s;
        X509_STORE_CTX_set_error(chain, self->error);
        return self->error == X509_V_OK;
    }

    key_handle key = new_key();
    certificate_handle certificate = certify(key.get(), {"server", "IP:127.0.0.1"});
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    int error = X509_V_OK;
    std::string shown; /* names of the certificates, a space behind each; read when all is played */
};

} // namespace

static const int VERSIONS[] = {TLS1_2_VERSION, TLS1_3_VERSION};

static tls_peer::conversation answer_with(const std::string& response) {
    return {peer::take_request(), peer::send(response), peer::take_rest()};
}

class poll_with_certificate : public poll_exchange {
protected:
    void SetUp() override {
        poll_exchange::SetUp();
        char pattern[] = "/tmp/sslutiles_poll_test.XXXXXX";
        directory = mkdtemp(pattern);
        own = directory + "/agent.pem";
        put(make_pair({"agent"}));
        cert_file = key_file = own.data();
    }
    void TearDown() override {
        std::filesystem::remove_all(directory);
        poll_exchange::TearDown();
    }

    static void put(const std::string& file, const std::string& text) {
        std::ofstream(file + ".new") << text;
        std::filesystem::rename(file + ".new", file);
    }
    void put(const pem_pair& pair) const { put(own, pair.key + pair.certificate); }

    std::string was_read() const {
        return "0 INFO: make_poll: CERTFILE \"" + own +
               "\" was read: a server that asks is shown this certificate.\n";
    }
    std::string refused(const std::string& reason) const {
        return "0 ERROR: make_poll: The server refused the certificate in CERTFILE \"" + own +
               "\": " + reason + ".\n";
    }

    /* Polls that server within a session, which stays whatever comes of it; the log is returned. */
    static std::string poll_within_session(asking_server& asking, int code,
                                           const std::string& data = "results") {
        tls_peer server(tls_peer::tls, {answer_with(with_body("ok"))}, asking.context);
        log_in_as("s1");
        take_log();
        EXPECT_EQ(poll_server(server.port(), data).code, code);
        EXPECT_TRUE(server.await_end());
        EXPECT_EQ(session(), "s1");
        return take_log_text();
    }

    std::string directory, own;
};

static const char REFUSED[] = "The server refused";

/* As it should end: then it may be resumed. */
static tls_peer::conversation answer_and_end(const std::string& response) {
    return {peer::take_request(), peer::send(response), peer::end_clean()};
}
static tls_peer::conversation hang_up() {
    return {peer::take_request(), peer::reset()};
}

static bool has_errors(const std::string& log) {
    return ("\n" + log).find("\n0 ") != std::string::npos;
}

TEST_F(poll_with_certificate, a_handshake_is_resumed_where_the_server_lets) {
    for (int version : VERSIONS) {
        asking_server asking(version);
        asking.let_resume(true);
        tls_peer server(tls_peer::tls,
                        {answer_and_end(first_answer("s1", "a")), answer_and_end(with_body("b")),
                         answer_and_end(with_body("c")), answer_and_end(with_body("d")), hang_up(),
                         answer_and_end(with_body("e"))},
                        asking.context);
        put(make_pair({"agent"}));
        log_out();
        take_log();
        EXPECT_OUTCOME(1, "a", 1, poll_server(server.port()));
        EXPECT_OUTCOME(1, "b", 1, poll_server(server.port(), "results"));
        EXPECT_OUTCOME(1, "c", 1, poll_server(server.port(), "results"));
        put(make_pair({"renewed"})); /* from now on it is that one */
        EXPECT_OUTCOME(1, "d", 1, poll_server(server.port(), "results"));
        EXPECT_EQ(poll_server(server.port(), "results").code, 2);
        EXPECT_OUTCOME(1, "e", 1, poll_server(server.port(), "results")); /* a whole one again */
        EXPECT_TRUE(server.await_end());
        EXPECT_EQ(asking.shown, "agent renewed renewed ");
    }
}

TEST_F(poll_with_certificate, a_server_that_offers_resumption_and_cannot_costs_one_poll) {
    asking_server asking(TLS1_3_VERSION);
    asking.let_resume(false);
    tls_peer server(tls_peer::tls,
                    {answer_and_end(first_answer("s1", "a")),
                     {peer::take_rest()},
                     answer_and_end(with_body("b")),
                     answer_and_end(with_body("c"))},
                    asking.context);
    EXPECT_OUTCOME(1, "a", 1, poll_server(server.port()));
    EXPECT_EQ(poll_server(server.port(), "results").code, 4);
    EXPECT_OUTCOME(1, "b", 1, poll_server(server.port(), "results"));
    EXPECT_OUTCOME(1, "c", 1, poll_server(server.port(), "results"));
    EXPECT_TRUE(server.await_end());
    EXPECT_EQ(asking.shown, "agent agent agent ");
    EXPECT_EQ(session(), "s1");
}

TEST_F(poll_with_certificate, it_is_shown_in_each_handshake_to_a_server_that_asks) {
    for (int version : VERSIONS) {
        asking_server asking(version);
        tls_peer server(tls_peer::tls,
                        {answer_with(first_answer("s1", "a")), answer_with(with_body("b"))},
                        asking.context);
        put(make_pair({"agent"}));
        log_out();
        take_log();
        EXPECT_OUTCOME(1, "a", 1, poll_server(server.port()));
        std::string log = take_log_text();
        EXPECT_NE(log.find(was_read()), std::string::npos) << log;
        EXPECT_OUTCOME(1, "b", 1, poll_server(server.port(), "results"));
        EXPECT_FALSE(has_errors(take_log_text()));
        EXPECT_TRUE(server.await_end());
        EXPECT_EQ(asking.shown, "agent agent ");
        EXPECT_EQ(server.naming_clients(), 0);
        EXPECT_EQ(server.clean_client_ends(), 2);
        EXPECT_NE(server.request(0).find("\r\nVnd-AName: the agent\r\n"), std::string::npos);
        EXPECT_NE(server.request(1).find("\r\nVnd-SessionID: s1\r\n"), std::string::npos);
    }
}

TEST_F(poll_with_certificate, a_server_that_does_not_ask_sees_what_it_always_saw) {
    EXPECT_OUTCOME(1, "b", 1, answered(first_answer("s1", "b")));
    const std::string with = request_;
    log_out();
    cert_file = key_file = nullptr;
    EXPECT_OUTCOME(1, "b", 1, answered(first_answer("s1", "b")));
    EXPECT_EQ(with, request_);
}

TEST_F(poll_with_certificate, a_renewal_counts_from_the_next_poll_on) {
    asking_server asking(TLS1_3_VERSION);
    poll_within_session(asking, 1);
    put(make_pair({"renewed"}));
    std::string log = poll_within_session(asking, 1);
    EXPECT_NE(log.find(was_read()), std::string::npos) << log;
    EXPECT_EQ(asking.shown, "agent renewed ");
}

TEST_F(poll_with_certificate, files_that_will_not_do_keep_session_and_block) {
    char missing[] = "/nonexistent/agent.pem", no_name[] = "";
    put(directory + "/other.pem", make_pair({"other"}).key);
    std::string other = directory + "/other.pem";
    struct {
        char *certificate, *key;
        std::string logged;
    } cases[] = {
        {missing, own.data(),
         "Cannot use CERTFILE \"/nonexistent/agent.pem\": No such file or directory\n"},
        {own.data(), missing,
         "Cannot use KEYFILE \"/nonexistent/agent.pem\": No such file or directory\n"},
        {no_name, own.data(), "Cannot use CERTFILE \"\": No such file or directory\n"},
        {own.data(), nullptr, "Cannot use CERTFILE \"" + own + "\": there is no KEYFILE with it\n"},
        {nullptr, own.data(), "Cannot use KEYFILE \"" + own + "\": there is no CERTFILE with it\n"},
        {own.data(), other.data(),
         "Cannot use KEYFILE \"" + other +
             "\": it is not the key of the certificate in CERTFILE \"" + own + "\"\n"},
    };
    asking_server asking(TLS1_3_VERSION, SSL_VERIFY_PEER);
    for (const auto& c : cases) {
        tls_peer server(tls_peer::tls, {answer_with(with_body("ok")), answer_with(with_body("ok"))},
                        asking.context);
        log_in_as("s1");
        isZLIBloaded = 0;
        cert_file = c.certificate;
        key_file = c.key;
        asking.shown.clear();
        take_log();
        EXPECT_OUTCOME(4, "-", 0, poll_server(server.port(), "results"));
        std::string log = take_log_text();
        EXPECT_TRUE(log.ends_with("\n0 ERROR: make_poll: " + c.logged)) << log;
        EXPECT_EQ(session(), "s1");
        cert_file = key_file = own.data();
        EXPECT_OUTCOME(1, "ok", 2, poll_server(server.port(), "results"));
        EXPECT_TRUE(server.await_end());
        EXPECT_EQ(server.request(0), "") << "nothing goes out without the certificate";
        EXPECT_EQ(server.request(1), later_head("s1", 7, 0, 0) + "results");
        EXPECT_EQ(asking.shown, "agent ");
    }
}

TEST_F(poll_with_certificate, a_server_s_alert_is_told_and_the_block_kept) {
    struct {
        int error;
        const char* reason;
    } cases[] = {
        {X509_V_ERR_CERT_HAS_EXPIRED, "it has expired (alert certificate_expired)"},
        {X509_V_ERR_CERT_REVOKED, "it has been revoked (alert certificate_revoked)"},
        {X509_V_ERR_CERT_NOT_YET_VALID, "it is not valid yet, or damaged (alert bad_certificate)"},
        {X509_V_ERR_INVALID_PURPOSE, "it is not one for clients (alert unsupported_certificate)"},
        {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
         "it does not accept the authority that signed it (alert unknown_ca)"},
        {X509_V_ERR_CERT_SIGNATURE_FAILURE,
         "a signature is wrong: another authority of the same name may have signed it (alert "
         "decrypt_error)"},
        {X509_V_ERR_NO_EXPLICIT_POLICY,
         "for a reason that it does not tell (alert certificate_unknown)"},
    };
    for (int version : VERSIONS) {
        for (const auto& c : cases) {
            asking_server asking(version);
            asking.error = c.error;
            std::string log = poll_within_session(asking, version == TLS1_2_VERSION ? 4 : 2);
            EXPECT_TRUE(log.ends_with(refused(c.reason))) << c.error << "\n" << log;
            EXPECT_EQ(log.find(REFUSED), log.rfind(REFUSED));
            EXPECT_EQ(asking.shown, "agent ");
        }
    }
}

TEST_F(poll_with_certificate, a_server_may_want_another_kind) {
    asking_server asking(TLS1_3_VERSION);
    SSL_CTX_set1_client_sigalgs_list(asking.context, "RSA-PSS+SHA256");
    std::string log = poll_within_session(asking, 2);
    EXPECT_TRUE(log.ends_with(refused("it wants one of another kind (alert certificate_required)")))
        << log;
    EXPECT_EQ(asking.shown, "");
}

/* The server's word comes while much is on its way to it. */
TEST_F(poll_with_certificate, a_refusal_is_told_also_when_sending_fails) {
    asking_server asking(TLS1_3_VERSION);
    asking.error = X509_V_ERR_CERT_REVOKED;
    isZLIBloaded = 0;
    std::string log = poll_within_session(asking, 2, std::string(30000000, 'x'));
    EXPECT_NE(log.find("\n5 INFO: make_poll: send_request: 0\n"), std::string::npos) << log;
    EXPECT_TRUE(log.ends_with(refused("it has been revoked (alert certificate_revoked)"))) << log;
}

TEST_F(poll_with_certificate, other_failures_are_not_taken_for_a_refusal) {
    for (int version : VERSIONS) {
        asking_server asking(version);
        asking.error = X509_V_ERR_APPLICATION_VERIFICATION; /* alert handshake_failure */
        std::string log = poll_within_session(asking, version == TLS1_2_VERSION ? 4 : 2);
        if (version == TLS1_2_VERSION) {
            EXPECT_NE(log.find("alert handshake failure"), std::string::npos) << log;
        }
        EXPECT_EQ(log.find(REFUSED), std::string::npos) << log;

        asking.error = X509_V_ERR_CERT_REVOKED;
        log = poll_within_session(asking, version == TLS1_2_VERSION ? 4 : 2);
        EXPECT_NE(log.find(REFUSED), std::string::npos) << log;
        EXPECT_EQ(2, poll_server(closed_port().c_str()).code);
        tls_peer no_tls(tls_peer::tcp, {{peer::end_dirty()}});
        EXPECT_EQ(4, poll_server(no_tls.port()).code);
        EXPECT_EQ(take_log_text().find(REFUSED), std::string::npos) << "that was another poll's";
    }
}

TEST_F(poll_with_certificate, only_a_server_that_was_verified_is_shown_it) {
    std::string bundle = directory + "/ca.pem";
    for (int version : VERSIONS) {
        asking_server asking(version);
        put(bundle, make_pair({"another"}).certificate);
        ca_file = bundle.data();
        std::string log = poll_within_session(asking, 4);
        EXPECT_TRUE(log.find("Cannot verify the server \"127.0.0.1\"") != std::string::npos) << log;
        EXPECT_EQ(log.find(REFUSED), std::string::npos) << log;
        EXPECT_EQ(asking.shown, "");

        put(bundle, pem_of(asking.certificate.get()));
        log = poll_within_session(asking, 1);
        EXPECT_NE(log.find("0 INFO: make_poll: CAFILE \"" + bundle +
                           "\" was read: the server is verified.\n" + was_read()),
                  std::string::npos)
            << log;
        EXPECT_EQ(asking.shown, "agent ");
        ca_file = nullptr;
    }
}

TEST_F(poll_with_certificate, why_no_session_was_begun_is_told_in_a_line) {
    auto told = [&](const std::string& response) {
        log_out();
        take_log();
        EXPECT_OUTCOME(4, "-", 0, answered_and_ended(response));
        EXPECT_EQ(session(), "-");
        std::string log = take_log_text();
        const std::string line = "0 ERROR: make_poll: The server began no session: \"";
        size_t at = log.find(line);
        EXPECT_TRUE(at != std::string::npos && log.ends_with("\"\n")) << log;
        EXPECT_EQ(at, log.rfind(line));
        return at != std::string::npos ? log.substr(at + line.size()) : log;
    };
    EXPECT_EQ(told("HTTP/1.0 403 Forbidden\r\nContent-Length: 32\r\n\r\n"
                   "This agent is not admitted yet.\n"),
              "This agent is not admitted yet.\"\n");
    EXPECT_EQ(told(with_body("not allowed")), "not allowed\"\n");
    EXPECT_EQ(told(with_body("one\nanother")), "one\"\n");
    EXPECT_EQ(told(with_body("a\x1b[31mb")), "a\"\n");
    EXPECT_EQ(told(with_body("a\xff")), "a\"\n");
    EXPECT_EQ(told(with_body("a\0b"s)), "a\"\n");
    EXPECT_EQ(told(with_body("%s%n")), "%s%n\"\n");
    EXPECT_EQ(told(with_body(std::string(100, 'x'))), std::string(100, 'x') + "\"\n");
    EXPECT_EQ(told(with_body(std::string(5000, 'x'))), std::string(100, 'x') + "\"\n");
    EXPECT_EQ(told(with_body("\r\n")), "\"\n");
    EXPECT_EQ(told(with_body("")), "\"\n");
    EXPECT_EQ(told("HTTP/1.0 403 Forbidden\r\nContent-Length: 9\r\n\r\n"), "\"\n");
    EXPECT_EQ(told("no HTTP at all"), "\"\n");
    EXPECT_EQ(told("HTTP/1.0 403 Forbidden\r\n\r\ntext"), "\"\n") << "of no known length";
}

TEST_F(poll_with_certificate, later_polls_and_logins_that_are_answered_tell_nothing) {
    EXPECT_OUTCOME(0, "-", 0, answered(first_answer("666666", "body")));
    EXPECT_OUTCOME(3, "-", 0, answered(first_answer("111111", "body")));
    log_in_as("s1");
    EXPECT_OUTCOME(1, "body", 4, answered(with_body("body")));
    EXPECT_OUTCOME(3, "-", 0, answered(with_body("111111")));
    EXPECT_EQ(take_log_text().find("began no session"), std::string::npos);
}

TEST_F(poll_with_certificate, without_one_nothing_of_it_is_called_or_logged) {
    cert_file = key_file = nullptr;
    auto new_private = std::exchange(lib_SSL_CTX_new_private, nullptr);
    auto use_certificate = std::exchange(lib_SSL_CTX_use_certificate_chain_file, nullptr);
    auto use_key = std::exchange(lib_SSL_CTX_use_PrivateKey_file, nullptr);
    auto get_certificate = std::exchange(lib_SSL_CTX_get0_certificate, nullptr);
    auto set_callback = std::exchange(lib_SSL_CTX_set_info_callback, nullptr);
    ssl_missing_to_show_certificate = "SSL_CTX_check_private_key";
    for (int version : VERSIONS) {
        asking_server asking(version, SSL_VERIFY_PEER);
        EXPECT_FALSE(has_errors(poll_within_session(asking, 1)));
        EXPECT_EQ(asking.shown, "");
        asking_server demanding(version);
        std::string log = poll_within_session(demanding, version == TLS1_2_VERSION ? 4 : 2);
        EXPECT_EQ(log.find("CERTFILE"), std::string::npos) << log;
    }
    log_out();
    EXPECT_OUTCOME(4, "-", 0, answered(with_body("This agent has to show its certificate.\n")));
    EXPECT_EQ(take_log_text().find("began no session"), std::string::npos);
    ssl_missing_to_show_certificate = nullptr;
    lib_SSL_CTX_new_private = new_private;
    lib_SSL_CTX_use_certificate_chain_file = use_certificate;
    lib_SSL_CTX_use_PrivateKey_file = use_key;
    lib_SSL_CTX_get0_certificate = get_certificate;
    lib_SSL_CTX_set_info_callback = set_callback;
}

/* --- failures -------------------------------------------------------------------------------- */

TEST_F(poll_exchange, no_tls_context) {
    lib_SSL_CTX_new = [](const SSL_METHOD*) -> SSL_CTX* {
        ERR_put_error(ERR_LIB_SSL, 0, ERR_R_MALLOC_FAILURE, __FILE__, __LINE__);
        return nullptr;
    };
    ERR_put_error(ERR_LIB_BN, 0, ERR_R_FATAL, __FILE__, __LINE__); /* left by somebody else */
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_OUTCOME(4, "-", 0, poll_server(server.port()));
    std::vector<logged_line> log = take_log();
    EXPECT_EQ(0, log.back().level);
    EXPECT_EQ("ERROR: make_poll: Cannot create SSL context. error:0A0C0100:SSL routines::malloc "
              "failure",
              log.back().text);
}

TEST_F(poll_exchange, no_tls_session) {
    lib_SSL_new = [](SSL_CTX*) -> SSL* { return nullptr; };
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_OUTCOME(4, "-", 0, poll_server(server.port()));
    std::vector<logged_line> log = take_log();
    EXPECT_EQ(0, log.back().level);
    EXPECT_EQ("ERROR: make_poll: Cannot create new SSL object. error:00000000:lib(0)::reason(0)",
              log.back().text);
}

TEST_F(poll_exchange, a_server_that_speaks_no_tls) {
    tls_peer server(tls_peer::tcp,
                    {{peer::send("HTTP/1.0 400 Bad Request\r\n\r\n"), peer::take_rest()}});
    log_in_as("s1");
    EXPECT_OUTCOME(4, "-", 0, poll_server(server.port()));
    std::vector<logged_line> log = take_log();
    EXPECT_EQ(0, log.back().level);
    EXPECT_EQ("ERROR: make_poll: Cannot make SSL connection. error:0A00010B:SSL routines::wrong "
              "version number",
              log.back().text);
    EXPECT_EQ("s1", session());
}

TEST_F(poll_exchange, a_server_that_hangs_up_in_the_handshake) {
    tls_peer server(tls_peer::tcp, {{peer::end_dirty()}});
    EXPECT_OUTCOME(4, "-", 0, poll_server(server.port()));
    std::vector<logged_line> log = take_log();
    EXPECT_TRUE(
        log.back().text.starts_with("ERROR: make_poll: Cannot make SSL connection. error:"));
}

TEST_F(poll_exchange, a_handshake_that_was_shut_down) {
    lib_SSL_connect = [](SSL*) { return 0; };
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    EXPECT_OUTCOME(4, "-", 0, poll_server(server.port()));
    EXPECT_TRUE(
        take_log().back().text.starts_with("ERROR: make_poll: Cannot make SSL connection. error:"));
}

TEST_F(poll_exchange, a_handshake_that_waits_to_write) {
    static int tries;
    tries = 0;
    lib_SSL_connect = [](SSL* ssl) { return tries++ == 0 ? -1 : SSL_connect(ssl); };
    lib_SSL_get_error = [](const SSL* ssl, int result) {
        return tries == 1 ? SSL_ERROR_WANT_WRITE : SSL_get_error(ssl, result);
    };
    EXPECT_OUTCOME(1, "b", 1, answered(first_answer("s1", "b")));
}

/* Without a message, and without spinning until then. */
TEST_F(poll_exchange, a_handshake_that_the_budget_ends) {
    tls_peer server(tls_peer::tcp, {{peer::pause()}});
    stream_connection c;
    long budget = 10000000;
    c.socket.reset(make_connection("127.0.0.1", server.port(), &budget));
    budget = 200000;
    while (blocked.try_acquire()) {
    }
    EXPECT_EQ(4, start_tls(c, &budget));
    EXPECT_LT(budget, 1);
    EXPECT_EQ("", take_log_text());
    EXPECT_TRUE(blocked.try_acquire());
    EXPECT_FALSE(blocked.try_acquire());
}

TEST_F(poll_exchange, a_send_that_fails) {
    log_in_as("s1");
    static int good_writes;
    for (int good : {0, 1}) {
        good_writes = good;
        lib_SSL_write = [](SSL* ssl, const void* data, int size) {
            return good_writes-- > 0 ? SSL_write(ssl, data, size) : 1;
        };
        tls_peer server(tls_peer::tls, {{peer::take_rest()}});
        EXPECT_OUTCOME(2, "-", 0, poll_server(server.port(), "results"));
        EXPECT_TRUE(take_log_text().ends_with("5 INFO: make_poll: send_request: 0\n"));
        EXPECT_EQ("s1", session());
    }
}

TEST_F(poll_exchange, a_receive_that_fails_ends_like_any_other) {
    log_in_as("s1");
    static std::string order;
    order.clear();
    lib_SSL_shutdown = [](SSL* ssl) {
        order += "shutdown ";
        return SSL_shutdown(ssl);
    };
    tls_peer server(tls_peer::tls, {{peer::take_request(), peer::reset()}});
    EXPECT_OUTCOME(2, "-", 0, poll_server(server.port()));
    EXPECT_EQ("shutdown ", order);
    EXPECT_NE(std::string::npos,
              take_log_text().find("\n0 ERROR: receive_response: SSL_read: error:"));
    EXPECT_EQ("s1", session());
}

TEST_F(poll_exchange, the_order_of_the_end) {
    static std::string order;
    static int socket;
    order.clear();
    lib_SSL_shutdown = [](SSL* ssl) {
        order += "shutdown ";
        socket = SSL_get_fd(ssl);
        return SSL_shutdown(ssl);
    };
    lib_SSL_free = [](SSL* ssl) {
        order += "free ";
        SSL_free(ssl);
    };
    lib_SSL_CTX_free = [](SSL_CTX* context) {
        order += fcntl(socket, F_GETFD) >= 0 ? "context-free close" : "too late";
        SSL_CTX_free(context);
    };
    EXPECT_OUTCOME(1, "b", 1, answered(first_answer("s1", "b")));
    EXPECT_EQ("shutdown free context-free close", order);
}

TEST_F(poll_exchange, descriptors_above_1023_work) {
    rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    rlimit raised = {std::max<rlim_t>(before.rlim_cur, 2048), before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &raised));
    std::vector<unique_fd> low;
    while (low.empty() || low.back().get() < 1023) {
        low.emplace_back(dup(0));
    }
    EXPECT_OUTCOME(1, "b", 1, answered(first_answer("s1", "b")));
    low.clear();
    setrlimit(RLIMIT_NOFILE, &before);
}

/* --- cancellation ---------------------------------------------------------------------------- */

struct poll_order {
    const char *host, *port;
    std::string data;
};

/* A thread that polls as the poll loop does. */
static void* polling_thread(void* arg) {
    const auto* order = static_cast<const poll_order*>(arg);
    cancel_off except_in_waits;
    char* text = nullptr;
    size_t size = 0;
    make_poll(order->data.data(), order->data.size(), &text, &size);
    free(text);
    return nullptr;
}

class cancelled_poll : public poll_exchange {
protected:
    /* Polls on a thread of its own and cancels it once `ready` is true and it is blocked. The
     * sanitizers see to it that nothing is lost; the descriptors are counted by the fixture. */
    static void poll_and_cancel(const poll_order& order, const std::function<bool()>& ready) {
        while (blocked.try_acquire()) {
        }
        std::string host_text = order.host, port_text = order.port;
        alt_server = host_text.data();
        alt_port = port_text.data();
        pthread_t thread;
        ASSERT_EQ(
            0, pthread_create(&thread, nullptr, polling_thread, const_cast<poll_order*>(&order)));
        EXPECT_TRUE(ready());
        ASSERT_EQ(0, pthread_cancel(thread));
        void* result = nullptr;
        ASSERT_EQ(0, pthread_join(thread, &result));
        EXPECT_EQ(PTHREAD_CANCELED, result);
        EXPECT_EQ("s1", session());
        alt_server = host;
    }
    static bool wait_begins() { return blocked.try_acquire_for(std::chrono::seconds(30)); }
};

TEST_F(cancelled_poll, while_resolving) {
    log_in_as("s1");
    poll_and_cancel({"slow.name", "443", "results"}, wait_begins);
    may_answer.release();
    EXPECT_TRUE(eventually([] { return count_threads("resolver") == 0; }));
}

TEST_F(cancelled_poll, while_connecting) {
    log_in_as("s1");
    full_listener server;
    poll_and_cancel({"127.0.0.1", server.port(), "results"}, wait_begins);
}

TEST_F(cancelled_poll, in_the_handshake) {
    log_in_as("s1");
    tls_peer server(tls_peer::tcp, {{peer::pause()}});
    poll_and_cancel({"127.0.0.1", server.port(), "results"},
                    [&] { return server.await_pauses(1) && wait_begins(); });
}

TEST_F(cancelled_poll, while_sending) {
    log_in_as("s1");
    isZLIBloaded = 0;
    tls_peer server(tls_peer::tls, {{peer::pause()}});
    static std::atomic<int> blocked_writes;
    blocked_writes = 0;
    lib_SSL_write = [](SSL* ssl, const void* data, int size) {
        int written = SSL_write(ssl, data, size);
        blocked_writes += written <= 0;
        return written;
    };
    poll_and_cancel({"127.0.0.1", server.port(), std::string(30000000, 'x')},
                    [] { return eventually([] { return blocked_writes > 0; }) && wait_begins(); });
}

TEST_F(cancelled_poll, while_waiting_for_the_answer) {
    log_in_as("s1");
    tls_peer server(tls_peer::tls, {{peer::take_request(), peer::pause()}});
    poll_and_cancel({"127.0.0.1", server.port(), "results"},
                    [&] { return server.await_pauses(1) && wait_begins(); });
}

TEST_F(cancelled_poll, with_half_an_answer) {
    log_in_as("s1");
    tls_peer server(tls_peer::tls, {{peer::take_request(),
                                     peer::send("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nhel"),
                                     peer::pause()}});
    poll_and_cancel({"127.0.0.1", server.port(), "results"},
                    [&] { return server.await_pauses(1) && wait_begins(); });
}

/* Cancelled before it begins, the thread ends in its first wait. */
TEST_F(cancelled_poll, before_the_first_wait) {
    log_in_as("s1");
    tls_peer server(tls_peer::tls, {{peer::take_request(), peer::pause()}});
    poll_and_cancel({"127.0.0.1", server.port(), "results"}, [] { return true; });
}

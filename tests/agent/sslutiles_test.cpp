#include "fake_core.h"
#include "guards.h"
#include "libsslloader.h"
#include "resolve.h"
#include "scripted_tls.h"
#include "tls_peer.h"
#include "vindral_common.h"

#include <arpa/inet.h>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <vector>

/* --- the system as sslutiles.cpp meets it: the real one, unless a test says otherwise --------- */

static int failing_fcntl = -1; /* the command that fails */
static int getsockopt_error = 0;
static int ppoll_error = 0;
static bool ppoll_lies = false;      /* reports readiness that is not there */
static bool ppoll_times_out = false; /* at once, whatever the budget */
static int read_error = 0;           /* for every read */
static int send_error = 0;
static int send_calls = 0;
static bool time_stands_still = false;
static std::atomic<int> ppoll_calls = 0;
static int read_calls = 0;
static std::function<int(addrinfo**)> fake_resolver;

static int test_fcntl(int fd, int command, int value) {
    if (command == failing_fcntl) {
        errno = EIO;
        return -1;
    }
    return fcntl(fd, command, value);
}

static int test_getsockopt(int fd, int level, int name, void* value, socklen_t* size) {
    if (getsockopt_error != 0) {
        errno = getsockopt_error;
        return -1;
    }
    return getsockopt(fd, level, name, value, size);
}

static int test_ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    ppoll_calls++;
    if (ppoll_error != 0) {
        errno = ppoll_error;
        return -1;
    }
    if (ppoll_times_out) {
        return 0;
    }
    return ppoll_lies && count > 0 ? 1 : ppoll(fds, count, timeout, mask);
}

static ssize_t test_read(int fd, void* room, size_t size) {
    read_calls++;
    if (read_error != 0) {
        errno = read_error;
        return -1;
    }
    return read(fd, room, size);
}

static ssize_t test_send(int fd, const void* data, size_t size, int flags) {
    send_calls++;
    if (send_error != 0) {
        errno = send_error;
        return -1;
    }
    return send(fd, data, size, flags);
}

static long test_timevaldiff(timeval* start, timeval* end) {
    return time_stands_still ? 0 : get_timevaldiff(start, end);
}

static int test_resolve_host(const char* host, const char* port, const addrinfo* hints,
                             addrinfo** list) {
    EXPECT_EQ(AF_INET, hints->ai_family);
    EXPECT_EQ(SOCK_STREAM, hints->ai_socktype);
    EXPECT_EQ(0, hints->ai_flags);
    EXPECT_EQ(0, hints->ai_protocol);
    return fake_resolver ? fake_resolver(list) : resolve_host(host, port, hints, list);
}

#define fcntl test_fcntl
#define getsockopt test_getsockopt
#define ppoll test_ppoll
#define read test_read
#define send test_send
#define get_timevaldiff test_timevaldiff
#define resolve_host test_resolve_host
#define freeaddrinfo(list)                                                                         \
    if (!fake_resolver) {                                                                          \
        freeaddrinfo(list);                                                                        \
    }
#include "budget.cpp"
#include "sslutiles.cpp"
#include "stream.cpp"
#include "stream_connect.cpp"
#undef fcntl
#undef getsockopt
#undef ppoll
#undef read
#undef send
#undef get_timevaldiff
#undef resolve_host
#undef freeaddrinfo

/* --------------------------------------------------------------------------------------------- */

using namespace std::string_literals;

static const long SECOND = 1000000;

class process_set_up : public testing::Environment {
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        struct sigaction interrupt = {};
        interrupt.sa_handler = [](int) {};
        sigaction(SIGUSR1, &interrupt, nullptr);
        ASSERT_EQ(1, init_ssl_variables());
        take_log();
    }
};
static testing::Environment* const set_up = testing::AddGlobalTestEnvironment(new process_set_up);

/* Every test ends with as many descriptors as it began with. */
class connection : public testing::Test {
protected:
    void SetUp() override {
        take_log();
        descriptors_ = count_descriptors();
    }
    void TearDown() override {
        failing_fcntl = -1;
        getsockopt_error = ppoll_error = read_error = send_error = 0;
        ppoll_lies = ppoll_times_out = time_stands_still = false;
        fake_resolver = nullptr;
        EXPECT_EQ("", take_log_text());
        EXPECT_EQ(descriptors_, count_descriptors());
    }

private:
    int descriptors_ = 0;
};

/* Interrupts the calling thread's waits, again and again, until it goes out of scope. */
class interrupter {
public:
    interrupter() : target_(pthread_self()), thread_([this] { run(); }) {}
    ~interrupter() {
        done_ = true;
        thread_.join();
    }

private:
    void run() {
        while (!done_) {
            pthread_kill(target_, SIGUSR1);
            usleep(1000);
        }
    }
    std::atomic<bool> done_ = false;
    pthread_t target_;
    std::thread thread_;
};

/* --- opening a connection -------------------------------------------------------------------- */

static int connect_to(const char* port, long budget = 10 * SECOND) {
    return make_connection("127.0.0.1", port, &budget);
}

TEST_F(connection, connects_and_charges_the_time) {
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    long budget = 10 * SECOND;
    unique_fd sk(make_connection("127.0.0.1", server.port(), &budget));
    int at_once = 0;
    socklen_t size = sizeof at_once;
    EXPECT_EQ(0, getsockopt(sk.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, &size));
    EXPECT_EQ(1, at_once);
    ASSERT_TRUE(sk);
    EXPECT_TRUE(fcntl(sk.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(sk.get(), F_GETFD) & FD_CLOEXEC);
    EXPECT_LE(budget, 10 * SECOND);
    EXPECT_GT(budget, 0);
    EXPECT_TRUE(server.await_connections(1));
}

TEST_F(connection, a_name_is_resolved) {
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    long budget = 10 * SECOND;
    unique_fd sk(make_connection("localhost", server.port(), &budget));
    EXPECT_TRUE(sk);
}

TEST_F(connection, resolver_errors_are_logged_with_the_host) {
    long budget = SECOND;
    EXPECT_EQ(-1, make_connection("::1", "443", &budget));
    EXPECT_EQ("0 Host: ::1 Error: Address family for hostname not supported\n", take_log_text());
    fake_resolver = [](addrinfo**) { return EAI_NONAME; };
    EXPECT_EQ(-1, make_connection("nowhere", "443", &budget));
    EXPECT_EQ("0 Host: nowhere Error: Name or service not known\n", take_log_text());
    EXPECT_EQ(SECOND, budget);
}

TEST_F(connection, an_empty_address_list_is_no_socket) {
    fake_resolver = [](addrinfo** list) {
        *list = nullptr;
        errno = ENOENT;
        return 0;
    };
    EXPECT_EQ(-1, connect_to("443"));
    EXPECT_EQ("0 Error creating socket (2 No such file or directory)\n\n", take_log_text());
}

/* Address lists of a test's own. */
struct address_entry {
    addrinfo info = {};
    sockaddr_storage address = {};
    address_entry(int family, socklen_t size) {
        info.ai_family = family;
        info.ai_socktype = SOCK_STREAM;
        info.ai_addr = reinterpret_cast<sockaddr*>(&address);
        info.ai_addrlen = size;
        address.ss_family = static_cast<sa_family_t>(family);
    }
};

static address_entry inet_entry(int port) {
    address_entry e(AF_INET, sizeof(sockaddr_in));
    auto* in = reinterpret_cast<sockaddr_in*>(&e.address);
    in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    in->sin_port = htons(static_cast<unsigned short>(port));
    return e;
}

static address_entry impossible_entry() {
    return address_entry(AF_MAX + 1, sizeof(sockaddr_in));
}

static void resolve_to(std::vector<address_entry>& entries) {
    for (size_t i = 0; i < entries.size(); i++) {
        entries[i].info.ai_addr = reinterpret_cast<sockaddr*>(&entries[i].address);
        entries[i].info.ai_next = i + 1 < entries.size() ? &entries[i + 1].info : nullptr;
    }
    fake_resolver = [&entries](addrinfo** list) {
        *list = &entries[0].info;
        return 0;
    };
}

TEST_F(connection, no_socket_for_any_address) {
    std::vector<address_entry> entries = {impossible_entry(), impossible_entry()};
    resolve_to(entries);
    EXPECT_EQ(-1, connect_to("443"));
    EXPECT_EQ("0 Error creating socket (97 Address family not supported by protocol)\n\n",
              take_log_text());
}

TEST_F(connection, the_first_address_with_a_socket_is_taken) {
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    std::vector<address_entry> entries = {impossible_entry(), inet_entry(atoi(server.port()))};
    resolve_to(entries);
    unique_fd sk(connect_to("443"));
    EXPECT_TRUE(sk);
}

TEST_F(connection, later_addresses_are_not_tried_when_the_connect_fails) {
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    std::vector<address_entry> entries = {inet_entry(atoi(closed_port().c_str())),
                                          inet_entry(atoi(server.port()))};
    resolve_to(entries);
    EXPECT_EQ(-1, connect_to("443"));
    EXPECT_EQ("0 Error in delayed connection() 111 - Connection refused\n", take_log_text());
}

TEST_F(connection, a_socket_that_cannot_be_made_non_blocking_is_closed) {
    failing_fcntl = F_GETFL;
    EXPECT_EQ(-1, connect_to("443"));
    EXPECT_EQ("0 Error: Input/output error\n", take_log_text());
    failing_fcntl = F_SETFL;
    EXPECT_EQ(-1, connect_to("443"));
    EXPECT_EQ("0 Error fcntl(..., F_SETFL) (Input/output error)\n\n", take_log_text());
}

TEST_F(connection, an_error_at_once) {
    std::vector<address_entry> entries = {address_entry(AF_UNIX, sizeof(sockaddr_un))};
    strcpy(reinterpret_cast<sockaddr_un*>(&entries[0].address)->sun_path, "/nonexistent/socket");
    resolve_to(entries);
    EXPECT_EQ(-1, connect_to("443"));
    EXPECT_EQ("0 Error connecting 2 - No such file or directory\n", take_log_text());
}

TEST_F(connection, connected_at_once) {
    std::vector<address_entry> entries = {address_entry(AF_UNIX, sizeof(sockaddr_un))};
    std::string path = testing::TempDir() + "at_once." + std::to_string(getpid());
    strcpy(reinterpret_cast<sockaddr_un*>(&entries[0].address)->sun_path, path.c_str());
    resolve_to(entries);
    unique_fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<sockaddr*>(&entries[0].address),
                      sizeof(sockaddr_un)));
    ASSERT_EQ(0, listen(listener.get(), 1));
    ppoll_calls = 0;
    unique_fd sk(connect_to("443"));
    EXPECT_TRUE(sk);
    EXPECT_EQ(0, ppoll_calls);
    unlink(path.c_str());
}

TEST_F(connection, refused) {
    long budget = SECOND;
    EXPECT_EQ(-1, make_connection("127.0.0.1", closed_port().c_str(), &budget));
    EXPECT_EQ("0 Error in delayed connection() 111 - Connection refused\n", take_log_text());
    EXPECT_LT(budget, SECOND);
    EXPECT_GT(budget, 0);
}

TEST_F(connection, the_pending_error_cannot_be_read) {
    tls_peer server(tls_peer::tcp, {{peer::take_rest()}});
    getsockopt_error = ENOBUFS;
    EXPECT_EQ(-1, connect_to(server.port()));
    EXPECT_EQ("0 Error in getsockopt() 105 - No buffer space available\n", take_log_text());
}

TEST_F(connection, the_wait_fails) {
    full_listener server;
    ppoll_error = ENOMEM;
    EXPECT_EQ(-1, connect_to(server.port()));
    EXPECT_EQ("0 Error connecting 12 - Cannot allocate memory\n", take_log_text());
}

TEST_F(connection, no_answer_within_the_budget) {
    full_listener server;
    long budget = SECOND / 50;
    EXPECT_EQ(-1, make_connection("127.0.0.1", server.port(), &budget));
    EXPECT_EQ("0 Connection to host: \"127.0.0.1\" timed out after 0 seconds\n", take_log_text());
    EXPECT_LT(budget, 1);
}

TEST_F(connection, a_time_out_names_the_budget_at_entry) {
    full_listener server;
    ppoll_times_out = true;
    EXPECT_EQ(-1, connect_to(server.port(), 15 * SECOND + 999999));
    EXPECT_EQ("0 Connection to host: \"127.0.0.1\" timed out after 15 seconds\n", take_log_text());
}

TEST_F(connection, a_negative_budget_times_out_at_once) {
    full_listener server;
    ppoll_calls = 0;
    EXPECT_EQ(-1, connect_to(server.port(), -3 * SECOND));
    EXPECT_EQ("0 Connection to host: \"127.0.0.1\" timed out after -3 seconds\n", take_log_text());
    EXPECT_EQ(0, ppoll_calls);
}

TEST_F(connection, an_interrupted_wait_counts_as_a_time_out) {
    full_listener server;
    long budget = 3600 * SECOND + 999999;
    interrupter signals;
    EXPECT_EQ(-1, make_connection("127.0.0.1", server.port(), &budget));
    EXPECT_EQ("0 Connection to host: \"127.0.0.1\" timed out after 3600 seconds\n",
              take_log_text());
    EXPECT_GT(budget, 3000 * SECOND);
}

TEST_F(connection, wait_socket_refuses_what_is_no_descriptor) {
    long budget = SECOND;
    EXPECT_EQ(-1, wait_socket(-1, POLLIN, &budget));
    EXPECT_EQ(EBADF, errno);
    int closed = dup(0);
    close(closed);
    errno = 0;
    EXPECT_EQ(-1, wait_socket(closed, POLLIN, &budget));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(connection, wait_socket_leaves_nothing_of_the_budget_after_a_time_out) {
    socket_pair pair;
    for (long budget : {0L, 1L, 999L, 20001L}) {
        EXPECT_EQ(0, wait_socket(pair.ours.get(), POLLIN, &budget));
        EXPECT_LE(budget, 0);
    }
    long budget = SECOND;
    ppoll_times_out = true;
    EXPECT_EQ(0, wait_socket(pair.ours.get(), POLLIN, &budget));
    EXPECT_EQ(0, budget);
}

/* --- sending --------------------------------------------------------------------------------- */

static int send_text(int sk, const std::string& text, long budget = 10 * SECOND,
                     SSL* session = nullptr) {
    return send_request(sk, text.data(), text.size(), &budget, session);
}

static std::string read_until_end(int fd) {
    std::string all;
    char room[4096];
    for (ssize_t got; (got = read(fd, room, sizeof room)) > 0;) {
        all.append(room, static_cast<size_t>(got));
    }
    return all;
}

static std::string pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; i++) {
        text[i] = static_cast<char>('a' + i % 23 + i / 4095 % 3);
    }
    return text;
}

/* Writes until the socket takes no more. */
static void fill(int fd) {
    std::string block = pattern(65536);
    while (write(fd, block.data(), block.size()) > 0) {
    }
}

TEST_F(connection, sends_everything_in_as_many_pieces_as_it_takes) {
    socket_pair pair;
    std::string text = pattern(3000000), received;
    std::thread reader([&] { received = read_until_end(pair.theirs.get()); });
    long budget = 10 * SECOND;
    EXPECT_EQ(1, send_request(pair.ours.get(), text.data(), text.size(), &budget, nullptr));
    EXPECT_LT(budget, 10 * SECOND);
    pair.ours.reset();
    reader.join();
    EXPECT_TRUE(text == received);
}

TEST_F(connection, sending_nothing_succeeds) {
    socket_pair pair;
    EXPECT_EQ(1, send_text(pair.ours.get(), ""));
}

TEST_F(connection, sending_on_a_closed_descriptor) {
    int closed = dup(0);
    close(closed);
    EXPECT_EQ(0, send_text(closed, "x"));
    EXPECT_EQ("0 ERROR: send_request: select failed with errno: 9, Bad file descriptor\n",
              take_log_text());
    EXPECT_EQ(0, send_text(-1, "x"));
    EXPECT_EQ("0 ERROR: send_request: select failed with errno: 9, Bad file descriptor\n",
              take_log_text());
}

TEST_F(connection, sending_to_somebody_who_takes_nothing) {
    socket_pair pair;
    fill(pair.ours.get());
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", SECOND / 50));
    EXPECT_EQ("0 send_request: select: timed out.\n", take_log_text());
}

TEST_F(connection, sending_with_a_negative_budget) {
    socket_pair pair;
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", -1));
    EXPECT_EQ("0 send_request: select: timed out.\n", take_log_text());
}

TEST_F(connection, a_budget_that_ends_with_the_send_is_a_failure_although_the_bytes_are_out) {
    socket_pair pair;
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", 0));
    EXPECT_EQ("0 send_request: send: timed out.\n", take_log_text());
    char c = 0;
    EXPECT_EQ(1, read(pair.theirs.get(), &c, 1));
}

TEST_F(connection, a_microsecond_left_is_enough) {
    time_stands_still = true;
    socket_pair pair;
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", 0));
    EXPECT_EQ("0 send_request: send: timed out.\n", take_log_text());
    EXPECT_EQ(1, send_text(pair.ours.get(), "x", 1));
}

TEST_F(connection, sending_to_somebody_who_has_gone_fails_without_a_word_or_a_signal) {
    socket_pair pair;
    pair.theirs.reset();
    signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(0, send_text(pair.ours.get(), "x"));
    signal(SIGPIPE, SIG_IGN);
}

TEST_F(connection, any_other_error_ends_a_send_without_a_word) {
    socket_pair pair;
    for (int error : {EINTR, ENOBUFS, ECONNRESET}) {
        send_error = error;
        send_calls = 0;
        EXPECT_EQ(0, send_text(pair.ours.get(), "x"));
        EXPECT_EQ(1, send_calls);
    }
}

TEST_F(connection, an_interrupted_wait_does_not_end_a_send) {
    socket_pair pair;
    fill(pair.ours.get());
    ppoll_calls = 0;
    std::string received;
    std::thread reader([&] {
        while (ppoll_calls < 5) { /* interrupted and back in the wait a few times */
            usleep(1000);
        }
        received = read_until_end(pair.theirs.get());
    });
    {
        interrupter signals;
        EXPECT_EQ(1, send_text(pair.ours.get(), "the end"));
    }
    pair.ours.reset();
    reader.join();
    EXPECT_TRUE(received.ends_with("the end"));
}

/* --- sending over TLS: rare outcomes --------------------------------------------------------- */

class fake_tls : public connection {
    scripted_tls played_;
};

TEST_F(fake_tls, send_logs_the_length_and_the_result) {
    socket_pair pair;
    tls_script = {{7, 0}};
    EXPECT_EQ(1, send_text(pair.ours.get(), "request", SECOND, fake_session));
    EXPECT_EQ("1 send_request: SSL_write: retV = 7 ret = 7\n", take_log_text());
    EXPECT_EQ(1u, tls_calls);
}

TEST_F(fake_tls, a_write_of_one_byte_counts_as_failed) {
    socket_pair pair;
    tls_script = {{1, 0}};
    EXPECT_EQ(0, send_text(pair.ours.get(), "x", SECOND, fake_session));
    EXPECT_EQ("1 send_request: SSL_write: retV = 1 ret = 1\n", take_log_text());
    tls_script = {{2, 0}};
    EXPECT_EQ(1, send_text(pair.ours.get(), "xy", SECOND, fake_session));
    EXPECT_EQ("1 send_request: SSL_write: retV = 2 ret = 2\n", take_log_text());
}

TEST_F(fake_tls, send_is_repeated_while_the_session_wants_the_socket) {
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1)); /* ready for both */
    tls_script = {{-1, SSL_ERROR_WANT_WRITE}, {-1, SSL_ERROR_WANT_READ}, {7, 0}};
    EXPECT_EQ(1, send_text(pair.ours.get(), "request", SECOND, fake_session));
    EXPECT_EQ("1 send_request: SSL_write: retV = 2 ret = 7\n", take_log_text());
    EXPECT_EQ(3u, tls_calls);
}

TEST_F(fake_tls, send_waits_for_what_the_session_wants_and_does_not_spin) {
    socket_pair pair;
    tls_script = {{-1, SSL_ERROR_WANT_READ}};
    EXPECT_EQ(0, send_text(pair.ours.get(), "request", SECOND / 50, fake_session));
    EXPECT_EQ("0 send_request: takes too long time, timing out.\n", take_log_text());
    EXPECT_LE(tls_calls, 2u);

    /* Readable, but no longer writable. */
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    static int filled;
    filled = pair.ours.get();
    tls_calls = 0;
    lib_SSL_write = [](SSL*, const void*, int) {
        fill(filled);
        return play_tls();
    };
    tls_script = {{-1, SSL_ERROR_WANT_WRITE}};
    EXPECT_EQ(0, send_text(pair.ours.get(), "request", SECOND / 50, fake_session));
    EXPECT_EQ("0 send_request: takes too long time, timing out.\n", take_log_text());
    EXPECT_LE(tls_calls, 2u);
}

TEST_F(fake_tls, the_last_try_may_still_succeed) {
    socket_pair pair;
    tls_script = {{-1, SSL_ERROR_WANT_READ}, {7, 0}};
    EXPECT_EQ(1, send_text(pair.ours.get(), "request", SECOND / 5, fake_session));
    EXPECT_EQ("0 send_request: takes too long time, timing out.\n", take_log_text());
}

TEST_F(fake_tls, a_write_that_ends_after_the_budget_is_judged_by_its_result) {
    socket_pair pair;
    for (int result : {-1, 0, 1, 2}) {
        tls_script = {{result, SSL_ERROR_SSL}};
        EXPECT_EQ(result > 1, send_text(pair.ours.get(), "xy", 0, fake_session));
        EXPECT_EQ("0 send_request: takes too long time, timing out.\n", take_log_text());
    }
}

TEST_F(fake_tls, a_microsecond_left_is_enough) {
    time_stands_still = true;
    socket_pair pair;
    tls_script = {{7, 0}};
    EXPECT_EQ(1, send_text(pair.ours.get(), "request", 0, fake_session));
    EXPECT_EQ("0 send_request: takes too long time, timing out.\n", take_log_text());
    EXPECT_EQ(1, send_text(pair.ours.get(), "request", 1, fake_session));
    EXPECT_EQ("1 send_request: SSL_write: retV = 7 ret = 7\n", take_log_text());
}

TEST_F(fake_tls, send_errors_and_their_levels) {
    socket_pair pair;
    struct {
        tls_step step;
        const char* log;
    } rows[] = {
        {{0, SSL_ERROR_ZERO_RETURN}, "0 send_request: SSL_write: retV = 6 ret = 0\n"},
        {{-1, SSL_ERROR_ZERO_RETURN}, "0 send_request: SSL_write: retV = 6 ret = -1\n"},
        {{0, SSL_ERROR_SYSCALL}, "0 send_request: SSL_write: retV = 5 ret = 0\n"},
        {{-1, SSL_ERROR_SYSCALL}, "1 send_request: SSL_write: retV = 5 ret = -1\n"},
        {{-1, SSL_ERROR_SSL}, "1 send_request: SSL_write: retV = 1 ret = -1\n"},
    };
    for (const auto& row : rows) {
        tls_script = {row.step};
        EXPECT_EQ(0, send_text(pair.ours.get(), "request", SECOND, fake_session));
        EXPECT_EQ(row.log, take_log_text());
    }
}

TEST_F(fake_tls, the_wait_before_the_first_write) {
    socket_pair pair;
    tls_script = {{7, 0}};
    EXPECT_EQ(0, send_text(-1, "request", SECOND, fake_session));
    EXPECT_EQ("0 ERROR: send_request: select failed with errno: 9, Bad file descriptor\n",
              take_log_text());
    fill(pair.ours.get());
    EXPECT_EQ(0, send_text(pair.ours.get(), "request", SECOND / 50, fake_session));
    EXPECT_EQ("0 send_request: select: timed out.\n", take_log_text());
    EXPECT_EQ(0u, tls_calls);
}

TEST_F(fake_tls, an_interrupted_wait_carries_on_to_the_write) {
    socket_pair pair;
    fill(pair.ours.get());
    tls_script = {{7, 0}};
    interrupter signals;
    EXPECT_EQ(1, send_text(pair.ours.get(), "request", 3600 * SECOND, fake_session));
    EXPECT_EQ("1 send_request: SSL_write: retV = 7 ret = 7\n", take_log_text());
}

TEST_F(fake_tls, more_than_an_int_of_bytes_is_refused) {
    socket_pair pair;
    long budget = SECOND;
    EXPECT_EQ(0, send_request(pair.ours.get(), "x", size_t{INT_MAX} + 1, &budget, fake_session));
    EXPECT_EQ("0 ERROR: send_request: 2147483648 bytes are too many for TLS.\n", take_log_text());
    EXPECT_EQ(0u, tls_calls);
}

/* --- receiving ------------------------------------------------------------------------------- */

struct received {
    int result;
    std::string text;
    int header_size, content_length;
    long budget;
};

static received receive_from(int sk, long budget = 10 * SECOND, SSL* session = nullptr) {
    char* text = const_cast<char*>("untouched");
    int header_size = -1, content_length = -1;
    int result = receive_response(sk, &budget, &text, &header_size, &content_length, session);
    received all = {result, "", header_size, content_length, budget};
    if (result == 0) {
        EXPECT_EQ(nullptr, text);
        EXPECT_EQ(0, header_size);
    } else {
        /* The length is not told; the tests' texts hold no NUL unless they say so. */
        all.text = text;
        free(text);
    }
    return all;
}

/* The pieces arrive one per read; a null tail ends the stream after them. */
static received receive_pieces(const std::vector<std::string>& pieces, bool end = true,
                               long budget = 10 * SECOND) {
    socket_pair pair(SOCK_SEQPACKET);
    for (const std::string& piece : pieces) {
        EXPECT_EQ(static_cast<ssize_t>(piece.size()),
                  send(pair.theirs.get(), piece.data(), piece.size(), 0));
    }
    if (end) {
        pair.theirs.reset();
    }
    return receive_from(pair.ours.get(), budget);
}

/* A budget can also end between the wait and the read, when something came before the silence. */
static void expect_time_out() {
    std::string log = take_log_text();
    EXPECT_TRUE(log == "0 ERROR: receive_response: select: Connection timed out.\n" ||
                log == "0 ERROR: receive_response: SSL_read: Connection timed out.\n")
        << log;
}

static const char EOF_LINE[] = "5 receive_response: read(): 0 EOF\n";

static const std::string hello_head = "HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\n";
static const std::string hello = hello_head + "hello";

TEST_F(connection, every_split_of_a_response_completes_without_an_end_of_stream) {
    for (size_t split = 1; split < hello.size(); split++) {
        received r = receive_pieces({hello.substr(0, split), hello.substr(split)}, false);
        EXPECT_EQ(1, r.result);
        EXPECT_EQ(hello, r.text);
        EXPECT_EQ(static_cast<int>(hello_head.size()), r.header_size);
        EXPECT_EQ(5, r.content_length);
        EXPECT_GT(r.budget, 0);
    }
}

TEST_F(connection, a_response_may_come_byte_by_byte) {
    for (const char* text : {"HTTP/1.0 200 OK\r\nContent-Length: 5\r\n\r\nhello",
                             "HTTP/1.0 200 OK\nContent-Length: 5\n\nhello"}) {
        std::vector<std::string> bytes;
        for (const char* c = text; *c != '\0'; c++) {
            bytes.emplace_back(1, *c);
        }
        received r = receive_pieces(bytes, false);
        EXPECT_EQ(1, r.result);
        EXPECT_EQ(text, r.text);
        EXPECT_EQ(static_cast<int>(strlen(text)) - 5, r.header_size);
        EXPECT_EQ(5, r.content_length);
    }
}

TEST_F(connection, a_large_response_completes) {
    std::string text = "HTTP/1.0 200 OK\r\nContent-Length: 1000000\r\n\r\n" + pattern(1000000);
    socket_pair pair;
    std::thread writer([&] {
        for (size_t done = 0; done < text.size();) {
            done += static_cast<size_t>(
                write(pair.theirs.get(), text.data() + done, text.size() - done));
        }
    });
    received r = receive_from(pair.ours.get());
    writer.join();
    EXPECT_EQ(1, r.result);
    EXPECT_TRUE(text == r.text);
    EXPECT_EQ(1000000, r.content_length);
}

TEST_F(connection, bytes_may_have_any_value_and_a_nul_follows_them) {
    std::string text = "HTTP/1.0 200 OK\r\nContent-Length: 6\r\n\r\na\0b\xff\0c"s;
    socket_pair pair;
    EXPECT_EQ(static_cast<ssize_t>(text.size()),
              write(pair.theirs.get(), text.data(), text.size()));
    long budget = SECOND;
    char* out = nullptr;
    int header_size = 0, content_length = 0;
    ASSERT_EQ(1, receive_response(pair.ours.get(), &budget, &out, &header_size, &content_length,
                                  nullptr));
    EXPECT_EQ(text + '\0', std::string(out, text.size() + 1));
    EXPECT_EQ(static_cast<int>(text.size()), header_size + content_length);
    free(out);
}

TEST_F(connection, without_a_content_length_the_end_of_the_stream_completes) {
    received r = receive_pieces({"HTTP/1.0 200 OK\r\n\r\n", "hello"});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ("HTTP/1.0 200 OK\r\n\r\nhello", r.text);
    EXPECT_EQ(19, r.header_size);
    EXPECT_EQ(0, r.content_length);
    EXPECT_EQ(EOF_LINE, take_log_text());
}

TEST_F(connection, a_content_length_of_0_does_not_complete) {
    received r = receive_pieces({"HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n"});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(0, r.content_length);
    EXPECT_EQ(EOF_LINE, take_log_text());
    r = receive_pieces({"HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n"}, false, SECOND / 50);
    EXPECT_EQ(0, r.result);
    expect_time_out();
}

TEST_F(connection, the_end_of_the_stream_is_a_success_wherever_it_comes) {
    received r = receive_pieces({});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ("", r.text);
    EXPECT_EQ(0, r.header_size);
    EXPECT_EQ(0, r.content_length);
    r = receive_pieces({"HTTP/1.0 200 OK\r\nContent-Length: 5\r\n"});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ("HTTP/1.0 200 OK\r\nContent-Length: 5\r\n", r.text);
    EXPECT_EQ(0, r.header_size);
    EXPECT_EQ(0, r.content_length);
    r = receive_pieces({hello_head, "hel"});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(hello_head + "hel", r.text);
    EXPECT_EQ(5, r.content_length);
    EXPECT_EQ(std::string(EOF_LINE) + EOF_LINE + EOF_LINE, take_log_text());
}

TEST_F(connection, more_than_announced_is_read_until_the_end_or_the_time_out) {
    received r = receive_pieces({hello + "!", "more"});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(hello + "!more", r.text);
    EXPECT_EQ(5, r.content_length);
    EXPECT_EQ(EOF_LINE, take_log_text());
    r = receive_pieces({hello + "!"}, false, SECOND / 50);
    EXPECT_EQ(0, r.result);
    EXPECT_LT(r.budget, 1);
    expect_time_out();
}

TEST_F(connection, two_content_lengths_add_up) {
    received r = receive_pieces(
        {"HTTP/1.0 200 OK\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\n", "1234567"}, false);
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(7, r.content_length);
}

TEST_F(connection, a_bare_empty_line_is_seen_only_with_the_byte_behind_it) {
    received r = receive_pieces({"HTTP/1.0 200 OK\nContent-Length: 1\n\n"});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(0, r.header_size);
    EXPECT_EQ(EOF_LINE, take_log_text());
    r = receive_pieces({"HTTP/1.0 200 OK\nContent-Length: 1\n\n", "x"}, false);
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(35, r.header_size);
    EXPECT_EQ(1, r.content_length);
}

TEST_F(connection, lengths_are_compared_and_handed_out_as_int) {
    received r =
        receive_pieces({"HTTP/1.0 200 OK\r\nContent-Length: 4294967301\r\n\r\n", "hello"}, false);
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(5, r.content_length);
    r = receive_pieces({"HTTP/1.0 200 OK\r\nContent-Length: -5\r\n\r\nhello"});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(-5, r.content_length);
    EXPECT_EQ(EOF_LINE, take_log_text());
    r = receive_pieces({"HTTP/1.0 200 OK\r\nContent-Length: 9223372036854775806\r\n"
                        "Content-Length: 9223372036854775806\r\n\r\nhello"});
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(-4, r.content_length);
    EXPECT_EQ(EOF_LINE, take_log_text());
}

TEST_F(connection, receiving_from_a_closed_descriptor) {
    int closed = dup(0);
    close(closed);
    EXPECT_EQ(0, receive_from(closed).result);
    EXPECT_EQ("0 ERROR: receive_response: failed on select: errno: 9, Bad file descriptor\n",
              take_log_text());
}

TEST_F(connection, receiving_from_somebody_silent) {
    received r = receive_pieces({}, false, SECOND / 50);
    EXPECT_EQ(0, r.result);
    EXPECT_LT(r.budget, 1);
    EXPECT_EQ("0 ERROR: receive_response: select: Connection timed out.\n", take_log_text());
    EXPECT_EQ(0, receive_pieces({hello}, false, -1).result);
    EXPECT_EQ("0 ERROR: receive_response: select: Connection timed out.\n", take_log_text());
}

TEST_F(connection, a_budget_that_ends_with_a_read_drops_what_was_read) {
    EXPECT_EQ(0, receive_pieces({hello}, false, 0).result);
    EXPECT_EQ("0 ERROR: receive_response: SSL_read: Connection timed out.\n", take_log_text());
}

TEST_F(connection, a_microsecond_left_is_enough_for_a_read) {
    time_stands_still = true;
    EXPECT_EQ(0, receive_pieces({hello}, false, 0).result);
    EXPECT_EQ("0 ERROR: receive_response: SSL_read: Connection timed out.\n", take_log_text());
    EXPECT_EQ(1, receive_pieces({hello}, false, 1).result);
}

TEST_F(connection, a_budget_that_ends_with_a_read_counts_before_its_outcome) {
    EXPECT_EQ(0, receive_pieces({}, true, 0).result);
    EXPECT_EQ("0 ERROR: receive_response: SSL_read: Connection timed out.\n", take_log_text());
    ppoll_lies = true;
    EXPECT_EQ(0, receive_pieces({}, false, 0).result);
    EXPECT_EQ("0 ERROR: receive_response: SSL_read: Connection timed out.\n", take_log_text());
}

TEST_F(connection, the_transient_read_errors_end_the_exchange) {
    ppoll_lies = true;
    EXPECT_EQ(0, receive_pieces({}, false).result);
    EXPECT_EQ("0 receive_response: Error 11 - Resource temporarily unavailable\n", take_log_text());
    read_error = EINTR;
    EXPECT_EQ(0, receive_pieces({}, false).result);
    EXPECT_EQ("0 receive_response: Error 4 - Interrupted system call\n", take_log_text());
}

TEST_F(connection, an_interrupted_wait_carries_on_to_the_read) {
    socket_pair pair;
    interrupter signals;
    EXPECT_EQ(0, receive_from(pair.ours.get(), 3600 * SECOND).result);
    EXPECT_EQ("0 receive_response: Error 11 - Resource temporarily unavailable\n", take_log_text());
}

TEST_F(connection, other_read_errors_are_retried_until_the_budget_runs_out_without_spinning) {
    unique_fd directory(open("/", O_RDONLY | O_DIRECTORY));
    read_calls = 0;
    received r = receive_from(directory.get(), SECOND / 5);
    EXPECT_EQ(0, r.result);
    EXPECT_LT(r.budget, 1);
    EXPECT_EQ("0 ERROR: receive_response: SSL_read: Connection timed out.\n", take_log_text());
    EXPECT_GE(read_calls, 2);
    EXPECT_LE(read_calls, 21);
}

TEST_F(connection, a_reset_reads_as_the_end_of_the_stream) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::reset()}});
    unique_fd sk(connect_to(server.port()));
    ASSERT_TRUE(sk);
    EXPECT_EQ(1, send_text(sk.get(), "GET / HTTP/1.0\r\n\r\n"));
    EXPECT_EQ(1, receive_from(sk.get()).result);
    EXPECT_EQ(EOF_LINE, take_log_text());
}

TEST_F(connection, an_exchange_over_tcp) {
    tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::send(hello), peer::take_rest()}});
    unique_fd sk(connect_to(server.port()));
    ASSERT_TRUE(sk);
    EXPECT_EQ(1, send_text(sk.get(), "POST / HTTP/1.0\r\nContent-Length: 3\r\n\r\n"));
    EXPECT_EQ(1, send_text(sk.get(), "abc"));
    EXPECT_EQ(hello, receive_from(sk.get()).text);
    EXPECT_EQ("POST / HTTP/1.0\r\nContent-Length: 3\r\n\r\nabc", server.request(0));
}

TEST_F(connection, descriptors_above_1023_work) {
    rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    rlimit raised = {std::max<rlim_t>(before.rlim_cur, 2048), before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &raised));
    tls_peer server(tls_peer::tcp, {{peer::take_request(), peer::send(hello), peer::take_rest()}});
    std::vector<unique_fd> low;
    while (low.empty() || low.back().get() < 1023) {
        low.emplace_back(dup(0));
    }
    unique_fd sk(connect_to(server.port()));
    EXPECT_GT(sk.get(), 1023);
    EXPECT_EQ(1, send_text(sk.get(), "GET / HTTP/1.0\r\n\r\n"));
    EXPECT_EQ(hello, receive_from(sk.get()).text);
    low.clear();
    setrlimit(RLIMIT_NOFILE, &before);
}

/* --- receiving over TLS: rare outcomes ------------------------------------------------------- */

static int size_of(const std::string& text) {
    return static_cast<int>(text.size());
}

TEST_F(fake_tls, receive_waits_for_what_the_session_wants) {
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    tls_read_data = hello;
    tls_script = {{-1, SSL_ERROR_WANT_READ}, {-1, SSL_ERROR_WANT_WRITE}, {size_of(hello), 0}};
    EXPECT_EQ(hello, receive_from(pair.ours.get(), SECOND, fake_session).text);

    /* No longer readable when it wants to write: only a wait for that gets on. */
    static int drained;
    drained = pair.ours.get();
    tls_calls = 0;
    lib_SSL_read = [](SSL*, void* room, int) {
        char c;
        EXPECT_EQ(tls_calls == 0 ? 1 : -1, read(drained, &c, 1));
        int got = play_tls();
        if (got > 0) {
            memcpy(room, hello.data(), hello.size());
        }
        return got;
    };
    tls_script = {{-1, SSL_ERROR_WANT_WRITE}, {size_of(hello), 0}};
    EXPECT_EQ(hello, receive_from(pair.ours.get(), SECOND, fake_session).text);
}

TEST_F(fake_tls, receive_times_out_in_the_wait_that_the_session_wants) {
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    fill(pair.ours.get());
    tls_script = {{-1, SSL_ERROR_WANT_WRITE}};
    EXPECT_EQ(0, receive_from(pair.ours.get(), SECOND / 5, fake_session).result);
    expect_time_out();
    EXPECT_EQ(1u, tls_calls);
}

TEST_F(fake_tls, bytes_left_in_the_session_are_read_without_a_wait) {
    std::string text = "HTTP/1.0 200 OK\r\nContent-Length: 5000\r\n\r\n" + pattern(5000);
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    tls_read_data = text;
    tls_script = {{4095, 0}, {size_of(text) - 4095, 0}};
    ppoll_calls = 0;
    received r = receive_from(pair.ours.get(), SECOND, fake_session);
    EXPECT_TRUE(text == r.text);
    EXPECT_EQ(1, ppoll_calls);
}

TEST_F(fake_tls, the_budget_also_ends_reads_without_a_wait) {
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    lib_SSL_read = [](SSL*, void* room, int size) {
        memset(room, 'x', static_cast<size_t>(size));
        usleep(1000);
        return size;
    };
    EXPECT_EQ(0, receive_from(pair.ours.get(), SECOND / 50, fake_session).result);
    EXPECT_EQ("0 ERROR: receive_response: SSL_read: Connection timed out.\n", take_log_text());
}

TEST_F(fake_tls, the_session_that_ended_completes_the_response) {
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    for (tls_step end : {tls_step{0, SSL_ERROR_ZERO_RETURN}, tls_step{-1, SSL_ERROR_ZERO_RETURN},
                         tls_step{0, SSL_ERROR_SYSCALL}}) {
        tls_calls = 0;
        tls_read_data = hello_head + "hel";
        tls_script = {{size_of(tls_read_data), 0}, end};
        received r = receive_from(pair.ours.get(), SECOND, fake_session);
        EXPECT_EQ(1, r.result);
        EXPECT_EQ(hello_head + "hel", r.text);
        EXPECT_EQ(size_of(hello_head), r.header_size);
        EXPECT_EQ(5, r.content_length);
    }
}

TEST_F(fake_tls, a_session_that_ends_after_the_budget_completes_nothing) {
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    tls_script = {{0, SSL_ERROR_ZERO_RETURN}};
    EXPECT_EQ(0, receive_from(pair.ours.get(), 0, fake_session).result);
    EXPECT_EQ("0 ERROR: receive_response: SSL_read: Connection timed out.\n", take_log_text());
}

TEST_F(fake_tls, any_other_error_fails_with_its_text) {
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    for (tls_step end : {tls_step{-1, SSL_ERROR_SYSCALL}, tls_step{-1, SSL_ERROR_SSL},
                         tls_step{0, SSL_ERROR_SSL}, tls_step{-1, SSL_ERROR_WANT_X509_LOOKUP}}) {
        tls_calls = 0;
        tls_script = {end};
        EXPECT_EQ(0, receive_from(pair.ours.get(), SECOND, fake_session).result);
        EXPECT_EQ("0 ERROR: receive_response: SSL_read: error text 42\n", take_log_text());
    }
}

TEST_F(fake_tls, an_endless_response_is_given_up) {
    socket_pair pair;
    EXPECT_EQ(1, write(pair.theirs.get(), "x", 1));
    lib_SSL_read = [](SSL*, void* room, int size) {
        memset(room, 'x', static_cast<size_t>(size));
        return size;
    };
    EXPECT_EQ(0, receive_from(pair.ours.get(), 3600 * SECOND, fake_session).result);
    EXPECT_EQ("0 ERROR: receive_response: more than 67108864 bytes received.\n", take_log_text());
}

/* --- over real TLS --------------------------------------------------------------------------- */

/* A client session on a new connection to `server`. */
struct tls_client {
    unique_fd sk;
    SSL_CTX* context = nullptr;
    SSL* session = nullptr;
    explicit tls_client(const tls_peer& server) : sk(connect_to(server.port())) {
        context = SSL_CTX_new(TLS_client_method());
        session = SSL_new(context);
        SSL_set_fd(session, sk.get());
        long budget = 10 * SECOND;
        for (int done; (done = SSL_connect(session)) != 1 && budget > 0;) {
            wait_socket(sk.get(), SSL_want(session) == SSL_READING ? POLLIN : POLLOUT, &budget);
        }
        EXPECT_GT(budget, 0);
    }
    ~tls_client() {
        SSL_free(session);
        SSL_CTX_free(context);
    }
    received ask(long budget = 10 * SECOND) {
        EXPECT_EQ(1, send_text(sk.get(), "GET / HTTP/1.0\r\n\r\n", 10 * SECOND, session));
        EXPECT_EQ("1 send_request: SSL_write: retV = 18 ret = 18\n", take_log_text());
        return receive_from(sk.get(), budget, session);
    }
};

TEST_F(connection, every_split_into_tls_records_completes) {
    std::vector<tls_peer::conversation> script;
    for (size_t split = 1; split < hello.size(); split += 3) {
        script.push_back({peer::take_request(), peer::send(hello.substr(0, split)),
                          peer::send(hello.substr(split)), peer::take_rest()});
    }
    script.push_back({peer::take_request()});
    for (char c : hello) {
        script.back().push_back(peer::send(std::string(1, c)));
    }
    script.back().push_back(peer::take_rest());
    size_t conversations = script.size();
    tls_peer server(tls_peer::tls, std::move(script));
    for (size_t i = 0; i < conversations; i++) {
        received r = tls_client(server).ask();
        EXPECT_EQ(1, r.result);
        EXPECT_EQ(hello, r.text);
        EXPECT_EQ(5, r.content_length);
    }
}

TEST_F(connection, large_tls_records_are_read_to_their_end) {
    for (int size : {4095, 4096, 8190, 16384, 100000}) {
        std::string text =
            "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n";
        text += pattern(static_cast<size_t>(size));
        tls_peer server(tls_peer::tls,
                        {{peer::take_request(), peer::send(text), peer::take_rest()}});
        received r = tls_client(server).ask();
        EXPECT_EQ(1, r.result);
        EXPECT_TRUE(text == r.text);
        EXPECT_EQ(size, r.content_length);
    }
}

TEST_F(connection, a_large_request_over_tls) {
    std::string body = pattern(2000000);
    tls_peer server(tls_peer::tls, {{peer::take_request(), peer::send(hello), peer::take_rest()}});
    tls_client client(server);
    std::string head = "POST / HTTP/1.0\r\nContent-Length: 2000000\r\n\r\n";
    EXPECT_EQ(1, send_text(client.sk.get(), head, 10 * SECOND, client.session));
    EXPECT_EQ(1, send_text(client.sk.get(), body, 10 * SECOND, client.session));
    EXPECT_EQ(hello, receive_from(client.sk.get(), 10 * SECOND, client.session).text);
    EXPECT_TRUE(head + body == server.request(0));
    EXPECT_TRUE(take_log_text().ends_with("ret = 2000000\n"));
}

TEST_F(connection, a_tls_peer_that_takes_nothing) {
    tls_peer server(tls_peer::tls, {{peer::pause()}});
    tls_client client(server);
    ppoll_calls = 0;
    EXPECT_EQ(0, send_text(client.sk.get(), pattern(30000000), SECOND / 20, client.session));
    EXPECT_EQ("0 send_request: takes too long time, timing out.\n", take_log_text());
    EXPECT_LT(ppoll_calls, 1000);
}

TEST_F(connection, the_ends_of_a_tls_connection) {
    using namespace peer;
    tls_peer server(tls_peer::tls, {{take_request(), peer::send(hello_head + "hel"), end_clean()},
                                    {take_request(), peer::send(hello_head + "hel"), end_dirty()},
                                    {take_request(), end_clean()},
                                    {take_request(), end_dirty()},
                                    {take_request(), peer::send(hello_head), peer::reset()}});
    /* A peer that broke off without the closing alert has not ended the response. */
    const char broke_off[] = "0 ERROR: receive_response: SSL_read: error:";
    received r = tls_client(server).ask();
    EXPECT_EQ(1, r.result);
    EXPECT_EQ(hello_head + "hel", r.text);
    EXPECT_EQ(size_of(hello_head), r.header_size);
    EXPECT_EQ(5, r.content_length);
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ(0, tls_client(server).ask().result);
    EXPECT_TRUE(take_log_text().starts_with(broke_off));
    r = tls_client(server).ask();
    EXPECT_EQ(1, r.result);
    EXPECT_EQ("", r.text);
    EXPECT_EQ(0, r.header_size);
    EXPECT_EQ(0, r.content_length);
    EXPECT_EQ(0, tls_client(server).ask().result);
    EXPECT_TRUE(take_log_text().starts_with(broke_off));
    EXPECT_EQ(0, tls_client(server).ask().result);
    EXPECT_TRUE(take_log_text().starts_with("0 ERROR: receive_response: SSL_read: error:"));
}

TEST_F(connection, a_silent_tls_peer) {
    tls_peer server(tls_peer::tls, {{peer::take_request(), peer::pause()}});
    EXPECT_EQ(0, tls_client(server).ask(SECOND / 50).result);
    expect_time_out();
}

TEST_F(connection, a_tls_peer_that_speaks_plain_text_in_between) {
    tls_peer server(tls_peer::tls, {{peer::take_request(), peer::pause()}});
    tls_client client(server);
    /* What arrives on the wire next is no record. */
    socket_pair pair;
    EXPECT_EQ(17, write(pair.theirs.get(), "HTTP/1.0 200 OK\r\n", 17));
    SSL_set_fd(client.session, pair.ours.get());
    EXPECT_EQ(0, receive_from(pair.ours.get(), SECOND, client.session).result);
    EXPECT_TRUE(take_log_text().starts_with("0 ERROR: receive_response: SSL_read: error:"));
}

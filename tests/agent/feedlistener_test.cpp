#include "checker.h"
#include "checker_place.h"
#include "fake_core.h"
#include "feedlistener_frame.h"
#include "thread_library.h"
#include "vindral_common.h"

#include <arpa/inet.h>
#include <atomic>
#include <bit>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <utility>

/* Calls of the module that fail on order: so many, with this error. */
struct failing {
    std::atomic<int> times, error;
};
static failing encoding, reallocation, thread_creation, opening, waiting, acceptance;
static std::atomic<int> calls_before_failing; /* of the encoding */

static void order(failing& call, int error, int times = 1) {
    call.error = error;
    call.times = times;
}

static bool fails(failing& call) {
    if (call.times <= 0) {
        return false;
    }
    call.times--;
    errno = call.error;
    return true;
}

static char* encode_or_fail(const char* s, size_t l) {
    return calls_before_failing-- <= 0 && fails(encoding) ? nullptr : get_URL_Encode(s, l);
}
static void* realloc_or_fail(void* p, size_t size) {
    return fails(reallocation) ? nullptr : realloc(p, size);
}
static int before_thread(void* (*)(void*), void*) {
    return fails(thread_creation) ? thread_creation.error.load() : 0;
}
static int create_or_fail(pthread_t* t, const pthread_attr_t* a, void* (*body)(void*), void* arg) {
    int error = before_thread(body, arg);
    return error != 0 ? error : pthread_create(t, a, body, arg);
}
static std::atomic<bool> zero_socket; /* the next one shall be descriptor 0 */
static int socket_or_fail(int family, int type, int protocol) {
    if (zero_socket.exchange(false)) {
        return 0;
    }
    return fails(opening) ? -1 : socket(family, type, protocol);
}
static int poll_or_fail(pollfd* fds, nfds_t count, int timeout) {
    return fails(waiting) ? -1 : poll(fds, count, timeout);
}
static int accept_or_fail(int fd, sockaddr* from, socklen_t* size, int flags) {
    return fails(acceptance) ? -1 : accept4(fd, from, size, flags);
}

#define get_URL_Encode(...) encode_or_fail(__VA_ARGS__)
#define realloc(...) realloc_or_fail(__VA_ARGS__)
#define pthread_create(...) create_or_fail(__VA_ARGS__)
#define socket(...) socket_or_fail(__VA_ARGS__)
#define poll(...) poll_or_fail(__VA_ARGS__)
#define accept4(...) accept_or_fail(__VA_ARGS__)
#include "feedlistener.cpp"
#undef get_URL_Encode
#undef realloc
#undef pthread_create
#undef socket
#undef poll
#undef accept4

/* The lines with T for their third field, which is a time. */
static std::string without_times(const std::string& lines) {
    std::string all;
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
        size_t begin = line.find('\t', 4) + 1;
        size_t end = line.find('\t', begin);
        bool time = end - begin == 10 && line.find_first_not_of("0123456789", begin) == end;
        all += (time ? line.replace(begin, 10, "T") : line) + '\n';
    }
    return all;
}

class feed : public testing::Test {
protected:
    std::string log, lines;

    feed() {
        listener_wait_ms = 20;
        thread_library::about_to_create = before_thread;
        take_log();
    }

    ~feed() override {
        remove_all_tcp_servers();
        remove_all_unix_servers();
        EXPECT_TRUE(eventually([] { return connections == 0; }));
        free(get_feed_results());
        calls_before_failing = 0;
    }

    /* Everything so far. */
    const std::string& logged() { return log += take_log_text(); }
    const std::string& fed() {
        heap_text text(get_feed_results());
        return lines += text ? without_times(text.get()) : "";
    }

    bool wait_logged(const std::string& text) {
        return eventually([&] { return logged().find(text) != std::string::npos; });
    }
    void expect_fed(const std::string& all) {
        EXPECT_TRUE(eventually([&] { return fed().size() >= all.size(); }));
        EXPECT_EQ(lines, all);
    }
};

static size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        count++;
    }
    return count;
}

static void add_text(const std::string& chunk, int tid = 7, const char* peer = "10.0.0.1",
                     int status = 0) {
    addchunk(const_cast<char*>(chunk.data()), static_cast<int>(chunk.size()), tid, peer, status);
}

static std::string framed(const std::string& chunk) {
    return std::to_string(chunk.size()) + "\r\n" + chunk;
}

/* --- cache --- */

TEST_F(feed, initialisation) {
    EXPECT_EQ(init_feed(), 1);
}

TEST_F(feed, a_chunk_is_a_line) {
    time_t before = now_in_seconds();
    add_text("a b");
    char* text = nullptr;
    int length = -1;
    EXPECT_EQ(get_feed(&text, &length), 1);
    heap_text line(text);
    EXPECT_EQ(static_cast<size_t>(length), strlen(text));
    EXPECT_EQ(without_times(text), "TSV\t7\tT\t10.0.0.1\ta%2520b\t0\n");
    long long stamp = 0;
    EXPECT_EQ(sscanf(text, "TSV\t7\t%lld\t", &stamp), 1);
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, now_in_seconds());
    EXPECT_EQ(logged(), "5 Added chunk size: 3\n"
                        "5 Url encoded chunk: a%20b\n"
                        "5 Double Url encoded chunk: a%2520b\n"
                        "5 Adding new result: " +
                            std::string(text) + "\n");
}

TEST_F(feed, local_is_who_is_named_so_exactly) {
    add_text("x", -1, "localhost", 1);
    add_text("x", 2, "localhost ");
    add_text("x", 3, "Localhost");
    expect_fed("USV\t-1\tT\tlocalhost\tx\t1\nTSV\t2\tT\tlocalhost \tx\t0\n"
               "TSV\t3\tT\tLocalhost\tx\t0\n");
}

TEST_F(feed, any_byte) {
    add_text(std::string("\0\t\n%\xC3Z", 6), 1, "localhost");
    expect_fed("USV\t1\tT\tlocalhost\t%2500%2509%250A%2525%25FFZ\t0\n");
}

TEST_F(feed, no_chunk) {
    char text[] = "x";
    addchunk(nullptr, 1, 1, "localhost", 0);
    addchunk(text, 0, 1, "localhost", 0);
    addchunk(text, -1, 1, "localhost", 0);
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(fed(), "");
}

TEST_F(feed, hand_over_empties) {
    char text[] = "x";
    char* taken = text;
    int length = -1;
    EXPECT_EQ(get_feed(&taken, &length), 1);
    EXPECT_EQ(taken, nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(get_feed_results(), nullptr);
    add_text("x");
    add_text("y");
    heap_text both(get_feed_results());
    EXPECT_EQ(without_times(both.get()), "TSV\t7\tT\t10.0.0.1\tx\t0\nTSV\t7\tT\t10.0.0.1\ty\t0\n");
    EXPECT_EQ(get_feed_results(), nullptr);
}

TEST_F(feed, encoding_fails) {
    order(encoding, ENOMEM);
    add_text("x");
    EXPECT_EQ(logged(), "5 Added chunk size: 1\n5 Url encoded chunk: Encoding Failed\n");
    log.clear();
    order(encoding, ENOMEM);
    calls_before_failing = 1;
    add_text("x");
    EXPECT_EQ(logged(), "5 Added chunk size: 1\n5 Url encoded chunk: x\n"
                        "5 Double Url encoded chunk: Encoding Failed\n");
    EXPECT_EQ(fed(), "");
}

TEST_F(feed, no_memory_for_a_line) {
    order(reallocation, ENOMEM);
    add_text("x");
    add_text("y");
    expect_fed("TSV\t7\tT\t10.0.0.1\ty\t0\n");
}

TEST_F(feed, cache_is_bounded) {
    const char dropped[] = "0 WARNING: The feed cache is full, new results are dropped\n";
    std::string chunk(1 << 20, 'x');
    size_t around = strlen("TSV\t7\t1234567890\t10.0.0.1\t\t0\n");
    size_t line = around + chunk.size();
    for (int episode = 0; episode < 2; episode++) {
        for (int i = 0; i < 18; i++) {
            add_text(chunk);
        }
        add_text("y"); /* there is room for this one */
        log.clear();
        EXPECT_EQ(count_of(logged(), dropped), 1u);
        char* text;
        int length;
        get_feed(&text, &length);
        heap_text all(text);
        EXPECT_EQ(static_cast<size_t>(length), 15 * line + around + 1);
        EXPECT_EQ(strlen(text), static_cast<size_t>(length));
    }
}

TEST_F(feed, cache_to_the_last_byte) {
    size_t around = strlen("TSV\t7\t1234567890\t10.0.0.1\t\t0\n");
    add_text(std::string(FEED_CACHE_MOST - 1 - around + 1, 'x'));
    EXPECT_EQ(get_feed_results(), nullptr);
    add_text(std::string(FEED_CACHE_MOST - 1 - around, 'x'));
    heap_text full(get_feed_results());
    ASSERT_TRUE(full);
    EXPECT_EQ(strlen(full.get()), FEED_CACHE_MOST - 1);
}

/* --- frames --- */

static int read(std::string data, feed_frame* frame) {
    return read_frame(data.data(), data.size(), frame);
}

TEST(frame, whole_and_more) {
    for (const char* text : {"5\r\nhello", "5\r\nhello7", "5\r\nhello5\r\nworld"}) {
        std::string data = text;
        feed_frame frame{};
        ASSERT_EQ(read_frame(data.data(), data.size(), &frame), 0);
        EXPECT_EQ(frame.payload, data.data() + 3);
        EXPECT_EQ(frame.length, 5u);
        EXPECT_EQ(frame.size, 8u);
    }
}

TEST(frame, outcomes) {
    const struct {
        std::string data;
        int outcome;
    } cases[] = {
        {"", EAGAIN},
        {"5", EAGAIN},
        {"5\r", EAGAIN},
        {"5\r\n", EAGAIN},
        {"5\r\nhell", EAGAIN},
        {"0\r\n", 0},
        {"0005\r\nhello", 0},
        {"00000000000000000001\r\nx", 0},
        {"00000000000000000000", EAGAIN},
        {"1048576", EAGAIN},
        {"1048577", EAGAIN},
        {"1048577\r", EAGAIN},
        {"1048577\r\n", EMSGSIZE},
        {"18446744073709551617\r\nx", EMSGSIZE},
        {"99999999999999999999\r\n", EMSGSIZE},
    };
    for (const auto& c : cases) {
        feed_frame frame{};
        EXPECT_EQ(read(c.data, &frame), c.outcome) << c.data;
    }
}

/* Nobody can tell what will come. */
TEST(frame, what_is_no_length_waits_up_to_the_most) {
    for (const std::string start :
         {"000000000000000000001", "000000000000000000001\r\nx", "99999999999999999999", "hello",
          "\r\n", "\n", " 5\r\nhello", "+5\r\nhello", "-5\r\nhello", "5 \r\nhello", "5\nhello",
          "5\rhello", "5\r\r\n", "5hello", "5\v\r\n", "0x5\r\nhello", "hello\r\n5\r\nhello",
          "\xB5\r\n"}) {
        feed_frame frame{};
        EXPECT_EQ(read(start, &frame), EAGAIN) << start;
        for (char more : {'x', '9', '\n'}) {
            std::string data = start + std::string(FRAME_MOST - 1 - start.size(), more);
            EXPECT_EQ(read(data, &frame), EAGAIN) << start;
            EXPECT_EQ(read(data + more, &frame), EPROTO) << start;
            EXPECT_EQ(read(data + more + "5\r\nhello", &frame), EPROTO) << start;
        }
    }
    feed_frame frame{};
    EXPECT_EQ(read(std::string(1, '\0'), &frame), EAGAIN);
    EXPECT_EQ(read(std::string(FRAME_MOST, '\0'), &frame), EPROTO);
    EXPECT_EQ(read(std::string(FRAME_MOST, '0'), &frame), EPROTO);
}

TEST(frame, a_frame_below_the_most_is_decided) {
    std::string longest = "00000000000001048576\r\n" + std::string(CHUNK_MOST, 'x');
    feed_frame frame{};
    ASSERT_EQ(longest.size(), FRAME_MOST);
    EXPECT_EQ(read(longest, &frame), 0);
    longest.pop_back();
    EXPECT_EQ(read(longest, &frame), EAGAIN);
}

/* --- connections --- */

/* A connection that a thread serves, from this end. */
class client {
public:
    explicit client(int fd = -1) : fd_(fd) {}

    static client to_port(int port, const char* from = "127.0.0.1") {
        client c(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = internet_address(from, 0);
        EXPECT_EQ(bind(c.fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        address = internet_address("127.0.0.1", port);
        if (connect(c.fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            c.fd_.reset();
        }
        return c;
    }
    static client to_path(const std::string& path) {
        client c(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.data(), path.size());
        if (connect(c.fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            c.fd_.reset();
        }
        return c;
    }
    static sockaddr_in internet_address(const char* ip, int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, ip, &address.sin_addr);
        return address;
    }

    explicit operator bool() const { return static_cast<bool>(fd_); }
    int fd() const { return fd_.get(); }
    void send(const std::string& data) const {
        for (size_t sent = 0; sent < data.size();) {
            ssize_t n = ::send(fd_.get(), data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
            ASSERT_GT(n, 0) << strerror(errno);
            sent += static_cast<size_t>(n);
        }
    }
    void close() { fd_.reset(); }
    /* So that the other end gets an error instead of an end. */
    void break_off() {
        linger now = {1, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }
    /* Whether the other end has closed (waits), or not (looks). */
    bool is_closed(int wait_ms = 10000) const {
        pollfd readable = {fd_.get(), POLLIN, 0};
        char c;
        return ::poll(&readable, 1, wait_ms) > 0 && recv(fd_.get(), &c, 1, 0) <= 0;
    }
    bool is_open() const { return !is_closed(0); }

private:
    unique_fd fd_;
};

static acc* new_acc(const char* ip, int peer, int tid) {
    acc* handed = static_cast<acc*>(malloc(sizeof(acc)));
    *handed = {strdup(ip), peer, tid};
    return handed;
}

/* A connection of a local socket pair, served by a thread with the stack that listeners give. */
class served {
public:
    client peer;

    explicit served(const char* ip = "10.0.0.1", int tid = 7) {
        int pair[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        peer = client(pair[0]);
        connections++;
        pthread_attr_t attributes;
        init_attributes(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
        EXPECT_EQ(pthread_create(&thread_, &attributes, accepting, new_acc(ip, pair[1], tid)), 0);
        pthread_attr_destroy(&attributes);
    }
    ~served() { end(); }

    /* Ends the connection and waits for the thread. */
    void end() {
        peer.close();
        if (thread_ != 0) {
            pthread_join(std::exchange(thread_, 0), nullptr);
        }
    }

private:
    pthread_t thread_ = 0;
};

TEST_F(feed, chunk_in_one_piece) {
    served connection;
    connection.peer.send("5\r\nhello");
    expect_fed("TSV\t7\tT\t10.0.0.1\thello\t0\n");
    connection.end();
    EXPECT_EQ(logged().find("0 "), std::string::npos);
    EXPECT_EQ(fed(), lines);
}

TEST_F(feed, chunk_that_comes_late) {
    served connection;
    connection.peer.send("1\r\nx5\r\nhel");
    expect_fed("TSV\t7\tT\t10.0.0.1\tx\t0\n");
    connection.peer.send("lo");
    expect_fed("TSV\t7\tT\t10.0.0.1\tx\t0\nTSV\t7\tT\t10.0.0.1\thello\t0\n");
}

TEST_F(feed, two_chunks_in_one_packet) {
    served connection("localhost", 9);
    connection.peer.send("2\r\nab3\r\ncde");
    expect_fed("USV\t9\tT\tlocalhost\tab\t0\nUSV\t9\tT\tlocalhost\tcde\t0\n");
}

TEST_F(feed, every_split) {
    std::string stream = "3\r\na\r\n0\r\n0001\r\n12\r\n1\r";
    std::string expected =
        "TSV\t7\tT\tp\ta%250D%250A\t0\nTSV\t7\tT\tp\t1\t0\nTSV\t7\tT\tp\t1%250D\t0\n";
    for (size_t a = 0; a <= stream.size(); a++) {
        for (size_t b = a; b <= stream.size(); b++) {
            bytes in;
            size_t ends[] = {a, b, stream.size()};
            size_t at = 0;
            for (size_t end : ends) {
                ASSERT_TRUE(in.append(stream.data() + at, end - at));
                at = end;
                ASSERT_EQ(take_chunks(in, 7, "p"), 0);
            }
            ASSERT_EQ(in.size(), 0u);
            heap_text text(get_feed_results());
            ASSERT_TRUE(text);
            ASSERT_EQ(without_times(text.get()), expected) << a << " " << b;
        }
    }
}

TEST_F(feed, byte_by_byte) {
    served connection;
    std::string all;
    for (const std::string chunk : {"hello", "", "12345678901"}) {
        for (char c : framed(chunk)) {
            connection.peer.send(std::string(1, c));
        }
        all += chunk.empty() ? "" : "TSV\t7\tT\t10.0.0.1\t" + chunk + "\t0\n";
    }
    expect_fed(all);
}

TEST_F(feed, long_chunks) {
    served connection;
    std::string all;
    for (size_t length : {4093u, 4096u, 10000u, 1048576u}) {
        connection.peer.send(framed(std::string(length, 'x')));
        all += "TSV\t7\tT\t10.0.0.1\t" + std::string(length, 'x') + "\t0\n";
    }
    EXPECT_TRUE(eventually([&] { return fed().size() >= all.size(); }));
    EXPECT_TRUE(lines == all);
}

/* A second's worth of tiny chunks and a rest that is carried along. */
TEST_F(feed, many_chunks) {
    served connection;
    std::string stream, all;
    for (int i = 0; i < 5000; i++) {
        stream += framed("ab");
        all += "TSV\t7\tT\t10.0.0.1\tab\t0\n";
    }
    connection.peer.send(stream);
    EXPECT_TRUE(eventually([&] { return fed().size() >= all.size(); }));
    EXPECT_TRUE(lines == all);
}

TEST_F(feed, chunk_that_is_too_long) {
    served connection;
    connection.peer.send("1\r\na1048577\r\n");
    EXPECT_TRUE(connection.peer.is_closed());
    EXPECT_TRUE(wait_logged("0 Error while accepting a connection from 10.0.0.1, "
                            "Message too long\n"));
    expect_fed("TSV\t7\tT\t10.0.0.1\ta\t0\n"
               "TSV\t7\tT\t10.0.0.1\tMessage%2520too%2520long\t1\n");
}

/* In whatever pieces it comes, and from whomever: it waits, but not for ever. */
TEST_F(feed, what_is_no_length) {
    for (const std::string start : {"hello", "1048577", "5\rhello"}) {
        for (size_t size : {start.size(), FRAME_MOST - 1, FRAME_MOST}) {
            served connection;
            connection.peer.send("1\r\na" + start);
            connection.peer.send(std::string(size - start.size(), 'x'));
            if (size == FRAME_MOST) {
                EXPECT_TRUE(connection.peer.is_closed());
            }
            connection.end();
            std::string reported = take_log_text();
            EXPECT_EQ(reported.find("0 Error while accepting a connection from 10.0.0.1, "
                                    "Protocol error\n") != reported.npos,
                      size == FRAME_MOST)
                << start;
            heap_text text(get_feed_results());
            EXPECT_EQ(without_times(text.get()),
                      "TSV\t7\tT\t10.0.0.1\ta\t0\n" +
                          std::string(size == FRAME_MOST
                                          ? "TSV\t7\tT\t10.0.0.1\tProtocol%2520error\t1\n"
                                          : ""))
                << start;
        }
    }
}

TEST_F(feed, no_memory_for_a_connection) {
    order(reallocation, ENOMEM);
    served connection;
    EXPECT_TRUE(connection.peer.is_closed());
    connection.end();
    EXPECT_EQ(logged(), "0 Can not Realloc more memory\n");
    EXPECT_EQ(fed(), "");
}

TEST_F(feed, no_memory_for_more) {
    served connection;
    connection.peer.send("1\r\nx");
    expect_fed("TSV\t7\tT\t10.0.0.1\tx\t0\n");
    order(reallocation, ENOMEM);
    connection.peer.send("9000\r\nx");
    EXPECT_TRUE(connection.peer.is_closed());
    EXPECT_TRUE(wait_logged("0 Can not Realloc more memory\n"));
}

/* --- listeners --- */

/* A port for a listener: bound here, but not listening, so that nobody else gets it. */
class reserved_port {
public:
    int number;

    reserved_port() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        int on = 1;
        setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        socklen_t size = sizeof address;
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &size);
        number = ntohs(address.sin_port);
    }
    /* Keeps everyone off, until `release`. */
    void occupy() { EXPECT_EQ(listen(fd_.get(), 1), 0); }
    void release() { fd_.reset(); }

private:
    unique_fd fd_;
};

static void add_tcp(int tid, int port, const char* list = "") {
    char** ips = nullptr;
    size_t count = 0;
    uparser(list, &ips, &count, ';');
    add_tcp_server(tid, port, ips, static_cast<int>(count));
}

static void modify_tcp(int tid, int port, const char* list = "") {
    char** ips = nullptr;
    size_t count = 0;
    uparser(list, &ips, &count, ';');
    modify_tcp_server(tid, port, ips, static_cast<int>(count));
}

/* Connects as soon as somebody listens there. */
static client connect_by(const std::function<client()>& attempt) {
    client peer;
    EXPECT_TRUE(eventually([&] { return peer || (peer = attempt()); }));
    return peer;
}

static client connect_to(int port, const char* from = "127.0.0.1") {
    return connect_by([&] { return client::to_port(port, from); });
}

static client connect_to(const std::string& path) {
    return connect_by([&] { return client::to_path(path); });
}

static size_t threads_named(const std::string& name) {
    size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string line;
        std::getline(std::ifstream(task.path() / "comm") >> std::ws, line);
        count += line == name;
    }
    return count;
}

TEST_F(feed, tcp_peer) {
    reserved_port port;
    add_tcp(7, port.number);
    client peer = connect_to(port.number);
    peer.send("5\r\nhello");
    expect_fed("TSV\t7\tT\t127.0.0.1\thello\t0\n");
    EXPECT_EQ(threads_named("feed tcp"), 1u);
    EXPECT_EQ(threads_named("feed peer"), 1u);
    peer.close();
    EXPECT_TRUE(eventually([] { return connections == 0; }));
    EXPECT_EQ(logged().find("\n0 "), std::string::npos);
    EXPECT_EQ(fed(), lines);
}

/* The descriptor, in this process, that `matches`; -1 when there is none. */
static int find_descriptor(const std::function<bool(int)>& matches) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int fd = atoi(entry.path().filename().c_str());
        if (matches(fd)) {
            return fd;
        }
    }
    return -1;
}

static int port_of(int fd, int (*which)(int, sockaddr*, socklen_t*)) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    return which(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
                   address.sin_family == AF_INET
               ? ntohs(address.sin_port)
               : -1;
}

static int option_of(int fd, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    getsockopt(fd, SOL_SOCKET, option, &value, &size);
    return value;
}

TEST_F(feed, sockets_of_a_listener) {
    reserved_port port;
    add_tcp(7, port.number);
    client peer = connect_to(port.number);
    peer.send("1\r\nx");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\n");
    int listening = find_descriptor([&](int fd) {
        return option_of(fd, SO_ACCEPTCONN) == 1 && port_of(fd, getsockname) == port.number;
    });
    int accepted = find_descriptor(
        [&](int fd) { return port_of(fd, getpeername) == port_of(peer.fd(), getsockname); });
    EXPECT_EQ(fcntl(listening, F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(listening, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(accepted, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(option_of(accepted, SO_KEEPALIVE), 1);
}

TEST_F(feed, threads_of_connections) {
    add_tcp(7, 0);
    char path[] = "/nonexistent/socket";
    add_unix_server(7, path);
    for (const pthread_attr_t* attributes : {&tcp_list[0]->tattr, &unix_list[0]->tattr}) {
        size_t stack_size = 0;
        int detach_state = -1;
        pthread_attr_getstacksize(attributes, &stack_size);
        pthread_attr_getdetachstate(attributes, &detach_state);
        EXPECT_EQ(stack_size, WORKER_STACK_SIZE);
        EXPECT_EQ(detach_state, PTHREAD_CREATE_DETACHED);
    }
}

TEST_F(feed, peer_that_breaks_off) {
    reserved_port port;
    add_tcp(7, port.number);
    client peer = connect_to(port.number);
    peer.send("1\r\nx1");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\n");
    peer.break_off();
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\n"
               "TSV\t7\tT\t127.0.0.1\tConnection%2520reset%2520by%2520peer\t1\n");
    EXPECT_TRUE(wait_logged(
        "0 Error while accepting a connection from 127.0.0.1, Connection reset by peer\n"));
}

TEST_F(feed, only_who_is_allowed) {
    reserved_port port;
    add_tcp(7, port.number, "127.0.0.3;127.0.0.2;127.000.000.001");
    client blocked = connect_to(port.number, "127.0.0.1");
    blocked.send("1\r\nx");
    EXPECT_TRUE(wait_logged("0 WARNING: A connection blocked from 127.0.0.1\n"));
    client allowed = connect_to(port.number, "127.0.0.2");
    allowed.send("1\r\ny");
    expect_fed("TSV\t7\tT\t127.0.0.2\ty\t0\n");
    EXPECT_TRUE(blocked.is_open());
    EXPECT_EQ(connections, 1);
    remove_tcp_server(7);
    EXPECT_TRUE(blocked.is_closed());
    EXPECT_TRUE(allowed.is_open());
}

TEST_F(feed, latest_blocked_stay_connected) {
    reserved_port port;
    add_tcp(7, port.number, "127.0.0.2");
    std::vector<client> blocked;
    for (size_t i = 0; i <= 64; i++) {
        blocked.push_back(connect_to(port.number));
    }
    EXPECT_TRUE(blocked[0].is_closed());
    EXPECT_EQ(count_of(logged(), "0 WARNING: A connection blocked from 127.0.0.1\n"), 65u);
    for (size_t i = 1; i <= 64; i++) {
        EXPECT_TRUE(blocked[i].is_open()) << i;
    }
}

TEST_F(feed, new_list) {
    reserved_port port;
    add_tcp(7, port.number, "127.0.0.2");
    client blocked = connect_to(port.number);
    EXPECT_TRUE(wait_logged("0 WARNING: A connection blocked from 127.0.0.1\n"));
    modify_tcp(7, port.number, "127.0.0.1");
    connect_to(port.number).send("1\r\nx");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\n");
    modify_tcp(7, port.number);
    connect_to(port.number, "127.0.0.9").send("1\r\ny");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\nTSV\t7\tT\t127.0.0.9\ty\t0\n");
    EXPECT_TRUE(blocked.is_open());
    EXPECT_EQ(logged().find("will star"), std::string::npos); /* the same port */
}

TEST_F(feed, new_port) {
    reserved_port port, second;
    add_tcp(7, port.number, "127.0.0.1");
    client early = connect_to(port.number);
    client blocked = connect_to(port.number, "127.0.0.2");
    EXPECT_TRUE(wait_logged("0 WARNING: A connection blocked from 127.0.0.2\n"));
    modify_tcp(7, second.number);
    EXPECT_TRUE(wait_logged("5 INFO: TCP Socket listener will star after 10 seconds\n"));
    client late = connect_to(second.number, "127.0.0.2");
    EXPECT_FALSE(client::to_port(port.number));
    early.send("1\r\nx");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\n");
    late.send("1\r\ny");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\nTSV\t7\tT\t127.0.0.2\ty\t0\n");
    EXPECT_TRUE(blocked.is_open());
}

TEST_F(feed, modify_of_nothing) {
    reserved_port port, second;
    add_tcp(7, port.number);
    modify_tcp(0, second.number, "127.0.0.2");
    modify_tcp(7, 0, "127.0.0.2");
    modify_tcp(8, second.number, "127.0.0.2");
    ASSERT_EQ(tcp_list.size(), 1);
    lock hold(tcp_list[0]->u_mutex);
    EXPECT_EQ(tcp_list[0]->port, port.number);
    EXPECT_EQ(tcp_list[0]->iplist_len, 0);
}

TEST_F(feed, same_id_or_port) {
    reserved_port port, second;
    add_tcp(7, port.number);
    add_tcp(7, second.number, "127.0.0.2");
    add_tcp(8, port.number, "127.0.0.2;127.0.0.3");
    EXPECT_EQ(tcp_list.size(), 1);
    add_tcp(8, second.number);
    EXPECT_EQ(tcp_list.size(), 2);
    connect_to(port.number).send("1\r\nx");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\n");
    connect_to(second.number).send("1\r\ny");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\nTSV\t8\tT\t127.0.0.1\ty\t0\n");
}

TEST_F(feed, port_in_use) {
    reserved_port port;
    port.occupy();
    add_tcp(7, port.number);
    std::string line = "USV\t7\tT\tlocalhost\tAddress%2520already%2520in%2520use\t1\n";
    EXPECT_TRUE(eventually([&] { return count_of(fed(), line) >= 3; })); /* again and again */
    EXPECT_GE(
        count_of(logged(), "0 Error running TCP socket listener: 98, Address already in use\n"),
        3u);
    EXPECT_EQ(lines.size() % line.size(), 0u);
    port.release();
    connect_to(port.number);
    EXPECT_EQ(logged().find("will star"), std::string::npos);
}

TEST_F(feed, no_port) {
    for (int port : {65536 + 8080, -1}) {
        log.clear();
        lines.clear();
        add_tcp(7, port);
        EXPECT_TRUE(wait_logged("0 Error running TCP socket listener: 22, Invalid argument\n"));
        EXPECT_TRUE(eventually(
            [&] { return fed().find("USV\t7\tT\tlocalhost\tInvalid%2520argument\t1\n") == 0; }));
        remove_tcp_server(7);
    }
}

TEST_F(feed, tcp_socket_fails) {
    reserved_port port;
    order(opening, EMFILE);
    add_tcp(7, port.number);
    connect_to(port.number);
    EXPECT_EQ(count_of(logged(), "0 Error running TCP socket listener: 24, Too many open files\n"),
              1u);
    expect_fed("USV\t7\tT\tlocalhost\tToo%2520many%2520open%2520files\t1\n");
}

/* Descriptor 0 is no listener's, and is not closed, since it would only come again. */
TEST_F(feed, socket_zero) {
    reserved_port port;
    struct stat before {
    }, after{};
    fstat(0, &before);
    zero_socket = true;
    add_tcp(7, port.number);
    connect_to(port.number);
    EXPECT_EQ(count_of(logged(), "0 Error running TCP socket listener: "), 1u);
    EXPECT_EQ(count_of(fed(), "USV\t7\tT\tlocalhost\t"), 1u);
    EXPECT_EQ(fstat(0, &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(feed, wait_fails) {
    reserved_port port;
    add_tcp(7, port.number);
    connect_to(port.number);
    order(waiting, EINTR);
    EXPECT_TRUE(eventually([] { return waiting.times == 0; }));
    connect_to(port.number);
    EXPECT_EQ(logged().find("will star"), std::string::npos); /* that was no error */
    order(waiting, ENOMEM);
    EXPECT_TRUE(wait_logged("0 Error TCP socket listener: 12, Cannot allocate memory\n"
                            "5 INFO: TCP Socket listener will star after 10 seconds\n"));
    connect_to(port.number);
    EXPECT_EQ(fed(), "");
}

TEST_F(feed, accept_fails) {
    reserved_port port;
    order(acceptance, EAGAIN);
    add_tcp(7, port.number);
    connect_to(port.number).send("1\r\nx");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\n");
    EXPECT_EQ(logged().find("\n0 "), std::string::npos);
    order(acceptance, EMFILE);
    connect_to(port.number);
    EXPECT_TRUE(wait_logged("0 Error accept failed: 24, Too many open files\n"
                            "5 INFO: TCP Socket listener will star after 10 seconds\n"));
    connect_to(port.number);
    EXPECT_EQ(fed(), lines);
}

TEST_F(feed, so_many_connections) {
    reserved_port port;
    add_tcp(7, port.number);
    connections += CONNECTIONS_MOST - 1;
    client first = connect_to(port.number);
    first.send("1\r\nx");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\n");
    client second = connect_to(port.number);
    EXPECT_TRUE(second.is_closed());
    EXPECT_TRUE(wait_logged("0 WARNING: A connection refused from 127.0.0.1, 256 are open\n"));
    first.close();
    EXPECT_TRUE(eventually([] { return connections == CONNECTIONS_MOST - 1; }));
    connect_to(port.number).send("1\r\ny");
    expect_fed("TSV\t7\tT\t127.0.0.1\tx\t0\nTSV\t7\tT\t127.0.0.1\ty\t0\n");
    connections -= CONNECTIONS_MOST - 1;
}

TEST_F(feed, no_thread_for_a_connection) {
    reserved_port port;
    add_tcp(7, port.number);
    order(thread_creation, EAGAIN);
    EXPECT_TRUE(connect_to(port.number).is_closed());
    EXPECT_TRUE(wait_logged("0 A connection thread for 127.0.0.1 failed on start. "
                            "Resource temporarily unavailable\n"));
    EXPECT_TRUE(eventually([] { return connections == 0; }));
    connect_to(port.number).send("1\r\ny");
    expect_fed("TSV\t7\tT\t127.0.0.1\ty\t0\n");
}

TEST_F(feed, no_thread_for_a_listener) {
    order(thread_creation, EAGAIN);
    add_tcp(7, 1234, "127.0.0.1");
    EXPECT_EQ(tcp_list.size(), 0);
    EXPECT_EQ(logged(), "0 A new TCP port ( 1234 ) listener Service failed on start. Resource "
                        "temporarily unavailable\n");
    log.clear();
    char path[] = "/tmp/none";
    order(thread_creation, EAGAIN);
    add_unix_server(7, path);
    EXPECT_EQ(unix_list.size(), 0);
    EXPECT_EQ(logged(), "0 A new UNIX domain socket listener Service ( /tmp/none ) faild on start. "
                        "Resource temporarily unavailable\n");
}

TEST_F(feed, removed_port_is_free_at_once) {
    reserved_port port;
    std::vector<client> peers;
    for (int i = 1; i <= 20; i++) {
        add_tcp(i, port.number);
        peers.push_back(connect_to(port.number));
        peers.back().send("1\r\nx");
        EXPECT_TRUE(eventually([&] { return connections == i; }));
        remove_tcp_server(i);
        EXPECT_FALSE(client::to_port(port.number));
    }
    EXPECT_EQ(logged().find("0 Error"), std::string::npos);
    EXPECT_TRUE(
        eventually([] { return threads_named("feed tcp") == 0; })); /* joined, but still in /proc */
    /* The connections live on, each with its own id. */
    peers[4].send("1\r\ny");
    EXPECT_TRUE(eventually(
        [&] { return fed().find("TSV\t5\tT\t127.0.0.1\ty\t0\n") != std::string::npos; }));
    EXPECT_EQ(connections, 20);
}

TEST_F(feed, removal_does_not_wait) {
    reserved_port port, occupied;
    occupied.occupy();
    listener_wait_ms = 3600 * 1000;
    add_tcp(1, port.number);
    add_tcp(2, occupied.number);
    connect_to(port.number);
    EXPECT_TRUE(wait_logged("0 Error running TCP socket listener: 98, "));
    remove_tcp_server(1);
    remove_tcp_server(2);
    EXPECT_EQ(tcp_list.size(), 0);
}

TEST_F(feed, removal_of_nothing) {
    reserved_port port, second, third;
    for (const reserved_port* p : {&port, &second, &third}) {
        add_tcp(tcp_list.size() + 1, p->number);
    }
    remove_tcp_server(0);
    remove_tcp_server(9);
    EXPECT_EQ(tcp_list.size(), 3);
    remove_tcp_server(2);
    ASSERT_EQ(tcp_list.size(), 2);
    EXPECT_EQ(tcp_list[0]->tid, 1);
    EXPECT_EQ(tcp_list[1]->tid, 3);
    connect_to(third.number);
    remove_all_tcp_servers();
    EXPECT_EQ(tcp_list.size(), 0);
    EXPECT_EQ(tcp_list.begin(), nullptr);
    EXPECT_TRUE(
        eventually([] { return threads_named("feed tcp") == 0; })); /* joined, but still in /proc */
}

/* --- unix listeners --- */

class unix_feed : public feed {
protected:
    std::string place;

    unix_feed() {
        char name[] = "/tmp/vindral_feed_XXXXXX";
        place = mkdtemp(name);
    }
    ~unix_feed() override {
        remove_all_unix_servers();
        std::filesystem::remove_all(place);
    }

    static void add(int tid, const std::string& path) {
        add_unix_server(tid, const_cast<char*>(path.c_str()));
    }
    static void modify(int tid, const std::string& path) {
        modify_unix_server(tid, const_cast<char*>(path.c_str()));
    }
    static bool is_socket(const std::string& path) { return std::filesystem::is_socket(path); }
};

TEST_F(unix_feed, peer) {
    add(7, place + "/s");
    client peer = connect_to(place + "/s");
    peer.send("5\r\nhello");
    expect_fed("USV\t7\tT\tlocalhost\thello\t0\n");
    EXPECT_EQ(threads_named("feed unix"), 1u);
    remove_unix_server(7);
    EXPECT_FALSE(std::filesystem::exists(place + "/s"));
    EXPECT_TRUE(eventually(
        [] { return threads_named("feed unix") == 0; })); /* joined, but still in /proc */
    peer.send("1\r\nx");
    expect_fed("USV\t7\tT\tlocalhost\thello\t0\nUSV\t7\tT\tlocalhost\tx\t0\n");
    peer.send("1048577\r\n");
    EXPECT_TRUE(peer.is_closed());
    expect_fed(lines + "USV\t7\tT\tlocalhost\tMessage%2520too%2520long\t1\n");
}

TEST_F(unix_feed, file_in_the_way) {
    std::ofstream(place + "/s") << "text";
    add(7, place + "/s");
    connect_to(place + "/s");
    EXPECT_TRUE(is_socket(place + "/s"));
    EXPECT_EQ(logged(), "");
}

TEST_F(unix_feed, ignored) {
    add(0, place + "/s");
    add_unix_server(1, nullptr);
    EXPECT_EQ(unix_list.size(), 0);
    add(1, place + "/s");
    add(1, place + "/t");
    add(2, place + "/s");
    EXPECT_EQ(unix_list.size(), 1);
    add(2, place + "/t");
    EXPECT_EQ(unix_list.size(), 2);
    modify(3, place + "/u");
    modify_unix_server(1, nullptr);
    remove_unix_server(0);
    remove_unix_server(3);
    EXPECT_EQ(unix_list.size(), 2);
    connect_to(place + "/s");
    connect_to(place + "/t");
    remove_unix_server(1);
    ASSERT_EQ(unix_list.size(), 1);
    EXPECT_EQ(unix_list[0]->tid, 2);
    remove_all_unix_servers();
    EXPECT_EQ(unix_list.size(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(place));
}

TEST_F(unix_feed, long_path) {
    std::string path = place + "/" + std::string(150, 'x');
    std::string file = path.substr(0, 107);
    std::ofstream(file) << "text";
    std::ofstream(path) << "text";
    add(7, path);
    connect_to(file).send("1\r\nx");
    expect_fed("USV\t7\tT\tlocalhost\tx\t0\n");
    remove_unix_server(7);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_TRUE(std::filesystem::exists(path)); /* nobody's socket */
}

TEST_F(unix_feed, path_that_just_fits) {
    std::string path = place + "/";
    path.resize(107, 'x');
    add(7, path);
    connect_to(path);
    remove_unix_server(7);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(unix_feed, new_path) {
    add(7, place + "/s");
    client early = connect_to(place + "/s");
    EXPECT_TRUE(eventually([] { return connections == 1; }));
    modify(7, place + "/t");
    EXPECT_TRUE(wait_logged("5 INFO: Unix Domain Socket listtener will star after 10 seconds\n"));
    client late = connect_to(place + "/t");
    EXPECT_TRUE(is_socket(place + "/s")); /* but nobody listens */
    EXPECT_FALSE(client::to_path(place + "/s"));
    early.send("1\r\nx");
    expect_fed("USV\t7\tT\tlocalhost\tx\t0\n");
    late.send("1\r\ny");
    expect_fed("USV\t7\tT\tlocalhost\tx\t0\nUSV\t7\tT\tlocalhost\ty\t0\n");
}

TEST_F(unix_feed, same_path_is_bound_again) {
    add(7, place + "/s");
    connect_to(place + "/s");
    modify(7, place + "/s");
    EXPECT_TRUE(wait_logged("5 INFO: Unix Domain Socket listtener will star after 10 seconds\n"));
    connect_to(place + "/s").send("1\r\nx");
    expect_fed("USV\t7\tT\tlocalhost\tx\t0\n");
}

TEST_F(unix_feed, no_directory) {
    add(7, place + "/d/s");
    std::string line = "USV\t7\tT\tlocalhost\tNo%2520such%2520file%2520or%2520directory\t1\n";
    EXPECT_TRUE(eventually([&] { return count_of(fed(), line) >= 2; }));
    EXPECT_TRUE(
        wait_logged("0 Error running unix domain socket listener: 2, No such file or directory\n"));
    std::filesystem::create_directory(place + "/d");
    connect_to(place + "/d/s");
    EXPECT_EQ(logged().find("will star"), std::string::npos);
}

TEST_F(unix_feed, failures) {
    order(opening, EMFILE);
    add(7, place + "/s");
    connect_to(place + "/s");
    EXPECT_TRUE(
        wait_logged("0 Error running unix domain socket listener: 24, Too many open files\n"));
    expect_fed("USV\t7\tT\tlocalhost\tToo%2520many%2520open%2520files\t1\n");
    order(waiting, ENOMEM);
    EXPECT_TRUE(wait_logged("0 Error: 12, Cannot allocate memory\n"
                            "5 INFO: Unix Domain Socket listtener will star after 10 seconds\n"));
    log.clear();
    order(acceptance, EMFILE);
    connect_to(place + "/s");
    EXPECT_TRUE(wait_logged("0 Error accept failed: 24, Too many open files\n"
                            "5 INFO: Unix Domain Socket listtener will star after 10 seconds\n"));
    connect_to(place + "/s");
    EXPECT_EQ(fed(), lines);
}

TEST_F(unix_feed, removal_does_not_wait) {
    listener_wait_ms = 3600 * 1000;
    add(1, place + "/s");
    add(2, place + "/d/s");
    connect_to(place + "/s");
    EXPECT_TRUE(wait_logged("0 Error running unix domain socket listener: 2, "));
    remove_all_unix_servers();
    EXPECT_TRUE(std::filesystem::is_empty(place));
}

TEST_F(unix_feed, many_at_once) {
    reserved_port port;
    add(1, place + "/s");
    add_tcp(2, port.number);
    std::vector<client> peers;
    std::string all;
    for (int i = 0; i < 50; i++) {
        peers.push_back(i % 2 ? connect_to(place + "/s") : connect_to(port.number));
    }
    for (const client& peer : peers) {
        peer.send("3\r\nabc");
    }
    EXPECT_TRUE(eventually([&] { return count_of(fed(), "\tabc\t0\n") == 50; }));
    EXPECT_EQ(count_of(lines, "USV\t1\tT\tlocalhost\tabc\t0\n"), 25u);
    EXPECT_EQ(count_of(lines, "TSV\t2\tT\t127.0.0.1\tabc\t0\n"), 25u);
}

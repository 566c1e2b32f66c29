/* ICMP echo engine: bytes on the wire, what is accepted, what is waited past, texts. */
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

/* The network and the clock of the tests. */
static int fake_socket(int family, int type, int protocol);
static int fake_setsockopt(int fd, int level, int option, const void* value, socklen_t size);
static ssize_t fake_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to,
                           socklen_t to_size);
static int fake_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const void* mask);
static ssize_t fake_recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from,
                             socklen_t* from_size);
static int fake_nanosleep(const timespec* wanted, timespec* rest);
static int fake_clock_gettime(clockid_t clock, timespec* now);

#include "guards.h"
#include "resolve.h"
static int fake_resolve_host(const char* host, const char* port, const addrinfo* hints,
                             addrinfo** list);
#define socket fake_socket
#define setsockopt fake_setsockopt
#define sendto fake_sendto
#define ppoll fake_ppoll
#define recvfrom fake_recvfrom
#define nanosleep fake_nanosleep
#define clock_gettime fake_clock_gettime
#define resolve_host fake_resolve_host
#include "ping.cpp"
#undef socket
#undef setsockopt
#undef sendto
#undef ppoll
#undef recvfrom
#undef nanosleep
#undef clock_gettime
#undef resolve_host

#include "fake_core.h"

#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

struct datagram {
    std::string bytes;
    double after_ms = 1.0; /* of waiting; 0: it is there */
    const char* from = "192.0.2.7";
};

struct network {
    std::vector<std::string> sent, destinations;
    std::vector<double> sent_at;
    std::deque<datagram> arriving;
    double now_ms = 5000.0;
    int socket_error = 0, option_error = 0, sleep_error = 0, poll_error = 0, receive_error = 0;
    int short_sends = 0; /* as many sends fail */
    int waits = 0;
    std::vector<std::string> options;
    std::vector<long> sleeps;
    bool no_entry = false, no_address = false; /* the resolver finds none, or one without */
    int resolve_error = 0;
    bool descriptor_0 = false;
    bool real = false; /* waits and receives are the system's */
    int socket = -1;   /* the last one */
} net;

} // namespace

static int fake_socket(int family, int type, int protocol) {
    EXPECT_EQ(AF_INET, family);
    EXPECT_EQ(SOCK_RAW | SOCK_CLOEXEC, type);
    EXPECT_EQ(IPPROTO_ICMP, protocol);
    errno = net.socket_error;
    if (net.socket_error != 0) {
        return -1;
    }
    net.socket = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (net.descriptor_0) {
        dup2(net.socket, 0);
        close(net.socket);
        net.socket = 0;
    }
    return net.socket;
}
static int fake_resolve_host(const char* host, const char* port, const addrinfo* hints,
                             addrinfo** list) {
    EXPECT_EQ(AI_CANONNAME, hints->ai_flags);
    EXPECT_EQ(AF_INET, hints->ai_family);
    EXPECT_EQ(SOCK_RAW, hints->ai_socktype);
    EXPECT_EQ(IPPROTO_ICMP, hints->ai_protocol);
    EXPECT_EQ(nullptr, port);
    errno = ENOENT;
    if (net.no_address) {
        *list = static_cast<addrinfo*>(calloc(1, sizeof(addrinfo)));
        return 0;
    }
    if (net.no_entry || net.resolve_error != 0) {
        return net.resolve_error;
    }
    return resolve_host(host, port, hints, list);
}
static int fake_setsockopt(int, int level, int option, const void* value, socklen_t size) {
    int number = 0;
    memcpy(&number, value, size);
    net.options.push_back(std::to_string(level) + " " + std::to_string(option) + " " +
                          std::to_string(number) + " of " + std::to_string(size));
    errno = net.option_error;
    return net.option_error != 0 ? -1 : 0;
}
static ssize_t fake_sendto(int, const void* data, size_t size, int, const sockaddr* to,
                           socklen_t to_size) {
    EXPECT_EQ(sizeof(sockaddr_in), to_size);
    net.sent.emplace_back(static_cast<const char*>(data), size);
    net.sent_at.push_back(net.now_ms);
    char text[INET_ADDRSTRLEN];
    net.destinations.emplace_back(address_text(*reinterpret_cast<const sockaddr_in*>(to), text));
    net.now_ms += 0.25;
    return net.short_sends-- > 0 ? static_cast<ssize_t>(size) - 1 : static_cast<ssize_t>(size);
}
static int fake_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const void*) {
    if (net.real) {
        return ppoll(fds, count, limit, nullptr);
    }
    EXPECT_EQ(1u, count);
    EXPECT_EQ(POLLIN, fds->events);
    double most =
        static_cast<double>(limit->tv_sec) * 1000 + static_cast<double>(limit->tv_nsec) / 1e6;
    if (net.poll_error != 0) {
        errno = net.poll_error;
        return -1;
    }
    net.waits++;
    EXPECT_EQ(0, errno);
    if (net.arriving.empty() || net.arriving.front().after_ms > most) {
        net.now_ms += most;
        return 0;
    }
    net.now_ms += net.arriving.front().after_ms;
    net.arriving.front().after_ms = 0.0;
    return 1;
}
static ssize_t fake_recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from,
                             socklen_t* from_size) {
    if (net.real) {
        return recvfrom(fd, data, size, flags, from, from_size);
    }
    EXPECT_EQ(16u, *from_size);
    bool at_once = (flags & MSG_DONTWAIT) != 0;
    if (at_once && (net.arriving.empty() || net.arriving.front().after_ms > 0.0)) {
        errno = EAGAIN;
        return -1;
    }
    if (net.receive_error != 0) {
        errno = net.receive_error;
        return -1;
    }
    datagram d = net.arriving.front();
    net.arriving.pop_front();
    EXPECT_EQ(4096u, size);
    memcpy(data, d.bytes.data(), d.bytes.size());
    auto* in = reinterpret_cast<sockaddr_in*>(from);
    in->sin_family = AF_INET;
    inet_pton(AF_INET, d.from, &in->sin_addr);
    return static_cast<ssize_t>(d.bytes.size());
}
static int fake_nanosleep(const timespec* wanted, timespec*) {
    net.sleeps.push_back(wanted->tv_sec * 1000 + wanted->tv_nsec / 1000000);
    net.now_ms += static_cast<double>(net.sleeps.back());
    errno = net.sleep_error;
    return net.sleep_error != 0 ? -1 : 0;
}
static int fake_clock_gettime(clockid_t, timespec* now) {
    auto microseconds = static_cast<long long>(net.now_ms * 1000 + 0.5);
    now->tv_sec = static_cast<time_t>(microseconds / 1000000);
    now->tv_nsec = static_cast<long>(microseconds % 1000000 * 1000);
    return 0;
}

namespace {

std::string half(unsigned value) {
    auto v = static_cast<unsigned short>(value);
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

/* An IPv4 datagram that holds an ICMP message. */
std::string datagram_of(const std::string& icmp, unsigned char ttl = 55) {
    std::string ip(20, '\0');
    ip[0] = 0x45;
    auto total = static_cast<unsigned>(20 + icmp.size());
    ip[2] = static_cast<char>(total >> 8);
    ip[3] = static_cast<char>(total);
    ip[8] = static_cast<char>(ttl);
    return ip + icmp;
}
std::string echo(unsigned char type, unsigned id, unsigned sequence, size_t size = 52) {
    std::string icmp(4, '\0');
    icmp[0] = static_cast<char>(type);
    icmp += half(id) + half(sequence);
    icmp.resize(size);
    return icmp;
}
/* An error report about a request. */
std::string error(unsigned char type, unsigned char code, unsigned id, unsigned sequence,
                  unsigned char quoted_type = 8, unsigned report_id = 0) {
    std::string icmp(4, '\0');
    icmp[0] = static_cast<char>(type);
    icmp[1] = static_cast<char>(code);
    icmp += half(report_id) + half(0);
    std::string quoted = datagram_of(echo(quoted_type, id, sequence));
    return icmp + quoted.substr(0, 28);
}

std::string option_text(int level, int option, const char* value) {
    return std::to_string(level) + " " + std::to_string(option) + " " + value;
}
const std::string ROOM_FORCED = option_text(SOL_SOCKET, SO_RCVBUFFORCE, "4194304 of 4"),
                  ROOM = option_text(SOL_SOCKET, SO_RCVBUF, "4194304 of 4"),
                  TTL_64 = option_text(IPPROTO_IP, IP_TTL, "64 of 1");

class Ping : public testing::Test {
protected:
    void SetUp() override {
        net = network();
        take_log();
    }
    static void arrive(const std::string& icmp, double after_ms = 1.0) {
        net.arriving.push_back({datagram_of(icmp), after_ms, "192.0.2.7"});
    }
    static std::vector<double> run(int count, unsigned timeout, unsigned short id = 77,
                                   unsigned short size = 44) {
        heap<double> results(ping("192.0.2.1", timeout, count, size, id));
        EXPECT_TRUE(results);
        return results ? std::vector<double>(results.get(), results.get() + count)
                       : std::vector<double>();
    }
    static double wait(unsigned timeout = 1000) { return wait_for_reply(9, timeout, 52, 77, 3); }
    /* The lines about what messages are, not those of every wait; P for addresses in memory. */
    static std::string judgement() {
        std::string text = take_log_text();
        for (const char* line :
             {" Starting ", " Elapsed ", " received ", " IP header size", " val: ", " timed out"}) {
            for (size_t at; (at = text.find(line)) != std::string::npos;) {
                size_t begin = text.rfind('\n', at) + 1, end = text.find('\n', at) + 1;
                text.erase(begin, end - begin + (text[end] == '\n'));
            }
        }
        for (size_t at = 0; (at = text.find("0x", at)) != std::string::npos;) {
            text.replace(at, text.find_first_not_of("0123456789abcdefx", at) - at, "P");
        }
        return text;
    }
    /* The lines of level 0 since the last call. */
    static std::string errors() {
        std::string text;
        for (const logged_line& line : take_log()) {
            text += line.level == 0 ? line.text : "";
        }
        return text;
    }
};

} // namespace

TEST_F(Ping, checksum) {
    unsigned short none[1] = {0}, ones[2] = {0xFFFF, 0xFFFF};
    EXPECT_EQ(0xFFFF, icmp_checksum(none, 0));
    EXPECT_EQ(0, icmp_checksum(ones, 4));
    unsigned char odd[3] = {0x01, 0x02, 0x03};
    EXPECT_EQ(static_cast<unsigned short>(~(0x0201 + 0x03)),
              icmp_checksum(reinterpret_cast<unsigned short*>(odd), 3));
    unsigned short carry[3] = {0xFFFF, 0x0001, 0x0001};
    EXPECT_EQ(static_cast<unsigned short>(~2), icmp_checksum(carry, 6));
    unsigned short carries[3] = {0xFFFF, 0xFFFF, 0x0001};
    EXPECT_EQ(static_cast<unsigned short>(~1), icmp_checksum(carries, 6));
}

TEST_F(Ping, bytes_of_a_request) {
    addrinfo to{};
    sockaddr_in address{};
    to.ai_addr = reinterpret_cast<sockaddr*>(&address);
    to.ai_addrlen = sizeof address;
    double elapsed = 0.0;
    timeval before, after;
    gettimeofday(&before, nullptr);
    EXPECT_EQ(76, send_ping(9, &to, 76, 0x1234, 0x0005, &elapsed));
    gettimeofday(&after, nullptr);
    EXPECT_EQ(0.25, elapsed);
    std::string sent = net.sent.at(0);
    ASSERT_EQ(76u, sent.size());
    EXPECT_EQ(8, sent[0]);
    EXPECT_EQ(0, sent[1]);
    EXPECT_EQ(half(0x1234) + half(0x0005), sent.substr(4, 4)); /* host order */
    timeval stamp;
    memcpy(&stamp, sent.data() + 8, sizeof stamp);
    EXPECT_FALSE(timercmp(&stamp, &before, <));
    EXPECT_FALSE(timercmp(&after, &stamp, <));
    EXPECT_EQ(half(10), sent.substr(24, 2));
    EXPECT_EQ(std::string(44, '\0'), sent.substr(32));
    /* The sum over everything, the checksum included, is 0. */
    EXPECT_EQ(0, icmp_checksum(reinterpret_cast<unsigned short*>(sent.data()), 76));
    EXPECT_EQ("5 send_ping: socket: 9 icmp package size: 76\n\n", take_log_text());
}

TEST_F(Ping, failures_to_send) {
    addrinfo to{};
    double elapsed = 0.0;
    errno = EBADF;
    EXPECT_EQ(-1, send_ping(-1, &to, 76, 1, 1, &elapsed));
    EXPECT_EQ(0, errno);
    EXPECT_EQ("Attempt to send on bogus socket", errors());
    sockaddr_in address{};
    to.ai_addr = reinterpret_cast<sockaddr*>(&address);
    to.ai_addrlen = sizeof address;
    net.short_sends = 1;
    EXPECT_EQ(-1, send_ping(9, &to, 76, 1, 1, &elapsed));
    EXPECT_EQ("send_ping: socket: 9 Failed to send ping\n", errors());
    EXPECT_EQ(8, send_ping(9, &to, 8, 1, 1, &elapsed)); /* less than what is filled in */
}

TEST_F(Ping, packet_sizes) {
    const struct {
        unsigned short data;
        size_t packet;
        unsigned logged;
    } sizes[] = {{0, 76, 76},  {24, 76, 76}, {25, 52, 33},          {43, 52, 51},
                 {44, 52, 52}, {45, 53, 53}, {65507, 65515, 65515}, {65508, 76, 76}};
    for (const auto& s : sizes) {
        net = network();
        take_log();
        run(1, 0, 77, s.data);
        EXPECT_EQ(s.packet, net.sent.at(0).size());
        EXPECT_NE(std::string::npos,
                  take_log_text().find("5 ping: socket: " + std::to_string(net.socket) +
                                       " icmp package size: " + std::to_string(s.logged) + "\n"));
    }
}

TEST_F(Ping, what_cannot_begin) {
    EXPECT_EQ(nullptr, ping("192.0.2.1", 1000, 0, 0, 1));
    EXPECT_EQ(nullptr, ping(nullptr, 1000, -1, 0, 1));
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ(nullptr, ping(nullptr, 1000, 1, 0, 1));
    EXPECT_EQ("0 ping: specified host address is NULL.\n\n", take_log_text());
    net.resolve_error = EAI_AGAIN;
    EXPECT_EQ(nullptr, ping("db.example", 1000, 1, 0, 1));
    EXPECT_EQ("0 ping: HOST: db.example DESC: Temporary failure in name resolution\n\n",
              take_log_text());
    net.resolve_error = 0;
    net.socket_error = EPERM;
    EXPECT_EQ(nullptr, ping("192.0.2.1", 1000, 1, 0, 1));
    EXPECT_EQ("5 ping: getaddrinfo: ai_addr OK\n\n"
              "0 ping: socket error: Operation not permitted\n\n",
              take_log_text());
    for (bool* lack : {&net.no_entry, &net.no_address}) {
        *lack = true;
        EXPECT_EQ(nullptr, ping("192.0.2.1", 1000, 1, 0, 1));
        EXPECT_EQ(0, errno);
        EXPECT_EQ("0 ping: getaddrinfo: unknown address family\n\n", take_log_text());
    }
    EXPECT_TRUE(net.sent.empty());
}

TEST_F(Ping, a_series_and_its_lines) {
    arrive(echo(0, 77, 0), 1.5);
    std::vector<double> results = run(2, 20);
    ASSERT_EQ(2u, results.size());
    EXPECT_EQ(1.5, results[0]);
    EXPECT_EQ(0.0, results[1]);
    EXPECT_EQ((std::vector<long>{100, 100}), net.sleeps);
    EXPECT_EQ((std::vector<double>{5100.0, 5201.75}), net.sent_at); /* after a pause */
    EXPECT_EQ(half(77) + half(1), net.sent.at(1).substr(4, 4));
    EXPECT_EQ("192.0.2.1", net.destinations.at(0));
    EXPECT_EQ((std::vector<std::string>{ROOM_FORCED, TTL_64}), net.options);
    EXPECT_EQ(-1, fcntl(net.socket, F_GETFD)); /* closed */
    std::string log = take_log_text();
    size_t at = log.find("socket: ") + 8;
    std::string fd = log.substr(at, log.find('\n', at) - at);
    for (size_t i = 0; (i = log.find("socket: " + fd, i)) != std::string::npos;) {
        log.replace(i, 8 + fd.size(), "socket: N");
    }
    EXPECT_EQ(
        "5 ping: getaddrinfo: ai_addr OK\n\n"
        "5 ping: host: 192.0.2.1 socket: N\n\n"
        "5 ping: socket: N setsockopt: IP_TTL: 64\n\n"
        "5 ping: socket: N icmp package size: 52\n\n"
        "5 send_ping: socket: N icmp package size: 52\n\n"
        "5 ping: socket: N Elapsed on send: 0.250000\n\n"
        "5 ping: socket: N send OK size: 52\n\n"
        "5 wait_for_reply: Starting wait, socket: N timeot: 20.000000\n\n"
        "5 Starting select() with sec: 0 usec 20000 timo: 20.000000\n"
        "5 wait_for_reply: socket: N Elapsed time: 1.500000 Elapsed on Wait: 1.500000 left "
        "time: 18.500000\n\n"
        "5 wait_for_reply: socket: N received 72 bytes from 192.0.2.7\n\n"
        "5 wait_for_reply: socket: N IP header size: 20, packet size: 52 (expected 20, 52)\n\n"
        "5 wait_for_reply: socket: N val: 1.500 ms from: 192.0.2.7, incoming ttl: 55\n\n"
        "5 ping: socket: N Elapsed on Wait: 1.500000\n\n"
        "5 ping: socket: N adding result: 0 val: 1.500000\n\n"
        "5 send_ping: socket: N icmp package size: 52\n\n"
        "5 ping: socket: N Elapsed on send: 0.250000\n\n"
        "5 ping: socket: N send OK size: 52\n\n"
        "5 wait_for_reply: Starting wait, socket: N timeot: 20.000000\n\n"
        "5 Starting select() with sec: 0 usec 20000 timo: 20.000000\n"
        "0 recvfrom_wto: socket: N select: timed out, remines: 20.000000\n\n"
        "5 wait_for_reply: socket: N Elapsed time: 20.000000 Elapsed on Wait: 20.000000 left "
        "time: 0.000000\n\n"
        "0 wait_for_reply: socket: N timed out: 0.000000 ms\n\n"
        "5 ping: socket: N Elapsed on Wait: 0.000000\n\n",
        log);
}

TEST_F(Ping, failures_that_do_not_end_a_series) {
    net.option_error = EINVAL;
    net.sleep_error = EINTR;
    net.short_sends = 1;
    arrive(echo(0, 77, 0));
    EXPECT_EQ((std::vector<double>{1.0}), run(1, 1000));
    std::string text = errors();
    const std::string sock = "ping: socket: " + std::to_string(net.socket);
    EXPECT_EQ(sock + " setsockopt: IP_TTL: failed: Invalid argument\n" +
                  "ERROR: PING: nanosleep: Interrupted system call" +
                  "send_ping: socket: " + std::to_string(net.socket) + " Failed to send ping\n" +
                  sock + " send_ping() failed, try next\n",
              text);
    EXPECT_EQ((std::vector<std::string>{ROOM_FORCED, ROOM, TTL_64}), net.options);
}

TEST_F(Ping, pauses) {
    EXPECT_EQ(1, Sleep(999));
    EXPECT_EQ("", take_log_text());
    net.sleep_error = EINTR;
    EXPECT_EQ(0, Sleep(1));
    EXPECT_EQ("0 ERROR: PING: nanosleep: Interrupted system call\n", take_log_text());
    EXPECT_EQ((std::vector<long>{999, 1}), net.sleeps);
}

/* Socket 0 keeps the system's time to live. */
TEST_F(Ping, descriptor0) {
    unique_fd input(dup(0));
    net.descriptor_0 = true;
    arrive(echo(0, 77, 0));
    EXPECT_EQ((std::vector<double>{1.0}), run(1, 1000));
    EXPECT_EQ(-1, fcntl(0, F_GETFD));
    dup2(input.get(), 0);
    EXPECT_EQ((std::vector<std::string>{ROOM_FORCED}), net.options);
    EXPECT_EQ(std::string::npos, take_log_text().find("IP_TTL"));
}

/* More probes than there are sequence numbers: these begin again, the series ends. */
TEST_F(Ping, more_than65536_probes) {
    EXPECT_EQ(65538u, run(65538, 0).size());
    EXPECT_EQ(65538u, net.sent.size());
    EXPECT_EQ(half(77) + half(65535), net.sent.at(65535).substr(4, 4));
    EXPECT_EQ(half(77) + half(1), net.sent.at(65537).substr(4, 4));
}

/* As many attempts as there are addresses, all at the first. */
TEST_F(Ping, attempts_go_to_the_first_address) {
    sockaddr_in first{}, second{};
    inet_pton(AF_INET, "192.0.2.1", &first.sin_addr);
    inet_pton(AF_INET, "192.0.2.2", &second.sin_addr);
    addrinfo entries[2] = {};
    entries[0].ai_addr = reinterpret_cast<sockaddr*>(&first);
    entries[1].ai_addr = reinterpret_cast<sockaddr*>(&second);
    entries[0].ai_addrlen = entries[1].ai_addrlen = sizeof first;
    entries[0].ai_next = &entries[1];
    host_addresses addresses(entries);
    net.short_sends = 9;
    send_probe(9, addresses, 52, 77, 0);
    (void)addresses.release();
    EXPECT_EQ((std::vector<std::string>{"192.0.2.1", "192.0.2.1"}), net.destinations);
    EXPECT_EQ(2u, net.sleeps.size());
}

TEST_F(Ping, our_own_request_is_a_reply_whatever_its_sequence) {
    arrive(echo(8, 77, 999), 0.5);
    EXPECT_EQ(0.5, wait());
    EXPECT_EQ("", errors());
}

TEST_F(Ping, wrong_sequence_is_waited_past) {
    arrive(echo(0, 77, 4));
    arrive(echo(0, 77, 3), 2.0);
    EXPECT_EQ(2.0, wait()); /* the duration of the last receive alone */
    EXPECT_EQ("0 wait_for_reply: socket: 9 not a proper ICMP_ECHOREPLY\nTYPE: 0\nicmp_seq: 4\n"
              "EXP. seq: 3\n\n"
              "0 handle_random_icmp(P, P)\n\n"
              "5 wait_for_reply: socket: 9 Retry to get the expected package\n\n",
              judgement());
}

TEST_F(Ping, others_replies_are_waited_past) {
    arrive(echo(0, 78, 3));
    arrive(echo(8, 78, 3));
    arrive(echo(0, 77, 3), 3.0);
    EXPECT_EQ(3.0, wait());
    const std::string other = "5 wait_for_reply: socket: 9 icp.icmp_id: 78 pid: 77\n\n"
                              "0 handle_random_icmp(P, P)\n\n"
                              "5 wait_for_reply: socket: 9 handle_random_icmp: OK\n\n";
    EXPECT_EQ(other + other, judgement());
}

/* The time left is the whole time less the last receive: a reply may come later than the time-out
 * as long as something else comes in between. */
TEST_F(Ping, each_receive_has_its_own_time) {
    arrive(echo(0, 78, 3), 900);
    arrive(echo(0, 77, 3), 90);
    EXPECT_EQ(90.0, wait());
    arrive(echo(0, 78, 3), 900);
    arrive(echo(0, 77, 3), 101); /* only 100 ms were left */
    EXPECT_EQ(0.0, wait());
    net.arriving.clear();
    arrive(echo(0, 78, 3), 900);
    arrive(echo(0, 78, 3), 50);
    arrive(echo(0, 77, 3), 940);
    EXPECT_EQ(940.0, wait());
}

TEST_F(Ping, error_reports_about_our_probe) {
    for (auto [type, text] : {std::pair(3, "Host unreachable"),
                              {11, "Fragment reassembly time exceeded"},
                              {4, "Transmitting too fast"},
                              {12, "Bad IP header (required option absent)"}}) {
        arrive(error(static_cast<unsigned char>(type), 1, 77, 3));
        EXPECT_EQ(0.0, wait());
        EXPECT_EQ(1.0, net.now_ms - 5000.0); /* not waited out */
        net.now_ms = 5000.0;
        EXPECT_EQ("5 wait_for_reply: socket: 9 icp.icmp_id: 0 pid: 77\n\n"
                  "0 handle_random_icmp(P, P)\n\n"
                  "5 get_icmp_error_msg(" +
                      std::to_string(type) + ", 1)\n\n5 Received \"" + text +
                      "\" from 192.0.2.7.\n\n"
                      "0 wait_for_reply: socket: 9 handle_random_icmp: FAILED!\n\n",
                  judgement());
    }
    /* One whose own identifier field is ours ends the wait, too, with fewer words. */
    arrive(error(3, 1, 77, 3, 8, 77));
    EXPECT_EQ(0.0, wait());
    EXPECT_EQ(1.0, net.now_ms - 5000.0);
    EXPECT_EQ("0 wait_for_reply: socket: 9 not a proper ICMP_ECHOREPLY\nTYPE: 3\nicmp_seq: 0\n"
              "EXP. seq: 3\n\n"
              "0 handle_random_icmp(P, P)\n\n"
              "5 get_icmp_error_msg(3, 1)\n\n"
              "5 Received \"Host unreachable\" from 192.0.2.7.\n\n",
              judgement());
}

TEST_F(Ping, error_reports_about_others_probes) {
    for (const std::string& report : {error(3, 1, 78, 3), error(3, 1, 77, 4), error(3, 1, 77, 3, 0),
                                      error(5, 1, 77, 3), echo(13, 0, 0)}) {
        net.arriving.clear();
        arrive(report);
        arrive(echo(0, 77, 3), 7.0);
        EXPECT_EQ(7.0, wait());
    }
    judgement();
    arrive(error(3, 1, 78, 3));
    wait();
    EXPECT_EQ("5 wait_for_reply: socket: 9 icp.icmp_id: 0 pid: 77\n\n"
              "0 handle_random_icmp(P, P)\n\n"
              "0 handle_random_icmp: Packet is no response to a packet we sent\n\n"
              "5 wait_for_reply: socket: 9 handle_random_icmp: OK\n\n",
              judgement());
}

TEST_F(Ping, short_datagrams) {
    net.arriving.push_back({datagram_of(echo(0, 77, 3)).substr(0, 27), 1.0, "192.0.2.7"});
    net.arriving.push_back({std::string(1, 'x'), 1.0, "192.0.2.7"});
    arrive(echo(0, 77, 3, 8), 4.0); /* a header is enough */
    EXPECT_EQ(4.0, wait());
    EXPECT_NE(std::string::npos,
              errors().find("wait_for_reply: socket: 9 received packet too short for ICMP (27 "
                            "bytes, expected 72) from 192.0.2.7\n"));
    /* A report that quotes nothing is about nobody's probe, whatever came before it. */
    arrive(error(5, 1, 77, 3));
    arrive(error(3, 1, 77, 3).substr(0, 8));
    arrive(echo(0, 77, 3), 5.0);
    EXPECT_EQ(5.0, wait());
}

TEST_F(Ping, late_replies_are_lost) {
    arrive(echo(0, 77, 3), 1000.0);
    EXPECT_EQ(0.0, wait());
    EXPECT_EQ("wait_for_reply: socket: 9 timed out: 0.000000 ms\n", errors());
    arrive(echo(0, 77, 0), 20.0);
    EXPECT_EQ((std::vector<double>{0.0}), run(1, 20));
    net.arriving.clear();
    arrive(echo(0, 77, 0), 19.999);
    EXPECT_NEAR(19.999, run(1, 20).at(0), 1e-6);
}

TEST_F(Ping, without_a_time_everything_is_lost) {
    arrive(echo(0, 77, 0));
    EXPECT_EQ((std::vector<double>{0.0, 0.0}), run(2, 0));
    EXPECT_EQ(1u, net.arriving.size());
    EXPECT_EQ(std::string::npos, take_log_text().find("wait_for_reply"));
    char buffer[10];
    EXPECT_EQ(0, recvfrom_wto(9, buffer, 10, nullptr, 0.0));
    EXPECT_EQ("recvfrom_wto: socket: 9 timeout value is ZERO\n", errors());
}

TEST_F(Ping, time_to_receive) {
    char buffer[10];
    EXPECT_EQ(0, recvfrom_wto(9, buffer, 10, nullptr, 2500.25));
    EXPECT_EQ(7500.25, net.now_ms);
    EXPECT_EQ("5 Starting select() with sec: 2 usec 500250 timo: 2500.250000\n"
              "0 recvfrom_wto: socket: 9 select: timed out, remines: 2500.250000\n\n",
              take_log_text());
}

TEST_F(Ping, receive_errors) {
    net.poll_error = EINTR;
    EXPECT_EQ(0.0, wait());
    std::string text = errors();
    EXPECT_EQ(0u, text.find("recvfrom_wto: socket: 9 Error on select\n"));
    net.poll_error = 0;
    net.receive_error = ECONNREFUSED;
    net.waits = 0;
    for (int waits : {0, 1}) {
        net.arriving.clear();
        arrive(echo(0, 77, 3), waits);
        EXPECT_EQ(0.0, wait());
        EXPECT_EQ("wait_for_reply: socket: 9 failed error: 111\n", errors());
        EXPECT_EQ(waits, net.waits);
    }
}

/* What a wait refuses is an error of the wait, whether something is there or not. */
TEST_F(Ping, waits_that_cannot_be) {
    net.real = true;
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair));
    unique_fd here(pair[0]), there(pair[1]);
    char buffer[10];
    sockaddr_in from{};
    auto receive = [&](int fd, double timo) {
        return recvfrom_wto(fd, buffer, sizeof buffer, reinterpret_cast<sockaddr*>(&from), timo);
    };
    const std::string line = " Error on select\n";
    EXPECT_EQ(0, receive(here.get(), -1.0));
    EXPECT_EQ("recvfrom_wto: socket: " + std::to_string(here.get()) + line, errors());
    ASSERT_EQ(4, write(there.get(), "data", 4));
    EXPECT_EQ(0, receive(here.get(), -1.0));
    EXPECT_EQ("recvfrom_wto: socket: " + std::to_string(here.get()) + line, errors());
    EXPECT_EQ(4, receive(here.get(), 60000.0));
    EXPECT_EQ("", errors());
    int closed = here.get();
    here.reset();
    EXPECT_EQ(0, receive(closed, 60000.0));
    EXPECT_EQ("recvfrom_wto: socket: " + std::to_string(closed) + line, errors());
    EXPECT_EQ(0, receive(-1, 60000.0));
    EXPECT_EQ("recvfrom_wto: socket: -1" + line, errors());
    /* A file can be waited for; that it is no socket is an error of the receive. */
    unique_fd file(open("/dev/null", O_RDWR | O_CLOEXEC));
    EXPECT_EQ(-1, receive(file.get(), 60000.0));
    EXPECT_EQ(ENOTSOCK, errno);
    EXPECT_EQ("", errors());
}

/* What is there is taken without a wait, at no time by the clock: the shortest round trip. */
TEST_F(Ping, replies_that_are_there) {
    arrive(echo(0, 78, 3), 0.0);
    arrive(echo(0, 77, 3), 0.0);
    errno = EAGAIN; /* of some earlier call */
    EXPECT_EQ(0.001, wait());
    EXPECT_EQ(0, net.waits);
    arrive(echo(0, 77, 3));
    EXPECT_EQ(1.0, wait());
    EXPECT_EQ(1, net.waits);
}

TEST_F(Ping, error_texts) {
    const struct {
        int type, code;
        const char* text;
    } texts[] = {{3, 0, "Net unreachable"},
                 {3, 1, "Host unreachable"},
                 {3, 2, "Protocol unreachable (firewall?)"},
                 {3, 3, "Port unreachable (firewall?)"},
                 {3, 4, "Fragmentation needed"},
                 {3, 5, "Source route failed"},
                 {3, 6, "Unknown network"},
                 {3, 7, "Unknown host"},
                 {3, 8, "Source host isolated"},
                 {3, 9, "Network denied (firewall?)"},
                 {3, 10, "Host denied (firewall?)"},
                 {3, 11, "Bad TOS for network (firewall?)"},
                 {3, 12, "Bad TOS for host (firewall?)"},
                 {3, 13, "Prohibited by filter (firewall)"},
                 {3, 14, "Host precedence violation"},
                 {3, 15, "Precedence cutoff"},
                 {3, 16, "Invalid code"},
                 {3, 255, "Invalid code"},
                 {4, 9, "Transmitting too fast"},
                 {5, 9, "Redirect (change route)"},
                 {11, 0, "Time to live exceeded in transit"},
                 {11, 1, "Fragment reassembly time exceeded"},
                 {11, 2, "Invalid code"},
                 {12, 9, "Bad IP header (required option absent)"},
                 {0, 0, ""},
                 {8, 0, ""},
                 {255, 0, ""}};
    for (const auto& t : texts) {
        EXPECT_STREQ(t.text, get_icmp_error_msg(static_cast<unsigned char>(t.type),
                                                static_cast<unsigned char>(t.code)));
        EXPECT_EQ("5 get_icmp_error_msg(" + std::to_string(t.type) + ", " + std::to_string(t.code) +
                      ")\n\n",
                  take_log_text());
    }
}

#include "ping.h"

#include "guards.h"
#include "resolve.h"
#include "vindral_log.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

static const unsigned char TTL = 64;
static const unsigned short HEADER_SIZE = 8;
static const unsigned short DEFAULT_PACKET_SIZE = 76, LEAST_PACKET_SIZE = 52;
static const unsigned short LEAST_DATA_SIZE = 25, MOST_DATA_SIZE = 65507;
static const unsigned IP_HEADER_SIZE = 20; /* options are not looked for */
static const unsigned RECEIVE_ROOM = 4096;
/* Behind the header of the datagram that an error report quotes. */
static const int QUOTED_END = IP_HEADER_SIZE + HEADER_SIZE + IP_HEADER_SIZE + HEADER_SIZE;
static const int SEND_PAUSE_MS = 100;
/* Every probe on the machine puts its request or reply into every raw socket, which nobody reads
 * during the pause before a request. The kernel counts 768 bytes for a small one; this holds the
 * traffic of some thousand probes. */
static const int QUEUE_SIZE = 4 << 20;
/* The clock's step. A reply that was there already took this, since 0 would mean that it is lost.
 */
static const double LEAST_MS = 0.001;

/* Milliseconds since a moment that stays the same. */
static double clock_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long microseconds = now.tv_nsec / 1000;
    return static_cast<double>(now.tv_sec) * 1000.0 + static_cast<double>(microseconds) / 1000.0;
}

unsigned short icmp_checksum(unsigned short* p, int n) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(p);
    unsigned long sum = 0;
    for (; n > 1; n -= 2, bytes += 2) {
        unsigned short word;
        memcpy(&word, bytes, sizeof word);
        sum += word;
    }
    if (n == 1) {
        sum += *bytes;
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum += sum >> 16;
    return static_cast<unsigned short>(~sum);
}

int Sleep(int t) {
    timespec pause = {0, t * 1000000L};
    if (nanosleep(&pause, nullptr) != 0) {
        leveledadd2log(0, "ERROR: PING: nanosleep: %s", strerror(errno));
        return 0;
    }
    return 1;
}

/* --- sending --- */

/* `packet` is all zero. */
static void fill_request(char* packet, unsigned short size, unsigned short pid,
                         unsigned short sid) {
    const unsigned char type = ICMP_ECHO;
    icmp_ping_data data{};
    gettimeofday(&data.stime, nullptr);
    data.ping_id = 10;
    memcpy(packet, &type, sizeof type);
    memcpy(packet + 4, &pid, sizeof pid);
    memcpy(packet + 6, &sid, sizeof sid);
    memcpy(packet + HEADER_SIZE, &data, sizeof data);
    unsigned short checksum = icmp_checksum(reinterpret_cast<unsigned short*>(packet), size);
    memcpy(packet + 2, &checksum, sizeof checksum);
}

int send_ping(int sock, struct addrinfo* addr, unsigned short icmp_pkt_size, unsigned short pid,
              unsigned short sid, double* el_time) {
    if (sock == -1) {
        errno = 0;
        leveledadd2log(0, "Attempt to send on bogus socket");
        return -1;
    }
    size_t room = icmp_pkt_size;
    if (room < HEADER_SIZE + sizeof(icmp_ping_data)) {
        room = HEADER_SIZE + sizeof(icmp_ping_data);
    }
    heap_text packet(static_cast<char*>(calloc(room, 1)));
    if (!packet) {
        return -1;
    }
    fill_request(packet.get(), icmp_pkt_size, pid, sid);
    leveledadd2log(5, "send_ping: socket: %d icmp package size: %d\n", sock, icmp_pkt_size);
    double began = clock_ms();
    ssize_t sent = sendto(sock, packet.get(), icmp_pkt_size, 0, addr->ai_addr, addr->ai_addrlen);
    *el_time = clock_ms() - began;
    if (sent != icmp_pkt_size) {
        leveledadd2log(0, "send_ping: socket: %d Failed to send ping\n", sock);
        return -1;
    }
    return icmp_pkt_size;
}

/* --- receiving --- */

int recvfrom_wto(int sock, char* buf, unsigned int len, struct sockaddr* saddr, double timo) {
    if (timo == 0.0) {
        leveledadd2log(0, "recvfrom_wto: socket: %d timeout value is ZERO\n", sock);
        return 0;
    }
    auto seconds = static_cast<long>(timo / 1000);
    auto microseconds = static_cast<long>(timo * 1000) - seconds * 1000000;
    leveledadd2log(5, "Starting select() with sec: %d usec %d timo: %f", static_cast<int>(seconds),
                   static_cast<int>(microseconds), timo);
    /* Where many probes run, or one of this machine, there is something already. What a wait would
     * refuse is left to it: a time below zero, a descriptor that is not open. */
    socklen_t address_size = sizeof(sockaddr_in);
    if (timo > 0.0) {
        ssize_t n = recvfrom(sock, buf, len, MSG_DONTWAIT, saddr, &address_size);
        if (n != -1 || (errno != EAGAIN && errno != EBADF)) {
            return static_cast<int>(n);
        }
    }
    pollfd waited = {sock, POLLIN, 0};
    timespec limit = {seconds, microseconds * 1000};
    errno = 0;
    int ready = sock >= 0 ? ppoll(&waited, 1, &limit, nullptr) : -1;
    if (ready < 0 || (waited.revents & POLLNVAL) != 0) {
        leveledadd2log(0, "recvfrom_wto: socket: %d Error on select\n", sock);
        return 0;
    }
    if (ready == 0) {
        leveledadd2log(0, "recvfrom_wto: socket: %d select: timed out, remines: %f\n", sock, timo);
        return 0;
    }
    return static_cast<int>(recvfrom(sock, buf, len, 0, saddr, &address_size));
}

char* get_icmp_error_msg(unsigned char icmp_type, unsigned char icmp_code) {
    static const char* const unreachable[] = {
        "Net unreachable",
        "Host unreachable",
        "Protocol unreachable (firewall?)",
        "Port unreachable (firewall?)",
        "Fragmentation needed",
        "Source route failed",
        "Unknown network",
        "Unknown host",
        "Source host isolated",
        "Network denied (firewall?)",
        "Host denied (firewall?)",
        "Bad TOS for network (firewall?)",
        "Bad TOS for host (firewall?)",
        "Prohibited by filter (firewall)",
        "Host precedence violation",
        "Precedence cutoff",
    };
    static const char* const exceeded[] = {
        "Time to live exceeded in transit",
        "Fragment reassembly time exceeded",
    };
    leveledadd2log(5, "get_icmp_error_msg(%u, %u)\n", icmp_type, icmp_code);
    const char* text = "";
    switch (icmp_type) {
    case ICMP_DEST_UNREACH:
        text = icmp_code < sizeof unreachable / sizeof unreachable[0] ? unreachable[icmp_code]
                                                                      : "Invalid code";
        break;
    case ICMP_SOURCE_QUENCH:
        text = "Transmitting too fast";
        break;
    case ICMP_REDIRECT:
        text = "Redirect (change route)";
        break;
    case ICMP_TIME_EXCEEDED:
        text =
            icmp_code < sizeof exceeded / sizeof exceeded[0] ? exceeded[icmp_code] : "Invalid code";
        break;
    case ICMP_PARAMETERPROB:
        text = "Bad IP header (required option absent)";
        break;
    default:
        break;
    }
    return const_cast<char*>(text);
}

/* Fields of an ICMP header, wherever it lies; identifier and sequence in host order. */
struct echo_header {
    unsigned char type, code;
    unsigned short id, sequence;
};
static echo_header header_at(const void* icmp) {
    const auto* bytes = static_cast<const unsigned char*>(icmp);
    echo_header h = {bytes[0], bytes[1], 0, 0};
    memcpy(&h.id, bytes + 4, sizeof h.id);
    memcpy(&h.sequence, bytes + 6, sizeof h.sequence);
    return h;
}

static const char* address_text(const sockaddr_in& from, char text[INET_ADDRSTRLEN]) {
    return inet_ntop(AF_INET, &from.sin_addr, text, INET_ADDRSTRLEN);
}

int handle_random_icmp(struct icmp* p, struct sockaddr_in* addr, unsigned short pid,
                       unsigned short sid) {
    leveledadd2log(0, "handle_random_icmp(%p, %p)\n", static_cast<void*>(p),
                   static_cast<void*>(addr));
    echo_header report = header_at(p);
    if (report.type != ICMP_DEST_UNREACH && report.type != ICMP_TIME_EXCEEDED &&
        report.type != ICMP_SOURCE_QUENCH && report.type != ICMP_PARAMETERPROB) {
        return 1;
    }
    /* Behind the report's header the datagram that it is about. */
    echo_header quoted = header_at(reinterpret_cast<const char*>(p) + HEADER_SIZE + IP_HEADER_SIZE);
    if (quoted.type == ICMP_ECHO && quoted.id == pid && quoted.sequence == sid) {
        char from[INET_ADDRSTRLEN];
        leveledadd2log(5, "Received \"%s\" from %s.\n",
                       get_icmp_error_msg(report.type, report.code), address_text(*addr, from));
        return 0;
    }
    leveledadd2log(0, "handle_random_icmp: Packet is no response to a packet we sent\n");
    return 1;
}

enum verdict { ACCEPTED, LOST, WAIT_ON };

/* Judges a datagram of `n` bytes. */
static verdict judge_datagram(int sock, char* buffer, int n, sockaddr_in* from, double elapsed_ms,
                              unsigned short icmp_pkt_size, unsigned short pid,
                              unsigned short sid) {
    unsigned short total;
    memcpy(&total, buffer + 2, sizeof total);
    total = ntohs(total);
    char text[INET_ADDRSTRLEN];
    const char* sender = address_text(*from, text);
    if (n < QUOTED_END) {
        memset(buffer + n, 0, static_cast<size_t>(QUOTED_END - n)); /* nothing of an earlier one */
    }
    leveledadd2log(5, "wait_for_reply: socket: %d received %u bytes from %s\n", sock, total,
                   sender);
    if (n < static_cast<int>(IP_HEADER_SIZE + HEADER_SIZE)) {
        leveledadd2log(0,
                       "wait_for_reply: socket: %d received packet too short for ICMP (%d bytes, "
                       "expected %d) from %s\n",
                       sock, n, icmp_pkt_size + static_cast<int>(IP_HEADER_SIZE), sender);
        return WAIT_ON;
    }
    leveledadd2log(
        5, "wait_for_reply: socket: %d IP header size: %u, packet size: %u (expected %u, %u)\n",
        sock, IP_HEADER_SIZE, total - IP_HEADER_SIZE, IP_HEADER_SIZE, icmp_pkt_size);
    auto* message = reinterpret_cast<struct icmp*>(buffer + IP_HEADER_SIZE);
    echo_header echo = header_at(message);
    if (echo.id != pid) {
        leveledadd2log(5, "wait_for_reply: socket: %d icp.icmp_id: %d pid: %d\n", sock, echo.id,
                       pid);
        if (!handle_random_icmp(message, from, pid, sid)) {
            leveledadd2log(0, "wait_for_reply: socket: %d handle_random_icmp: FAILED!\n", sock);
            return LOST;
        }
        leveledadd2log(5, "wait_for_reply: socket: %d handle_random_icmp: OK\n", sock);
        return WAIT_ON;
    }
    /* A probe of the machine's own addresses is answered by the request itself, which the raw
     * socket receives, too. */
    if ((echo.type == ICMP_ECHOREPLY && echo.sequence == sid) || echo.type == ICMP_ECHO) {
        leveledadd2log(5, "wait_for_reply: socket: %d val: %0.3f ms from: %s, incoming ttl: %u\n",
                       sock, elapsed_ms, sender, static_cast<unsigned char>(buffer[8]));
        return ACCEPTED;
    }
    leveledadd2log(0,
                   "wait_for_reply: socket: %d not a proper ICMP_ECHOREPLY\nTYPE: %d\nicmp_seq: "
                   "%d\nEXP. seq: %d\n",
                   sock, echo.type, echo.sequence, sid);
    if (!handle_random_icmp(message, from, pid, sid)) {
        return LOST;
    }
    leveledadd2log(5, "wait_for_reply: socket: %d Retry to get the expected package\n", sock);
    return WAIT_ON;
}

double wait_for_reply(int sock, u_int time_out, unsigned short icmp_pkt_size, unsigned short pid,
                      unsigned short sid) {
    if (time_out == 0) {
        return 0.0;
    }
    const auto limit = static_cast<double>(time_out);
    leveledadd2log(5, "wait_for_reply: Starting wait, socket: %d timeot: %f\n", sock, limit);
    heap_text buffer(static_cast<char*>(calloc(RECEIVE_ROOM, 1)));
    if (!buffer) {
        return 0.0;
    }
    double left = limit;
    for (;;) {
        sockaddr_in from{};
        double began = clock_ms();
        int n = recvfrom_wto(sock, buffer.get(), RECEIVE_ROOM, reinterpret_cast<sockaddr*>(&from),
                             left);
        int error = errno;
        /* Of this receive alone, not of those before. */
        double elapsed = std::max(clock_ms() - began, LEAST_MS);
        left = limit - elapsed;
        leveledadd2log(5,
                       "wait_for_reply: socket: %d Elapsed time: %f Elapsed on Wait: %f left time: "
                       "%f\n",
                       sock, elapsed, elapsed, left);
        if (n == 0 || left <= 0.0) {
            leveledadd2log(0, "wait_for_reply: socket: %d timed out: %f ms\n", sock, left);
            return 0.0;
        }
        if (n == -1) {
            leveledadd2log(0, "wait_for_reply: socket: %d failed error: %d\n", sock, error);
            return 0.0;
        }
        switch (judge_datagram(sock, buffer.get(), n, &from, elapsed, icmp_pkt_size, pid, sid)) {
        case ACCEPTED:
            return elapsed;
        case LOST:
            return 0.0;
        case WAIT_ON:
            break;
        }
    }
}

/* --- a series of probes --- */

/* False with the reason logged. */
static bool resolve_target(const char* host, host_addresses* addresses) {
    addrinfo hints{};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_RAW;
    hints.ai_protocol = IPPROTO_ICMP;
    addrinfo* found = nullptr;
    int code = resolve_host(host, nullptr, &hints, &found);
    addresses->reset(found);
    if (code != 0) {
        leveledadd2log(0, "ping: HOST: %s DESC: %s\n", host, gai_strerror(code));
        return false;
    }
    errno = 0;
    if (found == nullptr || found->ai_addr == nullptr) {
        leveledadd2log(0, "ping: getaddrinfo: unknown address family\n");
        return false;
    }
    leveledadd2log(5, "ping: getaddrinfo: ai_addr OK\n");
    return true;
}

static const char* error_text(char* room, size_t size) {
    return strerror_r(errno, room, size);
}

/* An invalid descriptor, with the reason logged, when there is none to be had. */
static unique_fd open_raw_socket(const char* host, const addrinfo& address) {
    char room[1024];
    unique_fd sock(
        socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol));
    if (!sock) {
        leveledadd2log(0, "ping: socket error: %s\n", error_text(room, sizeof room));
        return sock;
    }
    leveledadd2log(5, "ping: host: %s socket: %d\n", host, sock.get());
    /* Beyond the system's limit for the privileged, else up to it; short of room it still works. */
    if (setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUFFORCE, &QUEUE_SIZE, sizeof QUEUE_SIZE) != 0) {
        (void)setsockopt(sock.get(), SOL_SOCKET, SO_RCVBUF, &QUEUE_SIZE, sizeof QUEUE_SIZE);
    }
    if (sock.get() != 0) {
        if (setsockopt(sock.get(), IPPROTO_IP, IP_TTL, &TTL, sizeof TTL) == 0) {
            leveledadd2log(5, "ping: socket: %d setsockopt: IP_TTL: %u\n", sock.get(), TTL);
        } else {
            leveledadd2log(0, "ping: socket: %d setsockopt: IP_TTL: failed: %s\n", sock.get(),
                           error_text(room, sizeof room));
        }
    }
    return sock;
}

static unsigned short packet_size(int sock, unsigned short data_size) {
    if (data_size < LEAST_DATA_SIZE || data_size > MOST_DATA_SIZE) {
        leveledadd2log(5, "ping: socket: %d icmp package size: %u\n", sock, DEFAULT_PACKET_SIZE);
        return DEFAULT_PACKET_SIZE;
    }
    unsigned size = data_size + 8U;
    leveledadd2log(5, "ping: socket: %d icmp package size: %u\n", sock, size);
    return static_cast<unsigned short>(size < LEAST_PACKET_SIZE ? LEAST_PACKET_SIZE : size);
}

/* Makes as many attempts as there are addresses, all of them at the first. */
static void send_probe(int sock, const host_addresses& addresses, unsigned short size,
                       unsigned short id, unsigned short sequence) {
    for (const addrinfo* at = addresses.get(); at != nullptr; at = at->ai_next) {
        double elapsed = 0.0;
        Sleep(SEND_PAUSE_MS);
        int sent = send_ping(sock, addresses.get(), size, id, sequence, &elapsed);
        leveledadd2log(5, "ping: socket: %d Elapsed on send: %f\n", sock, elapsed);
        if (sent != -1) {
            leveledadd2log(5, "ping: socket: %d send OK size: %d\n", sock, sent);
            return;
        }
        leveledadd2log(0, "ping: socket: %d send_ping() failed, try next\n", sock);
    }
}

double* ping(const char* pDest, unsigned int nTimeout, int pCount, unsigned short ping_data_size,
             unsigned short instID) {
    if (pCount < 1) {
        return nullptr;
    }
    heap<double> results(static_cast<double*>(calloc(static_cast<size_t>(pCount), sizeof(double))));
    if (!results) {
        return nullptr;
    }
    if (pDest == nullptr) {
        leveledadd2log(0, "ping: specified host address is NULL.\n");
        return nullptr;
    }
    host_addresses addresses;
    if (!resolve_target(pDest, &addresses)) {
        return nullptr;
    }
    unique_fd sock = open_raw_socket(pDest, *addresses);
    if (!sock) {
        return nullptr;
    }
    unsigned short size = packet_size(sock.get(), ping_data_size);
    for (int i = 0; i < pCount; i++) {
        auto sequence = static_cast<unsigned short>(i);
        send_probe(sock.get(), addresses, size, instID, sequence);
        double elapsed = wait_for_reply(sock.get(), nTimeout, size, instID, sequence);
        leveledadd2log(5, "ping: socket: %d Elapsed on Wait: %f\n", sock.get(), elapsed);
        if (elapsed > 0.0 && elapsed < nTimeout) {
            results.get()[i] = elapsed;
            leveledadd2log(5, "ping: socket: %d adding result: %d val: %f\n", sock.get(), i,
                           elapsed);
        }
    }
    return results.release();
}

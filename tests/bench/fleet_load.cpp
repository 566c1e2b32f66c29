/* A fleet on a collection server: each agent logs in once and then polls once an interval, all of
 * them spread over it; each poll is a TCP connect, a full TLS handshake, a POST and the close.
 *
 *   fleet_load --port N [--agents N] [--interval S] [--seconds S] [--first N] [--pid P] [--each
 * FILE] [--certificates DIRECTORY]
 *
 * Prints how long polls took, and what the server's process P took of the processor for them. An
 * interval before these seconds does not count: who has logged in and not polled yet costs more.
 * FILE gets a line of each poll: when it began (CLOCK_MONOTONIC, seconds) and its milliseconds,
 * which are negative when it failed. With a DIRECTORY of fleet_identities (of
 * fleet@example.org, "host") each agent shows its certificate. */
#include "fleet.h"
#include "shown.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <getopt.h>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace {

int port = 8443, seconds = 120, interval = 60, target = 0;
uint32_t agents = 1000, first = 0;
std::atomic<uint32_t> next_agent{0};
std::atomic<long> failed{0};
std::mutex mutex;
std::vector<double> took;
double sent_bytes = 0, counts_from = 0;
FILE* each = nullptr;
const char* certificates = nullptr;

struct client {
    uint32_t number = 0;
    simulated_agent values{0};
    std::string session = {};
    shown proof = {};

    std::string name() const {
        char text[32];
        snprintf(text, sizeof text, "host%04u", number);
        return text;
    }
};

double now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

std::string exchange(SSL_CTX* context, const shown& proof, const std::string& request) {
    int sk = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(sk, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    SSL* session = nullptr;
    if (connect(sk, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0) {
        session = SSL_new(context);
        proof.give(session);
        SSL_set_fd(session, sk);
        if (SSL_connect(session) == 1 &&
            SSL_write(session, request.data(), static_cast<int>(request.size())) > 0) {
            char buffer[4096];
            int got;
            while ((got = SSL_read(session, buffer, sizeof buffer)) > 0) {
                answer.append(buffer, static_cast<size_t>(got));
            }
            proof.keep(session);
            SSL_shutdown(session);
        }
    }
    SSL_free(session);
    close(sk);
    return answer;
}

std::string header(const std::string& answer, const std::string& name) {
    size_t at = answer.find(name);
    if (at == std::string::npos) {
        return "";
    }
    at = answer.find_first_not_of(' ', at + name.size());
    return answer.substr(at, answer.find("\r\n", at) - at);
}

const char* const head =
    "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
    "Vnd-Platform: linux64\r\nVnd-Version: 3.0\r\n";

bool log_in(SSL_CTX* context, client& c) {
    std::string request = head;
    request += "Content-Length: 0\r\nVnd-EMail: fleet@example.org\r\nVnd-AName: ";
    request += c.name();
    request += "\r\n\r\n";
    c.session = header(exchange(context, c.proof, request), "Vnd-SessionID:");
    return !c.session.empty();
}

bool poll(SSL_CTX* context, client& c) {
    std::string body;
    c.values.add_pass(time(nullptr), body);
    simulated_agent::add_inventories(time(nullptr), body);
    unsigned long sum = adler32(adler32(0, nullptr, 0), reinterpret_cast<const Bytef*>(body.data()),
                                static_cast<uInt>(body.size()));
    const double began = now();
    std::string answer =
        exchange(context, c.proof,
                 std::string(head) + "Content-Length: " + std::to_string(body.size()) +
                     "\r\nVnd-SessionID: " + c.session + "\r\nVnd-Compression: 0\r\n" +
                     "Vnd-CheckSum: " + std::to_string(sum) + "\r\n\r\n" + body);
    double ms = 1000 * (now() - began);
    size_t end = answer.find("\r\n\r\n");
    const bool good =
        end != std::string::npos && answer.compare(end + 4, std::string::npos, "111111") != 0;
    if (began >= counts_from) {
        std::lock_guard lock(mutex);
        took.push_back(ms);
        sent_bytes += static_cast<double>(body.size());
        if (each) {
            fprintf(each, "%.6f %.3f\n", began, good ? ms : -ms);
        }
    }
    return good;
}

/* Polls are handed out in turn, each at its time. */
void work(SSL_CTX* context, std::vector<client>& fleet, double began) {
    for (;;) {
        uint32_t turn = next_agent++;
        double at = began + static_cast<double>(turn) * interval / agents;
        double wait = at - now();
        if (at > counts_from + seconds) {
            return;
        }
        if (wait > 0) {
            std::this_thread::sleep_for(std::chrono::duration<double>(wait));
        }
        client& c = fleet[turn % agents];
        if (!poll(context, c)) {
            failed++;
        }
    }
}

/* What it has taken of the processor; 0 when there is none. */
double process_ms(int pid) {
    clockid_t clock;
    timespec t{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &t) != 0) {
        return 0;
    }
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

} // namespace

int main(int argc, char** argv) {
    static const option options[] = {
        {"port", 1, nullptr, 'p'},     {"agents", 1, nullptr, 'a'},
        {"interval", 1, nullptr, 'i'}, {"seconds", 1, nullptr, 's'},
        {"first", 1, nullptr, 'f'},    {"pid", 1, nullptr, 'P'},
        {"each", 1, nullptr, 'e'},     {"certificates", 1, nullptr, 'c'},
        {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (c) {
        case 'p':
            port = atoi(optarg);
            break;
        case 'a':
            agents = static_cast<uint32_t>(atoi(optarg));
            break;
        case 'i':
            interval = atoi(optarg);
            break;
        case 's':
            seconds = atoi(optarg);
            break;
        case 'f':
            first = static_cast<uint32_t>(atoi(optarg));
            break;
        case 'P':
            target = atoi(optarg);
            break;
        case 'e':
            each = fopen(optarg, "we");
            if (!each) {
                perror(optarg);
                return 1;
            }
            setvbuf(each, nullptr, _IOLBF, 0);
            break;
        case 'c':
            certificates = optarg;
            break;
        default:
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    std::vector<client> fleet;
    for (uint32_t i = 0; i < agents; i++) {
        fleet.push_back({.number = first + i, .values = simulated_agent(first + i)});
        if (certificates && !fleet.back().proof.read(certificates, fleet.back().name())) {
            return 1;
        }
        if (!log_in(context, fleet.back())) {
            fprintf(stderr, "agent %u: no session\n", i);
            return 1;
        }
    }
    const double began = now();
    counts_from = seconds > 0 ? began + interval : began;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&] { work(context, fleet, began); });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(counts_from - now()));
    const double counted_from = now();
    double target_before = target != 0 ? process_ms(target) : 0;
    for (std::thread& t : threads) {
        t.join();
    }
    double spent = now() - counted_from;
    if (took.empty()) {
        took.push_back(0);
    }
    std::sort(took.begin(), took.end());
    printf("%zu polls in %.0f s, %.0f bytes each, %ld failed; p50 %.1f ms, p99 %.1f ms, most %.1f "
           "ms\n",
           took.size(), spent, sent_bytes / static_cast<double>(took.size()), failed.load(),
           took[took.size() / 2], took[took.size() * 99 / 100], took.back());
    if (target != 0) {
        double used = process_ms(target) - target_before;
        printf("server: %.2f %% of a core, %.3f ms a poll\n", used / spent / 10,
               used / static_cast<double>(took.size()));
    }
    if (each) {
        fclose(each);
    }
    SSL_CTX_free(context);
    return failed != 0;
}

/* Load on a collection server: each connection is one TCP connect, one full TLS handshake, one
 * POST, the answer up to the end of the session, and the close, as an agent's poll is.
 *
 *   poll_load --port N [--seconds S] [--threads T] [--body BYTES] [--pid P] [--plain-answers]
 *             [--certificates DIRECTORY]
 *
 * Each thread is an agent of its own: it logs in and then posts blocks of load-average records that
 * differ from poll to poll. With --plain-answers nothing is logged in and any answer counts (for a
 * web server beside it). With a DIRECTORY of fleet_identities (of load@example.org, "load") each
 * shows its certificate. With --pid the processor time of that process is read before and after.
 * Prints connections a second, and the processor time per connection of both sides. */
#include "shown.h"
#include "udc.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <zlib.h>

static int port = 8443, seconds = 5, thread_count = 8, body_size = 2048, target_pid = 0;
static bool plain_answers = false;
static const char* certificates = nullptr;
static std::atomic<bool> over{false};
static std::atomic<long> done{0}, failed{0};

static std::string make_block(int agent, int poll) {
    std::string block;
    for (int i = 0; block.size() < static_cast<size_t>(body_size); i++) {
        UDCW* w = nullptr;
        create_new_udcw(&w, 0, 4, 1, 0, 3, 1);
        for (unsigned v : {66u, static_cast<unsigned>(i + 1), static_cast<unsigned>(agent)}) {
            udcw_add(w, UDC_UI32, v);
        }
        udcw_add(w, UDC_I64, 1700000000L + poll);
        for (double v : {0.5, 0.25 * poll, 0.125}) {
            udcw_add(w, UDC_D64, v);
        }
        udcw_add(w, UDC_STRING, "Load Average values are within acceptable limits\n");
        udcw_add(w, UDC_UI32, 0);
        block.append(reinterpret_cast<char*>(w->udc), w->udc->size);
        free(w->udc);
        udcw_free(&w);
    }
    return block;
}

/* One exchange; the answer, or nothing when it failed. */
static std::string exchange(SSL_CTX* context, const shown& proof, const std::string& head,
                            const std::string& body) {
    int sk = socket(AF_INET, SOCK_STREAM, 0);
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
            SSL_write(session, head.data(), static_cast<int>(head.size())) > 0 &&
            (body.empty() || SSL_write(session, body.data(), static_cast<int>(body.size())) > 0)) {
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

static std::string header(const std::string& answer, const char* name) {
    size_t at = answer.find(name);
    if (at == std::string::npos) {
        return "";
    }
    at += strlen(name);
    at = answer.find_first_not_of(' ', at);
    return answer.substr(at, answer.find("\r\n", at) - at);
}

static void run_agent(SSL_CTX* context, int agent) {
    const std::string first =
        "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n";
    const std::string last = "Vnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n";
    std::string session = "none";
    char name[32];
    snprintf(name, sizeof name, "load%04d", agent);
    shown proof;
    if (certificates && !proof.read(certificates, name)) {
        failed++;
        return;
    }
    if (!plain_answers) {
        session = header(exchange(context, proof,
                                  first + "Content-Length: 0\r\nVnd-EMail: load@example.org\r\n" +
                                      "Vnd-AName: " + name + "\r\n" + last,
                                  ""),
                         "Vnd-SessionID:");
        if (session.empty()) {
            fprintf(stderr, "agent %d: no session\n", agent);
            failed++;
            return;
        }
    }
    for (int poll = static_cast<int>(getpid()) * 7; !over; poll++) {
        std::string body = make_block(agent, poll);
        unsigned long sum = adler32(adler32(0, nullptr, 0), reinterpret_cast<Bytef*>(body.data()),
                                    static_cast<uInt>(body.size()));
        std::string answer = exchange(
            context, proof,
            first + "Content-Length: " + std::to_string(body.size()) +
                "\r\nVnd-SessionID: " + session +
                "\r\nVnd-Compression: 0\r\nVnd-CheckSum: " + std::to_string(sum) + "\r\n" + last,
            body);
        size_t end = answer.find("\r\n\r\n");
        bool good =
            end != std::string::npos && answer.compare(end + 4, std::string::npos, "111111") != 0;
        (good ? done : failed)++;
    }
}

/* User and system time of a process so far, in ms, its finished threads included. */
static double process_ms(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    size_t at = text.rfind(')');
    unsigned long user = 0, system = 0;
    if (at == std::string::npos ||
        sscanf(text.c_str() + at, ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
               &system) != 2) {
        return 0;
    }
    return static_cast<double>(user + system) * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

static double own_ms() {
    rusage use;
    getrusage(RUSAGE_SELF, &use);
    return static_cast<double>(use.ru_utime.tv_sec + use.ru_stime.tv_sec) * 1000.0 +
           static_cast<double>(use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1000.0;
}

int main(int argc, char** argv) {
    static const option options[] = {
        {"port", 1, nullptr, 'p'},         {"seconds", 1, nullptr, 's'},
        {"threads", 1, nullptr, 't'},      {"body", 1, nullptr, 'b'},
        {"pid", 1, nullptr, 'P'},          {"plain-answers", 0, nullptr, 'a'},
        {"certificates", 1, nullptr, 'c'}, {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (c) {
        case 'p':
            port = atoi(optarg);
            break;
        case 's':
            seconds = atoi(optarg);
            break;
        case 't':
            thread_count = atoi(optarg);
            break;
        case 'b':
            body_size = atoi(optarg);
            break;
        case 'P':
            target_pid = atoi(optarg);
            break;
        case 'a':
            plain_answers = true;
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
    double target_before = target_pid != 0 ? process_ms(target_pid) : 0;
    double own_before = own_ms();
    timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    std::vector<std::thread> agents;
    for (int i = 0; i < thread_count; i++) {
        agents.emplace_back(run_agent, context, i);
    }
    sleep(static_cast<unsigned>(seconds));
    over = true;
    for (std::thread& agent : agents) {
        agent.join();
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    double took = static_cast<double>(end.tv_sec - start.tv_sec) +
                  static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9;
    double count = static_cast<double>(done.load());
    printf("%.0f connections/s, %ld failed", count / took, failed.load());
    if (target_pid != 0 && count > 0) {
        printf(", server %.3f ms each", (process_ms(target_pid) - target_before) / count);
    }
    printf(", client %.3f ms each\n", count > 0 ? (own_ms() - own_before) / count : 0);
    SSL_CTX_free(context);
    return failed != 0;
}

/* Who asks a collector's API, over plain HTTP on loopback.
 *
 *   api_load ask --port N --seconds S --rate R --token T [--token T ...]
 *     as a page does, a connection kept for each token: all agents, all pages of tests, series of
 * 30 days of twenty tests, and again; R requests a second of each. How long until the last byte.
 *
 *   api_load listen --port N --seconds S --readers N --token T
 *     streams that are read: what came, and whether it is the same for all
 *
 *   api_load stall --port N --seconds S --readers N --token T
 *     streams that are asked for and never read; those that were reset come back
 *
 * Says "ready" in a line when all that it asked for is there. What is answered 429 or 503 is tried
 * again a second later, and counted. */
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <getopt.h>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

int port = 8080, seconds = 60;
size_t readers = 1000;
double requests_a_second = 10;
std::vector<std::string> tokens;

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void sleep_until(double at) {
    const double wait = at - now();
    if (wait > 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(wait));
    }
}

/* -1 when it cannot be had. `buffer`: of what was not read yet; 0: as the system has it. */
int open_connection(int buffer) {
    int sk = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sk < 0) {
        return -1;
    }
    int on = 1;
    setsockopt(sk, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (buffer > 0) {
        setsockopt(sk, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(sk, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        close(sk);
        return -1;
    }
    return sk;
}

std::string request_for(const std::string& target, const std::string& token) {
    return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
           "\r\nAuthorization: Bearer " + token + "\r\n\r\n";
}

bool send_all(int sk, const std::string& text) {
    size_t sent = 0;
    while (sent < text.size()) {
        ssize_t n = send(sk, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

int status_of(std::string_view answer) {
    return answer.size() > 12 && answer.starts_with("HTTP/1.1 ") ? atoi(answer.data() + 9) : 0;
}

/* ---- asking ---- */

struct asker {
    const std::string& token;
    int sk = -1;
    std::string answer = {}; /* its body */
    std::vector<char> buffer = std::vector<char>(65536);

    /* The status; 0 when there is no answer. */
    int exchange(const std::string& target) {
        if (sk < 0) {
            sk = open_connection(0);
        }
        std::string all;
        size_t body_at = 0, length = 0;
        if (sk < 0 || !send_all(sk, request_for(target, token))) {
            drop();
            return 0;
        }
        while (body_at == 0 || all.size() < body_at + length) {
            ssize_t n = recv(sk, buffer.data(), buffer.size(), 0);
            if (n <= 0) {
                drop();
                return 0;
            }
            all.append(buffer.data(), static_cast<size_t>(n));
            if (body_at == 0) {
                size_t end = all.find("\r\n\r\n");
                if (end == std::string::npos) {
                    continue;
                }
                body_at = end + 4;
                size_t at = all.find("Content-Length: ");
                length = at < body_at ? strtoul(all.c_str() + at + 16, nullptr, 10) : 0;
                all.reserve(body_at + length);
            }
        }
        const int status = status_of(all);
        answer.assign(all, body_at);
        if (all.find("Connection: close") < body_at) {
            drop();
        }
        return status;
    }
    void drop() {
        close(sk);
        sk = -1;
    }
    /* Of a list; empty at its end. */
    std::string next() const {
        static constexpr std::string_view before = "\"next\":\"";
        size_t at = answer.rfind(before);
        if (at == std::string::npos) {
            return "";
        }
        at += before.size();
        return answer.substr(at, answer.find('"', at) - at);
    }
    std::vector<std::string> ids() const {
        std::vector<std::string> found;
        static constexpr std::string_view before = "{\"id\":";
        for (size_t at = 0; (at = answer.find(before, at)) != std::string::npos;) {
            at += before.size();
            if (answer.compare(answer.find_first_not_of("0123456789", at), 9, ",\"agent\":") == 0) {
                found.push_back(std::to_string(strtoll(answer.c_str() + at, nullptr, 10)));
            }
        }
        return found;
    }
};

struct measured {
    std::vector<double> ms;
    double bytes = 0;
};

std::mutex mutex;
std::map<std::string, measured> answers;
long refused = 0, broken = 0, most_tests = 0;

std::string days_ago(int days) {
    char text[32];
    time_t at = time(nullptr) - days * 86400;
    tm parts;
    gmtime_r(&at, &parts);
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

void ask(const std::string& token, double begin, double end) {
    asker a{.token = token};
    double next_at = begin;
    auto get = [&](const char* what, const std::string& target) {
        for (;;) {
            sleep_until(next_at);
            if (now() >= end) {
                return false;
            }
            next_at = std::max(next_at, now() - 1) + 1 / requests_a_second;
            const double began = now();
            const int status = a.exchange(target);
            const double ms = 1000 * (now() - began);
            std::lock_guard lock(mutex);
            if (status == 200) {
                measured& of = answers[what];
                of.ms.push_back(ms);
                of.bytes += static_cast<double>(a.answer.size());
                return true;
            }
            (status == 0 ? broken : refused)++;
            if (status != 0 && status != 429 && status != 503) {
                fprintf(stderr, "%s: %d\n%s\n", target.c_str(), status, a.answer.c_str());
                return false;
            }
            next_at = now() + 1;
        }
    };
    size_t turn = 0;
    while (now() < end) {
        std::vector<std::string> tests;
        if (!get("agents, 1,000 in one answer", "/api/v1/agents?limit=1000")) {
            return;
        }
        std::string next;
        do {
            if (!get("tests, 1,000 in one answer",
                     "/api/v1/tests?limit=1000" + (next.empty() ? "" : "&next=" + next))) {
                return;
            }
            std::vector<std::string> more = a.ids();
            tests.insert(tests.end(), more.begin(), more.end());
            next = a.next();
        } while (!next.empty());
        {
            std::lock_guard lock(mutex);
            most_tests = std::max(most_tests, static_cast<long>(tests.size()));
        }
        for (int i = 0; i < 20 && !tests.empty(); i++) {
            const std::string& test = tests[(turn++ * 7919 + 13) % tests.size()];
            if (!get("series of 30 days",
                     "/api/v1/tests/" + test + "/series?points=800&from=" + days_ago(30))) {
                return;
            }
        }
    }
}

int ask_all() {
    const double begin = now();
    printf("ready\n");
    fflush(stdout);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < tokens.size(); i++) {
        threads.emplace_back(ask, std::cref(tokens[i]),
                             begin + static_cast<double>(i) / requests_a_second /
                                         static_cast<double>(tokens.size()),
                             begin + seconds);
    }
    for (std::thread& each : threads) {
        each.join();
    }
    for (auto& [what, of] : answers) {
        std::sort(of.ms.begin(), of.ms.end());
        const size_t n = of.ms.size();
        printf("%s: %zu, p50 %.1f ms, p99 %.1f ms, most %.1f ms; %.0f bytes\n", what.c_str(), n,
               of.ms[n / 2], of.ms[n * 99 / 100], of.ms.back(), of.bytes / static_cast<double>(n));
    }
    printf("%ld tests in all pages; %ld refused for a time, %ld without an answer\n", most_tests,
           refused, broken);
    return broken > 0;
}

/* ---- streams ---- */

struct listener {
    int sk = -1;
    bool begun = false, lost = false;
    size_t messages = 0, bytes = 0;
    uint64_t first = 0, last = 0; /* positions */
    std::string line;             /* half of one */

    void take(std::string_view text) {
        bytes += text.size();
        for (size_t at = 0; at < text.size();) {
            size_t end = text.find('\n', at);
            line.append(text.substr(at, end - at)); /* only what is short matters */
            if (end == std::string_view::npos) {
                return;
            }
            if (line.starts_with("id: ")) {
                last = strtoull(line.c_str() + line.rfind('-') + 1, nullptr, 10);
                first = begun ? first : last;
                messages += begun ? 1 : 0;
                begun = true;
            } else if (line.starts_with("event: lost")) {
                lost = true;
            }
            line.clear();
            at = end + 1;
        }
    }
};

void raise_limit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void watch(int poller, int sk, uint64_t index, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = index;
    epoll_ctl(poller, EPOLL_CTL_ADD, sk, &event);
}

int open_stream(int buffer, const std::string& token) {
    int sk = open_connection(buffer);
    if (sk >= 0 && !send_all(sk, request_for("/api/v1/stream", token))) {
        close(sk);
        sk = -1;
    }
    return sk;
}

/* Streams are requests: 1,200 at once of a token and 20 a second then. */
struct pace {
    double left = 1100, since = now();
    void wait() {
        left = std::min(1100.0, left + 18 * (now() - since));
        since = now();
        if (left < 1) {
            sleep_until(since + (1 - left) / 18);
            left = 1;
            since = now();
        }
        left -= 1;
    }
};

int listen_all() {
    raise_limit();
    int poller = epoll_create1(EPOLL_CLOEXEC);
    std::vector<listener> all(readers);
    static char buffer[262144];
    size_t ended = 0, begun = 0, opened = 0;
    auto serve = [&](int ms) {
        epoll_event events[256];
        int n = epoll_wait(poller, events, 256, ms);
        for (int i = 0; i < n; i++) {
            listener& l = all[events[i].data.u64];
            ssize_t got = recv(l.sk, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got > 0) {
                const bool before = l.begun;
                l.take({buffer, static_cast<size_t>(got)});
                begun += l.begun && !before ? 1 : 0;
            } else if (got == 0 || errno != EAGAIN) {
                close(l.sk);
                ended++;
            }
        }
    };
    pace slowly;
    for (listener& l : all) {
        slowly.wait();
        l.sk = open_stream(0, tokens[0]);
        if (l.sk < 0) {
            perror("connect");
            return 1;
        }
        watch(poller, l.sk, static_cast<uint64_t>(&l - all.data()), EPOLLIN);
        opened++;
        while (opened - begun - ended > 20) { /* of one token 32 may wait */
            serve(100);
        }
    }
    while (begun + ended < readers) {
        serve(100);
    }
    printf("ready\n");
    fflush(stdout);
    const double end = now() + seconds;
    std::vector<size_t> before;
    for (const listener& l : all) {
        before.push_back(l.messages);
    }
    while (now() < end) {
        serve(100);
    }
    size_t least = SIZE_MAX, most = 0, lost = 0, gaps = 0;
    double bytes = 0;
    for (size_t i = 0; i < all.size(); i++) {
        const listener& l = all[i];
        least = std::min(least, l.messages - before[i]);
        most = std::max(most, l.messages - before[i]);
        lost += l.lost ? 1 : 0;
        gaps += l.last - l.first != l.messages ? 1 : 0;
        bytes += static_cast<double>(l.bytes);
    }
    printf(
        "%zu readers, %zu ended, %zu to %zu messages each in %d s, %.0f MB in all; %zu told that "
        "some were lost, %zu with gaps\n",
        readers, ended, least, most, seconds, bytes / 1e6, lost, gaps);
    return ended + lost + gaps > 0;
}

int stall_all() {
    raise_limit();
    int poller = epoll_create1(EPOLL_CLOEXEC);
    std::vector<int> all(readers, -1);
    size_t open = 0, resets = 0, failed = 0;
    size_t turn = 0;
    auto open_one = [&](size_t i) {
        all[i] = open_stream(4096, tokens[turn++ % tokens.size()]);
        if (all[i] < 0) {
            failed++;
            return;
        }
        open++;
        watch(poller, all[i], i, EPOLLRDHUP);
    };
    bool told = false;
    size_t at = 0, most = 0;
    double end = 0;
    while (!told || now() < end) {
        for (size_t i = 0; i < 20 && at < readers; i++) {
            open_one(at++);
        }
        if (at == readers && !told) {
            told = true;
            end = now() + seconds;
            printf("ready\n");
            fflush(stdout);
        }
        epoll_event events[256];
        int n = epoll_wait(poller, events, 256, 10);
        for (int i = 0; i < n; i++) {
            const size_t which = events[i].data.u64;
            close(all[which]);
            open--;
            resets++;
            open_one(which);
        }
        most = std::max(most, open);
    }
    size_t begun = 0;
    for (int sk : all) {
        char head[64];
        ssize_t n = sk < 0 ? 0 : recv(sk, head, sizeof head, MSG_PEEK | MSG_DONTWAIT);
        begun += n > 0 && status_of({head, static_cast<size_t>(n)}) == 200 ? 1 : 0;
    }
    printf("%zu readers that do not read: %zu connected at the end, %zu of them with a stream; %zu "
           "resets, %zu not connected\n",
           readers, open, begun, resets, failed);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string word = argc > 1 ? argv[1] : "";
    static const option options[] = {{"port", 1, nullptr, 'p'},  {"seconds", 1, nullptr, 's'},
                                     {"rate", 1, nullptr, 'r'},  {"readers", 1, nullptr, 'n'},
                                     {"token", 1, nullptr, 't'}, {nullptr, 0, nullptr, 0}};
    optind = 2;
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (c) {
        case 'p':
            port = atoi(optarg);
            break;
        case 's':
            seconds = atoi(optarg);
            break;
        case 'r':
            requests_a_second = atof(optarg);
            break;
        case 'n':
            readers = static_cast<size_t>(atol(optarg));
            break;
        case 't':
            tokens.emplace_back(optarg);
            break;
        default:
            return 2;
        }
    }
    if (tokens.empty()) {
        fprintf(stderr, "no --token\n");
        return 2;
    }
    if (word == "ask") {
        return ask_all();
    }
    if (word == "listen") {
        return listen_all();
    }
    if (word == "stall") {
        return stall_all();
    }
    fprintf(stderr, "usage: api_load ask|listen|stall --port N --token T ...\n");
    return 2;
}

/* A fleet that comes back after an outage of its collector: each agent has kept the results of some
 * minutes, and a session that the collector does not know. They behave as agents do: a connection
 * that fails is tried again after the interval, who is to log in again does so after a second and
 * brings all that was kept a second later; a block that was not accepted comes again unchanged; an
 * exchange has 15 seconds.
 *
 *   fleet_return --port N [--agents N] [--interval S] [--kept MINUTES] [--seconds S] [--within S]
 *                [--expected FILE]
 *   fleet_return verify STATE_DIR FILE
 *
 * The agents' first polls are spread over the interval, or all come WITHIN so many seconds. They
 * measure for SECONDS more, and then until all that they have is accepted. A line each second says
 * what became of the exchanges that ended in it; lines at the end, how often an agent was refused
 * in a row, and how long it took until each had been accepted once. FILE gets which results each
 * agent had, and `verify` looks whether the store of a collector that has ended has each of them,
 * once. */
#include "fleet.h"
#include "state/take.h"
#include "stored_records.h"

#include <algorithm>
#include <array>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <getopt.h>
#include <map>
#include <random>
#include <string>
#include <sys/resource.h>
#include <vector>
#include <zlib.h>

namespace asio = boost::asio;
using asio::awaitable;
using asio::use_awaitable;
using asio::ip::tcp;
using namespace asio::experimental::awaitable_operators;
using steady = std::chrono::steady_clock;

namespace {

int port = 8443, interval = 60, kept = 10, seconds = 120, within = 0;
uint32_t agents = 1000;
const char* list_file = nullptr;

/* What an exchange comes to, as an agent sees it. */
enum outcome { polled, logged_in, sent_away, no_connection, too_late, internal, outcomes };

struct tally {
    std::array<uint64_t, outcomes> ended{};
    uint64_t begun = 0;
    uint64_t under_way = 0; /* gauge, as is the next */
    uint32_t returned = 0;  /* agents that were accepted once */
} counted;

bool over = false;  /* no more is measured */
uint32_t alive = 0; /* agents that have something to bring yet */

struct agent {
    uint32_t number = 0;
    simulated_agent values{0};
    int64_t first = 0; /* time of its first results; others follow at the interval */
    uint32_t passes = 0, brought = 0;
    std::string session = {};
    std::string block = {}; /* packed, until it is accepted */
    size_t plain = 0;
    uint32_t in_block = 0; /* passes */
    int refused = 0, most_refused = 0;
    double returned = -1; /* seconds since the begin */

    std::string name() const {
        char text[32];
        snprintf(text, sizeof text, "host%05u", number);
        return text;
    }
};

double since(steady::time_point begun) {
    return std::chrono::duration<double>(steady::now() - begun).count();
}

/* All that was measured so far, as the block that is sent until it is accepted. */
void collect(agent& a) {
    const int64_t now = time(nullptr);
    while (!over && a.first + int64_t{interval} * a.passes <= now) {
        a.passes++;
    }
    if (!a.block.empty() || a.brought == a.passes) {
        return;
    }
    std::string plain;
    a.in_block = a.passes - a.brought;
    for (uint32_t i = a.brought; i < a.passes; i++) {
        a.values.add_pass(a.first + int64_t{interval} * i, plain);
    }
    simulated_agent::add_inventories(now, plain);
    a.plain = plain.size();
    uLongf size = compressBound(plain.size());
    a.block.resize(size);
    compress(reinterpret_cast<Bytef*>(a.block.data()), &size,
             reinterpret_cast<const Bytef*>(plain.data()), plain.size());
    a.block.resize(size);
}

std::string header(const std::string& answer, const std::string& name) {
    size_t at = answer.find(name);
    if (at == std::string::npos) {
        return "";
    }
    at = answer.find_first_not_of(' ', at + name.size());
    return answer.substr(at, answer.find("\r\n", at) - at);
}

std::string head_of(const agent& a) {
    std::string head =
        "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n";
    if (a.session.empty()) {
        head += "Content-Length: 0\r\nVnd-EMail: fleet@example.org\r\nVnd-AName: " + a.name();
    } else {
        unsigned long sum =
            a.block.empty()
                ? 0
                : adler32(adler32(0, nullptr, 0), reinterpret_cast<const Bytef*>(a.block.data()),
                          static_cast<uInt>(a.block.size()));
        head += "Content-Length: " + std::to_string(a.block.size()) +
                "\r\nVnd-SessionID: " + a.session +
                "\r\nVnd-Compression: " + std::to_string(a.block.empty() ? 0 : a.plain) +
                "\r\nVnd-CheckSum: " + std::to_string(sum);
    }
    return head + "\r\nVnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n";
}

/* The whole answer; empty when the connection failed. */
awaitable<std::string> converse(asio::io_context& context, asio::ssl::context& tls,
                                const agent& a) {
    asio::ssl::stream<tcp::socket> link(context, tls);
    std::string answer;
    try {
        tcp::socket& socket = link.next_layer();
        socket.open(tcp::v4());
        const uint32_t host = 0x7f010000 + a.number / 50; /* some behind each address */
        socket.bind({asio::ip::address_v4(host), 0});
        co_await socket.async_connect(
            {asio::ip::address_v4::loopback(), static_cast<uint16_t>(port)}, use_awaitable);
        socket.set_option(tcp::no_delay(true));
        co_await link.async_handshake(asio::ssl::stream_base::client, use_awaitable);
        const std::string head = head_of(a);
        co_await asio::async_write(link, asio::buffer(head), use_awaitable);
        if (!a.session.empty() && !a.block.empty()) {
            co_await asio::async_write(link, asio::buffer(a.block), use_awaitable);
        }
        std::array<char, 4096> piece;
        for (;;) {
            boost::system::error_code failed;
            size_t got = co_await link.async_read_some(asio::buffer(piece),
                                                       asio::redirect_error(use_awaitable, failed));
            answer.append(piece.data(), got);
            if (failed == asio::error::eof) {
                break;
            }
            if (failed) {
                co_return "";
            }
        }
    } catch (const boost::system::system_error&) {
        co_return "";
    }
    co_return answer;
}

/* As an agent judges an answer. */
outcome judge(agent& a, const std::string& answer) {
    size_t end = answer.find("\r\n\r\n");
    if (end == std::string::npos) {
        return no_connection;
    }
    if (a.session.empty()) {
        a.session = header(answer, "Vnd-SessionID:");
        return a.session.empty() ? internal : logged_in;
    }
    if (answer.compare(end + 4, std::string::npos, "111111") == 0) {
        a.session.clear();
        return sent_away;
    }
    return polled;
}

awaitable<outcome> poll(asio::io_context& context, asio::ssl::context& tls, agent& a) {
    asio::steady_timer budget(context, std::chrono::seconds(15));
    counted.begun++;
    counted.under_way++;
    auto ended = co_await (converse(context, tls, a) || budget.async_wait(use_awaitable));
    counted.under_way--;
    co_return ended.index() == 1 ? too_late : judge(a, std::get<0>(ended));
}

awaitable<void> live(asio::io_context& context, asio::ssl::context& tls, agent& a,
                     std::chrono::milliseconds phase, steady::time_point begun) {
    asio::steady_timer timer(context, phase);
    co_await timer.async_wait(use_awaitable);
    for (;;) {
        if (!a.session.empty()) {
            collect(a);
        }
        if (over && a.brought == a.passes) {
            break;
        }
        const bool brings = !a.session.empty() && !a.block.empty();
        const outcome what = co_await poll(context, tls, a);
        counted.ended[what]++;
        a.refused =
            what == no_connection || what == too_late || what == internal ? a.refused + 1 : 0;
        a.most_refused = std::max(a.most_refused, a.refused);
        if (what == polled && brings) {
            a.brought += a.in_block;
            a.block.clear();
            if (a.returned < 0) {
                a.returned = since(begun);
                counted.returned++;
            }
        }
        const bool soon = what == logged_in || what == sent_away;
        timer.expires_after(std::chrono::seconds(soon ? 1 : interval));
        co_await timer.async_wait(use_awaitable);
    }
    alive--;
}

awaitable<void> tell(asio::io_context& context, steady::time_point begun) {
    asio::steady_timer timer(context);
    tally last;
    printf("second\tbegun\tpolls\tlogins\tsent away\treset\ttoo late\tinternal\tunder "
           "way\treturned\n");
    for (int second = 1; alive > 0; second++) {
        timer.expires_at(begun + std::chrono::seconds(second));
        co_await timer.async_wait(use_awaitable);
        over = second >= seconds;
        printf("%d\t%lu", second, counted.begun - last.begun);
        for (int what = 0; what < outcomes; what++) {
            printf("\t%lu", counted.ended[what] - last.ended[what]);
        }
        printf("\t%lu\t%u\n", counted.under_way, counted.returned);
        fflush(stdout);
        last = counted;
    }
}

void sum_up(std::vector<agent>& fleet) {
    std::map<int, uint32_t> refused;
    std::vector<double> took;
    uint64_t passes = 0;
    for (const agent& a : fleet) {
        refused[a.most_refused]++;
        took.push_back(a.returned);
        passes += a.brought;
    }
    std::sort(took.begin(), took.end());
    printf(
        "# accepted once: half of the agents after %.0f s, 99 %% after %.0f s, the last after %.0f "
        "s; %lu results\n# refused in a row:",
        took[took.size() / 2], took[took.size() * 99 / 100], took.back(),
        passes * simulated_agent::tests);
    for (auto [times, count] : refused) {
        printf(" %d times %u,", times, count);
    }
    printf(" agents\n");
}

/* Each of the results that an agent had, once, and no others. */
int verify(const char* state, const char* file) {
    std::string error;
    std::unique_ptr<result_reader> store = open_reader(state, error);
    std::map<std::string, stored_agent_row> rows;
    if (store) {
        for (stored_agent_row& row : stored_agents(*store, error)) {
            rows[row.name] = std::move(row);
        }
    }
    if (!error.empty()) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    std::ifstream in(file);
    std::string name;
    int64_t first = 0, step = 0, passes = 0;
    uint64_t found = 0, lost = 0, doubled = 0, strange = 0;
    while (in >> name >> first >> step >> passes) {
        std::map<std::pair<uint32_t, int64_t>, int> times; /* by test */
        for (const stored_record& r : records_of(*store, rows[name], error)) {
            const record_summary s = r.summary();
            if (s.test && s.time && !is_inventory(s)) {
                times[{static_cast<uint32_t>(*s.test), *s.time}]++;
            }
        }
        for (uint32_t test = 1; test <= simulated_agent::tests; test++) {
            for (int64_t i = 0; i < passes; i++) {
                auto one = times.find({test, first + i * step});
                lost += one == times.end();
                if (one != times.end()) {
                    found++;
                    doubled += one->second > 1;
                    times.erase(one);
                }
            }
        }
        strange += times.size();
    }
    printf("# stored: %lu results; %lu lost, %lu doubled, %lu that no agent had%s%s\n", found, lost,
           doubled, strange, error.empty() ? "" : "; ", error.c_str());
    return lost + doubled + strange > 0 || !error.empty() || found == 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "verify") {
        return verify(argv[2], argv[3]);
    }
    static const option options[] = {{"port", 1, nullptr, 'p'},     {"agents", 1, nullptr, 'a'},
                                     {"interval", 1, nullptr, 'i'}, {"kept", 1, nullptr, 'k'},
                                     {"seconds", 1, nullptr, 's'},  {"within", 1, nullptr, 'w'},
                                     {"expected", 1, nullptr, 'e'}, {nullptr, 0, nullptr, 0}};
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
        case 'k':
            kept = atoi(optarg);
            break;
        case 's':
            seconds = atoi(optarg);
            break;
        case 'w':
            within = atoi(optarg);
            break;
        case 'e':
            list_file = optarg;
            break;
        default:
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    asio::io_context context(1);
    asio::ssl::context tls(asio::ssl::context::tls_client);
    SSL_CTX_set_session_cache_mode(tls.native_handle(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(tls.native_handle(), SSL_MODE_RELEASE_BUFFERS);
    std::minstd_rand chance(20);
    std::vector<agent> fleet;
    fleet.reserve(agents);
    const int64_t now = time(nullptr);
    std::uniform_int_distribution<int> any(0, 1000 * (within > 0 ? within : interval) - 1);
    std::vector<int> phases;
    for (uint32_t i = 0; i < agents; i++) { /* what was kept is packed before anything counts */
        phases.push_back(any(chance));
        char session[40];
        snprintf(session, sizeof session, "%032x", i + 1);
        fleet.push_back({.number = i,
                         .values = simulated_agent(i),
                         .first = now - int64_t{60} * kept + phases[i] / 1000 - interval,
                         .session = session});
        collect(fleet.back());
    }
    alive = agents;
    const steady::time_point begun = steady::now();
    for (agent& a : fleet) {
        const std::chrono::milliseconds phase(phases[a.number]);
        asio::co_spawn(context, live(context, tls, a, phase, begun), asio::detached);
    }
    asio::co_spawn(context, tell(context, begun), asio::detached);
    context.run();
    sum_up(fleet);
    if (list_file) {
        std::ofstream out(list_file);
        for (const agent& a : fleet) {
            out << a.name() << ' ' << a.first << ' ' << interval << ' ' << a.passes << '\n';
        }
    }
    return 0;
}

#include "enrol/exchange.h"

#include "ctl/failure.h"
#include "ctl/text.h"
#include "enrol/waiting.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

constexpr seconds longest_exchange{30}, longest_connect{10};
constexpr size_t most_head = 16u << 10, most_body = 256u << 10;

using context_ptr = std::unique_ptr<SSL_CTX, released_by<SSL_CTX_free>>;
using session_ptr = std::unique_ptr<SSL, released_by<SSL_free>>;

struct talk {
    const collector_place& at;
    moment deadline;
    unique_fd socket;
    context_ptr context;
    session_ptr session;

    [[noreturn]] void fail(const std::string& why) const {
        throw failure{status_wrong, at.where.text() + " " + printable(why)};
    }
};

std::string system_reason(int error) {
    return std::system_category().message(error);
}

/* --- connecting ------------------------------------------------------------------------------ */

/* What a thread looks up; it may take longer than anybody waits. */
struct lookup {
    std::mutex guard;
    unique_fd done{eventfd(0, EFD_CLOEXEC)};
    addrinfo* found = nullptr;
    int error = EAI_AGAIN;

    lookup() = default;
    lookup(const lookup&) = delete;
    lookup& operator=(const lookup&) = delete;
    ~lookup() {
        if (found != nullptr) {
            freeaddrinfo(found);
        }
    }
};

std::shared_ptr<lookup> look_up(const talk& t) {
    auto looked = std::make_shared<lookup>();
    std::thread([looked, host = t.at.where.host, port = t.at.where.port] {
        addrinfo hints{}, *found = nullptr;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = AI_NUMERICSERV;
        const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
        const std::lock_guard<std::mutex> hold(looked->guard);
        looked->error = error;
        looked->found = error == 0 ? found : nullptr;
        eventfd_write(looked->done.get(), 1);
    }).detach();
    if (!wait_for(looked->done.get(), POLLIN, t.deadline)) {
        t.fail("cannot be reached: nobody answers for its name");
    }
    const std::lock_guard<std::mutex> hold(looked->guard);
    if (looked->error != 0) {
        t.fail(std::string("cannot be reached: ") + gai_strerror(looked->error));
    }
    return looked;
}

unique_fd connect_to(const addrinfo& address, moment deadline, int& error) {
    unique_fd socket(::socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                              address.ai_protocol));
    error = 0;
    if (!socket) {
        error = errno;
        return socket;
    }
    const int on = 1;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(socket.get(), address.ai_addr, address.ai_addrlen) != 0) {
        error = errno;
        if (error == EINPROGRESS) {
            socklen_t size = sizeof error;
            error = ETIMEDOUT;
            if (wait_for(socket.get(), POLLOUT, deadline)) {
                getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &size);
            }
        }
    }
    return error == 0 ? std::move(socket) : unique_fd();
}

void connect(talk& t) {
    const std::shared_ptr<lookup> looked = look_up(t);
    int error = ENOENT;
    for (const addrinfo* a = looked->found; a != nullptr && !t.socket; a = a->ai_next) {
        t.socket = connect_to(*a, std::min(t.deadline, in(longest_connect)), error);
    }
    if (!t.socket) {
        t.fail("cannot be reached: " + system_reason(error));
    }
}

/* --- TLS ------------------------------------------------------------------------------------- */

void prepare(talk& t) {
    t.context.reset(SSL_CTX_new(TLS_client_method()));
    if (!t.context || SSL_CTX_set_min_proto_version(t.context.get(), TLS1_2_VERSION) != 1) {
        t.fail("cannot be asked: no TLS");
    }
    if (t.at.authorities != nullptr) {
        store_ptr store = store_of(*t.at.authorities);
        SSL_CTX_set_cert_store(t.context.get(), store.release());
        SSL_CTX_set_verify(t.context.get(), SSL_VERIFY_PEER, nullptr);
    }
    if (t.at.self != nullptr &&
        (SSL_CTX_use_certificate(t.context.get(), t.at.self->certificate.get()) != 1 ||
         SSL_CTX_use_PrivateKey(t.context.get(), t.at.self->key.get()) != 1)) {
        t.fail(std::string("cannot be shown this host's certificate: ") +
               take_tls_reason("no memory"));
    }
    SSL_CTX_set_mode(t.context.get(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    t.session.reset(SSL_new(t.context.get()));
    if (!t.session || SSL_set_fd(t.session.get(), t.socket.get()) != 1) {
        t.fail("cannot be asked: no memory");
    }
}

/* The names count as they do for the agent. */
void expect_name(talk& t) {
    std::string name = t.at.where.host;
    if (name.ends_with('.')) {
        name.pop_back();
    }
    X509_VERIFY_PARAM* rules = SSL_get0_param(t.session.get());
    X509_VERIFY_PARAM_set_hostflags(rules, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS |
                                               X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
    const bool set = t.at.where.is_address()
                         ? X509_VERIFY_PARAM_set1_ip_asc(rules, name.c_str()) == 1
                         : X509_VERIFY_PARAM_set1_host(rules, name.c_str(), name.size()) == 1 &&
                               SSL_set_tlsext_host_name(t.session.get(), name.c_str()) == 1;
    if (!set) {
        t.fail("cannot be verified: its name is none");
    }
}

/* What an alert of the server's means to a host that shows its certificate. */
const char* refusal_of(unsigned long error) {
    switch (ERR_GET_REASON(error)) {
    case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
        return "refuses this host's certificate: it is revoked";
    case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
        return "refuses this host's certificate: it has ended";
    case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
        return "refuses this host's certificate: none of its authorities signed it";
    case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
    case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
    case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
    case SSL_R_TLSV1_ALERT_ACCESS_DENIED:
        return "refuses this host's certificate";
    default:
        return nullptr;
    }
}

[[noreturn]] void fail_of_tls(talk& t, const char* while_at) {
    const long verified = SSL_get_verify_result(t.session.get());
    const unsigned long error = ERR_peek_error();
    if (t.at.authorities != nullptr && verified != X509_V_OK) {
        std::string why = "is not trusted: ";
        why += X509_verify_cert_error_string(verified);
        if (verified == X509_V_ERR_HOSTNAME_MISMATCH ||
            verified == X509_V_ERR_IP_ADDRESS_MISMATCH) {
            why += " (its certificate does not name " + t.at.where.host +
                   "; the collector takes further names by --name)";
        }
        t.fail(why);
    }
    if (const char* refused = refusal_of(error); refused != nullptr && t.at.self != nullptr) {
        t.fail(refused);
    }
    if (ERR_GET_REASON(error) == SSL_R_WRONG_VERSION_NUMBER ||
        ERR_GET_REASON(error) == SSL_R_PACKET_LENGTH_TOO_LONG) {
        t.fail("does not speak TLS; is this the port that agents poll?");
    }
    t.fail(std::string("ended the connection ") + while_at + ": " +
           take_tls_reason("no reason given"));
}

/* Repeats `step` until it is done; false when the other end closed in order. */
template <typename Step>
bool tls_step(talk& t, const char* while_at, Step step) {
    while (true) {
        ERR_clear_error();
        errno = 0;
        const int done = step();
        if (done > 0) {
            return true;
        }
        const int system = errno;
        short wanted;
        switch (SSL_get_error(t.session.get(), done)) {
        case SSL_ERROR_WANT_READ:
            wanted = POLLIN;
            break;
        case SSL_ERROR_WANT_WRITE:
            wanted = POLLOUT;
            break;
        case SSL_ERROR_ZERO_RETURN:
            return false;
        case SSL_ERROR_SYSCALL:
            if (ERR_peek_error() == 0) {
                t.fail(std::string("ended the connection ") + while_at +
                       (system != 0 ? ": " + system_reason(system) : ""));
            }
            [[fallthrough]];
        default:
            fail_of_tls(t, while_at);
        }
        if (!wait_for(t.socket.get(), wanted, t.deadline)) {
            t.fail(std::string("does not answer ") + while_at);
        }
    }
}

/* --- HTTP ------------------------------------------------------------------------------------ */

std::string request_text(const collector_place& at, const question& what) {
    std::string text =
        what.method + " " + what.path + " HTTP/1.0\r\nHost: " + at.where.authority() + "\r\n";
    for (const auto& [name, value] : what.headers) {
        text.append(name).append(": ").append(value).append("\r\n");
    }
    if (what.method != "GET") {
        text.append("Content-Type: application/pkcs10\r\nContent-Length: ")
            .append(std::to_string(what.body.size()))
            .append("\r\n");
    }
    return text + "\r\n" + what.body;
}

bool same_word(std::string_view a, std::string_view b) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

struct head {
    size_t length = 0; /* with the empty line */
    std::optional<size_t> content;
};

/* None as long as the head is not whole. */
std::optional<head> read_head(const talk& t, std::string_view received, http_answer& answer) {
    const size_t end = received.find("\r\n\r\n");
    if (end == received.npos) {
        if (received.size() > most_head ||
            !std::string_view("HTTP/1.").starts_with(received.substr(0, 7))) {
            t.fail("does not speak HTTP; is this the port that agents poll?");
        }
        return std::nullopt;
    }
    head found;
    found.length = end + 4;
    const std::string_view lines = received.substr(0, end);
    const std::string_view first = lines.substr(0, lines.find("\r\n"));
    const std::string_view status = first.substr(std::min(first.size(), first.find(' ') + 1), 3);
    if (!first.starts_with("HTTP/1.") ||
        std::from_chars(status.data(), status.data() + status.size(), answer.status).ptr !=
            status.data() + 3 ||
        answer.status < 100) {
        t.fail("does not speak HTTP; is this the port that agents poll?");
    }
    for (size_t at = first.size(); at < lines.size();) {
        at += 2;
        const std::string_view line = lines.substr(at, lines.find("\r\n", at) - at);
        at += line.size();
        const size_t colon = std::min(line.find(':'), line.size());
        const std::string_view value = trimmed(line.substr(std::min(colon + 1, line.size())));
        if (same_word(line.substr(0, colon), "Content-Length")) {
            size_t length = 0;
            const auto [rest, failed] =
                std::from_chars(value.data(), value.data() + value.size(), length);
            if (failed != std::errc() || rest != value.data() + value.size() ||
                length > most_body) {
                t.fail("answers with more than a collector does");
            }
            found.content = length;
        } else if (same_word(line.substr(0, colon), protocol::authority_header)) {
            answer.authority = value;
        }
    }
    return found;
}

void receive(talk& t, http_answer& answer) {
    std::string received;
    std::optional<head> found;
    std::vector<char> bytes(16u << 10);
    while (!found || !found->content || received.size() < found->length + *found->content) {
        size_t count = 0;
        if (!tls_step(t, "before its answer was whole", [&] {
                return SSL_read_ex(t.session.get(), bytes.data(), bytes.size(), &count);
            })) {
            if (!found || found->content) {
                t.fail("ended the connection before its answer was whole");
            }
            break;
        }
        received.append(bytes.data(), count);
        if (!found) {
            found = read_head(t, received, answer);
        }
        if (received.size() > most_head + most_body) {
            t.fail("answers with more than a collector does");
        }
    }
    answer.body = received.substr(found->length, found->content.value_or(most_body + 1));
}

void note_server(const talk& t, http_answer& answer) {
    STACK_OF(X509)* sent = SSL_get_peer_cert_chain(t.session.get());
    for (int i = 0; i < sk_X509_num(sent); i++) {
        X509* certificate = sk_X509_value(sent, i);
        X509_up_ref(certificate);
        answer.server.emplace_back(certificate);
    }
}

} // namespace

http_answer ask(const collector_place& at, const question& what, bool* sent) {
    talk t{at, in(longest_exchange), unique_fd(), nullptr, nullptr};
    connect(t);
    prepare(t);
    expect_name(t);
    (void)tls_step(t, "in the handshake", [&] { return SSL_connect(t.session.get()); });
    http_answer answer;
    note_server(t, answer);
    if (at.authorities != nullptr && answer.server.empty()) {
        t.fail("is not trusted: it sent no certificate");
    }
    const std::string request = request_text(at, what);
    if (sent != nullptr) {
        *sent = true;
    }
    for (size_t done = 0; done < request.size();) {
        size_t count = 0;
        if (!tls_step(t, "before it was asked", [&] {
                return SSL_write_ex(t.session.get(), request.data() + done, request.size() - done,
                                    &count);
            })) {
            t.fail("ended the connection before it was asked");
        }
        done += count;
    }
    receive(t, answer);
    (void)SSL_shutdown(t.session.get());
    ERR_clear_error();
    return answer;
}

base_url read_collector_url(std::string_view text) {
    if (text.starts_with("http://")) {
        throw failure{status_usage, "agents are served by https:// only, and so is this: \"" +
                                        printable(text) + "\" has http://"};
    }
    if (!text.starts_with("https://")) {
        throw failure{status_usage, "\"" + printable(text) +
                                        "\" is no address: one is such as "
                                        "https://collector.example.org:8443"};
    }
    base_url url = read_url(text, "https://collector.example.org:8443");
    if (url.prefix == poll_path) {
        url.prefix.clear();
    }
    if (!url.prefix.empty()) {
        throw failure{status_usage, "\"" + printable(text) +
                                        "\" has a path; an address is such as "
                                        "https://collector.example.org:8443"};
    }
    if (url.host.find(':') != url.host.npos) {
        throw failure{status_usage, "an agent cannot be told an IPv6 address: give the collector's "
                                    "name instead of \"" +
                                        printable(text) + "\""};
    }
    if (url.host.starts_with('.')) {
        throw failure{status_usage, "\"" + printable(text) + "\" has no name of a host"};
    }
    return url;
}

std::string reason_of(const http_answer& answer) {
    std::string_view body = answer.body;
    while (!body.empty() && (body.front() == '\n' || body.front() == '\r' || body.front() == ' ')) {
        body.remove_prefix(1);
    }
    std::string line = printable(body.substr(0, std::min<size_t>(body.find_first_of("\r\n"), 300)));
    return line.empty() ? "status " + std::to_string(answer.status) : line;
}

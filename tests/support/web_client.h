/* The web server in this process with a small API behind it, and clients that speak to it byte by
 * byte. */
#ifndef WEB_CLIENT_H
#define WEB_CLIENT_H

#include "base/identity.h"
#include "base/tls.h"
#include "eventually.h"
#include "fake_api.h"
#include "web/server.h"
#include "web/sign_in.h"

#include <arpa/inet.h>
#include <cstddef>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

struct web_reply {
    int status = 0; /* 0: none came */
    std::string head, body;
    bool has(const std::string& line) const {
        return head.find("\r\n" + line + "\r\n") != std::string::npos;
    }
    /* The value of a header; empty when it is not there. */
    std::string value(const std::string& name) const {
        size_t at = head.find("\r\n" + name + ": ");
        if (at == std::string::npos) {
            return "";
        }
        at += name.size() + 4;
        return head.substr(at, head.find("\r\n", at) - at);
    }
};

class web_client {
public:
    explicit web_client(uint16_t port, bool tls = false, const char* from = nullptr) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval limit{60, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        sockaddr_in there{};
        there.sin_family = AF_INET;
        there.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (from) {
            sockaddr_in here = there;
            inet_pton(AF_INET, from, &here.sin_addr);
            bind(fd_, reinterpret_cast<sockaddr*>(&here), sizeof here);
        }
        there.sin_port = htons(port);
        connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&there), sizeof there) == 0;
        if (connected_ && tls) {
            static SSL_CTX* context = SSL_CTX_new(TLS_client_method());
            ssl_ = SSL_new(context);
            SSL_set_fd(ssl_, fd_);
            connected_ = SSL_connect(ssl_) == 1;
        }
    }
    ~web_client() {
        SSL_free(ssl_);
        close(fd_);
    }
    web_client(const web_client&) = delete;
    web_client& operator=(const web_client&) = delete;

    bool connected() const { return connected_; }
    int fd() const { return fd_; }

    bool send(std::string_view text) {
        while (!text.empty()) {
            ssize_t sent = ssl_ ? SSL_write(ssl_, text.data(), int(text.size()))
                                : ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            text.remove_prefix(size_t(sent));
        }
        return true;
    }
    /* False at the end of the stream, or after a minute. */
    bool more() {
        char piece[4096];
        ssize_t got =
            ssl_ ? SSL_read(ssl_, piece, sizeof piece) : recv(fd_, piece, sizeof piece, 0);
        if (got > 0) {
            text_.append(piece, size_t(got));
        }
        return got > 0;
    }
    /* What came until it stands there, and takes it; empty when it never does. */
    std::string until(const std::string& what) {
        size_t at;
        while ((at = text_.find(what)) == std::string::npos) {
            if (!more()) {
                return "";
            }
        }
        std::string found = text_.substr(0, at + what.size());
        text_.erase(0, at + what.size());
        return found;
    }
    web_reply reply(bool with_body = true) {
        web_reply r;
        r.head = until("\r\n\r\n");
        if (r.head.size() > 12) {
            r.status = std::stoi(r.head.substr(9, 3));
        }
        std::string length = r.value("Content-Length");
        size_t wanted = with_body && !length.empty() ? std::stoul(length) : 0;
        while (text_.size() < wanted) {
            if (!more()) {
                r.status = 0;
                break;
            }
        }
        r.body = text_.substr(0, wanted);
        text_.erase(0, wanted);
        return r;
    }
    /* Whether the other end closes, with nothing more to say. */
    bool ends() { return text_.empty() && !more() && text_.empty(); }

    static std::string text(const std::string& method, const std::string& target,
                            const std::string& lines = "", const std::string& body = "") {
        std::string length =
            body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
        return method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n" + lines + length +
               "\r\n" + body;
    }
    web_reply ask(const std::string& method, const std::string& target,
                  const std::string& lines = "", const std::string& body = "") {
        send(text(method, target, lines, body));
        return reply(method != "HEAD");
    }
    web_reply get(const std::string& target, const std::string& lines = "") {
        return ask("GET", target, lines);
    }

private:
    int fd_;
    bool connected_ = false;
    SSL* ssl_ = nullptr;
    std::string text_;
};

/* Parts of the services that nothing here uses. */
template <typename T>
T& unused() {
    alignas(std::max_align_t) static std::byte nothing[64 + sizeof(T) * std::is_class_v<T>];
    return *reinterpret_cast<T*>(nothing);
}

struct web_server_test : testing::Test {
    scratch_directory directory;
    std::string error, note;
    std::unique_ptr<settings> kept;
    event_hub hub;
    counters counted;
    std::atomic<int64_t> now{time(nullptr)};
    std::unique_ptr<api_services> services;
    web_options options;
    tls_context tls;
    std::unique_ptr<web_server> server;
    std::mutex mutex;
    std::vector<std::string> lines;
    gate held;
    std::string token; /* of "tester", an operator */

    void SetUp() override {
        kept = settings::open(directory / "state", note, error);
        ASSERT_TRUE(kept) << error;
        services.reset(new api_services{.stored = unused<reader_pool>(),
                                        .results = *reinterpret_cast<ingest*>(&held),
                                        .hub = hub,
                                        .kept = *kept,
                                        .agents = unused<known_agents>(),
                                        .where_agents_poll = nullptr,
                                        .secrets = unused<known_secrets>(),
                                        .counted = counted,
                                        .now = [this] { return now.load(); },
                                        .check_now = nullptr,
                                        .send_away = nullptr,
                                        .readiness = nullptr,
                                        .version = "1"});
        options.answer = fake_answer;
        options.stream = fake_stream;
        token = add_secret(*kept, token_kind::token, role::operates, "tester", now, 0, error);
        fake_gate = &held;
    }
    void TearDown() override {
        held.open();
        server.reset();
    }
    void start(bool with_tls = false) {
        if (with_tls) {
            identity_files files;
            identity_report report;
            ASSERT_TRUE(ensure_identity(directory / "state", {}, files, report, error)) << error;
            tls = make_tls_context(files, error);
            ASSERT_TRUE(tls) << error;
        }
        server = std::make_unique<web_server>(options, tls.get(), *kept, *services,
                                              [this](const std::string& line) {
                                                  std::lock_guard<std::mutex> guard(mutex);
                                                  lines.push_back(line);
                                              });
        ASSERT_TRUE(server->listen(error)) << error;
    }
    uint16_t port() const { return server->port(); }
    std::string bearer(const std::string& secret) const {
        return "Authorization: Bearer " + secret + "\r\n";
    }
    std::string bearer() const { return "Authorization: Bearer " + token + "\r\n"; }
    std::vector<std::string> log() {
        std::lock_guard<std::mutex> guard(mutex);
        return lines;
    }
    void tell(hub_kind kind, int64_t test, const std::string& json) {
        hub.publish(kind, 1, test, json);
        hub.flush();
    }
};

#endif

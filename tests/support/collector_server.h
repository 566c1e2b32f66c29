/* The server in this process, real TLS clients, and a store that does what a test tells it. */
#ifndef COLLECTOR_SERVER_H
#define COLLECTOR_SERVER_H

#include "base/tls.h"
#include "collector_test_support.h"
#include "ingest/server.h"
#include "packing.h"
#include "plan/commands_for_agents.h"

#include <arpa/inet.h>
#include <atomic>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <thread>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

/* ---- a store ---- */

class fake_store : public ingest {
public:
    ~fake_store() override {
        {
            std::lock_guard hold(mutex_);
            ending_ = true;
            held_ = false;
        }
        changed_.notify_all();
        writer_.join();
    }

    void submit(poll_block block, std::function<void(store_result)> done) override {
        if (on_submit) {
            on_submit();
        }
        std::lock_guard hold(mutex_);
        blocks_.push_back(block);
        waiting_.push_back(std::move(done));
        changed_.notify_all();
    }

    void update(std::function<bool(engine&)>, change_done done) override { done(false, ""); }
    void retire(int64_t, change_done done) override { done(false, ""); }
    queue_load waiting() override { return {}; }
    queue_delay behind() override {
        return {.small = std::chrono::milliseconds(behind_ms.load()),
                .large = std::chrono::milliseconds(large_behind_ms.load()),
                .large_from = 100000};
    }
    std::atomic<int> behind_ms{0}, large_behind_ms{0};
    void heard(std::string_view account, std::string_view agent, int64_t, std::string_view address,
               std::string_view version) override {
        std::lock_guard hold(mutex_);
        heard_.push_back(std::string(account) + " " + std::string(agent) + " " +
                         std::string(address) + " " + std::string(version));
    }
    void held_up(std::string_view account, std::string_view agent) override {
        std::lock_guard hold(mutex_);
        held_up_.push_back(std::string(account) + " " + std::string(agent));
    }
    void follow(plan_summary, std::vector<owned_definition>) override {}
    void follow_agents(std::vector<agent_plan>) override {}

    std::vector<std::string> held_up_so_far() {
        std::lock_guard hold(mutex_);
        return held_up_;
    }

    std::vector<std::string> heard_so_far() {
        std::lock_guard hold(mutex_);
        return heard_;
    }

    std::function<void()> on_submit; /* on the network thread */

    /* What the next blocks are answered; `stored` when nothing was said. */
    void will_answer(store_result result) {
        std::lock_guard hold(mutex_);
        answers_.push_back(result);
    }

    void hold_back(bool held) {
        {
            std::lock_guard hold(mutex_);
            held_ = held;
        }
        changed_.notify_all();
    }

    void wait_for_blocks(size_t count) {
        std::unique_lock hold(mutex_);
        EXPECT_TRUE(changed_.wait_for(hold, std::chrono::seconds(20),
                                      [&] { return blocks_.size() >= count; }));
    }

    std::vector<poll_block> blocks() {
        std::lock_guard hold(mutex_);
        return blocks_;
    }

private:
    void write() {
        std::unique_lock hold(mutex_);
        for (;;) {
            changed_.wait(hold, [&] { return ending_ || (!waiting_.empty() && !held_); });
            if (waiting_.empty()) {
                return;
            }
            auto done = std::move(waiting_.front());
            waiting_.pop_front();
            store_result result = store_result::stored;
            if (!answers_.empty()) {
                result = answers_.front();
                answers_.pop_front();
            }
            hold.unlock();
            done(result);
            done = nullptr;
            hold.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<poll_block> blocks_;
    std::vector<std::string> heard_, held_up_;
    std::deque<std::function<void(store_result)>> waiting_;
    std::deque<store_result> answers_;
    bool held_ = false, ending_ = false;
    std::thread writer_{[this] { write(); }};
};

/* ---- a client ---- */

enum class ending {
    clean,   /* an end of TLS: an agent takes what it has for an accepted poll */
    bare,    /* an end of stream without one: with an old library, likewise */
    reset,   /* no connection, for an agent */
    timeout, /* nothing at all for ten seconds */
    error    /* TLS has failed: an error for an agent as well */
};

inline std::ostream& operator<<(std::ostream& out, ending e) {
    const char* names[] = {"clean", "bare", "reset", "timeout", "error"};
    return out << names[int(e)];
}

struct reply {
    std::string text, head, body, session;
    ending end = ending::error;
};

inline reply split(std::string text, ending end) {
    reply r{text, "", "", "", end};
    size_t at = text.find("\r\n\r\n");
    if (at != std::string::npos) {
        r.head = text.substr(0, at + 4);
        r.body = text.substr(at + 4);
    }
    size_t id = r.head.find("Vnd-SessionID: ");
    if (id != std::string::npos) {
        r.session = r.head.substr(id + 15, r.head.find("\r\n", id) - id - 15);
    }
    return r;
}

class client {
public:
    explicit client(uint16_t port, const char* from = "127.0.0.1") {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval limit{10, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        int yes = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        sockaddr_in here{}, there{};
        here.sin_family = there.sin_family = AF_INET;
        inet_pton(AF_INET, from, &here.sin_addr);
        bind(fd_, reinterpret_cast<sockaddr*>(&here), sizeof here);
        there.sin_port = htons(port);
        there.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&there), sizeof there) == 0;
        EXPECT_TRUE(connected_);
    }
    ~client() {
        SSL_free(ssl_);
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    /* In the handshake. Both must be there until then. */
    void show(X509* certificate, EVP_PKEY* key, STACK_OF(X509) * chain = nullptr) {
        certificate_ = certificate;
        key_ = key;
        chain_ = chain;
    }

    /* Of an earlier one's handshake; it must be there until this one's. */
    void resume(SSL_SESSION* session) { resumed_ = session; }

    bool handshake(int max_version = 0, const char* groups = nullptr) {
        static SSL_CTX* context = SSL_CTX_new(TLS_client_method());
        ssl_ = SSL_new(context);
        SSL_set_fd(ssl_, fd_);
        if (max_version) {
            SSL_set_security_level(ssl_, 0);
            SSL_set_min_proto_version(ssl_, TLS1_VERSION);
            SSL_set_max_proto_version(ssl_, max_version);
        }
        if (certificate_) {
            EXPECT_EQ(SSL_use_certificate(ssl_, certificate_), 1);
            EXPECT_EQ(SSL_use_PrivateKey(ssl_, key_), 1);
        }
        if (chain_) {
            SSL_set1_chain(ssl_, chain_);
        }
        if (resumed_) {
            EXPECT_EQ(SSL_set_session(ssl_, resumed_), 1);
        }
        if (groups) {
            EXPECT_EQ(SSL_set1_groups_list(ssl_, groups), 1) << groups;
        }
        ERR_clear_error();
        return SSL_connect(ssl_) == 1;
    }

    bool send(std::string_view text) {
        ERR_clear_error();
        return SSL_write(ssl_, text.data(), int(text.size())) == int(text.size());
    }
    void send_raw(std::string_view bytes) {
        (void)!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    /* Everything up to the end, and what kind of end that was. */
    std::string read_all(ending& how) {
        std::string all;
        char piece[4096];
        for (;;) {
            ERR_clear_error();
            errno = 0;
            int got =
                ssl_ ? SSL_read(ssl_, piece, sizeof piece) : int(recv(fd_, piece, sizeof piece, 0));
            if (got <= 0) {
                how = classify(got);
                return all;
            }
            all.append(piece, size_t(got));
        }
    }
    reply read_reply() {
        ending how;
        std::string all = read_all(how);
        return split(all, how);
    }
    ending wait_for_end() { return read_reply().end; }

    /* Gone without reading, like a host whose line breaks. */
    void vanish() {
        linger at_once{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close(fd_);
        fd_ = -1;
    }

    SSL* ssl() { return ssl_; }
    int fd() const { return fd_; }

private:
    ending classify(int got) {
        int saved = errno;
        if (ssl_) {
            switch (SSL_get_error(ssl_, got)) {
            case SSL_ERROR_ZERO_RETURN:
                return ending::clean;
            case SSL_ERROR_SSL:
                return ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING
                           ? ending::bare
                           : ending::error;
            case SSL_ERROR_SYSCALL:
                break;
            case SSL_ERROR_WANT_READ:
                return ending::timeout;
            default:
                return ending::error;
            }
        } else if (got == 0) {
            return ending::bare;
        }
        return saved == ECONNRESET || saved == EPIPE ? ending::reset
               : saved == EAGAIN                     ? ending::timeout
                                                     : ending::error;
    }

    int fd_ = -1;
    bool connected_ = false;
    SSL* ssl_ = nullptr;
    X509* certificate_ = nullptr;
    EVP_PKEY* key_ = nullptr;
    STACK_OF(X509) * chain_ = nullptr;
    SSL_SESSION* resumed_ = nullptr;
};

inline std::string login_text(const std::string& account, const std::string& agent) {
    return "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
           "Content-Length: 0\r\nVnd-EMail: " +
           account + "\r\nVnd-AName: " + agent +
           "\r\nVnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n";
}

/* As the agent writes it; `body` is what goes over the wire. */
inline std::string poll_text(const std::string& session, const std::string& body,
                             uint64_t compression = 0, uint64_t checksum = 0) {
    return "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
           "Content-Length: " +
           std::to_string(body.size()) + "\r\nVnd-SessionID: " + session +
           "\r\nVnd-Compression: " + std::to_string(compression) +
           "\r\nVnd-CheckSum: " + std::to_string(checksum) +
           "\r\nVnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n" + body;
}

/* Few and long lines: they are read quickly. */
inline std::string long_plan(size_t least) {
    std::string lines;
    for (int i = 1; lines.size() < least; ++i) {
        lines += "LAA\t" + std::to_string(i) + "\t1\t5\t5\t5\t" + std::string(30000, 'h') + "\n";
    }
    return lines;
}

/* ---- the server ---- */

class collector_server : public testing::Test {
protected:
    static void SetUpTestSuite() {
        signal(SIGPIPE, SIG_IGN); /* a client may write to a connection that was reset */
        directory_ = std::make_unique<scratch_directory>();
        identity_files files;
        std::string error;
        identity_report report;
        ASSERT_TRUE(ensure_identity(directory_->path(), {}, files, report, error)) << error;
        tls_ = make_tls_context(files, error).release();
        ASSERT_TRUE(tls_) << error;
    }
    static void TearDownTestSuite() {
        SSL_CTX_free(tls_);
        directory_.reset();
    }

    void TearDown() override { finish(); }

    void write_plan(const std::string& text) {
        std::string path = *directory_ / "plan";
        write_text(path + ".new", text);
        std::filesystem::rename(path + ".new", path);
    }

    void start(const std::string& plan_text = "", const known_tests& earlier = known_tests()) {
        write_plan(plan_text);
        plan_ = std::make_unique<plan>(plan_text.empty() ? "" : *directory_ / "plan",
                                       [](const plan_problem&) {});
        commands_ = std::make_unique<commands_for_agents>(*plan_, earlier);
        store_ = std::make_unique<fake_store>();
        if (!shown_) {
            SSL_CTX_up_ref(tls_);
            shown_ = std::make_shared<agents_tls>(tls_context(tls_));
        }
        server_ = std::make_unique<server>(options_, shown_, known_.get(), *store_, *commands_,
                                           counted_, [this](const std::string& line) {
                                               std::lock_guard hold(log_mutex_);
                                               log_.push_back(line);
                                           });
        std::string error;
        ASSERT_TRUE(server_->listen(error)) << error;
        port_ = server_->port();
        thread_ = std::thread([this] { server_->run(); });
    }

    /* Stops the server and waits until run() is back. */
    void finish() {
        if (thread_.joinable()) {
            server_->stop();
            thread_.join();
        }
        store_.reset();
        server_.reset();
    }

    reply ask(const std::string& text, const char* from = "127.0.0.1") {
        client c(port_, from);
        EXPECT_TRUE(c.handshake());
        EXPECT_TRUE(c.send(text));
        return c.read_reply();
    }

    /* For where the connection may be refused. */
    reply ask_from(const char* address, const std::string& text) {
        client c(port_, address);
        return c.handshake() && c.send(text) ? c.read_reply() : reply();
    }

    /* What `what` returns on the network thread. */
    bool on_network(const std::function<bool()>& what) {
        std::promise<bool> result;
        boost::asio::post(server_->context(), [&] { result.set_value(what()); });
        return result.get_future().get();
    }

    std::string log_in(const std::string& agent = "agent") {
        return ask(login_text("me@example.org", agent)).session;
    }

    std::vector<std::string> log() {
        std::lock_guard hold(log_mutex_);
        return log_;
    }

    static inline std::unique_ptr<scratch_directory> directory_;
    static inline SSL_CTX* tls_ = nullptr;

    server_options options_;
    std::unique_ptr<known_agents> known_; /* null: nobody is asked for a certificate */
    std::shared_ptr<agents_tls> shown_;   /* null: of tls_ */
    std::unique_ptr<plan> plan_;
    std::unique_ptr<commands_for_agents> commands_;
    counters counted_;
    std::unique_ptr<server> server_;
    std::unique_ptr<fake_store> store_;
    std::thread thread_;
    uint16_t port_ = 0;
    std::mutex log_mutex_;
    std::vector<std::string> log_;
};

inline const char refused_text[] = "HTTP/1.0 200 OK\r\nContent-Length: 6\r\n\r\n111111";
inline const char empty_text[] = "HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n";

#endif

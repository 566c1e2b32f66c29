/* The server in this process, real TLS clients, and a store that does what a test tells it. */
#include "ingest/server.h"

#include "base/tls.h"
#include "collector_test_support.h"
#include "plan/commands_for_agents.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <malloc.h>
#include <mutex>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <zlib.h>

using namespace std::chrono_literals;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr bool sanitized = true;
#else
static constexpr bool sanitized = false;
#endif

namespace {

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
        EXPECT_TRUE(changed_.wait_for(hold, 20s, [&] { return blocks_.size() >= count; }));
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

std::ostream& operator<<(std::ostream& out, ending e) {
    const char* names[] = {"clean", "bare", "reset", "timeout", "error"};
    return out << names[int(e)];
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

    bool handshake(int max_version = 0, const char* groups = nullptr) {
        static SSL_CTX* context = SSL_CTX_new(TLS_client_method());
        ssl_ = SSL_new(context);
        SSL_set_fd(ssl_, fd_);
        if (max_version) {
            SSL_set_security_level(ssl_, 0);
            SSL_set_min_proto_version(ssl_, TLS1_VERSION);
            SSL_set_max_proto_version(ssl_, max_version);
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
    ending wait_for_end() {
        ending how;
        read_all(how);
        return how;
    }

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
};

struct reply {
    std::string text, head, body, session;
    ending end = ending::error;
};

reply split(std::string text, ending end) {
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

std::string login_text(const std::string& account, const std::string& agent) {
    return "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
           "Content-Length: 0\r\nVnd-EMail: " +
           account + "\r\nVnd-AName: " + agent +
           "\r\nVnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n";
}

/* As the agent writes it; `body` is what goes over the wire. */
std::string poll_text(const std::string& session, const std::string& body, uint64_t compression = 0,
                      uint64_t checksum = 0) {
    return "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
           "Content-Length: " +
           std::to_string(body.size()) + "\r\nVnd-SessionID: " + session +
           "\r\nVnd-Compression: " + std::to_string(compression) +
           "\r\nVnd-CheckSum: " + std::to_string(checksum) +
           "\r\nVnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n" + body;
}

/* Few and long lines: they are read quickly. */
std::string long_plan(size_t least) {
    std::string lines;
    for (int i = 1; lines.size() < least; ++i) {
        lines += "LAA\t" + std::to_string(i) + "\t1\t5\t5\t5\t" + std::string(30000, 'h') + "\n";
    }
    return lines;
}

uint64_t sum_of(const std::string& bytes) {
    return adler32(adler32(0, nullptr, 0), reinterpret_cast<const Bytef*>(bytes.data()),
                   uInt(bytes.size()));
}

std::string pack(const std::string& plain) {
    uLongf length = compressBound(plain.size());
    std::string out(length, '\0');
    compress(reinterpret_cast<Bytef*>(out.data()), &length,
             reinterpret_cast<const Bytef*>(plain.data()), plain.size());
    out.resize(length);
    return out;
}

/* ---- the server ---- */

class collector_server : public testing::Test {
protected:
    static void SetUpTestSuite() {
        signal(SIGPIPE, SIG_IGN); /* a client may write to a connection that was reset */
        char name[] = "/tmp/collector_server_test.XXXXXX";
        directory_ = mkdtemp(name);
        identity_files files;
        std::string error;
        identity_report report;
        ASSERT_TRUE(ensure_identity(directory_, {}, files, report, error)) << error;
        tls_ = make_tls_context(files, error).release();
        ASSERT_TRUE(tls_) << error;
    }
    static void TearDownTestSuite() {
        SSL_CTX_free(tls_);
        std::filesystem::remove_all(directory_);
    }

    void TearDown() override { finish(); }

    void write_plan(const std::string& text) {
        std::string path = directory_ + "/plan";
        std::ofstream(path + ".new") << text;
        std::filesystem::rename(path + ".new", path);
    }

    void start(const std::string& plan_text = "", const known_tests& earlier = known_tests()) {
        write_plan(plan_text);
        plan_ = std::make_unique<plan>(plan_text.empty() ? "" : directory_ + "/plan",
                                       [](const plan_problem&) {});
        commands_ = std::make_unique<commands_for_agents>(*plan_, earlier);
        store_ = std::make_unique<fake_store>();
        server_ = std::make_unique<server>(options_, tls_, *store_, *commands_,
                                           [this](const std::string& line) {
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
        ending end;
        std::string all = c.read_all(end);
        return split(all, end);
    }

    std::string log_in(const std::string& agent = "agent") {
        return ask(login_text("me@example.org", agent)).session;
    }

    std::vector<std::string> log() {
        std::lock_guard hold(log_mutex_);
        return log_;
    }

    reply ask_from(const char* address, const std::string& text) {
        client c(port_, address);
        ending end = ending::error;
        std::string all;
        if (c.handshake() && c.send(text)) {
            all = c.read_all(end);
        }
        return split(all, end);
    }

    static inline std::string directory_;
    static inline SSL_CTX* tls_ = nullptr;

    server_options options_;
    std::unique_ptr<plan> plan_;
    std::unique_ptr<commands_for_agents> commands_;
    std::unique_ptr<server> server_;
    std::unique_ptr<fake_store> store_;
    std::thread thread_;
    uint16_t port_ = 0;
    std::mutex log_mutex_;
    std::vector<std::string> log_;
};

const char refused_text[] = "HTTP/1.0 200 OK\r\nContent-Length: 6\r\n\r\n111111";
const char empty_text[] = "HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n";

} // namespace

/* ---- logging in ---- */

TEST_F(collector_server, login_answers_a_session_and_the_whole_plan) {
    start("POL\t0\t30\nLAA\t1\t1\t5\t5\t5\n");
    reply r = ask(login_text("me@example.org", "agent"));
    EXPECT_EQ(r.end, ending::clean);
    ASSERT_EQ(r.session.size(), 32u);
    EXPECT_EQ(r.session.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(r.text, "HTTP/1.0 200 OK\r\nContent-Length: 23\r\nVnd-SessionID: " + r.session +
                          "\r\n\r\nPOL\t0\t30\nLAA\t1\t1\t5\t5\t5\n");
}

/* The older session is in use after a login: there are two hosts. The first one keeps the name. */
TEST_F(collector_server, of_two_hosts_under_one_name_the_first_keeps_it) {
    start("POL\t0\t30\n");
    std::string first = log_in("one"), other = log_in("two");
    reply second = ask(login_text("me@example.org", "one"), "127.0.0.2");
    ASSERT_EQ(second.session.size(), 32u);
    EXPECT_EQ(ask(poll_text(second.session, "a"), "127.0.0.2").text, empty_text);
    EXPECT_EQ(ask(poll_text(first, "b")).text, empty_text);
    EXPECT_EQ(ask(poll_text(first, "c")).text, empty_text);
    EXPECT_EQ(ask(poll_text(second.session, "d"), "127.0.0.2").text, refused_text);
    for (int i = 0; i < 3; ++i) {
        reply refused = ask(login_text("me@example.org", "one"), "127.0.0.2");
        EXPECT_EQ(refused.head.substr(0, refused.head.find('\r')), "HTTP/1.0 403 Forbidden");
        EXPECT_EQ(refused.session, "");
        EXPECT_EQ(refused.body, "Another host is using this name.\n");
        EXPECT_EQ(refused.end, ending::clean);
    }
    EXPECT_EQ(ask(poll_text(first, "")).text, empty_text);
    EXPECT_EQ(ask(poll_text(other, "")).text, empty_text);
    finish();
    std::vector<std::string> lines = log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "two hosts under one name: one of me@example.org polls from 127.0.0.1, "
                         "the other at 127.0.0.2 is refused meanwhile"),
              1);
}

TEST_F(collector_server, an_agent_that_starts_again_and_again_is_let_in) {
    start("POL\t0\t30\n");
    std::string session;
    for (int i = 0; i < 10; ++i) {
        session = log_in("one");
        ASSERT_EQ(session.size(), 32u);
        EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
    }
    EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
    finish();
    for (const std::string& line : log()) {
        EXPECT_EQ(line, "login: one of me@example.org at 127.0.0.1");
    }
}

TEST_F(collector_server, an_account_that_is_not_on_the_list_is_told_nothing_that_ends_its_agent) {
    options_.allow = {"me@example.org", "you@example.org"};
    start("POL\t0\t30\n");
    reply r = ask(login_text("stranger@example.org", "agent"));
    EXPECT_EQ(r.head.substr(0, r.head.find('\r')), "HTTP/1.0 403 Forbidden");
    EXPECT_EQ(r.session, "");
    EXPECT_EQ(r.body, "This account is not allowed here.\n");
    EXPECT_EQ(r.end, ending::clean);
    EXPECT_EQ(ask(login_text("you@example.org", "agent")).session.size(), 32u);
}

TEST_F(collector_server, agents_of_other_accounts_are_ended_where_that_is_wanted) {
    options_.allow = {"me@example.org", "you@example.org"};
    options_.end_refused = true;
    start("POL\t0\t30\n");
    reply r = ask(login_text("stranger@example.org", "agent"));
    EXPECT_EQ(r.text,
              "HTTP/1.0 200 OK\r\nContent-Length: 6\r\nVnd-SessionID: 666666\r\n\r\n666666");
    EXPECT_EQ(r.end, ending::clean);
    EXPECT_EQ(ask(login_text("you@example.org", "agent")).session.size(), 32u);
}

TEST_F(collector_server, a_body_sent_with_a_login_is_read_and_ignored) {
    start();
    std::string text = login_text("me@example.org", "agent");
    text.replace(text.find("Content-Length: 0"), 17, "Content-Length: 70000");
    reply r = ask(text + std::string(70000, 'x'));
    EXPECT_EQ(r.session.size(), 32u);
    EXPECT_TRUE(store_->blocks().empty());
}

TEST_F(collector_server, a_name_that_no_agent_may_have_is_refused) {
    start();
    for (const std::string& agent : {std::string("a\tb"), std::string(), std::string(255, 'x')}) {
        reply r = ask(login_text("me@example.org", agent));
        EXPECT_EQ(r.text, "HTTP/1.0 400 Vnd-AName is empty, too long or has control characters\r\n"
                          "Content-Length: 6\r\n\r\n111111");
        EXPECT_EQ(r.end, ending::clean);
    }
    EXPECT_EQ(log_in(std::string(254, 'x')).size(), 32u);
}

/* ---- polls ---- */

TEST_F(collector_server, a_poll_is_stored_and_answered_with_nothing) {
    start();
    std::string body = "block of records";
    std::string session = log_in();
    auto begin = time(nullptr);
    reply r = ask(poll_text(session, body, 0, sum_of(body)));
    EXPECT_EQ(r.text, empty_text);
    EXPECT_EQ(r.end, ending::clean);
    auto blocks = store_->blocks();
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].account, "me@example.org");
    EXPECT_EQ(blocks[0].agent, "agent");
    EXPECT_EQ(blocks[0].plain, body);
    EXPECT_EQ(blocks[0].address, "127.0.0.1");
    EXPECT_EQ(blocks[0].version, "3.0");
    EXPECT_GE(blocks[0].received, begin);
    EXPECT_LE(blocks[0].received, time(nullptr));
}

TEST_F(collector_server, a_packed_body_is_unpacked_large_ones_on_the_other_thread) {
    start();
    std::string session = log_in();
    std::string small(2000, 'a'), large;
    for (int i = 0; large.size() < 1000000; ++i) {
        large += std::to_string(i * 7919);
    }
    for (const std::string& plain : {small, large}) {
        std::string wire = pack(plain);
        EXPECT_EQ(ask(poll_text(session, wire, plain.size(), sum_of(wire))).text, empty_text);
    }
    auto blocks = store_->blocks();
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0].plain, small);
    EXPECT_EQ(blocks[1].plain, large);
}

/* One large body is being stored; the next waits unpacked by nobody, and all else goes on. */
TEST_F(collector_server, nobody_but_another_large_body_waits_for_a_large_one) {
    options_.large_memory = 1u << 20;
    options_.body_memory = 512u << 10; /* less than such a body: it has no part in this */
    start();
    std::string first = log_in("first"), second = log_in("second"), small = log_in("small");
    std::string large(1u << 20, 'a'), wire = pack(large);
    auto send = [&](client& c, const std::string& session) {
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(poll_text(session, wire, large.size(), sum_of(wire))));
    };
    store_->hold_back(true);
    client one(port_), again(port_), two(port_), three(port_);
    send(one, first);
    store_->wait_for_blocks(1);
    send(again, first);
    EXPECT_EQ(again.wait_for_end(), ending::reset); /* one of an agent */
    send(two, second);
    ASSERT_TRUE(three.handshake());
    ASSERT_TRUE(three.send(poll_text(small, "block of records")));
    store_->wait_for_blocks(2);
    store_->hold_back(false);
    for (client* c : {&one, &two, &three}) {
        ending how;
        EXPECT_EQ(c->read_all(how), empty_text);
    }
    auto blocks = store_->blocks();
    ASSERT_EQ(blocks.size(), 3u);
    EXPECT_EQ(blocks[0].agent, "first");
    EXPECT_EQ(blocks[1].agent, "small");
    EXPECT_EQ(blocks[2].agent, "second");
    EXPECT_EQ(blocks[2].plain, large);
    EXPECT_EQ(ask(poll_text(first, wire, large.size(), sum_of(wire))).text, empty_text);
}

/* Whoever has the context may end run() at once: what waits or is stored then goes with the server.
 */
TEST_F(collector_server, large_bodies_under_way_end_with_the_server) {
    options_.large_memory = 1u << 20;
    start();
    std::string first = log_in("first"), second = log_in("second"), third = log_in("third");
    std::string large(1u << 20, 'a'), wire = pack(large);
    store_->hold_back(true);
    client one(port_), two(port_), three(port_);
    std::pair<client*, std::string> all[] = {{&one, first}, {&two, second}, {&three, third}};
    for (auto& [c, session] : all) {
        ASSERT_TRUE(c->handshake());
        ASSERT_TRUE(c->send(poll_text(session, wire, large.size(), sum_of(wire))));
        store_->wait_for_blocks(1);
    }
    boost::asio::post(server_->context(), [this] { server_->context().stop(); });
    thread_.join();
    finish();
    EXPECT_EQ(one.wait_for_end(), ending::reset);
}

TEST_F(collector_server, a_large_body_that_waits_too_long_is_reset) {
    options_.large_memory = 1u << 20;
    options_.deadlines.whole = 1s;
    start();
    std::string first = log_in("first"), second = log_in("second");
    std::string large(1u << 20, 'a'), wire = pack(large);
    auto send = [&](const std::string& session) {
        auto c = std::make_unique<client>(port_);
        EXPECT_TRUE(c->handshake());
        c->send(poll_text(session, wire, large.size(), sum_of(wire)));
        return c;
    };
    store_->hold_back(true);
    std::unique_ptr<client> one;
    for (int i = 0; i < 100 && store_->blocks().empty(); i++) { /* until one comes in time */
        one = send(first);
        for (int j = 0; j < 150 && store_->blocks().empty(); j++) {
            std::this_thread::sleep_for(10ms);
        }
    }
    ASSERT_EQ(store_->blocks().size(), 1u);
    EXPECT_EQ(send(second)->wait_for_end(), ending::reset);
    EXPECT_EQ(store_->blocks().size(), 1u);
    store_->hold_back(false);
    /* There is room again when the first is stored, whatever became of its connection. */
    reply r;
    for (int i = 0; i < 100 && r.text.empty(); i++) {
        r = split(send(second)->read_all(r.end), ending::error);
    }
    EXPECT_EQ(r.text, empty_text);
}

TEST_F(collector_server, huge_bodies_have_a_thread_and_a_bound_of_their_own) {
    options_.large_memory = 1u << 20;
    options_.huge = 2u << 20;
    start();
    std::string first = log_in("first"), second = log_in("second");
    std::string huge(4u << 20, 'a'), large(1u << 20, 'b');
    store_->hold_back(true);
    client one(port_), two(port_);
    std::string huge_wire = pack(huge), wire = pack(large);
    ASSERT_TRUE(one.handshake());
    ASSERT_TRUE(one.send(poll_text(first, huge_wire, huge.size(), sum_of(huge_wire))));
    store_->wait_for_blocks(1);
    ASSERT_TRUE(two.handshake());
    ASSERT_TRUE(two.send(poll_text(second, wire, large.size(), sum_of(wire))));
    store_->wait_for_blocks(2);
    store_->hold_back(false);
    for (client* c : {&one, &two}) {
        ending how;
        EXPECT_EQ(c->read_all(how), empty_text);
    }
    EXPECT_EQ(store_->blocks()[0].plain, huge);
}

TEST_F(collector_server, the_answer_comes_after_the_commit) {
    start();
    std::string session = log_in();
    store_->hold_back(true);
    std::atomic<bool> committed = false;
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(poll_text(session, "x")));
    std::thread reader([&] {
        ending end;
        EXPECT_EQ(c.read_all(end), empty_text);
        EXPECT_TRUE(committed);
    });
    store_->wait_for_blocks(1);
    committed = true;
    store_->hold_back(false);
    reader.join();
}

TEST_F(collector_server, an_unknown_session_is_asked_to_log_in_again) {
    start();
    for (const char* id : {"0123456789abcdef0123456789abcdef", "111111", "666666", ""}) {
        reply r = ask(poll_text(id, "some body"));
        EXPECT_EQ(r.text, refused_text);
        EXPECT_EQ(r.end, ending::clean);
    }
    EXPECT_EQ(ask(poll_text("x", std::string(300000, 'x'))).text, refused_text);
    EXPECT_TRUE(store_->blocks().empty());
}

TEST_F(collector_server, a_body_that_does_not_verify_must_come_again) {
    start();
    std::string session = log_in();
    std::string plain(3000, 'a'), wire = pack(plain), large(300000, 'b'), large_wire = pack(large);
    EXPECT_EQ(ask(poll_text(session, wire, plain.size(), sum_of(wire) + 1)).text, refused_text);
    EXPECT_EQ(ask(poll_text(session, wire, plain.size() - 1, sum_of(wire))).text, refused_text);
    EXPECT_EQ(ask(poll_text(session, wire, plain.size() + 1, sum_of(wire))).text, refused_text);
    EXPECT_EQ(ask(poll_text(session, large_wire, large.size() - 1, sum_of(large_wire))).text,
              refused_text);
    EXPECT_EQ(ask(poll_text(session, "no zlib", 100, sum_of("no zlib"))).text, refused_text);
    EXPECT_TRUE(store_->blocks().empty());
    EXPECT_EQ(ask(poll_text(session, wire, plain.size(), sum_of(wire))).text, empty_text);
}

/* An answer that keeps the block would have every agent log in and send it again each second. */
TEST_F(collector_server, what_cannot_be_stored_now_is_reset_and_keeps_its_session) {
    start();
    std::string session = log_in();
    store_->will_answer(store_result::failed);
    reply r = ask(poll_text(session, "x"));
    EXPECT_EQ(r.text, "");
    EXPECT_EQ(r.end, ending::reset);
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
}

TEST_F(collector_server, pieces_of_any_size_make_a_request) {
    start();
    std::string session = log_in();
    client c(port_);
    ASSERT_TRUE(c.handshake());
    for (char byte : poll_text(session, "abc")) {
        ASSERT_TRUE(c.send({&byte, 1}));
    }
    ending end;
    EXPECT_EQ(c.read_all(end), empty_text);
    EXPECT_EQ(store_->blocks().at(0).plain, "abc");
}

TEST_F(collector_server, a_second_request_on_the_connection_is_ignored) {
    start();
    std::string session = log_in();
    reply r = ask(poll_text(session, "one") + poll_text(session, "two"));
    EXPECT_EQ(r.text, empty_text);
    EXPECT_EQ(r.end, ending::clean);
    ASSERT_EQ(store_->blocks().size(), 1u);
    EXPECT_EQ(store_->blocks()[0].plain, "one");
}

TEST_F(collector_server, a_client_that_has_ended_its_half_is_answered) {
    start();
    std::string session = log_in();
    for (bool tls_end : {true, false}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(poll_text(session, "x")));
        if (tls_end) {
            SSL_shutdown(c.ssl());
        }
        shutdown(c.fd(), SHUT_WR);
        ending end;
        EXPECT_EQ(c.read_all(end), empty_text);
        EXPECT_EQ(end, ending::clean);
    }
}

/* ---- the plan ---- */

TEST_F(collector_server, lines_added_are_sent_once_at_the_next_poll) {
    start("POL\t0\t30\n");
    std::string session = log_in(), other = log_in("other");
    EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    reply r = ask(poll_text(session, "x"));
    EXPECT_EQ(r.text, "HTTP/1.0 200 OK\r\nContent-Length: 14\r\n\r\nLAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "y")).text, empty_text);
    EXPECT_EQ(ask(poll_text(other, "")).body, "LAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(other, "")).text, empty_text);
}

/* What is known from before is removed once, from an agent that ran already. */
TEST_F(collector_server, an_agent_that_ran_before_the_start_is_put_right) {
    known_tests earlier;
    for (const char* agent : {"one", "two", "three"}) {
        for (uint32_t test : {6, 7}) {
            earlier.add({.account = "me@example.org",
                         .agent = agent,
                         .received = 1000,
                         .record = load_record(test, 999)});
        }
    }
    start("LAA\t6\t1\t5\t5\t5\n");
    std::string old_one = log_in("one"), old_two = log_in("two");
    finish();
    start("LAA\t7\t1\t5\t5\t5\nDKA\t8\t1\t/\t1\n", earlier);
    const std::string adds = "LAA\t7\t1\t5\t5\t5\nDKA\t8\t1\t/\t1\n", change = "DKM\t8\t1\t/\t1\n";
    EXPECT_EQ(ask(poll_text(old_one, "")).text, refused_text);
    EXPECT_EQ(ask(login_text("me@example.org", "three")).body, adds); /* it has just started */
    reply lost = ask(login_text("me@example.org", "one"));
    EXPECT_EQ(lost.body, "LAD\t6\t0\nLAD\t7\t0\n" + adds + change);
    reply again = ask(login_text("me@example.org", "one")); /* the answer was lost */
    EXPECT_EQ(again.body, lost.body);
    EXPECT_EQ(ask(poll_text(again.session, "")).text, empty_text);
    /* A restart. */
    EXPECT_EQ(ask(login_text("me@example.org", "one")).body, adds);
    /* Told to log in again by this collector: that it was removed is known by now. */
    store_->will_answer(store_result::stored);
    EXPECT_EQ(ask(poll_text(again.session, "x", 100, 1)).text, refused_text);
    EXPECT_EQ(ask(login_text("me@example.org", "one")).body,
              "LAA\t7\t1\t5\t5\t5\nLAM\t7\t1\t5\t5\t5\nDKA\t8\t1\t/\t1\n" + change);
}

/* An agent stops reading at Content-Length and closes: what is left unread makes that a reset. */
TEST_F(collector_server, an_agent_that_closes_before_the_end_of_tls_has_its_lines) {
    start("POL\t0\t30\n");
    std::string session = log_in();
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(poll_text(session, "x")));
        char answer[4095];
        int got = SSL_read(c.ssl(), answer, sizeof answer);
        ASSERT_GT(got, 0);
        EXPECT_EQ(std::string(answer, size_t(got)),
                  "HTTP/1.0 200 OK\r\nContent-Length: 14\r\n\r\nLAA\t7\t1\t5\t5\t5\n");
        SSL_shutdown(c.ssl());
    }
    EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
}

TEST_F(collector_server, a_lost_answer_is_given_again) {
    start("POL\t0\t30\n");
    std::string session = log_in();
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "x")).body, "LAA\t7\t1\t5\t5\t5\n");
    store_->will_answer(store_result::duplicate);
    EXPECT_EQ(ask(poll_text(session, "x")).body, "LAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "y")).text, empty_text);
}

TEST_F(collector_server, a_block_repeated_after_a_new_login_is_not_given_the_plan_again) {
    start("POL\t0\t30\n");
    std::string session = log_in();
    store_->will_answer(store_result::duplicate);
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
}

TEST_F(collector_server, lines_that_never_reached_the_agent_are_given_again) {
    start("POL\t0\t30\n");
    std::string session = log_in();
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    store_->hold_back(true);
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(poll_text(session, "x")));
    store_->wait_for_blocks(1);
    c.vanish();
    store_->hold_back(false);
    EXPECT_EQ(ask(poll_text(session, "")).body, "LAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
}

TEST_F(collector_server, a_long_plan_arrives_whole) {
    std::string lines = long_plan(500000);
    start(lines);
    reply r = ask(login_text("me@example.org", "agent"));
    EXPECT_EQ(r.body.size(), lines.size());
    EXPECT_TRUE(r.body == lines);
    EXPECT_EQ(r.end, ending::clean);
}

/* ---- what is no poll ---- */

TEST_F(collector_server, a_malformed_request_is_never_taken_for_an_accepted_poll) {
    start();
    std::string session = log_in();
    const std::string bad[] = {
        "nonsense\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session + "\r\nContent-Length: -1\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session +
            "\r\nContent-Length: 18446744073709551616\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session +
            "\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nx",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session + "\r\nVnd-CheckSum: 1x\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session + "\r\nVnd-SessionID: y\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session + "\r\nTransfer-Encoding: chunked\r\n\r\n",
        "POST /x HTTP/1.0\r\nX: " + std::string(9000, 'x') + "\r\n\r\n",
        std::string(9000, 'x'),
    };
    for (const std::string& text : bad) {
        reply r = ask(text);
        EXPECT_EQ(r.head.substr(0, 13), "HTTP/1.0 400 ") << r.text;
        EXPECT_EQ(r.body, "111111");
        EXPECT_NE(r.head.find("\r\nContent-Length: 6\r\n"), std::string::npos);
        EXPECT_EQ(r.end, ending::clean);
    }
}

TEST_F(collector_server, a_browser_is_told_what_this_is) {
    start();
    const std::string rest = "\r\nContent-Length: 37\r\n\r\nThis is a vindral collection server.\n";
    EXPECT_EQ(ask("GET / HTTP/1.1\r\nHost: x\r\n\r\n").text, "HTTP/1.0 200 OK" + rest);
    for (const char* line : {"GET /x HTTP/1.1\r\nHost: x\r\n\r\n", "HEAD / HTTP/1.0\r\n\r\n",
                             "POST /fcgi-bin/agentgateway HTTP/1.0\r\n\r\n"}) {
        EXPECT_EQ(ask(line).text, "HTTP/1.0 404 Not Found" + rest);
    }
}

TEST_F(collector_server, the_page_needs_no_tls) {
    start();
    client c(port_);
    c.send_raw("GET / HTTP/1.0\r\n");
    c.send_raw("Host: x\r\n\r\n");
    ending how;
    EXPECT_EQ(c.read_all(how), "HTTP/1.0 200 OK\r\nContent-Length: 37\r\n\r\n"
                               "This is a vindral collection server.\n");
    EXPECT_EQ(how, ending::bare);
}

TEST_F(collector_server, dear_key_exchanges_are_refused_at_the_first_word) {
    start();
    for (const char* group : {"ffdhe2048", "ffdhe8192", "P-521", "X448"}) {
        client c(port_);
        EXPECT_FALSE(c.handshake(0, group)) << group;
    }
    for (const char* group : {"X25519", "P-256", "P-384"}) {
        client c(port_);
        EXPECT_TRUE(c.handshake(0, group)) << group;
    }
}

/* Records that carry no data keep a TLS library reading, past every deadline. */
TEST_F(collector_server, a_flood_of_key_updates_ends_the_connection) {
    start();
    client c(port_);
    ASSERT_TRUE(c.handshake());
    bool sent = true;
    for (int i = 0; sent && i < 1000; ++i) {
        sent = SSL_key_update(c.ssl(), SSL_KEY_UPDATE_NOT_REQUESTED) == 1 &&
               SSL_do_handshake(c.ssl()) == 1;
    }
    if (sent && c.send(login_text("me@example.org", "agent"))) {
        EXPECT_EQ(c.wait_for_end(), ending::reset);
    }
    EXPECT_EQ(log_in().size(), 32u);
    finish();
    ASSERT_EQ(log().size(), 2u);
    EXPECT_EQ(log()[0], "no request from 127.0.0.1: too many messages of TLS itself");
}

TEST_F(collector_server, some_key_updates_are_fine) {
    start();
    client c(port_);
    ASSERT_TRUE(c.handshake());
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(SSL_key_update(c.ssl(), SSL_KEY_UPDATE_REQUESTED), 1);
        ASSERT_EQ(SSL_do_handshake(c.ssl()), 1);
    }
    ASSERT_TRUE(c.send(login_text("me@example.org", "agent")));
    ending how = ending::error;
    std::string answer = c.read_all(how);
    EXPECT_EQ(split(answer, how).session.size(), 32u);
    EXPECT_EQ(how, ending::clean);
}

TEST_F(collector_server, no_tls_no_answer) {
    start();
    for (const char* text :
         {"GET /x HTTP/1.0\r\n\r\n", "POST / HTTP/1.0\r\n\r\n", "GARBAGE\r\n\r\n",
          "POST / HTTP/1.0\r\nVnd-EMail: a@b\r\nVnd-AName: n\r\n\r\n"}) {
        client c(port_);
        c.send_raw(text);
        EXPECT_EQ(c.wait_for_end(), ending::reset) << text;
    }
    client silent(port_), endless(port_), other(port_);
    endless.send_raw(std::string(9000, 'A'));
    EXPECT_EQ(endless.wait_for_end(), ending::reset);
    other.send_raw("get / HTTP/1.0\r\n\r\n"); /* no method begins like that: taken for TLS */
    EXPECT_EQ(other.wait_for_end(), ending::reset);
    client old(port_);
    EXPECT_FALSE(old.handshake(TLS1_1_VERSION));
    client fine(port_), newer(port_);
    EXPECT_TRUE(fine.handshake(TLS1_2_VERSION));
    EXPECT_STREQ(SSL_get_cipher(fine.ssl()), "ECDHE-ECDSA-AES128-GCM-SHA256");
    EXPECT_TRUE(newer.handshake());
    EXPECT_STREQ(SSL_get_cipher(newer.ssl()), "TLS_AES_128_GCM_SHA256");
}

TEST_F(collector_server, agents_get_no_session_tickets) {
    start();
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(login_text("me@example.org", "agent")));
    c.wait_for_end();
    EXPECT_FALSE(SSL_SESSION_has_ticket(SSL_get_session(c.ssl())));
}

/* ---- one thread for all ---- */

namespace {
/* Counts the turns that others get on the network thread, and the most CPU time between two. */
class turn_counter {
public:
    explicit turn_counter(server& of) : context_(of.context()) {}

    /* The thread stands still until begin(): meanwhile a client can send without being read. */
    void hold_up() {
        boost::asio::post(context_, [this] { begun_.get_future().wait(); });
    }
    void begin() {
        boost::asio::post(context_, [this] { turn(); });
        begun_.set_value();
    }
    void end() {
        std::promise<void> done;
        boost::asio::post(context_, [this, &done] {
            over_ = true;
            boost::asio::post(context_, [&done] { done.set_value(); });
        });
        done.get_future().wait();
    }
    size_t count() const { return count_; } /* on the network thread, or after end() */
    int longest_us() const { return int(longest_ / 1000); }

private:
    void turn() {
        timespec used;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        int64_t now = used.tv_sec * 1000000000 + used.tv_nsec;
        longest_ = count_++ ? std::max(longest_, now - last_) : longest_;
        last_ = now;
        if (!over_) {
            boost::asio::post(context_, [this] { turn(); });
        }
    }

    boost::asio::io_context& context_;
    std::promise<void> begun_;
    size_t count_ = 0;
    bool over_ = false;
    int64_t last_ = 0, longest_ = 0; /* nanoseconds */
};

/* `text` as TLS records of one byte each, as they go over the wire. */
std::string in_small_records(SSL* ssl, std::string_view text) {
    BIO* wire = BIO_new(BIO_s_mem());
    BIO_up_ref(wire);
    SSL_set0_wbio(ssl, wire);
    for (char byte : text) {
        EXPECT_EQ(SSL_write(ssl, &byte, 1), 1);
    }
    char* bytes = nullptr;
    long length = BIO_get_mem_data(wire, &bytes);
    std::string all(bytes, size_t(length));
    BIO_free(wire);
    return all;
}
} // namespace

TEST_F(collector_server, what_is_there_already_is_read_in_turns) {
    start();
    std::string session = log_in();
    client c(port_);
    int large = 1 << 20;
    setsockopt(c.fd(), SOL_SOCKET, SO_SNDBUF, &large, sizeof large);
    ASSERT_TRUE(c.handshake());
    std::string records = in_small_records(c.ssl(), poll_text(session, std::string(9000, 'x')));
    turn_counter turns(*server_);
    std::atomic<size_t> until_read = 0;
    store_->on_submit = [&] { until_read = turns.count(); };
    turns.hold_up();
    std::thread sender([&] { c.send_raw(records); }); /* what does not fit waits in here */
    std::this_thread::sleep_for(50ms);
    turns.begin();
    store_->wait_for_blocks(1);
    sender.join();
    turns.end();
    RecordProperty("longest_hold_us", turns.longest_us());
    EXPECT_GE(until_read.load(), 30u);
    EXPECT_EQ(store_->blocks().at(0).plain, std::string(9000, 'x'));
}

TEST_F(collector_server, what_never_pauses_is_reset_at_the_deadline) {
    options_.deadlines.whole = 1s;
    start();
    std::string session;
    std::unique_ptr<client> c;
    for (int i = 0; i < 20 && !c; ++i) { /* a busy machine may not get so far in that second */
        session = log_in();
        c = std::make_unique<client>(port_);
        c = c->handshake() ? std::move(c) : nullptr;
    }
    ASSERT_TRUE(c);
    std::string records = in_small_records(c->ssl(), poll_text(session, std::string(9000, 'x')));
    turn_counter turns(*server_);
    turns.hold_up();
    std::thread sender([&] { c->send_raw(records); });
    std::this_thread::sleep_for(1100ms);
    turns.begin();
    sender.join();
    char rest[100];
    while (recv(c->fd(), rest, sizeof rest, 0) > 0) {
    }
    turns.end();
    EXPECT_TRUE(store_->blocks().empty());
}

namespace {
/* A first message of some length, each byte of it a record. */
std::string first_message_in_small_records(size_t least) {
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    SSL* ssl = SSL_new(context);
    std::string names;
    while (names.size() < least) {
        names += char(99) + std::string(99, 'n');
    }
    EXPECT_EQ(SSL_set_alpn_protos(ssl, reinterpret_cast<const unsigned char*>(names.data()),
                                  unsigned(names.size())),
              0);
    BIO* out = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl, BIO_new(BIO_s_mem()), out);
    SSL_connect(ssl);
    char* bytes = nullptr;
    size_t length = size_t(BIO_get_mem_data(out, &bytes));
    std::string pieces;
    for (size_t at = 0; at + 5 < length;) {
        size_t end = at + 5 + (size_t(uint8_t(bytes[at + 3])) << 8 | uint8_t(bytes[at + 4]));
        for (at += 5; at < end; ++at) {
            pieces += std::string("\x16\x03\x01\x00\x01", 5) + bytes[at];
        }
    }
    SSL_free(ssl);
    SSL_CTX_free(context);
    return pieces;
}

int call_function(SSL*, int*, void* function) {
    (*static_cast<std::function<void()>*>(function))();
    return SSL_CLIENT_HELLO_SUCCESS;
}
} // namespace

TEST_F(collector_server, a_first_message_in_small_pieces_is_read_in_turns) {
    start();
    client c(port_);
    int large = 1 << 20;
    setsockopt(c.fd(), SOL_SOCKET, SO_SNDBUF, &large, sizeof large);
    std::string pieces = first_message_in_small_records(30000);
    log_in(); /* the other connection is accepted by now */
    turn_counter turns(*server_);
    std::atomic<size_t> until_read = 0;
    std::function<void()> note = [&] { until_read = turns.count(); };
    SSL_CTX_set_client_hello_cb(tls_, call_function, &note);
    turns.hold_up();
    std::thread sender([&] { c.send_raw(pieces); });
    std::this_thread::sleep_for(50ms);
    turns.begin();
    sender.join();
    char first = 0;
    EXPECT_EQ(recv(c.fd(), &first, 1, 0), 1);
    EXPECT_EQ(first, '\x16'); /* it is answered with a handshake message */
    turns.end();
    SSL_CTX_set_client_hello_cb(tls_, nullptr, nullptr);
    RecordProperty("longest_hold_us", turns.longest_us());
    EXPECT_GE(until_read.load(), 4u);
}

/* ---- giving up: always a reset ---- */

TEST_F(collector_server, a_silent_client_is_reset_at_the_deadline) {
    options_.deadlines.handshake = 50ms;
    start();
    client c(port_);
    EXPECT_EQ(c.wait_for_end(), ending::reset);
}

TEST_F(collector_server, a_slow_handshake_is_reset_at_the_deadline) {
    options_.deadlines.handshake = 50ms;
    start();
    client c(port_);
    c.send_raw("\x16\x03\x01\x02"); /* the beginning of a ClientHello */
    EXPECT_EQ(c.wait_for_end(), ending::reset);
}

TEST_F(collector_server, a_slow_head_is_reset_at_the_deadline) {
    options_.deadlines.head = 50ms;
    start();
    for (const char* text : {"", "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Le"}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        if (*text) {
            ASSERT_TRUE(c.send(text));
        }
        EXPECT_EQ(c.wait_for_end(), ending::reset);
    }
}

TEST_F(collector_server, a_slow_body_is_reset_at_the_deadline) {
    options_.deadlines.body = 50ms;
    start();
    for (const std::string& session : {log_in(), std::string("unknown")}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        std::string text = poll_text(session, "1234567890");
        ASSERT_TRUE(c.send(text.substr(0, text.size() - 1)));
        EXPECT_EQ(c.wait_for_end(), ending::reset);
    }
}

TEST_F(collector_server, trickling_does_not_stretch_the_deadline_of_the_whole) {
    options_.deadlines.whole = 300ms;
    start();
    client c(port_);
    ASSERT_TRUE(c.handshake());
    auto begin = std::chrono::steady_clock::now();
    while (c.send("P") && std::chrono::steady_clock::now() - begin < 10s) {
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
}

TEST_F(collector_server, an_answer_that_comes_too_late_is_not_begun) {
    options_.deadlines.whole = 100ms;
    start();
    std::string session = log_in();
    store_->hold_back(true);
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(poll_text(session, "x")));
    store_->wait_for_blocks(1);
    std::this_thread::sleep_for(400ms);
    store_->hold_back(false);
    ending end;
    EXPECT_EQ(c.read_all(end), "");
    EXPECT_EQ(end, ending::reset);
}

TEST_F(collector_server, an_end_before_the_whole_request_is_reset) {
    start();
    std::string session = log_in();
    std::string text = poll_text(session, "1234567890");
    for (size_t length : {size_t(0), size_t(20), text.size() - 1}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        if (length) {
            ASSERT_TRUE(c.send(text.substr(0, length)));
        }
        shutdown(c.fd(), SHUT_WR);
        EXPECT_EQ(c.wait_for_end(), ending::error); /* OpenSSL says decode_error before the reset */
        client polite(port_);
        ASSERT_TRUE(polite.handshake());
        if (length) {
            ASSERT_TRUE(polite.send(text.substr(0, length)));
        }
        SSL_shutdown(polite.ssl());
        EXPECT_EQ(polite.wait_for_end(), ending::reset);
    }
    EXPECT_TRUE(store_->blocks().empty());
}

TEST_F(collector_server, a_body_that_is_too_large_is_reset_before_it_is_read) {
    options_.body.max_wire = 1000;
    options_.body.max_plain = 5000;
    start();
    std::string session = log_in();
    for (const std::string& text :
         {poll_text(session, std::string(1001, 'x')), poll_text("unknown", std::string(1001, 'x')),
          poll_text(session, std::string(1000, 'x'), 5001)}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(text.substr(0, text.find("\r\n\r\n") + 4)));
        EXPECT_EQ(c.wait_for_end(), ending::reset);
    }
    std::string most(1000, 'x');
    EXPECT_EQ(ask(poll_text(session, most, 0, sum_of(most))).text, empty_text);
}

TEST_F(collector_server, bodies_beyond_the_memory_for_them_are_reset) {
    options_.body_memory = 300000;
    start();
    std::string session = log_in();
    std::string half(200000, 'x');
    client first(port_);
    ASSERT_TRUE(first.handshake());
    std::string text = poll_text(session, half);
    ASSERT_TRUE(first.send(text.substr(0, text.size() - 1)));
    client second(port_);
    ASSERT_TRUE(second.handshake());
    if (second.send(text)) { /* otherwise the sending has met the reset */
        EXPECT_EQ(second.wait_for_end(), ending::reset);
    }
    first.vanish();
    /* The share of a connection that is gone comes back. */
    std::string body(100000, 'y');
    reply r;
    for (int i = 0; i < 1000 && r.text.empty(); ++i) {
        client third(port_);
        ASSERT_TRUE(third.handshake());
        third.send(poll_text(session, body));
        r = split(third.read_all(r.end), ending::error);
    }
    EXPECT_EQ(r.text, empty_text);
}

TEST_F(collector_server, a_client_that_does_not_read_is_reset_at_the_deadline) {
    options_.deadlines.answer = 50ms;
    start(long_plan(8000000)); /* more than the kernel takes off the server's hands */
    client c(port_);
    int small = 4096;
    setsockopt(c.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(login_text("me@example.org", "agent")));
    pollfd broken{c.fd(), 0, 0};
    EXPECT_EQ(poll(&broken, 1, 10000), 1);
    EXPECT_EQ(c.wait_for_end(), ending::reset);
}

/* ---- limits ---- */

TEST_F(collector_server, connections_beyond_the_limit_of_one_address_are_reset) {
    options_.max_per_address = 3;
    start();
    std::deque<client> held;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(held.emplace_back(port_).handshake());
    }
    client fourth(port_);
    EXPECT_EQ(fourth.wait_for_end(), ending::reset);
    client elsewhere(port_, "127.0.0.2");
    EXPECT_TRUE(elsewhere.handshake());
    held.pop_front();
    bool again = false;
    for (int i = 0; i < 1000 && !again; ++i) {
        client c(port_);
        again = c.handshake();
    }
    EXPECT_TRUE(again);
}

TEST_F(collector_server, connections_beyond_the_limit_in_all_are_reset) {
    options_.max_connections = 2;
    start();
    client one(port_, "127.0.0.1"), two(port_, "127.0.0.2");
    ASSERT_TRUE(one.handshake());
    ASSERT_TRUE(two.handshake());
    client three(port_, "127.0.0.3");
    EXPECT_EQ(three.wait_for_end(), ending::reset);
}

/* ---- shares: connections ---- */

namespace {
/* What those do that want all the places. */
enum class siege { silent, half_a_hello, no_head, half_a_head, unknown_session, known_sessions };

std::string address_of(int i) {
    return "127.0.1." + std::to_string(i);
}
} // namespace

class collector_siege : public collector_server, public testing::WithParamInterface<siege> {
protected:
    void besiege(client& c, int number) {
        siege how = GetParam();
        if (how == siege::silent) {
            return;
        }
        if (how == siege::half_a_hello) {
            c.send_raw("\x16\x03\x01\x02");
            return;
        }
        ASSERT_TRUE(c.handshake());
        std::string session =
            how == siege::known_sessions ? log_in("evil " + std::to_string(number)) : "nobody's";
        std::string text = poll_text(session, "1234567890");
        if (how == siege::half_a_head) {
            ASSERT_TRUE(c.send(text.substr(0, 20)));
        } else if (how != siege::no_head) {
            ASSERT_TRUE(c.send(text.substr(0, text.size() - 1)));
        }
    }
};

TEST_P(collector_siege, eight_addresses_cannot_keep_others_out) {
    options_.max_connections = 80;
    options_.max_per_address = 10;
    options_.deadlines.patience = 1h; /* only because they are so many do they make room */
    start("POL\t0\t30\n");
    std::deque<client> hostile;
    for (int i = 0; i < 80; ++i) {
        ASSERT_NO_FATAL_FAILURE(
            besiege(hostile.emplace_back(port_, address_of(1 + i / 10).c_str()), i));
    }
    for (const char* from : {"127.0.0.1", "127.0.0.2", "127.0.0.3"}) {
        std::string session = ask_from(from, login_text("me@example.org", from)).session;
        ASSERT_EQ(session.size(), 32u) << from;
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(ask_from(from, poll_text(session, "x")).text, empty_text) << from;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(all, collector_siege,
                         testing::Values(siege::silent, siege::half_a_hello, siege::no_head,
                                         siege::half_a_head, siege::unknown_session,
                                         siege::known_sessions));

TEST_F(collector_server, a_poll_that_waits_for_the_store_makes_no_room) {
    options_.max_connections = 3;
    options_.deadlines.patience = 0s;
    start();
    std::string session = log_in();
    store_->hold_back(true);
    client poll(port_);
    ASSERT_TRUE(poll.handshake());
    ASSERT_TRUE(poll.send(poll_text(session, "x")));
    store_->wait_for_blocks(1);
    for (int i = 0; i < 20; ++i) {
        client c(port_, address_of(i + 1).c_str());
        EXPECT_TRUE(c.handshake()) << i;
    }
    store_->hold_back(false);
    ending end;
    EXPECT_EQ(poll.read_all(end), empty_text);
    EXPECT_EQ(end, ending::clean);
}

TEST_F(collector_server, among_equals_the_oldest_makes_room_once_it_has_had_its_time) {
    options_.max_connections = 3;
    options_.deadlines.patience = 0s;
    start();
    client oldest(port_, "127.0.1.1"), second(port_, "127.0.1.2"), third(port_, "127.0.1.3");
    client newcomer(port_, "127.0.0.1");
    EXPECT_TRUE(newcomer.handshake());
    EXPECT_EQ(oldest.wait_for_end(), ending::reset);
    EXPECT_TRUE(second.handshake());
    EXPECT_TRUE(third.handshake());
    EXPECT_EQ(log().at(0), "too many connections: one from 127.0.1.1 had to make room");
}

TEST_F(collector_server, agents_behind_one_address_get_past_a_neighbour_that_says_nothing) {
    options_.max_per_address = 10;
    options_.deadlines.patience = 0s;
    start();
    std::deque<client> silent;
    for (int i = 0; i < 10; ++i) {
        silent.emplace_back(port_);
    }
    for (int i = 0; i < 20; ++i) {
        std::string session = log_in("agent " + std::to_string(i));
        EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
    }
}

/* Polls of a hundred agents at a time, all from one address, among strangers who are silent. */
TEST_F(collector_server, many_agents_behind_one_address_all_get_through) {
    options_.max_connections = 160;
    options_.max_per_address = 120;
    start();
    std::deque<client> hostile;
    for (int i = 0; i < 60; ++i) {
        hostile.emplace_back(port_, address_of(1 + i % 2).c_str());
    }
    std::deque<client> agents;
    std::vector<std::string> sessions;
    for (int i = 0; i < 100; ++i) {
        sessions.push_back(log_in("agent " + std::to_string(i)));
    }
    store_->hold_back(true);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(agents.emplace_back(port_).handshake()) << i;
        ASSERT_TRUE(agents.back().send(poll_text(sessions[size_t(i)], "x")));
    }
    store_->wait_for_blocks(100);
    store_->hold_back(false);
    for (client& c : agents) {
        ending end;
        EXPECT_EQ(c.read_all(end), empty_text);
        EXPECT_EQ(end, ending::clean);
    }
}

/* ---- shares: memory ---- */

namespace {
/* Sends bodies that lack their last byte, of smaller and smaller size: as many as are taken. */
void fill_memory(uint16_t port, const char* from, const std::vector<std::string>& sessions,
                 std::deque<client>& held) {
    size_t next = 0;
    for (size_t size = 1 << 20; size > 4096; size /= 2) {
        for (int i = 0; i < 3; ++i) {
            client& c = held.emplace_back(port, from);
            std::string text =
                poll_text(sessions[next++ % sessions.size()], std::string(size, 'x'));
            if (c.handshake()) {
                c.send(text.substr(0, text.size() - 1));
            }
        }
    }
}
} // namespace

TEST_F(collector_server, an_address_that_fills_the_memory_leaves_others_theirs) {
    options_.body_memory = 4000000;
    start();
    std::string mine = log_in("mine");
    std::vector<std::string> theirs;
    for (int i = 0; i < 12; ++i) {
        theirs.push_back(log_in("evil " + std::to_string(i)));
    }
    std::deque<client> held;
    fill_memory(port_, "127.0.1.1", theirs, held);
    EXPECT_EQ(ask(poll_text(mine, std::string(300000, 'm'))).text, empty_text);
    fill_memory(port_, "127.0.1.2", theirs, held);
    fill_memory(port_, "127.0.1.3", theirs, held);
    fill_memory(port_, "127.0.1.4", theirs, held);
    EXPECT_EQ(ask(poll_text(mine, std::string(60000, 'm'))).text, empty_text);
}

TEST_F(collector_server, an_agent_that_fills_the_memory_leaves_its_neighbours_theirs) {
    options_.body_memory = 4000000;
    start();
    std::string mine = log_in("mine"), evil = log_in("evil");
    std::deque<client> held;
    fill_memory(port_, "127.0.0.1", std::vector<std::string>(12, evil), held);
    EXPECT_EQ(ask(poll_text(mine, std::string(150000, 'm'))).text, empty_text);
}

TEST_F(collector_server, the_largest_body_passes_when_no_other_is_held) {
    options_.body.max_wire = 1 << 20;
    options_.body.max_plain = 4 << 20;
    options_.body_memory = (options_.body.max_wire + options_.body.max_plain) / 2 * 3;
    start();
    std::string plain(4 << 20, 'x');
    for (size_t i = 0, x = 1; i < 1000000; ++i) { /* nothing to be saved in these */
        x = x * 6364136223846793005u + 1442695040888963407u;
        plain[i] = char(x >> 56);
    }
    std::string packed = pack(plain);
    ASSERT_GT(packed.size(), 1000000u);
    std::string text = poll_text(log_in(), packed, plain.size(), sum_of(packed));
    EXPECT_EQ(ask(text).text, empty_text);
    EXPECT_TRUE(store_->blocks().at(0).plain == plain);
}

/* Memory in use; the resident size would show what earlier tests have left to reuse. */
static size_t used_bytes() {
    struct mallinfo2 all = mallinfo2();
    return all.uordblks + all.hblkhd;
}

TEST_F(collector_server, thousands_of_silent_clients_cost_little_and_hinder_nobody) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const size_t count = std::min<size_t>(3000, limit.rlim_cur / 2 - 100);
    options_.max_per_address = count + 10;
    start();
    std::string session = log_in();
    size_t before = used_bytes();
    std::deque<client> silent;
    for (size_t i = 0; i < count; ++i) {
        silent.emplace_back(port_);
    }
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text); /* all are accepted by now */
    size_t each = (used_bytes() - before) / count;
    RecordProperty("bytes_each", int(each));
    if (!sanitized) {
        EXPECT_LT(each, 4096u);
    }
}

TEST_F(collector_server, a_client_in_the_middle_of_its_head_costs_some_kilobytes) {
    const size_t count = 300;
    start();
    std::string session = log_in();
    size_t before = used_bytes();
    std::deque<client> slow;
    for (size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(slow.emplace_back(port_).handshake());
        ASSERT_TRUE(slow.back().send("POST /"));
    }
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
    size_t each = (used_bytes() - before) / count; /* both ends, each with its TLS state */
    RecordProperty("bytes_each", int(each));
    if (!sanitized) {
        EXPECT_LT(each, 100000u);
    }
}

TEST_F(collector_server, strangers_cannot_flood_the_log) {
    start();
    for (int i = 0; i < 60; ++i) {
        EXPECT_EQ(ask("nonsense\r\n\r\n").body, "111111");
    }
    EXPECT_EQ(log().size(), 20u);
    EXPECT_EQ(log().front(), "bad request from 127.0.0.1: bad method");
    finish();
    ASSERT_EQ(log().size(), 21u);
    EXPECT_EQ(log().back(),
              "bad request from 127.0.0.1: bad method (the last of 40 such lines left out)");
}

/* ---- start and stop ---- */

TEST_F(collector_server, stop_lets_polls_under_way_finish) {
    start();
    std::string session = log_in();
    store_->hold_back(true);
    {
        client poll(port_), silent(port_);
        ASSERT_TRUE(poll.handshake());
        ASSERT_TRUE(poll.send(poll_text(session, "x")));
        store_->wait_for_blocks(1);
        server_->stop();
        EXPECT_EQ(silent.wait_for_end(), ending::reset);
        store_->hold_back(false);
        ending end;
        EXPECT_EQ(poll.read_all(end), empty_text);
        EXPECT_EQ(end, ending::clean);
    }
    thread_.join();
}

TEST_F(collector_server, stop_resets_what_takes_too_long) {
    options_.deadlines.stop = 50ms;
    start();
    client c(port_);
    ASSERT_TRUE(c.handshake());
    server_->stop();
    EXPECT_EQ(c.wait_for_end(), ending::reset);
    thread_.join();
}

TEST_F(collector_server, a_port_in_use_is_one_clear_line) {
    start();
    server_options same = options_;
    same.port = port_;
    server second(same, tls_, *store_, *commands_, [](const std::string&) {});
    std::string error;
    EXPECT_FALSE(second.listen(error));
    EXPECT_EQ(error, "cannot listen on 127.0.0.1 port " + std::to_string(port_) +
                         ": Address already in use");
    same.address = "localhost";
    server third(same, tls_, *store_, *commands_, [](const std::string&) {});
    EXPECT_FALSE(third.listen(error));
    EXPECT_EQ(error,
              "cannot listen on localhost port " + std::to_string(port_) + ": not an IP address");
}

TEST_F(collector_server, an_ipv6_address_is_written_in_brackets) {
    options_.address = "::1";
    start();
    EXPECT_EQ(server_->where(), "[::1]:" + std::to_string(port_));
    int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 there{};
    there.sin6_family = AF_INET6;
    there.sin6_port = htons(port_);
    there.sin6_addr = in6addr_loopback;
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&there), sizeof there), 0);
    close(fd);
}

/* The whole server: TLS, one thread for all, start and stop. */
#include "collector_server.h"

#include "eventually.h"

#include <atomic>
#include <boost/asio/post.hpp>
#include <future>
#include <linux/sockios.h>
#include <sys/ioctl.h>

using namespace std::chrono_literals;

/* ---- TLS ---- */

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

/* Sends on a thread of its own, where what does not fit waits until the server reads; made, it has
 * sent all that the server's side takes unread. */
class sender {
public:
    sender(client& to, const std::string& bytes)
        : thread_([this, &to, &bytes] {
              to.send_raw(bytes);
              sent_ = true;
          }) {
        EXPECT_TRUE(eventually([this, &to] {
            int queued = 0, unsent = 0;
            ioctl(to.fd(), SIOCOUTQ, &queued);
            ioctl(to.fd(), SIOCOUTQNSD, &unsent);
            return (sent_ || unsent > 0) && queued == unsent;
        }));
    }
    ~sender() { join(); }
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::atomic<bool> sent_ = false;
    std::thread thread_;
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
    sender sender(c, records);
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
    sender sender(c, pieces);
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

/* ---- what is logged ---- */

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

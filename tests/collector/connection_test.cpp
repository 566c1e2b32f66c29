/* One connection between a script on its coroutine and a client. */
#include "ingest/connection.h"

#include "collector_server.h"
#include "eventually.h"

#include <atomic>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <future>

using namespace std::chrono_literals;
namespace asio = boost::asio;
using asio::awaitable;
using asio::ip::tcp;

namespace {

class connection_test : public testing::Test {
protected:
    using script = std::function<awaitable<void>(connection&)>;

    static void SetUpTestSuite() {
        signal(SIGPIPE, SIG_IGN);
        scratch_directory home;
        identity_files files;
        identity_report report;
        std::string error;
        ASSERT_TRUE(ensure_identity(home.path(), {}, files, report, error)) << error;
        tls_ = make_tls_context(files, error);
        ASSERT_TRUE(tls_) << error;
    }
    static void TearDownTestSuite() { tls_.reset(); }

    connection_test() { acceptor_.set_option(asio::socket_base::linger(true, 0)); }
    ~connection_test() override { finish(); }

    /* Plays the script on the next connection, which ends with it. */
    void serve(script steps) {
        steps_ = std::move(steps);
        asio::co_spawn(context_, play(), [](std::exception_ptr thrown) { EXPECT_FALSE(thrown); });
        thread_ = std::thread([this] { context_.run(); });
    }

    /* Waits for the end of the script. */
    void finish() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    uint16_t port() const { return acceptor_.local_endpoint().port(); }
    static SSL_CTX* tls() { return tls_.get(); }

    asio::io_context context_{1};

private:
    awaitable<void> play() {
        tcp::socket socket = co_await acceptor_.async_accept(asio::use_awaitable);
        connection link(std::move(socket), connection::clock::now() + 1h);
        co_await steps_(link);
    }

    static inline tls_context tls_;
    tcp::acceptor acceptor_{context_, {asio::ip::address_v4::loopback(), 0}};
    script steps_;
    std::thread thread_;
};

/* Reads until there are so many bytes, or no more. */
awaitable<std::string> read_bytes(connection& link, size_t count) {
    std::string all;
    char piece[100];
    while (all.size() < count) {
        size_t got = co_await link.read_some(piece, sizeof piece);
        if (got == 0) {
            break;
        }
        all.append(piece, got);
    }
    co_return all;
}

} // namespace

TEST_F(connection_test, the_first_byte_tells_a_plain_request_from_tls) {
    for (const auto& [bytes, expected] :
         {std::pair("GET", true), {"Z", true}, {"get", false}, {"\x16\x03", false}}) {
        bool readable = false, plain = !expected, silent = false;
        context_.restart();
        serve([&](connection& link) -> awaitable<void> {
            readable = co_await link.first_byte();
            plain = link.plain();
            silent = link.silent();
        });
        client c(port());
        c.send_raw(bytes);
        finish();
        EXPECT_TRUE(readable);
        EXPECT_EQ(plain, expected) << bytes;
        EXPECT_TRUE(silent); /* no state of TLS is made for it */
    }
}

TEST_F(connection_test, an_end_is_readable_and_neither_plain_nor_tls) {
    bool plain = true, secure = true;
    std::string problem;
    serve([&](connection& link) -> awaitable<void> {
        co_await link.first_byte();
        plain = link.plain();
        secure = co_await link.handshake(tls());
        problem = link.problem();
    });
    client c(port());
    shutdown(c.fd(), SHUT_WR);
    finish();
    EXPECT_FALSE(plain);
    EXPECT_FALSE(secure);
    EXPECT_EQ(problem, "unexpected eof while reading");
}

TEST_F(connection_test, what_is_said_over_tls_arrives_and_ends_cleanly) {
    std::string heard;
    bool secure = false, silent = true, written = false, ended = false;
    serve([&](connection& link) -> awaitable<void> {
        co_await link.first_byte();
        secure = co_await link.handshake(tls());
        silent = link.silent();
        heard = co_await read_bytes(link, 5);
        written = co_await link.write("answer");
        ended = co_await link.end_cleanly();
    });
    client c(port());
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send("hello"));
    ending how;
    EXPECT_EQ(c.read_all(how), "answer");
    EXPECT_EQ(how, ending::clean);
    SSL_shutdown(c.ssl());
    shutdown(c.fd(), SHUT_WR);
    finish();
    EXPECT_EQ(heard, "hello");
    EXPECT_FALSE(silent);
    EXPECT_TRUE(secure && written && ended);
}

TEST_F(connection_test, without_a_handshake_it_works_on_the_plain_stream) {
    std::string heard;
    bool ended = false;
    const std::string answer(300000, 'a');
    serve([&](connection& link) -> awaitable<void> {
        co_await link.first_byte();
        heard = co_await read_bytes(link, 5);
        co_await link.write(answer);
        ended = co_await link.end_cleanly();
    });
    client c(port());
    c.send_raw("hello");
    ending how;
    EXPECT_TRUE(c.read_all(how) == answer);
    EXPECT_EQ(how, ending::bare);
    shutdown(c.fd(), SHUT_WR);
    finish();
    EXPECT_EQ(heard, "hello");
    EXPECT_TRUE(ended);
}

TEST_F(connection_test, without_a_clean_end_it_is_a_reset) {
    for (bool answered : {false, true}) {
        context_.restart();
        serve([&](connection& link) -> awaitable<void> {
            co_await link.first_byte();
            co_await link.handshake(tls());
            co_await read_bytes(link, 5);
            if (answered) {
                co_await link.write("answer");
            }
        });
        client c(port());
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send("hello"));
        ending how;
        EXPECT_EQ(c.read_all(how), "");
        EXPECT_EQ(how, ending::reset);
        finish();
    }
}

TEST_F(connection_test, an_answer_that_nobody_takes_has_not_arrived) {
    bool written = true, ended = true;
    std::promise<void> gone;
    serve([&](connection& link) -> awaitable<void> {
        co_await link.first_byte();
        co_await link.handshake(tls());
        co_await read_bytes(link, 5);
        gone.get_future().wait();
        written = co_await link.write("answer");
        if (written) {
            ended = co_await link.end_cleanly();
        }
    });
    client c(port());
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send("hello"));
    c.vanish();
    gone.set_value();
    finish();
    EXPECT_FALSE(written && ended);
}

TEST_F(connection_test, given_up_it_ends_its_wait_and_says_why) {
    for (const auto& [why, expected] : {std::pair(connection::reason::time_is_up, "time is up"),
                                        {connection::reason::made_room, "had to make room"}}) {
        std::string problem;
        size_t got = 1;
        bool given_up = false;
        std::atomic<connection*> reading = nullptr;
        context_.restart();
        serve([&](connection& link) -> awaitable<void> {
            co_await link.first_byte();
            co_await link.handshake(tls());
            reading = &link;
            char byte;
            got = co_await link.read_some(&byte, 1);
            given_up = link.given_up();
            problem = link.problem();
        });
        client c(port());
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(eventually([&] { return reading != nullptr; }));
        asio::post(context_, [&, reason = why] { reading.load()->give_up(reason); });
        EXPECT_EQ(c.wait_for_end(), ending::reset);
        finish();
        EXPECT_EQ(got, 0u);
        EXPECT_TRUE(given_up);
        EXPECT_EQ(problem, expected);
    }
}

TEST_F(connection_test, what_the_peer_did_is_told_from_what_tls_found) {
    const struct {
        const char* name;
        std::function<void(client&)> act;
        const char* problem;
    } peers[] = {
        {"ends", [](client& c) { SSL_shutdown(c.ssl()); }, "ended by the peer"},
        {"is cut off", [](client& c) { shutdown(c.fd(), SHUT_WR); },
         "unexpected eof while reading"},
        {"sends rubbish",
         [](client& c) {
             c.send_raw({"\x17\x03\x03\x00\x15"
                         "rubbish rubbish rubbi",
                         26});
         },
         "decryption failed or bad record mac"},
    };
    for (const auto& peer : peers) {
        SCOPED_TRACE(peer.name);
        std::string problem;
        size_t got = 1;
        context_.restart();
        serve([&](connection& link) -> awaitable<void> {
            co_await link.first_byte();
            co_await link.handshake(tls());
            char byte;
            got = co_await link.read_some(&byte, 1);
            problem = link.problem();
        });
        client c(port());
        ASSERT_TRUE(c.handshake());
        peer.act(c);
        finish();
        EXPECT_EQ(got, 0u);
        EXPECT_EQ(problem, peer.problem);
    }
}

/* What is there already would otherwise be read without a pause, however much it is. */
TEST_F(connection_test, a_long_read_gives_the_thread_back_in_between) {
    constexpr size_t much = 3u << 20;
    size_t turns = 0;
    bool over = false;
    std::function<void()> others = [&] {
        turns++;
        if (!over) {
            asio::post(context_, others);
        }
    };
    std::string heard;
    serve([&](connection& link) -> awaitable<void> {
        co_await link.first_byte();
        asio::post(context_, others);
        heard = co_await read_bytes(link, much);
        over = true;
    });
    client c(port());
    c.send_raw(std::string(much, 'x'));
    finish();
    EXPECT_EQ(heard.size(), much);
    EXPECT_GE(turns, 12u);
}

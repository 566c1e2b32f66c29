#include "ingest/connection.h"

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

/* g++ 12 makes wrong code for a co_await behind && or ||, and for temporaries that live across one.
 * Here and in server.cpp a co_await therefore stands alone, and what it uses has a name. */
namespace asio = boost::asio;
using asio::ip::tcp;

static constexpr int most_messages = 32;       /* of TLS itself */
static constexpr int most_reads = 2;           /* in one call into TLS; each is 16 KiB at most */
static constexpr size_t a_turn = 256u << 10;   /* bytes */
static constexpr size_t a_call = 1024;         /* what a call costs beside its bytes, in bytes */
static constexpr size_t one_write = 64u << 10; /* bytes */

void connection::give_up(reason why) {
    given_up_ = why;
    boost::system::error_code ignored;
    socket_.cancel(ignored);
}

asio::awaitable<bool> connection::wait(tcp::socket::wait_type what) {
    spent_ = 0;
    auto [failed] = co_await socket_.async_wait(what, asio::as_tuple(asio::use_awaitable));
    /* A wait that was already over when give_up() came is not cancelled any more. */
    co_return !failed && !given_up();
}

bool connection::turn_is_over() const {
    return spent_ > a_turn;
}

asio::awaitable<bool> connection::let_others() {
    spent_ = 0;
    co_await asio::post(socket_.get_executor(), asio::use_awaitable);
    co_return !given_up();
}

asio::awaitable<bool> connection::first_byte() {
    boost::system::error_code failed;
    socket_.native_non_blocking(true, failed);
    bool readable = co_await wait(tcp::socket::wait_read);
    co_return !failed && readable;
}

bool connection::plain() const {
    char first = 0;
    auto socket = const_cast<tcp::socket&>(socket_).native_handle(); /* Asio's has no const */
    return recv(socket, &first, 1, MSG_PEEK) == 1 && first >= 'A' && first <= 'Z';
}

/* What the TLS call that gave `result` waits for; nothing when it failed, whose reason is kept. */
std::optional<tcp::socket::wait_type> connection::wanted(int result) {
    switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return tcp::socket::wait_read;
    case SSL_ERROR_WANT_WRITE:
        return tcp::socket::wait_write;
    default:
        tls_error_ = ERR_peek_error();
        return {};
    }
}

void connection::interrupt() {
    boost::system::error_code ignored;
    socket_.cancel(ignored);
}

std::string connection::problem() const {
    if (given_up()) {
        return given_up_ == reason::made_room ? "had to make room" : "time is up";
    }
    if (messages_ > most_messages) {
        return "too many messages of TLS itself";
    }
    const char* reason = ERR_reason_error_string(tls_error_);
    return reason ? reason : "ended by the peer";
}

/* Repeats one TLS call until it is through; it returns more than 0 then. */
template <typename Call>
asio::awaitable<bool> connection::perform(Call call) {
    for (;;) {
        ERR_clear_error(); /* the queue is the thread's: what other connections left would confuse
                            */
        reads_ = 0;
        int result = call(ssl_.get());
        if (result > 0) {
            co_return true;
        }
        auto what = wanted(result);
        if (!what) {
            co_return false;
        }
        bool ready = false;
        if (reads_ > most_reads) {
            ready = co_await let_others();
        } else {
            ready = co_await wait(*what);
        }
        if (!ready) {
            co_return false;
        }
    }
}

/* In front of each operation of the socket's BIO, and behind it. TLS takes what this says to a read
 * that is one too many for a socket with nothing in it. */
long connection::count_read(BIO* bio, int what, const char*, size_t, int, long, int result,
                            size_t*) {
    if (what == BIO_CB_READ) {
        auto* self = reinterpret_cast<connection*>(BIO_get_callback_arg(bio));
        if (++self->reads_ > most_reads) {
            BIO_clear_retry_flags(bio);
            BIO_set_retry_read(bio);
            return -1;
        }
    }
    return result;
}

/* Repeats one call on the socket until it has moved bytes; 0 when it never will. */
template <typename Call>
asio::awaitable<size_t> connection::perform_plainly(Call call, tcp::socket::wait_type what) {
    for (;;) {
        ssize_t moved = call(socket_.native_handle());
        if (moved > 0) {
            co_return size_t(moved);
        }
        if (moved == 0 || (errno != EAGAIN && errno != EINTR)) {
            co_return 0;
        }
        bool ready = co_await wait(what);
        if (!ready) {
            co_return 0;
        }
    }
}

asio::awaitable<bool> connection::handshake(SSL_CTX* context, client_look* look) {
    ssl_.reset(SSL_new(context));
    if (!ssl_ || !SSL_set_fd(ssl_.get(), socket_.native_handle())) {
        co_return false;
    }
    BIO_set_callback_ex(SSL_get_rbio(ssl_.get()), count_read);
    BIO_set_callback_arg(SSL_get_rbio(ssl_.get()), reinterpret_cast<char*>(this));
    set_client_look(ssl_.get(), look);
    bool done = co_await perform(SSL_accept);
    done = done && look_at_resumed(ssl_.get(), look);
    set_client_look(ssl_.get(), nullptr);
    SSL_set_msg_callback(ssl_.get(), count_message);
    SSL_set_msg_callback_arg(ssl_.get(), this);
    co_return done;
}

asio::awaitable<void> connection::let_read_alert() {
    co_await drain();
}

/* Key updates and the like carry no data, so a peer that sends nothing else keeps OpenSSL reading
 * for as long as it likes. No agent sends any; a peer that sends many is taken for one that has
 * ended, which stops the reading at the next record. */
void connection::count_message(int from_us, int, int type, const void*, size_t, SSL* ssl,
                               void* link) {
    auto* self = static_cast<connection*>(link);
    if (!from_us && type == SSL3_RT_HANDSHAKE && ++self->messages_ > most_messages) {
        SSL_set_shutdown(ssl, SSL_get_shutdown(ssl) | SSL_RECEIVED_SHUTDOWN);
    }
}

asio::awaitable<size_t> connection::read_some(char* data, size_t size) {
    if (turn_is_over()) { /* before the read: `data` may be everybody's */
        bool mine = co_await let_others();
        if (!mine) {
            co_return 0;
        }
    }
    size_t got = 0;
    if (ssl_) {
        auto call = [&](SSL* ssl) { return SSL_read_ex(ssl, data, size, &got); };
        bool done = co_await perform(call);
        got = done ? got : 0;
    } else {
        auto receive = [&](int socket) { return recv(socket, data, size, 0); };
        got = co_await perform_plainly(receive, tcp::socket::wait_read);
    }
    spent_ += uint32_t(got + a_call);
    co_return got;
}

asio::awaitable<bool> connection::write(std::string_view data) {
    /* What does not fill a segment waits for end_cleanly(): the usual answer, the end of TLS and
     * the end of the stream then are one packet instead of three. */
    int yes = 1;
    setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_CORK, &yes, sizeof yes);
    while (!data.empty()) {
        if (turn_is_over()) {
            bool mine = co_await let_others();
            if (!mine) {
                co_return false;
            }
        }
        std::string_view piece = data.substr(0, one_write);
        size_t sent = 0;
        if (ssl_) {
            auto call = [&](SSL* ssl) {
                return SSL_write_ex(ssl, piece.data(), piece.size(), &sent);
            };
            co_await perform(call);
        } else {
            auto call = [&](int socket) {
                return send(socket, piece.data(), piece.size(), MSG_NOSIGNAL);
            };
            sent = co_await perform_plainly(call, tcp::socket::wait_write);
        }
        if (sent == 0) {
            co_return false;
        }
        data.remove_prefix(sent);
        spent_ += uint32_t(sent + a_call);
    }
    co_return true;
}

void connection::flush() {
    int no = 0;
    setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_CORK, &no, sizeof no);
}

void connection::bound_unsent(int bytes) {
    setsockopt(socket_.native_handle(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

/* 0 from SSL_shutdown: our end is out, the peer's has not come. */
static int send_tls_end(SSL* ssl) {
    int result = SSL_shutdown(ssl);
    return result == 0 ? 1 : result;
}

asio::awaitable<bool> connection::end_cleanly() {
    /* Not by Asio, which would turn it off once more when it closes the socket. */
    const linger none{0, 0};
    setsockopt(socket_.native_handle(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    uint64_t tail = 1; /* end of stream */
    if (ssl_) {
        uint64_t before = BIO_number_written(SSL_get_wbio(ssl_.get()));
        bool sent = co_await perform(send_tls_end);
        if (!sent) {
            co_return false;
        }
        tail += BIO_number_written(SSL_get_wbio(ssl_.get())) - before;
    }
    ::shutdown(socket_.native_handle(), SHUT_WR);
    bool ended = co_await drain();
    if (!ended) {
        co_return false;
    }
    int unacknowledged = 0;
    ioctl(socket_.native_handle(), SIOCOUTQ, &unacknowledged);
    co_return uint64_t(unacknowledged) <= tail;
}

/* Reads to the peer's end. What comes is of no interest, and much of it is no agent's; a reset is
 * an end as well, since an agent that has read its answer may close before our end of TLS reaches
 * it. */
asio::awaitable<bool> connection::drain() {
    static thread_local char rubbish[16384];
    size_t left = 1u << 20;
    bool come = co_await wait(tcp::socket::wait_read); /* hardly ever is it there already */
    if (!come) {
        co_return false;
    }
    for (;;) {
        ssize_t got = recv(socket_.native_handle(), rubbish, sizeof rubbish, 0);
        if (got == 0 || (got < 0 && errno == ECONNRESET)) {
            co_return true;
        }
        if (got < 0 && errno != EAGAIN && errno != EINTR) {
            co_return false;
        }
        if (got < 0) {
            bool ready = co_await wait(tcp::socket::wait_read);
            if (!ready) {
                co_return false;
            }
        } else if (size_t(got) >= left) {
            co_return false;
        } else {
            left -= size_t(got);
            spent_ += uint32_t(size_t(got) + a_call);
        }
        if (turn_is_over()) {
            bool mine = co_await let_others();
            if (!mine) {
                co_return false;
            }
        }
    }
}

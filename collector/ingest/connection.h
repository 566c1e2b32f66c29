/* One TLS connection of an agent, on coroutines of one thread; or a plain one, of somebody else.
 *
 * TLS runs straight on the socket (SSL_set_fd) and Asio only waits for readiness, so a connection
 * that has not said anything costs a socket and this small structure, and one that has costs no
 * more than OpenSSL's own state.
 *
 * An agent takes a clean end of TLS for an accepted poll, and with an old TLS library a bare end of
 * stream too. So sockets arrive here with SO_LINGER 0 (inherited from the listener): however a
 * connection ends, by give_up(), by its destructor or because the process died, the agent sees a
 * reset. Only end_cleanly(), after a whole answer, turns that off.
 *
 * The thread is everybody's. A connection that finds something to do each time it looks gives the
 * thread back after some 256 KiB, where a call counts as one KiB at least, and one call into TLS
 * ends after two reads from the socket, whatever they held: one-byte records, messages in a
 * thousand pieces. Both are counted, no clock is read. It goes on when all the others that have
 * something to do have had their turn, unless it was given up meanwhile; so no peer gets past a
 * deadline by sending without a pause. What stays in one piece are a handshake's signature and key
 * exchange. */
#ifndef VINDRAL_COLLECTOR_CONNECTION_H
#define VINDRAL_COLLECTOR_CONNECTION_H

#include "base/tls.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <openssl/ssl.h>
#include <optional>
#include <string>
#include <string_view>

struct free_ssl {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};

class connection {
public:
    using clock = std::chrono::steady_clock;

    connection(boost::asio::ip::tcp::socket socket, clock::time_point deadline)
        : socket_(std::move(socket)), deadline_(deadline) {}

    enum class reason : uint8_t { none, time_is_up, made_room };

    /* Ends every wait, now and later. The connection resets once its coroutine has left. */
    void give_up(reason why = reason::time_is_up);
    bool given_up() const { return given_up_ != reason::none; }

    /* Ends the wait under way, if there is one, which then fails; what is tried next may go well.
     * Nothing is lost by it in a read; a write that it ends is of no use any more. */
    void interrupt();

    /* Why the last call failed, for the log. */
    std::string problem() const;

    bool silent() const { return !ssl_; } /* nothing of an agent's has come yet */

    clock::time_point deadline() const { return deadline_; }
    void set_deadline(clock::time_point deadline) { deadline_ = deadline; }

    /* The calls below return false (or 0 bytes) when the connection is of no more use: the peer has
     * ended or broken it, or it was given up. Nothing but the destructor may follow then. */

    /* Until the first byte, or the end. Makes no TLS state. */
    boost::asio::awaitable<bool> first_byte();

    /* The first byte is a letter, as of a plain HTTP request; TLS begins with another. Without
     * handshake() the calls below work on the plain stream. */
    bool plain() const;
    /* `look`, when it is not null, is asked about the certificate that the peer shows. */
    boost::asio::awaitable<bool> handshake(SSL_CTX* context, client_look* look = nullptr);
    /* After a handshake that failed: until the peer has read the alert and ended, or the deadline.
     * A reset at once may reach it ahead of the alert. */
    boost::asio::awaitable<void> let_read_alert();
    boost::asio::awaitable<size_t> read_some(char* data, size_t size);

    /* The whole answer. Its last bytes leave with end_cleanly() only, or with flush(). */
    boost::asio::awaitable<bool> write(std::string_view data);
    void flush();
    /* The most that the system keeps of what the peer has not taken, about. */
    void bound_unsent(int bytes);

    /* After the answer: end of TLS, end of stream, then read on until the peer has ended too
     * or the deadline comes, because closing with something unread would reset the connection and
     * destroy an answer still on its way. True when the peer has ended and had received everything
     * written before this call. */
    boost::asio::awaitable<bool> end_cleanly();

private:
    static void count_message(int from_us, int version, int type, const void* bytes, size_t size,
                              SSL* ssl, void* connection);
    template <typename Call>
    boost::asio::awaitable<bool> perform(Call call);
    template <typename Call>
    boost::asio::awaitable<size_t> perform_plainly(Call call,
                                                   boost::asio::ip::tcp::socket::wait_type what);
    std::optional<boost::asio::ip::tcp::socket::wait_type> wanted(int result);
    boost::asio::awaitable<bool> wait(boost::asio::ip::tcp::socket::wait_type what);
    static long count_read(BIO* bio, int what, const char* data, size_t size, int, long, int result,
                           size_t* moved);
    bool turn_is_over() const;
    boost::asio::awaitable<bool> let_others();
    boost::asio::awaitable<bool> drain();

    boost::asio::ip::tcp::socket socket_;
    std::unique_ptr<SSL, free_ssl> ssl_;
    clock::time_point deadline_;
    unsigned long tls_error_ = 0;
    uint32_t spent_ = 0; /* bytes since the thread was last given back; a turn and a bit at most */
    int messages_ = 0;   /* of TLS itself, received since the handshake */
    uint8_t reads_ = 0;  /* from the socket, in this call into TLS */
    reason given_up_ = reason::none;
};

#endif

/* The collector's end of the poll exchange: HTTP/1.0 over TLS, one exchange a connection. GET of
 * "/" gives a page that says what this is, over TLS and, on the same port, without: something for a
 * page test or a browser to find. Nothing else is done without TLS.
 *
 * THREADS  One thread runs everything of the network: run(). Large bodies are unpacked on a second
 * one, huge ones on a third, so that they do not hold up the others; storing has the store's
 * thread.
 *
 * WHAT AN AGENT TAKES FOR WHAT  Any whole answer, whatever its status line, makes an agent drop the
 * block it has sent, except the bodies "111111" (keep it, log in again) and "666666" (stop). So a
 * block is answered in the ordinary way only after it is committed; a body that must come again, or
 * a head that makes no sense, is answered "111111"; and when the collector gives up on a connection
 * it resets it (see connection.h), which an agent reads as no connection: it keeps session and
 * block, and waits out its interval. So is a block that cannot be stored now, because "111111"
 * would have every agent log in and send it again each second. A login that is refused gets no
 * session, whereupon the agent keeps what it has and tries again after its interval; "666666" would
 * end it with all its results, for a slip in the list of accounts. So is one of a second host under
 * a name that is in use (see session.h). The agent adds up every header
 * that begins with "Content-", so Content-Length is the only one sent, and waits for the end of the
 * connection when it is 0.
 *
 * LIMITS  Connections in all and per address: beyond, one that has waited for its peer makes room
 * for the new one, or the new one is reset at once. Bytes of bodies and answers held, in all and
 * for an address and an agent: beyond, the connection whose body or answer would not fit is reset.
 * admission.h says who makes room, and what the shares are. What is large when unpacked waits for
 * its turn in bounds of its own (see turns.h), one body of an agent at a time; meanwhile it may
 * have to make room, too. Every phase has a deadline, and the whole exchange has one, since an
 * agent gives up after 15 seconds. No connection holds the network thread for more than some
 * milliseconds: see connection.h, and unpack_here. */
#ifndef VINDRAL_COLLECTOR_SERVER_H
#define VINDRAL_COLLECTOR_SERVER_H

#include "ingest/body.h"
#include "ingest/session.h"
#include "plan/known.h"
#include "plan/plan.h"
#include "store/store.h"

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <openssl/ssl.h>
#include <string>
#include <vector>

struct server_deadlines {
    using duration = std::chrono::steady_clock::duration;
    duration handshake = std::chrono::seconds(10); /* from accept: first byte and handshake */
    duration head = std::chrono::seconds(5);
    duration body = std::chrono::seconds(5); /* plus its size over the rate */
    size_t body_rate = 64u << 10;            /* bytes a second */
    duration answer = std::chrono::seconds(10);
    duration whole = std::chrono::seconds(20); /* from accept to the end of the answer */
    duration drain = std::chrono::seconds(2);  /* after the answer, until the agent has ended too */
    duration stop = std::chrono::seconds(5);   /* for polls under way when the server is stopped */
    duration patience = std::chrono::seconds(2); /* what admission_limits calls so */
};

struct server_options {
    std::string address = "127.0.0.1"; /* IPv4 or IPv6 */
    uint16_t port = 0;                 /* 0: the kernel picks */
    std::vector<std::string> allow;    /* accounts that may log in; empty: all */
    bool end_refused = false;          /* agents of other accounts are ended, for good */
    size_t max_connections = 10000;
    size_t max_per_address = 1250; /* an IPv4 address or an IPv6 /64 */
    body_limits body;
    size_t body_memory =
        128u << 20; /* bodies as sent, small ones unpacked, and answers, of all connections */
    /* Larger bodies, unpacked, are unpacked on a second thread and wait until what is unpacked and
     * not yet stored of such is below `large_memory`. Those larger than `huge` have a thread of
     * their own and body_limits::max_plain for all of them. */
    size_t unpack_here = 32u << 10;
    size_t huge = 32u << 20;
    size_t large_memory = 128u << 20;
    session_limits sessions;
    server_deadlines deadlines;
};

class server {
public:
    using log_function = std::function<void(const std::string&)>;

    /* `tls` and `commands` must outlive the server. `results` must outlive run() but be destroyed
     * before the server is: its thread may still be on its way out of a call to here. `log` gets
     * lines without a line end, few of them whatever strangers do, on the network thread only. */
    server(server_options options, SSL_CTX* tls, store& results, plan& commands, log_function log);
    ~server();

    /* What agents had when an earlier run ended; before run(). */
    void remember(known_tests earlier);

    /* Opens the port. False with one line in `error`. */
    bool listen(std::string& error);
    uint16_t port() const;
    std::string where() const; /* "127.0.0.1:8443", "[::1]:8443" */

    /* Serves until stop() and the end of the last poll under way. */
    void run();

    /* Closes the port, resets connections that have not said anything, and those under way after
     * server_deadlines::stop at the latest. From any thread. */
    void stop();

    /* For what else runs on the network thread: signals, timers. run() also waits for it. */
    boost::asio::io_context& context();

private:
    struct state;
    std::unique_ptr<state> state_;
};

#endif

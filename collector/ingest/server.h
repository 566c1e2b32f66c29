/* The collector's end of the poll exchange: HTTP/1.0 over TLS, one exchange a connection. GET of
 * "/" gives a page that says what this is, over TLS and, on the same port, without: something for a
 * page test or a browser to find. Nothing else is done without TLS. This joins who is let in
 * (listener.h), whose certificate is good (certificate_check.h), what agents are answered
 * (polls.h), how hosts get certificates (enrolment.h) and the page (page.h).
 *
 * THREADS  One thread runs everything of the network: run(). Large bodies are unpacked on a second
 * one, huge ones on a third, and certificates made on a fourth, so that they do not hold up the
 * others; storing has the store's thread.
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

#include "ingest/agents_tls.h"
#include "ingest/counters.h"
#include "ingest/ingest.h"
#include "ingest/instructions.h"
#include "ingest/known_agents.h"
#include "ingest/server_options.h"

#include <boost/asio/io_context.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class server {
public:
    using log_function = std::function<void(const std::string&)>;

    /* `known` null: agents are asked for no certificate, and hosts cannot enrol. It, `commands` and
     * `counted` must outlive the server. `results` must outlive run() but be
     * destroyed before the server is: its thread may still be on its way out of a call to here.
     * `log` gets lines without a line end, few of them whatever strangers do, on the network thread
     * only. */
    server(server_options options, std::shared_ptr<agents_tls> tls, known_agents* known,
           ingest& results, instructions& commands, counters& counted, log_function log);
    ~server();

    /* Opens the port. False with one line in `error`. */
    bool listen(std::string& error);
    uint16_t port() const;
    std::string where() const; /* "127.0.0.1:8443", "[::1]:8443" */

    /* Serves until stop() and the end of the last poll under way. */
    void run();

    /* Closes the port, resets connections that have not said anything, and those under way after
     * server_deadlines::stop at the latest. From any thread. */
    void stop();

    /* Has the agent do all its planned tests, whatever their interval: the answer to its next poll
     * says so, once. False when it has no session, or has been silent for three intervals. On the
     * network thread: post it to context(). */
    bool check_now(const std::string& account, const std::string& agent);

    /* Ends the agent's session: with its next poll it is told to log in again. False when it has
     * none. On the network thread. */
    bool send_away(const std::string& account, const std::string& agent);

    /* Connections from now on are made with this; those under way keep theirs. On the network
     * thread. */
    void exchange_tls(std::shared_ptr<agents_tls> next);

    /* Has what is known of agents read again, soon, on a thread that may wait, and `more` done
     * there; what it returns is logged unless it is empty. On the network thread. */
    void refresh_known(std::function<std::string()> more);

    /* For what else runs on the network thread: signals, timers. run() also waits for it. */
    boost::asio::io_context& context();

private:
    struct state;
    std::unique_ptr<state> state_;
};

#endif

/* The API's listener: HTTP/1.1, plain on loopback, TLS elsewhere, on threads of its own: one for
 * the network, two on which resources read. Nothing here waits for the collector's other threads
 * but where a resource changes something, and nothing in there waits for these.
 *
 * WHO  A token (Authorization: Bearer) or the cookie of a session; see sign_in.h. With the cookie a
 * request that changes something needs an Origin that is its Host. Host has to be one of this
 * collector's names or addresses: that of the certificate, of the listener, localhost; any on
 * loopback that is an address.
 *
 * LIMITS  One table, web_limits. Beyond them a connection is answered 408, 413, 414, 429, 431 or
 * 503 with a problem and closed, or, when it does not even take that, reset. Requests wait for a
 * reading thread in a bounded line, at most `waiting_of_one` of them from one token or address.
 *
 * STREAM  GET /api/v1/stream: server-sent events out of the event hub. A listener that does not
 * read has one buffer of `stream_buffer` bytes at most waiting; when the ring goes on without it,
 * the event "lost" says so. A comment line every 15 seconds keeps the line open. */
#ifndef VINDRAL_COLLECTOR_WEB_SERVER_H
#define VINDRAL_COLLECTOR_WEB_SERVER_H

#include "api/services.h"
#include "base/tls.h"
#include "store/settings.h"
#include "web/web_options.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <openssl/ssl.h>
#include <string>

class web_server {
public:
    /* Throws std::system_error when its threads cannot be had. `tls` null: plain; listen() refuses
     * that for an address that is not loopback. All must outlive this. `log` gets whole lines, on
     * any thread. */
    web_server(web_options options, SSL_CTX* tls, settings& kept, api_services& with,
               std::function<void(const std::string&)> log);
    ~web_server(); /* stop() */

    /* Opens the port and begins. False with one line in `error`. */
    bool listen(std::string& error);
    uint16_t port() const;
    std::string url() const; /* "http://127.0.0.1:8080", "https://[::1]:8080" */

    /* Connections from now on are made with this, soon; null changes nothing, as does any where
     * there is no TLS. Any thread. */
    void exchange_tls(tls_context next);

    /* Closes the port and, after what is under way, all connections: two seconds at the most, but
     * for what a resource is doing at the moment. */
    void stop();

private:
    struct state;
    std::unique_ptr<state> state_;
};

#endif

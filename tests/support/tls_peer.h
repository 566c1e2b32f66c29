/* A server for tests that does what its script says: it listens on a port of 127.0.0.1 that the
 * kernel picks and serves one connection per conversation, in order, on a thread of its own.
 *
 *   tls_peer server(tls_peer::tls, {{peer::take_request(), peer::send("HTTP/1.0 200 OK\r\n\r\n"),
 *                                    peer::end_clean()}});
 *   ... talk to 127.0.0.1, server.port() ...
 *   EXPECT_EQ(server.request(0), "POST ...");
 *
 * The TLS handshake belongs to the connection and needs no step. Its certificate is made in memory
 * (ECDSA P-256, self-signed). Nothing here uses the agent's code. The process must ignore SIGPIPE.
 */
#ifndef VINDRAL_TLS_PEER_H
#define VINDRAL_TLS_PEER_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace peer {

enum class action { take_request, take_rest, send, pause, end_clean, end_dirty, reset };

struct step {
    action what;
    std::string bytes = {};
};

/* Reads one HTTP request: head and as many bytes of body as its Content-Length says. */
inline step take_request() {
    return {action::take_request};
}
/* Reads, and drops, until the client ends the connection. */
inline step take_rest() {
    return {action::take_rest};
}
/* Writes the bytes with one call: over TLS one record when they fit (16384). */
inline step send(std::string bytes) {
    return {action::send, std::move(bytes)};
}
/* Does nothing until the test calls proceed(). */
inline step pause() {
    return {action::pause};
}
/* Ends the connection: with TLS' closing alert; without it; with a TCP reset. A script that ends
 * without any of these ends the connection dirtily. */
inline step end_clean() {
    return {action::end_clean};
}
inline step end_dirty() {
    return {action::end_dirty};
}
inline step reset() {
    return {action::reset};
}

} // namespace peer

struct ssl_ctx_st;

class tls_peer {
public:
    enum transport { tcp, tls };
    using conversation = std::vector<peer::step>;

    /* `context`, the caller's, is in place of that of the certificate above. */
    tls_peer(transport how, std::vector<conversation> script, ssl_ctx_st* context = nullptr);
    /* Breaks off whatever the script is doing and joins the thread. */
    ~tls_peer();
    tls_peer(const tls_peer&) = delete;
    tls_peer& operator=(const tls_peer&) = delete;

    const char* port() const { return port_.c_str(); }

    /* These wait until it has happened, for half a minute at most, and say whether it did. */
    bool await_connections(int count); /* accepted; the handshake may still be going on */
    bool await_pauses(int count);      /* pauses reached, over all conversations */
    bool await_end();                  /* the whole script played */

    /* Ends one pause, the current one or, when there is none, the next. */
    void proceed();

    /* What the nth connection's take_request() has read, "" when it was not played. */
    std::string request(size_t connection);

    /* How many connections the client ended with TLS' closing alert, as take_rest() saw it. */
    int clean_client_ends();

    /* How many clients named the server in the handshake. */
    int naming_clients();

private:
    struct link;
    void serve();
    void play(link& l, const conversation& steps, size_t number);
    bool wait_for(int fd, short events);
    bool shake_hands(link& l);
    long read_some(link& l, char* room, size_t size);
    void write_all(link& l, const std::string& bytes);
    std::string read_request(link& l);
    void end(link& l, peer::action how);
    template <typename T>
    bool await(T condition);

    transport how_;
    ssl_ctx_st* context_;
    std::vector<conversation> script_;
    std::string port_;
    int listener_;
    int stop_pipe_[2];
    std::mutex mutex_;
    std::condition_variable changed_;
    int connections_ = 0, pauses_ = 0, permits_ = 0, clean_ends_ = 0, naming_clients_ = 0;
    bool stopping_ = false, played_ = false;
    std::vector<std::string> requests_;
    std::thread thread_;
};

/* A port of 127.0.0.1 whose listener takes no more connections: a connect to it stays under way. */
class full_listener {
public:
    full_listener();
    ~full_listener();
    full_listener(const full_listener&) = delete;
    full_listener& operator=(const full_listener&) = delete;
    const char* port() const { return port_.c_str(); }

private:
    std::string port_;
    int listener_, filler_;
};

/* A port of 127.0.0.1 that nobody listens on. */
std::string closed_port();

/* The number of open descriptors of this process. */
int count_descriptors();

/* The number of this process' threads with that name. */
int count_threads(const std::string& name);

#endif

/* One connection to a server, plain or over TLS, step by step: connect, shake hands, send, receive.
 *
 * Every step ends within the budget of its caller (budget.h), says how it ended and logs nothing:
 * the words for it are the caller's. Nothing is kept between calls but what a stream holds;
 * different streams may be used in different threads.
 *
 * Cancellation. Only waits open it. Whoever owns the connection is who gives it back.
 *
 * SIGPIPE: plain sends suppress it; for TLS the process has to ignore it, as OpenSSL writes by
 * itself. */
#ifndef VINDRAL_STREAM_H
#define VINDRAL_STREAM_H

#include "http_text.h"
#include "libsslloader.h"

/* --- connecting ------------------------------------------------------------------------------ */

enum class connect_end {
    connected,
    not_resolved,     /* error: the resolver's, for gai_strerror */
    no_socket,        /* for any address; this and all below: errno */
    flags_unknown,    /* of the socket */
    stays_blocking,   /* the socket */
    failed,           /* at once, or in the wait */
    timed_out,        /* also when the wait was interrupted */
    outcome_unknown,  /* of the connect */
    failed_in_the_end /* after a wait */
};

struct connect_outcome {
    unique_fd socket; /* non-blocking and close-on-exec, when connected */
    connect_end end;
    int error;
};

/* Connects to an IPv4 address of `host`; `port` is a service such as "443". Only the first address
 * for which a socket can be made is tried. The resolution of a name is not charged. */
connect_outcome stream_connect(const char* host, const char* port, long* budget_us);

/* --- TLS ------------------------------------------------------------------------------------- */

struct free_context {
    void operator()(SSL_CTX* context) const { lib_SSL_CTX_free(context); }
};
struct free_session {
    void operator()(SSL* session) const { lib_SSL_free(session); }
};

/* Who owns a connection. Going out of scope gives everything back without a word to the peer; a
 * finished exchange says good-bye first. */
struct stream_connection {
    unique_fd socket;
    std::unique_ptr<SSL_CTX, free_context> context; /* null: plain, or somebody else's */
    std::unique_ptr<SSL, free_session> session;     /* null: plain */
};

/* SSL_get_error takes whatever lies in this thread's queue, at most 16 errors, for the error of the
 * last call: before a session is made they are dropped. */
void forget_tls_errors();

/* The library's reason for the last failure, in `text`. */
const char* tls_reason(char (&text)[256]);

enum class session_end { made, no_context, no_session };

/* Makes the session on the connection's socket, with `context`, which stays the caller's, or with
 * one of its own. */
session_end make_session(stream_connection& c, SSL_CTX* context = nullptr);

void say_goodbye(stream_connection& c);

/* --- the steps on a connection --------------------------------------------------------------- */

/* A connection and the budget of the exchange on it. */
struct stream {
    int sk;
    SSL* session; /* null: plain */
    long* budget_us;
    long retry_pause_us = 0; /* before a plain read is tried again */
    bool may_hold_more = false;
};

enum class stream_end {
    done,
    ended,          /* the peer has ended the connection, over TLS with the closing alert */
    wait_failed,    /* with errno */
    wait_timed_out, /* the budget ended in a wait */
    timed_out,      /* the budget ended in the step itself */
    failed,         /* with errno, or over TLS with what SSL_get_error says */
    too_much,       /* for one write over TLS, or more than MAX_RESPONSE_SIZE was received */
    no_memory       /* for as many bytes as `error` says */
};

struct stream_outcome {
    stream_end end;
    int error = 0; /* over TLS: what SSL_get_error last said; 0 when it was not asked */
    int count = 0; /* what the last call returned */
};

/* By which clock a handshake is charged. */
enum class handshake_clock { wall, steady };

/* Shakes hands. Only `done` with a count of 1 is a handshake. */
stream_outcome stream_shake_hands(const stream& s, handshake_clock clock = handshake_clock::wall);

/* Sends all. Over TLS it has gone out when the count is more than 1, also when that took longer
 * than the budget: written whole is 2 bytes or more. On a plain socket only `done` is success. */
stream_outcome stream_send(const stream& s, const char* data, size_t length);

/* Waits for bytes, appends what one read gives, with a NUL behind it, and looks at the headers.
 * `done` when there were some; `too_much` and `no_memory` before anything is read.
 *
 * An interrupted or empty plain read (EINTR, EAGAIN) ends the exchange, all other errors are tried
 * again within the budget: a connection that was reset reads as ended the next time. Over TLS only
 * a peer that said good-bye has ended the stream: a connection that just broke off, which OpenSSL 3
 * reports as a protocol error, has not. */
stream_outcome stream_receive(stream& s, http_response& r);

#endif

/* What the network of the collector may take, and for how long. */
#ifndef VINDRAL_COLLECTOR_SERVER_OPTIONS_H
#define VINDRAL_COLLECTOR_SERVER_OPTIONS_H

#include "ingest/body.h"
#include "ingest/pacing.h"
#include "ingest/session.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
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
    /* Polls with results are reset before their bodies, and nobody may log in, while blocks have
     * waited for the store longer than that. */
    std::chrono::milliseconds max_behind{5000};
    login_limits logins;
    /* What is reset for that is so after a time by chance, up to this, unless so many connections
     * wait for it already. */
    std::chrono::milliseconds spread{5000};
    size_t max_spread = 1000;
    session_limits sessions;
    server_deadlines deadlines;
};

#endif

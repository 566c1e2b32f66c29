/* What one connection, one caller and all of them together may take of the web server. */
#ifndef VINDRAL_COLLECTOR_WEB_LIMITS_H
#define VINDRAL_COLLECTOR_WEB_LIMITS_H

#include <chrono>
#include <cstddef>

struct web_limits {
    size_t connections = 12000;
    size_t connections_of_one = 2000; /* address; of loopback: all of them */
    size_t head = 16u << 10;
    size_t target = 8u << 10;
    size_t body = 1u << 20;
    size_t bodies = 16u << 20; /* of all connections */
    size_t answer = 32u << 20;
    size_t answers = 128u << 20;       /* that wait for their readers, of all connections */
    size_t answers_of_one = 64u << 20; /* more than one is */
    size_t stream_buffer = 32u << 10;
    size_t streams = 10000, streams_of_one = 1000; /* of a token, with its sessions */
    size_t waiting = 256, waiting_of_one = 32;     /* requests, for a reading thread */
    int requests_a_minute = 1200; /* of a token or, without, an address; bursts of as many */
    int sign_ins_a_minute = 20;   /* that fail, of an address */
    std::chrono::milliseconds head_time{10000}, body_time{20000}, idle{60000}, answer_time{30000};
    std::chrono::milliseconds request_time{10000}; /* a resource's */
    std::chrono::milliseconds beat{15000};         /* of a stream that has nothing to say */
};

#endif

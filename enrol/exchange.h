/* One question to a collector on the port that agents poll, and its answer: HTTP/1.0 over TLS, on a
 * connection of its own, within half a minute. */
#ifndef VINDRAL_ENROL_EXCHANGE_H
#define VINDRAL_ENROL_EXCHANGE_H

#include "ctl/url.h"
#include "enrol/credentials.h"

#include <string>
#include <string_view>
#include <vector>

struct question {
    std::string method = "GET";
    std::string path;
    parameters headers = {};
    std::string body = {};
};

struct http_answer {
    int status = 0;
    std::string authority; /* Vnd-Authority */
    std::string body;      /* at most 256 KB */
    /* The server's certificate and what it sent with it. */
    std::vector<x509_ptr> server;
};

struct collector_place {
    base_url where;
    const std::vector<x509_ptr>* authorities = nullptr; /* null: nobody is verified */
    const identity* self = nullptr;                     /* is shown; null: nobody's */
};

/* Throws failure when there is no connection, no trust in it, or no whole answer. `sent` is set as
 * soon as any of the question may have arrived. */
http_answer ask(const collector_place& at, const question& what, bool* sent = nullptr);

/* The address of a collector, as people write it: "https://NAME[:PORT]", also with the path that
 * agents poll. Throws failure (usage). */
base_url read_collector_url(std::string_view text);
inline constexpr std::string_view poll_path = "/fcgi-bin/agentgateway";

/* The first line of an answer's body, to be shown. */
std::string reason_of(const http_answer& answer);

#endif

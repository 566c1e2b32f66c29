/* What enrolment and renewal share: questions to a collector and what is checked of its answers. */
#ifndef VINDRAL_ENROL_STEPS_H
#define VINDRAL_ENROL_STEPS_H

#include "enrol/credentials.h"
#include "enrol/exchange.h"

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

/* A line on standard output, at once. */
void say(const std::string& line);
void complain(const std::string& line); /* on standard error */

/* What is wrong with a token that is none; "" for one that may be good. */
std::string what_is_wrong_with(std::string_view token);

/* The authorities that a collector is verified with now. */
struct authorities {
    std::vector<x509_ptr> all;
    std::string pem;                         /* of these, and of nothing else */
    std::optional<protocol::sha256> signing; /* agents' certificates */
};
/* Asks without verifying anybody, and takes the one certificate of that hash, nothing else. */
x509_ptr find_pinned(const base_url& where, const protocol::sha256& hash);
/* Asks a collector that is verified. Throws failure as well when it would not be trusted by what it
 * answers. */
authorities ask_authorities(const collector_place& at);

/* Asks for a certificate, again while the collector cannot (503, for a minute) or an admin has not
 * decided (202, until `deadline`; `waits` is called the first time). Throws failure when it is
 * refused. */
struct wish {
    const base_url& where;
    const std::vector<x509_ptr>& trusted;
    const identity* self = nullptr;
    EVP_PKEY* key = nullptr;
    parameters headers = {};
    bool* sent = nullptr;    /* set when the request may have arrived */
    bool* refused = nullptr; /* set when it was refused: there is no certificate */
    std::chrono::steady_clock::time_point deadline = {};
    std::function<void()> waits = nullptr;
};
x509_ptr ask_certificate(const wish& what);

/* "web-01 of operator@example.org", printable. */
std::string shown(const protocol::agent_identity& who);

#endif

/* Keys, requests and certificates as OpenSSL has them, and as text. Keys are ECDSA P-256. What is
 * malformed is null or empty; what cannot be made throws failure. */
#ifndef VINDRAL_ENROL_CREDENTIALS_H
#define VINDRAL_ENROL_CREDENTIALS_H

#include "protocol/enrolment.h"

#include <cstdint>
#include <memory>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

template <auto release>
struct released_by {
    template <typename T>
    void operator()(T* object) const {
        release(object);
    }
};
using key_ptr = std::unique_ptr<EVP_PKEY, released_by<EVP_PKEY_free>>;
using x509_ptr = std::unique_ptr<X509, released_by<X509_free>>;
using store_ptr = std::unique_ptr<X509_STORE, released_by<X509_STORE_free>>;

/* The first reason in OpenSSL's queue, which is emptied; `otherwise` when there is none. */
std::string take_tls_reason(const char* otherwise);

key_ptr make_key();
std::string text_of(EVP_PKEY* key); /* PEM; whoever has it is this host */
std::string text_of(X509* certificate);
std::string request_for(EVP_PKEY* key); /* PKCS #10, PEM */
key_ptr key_in(std::string_view pem);
/* At most a hundred. Empty as well when one of them is damaged. */
std::vector<x509_ptr> certificates_in(std::string_view pem);

protocol::sha256 hash_of(EVP_PKEY* key); /* SHA-256 of its public half */
protocol::sha256 hash_of(X509* certificate);
protocol::sha256 hash_of(std::string_view bytes);
std::string fingerprint(const protocol::sha256& hash); /* "SHA256:" and base64, as ssh has them */
/* So, or as 64 hexadecimal digits, with or without colons. */
std::optional<protocol::sha256> read_fingerprint(std::string_view text);
std::string hex(const protocol::sha256& hash);

/* Who a certificate says its holder is; none for a certificate that is no agent's. */
std::optional<protocol::agent_identity> holder_of(X509* certificate);
protocol::agent_identity agent_of(X509* certificate); /* throws failure instead */
int64_t begin_of(X509* certificate);                  /* seconds since the epoch */
int64_t end_of(X509* certificate);
std::string subject_of(X509* certificate); /* printable */
std::string time_text(int64_t seconds);    /* "2026-05-01T12:00:00Z" */

/* What an identity file holds: key and certificate; which authority signs agents' certificates, as
 * far as was known when it was written; and which command enrolled the host, until the first
 * renewal. In one file, so that all is exchanged at once. */
struct identity {
    key_ptr key;
    x509_ptr certificate;
    std::optional<protocol::sha256> authority, command;
};
std::string text_of(const identity& of);
/* None for a text that holds no key and certificate that belong together. */
std::optional<identity> read_identity(std::string_view text);

/* Of these, each trusted as it is. Throws failure when there is no memory. */
store_ptr store_of(const std::vector<x509_ptr>& authorities);
/* Whether a server's certificate leads to one of them; `others` may help on the way. */
bool leads_to(X509* server, STACK_OF(X509) * others, const std::vector<x509_ptr>& authorities);

#endif

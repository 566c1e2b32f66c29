/* Keys and certificates: as files, as OpenSSL has them, and the names in them. Keys are ECDSA
 * P-256.
 *
 * A pointer that comes back null, or false, has one line in `error`, or in OpenSSL's queue where
 * there is no such parameter. */
#ifndef VINDRAL_COLLECTOR_CERTIFICATE_H
#define VINDRAL_COLLECTOR_CERTIFICATE_H

#include "protocol/enrolment.h"

#include <cstdint>
#include <memory>
#include <openssl/evp.h>
#include <openssl/x509v3.h>
#include <string>
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

/* The first reason in OpenSSL's queue of this thread, which is emptied. */
std::string take_tls_error();

/* PEM, not encrypted. The file of a new key is for its owner only. */
key_ptr read_key(const std::string& path, std::string& error);
key_ptr make_key(const std::string& path, std::string& error);

/* The first certificate of a file; null without a word when there is none. And all, in order. */
x509_ptr read_certificate(const std::string& path);
std::vector<x509_ptr> read_certificates(const std::string& path);

/* Null, for a certificate that could not be made, is an error as well. */
bool write_certificate(const std::string& path, X509* certificate, std::string& error);

/* An authority of 20 years, for signing certificates only, and what it signs: for a server of these
 * names, 10 years; for an agent, days. None outlives the authority. */
struct authority {
    key_ptr key;
    x509_ptr certificate;
};
x509_ptr make_authority_certificate(EVP_PKEY* key, const char* name);
x509_ptr make_server_certificate(EVP_PKEY* key, const authority& by,
                                 const std::vector<std::string>& names);
/* `uri`: of protocol/enrolment.h. The serial number is the generation, from 1 on, and behind it
 * serial_random random bytes. */
constexpr size_t serial_random = 12;
x509_ptr make_agent_certificate(EVP_PKEY* key, const authority& by, const std::string& uri,
                                uint32_t generation, int days);

/* PEM; "" for null. SHA-256 of its DER. */
std::string pem_of(X509* certificate);
protocol::sha256 hash_of_certificate(X509* certificate);

/* By name and signature, whatever the issuer was made for: a self-signed one need be no authority.
 */
bool is_issued_by(X509* certificate, X509* issuer);

/* Within two years; and when, as text. */
bool ends_soon(X509* certificate);
std::string end_of(X509* certificate);
int64_t seconds_of(const ASN1_TIME* time); /* since the epoch; 0 for what is no time */

/* The host names and addresses in a certificate. */
std::vector<std::string> names_in(X509* certificate);

/* Appends those of `more` that are not there, in the form in which they are compared. */
void add_names(std::vector<std::string>& names, const std::vector<std::string>& more);

/* True for what a certificate may name: an address, or up to 253 letters, digits, '-', '_' and '.',
 * not at either end. */
bool is_server_name(const std::string& name);

/* This host's name, or "localhost" when it has none that may stand in a certificate. */
std::string own_host_name();

#endif

/* The collector's TLS identity and the context that every connection is made from. */
#ifndef VINDRAL_COLLECTOR_CERTIFICATE_H
#define VINDRAL_COLLECTOR_CERTIFICATE_H

#include <memory>
#include <openssl/ssl.h>
#include <string>
#include <vector>

struct identity_files {
    std::string certificate; /* PEM, own certificate first, then the chain */
    std::string key;         /* PEM, not encrypted */
};

/* What operators are told about an identity. */
struct identity_report {
    std::string authority;          /* file that hosts verify it with; empty: not known here */
    std::vector<std::string> names; /* names and addresses in the certificate */
    std::vector<std::string> notes; /* one line each: what was made, what is not as wished */
};

/* The pair certificate.pem and key.pem in `directory`, made when both are missing, for localhost,
 * 127.0.0.1, ::1, this host's name and `names` (host names and addresses). All keys are ECDSA
 * P-256.
 *
 * Made is first an authority of its own, ca-key.pem and ca.pem (20 years, for signing server
 * certificates only), unless both are there; it signs the certificate (10 years). Keys are readable
 * by their owner only. A file is written under another name and then renamed, each key ahead of its
 * certificate: a start cut short leaves nothing half-written, and the next goes on from there.
 *
 * A pair that is there stays, whoever made it, but for one case: a certificate of this directory's
 * authority that lacks a name or ends within two years is replaced by a new one for the same key,
 * with the names of the old one and those it lacks.
 *
 * False with one line in `error` when a file cannot be read or written, or when the key of a pair
 * is missing. One process at a time. */
bool ensure_identity(const std::string& directory, const std::vector<std::string>& names,
                     identity_files& out, identity_report& report, std::string& error);

/* The report on a pair of the operator's own. */
identity_report report_identity(const identity_files& files);

/* True for what ensure_identity takes as a name: an address, or up to 253 letters, digits, '-', '_'
 * and '.', not at either end. */
bool is_server_name(const std::string& name);

/* This host's name, or "localhost" when it has none that may stand in a certificate. */
std::string own_host_name();

struct free_ssl_ctx {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using tls_context = std::unique_ptr<SSL_CTX, free_ssl_ctx>;

/* A server's context: TLS 1.2 or newer, no resumption of any kind (agents never resume), no
 * renegotiation, buffers given back while a connection is idle. Null with one line in `error` when
 * a file is unreadable or the key does not belong to the certificate. */
tls_context make_tls_context(const identity_files& files, std::string& error);

#endif

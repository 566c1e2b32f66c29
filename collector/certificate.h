/* The collector's TLS identity and the context that every connection is made from. */
#ifndef VINDRAL_COLLECTOR_CERTIFICATE_H
#define VINDRAL_COLLECTOR_CERTIFICATE_H

#include <memory>
#include <openssl/ssl.h>
#include <string>

struct identity_files {
    std::string certificate; /* PEM, own certificate first, then the chain */
    std::string key;         /* PEM, not encrypted */
};

/* The pair certificate.pem and key.pem in `directory`, made when both are missing: ECDSA P-256,
 * self-signed, ten years, valid for localhost, this host's name, 127.0.0.1 and ::1. The key is
 * readable by its owner only and is written first, each file under another name and then renamed,
 * so that a start cut short leaves nothing half-written; a key without a certificate gets one.
 * False with one line in `error` when a file cannot be read or written, or when only the key is
 * missing. */
bool ensure_identity(const std::string& directory, identity_files& out, std::string& error);

struct free_ssl_ctx {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using tls_context = std::unique_ptr<SSL_CTX, free_ssl_ctx>;

/* A server's context: TLS 1.2 or newer, no resumption of any kind (agents never resume), no
 * renegotiation, buffers given back while a connection is idle. Null with one line in `error` when
 * a file is unreadable or the key does not belong to the certificate. */
tls_context make_tls_context(const identity_files& files, std::string& error);

#endif

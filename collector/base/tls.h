/* The context that every TLS connection is made from. */
#ifndef VINDRAL_COLLECTOR_TLS_H
#define VINDRAL_COLLECTOR_TLS_H

#include "base/certificate.h"
#include "base/identity.h"

#include <openssl/ssl.h>
#include <string>

using tls_context = std::unique_ptr<SSL_CTX, released_by<SSL_CTX_free>>;

/* A server's context: TLS 1.2 or newer, no resumption of any kind (agents never resume), no
 * renegotiation, buffers given back while a connection is idle. Null with one line in `error` when
 * a file is unreadable or the key does not belong to the certificate. */
tls_context make_tls_context(const identity_files& files, std::string& error);

#endif

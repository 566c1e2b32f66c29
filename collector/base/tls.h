/* The context that every TLS connection is made from. */
#ifndef VINDRAL_COLLECTOR_TLS_H
#define VINDRAL_COLLECTOR_TLS_H

#include "base/certificate.h"
#include "base/identity.h"

#include <openssl/ssl.h>
#include <string>
#include <vector>

using tls_context = std::unique_ptr<SSL_CTX, released_by<SSL_CTX_free>>;

/* A server's context: TLS 1.2 or newer, no resumption of any kind, no renegotiation, buffers given
 * back while a connection is idle. Null with one line in `error` when a file is unreadable or the
 * key does not belong to the certificate. */
tls_context make_tls_context(const identity_files& files, std::string& error);

/* Looks at the certificate that a client shows in its handshake, ahead of the proof that it has the
 * key. */
class client_look {
public:
    virtual ~client_look() = default;
    /* X509_V_OK, or another X509_V_ERR_, by which the handshake fails with the alert for it. Must
     * not throw. */
    virtual int look(X509* certificate) = 0;
};

/* Has the handshakes of this context ask for a certificate of one of these authorities. A client
 * may do without. One that is shown is looked at by the connection's own look, and refused where it
 * has none; what comes with it, certificates of whoever may have signed it, counts for nothing, and
 * is refused before it is read when it is more than a few KiB.
 *
 * Who has shown one may resume, by TLS 1.3, for as long as resumption_lasts_s: that saves both ends
 * the certificates and their signatures, which are the dearest part of a poll. What is resumed is
 * kept here, not in a ticket, some 6 KB each, up to most_resumptions, and ends with the context.
 * Others are given nothing to resume. */
constexpr long resumption_lasts_s = 3600;
constexpr long most_resumptions = 16384;
void ask_for_certificate(SSL_CTX* context, const std::vector<x509_ptr>& authorities);
/* Must outlive the handshake; null behind it. */
void set_client_look(SSL* ssl, client_look* who);
/* To be called behind a handshake that went well. One that resumed has looked at nothing yet: so
 * this does, and ends what was resumed when that fails. False then; there is no alert for it, and
 * the next handshake of that peer is a whole one. */
bool look_at_resumed(SSL* ssl, client_look* who);

#endif

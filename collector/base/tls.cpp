#include "base/tls.h"

#include "base/files.h"

#include <openssl/err.h>
#include <unistd.h>

static bool load_identity(SSL_CTX* context, const identity_files& files, std::string& error) {
    ERR_clear_error();
    if (access(files.certificate.c_str(), R_OK) != 0) {
        error = system_error("cannot read the certificate " + files.certificate);
        return false;
    }
    if (SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str()) != 1) {
        error = "cannot read the certificate " + files.certificate + " as PEM: " + take_tls_error();
        return false;
    }
    key_ptr key = read_key(files.key, error);
    if (!key) {
        return false;
    }
    if (SSL_CTX_use_PrivateKey(context, key.get()) != 1 ||
        SSL_CTX_check_private_key(context) != 1) {
        ERR_clear_error();
        error = "the key " + files.key + " does not belong to the certificate " + files.certificate;
        return false;
    }
    return true;
}

tls_context make_tls_context(const identity_files& files, std::string& error) {
    tls_context context(SSL_CTX_new(TLS_server_method()));
    if (!context) {
        error = "cannot set up TLS: " + take_tls_error();
        return nullptr;
    }
    SSL_CTX* c = context.get();
    SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION);
    SSL_CTX_set_options(c, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION |
                               SSL_OP_CIPHER_SERVER_PREFERENCE);
    /* AES-128 with SHA-256 first: enough for the purpose, and a handshake is mostly hashing beside
     * its elliptic curves, which SHA-384 makes dearer at both ends. */
    SSL_CTX_set_ciphersuites(
        c, "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_256_GCM_SHA384");
    SSL_CTX_set_cipher_list(c, "ECDHE+AESGCM+AES128:DEFAULT");
    /* The first message of a handshake costs its sender nothing, and us a key exchange: 0.2 s with
     * the largest finite-field group. */
    SSL_CTX_set1_groups_list(c, "X25519:P-256:P-384");
    SSL_CTX_set_num_tickets(c, 0);
    SSL_CTX_set_session_cache_mode(c, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(c, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                            SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    /* One read call a record instead of two. */
    SSL_CTX_set_read_ahead(c, 1);
    /* An agent reads 4095 bytes and then waits for its socket. With records no larger than that,
     * nothing is ever left inside its TLS layer where that wait does not see it. */
    SSL_CTX_set_max_send_fragment(c, 4095);
    if (!load_identity(c, files, error)) {
        return nullptr;
    }
    return context;
}

/* A certificate of an agent has some 700 bytes, 2 KiB with the longest names and keys; this one has
 * room for the authority's beside it. */
static constexpr long most_of_certificates = 8192; /* bytes */

static int look_at_client(X509_STORE_CTX* checked, void*) {
    auto* ssl = static_cast<SSL*>(
        X509_STORE_CTX_get_ex_data(checked, SSL_get_ex_data_X509_STORE_CTX_idx()));
    X509* certificate = X509_STORE_CTX_get0_cert(checked);
    auto* who = ssl ? static_cast<client_look*>(SSL_get_app_data(ssl)) : nullptr;
    int reason = who && certificate ? who->look(certificate) : X509_V_ERR_APPLICATION_VERIFICATION;
    ERR_clear_error(); /* what the look left: the handshake's own reason has to be the first */
    X509_STORE_CTX_set_error(checked, reason);
    if (reason == X509_V_OK) {
        SSL_set_num_tickets(ssl, 1);
    }
    return reason == X509_V_OK ? 1 : 0;
}

static void forget_session(SSL* ssl) {
    SSL_CTX_remove_session(SSL_get_SSL_CTX(ssl), SSL_get_session(ssl));
}

bool look_at_resumed(SSL* ssl, client_look* who) {
    if (SSL_version(ssl) < TLS1_3_VERSION) { /* kept by OpenSSL whoever it is */
        forget_session(ssl);
    }
    if (!SSL_session_reused(ssl)) {
        return true;
    }
    X509* certificate = SSL_get0_peer_certificate(ssl);
    if (who && certificate && who->look(certificate) == X509_V_OK) {
        return true;
    }
    forget_session(ssl);
    return false;
}

void ask_for_certificate(SSL_CTX* context, const std::vector<x509_ptr>& authorities) {
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, look_at_client, nullptr);
    SSL_CTX_set_max_cert_list(context, most_of_certificates);
    static const unsigned char place[] = "agents";
    SSL_CTX_set_session_id_context(context, place, sizeof place);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_SERVER);
    SSL_CTX_sess_set_cache_size(context, most_resumptions);
    SSL_CTX_set_timeout(context, resumption_lasts_s);
    /* Browsers that look at the page are not to offer what they have. */
    for (const x509_ptr& by : authorities) {
        SSL_CTX_add_client_CA(context, by.get());
    }
}

void set_client_look(SSL* ssl, client_look* who) {
    SSL_set_app_data(ssl, who);
}

#include "sslutiles_verify.h"

#include "guards.h"
#include "libsslloader.h"
#include "vindral_log.h"

#include <arpa/inet.h>
#include <cstring>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#define CANNOT_VERIFY "ERROR: make_poll: Cannot verify the server \"%s\" with CAFILE \"%s\": "

static bool is_address(const char* host) {
    in6_addr address; /* room for either */
    return inet_pton(AF_INET, host, &address) == 1 || inet_pton(AF_INET6, host, &address) == 1;
}

/* An empty name would mean to the library that any will do, and one that begins with a dot, any
 * below it. */
static int expect_name(SSL* session, X509_VERIFY_PARAM* rules, const char* host) {
    size_t length = strlen(host);
    if (length > 0 && host[length - 1] == '.') {
        length--;
    }
    heap_text name(length > 0 && *host != '.' ? strndup(host, length) : nullptr);
    return name != nullptr && lib_X509_VERIFY_PARAM_set1_host(rules, name.get(), 0) == 1 &&
           lib_SSL_ctrl(session, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                        name.get()) == 1;
}

int expect_server(SSL* session, const char* host) {
    X509_VERIFY_PARAM* rules = lib_SSL_get0_param(session);
    lib_X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_PARTIAL_CHAIN);
    lib_X509_VERIFY_PARAM_set_hostflags(rules, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS |
                                                   X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
    if (is_address(host) ? lib_X509_VERIFY_PARAM_set1_ip_asc(rules, host) == 1
                         : expect_name(session, rules, host)) {
        return 1;
    }
    leveledadd2log(0, "ERROR: make_poll: Cannot verify a server of the name \"%s\".", host);
    return 0;
}

/* Which check an error of the verification belongs to. */
static const char* check_of(long error) {
    switch (error) {
    case X509_V_ERR_HOSTNAME_MISMATCH:
        return "host name";
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return "IP address";
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "dates";
    default:
        return "certificate chain";
    }
}

int check_server(SSL* session, bool connected, const char* host, const char* ca_file) {
    long error = lib_SSL_get_verify_result(session);
    if (error != X509_V_OK) {
        leveledadd2log(0, CANNOT_VERIFY "the check of the %s failed: %s.", host, ca_file,
                       check_of(error), lib_X509_verify_cert_error_string(error));
        return 0;
    }
    /* A host whose TLS library is set up to offer anonymous ciphers gets as far without one. */
    if (connected && lib_SSL_get_peer_cert_chain(session) == nullptr) {
        leveledadd2log(0, CANNOT_VERIFY "it sent no certificate.", host, ca_file);
        return 0;
    }
    return 1;
}

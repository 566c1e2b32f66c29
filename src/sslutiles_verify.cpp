#include "sslutiles_verify.h"

#include "guards.h"
#include "libsslloader.h"
#include "vindral_log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#define CANNOT_USE "ERROR: make_poll: Cannot use CAFILE \"%s\": "
#define CANNOT_VERIFY "ERROR: make_poll: Cannot verify the server \"%s\" with CAFILE \"%s\": "

namespace {

/* What tells one state of a file from another. */
struct file_state {
    dev_t device;
    ino_t number;
    off_t size;
    timespec written, changed;
};

} // namespace

static SSL_CTX* context = nullptr; /* made from the file in this state */
static file_state loaded;

static bool same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

static bool operator==(const file_state& a, const file_state& b) {
    return a.device == b.device && a.number == b.number && a.size == b.size &&
           same_time(a.written, b.written) && same_time(a.changed, b.changed);
}

/* Opens the file, which is the way to learn whether that is allowed. Returns 1, or 0 with errno. */
static int look_at(const char* ca_file, file_state* state) {
    unique_fd file(open(ca_file, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat found;
    if (!file || fstat(file.get(), &found) != 0) {
        return 0;
    }
    if (!S_ISREG(found.st_mode)) {
        errno = S_ISDIR(found.st_mode) ? EISDIR : EINVAL;
        return 0;
    }
    *state = {found.st_dev, found.st_ino, found.st_size, found.st_mtim, found.st_ctim};
    return 1;
}

static void forget() {
    if (context != nullptr) {
        lib_SSL_CTX_free(context);
        context = nullptr;
    }
}

/* Logs the library's first reason, or `otherwise` when it has none to give. */
static void log_reason(const char* ca_file, const char* otherwise) {
    char text[256];
    unsigned long error = lib_ERR_get_error();
    leveledadd2log(0, CANNOT_USE "%s", ca_file,
                   error != 0 ? lib_ERR_error_string(error, text) : otherwise);
}

static int load(const char* ca_file) {
    context = lib_SSL_CTX_new_private(lib_SSLv23_client_method());
    if (context == nullptr) {
        log_reason(ca_file, "no memory");
        return 0;
    }
    if (lib_SSL_CTX_load_verify_locations(context, ca_file, nullptr) != 1) {
        log_reason(ca_file, "no certificate in it");
        forget();
        return 0;
    }
    lib_SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    leveledadd2log(0, "INFO: make_poll: CAFILE \"%s\" was read: the server is verified.", ca_file);
    return 1;
}

SSL_CTX* verifying_context(const char* ca_file) {
    if (ssl_missing_to_verify != nullptr) {
        leveledadd2log(0, CANNOT_USE "the TLS library has no %s", ca_file, ssl_missing_to_verify);
        return nullptr;
    }
    file_state now;
    if (!look_at(ca_file, &now)) {
        leveledadd2log(0, CANNOT_USE "%s", ca_file, strerror(errno));
        forget();
        return nullptr;
    }
    if (context != nullptr && now == loaded) {
        return context;
    }
    forget();
    if (!load(ca_file)) {
        return nullptr;
    }
    loaded = now; /* older than what was read, at worst: then the next poll reads again */
    return context;
}

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

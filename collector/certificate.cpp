#include "certificate.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

template <auto release>
struct released_by {
    template <typename T>
    void operator()(T* object) const {
        release(object);
    }
};
using key_ptr = std::unique_ptr<EVP_PKEY, released_by<EVP_PKEY_free>>;
using x509_ptr = std::unique_ptr<X509, released_by<X509_free>>;
using bio_ptr = std::unique_ptr<BIO, released_by<BIO_free_all>>;
using extension_ptr = std::unique_ptr<X509_EXTENSION, released_by<X509_EXTENSION_free>>;
using bignum_ptr = std::unique_ptr<BIGNUM, released_by<BN_free>>;
using file_ptr = std::unique_ptr<FILE, released_by<fclose>>;

/* The first reason in OpenSSL's queue of this thread, which is emptied. */
static std::string take_tls_error() {
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    ERR_clear_error();
    return reason ? reason : "unknown reason";
}

/* Keeps OpenSSL from asking for a passphrase on the terminal. */
static int no_passphrase(char*, int, int, void*) {
    return 0;
}

static bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

/* Writes a new file of `mode` and puts it in place whole and on disk. */
static bool write_file(const std::string& path, std::string_view text, mode_t mode,
                       std::string& error) {
    std::string fresh = path + ".new";
    unlink(fresh.c_str()); /* left over from a start that was cut short */
    int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    bool written =
        fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size()) && fsync(fd) == 0;
    if (written) {
        written = rename(fresh.c_str(), path.c_str()) == 0;
    }
    if (!written) {
        error = "cannot write " + path + ": " + strerror(errno);
    }
    if (fd >= 0) {
        close(fd);
    }
    return written;
}

static key_ptr read_key(const std::string& path, std::string& error) {
    file_ptr file(fopen(path.c_str(), "re"));
    if (!file) {
        error = "cannot read the key " + path + ": " + strerror(errno);
        return nullptr;
    }
    ERR_clear_error();
    key_ptr key(PEM_read_PrivateKey(file.get(), nullptr, no_passphrase, nullptr));
    if (!key) {
        error = "cannot read the key " + path + " as PEM without a passphrase: " + take_tls_error();
    }
    return key;
}

/* Everything that PEM_write_... put into memory. */
static std::string_view contents(BIO* memory) {
    char* data = nullptr;
    long length = BIO_get_mem_data(memory, &data);
    return {data, size_t(length)};
}

static key_ptr make_key(const std::string& path, std::string& error) {
    key_ptr key(EVP_EC_gen("P-256"));
    bio_ptr pem(BIO_new(BIO_s_secmem()));
    if (!key || !pem ||
        !PEM_write_bio_PKCS8PrivateKey(pem.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                       nullptr)) {
        error = "cannot make a key: " + take_tls_error();
        return nullptr;
    }
    if (!write_file(path, contents(pem.get()), 0600, error)) {
        return nullptr;
    }
    return key;
}

/* The names that a client may have used to get here. A host name with characters that would mean
 * something to the extension's parser is left out. */
static std::string own_names() {
    std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
    char host[256] = "";
    if (gethostname(host, sizeof(host) - 1) != 0) {
        return names;
    }
    std::string_view name = host;
    auto harmless = [](unsigned char c) { return isalnum(c) || c == '-' || c == '.'; };
    if (!name.empty() && name != "localhost" && std::all_of(name.begin(), name.end(), harmless)) {
        names += ",DNS:" + std::string(name);
    }
    return names;
}

static bool add_extension(X509* certificate, int which, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    extension_ptr extension(X509V3_EXT_conf_nid(nullptr, &context, which, value));
    return extension && X509_add_ext(certificate, extension.get(), -1);
}

static bool set_random_serial(X509* certificate) {
    bignum_ptr serial(BN_new());
    return serial && BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) &&
           BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate));
}

static x509_ptr self_sign(EVP_PKEY* key) {
    constexpr long day = 24 * 60 * 60;
    constexpr long validity = 3652 * day;
    x509_ptr certificate(X509_new());
    if (!certificate) {
        return nullptr;
    }
    X509* c = certificate.get();
    X509_NAME* name = X509_get_subject_name(c);
    bool complete =
        X509_set_version(c, X509_VERSION_3) && set_random_serial(c) &&
        X509_gmtime_adj(X509_getm_notBefore(c), -day) && /* a client's clock may be behind */
        X509_gmtime_adj(X509_getm_notAfter(c), validity) && X509_set_pubkey(c, key) &&
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("vindral-collector"), -1,
                                   -1, 0) &&
        X509_set_issuer_name(c, name) &&
        add_extension(c, NID_basic_constraints, "critical,CA:FALSE") &&
        add_extension(c, NID_key_usage, "critical,digitalSignature") &&
        add_extension(c, NID_ext_key_usage, "serverAuth") &&
        add_extension(c, NID_subject_key_identifier, "hash") &&
        add_extension(c, NID_subject_alt_name, own_names().c_str()) &&
        X509_sign(c, key, EVP_sha256());
    return complete ? std::move(certificate) : nullptr;
}

static bool make_certificate(const std::string& path, EVP_PKEY* key, std::string& error) {
    x509_ptr certificate = self_sign(key);
    bio_ptr pem(BIO_new(BIO_s_mem()));
    if (!certificate || !pem || !PEM_write_bio_X509(pem.get(), certificate.get())) {
        error = "cannot make a certificate: " + take_tls_error();
        return false;
    }
    return write_file(path, contents(pem.get()), 0644, error);
}

bool ensure_identity(const std::string& directory, identity_files& out, std::string& error) {
    out = {directory + "/certificate.pem", directory + "/key.pem"};
    if (exists(out.certificate)) {
        if (!exists(out.key)) {
            error = out.certificate + " is there but " + out.key +
                    " is not: put the key back, or remove the certificate to get a new pair";
            return false;
        }
        return true;
    }
    key_ptr key = exists(out.key) ? read_key(out.key, error) : make_key(out.key, error);
    return key && make_certificate(out.certificate, key.get(), error);
}

static bool load_identity(SSL_CTX* context, const identity_files& files, std::string& error) {
    ERR_clear_error();
    if (access(files.certificate.c_str(), R_OK) != 0) {
        error = "cannot read the certificate " + files.certificate + ": " + strerror(errno);
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

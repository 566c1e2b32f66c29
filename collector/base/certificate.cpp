#include "base/certificate.h"

#include <algorithm>
#include <arpa/inet.h>
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
using names_ptr = std::unique_ptr<GENERAL_NAMES, released_by<GENERAL_NAMES_free>>;
using file_ptr = std::unique_ptr<FILE, released_by<fclose>>;

static constexpr long day_s = 24 * 60 * 60;
static constexpr long authority_validity_s = 7305 * day_s;
static constexpr long server_validity_s = 3652 * day_s;
static constexpr int renewal_days =
    730; /* before the end; a collector may run long without a start */

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

/* The first certificate of a file; null without a word when there is none. */
static x509_ptr read_certificate(const std::string& path) {
    file_ptr file(fopen(path.c_str(), "re"));
    x509_ptr certificate(file ? PEM_read_X509(file.get(), nullptr, no_passphrase, nullptr)
                              : nullptr);
    ERR_clear_error();
    return certificate;
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

/* --- names ----------------------------------------------------------------------------------- */

/* The text of an address in its one usual form; empty for anything else. */
static std::string usual_address(const std::string& text) {
    unsigned char address[sizeof(in6_addr)];
    char usual[INET6_ADDRSTRLEN] = "";
    for (int family : {AF_INET, AF_INET6}) {
        if (inet_pton(family, text.c_str(), address) == 1) {
            inet_ntop(family, address, usual, sizeof usual);
        }
    }
    return usual;
}

bool is_server_name(const std::string& name) {
    auto harmless = [](unsigned char c) { return isalnum(c) || c == '-' || c == '_' || c == '.'; };
    return !usual_address(name).empty() ||
           (!name.empty() && name.size() <= 253 && isalnum((unsigned char)name.front()) &&
            isalnum((unsigned char)name.back()) && std::all_of(name.begin(), name.end(), harmless));
}

std::string own_host_name() {
    char host[256] = "";
    bool usable = gethostname(host, sizeof host - 1) == 0 && is_server_name(host);
    return usable ? host : "localhost";
}

/* The form in which names are compared. */
static std::string usual_name(std::string name) {
    std::string address = usual_address(name);
    if (!address.empty()) {
        return address;
    }
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return char(tolower(c)); });
    return name;
}

/* Appends those of `more` that are not there. */
static void add_names(std::vector<std::string>& names, const std::vector<std::string>& more) {
    for (const std::string& name : more) {
        std::string usual = usual_name(name);
        if (std::find(names.begin(), names.end(), usual) == names.end()) {
            names.push_back(usual);
        }
    }
}

static std::vector<std::string> wanted_names(const std::vector<std::string>& names) {
    std::vector<std::string> wanted = {"localhost", "127.0.0.1", "::1"};
    add_names(wanted, {own_host_name()});
    add_names(wanted, names);
    return wanted;
}

/* The host names and addresses in a certificate. */
static std::vector<std::string> names_in(X509* certificate) {
    names_ptr found(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    std::vector<std::string> names;
    for (int i = 0; i < sk_GENERAL_NAME_num(found.get()); i++) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(found.get(), i);
        const unsigned char* data = ASN1_STRING_get0_data(name->d.ia5);
        int length = ASN1_STRING_length(name->d.ia5);
        char address[INET6_ADDRSTRLEN];
        if (name->type == GEN_DNS) {
            add_names(names, {std::string(reinterpret_cast<const char*>(data), size_t(length))});
        } else if (name->type == GEN_IPADD && (length == 4 || length == 16)) {
            add_names(names,
                      {inet_ntop(length == 4 ? AF_INET : AF_INET6, data, address, sizeof address)});
        }
    }
    return names;
}

/* As the extension's parser reads them. */
static std::string alternative_names(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) {
        list += list.empty() ? "" : ",";
        list += (usual_address(name).empty() ? "DNS:" : "IP:") + name;
    }
    return list;
}

/* --- making certificates --------------------------------------------------------------------- */

static bool add_extension(X509* certificate, X509* issuer, int which, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    extension_ptr extension(X509V3_EXT_conf_nid(nullptr, &context, which, value));
    return extension && X509_add_ext(certificate, extension.get(), -1);
}

static bool set_random_serial(X509* certificate) {
    bignum_ptr serial(BN_new());
    return serial && BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) &&
           BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate));
}

/* A certificate of `key` under that name, from yesterday on, since a client's clock may be behind.
 */
static x509_ptr begin_certificate(EVP_PKEY* key, const char* common_name, long validity_s) {
    x509_ptr certificate(X509_new());
    X509* c = certificate.get();
    bool begun =
        c && X509_set_version(c, X509_VERSION_3) && set_random_serial(c) &&
        X509_gmtime_adj(X509_getm_notBefore(c), -day_s) &&
        X509_gmtime_adj(X509_getm_notAfter(c), validity_s) && X509_set_pubkey(c, key) &&
        X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0);
    return begun ? std::move(certificate) : nullptr;
}

static x509_ptr make_authority_certificate(EVP_PKEY* key) {
    x509_ptr certificate = begin_certificate(key, "vindral-collector CA", authority_validity_s);
    X509* c = certificate.get();
    bool complete = c && X509_set_issuer_name(c, X509_get_subject_name(c)) &&
                    add_extension(c, c, NID_basic_constraints, "critical,CA:TRUE,pathlen:0") &&
                    add_extension(c, c, NID_key_usage, "critical,keyCertSign") &&
                    add_extension(c, c, NID_subject_key_identifier, "hash") &&
                    X509_sign(c, key, EVP_sha256());
    return complete ? std::move(certificate) : nullptr;
}

namespace {
struct authority {
    key_ptr key;
    x509_ptr certificate;
};
} // namespace

static x509_ptr make_server_certificate(EVP_PKEY* key, const authority& by,
                                        const std::vector<std::string>& names) {
    X509* issuer = by.certificate.get();
    x509_ptr certificate = begin_certificate(key, "vindral-collector", server_validity_s);
    X509* c = certificate.get();
    bool complete =
        c && X509_set_issuer_name(c, X509_get_subject_name(issuer)) &&
        add_extension(c, issuer, NID_basic_constraints, "critical,CA:FALSE") &&
        add_extension(c, issuer, NID_key_usage, "critical,digitalSignature") &&
        add_extension(c, issuer, NID_ext_key_usage, "serverAuth") &&
        add_extension(c, issuer, NID_subject_key_identifier, "hash") &&
        add_extension(c, issuer, NID_authority_key_identifier, "keyid:always") &&
        add_extension(c, issuer, NID_subject_alt_name, alternative_names(names).c_str());
    if (complete && ASN1_TIME_compare(X509_get0_notAfter(c), X509_get0_notAfter(issuer)) > 0) {
        complete = X509_set1_notAfter(c, X509_get0_notAfter(issuer)) == 1;
    }
    complete = complete && X509_sign(c, by.key.get(), EVP_sha256());
    return complete ? std::move(certificate) : nullptr;
}

static bool write_certificate(const std::string& path, X509* certificate, std::string& error) {
    bio_ptr pem(BIO_new(BIO_s_mem()));
    if (!certificate || !pem || !PEM_write_bio_X509(pem.get(), certificate)) {
        error = "cannot make a certificate: " + take_tls_error();
        return false;
    }
    return write_file(path, contents(pem.get()), 0644, error);
}

/* --- the state directory --------------------------------------------------------------------- */

static std::string authority_file(const std::string& directory) {
    return directory + "/ca.pem";
}

static std::string authority_key_file(const std::string& directory) {
    return directory + "/ca-key.pem";
}

static bool read_authority(const std::string& directory, authority& out, std::string& error) {
    std::string file = authority_file(directory), key_file = authority_key_file(directory);
    out.key = read_key(key_file, error);
    if (!out.key) {
        return false;
    }
    out.certificate = read_certificate(file);
    if (!out.certificate || X509_check_private_key(out.certificate.get(), out.key.get()) != 1) {
        ERR_clear_error();
        error = file + " is no certificate of the key " + key_file;
        return false;
    }
    return true;
}

static bool make_authority(const std::string& directory, authority& out, std::string& error) {
    std::string key_file = authority_key_file(directory);
    out.key = exists(key_file) ? read_key(key_file, error) : make_key(key_file, error);
    if (!out.key) {
        return false;
    }
    out.certificate = make_authority_certificate(out.key.get());
    return write_certificate(authority_file(directory), out.certificate.get(), error);
}

static bool ensure_authority(const std::string& directory, authority& out, std::string& error) {
    std::string file = authority_file(directory), key_file = authority_key_file(directory);
    if (!exists(file)) {
        return make_authority(directory, out, error);
    }
    if (!exists(key_file)) {
        error = file + " is there but " + key_file +
                " is not: put the key back, or remove the certificate to get a new pair, whose "
                "certificate all hosts then need";
        return false;
    }
    return read_authority(directory, out, error);
}

/* By name and signature, whatever the issuer was made for: a self-signed one need be no authority.
 */
static bool is_issued_by(X509* certificate, X509* issuer) {
    bool issued =
        X509_NAME_cmp(X509_get_issuer_name(certificate), X509_get_subject_name(issuer)) == 0 &&
        X509_verify(certificate, X509_get0_pubkey(issuer)) == 1;
    ERR_clear_error();
    return issued;
}

static bool ends_soon(X509* certificate) {
    int days = 0, seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return days < renewal_days;
}

static std::string end_of(X509* certificate) {
    bio_ptr text(BIO_new(BIO_s_mem()));
    ASN1_TIME_print(text.get(), X509_get0_notAfter(certificate));
    return std::string(contents(text.get()));
}

/* Puts a new certificate in the place of the old one; failing that, the old one goes on. */
static void renew(const std::string& directory, const identity_files& files,
                  std::vector<std::string> names, identity_report& report) {
    authority by;
    std::string error;
    key_ptr key;
    x509_ptr fresh;
    if (read_authority(directory, by, error) && (key = read_key(files.key, error))) {
        fresh = make_server_certificate(key.get(), by, names);
        if (write_certificate(files.certificate, fresh.get(), error)) {
            report.names = std::move(names);
            report.notes.push_back("the certificate " + files.certificate + " was renewed");
            return;
        }
    }
    report.notes.push_back("the certificate " + files.certificate + " cannot be renewed: " + error);
}

static void note_missing(const identity_files& files, const std::vector<std::string>& wanted,
                         identity_report& report) {
    for (const std::string& name : wanted) {
        if (std::find(report.names.begin(), report.names.end(), name) == report.names.end()) {
            report.notes.push_back("the certificate " + files.certificate + " does not name " +
                                   name);
        }
    }
}

identity_report report_identity(const identity_files& files) {
    identity_report report;
    x509_ptr certificate = read_certificate(files.certificate);
    if (!certificate) {
        return report; /* make_tls_context says why */
    }
    report.names = names_in(certificate.get());
    if (is_issued_by(certificate.get(), certificate.get())) {
        report.authority = files.certificate;
    }
    if (ends_soon(certificate.get())) {
        report.notes.push_back("the certificate " + files.certificate + " ends on " +
                               end_of(certificate.get()));
    }
    return report;
}

/* A pair that is there. */
static void keep_identity(const std::string& directory, const std::vector<std::string>& wanted,
                          const identity_files& files, identity_report& report) {
    x509_ptr certificate = read_certificate(files.certificate);
    x509_ptr ours = read_certificate(authority_file(directory));
    if (!certificate || !ours || !is_issued_by(certificate.get(), ours.get())) {
        report = report_identity(files);
        note_missing(files, wanted, report);
        return;
    }
    report.authority = authority_file(directory);
    report.names = names_in(certificate.get());
    if (ends_soon(ours.get())) {
        report.notes.push_back("the authority " + report.authority + " ends on " +
                               end_of(ours.get()));
    }
    bool outlived = ASN1_TIME_compare(X509_get0_notAfter(certificate.get()),
                                      X509_get0_notAfter(ours.get())) < 0;
    std::vector<std::string> names = report.names;
    add_names(names, wanted);
    if (names.size() > report.names.size() || (outlived && ends_soon(certificate.get()))) {
        renew(directory, files, std::move(names), report);
    }
    note_missing(files, wanted, report);
}

static bool make_identity(const std::string& directory, const std::vector<std::string>& names,
                          const identity_files& files, identity_report& report,
                          std::string& error) {
    authority by;
    if (!ensure_authority(directory, by, error)) {
        return false;
    }
    key_ptr key = exists(files.key) ? read_key(files.key, error) : make_key(files.key, error);
    if (!key) {
        return false;
    }
    x509_ptr certificate = make_server_certificate(key.get(), by, names);
    if (!write_certificate(files.certificate, certificate.get(), error)) {
        return false;
    }
    report.authority = authority_file(directory);
    report.names = names;
    return true;
}

bool ensure_identity(const std::string& directory, const std::vector<std::string>& names,
                     identity_files& out, identity_report& report, std::string& error) {
    out = {directory + "/certificate.pem", directory + "/key.pem"};
    report = {};
    std::vector<std::string> wanted = wanted_names(names);
    if (!exists(out.certificate)) {
        return make_identity(directory, wanted, out, report, error);
    }
    if (!exists(out.key)) {
        error = out.certificate + " is there but " + out.key +
                " is not: put the key back, or remove the certificate to get a new pair";
        return false;
    }
    keep_identity(directory, wanted, out, report);
    return true;
}

/* --- the context -------------------------------------------------------------------------------
 */

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

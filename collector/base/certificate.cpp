#include "base/certificate.h"

#include "base/files.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <unistd.h>

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

std::string take_tls_error() {
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    ERR_clear_error();
    return reason ? reason : "unknown reason";
}

/* Keeps OpenSSL from asking for a passphrase on the terminal. */
static int no_passphrase(char*, int, int, void*) {
    return 0;
}

key_ptr read_key(const std::string& path, std::string& error) {
    file_ptr file(fopen(path.c_str(), "re"));
    if (!file) {
        error = system_error("cannot read the key " + path);
        return nullptr;
    }
    ERR_clear_error();
    key_ptr key(PEM_read_PrivateKey(file.get(), nullptr, no_passphrase, nullptr));
    if (!key) {
        error = "cannot read the key " + path + " as PEM without a passphrase: " + take_tls_error();
    }
    return key;
}

x509_ptr read_certificate(const std::string& path) {
    file_ptr file(fopen(path.c_str(), "re"));
    x509_ptr certificate(file ? PEM_read_X509(file.get(), nullptr, no_passphrase, nullptr)
                              : nullptr);
    ERR_clear_error();
    return certificate;
}

std::vector<x509_ptr> read_certificates(const std::string& path) {
    std::vector<x509_ptr> found;
    file_ptr file(fopen(path.c_str(), "re"));
    while (file) {
        x509_ptr next(PEM_read_X509(file.get(), nullptr, no_passphrase, nullptr));
        if (!next) {
            break;
        }
        found.push_back(std::move(next));
    }
    ERR_clear_error();
    return found;
}

static bool write_file(const std::string& path, std::string_view text, mode_t mode,
                       std::string& error) {
    bool written = replace_file(path, text, mode, file_owner::directory);
    if (!written) {
        error = system_error("cannot write " + path);
    }
    return written;
}

/* Everything that PEM_write_... put into memory. */
static std::string_view contents(BIO* memory) {
    char* data = nullptr;
    long length = BIO_get_mem_data(memory, &data);
    return {data, size_t(length)};
}

key_ptr make_key(const std::string& path, std::string& error) {
    key_ptr key(EVP_EC_gen("P-256"));
    bio_ptr pem(BIO_new(BIO_s_secmem()));
    if (!key || !pem ||
        !PEM_write_bio_PKCS8PrivateKey(pem.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                       nullptr)) {
        error = "cannot make a key: " + take_tls_error();
        return nullptr;
    }
    return write_file(path, contents(pem.get()), 0600, error) ? std::move(key) : nullptr;
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

void add_names(std::vector<std::string>& names, const std::vector<std::string>& more) {
    for (const std::string& name : more) {
        std::string usual = usual_name(name);
        if (std::find(names.begin(), names.end(), usual) == names.end()) {
            names.push_back(usual);
        }
    }
}

std::vector<std::string> names_in(X509* certificate) {
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

static bool set_serial(X509* certificate, uint32_t generation) {
    bignum_ptr serial(BN_new()), random(BN_new());
    return serial && random && BN_set_word(serial.get(), generation) &&
           BN_lshift(serial.get(), serial.get(), 8 * serial_random) &&
           BN_rand(random.get(), 8 * serial_random, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) &&
           BN_add(serial.get(), serial.get(), random.get()) &&
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

/* What is signed by one, and ends with it. */
static bool end_certificate(X509* c, const authority& by) {
    const ASN1_TIME* end = X509_get0_notAfter(by.certificate.get());
    bool outlives = ASN1_TIME_compare(X509_get0_notAfter(c), end) > 0;
    return (!outlives || X509_set1_notAfter(c, end) == 1) &&
           X509_sign(c, by.key.get(), EVP_sha256()) != 0;
}

x509_ptr make_authority_certificate(EVP_PKEY* key, const char* name) {
    x509_ptr certificate = begin_certificate(key, name, authority_validity_s);
    X509* c = certificate.get();
    bool complete = c && X509_set_issuer_name(c, X509_get_subject_name(c)) &&
                    add_extension(c, c, NID_basic_constraints, "critical,CA:TRUE,pathlen:0") &&
                    add_extension(c, c, NID_key_usage, "critical,keyCertSign") &&
                    add_extension(c, c, NID_subject_key_identifier, "hash") &&
                    X509_sign(c, key, EVP_sha256());
    return complete ? std::move(certificate) : nullptr;
}

x509_ptr make_server_certificate(EVP_PKEY* key, const authority& by,
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
        add_extension(c, issuer, NID_subject_alt_name, alternative_names(names).c_str()) &&
        end_certificate(c, by);
    return complete ? std::move(certificate) : nullptr;
}

x509_ptr make_agent_certificate(EVP_PKEY* key, const authority& by, const std::string& uri,
                                uint32_t generation, int days) {
    X509* issuer = by.certificate.get();
    x509_ptr certificate = begin_certificate(key, "vindral agent", days * day_s);
    X509* c = certificate.get();
    bool complete = c && set_serial(c, generation) &&
                    X509_set_issuer_name(c, X509_get_subject_name(issuer)) &&
                    add_extension(c, issuer, NID_basic_constraints, "critical,CA:FALSE") &&
                    add_extension(c, issuer, NID_key_usage, "critical,digitalSignature") &&
                    add_extension(c, issuer, NID_ext_key_usage, "clientAuth") &&
                    add_extension(c, issuer, NID_subject_key_identifier, "hash") &&
                    add_extension(c, issuer, NID_authority_key_identifier, "keyid:always") &&
                    add_extension(c, issuer, NID_subject_alt_name, ("URI:" + uri).c_str()) &&
                    end_certificate(c, by);
    return complete ? std::move(certificate) : nullptr;
}

std::string pem_of(X509* certificate) {
    bio_ptr pem(BIO_new(BIO_s_mem()));
    bool written = certificate && pem && PEM_write_bio_X509(pem.get(), certificate);
    return written ? std::string(contents(pem.get())) : "";
}

bool write_certificate(const std::string& path, X509* certificate, std::string& error) {
    std::string pem = pem_of(certificate);
    if (pem.empty()) {
        error = "cannot make a certificate: " + take_tls_error();
        return false;
    }
    return write_file(path, pem, 0644, error);
}

protocol::sha256 hash_of_certificate(X509* certificate) {
    protocol::sha256 hash{};
    X509_digest(certificate, EVP_sha256(), hash.data(), nullptr);
    return hash;
}

bool is_issued_by(X509* certificate, X509* issuer) {
    bool issued =
        X509_NAME_cmp(X509_get_issuer_name(certificate), X509_get_subject_name(issuer)) == 0 &&
        X509_verify(certificate, X509_get0_pubkey(issuer)) == 1;
    ERR_clear_error();
    return issued;
}

bool ends_soon(X509* certificate) {
    int days = 0, seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return days < renewal_days;
}

int64_t seconds_of(const ASN1_TIME* time) {
    tm parts{};
    return time && ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

std::string end_of(X509* certificate) {
    bio_ptr text(BIO_new(BIO_s_mem()));
    ASN1_TIME_print(text.get(), X509_get0_notAfter(certificate));
    return std::string(contents(text.get()));
}

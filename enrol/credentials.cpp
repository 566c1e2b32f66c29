#include "enrol/credentials.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace {

using bio_ptr = std::unique_ptr<BIO, released_by<BIO_free>>;
using request_ptr = std::unique_ptr<X509_REQ, released_by<X509_REQ_free>>;
using names_ptr = std::unique_ptr<GENERAL_NAMES, released_by<GENERAL_NAMES_free>>;

constexpr std::string_view authority_line = "Agents' authority: SHA-256 ";
constexpr std::string_view command_line = "Enrolled by the command of SHA-256 ";

[[noreturn]] void fail(const char* what) {
    throw failure{status_wrong, std::string(what) + ": " + take_tls_reason("no memory")};
}

bio_ptr reading(std::string_view text) {
    bio_ptr bio(
        BIO_new_mem_buf(text.data(), static_cast<int>(std::min<size_t>(text.size(), 16u << 20))));
    if (!bio) {
        fail("cannot read PEM");
    }
    return bio;
}

bio_ptr writing() {
    bio_ptr bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        fail("cannot write PEM");
    }
    return bio;
}

std::string taken(const bio_ptr& bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

/* Nobody is asked for the password of an encrypted key. */
int no_password(char*, int, int, void*) {
    return -1;
}

int hex_value(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

std::optional<protocol::sha256> read_hex(std::string_view text) {
    protocol::sha256 hash{};
    if (text.size() != 2 * hash.size()) {
        return std::nullopt;
    }
    for (size_t i = 0; i < hash.size(); i++) {
        const int high = hex_value(text[2 * i]), low = hex_value(text[2 * i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        hash[i] = static_cast<unsigned char>(16 * high + low);
    }
    return hash;
}

int64_t seconds_of(const ASN1_TIME* time) {
    tm utc{};
    return ASN1_TIME_to_tm(time, &utc) == 1 ? static_cast<int64_t>(timegm(&utc)) : 0;
}

} // namespace

std::string take_tls_reason(const char* otherwise) {
    const unsigned long first = ERR_get_error();
    ERR_clear_error();
    const char* reason = first != 0 ? ERR_reason_error_string(first) : nullptr;
    return reason != nullptr ? reason : otherwise;
}

/* --- keys and requests ----------------------------------------------------------------------- */

key_ptr make_key() {
    key_ptr key(EVP_EC_gen("P-256"));
    if (!key) {
        fail("cannot make a key");
    }
    return key;
}

std::string text_of(EVP_PKEY* key) {
    bio_ptr bio = writing();
    if (PEM_write_bio_PKCS8PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        fail("cannot write the key");
    }
    std::string text = taken(bio);
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    OPENSSL_cleanse(data, static_cast<size_t>(size));
    return text;
}

std::string request_for(EVP_PKEY* key) {
    request_ptr request(X509_REQ_new());
    bio_ptr bio = writing();
    if (!request || X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) != 1 ||
        X509_REQ_set_pubkey(request.get(), key) != 1 ||
        X509_REQ_sign(request.get(), key, EVP_sha256()) <= 0 ||
        PEM_write_bio_X509_REQ(bio.get(), request.get()) != 1) {
        fail("cannot make the request");
    }
    return taken(bio);
}

key_ptr key_in(std::string_view pem) {
    bio_ptr bio = reading(pem);
    key_ptr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, no_password, nullptr));
    ERR_clear_error();
    return key;
}

/* --- certificates ---------------------------------------------------------------------------- */

std::string text_of(X509* certificate) {
    bio_ptr bio = writing();
    if (PEM_write_bio_X509(bio.get(), certificate) != 1) {
        fail("cannot write the certificate");
    }
    return taken(bio);
}

std::vector<x509_ptr> certificates_in(std::string_view pem) {
    constexpr size_t most = 100;
    std::vector<x509_ptr> found;
    bio_ptr bio = reading(pem);
    ERR_clear_error();
    while (found.size() < most) {
        x509_ptr certificate(PEM_read_bio_X509(bio.get(), nullptr, no_password, nullptr));
        if (!certificate) {
            break;
        }
        found.push_back(std::move(certificate));
    }
    const unsigned long last = ERR_peek_last_error();
    ERR_clear_error();
    if (last != 0 && ERR_GET_REASON(last) != PEM_R_NO_START_LINE) {
        found.clear();
    }
    return found;
}

std::optional<protocol::agent_identity> holder_of(X509* certificate) {
    names_ptr names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    ERR_clear_error();
    if (!names || sk_GENERAL_NAME_num(names.get()) != 1) {
        return std::nullopt;
    }
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), 0);
    if (name->type != GEN_URI) {
        return std::nullopt;
    }
    const ASN1_IA5STRING* uri = name->d.uniformResourceIdentifier;
    return protocol::read_identity_uri(
        std::string_view(reinterpret_cast<const char*>(ASN1_STRING_get0_data(uri)),
                         static_cast<size_t>(ASN1_STRING_length(uri))));
}

protocol::agent_identity agent_of(X509* certificate) {
    std::optional<protocol::agent_identity> who = holder_of(certificate);
    if (!who) {
        throw failure{status_wrong, "the certificate is not an agent's"};
    }
    return *who;
}

int64_t begin_of(X509* certificate) {
    return seconds_of(X509_get0_notBefore(certificate));
}

int64_t end_of(X509* certificate) {
    return seconds_of(X509_get0_notAfter(certificate));
}

std::string subject_of(X509* certificate) {
    bio_ptr bio = writing();
    X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0,
                       XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    return printable(taken(bio));
}

std::string time_text(int64_t seconds) {
    const auto when = static_cast<time_t>(seconds);
    tm utc{};
    std::array<char, 32> text{};
    if (gmtime_r(&when, &utc) == nullptr ||
        strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc) == 0) {
        return std::to_string(seconds);
    }
    return text.data();
}

/* --- hashes ---------------------------------------------------------------------------------- */

protocol::sha256 hash_of(std::string_view bytes) {
    protocol::sha256 hash{};
    if (EVP_Digest(bytes.data(), bytes.size(), hash.data(), nullptr, EVP_sha256(), nullptr) != 1) {
        fail("cannot hash");
    }
    return hash;
}

protocol::sha256 hash_of(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(key, &der);
    if (size <= 0) {
        fail("cannot read the key");
    }
    const std::string bytes(reinterpret_cast<const char*>(der), static_cast<size_t>(size));
    OPENSSL_free(der);
    return hash_of(std::string_view(bytes));
}

protocol::sha256 hash_of(X509* certificate) {
    protocol::sha256 hash{};
    if (X509_digest(certificate, EVP_sha256(), hash.data(), nullptr) != 1) {
        fail("cannot read the certificate");
    }
    return hash;
}

std::string fingerprint(const protocol::sha256& hash) {
    std::array<unsigned char, 48> text{};
    EVP_EncodeBlock(text.data(), hash.data(), static_cast<int>(hash.size()));
    std::string shown = "SHA256:";
    shown.append(reinterpret_cast<const char*>(text.data()));
    while (shown.ends_with('=')) {
        shown.pop_back();
    }
    return shown;
}

std::optional<protocol::sha256> read_fingerprint(std::string_view text) {
    constexpr size_t digits = 43; /* of base64, without padding */
    if (text.starts_with("SHA256:") && text.size() != 7 + 64) {
        text.remove_prefix(7);
        while (text.ends_with('=')) {
            text.remove_suffix(1);
        }
        if (text.size() != digits || text.find('=') != text.npos) {
            return std::nullopt;
        }
        const std::string whole = std::string(text) + "=";
        std::array<unsigned char, 36> bytes{};
        protocol::sha256 hash{};
        if (EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(whole.data()),
                            static_cast<int>(whole.size())) != 33) {
            ERR_clear_error();
            return std::nullopt;
        }
        std::copy_n(bytes.begin(), hash.size(), hash.begin());
        return fingerprint(hash).substr(7) == text ? std::optional(hash) : std::nullopt;
    }
    if (text.starts_with("SHA256:")) {
        text.remove_prefix(7);
    }
    std::string plain(text);
    std::erase(plain, ':');
    return read_hex(plain);
}

std::string hex(const protocol::sha256& hash) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : hash) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

/* --- identity files -------------------------------------------------------------------------- */

std::string text_of(const identity& of) {
    std::string text;
    if (of.authority) {
        text.append(authority_line).append(hex(*of.authority)).append("\n");
    }
    if (of.command) {
        text.append(command_line).append(hex(*of.command)).append("\n");
    }
    return text + text_of(of.certificate.get()) + text_of(of.key.get());
}

std::optional<identity> read_identity(std::string_view text) {
    identity found;
    found.key = key_in(text);
    std::vector<x509_ptr> certificates = certificates_in(text);
    if (!found.key || certificates.empty()) {
        return std::nullopt;
    }
    found.certificate = std::move(certificates.front());
    const bool match = X509_check_private_key(found.certificate.get(), found.key.get()) == 1;
    ERR_clear_error();
    if (!match) {
        return std::nullopt;
    }
    auto hash_behind = [&](std::string_view line) {
        const size_t at = text.find(line);
        return at == text.npos ? std::nullopt : read_hex(text.substr(at + line.size(), 64));
    };
    found.authority = hash_behind(authority_line);
    found.command = hash_behind(command_line);
    return found;
}

/* --- servers --------------------------------------------------------------------------------- */

store_ptr store_of(const std::vector<x509_ptr>& authorities) {
    store_ptr store(X509_STORE_new());
    if (!store) {
        fail("cannot verify anybody");
    }
    for (const x509_ptr& authority : authorities) {
        if (X509_STORE_add_cert(store.get(), authority.get()) != 1) {
            fail("cannot verify anybody");
        }
    }
    X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
    return store;
}

bool leads_to(X509* server, STACK_OF(X509) * others, const std::vector<x509_ptr>& authorities) {
    using context_ptr = std::unique_ptr<X509_STORE_CTX, released_by<X509_STORE_CTX_free>>;
    const store_ptr store = store_of(authorities);
    context_ptr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store.get(), server, others) != 1) {
        fail("cannot verify anybody");
    }
    X509_STORE_CTX_set_default(context.get(), "ssl_server");
    const bool does = X509_verify_cert(context.get()) == 1;
    ERR_clear_error();
    return does;
}

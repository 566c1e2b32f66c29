/* Keys and certificates for tests, made in memory (P-256, P-384, RSA, ...), and their PEM. */
#ifndef VINDRAL_CERTIFICATES_H
#define VINDRAL_CERTIFICATES_H

#include <gtest/gtest.h>
#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <string>

struct free_openssl {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using key_handle = std::unique_ptr<EVP_PKEY, free_openssl>;
using certificate_handle = std::unique_ptr<X509, free_openssl>;

inline key_handle new_key() {
    return key_handle(EVP_EC_gen("P-256"));
}

/* What a certificate says; it is valid from `begins` to `ends`, in seconds from now. */
struct certificate_text {
    std::string common_name;
    std::string alternative_names = ""; /* such as "DNS:host"; empty: none */
    bool authority = false;
    long begins = -1000, ends = 1000;
};

/* Signed by that authority, by itself without one. */
inline certificate_handle certify(EVP_PKEY* key, const certificate_text& text,
                                  X509* issuer = nullptr, EVP_PKEY* issuer_key = nullptr) {
    certificate_handle c(X509_new());
    X509_set_version(c.get(), X509_VERSION_3);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(c.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(text.common_name.c_str()), -1,
                               -1, 0);
    X509_set_issuer_name(c.get(), X509_get_subject_name(issuer != nullptr ? issuer : c.get()));
    X509_gmtime_adj(X509_getm_notBefore(c.get()), text.begins);
    X509_gmtime_adj(X509_getm_notAfter(c.get()), text.ends);
    X509_set_pubkey(c.get(), key);
    auto add = [&](int kind, const char* value) {
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
        EXPECT_NE(extension, nullptr) << value;
        X509_add_ext(c.get(), extension, -1);
        X509_EXTENSION_free(extension);
    };
    if (text.authority) {
        add(NID_basic_constraints, "critical,CA:TRUE");
    }
    if (!text.alternative_names.empty()) {
        add(NID_subject_alt_name, text.alternative_names.c_str());
    }
    EVP_PKEY* signing = issuer != nullptr ? issuer_key : key;
    bool digests = EVP_PKEY_get_base_id(signing) != EVP_PKEY_ED25519;
    EXPECT_NE(X509_sign(c.get(), signing, digests ? EVP_sha256() : nullptr), 0);
    return c;
}

/* What `write` puts into a file. */
template <typename W>
std::string written_pem(W write) {
    std::unique_ptr<BIO, free_openssl> out(BIO_new(BIO_s_mem()));
    EXPECT_EQ(write(out.get()), 1);
    char* data = nullptr;
    long size = BIO_get_mem_data(out.get(), &data);
    return {data, static_cast<size_t>(size)};
}

inline std::string pem_of(X509* certificate) {
    return written_pem([&](BIO* out) { return PEM_write_bio_X509(out, certificate); });
}

inline std::string pem_of(EVP_PKEY* key) {
    return written_pem([&](BIO* out) {
        return PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

/* A certificate and its key, as files have them. */
struct pem_pair {
    std::string certificate, key;
};

inline pem_pair make_pair_of(EVP_PKEY* key, const certificate_text& text) {
    return {pem_of(certify(key, text).get()), pem_of(key)};
}

inline pem_pair make_pair(const certificate_text& text) {
    return make_pair_of(new_key().get(), text);
}

#endif

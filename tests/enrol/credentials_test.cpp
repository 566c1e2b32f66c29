#include "enrol/credentials.h"

#include <gtest/gtest.h>
#include <openssl/x509v3.h>
#include <string>

namespace {

x509_ptr certificate_of(EVP_PKEY* key, EVP_PKEY* by, const std::string& alternative_name) {
    x509_ptr made(X509_new());
    X509_set_version(made.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), 3600);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("test\033[31m"), -1, -1, 0);
    X509_set_issuer_name(made.get(), X509_get_subject_name(made.get()));
    X509_set_pubkey(made.get(), key);
    if (!alternative_name.empty()) {
        X509_EXTENSION* names =
            X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, alternative_name.c_str());
        X509_add_ext(made.get(), names, -1);
        X509_EXTENSION_free(names);
    }
    X509_sign(made.get(), by, EVP_sha256());
    return made;
}

} // namespace

TEST(Identity, IsReadAsItWasWritten) {
    identity self;
    self.key = make_key();
    self.certificate =
        certificate_of(self.key.get(), self.key.get(), "URI:vindral:ops%40example.org/web-01");
    self.authority = hash_of(std::string_view("authority"));
    const std::string text = text_of(self);
    const std::optional<identity> found = read_identity(text);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->authority, self.authority);
    EXPECT_EQ(hash_of(found->certificate.get()), hash_of(self.certificate.get()));
    EXPECT_EQ(hash_of(found->key.get()), hash_of(self.key.get()));
    const auto who = holder_of(found->certificate.get());
    ASSERT_TRUE(who);
    EXPECT_EQ(who->account, "ops@example.org");
    EXPECT_EQ(who->agent, "web-01");
    for (size_t length = 0; length + 2 < text.size(); length += 7) {
        EXPECT_FALSE(read_identity(text.substr(0, length))) << length;
    }
}

TEST(Identity, NeedsAKeyAndACertificateThatBelongTogether) {
    const key_ptr one = make_key(), other = make_key();
    const x509_ptr certificate = certificate_of(one.get(), one.get(), "");
    EXPECT_TRUE(read_identity(text_of(certificate.get()) + text_of(one.get())));
    EXPECT_FALSE(read_identity(text_of(certificate.get()) + text_of(other.get())));
    EXPECT_FALSE(read_identity(text_of(certificate.get())));
    EXPECT_FALSE(read_identity(text_of(one.get())));
    EXPECT_FALSE(read_identity("nonsense"));
}

TEST(Holder, IsTheOneNameOfAnAgent) {
    const key_ptr key = make_key();
    for (const char* names :
         {"", "DNS:web-01", "URI:https://example.org/", "URI:vindral:a/b,URI:vindral:c/d",
          "URI:vindral:a/b,DNS:b", "URI:vindral:a", "email:a@example.org"}) {
        EXPECT_FALSE(holder_of(certificate_of(key.get(), key.get(), names).get())) << names;
    }
    EXPECT_TRUE(holder_of(certificate_of(key.get(), key.get(), "URI:vindral:a/b").get()));
}

TEST(Certificates, OneThatIsDamagedLeavesNone) {
    const key_ptr key = make_key();
    const std::string one = text_of(certificate_of(key.get(), key.get(), "").get());
    EXPECT_EQ(certificates_in(one + "words\n" + one).size(), 2u);
    EXPECT_EQ(certificates_in("").size(), 0u);
    std::string damaged = one + one;
    damaged[one.size() + 60] = '!';
    EXPECT_EQ(certificates_in(damaged).size(), 0u);
}

TEST(Subject, IsPrintable) {
    const key_ptr key = make_key();
    const x509_ptr certificate = certificate_of(key.get(), key.get(), "");
    EXPECT_EQ(subject_of(certificate.get()).find('\033'), std::string::npos);
}

TEST(Request, IsForItsKey) {
    const key_ptr key = make_key();
    const std::string pem = request_for(key.get());
    EXPECT_TRUE(pem.starts_with("-----BEGIN CERTIFICATE REQUEST-----"));
    EXPECT_LE(pem.size(), protocol::max_request);
}

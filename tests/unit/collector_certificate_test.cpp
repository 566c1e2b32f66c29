#include "certificate.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

class collector_certificate : public testing::Test {
protected:
    collector_certificate() {
        char name[] = "/tmp/collector_certificate_test.XXXXXX";
        directory_ = mkdtemp(name);
    }
    ~collector_certificate() override { fs::remove_all(directory_); }

    std::string in(const std::string& name) const { return directory_ + "/" + name; }

    identity_files make() {
        identity_files files;
        std::string error;
        EXPECT_TRUE(ensure_identity(directory_, files, error)) << error;
        return files;
    }

    static std::string read(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static mode_t mode(const std::string& path) {
        struct stat status;
        return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
    }

    static std::string refused(const identity_files& files) {
        std::string error;
        EXPECT_EQ(make_tls_context(files, error), nullptr);
        return error;
    }

    std::string directory_;
};

struct free_x509 {
    void operator()(X509* c) const { X509_free(c); }
};

static std::unique_ptr<X509, free_x509> load(const std::string& path) {
    FILE* file = fopen(path.c_str(), "re");
    EXPECT_NE(file, nullptr);
    X509* certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
    fclose(file);
    return std::unique_ptr<X509, free_x509>(certificate);
}

TEST_F(collector_certificate, a_pair_is_made_once_and_then_kept) {
    identity_files first = make();
    EXPECT_EQ(first.certificate, in("certificate.pem"));
    EXPECT_EQ(first.key, in("key.pem"));
    EXPECT_EQ(mode(first.key), 0600u);
    EXPECT_EQ(mode(first.certificate), 0644u);
    std::string certificate = read(first.certificate), key = read(first.key);
    make();
    EXPECT_EQ(read(first.certificate), certificate);
    EXPECT_EQ(read(first.key), key);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_), {}), 2);
}

TEST_F(collector_certificate, it_is_an_ecdsa_p256_certificate_of_ten_years_for_this_host) {
    auto certificate = load(make().certificate);
    ASSERT_TRUE(certificate);
    X509* c = certificate.get();
    EVP_PKEY* key = X509_get0_pubkey(c);
    char group[32];
    size_t length;
    ASSERT_EQ(EVP_PKEY_get_group_name(key, group, sizeof group, &length), 1);
    EXPECT_STREQ(group, "prime256v1");
    EXPECT_EQ(X509_verify(c, key), 1);
    int days, seconds;
    ASSERT_EQ(ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(c)), 1);
    EXPECT_GE(days, 3650);
    EXPECT_LT(X509_cmp_current_time(X509_get0_notBefore(c)), 0);
    EXPECT_EQ(X509_check_host(c, "localhost", 0, 0, nullptr), 1);
    EXPECT_EQ(X509_check_ip_asc(c, "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_ip_asc(c, "::1", 0), 1);
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(X509_check_host(c, host, 0, 0, nullptr), 1);
    EXPECT_EQ(X509_check_host(c, "example.org", 0, 0, nullptr), 0);
    EXPECT_EQ(X509_check_ca(c), 0);
}

TEST_F(collector_certificate, the_context_takes_it_and_resumes_nothing) {
    std::string error;
    tls_context context = make_tls_context(make(), error);
    ASSERT_TRUE(context) << error;
    EXPECT_EQ(SSL_CTX_get_min_proto_version(context.get()), TLS1_2_VERSION);
    EXPECT_EQ(SSL_CTX_get_session_cache_mode(context.get()), SSL_SESS_CACHE_OFF);
    EXPECT_EQ(SSL_CTX_get_num_tickets(context.get()), 0u);
    EXPECT_TRUE(SSL_CTX_get_options(context.get()) & SSL_OP_NO_TICKET);
    EXPECT_TRUE(SSL_CTX_get_options(context.get()) & SSL_OP_NO_RENEGOTIATION);
}

TEST_F(collector_certificate, a_start_cut_short_after_the_key_goes_on_with_it) {
    identity_files files = make();
    std::string key = read(files.key);
    fs::remove(files.certificate);
    std::ofstream(files.certificate + ".new") << "half a certif";
    make();
    EXPECT_EQ(read(files.key), key);
    std::string error;
    EXPECT_TRUE(make_tls_context(files, error)) << error;
}

TEST_F(collector_certificate, a_missing_key_is_not_replaced) {
    identity_files files = make();
    fs::remove(files.key);
    std::string error;
    EXPECT_FALSE(ensure_identity(directory_, files, error));
    EXPECT_EQ(error, in("certificate.pem") + " is there but " + in("key.pem") +
                         " is not: put the key back, or remove the certificate to get a new pair");
    EXPECT_FALSE(fs::exists(files.key));
}

TEST_F(collector_certificate, a_directory_that_cannot_be_written_is_named) {
    identity_files files;
    std::string error;
    EXPECT_FALSE(ensure_identity(in("nowhere"), files, error));
    EXPECT_EQ(error, "cannot write " + in("nowhere") + "/key.pem: No such file or directory");
}

TEST_F(collector_certificate, files_that_will_not_do_are_named) {
    identity_files files = make();
    fs::create_directory(in("other"));
    identity_files other;
    std::string error;
    ASSERT_TRUE(ensure_identity(in("other"), other, error)) << error;
    std::ofstream(in("text")) << "no PEM\n";
    std::ofstream(in("empty"));

    EXPECT_EQ(refused({in("absent"), files.key}),
              "cannot read the certificate " + in("absent") + ": No such file or directory");
    EXPECT_EQ(refused({in("text"), files.key}),
              "cannot read the certificate " + in("text") + " as PEM: no start line");
    EXPECT_EQ(refused({files.certificate, in("absent")}),
              "cannot read the key " + in("absent") + ": No such file or directory");
    EXPECT_EQ(refused({files.certificate, in("text")}).substr(0, 16), "cannot read the ");
    EXPECT_EQ(refused({files.certificate, in("empty")}).substr(0, 16), "cannot read the ");
    EXPECT_EQ(refused({files.certificate, other.key}),
              "the key " + other.key + " does not belong to the certificate " + files.certificate);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(collector_certificate, an_encrypted_key_is_refused_without_asking) {
    identity_files files = make();
    FILE* plain = fopen(files.key.c_str(), "re");
    EVP_PKEY* key = PEM_read_PrivateKey(plain, nullptr, nullptr, nullptr);
    fclose(plain);
    FILE* locked = fopen(in("locked").c_str(), "we");
    char passphrase[] = "secret";
    ASSERT_EQ(
        PEM_write_PKCS8PrivateKey(locked, key, EVP_aes_128_cbc(), passphrase, 6, nullptr, nullptr),
        1);
    fclose(locked);
    EVP_PKEY_free(key);
    EXPECT_EQ(refused({files.certificate, in("locked")}).substr(0, 20), "cannot read the key ");
}

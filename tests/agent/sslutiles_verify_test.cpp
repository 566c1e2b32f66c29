#include "sslutiles_verify.h"

#include "fake_core.h"
#include "libsslloader.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

static const char* const READ =
    "0 INFO: make_poll: CAFILE \"%s\" was read: the server is verified.\n";

static std::string filled_in(const char* format, const std::string& path) {
    std::string text = format;
    return text.replace(text.find("%s"), 2, path);
}

/* A self-signed certificate with that common name and, unless it is empty, these alternative names.
 */
static X509* make_certificate(EVP_PKEY* key, const std::string& common_name,
                              const std::string& alternative_names) {
    X509* c = X509_new();
    X509_set_version(c, X509_VERSION_3);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(c, X509_get_subject_name(c));
    X509_gmtime_adj(X509_getm_notBefore(c), -1000);
    X509_gmtime_adj(X509_getm_notAfter(c), 1000);
    X509_set_pubkey(c, key);
    if (!alternative_names.empty()) {
        X509_EXTENSION* names =
            X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, alternative_names.c_str());
        EXPECT_NE(names, nullptr) << alternative_names;
        X509_add_ext(c, names, -1);
        X509_EXTENSION_free(names);
    }
    X509_sign(c, key, EVP_sha256());
    return c;
}

static std::string pem_of(X509* certificate) {
    BIO* out = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(out, certificate);
    char* data = nullptr;
    long size = BIO_get_mem_data(out, &data);
    std::string pem(data, size_t(size));
    BIO_free(out);
    return pem;
}

static std::string make_pem() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* c = make_certificate(key, "a", "");
    std::string pem = pem_of(c);
    X509_free(c);
    EVP_PKEY_free(key);
    return pem;
}

class sslutiles_verify : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(init_ssl_variables(), 1); }

    sslutiles_verify() {
        char name[] = "/tmp/sslutiles_verify_test.XXXXXX";
        directory = mkdtemp(name);
        path = directory + "/ca.pem";
        take_log();
    }
    ~sslutiles_verify() override {
        verifying_context((directory + "/none").c_str()); /* forgets */
        take_log();
        fs::remove_all(directory);
    }

    /* Puts a file with this text in place, as a whole. */
    void put(const std::string& text) const {
        std::ofstream(path + ".new") << text;
        fs::rename(path + ".new", path);
    }

    std::string refused() const {
        EXPECT_EQ(verifying_context(path.c_str()), nullptr);
        return take_log_text();
    }

    /* What is logged of a server with that certificate, which is the one of the bundle, when `host`
     * is expected: nothing when it is trusted. */
    std::string judged(const std::string& host, const std::string& common_name,
                       const std::string& alternative_names) const {
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* c = make_certificate(key, common_name, alternative_names);
        put(pem_of(c));
        SSL* client = lib_SSL_new(verifying_context(path.c_str()));
        SSL_CTX* serving = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate(serving, c);
        SSL_CTX_use_PrivateKey(serving, key);
        SSL* server = SSL_new(serving);
        BIO *clients_end = nullptr, *servers_end = nullptr;
        BIO_new_bio_pair(&clients_end, 0, &servers_end, 0);
        SSL_set_bio(client, clients_end, clients_end);
        SSL_set_bio(server, servers_end, servers_end);
        EXPECT_EQ(expect_server(client, host.c_str()), 1) << host;
        take_log();
        bool connected = false;
        for (int i = 0; i < 10 && !connected; i++) {
            connected = lib_SSL_connect(client) == 1;
            SSL_accept(server);
        }
        int trusted = check_server(client, connected, host.c_str(), "ca.pem");
        EXPECT_EQ(trusted, connected ? 1 : 0) << host << " " << alternative_names;
        std::string log = take_log_text();
        SSL_free(server);
        SSL_CTX_free(serving);
        lib_SSL_free(client);
        ERR_clear_error();
        X509_free(c);
        EVP_PKEY_free(key);
        return log;
    }

    std::string directory, path;
};

static std::string refusal(const std::string& host, const char* reason) {
    return "0 ERROR: make_poll: Cannot verify the server \"" + host +
           "\" with CAFILE \"ca.pem\": the check of the " + reason + ".\n";
}

TEST_F(sslutiles_verify, the_bundle_is_read_once) {
    put(make_pem() + make_pem());
    SSL_CTX* context = verifying_context(path.c_str());
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(take_log_text(), filled_in(READ, path));
    EXPECT_EQ(SSL_CTX_get_verify_mode(context), SSL_VERIFY_PEER);
    EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(context))), 2);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(verifying_context(path.c_str()), context);
    }
    EXPECT_EQ(take_log_text(), "");
    SSL_CTX* shared = lib_SSL_CTX_new(lib_SSLv23_client_method());
    EXPECT_NE(shared, context);
    EXPECT_EQ(SSL_CTX_get_verify_mode(shared), SSL_VERIFY_NONE) << "page checks use this one";
    lib_SSL_CTX_free(shared);
}

TEST_F(sslutiles_verify, a_changed_bundle_is_read_again) {
    std::string pem = make_pem();
    put(pem);
    ASSERT_NE(verifying_context(path.c_str()), nullptr);
    take_log();
    put(pem); /* another file */
    EXPECT_NE(verifying_context(path.c_str()), nullptr);
    EXPECT_EQ(take_log_text(), filled_in(READ, path));
    std::ofstream(path, std::ios::app) << "a comment\n"; /* another size */
    EXPECT_NE(verifying_context(path.c_str()), nullptr);
    EXPECT_EQ(take_log_text(), filled_in(READ, path));
    timespec times[2] = {{1, 0}, {1, 0}}; /* another time */
    utimensat(AT_FDCWD, path.c_str(), times, 0);
    EXPECT_NE(verifying_context(path.c_str()), nullptr);
    EXPECT_EQ(take_log_text(), filled_in(READ, path));
}

TEST_F(sslutiles_verify, a_session_outlives_the_context_it_was_made_from) {
    put(make_pem());
    SSL* session = lib_SSL_new(verifying_context(path.c_str()));
    put(make_pem());
    verifying_context(path.c_str());
    EXPECT_EQ(expect_server(session, "host"), 1);
    lib_SSL_free(session);
}

TEST_F(sslutiles_verify, what_was_trusted_before_a_bad_bundle_is_trusted_no_more) {
    std::string pem = make_pem();
    put(pem);
    ASSERT_NE(verifying_context(path.c_str()), nullptr);
    take_log();
    fs::remove(path);
    refused();
    put(pem);
    ASSERT_NE(verifying_context(path.c_str()), nullptr);
    take_log();
    put("");
    std::string empty = refused();
    EXPECT_EQ(empty.find("0 ERROR: make_poll: Cannot use CAFILE \"" + path + "\": error:"), 0u)
        << empty;
    EXPECT_NE(empty.find("no certificate"), std::string::npos) << empty;
    EXPECT_EQ(refused(), empty) << "every poll says so";
    fs::remove(path);
    EXPECT_EQ(refused(), "0 ERROR: make_poll: Cannot use CAFILE \"" + path +
                             "\": No such file or directory\n");
    fs::create_directory(path);
    EXPECT_EQ(refused(),
              "0 ERROR: make_poll: Cannot use CAFILE \"" + path + "\": Is a directory\n");
    fs::remove(path);
    mkfifo(path.c_str(), 0600);
    EXPECT_EQ(refused(),
              "0 ERROR: make_poll: Cannot use CAFILE \"" + path + "\": Invalid argument\n");
    put(pem);
    EXPECT_NE(verifying_context(path.c_str()), nullptr);
}

TEST_F(sslutiles_verify, a_library_that_cannot_verify_is_an_error) {
    put(make_pem());
    ssl_missing_to_verify = "SSL_get0_param";
    EXPECT_EQ(refused(), "0 ERROR: make_poll: Cannot use CAFILE \"" + path +
                             "\": the TLS library has no SSL_get0_param\n");
    ssl_missing_to_verify = nullptr;
}

TEST_F(sslutiles_verify, a_name_is_sent_and_an_address_is_not) {
    put(make_pem());
    struct {
        const char *host, *sent, *address;
    } cases[] = {{"collector.example", "collector.example", nullptr},
                 {"collector.example.", "collector.example", nullptr},
                 {"127.1", "127.1", nullptr},
                 {"192.0.2.1", nullptr, "192.0.2.1"},
                 {"2001:db8::1", nullptr, "2001:DB8:0:0:0:0:0:1"}};
    for (const auto& c : cases) {
        SSL* session = lib_SSL_new(verifying_context(path.c_str()));
        EXPECT_EQ(expect_server(session, c.host), 1) << c.host;
        EXPECT_STREQ(SSL_get_servername(session, TLSEXT_NAMETYPE_host_name), c.sent) << c.host;
        X509_VERIFY_PARAM* rules = SSL_get0_param(session);
        EXPECT_STREQ(X509_VERIFY_PARAM_get0_host(rules, 0), c.sent) << c.host;
        char* address = X509_VERIFY_PARAM_get1_ip_asc(rules);
        EXPECT_STREQ(address, c.address) << c.host;
        OPENSSL_free(address);
        lib_SSL_free(session);
    }
}

TEST_F(sslutiles_verify, nobody_is_no_server) {
    put(make_pem());
    SSL* session = lib_SSL_new(verifying_context(path.c_str()));
    take_log();
    for (const char* host : {"", ".", ".example", "..example."}) {
        EXPECT_EQ(expect_server(session, host), 0);
        EXPECT_EQ(take_log_text(), std::string("0 ERROR: make_poll: Cannot verify a server of the "
                                               "name \"") +
                                       host + "\".\n");
    }
    lib_SSL_free(session);
}

TEST_F(sslutiles_verify, a_name_is_one_of_the_alternative_names) {
    const std::string host = "www.example.org";
    for (const char* names : {"DNS:www.example.org", "DNS:WWW.Example.ORG", "DNS:*.example.org",
                              "DNS:other.example.org,DNS:www.example.org"}) {
        EXPECT_EQ(judged(host, "server", names), "") << names;
    }
    for (const char* names : {"DNS:example.org", "DNS:*.org", "DNS:*", "DNS:a.www.example.org",
                              "DNS:*.www.example.org", "DNS:www.*.org"}) {
        EXPECT_EQ(judged(host, "server", names),
                  refusal(host, "host name failed: hostname mismatch"))
            << names;
    }
}

TEST_F(sslutiles_verify, a_wildcard_is_a_whole_label) {
    const std::string host = "web.example.org";
    for (const char* names : {"DNS:w*.example.org", "DNS:*b.example.org", "DNS:w*b.example.org",
                              "DNS:web*.example.org", "DNS:*web.example.org"}) {
        EXPECT_EQ(judged(host, "server", names),
                  refusal(host, "host name failed: hostname mismatch"))
            << names;
    }
}

TEST_F(sslutiles_verify, the_common_name_is_no_name_of_the_server) {
    const std::string host = "www.example.org";
    for (const char* names :
         {"", "email:root@www.example.org", "IP:192.0.2.1", "DNS:other.example.org"}) {
        EXPECT_EQ(judged(host, host, names), refusal(host, "host name failed: hostname mismatch"))
            << names;
        EXPECT_EQ(judged(host, "*.example.org", names),
                  refusal(host, "host name failed: hostname mismatch"))
            << names;
    }
    const std::string address = "192.0.2.1";
    EXPECT_EQ(judged(address, "server", "IP:192.0.2.1"), "");
    for (const char* names : {"", "DNS:192.0.2.1"}) {
        EXPECT_EQ(judged(address, address, names),
                  refusal(address, "IP address failed: IP address mismatch"))
            << names;
    }
}

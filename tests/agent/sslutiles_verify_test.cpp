#include "sslutiles_verify.h"

#include "certificates.h"
#include "fake_core.h"
#include "libsslloader.h"
#include "sslutiles_context.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

static SSL_CTX* verifying_context(const std::string& path) {
    return poll_context({path.c_str(), nullptr, nullptr});
}

static std::string make_pem() {
    return make_pair({"a"}).certificate;
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
        verifying_context(directory + "/none"); /* forgets */
        take_log();
        fs::remove_all(directory);
    }

    /* Puts a file with this text in place, as a whole. */
    void put(const std::string& text) const {
        std::ofstream(path + ".new") << text;
        fs::rename(path + ".new", path);
    }

    /* What is logged of a server with that certificate, which is the one of the bundle, when `host`
     * is expected: nothing when it is trusted. */
    std::string judged(const std::string& host, const std::string& common_name,
                       const std::string& alternative_names) const {
        const key_handle key = new_key();
        certificate_handle c = certify(key.get(), {common_name, alternative_names});
        put(pem_of(c.get()));
        SSL* client = lib_SSL_new(verifying_context(path));
        SSL_CTX* serving = SSL_CTX_new(TLS_server_method());
        SSL_CTX_use_certificate(serving, c.get());
        SSL_CTX_use_PrivateKey(serving, key.get());
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
        return log;
    }

    std::string directory, path;
};

static std::string refusal(const std::string& host, const char* reason) {
    return "0 ERROR: make_poll: Cannot verify the server \"" + host +
           "\" with CAFILE \"ca.pem\": the check of the " + reason + ".\n";
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
        SSL* session = lib_SSL_new(verifying_context(path));
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
    SSL* session = lib_SSL_new(verifying_context(path));
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

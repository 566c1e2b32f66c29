#include "base/certificate.h"

#include "base/identity.h"
#include "base/tls.h"

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

    /* A start with these names; what it reports goes to `report`. */
    identity_files make(const std::vector<std::string>& names = {}) {
        identity_files files;
        std::string error;
        EXPECT_TRUE(ensure_identity(directory_, names, files, report, error)) << error;
        return files;
    }

    std::string refused_start() {
        identity_files files;
        std::string error;
        EXPECT_FALSE(ensure_identity(directory_, {}, files, report, error));
        return error;
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
    identity_report report;
};

using strings = std::vector<std::string>;

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
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_), {}), 4);
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
    EXPECT_EQ(X509_verify(c, key), 0);
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
    EXPECT_EQ(refused_start(),
              in("certificate.pem") + " is there but " + in("key.pem") +
                  " is not: put the key back, or remove the certificate to get a new pair");
    EXPECT_FALSE(fs::exists(files.key));
}

TEST_F(collector_certificate, a_directory_that_cannot_be_written_is_named) {
    identity_files files;
    std::string error;
    EXPECT_FALSE(ensure_identity(in("nowhere"), {}, files, report, error));
    EXPECT_EQ(error, "cannot write " + in("nowhere") + "/ca-key.pem: No such file or directory");
}

TEST_F(collector_certificate, files_that_will_not_do_are_named) {
    identity_files files = make();
    fs::create_directory(in("other"));
    identity_files other;
    std::string error;
    ASSERT_TRUE(ensure_identity(in("other"), {}, other, report, error)) << error;
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

/* --- the authority --------------------------------------------------------------------------- */

/* What a client that trusts only `authority` says to the certificate, for a host name or address.
 */
static std::string verdict(const std::string& authority, const std::string& certificate,
                           const char* name) {
    X509_STORE* trusted = X509_STORE_new();
    X509_STORE_load_file(trusted, authority.c_str());
    auto leaf = load(certificate);
    X509_STORE_CTX* check = X509_STORE_CTX_new();
    X509_STORE_CTX_init(check, trusted, leaf.get(), nullptr);
    X509_STORE_CTX_set_default(check, "ssl_server");
    X509_VERIFY_PARAM* rules = X509_STORE_CTX_get0_param(check);
    if (X509_VERIFY_PARAM_set1_ip_asc(rules, name) != 1) {
        X509_VERIFY_PARAM_set1_host(rules, name, 0);
    }
    X509_verify_cert(check);
    std::string text = X509_verify_cert_error_string(X509_STORE_CTX_get_error(check));
    X509_STORE_CTX_free(check);
    X509_STORE_free(trusted);
    ERR_clear_error();
    return text;
}

static EVP_PKEY* read_key_of(const std::string& path) {
    FILE* file = fopen(path.c_str(), "re");
    EVP_PKEY* key = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
    fclose(file);
    return key;
}

/* Signs the certificate again with an end `days` from now. `authority` "" for self-signed. */
static void make_end(const identity_files& files, const std::string& authority_key, int days,
                     const std::string& issuer) {
    auto certificate = load(files.certificate);
    EVP_PKEY* key = read_key_of(authority_key);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), days * 86400L);
    if (!issuer.empty()) {
        X509_set_issuer_name(certificate.get(), X509_get_subject_name(load(issuer).get()));
    }
    X509_sign(certificate.get(), key, EVP_sha256());
    EVP_PKEY_free(key);
    FILE* file = fopen(files.certificate.c_str(), "we");
    PEM_write_X509(file, certificate.get());
    fclose(file);
}

static int days_left(const std::string& path) {
    int days = 0, seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(load(path).get()));
    return days;
}

TEST_F(collector_certificate, an_authority_is_made_that_signs_for_this_host) {
    identity_files files = make();
    EXPECT_EQ(report.authority, in("ca.pem"));
    EXPECT_EQ(report.notes, strings());
    EXPECT_EQ(mode(in("ca.pem")), 0644u);
    EXPECT_EQ(mode(in("ca-key.pem")), 0600u);
    auto authority = load(in("ca.pem"));
    X509* a = authority.get();
    EXPECT_EQ(X509_check_ca(a), 1);
    EXPECT_EQ(X509_get_pathlen(a), 0);
    EXPECT_EQ(X509_get_key_usage(a), unsigned(KU_KEY_CERT_SIGN));
    EXPECT_EQ(X509_verify(a, X509_get0_pubkey(a)), 1);
    EXPECT_GE(days_left(in("ca.pem")), 7300);
    auto server = load(files.certificate);
    EXPECT_EQ(X509_check_ca(server.get()), 0) << "signs nothing itself";
    EXPECT_EQ(X509_get_key_usage(server.get()), unsigned(KU_DIGITAL_SIGNATURE));
    EXPECT_EQ(X509_get_extended_key_usage(server.get()), unsigned(XKU_SSL_SERVER));
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "localhost"), "ok");
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "127.0.0.1"), "ok");
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "::1"), "ok");
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "other.example"), "hostname mismatch");
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "127.0.0.2"), "IP address mismatch");
}

TEST_F(collector_certificate, further_names_are_in_it) {
    identity_files files = make({"Agents.Example.org", "192.0.2.7", "2001:db8:0:0::1"});
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "agents.example.org"), "ok");
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "192.0.2.7"), "ok");
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "2001:db8::1"), "ok");
    strings names = report.names;
    EXPECT_NE(std::find(names.begin(), names.end(), "agents.example.org"), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), "2001:db8::1"), names.end());
}

TEST_F(collector_certificate, what_may_be_a_name) {
    for (const char* name : {"a", "a.b-c_d", "192.0.2.1", "::1", "2001:db8::1"}) {
        EXPECT_TRUE(is_server_name(name)) << name;
    }
    for (const char* name :
         {"", ".", "-a", "a.", "a b", "a,DNS:b", "*.example.org", "ü", "[::1]"}) {
        EXPECT_FALSE(is_server_name(name)) << name;
    }
    EXPECT_TRUE(is_server_name(std::string(253, 'a')));
    EXPECT_FALSE(is_server_name(std::string(254, 'a')));
    EXPECT_TRUE(is_server_name(own_host_name()));
}

TEST_F(collector_certificate, a_name_that_is_missing_is_added_and_none_is_lost) {
    identity_files files = make({"old.example"});
    std::string key = read(files.key), authority = read(in("ca.pem"));
    make({"new.example"});
    EXPECT_EQ(report.notes, strings{"the certificate " + files.certificate + " was renewed"});
    EXPECT_EQ(read(files.key), key);
    EXPECT_EQ(read(in("ca.pem")), authority);
    for (const char* name : {"old.example", "new.example", "localhost"}) {
        EXPECT_EQ(verdict(in("ca.pem"), files.certificate, name), "ok") << name;
    }
    std::string certificate = read(files.certificate);
    make({"NEW.example"});
    EXPECT_EQ(read(files.certificate), certificate) << "once is enough";
    EXPECT_EQ(report.notes, strings());
}

TEST_F(collector_certificate, one_that_ends_soon_is_renewed) {
    identity_files files = make({"a.example"});
    make_end(files, in("ca-key.pem"), 800, "");
    make();
    EXPECT_LT(days_left(files.certificate), 801) << "two years and more are not soon";
    make_end(files, in("ca-key.pem"), 700, "");
    make();
    EXPECT_GT(days_left(files.certificate), 3600);
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "a.example"), "ok");
    make_end(files, in("ca-key.pem"), -1, "");
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "a.example"), "certificate has expired");
    make();
    EXPECT_EQ(verdict(in("ca.pem"), files.certificate, "a.example"), "ok");
}

TEST_F(collector_certificate, each_one_has_a_number_of_its_own) {
    identity_files files = make();
    auto authority = load(in("ca.pem")), first = load(files.certificate);
    make({"b.example"});
    auto second = load(files.certificate);
    for (X509* c : {authority.get(), first.get(), second.get()}) {
        const ASN1_INTEGER* number = X509_get0_serialNumber(c);
        EXPECT_GE(ASN1_STRING_length(number), 8) << "nobody can guess it";
        EXPECT_EQ(ASN1_STRING_type(number), V_ASN1_INTEGER) << "positive";
    }
    EXPECT_NE(ASN1_INTEGER_cmp(X509_get0_serialNumber(authority.get()),
                               X509_get0_serialNumber(first.get())),
              0);
    EXPECT_NE(
        ASN1_INTEGER_cmp(X509_get0_serialNumber(first.get()), X509_get0_serialNumber(second.get())),
        0);
}

TEST_F(collector_certificate, hosts_with_a_clock_that_is_behind_accept_it) {
    identity_files files = make();
    for (const std::string& path : {files.certificate, in("ca.pem")}) {
        int days = 0, seconds = 0;
        ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(load(path).get()), nullptr);
        EXPECT_GE(days, 1) << path;
        EXPECT_LT(days, 3) << path;
    }
}

TEST_F(collector_certificate, it_names_the_key_of_its_authority) {
    identity_files files = make();
    auto authority = load(in("ca.pem")), server = load(files.certificate);
    const ASN1_OCTET_STRING* own = X509_get0_subject_key_id(authority.get());
    const ASN1_OCTET_STRING* named = X509_get0_authority_key_id(server.get());
    ASSERT_NE(own, nullptr);
    ASSERT_NE(named, nullptr);
    EXPECT_EQ(ASN1_OCTET_STRING_cmp(own, named), 0);
}

/* Whoever reads the file meanwhile has the old one or the new one, and never a part. */
TEST_F(collector_certificate, a_renewal_replaces_the_file) {
    identity_files files = make();
    std::string before = read(files.certificate);
    ASSERT_EQ(link(files.certificate.c_str(), in("held").c_str()), 0);
    make({"b.example"});
    EXPECT_NE(read(files.certificate), before);
    EXPECT_EQ(read(in("held")), before);
}

TEST_F(collector_certificate, no_certificate_outlives_the_authority) {
    identity_files files = make();
    make_end({in("ca.pem"), ""}, in("ca-key.pem"), 700, "");
    make({"more.example"});
    ASSERT_EQ(report.notes.size(), 2u);
    EXPECT_EQ(report.notes[0].substr(0, in("ca.pem").size() + 22),
              "the authority " + in("ca.pem") + " ends on");
    EXPECT_LE(days_left(files.certificate), 700);
    std::string certificate = read(files.certificate);
    make();
    EXPECT_EQ(read(files.certificate), certificate) << "a new one would end no later";
}

TEST_F(collector_certificate, without_the_authoritys_key_all_goes_on_but_renewal) {
    identity_files files = make();
    fs::rename(in("ca-key.pem"), in("safe"));
    make();
    EXPECT_EQ(report.notes, strings());
    std::string certificate = read(files.certificate);
    make({"new.example"});
    EXPECT_EQ(read(files.certificate), certificate);
    EXPECT_EQ(report.notes,
              (strings{"the certificate " + files.certificate +
                           " cannot be renewed: cannot read the key " + in("ca-key.pem") +
                           ": No such file or directory",
                       "the certificate " + files.certificate + " does not name new.example"}));
    EXPECT_EQ(report.authority, in("ca.pem"));
    fs::remove(files.certificate);
    EXPECT_EQ(refused_start(),
              in("ca.pem") + " is there but " + in("ca-key.pem") +
                  " is not: put the key back, or remove the certificate to get a new pair, whose "
                  "certificate all hosts then need");
}

TEST_F(collector_certificate, a_self_signed_pair_stays_and_is_its_own_authority) {
    identity_files files = make();
    fs::remove(in("ca.pem"));
    fs::remove(in("ca-key.pem"));
    make_end(files, files.key, 3000, files.certificate);
    std::string certificate = read(files.certificate), key = read(files.key);
    make();
    EXPECT_EQ(report.authority, files.certificate);
    EXPECT_EQ(report.notes, strings());
    make({"new.example"});
    EXPECT_EQ(report.notes,
              strings{"the certificate " + files.certificate + " does not name new.example"});
    EXPECT_EQ(read(files.certificate), certificate);
    EXPECT_EQ(read(files.key), key);
    EXPECT_FALSE(fs::exists(in("ca.pem")));
    EXPECT_EQ(report_identity(files).authority, files.certificate);
}

TEST_F(collector_certificate, a_pair_of_another_authority_stays) {
    identity_files files = make();
    make_end(files, in("ca-key.pem"), 100, "");
    fs::remove(in("ca.pem"));
    fs::remove(in("ca-key.pem"));
    std::string certificate = read(files.certificate);
    make({"new.example"});
    EXPECT_EQ(report.authority, "");
    EXPECT_EQ(read(files.certificate), certificate);
    ASSERT_EQ(report.notes.size(), 2u);
    EXPECT_EQ(report.notes[0].substr(0, files.certificate.size() + 25),
              "the certificate " + files.certificate + " ends on ");
    EXPECT_FALSE(fs::exists(in("ca.pem")));
}

TEST_F(collector_certificate, a_first_start_that_was_cut_short_anywhere_is_completed) {
    const std::vector<strings> left = {
        {"ca-key.pem"}, {"ca-key.pem", "ca.pem"}, {"ca-key.pem", "ca.pem", "key.pem"}, {"key.pem"}};
    make();
    for (const strings& names : left) {
        std::string other = in("cut" + std::to_string(names.size()) + names[0]);
        fs::create_directory(other);
        for (const std::string& name : names) {
            fs::copy_file(in(name), other + "/" + name);
        }
        std::ofstream(other + "/ca-key.pem.new") << "half a ke";
        std::ofstream(other + "/certificate.pem.new") << "half a certif";
        identity_files files;
        std::string error;
        EXPECT_TRUE(ensure_identity(other, {}, files, report, error)) << error;
        EXPECT_TRUE(make_tls_context(files, error)) << error;
        EXPECT_EQ(verdict(other + "/ca.pem", files.certificate, "localhost"), "ok");
        for (const std::string& name : names) {
            EXPECT_EQ(read(other + "/" + name), read(in(name))) << name;
        }
    }
}

TEST_F(collector_certificate, an_authority_that_does_not_fit_is_refused) {
    identity_files files = make();
    fs::remove(files.certificate);
    fs::copy_file(files.key, in("ca-key.pem"), fs::copy_options::overwrite_existing);
    EXPECT_EQ(refused_start(), in("ca.pem") + " is no certificate of the key " + in("ca-key.pem"));
    std::ofstream(in("ca-key.pem")) << "no PEM\n";
    EXPECT_EQ(refused_start().substr(0, 20), "cannot read the key ");
    EXPECT_FALSE(fs::exists(files.certificate));
}

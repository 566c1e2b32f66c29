#include "base/agent_authority.h"

#include "base/authority_files.h"
#include "base/identity.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <thread>

namespace fs = std::filesystem;

using request_ptr = std::unique_ptr<X509_REQ, released_by<X509_REQ_free>>;
using bio_ptr = std::unique_ptr<BIO, released_by<BIO_free_all>>;
using extension_ptr = std::unique_ptr<X509_EXTENSION, released_by<X509_EXTENSION_free>>;
using bignum_ptr = std::unique_ptr<BIGNUM, released_by<BN_free>>;

static const protocol::agent_identity web1{"ops@example.org", "web1"};

static std::string text_of(BIO* memory) {
    char* data = nullptr;
    long length = BIO_get_mem_data(memory, &data);
    return {data, size_t(length)};
}

/* --- what a host makes ----------------------------------------------------------------------- */

static key_ptr ec_key(const char* curve = "P-256") {
    return key_ptr(EVP_EC_gen(curve));
}

/* The public half, of some odd number; nobody has the other. */
static key_ptr rsa_key(int bits, unsigned exponent) {
    bignum_ptr n(BN_new()), e(BN_new());
    EXPECT_TRUE(BN_rand(n.get(), bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD) &&
                BN_set_word(e.get(), exponent));
    OSSL_PARAM_BLD* build = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(build, OSSL_PKEY_PARAM_RSA_N, n.get());
    OSSL_PARAM_BLD_push_BN(build, OSSL_PKEY_PARAM_RSA_E, e.get());
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(build);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EXPECT_EQ(EVP_PKEY_fromdata_init(context), 1);
    EXPECT_EQ(EVP_PKEY_fromdata(context, &key, EVP_PKEY_PUBLIC_KEY, params), 1);
    EVP_PKEY_CTX_free(context);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(build);
    return key_ptr(key);
}

static std::string pem_of_request(X509_REQ* request) {
    bio_ptr memory(BIO_new(BIO_s_mem()));
    EXPECT_EQ(PEM_write_bio_X509_REQ(memory.get(), request), 1);
    return text_of(memory.get());
}

/* For the one key, signed with the other. */
static std::string request_of(EVP_PKEY* key, EVP_PKEY* signed_with = nullptr,
                              const std::function<void(X509_REQ*)>& change = nullptr) {
    request_ptr request(X509_REQ_new());
    EXPECT_EQ(X509_REQ_set_pubkey(request.get(), key), 1);
    if (change) {
        change(request.get());
    }
    EVP_PKEY* by = signed_with ? signed_with : key;
    const EVP_MD* digest = EVP_PKEY_get_base_id(by) == EVP_PKEY_ED25519 ? nullptr : EVP_sha256();
    EXPECT_GT(X509_REQ_sign(request.get(), by, digest), 0);
    return pem_of_request(request.get());
}

static x509_ptr certificate_of(const std::string& pem) {
    bio_ptr memory(BIO_new_mem_buf(pem.data(), int(pem.size())));
    return x509_ptr(PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr));
}

static void extend(X509* certificate, X509* issuer, int which, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    extension_ptr extension(X509V3_EXT_conf_nid(nullptr, &context, which, value));
    ASSERT_TRUE(extension) << value;
    ASSERT_EQ(X509_add_ext(certificate, extension.get(), -1), 1);
}

static int extension_at(X509* certificate, int which) {
    return X509_get_ext_by_NID(certificate, which, -1);
}

class agent_authority_test : public testing::Test {
protected:
    agent_authority_test() {
        char name[] = "/tmp/agent_authority_test.XXXXXX";
        directory_ = mkdtemp(name);
    }
    ~agent_authority_test() override {
        EXPECT_EQ(ERR_peek_error(), 0u) << "left for whoever looks next";
        fs::remove_all(directory_);
    }

    std::string in(const std::string& name) const { return directory_ + "/" + name; }

    static std::string read(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    agent_authority opened() const { return opened(directory_); }
    static agent_authority opened(const std::string& directory) {
        agent_authority by;
        std::string error;
        EXPECT_TRUE(by.open(directory, error)) << error;
        return by;
    }
    std::string refused() const {
        agent_authority by;
        std::string error;
        EXPECT_FALSE(by.open(directory_, error));
        return error;
    }
    void renew() const {
        std::string error;
        ASSERT_TRUE(renew_agent_authority(directory_, error)) << error;
    }

    static std::string signed_by(const agent_authority& by, EVP_PKEY* key, int days = 90) {
        agent_proof says;
        std::string error;
        std::string pem = by.sign(request_of(key), web1, 1, days, says, error);
        EXPECT_NE(pem, "") << error;
        return pem;
    }
    static x509_ptr certificate_by(const agent_authority& by, int days = 90) {
        return certificate_of(signed_by(by, ec_key().get(), days));
    }
    std::string refused_request(const std::string& request) const {
        agent_proof says;
        std::string error, other;
        EXPECT_EQ(opened().sign(request, web1, 1, 90, says, error), "");
        EXPECT_EQ(key_of_request(request, other), std::nullopt);
        EXPECT_EQ(other, error);
        return error;
    }

    /* A good one, changed and signed again. */
    x509_ptr changed(const std::function<void(X509*, X509*)>& change) const {
        agent_authority by = opened();
        std::string error;
        authority signs;
        EXPECT_TRUE(read_authority(agent_authority_place(directory_).now, signs, error)) << error;
        key_ptr key = ec_key();
        x509_ptr c = make_agent_certificate(key.get(), signs, protocol::identity_uri(web1), 1, 90);
        change(c.get(), signs.certificate.get());
        EXPECT_GT(X509_sign(c.get(), signs.key.get(), EVP_sha256()), 0);
        return certificate_of(pem_of(c.get())); /* as it comes from outside */
    }
    x509_ptr with_names(const std::string& names) const {
        return changed([&](X509* c, X509* issuer) {
            X509_EXTENSION_free(X509_delete_ext(c, extension_at(c, NID_subject_alt_name)));
            if (!names.empty()) {
                extend(c, issuer, NID_subject_alt_name, names.c_str());
            }
        });
    }
    x509_ptr with_serial(const char* hexadecimal) const {
        return changed([&](X509* c, X509*) {
            BIGNUM* number = nullptr;
            ASSERT_GT(BN_hex2bn(&number, hexadecimal), 0);
            bignum_ptr owned(number);
            ASSERT_NE(BN_to_ASN1_INTEGER(number, X509_get_serialNumber(c)), nullptr);
        });
    }
    x509_ptr with_usage(const char* usage) const {
        return changed([&](X509* c, X509* issuer) {
            X509_EXTENSION_free(X509_delete_ext(c, extension_at(c, NID_ext_key_usage)));
            if (*usage) {
                extend(c, issuer, NID_ext_key_usage, usage);
            }
        });
    }
    int verified(const x509_ptr& certificate) const { return opened().verify(certificate.get()); }

    std::string directory_;
};

/* --- the files ------------------------------------------------------------------------------- */

TEST_F(agent_authority_test, it_is_made_once_and_then_kept) {
    agent_authority first = opened();
    const std::string certificate = read(in("agents-ca.pem")), key = read(in("agents-ca-key.pem"));
    struct stat status;
    ASSERT_EQ(stat(in("agents-ca-key.pem").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_EQ(first.accepted().size(), 1u);
    EXPECT_EQ(first.signing(), hash_of_certificate(first.accepted()[0].get()));
    agent_authority second = opened();
    EXPECT_EQ(second.signing(), first.signing());
    EXPECT_EQ(read(in("agents-ca.pem")), certificate);
    EXPECT_EQ(read(in("agents-ca-key.pem")), key);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_), {}), 2);
    EXPECT_EQ(second.note(), "");
}

TEST_F(agent_authority_test, it_is_an_authority_of_twenty_years_and_of_its_own) {
    agent_authority by = opened();
    X509* c = by.accepted()[0].get();
    EXPECT_EQ(X509_check_ca(c), 1);
    EXPECT_EQ(X509_get_pathlen(c), 0);
    EXPECT_EQ(X509_get_key_usage(c), uint32_t(KU_KEY_CERT_SIGN));
    int days, seconds;
    ASSERT_EQ(ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(c)), 1);
    EXPECT_GE(days, 7304);
    char group[32];
    ASSERT_EQ(EVP_PKEY_get_group_name(X509_get0_pubkey(c), group, sizeof(group), nullptr), 1);
    EXPECT_STREQ(group, "prime256v1");
}

TEST_F(agent_authority_test, a_start_cut_short_after_the_key_goes_on_with_it) {
    x509_ptr before = certificate_by(opened());
    const std::string key = read(in("agents-ca-key.pem"));
    fs::remove(in("agents-ca.pem"));
    std::ofstream(in("agents-ca.pem.new")) << "half a certif";
    agent_authority by = opened();
    EXPECT_EQ(read(in("agents-ca-key.pem")), key);
    EXPECT_EQ(by.verify(before.get()), X509_V_OK);
}

TEST_F(agent_authority_test, a_key_that_is_missing_is_not_made_anew) {
    opened();
    const std::string certificate = read(in("agents-ca.pem"));
    fs::remove(in("agents-ca-key.pem"));
    EXPECT_EQ(refused(), in("agents-ca.pem") + " is there but " + in("agents-ca-key.pem") +
                             " is not: put the key back, or get a new pair with "
                             "\"vindral-collector authority renew agents\"");
    EXPECT_FALSE(fs::exists(in("agents-ca-key.pem")));
    EXPECT_EQ(read(in("agents-ca.pem")), certificate);
}

TEST_F(agent_authority_test, a_key_that_does_not_belong_is_told_and_left) {
    opened();
    std::string error;
    ASSERT_TRUE(make_key(in("agents-ca-key.pem"), error)) << error;
    const std::string certificate = read(in("agents-ca.pem")), key = read(in("agents-ca-key.pem"));
    EXPECT_EQ(refused(),
              in("agents-ca.pem") + " is no certificate of the key " + in("agents-ca-key.pem"));
    EXPECT_EQ(read(in("agents-ca.pem")), certificate);
    EXPECT_EQ(read(in("agents-ca-key.pem")), key);
}

TEST_F(agent_authority_test, files_that_are_none_are_told_and_left) {
    opened();
    const std::string good = read(in("agents-ca.pem"));
    std::ofstream(in("agents-ca.pem")) << "nonsense";
    EXPECT_EQ(refused(),
              in("agents-ca.pem") + " is no certificate of the key " + in("agents-ca-key.pem"));
    EXPECT_EQ(read(in("agents-ca.pem")), "nonsense");
    std::ofstream(in("agents-ca.pem")) << good;
    std::ofstream(in("agents-ca-old.pem")) << "nonsense";
    EXPECT_EQ(refused(), in("agents-ca-old.pem") + " is no certificate");
    fs::remove(in("agents-ca-old.pem"));
    std::ofstream(in("agents-ca-key.pem")) << "nonsense";
    EXPECT_TRUE(refused().starts_with("cannot read the key " + in("agents-ca-key.pem")));
    EXPECT_EQ(read(in("agents-ca-key.pem")), "nonsense");
}

TEST_F(agent_authority_test, what_was_open_stays_when_it_cannot_be_opened_again) {
    agent_authority by = opened();
    x509_ptr good = certificate_by(by);
    fs::remove(in("agents-ca-key.pem"));
    std::string error;
    EXPECT_FALSE(by.open(directory_, error));
    EXPECT_EQ(by.verify(good.get()), X509_V_OK);
    EXPECT_EQ(by.verify(certificate_by(by).get()), X509_V_OK);
}

TEST_F(agent_authority_test, a_directory_that_is_not_there_is_named) {
    agent_authority by;
    std::string error;
    EXPECT_FALSE(by.open(in("nowhere"), error));
    EXPECT_EQ(error,
              "cannot write " + in("nowhere") + "/agents-ca-key.pem: No such file or directory");
}

TEST_F(agent_authority_test, of_two_that_start_at_once_both_have_the_same) {
    agent_authority all[8];
    std::vector<std::thread> threads;
    for (agent_authority& each : all) {
        threads.emplace_back([&] {
            std::string error;
            EXPECT_TRUE(each.open(directory_, error)) << error;
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
    for (agent_authority& each : all) {
        EXPECT_EQ(each.signing(), all[0].signing());
    }
}

/* --- what is signed -------------------------------------------------------------------------- */

TEST_F(agent_authority_test, a_certificate_says_who_it_is_for) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    const std::string request = request_of(key.get());
    agent_proof says;
    std::string error;
    const std::string pem = by.sign(request, web1, 7, agent_certificate_days, says, error);
    x509_ptr certificate = certificate_of(pem);
    ASSERT_TRUE(certificate) << error;
    std::optional<agent_proof> read_back = by.read(certificate.get());
    ASSERT_TRUE(read_back.has_value());
    for (const agent_proof& each : {says, *read_back}) {
        EXPECT_EQ(each.who, web1);
        EXPECT_EQ(each.generation, 7u);
        EXPECT_EQ(each.authority, by.signing());
        EXPECT_EQ(each.key, key_of_request(request, error));
        EXPECT_EQ(each.ends - each.begins, 91 * 86400);
        EXPECT_NEAR(double(each.begins), double(time(nullptr) - 86400), 120);
    }
    EXPECT_EQ(by.verify(certificate.get()), X509_V_OK);
    X509* c = certificate.get();
    EXPECT_EQ(X509_check_ca(c), 0);
    EXPECT_EQ(X509_get_extended_key_usage(c), uint32_t(XKU_SSL_CLIENT));
    EXPECT_EQ(X509_get_key_usage(c), uint32_t(KU_DIGITAL_SIGNATURE));
    EXPECT_EQ(X509_check_purpose(c, X509_PURPOSE_SSL_SERVER, 0), 0);
    EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(c), key.get()), 1);
    const ASN1_INTEGER* serial = X509_get0_serialNumber(c);
    ASSERT_EQ(ASN1_STRING_length(serial), 13);
    EXPECT_EQ(ASN1_STRING_get0_data(serial)[0], 7);
    EXPECT_NE(signed_by(by, key.get()), signed_by(by, key.get()));
}

TEST_F(agent_authority_test, every_generation_and_every_name_can_be_read_back) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    const std::string request = request_of(key.get());
    agent_proof says;
    std::string error;
    for (uint32_t generation : {1u, 255u, 256u, 65536u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        x509_ptr c = certificate_of(by.sign(request, web1, generation, 90, says, error));
        ASSERT_TRUE(c) << error;
        EXPECT_EQ(by.read(c.get())->generation, generation);
        EXPECT_EQ(by.verify(c.get()), X509_V_OK);
    }
    for (const protocol::agent_identity& who : std::initializer_list<protocol::agent_identity>{
             {"a,b=c", "d:e;f\"\\'#@"},
             {std::string(254, '%'), std::string(254, '/')},
             {"gr\xc3\xbc\xc3\x9f", "DNS:example.org"}}) {
        x509_ptr c = certificate_of(by.sign(request, who, 1, 90, says, error));
        ASSERT_TRUE(c) << error;
        EXPECT_EQ(by.read(c.get())->who, who);
        EXPECT_EQ(by.verify(c.get()), X509_V_OK);
    }
}

TEST_F(agent_authority_test, nothing_is_signed_for_what_is_no_name_or_generation) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    const std::string request = request_of(key.get());
    agent_proof says;
    std::string error;
    for (const auto& [who, generation] :
         std::initializer_list<std::pair<protocol::agent_identity, uint32_t>>{
             {{"", "a"}, 1},
             {{"a", ""}, 1},
             {{"a", std::string(255, 'b')}, 1},
             {{"a", "b\n"}, 1},
             {web1, 0}}) {
        EXPECT_EQ(by.sign(request, who, generation, 90, says, error), "");
        EXPECT_EQ(error, "no certificate is made for this name");
    }
}

TEST_F(agent_authority_test, none_outlives_the_authority) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    x509_ptr c = certificate_of(signed_by(by, key.get(), 10000));
    EXPECT_EQ(by.read(c.get())->ends, seconds_of(X509_get0_notAfter(by.accepted()[0].get())));
    EXPECT_EQ(by.verify(c.get()), X509_V_OK);
}

TEST_F(agent_authority_test, good_keys_of_all_kinds_are_taken) {
    agent_authority by = opened();
    std::string error;
    std::vector<key_ptr> keys;
    keys.push_back(ec_key());
    keys.push_back(ec_key("P-384"));
    keys.emplace_back(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    keys.emplace_back(EVP_RSA_gen(2048));
    for (const key_ptr& key : keys) {
        const std::string request = request_of(key.get());
        agent_proof says;
        x509_ptr c = certificate_of(by.sign(request, web1, 1, 90, says, error));
        ASSERT_TRUE(c) << error;
        EXPECT_EQ(by.verify(c.get()), X509_V_OK);
        EXPECT_EQ(key_of_request(request, error), says.key);
        EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(c.get()), key.get()), 1);
    }
}

/* --- which requests are not --------------------------------------------------------------------
 */

static const std::string no_request = "this is no certificate request in PEM";
static const std::string bad_key = "the key of the certificate request is none of ECDSA P-256 or "
                                   "P-384, Ed25519 and RSA of 2048 to 4096 bits";
static const std::string not_signed = "the certificate request is not signed with its own key";

TEST_F(agent_authority_test, malformed_requests_are_refused) {
    const std::string good = request_of(ec_key().get());
    for (const std::string& wrong :
         {std::string(), std::string("nonsense"), std::string(8192, '-'), std::string(1, '\0'),
          good.substr(0, good.size() / 2), good.substr(10),
          std::string("-----BEGIN CERTIFICATE REQUEST-----\n-----END CERTIFICATE REQUEST-----\n"),
          std::string("-----BEGIN CERTIFICATE REQUEST-----\nAAAA\n-----END CERTIFICATE "
                      "REQUEST-----\n"),
          pem_of(certificate_by(opened()).get()), read(in("agents-ca-key.pem")),
          std::string("-----BEGIN CERTIFICATE REQUEST-----\nProc-Type: 4,ENCRYPTED\nDEK-Info: "
                      "AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\nAAAA\n-----END CERTIFICATE "
                      "REQUEST-----\n")}) {
        EXPECT_EQ(refused_request(wrong), no_request) << wrong;
    }
    EXPECT_EQ(refused_request(good + std::string(8192, '\n')),
              "the certificate request is longer than 8192 bytes");
    EXPECT_EQ(refused_request(std::string(1 << 20, 'A')),
              "the certificate request is longer than 8192 bytes");
}

TEST_F(agent_authority_test, no_byte_of_a_request_can_be_another) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    const std::string good = request_of(key.get());
    bio_ptr memory(BIO_new_mem_buf(good.data(), int(good.size())));
    request_ptr request(PEM_read_bio_X509_REQ(memory.get(), nullptr, nullptr, nullptr));
    unsigned char* der = nullptr;
    const int length = i2d_X509_REQ(request.get(), &der);
    ASSERT_GT(length, 0);
    agent_proof says;
    std::string error;
    for (int at = 0; at < length; at++) {
        std::vector<unsigned char> wrong(der, der + length);
        wrong[size_t(at)] ^= 1;
        bio_ptr pem(BIO_new(BIO_s_mem()));
        PEM_write_bio(pem.get(), "CERTIFICATE REQUEST", "", wrong.data(), length);
        EXPECT_EQ(by.sign(text_of(pem.get()), web1, 1, 90, says, error), "") << at;
        EXPECT_EQ(ERR_peek_error(), 0u) << at;
    }
    OPENSSL_free(der);
}

TEST_F(agent_authority_test, a_request_signed_with_another_key_is_refused) {
    EXPECT_EQ(refused_request(request_of(ec_key().get(), ec_key().get())), not_signed);
    key_ptr ed(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
    EXPECT_EQ(refused_request(request_of(ec_key().get(), ed.get())), not_signed);
    EXPECT_EQ(refused_request(request_of(ed.get(), ec_key().get())), not_signed);
}

TEST_F(agent_authority_test, weak_and_unknown_keys_are_refused) {
    key_ptr signs = ec_key(), short_rsa(EVP_RSA_gen(1024));
    EXPECT_EQ(refused_request(request_of(short_rsa.get())), bad_key);
    for (const auto& [bits, exponent] :
         {std::pair{2047, 65537u}, {4097, 65537u}, {16000, 65537u}, {2048, 1u}, {2048, 65536u}}) {
        key_ptr rsa = rsa_key(bits, exponent);
        EXPECT_EQ(refused_request(request_of(rsa.get(), signs.get())), bad_key) << bits;
    }
    for (const char* curve : {"P-224", "secp256k1", "P-521", "brainpoolP256r1"}) {
        EXPECT_EQ(refused_request(request_of(ec_key(curve).get())), bad_key) << curve;
    }
    key_ptr pss(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA-PSS", size_t(2048)));
    if (pss) {
        EXPECT_EQ(refused_request(request_of(pss.get())), bad_key);
    }
    ERR_clear_error();
}

TEST_F(agent_authority_test, a_curve_that_is_spelt_out_is_refused) {
    key_ptr key = ec_key();
    ASSERT_EQ(EVP_PKEY_set_utf8_string_param(key.get(), OSSL_PKEY_PARAM_EC_ENCODING,
                                             OSSL_PKEY_EC_ENCODING_EXPLICIT),
              1);
    EXPECT_EQ(refused_request(request_of(key.get())), bad_key);
}

TEST_F(agent_authority_test, a_point_that_is_written_in_short_is_the_same_key) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    ASSERT_EQ(EVP_PKEY_set_utf8_string_param(key.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT,
                                             OSSL_PKEY_EC_POINT_CONVERSION_FORMAT_COMPRESSED),
              1);
    const std::string request = request_of(key.get());
    agent_proof says;
    std::string error;
    x509_ptr c = certificate_of(by.sign(request, web1, 1, 90, says, error));
    ASSERT_TRUE(c) << error;
    EXPECT_EQ(by.read(c.get())->key, key_of_request(request, error));
}

TEST_F(agent_authority_test, what_a_request_asks_for_does_not_count) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    const std::string request = request_of(key.get(), nullptr, [](X509_REQ* r) {
        X509_NAME_add_entry_by_txt(X509_REQ_get_subject_name(r), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("db1"), -1, -1, 0);
        STACK_OF(X509_EXTENSION)* asked = nullptr;
        for (const auto& [which, value] : {std::pair{NID_basic_constraints, "critical,CA:TRUE"},
                                           {NID_subject_alt_name, "URI:vindral:ops/db1,DNS:db1"},
                                           {NID_ext_key_usage, "serverAuth,anyExtendedKeyUsage"},
                                           {NID_key_usage, "keyCertSign"},
                                           {NID_key_usage, "cRLSign"}}) {
            extension_ptr e(X509V3_EXT_conf_nid(nullptr, nullptr, which, value));
            X509v3_add_ext(&asked, e.get(), -1);
        }
        EXPECT_EQ(X509_REQ_add_extensions(r, asked), 1);
        sk_X509_EXTENSION_pop_free(asked, X509_EXTENSION_free);
        const unsigned char password[] = "s3cret";
        EXPECT_EQ(
            X509_REQ_add1_attr_by_NID(r, NID_pkcs9_challengePassword, MBSTRING_ASC, password, 6),
            1);
    });
    agent_proof says;
    std::string error;
    x509_ptr c = certificate_of(by.sign(request, web1, 1, 90, says, error));
    ASSERT_TRUE(c) << error;
    EXPECT_EQ(by.verify(c.get()), X509_V_OK);
    EXPECT_EQ(by.read(c.get())->who, web1);
    EXPECT_EQ(X509_check_ca(c.get()), 0);
    EXPECT_EQ(X509_get_extended_key_usage(c.get()), uint32_t(XKU_SSL_CLIENT));
    EXPECT_EQ(X509_get_key_usage(c.get()), uint32_t(KU_DIGITAL_SIGNATURE));
    EXPECT_EQ(X509_get_ext_count(c.get()), 6);
    EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(c.get())), 1);
}

TEST_F(agent_authority_test, text_around_a_request_does_no_harm) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    agent_proof says;
    std::string error;
    const std::string request = request_of(key.get());
    EXPECT_NE(by.sign("Certificate Request:\n" + request + "more\n", web1, 1, 90, says, error), "");
}

/* --- which certificates are good ---------------------------------------------------------------
 */

TEST_F(agent_authority_test, somebody_elses_are_not) {
    fs::create_directory(in("other"));
    agent_authority ours = opened(), theirs = opened(in("other"));
    /* The same subject name, another key. */
    EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(ours.accepted()[0].get()),
                            X509_get_subject_name(theirs.accepted()[0].get())),
              0);
    x509_ptr foreign = certificate_by(theirs);
    EXPECT_EQ(ours.verify(foreign.get()), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
    EXPECT_EQ(ours.read(foreign.get())->authority, protocol::sha256());
    /* And one that says nothing of the key that signed it. */
    std::string error;
    authority signs;
    ASSERT_TRUE(read_authority(agent_authority_place(in("other")).now, signs, error));
    x509_ptr silent = certificate_of(pem_of(foreign.get()));
    X509_EXTENSION_free(
        X509_delete_ext(silent.get(), extension_at(silent.get(), NID_authority_key_identifier)));
    ASSERT_GT(X509_sign(silent.get(), signs.key.get(), EVP_sha256()), 0);
    silent = certificate_of(pem_of(silent.get()));
    EXPECT_EQ(ours.verify(silent.get()), X509_V_ERR_CERT_SIGNATURE_FAILURE);
    /* Or that of another. */
    x509_ptr posing = changed([](X509*, X509*) {});
    ASSERT_GT(X509_sign(posing.get(), signs.key.get(), EVP_sha256()), 0);
    posing = certificate_of(pem_of(posing.get()));
    EXPECT_EQ(ours.verify(posing.get()), X509_V_ERR_CERT_SIGNATURE_FAILURE);
}

TEST_F(agent_authority_test, the_servers_authority_signs_no_agents) {
    identity_files files;
    identity_report report;
    std::string error;
    ASSERT_TRUE(ensure_identity(directory_, {}, files, report, error)) << error;
    agent_authority by = opened();
    EXPECT_EQ(by.verify(read_certificate(files.certificate).get()),
              X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
    EXPECT_EQ(by.read(read_certificate(files.certificate).get()), std::nullopt);
    authority signs;
    ASSERT_TRUE(read_authority(server_authority_place(directory_).now, signs, error));
    x509_ptr posing =
        make_agent_certificate(ec_key().get(), signs, protocol::identity_uri(web1), 1, 90);
    EXPECT_EQ(by.verify(posing.get()), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(agent_authority_test, only_within_their_time) {
    agent_authority by = opened();
    x509_ptr ended = certificate_by(by, 0), long_ago = certificate_by(by, -1);
    EXPECT_EQ(by.verify(long_ago.get()), X509_V_ERR_CERT_HAS_EXPIRED);
    x509_ptr early = changed([](X509* c, X509*) { X509_gmtime_adj(X509_getm_notBefore(c), 3600); });
    EXPECT_EQ(verified(early), X509_V_ERR_CERT_NOT_YET_VALID);
    EXPECT_TRUE(opened().read(long_ago.get()));
    EXPECT_LE(by.read(ended.get())->ends, time(nullptr));
}

TEST_F(agent_authority_test, only_for_clients) {
    EXPECT_EQ(verified(with_usage("clientAuth")), X509_V_OK);
    EXPECT_EQ(verified(with_usage("serverAuth")), X509_V_ERR_INVALID_PURPOSE);
    EXPECT_EQ(verified(with_usage("serverAuth,clientAuth")), X509_V_ERR_INVALID_PURPOSE);
    EXPECT_EQ(verified(with_usage("anyExtendedKeyUsage")), X509_V_ERR_INVALID_PURPOSE);
    EXPECT_EQ(verified(with_usage("")), X509_V_ERR_INVALID_PURPOSE);
}

TEST_F(agent_authority_test, no_authority_poses_as_an_agent) {
    agent_authority by = opened();
    EXPECT_NE(by.verify(by.accepted()[0].get()), X509_V_OK);
    EXPECT_EQ(by.read(by.accepted()[0].get()), std::nullopt);
    x509_ptr one_below = changed([](X509* c, X509* issuer) {
        X509_EXTENSION_free(X509_delete_ext(c, extension_at(c, NID_basic_constraints)));
        extend(c, issuer, NID_basic_constraints, "critical,CA:TRUE");
    });
    EXPECT_NE(by.verify(one_below.get()), X509_V_OK);
    x509_ptr old_kind = changed([](X509* c, X509*) {
        X509_EXTENSION_free(X509_delete_ext(c, extension_at(c, NID_basic_constraints)));
        X509_EXTENSION_free(X509_delete_ext(c, extension_at(c, NID_key_usage)));
    });
    EXPECT_EQ(by.verify(old_kind.get()), X509_V_OK) << "no authority, and no harm";
}

TEST_F(agent_authority_test, a_leaf_signs_nobody) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    authority leaf;
    leaf.certificate = certificate_of(signed_by(by, key.get()));
    leaf.key = std::move(key);
    x509_ptr below =
        make_agent_certificate(ec_key().get(), leaf, protocol::identity_uri(web1), 1, 90);
    EXPECT_EQ(by.verify(below.get()), X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

TEST_F(agent_authority_test, one_that_signed_itself_is_not) {
    key_ptr key = ec_key();
    x509_ptr made = changed([&](X509* c, X509*) { X509_set_pubkey(c, key.get()); });
    X509_set_issuer_name(made.get(), X509_get_subject_name(made.get()));
    X509_EXTENSION_free(
        X509_delete_ext(made.get(), extension_at(made.get(), NID_authority_key_identifier)));
    ASSERT_GT(X509_sign(made.get(), key.get(), EVP_sha256()), 0);
    made = certificate_of(pem_of(made.get()));
    EXPECT_EQ(verified(made), X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
}

TEST_F(agent_authority_test, names_in_another_way_are_none) {
    EXPECT_EQ(verified(with_names("URI:vindral:ops/web1")), X509_V_OK);
    for (const char* names :
         {"", "URI:vindral:ops", "URI:vindral:ops/web1/more", "URI:vindral:%6Fps/web1",
          "URI:vindral:ops%2fx/web1", "URI:https://example.org/", "DNS:web1",
          "email:ops@example.org", "URI:vindral:ops/web1,URI:vindral:ops/web2",
          "URI:vindral:ops/web1,URI:vindral:ops/web1", "URI:vindral:ops/web1,DNS:web1",
          "DNS:web1,URI:vindral:ops/web1", "DNS:vindral:ops/web1"}) {
        x509_ptr c = with_names(names);
        EXPECT_EQ(opened().read(c.get()), std::nullopt) << names;
        EXPECT_EQ(verified(c), X509_V_ERR_INVALID_PURPOSE) << names;
    }
    x509_ptr twice = changed([](X509* c, X509* issuer) {
        extend(c, issuer, NID_subject_alt_name, "URI:vindral:ops/web2");
    });
    EXPECT_EQ(opened().read(twice.get()), std::nullopt);
    EXPECT_NE(verified(twice), X509_V_OK);
    /* A name that ends where C's strings do. */
    x509_ptr cut = changed([](X509* c, X509*) {
        GENERAL_NAMES* names = sk_GENERAL_NAME_new_null();
        GENERAL_NAME* name = GENERAL_NAME_new();
        ASN1_IA5STRING* uri = ASN1_IA5STRING_new();
        ASN1_STRING_set(uri, "vindral:ops/web1\0x", 18);
        GENERAL_NAME_set0_value(name, GEN_URI, uri);
        sk_GENERAL_NAME_push(names, name);
        ASSERT_EQ(X509_add1_ext_i2d(c, NID_subject_alt_name, names, 0, X509V3_ADD_REPLACE), 1);
        GENERAL_NAMES_free(names);
    });
    EXPECT_EQ(opened().read(cut.get()), std::nullopt);
}

TEST_F(agent_authority_test, serial_numbers_of_another_make_are_none) {
    const std::string random = "0102030405060708090A0B0C";
    EXPECT_EQ(opened().read(with_serial(("05" + random).c_str()).get())->generation, 5u);
    EXPECT_EQ(opened().read(with_serial(("FFFFFFFF" + random).c_str()).get())->generation,
              0xffffffffu);
    for (const std::string& wrong : {std::string("0"), std::string("1"), random, "-05" + random,
                                     "0100000000" + random, "-" + random}) {
        x509_ptr c = with_serial(wrong.c_str());
        EXPECT_EQ(opened().read(c.get()), std::nullopt) << wrong;
        EXPECT_NE(verified(c), X509_V_OK) << wrong;
    }
}

TEST_F(agent_authority_test, no_byte_of_a_certificate_can_be_another) {
    agent_authority by = opened();
    x509_ptr good = certificate_by(by);
    unsigned char* der = nullptr;
    const int length = i2d_X509(good.get(), &der);
    ASSERT_GT(length, 0);
    int taken = 0, parsed = 0;
    for (int at = 0; at < length; at++) {
        std::vector<unsigned char> wrong(der, der + length);
        wrong[size_t(at)] ^= 1;
        const unsigned char* from = wrong.data();
        x509_ptr c(d2i_X509(nullptr, &from, length));
        ERR_clear_error();
        if (c) {
            parsed++;
            taken += by.verify(c.get()) == X509_V_OK;
            by.read(c.get());
        }
    }
    OPENSSL_free(der);
    EXPECT_GT(parsed, length / 2);
    EXPECT_EQ(taken, 0);
}

TEST_F(agent_authority_test, threads_share_one) {
    agent_authority by = opened();
    key_ptr key = ec_key();
    const std::string request = request_of(key.get());
    x509_ptr good = certificate_of(signed_by(by, key.get()));
    /* What OpenSSL notes of a certificate when it is first used is published by an atomic of its
     * own, which the thread sanitizer does not see. */
    ASSERT_EQ(by.verify(good.get()), X509_V_OK);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            for (int n = 0; n < 20; n++) {
                agent_proof says;
                std::string error;
                EXPECT_EQ(by.verify(good.get()), X509_V_OK);
                EXPECT_NE(by.sign(request, web1, 1, 90, says, error), "");
            }
        });
    }
    for (std::thread& each : threads) {
        each.join();
    }
}

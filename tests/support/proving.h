/* Agents with certificates: an authority of theirs in a directory of the test's, what it signs, and
 * what it would never sign. */
#ifndef PROVING_H
#define PROVING_H

#include "base/agent_authority.h"
#include "base/authority_files.h"
#include "collector_server.h"
#include "eventually.h"
#include "ingest/known_agents.h"
#include "store/settings.h"

#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <atomic>
#include <ctime>

/* A key, and what shows it. */
struct shown_key {
    key_ptr key;
    x509_ptr certificate;
};

inline key_ptr new_key() {
    return key_ptr(EVP_EC_gen("P-256"));
}

inline std::string pem_text(const std::function<void(BIO*)>& write) {
    BIO* out = BIO_new(BIO_s_mem());
    write(out);
    char* data = nullptr;
    long length = BIO_get_mem_data(out, &data);
    std::string text(data, size_t(length));
    BIO_free(out);
    return text;
}

/* The public half of the one, which everybody has, and a private half that is not its own. */
inline key_ptr stolen_key(EVP_PKEY* of, EVP_PKEY* own) {
    unsigned char point[200];
    size_t length = 0;
    BIGNUM* number = nullptr;
    EVP_PKEY_get_octet_string_param(of, OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point, &length);
    EVP_PKEY_get_bn_param(own, OSSL_PKEY_PARAM_PRIV_KEY, &number);
    OSSL_PARAM_BLD* parts = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_utf8_string(parts, OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1", 0);
    OSSL_PARAM_BLD_push_octet_string(parts, OSSL_PKEY_PARAM_PUB_KEY, point, length);
    OSSL_PARAM_BLD_push_BN(parts, OSSL_PKEY_PARAM_PRIV_KEY, number);
    OSSL_PARAM* all = OSSL_PARAM_BLD_to_param(parts);
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context);
    EVP_PKEY_fromdata(context, &key, EVP_PKEY_KEYPAIR, all);
    EVP_PKEY_CTX_free(context);
    OSSL_PARAM_free(all);
    OSSL_PARAM_BLD_free(parts);
    BN_free(number);
    return key_ptr(key);
}

/* A certificate request for the key. */
inline std::string request_for(EVP_PKEY* key) {
    X509_REQ* request = X509_REQ_new();
    X509_REQ_set_pubkey(request, key);
    X509_REQ_sign(request, key, EVP_sha256());
    std::string text = pem_text([&](BIO* out) { PEM_write_bio_X509_REQ(out, request); });
    X509_REQ_free(request);
    return text;
}

inline x509_ptr certificate_of(const std::string& pem) {
    BIO* in = BIO_new_mem_buf(pem.data(), int(pem.size()));
    x509_ptr found(PEM_read_bio_X509(in, nullptr, nullptr, nullptr));
    BIO_free(in);
    return found;
}

/* Valid from and to so many seconds from now, signed anew. */
inline void redate(X509* certificate, EVP_PKEY* signs, long from, long to) {
    X509_gmtime_adj(X509_getm_notBefore(certificate), from);
    X509_gmtime_adj(X509_getm_notAfter(certificate), to);
    X509_sign(certificate, signs, EVP_sha256());
}

/* A server that asks its agents who they are. */
class proving_server : public collector_server {
protected:
    static constexpr long day_s = 24 * 60 * 60;

    void SetUp() override {
        std::string error, note;
        ASSERT_TRUE(authority_.open(place_.path(), error)) << error;
        kept_ = settings::open(place_.path(), note, error);
        ASSERT_TRUE(kept_) << error;
    }

    /* With what the directory has now. */
    std::shared_ptr<agents_tls> make_tls() {
        std::string error;
        agent_authority by;
        EXPECT_TRUE(by.open(place_.path(), error)) << error;
        identity_files files;
        identity_report report;
        EXPECT_TRUE(ensure_identity(directory_->path(), {}, files, report, error)) << error;
        published_authorities published;
        EXPECT_TRUE(publish_authorities(directory_->path(), files, published, error)) << error;
        return std::make_shared<agents_tls>(make_tls_context(files, error), std::move(by),
                                            std::move(published), *known_,
                                            [this] { return now_.load(); });
    }

    void start_with(agents_mode mode, const std::string& plan = "POL\t0\t30\n") {
        std::string error;
        known_ = std::make_unique<known_agents>(*kept_, mode, [this] { return now_.load(); });
        ASSERT_TRUE(known_->refresh(error)) << error;
        shown_ = make_tls();
        start(plan);
    }

    /* Of an agent that was admitted and got its certificate as a host gets it. */
    shown_key enrolled(const std::string& agent, const std::string& account = "me@example.org") {
        std::string error, why;
        shown_key is{new_key(), nullptr};
        const std::string request = request_for(is.key.get());
        auto key = key_of_request(request, error);
        EXPECT_TRUE(key) << error;
        EXPECT_TRUE(known_->admit(account, agent, key, true, "test", error)) << error;
        protocol::agent_identity who;
        uint32_t generation = 0;
        EXPECT_EQ(known_->enrol_by_name(account, agent, key.value_or(protocol::sha256()),
                                        "127.0.0.1", who, generation, why),
                  known_agents::answer::sign)
            << why;
        agent_proof says;
        is.certificate = certificate_of(authority_.sign(request, who, generation, 90, says, error));
        EXPECT_TRUE(is.certificate) << error;
        EXPECT_TRUE(known_->note_issued(says, error)) << error;
        return is;
    }

    /* The key of the authority, for what it would not sign itself. */
    key_ptr authority_key() const {
        std::string error;
        return read_key(agent_authority_place(place_.path()).now.key, error);
    }

    reply ask_as(const shown_key& who, const std::string& text, const char* from = "127.0.0.1") {
        client c(port_, from);
        c.show(who.certificate.get(), who.key.get());
        if (!c.handshake() || !c.send(text)) {
            return {};
        }
        return c.read_reply();
    }

    std::string log_in_as(const shown_key& who, const std::string& agent) {
        return ask_as(who, login_text("me@example.org", agent)).session;
    }

    uint64_t refused(refusal why) const { return counted_.refusals[size_t(why)].get(); }
    /* A peer has its alert before it is counted. */
    bool are_refused(refusal why, uint64_t count) {
        return eventually([&] { return refused(why) == count; });
    }

    bool logged(const std::string& line) {
        std::vector<std::string> lines = log();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    scratch_directory place_; /* of the agents' authority, and the settings */
    agent_authority authority_;
    std::atomic<int64_t> now_ = time(nullptr);
    std::unique_ptr<settings> kept_;
};

#endif

#include "base/agent_authority.h"

#include "base/authority_files.h"
#include "base/files.h"

#include <algorithm>
#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <unistd.h>

using bio_ptr = std::unique_ptr<BIO, released_by<BIO_free_all>>;
using request_ptr = std::unique_ptr<X509_REQ, released_by<X509_REQ_free>>;
using key_context_ptr = std::unique_ptr<EVP_PKEY_CTX, released_by<EVP_PKEY_CTX_free>>;
using verification_ptr = std::unique_ptr<X509_STORE_CTX, released_by<X509_STORE_CTX_free>>;
using names_ptr = std::unique_ptr<GENERAL_NAMES, released_by<GENERAL_NAMES_free>>;

/* --- files ----------------------------------------------------------------------------------- */

/* Whether a new authority has the key in its place but not yet its certificate. */
static bool is_half_way(const authority_place& of) {
    authority_files mixed = of.now;
    mixed.certificate = of.next.certificate;
    authority ignored;
    std::string error;
    return file_exists(of.next.certificate) && !file_exists(of.next.key) &&
           read_authority(mixed, ignored, error);
}

bool agent_authority::open(const std::string& directory, std::string& error) {
    const authority_place place = agent_authority_place(directory);
    const std::string old_file = old_agent_authority(directory);
    directory_lock lock(directory);
    authority now;
    if ((is_half_way(place) && !take_place(place, error)) ||
        !ensure_authority(place.now, now, error)) {
        return false;
    }
    x509_ptr old = read_certificate(old_file);
    if (!old && file_exists(old_file)) {
        error = old_file + " is no certificate";
        return false;
    }
    std::vector<x509_ptr> accepted;
    store_ptr store(X509_STORE_new());
    X509_up_ref(now.certificate.get());
    accepted.emplace_back(now.certificate.get());
    /* The same, when an exchange was cut short before the new one took the place. */
    if (old && X509_cmp(old.get(), accepted[0].get()) != 0) {
        accepted.push_back(std::move(old));
    }
    for (const x509_ptr& each : accepted) {
        if (!store || X509_STORE_add_cert(store.get(), each.get()) != 1) {
            error = "cannot use " + place.now.certificate + ": " + take_tls_error();
            return false;
        }
    }
    signs_ = std::move(now);
    signing_ = hash_of_certificate(accepted[0].get());
    accepted_ = std::move(accepted);
    store_ = std::move(store);
    return true;
}

bool renew_agent_authority(const std::string& directory, std::string& error) {
    const authority_place place = agent_authority_place(directory);
    const std::string old_file = old_agent_authority(directory);
    directory_lock lock(directory);
    if (is_half_way(place) && !take_place(place, error)) {
        return false;
    }
    x509_ptr now = read_certificate(place.now.certificate), old = read_certificate(old_file);
    if (!now) {
        error = file_exists(place.now.certificate)
                    ? place.now.certificate + " is no certificate"
                    : "there is no " + place.now.certificate + " yet: a start makes it";
        return false;
    }
    if (file_exists(old_file) && (!old || X509_cmp(old.get(), now.get()) != 0)) {
        error = "an exchange is under way: " + old_file +
                " is still accepted. \"vindral-collector authority finish agents\" ends that";
        return false;
    }
    authority next;
    return ensure_authority(place.next, next, error) &&
           write_certificate(old_file, now.get(), error) && take_place(place, error);
}

bool finish_agent_authority(const std::string& directory, std::string& error) {
    const authority_place place = agent_authority_place(directory);
    const std::string old_file = old_agent_authority(directory);
    directory_lock lock(directory);
    if (is_half_way(place) && !take_place(place, error)) {
        return false;
    }
    x509_ptr now = read_certificate(place.now.certificate), old = read_certificate(old_file);
    if (!file_exists(old_file)) {
        error = "no exchange of the agents' authority is under way";
        return false;
    }
    if (!now || (old && X509_cmp(old.get(), now.get()) == 0)) {
        error = "the exchange was cut short before the new authority was in its place: "
                "\"vindral-collector authority renew agents\" goes on with it";
        return false;
    }
    if (unlink(old_file.c_str()) != 0) {
        error = system_error("cannot remove " + old_file);
        return false;
    }
    return true;
}

/* --- what a certificate says ----------------------------------------------------------------- */

/* The one URI among its alternative names; "" when there is another name, or none. */
static std::string uri_in(X509* certificate) {
    names_ptr names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    if (sk_GENERAL_NAME_num(names.get()) != 1) {
        return "";
    }
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), 0);
    if (name->type != GEN_URI) {
        return "";
    }
    const ASN1_IA5STRING* uri = name->d.uniformResourceIdentifier;
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(uri)),
            size_t(ASN1_STRING_length(uri))};
}

/* 0 for a serial number that sign() has not given. */
static uint32_t generation_in(X509* certificate) {
    const ASN1_INTEGER* serial = X509_get0_serialNumber(certificate);
    const size_t length = size_t(ASN1_STRING_length(serial));
    if (ASN1_STRING_type(serial) != V_ASN1_INTEGER || length <= serial_random ||
        length > serial_random + sizeof(uint32_t)) {
        return 0;
    }
    uint32_t generation = 0;
    for (size_t i = 0; i < length - serial_random; i++) {
        generation = generation << 8 | ASN1_STRING_get0_data(serial)[i];
    }
    return generation;
}

static protocol::sha256 hash_of_key(EVP_PKEY* key) {
    protocol::sha256 hash{};
    unsigned char* der = nullptr;
    int length = i2d_PUBKEY(key, &der);
    if (length > 0) {
        EVP_Digest(der, size_t(length), hash.data(), nullptr, EVP_sha256(), nullptr);
    }
    OPENSSL_free(der);
    return hash;
}

std::optional<agent_proof> agent_authority::read(X509* certificate) const {
    EVP_PKEY* key = X509_get0_pubkey(certificate);
    std::optional<protocol::agent_identity> who = protocol::read_identity_uri(uri_in(certificate));
    agent_proof says;
    says.generation = generation_in(certificate);
    says.begins = seconds_of(X509_get0_notBefore(certificate));
    says.ends = seconds_of(X509_get0_notAfter(certificate));
    ERR_clear_error();
    if (!key || !who || says.generation == 0) {
        return std::nullopt;
    }
    says.who = *who;
    says.key = hash_of_key(key);
    for (const x509_ptr& by : accepted_) {
        if (X509_check_issued(by.get(), certificate) == X509_V_OK) {
            says.authority = hash_of_certificate(by.get());
            break;
        }
    }
    return says;
}

/* What sign() makes, whatever else an authority may once have signed. */
static bool is_for_agents(X509* certificate) {
    return X509_check_ca(certificate) == 0 &&
           (X509_get_extension_flags(certificate) & EXFLAG_CA) == 0 &&
           X509_get_extended_key_usage(certificate) == XKU_SSL_CLIENT;
}

int agent_authority::verify(X509* certificate) const {
    verification_ptr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store_.get(), certificate, nullptr) != 1 ||
        X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_CLIENT) != 1) {
        ERR_clear_error();
        return X509_V_ERR_OUT_OF_MEM;
    }
    bool verified = X509_verify_cert(context.get()) == 1;
    int result = X509_STORE_CTX_get_error(context.get());
    ERR_clear_error();
    if (!verified) {
        return result == X509_V_OK ? X509_V_ERR_UNSPECIFIED : result;
    }
    return is_for_agents(certificate) && read(certificate) ? X509_V_OK : X509_V_ERR_INVALID_PURPOSE;
}

std::string agent_authority::note() const {
    bool soon = !accepted_.empty() && ends_soon(accepted_[0].get());
    return soon ? "the agents' authority ends on " + end_of(accepted_[0].get()) : "";
}

/* --- requests -------------------------------------------------------------------------------- */

static bool is_named_curve(EVP_PKEY* key) {
    char group[32] = "";
    int spelt_out = 0; /* somebody's own curve, which may have any weakness */
    bool known = EVP_PKEY_get_group_name(key, group, sizeof(group), nullptr) == 1;
    EVP_PKEY_get_int_param(key, OSSL_PKEY_PARAM_EC_DECODED_FROM_EXPLICIT_PARAMS, &spelt_out);
    const std::string_view name = group;
    return known && spelt_out == 0 && (name == SN_X9_62_prime256v1 || name == SN_secp384r1);
}

/* The kinds that are taken; their size first, on which the work of the checks depends. */
static bool is_good_key(EVP_PKEY* key) {
    const int bits = EVP_PKEY_get_bits(key);
    switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_EC:
        if (!is_named_curve(key)) {
            return false;
        }
        break;
    case EVP_PKEY_RSA:
        if (bits < 2048 || bits > 4096) {
            return false;
        }
        break;
    case EVP_PKEY_ED25519:
        break;
    default:
        return false;
    }
    key_context_ptr context(EVP_PKEY_CTX_new(key, nullptr));
    return context && EVP_PKEY_public_check(context.get()) == 1;
}

static request_ptr read_request(std::string_view text, std::string& error) {
    if (text.size() > protocol::max_request) {
        error = "the certificate request is longer than " + std::to_string(protocol::max_request) +
                " bytes";
        return nullptr;
    }
    bio_ptr pem(BIO_new_mem_buf(text.data(), int(text.size())));
    auto no_passphrase = [](char*, int, int, void*) { return 0; };
    request_ptr request(pem ? PEM_read_bio_X509_REQ(pem.get(), nullptr, no_passphrase, nullptr)
                            : nullptr);
    EVP_PKEY* key = request ? X509_REQ_get0_pubkey(request.get()) : nullptr;
    error.clear();
    if (!request) {
        error = "this is no certificate request in PEM";
    } else if (!key || !is_good_key(key)) {
        error = "the key of the certificate request is none of ECDSA P-256 or P-384, Ed25519 and "
                "RSA of 2048 to 4096 bits";
    } else if (X509_REQ_verify(request.get(), key) != 1) {
        error = "the certificate request is not signed with its own key";
    }
    ERR_clear_error();
    return error.empty() ? std::move(request) : nullptr;
}

std::string agent_authority::sign(std::string_view request, const protocol::agent_identity& who,
                                  uint32_t generation, int days, agent_proof& says,
                                  std::string& error) const {
    const std::string uri = protocol::identity_uri(who);
    if (uri.empty() || generation == 0) {
        error = "no certificate is made for this name";
        return "";
    }
    request_ptr from = read_request(request, error);
    if (!from) {
        return "";
    }
    x509_ptr certificate =
        make_agent_certificate(X509_REQ_get0_pubkey(from.get()), signs_, uri, generation, days);
    std::string pem = pem_of(certificate.get());
    std::optional<agent_proof> read_back = certificate ? read(certificate.get()) : std::nullopt;
    if (pem.empty() || !read_back) {
        error = "cannot make a certificate: " + take_tls_error();
        return "";
    }
    says = *read_back;
    return pem;
}

std::optional<protocol::sha256> key_of_request(std::string_view request, std::string& error) {
    request_ptr from = read_request(request, error);
    return from ? std::optional(hash_of_key(X509_REQ_get0_pubkey(from.get()))) : std::nullopt;
}

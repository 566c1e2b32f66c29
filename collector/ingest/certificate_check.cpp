#include "ingest/certificate_check.h"

#include "base/text.h"

#include <cstring>
#include <openssl/x509_vfy.h>

size_t certificate_check::hash_of::operator()(const protocol::sha256& of) const {
    size_t start = 0;
    memcpy(&start, of.data(), sizeof start);
    return start;
}

/* Why, in the words of the log. */
static const char* words_of(int reason) {
    switch (reason) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "it has ended";
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return "it has not begun";
    case X509_V_ERR_CERT_REVOKED:
        return "it is revoked";
    case X509_V_ERR_APPLICATION_VERIFICATION:
        return "it is no agent's";
    default:
        return X509_verify_cert_error_string(reason);
    }
}

/* What it says, when an authority of ours signed it: remembered or found out. Null with the reason.
 */
const agent_proof* certificate_check::find(X509* certificate, agent_proof& says, int& reason) {
    const protocol::sha256 hash = hash_of_certificate(certificate);
    auto known = good_.find(hash);
    if (known != good_.end()) {
        return &known->second;
    }
    reason = by_.verify(certificate);
    if (reason != X509_V_OK) {
        return nullptr;
    }
    auto read = by_.read(certificate);
    if (!read) {
        reason = X509_V_ERR_APPLICATION_VERIFICATION;
        return nullptr;
    }
    says = *read;
    if (good_.size() >= most_) {
        good_.erase(in_order_.front());
        in_order_.pop_front();
    }
    in_order_.push_back(hash);
    return &good_.emplace(hash, std::move(*read)).first->second;
}

int certificate_check::look(X509* certificate, agent_proof& says, std::string& refused) {
    int reason = X509_V_OK;
    const agent_proof* proof = find(certificate, says, reason);
    if (proof) {
        says = *proof;
        const int64_t now = now_();
        if (now < says.begins) {
            reason = X509_V_ERR_CERT_NOT_YET_VALID;
        } else if (now > says.ends) {
            reason = X509_V_ERR_CERT_HAS_EXPIRED;
        } else if (known_.may_show(says) != standing::good) {
            reason = X509_V_ERR_CERT_REVOKED;
        }
    } else if (reason == X509_V_ERR_CERT_HAS_EXPIRED || reason == X509_V_ERR_CERT_NOT_YET_VALID) {
        /* The signature is good: for the operator to know which host has to enrol anew. */
        auto read = by_.read(certificate);
        says = read ? *read : agent_proof();
        proof = read ? &says : nullptr;
    }
    refused = reason == X509_V_OK ? "" : words_of(reason);
    if (!refused.empty() && proof) {
        refused += ": " + printable(says.who.agent) + " of " + printable(says.who.account);
    }
    return reason;
}

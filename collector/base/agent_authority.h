/* The authority that signs agents' certificates, and nothing else; not the one that signs the
 * server's. Of the state directory: agents-ca.pem and agents-ca-key.pem, made at the first start
 * (20 years, ECDSA P-256), and, while authorities are exchanged, agents-ca-old.pem, the one before,
 * whose certificates are good as well until the exchange is finished. While a new one is made it is
 * agents-ca-next.pem with agents-ca-next-key.pem.
 *
 * A certificate is an agent's when one of these signed it, it is valid now, is meant for clients
 * and has the one name of protocol/enrolment.h. Its serial number says which generation of that
 * name's certificates it is of (4 bytes, from 1 on) in front of 12 random ones. */
#ifndef VINDRAL_COLLECTOR_AGENT_AUTHORITY_H
#define VINDRAL_COLLECTOR_AGENT_AUTHORITY_H

#include "base/agent_proof.h"
#include "base/certificate.h"
#include "protocol/enrolment.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

constexpr int agent_certificate_days = 90; /* vindral-enrol renews when a third is left */

class agent_authority {
public:
    /* Made when it is missing. False with one line in `error`; what was open stays so. */
    bool open(const std::string& directory, std::string& error);

    /* Whose certificates are good: the one that signs first. */
    const std::vector<x509_ptr>& accepted() const { return accepted_; }
    const protocol::sha256& signing() const { return signing_; } /* SHA-256 of the one that signs */

    /* What the certificate says; nothing is verified. None when it is no agent's. */
    std::optional<agent_proof> read(X509* certificate) const;

    /* Whether it is a good one now: signed by one of these, within its time, for clients and
     * nothing else, with an agent's name. The reason (X509_V_OK or another X509_V_ERR_) is that of
     * OpenSSL. */
    int verify(X509* certificate) const;

    /* The certificate for the key of a request (PEM), of `days` days, begun a day ago; "" with one
     * line in `error` for a request that is malformed, not signed with its own key, or whose key is
     * none of ECDSA P-256 or P-384, Ed25519, RSA of 2048 to 4096 bits. `says` is what it says. Any
     * thread, as are the above but open(). */
    std::string sign(std::string_view request, const protocol::agent_identity& who,
                     uint32_t generation, int days, agent_proof& says, std::string& error) const;

    /* For the operator: that it ends soon. "" when there is nothing to say. */
    std::string note() const;

private:
    using store_ptr = std::unique_ptr<X509_STORE, released_by<X509_STORE_free>>;

    authority signs_;
    std::vector<x509_ptr> accepted_;
    store_ptr store_; /* the same, for OpenSSL */
    protocol::sha256 signing_{};
};

/* The exchange. A new authority signs from now on, and the one before is still accepted; then it is
 * no longer. False with one line in `error`, and nothing has changed but what the same call goes on
 * from. A running collector sees it by identity_stamp() (base/identity.h). */
bool renew_agent_authority(const std::string& directory, std::string& error);
bool finish_agent_authority(const std::string& directory, std::string& error);

/* The hash of the key that a request (PEM) is for; none for what is malformed or not signed with
 * it. */
std::optional<protocol::sha256> key_of_request(std::string_view request, std::string& error);

#endif

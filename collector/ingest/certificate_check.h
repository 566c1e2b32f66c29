/* Whose certificates pass in the handshakes of agents, and what they say. A handshake of a known
 * certificate costs no signature here: which ones the authorities have signed is remembered, since
 * that does not change. What may change is looked at each time: the time, and who is revoked.
 *
 * Network thread only. */
#ifndef VINDRAL_COLLECTOR_CERTIFICATE_CHECK_H
#define VINDRAL_COLLECTOR_CERTIFICATE_CHECK_H

#include "base/agent_authority.h"
#include "ingest/known_agents.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>

class certificate_check {
public:
    /* So many are remembered: as many hosts as a collector may have. Only what an authority of ours
     * signed is, so strangers push out nothing. */
    static constexpr size_t most_remembered = 65536;

    /* Both must outlive this. `now`: seconds since the epoch. */
    certificate_check(const agent_authority& by, const known_agents& known,
                      std::function<int64_t()> now, size_t most = most_remembered)
        : by_(by), known_(known), now_(std::move(now)), most_(most) {}

    /* X509_V_OK and what it says, or the reason why not, OpenSSL's, and in `refused` for the log.
     */
    int look(X509* certificate, agent_proof& says, std::string& refused);

    size_t remembered() const { return good_.size(); }

private:
    struct hash_of {
        size_t operator()(const protocol::sha256& of) const;
    };
    const agent_proof* find(X509* certificate, agent_proof& says, int& reason);

    const agent_authority& by_;
    const known_agents& known_;
    const std::function<int64_t()> now_;
    const size_t most_;
    std::unordered_map<protocol::sha256, agent_proof, hash_of> good_; /* by the hash of the DER */
    std::deque<protocol::sha256> in_order_;
};

#endif

/* What a certificate of an agent says, once it has been read and verified (agent_authority.h). */
#ifndef VINDRAL_COLLECTOR_AGENT_PROOF_H
#define VINDRAL_COLLECTOR_AGENT_PROOF_H

#include "protocol/enrolment.h"

#include <cstdint>
#include <string>

struct agent_proof {
    protocol::agent_identity who;
    uint32_t generation = 0;
    protocol::sha256 key{};       /* SHA-256 of its public key (SubjectPublicKeyInfo, DER) */
    protocol::sha256 authority{}; /* of the certificate that signed it (DER) */
    int64_t begins = 0, ends = 0; /* seconds since the epoch */
};

std::string fingerprint(const protocol::sha256& hash); /* "SHA256:" and base64, as ssh has them */

#endif

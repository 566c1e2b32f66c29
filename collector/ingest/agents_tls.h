/* How the port of the agents shows itself, and whose certificates it takes: made of one set of
 * files, and exchanged as one. A connection under way keeps what it began with. */
#ifndef VINDRAL_COLLECTOR_AGENTS_TLS_H
#define VINDRAL_COLLECTOR_AGENTS_TLS_H

#include "base/agent_authority.h"
#include "base/identity.h"
#include "base/tls.h"
#include "ingest/certificate_check.h"

#include <cstdint>
#include <functional>
#include <memory>

class agents_tls {
public:
    /* Nobody is asked for a certificate. */
    explicit agents_tls(tls_context context) : context_(std::move(context)) {}

    /* Agents may show certificates, signed by these authorities. `published`: what the server is
     * verified with; its `pem` is "" where that is not known. */
    agents_tls(tls_context context, agent_authority by, published_authorities published,
               const known_agents& known, std::function<int64_t()> now);

    SSL_CTX* context() const { return context_.get(); }
    const agent_authority& authority() const { return by_; }
    const published_authorities& published() const { return published_; }
    certificate_check* check() { return check_.get(); } /* null: nobody is asked */

private:
    tls_context context_;
    const agent_authority by_;
    const published_authorities published_;
    std::unique_ptr<certificate_check> check_;
};

#endif

#include "ingest/agents_tls.h"

agents_tls::agents_tls(tls_context context, agent_authority by, published_authorities published,
                       const known_agents& known, std::function<int64_t()> now)
    : context_(std::move(context)), by_(std::move(by)), published_(std::move(published)),
      check_(std::make_unique<certificate_check>(by_, known, std::move(now))) {
    ask_for_certificate(context_.get(), by_.accepted());
}

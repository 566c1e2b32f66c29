/* The API of a running collector, put together: its web server and what that stands on. */
#ifndef VINDRAL_COLLECTOR_API_SIDE_H
#define VINDRAL_COLLECTOR_API_SIDE_H

#include "api/live.h"
#include "api/services.h"
#include "base/tls.h"
#include "ingest/server.h"
#include "life/agents_side.h"
#include "life/options.h"
#include "web/server.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

class api_side {
public:
    /* All must outlive this. `fleet` may be null: a plan of raw commands rules. */
    api_side(const options& o, size_t connections, const agents_side& identities, ingest& results,
             server& agents, event_hub& hub, const counters& counted, fleet_service* fleet,
             std::function<void(const std::string&)> log);
    ~api_side(); /* stop() */

    /* Opens the port, writes the port file, and leaves in the state directory
     * where the API is. False with one line in `error`, and nothing is open then. */
    bool start(std::string& error);
    bool is_open() const { return server_ != nullptr; }

    /* For the operator: where it is, and as long as nobody has a token a link that signs in. Lines
     * with their ends; empty when it is not open. */
    std::string announcement() const;

    /* Connections from now on are made with the certificate that is there now. */
    void exchange_tls();

    void stop();

private:
    std::optional<bool> ask_agents(bool (server::*what)(const std::string& account,
                                                        const std::string& agent),
                                   std::string_view account, std::string_view agent) const;
    bool check_now(std::string_view account, std::string_view agent) const;

    const options& options_;
    const web_options web_;
    const agents_side& identities_;
    const tls_context tls_; /* null: plain */
    const std::function<void(const std::string&)> log_;
    std::unique_ptr<reader_pool> stored_;
    ingest& results_;
    server& agents_;
    event_hub& hub_;
    const counters& counted_;
    fleet_service* const fleet_;
    std::unique_ptr<api_services> services_;
    std::unique_ptr<web_server> server_;
};

#endif

#include "life/api_side.h"

#include "api/route.h"
#include "base/files.h"
#include "life/token_commands.h"

#include <boost/asio/post.hpp>
#include <chrono>
#include <ctime>
#include <exception>
#include <future>
#include <system_error>
#include <unistd.h>

static constexpr std::chrono::seconds longest_wait_for_agents{1};

static web_options web_options_from(const options& o, size_t connections,
                                    const identity_report& identity) {
    web_options w;
    w.address = o.web_address;
    w.port = o.web_port;
    w.names = identity.names;
    w.names.insert(w.names.end(), o.names.begin(), o.names.end());
    w.limits.connections = connections;
    w.answer = answer_request;
    w.stream = stream_filter;
    return w;
}

/* 127.0.0.0/8 and ::1: there it needs no TLS. */
static bool is_loopback(const std::string& address) {
    return address == "::1" || address.starts_with("127.");
}

api_side::api_side(const options& o, size_t connections, const agents_side& identities,
                   ingest& results, server& agents, event_hub& hub, const counters& counted,
                   fleet_service* fleet, std::function<void(const std::string&)> log)
    : options_(o), web_(web_options_from(o, connections, identities.report())),
      identities_(identities), tls_(is_loopback(o.web_address) ? nullptr : identities.for_api()),
      log_(std::move(log)), stored_(std::make_unique<reader_pool>(o.state_dir)), results_(results),
      agents_(agents), hub_(hub), counted_(counted), fleet_(fleet) {}

/* Has the network thread do it, and says what came of it; none when that takes longer than a
 * second: it is done later then. So it refers to nothing of this call's. */
std::optional<bool> api_side::ask_agents(bool (server::*what)(const std::string&,
                                                              const std::string&),
                                         std::string_view account, std::string_view agent) const {
    auto answer = std::make_shared<std::promise<bool>>();
    std::future<bool> done = answer->get_future();
    boost::asio::post(agents_.context(),
                      [&agents = agents_, what, answer, account = std::string(account),
                       agent = std::string(agent)] {
                          try {
                              answer->set_value((agents.*what)(account, agent));
                          } catch (const std::exception&) { /* nobody else would catch it */
                              answer->set_exception(std::current_exception());
                          }
                      });
    if (done.wait_for(longest_wait_for_agents) != std::future_status::ready) {
        return std::nullopt;
    }
    return done.get();
}

bool api_side::check_now(std::string_view account, std::string_view agent) const {
    std::optional<bool> told = ask_agents(&server::check_now, account, agent);
    if (!told) {
        throw_unavailable("The collector is busy with its agents: within a second it could not "
                          "tell this one. It may still do so.");
    }
    return *told;
}

api_side::~api_side() {
    stop();
}

bool api_side::start(std::string& error) {
    settings* const kept = identities_.kept();
    if (!kept) {
        error = identities_.settings_error();
        return false;
    }
    services_ = std::make_unique<api_services>(api_services{
        .stored = *stored_,
        .results = results_,
        .hub = hub_,
        .kept = *kept,
        .agents = *identities_.known(),
        .where_agents_poll = [this] { return identities_.where_agents_poll(); },
        .secrets = *identities_.secrets(),
        .counted = counted_,
        .now = [] { return int64_t{time(nullptr)}; },
        .check_now = [this](std::string_view account,
                            std::string_view agent) { return check_now(account, agent); },
        .send_away =
            [this](std::string_view account, std::string_view agent) {
                ask_agents(&server::send_away, account, agent);
            },
        .readiness =
            [this](bool& ready) {
                std::string trouble = counted_.pulse.trouble(store_pulse::clock::now());
                ready = trouble.empty();
                return ready ? std::vector<std::string>() : std::vector{trouble};
            },
        .version = collector_version(),
        .allowed_accounts = options_.allow,
        .fleet = fleet_});
    std::unique_ptr<web_server> server;
    try {
        server = std::make_unique<web_server>(web_, tls_.get(), *kept, *services_, log_);
    } catch (const std::system_error& e) {
        error = "cannot start a thread: " + e.code().message();
        return false;
    }
    if (!server->listen(error)) {
        return false;
    }
    const std::string& port_file = options_.web_port_file;
    if (!port_file.empty() &&
        !replace_file(port_file, std::to_string(server->port()) + "\n", 0666)) {
        error = system_error("cannot write " + port_file);
        return false;
    }
    if (!replace_file(url_file(options_.state_dir), server->url() + "\n", 0644)) {
        log_(system_error("cannot write " + url_file(options_.state_dir)));
    }
    server_ = std::move(server);
    return true;
}

std::string api_side::announcement() const {
    if (!server_) {
        return "";
    }
    std::string text = "The API is at " + server_->url() + "\n", error;
    settings& kept = *identities_.kept();
    if (has_no_token(kept)) {
        std::string link = make_link(kept, server_->url(), "", error);
        text += link.empty() ? "vindral-collector: no link can be made: " + error + "\n"
                             : "Within 15 minutes this signs in, once:\n  " + link + "\n";
    }
    return text;
}

void api_side::exchange_tls() {
    if (server_ && tls_) {
        server_->exchange_tls(identities_.for_api());
    }
}

void api_side::stop() {
    if (server_) {
        server_->stop();
        server_.reset();
        stored_.reset(); /* a file that is read cannot be closed tidily */
        unlink(url_file(options_.state_dir).c_str());
        if (!options_.web_port_file.empty()) {
            unlink(options_.web_port_file.c_str());
        }
    }
}

/* What agents are told of the fleet. Network thread: it never waits for the store. */
#ifndef VINDRAL_COLLECTOR_FLEET_TOLD_FLEET_H
#define VINDRAL_COLLECTOR_FLEET_TOLD_FLEET_H

#include "fleet/fleet_state.h"
#include "ingest/event_log.h"
#include "ingest/instructions.h"
#include "plan/known_secrets.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

class told_fleet : public instructions {
public:
    /* `secrets` may be null; both outlive it. `log` is told, with bounds, who gets no tests with
     * secrets. */
    told_fleet(fleet_state& state, const known_secrets* secrets,
               std::function<void(const std::string&)> log)
        : state_(state), secrets_(secrets), kept_back_(std::move(log)) {}

    void refresh() override {}
    bool prepare(const session& of, std::function<void()> ready) override;
    told_commands for_login(const session& of) override;
    told_commands after(const session& of, uint64_t serial) override;
    std::string text_for_check(const session& of) override;
    void login_arrived(const session& of) override;
    void answer_arrived(const session& of) override;
    std::chrono::seconds poll_interval(const session& of) const override;

private:
    std::optional<std::string> expand(std::string_view line) const;
    void tell_kept_back(const session& of, const given_agent& given);

    fleet_state& state_;
    const known_secrets* const secrets_;
    event_log kept_back_;
};

#endif

/* What the API asks of the fleet, and those who show results. Any thread. */
#ifndef VINDRAL_COLLECTOR_FLEET_ASKED_FLEET_H
#define VINDRAL_COLLECTOR_FLEET_ASKED_FLEET_H

#include "fleet/fleet_storing.h"
#include "fleet/service.h"
#include "ingest/test_names.h"

#include <string>
#include <string_view>

class asked_fleet : public fleet_service, public test_names {
public:
    /* `file`: path of the one that rules; empty: there is none. The others outlive it. */
    asked_fleet(fleet_state& state, work_maker& made, fleet_storing& stored, std::string file)
        : state_(state), made_(made), stored_(stored), file_(std::move(file)) {}

    fleet_standing standing() const override;
    std::string text(int32_t& revision) const override;
    fleet_outcome try_out(std::string_view text) override;
    fleet_outcome apply(std::string_view text, const std::string& author,
                        std::optional<int32_t> expected) override;
    std::vector<std::string> groups_of(std::string_view account,
                                       std::string_view agent) const override;
    std::vector<fleet_test_standing> tests_of(std::string_view account,
                                              std::string_view agent) const override;
    std::optional<fleet_test_standing> test_of(std::string_view account, std::string_view agent,
                                               uint32_t type, int32_t number) const override;
    std::optional<called_test> name_of(std::string_view account, std::string_view agent,
                                       uint32_t type, int32_t number) const override;

private:
    std::string why_conflict(std::optional<int32_t> expected) const; /* with the mutex */
    std::string why_too_many(const fleet& file) const;

    fleet_state& state_;
    work_maker& made_;
    fleet_storing& stored_;
    const std::string file_;
};

#endif

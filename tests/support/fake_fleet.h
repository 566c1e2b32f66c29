/* A fleet that says what a test has put into it, and notes what is asked of it. */
#ifndef FAKE_FLEET_H
#define FAKE_FLEET_H

#include "fleet/service.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class fake_fleet final : public fleet_service {
public:
    fleet_standing standing() const override { return now; }
    std::string text(int32_t& revision) const override {
        revision = now.text_revision;
        return in_force;
    }
    fleet_outcome try_out(std::string_view text) override {
        asked.push_back("try " + std::string(text));
        return outcome;
    }
    fleet_outcome apply(std::string_view text, const std::string& author,
                        std::optional<int32_t> expected) override {
        asked.push_back("apply " + std::string(text) + " by " + author +
                        (expected ? " on " + std::to_string(*expected) : ""));
        return outcome;
    }
    std::vector<std::string> groups_of(std::string_view account,
                                       std::string_view agent) const override {
        auto found = groups.find(std::string(account) + "/" + std::string(agent));
        return found != groups.end() ? found->second : std::vector<std::string>();
    }
    std::vector<fleet_test_standing> tests_of(std::string_view account,
                                              std::string_view agent) const override {
        auto found = tests.find(std::string(account) + "/" + std::string(agent));
        return found != tests.end() ? found->second : std::vector<fleet_test_standing>();
    }
    std::optional<fleet_test_standing> test_of(std::string_view account, std::string_view agent,
                                               uint32_t type, int32_t number) const override {
        for (const fleet_test_standing& each : tests_of(account, agent)) {
            if (each.number == number && each.kind != nullptr && each.kind->record->code == type) {
                return each;
            }
        }
        return std::nullopt;
    }

    fleet_standing now;
    std::string in_force;
    fleet_outcome outcome;          /* of the next that is tried or applied */
    std::vector<std::string> asked; /* "apply TEXT by AUTHOR on REVISION" */
    /* By "account/name". */
    std::map<std::string, std::vector<std::string>> groups;
    std::map<std::string, std::vector<fleet_test_standing>> tests;
};

#endif

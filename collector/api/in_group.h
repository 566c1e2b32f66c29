/* Whether agents are in the group that a request asks for: by the fleet in force, each agent asked
 * once. */
#ifndef VINDRAL_COLLECTOR_IN_GROUP_H
#define VINDRAL_COLLECTOR_IN_GROUP_H

#include "api/services.h"
#include "fleet/service.h"

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class in_group {
public:
    /* With an empty group every agent is let through; without a fleet there are no groups. */
    in_group(std::string group, const api_services& with)
        : group_(std::move(group)), fleet_(with.fleet) {}

    bool has(std::string_view account, std::string_view agent) {
        if (group_.empty()) {
            return true;
        }
        auto [place, is_new] =
            known_.try_emplace({std::string(account), std::string(agent)}, false);
        if (is_new && fleet_ != nullptr) {
            const std::vector<std::string> groups = fleet_->groups_of(account, agent);
            place->second = std::find(groups.begin(), groups.end(), group_) != groups.end();
        }
        return place->second;
    }

private:
    const std::string group_;
    const fleet_service* const fleet_;
    std::map<std::pair<std::string, std::string>, bool> known_;
};

#endif

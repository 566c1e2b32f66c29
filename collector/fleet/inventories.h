/* What agents say of their machines with each poll: of what is seldom another. Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_INVENTORIES_H
#define VINDRAL_COLLECTOR_FLEET_INVENTORIES_H

#include "base/record_summary.h"
#include "fleet/wanted.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/* Whether tests are looked for in inventories of that type. */
bool is_searched(uint32_t type);

/* The items of an inventory as the agent wrote them, a tab behind each. */
std::string_view items_of(const decoded_record& inventory);

class known_inventory {
public:
    const agent_inventory& has() const { return has_; }

    /* Null when `items` is what is known already. */
    static std::shared_ptr<const known_inventory>
    with(const std::shared_ptr<const known_inventory>& before, uint32_t type,
         std::string_view items);

private:
    agent_inventory has_;
    std::string file_systems_, interfaces_; /* as they were written */
};

#endif

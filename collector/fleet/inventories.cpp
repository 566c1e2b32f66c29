#include "fleet/inventories.h"

#include <vector>

bool is_searched(uint32_t type) {
    return type == protocol::file_systems.code || type == protocol::network_interfaces.code;
}

std::string_view items_of(const decoded_record& inventory) {
    std::optional<size_t> list =
        inventory.summary.schema != nullptr
            ? index_of(inventory.summary.schema->values, protocol::value_role::list)
            : std::nullopt;
    const string_list& strings = inventory.content.strings;
    return list && *list < strings.size() ? strings[*list] : std::string_view();
}

static std::vector<std::string> parted(std::string_view items) {
    std::vector<std::string> all;
    while (!items.empty()) {
        const size_t end = items.find('\t');
        if (end != 0) {
            all.emplace_back(items.substr(0, end));
        }
        items.remove_prefix(end == items.npos ? items.size() : end + 1);
    }
    return all;
}

std::shared_ptr<const known_inventory>
known_inventory::with(const std::shared_ptr<const known_inventory>& before, uint32_t type,
                      std::string_view items) {
    const bool is_disks = type == protocol::file_systems.code;
    if (before) {
        const bool is_known =
            is_disks ? before->has_.file_systems.has_value() : before->has_.interfaces.has_value();
        if (is_known && (is_disks ? before->file_systems_ : before->interfaces_) == items) {
            return nullptr;
        }
    }
    auto now =
        before ? std::make_shared<known_inventory>(*before) : std::make_shared<known_inventory>();
    (is_disks ? now->file_systems_ : now->interfaces_) = items;
    (is_disks ? now->has_.file_systems : now->has_.interfaces) = parted(items);
    return now;
}

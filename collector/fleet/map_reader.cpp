#include "fleet/map_reader.h"

#include "fleet/text_check.h"
#include "fleet/units.h"

#include <algorithm>

namespace {

void refuse_key(const std::string& what, const node& key, const std::vector<map_key>& keys,
                remarks& wrong) {
    std::vector<std::string_view> names;
    std::string list;
    for (const map_key& each : keys) {
        names.push_back(each.name);
        list.append(list.empty() ? "" : ", ").append(in_ticks(each.name));
    }
    const std::string_view meant = closest(key.text, names);
    wrong.add(key.at, in_ticks(key.text) + ": no such key of " + what +
                          (meant.empty() ? "; there are " + list : or_close(meant)));
}

} // namespace

void read_map(const std::string& what, text_place at, const node& from,
              const std::vector<map_key>& keys, remarks& wrong) {
    if (from.is != node::kind::map && from.is != node::kind::nothing) {
        wrong.add(from.at, what + ": expected a map, \"key: value\"");
        return;
    }
    for (const auto& [name, value] : from.members) {
        auto key = std::find_if(keys.begin(), keys.end(),
                                [&](const map_key& each) { return each.name == name.text; });
        if (key == keys.end()) {
            refuse_key(what, name, keys, wrong);
        } else {
            key->take(value);
        }
    }
    for (const map_key& key : keys) {
        if (key.required && from.find(key.name) == nullptr) {
            wrong.add(at, what + ": " + in_ticks(key.name) + " is missing");
        }
    }
}

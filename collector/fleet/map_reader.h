/* A map of a fleet file that has certain keys. */
#ifndef VINDRAL_COLLECTOR_FLEET_MAP_READER_H
#define VINDRAL_COLLECTOR_FLEET_MAP_READER_H

#include "fleet/node.h"
#include "fleet/remarks.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct map_key {
    std::string_view name;
    std::function<void(const node& value)> take;
    bool required = false;
};

/* Hands the value of each key over, in the order of the file. Remarks that `from` is no map
 * (`what`:
 * "`intervals`"), which keys there are not, and which are missing (at `at`). An empty place is an
 * empty map. */
void read_map(const std::string& what, text_place at, const node& from,
              const std::vector<map_key>& keys, remarks& wrong);

#endif

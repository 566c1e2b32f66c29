/* The shapes of all bodies, as JSON Schemas (2020-12) of the components of the description. */
#ifndef VINDRAL_COLLECTOR_SCHEMAS_H
#define VINDRAL_COLLECTOR_SCHEMAS_H

#include <span>
#include <string_view>

struct schema_def {
    std::string_view name, text;
};

/* By name. Lists of "agent" are "agents" and so on: an object with `items`, `next` and, where not
 * all could be read, `incomplete`. */
std::span<const schema_def> all_schemas();

#endif

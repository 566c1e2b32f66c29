/* The fleet file: which agents have which tests. A text becomes a `fleet` or a list of what is
 * wrong with it; nothing in between. Pure. docs/fleet.md explains the spelling; api/fleet_schema.h
 * has its JSON Schema. */
#ifndef VINDRAL_COLLECTOR_FLEET_FILE_H
#define VINDRAL_COLLECTOR_FLEET_FILE_H

#include "fleet/fleet.h"

#include <string_view>
#include <vector>

/* False with all that is wrong in `wrong`, by line: the first error where the text is no sound
 * YAML, everything else at once, a hundred at the most. No text at all is an empty fleet, as before
 * the first one; one of blanks and comments has no `version`, and is wrong. */
bool read_fleet(std::string_view text, fleet& found, std::vector<remark>& wrong);

#endif

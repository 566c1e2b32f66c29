/* The fleet file as JSON: what it may be, and what one is. Any thread. */
#ifndef VINDRAL_COLLECTOR_API_FLEET_SCHEMA_H
#define VINDRAL_COLLECTOR_API_FLEET_SCHEMA_H

#include <string>
#include <string_view>

/* The JSON Schema (2020-12) of the file, for editors; made of the table of kinds. Whatever
 * read_fleet() takes fits it; it says nothing of what can only be known from several values
 * together. */
std::string fleet_schema();

/* The tree of a file, for programs, of a text that read_fleet() took. Texts that are whole numbers
 * or true or false, and are not in quotes, become such. As a fleet file it says the same; of an
 * empty one it is {"version": 1}. */
std::string fleet_as_json(std::string_view text);

#endif

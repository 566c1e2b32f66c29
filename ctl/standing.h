/* How a name stands with the collector, as people read it. */
#ifndef VINDRAL_CTL_STANDING_H
#define VINDRAL_CTL_STANDING_H

#include "ctl/place.h"
#include "ctl/table.h"

#include <boost/json.hpp>
#include <string>

/* "proven"; "" where nobody has decided anything. */
table_cell identity_cell(const boost::json::object& of, std::string_view name);

/* The fingerprint of the key that a host wants certified, or that there is none. */
std::string waiting_key(const place& here, const boost::json::object& waiting);

/* The facts of a standing, a line each; none where nothing is known. */
void put_standing(const place& here, const boost::json::object& standing);

/* How many names wait to be admitted; 0 as well when the collector does not say. */
size_t count_waiting(const place& here);

#endif

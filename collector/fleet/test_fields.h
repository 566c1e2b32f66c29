/* What agents are sent of a test: the fields of its add command, made of the values that the file
 * gives. Where agents take something other than what people mean (a local CPU's system and nice
 * time, the end of a range, -1 or 0 for no limit) it is put right here. What agents cannot do is
 * an error. Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_TEST_FIELDS_H
#define VINDRAL_COLLECTOR_FLEET_TEST_FIELDS_H

#include "fleet/fleet.h"
#include "fleet/values.h"

/* Fills fields, target, looks_for and free_share of a test of which name, kind and place are known.
 * `all` has each required key, and the one that is named as the kind. Remarks what is wrong. */
void make_fields(fleet_test& test, const given_values& all, remarks& wrong);

/* What of a value is for people: without what follows the "?" of a page, and "***" for a secret
 * that is no placeholder. */
std::string shown_text(const key_def& key, const std::string& written);

#endif

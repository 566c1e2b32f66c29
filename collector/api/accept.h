/* Which type of an answer is wanted, where there are several. */
#ifndef VINDRAL_COLLECTOR_API_ACCEPT_H
#define VINDRAL_COLLECTOR_API_ACCEPT_H

#include <string_view>

/* How much an Accept header wants the type, by the most exact of what it names: 0 (not at all) to
 * 1. Where it names a version, it has to be `version`. */
double wanted(std::string_view accept, std::string_view type, std::string_view version = "");

#endif

/* The table of routes as OpenAPI 3.1. */
#ifndef VINDRAL_COLLECTOR_OPEN_API_H
#define VINDRAL_COLLECTOR_OPEN_API_H

#include "api/route.h"

#include <span>
#include <string>
#include <string_view>

/* `cookie`: the name of the session's. */
std::string describe(std::span<const route> rows, std::string_view cookie);

#endif

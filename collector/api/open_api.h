/* The table of routes as OpenAPI 3.1. */
#ifndef VINDRAL_COLLECTOR_OPEN_API_H
#define VINDRAL_COLLECTOR_OPEN_API_H

#include "api/route.h"

#include <span>
#include <string>

std::string describe(std::span<const route> rows);

#endif

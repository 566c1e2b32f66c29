/* The rows of each resource. */
#ifndef VINDRAL_COLLECTOR_RESOURCES_H
#define VINDRAL_COLLECTOR_RESOURCES_H

#include "api/route.h"

#include <span>

std::span<const route> agent_routes();
std::span<const route> test_routes();
std::span<const route> result_routes();
std::span<const route> series_routes();
std::span<const route> enrolment_routes(); /* who may be an agent */
std::span<const route> event_routes();
std::span<const route> fleet_routes();
std::span<const route> change_routes();
std::span<const route> ledger_routes();
std::span<const route> metric_routes();
std::span<const route> token_routes();
std::span<const route> secret_value_routes();
std::span<const route> health_routes();
std::span<const route> web_routes(); /* what the web server answers itself */

#endif

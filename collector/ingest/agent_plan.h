/* What one agent is to bring, where that differs from what all are to. */
#ifndef VINDRAL_COLLECTOR_AGENT_PLAN_H
#define VINDRAL_COLLECTOR_AGENT_PLAN_H

#include "ingest/owned_definition.h"
#include "state/expected.h"

#include <string>
#include <vector>

struct agent_plan {
    std::string account, agent;
    plan_summary plan;
    std::vector<owned_definition> definitions;
};

#endif

/* Agents and tests by what requests call them. Throw problem 404 for what there is not. */
#ifndef VINDRAL_COLLECTOR_FIND_H
#define VINDRAL_COLLECTOR_FIND_H

#include "api/request.h"
#include "state/agent_state.h"
#include "store/engine.h"

#include <cstdint>
#include <map>
#include <string>

struct found_agent {
    int64_t id = 0;
    std::string account = {}, name = {}, address = {}, version = {};
    int64_t first_seen = 0, last_seen = 0, retired = 0;
    agent_state state = {}; /* empty when it is damaged */

    explicit found_agent(const known_agent& row);
};

/* `called`: its id, or account/name. */
found_agent find_agent(result_reader& store, const std::string& called);
/* 0 when nothing is asked for. */
int64_t agent_asked_for(result_reader& store, const api_request& asked);

known_test_row find_test(result_reader& store, int64_t id);

/* Names of agents by id, each looked up once. */
class agent_names {
public:
    explicit agent_names(result_reader& store) : store_(store) {}
    struct name {
        std::string account, agent;
    };
    const name& of(int64_t id);

private:
    result_reader& store_;
    std::map<int64_t, name> known_;
};

#endif

/* test_definition (store/engine.h) with its own texts. */
#ifndef VINDRAL_COLLECTOR_OWNED_DEFINITION_H
#define VINDRAL_COLLECTOR_OWNED_DEFINITION_H

#include <cstdint>
#include <string>

struct owned_definition {
    uint32_t type = 0;
    int32_t number = 0, location = 0;
    std::string name = {}, text = {};
    std::string title = {}, group = {}; /* of a fleet's test */
};

#endif

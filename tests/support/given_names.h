/* Names of tests as a test gives them. */
#ifndef VINDRAL_TESTS_GIVEN_NAMES_H
#define VINDRAL_TESTS_GIVEN_NAMES_H

#include "ingest/test_names.h"

#include <map>
#include <tuple>

struct given_names : test_names {
    std::map<std::tuple<std::string, std::string, uint32_t, int32_t>, called_test> all = {};

    std::optional<called_test> name_of(std::string_view account, std::string_view agent,
                                       uint32_t type, int32_t number) const override {
        auto found = all.find({std::string(account), std::string(agent), type, number});
        return found != all.end() ? std::optional(found->second) : std::nullopt;
    }
};

#endif

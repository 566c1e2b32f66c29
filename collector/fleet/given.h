/* What an agent was given, as it is looked up: made once, shared, and never changed. Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_GIVEN_H
#define VINDRAL_COLLECTOR_FLEET_GIVEN_H

#include "fleet/assigned.h"
#include "ingest/owned_definition.h"
#include "state/expected.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using test_key = std::pair<uint32_t, int32_t>; /* type of the records, number */

test_key key_of(const assigned_test& test);

class given_agent {
public:
    given_agent() = default;
    explicit given_agent(assigned_agent what);

    const assigned_agent& all() const { return all_; }

    /* Null: it has none. Those that are impossible and have a number are among them. */
    const assigned_test* find(test_key key) const;
    const assigned_test* find(std::string_view name) const;
    const removed_test* find_removed(test_key key) const;

    /* "${secret:NAME}" is in a field of it. */
    bool has_secrets(const assigned_test& test) const;
    /* Of any test, also of one that cannot be sent. */
    bool has_secrets() const { return any_secrets_; }

    /* The longer of the two intervals, in seconds; 60 where none was told. */
    int32_t slowest() const;

private:
    assigned_agent all_;
    std::vector<std::pair<test_key, uint32_t>> places_; /* of tests with a number, by key */
    std::vector<bool> secrets_;                         /* by place */
    bool any_secrets_ = false;
};

/* As it is stored. */
std::string packed(const given_agent& agent);

/* What is to come of the agent: of the tests that are sent. */
plan_summary plan_of(const given_agent& agent);
/* What each of these is. Of secret fields the places are empty, as everywhere. */
std::vector<owned_definition> definitions_of(const given_agent& agent);

/* Adds the names of the secrets that results of each test may have in them. */
void add_secrets(const given_agent& agent, std::map<test_key, std::vector<std::string>>& names);

#endif

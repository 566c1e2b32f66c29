/* What a fleet file says, once it is read: which agents have which tests. Plain. */
#ifndef VINDRAL_COLLECTOR_FLEET_FLEET_H
#define VINDRAL_COLLECTOR_FLEET_FLEET_H

#include "fleet/kinds.h"
#include "fleet/node.h"
#include "fleet/pattern.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* A test as the file has it, the same for all agents that have it. */
struct fleet_test {
    std::string name;  /* the operator's: 1 to 100 characters, no control characters */
    std::string group; /* of the group that defines it */
    std::string was;   /* the name it had before; empty: none is said */
    const test_kind* kind = nullptr; /* null: "off", which takes the test of that name away */
    text_place at = {};              /* of its name */
    std::string target = {};         /* what it looks at, for people, without secrets: "/", "nginx",
                                        "https://shop.example.org/" */

    /* The fields of the add command behind the location id, as the agent takes them; the last one
     * is never empty. "${secret:NAME}" stands for secrets. */
    std::vector<std::string> fields = {};

    /* What the file says of it, for people: keys and values, as they would be written, in the order
     * of the kind's table; placeholders for secrets as they stand. */
    std::vector<std::pair<std::string, std::string>> shown = {};

    /* What is found per agent: the name of a disk ("/") or of an interface ("eth0") as the file has
     * it; fields[0] is to become the one that the agent's inventory has. */
    std::string looks_for = {};
    /* Of a disk: the least that is to be free, in percent of the whole; fields[1] is to become that
     * in GB, once the whole is known, and is "0" (no limit) before. */
    std::optional<double> free_share = {};
};

/* In seconds. None: nothing is said. */
struct fleet_intervals {
    std::optional<int32_t> poll = {}, check = {};
};
constexpr int32_t default_interval_s = 60;

struct fleet_group {
    std::string name;
    std::vector<agent_pattern> agents;
    fleet_intervals intervals = {};
    std::vector<std::shared_ptr<const fleet_test>> tests = {}; /* in order */
    text_place at = {};
};

struct fleet {
    fleet_intervals intervals = {};
    std::vector<fleet_group> groups = {}; /* in order: a later one overrides a test of the name */
    /* What is read, found sound, and not heeded by this version: notifications and alerts. */
    std::vector<remark> notes = {};
    std::vector<std::string> secrets = {}; /* names that it uses, each once */
};

#endif

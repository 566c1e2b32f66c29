/* What an agent is to have: the file, looked at for one agent and what is known of its machine.
 * Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_WANTED_H
#define VINDRAL_COLLECTOR_FLEET_WANTED_H

#include "fleet/fleet.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/* What an agent said of its machine: the items of its inventories, as sent. None: not said yet. */
struct agent_inventory {
    std::optional<std::vector<std::string>> file_systems = {}; /* "DIRECTORY(DEVICE|TYPE)" */
    std::optional<std::vector<std::string>> interfaces = {};
};

/* What of a test was found for the agent before, and is kept where it is not found now: a disk that
 * is not mounted any more is a problem to be shown, no reason to stop looking. */
struct found_before {
    std::string name;    /* the protocol's name of the disk or interface */
    double whole_gb = 0; /* of a disk, as the last result had it; 0: not known */
};

struct wanted_test {
    std::shared_ptr<const fleet_test> what;
    std::vector<std::string> fields = {}; /* as of fleet_test, with what was found; empty: those */
    std::string found = {};               /* the protocol's name of the disk or interface */
    double whole_gb = 0;                  /* of that disk; 0: not known */
    /* Why the agent cannot have it ("there is no disk /data; there are /, /home"); empty: it can.
     * What is only not known yet says so: `waits`. */
    std::string impossible = {};
    bool waits = false;

    const std::vector<std::string>& its_fields() const {
        return fields.empty() ? what->fields : fields;
    }
};

struct wanted_agent {
    std::vector<std::string> groups = {};                          /* that have it, in order */
    int32_t poll = default_interval_s, check = default_interval_s; /* seconds */
    /* Which group's interval it is, where groups differ: "30s of web servers is shorter than 60s of
     * everything"; empty: nothing is to be said. */
    std::string about_intervals = {};
    std::vector<wanted_test> tests = {}; /* by name */
};

/* Of all groups that have the agent, in order: a later one overrides a test of the same name, and
 * "off" takes it away. Intervals: the shortest that any of these groups says; else those of the
 * file; else 60 s. `before`: by test name.
 *
 * A disk is the entry of the inventory whose directory is named, of several the last. An interface
 * has to be in the inventory, and none before it may be part of its name: the agent would watch
 * that one instead. */
wanted_agent wanted_of(const fleet& all, std::string_view account, std::string_view name,
                       const agent_inventory& has,
                       const std::map<std::string, found_before, std::less<>>& before);

/* How many tests the groups give to the agent, each counted for itself also where a later one
 * overrides it. Cheap. */
size_t tests_given(const fleet& all, std::string_view account, std::string_view name);

#endif

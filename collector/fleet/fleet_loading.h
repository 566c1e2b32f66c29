/* The fleet as an earlier run left it. */
#ifndef VINDRAL_COLLECTOR_FLEET_LOADING_H
#define VINDRAL_COLLECTOR_FLEET_LOADING_H

#include "fleet/fleet_state.h"
#include "fleet/revision_counter.h"

#include <memory>
#include <string>
#include <vector>

struct loaded_fleet {
    /* A copy was put in the place of the store: what is known has to be stored, with a revision of
     * its own, before anything is told. */
    bool is_restored = false;
    /* The text that the store has lost, of the settings; null: none. */
    std::shared_ptr<const fleet> lost_file = {};
    std::string lost_text = {};
};

/* False with the reason in `error`. `early`: what is to be said, line by line. */
bool load_fleet(const std::string& directory, fleet_state& state, revision_counter& revisions,
                loaded_fleet& loaded, std::vector<std::string>& early, std::string& error);

#endif

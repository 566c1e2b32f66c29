/* What the tests were told to be, as often as that changes: kept so that last month's numbers still
 * have a name. One thread. */
#ifndef VINDRAL_COLLECTOR_DEFINITIONS_H
#define VINDRAL_COLLECTOR_DEFINITIONS_H

#include "ingest/owned_definition.h"
#include "store/engine.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

class definitions {
public:
    explicit definitions(engine& store) : engine_(store) {}

    /* Another file: what is stored has to be looked up again, and may lack all of it. */
    void begin() {
        is_known_ = false;
        next_ = 0;
    }

    /* From then on it is these. */
    void follow(std::vector<owned_definition> all) {
        wanted_ = std::move(all);
        next_ = 0;
    }

    bool is_due() const { return next_ < wanted_.size(); }
    /* Stores some of those that differ from the last ones of their tests. False when the engine
     * failed: then they stay due. */
    bool run(int64_t now);

private:
    bool look_up();

    engine& engine_;
    std::vector<owned_definition> wanted_;
    size_t next_ = 0; /* of wanted_, which stays; those before it are stored */
    bool is_known_ = false;
    std::map<std::pair<uint32_t, int32_t>, owned_definition> stored_; /* by type and number */
};

#endif

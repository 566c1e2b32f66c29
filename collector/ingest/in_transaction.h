/* What is done in one transaction, and how long a piece of work may keep the store's thread from
 * the blocks that wait. */
#ifndef VINDRAL_COLLECTOR_IN_TRANSACTION_H
#define VINDRAL_COLLECTOR_IN_TRANSACTION_H

#include "store/engine.h"

#include <chrono>

/* Once more where the engine says that this helps. False when it failed: then reason() says why,
 * and nothing of it is stored. */
template <typename Do>
bool in_transaction(engine& store, Do all) {
    do {
        if (store.begin() && all() && store.commit()) {
            return true;
        }
    } while (store.recover());
    return false;
}

/* The work of one transaction, its commit not included. */
class spell {
public:
    using clock = std::chrono::steady_clock;
    explicit spell(std::chrono::microseconds most) : until_(clock::now() + most) {}
    bool is_over() const { return clock::now() >= until_; }

private:
    const clock::time_point until_;
};

#endif

/* What becomes of changes of tests, told to those who listen to the stream, as GET /api/v1/changes
 * has them. Nothing is made of it as long as nobody listens, but that whoever comes back is told
 * so. What agents and tests are in the store is looked up on a thread of its own, which is there
 * from the first listener on; when that falls behind, what does not fit is left out, and who
 * listens is told that something is lost. */
#ifndef VINDRAL_COLLECTOR_API_LIVE_CHANGES_H
#define VINDRAL_COLLECTOR_API_LIVE_CHANGES_H

#include "api/hub.h"
#include "store/engine.h"

#include <cstddef>
#include <memory>
#include <string>

class live_changes {
public:
    /* `hub` outlives it. `most_waiting`: changes that wait for their messages. */
    live_changes(event_hub& hub, std::string directory, size_t most_waiting = 20000);
    ~live_changes(); /* leaves out what still waits */
    live_changes(const live_changes&) = delete;
    live_changes& operator=(const live_changes&) = delete;

    /* Any thread; waits for nothing but memory. Never throws. */
    void tell(const stored_change& what);

private:
    struct state;
    std::unique_ptr<state> state_;
};

#endif

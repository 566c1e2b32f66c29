/* A place where the API is asked, and the messages of its stream are heard besides. */
#ifndef LIVE_PLACE_H
#define LIVE_PLACE_H

#include "api/live.h"

#include "api_place.h"

template <typename place>
class live_place : public place {
protected:
    void SetUp() override {
        place::listener = &live;
        place::SetUp();
        id = place::hub.subscribe([] {});
    }
    void TearDown() override {
        place::hub.unsubscribe(id);
        place::TearDown();
    }

    live_messages live{place::hub, place::state};
    uint64_t id = 0; /* of who hears */
};

#endif

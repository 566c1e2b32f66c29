/* Revisions as they are given out, and the copy of the fleet in the settings, which outlives a
 * damaged store: revisions are noted there ahead, some at a time. */
#ifndef VINDRAL_COLLECTOR_FLEET_REVISION_COUNTER_H
#define VINDRAL_COLLECTOR_FLEET_REVISION_COUNTER_H

#include "fleet/fleet_state.h"
#include "store/settings.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

class revision_counter {
public:
    /* `kept` may be null; both outlive it. */
    revision_counter(fleet_state& state, settings* kept,
                     std::function<void(const std::string&)> log)
        : state_(state), kept_(kept), log_(std::move(log)) {}

    /* At the start; false with the reason in `error`. What is noted there is above all that was
     * given. `is_older`: whether the store, with the state as it was read from it, may be an older
     * one. */
    bool read(std::optional<fleet_copy>& copy, std::string& error);
    bool is_older(const fleet_copy& copy) const;

    /* With the turn, without the mutex. */
    int32_t next();
    /* Another text is in force. Without the mutex. */
    void keep_text() { keep(0); }

private:
    void keep(int32_t newest);

    fleet_state& state_;
    settings* const kept_;
    const std::function<void(const std::string&)> log_;
    std::mutex copying_; /* before the state's */
    std::atomic<int32_t> reserved_ = 0;
};

#endif

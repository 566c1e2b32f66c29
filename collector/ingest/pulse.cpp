#include "ingest/pulse.h"

/* A transaction takes milliseconds, the longest piece of upkeep some seconds on a slow disk. */
static constexpr std::chrono::seconds longest_step{30};

void store_pulse::set_failed(std::string_view reason) {
    bool is_full = false;
    for (std::string_view words : {"disk is full", "No space left", "Disk quota exceeded"}) {
        is_full = is_full || reason.find(words) != reason.npos;
    }
    set(is_full ? storing_state::disk_full : storing_state::fails);
}

std::string store_pulse::trouble(clock::time_point now) const {
    const storing_state at = state();
    if (at == storing_state::starts) {
        return "The collector is starting.";
    }
    if (now - clock::time_point(clock::duration(beat_.load(relaxed))) > longest_step) {
        return "Results are not stored: storing has been stuck for more than " +
               std::to_string(longest_step.count()) + " seconds.";
    }
    switch (at) {
    case storing_state::takes_over:
        return "Results are not stored yet: what an earlier version stored is being taken over.";
    case storing_state::fails:
        return "Results cannot be stored; the collector's log says why.";
    case storing_state::disk_full:
        return "Results cannot be stored: the disk is full.";
    case storing_state::starts:
    case storing_state::works:
        break;
    }
    return "";
}

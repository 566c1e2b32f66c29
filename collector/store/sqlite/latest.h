/* Where the last result of each test of an agent is, as one packed text: a column of the agent's
 * row, changed in the transaction that stores the results. It is thus right whatever ends the
 * process, and found without a search through the days.
 *
 * An agent that invents tests does not make it grow for ever: beyond latest_max tests the ones
 * heard of longest ago are forgotten. */
#ifndef VINDRAL_COLLECTOR_LATEST_H
#define VINDRAL_COLLECTOR_LATEST_H

#include "base/record_summary.h"
#include "store/engine.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum { latest_max = 10000 };

/* The tests of one agent. Memory is kept for the next agent that is unpacked. */
class latest_results {
public:
    latest_results() = default;
    explicit latest_results(std::string_view packed) { unpack(packed); }

    /* Reads what pack() made, in place of what was there; what is damaged in it is left out. */
    void unpack(std::string_view packed);
    void pack(std::string& into);
    std::string packed();

    /* The newest result of a test so far. */
    void put(const record_summary& summary, int64_t received, int64_t row);

    /* Forgets what was received on days whose table is gone; returns whether there was any. */
    bool forget_unless(const std::function<bool(int64_t received)>& kept);

    /* One for each test, ordered by key. */
    const std::vector<latest_entry>& entries() &;

private:
    void settle();

    std::vector<latest_entry> entries_; /* the first settled_ are in order, the others are of tests
                                           that are not among these */
    size_t settled_ = 0;
};

#endif

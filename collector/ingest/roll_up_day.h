/* A test's roll-ups of a day, as they are stored: 5 minutes and an hour. In a transaction, on the
 * store's thread. The calls return false when the engine failed; what is stored and cannot be read
 * is passed over, with the reason in `unreadable`. */
#ifndef VINDRAL_COLLECTOR_ROLL_UP_DAY_H
#define VINDRAL_COLLECTOR_ROLL_UP_DAY_H

#include "store/engine.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/* The first days that are kept, of each resolution: nothing is made of days before them. */
struct kept_from {
    int64_t five_minutes = INT64_MIN, hour = INT64_MIN;
};

/* How much may still be unpacked for something, in bytes: what agents send must not keep the others
 * waiting for ever, whatever times they give it. */
struct unpacking {
    size_t left = size_t{512} << 20;
};

/* Made of all that is packed of the test: its results of the day, and how long the last state
 * before it went on. Nothing is written where that is nothing. */
bool roll_up_day(engine& store, int64_t test, int64_t day, int64_t stale_after,
                 const kept_from& kept, std::string& unreadable);

/* The same for days, which rise. What is packed is read once for as many of them as one day may
 * have; those for which `may` does not suffice stay as they are. */
bool roll_up_days(engine& store, int64_t test, std::span<const int64_t> days, int64_t stale_after,
                  const kept_from& kept, unpacking& may, std::string& unreadable);

/* Added to what is there, for days of which the rest is not stored any more; `late` are chunks
 * with all that came too late for them, and more. */
bool add_to_days(engine& store, int64_t test, std::span<const int64_t> days, int64_t stale_after,
                 const kept_from& kept, std::span<const std::string_view> late, unpacking& may,
                 std::string& unreadable);

#endif

#include "ingest/roll_up_day.h"

#include "ingest/clock.h"
#include "state/result.h"
#include "state/roll_up.h"
#include "state/take.h"
#include "store/pack.h"

#include <algorithm>
#include <vector>

namespace {

constexpr uint32_t narrow = 300, wide = 3600; /* seconds */

/* Of a test in a day; no test that means well comes near. */
constexpr size_t most_bytes = 16 << 20, most_records = 150000, most_unpacked = 256 << 20;

const char too_much[] =
    "results came late for too many days at once: the rows of some days lack them";

/* About what it takes to unpack it. */
size_t cost_of(std::string_view data, size_t results) {
    return data.size() + inflated_size(data) + 128 * results;
}

/* The part of results that are in order which a day is made of: its own, and those before it that
 * reach into it. */
std::span<const result> part_of(const std::vector<result>& all, int64_t day, int64_t stale_after) {
    auto at = [&](int64_t time) {
        return std::partition_point(all.begin(), all.end(),
                                    [&](const result& r) { return r.time < time; });
    };
    return {at(start_of(day) - stale_after), at(start_of(day + 1))};
}

/* Results of a test from chunks in the order of arrival, as far as the days need them. */
std::vector<result> results_of(std::span<const std::string_view> chunks,
                               std::span<const int64_t> days, int64_t stale_after,
                               std::string& unreadable) {
    const int64_t begin = start_of(days.front()), end = start_of(days.back() + 1);
    result_builder builder(false);
    for (std::string_view chunk : chunks) {
        bool whole = unpack_chunk(chunk, [&](const arrived_record& r) {
            builder.add(r.record, r.received);
            return true;
        });
        if (!whole) {
            unreadable = "a packed piece of results is damaged";
        }
    }
    std::vector<result> all = builder.take_all();
    std::erase_if(all,
                  [&](const result& r) { return r.time < begin - stale_after || r.time >= end; });
    order_by_time(all);
    return all;
}

/* What is packed for the days, newest first. */
struct found_chunks {
    std::vector<std::string> data;
    size_t packed = 0, records = 0, cost = 0;

    bool are_too_many() const {
        return packed > most_bytes || records > most_records || cost > most_unpacked;
    }
};

/* False when the engine failed. */
bool find_chunks(engine& store, int64_t test, std::span<const int64_t> days, int64_t stale_after,
                 found_chunks& found, std::string& unreadable) {
    const int64_t begin = start_of(days.front()) - stale_after;
    store.reader().for_each_chunk(
        test, begin - skew_s,
        [&](const packed_chunk& chunk) {
            auto day = std::partition_point(days.begin(), days.end(), [&](int64_t d) {
                return start_of(d + 1) + pass_s <= chunk.first;
            });
            return day != days.end() && chunk.last >= start_of(*day) - stale_after;
        },
        [&](const packed_chunk& chunk) {
            found.packed += chunk.data.size();
            found.records += chunk.results;
            found.cost += cost_of(chunk.data, chunk.results);
            if (!found.are_too_many()) {
                found.data.emplace_back(chunk.data);
            }
            return !found.are_too_many();
        },
        unreadable);
    return store.is_open();
}

bool put(engine& store, resolution r, int64_t test, int64_t day, const std::vector<bucket>& all,
         int64_t from) {
    std::string packed;
    if (day < from || all.empty()) {
        return true;
    }
    pack_roll_up(all, packed);
    return store.put_roll_up(r, test, day, packed);
}

bool add(engine& store, resolution r, int64_t test, int64_t day, const std::vector<bucket>& late,
         uint32_t width, int64_t from, std::string& unreadable) {
    std::vector<bucket> all;
    bool whole = true;
    if (day < from) {
        return true;
    }
    if (!store.reader().for_each_roll_up(
            r, test, day, day + 1,
            [&](int64_t, std::string_view packed) { whole = unpack_roll_up(packed, all); },
            unreadable)) {
        return store.is_open(); /* what is there stays as it is */
    }
    if (!whole) {
        unreadable = "a packed day is damaged";
        return true;
    }
    add_to(all, late, width);
    return put(store, r, test, day, all, from);
}

} // namespace

bool roll_up_days(engine& store, int64_t test, std::span<const int64_t> days, int64_t stale_after,
                  const kept_from& kept, unpacking& may, std::string& unreadable) {
    while (!days.empty() && days.front() < std::min(kept.five_minutes, kept.hour)) {
        days = days.subspan(1);
    }
    if (days.empty()) {
        return true;
    }
    if (may.left == 0) {
        unreadable = too_much;
        return true;
    }
    found_chunks found;
    if (!find_chunks(store, test, days, stale_after, found, unreadable)) {
        return false;
    }
    if (found.are_too_many()) {
        if (days.size() > 1) { /* the newest first */
            const size_t half = days.size() / 2;
            found.data.clear();
            may.left -= std::min(may.left, found.packed);
            return roll_up_days(store, test, days.subspan(half), stale_after, kept, may,
                                unreadable) &&
                   roll_up_days(store, test, days.first(half), stale_after, kept, may, unreadable);
        }
        unreadable = "the results of a test are too many in a day: the first ones are left out";
    }
    may.left -= std::min(may.left, found.cost);
    std::vector<std::string_view> in_order(found.data.rbegin(), found.data.rend());
    const std::vector<result> all = results_of(in_order, days, stale_after, unreadable);
    for (int64_t day : days) {
        std::span<const result> results = part_of(all, day, stale_after);
        if (results.empty()) {
            continue;
        }
        std::vector<bucket> buckets = roll_up(results, day, narrow, stale_after);
        if (!put(store, resolution::five_minutes, test, day, buckets, kept.five_minutes) ||
            !put(store, resolution::hour, test, day, widen(buckets, wide), kept.hour)) {
            return false;
        }
    }
    return true;
}

bool roll_up_day(engine& store, int64_t test, int64_t day, int64_t stale_after,
                 const kept_from& kept, std::string& unreadable) {
    unpacking may;
    return roll_up_days(store, test, {&day, 1}, stale_after, kept, may, unreadable);
}

bool add_to_days(engine& store, int64_t test, std::span<const int64_t> days, int64_t stale_after,
                 const kept_from& kept, std::span<const std::string_view> late, unpacking& may,
                 std::string& unreadable) {
    if (days.empty()) {
        return true;
    }
    size_t cost = 0;
    for (std::string_view chunk : late) {
        cost += cost_of(chunk, 0);
    }
    if (may.left == 0) {
        unreadable = too_much;
        return true;
    }
    may.left -= std::min(may.left, cost);
    const std::vector<result> all = results_of(late, days, stale_after, unreadable);
    for (int64_t day : days) {
        std::span<const result> results = part_of(all, day, 0);
        if (results.empty()) {
            continue;
        }
        std::vector<bucket> buckets = roll_up(results, day, narrow, stale_after);
        if (!add(store, resolution::five_minutes, test, day, buckets, narrow, kept.five_minutes,
                 unreadable) ||
            !add(store, resolution::hour, test, day, widen(buckets, wide), wide, kept.hour,
                 unreadable)) {
            return false;
        }
    }
    return true;
}

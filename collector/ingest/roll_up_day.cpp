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
constexpr size_t most_bytes = 16 << 20, most_records = 150000;

/* Results of a test from chunks in the order of arrival: those of the day, and those before it that
 * reach into it. */
std::vector<result> results_of(std::span<const std::string_view> chunks, int64_t day,
                               int64_t stale_after, std::string& unreadable) {
    const int64_t begin = start_of(day), end = start_of(day + 1);
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

bool roll_up_day(engine& store, int64_t test, int64_t day, int64_t stale_after,
                 const kept_from& kept, std::string& unreadable) {
    const int64_t begin = start_of(day) - stale_after, end = start_of(day + 1);
    if (day < std::min(kept.five_minutes, kept.hour)) {
        return true;
    }
    std::vector<std::string> chunks; /* newest first */
    size_t bytes = 0, records = 0;
    store.reader().for_each_chunk(
        test, begin - skew_s,
        [&](const packed_chunk& chunk) {
            return chunk.first < end + pass_s && chunk.last >= begin;
        },
        [&](const packed_chunk& chunk) {
            bytes += chunk.data.size();
            records += chunk.results;
            bool fits = bytes <= most_bytes && records <= most_records;
            if (fits) {
                chunks.emplace_back(chunk.data);
            }
            return fits;
        },
        unreadable);
    if (!store.is_open()) {
        return false;
    }
    if (bytes > most_bytes || records > most_records) {
        unreadable = "the results of a test are too many in a day: the first ones are left out";
    }
    std::vector<std::string_view> in_order(chunks.rbegin(), chunks.rend());
    std::vector<result> results = results_of(in_order, day, stale_after, unreadable);
    if (results.empty()) {
        return true;
    }
    std::vector<bucket> buckets = roll_up(results, day, narrow, stale_after);
    return put(store, resolution::five_minutes, test, day, buckets, kept.five_minutes) &&
           put(store, resolution::hour, test, day, widen(buckets, wide), kept.hour);
}

bool add_to_day(engine& store, int64_t test, int64_t day, int64_t stale_after,
                const kept_from& kept, std::span<const std::string_view> late,
                std::string& unreadable) {
    std::vector<result> results = results_of(late, day, stale_after, unreadable);
    std::erase_if(results, [&](const result& r) { return r.time < start_of(day); });
    if (results.empty()) {
        return true;
    }
    std::vector<bucket> buckets = roll_up(results, day, narrow, stale_after);
    return add(store, resolution::five_minutes, test, day, buckets, narrow, kept.five_minutes,
               unreadable) &&
           add(store, resolution::hour, test, day, widen(buckets, wide), wide, kept.hour,
               unreadable);
}

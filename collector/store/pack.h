/* Packed pieces of the store: records of one test in a chunk, and what became of a test in a day.
 * Pure functions on bytes, the same for every database. What is packed is small and made to be read
 * at once; whatever a damaged piece claims, unpacking one takes no more than pack_limits allow and
 * returns false.
 *
 * CHUNK  Records of one test in the order in which they arrived, each exactly as it was sent, with
 * the time of its arrival. Records of one shape stand in columns: whole numbers as differences to
 * the one before, real ones as what changed in their bits, the bytes of a column by significance;
 * then deflate, unless that makes it longer.
 *
 * ROLL-UP  One bucket for each five minutes or hour of a day in which there was a result, in order.
 * Of each value count, lowest, mean and highest. The lowest and the highest keep seven digits, the
 * mean 1/65535 of the distance between them. */
#ifndef VINDRAL_COLLECTOR_PACK_H
#define VINDRAL_COLLECTOR_PACK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

/* ---- chunks ---- */

struct arrived_record {
    int64_t received = 0;    /* seconds since the epoch */
    std::string_view record; /* as sent; its first four bytes are its size */
};

/* Into `packed`, in place of what was there. False, which damage above may cause, when a record is
 * not as long as it says. */
bool pack_chunk(const std::vector<arrived_record>& records, std::string& packed);

/* Calls `each` for every record in order, until it returns false. The views end with the call.
 * False when the chunk is damaged; what came before was right. */
bool unpack_chunk(std::string_view packed, const std::function<bool(const arrived_record&)>& each);

/* ---- roll-ups ---- */

/* Of one value in one bucket. */
struct value_summary {
    uint32_t id = 0; /* which value of the test: state/result.h */
    uint32_t count = 0;
    double min = 0, mean = 0, max = 0;
};

struct bucket {
    uint32_t start = 0;                /* seconds into the day */
    uint32_t count = 0;                /* results */
    uint32_t ok = 0, problem = 0;      /* seconds in these states; the rest is unknown */
    std::vector<value_summary> values; /* by id */
};

/* `buckets` rise by start. A mean is never packed outside of its lowest and highest. */
void pack_roll_up(const std::vector<bucket>& buckets, std::string& packed);
/* False when it is damaged; then `buckets` is empty. */
bool unpack_roll_up(std::string_view packed, std::vector<bucket>& buckets);

#endif

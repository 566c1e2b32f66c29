/* Packed pieces of the store: records of one test in a chunk, and what became of a test in a day.
 * Pure functions on bytes, the same for every database. What is packed is small and made to be read
 * at once; whatever a damaged piece claims, unpacking one takes no more than pack_limits allow and
 * returns false.
 *
 * Both are pieces (columns.h tells what that is, and how a number, a folded number, whole numbers
 * and real numbers stand in one).
 *
 * CHUNK  Records of one test in the order in which they arrived, each exactly as it was sent, with
 * the time of its arrival. Records of one shape stand in columns. A piece of kind 0x11:
 *
 *   a number        of records
 *   a number        of shapes; each is a record of
 *                     eight numbers: of I32, UI32, I64, UI64, D64 values, of strings declared, of
 *                     strings held, and of nested records,
 *                   behind which its nested records stand in the same way
 *   whole numbers   the shape of each record, 1 for the first; 0: it has none
 *   whole numbers   the time of arrival of each
 *   for each shape, over its records: of each record in it, the outer before the nested ones,
 *     whole or real numbers    for each value in the order of the layout
 *     whole numbers            for each string held: which of the texts it is, counted from 0 in
 * the order in which they first came; the texts follow, each with a NUL bytes           the records
 * that have no shape, as they were sent
 *
 * ROLL-UP  One bucket for each five minutes or hour of a day in which there was a result, in order.
 * Of each value count, lowest, mean and highest. A piece of kind 0x21:
 *
 *   a number        of buckets
 *   whole numbers   their starts; their counts of results; seconds ok; seconds of a problem
 *   a number        of values; for each
 *     a number        its id, above the one before
 *     a number        1 when every bucket has the value; else 0, and
 *       whole numbers   for each bucket, 1 when it has the value, else 0
 *   and over the buckets that have it
 *     whole numbers   results of the bucket that lack it
 *     a number        1 when the highest are the lowest, else 0
 *     real numbers    the lowest; unless they are the same, behind them in one list the highest
 *     whole numbers   unless they are the same, the means by 65535ths of the way between them
 *
 * The lowest and the highest of a day keep all their digits when none has more than seven, or when
 * they hardly change; otherwise six. */
#ifndef VINDRAL_COLLECTOR_PACK_H
#define VINDRAL_COLLECTOR_PACK_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

enum pack_limits : size_t {
    chunk_max_records = 65536,
    chunk_max_bytes = 40 << 20, /* all records; one may have 32 MB */
    roll_up_max_buckets = 86400,
    /* Buckets times values of the test. Beyond, those with the highest ids are left out. */
    roll_up_max_values = 1 << 20
};

/* ---- chunks ---- */

struct arrived_record {
    int64_t received = 0;    /* seconds since the epoch */
    std::string_view record; /* as sent; its first four bytes are its size */
};

/* Into `packed`, in place of what was there. False, which damage above may cause, when a record is
 * not as long as it says, or when all of them are more than the limits allow. */
bool pack_chunk(const std::vector<arrived_record>& records, std::string& packed);

/* Calls `each` for every record in order, until it returns false. The views end with the call.
 * False when the chunk is damaged; what came before was right. */
bool unpack_chunk(std::string_view packed, const std::function<bool(const arrived_record&)>& each);
/* How much unpack_chunk() inflates, as the chunk says. */
size_t inflated_size(std::string_view packed);

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

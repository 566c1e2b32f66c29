/* Reading the typed result records of which a block is made. Little-endian, nothing padded:
 *
 *   offset  0  uint32  size of the whole record, nested records included
 *           4  uint32  number of I32 values, then of UI32, I64, UI64, D64 values (8, 12, 16, 20)
 *          24  uint32  number of strings declared when the record was begun
 *          28  uint32  number of nested records
 *          32  the I32, UI32, I64, UI64 and D64 values, then the strings (each ends in a NUL),
 *              then the nested records
 *
 * The first UI32 is the type of the record. 64-bit values lie at any address. A record may hold
 * fewer strings than it declares: the agent's writer refuses an empty string and leaves the count
 * as it is.
 *
 * Everything here is a view into the caller's bytes; nothing is copied. Work and memory are bounded
 * by the number of bytes given, whatever the counts in them claim. */
#ifndef VINDRAL_COLLECTOR_RECORD_H
#define VINDRAL_COLLECTOR_RECORD_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

/* The values of one type. */
template <typename T>
struct value_array {
    const char* bytes = nullptr;
    size_t count = 0;

    size_t size() const { return count; }
    T operator[](size_t i) const {
        T value;
        memcpy(&value, bytes + i * sizeof(T), sizeof(T));
        return value;
    }
};

struct record {
    std::string_view raw; /* all bytes of the record; valid as long as the caller's bytes are */
    value_array<int32_t> i32;
    value_array<uint32_t> ui32;
    value_array<int64_t> i64;
    value_array<uint64_t> ui64;
    value_array<double> d64;
    uint32_t declared_strings = 0;         /* strings.size() or more */
    std::vector<std::string_view> strings; /* without their NUL; any bytes, never empty */
    std::vector<std::string_view> nested;  /* each a whole record that decode_record() accepts */

    uint32_t type() const { return ui32.size() > 0 ? ui32[0] : 0; }
};

enum { record_header_size = 32, record_max_depth = 16 /* levels of records in records */ };

/* Decodes the record that fills `bytes` exactly, and checks the records nested in it. On failure
 * returns false with the reason, and `r` holds nothing of use. The vectors of `r` are reused. */
bool decode_record(std::string_view bytes, record& r, std::string& reason);

/* Walks a block from front to back:
 *
 *   for (block_reader reader(block); reader.next();) {
 *       if (reader.good) ... reader.current ...
 *       else ... reader.bytes bytes at reader.offset are no record: reader.reason ...
 *   }
 *
 * A record that is wrong inside is passed over; where the size itself makes no sense, the rest of
 * the block is one piece that is no record. */
class block_reader {
public:
    explicit block_reader(std::string_view block) : block_(block) {}
    bool next();

    bool good = false;
    record current;     /* when good */
    size_t offset = 0;  /* where the piece begins in the block */
    size_t bytes = 0;   /* its length */
    std::string reason; /* when not good */

private:
    std::string_view block_;
};

#endif

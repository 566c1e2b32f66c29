/* How a record lies in memory and on the wire: a header of eight counts, then without any padding
 * the I32, UI32, I64, UI64 and D64 values, the strings (each with its NUL), and whole nested
 * records. Little-endian. The first UI32 is the type of the record (record_types.h).
 *
 *   offset  0  uint32  size of the whole record, nested records included
 *           4  uint32  number of I32 values, then of UI32, I64, UI64, D64 values (8, 12, 16, 20)
 *          24  uint32  number of strings declared when the record was begun
 *          28  uint32  number of nested records
 *          32  the values
 *
 * A record may hold fewer strings than it declares: an empty one is not stored, and the count stays
 * as it was. */
#ifndef VINDRAL_PROTOCOL_RECORD_LAYOUT_H
#define VINDRAL_PROTOCOL_RECORD_LAYOUT_H

#include <cstddef>
#include <cstdint>

namespace protocol {

struct record_header {
    uint32_t size;
    uint32_t i32, ui32, i64, ui64, d64;
    uint32_t strings;
    uint32_t nested;
};
static_assert(sizeof(record_header) == 32 && offsetof(record_header, nested) == 28);

} // namespace protocol

#endif

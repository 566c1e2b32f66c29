/* Typed result records: what every checker reports and the collection server reads.
 *
 * A record (UDC) is self-describing and is sent as it lies in memory: a header of eight counts,
 * then without any padding the I32, UI32, I64, UI64 and D64 values, the strings (each with its
 * NUL), and whole nested records. Little-endian. The values of one type keep the order in which
 * they were added; a record built with create_new_udcw(&w, 1, 1, 0, 0, 1, 1) and one nested record:
 *
 *     0   size  i32=1  ui32=1  i64=0  ui64=0  d64=1  sarr=1  udca=1
 *     32  I32   UI32   D64(8)  "text\0"  UDC
 *
 * A writer (UDCW) builds one, or gives access to one that came from elsewhere:
 *
 *     UDCW* w = nullptr;
 *     create_new_udcw(&w, 0, 2, 1, 0, 0, 1);
 *     udcw_add(w, UDC_UI32, LDA_RECORD);
 *     ...
 *     UDC* record = w->udc;        the record is the caller's: free() it after taking its bytes
 *     udcw_free(&w);
 *
 * A record may declare more strings than it holds, because an empty string is not stored and the
 * header stays as it was. Readers have to live with that.
 *
 * Nothing here is locked: a writer belongs to one thread. */
#ifndef VINDRAL_UDC_H
#define VINDRAL_UDC_H

#include <cstddef>
#include <cstdint>

/* Records lie at any address: behind strings of any length, inside a received block. Every access
 * goes through types that demand no alignment; read such a value before binding a reference to it.
 */
typedef int32_t udc_i32 __attribute__((aligned(1), may_alias));
typedef uint32_t udc_ui32 __attribute__((aligned(1), may_alias));
typedef int64_t udc_i64 __attribute__((aligned(1), may_alias));
typedef uint64_t udc_ui64 __attribute__((aligned(1), may_alias));
typedef double udc_d64 __attribute__((aligned(1), may_alias));

typedef struct _U_D_C_ {
    udc_ui32 size; /* of the whole record in bytes, nested records included */
    udc_ui32 i32;  /* from here on counts */
    udc_ui32 ui32;
    udc_ui32 i64;
    udc_ui32 ui64;
    udc_ui32 d64;
    udc_ui32 sarr; /* strings declared when the record was created */
    udc_ui32 udca; /* nested records */
} __attribute__((may_alias)) UDC;

static_assert(sizeof(UDC) == 32 && alignof(UDC) == 1, "the header is a wire format");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are sent as they lie in memory");

/* The pointers lead into the record; null for an empty array. The indexes count the values added.
 */
typedef struct _U_D_C_W_ {
    UDC* udc; /* belongs to the writer's user; moves when the record grows */
    udc_i32* pi32;
    udc_ui32* pui32;
    udc_i64* pi64;
    udc_ui64* pui64;
    udc_d64* pd64;
    UDC** pudc; /* pudc_index nested records; null while there is none */
    uint32_t i32_index;
    uint32_t ui32_index;
    uint32_t i64_index;
    uint32_t ui64_index;
    uint32_t d64_index;
    uint32_t sarr_index;
    uint32_t pudc_index;
    char** pStrArr; /* the first sarr_index entries are set; null when no string is declared */
} UDCW;

enum { UDC_I32 = 1, UDC_UI32, UDC_I64, UDC_UI64, UDC_D64, UDC_STRING, UDC_RECORD };

/* One value of any of the seven types; built from the plain value at the call. */
struct udc_value {
    enum { integer, natural, real, text, record } kind;
    union {
        int64_t i;
        uint64_t n;
        double d;
        const char* s;
        const UDC* r;
    };
    udc_value(int v) : kind(integer), i(v) {}
    udc_value(unsigned v) : kind(natural), n(v) {}
    udc_value(long v) : kind(integer), i(v) {}
    udc_value(unsigned long v) : kind(natural), n(v) {}
    udc_value(long long v) : kind(integer), i(v) {}
    udc_value(unsigned long long v) : kind(natural), n(v) {}
    udc_value(double v) : kind(real), d(v) {}
    udc_value(const char* v) : kind(text), s(v) {}
    udc_value(const UDC* v) : kind(record), r(v) {}
    udc_value(decltype(nullptr)) : kind(text), s(nullptr) {}
};

/* Creates a writer with a zero-filled record that has room for the given numbers of values and
 * declares `sarr` strings. Nested records are not declared. Returns 1; 0 with *pNudcw null when the
 * record would pass 4 GB or memory is short. The caller frees the writer (udcw_free) and the record
 * (free). */
int create_new_udcw(UDCW** pNudcw, uint32_t i32, uint32_t ui32, uint32_t i64, uint32_t ui64,
                    uint32_t d64, uint32_t sarr);

/* Adds one value; returns 1 when it is stored, 0 when it is refused and nothing has changed.
 *   UDC_I32 ... UDC_D64: refused beyond the declared count. A wider integer is cut to the type; an
 *     integer for a D64 is converted; a real number for an integer type is refused.
 *   UDC_STRING: copied to the end of the record. Refused when null or empty, beyond the declared
 *     count, or behind a nested record, where readers would not look for it.
 *   UDC_RECORD: copied whole to the end of the record, any number of them. Refused when null or
 *     shorter than a header.
 * Strings and nested records make the record grow: it has to be a block from malloc of its own, may
 * move (`udc` and every pointer of the writer follow), and the value must not lie inside it.
 * Refused when memory is short or the record would pass 4 GB. */
int udcw_add(UDCW* pUdcw, int udc_type, udc_value value);

/* Recomputes every pointer of the writer from the record's current address, after the user of the
 * writer has moved it. Strings and nested records that the writer does not know yet (pStrArr or
 * pudc is null) are looked up as in udcw_from_udc. Returns 1; 0 for a null writer or record, for
 * one whose contents do not fit its size, or when memory is short. */
int udcw_correct_pointers(UDCW* pUdcw);

/* Wraps a record that lies in a block of `data_size` bytes, without copying it, in a new writer.
 * The record may come from anywhere: nothing behind its size is read, and memory is taken by what
 * it holds, never by what it claims. Returns 1; 0 with *pudcw null when it is cut off or
 * inconsistent.
 *
 * All indexes are set as if the values had been added. When fewer strings are there than declared,
 * sarr_index is the number really found: the largest with which the nested records lie behind the
 * strings and end where the record ends. The nested records lie inside this one but are not looked
 * into; wrap each in turn. The caller frees the writer; the block stays the caller's. */
int udcw_from_udc(UDC* pudc, UDCW** pudcw, uint32_t data_size);

/* A copy from malloc, `size` bytes; null for a null record, size 0 or no memory. */
UDC* udc_copy(UDC* p);

/* Appends the record's bytes to the malloc'd block *pData of *uiDataSize bytes, which may move.
 * Returns 1; 0 with nothing changed when a pointer or the block itself is null (no new block is
 * started), the record is shorter than its header, or memory is short. */
int udc_add_to_list(char** pData, size_t* uiDataSize, UDC* p);

/* Frees the writer and sets the pointer to null; the record is not freed. Null is allowed. */
void udcw_free(UDCW** p);

/* Dumps every value to the log at level 0: a heading, "\tINDEX\tTYPE\tVALUE" per value, then each
 * nested record in the same way, down to 16 levels. The second trusts only that the record's own
 * `size` bytes are there. */
void udcw_print_all_data(UDCW* p);
void udc_print_all_data(UDC* p);

#endif

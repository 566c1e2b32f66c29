/* Typed result records. */
#ifndef VINDRAL_UDC_H
#define VINDRAL_UDC_H

#include <cstddef>
#include <cstdint>

/* Records lie at any address: behind strings of any length, inside a received block. Every access
 * goes through types that demand no alignment. */
typedef int32_t udc_i32 __attribute__((aligned(1), may_alias));
typedef uint32_t udc_ui32 __attribute__((aligned(1), may_alias));
typedef int64_t udc_i64 __attribute__((aligned(1), may_alias));
typedef uint64_t udc_ui64 __attribute__((aligned(1), may_alias));
typedef double udc_d64 __attribute__((aligned(1), may_alias));

typedef struct _U_D_C_ {
    uint32_t size;
    uint32_t i32;
    uint32_t ui32;
    uint32_t i64;
    uint32_t ui64;
    uint32_t d64;
    uint32_t sarr;
    uint32_t udca;
} __attribute__((packed, may_alias)) UDC;

typedef struct _U_D_C_W_ {
    UDC* udc;
    udc_i32* pi32;
    udc_ui32* pui32;
    udc_i64* pi64;
    udc_ui64* pui64;
    udc_d64* pd64;
    UDC** pudc;
    uint32_t i32_index;
    uint32_t ui32_index;
    uint32_t i64_index;
    uint32_t ui64_index;
    uint32_t d64_index;
    uint32_t sarr_index;
    uint32_t pudc_index;
    char** pStrArr;
} UDCW;

enum { UDC_I32 = 1, UDC_UI32, UDC_I64, UDC_UI64, UDC_D64, UDC_STRING, UDC_RECORD };

/* One value of any of the seven types; built from the plain value at the call. */
struct udc_value {
    enum { integer, real, text, record } kind;
    union {
        int64_t i;
        double d;
        const char* s;
        const UDC* r;
    };
    udc_value(int v) : kind(integer), i(v) {}
    udc_value(unsigned v) : kind(integer), i(v) {}
    udc_value(long v) : kind(integer), i(v) {}
    udc_value(unsigned long v) : kind(integer), i(static_cast<int64_t>(v)) {}
    udc_value(long long v) : kind(integer), i(v) {}
    udc_value(unsigned long long v) : kind(integer), i(static_cast<int64_t>(v)) {}
    udc_value(double v) : kind(real), d(v) {}
    udc_value(const char* v) : kind(text), s(v) {}
    udc_value(const UDC* v) : kind(record), r(v) {}
    udc_value(decltype(nullptr)) : kind(text), s(nullptr) {}
};

int create_new_udcw(UDCW** pNudcw, uint32_t i32, uint32_t ui32, uint32_t i64, uint32_t ui64,
                    uint32_t d64, uint32_t sarr);
int udcw_add(UDCW* pUdcw, int udc_type, udc_value value);
int udcw_correct_pointers(UDCW* pUdcw);
int udcw_from_udc(UDC* pudc, UDCW** pudcw, uint32_t data_size);
UDC* udc_copy(UDC* p);
int udc_add_to_list(char** pData, size_t* uiDataSize, UDC* p);
void udcw_free(UDCW** p);
void udcw_print_all_data(UDCW* p);
void udc_print_all_data(UDC* p);

#endif

/* Any bytes as a result record: wrapping, dumping and copying stay inside them, and whatever is
 * accepted is built again from its values, byte for byte. */
#include "udc.h"

#include "fuzz.h"
#include "guards.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

/* Adds everything the record holds to a new writer; empty strings are not stored. */
static void require_rebuilt(const UDCW& from) {
    const UDC& udc = *from.udc;
    UDCW* to = nullptr;
    require(create_new_udcw(&to, udc.i32, udc.ui32, udc.i64, udc.ui64, udc.d64, udc.sarr));
    for (uint32_t i = 0; i < udc.i32; i++) {
        require(udcw_add(to, UDC_I32, from.pi32[i]));
    }
    for (uint32_t i = 0; i < udc.ui32; i++) {
        require(udcw_add(to, UDC_UI32, from.pui32[i]));
    }
    for (uint32_t i = 0; i < udc.i64; i++) {
        require(udcw_add(to, UDC_I64, from.pi64[i]));
    }
    for (uint32_t i = 0; i < udc.ui64; i++) {
        require(udcw_add(to, UDC_UI64, from.pui64[i]));
    }
    for (uint32_t i = 0; i < udc.d64; i++) {
        require(udcw_add(to, UDC_D64, from.pd64[i]));
    }
    bool empty_strings = false;
    for (uint32_t i = 0; i < from.sarr_index; i++) {
        bool stored = udcw_add(to, UDC_STRING, from.pStrArr[i]);
        require(stored == (*from.pStrArr[i] != '\0'));
        empty_strings = empty_strings || !stored;
    }
    for (uint32_t i = 0; i < from.pudc_index; i++) {
        require(udcw_add(to, UDC_RECORD, from.pudc[i]));
    }
    require(empty_strings || (to->udc->size == udc.size && memcmp(to->udc, &udc, udc.size) == 0));
    free(to->udc);
    udcw_free(&to);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    /* At an odd address, in a block that ends with the bytes. */
    heap_text block(static_cast<char*>(malloc(size + 1)));
    UDC* udc = reinterpret_cast<UDC*>(block.get() + 1);
    if (size > 0) {
        memcpy(udc, data, size);
    }
    UDCW* w = nullptr;
    if (udcw_from_udc(udc, &w, static_cast<uint32_t>(size))) {
        require(w->sarr_index <= udc->sarr && w->pudc_index == udc->udca);
        require(udcw_correct_pointers(w));
        /* A writer takes memory for the strings it declares; a claim may be any number. */
        if (udc->sarr < 10000) {
            require_rebuilt(*w);
        }
    }
    udcw_free(&w);
    if (size >= sizeof(UDC) && udc->size <= size) {
        udc_print_all_data(udc);
        free(udc_copy(udc));
    }
    return 0;
}

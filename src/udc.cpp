#include "udc.h"

#include "../protocol/record_layout.h"
#include "guards.h"
#include "vindral_log.h"

#include <cstdlib>
#include <cstring>

static_assert(sizeof(UDC) == sizeof(protocol::record_header) &&
              offsetof(UDC, size) == offsetof(protocol::record_header, size) &&
              offsetof(UDC, i32) == offsetof(protocol::record_header, i32) &&
              offsetof(UDC, ui32) == offsetof(protocol::record_header, ui32) &&
              offsetof(UDC, i64) == offsetof(protocol::record_header, i64) &&
              offsetof(UDC, ui64) == offsetof(protocol::record_header, ui64) &&
              offsetof(UDC, d64) == offsetof(protocol::record_header, d64) &&
              offsetof(UDC, sarr) == offsetof(protocol::record_header, strings) &&
              offsetof(UDC, udca) == offsetof(protocol::record_header, nested));

/* Dumping a nested record takes stack, and a hostile record nests as deep as it is long. Real ones
 * have two or three levels. */
static constexpr int DUMP_DEPTH = 16;

/* Length of header and arrays, which is where the strings begin. */
static uint64_t arrays_end(const UDC& udc) {
    return sizeof(UDC) + 4 * (uint64_t{udc.i32} + udc.ui32) +
           8 * (uint64_t{udc.i64} + udc.ui64 + udc.d64);
}

/* The bytes between the arrays and the end of a record. */
struct tail {
    char* at;
    char* end;
};

/* Steps over one string. Returns 0 at the end or when no NUL follows. */
static int skip_string(tail& t) {
    void* nul = memchr(t.at, '\0', static_cast<size_t>(t.end - t.at));
    if (nul == nullptr) {
        return 0;
    }
    t.at = static_cast<char*>(nul) + 1;
    return 1;
}

/* Steps over one nested record. Returns 0 when it is cut off or its arrays do not fit its size. */
static int skip_record(tail& t) {
    uint64_t left = static_cast<uint64_t>(t.end - t.at);
    if (left < sizeof(UDC)) {
        return 0;
    }
    const UDC& udc = *reinterpret_cast<const UDC*>(t.at);
    if (udc.size > left || udc.size < arrays_end(udc)) {
        return 0;
    }
    t.at += udc.size;
    return 1;
}

/* Whether `count` nested records fill the tail exactly. */
static int records_fill(tail t, uint32_t count) {
    while (count > 0 && skip_record(t)) {
        count--;
    }
    return count == 0 && t.at == t.end;
}

/* Finds out how many of the declared strings are there: the largest number with which the nested
 * records fill the rest. Returns 0 when there is none.
 *
 * Where strings are missing, a nested record follows early and is taken for text at first. Its
 * header has zero bytes, which read as empty strings, and a stored string is never empty: so the
 * true number is that of the strings before the first empty one, or a few less, and a handful of
 * candidates will do whatever the record claims. */
static int count_strings(tail t, uint32_t declared, uint32_t records, uint32_t* count) {
    constexpr uint32_t CANDIDATES = 8;
    char* behind[CANDIDATES]; /* behind[n % CANDIDATES]: the place behind n strings */
    uint32_t found = 0;
    uint32_t before_empty = 0;
    bool empty_seen = false;
    behind[0] = t.at;
    while (found < declared) {
        const char* start = t.at;
        if (!skip_string(t)) {
            break;
        }
        found++;
        empty_seen = empty_seen || *start == '\0';
        if (!empty_seen) {
            before_empty = found;
            behind[found % CANDIDATES] = t.at;
        }
    }
    if (records_fill(t, records)) {
        *count = found;
        return 1;
    }
    for (uint32_t less = 0; less < CANDIDATES && less <= before_empty; less++) {
        uint32_t n = before_empty - less;
        if (records_fill({behind[n % CANDIDATES], t.end}, records)) {
            *count = n;
            return 1;
        }
    }
    return 0;
}

/* The array behind `at`, or null when it is empty; moves `at` behind it. */
static void* take_array(char*& at, uint32_t count, size_t width) {
    void* array = count > 0 ? at : nullptr;
    at += count * width;
    return array;
}

/* Returns the strings' place, or null when the arrays do not fit into the record. */
static char* point_at_arrays(UDCW& w) {
    const UDC& udc = *w.udc;
    if (udc.size < arrays_end(udc)) {
        return nullptr;
    }
    char* at = reinterpret_cast<char*>(w.udc) + sizeof(UDC);
    w.pi32 = static_cast<udc_i32*>(take_array(at, udc.i32, sizeof(udc_i32)));
    w.pui32 = static_cast<udc_ui32*>(take_array(at, udc.ui32, sizeof(udc_ui32)));
    w.pi64 = static_cast<udc_i64*>(take_array(at, udc.i64, sizeof(udc_i64)));
    w.pui64 = static_cast<udc_ui64*>(take_array(at, udc.ui64, sizeof(udc_ui64)));
    w.pd64 = static_cast<udc_d64*>(take_array(at, udc.d64, sizeof(udc_d64)));
    return at;
}

static int point_at_strings(UDCW& w, tail& t) {
    if (w.udc->sarr > 0 && w.pStrArr == nullptr) {
        uint32_t count = 0;
        if (!count_strings(t, w.udc->sarr, w.udc->udca, &count)) {
            return 0;
        }
        /* One entry at least: null would mean that the strings have not been counted yet. */
        w.pStrArr = static_cast<char**>(calloc(count > 0 ? count : 1, sizeof(char*)));
        if (w.pStrArr == nullptr) {
            return 0;
        }
        w.sarr_index = count;
    }
    for (uint32_t i = 0; i < w.sarr_index; i++) {
        w.pStrArr[i] = t.at;
        if (!skip_string(t)) {
            return 0;
        }
    }
    return 1;
}

static int point_at_records(UDCW& w, tail t) {
    if (!records_fill(t, w.udc->udca)) {
        return 0;
    }
    if (w.udc->udca > 0 && w.pudc == nullptr) {
        w.pudc = static_cast<UDC**>(calloc(w.udc->udca, sizeof(UDC*)));
        if (w.pudc == nullptr) {
            return 0;
        }
        w.pudc_index = w.udc->udca;
    }
    for (uint32_t i = 0; i < w.pudc_index; i++) {
        w.pudc[i] = reinterpret_cast<UDC*>(t.at);
        if (!skip_record(t)) {
            return 0;
        }
    }
    return 1;
}

int create_new_udcw(UDCW** pNudcw, uint32_t i32, uint32_t ui32, uint32_t i64, uint32_t ui64,
                    uint32_t d64, uint32_t sarr) {
    if (pNudcw == nullptr) {
        return 0;
    }
    *pNudcw = nullptr;
    const UDC header = {0, i32, ui32, i64, ui64, d64, sarr, 0};
    uint64_t size = arrays_end(header);
    if (size > UINT32_MAX) {
        return 0;
    }
    heap<UDC> udc(static_cast<UDC*>(calloc(1, size)));
    heap<char*> strings(sarr > 0 ? static_cast<char**>(calloc(sarr, sizeof(char*))) : nullptr);
    UDCW* w = static_cast<UDCW*>(calloc(1, sizeof(UDCW)));
    if (!udc || (sarr > 0 && !strings) || w == nullptr) {
        free(w);
        return 0;
    }
    *udc = header;
    udc->size = static_cast<uint32_t>(size);
    w->udc = udc.release();
    w->pStrArr = strings.release();
    point_at_arrays(*w);
    *pNudcw = w;
    return 1;
}

static int store(void* array, uint32_t count, uint32_t& index, const void* value, size_t width) {
    if (array == nullptr || index >= count) {
        return 0;
    }
    memcpy(static_cast<char*>(array) + index * width, value, width);
    index++;
    return 1;
}

/* The low bytes of `bits` are the integer cut to its type. */
static int add_integer(UDCW& w, int udc_type, uint64_t bits) {
    switch (udc_type) {
    case UDC_I32:
        return store(w.pi32, w.udc->i32, w.i32_index, &bits, sizeof(udc_i32));
    case UDC_UI32:
        return store(w.pui32, w.udc->ui32, w.ui32_index, &bits, sizeof(udc_ui32));
    case UDC_I64:
        return store(w.pi64, w.udc->i64, w.i64_index, &bits, sizeof(udc_i64));
    default:
        return store(w.pui64, w.udc->ui64, w.ui64_index, &bits, sizeof(udc_ui64));
    }
}

static int add_real(UDCW& w, double value) {
    return store(w.pd64, w.udc->d64, w.d64_index, &value, sizeof value);
}

/* Appends bytes to the record; counts and pointers are the caller's. Returns where they stand now,
 * or null with nothing changed. */
static char* append(UDCW& w, const void* bytes, size_t length) {
    uint32_t size = w.udc->size;
    if (length > UINT32_MAX - size) {
        return nullptr;
    }
    void* grown = realloc(w.udc, size + length);
    if (grown == nullptr) {
        return nullptr;
    }
    w.udc = static_cast<UDC*>(grown);
    w.udc->size = static_cast<uint32_t>(size + length);
    return static_cast<char*>(memcpy(static_cast<char*>(grown) + size, bytes, length));
}

static int add_string(UDCW& w, const char* text) {
    if (text == nullptr || *text == '\0' || w.sarr_index >= w.udc->sarr || w.udc->udca > 0) {
        return 0;
    }
    /* A wrapped record may declare more strings than its array has entries for. */
    void* strings = realloc(w.pStrArr, (size_t{w.sarr_index} + 1) * sizeof(char*));
    if (strings == nullptr) {
        return 0;
    }
    w.pStrArr = static_cast<char**>(strings);
    uintptr_t before = reinterpret_cast<uintptr_t>(w.udc);
    char* at = append(w, text, strlen(text) + 1);
    if (at == nullptr) {
        return 0;
    }
    w.pStrArr[w.sarr_index++] = at;
    return reinterpret_cast<uintptr_t>(w.udc) == before || udcw_correct_pointers(&w);
}

static int add_record(UDCW& w, const UDC* record) {
    if (record == nullptr || record->size < sizeof(UDC)) {
        return 0;
    }
    void* records = realloc(w.pudc, (size_t{w.pudc_index} + 1) * sizeof(UDC*));
    if (records == nullptr) {
        return 0;
    }
    w.pudc = static_cast<UDC**>(records);
    uintptr_t before = reinterpret_cast<uintptr_t>(w.udc);
    char* at = append(w, record, record->size);
    if (at == nullptr) {
        return 0;
    }
    w.pudc[w.pudc_index++] = reinterpret_cast<UDC*>(at);
    w.udc->udca++;
    return reinterpret_cast<uintptr_t>(w.udc) == before || udcw_correct_pointers(&w);
}

int udcw_add(UDCW* pUdcw, int udc_type, udc_value value) {
    if (pUdcw == nullptr || pUdcw->udc == nullptr) {
        return 0;
    }
    UDCW& w = *pUdcw;
    switch (udc_type) {
    case UDC_I32:
    case UDC_UI32:
    case UDC_I64:
    case UDC_UI64:
        switch (value.kind) {
        case udc_value::integer:
            return add_integer(w, udc_type, static_cast<uint64_t>(value.i));
        case udc_value::natural:
            return add_integer(w, udc_type, value.n);
        default:
            return 0;
        }
    case UDC_D64:
        switch (value.kind) {
        case udc_value::integer:
            return add_real(w, static_cast<double>(value.i));
        case udc_value::natural:
            return add_real(w, static_cast<double>(value.n));
        case udc_value::real:
            return add_real(w, value.d);
        default:
            return 0;
        }
    case UDC_STRING:
        return value.kind == udc_value::text ? add_string(w, value.s) : 0;
    case UDC_RECORD:
        return value.kind == udc_value::record ? add_record(w, value.r) : 0;
    default:
        return 0;
    }
}

int udcw_correct_pointers(UDCW* pUdcw) {
    if (pUdcw == nullptr || pUdcw->udc == nullptr) {
        return 0;
    }
    UDCW& w = *pUdcw;
    tail t = {point_at_arrays(w), reinterpret_cast<char*>(w.udc) + w.udc->size};
    return t.at != nullptr && point_at_strings(w, t) && point_at_records(w, t);
}

int udcw_from_udc(UDC* pudc, UDCW** pudcw, uint32_t data_size) {
    if (pudcw == nullptr) {
        return 0;
    }
    *pudcw = nullptr;
    if (pudc == nullptr || data_size < sizeof(UDC) || data_size < pudc->size) {
        return 0;
    }
    UDCW* w = static_cast<UDCW*>(calloc(1, sizeof(UDCW)));
    if (w == nullptr) {
        return 0;
    }
    w->udc = pudc;
    if (!udcw_correct_pointers(w)) {
        udcw_free(&w);
        return 0;
    }
    w->i32_index = pudc->i32;
    w->ui32_index = pudc->ui32;
    w->i64_index = pudc->i64;
    w->ui64_index = pudc->ui64;
    w->d64_index = pudc->d64;
    *pudcw = w;
    return 1;
}

UDC* udc_copy(UDC* p) {
    if (p == nullptr || p->size == 0) {
        return nullptr;
    }
    void* copy = malloc(p->size);
    return copy != nullptr ? static_cast<UDC*>(memcpy(copy, p, p->size)) : nullptr;
}

int udc_add_to_list(char** pData, size_t* uiDataSize, UDC* p) {
    if (pData == nullptr || *pData == nullptr || uiDataSize == nullptr || p == nullptr ||
        p->size < sizeof(UDC)) {
        return 0;
    }
    char* grown = static_cast<char*>(realloc(*pData, *uiDataSize + p->size));
    if (grown == nullptr) {
        return 0;
    }
    memcpy(grown + *uiDataSize, p, p->size);
    *pData = grown;
    *uiDataSize += p->size;
    return 1;
}

void udcw_free(UDCW** p) {
    if (p == nullptr || *p == nullptr) {
        return;
    }
    free((*p)->pStrArr);
    free((*p)->pudc);
    free(*p);
    *p = nullptr;
}

static void print_record(UDC* p, int depth);

static void print_writer(const UDCW* p, int depth) {
    if (p == nullptr) {
        leveledadd2log(0, "UDCW is Empty");
        return;
    }
    if (p->udc == nullptr) {
        leveledadd2log(0, "UDC is Empty");
        return;
    }
    leveledadd2log(0, "\n\tINDEX\tTYPE\tVALUE");
    for (uint32_t i = 0; i < p->udc->i32; i++) {
        leveledadd2log(0, "\t%d\tI32\t%d", static_cast<int>(i), p->pi32[i]);
    }
    for (uint32_t i = 0; i < p->udc->ui32; i++) {
        leveledadd2log(0, "\t%d\tUI32\t%d", static_cast<int>(i), static_cast<int>(p->pui32[i]));
    }
    for (uint32_t i = 0; i < p->udc->i64; i++) {
        leveledadd2log(0, "\t%d\tI64\t%lld", static_cast<int>(i),
                       static_cast<long long>(p->pi64[i]));
    }
    for (uint32_t i = 0; i < p->udc->ui64; i++) {
        leveledadd2log(0, "\t%d\tUI64\t%llu", static_cast<int>(i),
                       static_cast<unsigned long long>(p->pui64[i]));
    }
    for (uint32_t i = 0; i < p->udc->d64; i++) {
        leveledadd2log(0, "\t%d\tD64\t%f", static_cast<int>(i), p->pd64[i]);
    }
    for (uint32_t i = 0; i < p->sarr_index; i++) {
        leveledadd2log(0, "\t%d\tSARR\t%s", static_cast<int>(i), p->pStrArr[i]);
    }
    for (uint32_t i = 0; depth < DUMP_DEPTH && i < p->pudc_index; i++) {
        print_record(p->pudc[i], depth + 1);
    }
}

static void print_record(UDC* p, int depth) {
    if (p == nullptr) {
        leveledadd2log(0, "UDC is Empty");
        return;
    }
    UDCW* w = nullptr;
    if (!udcw_from_udc(p, &w, p->size)) {
        leveledadd2log(0, "ERROR: udc_print_all_data: failed on udcw_from_udc");
        return;
    }
    print_writer(w, depth);
    udcw_free(&w);
}

void udcw_print_all_data(UDCW* p) {
    print_writer(p, 1);
}

void udc_print_all_data(UDC* p) {
    print_record(p, 1);
}

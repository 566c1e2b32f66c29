#include "fake_core.h"
#include "guards.h"
#include "udc_reader.h"
#include "vindral_log.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <pthread.h>
#include <string>
#include <vector>

/* Memory for the module under test runs out after this many allocations. */
static int allocations_left = std::numeric_limits<int>::max();

static bool memory_left() {
    return allocations_left-- > 0;
}
static void* limited_malloc(size_t size) {
    return memory_left() ? malloc(size) : nullptr;
}
static void* limited_calloc(size_t count, size_t size) {
    return memory_left() ? calloc(count, size) : nullptr;
}
static void* limited_realloc(void* block, size_t size) {
    return memory_left() ? realloc(block, size) : nullptr;
}
#define malloc limited_malloc
#define calloc limited_calloc
#define realloc limited_realloc
#include "udc.cpp"
#undef malloc
#undef calloc
#undef realloc

using namespace std::string_literals;

/* Takes a number from an odd address by value; comparing macros would bind a reference to it. */
template <typename T>
static T value(T number) {
    return number;
}

/* A writer and its record, both freed by scope. */
class writer {
public:
    writer(uint32_t i32, uint32_t ui32, uint32_t i64, uint32_t ui64, uint32_t d64, uint32_t sarr) {
        EXPECT_EQ(create_new_udcw(&w_, i32, ui32, i64, ui64, d64, sarr), 1);
    }
    ~writer() {
        free(w_->udc);
        udcw_free(&w_);
    }
    writer(const writer&) = delete;
    writer& operator=(const writer&) = delete;

    operator UDCW*() { return w_; }
    UDCW* operator->() { return w_; }
    std::string bytes() const {
        return {reinterpret_cast<const char*>(w_->udc), size_t{w_->udc->size}};
    }

private:
    UDCW* w_ = nullptr;
};

/* A record's bytes at an odd address, in a block that ends where they end, so that the address
 * sanitizer sees every step too far. */
class odd_block {
public:
    explicit odd_block(const std::string& bytes)
        : size_(static_cast<uint32_t>(bytes.size())),
          block_(static_cast<char*>(malloc(bytes.size() + 1))) {
        memcpy(block_.get() + 1, bytes.data(), bytes.size());
    }
    UDC* udc() const { return reinterpret_cast<UDC*>(block_.get() + 1); }
    uint32_t size() const { return size_; }

private:
    uint32_t size_;
    heap_text block_;
};

/* Wraps the bytes; the writer's pointers must stay inside them. */
class wrapped {
public:
    explicit wrapped(const std::string& bytes) : wrapped(bytes, bytes.size()) {}
    wrapped(const std::string& bytes, size_t data_size) : block_(bytes) {
        result = udcw_from_udc(block_.udc(), &w_, static_cast<uint32_t>(data_size));
        EXPECT_EQ(result, w_ != nullptr);
        if (w_ != nullptr) {
            check();
        }
    }
    ~wrapped() { udcw_free(&w_); }
    wrapped(const wrapped&) = delete;
    wrapped& operator=(const wrapped&) = delete;

    UDCW* operator->() { return w_; }
    operator UDCW*() { return w_; }
    const odd_block& block() const { return block_; }

    int result;

private:
    void check() const {
        EXPECT_EQ(w_->udc, block_.udc());
        const char* end = reinterpret_cast<const char*>(w_->udc) + w_->udc->size;
        const char* at = reinterpret_cast<const char*>(w_->udc) + sizeof(UDC);
        for (uint32_t i = 0; i < w_->sarr_index; i++) {
            ASSERT_GE(w_->pStrArr[i], at);
            ASSERT_LT(w_->pStrArr[i] + strlen(w_->pStrArr[i]), end);
            at = w_->pStrArr[i] + strlen(w_->pStrArr[i]) + 1;
        }
        for (uint32_t i = 0; i < w_->pudc_index; i++) {
            const char* record = reinterpret_cast<const char*>(w_->pudc[i]);
            ASSERT_GE(record, at);
            ASSERT_GE(end - record, 32);
            ASSERT_GE(size_t{w_->pudc[i]->size}, 32u);
            ASSERT_LE(size_t{w_->pudc[i]->size}, static_cast<size_t>(end - record));
            at = record + w_->pudc[i]->size;
        }
        EXPECT_EQ(w_->pudc_index, value(w_->udc->udca));
        EXPECT_LE(w_->sarr_index, value(w_->udc->sarr));
    }

    odd_block block_;
    UDCW* w_ = nullptr;
};

static std::string u32(uint32_t value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

static std::string u64(uint64_t value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

static std::string header(uint32_t size, uint32_t i32, uint32_t ui32, uint32_t i64, uint32_t ui64,
                          uint32_t d64, uint32_t sarr, uint32_t udca) {
    return u32(size) + u32(i32) + u32(ui32) + u32(i64) + u32(ui64) + u32(d64) + u32(sarr) +
           u32(udca);
}

/* A record of strings and nested records, in whatever disagreement with its counts. */
static std::string record_of(uint32_t sarr, uint32_t udca, const std::string& tail) {
    return header(static_cast<uint32_t>(32 + tail.size()), 0, 0, 0, 0, 0, sarr, udca) + tail;
}

static std::string plain_record(uint32_t ui32_values) {
    std::string values;
    for (uint32_t i = 0; i < ui32_values; i++) {
        values += u32(i);
    }
    return header(32 + 4 * ui32_values, 0, ui32_values, 0, 0, 0, 0, 0) + values;
}

/* The fields stand in the order of the header's description, the pointers first. */
static_assert(offsetof(UDCW, udc) == 0 && offsetof(UDCW, pi32) == 8 &&
              offsetof(UDCW, pui32) == 16 && offsetof(UDCW, pi64) == 24 &&
              offsetof(UDCW, pui64) == 32 && offsetof(UDCW, pd64) == 40 &&
              offsetof(UDCW, pudc) == 48 && offsetof(UDCW, i32_index) == 56 &&
              offsetof(UDCW, ui32_index) == 60 && offsetof(UDCW, i64_index) == 64 &&
              offsetof(UDCW, ui64_index) == 68 && offsetof(UDCW, d64_index) == 72 &&
              offsetof(UDCW, sarr_index) == 76 && offsetof(UDCW, pudc_index) == 80 &&
              offsetof(UDCW, pStrArr) == 88);

/* Creation */

TEST(create_new_udcw, sizes_the_record_from_its_counts_and_a_string_adds_its_length) {
    writer w(0, 3, 1, 0, 1, 1);
    EXPECT_EQ(w->udc->size, 60u);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "finished"), 1);
    EXPECT_EQ(w->udc->size, 69u);
    EXPECT_EQ(w.bytes(), header(69, 0, 3, 1, 0, 1, 1, 0) + std::string(28, '\0') + "finished\0"s);
}

TEST(create_new_udcw, points_only_at_arrays_that_are_not_empty) {
    writer w(0, 1, 0, 1, 0, 0);
    EXPECT_EQ(w->pi32, nullptr);
    EXPECT_NE(w->pui32, nullptr);
    EXPECT_EQ(w->pi64, nullptr);
    EXPECT_NE(w->pui64, nullptr);
    EXPECT_EQ(w->pd64, nullptr);
    EXPECT_EQ(w->pStrArr, nullptr);
    EXPECT_EQ(w->pudc, nullptr);
}

TEST(create_new_udcw, of_nothing_is_a_bare_header) {
    writer w(0, 0, 0, 0, 0, 0);
    EXPECT_EQ(w.bytes(), header(32, 0, 0, 0, 0, 0, 0, 0));
}

TEST(create_new_udcw, refuses_a_record_of_more_than_4_gb) {
    UDCW* w = reinterpret_cast<UDCW*>(1);
    EXPECT_EQ(create_new_udcw(&w, 0xFFFFFFFF, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(w, nullptr);
    /* 32 + 8 * 2^29 is 32 in 32 bits. */
    EXPECT_EQ(create_new_udcw(&w, 0, 0, 1u << 29, 0, 0, 0), 0);
    EXPECT_EQ(create_new_udcw(&w, ~0u, ~0u, ~0u, ~0u, ~0u, 0), 0);
    EXPECT_EQ(w, nullptr);
    EXPECT_EQ(create_new_udcw(nullptr, 0, 0, 0, 0, 0, 0), 0);
}

/* Adding */

TEST(udcw_add, lays_values_out_by_type_and_not_by_the_order_of_adding) {
    writer inner(0, 1, 0, 0, 0, 0);
    EXPECT_EQ(udcw_add(inner, UDC_UI32, 67), 1);
    writer w(1, 2, 1, 1, 1, 2);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "one"), 1);
    EXPECT_EQ(udcw_add(w, UDC_D64, 1.5), 1);
    EXPECT_EQ(udcw_add(w, UDC_UI64, UINT64_MAX), 1);
    EXPECT_EQ(udcw_add(w, UDC_I64, -2), 1);
    EXPECT_EQ(udcw_add(w, UDC_UI32, 66), 1);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "two"), 1);
    EXPECT_EQ(udcw_add(w, UDC_I32, -1), 1);
    EXPECT_EQ(udcw_add(w, UDC_UI32, 7), 1);
    EXPECT_EQ(udcw_add(w, UDC_RECORD, inner->udc), 1);
    EXPECT_EQ(w.bytes(), header(32 + 12 + 24 + 8 + 36, 1, 2, 1, 1, 1, 2, 1) + u32(0xFFFFFFFF) +
                             u32(66) + u32(7) + u64(static_cast<uint64_t>(-2)) + u64(UINT64_MAX) +
                             "\0\0\0\0\0\0\xF8\x3F"s + "one\0two\0"s +
                             header(36, 0, 1, 0, 0, 0, 0, 0) + u32(67));
    EXPECT_STREQ(w->pStrArr[0], "one");
    EXPECT_STREQ(w->pStrArr[1], "two");
    EXPECT_EQ(w->sarr_index, 2u);
    EXPECT_EQ(w->pudc_index, 1u);

    std::string bytes = w.bytes();
    auto content = read_udc(bytes.data(), bytes.size());
    ASSERT_TRUE(content);
    EXPECT_EQ(to_text(*content), "{i32 -1; ui32 66 7; i64 -2; ui64 18446744073709551615; d64 1.5; "
                                 "strings \"one\" \"two\" of 2; {ui32 67; strings of 0}}");
}

TEST(udcw_add, puts_a_64_bit_value_right_behind_a_single_32_bit_one) {
    writer w(1, 0, 1, 0, 0, 0);
    EXPECT_EQ(udcw_add(w, UDC_I64, 0x0102030405060708), 1);
    EXPECT_EQ(w.bytes().substr(36), u64(0x0102030405060708));
    EXPECT_EQ(reinterpret_cast<char*>(w->pi64), reinterpret_cast<char*>(w->udc) + 36);
}

TEST(udcw_add, refuses_values_beyond_the_declared_count_and_changes_nothing) {
    writer w(1, 3, 1, 1, 1, 1);
    for (int type = UDC_I32; type <= UDC_D64; type++) {
        for (int i = 0; i < (type == UDC_UI32 ? 3 : 1); i++) {
            EXPECT_EQ(udcw_add(w, type, 5), 1);
        }
    }
    EXPECT_EQ(udcw_add(w, UDC_STRING, "text"), 1);
    std::string before = w.bytes();
    UDCW indexes = *w;
    for (int type = UDC_I32; type <= UDC_D64; type++) {
        EXPECT_EQ(udcw_add(w, type, 9), 0) << type;
    }
    EXPECT_EQ(udcw_add(w, UDC_STRING, "more"), 0);
    EXPECT_EQ(w.bytes(), before);
    EXPECT_EQ(memcmp(w, &indexes, sizeof indexes), 0);
}

TEST(udcw_add, refuses_a_type_whose_array_is_empty) {
    writer w(0, 0, 0, 0, 0, 0);
    for (int type = UDC_I32; type <= UDC_D64; type++) {
        EXPECT_EQ(udcw_add(w, type, 1), 0) << type;
    }
    EXPECT_EQ(udcw_add(w, UDC_STRING, "text"), 0);
}

TEST(udcw_add, refuses_unknown_types_and_a_null_writer) {
    writer w(1, 1, 1, 1, 1, 1);
    std::string before = w.bytes();
    for (int type : {-1, 0, 8, 100, std::numeric_limits<int>::max()}) {
        EXPECT_EQ(udcw_add(w, type, 1), 0);
        EXPECT_EQ(udcw_add(w, type, "text"), 0);
    }
    EXPECT_EQ(udcw_add(nullptr, UDC_UI32, 1), 0);
    EXPECT_EQ(udcw_add(nullptr, UDC_STRING, "text"), 0);
    EXPECT_EQ(w.bytes(), before);
}

TEST(udcw_add, refuses_an_empty_string_while_the_header_still_declares_it) {
    writer w(0, 1, 0, 0, 0, 1);
    std::string before = w.bytes();
    EXPECT_EQ(udcw_add(w, UDC_STRING, ""), 0);
    EXPECT_EQ(udcw_add(w, UDC_STRING, nullptr), 0);
    EXPECT_EQ(udcw_add(w, UDC_STRING, static_cast<char*>(nullptr)), 0);
    EXPECT_EQ(w.bytes(), before);
    EXPECT_EQ(w->udc->sarr, 1u);
    EXPECT_EQ(w->sarr_index, 0u);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "x"), 1);
}

TEST(udcw_add, refuses_a_string_behind_a_nested_record) {
    writer inner(0, 0, 0, 0, 0, 0);
    writer w(0, 0, 0, 0, 0, 2);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "before"), 1);
    EXPECT_EQ(udcw_add(w, UDC_RECORD, inner->udc), 1);
    std::string before = w.bytes();
    EXPECT_EQ(udcw_add(w, UDC_STRING, "behind"), 0);
    EXPECT_EQ(w.bytes(), before);
    EXPECT_EQ(w->sarr_index, 1u);
}

TEST(udcw_add, refuses_a_nested_record_that_is_null_or_shorter_than_a_header) {
    writer w(0, 0, 0, 0, 0, 0);
    UDC stub = {31, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(udcw_add(w, UDC_RECORD, &stub), 0);
    EXPECT_EQ(udcw_add(w, UDC_RECORD, static_cast<UDC*>(nullptr)), 0);
    EXPECT_EQ(udcw_add(w, UDC_RECORD, nullptr), 0);
    EXPECT_EQ(w.bytes(), header(32, 0, 0, 0, 0, 0, 0, 0));
}

TEST(udcw_add, refuses_to_grow_a_record_beyond_4_gb) {
    writer inner(0, 0, 0, 0, 0, 0);
    writer w(0, 0, 0, 0, 0, 1);
    UDC* before = w->udc;
    w->udc->size = 0xFFFFFFF0; /* as if it held that much */
    EXPECT_EQ(udcw_add(w, UDC_STRING, "sixteen letters."), 0);
    EXPECT_EQ(udcw_add(w, UDC_RECORD, inner->udc), 0);
    EXPECT_EQ(w->udc, before);
    EXPECT_EQ(w->udc->size, 0xFFFFFFF0);
    EXPECT_EQ(w->udc->udca, 0u);
    EXPECT_EQ(w->sarr_index, 0u);
    EXPECT_EQ(w->pudc_index, 0u);
    w->udc->size = 32;
}

TEST(udcw_add, takes_any_number_of_nested_records_and_keeps_every_pointer_right) {
    writer w(0, 1, 0, 0, 0, 1);
    EXPECT_EQ(udcw_add(w, UDC_UI32, 67), 1);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "table"), 1);
    constexpr uint32_t ROWS = 500;
    for (uint32_t i = 0; i < ROWS; i++) {
        writer row(0, 1, 0, 0, 0, 1);
        EXPECT_EQ(udcw_add(row, UDC_UI32, i), 1);
        EXPECT_EQ(udcw_add(row, UDC_STRING, std::string(1 + i % 7, 'r').c_str()), 1);
        ASSERT_EQ(udcw_add(w, UDC_RECORD, row->udc), 1);
        ASSERT_STREQ(w->pStrArr[0], "table");
        ASSERT_EQ(w->pui32[0], 67u);
        ASSERT_EQ(w->pudc_index, i + 1);
        ASSERT_EQ(reinterpret_cast<char*>(w->pudc[0]), w->pStrArr[0] + 6);
        ASSERT_EQ(reinterpret_cast<char*>(w->pudc[i]) + w->pudc[i]->size,
                  reinterpret_cast<char*>(w->udc) + w->udc->size);
    }
    EXPECT_EQ(w->udc->udca, ROWS);
    std::string bytes = w.bytes();
    auto content = read_udc(bytes.data(), bytes.size());
    ASSERT_TRUE(content);
    ASSERT_EQ(content->records.size(), ROWS);
    for (uint32_t i = 0; i < ROWS; i++) {
        EXPECT_EQ(content->records[i].ui32[0], i);
        EXPECT_EQ(content->records[i].strings[0], std::string(1 + i % 7, 'r'));
    }
}

TEST(udcw_add, takes_plain_values_of_every_width) {
    writer w(9, 5, 3, 3, 5, 4);
    char text[] = "changeable";
    const char* constant = "constant";
    int16_t narrow = -3;
    uint16_t port = 65535;
    uint8_t byte = 200;
    int64_t wide = -5'000'000'000;
    size_t length = 12;
    float half = 0.5F;
    enum { STATUS = 2 };
    EXPECT_EQ(udcw_add(w, 1, narrow), 1);
    EXPECT_EQ(udcw_add(w, 1, true), 1);
    EXPECT_EQ(udcw_add(w, 1, false), 1);
    EXPECT_EQ(udcw_add(w, 1, 'A'), 1);
    EXPECT_EQ(udcw_add(w, 1, STATUS), 1);
    EXPECT_EQ(udcw_add(w, 1, 0), 1);
    EXPECT_EQ(udcw_add(w, 1, wide), 1); /* cut to its low 32 bits */
    EXPECT_EQ(udcw_add(w, 1, -7L), 1);
    EXPECT_EQ(udcw_add(w, 1, -8LL), 1);
    EXPECT_EQ(udcw_add(w, 2, 66), 1);
    EXPECT_EQ(udcw_add(w, 2, port), 1);
    EXPECT_EQ(udcw_add(w, 2, byte), 1);
    EXPECT_EQ(udcw_add(w, 2, -1), 1);
    EXPECT_EQ(udcw_add(w, 2, length), 1);
    EXPECT_EQ(udcw_add(w, 3, wide), 1);
    EXPECT_EQ(udcw_add(w, 3, time_t{1700000000}), 1);
    EXPECT_EQ(udcw_add(w, 3, -1), 1);
    EXPECT_EQ(udcw_add(w, 4, static_cast<uint64_t>(-1)), 1);
    EXPECT_EQ(udcw_add(w, 4, 18446744073709551614ULL), 1);
    EXPECT_EQ(udcw_add(w, 4, 4294967295U), 1);
    EXPECT_EQ(udcw_add(w, 5, 1.5), 1);
    EXPECT_EQ(udcw_add(w, 5, half), 1);
    EXPECT_EQ(udcw_add(w, 5, 2), 1);
    EXPECT_EQ(udcw_add(w, 5, -1), 1);
    EXPECT_EQ(udcw_add(w, 5, UINT64_C(1) << 63), 1);
    EXPECT_EQ(udcw_add(w, 6, "text"), 1);
    EXPECT_EQ(udcw_add(w, 6, text), 1);
    EXPECT_EQ(udcw_add(w, 6, constant), 1);
    EXPECT_EQ(udcw_add(w, 6, "text"s.c_str()), 1);
    EXPECT_EQ(udcw_add(w, 6, (char*)NULL), 0);
    writer inner(0, 0, 0, 0, 0, 0);
    UDC* changeable_record = inner->udc;
    const UDC* constant_record = inner->udc;
    EXPECT_EQ(udcw_add(w, 7, changeable_record), 1);
    EXPECT_EQ(udcw_add(w, 7, constant_record), 1);

    std::string bytes = w.bytes();
    auto content = read_udc(bytes.data(), bytes.size());
    ASSERT_TRUE(content);
    EXPECT_EQ(content->i32, (std::vector<int32_t>{-3, 1, 0, 65, 2, 0,
                                                  static_cast<int32_t>(-5'000'000'000), -7, -8}));
    EXPECT_EQ(content->ui32, (std::vector<uint32_t>{66, 65535, 200, 4294967295, 12}));
    EXPECT_EQ(content->i64, (std::vector<int64_t>{-5'000'000'000, 1700000000, -1}));
    EXPECT_EQ(content->ui64, (std::vector<uint64_t>{UINT64_MAX, UINT64_MAX - 1, 4294967295}));
    EXPECT_EQ(content->d64, (std::vector<double>{1.5, 0.5, 2, -1, 0x1p63}));
    EXPECT_EQ(content->strings,
              (std::vector<std::string>{"text", "changeable", "constant", "text"}));
    EXPECT_EQ(content->records.size(), 2u);
}

TEST(udcw_add, takes_values_out_of_another_record) {
    writer from(0, 1, 0, 0, 1, 0);
    udcw_add(from, UDC_UI32, 7);
    udcw_add(from, UDC_D64, 0.25);
    writer w(0, 1, 0, 0, 1, 0);
    EXPECT_EQ(udcw_add(w, UDC_UI32, from->pui32[0]), 1);
    EXPECT_EQ(udcw_add(w, UDC_D64, from->pd64[0]), 1);
    EXPECT_EQ(w.bytes(), from.bytes());
}

TEST(udcw_add, refuses_a_value_of_the_wrong_kind) {
    writer w(1, 1, 1, 1, 1, 1);
    std::string before = w.bytes();
    for (int type = UDC_I32; type <= UDC_UI64; type++) {
        EXPECT_EQ(udcw_add(w, type, 1.0), 0) << type;
    }
    for (int type = UDC_I32; type <= UDC_D64; type++) {
        EXPECT_EQ(udcw_add(w, type, "1"), 0) << type;
        EXPECT_EQ(udcw_add(w, type, w->udc), 0) << type;
    }
    EXPECT_EQ(udcw_add(w, UDC_STRING, 1), 0);
    EXPECT_EQ(udcw_add(w, UDC_STRING, w->udc), 0);
    EXPECT_EQ(udcw_add(w, UDC_RECORD, 1), 0);
    EXPECT_EQ(udcw_add(w, UDC_RECORD, "record"), 0);
    EXPECT_EQ(w.bytes(), before);
}

/* Wrapping */

/* One of everything, two strings, two nested records. */
static std::string full_record() {
    writer row(0, 1, 0, 0, 0, 1);
    udcw_add(row, UDC_UI32, 9);
    udcw_add(row, UDC_STRING, "row");
    writer w(1, 2, 1, 1, 1, 2);
    udcw_add(w, UDC_I32, -1);
    udcw_add(w, UDC_UI32, 66);
    udcw_add(w, UDC_UI32, 4000000000U);
    udcw_add(w, UDC_I64, -2);
    udcw_add(w, UDC_UI64, UINT64_MAX);
    udcw_add(w, UDC_D64, 1.5);
    udcw_add(w, UDC_STRING, "one");
    udcw_add(w, UDC_STRING, "two");
    udcw_add(w, UDC_RECORD, row->udc);
    udcw_add(w, UDC_RECORD, row->udc);
    return w.bytes();
}

TEST(udcw_from_udc, gives_access_to_everything_at_an_odd_address) {
    wrapped w(full_record());
    ASSERT_EQ(w.result, 1);
    EXPECT_EQ(value(w->pi32[0]), -1);
    EXPECT_EQ(value(w->pui32[0]), 66u);
    EXPECT_EQ(value(w->pui32[1]), 4000000000U);
    EXPECT_EQ(value(w->pi64[0]), -2);
    EXPECT_EQ(value(w->pui64[0]), UINT64_MAX);
    EXPECT_EQ(value(w->pd64[0]), 1.5);
    ASSERT_EQ(w->sarr_index, 2u);
    EXPECT_STREQ(w->pStrArr[0], "one");
    EXPECT_STREQ(w->pStrArr[1], "two");
    ASSERT_EQ(w->pudc_index, 2u);
    EXPECT_EQ(value(w->pudc[0]->ui32), 1u);
    EXPECT_EQ(reinterpret_cast<char*>(w->pudc[0]), w->pStrArr[1] + 4);
    EXPECT_EQ(reinterpret_cast<char*>(w->pudc[1]),
              reinterpret_cast<char*>(w->pudc[0]) + w->pudc[0]->size);
}

TEST(udcw_from_udc, counts_all_values_as_added_so_none_can_be_overwritten) {
    std::string bytes = full_record();
    wrapped w(bytes);
    ASSERT_EQ(w.result, 1);
    for (int type = UDC_I32; type <= UDC_D64; type++) {
        EXPECT_EQ(udcw_add(w, type, 77), 0);
    }
    EXPECT_EQ(w->ui32_index, 2u);
    EXPECT_EQ(memcmp(w->udc, bytes.data(), bytes.size()), 0);
}

TEST(udcw_from_udc, needs_a_whole_header_and_the_whole_record) {
    std::string bytes = full_record();
    EXPECT_EQ(wrapped(bytes, 31).result, 0);
    EXPECT_EQ(wrapped(bytes, 0).result, 0);
    EXPECT_EQ(wrapped(bytes, bytes.size() - 1).result, 0);
    EXPECT_EQ(wrapped(bytes, bytes.size()).result, 1);
    EXPECT_EQ(wrapped(bytes + "what follows in the block").result, 1);
    EXPECT_EQ(wrapped(bytes.substr(0, 31)).result, 0);
    UDCW* w = reinterpret_cast<UDCW*>(1);
    EXPECT_EQ(udcw_from_udc(nullptr, &w, 100), 0);
    EXPECT_EQ(w, nullptr);
    EXPECT_EQ(udcw_from_udc(odd_block(bytes).udc(), nullptr, 100), 0);
}

TEST(udcw_from_udc, finds_the_strings_that_are_there_when_more_are_declared) {
    for (const std::string& tail : {""s, "one\0"s, "one\0two\0"s}) {
        wrapped w(record_of(5, 0, tail));
        ASSERT_EQ(w.result, 1);
        EXPECT_EQ(w->sarr_index, tail.size() / 4);
    }
    wrapped many(record_of(0xFFFFFFFF, 0, "one\0"s));
    ASSERT_EQ(many.result, 1);
    EXPECT_EQ(many->sarr_index, 1u);
}

TEST(udcw_from_udc, finds_the_nested_records_behind_missing_strings) {
    std::string text = "one\0two\0"s;
    for (uint32_t missing : {1u, 2u, 10u, 100000u}) {
        /* Sizes around 256 give a header that begins with a zero byte, with "\x01", with 0x0101. */
        for (uint32_t values : {0u, 1u, 55u, 56u, 57u, 120u, 121u}) {
            std::string nested = plain_record(values);
            wrapped w(record_of(2 + missing, 2, text + nested + nested));
            ASSERT_EQ(w.result, 1) << missing << " missing, " << nested.size() << " bytes";
            EXPECT_EQ(w->sarr_index, 2u);
            ASSERT_EQ(w->pudc_index, 2u);
            EXPECT_EQ(value(w->pudc[1]->size), nested.size());
            wrapped none(record_of(missing, 1, nested));
            ASSERT_EQ(none.result, 1) << missing << " missing, " << nested.size() << " bytes";
            EXPECT_EQ(none->sarr_index, 0u);
            EXPECT_EQ(reinterpret_cast<char*>(none->pudc[0]),
                      reinterpret_cast<char*>(none->udc) + 32);
        }
    }
}

TEST(udcw_from_udc, finds_nested_records_whose_headers_read_as_long_texts) {
    /* A size of 16 MB and more has no zero byte, and neither have large counts. */
    constexpr uint32_t VALUES = 0x01010101 / 4;
    wrapped w(record_of(3, 1,
                        "one\0"s + header(32 + 4 * VALUES, 0, VALUES, 0, 0, 0, 0, 0) +
                            std::string(4 * VALUES, '\1')));
    ASSERT_EQ(w.result, 1);
    EXPECT_EQ(w->sarr_index, 1u);
}

TEST(udcw_from_udc, accepts_empty_strings_of_other_writers) {
    wrapped w(record_of(3, 1, "\0a\0\0"s + plain_record(1)));
    ASSERT_EQ(w.result, 1);
    ASSERT_EQ(w->sarr_index, 3u);
    EXPECT_STREQ(w->pStrArr[0], "");
    EXPECT_STREQ(w->pStrArr[1], "a");
    EXPECT_STREQ(w->pStrArr[2], "");
}

TEST(udcw_from_udc, refuses_arrays_that_do_not_fit) {
    EXPECT_EQ(wrapped(header(32, 1, 0, 0, 0, 0, 0, 0)).result, 0);
    EXPECT_EQ(wrapped(header(39, 0, 0, 0, 0, 1, 0, 0) + std::string(7, 'x')).result, 0);
    /* 4 * 2^30 and 8 * 2^29 are 0 in 32 bits. */
    EXPECT_EQ(wrapped(header(32, 1u << 30, 0, 0, 0, 0, 0, 0)).result, 0);
    EXPECT_EQ(wrapped(header(32, 0, 0, 0, 1u << 29, 0, 0, 0)).result, 0);
    EXPECT_EQ(wrapped(header(32, ~0u, ~0u, ~0u, ~0u, ~0u, 0, 0)).result, 0);
    EXPECT_EQ(wrapped(header(31, 0, 0, 0, 0, 0, 0, 0)).result, 0);
    EXPECT_EQ(wrapped(header(0, 0, 0, 0, 0, 0, 0, 0)).result, 0);
}

TEST(udcw_from_udc, refuses_a_string_without_an_end) {
    EXPECT_EQ(wrapped(record_of(1, 0, "text")).result, 0);
    EXPECT_EQ(wrapped(record_of(2, 0, "one\0two"s)).result, 0);
}

TEST(udcw_from_udc, refuses_bytes_that_belong_to_nothing) {
    EXPECT_EQ(wrapped(record_of(0, 0, "x")).result, 0);
    EXPECT_EQ(wrapped(record_of(1, 0, "one\0two\0"s)).result, 0);
    EXPECT_EQ(wrapped(record_of(0, 1, plain_record(0) + "x")).result, 0);
}

TEST(udcw_from_udc, refuses_nested_records_that_are_cut_off_or_missing) {
    std::string nested = plain_record(3);
    for (size_t kept = 0; kept < nested.size(); kept++) {
        EXPECT_EQ(wrapped(record_of(0, 1, nested.substr(0, kept))).result, 0) << kept;
        EXPECT_EQ(wrapped(record_of(1, 2, "a\0"s + nested + nested.substr(0, kept))).result, 0);
    }
    EXPECT_EQ(wrapped(record_of(0, 2, nested)).result, 0);
    EXPECT_EQ(wrapped(record_of(0, 0xFFFFFFFF, nested)).result, 0);
    EXPECT_EQ(wrapped(record_of(0xFFFFFFFF, 0xFFFFFFFF, nested)).result, 0);
}

TEST(udcw_from_udc, refuses_nested_records_of_impossible_size) {
    for (uint32_t size : {0u, 1u, 31u, 33u, 64u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        std::string nested = header(size, 0, 0, 0, 0, 0, 0, 0);
        EXPECT_EQ(wrapped(record_of(0, 1, nested)).result, 0) << size;
        EXPECT_EQ(wrapped(record_of(7, 1, nested)).result, 0) << size;
    }
    EXPECT_EQ(wrapped(record_of(0, 1, header(32, 0, 1, 0, 0, 0, 0, 0))).result, 0);
}

/* Adds everything a wrapped record holds to a new writer. */
static std::string rebuilt(UDCW* from) {
    const UDC& udc = *from->udc;
    writer to(udc.i32, udc.ui32, udc.i64, udc.ui64, udc.d64, udc.sarr);
    for (uint32_t i = 0; i < udc.i32; i++) {
        EXPECT_EQ(udcw_add(to, UDC_I32, from->pi32[i]), 1);
    }
    for (uint32_t i = 0; i < udc.ui32; i++) {
        EXPECT_EQ(udcw_add(to, UDC_UI32, from->pui32[i]), 1);
    }
    for (uint32_t i = 0; i < udc.i64; i++) {
        EXPECT_EQ(udcw_add(to, UDC_I64, from->pi64[i]), 1);
    }
    for (uint32_t i = 0; i < udc.ui64; i++) {
        EXPECT_EQ(udcw_add(to, UDC_UI64, from->pui64[i]), 1);
    }
    for (uint32_t i = 0; i < udc.d64; i++) {
        EXPECT_EQ(udcw_add(to, UDC_D64, from->pd64[i]), 1);
    }
    for (uint32_t i = 0; i < from->sarr_index; i++) {
        EXPECT_EQ(udcw_add(to, UDC_STRING, from->pStrArr[i]), 1);
    }
    for (uint32_t i = 0; i < from->pudc_index; i++) {
        EXPECT_EQ(udcw_add(to, UDC_RECORD, from->pudc[i]), 1);
    }
    return to.bytes();
}

TEST(udcw_from_udc, gives_what_it_takes_to_build_the_same_record_again) {
    for (const std::string& bytes :
         {full_record(), plain_record(0), plain_record(5), record_of(4, 0, "one\0"s),
          record_of(4, 1, "one\0"s + plain_record(2))}) {
        wrapped w(bytes);
        ASSERT_EQ(w.result, 1);
        EXPECT_EQ(rebuilt(w), bytes);
    }
}

TEST(udcw_from_udc, stays_inside_the_record_whatever_one_byte_says) {
    const std::string good = full_record();
    for (size_t at = 0; at < good.size(); at++) {
        for (int value : {0, 1, 2, 0x1F, 0x20, 0x7F, 0x80, 0xFF}) {
            std::string bytes = good;
            bytes[at] = static_cast<char>(value);
            wrapped w(bytes);
            if (w.result && w->udc->size <= bytes.size()) {
                udc_print_all_data(w.block().udc());
            }
        }
    }
    take_log();
}

TEST(udcw_from_udc, stays_inside_the_record_wherever_it_is_cut) {
    const std::string good = full_record();
    for (size_t kept = 0; kept < good.size(); kept++) {
        EXPECT_EQ(wrapped(good.substr(0, kept)).result, 0) << kept;
        if (kept >= 32) {
            std::string adjusted = u32(static_cast<uint32_t>(kept)) + good.substr(4, kept - 4);
            EXPECT_EQ(wrapped(adjusted).result, 0) << kept;
        }
    }
}

TEST(udcw_from_udc, a_record_in_a_block_of_its_own_can_grow) {
    std::string bytes = record_of(3, 0, "one\0"s);
    UDC* block = static_cast<UDC*>(malloc(bytes.size()));
    memcpy(block, bytes.data(), bytes.size());
    UDCW* w = nullptr;
    ASSERT_EQ(udcw_from_udc(block, &w, static_cast<uint32_t>(bytes.size())), 1);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "two"), 1);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "three"), 1);
    EXPECT_EQ(udcw_add(w, UDC_STRING, "four"), 0);
    EXPECT_EQ(udcw_add(w, UDC_RECORD, odd_block(plain_record(1)).udc()), 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(w->udc), size_t{w->udc->size}),
              record_of(3, 1, "one\0two\0three\0"s + plain_record(1)));
    EXPECT_STREQ(w->pStrArr[0], "one");
    EXPECT_STREQ(w->pStrArr[2], "three");
    free(w->udc);
    udcw_free(&w);
}

/* Pointers after a move */

TEST(udcw_correct_pointers, follows_a_record_that_has_moved) {
    writer row(0, 1, 0, 0, 0, 0);
    writer w(1, 0, 1, 0, 1, 3);
    udcw_add(w, UDC_STRING, "one");
    udcw_add(w, UDC_STRING, "two");
    udcw_add(w, UDC_RECORD, row->udc);
    UDC* original = w->udc;
    {
        odd_block moved(w.bytes());
        w->udc = moved.udc();
        EXPECT_EQ(udcw_correct_pointers(w), 1);
        char* base = reinterpret_cast<char*>(moved.udc());
        EXPECT_EQ(reinterpret_cast<char*>(w->pi32), base + 32);
        EXPECT_EQ(w->pui32, nullptr);
        EXPECT_EQ(reinterpret_cast<char*>(w->pi64), base + 36);
        EXPECT_EQ(w->pui64, nullptr);
        EXPECT_EQ(reinterpret_cast<char*>(w->pd64), base + 44);
        EXPECT_EQ(w->pStrArr[0], base + 52);
        EXPECT_EQ(w->pStrArr[1], base + 56);
        EXPECT_EQ(reinterpret_cast<char*>(w->pudc[0]), base + 60);
        EXPECT_EQ(w->sarr_index, 2u);
        EXPECT_EQ(w->pudc_index, 1u);
    }
    w->udc = original;
    EXPECT_EQ(udcw_correct_pointers(w), 1);
    EXPECT_STREQ(w->pStrArr[1], "two");
}

TEST(udcw_correct_pointers, finds_what_a_bare_writer_does_not_know_yet) {
    odd_block block(full_record());
    UDCW* w = static_cast<UDCW*>(calloc(1, sizeof(UDCW)));
    w->udc = block.udc();
    EXPECT_EQ(udcw_correct_pointers(w), 1);
    EXPECT_EQ(w->sarr_index, 2u);
    EXPECT_STREQ(w->pStrArr[1], "two");
    EXPECT_EQ(w->pudc_index, 2u);
    udcw_free(&w);
}

TEST(udcw_correct_pointers, refuses_no_writer_and_no_record) {
    EXPECT_EQ(udcw_correct_pointers(nullptr), 0);
    UDCW empty = {};
    EXPECT_EQ(udcw_correct_pointers(&empty), 0);
}

/* Copies and lists */

TEST(udc_copy, copies_the_bytes) {
    std::string bytes = full_record();
    heap<UDC> copy;
    {
        odd_block block(bytes);
        copy.reset(udc_copy(block.udc()));
    }
    ASSERT_TRUE(copy);
    EXPECT_EQ(memcmp(copy.get(), bytes.data(), bytes.size()), 0);
}

TEST(udc_copy, of_nothing_is_null) {
    EXPECT_EQ(udc_copy(nullptr), nullptr);
    UDC empty = {};
    EXPECT_EQ(udc_copy(&empty), nullptr);
}

TEST(udc_add_to_list, appends_to_a_block_that_exists) {
    std::string bytes = full_record();
    odd_block block(bytes);
    size_t size = 3;
    char* list = static_cast<char*>(malloc(size));
    memcpy(list, "abc", size);
    EXPECT_EQ(udc_add_to_list(&list, &size, block.udc()), 1);
    EXPECT_EQ(udc_add_to_list(&list, &size, block.udc()), 1);
    EXPECT_EQ(std::string(list, size), "abc" + bytes + bytes);
    auto records = read_udc_list(list + 3, size - 3);
    ASSERT_TRUE(records);
    EXPECT_EQ(records->size(), 2u);
    free(list);
}

TEST(udc_add_to_list, starts_no_block_and_adds_no_broken_record) {
    UDC bare = {32, 0, 0, 0, 0, 0, 0, 0};
    UDC empty = {};
    char* none = nullptr;
    size_t size = 0;
    EXPECT_EQ(udc_add_to_list(&none, &size, &bare), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(udc_add_to_list(nullptr, &size, &bare), 0);
    char* list = static_cast<char*>(malloc(1));
    EXPECT_EQ(udc_add_to_list(&list, nullptr, &bare), 0);
    EXPECT_EQ(udc_add_to_list(&list, &size, nullptr), 0);
    EXPECT_EQ(udc_add_to_list(&list, &size, &empty), 0);
    EXPECT_EQ(size, 0u);
    free(list);
}

TEST(udcw_free, leaves_the_record_and_clears_the_pointer) {
    UDCW* w = nullptr;
    ASSERT_EQ(create_new_udcw(&w, 0, 1, 0, 0, 0, 1), 1);
    udcw_add(w, UDC_STRING, "kept");
    heap<UDC> record(w->udc);
    udcw_free(&w);
    EXPECT_EQ(w, nullptr);
    EXPECT_EQ(record->size, 41u);
    udcw_free(&w);
    udcw_free(nullptr);
}

/* Memory */

/* Runs `attempt` with memory for 0, 1, 2 ... allocations until it succeeds; `unchanged` after each
 * failure. */
template <typename F, typename G>
static void with_little_memory(F attempt, G unchanged) {
    int done = 0;
    for (int allowed = 0; !done; allowed++) {
        ASSERT_LT(allowed, 10);
        allocations_left = allowed;
        done = attempt();
        allocations_left = std::numeric_limits<int>::max();
        if (!done) {
            unchanged();
        }
    }
}

TEST(without_memory, nothing_is_created) {
    UDCW* w = nullptr;
    with_little_memory([&] { return create_new_udcw(&w, 1, 1, 1, 1, 1, 1); },
                       [&] { EXPECT_EQ(w, nullptr); });
    free(w->udc);
    udcw_free(&w);
}

TEST(without_memory, nothing_is_added) {
    writer inner(0, 1, 0, 0, 0, 0);
    writer w(0, 0, 0, 0, 0, 2);
    udcw_add(w, UDC_STRING, "one");
    std::string before = w.bytes();
    with_little_memory([&] { return udcw_add(w, UDC_STRING, "two"); },
                       [&] {
                           EXPECT_EQ(w.bytes(), before);
                           EXPECT_EQ(w->sarr_index, 1u);
                           EXPECT_STREQ(w->pStrArr[0], "one");
                       });
    before = w.bytes();
    with_little_memory([&] { return udcw_add(w, UDC_RECORD, inner->udc); },
                       [&] {
                           EXPECT_EQ(w.bytes(), before);
                           EXPECT_EQ(w->pudc_index, 0u);
                       });
    EXPECT_STREQ(w->pStrArr[1], "two");
    EXPECT_EQ(w->pudc_index, 1u);
}

TEST(without_memory, nothing_is_wrapped_copied_or_appended) {
    odd_block block(full_record());
    UDCW* w = nullptr;
    with_little_memory([&] { return udcw_from_udc(block.udc(), &w, block.size()); },
                       [&] { EXPECT_EQ(w, nullptr); });
    udcw_free(&w);
    heap<UDC> copy;
    with_little_memory(
        [&] {
            copy.reset(udc_copy(block.udc()));
            return copy != nullptr;
        },
        [] {});
    size_t size = 1;
    char* list = static_cast<char*>(malloc(size));
    with_little_memory([&] { return udc_add_to_list(&list, &size, block.udc()); },
                       [&] { EXPECT_EQ(size, 1u); });
    EXPECT_EQ(size, 1 + block.size());
    free(list);
}

TEST(without_memory, a_dump_says_that_it_failed) {
    odd_block block(full_record());
    take_log();
    allocations_left = 0;
    udc_print_all_data(block.udc());
    allocations_left = std::numeric_limits<int>::max();
    EXPECT_EQ(take_log_text(), "0 ERROR: udc_print_all_data: failed on udcw_from_udc\n");
}

/* Dump */

TEST(udcw_print_all_data, writes_every_value_at_level_0) {
    take_log();
    wrapped w(full_record());
    ASSERT_EQ(w.result, 1);
    udcw_print_all_data(w);
    EXPECT_EQ(take_log_text(), "0 \n\tINDEX\tTYPE\tVALUE\n"
                               "0 \t0\tI32\t-1\n"
                               "0 \t0\tUI32\t66\n"
                               "0 \t1\tUI32\t-294967296\n"
                               "0 \t0\tI64\t-2\n"
                               "0 \t0\tUI64\t18446744073709551615\n"
                               "0 \t0\tD64\t1.500000\n"
                               "0 \t0\tSARR\tone\n"
                               "0 \t1\tSARR\ttwo\n"
                               "0 \n\tINDEX\tTYPE\tVALUE\n"
                               "0 \t0\tUI32\t9\n"
                               "0 \t0\tSARR\trow\n"
                               "0 \n\tINDEX\tTYPE\tVALUE\n"
                               "0 \t0\tUI32\t9\n"
                               "0 \t0\tSARR\trow\n");
    udc_print_all_data(w->pudc[0]);
    EXPECT_EQ(take_log_text(), "0 \n\tINDEX\tTYPE\tVALUE\n0 \t0\tUI32\t9\n0 \t0\tSARR\trow\n");
}

TEST(udcw_print_all_data, says_what_is_missing) {
    take_log();
    udcw_print_all_data(nullptr);
    EXPECT_EQ(take_log_text(), "0 UDCW is Empty\n");
    UDCW empty = {};
    udcw_print_all_data(&empty);
    EXPECT_EQ(take_log_text(), "0 UDC is Empty\n");
    udc_print_all_data(nullptr);
    EXPECT_EQ(take_log_text(), "0 UDC is Empty\n");
}

TEST(udc_print_all_data, reports_a_record_it_cannot_read) {
    take_log();
    udc_print_all_data(odd_block(header(32, 1, 0, 0, 0, 0, 0, 0)).udc());
    EXPECT_EQ(take_log_text(), "0 ERROR: udc_print_all_data: failed on udcw_from_udc\n");
    udc_print_all_data(odd_block(header(0, 0, 0, 0, 0, 0, 0, 0)).udc());
    EXPECT_EQ(take_log_text(), "0 ERROR: udc_print_all_data: failed on udcw_from_udc\n");
    /* A nested record is only looked into when its turn comes. */
    udc_print_all_data(odd_block(record_of(0, 1, record_of(1, 0, "text"))).udc());
    EXPECT_EQ(take_log_text(), "0 \n\tINDEX\tTYPE\tVALUE\n"
                               "0 ERROR: udc_print_all_data: failed on udcw_from_udc\n");
}

TEST(udc_print_all_data, stops_at_16_levels_within_a_workers_stack) {
    std::string nested = record_of(0, 0, "");
    for (int i = 0; i < 2000; i++) {
        nested = record_of(0, 1, nested);
    }
    odd_block block(nested);
    take_log();
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, WORKER_STACK_SIZE);
    pthread_t thread;
    auto dump = [](void* udc) -> void* {
        udc_print_all_data(static_cast<UDC*>(udc));
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, dump, block.udc()), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    std::vector<logged_line> lines = take_log();
    EXPECT_EQ(lines.size(), 16u);
    for (const logged_line& line : lines) {
        EXPECT_EQ(line.text, "\n\tINDEX\tTYPE\tVALUE");
    }
}

/* The reader the other tests lean on */

TEST(read_udc, reads_strings_that_are_there_and_records_behind_them) {
    std::string bytes = record_of(3, 1, "one\0"s + plain_record(2));
    auto content = read_udc(bytes.data(), bytes.size());
    ASSERT_TRUE(content);
    EXPECT_EQ(to_text(*content), "{strings \"one\" of 3; {ui32 0 1; strings of 0}}");
}

TEST(read_udc, refuses_what_is_no_whole_record) {
    std::string bytes = full_record();
    EXPECT_TRUE(read_udc(bytes.data(), bytes.size()));
    EXPECT_FALSE(read_udc(bytes.data(), bytes.size() - 1));
    EXPECT_FALSE(read_udc((bytes + "x").data(), bytes.size() + 1));
    EXPECT_FALSE(read_udc(bytes.data(), 0));
    EXPECT_FALSE(read_udc_list((bytes + "x").data(), bytes.size() + 1));
    EXPECT_TRUE(read_udc_list(bytes.data(), 0)->empty());
}

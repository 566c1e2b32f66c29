#include "protocol/record.h"

#include "collector_test_support.h"

#include <chrono>
#include <gtest/gtest.h>
#include <random>

static std::string decode_error(const std::string& bytes) {
    record r;
    std::string reason;
    return decode_record(bytes, r, reason) ? "decoded" : reason;
}

TEST(record, holds_all_types_in_the_order_of_the_layout) {
    std::string bytes = record_builder{
        .i32 = {-1, 2},
        .ui32 = {66, 4000000000u, 3},
        .i64 = {-5},
        .ui64 = {~uint64_t{0}},
        .d64 = {0.5, -1.0},
        .strings = {"one",
                    "two"}}.bytes();
    record r;
    std::string reason;
    ASSERT_TRUE(decode_record(bytes, r, reason)) << reason;
    EXPECT_EQ(r.raw, bytes);
    EXPECT_EQ(r.type(), 0x42u);
    ASSERT_EQ(r.i32.size(), 2u);
    EXPECT_EQ(r.i32[0], -1);
    EXPECT_EQ(r.i32[1], 2);
    EXPECT_EQ(r.ui32[1], 4000000000u);
    EXPECT_EQ(r.i64[0], -5);
    EXPECT_EQ(r.ui64[0], ~uint64_t{0});
    EXPECT_EQ(r.d64[1], -1.0);
    EXPECT_EQ(r.declared_strings, 2u);
    EXPECT_EQ(std::vector<std::string_view>(r.strings.begin(), r.strings.end()),
              (std::vector<std::string_view>{"one", "two"}));
    EXPECT_TRUE(r.nested.empty());
}

TEST(record, values_of_64_bits_may_lie_at_any_address) {
    std::string bytes = record_builder{.i32 = {1}, .i64 = {0x1122334455667788}}.bytes();
    ASSERT_EQ(bytes.size(), 44u);
    for (size_t shift = 0; shift < 8; shift++) {
        std::string moved = std::string(shift, 'x') + bytes;
        record r;
        std::string reason;
        ASSERT_TRUE(decode_record(std::string_view(moved).substr(shift), r, reason)) << reason;
        EXPECT_EQ(r.i64[0], 0x1122334455667788);
    }
}

TEST(record, the_bytes_of_a_known_record_are_what_the_layout_says) {
    std::string bytes =
        record_builder{.ui32 = {40, 5, 6}, .i64 = {1}, .d64 = {2}, .strings = {"finished"}}.bytes();
    EXPECT_EQ(bytes.size(), 69u);
    EXPECT_EQ(decode_error(bytes), "decoded");
}

TEST(record, nested_records_are_checked_and_handed_on_whole) {
    std::string leaf = record_builder{.ui32 = {1}, .strings = {"leaf"}}.bytes();
    std::string middle = record_builder{.strings = {"mid"}, .nested = {leaf, leaf}}.bytes();
    std::string bytes =
        record_builder{.ui32 = {67}, .strings = {"top"}, .nested = {middle, leaf}}.bytes();
    record r;
    std::string reason;
    ASSERT_TRUE(decode_record(bytes, r, reason)) << reason;
    ASSERT_EQ(r.nested.size(), 2u);
    EXPECT_EQ(r.nested[0], middle);
    EXPECT_EQ(r.nested[1], leaf);

    size_t at = bytes.size() - leaf.size();
    EXPECT_EQ(decode_error(with_word(bytes, at + 8, 1000)),
              "its strings and nested records do not fill it");
}

TEST(record, fewer_strings_than_declared_are_fine) {
    for (uint32_t missing : {1u, 2u, 4000000000u}) {
        record_builder without{.ui32 = {66}, .strings = {}};
        without.missing_strings = missing;
        EXPECT_EQ(decode_error(without.bytes()), "decoded") << missing;

        record_builder some{.ui32 = {66}, .strings = {"a", "b"}};
        some.missing_strings = missing;
        record r;
        std::string reason, bytes = some.bytes();
        ASSERT_TRUE(decode_record(bytes, r, reason)) << reason;
        EXPECT_EQ(r.strings.size(), 2u);
        EXPECT_EQ(r.declared_strings, 2 + missing);
    }
}

TEST(record, missing_strings_before_nested_records_are_found) {
    std::string leaf = record_builder{.ui32 = {1, 2}, .strings = {"leaf"}}.bytes();
    for (uint32_t missing : {1u, 3u, 4000000000u}) {
        for (size_t held = 0; held < 4; held++) {
            record_builder outer{.ui32 = {67}, .nested = {leaf, leaf}};
            outer.strings.assign(held, "some text");
            outer.missing_strings = missing;
            record r;
            std::string reason, bytes = outer.bytes();
            ASSERT_TRUE(decode_record(bytes, r, reason)) << missing << " " << held << " " << reason;
            EXPECT_EQ(r.strings.size(), held);
            ASSERT_EQ(r.nested.size(), 2u);
            EXPECT_EQ(r.nested[1], leaf);
        }
    }
}

TEST(record, missing_strings_are_found_on_every_level) {
    record_builder leaf{.ui32 = {1}};
    leaf.missing_strings = 2;
    std::string bytes = leaf.bytes();
    for (int level = 0; level < 10; level++) {
        record_builder outer{.ui32 = {2}, .strings = {"text"}, .nested = {bytes, bytes}};
        outer.missing_strings = 2;
        bytes = outer.bytes();
        EXPECT_EQ(decode_error(bytes), "decoded") << level;
    }
}

/* One record with many values and no string, or six strings of three bytes, which are the first six
 * words of its header, and a record that begins with the seventh. Seven strings are declared, so
 * that neither reading is the plain one. */
TEST(record, what_can_be_read_in_two_ways_is_refused) {
    const uint32_t count = 0x010101;
    const uint32_t size = 32 + 4 * 2 * count + 8 * 3 * count;
    ASSERT_EQ(size, 0x00202040u);
    std::string inner;
    for (uint32_t word : {size, count, count, count, count, count, size - 24, 0u}) {
        record_builder::append(inner, word);
    }
    record_builder::append(inner, (size - 24 - 32) / 4);
    inner.resize(size, '\0');
    record_builder outer{.ui32 = {1}, .nested = {inner}};
    EXPECT_EQ(decode_error(outer.bytes()), "decoded");
    outer.missing_strings = 6;
    EXPECT_EQ(decode_error(outer.bytes()), "decoded"); /* as declared */
    outer.missing_strings = 7;
    EXPECT_EQ(decode_error(outer.bytes()), "its strings cannot be told from its nested records");
}

TEST(record, strings_are_strict) {
    std::string bytes = record_builder{.ui32 = {66}, .strings = {"text"}}.bytes();
    const char* reason = "bytes behind its values are not the strings it declares";
    std::string endless = bytes;
    endless.back() = 'x';
    EXPECT_EQ(decode_error(endless), reason);
    std::string empty = bytes;
    empty[36] = '\0'; /* the string's first byte */
    EXPECT_EQ(decode_error(empty), reason);
    EXPECT_EQ(decode_error(with_word(bytes, 24, 0)), reason);
    record_builder two{.ui32 = {66}, .strings = {"a", "b"}};
    EXPECT_EQ(decode_error(with_word(two.bytes(), 24, 1)), reason);
}

TEST(record, counts_and_sizes_are_checked_without_believing_them) {
    std::string bytes = load_record(1, 2);
    for (size_t offset : {4, 8, 12, 16, 20}) {
        EXPECT_EQ(decode_error(with_word(bytes, offset, 0xffffffff)),
                  "it is too small for the values it declares");
        EXPECT_EQ(decode_error(with_word(bytes, offset, 0x40000000)),
                  "it is too small for the values it declares");
    }
    EXPECT_EQ(decode_error(with_word(bytes, 24, 0xffffffff)),
              "decoded"); /* strings may be missing */
    EXPECT_EQ(decode_error(with_word(bytes, 28, 0xffffffff)),
              "its strings and nested records do not fill it");
    for (uint32_t size : {0u, 31u, 32u, 0xffffffffu}) {
        EXPECT_EQ(decode_error(with_word(bytes, 0, size)),
                  "its size is not the number of its bytes");
    }
    for (size_t length = 0; length < bytes.size(); length++) {
        EXPECT_NE(decode_error(bytes.substr(0, length)), "decoded");
    }
}

TEST(record, nesting_has_a_limit) {
    std::string bytes = record_builder{.ui32 = {1}}.bytes();
    for (int depth = 2; depth <= record_max_depth; depth++) {
        bytes = record_builder{.ui32 = {1}, .nested = {bytes}}.bytes();
        EXPECT_EQ(decode_error(bytes), "decoded") << depth;
    }
    bytes = record_builder{.ui32 = {1}, .nested = {bytes}}.bytes();
    EXPECT_NE(decode_error(bytes), "decoded");
}

/* Records made so that every number of strings has to be tried, on every level. */
TEST(record, work_is_bounded) {
    std::string bytes = record_builder{.ui32 = {1}}.bytes();
    for (int depth = 0; depth < 12; depth++) {
        record_builder outer{.ui32 = {1}, .nested = {bytes}};
        outer.strings.assign(20000, "a");
        outer.missing_strings = 5;
        bytes = outer.bytes();
    }
    bytes = with_word(bytes, bytes.size() - 32 - 4 + 8, 2); /* the innermost is wrong */
    auto start = std::chrono::steady_clock::now();
    EXPECT_NE(decode_error(bytes), "decoded");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(record, an_honest_record_with_many_strings_and_one_missing_is_within_the_bound) {
    record_builder outer{.ui32 = {74}, .nested = {record_builder{.ui32 = {1}}.bytes()}};
    outer.strings.assign(50000, "a");
    outer.missing_strings = 1;
    EXPECT_EQ(decode_error(outer.bytes()), "decoded");
}

struct piece {
    bool good;
    size_t offset, bytes;
    bool operator==(const piece&) const = default;
};

static std::vector<piece> walk(std::string_view block, std::string* reason = nullptr) {
    std::vector<piece> pieces;
    block_reader reader(block);
    while (reader.next()) {
        pieces.push_back({reader.good, reader.offset, reader.bytes});
        if (!reader.good && reason != nullptr) {
            *reason = reader.reason;
        }
    }
    EXPECT_FALSE(reader.next());
    return pieces;
}

TEST(block, an_empty_one_has_no_pieces) {
    EXPECT_TRUE(walk("").empty());
}

TEST(block, records_follow_each_other) {
    std::string a = load_record(1, 2), b = load_record(2, 2, 0, "a longer message\n");
    EXPECT_EQ(walk(a + b + a), (std::vector<piece>{{true, 0, a.size()},
                                                   {true, a.size(), b.size()},
                                                   {true, a.size() + b.size(), a.size()}}));
}

TEST(block, a_record_that_is_wrong_inside_is_passed_over) {
    std::string good = load_record(1, 2), bad = with_word(good, 12, 99);
    std::string reason;
    EXPECT_EQ(walk(good + bad + good, &reason),
              (std::vector<piece>{{true, 0, good.size()},
                                  {false, good.size(), bad.size()},
                                  {true, 2 * good.size(), good.size()}}));
    EXPECT_EQ(reason, "it is too small for the values it declares");
}

TEST(block, after_a_size_that_makes_no_sense_the_rest_is_one_piece) {
    std::string good = load_record(1, 2), reason;
    for (uint32_t size : {0u, 31u, 100000u, 0xffffffffu}) {
        EXPECT_EQ(
            walk(good + with_word(good, 0, size) + good, &reason),
            (std::vector<piece>{{true, 0, good.size()}, {false, good.size(), 2 * good.size()}}));
        EXPECT_EQ(reason, "no record has the size " + std::to_string(size));
    }
    EXPECT_EQ(walk(good + "abc", &reason),
              (std::vector<piece>{{true, 0, good.size()}, {false, good.size(), 3}}));
    EXPECT_EQ(reason, "too short for a record");
}

TEST(block, text_is_no_record) {
    std::string text = "This is a line of text, and not a record of any kind.\n", reason;
    EXPECT_EQ(walk(text, &reason), (std::vector<piece>{{false, 0, text.size()}}));
}

TEST(block, a_record_without_a_type_is_not_taken) {
    std::string bytes = record_builder{.i32 = {1}}.bytes(), reason;
    EXPECT_EQ(walk(bytes, &reason), (std::vector<piece>{{false, 0, bytes.size()}}));
    EXPECT_EQ(reason, "it has no type");
}

TEST(block, the_pieces_of_any_bytes_cover_all_of_them) {
    std::mt19937 random(1);
    std::string leaf = record_builder{.ui32 = {1}, .strings = {"leaf"}}.bytes();
    std::string seed =
        load_record(1, 2) +
        record_builder{.ui32 = {67}, .strings = {"x"}, .nested = {leaf, leaf}}.bytes() +
        load_record(3, 4);
    for (int round = 0; round < 20000; round++) {
        std::string block = seed.substr(0, random() % (seed.size() + 1));
        for (unsigned changes = random() % 4; changes > 0 && !block.empty(); changes--) {
            block[random() % block.size()] = static_cast<char>(random());
        }
        size_t end = 0;
        for (block_reader reader(block); reader.next();) {
            ASSERT_EQ(reader.offset, end);
            ASSERT_GT(reader.bytes, 0u);
            end += reader.bytes;
        }
        ASSERT_EQ(end, block.size());
    }
}

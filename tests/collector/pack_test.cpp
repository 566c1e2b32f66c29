#include "store/columns.h"
#include "store/pack.h"

#include "collector_test_support.h"
#include "counted_memory.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <zlib.h>

/* ---- chunks ---- */

struct kept_record {
    int64_t received;
    std::string record;
    bool operator==(const kept_record&) const = default;
};
using kept_records = std::vector<kept_record>;

static bool pack_kept(const kept_records& records, std::string& packed) {
    std::vector<arrived_record> arrived;
    for (const kept_record& one : records) {
        arrived.push_back({one.received, one.record});
    }
    return pack_chunk(arrived, packed);
}

static bool unpack_kept(std::string_view packed, kept_records& records) {
    records.clear();
    return unpack_chunk(packed, [&records](const arrived_record& one) {
        records.push_back({one.received, std::string(one.record)});
        return true;
    });
}

/* The chunk's size; expects that the records come out as they went in. */
static size_t round_trip(const kept_records& records) {
    std::string packed = "what was there";
    EXPECT_TRUE(pack_kept(records, packed));
    kept_records found;
    EXPECT_TRUE(unpack_kept(packed, found));
    EXPECT_EQ(found.size(), records.size());
    EXPECT_TRUE(found == records);
    return packed.size();
}

static std::string cpu_record(int64_t time, const std::vector<double>& shares, uint32_t status = 0,
                              const std::vector<std::string>& processors = {}) {
    return record_builder{.ui32 = {44, 7, 3, status},
                          .i64 = {time},
                          .d64 = shares,
                          .strings = {"CPU values are within acceptable limits\n"},
                          .nested = processors}
        .bytes();
}

TEST(pack_chunk, of_nothing_and_of_one_record) {
    round_trip({});
    round_trip({{1780000000, load_record(7, 1780000000)}});
    round_trip({{INT64_MIN, load_record(7, INT64_MAX)}, {INT64_MAX, load_record(7, INT64_MIN)}});
}

TEST(pack_chunk, of_an_hour_of_noise_is_small) {
    std::mt19937 noise(1);
    std::uniform_real_distribution<double> share(0, 100);
    kept_records records;
    for (int i = 0; i < 60; i++) {
        int64_t time = 1780000000 + 60 * i;
        records.push_back(
            {time + static_cast<int64_t>(noise() % 3),
             cpu_record(time, {share(noise), share(noise), share(noise), share(noise)})});
    }
    EXPECT_LE(round_trip(records), 60u * 34);
}

TEST(pack_chunk, of_measured_steps_is_smaller) {
    std::mt19937 noise(1);
    kept_records tenths, kilobytes;
    for (int i = 0; i < 60; i++) {
        int64_t time = 1780000000 + 60 * i;
        auto step = [&noise](int most) { return static_cast<double>(noise() % most); };
        tenths.push_back({time, cpu_record(time, {step(1000) / 10, step(100) / 10, step(9) / 10})});
        kilobytes.push_back({time, cpu_record(time, {step(1 << 16) / 1024, 8e6 / 1024})});
    }
    EXPECT_LE(round_trip(tenths), 60u * 9);
    EXPECT_LE(round_trip(kilobytes), 60u * 9);
}

TEST(pack_chunk, of_ten_thousand_records) {
    kept_records records;
    for (int i = 0; i < 10000; i++) {
        records.push_back({1780000000 + 60 * i, load_record(7, 1780000000 + 60 * i, i % 100 == 0)});
    }
    EXPECT_LE(round_trip(records), 10000u * 4);
}

TEST(pack_chunk, of_shapes_that_alternate) {
    kept_records records;
    for (int i = 0; i < 100; i++) {
        record_builder process{.ui32 = {43, 7, 3, static_cast<uint32_t>(i * 7919), 0},
                               .i64 = {1780000000 + i / 3},
                               .d64 = {0.1 * i, 17.5, 1e300}};
        process.missing_strings = i % 3;
        if (i % 5 == 0) {
            process.strings.push_back("a process ended " + std::to_string(i));
        }
        records.push_back({1780000000 + i / 3, process.bytes()});
        if (i % 7 == 0) {
            records.push_back({1780000001 + i / 3, load_record(7, i)});
        }
        if (i % 33 == 0) { /* not often enough for a shape */
            records.push_back({5, record_builder{.ui32 = {99, 1}, .ui64 = {~uint64_t{0}}}.bytes()});
        }
    }
    round_trip(records);
}

TEST(pack_chunk, of_every_type_of_value_at_its_ends) {
    using limits = std::numeric_limits<double>;
    const double reals[] = {0.0,
                            -0.0,
                            limits::infinity(),
                            -limits::infinity(),
                            limits::quiet_NaN(),
                            limits::signaling_NaN(),
                            limits::denorm_min(),
                            limits::max(),
                            limits::lowest(),
                            0x1p64,
                            0x1p53,
                            0x1p53 + 2,
                            0.1,
                            1.0 / 3,
                            1e9 + 0.1,
                            123456789.123456789};
    /* Each alone, before and behind others, and all in turn. */
    for (double real : reals) {
        kept_records records;
        for (int i = 0; i < 40; i++) {
            records.push_back({i, cpu_record(i, {real, i < 20 ? real : 0.5, i < 20 ? 0.5 : real,
                                                 reals[i % std::size(reals)]})});
        }
        round_trip(records);
    }
    kept_records records;
    for (int i = 0; i < 40; i++) {
        bool odd = i % 2;
        records.push_back(
            {odd ? INT64_MIN : INT64_MAX, record_builder{.i32 = {odd ? INT32_MIN : INT32_MAX, i},
                                                         .ui32 = {odd ? UINT32_MAX : 0, 7},
                                                         .i64 = {odd ? INT64_MIN : INT64_MAX, -i},
                                                         .ui64 = {odd ? UINT64_MAX : 0, 1}}
                                              .bytes()});
    }
    round_trip(records);
}

TEST(pack_chunk, of_records_in_records) {
    kept_records records;
    std::mt19937 noise(2);
    for (int i = 0; i < 60; i++) {
        std::vector<std::string> processors;
        for (uint32_t p = 0; p < 4; p++) {
            processors.push_back(
                record_builder{.ui32 = {0},
                               .d64 = {static_cast<double>(noise() % 1000) / 10, 50, 0, 0.5},
                               .strings = {"processor " + std::to_string(p)}}
                    .bytes());
        }
        records.push_back({i, cpu_record(i, {0.5, 0.25}, 0, processors)});
    }
    EXPECT_LE(round_trip(records), 60u * 16);

    std::string deep = record_builder{.ui32 = {1}}.bytes();
    for (int depth = 2; depth <= 16; depth++) {
        deep = record_builder{.ui32 = {67}, .strings = {"x"}, .nested = {deep}}.bytes();
    }
    round_trip(kept_records(20, {1, deep}));
}

TEST(pack_chunk, of_large_records) {
    std::mt19937 noise(3);
    std::string text(1 << 20, '\0');
    for (char& byte : text) {
        byte = static_cast<char>(1 + noise() % 255);
    }
    kept_records records;
    for (int i = 0; i < 9; i++) {
        text[static_cast<size_t>(i) * 1000] ^= 1;
        text[static_cast<size_t>(i) * 1000] |= 2;
        records.push_back({i, record_builder{.ui32 = {67, 7}, .strings = {text}}.bytes()});
    }
    round_trip(records);

    std::vector<std::string> cells;
    record_builder table{.ui32 = {67, 7, 3, 0}, .i64 = {1}};
    for (uint32_t i = 0; i < 3000; i++) {
        table.ui32.push_back(i);
        table.strings.push_back("cell " + std::to_string(i));
    }
    round_trip(kept_records(20, {1, table.bytes()}));
}

/* Whatever says its own size is kept, also what nobody can read. */
TEST(pack_chunk, of_what_is_no_record) {
    std::string broken = load_record(7, 1);
    broken[8] = 99;
    std::string four("\4\0\0\0", 4);
    round_trip({{1, broken}, {2, four}, {3, load_record(7, 1)}, {4, four}});
    round_trip(kept_records(50, {1, broken}));
}

TEST(pack_chunk, of_random_records) {
    std::mt19937 noise(4);
    auto some = [&noise](size_t most) { return noise() % (most + 1); };
    for (int round = 0; round < 200; round++) {
        kept_records records;
        std::vector<record_builder> shapes(1 + some(3));
        for (record_builder& shape : shapes) {
            shape.i32.resize(some(2));
            shape.ui32.resize(1 + some(3));
            shape.i64.resize(some(2));
            shape.ui64.resize(some(1));
            shape.d64.resize(some(4));
            shape.missing_strings = static_cast<uint32_t>(some(1));
        }
        int kind = round % 4;
        for (size_t i = some(300); i > 0; i--) {
            record_builder r = shapes[some(shapes.size() - 1)];
            for (double& real : r.d64) {
                real = kind == 0   ? static_cast<double>(some(50))
                       : kind == 1 ? static_cast<double>(some(100000)) / 100
                       : kind == 2 ? std::ldexp(static_cast<double>(noise()), some(200) - 100)
                                   : 1.5;
            }
            for (uint32_t& value : r.ui32) {
                value = kind == 2 ? static_cast<uint32_t>(noise()) : static_cast<uint32_t>(some(3));
            }
            for (int64_t& value : r.i64) {
                value = 1780000000 - static_cast<int64_t>(i) * 60;
            }
            for (size_t s = some(2); s > 0; s--) {
                r.strings.push_back("text " + std::to_string(some(5)));
            }
            if (some(4) == 0) {
                r.nested.push_back(record_builder{.ui32 = {1}, .d64 = {0.5}}.bytes());
            }
            records.push_back({1780000000 - static_cast<int64_t>(i) * 60, r.bytes()});
        }
        round_trip(records);
    }
}

TEST(pack_chunk, refuses_what_is_not_as_long_as_it_says) {
    std::string whole = load_record(7, 1), packed;
    for (const std::string& bytes :
         {std::string(), std::string("\1\0\0", 3), std::string(4, '\0'), std::string("\3\0\0\0", 4),
          whole + "x", whole.substr(0, whole.size() - 1)}) {
        EXPECT_FALSE(pack_kept({{1, whole}, {2, bytes}}, packed)) << bytes.size();
    }
}

TEST(pack_chunk, refuses_more_than_the_limits) {
    std::string packed, small = load_record(7, 1);
    EXPECT_FALSE(pack_kept(kept_records(chunk_max_records + 1, {1, small}), packed));
    std::string large =
        record_builder{.ui32 = {67}, .strings = {std::string(8 << 20, 'x')}}.bytes();
    EXPECT_TRUE(pack_kept(kept_records(4, {1, large}), packed));
    EXPECT_FALSE(pack_kept(kept_records(5, {1, large}), packed));
}

TEST(unpack_chunk, ends_when_told_to) {
    kept_records records(100, {1, load_record(7, 1)});
    std::string packed;
    ASSERT_TRUE(pack_kept(records, packed));
    int seen = 0;
    EXPECT_TRUE(unpack_chunk(packed, [&seen](const arrived_record&) { return ++seen < 3; }));
    EXPECT_EQ(seen, 3);
}

/* ---- damage ---- */

/* With the sum that the bytes before it have: as a damage would have to be to get past it. */
static std::string summed(std::string bytes) {
    auto sum = static_cast<uint32_t>(
        crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
    record_builder::append(bytes, sum);
    return bytes;
}

static kept_records some_records() {
    kept_records records;
    for (int i = 0; i < 20; i++) {
        records.push_back({1780000000 + 60 * i,
                           cpu_record(1780000000 + 60 * i, {i / 3.0, 0.1 * i, 7}, i == 9 ? 2 : 0)});
        if (i % 4 == 0) {
            records.push_back({1780000000 + 60 * i, load_record(7, i)});
        }
    }
    return records;
}

static std::vector<bucket> some_buckets() {
    std::vector<bucket> buckets;
    for (uint32_t i = 0; i < 30; i++) {
        double low = i / 7.0;
        buckets.push_back({.start = i * 300,
                           .count = 5,
                           .ok = 300 - i,
                           .problem = i,
                           .values = {{.id = 4, .count = 5, .min = low, .mean = low + 1, .max = 9},
                                      {.id = 1000, .count = 4, .min = 1, .mean = 1, .max = 1}}});
    }
    return buckets;
}

TEST(unpack_chunk, notices_every_damaged_byte_and_every_end) {
    std::string packed;
    ASSERT_TRUE(pack_kept(some_records(), packed));
    kept_records found;
    for (size_t i = 0; i < packed.size(); i++) {
        for (int bit : {1, 16, 128}) {
            std::string damaged = packed;
            damaged[i] = static_cast<char>(damaged[i] ^ bit);
            EXPECT_FALSE(unpack_kept(damaged, found)) << i;
            EXPECT_TRUE(found.empty());
        }
        EXPECT_FALSE(unpack_kept(packed.substr(0, i), found)) << i;
    }
    EXPECT_FALSE(unpack_kept(packed + '\0', found));
    EXPECT_FALSE(unpack_kept(packed + packed, found));
}

TEST(unpack_roll_up, notices_every_damaged_byte_and_every_end) {
    std::string packed;
    pack_roll_up(some_buckets(), packed);
    std::vector<bucket> found;
    for (size_t i = 0; i < packed.size(); i++) {
        std::string damaged = packed;
        damaged[i] = static_cast<char>(damaged[i] ^ 4);
        EXPECT_FALSE(unpack_roll_up(damaged, found)) << i;
        EXPECT_TRUE(found.empty());
        EXPECT_FALSE(unpack_roll_up(std::string_view(packed).substr(0, i), found)) << i;
    }
}

TEST(unpack, knows_a_chunk_from_a_roll_up) {
    std::string chunk, roll_up;
    ASSERT_TRUE(pack_kept(some_records(), chunk));
    pack_roll_up(some_buckets(), roll_up);
    kept_records records;
    std::vector<bucket> buckets;
    EXPECT_FALSE(unpack_kept(roll_up, records));
    EXPECT_FALSE(unpack_roll_up(chunk, buckets));
}

/* Damage with a right sum: no crash, no more memory than the limits say, and whole records alone.
 */
TEST(unpack, bears_whatever_has_a_right_sum) {
    std::string chunk, roll_up;
    ASSERT_TRUE(pack_kept(some_records(), chunk));
    pack_roll_up(some_buckets(), roll_up);
    std::mt19937 noise(5);
    std::vector<bucket> buckets;
    for (int round = 0; round < 20000; round++) {
        bool odd = round % 2;
        std::string damaged = odd ? roll_up : chunk;
        damaged.resize(damaged.size() - 4);
        for (int changes = 1 + static_cast<int>(noise() % 3); changes > 0; changes--) {
            damaged[1 + noise() % (damaged.size() - 1)] = static_cast<char>(noise());
        }
        if (noise() % 8 == 0) {
            damaged.resize(1 + noise() % damaged.size());
        }
        damaged = summed(damaged);
        if (odd) {
            unpack_roll_up(damaged, buckets);
        } else {
            unpack_chunk(damaged, [](const arrived_record& one) {
                EXPECT_GE(one.record.size(), 4u);
                uint32_t size;
                memcpy(&size, one.record.data(), sizeof(size));
                EXPECT_EQ(size, one.record.size());
                return true;
            });
        }
    }
}

/* A piece of the kind that says what is written into it. */
static std::string piece(uint8_t kind, const std::function<void(column_writer&)>& write) {
    column_writer out;
    write(out);
    std::string packed;
    out.seal(kind, packed);
    return packed;
}

static void write_numbers(column_writer& out, std::initializer_list<uint64_t> numbers) {
    for (uint64_t number : numbers) {
        out.number(number);
    }
}

/* The most memory that `run` had at once. */
static size_t memory_of(const std::function<void()>& run) {
    size_t before = most_held = held.load();
    run();
    return most_held - before;
}

TEST(unpack_chunk, refuses_claims_beyond_the_limits) {
    kept_records found;
    auto refused = [&found](const std::function<void(column_writer&)>& write) {
        std::string packed = piece(0x11, write);
        bool unpacked = true;
        EXPECT_LE(memory_of([&] { unpacked = unpack_kept(packed, found); }), size_t{4 << 20});
        return !unpacked && found.empty();
    };
    /* more records, shapes or columns than there may be */
    EXPECT_TRUE(refused([](column_writer& out) { write_numbers(out, {UINT64_MAX, 0}); }));
    EXPECT_TRUE(refused([](column_writer& out) { write_numbers(out, {65537, 0}); }));
    EXPECT_TRUE(refused([](column_writer& out) { write_numbers(out, {8, 2}); }));
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {8, 1, 0, 1u << 31, 0, 0, 0, 0, 0, 0});
    }));
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {8, 1, 0, 1, 0, 0, 0, 0, 0, 1u << 31});
    }));
    /* records in records without end, and very many beside each other */
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {8, 1});
        for (int i = 0; i < 100000; i++) {
            write_numbers(out, {0, 0, 0, 0, 0, 0, 0, 1});
        }
    }));
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {8, 1});
        for (int i = 0; i < 100000; i++) {
            write_numbers(out, {0, 0, 0, 0, 0, 0, 0, 512});
        }
    }));
    /* 65,536 records of 500 constant values: some bytes that would be 270 MB */
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {65536, 1, 0, 0, 500, 0, 0, 0, 0, 0});
        out.whole(std::vector<int64_t>(65536, 1));
        out.whole(std::vector<int64_t>(65536, 1));
        for (int i = 0; i < 500; i++) {
            out.whole(std::vector<int64_t>(65536, 1));
        }
    }));
    /* the same text of 1 MB in each of 65,536 records: the first ones are right, and no more than
     * 40 MB are */
    size_t bytes = 0;
    EXPECT_FALSE(unpack_chunk(piece(0x11,
                                    [](column_writer& out) {
                                        write_numbers(out, {65536, 1, 0, 0, 0, 0, 0, 1, 1, 0});
                                        out.whole(std::vector<int64_t>(65536, 1));
                                        out.whole(std::vector<int64_t>(65536, 1));
                                        out.whole(std::vector<int64_t>(65536, 0));
                                        out.text(std::string(1 << 20, 'x'));
                                        out.text(std::string_view("\0", 1));
                                    }),
                              [&bytes](const arrived_record& one) {
                                  bytes += one.record.size();
                                  return true;
                              }));
    EXPECT_LE(bytes, size_t{chunk_max_bytes});
    /* shapes, texts and records that there are not */
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {8, 0});
        out.whole(std::vector<int64_t>(8, 1));
        out.whole(std::vector<int64_t>(8, 1));
    }));
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {8, 1, 0, 0, 0, 0, 0, 1, 1, 0});
        out.whole(std::vector<int64_t>(8, 1));
        out.whole(std::vector<int64_t>(8, 1));
        out.whole({0, 2, 1, 0, 0, 0, 0, 0});
        out.text(std::string_view("a\0b\0c", 6));
    }));
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {1, 0});
        out.whole({0});
        out.whole({1});
        out.text(std::string_view("\xff\xff\xff\x7f", 4));
    }));
    /* something behind the last one */
    EXPECT_TRUE(refused([](column_writer& out) {
        write_numbers(out, {0, 0});
        out.text("xxxx");
    }));
}

TEST(unpack_roll_up, refuses_claims_beyond_the_limits) {
    std::vector<bucket> found;
    auto refused = [&found](const std::function<void(column_writer&)>& write) {
        return !unpack_roll_up(piece(0x21, write), found) && found.empty();
    };
    auto begin = [](column_writer& out, const std::vector<int64_t>& starts) {
        out.number(starts.size());
        out.whole(starts);
        for (int i = 0; i < 3; i++) {
            out.whole(std::vector<int64_t>(starts.size(), 5));
        }
    };
    EXPECT_FALSE(refused([&](column_writer& out) {
        begin(out, {1, 2});
        write_numbers(out, {0});
    }));
    EXPECT_TRUE(refused([](column_writer& out) { write_numbers(out, {UINT64_MAX}); }));
    EXPECT_TRUE(refused([&](column_writer& out) {
        begin(out, {2, 1});
        write_numbers(out, {0});
    }));
    EXPECT_TRUE(refused([&](column_writer& out) {
        begin(out, {1, 1});
        write_numbers(out, {0});
    }));
    EXPECT_TRUE(refused([&](column_writer& out) {
        begin(out, {-1, 1});
        write_numbers(out, {0});
    }));
    EXPECT_TRUE(refused([&](column_writer& out) {
        begin(out, {1, int64_t{1} << 32});
        write_numbers(out, {0});
    }));
    EXPECT_TRUE(refused([&](column_writer& out) {
        begin(out, {1, 2});
        write_numbers(out, {1u << 30});
    }));
    auto with_value = [&](std::vector<int64_t> lacking, std::vector<int64_t> means) {
        return [&, lacking, means](column_writer& out) {
            begin(out, {1, 2});
            write_numbers(out, {1, 4, 1});
            out.whole(lacking);
            out.number(0);
            out.real({1, 2, 3, 4});
            out.whole(means);
        };
    };
    EXPECT_FALSE(refused(with_value({0, 5}, {0, 65535})));
    EXPECT_TRUE(refused(with_value({0, 6}, {0, 65535})));
    EXPECT_TRUE(refused(with_value({INT64_MIN, 5}, {0, 65535})));
    EXPECT_TRUE(refused(with_value({0, 5}, {0, 65536})));
    EXPECT_TRUE(refused(with_value({0, 5}, {-1, 1})));
}

TEST(column_reader, refuses_text_that_does_not_inflate_as_it_says) {
    auto piece_of = [](std::initializer_list<int> bytes) {
        std::string packed;
        for (int byte : bytes) {
            packed.push_back(static_cast<char>(byte));
        }
        return summed(packed);
    };
    column_reader in;
    std::string plain = piece_of({1, 1, 0, 5});
    EXPECT_TRUE(in.open(plain, 1, 10));
    EXPECT_EQ(in.rest(), "\5");
    EXPECT_FALSE(in.open(piece_of({2, 1, 0, 5}), 1, 10));          /* another kind */
    EXPECT_FALSE(in.open(piece_of({1, 2, 0, 5}), 1, 10));          /* more than there is */
    EXPECT_FALSE(in.open(piece_of({1, 11, 0, 5}), 1, 10));         /* more than there may be */
    EXPECT_FALSE(in.open(piece_of({1, 1, 9, 5}), 1, 10));          /* more that is deflated */
    EXPECT_FALSE(in.open(piece_of({1, 1, 1, 5}), 1, 10));          /* is not */
    EXPECT_FALSE(in.open(piece_of({1, 0xff, 0xff, 0xff}), 1, 10)); /* a number without end */
    EXPECT_FALSE(in.open(piece_of({1}), 1, 10));
    EXPECT_FALSE(in.open("", 1, 10));
}

TEST(column_reader, numbers_of_all_sizes) {
    const uint64_t numbers[] = {0, 1, 127, 128, 16383, 16384, UINT32_MAX, UINT64_MAX};
    std::string packed = piece(1, [&](column_writer& out) {
        for (uint64_t number : numbers) {
            out.number(number);
        }
        out.folded(INT64_MIN);
        out.folded(-1);
        out.folded(INT64_MAX);
    });
    column_reader in;
    ASSERT_TRUE(in.open(packed, 1, 100));
    for (uint64_t number : numbers) {
        uint64_t found = 5;
        EXPECT_TRUE(in.number(found));
        EXPECT_EQ(found, number);
    }
    for (int64_t number : {INT64_MIN, int64_t{-1}, INT64_MAX}) {
        int64_t found = 5;
        EXPECT_TRUE(in.folded(found));
        EXPECT_EQ(found, number);
    }
    EXPECT_TRUE(in.at_end());
    /* Ten bytes of which the last says more than 64 bits. */
    packed =
        piece(1, [](column_writer& out) { out.text("\xff\xff\xff\xff\xff\xff\xff\xff\xff\x02"); });
    ASSERT_TRUE(in.open(packed, 1, 100));
    uint64_t found;
    EXPECT_FALSE(in.number(found));
}

/* ---- roll-ups ---- */

static std::vector<bucket> through(const std::vector<bucket>& buckets, size_t* bytes = nullptr) {
    std::string packed = "what was there";
    pack_roll_up(buckets, packed);
    if (bytes != nullptr) {
        *bytes = packed.size();
    }
    std::vector<bucket> found(3);
    EXPECT_TRUE(unpack_roll_up(packed, found));
    return found;
}

static void expect_as_packed(const std::vector<bucket>& found, const std::vector<bucket>& buckets,
                             double precision) {
    ASSERT_EQ(found.size(), buckets.size());
    for (size_t i = 0; i < found.size(); i++) {
        EXPECT_EQ(found[i].start, buckets[i].start);
        EXPECT_EQ(found[i].count, buckets[i].count);
        EXPECT_EQ(found[i].ok, buckets[i].ok);
        EXPECT_EQ(found[i].problem, buckets[i].problem);
        ASSERT_EQ(found[i].values.size(), buckets[i].values.size());
        for (size_t v = 0; v < found[i].values.size(); v++) {
            const value_summary &have = found[i].values[v], &want = buckets[i].values[v];
            EXPECT_EQ(have.id, want.id);
            EXPECT_EQ(have.count, want.count);
            EXPECT_NEAR(have.min, want.min, std::fabs(want.min) * precision);
            EXPECT_NEAR(have.max, want.max, std::fabs(want.max) * precision);
            double slack = std::max(std::fabs(want.min), std::fabs(want.max)) * precision;
            EXPECT_NEAR(have.mean, want.mean, (want.max - want.min) / 65535 + 2 * slack);
            EXPECT_LE(have.min, have.mean);
            EXPECT_LE(have.mean, have.max);
        }
    }
}

TEST(pack_roll_up, of_nothing_and_of_one_bucket) {
    EXPECT_TRUE(through({}).empty());
    std::vector<bucket> one = {{.start = 85500, .count = 0, .ok = 0, .problem = 0, .values = {}}};
    expect_as_packed(through(one), one, 0);
    one[0].values = {{.id = 4, .count = 1, .min = 1.0 / 3, .mean = 1.0 / 3, .max = 1.0 / 3}};
    one[0].count = UINT32_MAX;
    one[0].ok = UINT32_MAX;
    expect_as_packed(through(one), one, 0);
}

static std::vector<bucket> noisy_day(uint32_t width, const std::function<double()>& value) {
    std::vector<bucket> day;
    for (uint32_t start = 0; start < 86400; start += width) {
        bucket b = {.start = start, .count = width / 60, .ok = width, .problem = 0, .values = {}};
        for (uint32_t id = 4; id < 8; id++) {
            value_summary v = {.id = id, .count = b.count, .min = 1e300, .mean = 0, .max = -1e300};
            for (uint32_t i = 0; i < b.count; i++) {
                double now = value();
                v.min = std::min(v.min, now);
                v.max = std::max(v.max, now);
                v.mean += now / b.count;
            }
            b.values.push_back(v);
        }
        day.push_back(b);
    }
    return day;
}

TEST(pack_roll_up, of_noise_keeps_six_digits_and_is_small) {
    std::mt19937 noise(1);
    std::normal_distribution<double> share(30, 8);
    std::vector<bucket> day = noisy_day(300, [&] { return share(noise); });
    size_t bytes = 0;
    expect_as_packed(through(day, &bytes), day, 5.1e-6);
    EXPECT_LE(bytes, 288u * 30);
    /* What is packed again is the same. */
    std::vector<bucket> once = through(day);
    std::string packed, again;
    pack_roll_up(once, packed);
    pack_roll_up(through(once), again);
    EXPECT_EQ(packed, again);
}

TEST(pack_roll_up, of_steps_keeps_all) {
    std::mt19937 noise(1);
    std::vector<bucket> day =
        noisy_day(300, [&] { return static_cast<double>(noise() % 10000000) / 100; });
    size_t bytes = 0;
    expect_as_packed(through(day, &bytes), day, 0);
    day = noisy_day(300, [&] { return static_cast<double>(noise() % 1000) / 10; });
    expect_as_packed(through(day, &bytes), day, 0);
    EXPECT_LE(bytes, 288u * 24);
}

TEST(pack_roll_up, of_one_result_a_bucket_has_one_number) {
    std::mt19937 noise(1);
    std::uniform_real_distribution<double> share(0, 100);
    std::vector<bucket> day;
    for (uint32_t i = 0; i < 288; i++) {
        double now = share(noise);
        day.push_back({.start = i * 300,
                       .count = 1,
                       .ok = 300,
                       .problem = 0,
                       .values = {{.id = 4, .count = 1, .min = now, .mean = now, .max = now}}});
    }
    size_t bytes = 0;
    std::vector<bucket> found = through(day, &bytes);
    expect_as_packed(found, day, 5.1e-6);
    EXPECT_LE(bytes, 288u * 4);
}

TEST(pack_roll_up, of_values_that_come_and_go) {
    std::vector<bucket> buckets;
    for (uint32_t i = 0; i < 100; i++) {
        bucket b = {.start = i * 7, .count = i % 11, .ok = i, .problem = 300 - i, .values = {}};
        for (uint32_t id : {0u, 3u, 101u, 1000u, UINT32_MAX}) {
            if ((i + id) % 3 == 0 || id == 3) {
                b.values.push_back({.id = id,
                                    .count = i % 13, /* may be more than there were results */
                                    .min = -1e-300 * i,
                                    .mean = 0,
                                    .max = 1e300 / (i + 1)});
            }
        }
        buckets.push_back(b);
    }
    expect_as_packed(through(buckets), buckets, 5.1e-6);
}

TEST(pack_roll_up, a_mean_is_never_outside) {
    using limits = std::numeric_limits<double>;
    struct {
        double min, mean, max;
    } cases[] = {{1, 0, 2},
                 {1, 3, 2},
                 {1, limits::quiet_NaN(), 2},
                 {5, 5, 5},
                 {0.1, 0.1, 0.1},
                 {limits::lowest(), 0, limits::max()},
                 {-limits::infinity(), 0, limits::infinity()},
                 {123456.71, 123456.715, 123456.72},
                 {0x1p64, 0x1p64, 0x1p64},
                 {limits::denorm_min(), limits::denorm_min(), 1e-300}};
    for (size_t others : {0, 40}) { /* alone, and among noise */
        for (auto [min, mean, max] : cases) {
            std::vector<bucket> buckets;
            for (uint32_t i = 0; i <= others; i++) {
                value_summary v = {.id = 4, .count = 1, .min = i / 7.0, .mean = 1, .max = i / 3.0};
                if (i == others) {
                    v = {.id = 4, .count = 1, .min = min, .mean = mean, .max = max};
                }
                buckets.push_back({.start = i, .count = 1, .ok = 0, .problem = 0, .values = {v}});
            }
            std::vector<bucket> found = through(buckets);
            ASSERT_EQ(found.size(), others + 1);
            const value_summary& v = found.back().values.at(0);
            EXPECT_LE(v.min, v.mean) << min << " " << mean << " " << max;
            EXPECT_LE(v.mean, v.max) << min << " " << mean << " " << max;
            EXPECT_TRUE(v.min == min || std::fabs(v.min - min) <= std::fabs(min) * 5.1e-6);
        }
    }
}

TEST(pack_roll_up, leaves_out_the_highest_ids_beyond_the_limit) {
    bucket b = {.start = 0, .count = 1, .ok = 0, .problem = 0, .values = {}};
    for (uint32_t id = 0; id < 1100; id++) {
        b.values.push_back({.id = id, .count = 1, .min = 1, .mean = 1, .max = 1});
    }
    std::vector<bucket> buckets;
    for (uint32_t i = 0; i < 1440; i++) {
        b.start = i * 60;
        buckets.push_back(b);
    }
    std::vector<bucket> found = through(buckets);
    ASSERT_EQ(found.size(), 1440u);
    EXPECT_EQ(found[5].values.size(), roll_up_max_values / 1440);
    EXPECT_EQ(found[5].values.back().id, roll_up_max_values / 1440 - 1);
}

/* ---- what is stored already ---- */

static std::string from_hex(std::string_view text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

/* Pieces lie in databases for years: whoever changes how they are packed reads these all the same,
 * also on another machine. */
TEST(unpack, reads_what_was_packed_before) {
    kept_records records, found;
    for (int i = 0; i < 8; i++) {
        records.push_back(
            {1780000000 + 60 * i,
             cpu_record(1780000000 + 60 * i - 1, {0.1 * i * 5, 100.0 / (i + 1)}, i == 3 ? 2 : 0)});
    }
    records.push_back({1780000900, std::string("\5\0\0\0x", 5)});
    EXPECT_TRUE(unpack_kept(
        from_hex(
            "11e3019d01e364646061646062646460646264800246c686294717f2b2325440c001a83833430490e403"
            "6236b03210c10466fd9b0c54cf0853cf00372800641850e103018e1f2c3c2cf60c0cf570498648875051"
            "86d5ab1956f7a932ac5ac5b0eab12798b29804a6fa54500505382b79596458411a9d034215ca12734a53"
            "8b15128b5215ca334b3232f314129393530b4a1293725215723273334b8ab91840aa2b003ba9672e"),
        found));
    EXPECT_TRUE(found == records);

    std::vector<bucket> buckets =
                            {{.start = 0,
                              .count = 5,
                              .ok = 300,
                              .problem = 0,
                              .values = {{.id = 4, .count = 5, .min = 0.5, .mean = 1, .max = 1.5}}},
                             {.start = 600,
                              .count = 4,
                              .ok = 0,
                              .problem = 240,
                              .values = {{.id = 4, .count = 3, .min = 1, .mean = 1, .max = 1},
                                         {.id = 1000, .count = 1, .min = 7, .mean = 7, .max = 7}}}},
                        unpacked;
    EXPECT_TRUE(unpack_roll_up(
        from_hex(
            "21493763626060656088606062e06064606400f174c034107f60626104331881d25c409a950ba89685a1"
            "81e1053b0354820d483032f031300000650f5007"),
        unpacked));
    expect_as_packed(unpacked, buckets, 0);
}

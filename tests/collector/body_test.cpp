#include "ingest/body.h"

#include "packing.h"

#include <gtest/gtest.h>

/* The plain bytes, or "!" and the reason. */
static std::string unpack(const std::string& wire, uint64_t compression, uint64_t checksum,
                          const body_limits& limits = {}) {
    std::string plain = "left over", error;
    if (unpack_body(wire, compression, checksum, limits, plain, error)) {
        EXPECT_EQ(error, "");
        return plain;
    }
    EXPECT_EQ(plain, "");
    EXPECT_NE(error, "");
    return "!" + error;
}

TEST(body, raw_without_checksum) {
    EXPECT_EQ(unpack("some bytes", 0, 0), "some bytes");
    EXPECT_EQ(unpack("", 0, 0), "");
    EXPECT_EQ(unpack(std::string("\0\1", 2), 0, 0), std::string("\0\1", 2));
}

TEST(body, the_checksum_is_that_of_the_bytes_as_sent) {
    EXPECT_EQ(sum_of("Wikipedia"), 0x11e60398u);
    EXPECT_EQ(unpack("Wikipedia", 0, 0x11e60398), "Wikipedia");
    EXPECT_EQ(unpack("Wikipedia", 0, 0x11e60399), "!the checksum is wrong");
    EXPECT_EQ(unpack("Wikipedia", 0, 0x111e60398), "!the checksum is wrong");
    std::string plain(1000, 'x'), wire = pack(plain);
    EXPECT_EQ(unpack(wire, plain.size(), sum_of(wire)), plain);
    EXPECT_EQ(unpack(wire, plain.size(), sum_of(plain)), "!the checksum is wrong");
}

TEST(body, decompresses_what_was_announced) {
    for (size_t size : {1u, 2u, 65535u, 65536u, 65537u, 1000000u}) {
        std::string plain;
        for (size_t i = 0; i < size; i++) {
            plain += static_cast<char>(i * i >> 7);
        }
        std::string wire = pack(plain);
        EXPECT_EQ(unpack(wire, size, 0), plain);
        EXPECT_EQ(unpack(wire, size + 1, 0),
                  "!the body does not have the announced size when decompressed");
        if (size > 1) {
            EXPECT_EQ(unpack(wire, size - 1, 0),
                      "!the body does not have the announced size when decompressed");
        }
        EXPECT_EQ(unpack(wire + "x", size, 0), "!there are bytes behind the compressed body");
    }
}

TEST(body, what_is_not_compressed_well_is_refused) {
    std::string plain(1000, 'x'), wire = pack(plain);
    for (size_t length = 0; length < wire.size(); length++) {
        EXPECT_EQ(unpack(wire.substr(0, length), plain.size(), 0)[0], '!');
    }
    EXPECT_EQ(unpack("these are plain bytes", 21, 0), "!the body is not what zlib compresses");
    std::string damaged = wire;
    damaged.back() ^= 1; /* zlib's own checksum of the content */
    EXPECT_EQ(unpack(damaged, plain.size(), 0)[0], '!');
}

TEST(body, limits_hold_before_and_after_decompression) {
    body_limits limits{.max_wire = 100, .max_plain = 1000};
    EXPECT_EQ(unpack(std::string(100, 'x'), 0, 0, limits), std::string(100, 'x'));
    EXPECT_EQ(unpack(std::string(101, 'x'), 0, 0, limits), "!the body is larger than the limit");
    std::string plain(1000, 'x');
    EXPECT_EQ(unpack(pack(plain), 1000, 0, limits), plain);
    const char* too_large = "!the decompressed body would be larger than the limit";
    EXPECT_EQ(unpack(pack(plain), 1001, 0, limits), too_large);
    EXPECT_EQ(unpack(pack(plain), ~uint64_t{0}, 0, limits), too_large);
    limits.max_plain = 50;
    EXPECT_EQ(unpack(std::string(51, 'x'), 0, 0, limits), too_large);
    EXPECT_EQ(unpack("x", ~uint64_t{0}, 0, {.max_wire = ~size_t{0}, .max_plain = ~size_t{0}}),
              too_large);
}

/* A small body that would unpack to much more than it announces. */
TEST(body, more_than_announced_is_not_unpacked) {
    std::string wire = pack(std::string(8u << 20, '\0'));
    EXPECT_EQ(unpack(wire, 10, 0), "!the body does not have the announced size when decompressed");
}

TEST(body, memory_follows_what_really_comes_out) {
    std::string plain = "left over", error;
    EXPECT_FALSE(unpack_body("x\x9c", 200u << 20, 0, {}, plain, error));
    EXPECT_LT(plain.capacity(), 100u);
}

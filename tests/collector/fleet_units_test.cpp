/* Quantities as people write them, and which word is likely to be meant. */
#include "fleet/units.h"

#include <gtest/gtest.h>
#include <vector>

static std::string expected; /* by the last reader */

TEST(fleet_units, sizes_have_a_unit) {
    EXPECT_EQ(read_bytes("5 GB", expected), 5.0 * 1073741824);
    EXPECT_EQ(read_bytes("500MB", expected), 500.0 * 1048576);
    EXPECT_EQ(read_bytes("1.5 GiB", expected), 1.5 * 1073741824);
    EXPECT_EQ(read_bytes("0.5tb", expected), 549755813888.0);
    EXPECT_EQ(read_bytes("1 kB", expected), 1024.0);
    EXPECT_EQ(read_bytes("100 B", expected), 100.0);
    EXPECT_EQ(read_bytes("100 bytes", expected), 100.0);
    for (const char* text : {"",         "5",
                             "GB",       "5 XB",
                             "5 GBs",    "5 GB ",
                             " 5 GB",    "-5 GB",
                             "+5 GB",    "5e3 GB",
                             "1,5 GB",   "1 000 MB",
                             ".5 GB",    "5. GB",
                             "5.5.5 GB", "5 GB/s",
                             "inf GB",   "nan MB",
                             "0x5 MB",   "5 M",
                             "5 Mbit",   "1234567890123456 B",
                             "5 G B"}) {
        EXPECT_FALSE(read_bytes(text, expected)) << text;
        EXPECT_EQ(expected, "a size with its unit, such as 500 MB or 5 GB");
    }
}

TEST(fleet_units, rates_are_of_bytes_or_bits) {
    EXPECT_EQ(read_byte_rate("10 MB", expected), 10485760.0);
    EXPECT_EQ(read_byte_rate("10 MB/s", expected), 10485760.0);
    EXPECT_EQ(read_byte_rate("100 Mbit", expected), 12500000.0);
    EXPECT_EQ(read_byte_rate("100Mbit/s", expected), 12500000.0);
    EXPECT_EQ(read_byte_rate("1 gbit", expected), 125000000.0);
    EXPECT_EQ(read_byte_rate("8 bit", expected), 1.0);
    for (const char* text : {"", "10", "/s", "10 MB/m", "10 Mb its", "10 MB/s/s", "10 %"}) {
        EXPECT_FALSE(read_byte_rate(text, expected)) << text;
    }
}

TEST(fleet_units, shares) {
    EXPECT_EQ(read_percent("80 %", expected), 80.0);
    EXPECT_EQ(read_percent("80%", expected), 80.0);
    EXPECT_EQ(read_percent("80", expected), 80.0);
    EXPECT_EQ(read_percent("12.5  %", expected), 12.5);
    for (const char* text : {"", "%", " %", "80 %%", "80 % ", "-1 %", "80 percent", "8 0 %"}) {
        EXPECT_FALSE(read_percent(text, expected)) << text;
    }
}

TEST(fleet_units, times_are_in_seconds_unless_they_say) {
    const struct {
        const char* text;
        int64_t milliseconds;
    } good[] = {{"5s", 5000},          {"5", 5000},
                {"0.5", 500},          {"250ms", 250},
                {"3m", 180'000},       {"1h30m", 5'400'000},
                {"1h 30m", 5'400'000}, {"2 hours", 7'200'000},
                {"1d", 86'400'000},    {"31 days", 2'678'400'000},
                {"1.1s", 1100},        {"1m30s", 90'000},
                {"90 sec", 90'000},    {"0s", 0},
                {"1S", 1000},          {"1 minute 5 seconds", 65'000}};
    for (const auto& each : good) {
        EXPECT_EQ(read_milliseconds(each.text, expected), each.milliseconds) << each.text;
    }
    for (const char* text : {"", "s", "5x", "30m1h", "5s5s", "1m 5", "5 5", "-5s", "0.5ms", "1w",
                             "soon", "1h,5m", "999999999999999d", "5s "}) {
        EXPECT_EQ(read_milliseconds(text, expected).has_value(), std::string(text) == "5s ")
            << text;
    }
}

TEST(fleet_units, numbers) {
    EXPECT_EQ(read_whole("0", expected), 0);
    EXPECT_EQ(read_whole("007", expected), 7);
    EXPECT_EQ(read_whole("999999999999999", expected), 999999999999999);
    for (const char* text : {"", "1.0", "-1", "+1", " 1", "1 ", "1e3", "0x1", "1000000000000000"}) {
        EXPECT_FALSE(read_whole(text, expected)) << text;
    }
    EXPECT_EQ(read_real("1.5", expected), 1.5);
    EXPECT_EQ(read_real("10", expected), 10.0);
    for (const char* text : {"", ".", "1.", ".5", "1e5", "inf", "nan", "-1", "1 ", "1,5"}) {
        EXPECT_FALSE(read_real(text, expected)) << text;
    }
}

TEST(fleet_units, durations_are_written_as_they_are_read) {
    for (const char* text :
         {"0s", "250ms", "1s", "1s500ms", "1m", "1m30s", "1h30m", "1d", "31d", "1d1h1m1s1ms"}) {
        EXPECT_EQ(duration_text(read_milliseconds(text, expected).value_or(-1)), text);
    }
}

TEST(fleet_units, what_is_close) {
    const std::vector<std::string_view> known = {"http", "ping", "process", "authentication", "1m"};
    EXPECT_EQ(closest("htttp", known), "http");
    EXPECT_EQ(closest("HTTP", known), "http");
    EXPECT_EQ(closest("pnig", known), "ping");
    EXPECT_EQ(closest("proces", known), "process");
    EXPECT_EQ(closest("auth", known), "authentication");
    EXPECT_EQ(closest("1 m", known), "1m");
    for (const char* word : {"", "x", "dns", "h", "disk", "authorization token"}) {
        EXPECT_EQ(closest(word, known), "") << word;
    }
    EXPECT_EQ(closest(std::string(1000, 'h'), known), "");
    EXPECT_EQ(distance_of("", "abc"), 3u);
    EXPECT_EQ(distance_of("ab", "ba"), 1u);
    EXPECT_EQ(distance_of("kitten", "sitting"), 3u);
    EXPECT_EQ(distance_of(std::string(64, 'a'), std::string(64, 'b')), 64u);
}

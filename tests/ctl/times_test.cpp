#include "ctl/times.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

namespace {

constexpr int64_t noon = 1777636800; /* 2026-05-01T12:00:00Z */

struct times_test : testing::Test {
    void SetUp() override { zone("UTC"); }
    void TearDown() override { zone("UTC"); }
    static void zone(const char* name) {
        setenv("TZ", name, 1);
        tzset();
    }
};

/* An hour ahead of UTC, two from the end of March to the end of October. */
const char central[] = "CET-1CEST,M3.5.0,M10.5.0/3";

} // namespace

TEST_F(times_test, exact_times_are_read_with_any_offset) {
    EXPECT_EQ(read_rfc3339("2026-05-01T12:00:00Z"), noon);
    EXPECT_EQ(read_rfc3339("2026-05-01t12:00:00.987z"), noon);
    EXPECT_EQ(read_rfc3339("2026-05-01T14:30:00+02:30"), noon);
    EXPECT_EQ(read_rfc3339("2026-05-01T07:00:00-05:00"), noon);
    EXPECT_EQ(read_rfc3339("1970-01-01T00:00:00Z"), 0);
    EXPECT_EQ(read_rfc3339("2024-02-29T00:00:00Z"), 1709164800);
    EXPECT_EQ(rfc3339(noon), "2026-05-01T12:00:00Z");
}

TEST_F(times_test, what_is_no_exact_time_is_refused) {
    for (const char* text :
         {"", "2026-05-01", "2026-05-01T12:00:00", "2026-05-01T12:00Z", "2026-13-01T12:00:00Z",
          "2026-02-29T12:00:00Z", "2026-05-00T12:00:00Z", "2026-05-01T24:00:00Z",
          "2026-05-01T12:60:00Z", "2026-05-01T12:00:00ZZ", "2026-05-01T12:00:00.Z",
          "2026-05-01T12:00:00+24:00", "2026-05-01T12:00:00+2:00", "+026-05-01T12:00:00Z",
          "1969-12-31T23:59:59Z", "99999-05-01T12:00:00Z"}) {
        EXPECT_EQ(read_rfc3339(text), std::nullopt) << text;
    }
}

TEST_F(times_test, spans_count_from_now) {
    EXPECT_EQ(read_time("now", noon), noon);
    EXPECT_EQ(read_time("-2h", noon), noon - 7200);
    EXPECT_EQ(read_time("-90s", noon), noon - 90);
    EXPECT_EQ(read_time("-1h30m", noon), noon - 5400);
    EXPECT_EQ(read_time("-1w2d", noon), noon - 9 * 86400);
    EXPECT_EQ(read_time("+30d", noon), noon + 30 * 86400);
    for (const char* text : {"-", "-2", "-h", "-2x", "-2h ", "2h", "--2h", "-1000000000000000000s",
                             "-99999999999w", "-100000d"}) {
        EXPECT_EQ(read_time(text, noon), std::nullopt) << text;
    }
}

TEST_F(times_test, days_and_clocks_are_local) {
    zone(central);
    EXPECT_EQ(read_time("today", noon), noon - 14 * 3600);
    EXPECT_EQ(read_time("yesterday", noon), noon - 38 * 3600);
    EXPECT_EQ(read_time("14:00", noon), noon);
    EXPECT_EQ(read_time("14:00:09", noon), noon + 9);
    EXPECT_EQ(read_time("2026-05-01", noon), noon - 14 * 3600);
    EXPECT_EQ(read_time("2026-05-01 14:00", noon), noon);
    EXPECT_EQ(read_time("2026-05-01T14:00:00", noon), noon);
    EXPECT_EQ(read_time("2026-05-01T12:00:00Z", noon), noon);
    EXPECT_EQ(local_time(noon), "2026-05-01 14:00:00");
    for (const char* text : {"", "tomorrow", "25:00", "12:60", "1:00", "2026-02-30", "2026-5-1",
                             "2026-05-01 ", "2026-05-01 14", "2026-05-01 14:00 ", "01.05.2026"}) {
        EXPECT_EQ(read_time(text, noon), std::nullopt) << text;
    }
}

TEST_F(times_test, yesterday_of_a_day_with_23_hours) {
    zone(central);
    const int64_t monday = *read_rfc3339("2026-03-30T10:00:00Z");
    EXPECT_EQ(read_time("yesterday", monday), read_rfc3339("2026-03-28T23:00:00Z"));
    EXPECT_EQ(read_time("today", monday), read_rfc3339("2026-03-29T22:00:00Z"));
}

TEST_F(times_test, spans_are_short) {
    EXPECT_EQ(span_text(-5), "0s");
    EXPECT_EQ(span_text(59), "59s");
    EXPECT_EQ(span_text(3599), "59m");
    EXPECT_EQ(span_text(3600 * 4 + 300), "4h05m");
    EXPECT_EQ(span_text(86400 * 5 + 3 * 3600), "5d03h");
    EXPECT_EQ(span_text(86400 * 120), "120d");
}

static std::string labels(int64_t from, int64_t to, size_t most) {
    std::string all;
    for (const time_tick& tick : time_ticks(from, to, most)) {
        EXPECT_GE(tick.time, from);
        EXPECT_LT(tick.time, to);
        all += (all.empty() ? "" : ", ") + tick.label;
    }
    return all;
}

TEST_F(times_test, ticks_are_round) {
    EXPECT_EQ(labels(noon - 86400, noon, 6), "12:00, 18:00, 1 May, 06:00");
    EXPECT_EQ(labels(noon, noon + 3600, 6), "12:00, 12:10, 12:20, 12:30, 12:40, 12:50");
    EXPECT_EQ(labels(noon + 1, noon + 61, 4), "12:00:15, 12:00:30, 12:00:45, 12:01:00");
    EXPECT_EQ(labels(noon - 3 * 86400, noon, 4), "29 Apr, 30 Apr, 1 May");
    EXPECT_EQ(labels(noon, noon, 4), "");
    EXPECT_EQ(labels(noon, noon + 10, 0), "");
}

TEST_F(times_test, there_are_never_more_ticks_than_asked_for) {
    for (const char* name : {"UTC", central}) {
        zone(name);
        for (int64_t span = 1; span < int64_t{40} * 365 * 86400; span = span * 3 / 2 + 1) {
            for (size_t most : {1, 2, 5, 9}) {
                EXPECT_LE(time_ticks(noon - span, noon, most).size(), most) << span;
            }
            EXPECT_GE(time_ticks(noon - span, noon, 9).size(), 1u) << span;
        }
    }
}

TEST_F(times_test, ticks_follow_the_local_clock_through_a_change) {
    zone(central);
    const int64_t midnight = *read_rfc3339("2026-03-28T23:00:00Z");
    EXPECT_EQ(labels(midnight, midnight + 23 * 3600, 8),
              "29 Mar, 03:00, 06:00, 09:00, 12:00, 15:00, "
              "18:00, 21:00");
}

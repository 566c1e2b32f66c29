#include "store/sqlite/latest.cpp"

#include <gtest/gtest.h>
#include <limits>

static record_summary of(uint32_t type, std::optional<int32_t> test, std::optional<int64_t> time,
                         std::optional<int32_t> status) {
    record_summary summary;
    summary.type = type;
    summary.test = test;
    summary.time = time;
    summary.status = status;
    return summary;
}

static std::string text(latest_results&& latest) {
    std::string all;
    auto optional = [](auto value) { return value ? std::to_string(*value) : "-"; };
    for (const latest_entry& e : latest.entries()) {
        all += std::to_string(e.type) + "/" + optional(e.test) + " " + std::to_string(e.received) +
               " " + std::to_string(e.row) + " " + optional(e.time) + " " + optional(e.status) +
               "; ";
    }
    return all;
}

TEST(latest, what_is_packed_comes_back) {
    latest_results latest;
    int64_t least = std::numeric_limits<int64_t>::min(), most = std::numeric_limits<int64_t>::max();
    latest.put(of(66, 5, 111, 2), 1000, 7);
    latest.put(of(66, -1, least, -1), most, most);
    latest.put(of(66, std::numeric_limits<int32_t>::min(), most, 0), 0, 1);
    latest.put(of(42, {}, 5, {}), -5, 2);
    latest.put(of(0xffffffff, {}, {}, {}), least, 3);
    std::string expected = "42/- -5 2 5 -; 66/-2147483648 0 1 9223372036854775807 0; "
                           "66/-1 9223372036854775807 9223372036854775807 -9223372036854775808 -1; "
                           "66/5 1000 7 111 2; 4294967295/- -9223372036854775808 3 - -; ";
    std::string packed = latest.packed();
    EXPECT_EQ(text(std::move(latest)), expected);
    EXPECT_EQ(text(latest_results(packed)), expected);
    EXPECT_EQ(latest_results(packed).packed(), packed);
}

TEST(latest, the_last_of_a_test_holds) {
    latest_results latest;
    latest.put(of(66, 5, 1, 0), 1000, 1);
    latest.put(of(66, 6, 2, 0), 1000, 2);
    latest = latest_results(latest.packed());
    latest.put(of(66, 5, 3, 0), 900, 3); /* arrived later by a clock that went back */
    latest.put(of(66, 5, 4, 2), 900, 4);
    latest.put(of(44, 5, 5, 0), 900, 5);
    EXPECT_EQ(text(std::move(latest)), "44/5 900 5 5 0; 66/5 900 4 4 2; 66/6 1000 2 2 0; ");
}

static size_t count(const std::string& packed) {
    latest_results latest(packed);
    return latest.entries().size();
}

TEST(latest, what_is_damaged_is_left_out) {
    latest_results latest;
    for (int i = 0; i < 50; i++) {
        latest.put(of(66, i, i, 0), 1777636800 + i, 1000 + i);
    }
    std::string packed = latest.packed();
    for (size_t cut = 0; cut < packed.size(); cut++) {
        EXPECT_LE(count(packed.substr(0, cut)), 50u);
    }
    for (size_t at = 0; at < packed.size(); at++) {
        std::string other = packed;
        for (char byte : {'\0', '\x7f', '\x80', '\xff'}) {
            other[at] = byte;
            latest_results read(other);
            read.put(of(66, 3, 1, 0), 1, 1);
            const std::vector<latest_entry>& entries = read.entries();
            for (size_t i = 1; i < entries.size(); i++) {
                ASSERT_LT(entries[i - 1].key(), entries[i].key());
            }
        }
    }
    EXPECT_EQ(count(std::string(100000, '\xff')), 0u);
}

TEST(latest, tests_that_are_invented_do_not_make_it_grow_for_ever) {
    latest_results latest;
    int row = 0;
    for (int i = 0; i < 5 * latest_max; i++) {
        latest.put(of(66, i, i, 0), i, ++row);
        if (i % 1000 == 0) {
            latest.put(of(44, 1, i, 0), i, ++row); /* a real one, heard of again and again */
        }
    }
    std::vector<latest_entry> left = latest.entries();
    ASSERT_EQ(left.size(), size_t{latest_max});
    EXPECT_EQ(left.front().type, 44u);
    EXPECT_EQ(left[1].test, 4 * latest_max + 1);
    EXPECT_EQ(left.back().test, 5 * latest_max - 1);
}

TEST(latest, what_is_gone_is_forgotten) {
    latest_results latest;
    latest.put(of(66, 5, 1, 0), 1000, 1);
    latest.put(of(66, 6, 2, 0), 2000, 2);
    auto kept = [](int64_t received) { return received > 1000; };
    EXPECT_TRUE(latest.forget_unless(kept));
    EXPECT_FALSE(latest.forget_unless(kept));
    EXPECT_EQ(text(std::move(latest)), "66/6 2000 2 2 0; ");
}

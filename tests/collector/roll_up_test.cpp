#include "state/roll_up.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <random>
#include <sstream>

static const int64_t day_s = 86400, today = 20000, midnight = today * day_s;

static result make(int64_t time, state judged, std::vector<result_value> values = {}) {
    result r;
    r.type = 66;
    r.time = r.claimed = r.received = time;
    r.judged = judged;
    r.location = 7;
    r.values = std::move(values);
    return r;
}

/* "300: 2 ok 60 problem 0 [4: 2 1 1.5 2]" */
static std::string text_of(const std::vector<bucket>& buckets) {
    std::ostringstream text;
    for (const bucket& b : buckets) {
        text << (text.str().empty() ? "" : "; ") << b.start << ": " << b.count << " ok " << b.ok
             << " problem " << b.problem;
        for (const value_summary& v : b.values) {
            text << " [" << v.id << ": " << v.count << " " << v.min << " " << v.mean << " " << v.max
                 << "]";
        }
    }
    return text.str();
}

TEST(roll_up, values_and_states) {
    std::vector<result> results = {
        make(midnight + 10, state::ok, {{4, 1}, {5, 10}}),
        make(midnight + 70, state::problem, {{4, 3}}), make(midnight + 290, state::ok, {{4, 2}}),
        make(midnight + 350, state::unknown, {{4, 7}}), make(midnight + 410, state::ok)};
    EXPECT_EQ(text_of(roll_up(results, today, 300, 180)),
              "0: 3 ok 70 problem 180 [4: 3 1 2 3] [5: 1 10 10 10]; "
              "300: 2 ok 230 problem 0 [4: 1 7 7 7]");
    EXPECT_EQ(text_of(roll_up(results, today, 3600, 180)),
              "0: 5 ok 300 problem 180 [4: 4 1 3.25 7] [5: 1 10 10 10]");
    EXPECT_EQ(text_of(roll_up(results, today, 300, 0)),
              "0: 3 ok 0 problem 0 [4: 3 1 2 3] [5: 1 10 10 10]; "
              "300: 2 ok 0 problem 0 [4: 1 7 7 7]");
    EXPECT_TRUE(roll_up(std::vector<result>(), today, 300, 180).empty());
}

TEST(roll_up, a_state_reaches_over_midnight) {
    std::vector<result> results = {make(midnight - 100, state::ok),
                                   make(midnight + day_s - 50, state::problem),
                                   make(midnight + day_s + 20, state::ok)};
    EXPECT_EQ(text_of(roll_up(results, today - 1, 300, 180)), "86100: 1 ok 100 problem 0");
    EXPECT_EQ(text_of(roll_up(results, today, 300, 180)),
              "0: 0 ok 80 problem 0; 86100: 1 ok 0 problem 50");
    EXPECT_EQ(text_of(roll_up(results, today + 1, 300, 180)), "0: 1 ok 180 problem 20");
    EXPECT_EQ(text_of(roll_up(results, today + 2, 300, 180)), "");
}

TEST(roll_up, a_state_may_hold_for_days) {
    std::vector<result> results = {make(midnight - 10 * day_s, state::problem)};
    std::vector<bucket> day = roll_up(results, today, 3600, 20 * day_s);
    ASSERT_EQ(day.size(), 24u);
    EXPECT_EQ(day[23].problem, 3600u);
    EXPECT_EQ(day[23].count, 0u);
}

TEST(roll_up, what_is_no_number_is_left_out) {
    double nan = std::numeric_limits<double>::quiet_NaN();
    double most = std::numeric_limits<double>::max();
    std::vector<result> results = {
        make(midnight, state::ok, {{4, nan}, {5, most}}),
        make(midnight + 1, state::ok, {{4, std::numeric_limits<double>::infinity()}, {5, most}}),
        make(midnight + 2, state::ok, {{4, 1}, {5, -most}})};
    std::vector<bucket> day = roll_up(results, today, 300, 1);
    ASSERT_EQ(day.size(), 1u);
    ASSERT_EQ(day[0].values.size(), 2u);
    EXPECT_EQ(day[0].values[0].count, 1u);
    EXPECT_EQ(day[0].values[1].min, -most);
    EXPECT_EQ(day[0].values[1].max, most);
    EXPECT_NEAR(day[0].values[1].mean / most, 1.0 / 3, 1e-9);
}

TEST(roll_up, times_at_the_ends) {
    int64_t least = std::numeric_limits<int64_t>::min(), most = std::numeric_limits<int64_t>::max();
    std::vector<result> results = {make(least, state::ok), make(most, state::ok)};
    auto day_of = [](int64_t time) { return time / day_s - (time % day_s < 0); };
    EXPECT_EQ(roll_up(results, day_of(least), 3600, 180).front().count, 1u);
    EXPECT_TRUE(roll_up(results, 0, 3600, 180).empty());
    /* The very last second is the end of the last day. */
    EXPECT_LE(roll_up(results, day_of(most), 3600, most).size(), 24u);
}

static std::string times_of(std::vector<result> results) {
    order_by_time(results);
    std::string text;
    for (const result& r : results) {
        text += std::to_string(r.time) + "/" + std::to_string(r.claimed) + r.message + " ";
    }
    return text;
}

static result named(int64_t time, int64_t claimed, const std::string& name, uint32_t type = 66,
                    int32_t location = 7) {
    result r = make(time, state::ok);
    r.claimed = claimed;
    r.message = name;
    r.type = type;
    r.location = location;
    return r;
}

TEST(order_by_time, what_came_last_of_a_pass_holds) {
    EXPECT_EQ(times_of({}), "");
    EXPECT_EQ(times_of({named(2, 2, "a"), named(1, 1, "b"), named(3, 3, "c"), named(1, 1, "d"),
                        named(2, 2, "e"), named(2, 2, "f")}),
              "1/1d 2/2f 3/3c ");
}

TEST(order_by_time, results_of_one_time_stay_in_their_order) {
    EXPECT_EQ(times_of({named(9, 30, "a"), named(9, 20, "b"), named(9, 9, "c"), named(9, 30, "d"),
                        named(8, 8, "e"), named(9, 20, "f", 66, 8)}),
              "8/8e 9/20b 9/9c 9/30d 9/20f ");
    EXPECT_EQ(times_of({named(9, 0, "a", 74), named(9, 0, "b", 74)}), "9/0a 9/0b ")
        << "the time of MySQL's tells nothing";
    EXPECT_EQ(times_of({named(9, 9, "a", 99), named(9, 9, "b", 99)}), "9/9a 9/9b ");
}

TEST(order_by_time, many_of_one_time) {
    std::vector<result> results;
    for (int i = 0; i < 200000; i++) {
        results.push_back(named(9, 100 + i % 100000, ""));
    }
    order_by_time(results);
    EXPECT_EQ(results.size(), 100000u);
}

TEST(widen, five_minutes_to_hours) {
    std::vector<bucket> narrow = {{0, 1, 300, 0, {{4, 1, 1, 1, 1}}},
                                  {300, 3, 100, 200, {{4, 3, 2, 3, 4}, {5, 1, 9, 9, 9}}},
                                  {7200, 0, 0, 10, {}}};
    EXPECT_EQ(text_of(widen(narrow, 3600)),
              "0: 4 ok 400 problem 200 [4: 4 1 2.5 4] [5: 1 9 9 9]; 7200: 0 ok 0 problem 10");
    EXPECT_EQ(text_of(widen(narrow, 300)), text_of(narrow));
    EXPECT_TRUE(widen({}, 3600).empty());
}

TEST(add_to, late_results) {
    std::vector<bucket> day = {{300, 3, 100, 150, {{4, 3, 2, 3, 4}}}, {900, 1, 300, 0, {}}};
    add_to(day,
           {{0, 1, 60, 0, {{4, 1, 1, 1, 1}}},
            {300, 1, 30, 40, {{4, 1, 7, 7, 7}, {5, 1, 9, 9, 9}}},
            {900, 2, 300, 0, {}}},
           300);
    EXPECT_EQ(text_of(day), "0: 1 ok 60 problem 0 [4: 1 1 1 1]; "
                            "300: 4 ok 110 problem 190 [4: 4 2 4 7] [5: 1 9 9 9]; "
                            "900: 3 ok 300 problem 0");
    std::vector<bucket> empty;
    add_to(empty, day, 300);
    EXPECT_EQ(text_of(empty), text_of(day));
}

/* ---- against a second way that is slow and plain: every second of the day is looked at ---- */

struct plain_bucket {
    uint32_t count = 0, ok = 0, problem = 0;
    std::map<uint32_t, std::vector<double>> values;
};

static std::map<uint32_t, plain_bucket> plain_roll_up(const std::vector<result>& results,
                                                      int64_t day, uint32_t width,
                                                      int64_t stale_after) {
    std::map<uint32_t, plain_bucket> buckets;
    auto bucket_of = [&](int64_t time) -> plain_bucket& {
        return buckets[static_cast<uint32_t>((time - day * day_s) / width * width)];
    };
    for (const result& r : results) {
        if (r.time >= day * day_s && r.time < (day + 1) * day_s) {
            plain_bucket& b = bucket_of(r.time);
            b.count++;
            for (const result_value& v : r.values) {
                b.values[v.id].push_back(v.value);
            }
        }
    }
    size_t next = 0; /* the first that is later than this second */
    for (int64_t second = day * day_s; second < (day + 1) * day_s; second++) {
        while (next < results.size() && results[next].time <= second) {
            next++;
        }
        if (next == 0 || second - results[next - 1].time >= stale_after) {
            continue;
        }
        state holds = results[next - 1].judged;
        if (holds == state::ok) {
            bucket_of(second).ok++;
        } else if (holds == state::problem) {
            bucket_of(second).problem++;
        }
    }
    return buckets;
}

static void expect_same(const std::vector<bucket>& fast,
                        const std::map<uint32_t, plain_bucket>& plain) {
    ASSERT_EQ(fast.size(), plain.size());
    auto next = plain.begin();
    for (const bucket& b : fast) {
        const auto& [start, other] = *next++;
        ASSERT_EQ(b.start, start);
        ASSERT_EQ(b.count, other.count);
        ASSERT_EQ(b.ok, other.ok) << start;
        ASSERT_EQ(b.problem, other.problem) << start;
        ASSERT_EQ(b.values.size(), other.values.size());
        auto value = other.values.begin();
        for (const value_summary& v : b.values) {
            const auto& [id, all] = *value++;
            double sum = 0;
            for (double one : all) {
                sum += one;
            }
            ASSERT_EQ(v.id, id);
            ASSERT_EQ(v.count, all.size());
            ASSERT_EQ(v.min, *std::min_element(all.begin(), all.end()));
            ASSERT_EQ(v.max, *std::max_element(all.begin(), all.end()));
            ASSERT_NEAR(v.mean, sum / static_cast<double>(all.size()),
                        1e-9 * std::max(std::fabs(v.min), std::fabs(v.max)));
        }
    }
}

TEST(roll_up, is_what_a_plain_way_finds) {
    std::mt19937_64 random(20260501);
    auto below = [&](uint64_t n) { return static_cast<int64_t>(random() % n); };
    for (int round = 0; round < 150; round++) {
        const int64_t step = 1 + below(round % 3 == 0 ? 20000 : 600);
        const int64_t stale_after = below(4) == 0 ? below(200000) : below(4 * 600);
        std::vector<result> results;
        int64_t time = midnight - below(2 * day_s);
        while (time < midnight + day_s + below(day_s)) {
            result r = make(time, static_cast<state>(below(3)));
            for (uint32_t id = 0; id < 5; id++) {
                if (below(4) != 0) {
                    r.values.push_back({id, static_cast<double>(below(2000)) / 8 - 100});
                }
            }
            results.push_back(r);
            time += below(static_cast<uint64_t>(2 * step));
        }
        /* In any order, some of them twice. */
        std::vector<result> arrived = results;
        for (int64_t i = below(10); i > 0; i--) {
            arrived.push_back(results[static_cast<size_t>(below(results.size()))]);
        }
        std::shuffle(arrived.begin(), arrived.end(), random);
        order_by_time(arrived);
        /* The plain way has each pass once: by time and what it is, the last that came. */
        std::vector<result> plain = arrived;
        for (size_t i = 1; i < plain.size(); i++) {
            ASSERT_LT(plain[i - 1].time, plain[i].time);
        }
        const int64_t day = today + below(3) - 1;
        std::vector<bucket> narrow = roll_up(arrived, day, 300, stale_after);
        expect_same(narrow, plain_roll_up(plain, day, 300, stale_after));
        expect_same(roll_up(arrived, day, 3600, stale_after),
                    plain_roll_up(plain, day, 3600, stale_after));
        expect_same(widen(narrow, 3600), plain_roll_up(plain, day, 3600, stale_after));
    }
}

#include "state/history.h"

#include "collector_test_support.h"

#include <cmath>
#include <gtest/gtest.h>

#include "fake_store.h"

#include <random>
#include <sstream>

static const int64_t day_s = 86400, today = 20000, midnight = today * day_s;
static const int64_t load = 1, processes = 2, mysql = 3; /* tests */

static std::string load_of(int64_t time, double load1, uint32_t status = 0) {
    return record_builder{.ui32 = {type_load_average, 5, 7, status},
                          .i64 = {time},
                          .d64 = {load1, 2 * load1, 0},
                          .strings = {"m" + std::to_string(time)}}
        .bytes();
}

static std::string process_of(int64_t time, uint32_t pid, double cpu) {
    return record_builder{.ui32 = {type_process, 6, 7, pid, 0}, .i64 = {time}, .d64 = {cpu, 1, 2}}
        .bytes();
}

static std::string mysql_of(int64_t time, int value) {
    return record_builder{.ui32 = {type_mysql, 5, 7, 0, 12},
                          .i64 = {time / 128 * 128},
                          .strings = {"Uptime|" + std::to_string(value) + "|0;"}}
        .bytes();
}

class stored : public fake_store {
public:
    stored() {
        add_test(load, type_load_average, 5);
        add_test(processes, type_process, 6);
        add_test(mysql, type_mysql, 5);
    }

    std::vector<result> results(int64_t test, int64_t from, int64_t to, size_t most = 100000,
                                bool* more = nullptr) {
        std::vector<result> found;
        std::string error;
        EXPECT_TRUE(read_results(*this, test, from, to, most, found, error, more)) << error;
        return found;
    }

    /* Seconds behind midnight. */
    std::string times(int64_t test, int64_t from, int64_t to, size_t most = 100000,
                      bool* more = nullptr) {
        std::string text;
        for (const result& r : results(test, from, to, most, more)) {
            text += std::to_string(r.time - midnight) + " ";
        }
        return text;
    }

    series read(int64_t test, int64_t from, int64_t to, size_t points) {
        series found;
        std::string error;
        EXPECT_TRUE(read_series(*this, test, from, to, points, found, error)) << error;
        return found;
    }
};

/* "0: 2 ok 60 problem 0 unknown 240 [1 1.5 2]" for the points that have something. */
static std::string text_of(const series& s, uint32_t id = 4) {
    std::ostringstream text;
    text.precision(4);
    const series::column* column = nullptr;
    for (const series::column& c : s.values) {
        EXPECT_EQ(c.min.size(), s.time.size());
        EXPECT_EQ(c.mean.size(), s.time.size());
        EXPECT_EQ(c.max.size(), s.time.size());
        column = c.id == id ? &c : column;
    }
    EXPECT_EQ(s.count.size(), s.time.size());
    EXPECT_EQ(s.ok.size(), s.time.size());
    EXPECT_EQ(s.problem.size(), s.time.size());
    EXPECT_EQ(s.unknown.size(), s.time.size());
    for (size_t i = 0; i < s.time.size(); i++) {
        if (s.count[i] + s.ok[i] + s.problem[i] == 0) {
            continue;
        }
        text << (text.str().empty() ? "" : "; ") << s.time[i] - midnight << ": " << s.count[i]
             << " ok " << s.ok[i] << " problem " << s.problem[i] << " unknown " << s.unknown[i];
        if (column != nullptr && !std::isnan(column->min[i])) {
            text << " [" << column->min[i] << " " << column->mean[i] << " " << column->max[i]
                 << "]";
        }
    }
    return text.str();
}

/* ---- results ---- */

TEST(read_results, open_and_packed_newest_first) {
    stored store;
    for (int i = 0; i < 10; i++) {
        store.append_block(midnight + 60 * i + 5,
                           load_of(midnight + 60 * i, i) + mysql_of(midnight, i));
        if (i == 3 || i == 6) {
            store.pack();
        }
    }
    EXPECT_EQ(store.times(load, midnight, midnight + day_s),
              "540 480 420 360 300 240 180 120 60 0 ");
    EXPECT_EQ(store.times(load, midnight + 60, midnight + 540), "480 420 360 300 240 180 120 60 ");
    EXPECT_EQ(store.times(load, midnight + 61, midnight + 539), "480 420 360 300 240 180 120 ");
    EXPECT_EQ(store.times(load, INT64_MIN, INT64_MAX), "540 480 420 360 300 240 180 120 60 0 ");
    EXPECT_EQ(store.times(load, midnight + 540, midnight + 540), "");
    EXPECT_EQ(store.times(load, midnight + 541, midnight), "");
    EXPECT_EQ(store.times(processes, INT64_MIN, INT64_MAX), "");
    EXPECT_EQ(store.times(mysql, midnight, midnight + 126), "125 65 5 ") << "by the arrival";
    result newest = store.results(load, midnight, INT64_MAX).at(0);
    EXPECT_EQ(newest.records, std::vector<std::string>{load_of(midnight + 540, 9)});
    EXPECT_EQ(newest.message, "m" + std::to_string(midnight + 540));
    EXPECT_EQ(newest.received, midnight + 545);
}

TEST(read_results, each_has_the_name_that_it_had) {
    stored store;
    auto define = [&](int64_t since, const char* name, int32_t location = 7) {
        store.definitions.push_back({.type = type_load_average,
                                     .number = 5,
                                     .location = location,
                                     .since = midnight + since,
                                     .name = name});
    };
    define(0, "load");
    define(70, "load of the week");
    define(150, "load of nobody", 8);
    define(170, "load of the month");
    auto append = [&](int i) {
        store.append_block(midnight + 60 * i + 5, load_of(midnight + 60 * i, i));
    };
    auto names = [&](int64_t from = INT64_MIN, int64_t to = INT64_MAX) {
        std::string text;
        for (const result& r : store.results(load, from, to)) {
            text += std::to_string(r.time - midnight) + " " +
                    (r.judged_by ? r.judged_by->name : "none") + "; ";
        }
        return text;
    };
    append(-1);
    append(0);
    append(1);
    store.pack();
    append(2);
    append(3);
    EXPECT_EQ(names(), "180 load of the month; 120 load of the week; 60 load; 0 load; -60 load; ");
    store.append_block(midnight + 245, record_builder{.ui32 = {type_load_average, 5, 6, 0},
                                                      .i64 = {midnight + 240},
                                                      .d64 = {1, 1, 1},
                                                      .strings = {"m"}}
                                           .bytes());
    EXPECT_EQ(names(midnight + 150), "240 none; 180 load of the month; ") << "another location";
    store.append_block(midnight + 250, process_of(midnight + 240, 1, 1));
    EXPECT_EQ(store.results(processes, midnight, INT64_MAX).at(0).judged_by, nullptr);

    auto text_of_series = [&](int64_t from, int64_t to) {
        std::string text;
        for (const definition_pointer& d : store.read(load, from, to, 10).definitions) {
            text += d->name + "; ";
        }
        return text;
    };
    EXPECT_EQ(text_of_series(midnight, midnight + 160), "load; load of the week; load of nobody; ");
    EXPECT_EQ(text_of_series(midnight + 200, midnight + 260), "load of the month; ");
    store.expire(midnight + day_s); /* what is rolled up has its name for longer */
    EXPECT_EQ(text_of_series(midnight - 100, midnight + 60), "load; ");

    std::vector<result> found;
    std::string error;
    store.failure = "gone";
    EXPECT_FALSE(read_results(store, load, midnight, INT64_MAX, 10, found, error));
    EXPECT_EQ(error, "gone");
}

TEST(read_results, the_newest_alone_cost_little) {
    stored store;
    for (int i = 0; i < 1000; i++) {
        store.append_block(midnight + 60 * i + 5, load_of(midnight + 60 * i, i));
        if (i % 50 == 49) {
            store.pack();
        }
    }
    bool more = false;
    EXPECT_EQ(store.times(load, INT64_MIN, INT64_MAX, 3, &more), "59940 59880 59820 ");
    EXPECT_TRUE(more);
    EXPECT_EQ(store.chunks_read, 1u);
    store.chunks_read = 0;
    EXPECT_EQ(store.times(load, midnight, midnight + 29990, 60, &more).substr(0, 12),
              "29940 29880 ");
    EXPECT_EQ(store.chunks_read, 2u);
    EXPECT_TRUE(more);
    EXPECT_EQ(store.results(load, midnight, midnight + 180, 3, &more).size(), 3u);
    EXPECT_FALSE(more);
    EXPECT_EQ(store.results(load, midnight, midnight + 180, 2, &more).size(), 2u);
    EXPECT_TRUE(more);
    EXPECT_EQ(store.results(load, midnight, midnight + 180, 0).size(), 0u);
    EXPECT_EQ(store.results(load, INT64_MIN, INT64_MAX, SIZE_MAX, &more).size(), 1000u);
    EXPECT_FALSE(more);
}

TEST(read_results, what_came_late_stands_where_it_belongs) {
    stored store;
    store.append_block(midnight + 5, load_of(midnight, 1));
    store.append_block(midnight + 3 * day_s, load_of(midnight + 3 * day_s - 10, 2));
    store.pack();
    store.append_block(midnight + 3 * day_s + 60,
                       load_of(midnight + 60, 3) + load_of(midnight + 120, 4));
    EXPECT_EQ(store.times(load, midnight, midnight + day_s), "120 60 0 ");
    store.pack();
    EXPECT_EQ(store.times(load, midnight, midnight + day_s), "120 60 0 ");
    EXPECT_EQ(store.times(load, midnight, INT64_MAX, 2), "259190 120 ");
    EXPECT_EQ(store.times(load, midnight + 61, midnight + day_s), "120 ");
}

TEST(read_results, the_newest_may_have_come_first) {
    stored store;
    store.append_block(midnight + 5, load_of(midnight + 1000, 1));
    store.append_block(midnight + 1000, load_of(midnight + 940, 2) + load_of(midnight + 1000, 3));
    store.pack();
    std::string late;
    for (int i = 0; i < 20; i++) {
        late += load_of(midnight + 30 * i, 4);
    }
    store.append_block(midnight + 1060, late);
    store.pack();
    bool more = false;
    EXPECT_EQ(store.times(load, midnight, INT64_MAX, 3, &more), "1000 940 570 ");
    EXPECT_TRUE(more);
}

TEST(read_results, a_clock_that_is_ahead) {
    stored store;
    store.append_block(midnight, load_of(midnight + 299, 1)); /* is believed */
    store.append_block(midnight + 60, load_of(midnight + 3600, 2));
    store.pack();
    EXPECT_EQ(store.times(load, midnight + 299, midnight + 300), "299 ");
    EXPECT_EQ(store.times(load, midnight + 60, midnight + 61), "60 ");
    EXPECT_EQ(store.times(load, midnight + 3600, INT64_MAX), "");
    EXPECT_EQ(store.results(load, midnight + 60, midnight + 61).at(0).claimed, midnight + 3600);
}

TEST(read_results, a_pass_over_several_blocks_and_chunks) {
    stored store;
    store.append_block(midnight + 5, process_of(midnight, 10, 1) + process_of(midnight, 11, 2));
    store.pack();
    store.append_block(midnight + 6, process_of(midnight, 12, 4));
    store.pack();
    store.append_block(midnight + 7, process_of(midnight + 1, 13, 8));
    store.append_block(midnight + 8, load_of(midnight, 1));
    store.append_block(midnight + 9,
                       process_of(midnight + 2, 14, 16) + process_of(midnight + 60, 10, 32));
    std::vector<result> found = store.results(processes, midnight, midnight + day_s);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1].records.size(), 5u);
    EXPECT_EQ(found[1].values[0].value, 31);
    EXPECT_EQ(found[1].received, midnight + 5);
    /* It belongs to the second in which it began. */
    EXPECT_EQ(store.results(processes, midnight, midnight + 1).at(0).values[0].value, 31);
    EXPECT_TRUE(store.results(processes, midnight + 1, midnight + 60).empty());
}

TEST(read_results, what_comes_again_counts_once) {
    stored store;
    std::string records = load_of(midnight, 1) + load_of(midnight + 60, 2);
    store.append_block(midnight + 65, records);
    store.pack();
    store.append_block(midnight + 125, records + load_of(midnight + 120, 3));
    EXPECT_EQ(store.times(load, midnight, INT64_MAX), "120 60 0 ");
}

TEST(read_results, large_records_end_it_early) {
    stored store;
    const std::string text(8 << 20, 'x');
    for (int i = 0; i < 20; i++) {
        record_builder large{.ui32 = {type_load_average, 5, 7, 0},
                             .i64 = {midnight + 60 * i},
                             .d64 = {1, 2, 3},
                             .strings = {text}};
        store.append_block(midnight + 60 * i, large.bytes());
        if (i == 9) {
            store.pack();
        }
    }
    bool more = false;
    EXPECT_EQ(store.times(load, midnight, INT64_MAX, 1000, &more),
              "1140 1080 1020 960 900 840 780 ");
    EXPECT_TRUE(more);
    EXPECT_EQ(store.times(load, midnight, midnight + 780, 2, &more), "720 660 ");
}

TEST(read_results, no_more_than_so_many_bytes) {
    stored store;
    for (int i = 0; i < 10; i++) {
        store.append_block(midnight + 60 * i, load_of(midnight + 60 * i, i));
    }
    const size_t one = load_of(midnight, 0).size();
    for (size_t most : {size_t{1}, one, 3 * one, 3 * one + one / 2, 10 * one}) {
        std::vector<result> found;
        std::string error;
        bool more = false;
        EXPECT_TRUE(read_results(store, load, midnight, INT64_MAX, 100, found, error, &more, most));
        EXPECT_EQ(found.size(), std::max<size_t>(most / one, 1)) << most;
        EXPECT_EQ(found.at(0).time, midnight + 540) << "the newest";
        EXPECT_EQ(more, most < 10 * one) << most;
    }
}

TEST(read_results, what_is_damaged) {
    stored store;
    for (int i = 0; i < 3; i++) {
        store.append_block(midnight + 60 * i, load_of(midnight + 60 * i, i));
        store.pack();
    }
    store.chunks[load][1].data = "no chunk";
    store.append_block(midnight + 180, load_of(midnight + 180, 3) + "no record");
    std::vector<result> found;
    std::string error;
    EXPECT_FALSE(read_results(store, load, midnight, INT64_MAX, 100, found, error));
    EXPECT_EQ(error, "block 4 in memory is damaged");
    EXPECT_EQ(found.size(), 3u);
    store.blocks.clear();
    EXPECT_FALSE(read_results(store, load, midnight, INT64_MAX, 100, found, error));
    EXPECT_EQ(error, "results of test 1 in memory are damaged");
    EXPECT_EQ(found.size(), 2u);
    EXPECT_FALSE(read_results(store, 99, midnight, INT64_MAX, 100, found, error));
    EXPECT_EQ(error, "there is no test 99");
    EXPECT_TRUE(found.empty());
    store.damaged_state = true;
    EXPECT_FALSE(read_results(store, load, midnight, midnight + 1, 100, found, error));
    EXPECT_EQ(error, "the state of agent 1 in memory is damaged");
    EXPECT_EQ(found.size(), 1u);
    store.damaged_state = false;
    store.failure = "no disk";
    EXPECT_FALSE(read_results(store, load, midnight, INT64_MAX, 100, found, error));
    EXPECT_EQ(error, "no disk");
}

TEST(read_results, records_without_a_number) {
    stored store;
    store.add_test(4, 99, {});
    store.add_test(5, type_load_average, {});
    record_builder strange{.ui32 = {99, 5}}, lacking{.ui32 = {type_load_average, 5}};
    store.append_block(midnight, strange.bytes() + lacking.bytes() + load_of(midnight, 1) +
                                     record_builder{}.bytes());
    EXPECT_EQ(store.results(4, midnight, INT64_MAX).size(), 1u);
    EXPECT_EQ(store.results(5, midnight, INT64_MAX).size(), 1u);
    EXPECT_EQ(store.results(load, midnight, INT64_MAX).size(), 1u);
}

/* ---- the newest ---- */

static std::string newest_of(stored& store, int64_t test) {
    std::string text, error, state = store.packed_agent();
    EXPECT_TRUE(read_newest(
        store, fake_store::known(state), test,
        [&](int64_t received, std::string_view record) {
            text += std::to_string(received - midnight) + " " + std::string(record);
        },
        error))
        << error;
    return text;
}

TEST(read_newest, by_arrival) {
    stored store;
    EXPECT_EQ(newest_of(store, load), "");
    store.append_block(midnight, load_of(midnight - 60, 1) + load_of(midnight, 2));
    store.append_block(midnight + 60, load_of(midnight - 3600, 3));
    store.append_block(midnight + 120, process_of(midnight, 10, 1));
    EXPECT_EQ(newest_of(store, load), "60 " + load_of(midnight - 3600, 3));
    EXPECT_EQ(store.blocks_read, 1u);
    store.pack();
    EXPECT_EQ(newest_of(store, load), "60 " + load_of(midnight - 3600, 3));
    store.append_block(midnight + 180, process_of(midnight, 11, 1));
    EXPECT_EQ(newest_of(store, load), "60 " + load_of(midnight - 3600, 3));
    store.agent.tests.clear(); /* forgotten */
    EXPECT_EQ(newest_of(store, load), "60 " + load_of(midnight - 3600, 3));
    store.chunks.clear();
    EXPECT_EQ(newest_of(store, load), "");
}

/* ---- series ---- */

TEST(read_series, every_result_where_there_are_few) {
    stored store;
    store.append_block(midnight + 200, load_of(midnight + 10, 1) + load_of(midnight + 70, 2, 2) +
                                           load_of(midnight + 500, 3));
    const char* every = "10: 1 ok 60 problem 0 unknown 0 [1 1 1]; "
                        "70: 1 ok 0 problem 180 unknown 250 [2 2 2]; "
                        "500: 1 ok 100 problem 0 unknown 0 [3 3 3]";
    series s = store.read(load, midnight, midnight + 600, 3);
    EXPECT_EQ(s.resolution, 0);
    EXPECT_EQ(s.from, midnight);
    EXPECT_EQ(s.to, midnight + 600);
    EXPECT_EQ(text_of(s), every);
    EXPECT_EQ(s.values.size(), 3u);
    store.pack();
    EXPECT_EQ(text_of(store.read(load, midnight, midnight + 600, 3)), every);
    store.close(today);
    EXPECT_EQ(text_of(store.read(load, midnight, midnight + 600, 3)), every);
    store.facts["stale_after"] = 20;
    EXPECT_EQ(text_of(store.read(load, midnight + 70, midnight + 600, 3)),
              "70: 1 ok 0 problem 20 unknown 410 [2 2 2]; 500: 1 ok 20 problem 0 unknown 80 "
              "[3 3 3]");
}

TEST(read_series, five_minutes_where_there_are_more) {
    stored store;
    for (int i = 0; i < 10; i++) {
        store.append_block(midnight + 60 * i, load_of(midnight + 60 * i, i, i == 4 ? 2 : 0));
    }
    const char* five = "0: 5 ok 240 problem 60 unknown 0 [0 2 4]; "
                       "300: 5 ok 300 problem 0 unknown 0 [5 7 9]; "
                       "600: 0 ok 120 problem 0 unknown 180";
    for (const char* step : {"open", "packed", "closed"}) {
        series s = store.read(load, midnight + 10, midnight + 900, 8);
        EXPECT_EQ(s.resolution, 300) << step;
        EXPECT_EQ(s.from, midnight);
        EXPECT_EQ(s.to, midnight + 900);
        EXPECT_EQ(s.time, (std::vector<int64_t>{midnight, midnight + 300, midnight + 600}));
        EXPECT_EQ(text_of(s), five) << step;
        if (store.agent.last_block != 0) {
            store.pack();
        } else {
            store.close(today);
        }
    }
    series s = store.read(load, midnight + 10, midnight + 900, 1);
    EXPECT_EQ(s.resolution, 3600);
    EXPECT_EQ(text_of(s), "0: 10 ok 660 problem 60 unknown 2880 [0 4.5 9]");
}

TEST(read_series, closed_days_are_read_from_roll_ups) {
    stored store;
    for (int day = 0; day < 30; day++) {
        for (int i = 0; i < 288; i++) {
            int64_t time = midnight + day * day_s + i * 300;
            store.append_block(time + 5, load_of(time, day));
            if (i % 12 == 11) {
                store.pack();
            }
        }
        if (day < 29) {
            store.close(today + day);
        }
    }
    store.append_block(midnight + 30 * day_s, load_of(midnight + 30 * day_s - 60, 29));
    store.chunks_read = store.roll_ups_read = 0;
    series s = store.read(load, midnight, midnight + 30 * day_s, 1000);
    EXPECT_EQ(s.resolution, 3600);
    EXPECT_EQ(s.time.size(), 720u);
    EXPECT_EQ(store.chunks_read, 24u) << "of today";
    EXPECT_LE(store.roll_ups_read, 30u + 29 + 29);
    for (size_t i = 0; i < 720; i++) {
        ASSERT_EQ(s.count[i], i == 719 ? 13u : 12u);
        ASSERT_EQ(s.values[0].mean[i], static_cast<double>(i / 24));
    }
    store.chunks_read = 0;
    EXPECT_EQ(store.read(load, midnight, midnight + 29 * day_s, 116).resolution, 6 * 3600);
    EXPECT_EQ(store.chunks_read, 0u);
    EXPECT_EQ(store.read(load, midnight, midnight + 2 * day_s, 576).resolution, 0);
    EXPECT_EQ(store.chunks_read, 49u) << "what belongs to the last pass may come in the next";
    store.chunks_read = 0;
    EXPECT_EQ(store.read(load, midnight + 9, midnight + 2 * day_s, 575).resolution, 0);
    EXPECT_EQ(store.read(load, midnight, midnight + 2 * day_s, 575).resolution, 3600);
    EXPECT_EQ(store.read(load, midnight, midnight + 20 * day_s, 10000).resolution, 0);
    EXPECT_EQ(store.read(load, midnight, midnight + 30 * day_s, 8640).resolution, 300);
    EXPECT_EQ(store.read(load, midnight, midnight + 30 * day_s, 8641).resolution, 0);
}

TEST(read_series, what_is_no_longer_kept_is_read_coarser) {
    stored store;
    for (int day = 0; day < 10; day++) {
        for (int i = 0; i < 24; i++) {
            int64_t time = midnight + day * day_s + i * 3600 + 900;
            store.append_block(time + 5, load_of(time, i));
        }
        store.close(today + day);
    }
    auto resolution_of = [&](int64_t from, int64_t to) {
        series s = store.read(load, from, to, 2880);
        uint32_t count = 0;
        for (uint32_t n : s.count) {
            count += n;
        }
        EXPECT_EQ(count, (to - from) / 3600);
        return s.resolution;
    };
    EXPECT_EQ(resolution_of(midnight, midnight + 10 * day_s), 0);
    store.expire(midnight + 5 * day_s);
    EXPECT_EQ(resolution_of(midnight, midnight + 10 * day_s), 300);
    EXPECT_EQ(resolution_of(midnight + 5 * day_s, midnight + 10 * day_s), 0);
    EXPECT_EQ(resolution_of(midnight + 5 * day_s - 3600, midnight + 6 * day_s), 300);
    fake_store::forget(store.five_minutes, today + 3);
    EXPECT_EQ(resolution_of(midnight, midnight + 10 * day_s), 3600);
    EXPECT_EQ(resolution_of(midnight + 3 * day_s, midnight + 10 * day_s), 300);
    EXPECT_EQ(resolution_of(midnight + 3 * day_s - 3600, midnight + 10 * day_s), 3600);
    /* Hours that are kept for a shorter time than 5 minutes. */
    fake_store::forget(store.hours, today + 6);
    EXPECT_EQ(resolution_of(midnight + 3 * day_s, midnight + 10 * day_s), 300);
    series s = store.read(load, midnight + 3 * day_s, midnight + 10 * day_s, 168);
    EXPECT_EQ(s.resolution, 3600);
    s = store.read(load, midnight + 3 * day_s, midnight + 10 * day_s, 167);
    EXPECT_EQ(s.resolution, 2 * 3600);
    for (uint32_t n : s.count) {
        EXPECT_EQ(n, 2u);
    }
}

TEST(read_series, late_results_of_closed_days) {
    stored store;
    for (int i = 0; i < 6; i++) {
        store.append_block(midnight + 60 * i, load_of(midnight + 60 * i, 1));
    }
    store.close(today);
    store.close(today + 1);
    store.append_block(midnight + 3 * day_s, load_of(midnight + 300 + 10, 4) +
                                                 load_of(midnight + 900, 5, 2) +
                                                 load_of(midnight + day_s + 600, 6) +
                                                 load_of(midnight + 2 * day_s - 60, 7));
    /* While they lie open, it is not known which of the others followed: they cover what was
     * unknown. */
    std::string five = "0: 5 ok 300 problem 0 unknown 0 [1 1 1]; "
                       "300: 2 ok 300 problem 0 unknown 0 [1 2.5 4]; "
                       "900: 1 ok 0 problem 180 unknown 120 [5 5 5]; "
                       "87000: 1 ok 180 problem 0 unknown 120 [6 6 6]; "
                       "172500: 1 ok 60 problem 0 unknown 240 [7 7 7]; "
                       "172800: 0 ok 120 problem 0 unknown 180";
    std::string hours = "0: 8 ok 660 problem 180 unknown 2760 [1 1.875 5]; "
                        "86400: 1 ok 180 problem 0 unknown 3420 [6 6 6]; "
                        "169200: 1 ok 60 problem 0 unknown 3540 [7 7 7]; "
                        "172800: 0 ok 120 problem 0 unknown 3480";
    auto compare = [&] {
        store.expire(INT64_MAX); /* or every result would be a point */
        EXPECT_EQ(text_of(store.read(load, midnight, midnight + 3 * day_s, 864)), five);
        series s = store.read(load, midnight, midnight + 3 * day_s, 72);
        EXPECT_EQ(s.resolution, 3600);
        EXPECT_EQ(text_of(s), hours);
    };
    compare();
    EXPECT_EQ(store.times(load, midnight + 300, midnight + 4 * day_s), "172740 87000 900 310 ");
    /* Packed they are in the roll-ups, and not added once more. */
    store.pack();
    store.close(today + 2);
    five.replace(five.find("300: 2 ok 300 problem 0 unknown 0"), 33,
                 "300: 2 ok 190 problem 0 unknown 110");
    hours.replace(hours.find("660 problem 180 unknown 2760"), 28, "490 problem 180 unknown 2930");
    compare();
}

TEST(read_series, a_late_result_beside_one_of_today) {
    stored store;
    store.append_block(midnight, load_of(midnight, 1));
    store.close(today);
    store.append_block(midnight + day_s + 60, load_of(midnight + day_s, 2));
    store.pack();
    store.append_block(midnight + day_s + 120, load_of(midnight + 60, 3));
    EXPECT_EQ(text_of(store.read(load, midnight, midnight + 2 * day_s, 2)),
              "0: 2 ok 360 problem 0 unknown 86040 [1 2 3]; "
              "86400: 1 ok 180 problem 0 unknown 86220 [2 2 2]");
}

TEST(read_series, bounds) {
    stored store;
    EXPECT_TRUE(store.read(load, midnight, midnight, 10).time.empty());
    EXPECT_TRUE(store.read(load, midnight, midnight - 1, 10).time.empty());
    EXPECT_TRUE(store.read(load, midnight, midnight + 60, 0).time.empty());
    store.append_block(midnight, load_of(midnight - 1, 1) + load_of(midnight, 2));
    EXPECT_EQ(store.read(load, INT64_MIN, INT64_MAX, 10).time.size(), 2u);
    series s = store.read(load, INT64_MIN, INT64_MAX, 1);
    EXPECT_LE(s.time.size(), 2u);
    EXPECT_EQ(s.resolution % 3600, 0);
    s = store.read(load, INT64_MIN, INT64_MAX, SIZE_MAX);
    EXPECT_EQ(s.resolution, 0);
    for (int i = 1; i <= 20000; i++) {
        store.append_block(midnight + i, load_of(midnight + i, 1));
    }
    store.close(today - 1);
    s = store.read(load, INT64_MIN, INT64_MAX, SIZE_MAX);
    EXPECT_LE(s.time.size(), 10002u);
    std::string error;
    EXPECT_FALSE(read_series(store, 99, 0, 1, 10, s, error));
    EXPECT_EQ(error, "there is no test 99");
    store.five_minutes.begin()->second = "no roll-up";
    EXPECT_FALSE(read_series(store, load, midnight - day_s, midnight, 288, s, error));
    EXPECT_EQ(error, "the roll-up of test 1, day 19999 in memory is damaged");
    EXPECT_EQ(text_of(s), "-1: 1 ok 1 problem 0 unknown 0 [1 1 1]") << "there are the results";
}

/* ---- against the plain way: all records that ever came, in the order of arrival ---- */

static std::vector<result> plain_results(const std::vector<fake_store::arrived>& all, int64_t from,
                                         int64_t to) {
    result_builder builder(true);
    for (const auto& [received, record] : all) {
        builder.add(record, received);
    }
    std::vector<result> results = builder.take_all();
    order_by_time(results);
    std::erase_if(results, [&](const result& r) { return r.time < from || r.time >= to; });
    return results;
}

/* ---- the same out of a database ---- */

static bool copy(const stored& from, const std::string& directory, std::string& error) {
    std::unique_ptr<engine> to = open_engine({.directory = directory, .tell = {}}, error);
    if (to == nullptr) {
        return false;
    }
    stored_agent agent;
    bool good = to->begin() && to->find_agent("a@b.c", "web1", midnight, agent);
    std::map<int64_t, int64_t> ids;
    for (const auto& [id, test] : from.tests) {
        good = good && to->find_test(agent.id, test.type, test.number, ids[id]);
    }
    int64_t before = 0;
    for (const auto& [row, block] : from.blocks) {
        std::string_view piece = block.records;
        good = good && to->append_block(agent.id, block.received, before, {&piece, 1}, before);
    }
    for (const auto& [test, chunks] : from.chunks) {
        for (const fake_store::chunk& c : chunks) {
            good = good && to->append_chunk(ids[test], {c.received_first, c.received_last, c.first,
                                                        c.last, c.results, c.data});
        }
    }
    for (const auto& [r, roll_ups] : {std::pair(resolution::five_minutes, &from.five_minutes),
                                      std::pair(resolution::hour, &from.hours)}) {
        for (const auto& [key, data] : *roll_ups) {
            good = good && to->put_roll_up(r, ids[key.first], key.second, data);
        }
    }
    for (const auto& [name, value] : from.facts) {
        good = good && to->set_fact(name.c_str(), value);
    }
    agent_state state = from.agent;
    state.last_block = before;
    for (test_status& test : state.tests) {
        test.id = ids[test.id];
        test.block = 0;
    }
    std::string packed;
    state.pack(packed);
    good = good && to->end_block(agent.id, {}, "block", packed) && to->commit();
    error = to->reason();
    return good;
}

TEST(history, of_a_database_is_the_same) {
    stored store;
    for (int day = 0; day < 4; day++) {
        for (int i = 0; i < 288; i++) {
            int64_t time = midnight + day * day_s + i * 300;
            store.append_block(time + 5, load_of(time, i, i % 7 == 0 ? 2 : 0) +
                                             process_of(time, 10, i) + process_of(time, 11, day) +
                                             mysql_of(time, i));
            if (i % 100 == 99) {
                store.pack();
            }
        }
        if (day < 2) {
            store.close(today + day);
        }
    }
    store.append_block(midnight + 4 * day_s, load_of(midnight + 10, 77)); /* late */
    scratch_directory place;
    std::string error;
    ASSERT_TRUE(copy(store, place.path(), error)) << error;
    std::unique_ptr<result_reader> reader = open_reader(place.path(), error);
    ASSERT_NE(reader, nullptr) << error;
    for (int64_t test : {load, processes, mysql}) { /* have the same ids there */
        for (int64_t from : {INT64_MIN, midnight, midnight + 100000}) {
            for (int64_t to : {midnight + 86400, midnight + 200000, INT64_MAX}) {
                std::vector<result> wanted = store.results(test, from, to, 500), found;
                EXPECT_TRUE(read_results(*reader, test, from, to, 500, found, error)) << error;
                ASSERT_EQ(found.size(), wanted.size());
                for (size_t i = 0; i < found.size(); i++) {
                    ASSERT_EQ(found[i].records, wanted[i].records);
                    ASSERT_EQ(found[i].received, wanted[i].received);
                }
                for (size_t points : {10, 1000, 10000}) {
                    series s;
                    EXPECT_TRUE(read_series(*reader, test, from, to, points, s, error)) << error;
                    EXPECT_EQ(text_of(s), text_of(store.read(test, from, to, points)));
                }
            }
        }
        int64_t received = 0;
        std::string newest;
        auto take = [&](int64_t arrived, std::string_view record) {
            received = arrived;
            newest = record;
        };
        bool good = false;
        EXPECT_TRUE(reader->for_each_agent(
            [&](const known_agent& agent) {
                good = read_newest(*reader, agent, test, take, error);
            },
            error));
        EXPECT_TRUE(good) << error;
        std::string state = store.packed_agent();
        int64_t wanted = received;
        std::string wanted_record = newest;
        EXPECT_TRUE(read_newest(store, fake_store::known(state), test, take, error));
        EXPECT_EQ(received, wanted);
        EXPECT_EQ(newest, wanted_record);
    }
}

class random_store : public ::testing::TestWithParam<unsigned> {};

TEST_P(random_store, reads_like_the_plain_way) {
    std::mt19937_64 random(GetParam());
    auto below = [&](int64_t n) {
        return static_cast<int64_t>(random() % static_cast<uint64_t>(n));
    };
    stored store;
    store.stale_after = store.facts["stale_after"] = 100 + below(2000);
    std::map<int64_t, std::vector<fake_store::arrived>> all; /* by test */
    std::vector<std::pair<int64_t, std::string>> unsent;     /* test, record */
    int64_t away_until = 0, closed = today - 1;
    const int64_t end = midnight + 5 * day_s;

    auto send = [&](int64_t now) {
        std::string block;
        for (const auto& [test, record] : unsent) {
            block += record;
            all[test].emplace_back(now, record);
        }
        store.append_block(now, block);
        unsent.clear();
    };
    auto check = [&](int64_t now) {
        int64_t from = midnight + below(now - midnight + 1), to = from + 1 + below(2 * day_s);
        for (int64_t test : {load, processes, mysql}) {
            std::vector<result> plain = plain_results(all[test], from, to);
            std::vector<result> found = store.results(test, from, to);
            std::reverse(found.begin(), found.end());
            ASSERT_EQ(found.size(), plain.size());
            for (size_t i = 0; i < plain.size(); i++) {
                ASSERT_EQ(found[i].time, plain[i].time);
                ASSERT_EQ(found[i].received, plain[i].received);
                ASSERT_EQ(found[i].records, plain[i].records);
                ASSERT_EQ(found[i].judged, plain[i].judged);
            }
            size_t most = static_cast<size_t>(1 + below(20));
            std::vector<result> newest = store.results(test, from, to, most);
            ASSERT_EQ(newest.size(), std::min(most, plain.size()));
            for (size_t i = 0; i < newest.size(); i++) {
                ASSERT_EQ(newest[i].time, plain[plain.size() - 1 - i].time);
            }
            /* 5 minutes and hours, by the roll-ups of all results. */
            for (size_t points : {static_cast<size_t>((to - from) / 300 + 1), size_t{3}}) {
                series s = store.read(test, from, to, points);
                if (s.resolution == 0) {
                    ASSERT_LE(plain.size(), points);
                    ASSERT_EQ(s.time.size(), plain.size());
                    continue;
                }
                ASSERT_LE(s.time.size(), points + 1);
                const std::vector<result> everything =
                    plain_results(all[test], from - 3 * day_s, to + 3 * day_s);
                auto near = [&](int64_t begin, int64_t finish) {
                    auto at = [&](int64_t time) {
                        return std::partition_point(everything.begin(), everything.end(),
                                                    [&](const result& r) { return r.time < time; });
                    };
                    return std::span(at(begin), at(finish));
                };
                for (size_t i = 0; i < s.time.size(); i++) {
                    uint32_t count = 0;
                    double sum = 0, least = INFINITY, most_of = -INFINITY, values = 0;
                    for (const result& r : near(s.time[i], s.time[i] + s.resolution)) {
                        count++;
                        for (const result_value& v : r.values) {
                            if (!s.values.empty() && v.id == s.values[0].id) {
                                sum += v.value;
                                values++;
                                least = std::min(least, v.value);
                                most_of = std::max(most_of, v.value);
                            }
                        }
                    }
                    ASSERT_EQ(s.count[i], count) << s.resolution << " " << s.time[i] - midnight;
                    if (values > 0) {
                        ASSERT_EQ(s.values[0].min[i], least);
                        ASSERT_EQ(s.values[0].max[i], most_of);
                        ASSERT_NEAR(s.values[0].mean[i], sum / values,
                                    1e-9 + (most_of - least) / 30000);
                    }
                    ASSERT_EQ(s.ok[i] + s.problem[i] + s.unknown[i], s.resolution);
                }
                if (store.blocks.empty()) { /* then nothing is added to what was rolled up */
                    for (size_t i = 0; i < s.time.size(); i++) {
                        uint32_t ok = 0, problem = 0;
                        std::span<const result> around =
                            near(s.time[i] - store.stale_after, s.time[i] + s.resolution);
                        for (size_t r = 0; r < around.size(); r++) {
                            int64_t until = around[r].time + store.stale_after;
                            if (r + 1 < around.size()) {
                                until = std::min(until, around[r + 1].time);
                            }
                            int64_t held = std::min(until, s.time[i] + s.resolution) -
                                           std::max(around[r].time, s.time[i]);
                            if (held > 0) {
                                (around[r].judged == state::ok ? ok : problem) +=
                                    static_cast<uint32_t>(held);
                            }
                        }
                        ASSERT_EQ(s.ok[i], ok) << s.resolution << " " << s.time[i] - midnight;
                        ASSERT_EQ(s.problem[i], problem);
                    }
                }
            }
        }
    };

    for (int64_t now = midnight; now < end; now += 120 + below(900)) {
        unsent.emplace_back(load,
                            load_of(now, static_cast<double>(below(100)), below(4) == 0 ? 2 : 0));
        unsent.emplace_back(mysql, mysql_of(now, static_cast<int>(below(50))));
        uint32_t pid = 1;
        for (int64_t i = below(5); i >= 0; i--) {
            pid += static_cast<uint32_t>(1 + below(100));
            unsent.emplace_back(processes, process_of(now + (i == 0 ? below(3) : 0), pid,
                                                      static_cast<double>(below(8))));
            if (below(10) == 0 && now >= away_until) {
                send(now + 1); /* in the middle of the pass */
            }
        }
        if (now >= away_until) {
            send(now + 3);
            away_until = below(40) == 0 ? now + below(day_s) : 0;
        }
        if (below(8) == 0) {
            store.pack();
        }
        if (now / day_s > closed + 1 && now % day_s >= 600) {
            store.close(++closed);
        }
        if (below(30) == 0) {
            check(now);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(history, random_store, ::testing::Range(1u, 6u));

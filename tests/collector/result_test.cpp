#include "state/result.h"

#include "collector_test_support.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <sstream>

static const double none = 18446744073709551616.0;

/* "load1 0.5, load5 0.25" */
static std::string values_of(const result& r) {
    std::ostringstream text;
    uint32_t before = 0;
    for (const result_value& value : r.values) {
        EXPECT_TRUE(text.str().empty() || value.id > before) << "not by id";
        before = value.id;
        text << (text.str().empty() ? "" : ", ") << value_name(r.type, value.id) << " "
             << value.value << value_unit(r.type, value.id);
    }
    return text.str();
}

static std::vector<result> results_of(const std::vector<std::string>& records,
                                      int64_t received = 1000) {
    result_builder builder(true);
    for (const std::string& record : records) {
        builder.add(record, received);
    }
    return builder.take_all();
}

static result only(const std::vector<std::string>& records, int64_t received = 1000) {
    std::vector<result> all = results_of(records, received);
    EXPECT_EQ(all.size(), 1u);
    return all.empty() ? result() : all.front();
}

static std::string process_record(uint32_t pid, int64_t time, double cpu, uint32_t status = 0,
                                  const std::string& message = "") {
    record_builder built{
        .ui32 = {type_process, 5, 7, pid, status}, .i64 = {time}, .d64 = {cpu, 20, 300}};
    if (!message.empty()) {
        built.strings = {message};
    }
    return built.bytes();
}

static std::string mysql_record(const std::string& list, int64_t time = 896) {
    return record_builder{.ui32 = {type_mysql, 5, 7, 0, 12}, .i64 = {time}, .strings = {list}}
        .bytes();
}

TEST(result, one_record) {
    std::string bytes = load_record(5, 900, 2, "too high\n");
    result r = only({bytes}, 1000);
    EXPECT_EQ(r.type, 66u);
    EXPECT_EQ(r.time, 900);
    EXPECT_EQ(r.claimed, 900);
    EXPECT_EQ(r.received, 1000);
    EXPECT_EQ(r.judged, state::problem);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.location, 7);
    EXPECT_EQ(r.message, "too high\n");
    EXPECT_EQ(values_of(r), "load1 0.5, load5 0.25, load15 0.125");
    EXPECT_EQ(r.records, std::vector<std::string>{bytes});
}

TEST(result, values_of_every_type) {
    struct {
        record_builder built;
        const char* values;
    } const cases[] = {
        {{.ui32 = {38, 5, 7, 1, 2, 3, 4, 5, 6, 0}, .i64 = {9}},
         "received 1B/s, received_packets 2/s, received_errors 3/s, sent 4B/s, "
         "sent_packets 5/s, sent_errors 6/s"},
        {{.ui32 = {40, 5, 7}, .i64 = {9}, .d64 = {0}, .strings = {"10.0.0.1", "a", "b", "c", "d"}},
         ""},
        {{.ui32 = {43, 5, 7, 123, 0}, .i64 = {9}, .d64 = {1.5, 2, 3}},
         "cpu 1.5%, resident 2MB, virtual 3MB, processes 1"},
        {{.ui32 = {43, 5, 7, 0, 3}, .i64 = {9}, .d64 = {0, 0, 0}},
         "cpu 0%, resident 0MB, virtual 0MB, processes 0"},
        {{.ui32 = {44, 5, 7, 0}, .i64 = {9}, .d64 = {1, 2, 3, 94, 0}, .strings = {"m"}},
         "user 1%, system 2%, nice 3%, idle 94%, iowait 0%"},
        {{.ui32 = {46, 5, 7, 0}, .i64 = {9}, .d64 = {40, 9.5}, .strings = {"m"}},
         "total 40GB, available 9.5GB"},
        {{.ui32 = {47, 5, 7, 0}, .i64 = {9}, .d64 = {1, 2, 3, 4, 5, 6, none, none}},
         "free 1MB, total 2MB, swap_free 3MB, swap_total 4MB, buffers 5MB, cached 6MB"},
        {{.ui32 = {48, 5, 7, 2, 3}, .i64 = {9}, .d64 = {0.25}}, "round_trip 0.25ms, lost 3"},
        {{.ui32 = {49, 5, 7, 0, 12, 200, 37}, .i64 = {9}}, "time 12ms, code 200, size 37bytes"},
        {{.ui32 = {66, 5, 7, 0}, .i64 = {9}, .d64 = {0.5, 1, 2}}, "load1 0.5, load5 1, load15 2"},
        {{.ui32 = {99, 5, 7, 0}, .i64 = {9}, .d64 = {0.5, 1, 2}}, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(values_of(only({c.built.bytes()})), c.values);
    }
}

TEST(result, what_is_not_available_is_no_value) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double infinite = std::numeric_limits<double>::infinity();
    struct {
        record_builder built;
        const char* values;
    } const cases[] = {
        {{.ui32 = {66, 5, 7, 10}, .i64 = {9}, .d64 = {-1, -1, -1}}, ""},
        {{.ui32 = {44, 5, 7, 10}, .i64 = {9}, .d64 = {-1, -1, -1, -1, -1}}, ""},
        {{.ui32 = {44, 5, 7, 0}, .i64 = {9}, .d64 = {nan, infinite, -infinite, 4, 5}},
         "idle 4%, iowait 5%"},
        {{.ui32 = {46, 5, 7, 3}, .i64 = {9}, .d64 = {0, 0}}, ""},
        {{.ui32 = {46, 5, 7, 2}, .i64 = {9}, .d64 = {40, 0}}, "total 40GB, available 0GB"},
        {{.ui32 = {48, 5, 7, 2, 3}, .i64 = {9}, .d64 = {0}}, "lost 3"},
        {{.ui32 = {67, 5, 7, 2}, .i64 = {9}, .strings = {"Timeout"}}, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(values_of(only({c.built.bytes()})), c.values);
    }
}

TEST(result, local_cpu_is_uncrossed) {
    record_builder part{.ui32 = {0}, .d64 = {10, 20, 30, 40, 0}, .strings = {"m"}};
    record_builder whole{.ui32 = {44, 5, 7, 0},
                         .i64 = {9},
                         .d64 = {1, 2, 3, 94, 0},
                         .strings = {"m"},
                         .nested = {part.bytes()}};
    EXPECT_EQ(values_of(only({whole.bytes()})), "user 1%, system 3%, nice 2%, idle 94%, iowait 0%");
    whole.strings = {"Nice CPU usage: 3.00 / Max value: 2\n"};
    whole.ui32[3] = 2;
    result r = only({whole.bytes()});
    EXPECT_EQ(r.message, "System CPU usage: 3.00 / Max value: 2\n");
    EXPECT_EQ(r.records, std::vector<std::string>{whole.bytes()}) << "it is kept as sent";
}

static std::string object(uint32_t type, uint32_t status, const std::string& value) {
    return record_builder{.ui32 = {type, status}, .strings = {value, "OID: the result"}}.bytes();
}

TEST(result, objects_of_a_get) {
    record_builder get{.ui32 = {57, 5, 7, 0, 6},
                       .i64 = {9},
                       .d64 = {1.5},
                       .strings = {"New results are available.\n"},
                       .nested = {object(9, 0, "-25"), object(8, 0, "26"), object(14, 2, "27"),
                                  object(2, 0, "2.5"), object(9, 0, "up"), object(12, 0, "1e999"),
                                  record_builder{.ui32 = {9, 0}, .missing_strings = 2}.bytes(),
                                  object(15, 0, "8")}};
    result r = only({get.bytes()});
    EXPECT_EQ(values_of(r), "objects 6, time 1.5ms, object 1 -25, object 3 27, object 4 2.5, "
                            "object 8 8");
    EXPECT_EQ(r.judged, state::problem);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.message, "OID: the result");
    EXPECT_EQ(r.values[2].id, 1000u);
}

TEST(result, a_long_list_is_cut) {
    record_builder get{
        .ui32 = {57, 5, 7, 0, 6}, .i64 = {9}, .d64 = {1.5}, .strings = {"New results"}};
    get.nested.assign(3000, object(9, 0, "1"));
    std::string list;
    for (int i = 0; i < 3000; i++) {
        list += "a|1|0;";
    }
    for (const std::string& bytes : {get.bytes(), mysql_record(list)}) {
        result r = only({bytes});
        EXPECT_EQ(r.values.back().id, value_listed + max_listed - 1);
    }
}

TEST(result, values_of_mysql) {
    EXPECT_EQ(values_of(only({mysql_record("Threads_connected|150|2;")})), "time 12ms, result 150");
    EXPECT_EQ(values_of(only({mysql_record("a|1.5|0;b| |2;c|ON|2;d|4|0;e|5e|2;f|6")})),
              "time 12ms, result 1.5, result 4 4");
    EXPECT_EQ(values_of(only({mysql_record("Error_Message|Can't connect; (111|2)|3;")})),
              "time 12ms");
    EXPECT_EQ(values_of(only({mysql_record(";;|;||;x||0;7")})), "time 12ms");
}

TEST(result, rows_of_a_table) {
    std::string columns = record_builder{.ui32 = {9, 8}, .strings = {"ifIndex", "ifDescr"}}.bytes();
    record_builder table{
        .ui32 = {67, 5, 7, 0}, .i64 = {9}, .strings = {"New results are available."}};
    EXPECT_EQ(values_of(only({table.bytes()})), "rows 0");
    table.nested = {columns, record_builder{.ui32 = {0, 0, 0, 1, 1, 0, 1, 1, 2, 0, 2, 1},
                                            .strings = {"1", "lo", "2", "eth0", "3", "eth1"}}
                                 .bytes()};
    EXPECT_EQ(values_of(only({table.bytes()})), "rows 3");
}

TEST(result, names) {
    EXPECT_EQ(value_name(66, 4), "load1");
    EXPECT_EQ(value_name(66, 0), "value 0");
    EXPECT_EQ(value_name(66, 7), "value 7") << "a status is no value";
    EXPECT_EQ(value_name(66, 1000), "value 1000");
    EXPECT_EQ(value_name(43, 3), "value 3") << "a process id is no value";
    EXPECT_EQ(value_name(43, 100), "processes");
    EXPECT_EQ(value_name(46, 100), "value 100");
    EXPECT_EQ(value_name(67, 102), "rows");
    EXPECT_EQ(value_name(57, 1001), "object 2");
    EXPECT_EQ(value_name(57, 1256), "value 1256");
    EXPECT_EQ(value_name(74, 1000), "result");
    EXPECT_EQ(value_name(74, 6), "value 6") << "a text is no value";
    EXPECT_EQ(value_name(99, 4294967295u), "value 4294967295");
    EXPECT_EQ(value_unit(38, 4), "B/s");
    EXPECT_EQ(value_unit(38, 5), "/s");
    EXPECT_EQ(value_unit(43, 6), "%");
    EXPECT_EQ(value_unit(43, 100), "");
    EXPECT_EQ(value_unit(99, 4), "");
}

TEST(result, records_of_one_pass_are_one_result) {
    std::vector<std::string> records = {
        process_record(10, 900, 1.5), process_record(11, 900, 20, 2, "Current CPU usage\n"),
        process_record(12, 900, 30, 2, "another\n"), process_record(13, 900, 2)};
    result_builder builder(true);
    builder.add(records[0], 1000);
    builder.add(records[1], 1000);
    builder.add(records[2], 1060); /* the next block */
    builder.add(records[3], 1060);
    builder.add(process_record(10, 960, 1), 1060);
    std::vector<result> all = builder.take_all();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].received, 1000);
    EXPECT_EQ(all[0].judged, state::problem);
    EXPECT_EQ(all[0].status, 2);
    EXPECT_EQ(all[0].message, "Current CPU usage\n");
    EXPECT_EQ(values_of(all[0]), "cpu 53.5%, resident 80MB, virtual 1200MB, processes 4");
    EXPECT_EQ(all[0].records, records);
    EXPECT_EQ(all[1].time, 960);
    EXPECT_EQ(all[1].judged, state::ok);
    EXPECT_TRUE(builder.take_all().empty());
}

TEST(result, a_pass_over_processes_may_take_two_seconds) {
    std::vector<result> all =
        results_of({process_record(10, 900, 1), process_record(11, 901, 1),
                    process_record(12, 902, 1), process_record(13, 903, 1), /* too late */
                    process_record(13, 904, 1),                             /* no other process */
                    process_record(9, 905, 1), /* begins at the front */
                    load_record(5, 906), load_record(5, 907)});
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(all[0].time, 900);
    EXPECT_EQ(all[0].records.size(), 3u);
    EXPECT_EQ(all[1].time, 903);
    EXPECT_EQ(all[5].time, 907);
}

TEST(result, what_comes_again_is_left_out) {
    std::vector<std::string> pass = {process_record(10, 900, 1), process_record(11, 900, 2),
                                     process_record(12, 901, 4)};
    std::vector<std::string> twice = pass;
    twice.insert(twice.end(), pass.begin(), pass.end());
    result r = only(twice);
    EXPECT_EQ(r.records, pass);
    EXPECT_EQ(values_of(r), "cpu 7%, resident 60MB, virtual 900MB, processes 3");
}

TEST(result, another_revision_is_another_result) {
    std::string changed = with_word(load_record(5, 900), 32 + 8, 8);
    EXPECT_EQ(results_of({load_record(5, 900), changed}).size(), 2u);
}

TEST(result, what_came_last_of_a_pass_holds) {
    std::string other =
        record_builder{.ui32 = {66, 5, 7, 2}, .i64 = {900}, .d64 = {9, 8, 7}}.bytes();
    result r = only({load_record(5, 900, 0), other, load_record(5, 900, 0, "well\n")});
    EXPECT_EQ(r.judged, state::problem) << "the worst";
    EXPECT_EQ(values_of(r), "load1 0.5, load5 0.25, load15 0.125");
    EXPECT_EQ(r.records.size(), 3u);
}

TEST(result, mysql_has_a_result_for_each_record) {
    result_builder builder(false);
    builder.add(mysql_record("a|1|0;", 896), 1000);
    builder.add(mysql_record("a|1|0;", 896), 1000);
    builder.add(mysql_record("a|1|0;", 896), 1060);
    std::vector<result> all = builder.take_all();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].time, 1000);
    EXPECT_EQ(all[0].claimed, 896);
    EXPECT_EQ(all[2].time, 1060);
    EXPECT_TRUE(all[0].records.empty());
}

TEST(result, a_clock_that_is_ahead) {
    std::vector<result> all = results_of({load_record(5, 1300), load_record(5, 1301)}, 1000);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].time, 1300);
    EXPECT_EQ(all[1].time, 1000);
    EXPECT_EQ(all[1].claimed, 1301);
}

TEST(result, records_of_no_known_type) {
    std::string strange = record_builder{.ui32 = {99, 5}, .i64 = {9}}.bytes();
    std::vector<result> all = results_of({strange, strange, "no record"}, 1000);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].time, 1000);
    EXPECT_EQ(all[0].claimed, 1000);
    EXPECT_EQ(all[0].judged, state::unknown);
    EXPECT_EQ(all[0].status, std::nullopt);
    EXPECT_TRUE(all[0].values.empty());
}

TEST(result, times_at_the_ends) {
    int64_t least = std::numeric_limits<int64_t>::min(), most = std::numeric_limits<int64_t>::max();
    EXPECT_EQ(results_of({process_record(1, least, 1), process_record(2, most, 1),
                          process_record(3, least, 1)})
                  .size(),
              3u);
}

#include "show/json.h"
#include "show/record_text.h"

#include "base/text.h"
#include "collector_test_support.h"

#include <boost/json.hpp>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

static record decode(const std::string& bytes) {
    record r;
    std::string reason;
    EXPECT_TRUE(decode_record(bytes, r, reason)) << reason;
    return r;
}

static std::string json_of(const std::string& bytes, const std::string& agent = "web1") {
    return record_json("a@b.c", agent, 1777, decode(bytes));
}

TEST(schema, load_average) {
    std::string bytes = load_record(5, 1700000000, 2, "too high\n");
    record r = decode(bytes);
    record_summary summary = summarize(r);
    ASSERT_NE(summary.schema, nullptr);
    EXPECT_EQ(summary.type, 66u);
    EXPECT_EQ(summary.test, 5);
    EXPECT_EQ(summary.location, 7);
    EXPECT_EQ(summary.status, 2);
    EXPECT_EQ(summary.time, 1700000000);
    EXPECT_EQ(summary.message, "too high\n");
    EXPECT_EQ(values_text(r, summary), "load1 0.5 load5 0.25 load15 0.125");
    EXPECT_EQ(type_name(66), "load average");
}

/* One record of each type, and how it is shown. */
TEST(schema, every_type) {
    const double none = 18446744073709551616.0;
    struct {
        record_builder built;
        const char *name, *values, *json;
    } const cases[] = {
        {{.ui32 = {38, 5, 7, 1, 2, 3, 4, 5, 6, 2}, .i64 = {9}, .strings = {"m"}},
         "network",
         "received 1 B/s received_packets 2/s received_errors 3/s sent 4 B/s sent_packets 5/s "
         "sent_errors 6/s",
         R"("status":2,"status_text":"limit reached","values":{"received":1,"received_packets":2,)"
         R"("received_errors":3,"sent":4,"sent_packets":5,"sent_errors":6},"message":"m"})"},
        {{.ui32 = {74, 5, 7, 3, 12}, .i64 = {9}, .strings = {"Uptime|9|0;", "m"}},
         "mysql",
         "time 12 ms result Uptime|9|0;",
         R"("status":3,"status_text":"failed","values":{"time":12,"result":"Uptime|9|0;"},)"
         R"("message":"m"})"},
        {{.ui32 = {43, 5, 7, 123, 3}, .i64 = {9}, .d64 = {1.5, 2, 3}, .missing_strings = 1},
         "process",
         "pid 123 cpu 1.5% resident 2 MB virtual 3 MB",
         R"("status":3,"status_text":"not found","values":{"pid":123,"cpu":1.5E0,"resident":2E0,)"
         R"("virtual":3E0},"message":""})"},
        {{.ui32 = {46, 5, 7, 0}, .i64 = {9}, .d64 = {40, 9.5}, .strings = {"m"}},
         "disk",
         "total 40 GB available 9.5 GB",
         R"("status":0,"status_text":"ok","values":{"total":4E1,"available":9.5E0},"message":"m"})"},
        {{.ui32 = {48, 5, 7, 2, 3}, .i64 = {9}, .d64 = {0.25}, .strings = {"m"}},
         "ping",
         "round_trip 0.25 ms lost 3",
         R"("status":2,"status_text":"failed","values":{"round_trip":2.5E-1,"lost":3},)"
         R"("message":"m"})"},
        {{.ui32 = {49, 5, 7, 0, 12, 200, 37}, .i64 = {9}, .strings = {"m"}},
         "http",
         "time 12 ms code 200 size 37 bytes",
         R"("status":0,"status_text":"ok","values":{"time":12,"code":200,"size":37},)"
         R"("message":"m"})"},
        {{.ui32 = {47, 5, 7, 0},
          .i64 = {9},
          .d64 = {1, 2, 3, 4, 5, 6, none, none},
          .strings = {"m"}},
         "memory",
         "free 1 MB total 2 MB swap_free 3 MB swap_total 4 MB buffers 5 MB cached 6 MB "
         "virtual_total n/a virtual_free n/a",
         R"("status":0,"status_text":"ok","values":{"free":1E0,"total":2E0,"swap_free":3E0,)"
         R"("swap_total":4E0,"buffers":5E0,"cached":6E0,"virtual_total":null,"virtual_free":null},)"
         R"("message":"m"})"},
    };
    for (const auto& c : cases) {
        std::string bytes = c.built.bytes();
        record r = decode(bytes);
        record_summary summary = summarize(r);
        ASSERT_NE(summary.schema, nullptr) << c.name;
        EXPECT_EQ(type_name(summary.type), c.name);
        EXPECT_EQ(summary.test, 5);
        EXPECT_EQ(summary.location, 7);
        EXPECT_EQ(summary.time, 9);
        EXPECT_EQ(values_text(r, summary), c.values);
        std::string text = json_of(bytes);
        EXPECT_EQ(text.substr(text.find("\"status\":")), c.json);
    }
}

TEST(schema, processors_are_parts_of_the_cpu_record) {
    record_builder part{.ui32 = {2}, .d64 = {10, 20, 30, 40, 0}, .strings = {"high\n"}};
    record_builder odd{.ui32 = {1, 2}};
    record_builder whole{.ui32 = {44, 5, 7, 0},
                         .i64 = {9},
                         .d64 = {1, 2, 3, 94, 0},
                         .strings = {"fine\n"},
                         .nested = {part.bytes(), odd.bytes()}};
    std::string bytes = whole.bytes();
    record r = decode(bytes);
    EXPECT_EQ(values_text(r, summarize(r)), "user 1% system 3% nice 2% idle 94% iowait 0%");
    std::string text = json_of(bytes);
    EXPECT_EQ(text.substr(text.find("\"message\":\"fine")),
              R"("message":"fine\n","processors":[{"status":2,"status_text":"limit reached",)"
              R"("values":{"user":1E1,"system":3E1,"nice":2E1,"idle":4E1,"iowait":0E0},)"
              R"("message":"high\n"},{"ui32":[1,2]}]})");
}

TEST(schema, a_local_cpu_is_uncrossed_in_its_messages_too) {
    const std::string sent =
        "User CPU usage: 10.00 / Max value: 10\n"
        "System CPU usage: 20.00 / Max value: 20\n"
        "Nice CPU usage: 30.00 / Max value: 30\n"
        "CPU Idle: 30.00 / Min value: 31\nSystem CPU usages\nSystem CPU usage: "
        "cut";
    const std::string meant = "User CPU usage: 10.00 / Max value: 10\n"
                              "Nice CPU usage: 20.00 / Max value: 20\n"
                              "System CPU usage: 30.00 / Max value: 30\n"
                              "CPU Idle: 30.00 / Min value: 31\nSystem CPU usages\nNice CPU usage: "
                              "cut";
    record_builder part{.ui32 = {2}, .d64 = {10, 20, 30, 40, 0}, .strings = {sent}};
    record_builder whole{
        .ui32 = {44, 5, 7, 2}, .i64 = {9}, .d64 = {1, 2, 3, 94, 0}, .strings = {sent}};
    for (bool is_local : {false, true}) {
        if (is_local) {
            whole.nested = {part.bytes()};
        }
        std::string bytes = whole.bytes();
        record r = decode(bytes);
        record_summary summary = summarize(r);
        EXPECT_EQ(message_of(r, summary), is_local ? meant : sent);
        EXPECT_EQ(judge(r, summary).reason, is_local ? meant : sent);
        EXPECT_EQ(summary.message, sent) << "what was sent is as it was";
        std::string text = json_of(bytes);
        EXPECT_EQ(text.find("System CPU usage: 20") == text.npos, is_local);
        EXPECT_EQ(text.find("Nice CPU usage: 30") == text.npos, is_local);
        if (is_local) {
            EXPECT_NE(text.find("System CPU usage: 30.00", text.find("\"processors\"")), text.npos);
        } else {
            EXPECT_EQ(values_text(r, summary), "user 1% system 2% nice 3% idle 94% iowait 0%");
        }
    }
    whole.strings.clear();
    std::string bytes = whole.bytes();
    record r = decode(bytes);
    EXPECT_EQ(message_of(r, summarize(r)), "");
}

TEST(schema, objects_of_a_get) {
    record_builder good{.ui32 = {8, 0}, .strings = {"core-1", "OID: 1.2 the result"}};
    record_builder bad{.ui32 = {9, 2}, .strings = {"25", "too high"}};
    record_builder odd{.ui32 = {9, 0}, .strings = {"only one"}, .missing_strings = 1};
    std::string bytes = record_builder{.ui32 = {57, 5, 7, 0, 3},
                                       .i64 = {9},
                                       .d64 = {1.5},
                                       .strings = {"New results are available.\n"},
                                       .nested = {good.bytes(), bad.bytes(), odd.bytes()}}
                            .bytes();
    record r = decode(bytes);
    EXPECT_EQ(values_text(r, summarize(r)),
              "objects 3 time 1.5 ms, type 8 value core-1, type 9 value 25 (limit reached)");
    std::string text = json_of(bytes);
    EXPECT_EQ(text.substr(text.find("\"results\"")),
              R"("results":[{"status":0,"status_text":"ok","values":{"type":8,"value":"core-1"},)"
              R"("message":"OID: 1.2 the result"},{"status":2,"status_text":"limit reached",)"
              R"("values":{"type":9,"value":"25"},"message":"too high"},)"
              R"({"ui32":[9,0],"strings":["only one"]}]})");
    EXPECT_EQ(status_word(57, 3), "failed");
}

TEST(schema, a_get_is_judged_by_its_objects) {
    record_builder good{.ui32 = {8, 0}, .strings = {"core-1", "fine"}};
    record_builder bad{.ui32 = {9, 2}, .strings = {"25", "too high"}};
    record_builder short_one{.strings = {"no status"}};
    record_builder get{.ui32 = {57, 5, 7, 0, 3},
                       .i64 = {9},
                       .d64 = {1.5},
                       .strings = {"New results are available."}};
    auto judged = [](const record_builder& b) {
        std::string bytes = b.bytes();
        record r = decode(bytes);
        return judge(r, summarize(r));
    };
    EXPECT_EQ(judged(get).status, 0);
    EXPECT_EQ(judged(get).reason, "New results are available.");
    get.nested = {short_one.bytes(), good.bytes(), bad.bytes()};
    EXPECT_EQ(judged(get).status, 2);
    EXPECT_EQ(judged(get).reason, "too high");
    get.nested = {bad.bytes(), bad.bytes(), bad.bytes()};
    EXPECT_EQ(judged(get).reason, "too high (and 2 more)");
    get.ui32[3] = 3; /* it failed as a whole */
    EXPECT_EQ(judged(get).status, 3);
    EXPECT_EQ(judged(get).reason, "New results are available.");
    /* One busy processor is no problem of a machine that is within its limits. */
    record_builder busy{.ui32 = {2}, .d64 = {99, 0, 0, 1, 0}, .strings = {"busy"}};
    EXPECT_EQ(judged({.ui32 = {44, 1, 1, 0},
                      .i64 = {1},
                      .d64 = {9, 0, 0, 91, 0},
                      .strings = {"m"},
                      .nested = {busy.bytes()}})
                  .status,
              0);
    EXPECT_FALSE(judged({.ui32 = {99}}).status.has_value());
}

TEST(schema, a_line_may_be_cut_between_characters) {
    std::string bytes =
        record_builder{.ui32 = {42, 0, 0}, .i64 = {1}, .strings = {"\xc3\xa4\xc3\xb6\t\xc3\xbc\t"}}
            .bytes();
    record r = decode(bytes);
    EXPECT_EQ(values_text(r, summarize(r)), "2 \xc3\xa4\xc3\xb6 \xc3\xbc");
    EXPECT_EQ(values_text(r, summarize(r), 5), "2 \xc3\xa4 ...");
    EXPECT_EQ(values_text(r, summarize(r), 0), " ...");
}

TEST(schema, rows_of_a_table) {
    record_builder columns{.ui32 = {9, 8}, .strings = {"ifIndex", "ifDescr"}};
    record_builder cells{.ui32 = {0, 0, 0, 1, 1, 0, 1, 1}, .strings = {"1", "lo", "2", "-"}};
    auto table = [](const std::vector<std::string>& nested) {
        return record_builder{
            .ui32 = {67, 5, 7, 0}, .i64 = {9}, .strings = {"New results."}, .nested = nested}
            .bytes();
    };
    std::string bytes = table({columns.bytes(), cells.bytes()});
    record r = decode(bytes);
    EXPECT_EQ(values_text(r, summarize(r)), "2 rows of 2 columns");
    EXPECT_EQ(type_name(67), "snmp table");
    EXPECT_EQ(status_word(67, 2), "failed");
    std::string text = json_of(bytes);
    EXPECT_EQ(text.substr(text.find("\"columns\"")),
              R"("columns":["ifIndex","ifDescr"],"rows":[["1","lo"],["2","-"]]})");

    std::string empty = table({columns.bytes()});
    r = decode(empty);
    EXPECT_EQ(values_text(r, summarize(r)), "0 rows of 2 columns");
    std::string failed = table({});
    r = decode(failed);
    EXPECT_EQ(values_text(r, summarize(r)), "0 rows of 0 columns");

    /* Rows out of order, a cell too few: as they came. */
    record_builder jumps{.ui32 = {1, 0}, .strings = {"1"}};
    record_builder repeats{.ui32 = {0, 0, 0, 0}, .strings = {"1", "2"}};
    record_builder lacks{.ui32 = {0, 0, 0, 1}, .strings = {"1"}, .missing_strings = 1};
    for (const record_builder& odd : {jumps, repeats, lacks}) {
        std::string shown = json_of(table({columns.bytes(), odd.bytes()}));
        EXPECT_EQ(shown.find("\"rows\""), shown.npos) << shown;
        EXPECT_NE(shown.find("\"nested\""), shown.npos) << shown;
    }
}

TEST(schema, hosts_that_a_scan_found) {
    record_builder extra{.strings = {"1.3.6.1.2.1.1.4.0", "N/A"}};
    std::string bytes = record_builder{
        .ui32 = {40, 5, 7},
        .i64 = {9},
        .d64 = {0},
        .strings = {"10.0.0.1", "core", "Linux", "N/A", "1.3.6"},
        .nested = {
            extra.bytes()}}.bytes();
    record r = decode(bytes);
    record_summary summary = summarize(r);
    EXPECT_EQ(summary.test, 5);
    EXPECT_EQ(summary.message, "10.0.0.1");
    EXPECT_FALSE(summary.status.has_value());
    EXPECT_EQ(values_text(r, summary), "name core description Linux object N/A object_id 1.3.6, "
                                       "oid 1.3.6.1.2.1.1.4.0 value N/A");
    std::string text = json_of(bytes);
    EXPECT_EQ(text.substr(text.find("\"status_text\"")),
              R"("status_text":null,"values":{"name":"core","description":"Linux","object":"N/A",)"
              R"("object_id":"1.3.6"},"message":"10.0.0.1","objects":[{"values":)"
              R"({"oid":"1.3.6.1.2.1.1.4.0","value":"N/A"}}]})");

    std::string last =
        record_builder{.ui32 = {40, 5, 7}, .i64 = {9}, .d64 = {0}, .strings = {"finished"}}.bytes();
    r = decode(last);
    EXPECT_EQ(values_text(r, summarize(r)), "");
    EXPECT_EQ(summarize(r).message, "finished");
}

TEST(schema, inventories_list_what_there_is) {
    struct {
        uint32_t type;
        const char *name, *list;
    } const cases[] = {{39, "network interfaces", "interfaces"},
                       {42, "process names", "names"},
                       {45, "file systems", "file_systems"}};
    for (const auto& c : cases) {
        std::string bytes =
            record_builder{.ui32 = {c.type, 0, 0}, .i64 = {9}, .strings = {"a b\tc\t"}}.bytes();
        record r = decode(bytes);
        record_summary summary = summarize(r);
        ASSERT_NE(summary.schema, nullptr) << c.name;
        EXPECT_EQ(type_name(c.type), c.name);
        EXPECT_FALSE(summary.test.has_value());
        EXPECT_FALSE(summary.status.has_value());
        EXPECT_EQ(summary.time, 9);
        EXPECT_EQ(summary.message, "");
        EXPECT_EQ(values_text(r, summary), "2 a b c");
        std::string text = json_of(bytes);
        EXPECT_EQ(text.substr(text.find("\"test\":")),
                  std::string(R"("test":null,"location":null,"time":9,"status":null,)") +
                      R"("status_text":null,"values":{")" + c.list +
                      R"(":["a b","c"]},"message":""})");
        record_builder empty{.ui32 = {c.type, 0, 0}, .i64 = {9}};
        empty.missing_strings = 1;
        std::string none = empty.bytes();
        record nothing = decode(none);
        EXPECT_EQ(values_text(nothing, summarize(nothing)), "0");
    }
}

TEST(schema, ids_are_signed) {
    std::string bytes = load_record(0xffffffffu, 1);
    EXPECT_EQ(summarize(decode(bytes)).test, -1);
}

TEST(schema, a_message_may_be_missing) {
    record_builder b{.ui32 = {66, 5, 7, 0}, .i64 = {1}, .d64 = {1, 2, 3}};
    b.missing_strings = 1;
    std::string bytes = b.bytes();
    record r = decode(bytes);
    ASSERT_NE(summarize(r).schema, nullptr);
    EXPECT_EQ(summarize(r).message, "");
}

TEST(schema, a_record_that_lacks_what_its_type_needs_is_shown_generically) {
    for (const record_builder& b :
         {record_builder{.ui32 = {66, 5, 7}, .i64 = {1}, .d64 = {1, 2, 3}},
          record_builder{.ui32 = {66, 5, 7, 0}, .d64 = {1, 2, 3}},
          record_builder{.ui32 = {66, 5, 7, 0}, .i64 = {1}, .d64 = {1, 2}}}) {
        std::string bytes = b.bytes();
        record r = decode(bytes);
        EXPECT_EQ(summarize(r).schema, nullptr);
        EXPECT_FALSE(summarize(r).test.has_value());
    }
}

TEST(schema, status_words) {
    EXPECT_EQ(status_word(type_cpu, 0), "ok");
    EXPECT_EQ(status_word(type_cpu, 2), "limit reached");
    EXPECT_EQ(status_word(type_ping, 2), "failed");
    EXPECT_EQ(status_word(99, 2), "limit reached"); /* a type without a row */
    EXPECT_EQ(status_word(type_cpu, 3), "not found");
    EXPECT_EQ(status_word(type_cpu, 10), "remote query failed");
    EXPECT_EQ(status_word(type_cpu, -7), "status -7");
}

TEST(schema, unknown_types_print_all_they_hold) {
    std::string leaf = record_builder{.ui32 = {1}}.bytes();
    std::string bytes = record_builder{
        .i32 = {-1},
        .ui32 = {99, 2},
        .i64 = {3},
        .ui64 = {4},
        .d64 = {5.5, 1e300},
        .strings = {"a text"},
        .nested = {leaf}}.bytes();
    record r = decode(bytes);
    EXPECT_EQ(values_text(r, summarize(r)),
              "i32 -1 ui32 99 2 i64 3 ui64 4 d64 5.5 1e+300 \"a text\" 1 nested");
    EXPECT_EQ(type_name(99), "type 99");
    std::string many = record_builder{.ui32 = std::vector<uint32_t>(17, 8)}.bytes();
    record long_one = decode(many);
    EXPECT_EQ(values_text(long_one, summarize(long_one)),
              "ui32 8 8 8 8 8 8 8 8 8 8 8 8 8 8 8 8 ...");
}

TEST(json, a_test_result) {
    boost::json::value expected = {{"agent", "web1"},
                                   {"account", "a@b.c"},
                                   {"received", 1777},
                                   {"type", 66},
                                   {"name", "load average"},
                                   {"test", 5},
                                   {"location", 7},
                                   {"time", 1700000000},
                                   {"status", 2},
                                   {"status_text", "limit reached"},
                                   {"values", {{"load1", 0.5}, {"load5", 0.25}, {"load15", 0.125}}},
                                   {"message", "too high\n"}};
    std::string text = json_of(load_record(5, 1700000000, 2, "too high\n"));
    EXPECT_EQ(boost::json::parse(text), expected) << text;
    EXPECT_EQ(text.find('\n'), text.npos);
}

TEST(json, an_unknown_type_with_nested_records) {
    std::string leaf = record_builder{.ui32 = {1}, .strings = {"leaf"}}.bytes();
    std::string middle = record_builder{.nested = {leaf}}.bytes();
    std::string text = json_of(record_builder{
        .i32 = {-2},
        .ui32 = {99},
        .ui64 = {~uint64_t{0}},
        .strings = {"s"},
        .nested = {middle, leaf}}.bytes());
    boost::json::value expected = boost::json::parse(R"({
        "agent": "web1", "account": "a@b.c", "received": 1777, "type": 99, "name": "type 99",
        "test": null, "location": null, "time": null, "status": null, "status_text": null,
        "values": {"i32": [-2], "ui32": [99], "ui64": [18446744073709551615], "strings": ["s"]},
        "message": null,
        "nested": [{"nested": [{"ui32": [1], "strings": ["leaf"]}]}, {"ui32": [1], "strings": ["leaf"]}]
    })");
    EXPECT_EQ(boost::json::parse(text), expected) << text;
}

TEST(text, numbers_that_are_none) {
    double nan = std::nan("");
    std::string bytes = record_builder{
        .ui32 = {44, 1, 1, 0},
        .i64 = {1},
        .d64 = {nan, -nan, std::numeric_limits<double>::infinity(), -1, 0},
        .strings = {"m"}}.bytes();
    record r = decode(bytes);
    EXPECT_EQ(values_text(r, summarize(r)), "user nan% system nan% nice inf% idle -1% iowait 0%");
    boost::json::value values = boost::json::parse(json_of(bytes)).at("values");
    EXPECT_TRUE(values.at("user").is_null());
    EXPECT_TRUE(values.at("system").is_null());
    bytes = record_builder{.ui32 = {99}, .d64 = {-nan}}.bytes();
    r = decode(bytes);
    EXPECT_EQ(values_text(r, summarize(r)), "ui32 99 d64 nan");
}

TEST(json, numbers_that_json_has_not_are_null) {
    double inf = std::numeric_limits<double>::infinity();
    std::string bytes =
        record_builder{.ui32 = {66, 1, 1, 0}, .i64 = {1}, .d64 = {std::nan(""), inf, -inf}}.bytes();
    boost::json::value parsed = boost::json::parse(json_of(bytes));
    for (const char* name : {"load1", "load5", "load15"}) {
        EXPECT_TRUE(parsed.at("values").at(name).is_null()) << name;
    }
}

TEST(json, any_bytes_in_texts_become_valid_and_harmless_json) {
    std::string all;
    for (int i = 1; i < 256; i++) {
        all += static_cast<char>(i);
    }
    all += "\xc2\x9b"
           "31m \xc3\xa4 \xe2\x82\xac \xed\xa0\x80 \xf4\x90\x80\x80 \xc0\xaf \xe2\x82";
    std::string text = json_of(load_record(1, 2, 0, all), all);
    for (unsigned char byte : text) {
        EXPECT_GE(byte, 0x20u);
        EXPECT_NE(byte, 0x7fu);
    }
    EXPECT_EQ(text.find("\xc2\x9b"), text.npos);
    EXPECT_NE(text.find("\\u009b"), text.npos);
    std::string message(boost::json::parse(text).at("message").as_string());
    EXPECT_NE(message.find("\xc2\x9b"
                           "31m \xc3\xa4 \xe2\x82\xac "),
              message.npos);
    EXPECT_EQ(message, valid_utf8(all));
}

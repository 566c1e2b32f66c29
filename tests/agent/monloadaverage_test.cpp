/* Load average checker: limits, messages, bytes of the record, remote query, lifecycle. */
#include "monloadaverage.cpp"

#include "at_rest.h"
#include "checker_place.h"
#include "fake_core.h"

#include <atomic>
#include <thread>

static std::atomic<int> wake_ups{0};
static std::atomic<bool> list_was_free{false};
void send_pending_data() {
    list_was_free = is_free(lda.mon_mutex);
    wake_ups++;
}

namespace {

struct lda_record {
    uint32_t type, test, location, status;
    int64_t time;
    double la[3];
    std::string message;
};

/* Reads type 66 from its fixed places: header of 32 bytes, 4 UI32, 1 I64, 3 D64, the message. */
lda_record read_record(const char* bytes, size_t size) {
    uint32_t header[8];
    memcpy(header, bytes, sizeof header);
    const uint32_t expected[8] = {static_cast<uint32_t>(size), 0, 4, 1, 0, 3, 1, 0};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(expected[i], header[i]) << "header word " << i;
    }
    lda_record r;
    memcpy(&r.type, bytes + 32, 4);
    memcpy(&r.test, bytes + 36, 4);
    memcpy(&r.location, bytes + 40, 4);
    memcpy(&r.status, bytes + 44, 4);
    memcpy(&r.time, bytes + 48, 8);
    memcpy(r.la, bytes + 56, 24);
    r.message.assign(bytes + 80, size - 81);
    EXPECT_EQ('\0', bytes[size - 1]);
    return r;
}

std::vector<lda_record> take_records() {
    char* data = nullptr;
    int size = 0;
    std::vector<lda_record> records;
    if (!get_lda_results(&data, &size)) {
        return records;
    }
    for (int at = 0; at < size;) {
        uint32_t length;
        memcpy(&length, data + at, 4);
        records.push_back(read_record(data + at, length));
        at += static_cast<int>(length);
    }
    free(data);
    return records;
}

const char WITHIN[] = "Load Average values are within acceptable limits\n";

class LoadAverage : public checker_place {
protected:
    void SetUp() override {
        loadavg("0.50 1.25 2.00 1/234 5678\n");
        wake_ups = 0;
        take_log();
    }
    void TearDown() override {
        for (int id = 1; id < 10; id++) {
            rem_lda(id);
        }
        take_records();
    }
    void loadavg(const std::string& text) { write("loadavg", text); }
    void snmpget(const std::string& output) { stub("snmpget", output); }

    /* The record of the one test after one pass. */
    lda_record check() {
        do_lda_check();
        std::vector<lda_record> records = take_records();
        EXPECT_EQ(1u, records.size());
        return records.empty() ? lda_record{} : records[0];
    }
};

} // namespace

TEST_F(LoadAverage, within_limits) {
    char none[] = "";
    add_lda(1, 9, 1, 2, 3, none);
    time_t before = now_in_seconds();
    lda_record r = check();
    EXPECT_EQ(66u, r.type);
    EXPECT_EQ(1u, r.test);
    EXPECT_EQ(9u, r.location);
    EXPECT_EQ(0u, r.status);
    EXPECT_LE(before, r.time);
    EXPECT_GE(now_in_seconds(), r.time);
    EXPECT_EQ(0.50, r.la[0]);
    EXPECT_EQ(1.25, r.la[1]);
    EXPECT_EQ(2.00, r.la[2]);
    EXPECT_EQ(WITHIN, r.message);
}

TEST_F(LoadAverage, equal_to_the_maximum_counts_as_exceeded) {
    loadavg("2.00 0.00 0.00 1/1 1\n");
    add_lda(1, 1, 2, -1, -1, nullptr);
    lda_record r = check();
    EXPECT_EQ(2u, r.status);
    EXPECT_EQ("Load Average 1 min value: 2.00 / Max value: 2\n", r.message);
    loadavg("1.99 0.00 0.00 1/1 1\n");
    EXPECT_EQ(0u, check().status);
}

TEST_F(LoadAverage, only_the_limit_that_is_reached_is_named) {
    loadavg("9.00 3.50 9.00 1/1 1\n");
    add_lda(1, 1, -1, 1, -1, nullptr);
    lda_record r = check();
    EXPECT_EQ(2u, r.status);
    EXPECT_EQ("Load Average 5 min value: 3.50 / Max value: 1\n", r.message);
}

TEST_F(LoadAverage, all_three_in_the_order_of_the_minutes) {
    loadavg("3.125 4.5 5.999 1/1 1\n");
    add_lda(1, 1, 1, 2, 3, nullptr);
    EXPECT_EQ("Load Average 1 min value: 3.12 / Max value: 1\n"
              "Load Average 5 min value: 4.50 / Max value: 2\n"
              "Load Average 15 min value: 6.00 / Max value: 3\n",
              check().message);
}

TEST_F(LoadAverage, all_disabled_is_always_within) {
    loadavg("99 99 99\n");
    add_lda(1, 1, -1, -1, -1, nullptr);
    lda_record r = check();
    EXPECT_EQ(0u, r.status);
    EXPECT_EQ(WITHIN, r.message);
}

TEST_F(LoadAverage, zero_is_a_maximum_like_any_other) {
    loadavg("0.00 0.00 0.00 1/1 1\n");
    add_lda(1, 1, 0, -1, -1, nullptr);
    EXPECT_EQ(2u, check().status);
}

TEST_F(LoadAverage, a_text_that_is_no_number_gives_zeros) {
    add_lda(1, 1, 1, 1, 1, nullptr);
    loadavg("garbage\n");
    lda_record r = check();
    EXPECT_EQ(0.0, r.la[0]);
    EXPECT_EQ(0.0, r.la[2]);
    loadavg("1.5 x 3\n");
    r = check();
    EXPECT_EQ(1.5, r.la[0]);
    EXPECT_EQ(0.0, r.la[1]);
    EXPECT_EQ(0.0, r.la[2]);
}

TEST_F(LoadAverage, each_number_begins_where_the_last_one_ended) {
    loadavg("1.5.25-3");
    add_lda(1, 1, -1, -1, -1, nullptr);
    lda_record r = check();
    EXPECT_EQ(1.5, r.la[0]);
    EXPECT_EQ(0.25, r.la[1]);
    EXPECT_EQ(-3.0, r.la[2]);
}

TEST_F(LoadAverage, nothing_behind4096_bytes_is_read) {
    add_lda(1, 1, -1, -1, -1, nullptr);
    loadavg(std::string(4095, ' ') + "12 2 3\n");
    lda_record r = check();
    EXPECT_EQ(1.0, r.la[0]);
    EXPECT_EQ(0.0, r.la[1]);
}

TEST_F(LoadAverage, huge_numbers_fit_the_message) {
    loadavg("1e308 1e308 -1e308\n");
    add_lda(1, 1, 2147483647, 1, 1, nullptr);
    lda_record r = check();
    EXPECT_EQ(2u, r.status);
    EXPECT_GT(r.message.size(), 600u);
}

TEST_F(LoadAverage, without_the_file_there_is_no_record_not_even_a_remote_one) {
    char host[] = "127.0.0.1";
    add_lda(1, 1, 1, 1, 1, nullptr);
    add_lda(2, 1, 1, 1, 1, host);
    snmpget("");
    loadavg("");
    do_lda_check();
    EXPECT_TRUE(take_records().empty());
    remove("loadavg");
    do_lda_check();
    EXPECT_TRUE(take_records().empty());
    EXPECT_EQ("", asked());
    EXPECT_EQ(0, wake_ups);
    loadavg("1 1 1\n");
    do_lda_check();
    EXPECT_EQ(2u, take_records().size());
    EXPECT_EQ(1, wake_ups); /* the tests were still new */
}

TEST_F(LoadAverage, remote_values) {
    char host[] = "10.1.2.3:161";
    snmpget("UCD-SNMP-MIB::laLoad.1 = STRING: 0.50\nUCD-SNMP-MIB::laLoad.2 = STRING: 1.75\n"
            "UCD-SNMP-MIB::laLoad.3 = STRING: 12.00\n");
    add_lda(1, 1, 1, 1, 20, host);
    host[0] = 'x'; /* the test has a copy */
    lda_record r = check();
    EXPECT_EQ(2u, r.status);
    EXPECT_EQ(0.50, r.la[0]);
    EXPECT_EQ(1.75, r.la[1]);
    EXPECT_EQ(12.00, r.la[2]);
    EXPECT_EQ("Load Average 5 min value: 1.75 / Max value: 1\n", r.message);
    EXPECT_EQ("-v 1 -t 1 -c public 10.1.2.3:161 1.3.6.1.4.1.2021.10.1.3.1 "
              "1.3.6.1.4.1.2021.10.1.3.2 1.3.6.1.4.1.2021.10.1.3.3\n",
              asked());
}

TEST_F(LoadAverage, remote_values_in_quotes) {
    char host[] = "h";
    snmpget("iso.3.6.1.4.1.2021.10.1.3.1 = STRING: \"0.50\"\niso.2 = STRING: \"1.75\"\n"
            "iso.3 = STRING: \"2.25\"\n");
    add_lda(1, 1, -1, -1, -1, host);
    lda_record r = check();
    EXPECT_EQ(0.50, r.la[0]);
    EXPECT_EQ(1.75, r.la[1]);
    EXPECT_EQ(2.25, r.la[2]);
}

TEST_F(LoadAverage, remote_failures) {
    char host[] = "h";
    add_lda(1, 1, 1, 1, 1, host);
    for (const char* output :
         {"", "a = STRING: 1\nb = STRING: 2\n", "a = STRING: 1\nb = INTEGER: 2\nc = STRING: 3\n",
          "a = INTEGER: 1\nb = STRING: 1\nc = STRING: 2\nd = STRING: 3\n", "no equals sign\n",
          "a = STRING: 1\n\n=\n"}) {
        snmpget(output);
        lda_record r = check();
        EXPECT_EQ(10u, r.status) << output;
        EXPECT_EQ("Remote load average test failed\n", r.message);
        for (double la : r.la) {
            EXPECT_EQ(-1.0, la);
        }
    }
}

TEST_F(LoadAverage, lines_beyond_the_third_are_not_looked_at) {
    char host[] = "h";
    snmpget("a = STRING: 1\nb = STRING: 2\nc = STRING: 3\nd = INTEGER: 4\n");
    add_lda(1, 1, -1, -1, -1, host);
    EXPECT_EQ(0u, check().status);
}

TEST_F(LoadAverage, an_unsafe_host_starts_nothing_and_fails) {
    char host[] = "h;touch /tmp/x";
    snmpget("a = STRING: 1\nb = STRING: 2\nc = STRING: 3\n");
    add_lda(1, 1, -1, -1, -1, host);
    EXPECT_EQ(10u, check().status);
    EXPECT_EQ("", asked());
}

TEST_F(LoadAverage, two_tests_of_one_host_ask_twice) {
    char host[] = "h";
    snmpget("a = STRING: 1\nb = STRING: 2\nc = STRING: 3\n");
    add_lda(1, 1, -1, -1, -1, host);
    add_lda(2, 1, -1, -1, -1, host);
    do_lda_check();
    EXPECT_EQ(2u, take_records().size());
    std::string all = asked();
    EXPECT_EQ(2, std::count(all.begin(), all.end(), '\n'));
}

TEST_F(LoadAverage, remote_parameters_are_the_callers) {
    snmpget("a = STRING: 1\nb = STRING: 2\nc = STRING: 3\n");
    double* la = nullptr;
    ASSERT_EQ(1, get_remote_la_params("h", &la));
    EXPECT_EQ(3.0, la[2]);
    free(la);
    la = nullptr;
    EXPECT_EQ(0, get_remote_la_params("-h", &la));
    EXPECT_EQ(nullptr, la);
}

TEST_F(LoadAverage, add_logs_and_keeps_the_first) {
    add_lda(1, 2, 3, 4, 5, nullptr);
    EXPECT_EQ("5 INFO: add_lda. Added test. tid:1, lid:2, la1:3, la5:4, la15:5\n", take_log_text());
    char host[] = "h";
    add_lda(1, 7, 8, 9, 10, host);
    add_lda(0, 7, 8, 9, 10, nullptr);
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ(2u, check().location);
}

TEST_F(LoadAverage, modify_replaces_everything_the_host_included) {
    char host[] = "h";
    snmpget("");
    modify_lda(1, 1, 1, 1, 1, nullptr);
    add_lda(1, 2, 1, 1, 1, host);
    EXPECT_EQ(10u, check().status);
    take_log();
    char none[] = "";
    modify_lda(1, 5, 6, 7, 8, none); /* an empty host makes it a test of this machine */
    EXPECT_EQ("5 INFO: modify_lda. Modified test. tid:1, lid:5, la1:6, la5:7, la15:8\n",
              take_log_text());
    lda_record r = check();
    EXPECT_EQ(0u, r.status);
    EXPECT_EQ(5u, r.location);
    modify_lda(1, 5, 6, 7, 8, host);
    EXPECT_EQ(10u, check().status);
    take_log();
    modify_lda(0, 1, 1, 1, 1, nullptr);
    modify_lda(9, 1, 1, 1, 1, nullptr);
    EXPECT_EQ("", take_log_text());
}

TEST_F(LoadAverage, modify_replaces_every_maximum) {
    add_lda(1, 9, -1, -1, -1, nullptr);
    modify_lda(1, 9, 1, 2, 3, nullptr);
    loadavg("3 2 1\n");
    EXPECT_EQ("Load Average 1 min value: 3.00 / Max value: 1\n"
              "Load Average 5 min value: 2.00 / Max value: 2\n",
              check().message);
    modify_lda(1, 9, 4, 3, 1, nullptr);
    EXPECT_EQ("Load Average 15 min value: 1.00 / Max value: 1\n", check().message);
}

TEST_F(LoadAverage, add_and_modify_wake_the_worker_when_they_changed_something) {
    unsigned before = wakes_of(lda);
    modify_lda(1, 9, 1, 1, 1, nullptr);
    add_lda(0, 9, 1, 1, 1, nullptr);
    EXPECT_EQ(before, wakes_of(lda));
    add_lda(1, 9, 1, 1, 1, nullptr);
    EXPECT_EQ(before + 1, wakes_of(lda));
    add_lda(1, 9, 2, 2, 2, nullptr);
    modify_lda(0, 9, 2, 2, 2, nullptr);
    modify_lda(2, 9, 2, 2, 2, nullptr);
    EXPECT_EQ(before + 1, wakes_of(lda));
    modify_lda(1, 9, 2, 2, 2, nullptr);
    EXPECT_EQ(before + 2, wakes_of(lda));
    rem_lda(1);
    EXPECT_EQ(before + 2, wakes_of(lda));
}

TEST_F(LoadAverage, a_pass_locks_the_list) {
    char host[] = "h";
    waiting_stub("snmpget", "a = STRING: 1\nb = STRING: 2\nc = STRING: 3\n");
    add_lda(1, 9, 1, 1, 1, nullptr);
    add_lda(2, 9, 1, 1, 1, host);
    expect_pass_locks_the_list(lda, do_lda_check, get_lda_results);
}

TEST_F(LoadAverage, a_stop_ends_the_pass) {
    char host[] = "h";
    waiting_stub("snmpget", "a = STRING: 1\nb = STRING: 2\nc = STRING: 3\n");
    for (int id = 1; id <= 4; id++) {
        add_lda(id, 9, 1, 1, 1, id == 2 || id == 3 ? host : nullptr);
    }
    expect_stop_ends_the_pass(lda, do_lda_check, set_lda_check_interval, get_lda_results);
}

TEST_F(LoadAverage, remove_keeps_the_order_and_what_was_measured) {
    for (int id : {3, 1, 2}) {
        add_lda(id, 0, 1, 1, 1, nullptr);
    }
    do_lda_check();
    take_log();
    rem_lda(1);
    EXPECT_EQ("5 INFO: rem_lda. Removed test. tid:1\n", take_log_text());
    rem_lda(1);
    rem_lda(0);
    EXPECT_EQ("", take_log_text());
    EXPECT_EQ(3u, take_records().size()); /* results already there are still delivered */
    do_lda_check();
    std::vector<lda_record> records = take_records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(3u, records[0].test);
    EXPECT_EQ(2u, records[1].test);
    rem_lda(3);
    rem_lda(2);
    do_lda_check();
    EXPECT_TRUE(take_records().empty());
}

TEST_F(LoadAverage, only_a_pass_with_a_new_or_changed_test_wakes_the_poll_loop) {
    add_lda(1, 0, 1, 1, 1, nullptr);
    do_lda_check();
    EXPECT_EQ(1, wake_ups);
    EXPECT_TRUE(list_was_free);
    do_lda_check();
    EXPECT_EQ(1, wake_ups);
    modify_lda(1, 0, 1, 1, 1, nullptr);
    do_lda_check();
    EXPECT_EQ(2, wake_ups);
    rem_lda(1);
    do_lda_check();
    EXPECT_EQ(2, wake_ups);
}

TEST_F(LoadAverage, collecting_nothing_touches_nothing) {
    char* data = root.data();
    int size = 5;
    EXPECT_EQ(0, get_lda_results(&data, &size));
    EXPECT_EQ(root.data(), data);
    EXPECT_EQ(5, size);
    char bytes[] = "ab";
    add_lda_result(bytes, 0);
    add_lda_result(bytes, 2);
    ASSERT_EQ(1, get_lda_results(&data, &size));
    EXPECT_EQ("ab", std::string(data, static_cast<size_t>(size)));
    free(data);
}

/* The one test with the real worker, last because a stopped checker stays stopped. */
TEST_F(LoadAverage, z_lifecycle) {
    EXPECT_EQ(31536000, get_lda_check_interval());
    ASSERT_EQ(1, init_lda_mon());
    auto wait_for = [](int passes_with_news) {
        for (int i = 0; i < 60000 && wake_ups < passes_with_news; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return wake_ups >= passes_with_news;
    };
    add_lda(1, 0, 1, 1, 1, nullptr);
    set_lda_check_interval(1000);
    ASSERT_TRUE(wait_for(1));
    EXPECT_EQ(1000, get_lda_check_interval());
    EXPECT_TRUE(await_rest("lda"));
    add_lda(2, 0, 1, 1, 1, nullptr);
    EXPECT_TRUE(wait_for(2));

    /* Adds, changes, removes and collections from other threads while passes run. */
    set_lda_check_interval(1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([t] {
            char host[] = "-refused";
            for (int i = 0; i < 200; i++) {
                int id = 3 + (i + t) % 5;
                add_lda(id, i, 1, 1, 1, i % 7 == 0 ? host : nullptr);
                modify_lda(id, i, 2, 2, 2, nullptr);
                set_lda_check_interval(1 + i % 3);
                rem_lda(id);
                char* data = nullptr;
                int size = 0;
                if (get_lda_results(&data, &size)) {
                    free(data);
                }
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    add_lda(9, 0, 1, 1, 1, nullptr);
    do_lda_check();
    shutdown_lda_checker();
    EXPECT_EQ(-1, get_lda_check_interval());
    EXPECT_FALSE(take_records().empty()); /* what was not collected is still there */
    set_lda_check_interval(5);            /* nothing restarts it, nothing breaks */
}

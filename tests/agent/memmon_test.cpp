/* Memory checker: scaling, limits, messages, records, remote storage tables, lifecycle. */
#include "memmon.cpp"

#include "checker_place.h"
#include "fake_core.h"

#include <atomic>
#include <cstring>
#include <thread>

static std::atomic<int> wake_ups{0};
static std::atomic<bool> list_was_free{false};
void send_pending_data() {
    list_was_free = is_free(mem.mon_mutex);
    wake_ups++;
}

namespace {

const double NONE = 18446744073709551616.0;
const char WITHIN[] = "Memory usage is within acceptable limits\n";

/* As kernels of today print it, 0.5 GB free. */
const char MEMINFO[] = "MemTotal:        8054328 kB\n"
                       "MemFree:          524288 kB\n"
                       "MemAvailable:    6000000 kB\n"
                       "Buffers:          102400 kB\n"
                       "Cached:          2097152 kB\n"
                       "SwapCached:            7 kB\n"
                       "SwapTotal:       1048576 kB\n"
                       "SwapFree:        1047552 kB\n"
                       "HugePages_Total:       0\n"
                       "DirectMap4k:      186232 kB\n"
                       "DirectMap2M:     8202240 kB\n";

/* As kernels before 2.6 print it: a table in bytes, then the lines. */
const char OLD_MEMINFO[] = "        total:    used:    free:  shared: buffers:  cached:\n"
                           "Mem:  261083136 256135168  4947968        0  8880128 131776512\n"
                           "Swap: 534601728  1097728 533504000\n"
                           "MemTotal:       254964 kB\n"
                           "MemFree:          4832 kB\n"
                           "MemShared:           0 kB\n"
                           "Buffers:          8672 kB\n"
                           "Cached:         127924 kB\n"
                           "SwapCached:        764 kB\n"
                           "SwapTotal:      522072 kB\n"
                           "SwapFree:       521000 kB\n";

class Memory : public checker_place {
protected:
    void SetUp() override {
        write("meminfo", MEMINFO);
        wake_ups = 0;
        take_log();
    }
    void TearDown() override {
        for (int id = 1; id < 10; id++) {
            rem_mem(id);
        }
        take_records(get_mem_results);
    }

    /* The record of the one test after one pass. */
    udc_content check() {
        do_mem_check();
        std::vector<udc_content> records = take_records(get_mem_results);
        EXPECT_EQ(1u, records.size());
        return records.empty() ? udc_content{} : records[0];
    }
};

udc_content expected(uint32_t status, std::vector<double> sizes, const std::string& message,
                     const udc_content& seen) {
    udc_content r;
    r.ui32 = {47, 1, 9, status};
    r.i64 = seen.i64; /* the time is looked at once */
    r.d64 = std::move(sizes);
    r.declared_strings = 1;
    r.strings = {message};
    return r;
}

const std::vector<double> LOCAL = {512, 7865, 1023, 1024, 100, 2048, NONE, NONE};

} // namespace

TEST(GetScaled, finds_the_number_and_the_unit_behind_it) {
    EXPECT_EQ(1024u * 7, get_scaled("A: 7 kB\n", "A:"));
    EXPECT_EQ(1048576u * 7, get_scaled("A: 7 MB\n", "A:"));
    EXPECT_EQ(7u, get_scaled("A: 7\n", "A:"));
    EXPECT_EQ(7u, get_scaled("k M A: 7", "A:"));               /* only what follows counts */
    EXPECT_EQ(1024u * 7, get_scaled("A: 7 MB\nB: 1 k", "A:")); /* to the end of the buffer */
    EXPECT_EQ(16u, get_scaled("A:\t 0x10", "A:"));
    EXPECT_EQ(8u, get_scaled("A: 010", "A:"));
    EXPECT_EQ(~0ULL, get_scaled("A: 7 kB\n", "B:"));
    EXPECT_EQ(0u, get_scaled("A:", "A:"));
    EXPECT_EQ(7u, get_scaled("BA: 7\nA: 8\n", "A:")); /* wherever the key stands first */
}

TEST(GetMemValues, reads_unit_size_and_used) {
    unsigned long long total = 1, left = 1;
    EXPECT_EQ(0, get_mem_values("Physical memory^1024 Bytes^1000^400^0", &total, &left));
    EXPECT_EQ(1024000u, total);
    EXPECT_EQ(614400u, left);
    EXPECT_EQ(0, get_mem_values("x^4096^10", &total, nullptr));
    EXPECT_EQ(40960u, total);
    total = left = 1;
    EXPECT_EQ(1, get_mem_values("x^4096^10", &total, &left)); /* used is missing */
    EXPECT_EQ(40960u, total);
    EXPECT_EQ(1u, left);
    EXPECT_EQ(1, get_mem_values("x^4096", &total, &left));
    EXPECT_EQ(1, get_mem_values("x", &total, &left));
    EXPECT_EQ(1, get_mem_values("", &total, &left));
}

TEST_F(Memory, local_values) {
    char none[] = "";
    add_mem(1, 9, -1, -1, -1, -1, -1, none);
    time_t before = now_in_seconds();
    udc_content r = check();
    EXPECT_EQ(expected(0, LOCAL, WITHIN, r), r);
    ASSERT_EQ(1u, r.i64.size());
    EXPECT_LE(before, r.i64[0]);
    EXPECT_GE(now_in_seconds(), r.i64[0]);
}

TEST_F(Memory, old_kernels) {
    write("meminfo", OLD_MEMINFO);
    add_mem(1, 9, -1, -1, -1, -1, -1, nullptr);
    udc_content r = check();
    EXPECT_EQ(expected(0, {4, 248, 508, 509, 8, 124, NONE, NONE}, WITHIN, r), r);
}

TEST_F(Memory, every_limit) {
    add_mem(1, 9, 512, 1023, 1, 99, 2047, nullptr);
    udc_content r = check();
    EXPECT_EQ(expected(2, LOCAL,
                       "Physical memory free size: 512.00 / Min value: 512\n"
                       "Swap memory free size: 1023.00 / Min value: 1023\n"
                       "Buffers memory size: 100.00 / Max value: 99\n"
                       "Cached memory size: 2048.00 / Max value: 2047\n",
                       r),
              r);
}

TEST_F(Memory, every_limit_after_a_modify) {
    add_mem(1, 8, -1, -1, -1, -1, -1, nullptr);
    modify_mem(1, 9, 512, 1023, 1, 99, 2047, nullptr);
    udc_content r = check();
    EXPECT_EQ(expected(2, LOCAL,
                       "Physical memory free size: 512.00 / Min value: 512\n"
                       "Swap memory free size: 1023.00 / Min value: 1023\n"
                       "Buffers memory size: 100.00 / Max value: 99\n"
                       "Cached memory size: 2048.00 / Max value: 2047\n",
                       r),
              r);
}

TEST_F(Memory, nothing_behind8191_bytes_is_read) {
    const std::string summary = "Buffers: 1048576";
    write("meminfo", std::string(8191 - summary.size(), ' ') + summary + "0\nCached: 1048576\n");
    add_mem(1, 9, -1, -1, -1, -1, -1, nullptr);
    udc_content r = check();
    EXPECT_EQ(expected(0, {NONE, NONE, NONE, NONE, 1, NONE, NONE, NONE}, WITHIN, r), r);
}

/* A free amount at its minimum is too little, a buffer at its maximum is not too much. */
TEST_F(Memory, equal_values) {
    add_mem(1, 9, 511, 1022, 99999, 100, 2048, nullptr);
    udc_content r = check();
    EXPECT_EQ(expected(0, LOCAL, WITHIN, r), r);
}

TEST_F(Memory, sizes_are_whole_megabytes) {
    write("meminfo", "MemTotal: 1048575\nBuffers: 1048576\n");
    add_mem(1, 9, 0, 0, 0, 0, 0, nullptr);
    udc_content r = check();
    EXPECT_EQ(expected(2, {NONE, 0, NONE, NONE, 1, NONE, NONE, NONE},
                       "Buffers memory size: 1.00 / Max value: 0\n", r),
              r);
    write("meminfo", "Buffers: 1048575\n");
    r = check();
    EXPECT_EQ(expected(0, {NONE, NONE, NONE, NONE, 0, NONE, NONE, NONE}, WITHIN, r), r);
}

/* Limits are compared as unsigned numbers. */
TEST_F(Memory, negative_limits) {
    add_mem(1, 9, -2, -1, -1, -2, -1, nullptr);
    udc_content r = check();
    EXPECT_EQ(expected(2, LOCAL, "Physical memory free size: 512.00 / Min value: -2\n", r), r);
}

TEST_F(Memory, without_the_summary_there_are_no_records) {
    char host[] = "h";
    stub("snmptable", "");
    add_mem(1, 9, -1, -1, -1, -1, -1, host);
    remove("meminfo");
    do_mem_check();
    write("meminfo", "");
    do_mem_check();
    EXPECT_TRUE(take_records(get_mem_results).empty());
    EXPECT_EQ("", asked());
    EXPECT_EQ(0, wake_ups);
    write("meminfo", MEMINFO);
    check();
    EXPECT_EQ(1, wake_ups); /* the test was still new */
}

TEST_F(Memory, without_tests_nothing_is_read) {
    remove("meminfo");
    do_mem_check();
    EXPECT_TRUE(take_records(get_mem_results).empty());
}

TEST_F(Memory, remote_storage_table) {
    char host[] = "db.example";
    stub("snmptable",
         "1^HOST-RESOURCES-TYPES::hrStorageRam^Physical memory^1024 Bytes^4194304^3145728^0\n"
         "3^HOST-RESOURCES-TYPES::hrStorageVirtualMemory^Virtual memory^1024^6291456^3145728^0\n"
         "6^HOST-RESOURCES-TYPES::hrStorageOther^Memory buffers^1024^204800^204800^0\n"
         "7^host-resources-types::HRSTORAGEOTHER^CACHED MEMORY^1024^409600^409600^0\n"
         "8^HOST-RESOURCES-TYPES::hrStorageOther^Shared memory^1024^1^1^0\n"
         "10^HOST-RESOURCES-TYPES::hrStorageVirtualMemory^Swap space^1024^2097152^1048576^0\n"
         "31^HOST-RESOURCES-TYPES::hrStorageFixedDisk^/^4096^1^1^0\n");
    add_mem(1, 9, 1024, 1024, 3072, 199, 400, host);
    host[0] = 'x'; /* the test has a copy */
    udc_content r = check();
    EXPECT_EQ(expected(2, {1024, 4096, 1024, 2048, 200, 400, 6144, 3072},
                       "Physical memory free size: 1024.00 / Min value: 1024\n"
                       "Swap memory free size: 1024.00 / Min value: 1024\n"
                       "Virtual memory size: 3072.00 / Max value: 3072\n"
                       "Buffers memory size: 200.00 / Max value: 199\n",
                       r),
              r);
    EXPECT_EQ("-v 1 -t 1 -Ov -CHf ^ -c public db.example 1.3.6.1.2.1.25.2.3\n", asked());
}

TEST_F(Memory, silent_remote_host_has_nothing_and_is_within_limits) {
    char host[] = "h";
    add_mem(1, 9, 9, 9, 9, 9, 9, host);
    const std::vector<double> nothing(8, NONE);
    for (const char* output : {"", "\n\n^^^\n", "Timeout: No Response from h\n",
                               "1\n1^\n1^HOST-RESOURCES-TYPES::hrStorageRam\n",
                               "1^HOST-RESOURCES-TYPES::hrStorageRam^Physical memory\n",
                               "1^HOST-RESOURCES-TYPES::hrStorageRam^Physical memory^1024\n",
                               "1^hrStorageRam^Physical memory^1024^1^1\n"}) {
        stub("snmptable", output);
        udc_content r = check();
        EXPECT_EQ(expected(0, nothing, WITHIN, r), r) << output;
    }
}

TEST_F(Memory, row_without_used_gives_the_total) {
    char host[] = "h";
    stub("snmptable", "1^HOST-RESOURCES-TYPES::hrStorageRam^Physical memory^1048576^7\n");
    add_mem(1, 9, 9, 9, 9, 9, 9, host);
    udc_content r = check();
    EXPECT_EQ(expected(0, {NONE, 7, NONE, NONE, NONE, NONE, NONE, NONE}, WITHIN, r), r);
}

TEST_F(Memory, remote_virtual_memory_and_cache_have_limits) {
    char host[] = "h";
    stub("snmptable",
         "3^HOST-RESOURCES-TYPES::hrStorageVirtualMemory^Virtual memory^1048576^7^5^0\n"
         "7^HOST-RESOURCES-TYPES::hrStorageOther^Cached memory^1048576^9^8^0\n");
    add_mem(1, 9, 9, 9, 1, 9, 8, host);
    udc_content r = check();
    EXPECT_EQ(expected(2, {NONE, NONE, NONE, NONE, NONE, 9, 7, 2},
                       "Cached memory size: 9.00 / Max value: 8\n", r),
              r);
}

TEST_F(Memory, every_remote_row_counts) {
    char host[] = "h";
    std::string rows;
    for (int i = 0; i < 5000; i++) {
        rows += "9^HOST-RESOURCES-TYPES::hrStorageFixedDisk^/mnt/some/directory^4096^8^6^0\n";
    }
    stub("snmptable",
         rows + "1^HOST-RESOURCES-TYPES::hrStorageRam^Physical memory^1048576^7^5^0\n");
    add_mem(1, 9, -1, -1, -1, -1, -1, host);
    udc_content r = check();
    EXPECT_EQ(expected(0, {2, 7, NONE, NONE, NONE, NONE, NONE, NONE}, WITHIN, r), r);
}

/* Type and description of a row have to begin like a kind's, no more; a description of another
 * type's kind is none. */
TEST_F(Memory, remote_rows_match_by_their_beginning) {
    char host[] = "h";
    stub("snmptable",
         "1^HOST-RESOURCES-TYPES::hrStorageRamDisk^physical memory (DIMM)^1048576^7^5^0\n"
         "2^HOST-RESOURCES-TYPES::hrStorageRam^Virtual memory^1048576^1^1^0\n"
         "3^ HOST-RESOURCES-TYPES::hrStorageVirtualMemory^Swap space^1048576^1^1^0\n"
         "4^HOST-RESOURCES-TYPES::hrStorageOther^The memory buffers^1048576^1^1^0\n");
    add_mem(1, 9, -1, -1, -1, -1, -1, host);
    udc_content r = check();
    EXPECT_EQ(expected(0, {2, 7, NONE, NONE, NONE, NONE, NONE, NONE}, WITHIN, r), r);
}

TEST_F(Memory, query_that_cannot_be_started) {
    char host[] = "h";
    stub("snmptable", "");
    add_mem(1, 9, 9, 9, 9, 9, 9, host);
    descriptors_left one(1); /* enough for the summary, not for a pipe */
    udc_content r = check();
    EXPECT_EQ(expected(10, std::vector<double>(8, NONE), "Remote memory test failed\n", r), r);
}

TEST_F(Memory, host_that_is_none_starts_no_process) {
    char host[] = "h; touch x";
    stub("snmptable", "");
    add_mem(1, 9, 9, 9, 9, 9, 9, host);
    udc_content r = check();
    EXPECT_EQ(expected(10, std::vector<double>(8, NONE), "Remote memory test failed\n", r), r);
    EXPECT_EQ("", asked());
}

TEST_F(Memory, modify_may_turn_a_remote_test_into_a_local_one) {
    char host[] = "h", none[] = "";
    stub("snmptable", "");
    add_mem(1, 8, 9, 9, 9, 9, 9, host);
    modify_mem(1, 9, -1, -1, -1, -1, -1, none);
    udc_content r = check();
    EXPECT_EQ(expected(0, LOCAL, WITHIN, r), r);
    modify_mem(1, 9, -1, -1, -1, -1, -1, host);
    EXPECT_EQ(NONE, check().d64[0]);
}

TEST_F(Memory, add_and_modify_wake_the_worker_when_they_changed_something) {
    unsigned before = wakes_of(mem);
    modify_mem(1, 9, 1, 1, 1, 1, 1, nullptr);
    add_mem(0, 9, 1, 1, 1, 1, 1, nullptr);
    EXPECT_EQ(before, wakes_of(mem));
    add_mem(1, 9, 1, 1, 1, 1, 1, nullptr);
    EXPECT_EQ(before + 1, wakes_of(mem));
    add_mem(1, 9, 2, 1, 1, 1, 1, nullptr);
    modify_mem(0, 9, 1, 1, 1, 1, 1, nullptr);
    modify_mem(2, 9, 1, 1, 1, 1, 1, nullptr);
    EXPECT_EQ(before + 1, wakes_of(mem));
    modify_mem(1, 9, 1, 1, 1, 1, 1, nullptr);
    EXPECT_EQ(before + 2, wakes_of(mem));
    rem_mem(1);
    EXPECT_EQ(before + 2, wakes_of(mem));
}

TEST_F(Memory, a_pass_locks_the_list) {
    char host[] = "h";
    waiting_stub("snmptable", "");
    add_mem(1, 9, 1, 1, 1, 1, 1, nullptr);
    add_mem(2, 9, 1, 1, 1, 1, 1, host);
    expect_pass_locks_the_list(mem, do_mem_check, get_mem_results);
}

TEST_F(Memory, a_stop_ends_the_pass) {
    char host[] = "h";
    waiting_stub("snmptable", "");
    for (int id = 1; id <= 4; id++) {
        add_mem(id, 9, 1, 1, 1, 1, 1, id == 2 || id == 3 ? host : nullptr);
    }
    expect_stop_ends_the_pass(mem, do_mem_check, set_mem_check_interval, get_mem_results);
}

TEST_F(Memory, remove_keeps_the_order_and_what_was_measured) {
    for (int id : {3, 1, 2}) {
        add_mem(id, 9, 1, 1, 1, 1, 1, nullptr);
    }
    do_mem_check();
    rem_mem(1);
    EXPECT_EQ(3u, take_records(get_mem_results).size());
    do_mem_check();
    auto records = take_records(get_mem_results);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(3u, records[0].ui32[1]);
    EXPECT_EQ(2u, records[1].ui32[1]);
}

TEST_F(Memory, list_operations_and_their_lines) {
    add_mem(0, 9, 1, 1, 1, 1, 1, nullptr);
    modify_mem(0, 9, 1, 1, 1, 1, 1, nullptr);
    modify_mem(5, 9, 1, 1, 1, 1, 1, nullptr);
    rem_mem(0);
    rem_mem(5);
    EXPECT_EQ("", take_log_text());
    add_mem(1, 2, 3, 4, 5, 6, 7, nullptr);
    add_mem(1, 9, 9, 9, 9, 9, 9, nullptr);
    modify_mem(1, 8, 7, 6, 5, 4, 3, nullptr);
    rem_mem(1);
    EXPECT_EQ("5 INFO: add_mem. Added test. tid:1, lid:2, mem_min:3, swap_min:4, virt_min:5, "
              "buffered_max:6, cached_max:7\n"
              "5 INFO: modify_mem. Modified test. tid:1, lid:8, mem_min:7, swap_min:6, virt_min:5, "
              "buffered_max:4, cached_max:3\n"
              "5 INFO: rem_mem. Removed test. tid:1\n",
              take_log_text());
    do_mem_check();
    EXPECT_TRUE(take_records(get_mem_results).empty());
}

TEST_F(Memory, first_results_are_sent_at_once_and_only_they) {
    add_mem(1, 9, -1, -1, -1, -1, -1, nullptr);
    add_mem(2, 9, -1, -1, -1, -1, -1, nullptr);
    do_mem_check();
    EXPECT_EQ(1, wake_ups);
    EXPECT_TRUE(list_was_free);
    do_mem_check();
    EXPECT_EQ(1, wake_ups);
    modify_mem(2, 9, -1, -1, -1, -1, -1, nullptr);
    do_mem_check();
    EXPECT_EQ(2, wake_ups);
    EXPECT_EQ(6u, take_records(get_mem_results).size());
}

/* Everything at once from several threads; the sanitizers watch. */
TEST_F(Memory, changes_during_passes) {
    EXPECT_EQ(31536000, get_mem_check_interval());
    ASSERT_EQ(1, init_mem_mon());
    add_mem(9, 9, 1, 1, 1, 1, 1, nullptr);
    EXPECT_TRUE(eventually([] { return wake_ups > 0; })); /* the worker's pass */
    std::atomic<bool> stop{false};
    std::thread changes([&] {
        for (int i = 0; i < 300; i++) {
            add_mem(1 + i % 5, 9, 1, 1, 1, 1, 1, nullptr);
            modify_mem(1 + i % 3, 9, i, 1, 1, 1, 1, nullptr);
            rem_mem(1 + i % 4);
            set_mem_check_interval(1000 + i);
        }
        stop = true;
    });
    std::thread passes([&] {
        while (!stop) {
            do_mem_check();
        }
    });
    while (!stop) {
        take_records(get_mem_results);
        get_mem_check_interval();
    }
    changes.join();
    passes.join();
    shutdown_mem_checker();
    EXPECT_EQ(-1, get_mem_check_interval());
}

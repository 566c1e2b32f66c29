/* CPU checker: layouts of the counters, shares, limits, nested records, remote queries, lifecycle.
 */
#include "cpumon.cpp"

#include "checker_place.h"
#include "fake_core.h"

#include <atomic>
#include <cmath>
#include <fstream>
#include <sys/stat.h>
#include <thread>

static std::atomic<int> wake_ups{0};
static std::atomic<bool> list_was_free{false};
void send_pending_data() {
    list_was_free = is_free(cpu.mon_mutex);
    wake_ups++;
}

namespace {

const char WITHIN[] = "CPU usage is within acceptable limits\n";

/* The first lines of /proc/stat and what follows them. `ticks` are those of every processor. */
std::string stat_of(int processors, const std::string& total, const std::string& ticks) {
    std::string text = "cpu  " + total + "\n";
    for (int i = 0; i < processors; i++) {
        text += "cpu" + std::to_string(i) + " " + ticks + "\n";
    }
    return text + "intr 114930548 113199788 3 0 5 263 0 4 [... lots more numbers ...]\n"
                  "ctxt 1990473\nbtime 1062191376\nprocesses 2915\nprocs_running 1\n"
                  "procs_blocked 0\nsoftirq 183433 0 21755 12 39 1137 231 21459 2263\n";
}

class Cpu : public checker_place {
protected:
    void SetUp() override {
        wake_ups = 0;
        take_log();
        start("0 0 0 0 0 0 0 0 0 0", "0 0 0 0 0 0 0 0 0 0", 2);
    }
    void TearDown() override {
        for (int id = 1; id < 10; id++) {
            rem_cpu(id);
        }
        take_records(get_cpu_results);
    }

    /* Learns the layout of a machine. */
    void start(const std::string& total, const std::string& ticks, int processors) {
        write("stat", stat_of(processors, total, ticks));
        ASSERT_EQ(1, learn_layout());
    }
    /* The record of the one test after the machine has counted this far. */
    udc_content check(const std::string& total, const std::string& ticks) {
        write("stat", stat_of(static_cast<int>(cpuCount), total, ticks));
        return check();
    }
    udc_content check() {
        do_cpu_check(1);
        std::vector<udc_content> records = take_records(get_cpu_results);
        EXPECT_EQ(1u, records.size());
        return records.empty() ? udc_content{} : records[0];
    }
};

udc_content shares(std::vector<uint32_t> ui32, const std::vector<double>& d64,
                   const std::string& message) {
    udc_content r;
    r.ui32 = std::move(ui32);
    r.d64 = d64;
    r.declared_strings = 1;
    r.strings = {message};
    return r;
}

udc_content record(uint32_t status, const std::vector<double>& d64, const std::string& message,
                   const udc_content& seen) {
    udc_content r = shares({44, 1, 9, status}, d64, message);
    r.i64 = seen.i64;
    r.records = seen.records;
    return r;
}

} // namespace

TEST(Percentages, to_the_nearest_tenth_with_halves_going_up) {
    long long now[5] = {110, 200, 300, 400, 500}, old[5] = {100, 198, 299, 400, 500}, diffs[5];
    int out[5];
    EXPECT_EQ(13, percentages(5, out, now, old, diffs));
    const int expected[5] = {769, 154, 77, 0, 0};
    const long long grown[5] = {10, 2, 1, 0, 0};
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(expected[i], out[i]);
        EXPECT_EQ(grown[i], diffs[i]);
        EXPECT_EQ(now[i], old[i]);
    }
    long long half[2] = {1, 1999}, none[2] = {0, 0};
    EXPECT_EQ(2000, percentages(2, out, half, none, diffs));
    EXPECT_EQ(1, out[0]);
    EXPECT_EQ(1000, out[1]);
}

TEST(Percentages, nothing_grew) {
    long long now[2] = {7, 8}, old[2] = {7, 8}, diffs[2];
    int out[2] = {5, 5};
    EXPECT_EQ(1, percentages(2, out, now, old, diffs));
    EXPECT_EQ(0, out[0]);
    EXPECT_EQ(0, out[1]);
}

TEST(Percentages, counters_that_run_backwards_or_far_are_no_fault) {
    long long now[2] = {0, 1}, old[2] = {5, 0}, diffs[2];
    int out[2];
    EXPECT_EQ(-4, percentages(2, out, now, old, diffs));
    EXPECT_EQ(1250, out[0]);
    long long most[2] = {INT64_MAX, INT64_MIN}, least[2] = {INT64_MIN, INT64_MAX};
    percentages(2, out, most, least, diffs);
}

TEST(NextCpuStatus, behind_the_whole_word) {
    const char text[] = "cpu  1 2\ncpu0 1 2\nintr 1 cpu12\t7";
    const char* p = get_next_cpu_status(text);
    EXPECT_EQ(text + 3, p);
    EXPECT_EQ(text + 13, p = get_next_cpu_status(p));
    EXPECT_STREQ("\t7", p = get_next_cpu_status(p));
    EXPECT_EQ(nullptr, get_next_cpu_status(p));
}

TEST_F(Cpu, reads_all_of_the_file) {
    std::string text(100000, 'x');
    write("stat", text);
    heap_text read(read_proc_status());
    EXPECT_EQ(text, read.get());
    remove("stat");
    EXPECT_EQ(nullptr, read_proc_status());
}

TEST_F(Cpu, the_machine_and_its_two_processors) {
    add_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    time_t before = now_in_seconds();
    udc_content r = check("100 20 30 840 10 1 2 3 4 5", "10 0 0 90 0 9 9 9 9 9");
    udc_content processor = shares({0}, {10, 0, 0, 90, 0}, WITHIN);
    EXPECT_EQ((std::vector<udc_content>{processor, processor}), r.records);
    EXPECT_EQ(record(0, {10, 2, 3, 84, 1}, WITHIN, r), r);
    ASSERT_EQ(1u, r.i64.size());
    EXPECT_LE(before, r.i64[0]);
    EXPECT_GE(now_in_seconds(), r.i64[0]);
    /* Only what came since. */
    r = check("101 20 30 842 10 0 0 0 0 0", "10 0 0 93 0 0 0 0 0 0");
    EXPECT_EQ(record(0, {33.3, 0, 0, 66.7, 0}, WITHIN, r), r);
}

/* The second column, nice time, is judged and reported as "system", the third as "nice". */
TEST_F(Cpu, every_limit_in_the_order_of_the_columns) {
    add_cpu(1, 9, 10, 20, 30, 31, 10, nullptr, nullptr);
    udc_content r = check("10 20 30 30 10 0", "0 0 0 1 0 0");
    EXPECT_EQ(record(2, {10, 20, 30, 30, 10},
                     "User CPU usage: 10.00 / Max value: 10\n"
                     "System CPU usage: 20.00 / Max value: 20\n"
                     "Nice CPU usage: 30.00 / Max value: 30\n"
                     "CPU Idle: 30.00 / Min value: 31\n"
                     "CPU IO Wait: 10.00 / Max value: 10\n",
                     r),
              r);
    /* The processors were idle, each is judged by itself. */
    ASSERT_EQ(2u, r.records.size());
    EXPECT_EQ(shares({0}, {0, 0, 0, 100, 0}, WITHIN), r.records[1]);
}

TEST_F(Cpu, equal_to_the_minimum_is_within_limits) {
    add_cpu(1, 9, 11, 21, 31, 30, 11, nullptr, nullptr);
    udc_content r = check("10 20 30 30 10 0", "0 0 0 1 0 0");
    EXPECT_EQ(record(0, {10, 20, 30, 30, 10}, WITHIN, r), r);
}

TEST_F(Cpu, without_a_tick_every_share_is_zero) {
    add_cpu(1, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    udc_content r = check("0 0 0 0 0 0", "0 0 0 0 0 0");
    EXPECT_EQ(record(2, {0, 0, 0, 0, 0}, "CPU Idle: 0.00 / Min value: 1\n", r), r);
}

TEST_F(Cpu, kernel_without_io_wait) {
    start("0 0 0 0", "0 0 0 0", 1);
    add_cpu(1, 9, -1, -1, -1, -1, 0, nullptr, nullptr);
    udc_content r = check("10 20 30 40", "1 2 3 4");
    EXPECT_EQ(record(0, {10, 20, 30, 40, 0}, WITHIN, r), r);
    EXPECT_EQ((std::vector<udc_content>{shares({0}, {10, 20, 30, 40, 0}, WITHIN)}), r.records);
}

/* The fifth column makes the difference, whatever other lines look like. */
TEST_F(Cpu, kernel_with_io_wait_as_its_last_column) {
    start("0 0 0 0 0", "0 0 0 0 0", 1);
    add_cpu(1, 9, -1, -1, -1, -1, 0, nullptr, nullptr);
    udc_content r = check("10 20 30 30 10", "1 2 3 4 0");
    EXPECT_EQ(record(2, {10, 20, 30, 30, 10}, "CPU IO Wait: 10.00 / Max value: 0\n", r), r);
    EXPECT_EQ(shares({2}, {10, 20, 30, 40, 0}, "CPU IO Wait: 0.00 / Max value: 0\n"),
              r.records.at(0));
}

TEST_F(Cpu, every_limit_after_a_modify) {
    add_cpu(1, 8, -1, -1, -1, -1, -1, nullptr, nullptr);
    modify_cpu(1, 9, 10, 20, 30, 31, 10, nullptr, nullptr);
    udc_content r = check("10 20 30 30 10 0", "0 0 0 1 0 0");
    EXPECT_EQ(record(2, {10, 20, 30, 30, 10},
                     "User CPU usage: 10.00 / Max value: 10\n"
                     "System CPU usage: 20.00 / Max value: 20\n"
                     "Nice CPU usage: 30.00 / Max value: 30\n"
                     "CPU Idle: 30.00 / Min value: 31\n"
                     "CPU IO Wait: 10.00 / Max value: 10\n",
                     r),
              r);
}

TEST_F(Cpu, many_processors) {
    start("0 0 0 0 0 0", "0 0 0 0 0 0", 256);
    add_cpu(1, 9, 50, -1, -1, -1, -1, nullptr, nullptr);
    udc_content r = check("1 0 0 3 0 0", "1 0 0 1 0 0");
    EXPECT_EQ(record(0, {25, 0, 0, 75, 0}, WITHIN, r), r);
    ASSERT_EQ(256u, r.records.size());
    EXPECT_EQ(shares({2}, {50, 0, 0, 50, 0}, "User CPU usage: 50.00 / Max value: 50\n"),
              r.records[255]);
}

/* Processors come and go while the agent runs: what is too much is ignored, what is missing keeps
 * its last shares. */
TEST_F(Cpu, processors_that_come_and_go) {
    add_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    write("stat", stat_of(200, "1 0 0 1 0 0", "1 0 0 0 0 0"));
    udc_content r = check();
    EXPECT_EQ(2u, r.records.size());
    write("stat", stat_of(1, "1 0 0 2 0 0", "1 0 0 1 0 0"));
    r = check();
    ASSERT_EQ(2u, r.records.size());
    EXPECT_EQ(shares({0}, {0, 0, 0, 100, 0}, WITHIN), r.records[0]);
    EXPECT_EQ(shares({0}, {100, 0, 0, 0, 0}, WITHIN), r.records[1]);
}

TEST_F(Cpu, malformed_files_are_no_fault) {
    add_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    for (const char* text : {"", "cpu", "cpu\ncpu", "cpu cpu cpu",
                             "cpu  -1 99999999999999999999999 x", "nothing of the kind\n"}) {
        write("stat", text);
        check();
    }
}

TEST_F(Cpu, initialisation_needs_processors) {
    remove("stat");
    EXPECT_EQ(0, init_cpu_mon());
    EXPECT_EQ("0 Cannot read process status from /proc/status.\n", take_log_text());
    write("stat", "");
    EXPECT_EQ(0, init_cpu_mon());
    EXPECT_EQ("0 Cannot determine number of CPUs in the system.\n", take_log_text());
    write("stat", "cpu  1 2 3 4 5 6\nintr 7\n");
    EXPECT_EQ(0, init_cpu_mon());
    EXPECT_EQ("0 Cannot determine number of CPUs in the system.\n", take_log_text());
}

TEST_F(Cpu, a_baseline_is_taken_when_a_test_is_added) {
    add_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    write("stat", stat_of(2, "1000 0 0 0 0 0", "500 0 0 0 0 0"));
    add_cpu(2, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    EXPECT_TRUE(take_records(get_cpu_results).empty());
    write("stat", stat_of(2, "1000 0 0 10 0 0", "500 0 0 5 0 0"));
    do_cpu_check(1);
    auto records = take_records(get_cpu_results);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ((std::vector<double>{0, 0, 0, 100, 0}), records[0].d64);
    EXPECT_EQ((std::vector<double>{0, 0, 0, 100, 0}), records[1].d64);
}

/* Readings of the two threads are taken one after the other, the file included. */
TEST_F(Cpu, a_reading_is_locked_from_the_file_on) {
    add_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    remove("stat");
    ASSERT_EQ(0, mkfifo((root + "/stat").c_str(), 0600));
    EXPECT_TRUE(is_free(reading_mutex));
    std::thread reader(do_cpu_check, 0);
    std::ofstream file(root + "/stat"); /* opened when the reader has opened it */
    EXPECT_FALSE(is_free(reading_mutex));
    EXPECT_TRUE(is_free(cpu.mon_mutex));
    file << stat_of(2, "1 0 0 1 0 0", "1 0 0 0 0 0") << std::flush;
    file.close();
    reader.join();
    EXPECT_TRUE(is_free(reading_mutex));
}

TEST_F(Cpu, without_the_file_there_are_no_records) {
    char host[] = "h";
    stub("snmptable", "");
    add_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    add_cpu(2, 9, -1, -1, -1, -1, -1, host, nullptr);
    remove("stat");
    do_cpu_check(1);
    EXPECT_TRUE(take_records(get_cpu_results).empty());
    EXPECT_EQ("", asked());
    EXPECT_EQ(0, wake_ups);
    write("stat", stat_of(2, "0 0 0 1 0 0", "0 0 0 1 0 0"));
    do_cpu_check(1);
    EXPECT_EQ(1, wake_ups); /* the tests were still new */
}

TEST_F(Cpu, results_that_are_not_there_are_none) {
    char text[] = "x", *data = text;
    int size = 7;
    EXPECT_EQ(0, get_cpu_results(&data, &size));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0, size);
}

TEST_F(Cpu, remote_counters) {
    char host[] = "db.example", kind[] = "LiNux";
    stub("snmpget", "UCD-SNMP-MIB::a.0 = Counter32: 10\nb = Counter32: 5\nc = Counter32: 20\n"
                    "d = Counter32: 50\ne = Counter32: 5\nf = Counter32: 8\ng = Counter32: 2\n");
    add_cpu(1, 9, 10, 20, 5, 51, 5, host, kind);
    host[0] = kind[0] = 'x'; /* the test has copies */
    udc_content r = check();
    EXPECT_EQ(record(2, {10, 20, 5, 50, 5},
                     "User CPU usage: 10.00 / Max value: 10\n"
                     "System CPU usage: 20.00 / Max value: 20\n"
                     "Nice CPU usage: 5.00 / Max value: 5\n"
                     "CPU Idle: 50.00 / Min value: 51\n"
                     "CPU IO Wait: 5.00 / Max value: 5\n",
                     r),
              r);
    EXPECT_TRUE(r.records.empty());
    EXPECT_EQ("-v 1 -t 1 -c public db.example 1.3.6.1.4.1.2021.11.50.0 1.3.6.1.4.1.2021.11.51.0 "
              "1.3.6.1.4.1.2021.11.52.0 1.3.6.1.4.1.2021.11.53.0 1.3.6.1.4.1.2021.11.54.0 "
              "1.3.6.1.4.1.2021.11.55.0 1.3.6.1.4.1.2021.11.56.0\n",
              asked());
}

/* Nothing of nothing is no number, which reaches no limit. */
TEST_F(Cpu, remote_counters_that_are_all_zero) {
    char host[] = "h", kind[] = "linux";
    stub("snmpget", "=Counter32:0\n=Counter32:0\n=Counter32:0\n=Counter32:0\n=Counter32:0\n"
                    "=Counter32:0\n=Counter32:0\n");
    add_cpu(1, 9, 0, 0, 0, 100, 0, host, kind);
    udc_content r = check();
    EXPECT_EQ((std::vector<uint32_t>{44, 1, 9, 0}), r.ui32);
    EXPECT_EQ((std::vector<std::string>{WITHIN}), r.strings);
    ASSERT_EQ(5u, r.d64.size());
    for (double share : r.d64) {
        EXPECT_TRUE(std::isnan(share)) << share;
    }
}

/* Only a sum that ran over can be 0 beside a counter that is not. */
TEST_F(Cpu, remote_counters_whose_sum_is_zero) {
    char host[] = "h", kind[] = "linux";
    stub("snmpget", "=Counter32:18446744073709551615\n=Counter32:1\n=Counter32:0\n"
                    "=Counter32:0\n=Counter32:0\n=Counter32:0\n=Counter32:0\n");
    add_cpu(1, 9, 50, -1, -1, 50, -1, host, kind);
    udc_content r = check();
    EXPECT_EQ((std::vector<uint32_t>{44, 1, 9, 2}), r.ui32);
    EXPECT_EQ((std::vector<std::string>{"User CPU usage: inf / Max value: 50\n"}), r.strings);
    ASSERT_EQ(5u, r.d64.size());
    EXPECT_TRUE(std::isinf(r.d64[USER]));
    EXPECT_TRUE(std::isnan(r.d64[IDLE]));
}

/* Judged whether or not this machine's kernel counts I/O wait. */
TEST_F(Cpu, remote_io_wait_on_a_kernel_without_it) {
    char host[] = "h", kind[] = "linux";
    start("0 0 0 0", "0 0 0 0", 1);
    stub("snmpget", "=Counter32:0\n=Counter32:0\n=Counter32:0\n=Counter32:0\n=Counter32:1\n"
                    "=Counter32:0\n=Counter32:0\n");
    add_cpu(1, 9, -1, -1, -1, -1, 100, host, kind);
    EXPECT_EQ("CPU IO Wait: 100.00 / Max value: 100\n", check().strings[0]);
}

TEST_F(Cpu, remote_processors) {
    char host[] = "h", kind[] = "windows", none[] = "";
    stub("snmptable", "SNMPv2-SMI::zeroDotZero^10\nno such row\nends with^\n.0.0^15^7\n");
    for (char* system : {static_cast<char*>(nullptr), kind, none}) {
        add_cpu(1, 9, 12, -1, -1, 89, -1, host, system);
        udc_content r = check();
        EXPECT_EQ(record(2, {12, 0, 0, 88, 0},
                         "User CPU usage: 12.00 / Max value: 12\nCPU Idle: 88.00 / Min value: 89\n",
                         r),
                  r);
        EXPECT_TRUE(r.records.empty());
        rem_cpu(1);
    }
    EXPECT_EQ("-v 1 -t 1 -Ov -CHf ^ -c public h 1.3.6.1.2.1.25.3.3\n"
              "-v 1 -t 1 -Ov -CHf ^ -c public h 1.3.6.1.2.1.25.3.3\n"
              "-v 1 -t 1 -Ov -CHf ^ -c public h 1.3.6.1.2.1.25.3.3\n",
              asked());
}

/* Equal to a maximum is reached, equal to the minimum is not. */
TEST_F(Cpu, remote_limits) {
    char host[] = "h";
    stub("snmptable", "a^12\n");
    add_cpu(1, 9, 13, 0, 0, 88, 0, host, nullptr);
    udc_content r = check();
    EXPECT_EQ(record(2, {12, 0, 0, 88, 0},
                     "System CPU usage: 0.00 / Max value: 0\n"
                     "Nice CPU usage: 0.00 / Max value: 0\n"
                     "CPU IO Wait: 0.00 / Max value: 0\n",
                     r),
              r);
    modify_cpu(1, 9, 13, 1, 1, 88, 1, host, nullptr);
    r = check();
    EXPECT_EQ(record(0, {12, 0, 0, 88, 0}, WITHIN, r), r);
}

TEST_F(Cpu, modify_replaces_the_kind_of_host) {
    char host[] = "h", kind[] = "linux", none[] = "";
    stub("snmpget", "");
    stub("snmptable", "a^12\n");
    add_cpu(1, 9, -1, -1, -1, -1, -1, host, nullptr);
    EXPECT_EQ(0u, check().ui32[3]);
    modify_cpu(1, 9, -1, -1, -1, -1, -1, host, kind);
    EXPECT_EQ(10u, check().ui32[3]);
    modify_cpu(1, 9, -1, -1, -1, -1, -1, host, none);
    EXPECT_EQ(0u, check().ui32[3]);
}

TEST_F(Cpu, remote_failures) {
    char host[] = "h", bad_host[] = "h;x", kind[] = "linux";
    const std::vector<double> none(5, -1.0);
    struct {
        char *host, *system;
        const char* output;
    } const cases[] = {
        {host, kind, ""},
        {host, kind,
         "=Counter32: 1\n=Counter32: 1\n=Counter32: 1\n=Counter32: 1\n=Counter32: 1\n"
         "=Counter32: 1\n"},
        {host, kind,
         "=Counter32: 1\n=INTEGER: 1\n=Counter32: 1\n=Counter32: 1\n=Counter32: 1\n"
         "=Counter32: 1\n=Counter32: 1\n=Counter32: 1\n"},
        {host, nullptr, ""},
        {host, nullptr, "no table\n^\n"},
        {bad_host, kind, ""},
        {bad_host, nullptr, ""},
    };
    for (const auto& c : cases) {
        stub("snmpget", c.output);
        stub("snmptable", c.output);
        add_cpu(1, 9, 0, 0, 0, 100, 0, c.host, c.system);
        udc_content r = check();
        EXPECT_EQ(record(10, none, "Remote CPU test failed\n", r), r) << c.output;
        EXPECT_TRUE(r.records.empty());
        rem_cpu(1);
    }
}

TEST_F(Cpu, modify_may_turn_a_remote_test_into_a_local_one) {
    char host[] = "h", kind[] = "linux", none[] = "";
    stub("snmpget", "");
    add_cpu(1, 8, -1, -1, -1, -1, -1, host, kind);
    EXPECT_EQ(10u, check().ui32[3]);
    modify_cpu(1, 9, -1, -1, -1, -1, -1, none, none);
    udc_content r = check();
    EXPECT_EQ(0u, r.ui32[3]);
    EXPECT_EQ(9u, r.ui32[2]);
    EXPECT_EQ(2u, r.records.size());
}

TEST_F(Cpu, list_operations_log_nothing) {
    add_cpu(0, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    modify_cpu(0, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    modify_cpu(5, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    rem_cpu(0);
    rem_cpu(5);
    add_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    add_cpu(1, 7, 0, 0, 0, 0, 0, nullptr, nullptr); /* known */
    udc_content r = check("0 0 0 1 0 0", "0 0 0 1 0 0");
    EXPECT_EQ(record(0, {0, 0, 0, 100, 0}, WITHIN, r), r);
    modify_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    rem_cpu(1);
    do_cpu_check(1);
    EXPECT_TRUE(take_records(get_cpu_results).empty());
    EXPECT_EQ("", take_log_text());
}

/* A modify wakes the worker even when there is no such test. */
TEST_F(Cpu, what_wakes_the_worker) {
    unsigned before = wakes_of(cpu);
    modify_cpu(5, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    EXPECT_EQ(before + 1, wakes_of(cpu)); /* none at all */
    add_cpu(1, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    EXPECT_EQ(before + 2, wakes_of(cpu));
    modify_cpu(5, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    EXPECT_EQ(before + 3, wakes_of(cpu));
    modify_cpu(1, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    EXPECT_EQ(before + 4, wakes_of(cpu));
    add_cpu(1, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    add_cpu(0, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    modify_cpu(0, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    rem_cpu(1);
    EXPECT_EQ(before + 4, wakes_of(cpu));
}

/* The list is free while the file is read, but not while the tests are judged. */
TEST_F(Cpu, a_pass_locks_the_list) {
    char host[] = "h";
    waiting_stub("snmptable", "a^12\n");
    add_cpu(1, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    add_cpu(2, 9, 1, 1, 1, 1, 1, host, nullptr);
    expect_pass_locks_the_list(cpu, pass, get_cpu_results);
}

TEST_F(Cpu, a_stop_ends_the_pass) {
    char host[] = "h", kind[] = "linux";
    waiting_stub("snmpget", "");
    waiting_stub("snmptable", "");
    for (char* system : {kind, static_cast<char*>(nullptr)}) {
        for (int id = 1; id <= 4; id++) {
            add_cpu(id, 9, 1, 1, 1, 1, 1, id == 2 || id == 3 ? host : nullptr, system);
        }
        std::filesystem::remove(place / "asked");
        expect_stop_ends_the_pass(cpu, pass, set_cpu_check_interval, get_cpu_results);
        for (int id = 1; id <= 4; id++) {
            rem_cpu(id);
        }
    }
}

TEST_F(Cpu, remove_keeps_the_order_and_what_was_measured) {
    for (int id : {3, 1, 2}) {
        add_cpu(id, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    }
    do_cpu_check(1);
    rem_cpu(1);
    EXPECT_EQ(3u, take_records(get_cpu_results).size());
    do_cpu_check(1);
    auto records = take_records(get_cpu_results);
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(3u, records[0].ui32[1]);
    EXPECT_EQ(2u, records[1].ui32[1]);
}

TEST_F(Cpu, first_results_are_sent_at_once_and_only_they) {
    add_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    EXPECT_EQ(0, wake_ups); /* the baseline is no result */
    do_cpu_check(1);
    do_cpu_check(1);
    EXPECT_EQ(1, wake_ups);
    EXPECT_TRUE(list_was_free);
    modify_cpu(1, 9, -1, -1, -1, -1, -1, nullptr, nullptr);
    do_cpu_check(1);
    EXPECT_EQ(2, wake_ups);
}

/* Everything at once from several threads; the sanitizers watch. */
TEST_F(Cpu, changes_during_passes) {
    EXPECT_EQ(31536000, get_cpu_check_interval());
    ASSERT_EQ(1, init_cpu_mon());
    add_cpu(9, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
    EXPECT_TRUE(eventually([] { return wake_ups > 0; })); /* the worker's pass */
    std::atomic<bool> stop{false};
    std::thread changes([&] {
        for (int i = 0; i < 300; i++) {
            add_cpu(1 + i % 5, 9, 1, 1, 1, 1, 1, nullptr, nullptr);
            modify_cpu(1 + i % 3, 9, i, 1, 1, 1, 1, nullptr, nullptr);
            rem_cpu(1 + i % 4);
            set_cpu_check_interval(1000 + i);
        }
        stop = true;
    });
    std::thread passes([&] {
        while (!stop) {
            do_cpu_check(1);
        }
    });
    while (!stop) {
        take_records(get_cpu_results);
        get_cpu_check_interval();
    }
    changes.join();
    passes.join();
    shutdown_cpu_checker();
    EXPECT_EQ(-1, get_cpu_check_interval());
}

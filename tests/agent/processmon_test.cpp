/* Process checker: names, readings, folding, limits and all-clears, inventory, lifecycle. */
#include "processmon.cpp"

#include "checker_place.h"
#include "fake_core.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

static std::atomic<int> wake_ups{0};
void send_pending_data() {
    wake_ups++;
}

namespace {

const unsigned long long PAGE = page_size();
const unsigned long long MEGABYTE = 1 << 20;

/* A stat line: what is not given is 0. */
struct stat_line {
    int pid = 1;
    std::string name = "x";
    int parent = 0;
    unsigned long long utime = 0, stime = 0, cutime = 0, cstime = 0, vsize = 0, rss_pages = 0;

    std::string text() const {
        return std::to_string(pid) + " (" + name + ") S " + std::to_string(parent) +
               " 5 6 7 8 9 10 11 12 13 " + std::to_string(utime) + " " + std::to_string(stime) +
               " " + std::to_string(cutime) + " " + std::to_string(cstime) + " 20 0 1 77 12345 " +
               std::to_string(vsize) + " " + std::to_string(rss_pages) + " 999 1 1 0 0 0 0\n";
    }
};

class Process : public checker_place {
protected:
    void SetUp() override {
        wake_ups = 0;
        take_log();
    }
    void TearDown() override {
        for (int id = 1; id < 10; id++) {
            rem_proc(id);
        }
        take_records(get_proc_results);
        for (size_t i = 0; i < len_old_proc_cpu; i++) {
            old_proc_cpu[i].lasttime = {0, 0};
        }
        free_unused_old_proc_cpu();
    }
    void process(const stat_line& line, const std::string& statm = "100 50 20 1 0 30 0\n") {
        std::string directory = std::to_string(line.pid) + "/";
        write(directory + "stat", line.text());
        if (!statm.empty()) {
            write(directory + "statm", statm);
        }
    }
    void add(int id, const std::string& name, int cpu = -1, int rss = -1, int vsize = -1) {
        std::string text = name;
        add_proc(text.data(), id, 9, cpu, rss, vsize);
    }
    std::vector<udc_content> check() {
        do_proc_check();
        return take_records(get_proc_results);
    }
    /* The record of the one process of the one test. */
    udc_content check_one() {
        auto records = check();
        EXPECT_EQ(1u, records.size());
        return records.empty() ? udc_content{} : records[0];
    }
    /* Puts the last reading of a process this long ago. */
    void age(int pid, int seconds) { history_of(pid)->lasttime.tv_sec -= seconds; }
};

udc_content record(uint32_t pid, uint32_t status, std::vector<double> values,
                   const std::string& message, const udc_content& seen) {
    udc_content r;
    r.ui32 = {43, 1, 9, pid, status};
    r.i64 = seen.i64;
    r.d64 = std::move(values);
    r.declared_strings = 1;
    if (!message.empty()) {
        r.strings = {message};
    }
    return r;
}

} // namespace

TEST(Tokens, step_over_white_space) {
    const char text[] = "  one\t two \n three";
    EXPECT_STREQ("one\t two \n three", next_token(text));
    EXPECT_STREQ("\t two \n three", skip_token(text));
    EXPECT_STREQ(" \n three", skip_multiple_token(text, 2));
    EXPECT_STREQ(text, skip_multiple_token(text, 0));
    EXPECT_STREQ("", skip_multiple_token(text, 99));
    EXPECT_STREQ("", skip_token(""));
}

TEST_F(Process, beginnings) {
    EXPECT_EQ(31536000, get_proc_check_interval());
    EXPECT_STREQ("Process monitoring: thread attribute initialization failed.", proc.attr_message);
    EXPECT_STREQ("Process monitoring: can not set thread stack size.", proc.stack_message);
}

TEST_F(Process, ids) {
    unsigned int* ids = nullptr;
    int count = 0;
    EXPECT_EQ(0, get_proclist(&ids, &count));
    for (int pid = 1; pid <= 600; pid++) {
        std::filesystem::create_directory(std::filesystem::path(root) / std::to_string(pid));
    }
    write("9x/stat", "");
    write("self/stat", "");
    write("1234567", "no directory");
    EXPECT_EQ(1, get_proclist(&ids, &count));
    EXPECT_EQ(600, count);
    std::sort(ids, ids + count);
    for (int i = 0; i < count; i++) {
        EXPECT_EQ(static_cast<unsigned>(i + 1), ids[i]);
    }
    free(ids);
}

TEST_F(Process, names_and_parents) {
    struct {
        const char *name, *found;
    } const cases[] = {{"httpd", "httpd"}, {"a b", "a b"}, {"(sd-pam)", "(sd-pam"},
                       {"a) S 9 (b", "a"}, {"", ""},       {"tab\there", "tab\there"}};
    for (const auto& c : cases) {
        process({.pid = 7, .name = c.name, .parent = 42});
        heap_text name(get_proc_name(7));
        EXPECT_STREQ(c.found, name.get());
        EXPECT_EQ(42, get_proc_parent_id(7));
    }
    EXPECT_EQ(nullptr, get_proc_name(8));
    EXPECT_EQ(0, get_proc_parent_id(8));
    write("9/stat", "");
    EXPECT_EQ(nullptr, get_proc_name(9));
    write("9/stat", "9 (unfinished");
    EXPECT_EQ(nullptr, get_proc_name(9));
    EXPECT_EQ(0, get_proc_parent_id(9));
    char buffer[4096];
    EXPECT_EQ(0, proc_file_to_buffer(8, buffer));
    write("9/stat", std::string(9000, 'x'));
    EXPECT_EQ(1, proc_file_to_buffer(9, buffer));
    EXPECT_EQ(4095u, strlen(buffer));
}

TEST_F(Process, ids_of_a_name) {
    process({.pid = 3, .name = "httpd"});
    process({.pid = 4, .name = "httpd2"});
    process({.pid = 5, .name = "HTTPD"});
    process({.pid = 6, .name = "httpd"});
    int *ids = nullptr, count = 0;
    char name[] = "httpd", none[] = "http";
    ASSERT_EQ(1, get_proc_IDS_by_name(name, &ids, &count));
    ASSERT_EQ(2, count);
    EXPECT_EQ(9, ids[0] + ids[1]);
    free(ids);
    EXPECT_EQ(0, get_proc_IDS_by_name(none, &ids, &count));
}

TEST_F(Process, ids_of_a_name_in_the_order_of_proc) {
    for (int pid = 1; pid <= 30; pid++) {
        process({.pid = pid, .name = pid % 2 ? "x" : "y"}, "");
    }
    unsigned int* all = nullptr;
    int *ids = nullptr, all_count = 0, count = 0;
    char name[] = "x";
    ASSERT_EQ(1, get_proclist(&all, &all_count));
    ASSERT_EQ(1, get_proc_IDS_by_name(name, &ids, &count));
    std::vector<int> expected;
    std::copy_if(all, all + all_count, std::back_inserter(expected),
                 [](unsigned pid) { return pid % 2; });
    EXPECT_EQ(expected, std::vector<int>(ids, ids + count));
    free(all);
    free(ids);
}

TEST_F(Process, times) {
    process({.pid = 7, .utime = 1, .stime = 2, .cutime = 3, .cstime = 4});
    proc_time* t = nullptr;
    ASSERT_EQ(1, get_proc_time(&t, 7));
    EXPECT_EQ(1u, t->utime);
    EXPECT_EQ(2u, t->stime);
    EXPECT_EQ(3u, t->cutime);
    EXPECT_EQ(4u, t->cstime);
    EXPECT_EQ(77u, t->it_real_value);
    EXPECT_EQ(100u, t->frequency);
    EXPECT_EQ(0u, t->start_time); /* no "proc/uptime" below the working directory */
    free(t);
    write("7/cpu", "cpu 11 12\ncpu0 21 22\ncpu1 23 24\nother 9 9\ncpu3 1 1\n");
    ASSERT_EQ(1, get_proc_time(&t, 7));
    EXPECT_EQ(11u, t->utime);
    EXPECT_EQ(12u, t->stime);
    EXPECT_EQ(3u, t->cutime);
    EXPECT_EQ(21u, t->xcpu_utime[0]);
    EXPECT_EQ(24u, t->xcpu_stime[1]);
    EXPECT_EQ(0u, t->xcpu_utime[3]);
    free(t);
    EXPECT_EQ(0, get_proc_time(&t, 8));
    write("8/stat", "8 no parenthesis");
    EXPECT_EQ(0, get_proc_time(&t, 8));
}

/* The uptime file is named without the leading slash. */
TEST_F(Process, start_time_below_a_directory_that_has_an_uptime) {
    process({.pid = 7});
    write("uptime", "1000.50 77.25\n");
    std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(place);
    sys_uptime* up = nullptr;
    proc_time* t = nullptr;
    int known = get_sys_uptime(&up), read = get_proc_time(&t, 7);
    std::filesystem::current_path(before);
    ASSERT_EQ(1, known);
    EXPECT_EQ(1000.5, up->uptime);
    EXPECT_EQ(77.25, up->idletime);
    EXPECT_NEAR(static_cast<double>(now_in_seconds() - 1000), static_cast<double>(up->boot_time),
                2);
    ASSERT_EQ(1, read);
    EXPECT_NEAR(static_cast<double>(up->boot_time + 123), static_cast<double>(t->start_time), 2);
    free(up);
    free(t);
    EXPECT_EQ(0, get_sys_uptime(&up));
}

TEST_F(Process, sizes) {
    process({.pid = 7, .vsize = 12345, .rss_pages = 3}, "10 20 30 1 0 1 0\n");
    proc_mem* m = nullptr;
    ASSERT_EQ(1, get_proc_mem(&m, 7));
    EXPECT_EQ(12345u, m->vsize);
    EXPECT_EQ(3 * PAGE, m->rss);
    EXPECT_EQ(999u, m->rss_rlim);
    EXPECT_EQ(10 * PAGE, m->size);
    EXPECT_EQ(20 * PAGE, m->resident);
    EXPECT_EQ(30 * PAGE, m->share);
    free(m);
    remove("7/statm"); /* then pages stay pages */
    ASSERT_EQ(1, get_proc_mem(&m, 7));
    EXPECT_EQ(12345u, m->vsize);
    EXPECT_EQ(3u, m->rss);
    EXPECT_EQ(0u, m->size);
    free(m);
    EXPECT_EQ(0, get_proc_mem(&m, 8));
}

TEST_F(Process, cpu_usage) {
    process({.pid = 7, .utime = 100, .stime = 50, .cutime = 10, .cstime = 5});
    heap<proc_cpu_usage> first(get_proc_cpu_usage(7));
    ASSERT_TRUE(first);
    EXPECT_EQ(150 / 1e11, first->pcpu); /* practically 0 */
    EXPECT_EQ(15 / 1e11, first->ch_pcpu);
    EXPECT_EQ(first->pcpu, first->wcpu);
    age(7, 1000);
    process({.pid = 7, .utime = 30100, .stime = 20050, .cutime = 10010, .cstime = 5});
    heap<proc_cpu_usage> second(get_proc_cpu_usage(7));
    EXPECT_NEAR(0.5, second->pcpu, 0.05); /* 50000 ticks in a little more than 100000 */
    EXPECT_NEAR(0.1, second->ch_pcpu, 0.01);
    age(7, 1000);
    process({.pid = 7, .utime = 1}); /* another process has got the id */
    heap<proc_cpu_usage> third(get_proc_cpu_usage(7));
    EXPECT_EQ(0.0, third->pcpu);
    EXPECT_EQ(nullptr, get_proc_cpu_usage(8));
}

TEST_F(Process, parts_of_a_second_count) {
    process({.pid = 7});
    heap<proc_cpu_usage> first(get_proc_cpu_usage(7));
    timeval begin, before, after;
    gettimeofday(&begin, nullptr);
    begin = {begin.tv_sec - 10, (begin.tv_usec + 500000) % 1000000};
    history_of(7)->lasttime = begin;
    process({.pid = 7, .utime = 100});
    gettimeofday(&before, nullptr);
    heap<proc_cpu_usage> usage(get_proc_cpu_usage(7));
    gettimeofday(&after, nullptr);
    auto since_begin = [&](const timeval& t) {
        return static_cast<double>(t.tv_sec - begin.tv_sec) +
               static_cast<double>(t.tv_usec - begin.tv_usec) * 1e-6;
    };
    EXPECT_LE(usage->pcpu, 1 / since_begin(before) + 1e-9);
    EXPECT_GE(usage->pcpu, 1 / since_begin(after) - 1e-9);
}

TEST_F(Process, history_is_kept_for600_seconds) {
    for (int pid : {30, 10, 20}) {
        process({.pid = pid, .utime = 1000});
        heap<proc_cpu_usage> usage(get_proc_cpu_usage(pid));
    }
    EXPECT_EQ(3u, len_old_proc_cpu);
    age(10, 590);
    age(20, 602);
    free_unused_old_proc_cpu();
    ASSERT_EQ(2u, len_old_proc_cpu);
    EXPECT_EQ(10, old_proc_cpu[0].pid);
    EXPECT_EQ(30, old_proc_cpu[1].pid);
    heap<proc_cpu_usage> anew(get_proc_cpu_usage(20));
    EXPECT_LT(anew->pcpu, 1e-6); /* starts from 0 again */
}

/* With or without tests: the worker forgets after each pass. */
TEST_F(Process, the_pass_forgets) {
    process({.pid = 7});
    heap<proc_cpu_usage> usage(get_proc_cpu_usage(7));
    pass();
    EXPECT_EQ(1u, len_old_proc_cpu);
    age(7, 602);
    pass();
    EXPECT_EQ(0u, len_old_proc_cpu);
}

TEST_F(Process, a_record_per_process) {
    process(
        {.pid = 7, .name = "my daemon", .vsize = 5 * MEGABYTE, .rss_pages = 2 * MEGABYTE / PAGE});
    process({.pid = 8, .name = "my daemon", .vsize = MEGABYTE / 2});
    process({.pid = 9, .name = "other"});
    add(1, "my daemon");
    time_t before = now_in_seconds();
    auto records = check();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(record(7, 0, {records[0].d64[0], 2, 5}, "", records[0]), records[0]);
    EXPECT_EQ(record(8, 0, {records[1].d64[0], 0, 0.5}, "", records[1]), records[1]);
    EXPECT_LE(before, records[0].i64.at(0));
    EXPECT_NEAR(0.0, records[0].d64[0], 1e-6);
}

TEST_F(Process, cpu_in_percent_of_one_processor) {
    process({.pid = 7, .utime = 100});
    add(1, "x", 50);
    EXPECT_EQ(0u, check_one().ui32[4]);
    age(7, 10000);
    process({.pid = 7, .utime = 100 + 510000}); /* 5100 seconds in a little more than 10000 */
    udc_content r = check_one();
    EXPECT_EQ(2u, r.ui32[4]);
    EXPECT_NEAR(51.0, r.d64[0], 0.5);
    char message[128];
    snprintf(message, sizeof message, "Current CPU usage: %.2f%% / Max value: 50\n", r.d64[0]);
    EXPECT_EQ(message, r.strings.at(0));
    age(7, 10000);
    EXPECT_EQ("Current CPU usage is within acceptable limits.\n", check_one().strings.at(0));
    EXPECT_TRUE(check_one().strings.empty());
}

TEST_F(Process, times_of_the_cpu_file) {
    process({.pid = 7, .utime = 9999, .cutime = 500});
    write("7/cpu", "cpu 100 50\ncpu0 100 50\n");
    add(1, "x");
    check_one();
    age(7, 10000);
    write("7/cpu", "cpu 100100 100050\ncpu0 100100 100050\n");
    EXPECT_NEAR(20.0, check_one().d64[0], 0.5); /* waited-for children are not counted */
}

TEST_F(Process, sizes_at_their_limits) {
    process({.pid = 7, .vsize = 30 * MEGABYTE + 1, .rss_pages = 20 * MEGABYTE / PAGE});
    add(1, "x", -1, 20, 30);
    udc_content r = check_one();
    EXPECT_EQ(record(7, 2, r.d64,
                     "Current Working set size: 20.00 MB / Max value: 20\n"
                     "Current Page file usage: 30.00 MB / Max value: 30\n",
                     r),
              r);
    process({.pid = 7, .vsize = 30 * MEGABYTE - 1, .rss_pages = 20 * MEGABYTE / PAGE - 1});
    r = check_one();
    EXPECT_EQ(record(7, 0, r.d64,
                     "Current Working set size is within acceptable limits.\n"
                     "Current Page file usage is within acceptable limits.\n",
                     r),
              r);
    r = check_one();
    EXPECT_EQ(record(7, 0, r.d64, "", r), r);
}

/* Without statm the resident size is a number of pages, reported as if of bytes. */
TEST_F(Process, sizes_without_statm) {
    process({.pid = 7, .vsize = MEGABYTE, .rss_pages = 3 * MEGABYTE}, "");
    add(1, "x");
    udc_content r = check_one();
    EXPECT_EQ(3.0, r.d64.at(1));
    EXPECT_EQ(1.0, r.d64.at(2));
}

/* Only -1 disables. */
TEST_F(Process, limits_below_minus1) {
    process({.pid = 7});
    add(1, "x", -2, -2, -2);
    EXPECT_EQ("Current CPU usage: 0.00% / Max value: 4294967294\n", check_one().strings.at(0));
}

/* A limit of 0 is reached by everything, one of -1 by nothing. */
TEST_F(Process, limits_of0) {
    process({.pid = 7});
    add(1, "x", 0, 0, 0);
    EXPECT_EQ("Current CPU usage: 0.00% / Max value: 0\n"
              "Current Working set size: 0.00 MB / Max value: 0\n"
              "Current Page file usage: 0.00 MB / Max value: 0\n",
              check_one().strings.at(0));
}

TEST_F(Process, not_running_and_started) {
    add(1, "x", 0);
    udc_content r = check_one();
    EXPECT_EQ(record(0, 3, {0, 0, 0}, "The process is not running", r), r);
    process({.pid = 7});
    /* A limit that is reached keeps the all-clear for later. */
    EXPECT_EQ("Current CPU usage: 0.00% / Max value: 0\n", check_one().strings.at(0));
    proc_name_list[0]->cpu_critical = 10;
    EXPECT_EQ("The process has been started.\nCurrent CPU usage is within acceptable limits.\n",
              check_one().strings.at(0));
    EXPECT_TRUE(check_one().strings.empty());
}

TEST_F(Process, all_that_has_ended) {
    process({.pid = 7});
    add(1, "x");
    proc_name_list[0]->last_status = 15;
    EXPECT_EQ("The process has been started.\n"
              "Current CPU usage is within acceptable limits.\n"
              "Current Working set size is within acceptable limits.\n"
              "Current Page file usage is within acceptable limits.\n",
              check_one().strings.at(0));
}

/* The processes of a test share its alarms: what one raises the next one ends. */
TEST_F(Process, alarms_are_of_the_test) {
    process({.pid = 7, .vsize = 5 * MEGABYTE});
    process({.pid = 8});
    process({.pid = 9});
    add(1, "x", -1, -1, 5);
    for (int i = 0; i < 2; i++) {
        auto records = check();
        ASSERT_EQ(3u, records.size());
        EXPECT_EQ("Current Page file usage: 5.00 MB / Max value: 5\n", records[0].strings.at(0));
        EXPECT_EQ("Current Page file usage is within acceptable limits.\n",
                  records[1].strings.at(0));
        EXPECT_EQ((std::vector<uint32_t>{43, 1, 9, 8, 0}), records[1].ui32);
        EXPECT_TRUE(records[2].strings.empty());
    }
}

TEST_F(Process, unreadable_proc_is_not_running) {
    add(1, "x");
    proc_root = "/nowhere";
    EXPECT_EQ(3u, check_one().ui32[4]);
    char* data = nullptr;
    int size = 0;
    EXPECT_EQ(0, get_proc_name_list(&data, &size));
}

TEST_F(Process, children_of_the_same_name_are_folded_into_their_parent) {
    process({.pid = 7, .name = "x", .vsize = MEGABYTE, .rss_pages = MEGABYTE / PAGE});
    process(
        {.pid = 8, .name = "x", .parent = 7, .vsize = 2 * MEGABYTE, .rss_pages = MEGABYTE / PAGE});
    process({.pid = 9, .name = "x", .parent = 7, .vsize = 4 * MEGABYTE});
    process({.pid = 10, .name = "y", .parent = 7, .vsize = 8 * MEGABYTE});
    add(1, "x");
    check_one();
    for (int pid : {7, 8, 9}) {
        age(pid, 10000);
        process({.pid = pid,
                 .name = "x",
                 .parent = pid == 7 ? 0 : 7,
                 .utime = 100000,
                 .vsize = MEGABYTE,
                 .rss_pages = MEGABYTE / PAGE});
    }
    udc_content r = check_one();
    EXPECT_EQ(7u, r.ui32[3]);
    EXPECT_NEAR(30.0, r.d64[0], 0.5);
    EXPECT_EQ(3.0, r.d64[1]);
    EXPECT_EQ(3.0, r.d64[2]);
}

/* One level: what a folded child has got from its own children is not passed on. */
TEST_F(Process, grandchildren_are_folded_into_the_child) {
    process({.pid = 7, .name = "x", .vsize = MEGABYTE});
    process({.pid = 8, .name = "x", .parent = 7, .vsize = 2 * MEGABYTE});
    process({.pid = 9, .name = "x", .parent = 8, .vsize = 4 * MEGABYTE});
    add(1, "x");
    udc_content r = check_one();
    EXPECT_EQ(7u, r.ui32[3]);
    EXPECT_EQ(3.0, r.d64[2]);
}

/* A child whose id is behind that of its own child takes over first, and hands all on. */
TEST_F(Process, grandchildren_before_the_child) {
    process({.pid = 7, .name = "x", .vsize = MEGABYTE});
    process({.pid = 8, .name = "x", .parent = 9, .vsize = 4 * MEGABYTE});
    process({.pid = 9, .name = "x", .parent = 7, .vsize = 2 * MEGABYTE});
    add(1, "x");
    udc_content r = check_one();
    EXPECT_EQ(7u, r.ui32[3]);
    EXPECT_EQ(7.0, r.d64[2]);
}

TEST_F(Process, every_test_of_a_name_gets_the_same_reading) {
    process({.pid = 7, .name = "x"});
    process({.pid = 8, .name = "z"});
    add(1, "x");
    add(2, "y");
    add(3, "x");
    add(4, "z");
    check();
    age(7, 10000);
    process({.pid = 7, .name = "x", .utime = 100000});
    auto records = check();
    ASSERT_EQ(4u, records.size());
    EXPECT_NEAR(10.0, records[0].d64[0], 0.5);
    EXPECT_EQ(3u, records[1].ui32[4]);
    EXPECT_EQ(records[0].d64, records[2].d64);
    EXPECT_EQ(8u, records[3].ui32[3]);
}

/* Listed, but gone or half-written when it is read. */
TEST_F(Process, processes_that_end_meanwhile) {
    process({.pid = 7, .name = "x"});
    write("8/other", "");
    write("9/stat", "9 (x");
    write("10/stat", "10 (x)");
    write("11/stat", "");
    add(1, "x");
    auto records = check();
    ASSERT_EQ(2u, records.size()); /* what a cut line lacks is 0 */
    process({.pid = 12, .name = "x", .rss_pages = 3}, "");
    EXPECT_EQ(3u, check().size());
}

TEST_F(Process, list_operations_and_their_lines) {
    char name[] = "httpd", other[] = "nginx";
    add_proc(nullptr, 1, 2, 3, 4, 5);
    add_proc(name, 0, 2, 3, 4, 5);
    mod_proc(name, 1, 2, 3, 4, 5);
    rem_proc(0);
    EXPECT_EQ("", take_log_text());
    add_proc(name, 1, 2, 3, -1, 5);
    EXPECT_EQ(~0ULL, proc_name_list[0]->rss_critical);
    add_proc(other, 1, 2, 3, 4, 5);
    proc_name_list[0]->last_status = 15;
    mod_proc(other, 1, 6, 7, 8, -1);
    EXPECT_EQ(0, proc_name_list[0]->last_status);
    EXPECT_EQ(~0ULL, proc_name_list[0]->vsize_critical);
    EXPECT_STREQ("nginx", proc_name_list[0]->name);
    mod_proc(nullptr, 1, 6, 7, 8, -1);
    rem_proc(1);
    rem_proc(1);
    EXPECT_EQ("5 INFO: add_proc. Added test. tid:1, lid:2, process:'httpd', cpu_critical:3, "
              "rss_critical:-1, vsize_critical:5\n"
              "0 ERROR: add_proc. Existing test. tid:1\n"
              "5 INFO: mod_proc. Modified test. tid:1, lid:6, process:'nginx', cpu_critical:7, "
              "rss_critical:8, vsize_critical:-1\n"
              "5 INFO: rem_proc. Removed test. tid:1\n"
              "0 ERROR: rem_proc. Non-existing test. tid:1\n",
              take_log_text());
}

TEST_F(Process, first_results_are_sent_at_once_and_only_they) {
    check();
    EXPECT_EQ(0, wake_ups);
    add(1, "x");
    check();
    check();
    EXPECT_EQ(1, wake_ups);
}

TEST_F(Process, what_is_modified_is_checked_and_sent_anew) {
    process({.pid = 7, .name = "y", .vsize = 6 * MEGABYTE, .rss_pages = 2 * MEGABYTE / PAGE});
    char other[] = "y";
    add(1, "x");
    check();
    mod_proc(other, 1, 8, 0, 2, 6);
    udc_content r = check_one();
    EXPECT_EQ((std::vector<uint32_t>{43, 1, 8, 7, 2}), r.ui32);
    EXPECT_EQ("Current CPU usage: 0.00% / Max value: 0\n"
              "Current Working set size: 2.00 MB / Max value: 2\n"
              "Current Page file usage: 6.00 MB / Max value: 6\n",
              r.strings.at(0));
    EXPECT_EQ(2, wake_ups);
    mod_proc(other, 1, 8, -1, -1, -1); /* forgets the alarms */
    EXPECT_TRUE(check_one().strings.empty());
    EXPECT_EQ(3, wake_ups);
}

TEST_F(Process, what_changes_a_test_wakes_the_worker) {
    char name[] = "x";
    unsigned wakes = proc.wakes;
    add_proc(name, 0, 2, 3, 4, 5);
    add_proc(nullptr, 1, 2, 3, 4, 5);
    mod_proc(name, 1, 2, 3, 4, 5);
    EXPECT_EQ(wakes, proc.wakes);
    add_proc(name, 1, 2, 3, 4, 5);
    EXPECT_EQ(wakes + 1, proc.wakes);
    add_proc(name, 1, 2, 3, 4, 5);
    EXPECT_EQ(wakes + 1, proc.wakes);
    mod_proc(name, 1, 2, 3, 4, 5);
    EXPECT_EQ(wakes + 2, proc.wakes);
    do_proc_check();
    rem_proc(1);
    rem_proc(1);
    EXPECT_EQ(wakes + 2, proc.wakes);
    EXPECT_EQ(1u, take_records(get_proc_results).size()); /* the result outlives its test */
}

TEST_F(Process, inventory_in_the_order_of_proc) {
    for (int pid = 1; pid <= 30; pid++) {
        process({.pid = pid, .name = "n" + std::to_string(pid)}, "");
    }
    unsigned int* ids = nullptr;
    int count = 0, size = 0;
    char* data = nullptr;
    ASSERT_EQ(1, get_proclist(&ids, &count));
    ASSERT_EQ(1, get_proc_name_list(&data, &size));
    auto r = read_udc(data, static_cast<size_t>(size));
    free(data);
    ASSERT_TRUE(r.has_value());
    std::string expected;
    for (int i = 0; i < count; i++) {
        expected += "n" + std::to_string(ids[i]) + "\t";
    }
    free(ids);
    EXPECT_EQ(expected, r->strings.at(0));
}

TEST_F(Process, inventory_of_nothing) {
    char* data = nullptr;
    int size = 0;
    EXPECT_EQ(0, get_proc_name_list(&data, &size));
}

TEST_F(Process, inventory) {
    process({.pid = 1, .name = "init"});
    process({.pid = 2, .name = "a b"});
    process({.pid = 3, .name = "init"});
    process({.pid = 4, .name = "in"});
    write("5/other", "");
    for (int i = 100; i < 500; i++) { /* enough for the table of names to grow */
        process({.pid = i, .name = "worker/" + std::to_string(i % 300)}, "");
    }
    char* data = nullptr;
    int size = 0;
    ASSERT_EQ(1, get_proc_name_list(&data, &size));
    auto r = read_udc(data, static_cast<size_t>(size));
    free(data);
    ASSERT_TRUE(r.has_value());
    ASSERT_EQ(1u, r->strings.size());
    EXPECT_EQ((std::vector<uint32_t>{42, 0, 0}), r->ui32);
    EXPECT_NEAR(static_cast<double>(now_in_seconds()), static_cast<double>(r->i64.at(0)), 60);
    std::vector<std::string> names;
    std::string rest = r->strings[0];
    for (size_t tab; (tab = rest.find('\t')) != std::string::npos; rest.erase(0, tab + 1)) {
        names.push_back(rest.substr(0, tab));
    }
    EXPECT_EQ("", rest);
    EXPECT_EQ(303u, names.size());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names.end(), std::adjacent_find(names.begin(), names.end()));
    EXPECT_TRUE(std::binary_search(names.begin(), names.end(), "a b"));
    EXPECT_TRUE(std::binary_search(names.begin(), names.end(), "in"));
}

/* Real processes: a parent and its child of one name, which burns processor time. */
TEST(RealProcess, burns_cpu) {
    /* No other run of this test has the name. */
    std::string wanted = std::to_string(getpid()) + "(t", name = wanted + ") real";
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    /* The grandchild is ours to reap when its parent has gone: not every process 1 does it. */
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    pid_t parent = fork();
    if (parent == 0) {
        prctl(PR_SET_NAME, name.c_str());
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            volatile bool burning = true; /* an endless loop without it may be dropped */
            while (burning) {
            }
        }
        (void)!write(ready[1], &child, sizeof child);
        pause();
        _exit(0);
    }
    pid_t child = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof child), read(ready[0], &child, sizeof child));
    add_proc(wanted.data(), 1, 9, 5, -1, -1); /* up to the first closing parenthesis */
    bool burnt = false;
    for (int i = 0; i < 600 && !burnt; i++) {
        do_proc_check();
        auto records = take_records(get_proc_results);
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ(static_cast<uint32_t>(parent), records[0].ui32.at(3));
        EXPECT_GT(records[0].d64.at(1), 0.0);
        burnt = records[0].ui32.at(4) == 2;
        usleep(50000);
    }
    EXPECT_TRUE(burnt);
    kill(child, SIGKILL);
    kill(parent, SIGKILL);
    waitpid(parent, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
    EXPECT_EQ(child, waitpid(child, nullptr, 0));
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    do_proc_check();
    auto records = take_records(get_proc_results);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(3u, records[0].ui32.at(4));
    rem_proc(1);
}

/* Everything at once from several threads; the sanitizers watch. */
TEST_F(Process, changes_during_passes) {
    for (int pid = 1; pid < 30; pid++) {
        process({.pid = pid, .name = "p" + std::to_string(pid % 7), .parent = pid / 2});
    }
    ASSERT_EQ(1, init_proc_variables());
    std::atomic<bool> stop{false};
    std::thread changes([&] {
        for (int i = 0; i < 300; i++) {
            std::string name = "p" + std::to_string(i % 9);
            add_proc(name.data(), 1 + i % 5, 9, 1, 1, 1);
            mod_proc(name.data(), 1 + i % 3, 9, i, 1, 1);
            rem_proc(1 + i % 4);
            set_proc_check_interval(1000 + i);
        }
        stop = true;
    });
    while (!stop) {
        take_records(get_proc_results);
        char* data = nullptr;
        int size = 0;
        if (get_proc_name_list(&data, &size)) {
            free(data);
        }
        get_proc_check_interval();
    }
    changes.join();
    shutdown_proc_checker();
    EXPECT_EQ(-1, get_proc_check_interval());
}

/* Disk checker: inventory, free space, device counters, text results, lifecycle. */
#include <sys/statvfs.h>

/* The file systems of the tests. */
static int fake_statvfs(const char* path, struct statvfs* found);

#define statvfs(path, found) fake_statvfs(path, found)
#include "diskmon.cpp"
#undef statvfs

#include "checker_place.h"
#include "fake_core.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <thread>

static std::atomic<int> wake_ups{0};
void send_pending_data() {
    wake_ups++;
}

static std::map<std::string, struct statvfs> file_systems;
static std::vector<std::string> queried; /* paths, in the order of the calls */
static int fake_statvfs(const char* path, struct statvfs* found) {
    queried.push_back(path);
    auto known = file_systems.find(path);
    if (known == file_systems.end()) {
        return -1;
    }
    *found = known->second;
    return 0;
}

namespace {

const unsigned long GB_BLOCKS = 262144; /* of 4096 bytes */

struct statvfs blocks(unsigned long total, unsigned long available, unsigned long fragment = 4096) {
    struct statvfs found {};
    found.f_bsize = 4096;
    found.f_frsize = fragment;
    found.f_blocks = total;
    found.f_bfree = total; /* what only root may use does not count */
    found.f_bavail = available;
    return found;
}

/* As kernels since 2.6.25 print it; kernels since 4.18 append more columns. */
const char DISKSTATS[] = "   7       0 loop0 0 0 0 0 0 0 0 0 0 0 0\n"
                         "   8       0 sda 100 5 4000 30 200 6 8000 70 0 90 100 0 0 0 0 9 8\n"
                         "   8       1 sda1 10 1 2000 3 20 2 6000 7 0 9 10\n"
                         " 253       0 dm-0 1 1 50 1 1 1 70 1 0 1 1\n";

class Disk : public checker_place {
protected:
    std::string table = (place / "mtab").string();

    void SetUp() override {
        write("diskstats", DISKSTATS);
        file_systems.clear();
        queried.clear();
        mtab_path = table.c_str();
        wake_ups = 0;
        take_log();
    }
    void TearDown() override {
        for (int id = 1; id < 10; id++) {
            rem_disk(id);
        }
        take_records(get_disk_results);
        texts();
        mtab_path = "/etc/mtab";
    }
    void add(int id, const std::string& mp, double min_free, double max_read = -1.0,
             double max_write = -1.0) {
        std::string text = mp;
        add_diskdesc(id, 9, text.data(), min_free, max_read, max_write);
    }
    udc_content check() {
        do_disk_check();
        std::vector<udc_content> records = take_records(get_disk_results);
        EXPECT_EQ(1u, records.size());
        return records.empty() ? udc_content{} : records[0];
    }
    /* All text results, "id:text", one below the other. */
    std::string texts() {
        test_result** results = nullptr;
        int count = -1;
        int any = get_disk_test_results(&results, &count);
        EXPECT_EQ(any, results != nullptr);
        EXPECT_EQ(any, count != 0);
        std::string all;
        for (int i = 0; i < count; i++) {
            EXPECT_LE(results[i]->check_time, now_in_seconds());
            all += std::to_string(results[i]->test_id) + ":" + results[i]->test_data + "\n";
            free_result(results[i]);
        }
        free(results);
        return all;
    }
    std::string check_texts() {
        do_disk_check();
        EXPECT_TRUE(take_records(get_disk_results).empty());
        return texts();
    }
    /* The text of the inventory record; "(none)" without a record. */
    std::string inventory() {
        char* data = nullptr;
        int size = 0;
        if (!get_mounted_list(&data, &size)) {
            return "(none)";
        }
        auto r = read_udc(data, static_cast<size_t>(size));
        free(data);
        EXPECT_TRUE(r.has_value());
        return r && !r->strings.empty() ? r->strings[0] : "";
    }
    void sda1(unsigned long long sectors_read, unsigned long long written) {
        write("diskstats", "8 1 sda1 1 1 " + std::to_string(sectors_read) + " 1 1 1 " +
                               std::to_string(written) + " 1 0 1 1\n");
    }
};

udc_content space(double total, double available, const std::string& message, uint32_t status,
                  const udc_content& seen) {
    udc_content r;
    r.ui32 = {46, 1, 9, status};
    r.i64 = seen.i64;
    r.d64 = {total, available};
    r.declared_strings = 1;
    r.strings = {message};
    return r;
}

const char ROOT[] = "/(/dev/sda1|ext4)";

} // namespace

TEST_F(Disk, beginnings) {
    EXPECT_EQ(31536000, get_disk_check_interval());
    EXPECT_STREQ("Disk monitoring: thread attribute initialization failed.", disk.attr_message);
    EXPECT_STREQ("Disk monitoring: can not set thread stack size.", disk.stack_message);
}

TEST_F(Disk, free_space) {
    file_systems["/"] = blocks(40 * GB_BLOCKS, 10 * GB_BLOCKS);
    add(1, ROOT, 9.99);
    time_t before = now_in_seconds();
    udc_content r = check();
    EXPECT_EQ(
        space(40, 10, "Drive: /(/dev/sda1|ext4) free space is within acceptable limits.\n", 0, r),
        r);
    ASSERT_EQ(1u, r.i64.size());
    EXPECT_LE(before, r.i64[0]);
    EXPECT_GE(now_in_seconds(), r.i64[0]);
    EXPECT_EQ("", texts());
    rem_disk(1);
    add(1, ROOT, 10); /* no more than the minimum */
    r = check();
    EXPECT_EQ(
        space(40, 10, "Drive: /(/dev/sda1|ext4) free space: 10.00 / Min value: 10.00.\n", 2, r), r);
}

TEST_F(Disk, a_minimum_of0_is_none) {
    file_systems["/"] = blocks(GB_BLOCKS, 0);
    for (double none : {0.0, -1.0}) {
        add(1, ROOT, none);
        EXPECT_EQ(0u, check().ui32[3]);
        rem_disk(1);
    }
}

TEST_F(Disk, file_system_that_is_not_there) {
    file_systems["/proc"] = blocks(0, 0);
    for (const char* mp : {"/nowhere(/dev/x|ext4)", "/proc(proc|proc)", "", "("}) {
        add(1, mp, 5);
        udc_content r = check();
        EXPECT_EQ(space(0, 0, std::string("Drive: ") + mp + " not found.\n", 3, r), r);
        rem_disk(1);
    }
}

TEST_F(Disk, the_path_ends_at_the_first_parenthesis) {
    file_systems["/a b"] = blocks(GB_BLOCKS, GB_BLOCKS);
    file_systems["/whole"] = blocks(2 * GB_BLOCKS, GB_BLOCKS);
    add(1, "/a b(x)(y)", 0);
    EXPECT_EQ(1.0, check().d64[0]);
    rem_disk(1);
    add(1, "/whole", 0);
    EXPECT_EQ(2.0, check().d64[0]);
}

TEST_F(Disk, block_sizes) {
    file_systems["/"] = blocks(1048576, 524288, 1024);
    add(1, ROOT, 0);
    EXPECT_EQ((std::vector<double>{1, 0.5}), check().d64);
    file_systems["/"] = blocks(GB_BLOCKS, GB_BLOCKS, 0); /* then the block size counts */
    EXPECT_EQ((std::vector<double>{1, 1}), check().d64);
    file_systems["/"] = blocks(GB_BLOCKS, GB_BLOCKS, 512); /* less than a KB is none */
    EXPECT_EQ((std::vector<double>{0, 0}), check().d64);
}

TEST_F(Disk, long_names) {
    std::string mp = "/" + std::string(5000, 'x') + "(d|t)";
    add(1, mp, 0);
    EXPECT_EQ("Drive: " + mp + " not found.\n", check().strings[0]);
}

TEST_F(Disk, io_since_the_previous_check) {
    add(1, ROOT, -1, 100, 10.5);
    EXPECT_EQ("1:read_count:0.00;write_count:0.00;status:0\n", check_texts());
    sda1(2000 + 200, 6000 + 21); /* halves of a KB do not count */
    EXPECT_EQ("1:read_count:100.00;write_count:10.00;status:0\n", check_texts());
    sda1(2200 + 202, 6021);
    EXPECT_EQ("1:read_count:101.00;write_count:0.00;status:2;status:2\n", check_texts());
}

TEST_F(Disk, a_maximum_that_is_reached_is_not_exceeded) {
    add(1, ROOT, -1, 100, 10);
    check_texts();
    sda1(2000 + 200, 6000 + 20);
    EXPECT_EQ("1:read_count:100.00;write_count:10.00;status:0\n", check_texts());
}

/* Both exactly -1: free space. */
TEST_F(Disk, one_maximum_makes_an_io_test) {
    add(1, ROOT, 0, 100, -1.0);
    add(2, ROOT, 0, -1.0, 100);
    add(3, ROOT, 0, 0, 0);
    add(4, ROOT, 0, -2.0, -2.0);
    add(5, ROOT, 0, -1.0, -1.0);
    EXPECT_EQ(5u, check().ui32.at(1));
    EXPECT_EQ("1:read_count:0.00;write_count:0.00;status:0\n"
              "2:read_count:0.00;write_count:0.00;status:0\n"
              "3:read_count:0.00;write_count:0.00;status:0\n"
              "4:read_count:0.00;write_count:0.00;status:0\n",
              texts());
}

TEST_F(Disk, every_limit_that_is_exceeded_repeats_the_status) {
    add(1, ROOT, -1, 1, 1);
    add(2, ROOT, -1, 1, 0);
    add(3, ROOT, -1, 0, 0);
    add(4, ROOT, -1, -1.0, 9);
    texts();
    do_disk_check();
    texts();
    sda1(2000 + 1800, 6000 + 20);
    EXPECT_EQ("1:read_count:900.00;write_count:10.00;status:2;status:2;status:2\n"
              "2:read_count:900.00;write_count:10.00;status:2;status:2\n"
              "3:read_count:900.00;write_count:10.00;status:0\n"
              "4:read_count:900.00;write_count:10.00;status:2;status:2\n",
              check_texts());
}

TEST_F(Disk, a_count_of0_is_none_yet) {
    sda1(0, 6000);
    add(1, ROOT, -1, 1, 1);
    check_texts();
    sda1(200, 6000);
    EXPECT_EQ("1:read_count:0.00;write_count:0.00;status:0\n", check_texts());
    sda1(400, 6000);
    EXPECT_EQ("1:read_count:100.00;write_count:0.00;status:2;status:2\n", check_texts());
}

/* Its counts are 0 then, and none when it comes back. */
TEST_F(Disk, a_device_that_goes_and_comes_back) {
    add(1, ROOT, -1, 1, 1);
    check_texts();
    write("diskstats", "8 0 sda 1 1 1 1 1 1 1 1 0 1 1\n");
    EXPECT_EQ("1:read_count:-1000.00;write_count:-3000.00;status:0\n", check_texts());
    sda1(9000, 9000);
    EXPECT_EQ("1:read_count:0.00;write_count:0.00;status:0\n", check_texts());
}

TEST_F(Disk, times_of_text_results) {
    add(1, ROOT, -1, 1, 1);
    add(2, "no parenthesis", -1, 1, 1);
    time_t before = now_in_seconds();
    do_disk_check();
    ASSERT_EQ(2, disk_test_results.size());
    for (int i = 0; i < 2; i++) {
        EXPECT_LE(before, disk_test_results[i]->check_time);
    }
}

TEST_F(Disk, modify_starts_the_count_anew) {
    char mp[] = "/(/dev/sda1|ext4)";
    add(1, ROOT, -1, 1, 1);
    do_disk_check();
    sda1(900000, 900000);
    modify_disk(1, 9, mp, -1, 1, 1);
    texts();
    EXPECT_EQ("1:read_count:0.00;write_count:0.00;status:0\n", check_texts());
}

/* Amounts are taken as 32 bits with a sign. */
TEST_F(Disk, counters_that_run_backwards) {
    add(1, ROOT, -1, 1, 1);
    do_disk_check();
    texts();
    sda1(2000 - 200, 6000 + 2ULL * 0x100000000);
    EXPECT_EQ("1:read_count:-100.00;write_count:0.00;status:0\n", check_texts());
}

TEST_F(Disk, the_device_of_a_test) {
    struct {
        const char *mp, *device;
    } const cases[] = {
        {"/(/dev/sda1|ext4)", "sda1"},
        {"/data(/dev/mapper/vg-data|ext3)", "vg-data"},
        {"/run(tmpfs|tmpfs)", "tmpfs"},
        {"/x(/dev/sdb)", "sdb"},
        {"/x(/dev/sdb", "sdb"},
        {"/x(a(b|c)", "a(b"},
        {"/x(|ext4)", ""},
        {"/x(/dev/|ext4)", ""},
        {"/x()y|z)", ")y"},
    };
    for (const auto& c : cases) {
        EXPECT_STREQ(c.device, device_of(c.mp).get()) << c.mp;
    }
    EXPECT_FALSE(device_of("/x"));
}

TEST_F(Disk, unknown_devices) {
    add(1, "no parenthesis", -1, 1, 1);
    add(2, "/(/dev/nothing|x)", -1, 1, 1);
    add(3, "/(/dev/SDA1|x)", -1, 1, 1); /* the case does not matter */
    EXPECT_EQ("1:status:3\n2:read_count:0.00;write_count:0.00;status:0\n"
              "3:read_count:0.00;write_count:0.00;status:0\n",
              check_texts());
    EXPECT_EQ(2000u, disk_data_list[2]->last_read);
}

TEST_F(Disk, without_statistics_nothing_is_reported) {
    add(1, ROOT, -1, 1, 1);
    remove("diskstats");
    EXPECT_EQ("", check_texts());
    EXPECT_EQ(1, wake_ups); /* checked it was, though */
    unsigned long long a = 1, b = 2;
    char device[] = "sda";
    EXPECT_EQ(1, GetDevStats(device, &a, &b));
}

TEST_F(Disk, device_counters) {
    struct {
        const char *name, *statistics;
        unsigned long long read, written;
    } const cases[] = {
        {"sda", DISKSTATS, 4000, 8000},
        {"sda1", DISKSTATS, 2000, 6000},
        {"Sda1", DISKSTATS, 2000, 6000},
        {"sd", DISKSTATS, 7, 8}, /* not in the list: as they were */
        {"hda1", "   3    1 hda1 11 22 33 44\n", 22, 44},
        {"hda1", "   3    1 hda1 11 22 33\n", 7, 8},
        {"hda1", "   3    1 hda1\n   3    1 hda1 11 22 33 44\n", 7,
         8}, /* the first that has the name */
        {"hda1", "   3    1 hda1 11 22 33 44 55\n", 7, 8},
        {"hda1", "   3    1 hda1 1 2 3 4 5 6 7 8 9 10\n", 7, 8},
        {"x", "", 7, 8},
        {"", DISKSTATS, 7, 8},
        {"sda", "8 0 sda 1 2 18446744073709551615 4 5 6 18446744073709551614 8 9 10 11",
         18446744073709551615ULL, 18446744073709551614ULL},
        /* 31 characters of a name count; what follows is no number */
        {"a234567890123456789012345678901",
         "8 0 a234567890123456789012345678901 1 2 3 4 5 6 7 8 9 10 11\n", 3, 7},
        {"a234567890123456789012345678901",
         "8 0 a234567890123456789012345678901x 1 2 3 4 5 6 7 8 9 10 11\n", 7, 8},
        {"a234567890123456789012345678901x",
         "8 0 a234567890123456789012345678901x 1 2 3 4 5 6 7 8 9 10 11\n", 7, 8},
        {"sda", "junk\n\n8 sda 0\n8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n", 3, 7},
    };
    for (const auto& c : cases) {
        write("diskstats", c.statistics);
        unsigned long long read = 7, written = 8;
        std::string name = c.name;
        EXPECT_EQ(0, GetDevStats(name.data(), &read, &written)) << c.statistics;
        EXPECT_EQ(c.read, read) << c.statistics;
        EXPECT_EQ(c.written, written) << c.statistics;
    }
}

/* What is behind the 255th character of a line is a line of its own. */
TEST_F(Disk, long_lines_of_statistics) {
    char name[] = "sda";
    for (size_t length : {254, 255, 256}) {
        write("diskstats", std::string(length, 'x') + "8 0 sda 1 2 3 4 5 6 7 8 9 10 11\n");
        unsigned long long read = 0, written = 0;
        EXPECT_EQ(0, GetDevStats(name, &read, &written));
        EXPECT_EQ(length == 255 ? 3u : 0u, read);
        EXPECT_EQ(length == 255 ? 7u : 0u, written);
    }
}

TEST_F(Disk, old_kernels_count_in_partitions) {
    remove("diskstats");
    write("partitions",
          "major minor  #blocks  name     rio rmerge rsect ruse wio wmerge wsect wuse "
          "running use aveq\n\n"
          "   3     0   19551168 hda 1 2 33 4 5 6 77 8 9 10 11\n"
          "   3     1   19551105 hda1 1 22 3 44\n");
    unsigned long long read = 0, written = 0;
    char name[] = "hda", part[] = "hda1";
    EXPECT_EQ(0, GetDevStats(name, &read, &written));
    EXPECT_EQ(33u, read);
    EXPECT_EQ(77u, written);
    EXPECT_EQ(0, GetDevStats(part, &read, &written));
    EXPECT_EQ(22u, read);
    EXPECT_EQ(44u, written);
    write("partitions", "3 1 9 a234567890123456789012345678901 1 2 3 4\n");
    char longest[] = "a234567890123456789012345678901"; /* as long as a name can be */
    EXPECT_EQ(0, GetDevStats(longest, &read, &written));
    EXPECT_EQ(2u, read);
    write("diskstats", ""); /* opens, and so counts, although nothing is in it */
    EXPECT_EQ(0, GetDevStats(longest, &read, &written));
    EXPECT_EQ(2u, read);
}

/* One reading of the counters serves every test of a pass. */
TEST_F(Disk, the_pass_reads_the_statistics_once) {
    std::string statistics;
    for (int i = 0; i < 3000; i++) { /* more than a page */
        statistics += "8 1 sd" + std::to_string(i) + " 1 1 1 1 1 1 1 1 0 1 1\n";
    }
    write("diskstats", statistics + "8 1 sda1 1 1 14 1 1 1 16 1 0 1 1\n");
    add(1, ROOT, -1, 1, 1);
    add(2, ROOT, -1, 1, 1);
    device_statistics seen;
    check_disk(*disk_data_list[0], &seen);
    remove("diskstats");
    check_disk(*disk_data_list[1], &seen);
    EXPECT_EQ("1:read_count:0.00;write_count:0.00;status:0\n"
              "2:read_count:0.00;write_count:0.00;status:0\n",
              texts());
    EXPECT_EQ(14u, disk_data_list[1]->last_read);
}

TEST_F(Disk, text_results) {
    EXPECT_EQ("", texts());
    add_disk_test_result(1, 0, nullptr);
    char empty[] = ""; /* stays the caller's */
    add_disk_test_result(1, 0, empty);
    EXPECT_EQ("", texts());
    char* itself = strdup("a");
    add_disk_test_result(1, 0, itself);
    EXPECT_EQ(itself, disk_test_results[0]->test_data);
    add_disk_test_result(2, 0, strdup("b"));
    EXPECT_EQ("1:a\n2:b\n", texts());
    EXPECT_EQ("", texts());
}

TEST_F(Disk, the_store_drops_the_oldest_and_says_so_once) {
    for (int i = 0; i < DISK_TEST_RESULTS_MOST + 2; i++) {
        add_disk_test_result(i, 0, strdup("x"));
    }
    EXPECT_EQ("0 Disk monitoring: nobody takes the I/O results, the oldest are dropped.\n",
              take_log_text());
    std::string kept = texts();
    EXPECT_EQ("2:x\n", kept.substr(0, 4));
    EXPECT_EQ(static_cast<size_t>(DISK_TEST_RESULTS_MOST),
              static_cast<size_t>(std::count(kept.begin(), kept.end(), '\n')));
    for (int i = 0; i < DISK_TEST_RESULTS_MOST; i++) {
        add_disk_test_result(i, 0, strdup("x"));
    }
    EXPECT_EQ("", take_log_text());
    add_disk_test_result(1, 0, strdup("x"));
    EXPECT_NE("", take_log_text());
}

TEST_F(Disk, inventory) {
    file_systems["/"] = file_systems["/my disk"] = blocks(1, 1);
    file_systems["/proc"] = blocks(0, 0);
    std::ofstream(table) << "/dev/sda1 / ext4 rw,relatime 0 0\n# comment\n\n"
                            "proc /proc proc rw 0 0\n"
                            "/dev/sdb\\0401 /my\\040disk ext3 rw 0 0\n"
                            "/dev/sdc1 /gone ext4 rw 0 0\n"
                            "/dev/sda1 / ext4 rw,"
                         << std::string(20000, 'o') << " 0 0\n";
    char* data = nullptr;
    int size = 0;
    time_t before = now_in_seconds();
    ASSERT_EQ(1, get_mounted_list(&data, &size));
    auto r = read_udc(data, static_cast<size_t>(size));
    free(data);
    ASSERT_TRUE(r.has_value());
    udc_content expected;
    expected.ui32 = {45, 0, 0};
    expected.i64 = r->i64;
    expected.declared_strings = 1;
    expected.strings = {"/(/dev/sda1|ext4)\t/my disk(/dev/sdb 1|ext3)\t/(/dev/sda1|ext4)\t"};
    EXPECT_EQ(expected, *r);
    EXPECT_LE(before, r->i64.at(0));
    EXPECT_EQ("", take_log_text()); /* what cannot be queried is left out without a word */
}

/* A look at what is mounted when it is looked at would mount it. What is mounted already has an
 * entry of its own. */
TEST_F(Disk, inventory_mounts_nothing) {
    file_systems["/"] = file_systems["/net/a"] = file_systems["/net/b"] = blocks(1, 1);
    std::ofstream(table) << "/dev/sda1 / ext4 rw 0 0\n"
                            "systemd-1 /net/a autofs rw,direct 0 0\n"
                            "/etc/auto.net /net/b autofs rw,direct 0 0\n"
                            "server:/b /net/b nfs4 rw 0 0\n"
                            "autofs /net/a autofs_like rw 0 0\n";
    EXPECT_EQ("/(/dev/sda1|ext4)\t/net/b(server:/b|nfs4)\t/net/a(autofs|autofs_like)\t",
              inventory());
    EXPECT_EQ((std::vector<std::string>{"/", "/net/b", "/net/a"}), queried);
}

/* As in containers, which have no /etc/mtab. */
TEST_F(Disk, inventory_by_the_kernels_table) {
    file_systems["/"] = file_systems["/data"] = blocks(1, 1);
    write("self/mounts", "overlay / overlay rw 0 0\n");
    EXPECT_EQ("/(overlay|overlay)\t", inventory());
    std::filesystem::create_symlink("nowhere", table);
    EXPECT_EQ("/(overlay|overlay)\t", inventory());
    std::filesystem::remove(table);
    std::ofstream(table) << "/dev/sdb /data ext4 rw 0 0\n"; /* comes first */
    EXPECT_EQ("/data(/dev/sdb|ext4)\t", inventory());
}

TEST_F(Disk, inventory_of_nothing) {
    char text[] = "x", *data = text;
    int size = 7;
    EXPECT_EQ(0, get_mounted_list(&data, &size)); /* no table */
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0, size);
    std::ofstream(table) << "";
    ASSERT_EQ(1, get_mounted_list(&data, &size));
    auto r = read_udc(data, static_cast<size_t>(size));
    free(data);
    ASSERT_TRUE(r.has_value());
    EXPECT_TRUE(r->strings.empty());
}

TEST_F(Disk, list_operations_and_their_lines) {
    char mp[] = "/(a|b)";
    add_diskdesc(0, 9, mp, 1, 2, 3);
    add_diskdesc(1, 9, nullptr, 1, 2, 3);
    EXPECT_EQ(1, is_new_disk(1));
    EXPECT_EQ("", take_log_text());
    add_diskdesc(1, 2, mp, 1.5, -1.0, 3);
    EXPECT_EQ(0, is_new_disk(1));
    add_diskdesc(1, 9, mp, 9, 9, 9);
    modify_disk(1, 3, nullptr, 4, 5, 6); /* keeps the text */
    char other[] = "/other";
    modify_disk(1, 3, other, 4, 5, 6);
    rem_disk(1);
    EXPECT_EQ("5 INFO: add_diskdesc. Added test. tid:1, lid:2, disk:'/(a|b)', "
              "min_free_space:1.500000, max_read:-1.000000, max_write:3.000000\n"
              "5 INFO: modify_disk. Modified test. tid:1, lid:3, disk:'/(a|b)', "
              "min_free_space:4.000000, max_read:5.000000, max_write:6.000000\n"
              "5 INFO: modify_disk. Modified test. tid:1, lid:3, disk:'/other', "
              "min_free_space:4.000000, max_read:5.000000, max_write:6.000000\n"
              "5 INFO: rem_disk. Removed test. tid:1\n",
              take_log_text());
    unsigned wakes = disk.wakes;
    modify_disk(1, 3, mp, 4, 5, 6);
    modify_disk(0, 3, mp, 4, 5, 6);
    EXPECT_EQ(wakes + 2, disk.wakes); /* whether or not there is such a test */
    rem_disk(1);
    rem_disk(0);
    EXPECT_EQ("0 ERROR: modify_disk. Non-existing test. tid:1\n"
              "0 ERROR: modify_disk. Non-existing test. tid:0\n"
              "0 ERROR: rem_disk. Non-existing test. tid:1\n"
              "0 ERROR: rem_disk. Non-existing test. tid:0\n",
              take_log_text());
}

TEST_F(Disk, first_results_are_sent_at_once_and_only_they) {
    do_disk_check();
    EXPECT_EQ(0, wake_ups);
    add(1, ROOT, 1);
    do_disk_check();
    do_disk_check();
    EXPECT_EQ(1, wake_ups);
}

TEST_F(Disk, what_is_modified_is_checked_and_sent_anew) {
    file_systems["/"] = file_systems["/b"] = blocks(GB_BLOCKS, GB_BLOCKS);
    char other[] = "/b(x|y)";
    add(1, ROOT, -1, 100, 100);
    do_disk_check();
    texts();
    modify_disk(1, 8, other, 3, -1.0, -1.0); /* an I/O test no more */
    udc_content r = check();
    EXPECT_EQ((std::vector<uint32_t>{46, 1, 8, 2}), r.ui32);
    EXPECT_EQ("Drive: /b(x|y) free space: 1.00 / Min value: 3.00.\n", r.strings.at(0));
    EXPECT_EQ(2, wake_ups);
    modify_disk(1, 7, nullptr, 0, -1.0, -1.0); /* the mount text stays */
    r = check();
    EXPECT_EQ((std::vector<uint32_t>{46, 1, 7, 0}), r.ui32);
    EXPECT_EQ("Drive: /b(x|y) free space is within acceptable limits.\n", r.strings.at(0));
    EXPECT_EQ(3, wake_ups);
}

TEST_F(Disk, only_an_add_that_adds_wakes_the_worker) {
    char mp[] = "/(a|b)";
    unsigned wakes = disk.wakes;
    add_diskdesc(0, 9, mp, 1, 2, 3);
    add_diskdesc(1, 9, nullptr, 1, 2, 3);
    EXPECT_EQ(wakes, disk.wakes);
    add_diskdesc(1, 9, mp, 1, -1.0, -1.0);
    EXPECT_EQ(wakes + 1, disk.wakes);
    add_diskdesc(1, 9, mp, 1, 2, 3);
    do_disk_check();
    rem_disk(1);
    rem_disk(1);
    EXPECT_EQ(wakes + 1, disk.wakes);
    EXPECT_EQ(1u, take_records(get_disk_results).size()); /* the result outlives its test */
}

/* Everything at once from several threads; the sanitizers watch. */
TEST_F(Disk, changes_during_passes) {
    file_systems["/"] = blocks(1, 1);
    ASSERT_EQ(1, init_disk_mon());
    std::atomic<bool> stop{false};
    std::thread changes([&] {
        char mp[] = "/(/dev/sda1|ext4)";
        for (int i = 0; i < 300; i++) {
            add_diskdesc(1 + i % 5, 9, mp, 1, i % 2 ? -1.0 : 1, -1.0);
            modify_disk(1 + i % 3, 9, mp, i, 1, -1.0);
            rem_disk(1 + i % 4);
            set_disk_check_interval(1000 + i);
        }
        stop = true;
    });
    std::thread passes([&] {
        while (!stop) {
            do_disk_check();
        }
    });
    while (!stop) {
        take_records(get_disk_results);
        texts();
        get_disk_check_interval();
    }
    changes.join();
    passes.join();
    shutdown_disk_checker();
    EXPECT_EQ(-1, get_disk_check_interval());
}

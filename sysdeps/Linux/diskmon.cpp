#include "diskmon.h"

#include "checker.h"
#include "procfile.h"
#include "record_writer.h"
#include "test_list.h"
#include "vindral_log.h"

#include <climits>
#include <cstdio>
#include <mntent.h>
#include <sys/statvfs.h>
#include <utility>

using enum protocol::status_code;

static const double GB_PER_KB = 9.5367431640625e-7;

static const char* mtab_path = "/etc/mtab";

static constinit checker disk = {
    .thread_name = "disk",
    .pass = do_disk_check,
    .attr_message = "Disk monitoring: thread attribute initialization failed.",
    .stack_message = "Disk monitoring: can not set thread stack size."};
static constinit mutex& DISK_MON_MUTEX = disk.mon_mutex;
static constinit test_list<disk_data, &disk_data::tid, &disk_data::mp>
    disk_data_list GUARDED_BY(DISK_MON_MUTEX);

static constinit mutex DISK_TEST_RESULTS_MUTEX{};
static constinit pointer_list<test_result> disk_test_results GUARDED_BY(DISK_TEST_RESULTS_MUTEX);
static bool results_dropped GUARDED_BY(DISK_TEST_RESULTS_MUTEX); /* since they were last taken */

/* The kernel's device counters, read when the first test of a pass asks for them. */
struct device_statistics {
    heap_text text;
    const char* format = nullptr; /* of one line: major, minor, name, counters; null: not read */
};

/* Whether `mp`, or the text before its device, is what statvfs takes. */
static bool query_file_system(const char* mp, struct statvfs* found) {
    heap_text directory(strndup(mp, strcspn(mp, "(")));
    return directory && statvfs(directory.get(), found) == 0 && found->f_blocks != 0;
}

static void read_statistics(device_statistics* s) {
    s->format = "%4d %4d %31s %u %u %llu %u %u %u %llu %u %*u %u %u";
    s->text = read_whole_proc_file("diskstats");
    if (!s->text) {
        s->format = "%4d %4d %*d %31s %u %u %llu %u %u %u %llu %u %*u %u %u";
        s->text = read_whole_proc_file("partitions");
    }
}

/* The counters of one line when it is that of the device. Partitions have four of their own on some
 * kernels: reads, sectors read, writes, sectors written. */
static bool take_counters(const char* line, const char* format, const char* device,
                          unsigned long long* read, unsigned long long* written) {
    int major = 0, minor = 0;
    char name[32];
    unsigned n[8];
    unsigned long long sectors[2];
    int conversions = sscanf(line, format, &major, &minor, name, &n[0], &n[1], &sectors[0], &n[2],
                             &n[3], &n[4], &sectors[1], &n[5], &n[6], &n[7]);
    if (conversions < 3 || strcasecmp(name, device) != 0) {
        return false;
    }
    if (conversions == 7) {
        *read = n[1];
        *written = n[2];
    } else if (conversions == 13) {
        *read = sectors[0];
        *written = sectors[1];
    }
    return true;
}

static void find_device(const device_statistics& s, const char* device, unsigned long long* read,
                        unsigned long long* written) {
    char line[256];
    const char* rest = s.text.get();
    while (take_line(&rest, line, sizeof line)) {
        /* Only the line that has the name is worth the reading of its numbers. */
        if (strcasestr(line, device) != nullptr &&
            take_counters(line, s.format, device, read, written)) {
            return;
        }
    }
}

static int get_counters(device_statistics* s, const char* device, unsigned long long* read,
                        unsigned long long* written) {
    if (s->format == nullptr) {
        read_statistics(s);
    }
    if (!s->text) {
        return 1;
    }
    find_device(*s, device, read, written);
    return 0;
}

int GetDevStats(char* pdev, unsigned long long* pread, unsigned long long* pwrite) {
    device_statistics now;
    return get_counters(&now, pdev, pread, pwrite);
}

static void check_free_space(const disk_data& test) {
    time_t now = now_in_seconds();
    struct statvfs found;
    double total = 0.0, available = 0.0;
    auto status = status_not_found;
    char* message = nullptr;
    int printed;
    if (!query_file_system(test.mp, &found)) {
        printed = asprintf(&message, "Drive: %s not found.\n", test.mp);
    } else {
        unsigned long long block_kb = (found.f_frsize != 0 ? found.f_frsize : found.f_bsize) >> 10;
        total = static_cast<double>(found.f_blocks * block_kb) * GB_PER_KB;
        available = static_cast<double>(found.f_bavail * block_kb) * GB_PER_KB;
        if (test.min_free > 0 && test.min_free >= available) {
            status = status_limit;
            printed = asprintf(&message, "Drive: %s free space: %.2f / Min value: %.2f.\n", test.mp,
                               available, test.min_free);
        } else {
            status = status_ok;
            printed =
                asprintf(&message, "Drive: %s free space is within acceptable limits.\n", test.mp);
        }
    }
    heap_text owned(printed < 0 ? nullptr : message);
    checker_add_record(
        disk, make_record<protocol::disk>(named<"test">(test.tid), named<"location">(test.lid),
                                          named<"time">(now), named<"total">(total),
                                          named<"available">(available), named<"status">(status),
                                          named<"message">(owned.get())));
}

/* "sda1" of "/home(/dev/sda1|ext4)", "tmpfs" of "/run(tmpfs)"; null without an opening parenthesis.
 */
static heap_text device_of(const char* mp) {
    const char* device = strchr(mp, '(');
    if (device == nullptr) {
        return nullptr;
    }
    device++;
    size_t length = strcspn(device, "|");
    if (device[length] == '\0') {
        length = strcspn(device, ")");
    }
    heap_text name(strndup(device, length));
    const char* slash = name ? strrchr(name.get(), '/') : nullptr;
    if (slash != nullptr) {
        name = heap_text(strdup(slash + 1));
    }
    return name;
}

/* Sectors of 512 bytes since the last check, as KB in 32 bits with a sign. */
static double kilobytes_since(unsigned long long now, unsigned long long last) {
    return static_cast<int>((now - last) >> 1);
}

static void check_io(disk_data* test, device_statistics* statistics) {
    char* text = nullptr;
    heap_text device = device_of(test->mp);
    if (!device) {
        if (asprintf(&text, "status:%u", status_not_found) >= 0) {
            add_disk_test_result(test->tid, now_in_seconds(), text);
        }
        return;
    }
    unsigned long long sectors_read = 0, sectors_written = 0;
    if (get_counters(statistics, device.get(), &sectors_read, &sectors_written) != 0) {
        return;
    }
    if (test->last_read == 0) {
        test->last_read = sectors_read;
    }
    if (test->last_write == 0) {
        test->last_write = sectors_written;
    }
    double read = kilobytes_since(sectors_read, test->last_read);
    double written = kilobytes_since(sectors_written, test->last_write);
    bool reads_much = test->max_read > 0 && read > test->max_read;
    bool writes_much = test->max_write > 0 && written > test->max_write;
    if (asprintf(&text, "read_count:%.2f;write_count:%.2f%s%s;status:%u", read, written,
                 reads_much ? ";status:2" : "", writes_much ? ";status:2" : "",
                 reads_much || writes_much ? status_limit : status_ok) >= 0) {
        add_disk_test_result(test->tid, now_in_seconds(), text);
    }
    test->last_read = sectors_read;
    test->last_write = sectors_written;
}

static void check_disk(disk_data& test, device_statistics* statistics) {
    if (test.max_read == -1.0 && test.max_write == -1.0) {
        check_free_space(test);
    } else {
        check_io(&test, statistics);
    }
}

void make_disk_check(int _i_) REQUIRES(DISK_MON_MUTEX) {
    device_statistics statistics;
    check_disk(*disk_data_list[_i_], &statistics);
}

void do_disk_check() {
    device_statistics statistics;
    bool first_check;
    {
        lock hold(DISK_MON_MUTEX);
        first_check =
            disk_data_list.check_each([&](disk_data& test) { check_disk(test, &statistics); });
    }
    if (first_check) {
        fresh_results();
    }
}

/* --- text results --- */

static void free_result(test_result* result) {
    free(result->test_data);
    free(result);
}

/* Makes room for one more. False when there was no need to drop any. */
static bool drop_oldest() REQUIRES(DISK_TEST_RESULTS_MUTEX) {
    if (disk_test_results.size() < DISK_TEST_RESULTS_MOST) {
        return false;
    }
    free_result(disk_test_results.take_at(0));
    bool first = !results_dropped;
    results_dropped = true;
    return first;
}

void add_disk_test_result(int test_id, time_t check_time, char* test_data) {
    if (test_data == nullptr || test_data[0] == '\0') {
        return;
    }
    heap_text text(test_data);
    heap<test_result> result(static_cast<test_result*>(malloc(sizeof(test_result))));
    if (!result) {
        return;
    }
    result->test_id = test_id;
    result->check_time = check_time;
    result->test_data = text.get();
    bool first_dropped;
    {
        lock hold(DISK_TEST_RESULTS_MUTEX);
        first_dropped = drop_oldest();
        if (disk_test_results.append(result.get())) {
            (void)result.release();
            (void)text.release();
        }
    }
    if (first_dropped) {
        leveledadd2log(0, "Disk monitoring: nobody takes the I/O results, the oldest are dropped.");
    }
}

int get_disk_test_results(test_result*** results, int* res_count) {
    lock hold(DISK_TEST_RESULTS_MUTEX);
    *results = disk_test_results.hand_over(res_count);
    results_dropped = false;
    return *res_count != 0;
}

/* --- inventory --- */

/* The mount table. Containers and small installations have only the kernel's. Null without any. */
static FILE* open_mount_table() {
    FILE* table = setmntent(mtab_path, "re");
    if (table != nullptr) {
        return table;
    }
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s/self/mounts", proc_root);
    return setmntent(path, "re");
}

/* Whether the inventory lists the entry. Looking at an autofs directory would mount what belongs
 * there; once that is mounted it has an entry of its own. */
static bool is_file_system(const mntent& entry) {
    struct statvfs found;
    return strcmp(entry.mnt_type, "autofs") != 0 && statvfs(entry.mnt_dir, &found) == 0 &&
           found.f_blocks != 0;
}

/* Every file system with blocks, "DIRECTORY(DEVICE|TYPE)" and a tab each; null without a table. */
static heap_text list_file_systems() {
    FILE* table = open_mount_table();
    if (table == nullptr) {
        return nullptr;
    }
    /* A longer line, of many overlaid layers, loses the end of its options. */
    const int room = 16384;
    heap_text line(static_cast<char*>(malloc(room)));
    char* text = nullptr;
    size_t size = 0;
    FILE* list = line ? open_memstream(&text, &size) : nullptr;
    if (list != nullptr) {
        mntent entry;
        while (getmntent_r(table, &entry, line.get(), room) != nullptr) {
            if (is_file_system(entry)) {
                fprintf(list, "%s(%s|%s)\t", entry.mnt_dir, entry.mnt_fsname, entry.mnt_type);
            }
        }
        fclose(list);
    }
    endmntent(table);
    return heap_text(text);
}

int get_mounted_list(char** rez, int* rez_size) {
    *rez = nullptr;
    *rez_size = 0;
    heap_text list = list_file_systems();
    return list &&
           hand_over_record(make_record<protocol::file_systems>(named<"time">(now_in_seconds()),
                                                                named<"file_systems">(list.get())),
                            rez, rez_size);
}

/* --- tests --- */

int is_new_disk(int tID) {
    lock hold(DISK_MON_MUTEX);
    return disk_data_list.find(tID) == nullptr;
}

static void log_test(const char* what, const disk_data& test) {
    leveledadd2log(5,
                   "INFO: %s test. tid:%d, lid:%d, disk:'%s', min_free_space:%f, max_read:%f, "
                   "max_write:%f",
                   what, test.tid, test.lid, test.mp, test.min_free, test.max_read, test.max_write);
}

void add_diskdesc(int _tid, int _lid, char* _mp, double min_free_space, double max_read,
                  double max_write) {
    const disk_data test = {.mp = _mp,
                            .tid = _tid,
                            .lid = _lid,
                            .min_free = min_free_space,
                            .max_read = max_read,
                            .max_write = max_write,
                            .last_read = 0,
                            .last_write = 0,
                            .isFirstCheck = 1};
    bool added;
    {
        lock hold(DISK_MON_MUTEX);
        added = _tid != 0 && _mp != nullptr && disk_data_list.add(test);
    }
    if (added) {
        log_test("add_diskdesc. Added", test);
        checker_wake(disk);
    }
}

void modify_disk(int _tid, int _lid, char* _mp, double min_free_space, double max_read,
                 double max_write) {
    {
        lock hold(DISK_MON_MUTEX);
        const disk_data* known = disk_data_list.find(_tid);
        if (known == nullptr) {
            leveledadd2log(0, "ERROR: modify_disk. Non-existing test. tid:%d", _tid);
        } else if (disk_data_list.replace({.mp = _mp != nullptr ? _mp : known->mp,
                                           .tid = _tid,
                                           .lid = _lid,
                                           .min_free = min_free_space,
                                           .max_read = max_read,
                                           .max_write = max_write,
                                           .last_read = 0,
                                           .last_write = 0,
                                           .isFirstCheck = 1})) {
            log_test("modify_disk. Modified", *disk_data_list.find(_tid));
        }
    }
    checker_wake(disk);
}

void rem_disk(int _tid) {
    lock hold(DISK_MON_MUTEX);
    if (disk_data_list.remove(_tid)) {
        leveledadd2log(5, "INFO: rem_disk. Removed test. tid:%d", _tid);
    } else {
        leveledadd2log(0, "ERROR: rem_disk. Non-existing test. tid:%d", _tid);
    }
}

int init_disk_mon() {
    return checker_start(disk, disk_worker_thread);
}
void* disk_worker_thread(void*) {
    checker_work(disk);
    return nullptr;
}
int get_disk_check_interval() {
    return checker_get_interval(disk);
}
void set_disk_check_interval(int t_sec) {
    checker_set_interval(disk, t_sec);
}
void add_disk_result(char* rez, int rez_size) {
    checker_add_result(disk, rez, rez_size);
}
int get_disk_results(char** rez, int* rez_size) {
    return checker_get_results(disk, rez, rez_size);
}
void shutdown_disk_checker() {
    checker_stop(disk);
}

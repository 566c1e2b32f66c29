/* Disk checker: free space of mounted file systems (statvfs(3)) and what was read from and written
 * to their block devices (/proc/diskstats, proc(5); /proc/partitions on kernels before 2.5.69)
 * against limits per test, and an inventory of what is mounted (/etc/mtab, or /proc/self/mounts
 * where that cannot be opened; getmntent(3)).
 *
 * A test names its file system as the inventory does: "DIRECTORY(DEVICE|TYPE)".
 *
 * With max_read and max_write of -1.0 it is a free-space test. Record, type code 46 (0 I32, 4 UI32,
 * 1 I64, 0 UI64, 2 D64, 1 string), in this order:
 *   UI32  46, tid, lid
 *   I64   time of the check, seconds since the epoch
 *   D64   total space, space that an ordinary user has left, in GB of 2^30 bytes
 *   text  the message
 *   UI32  status: 0 within limits, 2 no more than the minimum left, 3 no such file system
 *
 * Any other test is an I/O test. Its result is a text,
 * "read_count:%.2f;write_count:%.2f;status:%u", in KB since the previous check, with one more
 * ";status:2" before the last for each limit that was exceeded; the last status is the test's. It
 * goes to the custom-monitor API instead of the poll and waits in a store of its own until it is
 * taken. The store holds DISK_TEST_RESULTS_MOST results; then the oldest are dropped, which is
 * logged once until somebody takes the rest.
 *
 * Inventory record, type code 45 (0 I32, 3 UI32, 1 I64, 0 UI64, 0 D64, 1 string): UI32 45, 0, 0;
 * I64 time; text, "DIRECTORY(DEVICE|TYPE)" and a tab for every file system that has blocks.
 * Entries of type autofs are left out unasked: to ask would mount what they stand for.
 *
 * Lifecycle, threads and locks are those of checker.h; DISK_TEST_RESULTS_MUTEX guards the text
 * results and is taken inside DISK_MON_MUTEX. statvfs waits as long as the file system does: a dead
 * network mount holds up the pass, and the collection that lists it. */
#ifndef VINDRAL_DISKMON_H
#define VINDRAL_DISKMON_H

#include "vindral_common.h"

#include <ctime>

inline constexpr int DISK_TEST_RESULTS_MOST = 1000;

/* One test. A limit of 0 or less is not looked at. */
struct disk_data {
    char* mp; /* owned */
    int tid;
    int lid;
    double min_free;               /* GB */
    double max_read;               /* KB a check interval */
    double max_write;              /* KB a check interval */
    unsigned long long last_read;  /* sectors of 512 bytes at the previous check; 0: none yet */
    unsigned long long last_write; /* as last_read */
    int isFirstCheck;              /* 1 after add or modify until the next pass */
};

/* 1 when the worker runs, 0 otherwise (message logged at level 0). */
int init_disk_mon();
void* disk_worker_thread(void* arg);
int get_disk_check_interval();
void set_disk_check_interval(int t_sec);

/* Poll thread. An id of 0, an absent mount text and a known id add nothing, silently; an unknown id
 * is logged as an error by the other two. A modify without a mount text keeps the old one. Texts
 * are copied. Each add and modify causes a pass at once, whose results are sent at once. */
void add_diskdesc(int _tid, int _lid, char* _mp, double min_free_space, double max_read,
                  double max_write);
void modify_disk(int _tid, int _lid, char* _mp, double min_free_space, double max_read,
                 double max_write);
void rem_disk(int _tid);

/* 1 when no test has this id. */
int is_new_disk(int tID);

/* One pass over all tests. The device counters are read once for all of them. */
void do_disk_check();

/* The test at this place of the list; the caller holds DISK_MON_MUTEX. */
void make_disk_check(int _i_);

/* Sectors read from and written to a device ("sda1") since the start of the machine. 0, or 1 when
 * there are no statistics. A device that they do not list leaves both as they are. */
int GetDevStats(char* pdev, unsigned long long* pread, unsigned long long* pwrite);

/* Stores a text result; `test_data` comes from malloc and belongs to the store from now on. Ignores
 * null and an empty text, which stays the caller's. */
void add_disk_test_result(int test_id, time_t check_time, char* test_data);

/* Hands all text results over and returns 1 (free with free_results), or gives null and 0. */
int get_disk_test_results(test_result*** results, int* res_count);

/* The inventory record and 1 (caller frees), or null and 0 without a mount table. Poll thread. */
int get_mounted_list(char** rez, int* rez_size);

void add_disk_result(char* rez, int rez_size);
int get_disk_results(char** rez, int* rez_size);
void shutdown_disk_checker();

#endif

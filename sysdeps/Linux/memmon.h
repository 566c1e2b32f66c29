/* Memory checker: free physical memory, swap, buffers and cache of this machine (/proc/meminfo,
 * proc(5)) or of another host (HOST-RESOURCES-MIB hrStorageTable, through snmptable) against five
 * limits per test.
 *
 * Sizes are whole megabytes of 2^20 bytes, rounded down. One that is not available is all ones and
 * travels as 18446744073709551616.0; its limit is not looked at. Virtual memory is known of other
 * hosts only.
 *
 * Record, type code 47 (0 I32, 4 UI32, 1 I64, 0 UI64, 8 D64, 1 string), in this order:
 *   UI32  47, test_id, loc_id
 *   I64   time of the check, seconds since the epoch
 *   D64   physical free, physical total, swap free, swap total, buffers, cached, virtual total,
 *         virtual free, in megabytes
 *   UI32  status: 0 within limits, 2 a limit violated, 10 the remote query could not be started
 *   text  the message, one line per violated limit
 *
 * A free amount violates its minimum when it equals it; buffers and cache only when they exceed
 * their maximum. A host that does not answer has nothing available and is within limits.
 *
 * Lifecycle, threads and locks are those of checker.h. A remote query holds MEM_MON_MUTEX. */
#ifndef VINDRAL_MEMMON_H
#define VINDRAL_MEMMON_H

/* One test. Limits are megabytes; -1 disables one. */
struct mem_test_def {
    int test_id;
    int loc_id;
    int mem_min;
    int swap_min;
    int virt_min;
    int buffered_max;
    int cached_max;
    char* host;       /* owned; null: this machine */
    int isFirstCheck; /* 1 after add or modify until the next pass */
};

/* 1 when the worker runs, 0 otherwise (message logged at level 0). */
int init_mem_mon();
void* mem_worker_thread(void* arg);
int get_mem_check_interval();
void set_mem_check_interval(int t_sec);

/* Poll thread. A test id of 0, an id already present (add) and an unknown id (modify, remove)
 * change nothing and log nothing. The host is copied; null or empty means this machine. Each add
 * and modify causes a pass at once, whose results are sent at once. */
void add_mem(int _tid, int loc_id, int mem_min, int swap_min, int virt_min, int buffered_max,
             int cached_max, char* host);
void modify_mem(int _tid, int loc_id, int mem_min, int swap_min, int virt_min, int buffered_max,
                int cached_max, char* host);
void rem_mem(int t_id);

/* One pass over all tests. Without a readable /proc/meminfo there are no records at all. */
void do_mem_check();

/* The bytes that `buffer` gives for `key`: the number behind it, times 1024 when there is a "k"
 * anywhere behind the number, times 1048576 when there is an "M" instead. All ones without the key.
 */
unsigned long long get_scaled(const char* buffer, const char* key);

/* Reads one row of the storage table from its description on: description, allocation unit, size,
 * used, separated by "^". `total` and `free` (may be null) become bytes. 0, or 1 when a field is
 * missing. */
int get_mem_values(const char* buff, unsigned long long* total, unsigned long long* free);

/* Sizes of memory, each in bytes until it is reported in megabytes; all ones: not available. */
struct mem_values {
    unsigned long long physical_total, physical_free;
    unsigned long long virtual_total, virtual_free;
    unsigned long long swap_total, swap_free;
    unsigned long long buffers, cached;
};

/* What `host` tells of its memory, in megabytes. 0 when the query could not be started, which
 * leaves all unavailable, else 1. */
int get_remote_mem_params(const char* host, mem_values* values);

void add_mem_result(char* rez, int rez_size);
int get_mem_results(char** rez, int* rez_size);
void shutdown_mem_checker();

#endif

/* CPU checker: the shares of user, system, nice, idle and I/O-wait time of this machine since the
 * previous reading (/proc/stat, proc(5)), as a whole and of every processor, or of another host
 * (UCD-SNMP-MIB ssCpuRaw* or HOST-RESOURCES-MIB hrProcessorTable, through snmpget and snmptable),
 * against five limits per test.
 *
 * Of this machine the kernel's second column (nice time) is reported as "system" and its third
 * (system time) as "nice", in limits, messages and records alike. It has always been so, and what
 * reads the records counts on it.
 *
 * Record, type code 44 (0 I32, 4 UI32, 1 I64, 0 UI64, 5 D64, 1 string), in this order:
 *   UI32  44, test_id, loc_id
 *   I64   time of the check, seconds since the epoch
 *   text  the message, one line per limit that was reached
 *   UI32  status: 0 within limits, 2 a limit reached, 10 the remote query failed
 *   D64   user, system, nice, idle, I/O wait in percent; -1.0 each when the remote query failed,
 *         NaN each when a remote host's counters are all 0, which reaches no limit
 *   record  one for each processor of this machine (1 UI32, 5 D64, 1 string): message, status and
 *         the five shares of that processor
 *
 * Lifecycle, threads and locks are those of checker.h, with one addition: add_cpu takes a reading
 * in the poll thread, so that the pass that it causes has a fresh one to compare with. The readings
 * of the two threads run one at a time, the file included, under a lock of their own that is taken
 * alone. */
#ifndef VINDRAL_CPUMON_H
#define VINDRAL_CPUMON_H

/* One test. Limits are percentages; -1 disables one. */
struct cpu_check_def {
    int test_id;
    int loc_id;
    int user_max;
    int system_max;
    int nice_max;
    int idle_min;
    int iowait_max;
    char* host;       /* owned; null: this machine */
    char* system;     /* owned; "linux" in any case: raw counters, else: the processor table */
    int isFirstCheck; /* 1 after add or modify until the next pass */
};

/* Learns how many processors there are and starts the worker: 1, or 0 with the reason logged at
 * level 0. */
int init_cpu_mon();
void* cpu_worker_thread(void* arg);
int get_cpu_check_interval();
void set_cpu_check_interval(int t_sec);

/* Poll thread. A test id of 0, an id already present (add) and an unknown id (modify, remove)
 * change nothing. Host and system are copied; null or empty means none. Each add and modify causes
 * a pass at once, whose results are sent at once. Nothing is logged. */
void add_cpu(int tid, int loc_id, int user_max, int system_max, int nice_max, int idle_min,
             int iowait_max, char* host, char* system);
void modify_cpu(int t_id, int loc_id, int user_max, int system_max, int nice_max, int idle_min,
                int iowait_max, char* host, char* system);
void rem_cpu(int t_id);

/* Takes a reading; when `putValue` is 1, checks every test against it. Without a test or a readable
 * /proc/stat nothing happens. */
void do_cpu_check(int putValue);

/* All of /proc/stat as text (caller frees), or null. */
char* read_proc_status();

/* The position behind the next "cpu" at or after `p`, or null. */
char* get_next_cpu_status(const char* p);

/* The share of each of `cnt` counters in what they grew by, in tenths of a percent to the nearest
 * tenth: out[i] from new1[i] and old[i]. Stores the growth in `diffs`, new1 in old, and returns the
 * whole growth, at least 1 or what a counter that ran backwards made of it. Nothing grew: all 0. */
long long percentages(int cnt, int* out, long long* new1, long long* old, long long* diffs);

/* Both blocking, through SNMP; 1, or 0 on failure. The caller frees what they return: seven tick
 * counts since the start of `host` (user, nice, system, idle, wait, kernel, interrupt); the loads
 * of its processors in percent. */
int get_remote_UCD_cpu_params(const char* host, unsigned long long** retVal);
int get_remote_cpu_params(const char* host, unsigned int* proccount, unsigned int** procloads);

void add_cpu_result(char* rez, int rez_size);
/* As everywhere, but without results the outputs become null and 0. */
int get_cpu_results(char** rez, int* rez_size);
void shutdown_cpu_checker();

#endif

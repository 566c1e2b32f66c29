/* Process checker: CPU usage, resident and virtual size of the processes of a name (/proc/PID/stat
 * and statm, proc(5)) against three maxima per test, and an inventory of the names that run.
 *
 * A name is the text between the first opening parenthesis of the stat line and the next closing
 * one: the command name as the kernel keeps it, at most 15 characters of a user's process, compared
 * exactly. A process whose parent has the name, too, is folded into its parent, one level.
 *
 * Record, type code 43 (0 I32, 5 UI32, 1 I64, 0 UI64, 3 D64, 1 string), one for every process that
 * is not folded into another, or one for a name that does not run, in this order:
 *   UI32  43, tid, lid, process id (0: not running), status: 0 within limits, 2 a limit reached,
 *         3 not running
 *   I64   time of the check, seconds since the epoch
 *   D64   CPU usage since the previous check in percent of one processor, resident and virtual size
 *         in MB of 2^20 bytes
 *   text  the message: one line per limit that was reached, or what has ended since; none when
 *         there is nothing to say
 *
 * Inventory record, type code 42 (0 I32, 3 UI32, 1 I64, 0 UI64, 0 D64, 1 string): UI32 42, 0, 0;
 * I64 time; text, every name once and a tab behind each, in the order of /proc.
 *
 * One walk over /proc serves all tests of a pass: a process is measured once, and every test of its
 * name reports that reading.
 *
 * Lifecycle, threads and locks are those of checker.h; PROC_LIST_MUTEX is the list's. The CPU
 * history belongs to the worker alone. Ticks are 1/100 s. */
#ifndef VINDRAL_PROCESSMON_H
#define VINDRAL_PROCESSMON_H

#include <cstddef>
#include <sys/time.h>
#include <sys/types.h>

/* One test. */
struct proc_result {
    char* name; /* owned */
    int tid;
    int lid;
    int cpu_critical;                  /* percent; -1 disables */
    unsigned long long rss_critical;   /* MB; all ones disables */
    unsigned long long vsize_critical; /* MB; all ones disables */
    int last_status;  /* alarms since the last all-clear: 1 not running, 2 CPU, 4 resident,
                         8 virtual size */
    int isFirstCheck; /* 1 after add or modify until the next pass */
};

/* What is remembered of a process from reading to reading, for 600 seconds. */
struct PCPU {
    int pid;                            /* -1 until the first reading */
    unsigned long long proc_total_cpu;  /* user and system ticks at the last reading */
    unsigned long long child_total_cpu; /* those of children that were waited for */
    timeval lasttime;                   /* of the last reading; zero: none yet */
};

/* One reading: fractions of one processor since the previous one, of the process and of children
 * that were waited for. The w values equal the others. */
struct proc_cpu_usage {
    double pcpu, wcpu, ch_pcpu, ch_wcpu;
};

/* Times of a process, in ticks; the start in seconds since the epoch, 0 when the uptime is not
 * known. */
struct proc_time {
    unsigned long long start_time, rtime, utime, stime, cutime, cstime, timeout, it_real_value;
    unsigned long long frequency; /* ticks a second */
    unsigned long long xcpu_utime[4], xcpu_stime[4];
};

/* Sizes of a process in bytes. Without statm only vsize, rss (then in pages) and rss_rlim. */
struct proc_mem {
    unsigned long long size, vsize, resident, share, rss, rss_rlim;
};

struct sys_uptime {
    double uptime, idletime;      /* seconds */
    unsigned long long boot_time; /* seconds since the epoch */
};

/* 1 when the worker runs, 0 otherwise (message logged at level 0). */
int init_proc_variables();
void* proc_worker_thread(void* arg);
int get_proc_check_interval();
void set_proc_check_interval(int t_sec);

/* Poll thread. Names are copied; an absent name or an id of 0 is ignored. A known id (add) and an
 * unknown one (remove) are logged as errors; an unknown one (modify) changes nothing. Each add and
 * modify causes a pass at once, whose results are sent at once. */
void add_proc(char* pr_name, int t_id, int loc_id, int cpu_critical, int rss_critical,
              int vsize_critical);
void mod_proc(char* pr_name, int t_id, int loc_id, int cpu_critical, int rss_critical,
              int vsize_critical);
void rem_proc(int t_id);

/* One pass over all tests. */
void do_proc_check();
/* The test at this place of the list; the caller holds PROC_LIST_MUTEX. */
void make_check(int _i_);

/* All process ids as a malloc'd array (caller frees) and 1, or 0 when there is none. */
int get_proclist(unsigned int** proclist, int* cnt);
/* The name of a process (caller frees), or null. */
char* get_proc_name(int pid);
/* The id of its parent, or 0. */
int get_proc_parent_id(int pid);
/* The ids of the processes of a name in the order of /proc (caller frees) and 1, or 0. */
int get_proc_IDS_by_name(char* pr_name, int** m_pIDS, int* pids_count);
/* The inventory record (caller frees) and 1, or 0 without a list of processes. Poll thread. */
int get_proc_name_list(char** pData, int* pDataSize);

/* Each gives a malloc'd structure (caller frees) and 1, or 0. The uptime is read from
 * "proc/uptime" below the working directory, where it is seldom found; no result depends on it. */
int get_sys_uptime(sys_uptime** buf);
int get_proc_time(proc_time** buf, pid_t pid);
int get_proc_mem(proc_mem** buf, long pid);
/* A reading of a process (caller frees), or null. Worker only: it goes to the history. */
proc_cpu_usage* get_proc_cpu_usage(int pid);
/* Forgets processes that were not read for 600 seconds. */
void free_unused_old_proc_cpu();

/* Reads /proc/PID/stat into `buffer` of 4096 bytes as text. 0 when there is none. */
int proc_file_to_buffer(int pid, char* buffer);
/* Fields separated by white space: the start of the first at or behind `p`, its end, and the end of
 * the `count`th. They stop at the end of the text. */
char* next_token(const char* p);
char* skip_token(const char* p);
char* skip_multiple_token(const char* p, size_t count);

void add_proc_result(char* rez, int rez_size);
int get_proc_results(char** rez, int* rez_size);
void shutdown_proc_checker();

#endif

/* Load average checker: the 1-, 5- and 15-minute averages of this machine (/proc/loadavg, proc(5))
 * or of another host (UCD-SNMP-MIB laLoad, through snmpget) against three maxima per test.
 *
 * Record, type code 66 (0 I32, 4 UI32, 1 I64, 0 UI64, 3 D64, 1 string), in this order:
 *   UI32  66, test_id, loc_id
 *   I64   time of the check, seconds since the epoch
 *   D64   1-, 5-, 15-minute average; -1.0 each when the remote query failed
 *   text  the message, one line per maximum that was reached
 *   UI32  status: 0 within limits, 2 a maximum reached or exceeded, 10 the remote query failed
 *
 * Lifecycle, threads and locks are those of checker.h; lda stands for load average. */
#ifndef VINDRAL_MONLOADAVERAGE_H
#define VINDRAL_MONLOADAVERAGE_H

/* One test. The maxima are whole numbers; -1 disables one. */
struct load_av_def {
    int test_id;
    int loc_id;
    int max1;
    int max5;
    int max15;
    char* host;       /* owned; null: this machine */
    int isFirstCheck; /* 1 after add or modify until the next pass */
};

/* 1 when the worker runs, 0 otherwise (message logged at level 0). */
int init_lda_mon();
void* lda_worker_thread(void* arg);
int get_lda_check_interval();
void set_lda_check_interval(int t_sec);

/* Poll thread. A test id of 0, an id already present (add) and an unknown id (modify, remove)
 * change nothing and log nothing. The host is copied; null or empty means this machine. Each add
 * and modify causes a pass at once, whose results are sent at once. */
void add_lda(int tid, int loc_id, int la1, int la5, int la15, char* host);
void modify_lda(int t_id, int loc_id, int la1, int la5, int la15, char* host);
void rem_lda(int t_id);

/* One pass over all tests. Without a readable /proc/loadavg there are no records at all. */
void do_lda_check();

/* The three averages of `host` as a malloc'd array (caller frees) and 1, or 0. */
int get_remote_la_params(const char* host, double** retVal);

void add_lda_result(char* rez, int rez_size);
int get_lda_results(char** rez, int* rez_size);
void shutdown_lda_checker();

#endif

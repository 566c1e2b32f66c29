/* Ping checker: ICMP echo tests of other hosts. A check round starts a short-lived detached thread
 * for every test, which probes the host (ping.h) and reports by itself; the round does not wait. A
 * test whose thread of the last round still runs gets a second one, up to the bound of
 * checks_under_way.h.
 *
 * Record, type code 48 (0 I32, 5 UI32, 1 I64, 0 UI64, 1 D64, 1 string), in this order:
 *   UI32  48, tid, loc_id, status (0 success, 2 failure), number of requests that were lost
 *   I64   time of the report, seconds since the epoch
 *   D64   mean round trip of the answered requests in ms, in single precision; 0 when none was
 *   text  the message
 *
 * Lifecycle, threads and locks are those of checker.h. The threads of a round work on copies; they
 * touch the result buffer only. A stop does not wait for them. */
#ifndef VINDRAL_PINGMON_H
#define VINDRAL_PINGMON_H

/* One test. */
struct ping_data {
    char* host; /* owned */
    int tid;    /* its low 16 bits are the ICMP identifier */
    int loc_id;
    int p_count;      /* requests per check */
    int p_size;       /* data size in bytes, as ping() takes it */
    int p_timeout;    /* ms per request */
    int max_lost;     /* as many may be lost */
    int isFirstCheck; /* 1 after add or modify until a round has started a thread for the test */
};

/* 1 when the worker runs, 0 otherwise (message logged at level 0). */
int init_ping_mon();
void* ping_worker_thread(void* arg);
int get_ping_check_interval();
void set_ping_check_interval(int t_sec);

/* Poll thread. An id of 0, no host, an id already present (add) and an unknown id (modify, remove)
 * change nothing and log nothing. The host is copied. Each add and modify causes a round at once,
 * whose results for that test are sent at once. */
void add_ping(int _tid, int _loc_id, char* _ho, int p_size, int p_cpount, int p_timeout,
              int max_lost);
void mod_ping(int _tid, int _loc_id, char* _ho, int p_size, int p_cpount, int p_timeout,
              int max_lost);
void rem_ping(int t_id);

/* 1 when no test has this id. */
int is_new_ping(int tID);

/* A copy with a host text of its own (caller frees both); null without memory. */
ping_data* ping_data_dup(ping_data* _hd_);

/* One round over all tests. A test whose thread cannot be started is left out, with a line at level
 * 0: that says nothing about the host. */
void do_ping_check();

/* Runs the test that `arg` is a copy of, which it frees. */
void* ping_single_thread(void* arg);

void add_ping_result(char* rez, int rez_size);
int get_ping_results(char** rez, int* rez_size);
void shutdown_ping_checker();

#endif

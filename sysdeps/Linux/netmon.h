/* Network interface checker: bytes, packets and errors a second of this machine's interfaces
 * (/proc/net/dev, proc(5)) against six maxima per test, and an inventory of the interfaces that are
 * up (SIOCGIFCONF, netdevice(7)).
 *
 * A second thread samples the counters every 10 seconds and keeps smoothed rates per interface. A
 * test takes the rates of the first interface whose name occurs in its adapter text, and leaves 0:
 * what is checked again before the next sample, or by a second test, has no traffic.
 *
 * Record, type code 38 (0 I32, 10 UI32, 1 I64, 0 UI64, 0 D64, 1 string), in this order:
 *   UI32  38, tid, lid
 *   I64   time of the check, seconds since the epoch
 *   UI32  received bytes, packets, errors, each per second, low 32 bits
 *   UI32  sent bytes, packets, errors, each per second, low 32 bits
 *   UI32  status: 0 within limits, 2 a limit reached
 *   text  the message; none when the test has no limit
 *
 * A test whose interface is not up has no record, but a line at level 0.
 *
 * Inventory record, type code 39 (0 I32, 3 UI32, 1 I64, 0 UI64, 0 D64, 1 string): UI32 39, 0, 0;
 * I64 time; text, the name of every interface that is up and running and no loopback, a tab behind
 * each. Only those that have an IPv4 address are known.
 *
 * Lifecycle, threads and locks are those of checker.h; net_mon_mutex is the list's. Then
 * net_interface_list_mutex, taken inside it: the interfaces and their rates, also while they are
 * sampled. */
#ifndef VINDRAL_NETMON_H
#define VINDRAL_NETMON_H

/* One test. Maxima are per second; one below 1 is not looked at. */
struct net_data {
    int tid;
    int lid;
    char* adapter; /* owned */
    int max_bytes_recv;
    int max_pkts_recv;
    int max_errors_recv;
    int max_bytes_sent;
    int max_pkts_sent;
    int max_errors_sent;
    int isFirstCheck; /* 1 after add or modify until the next pass */
};

/* One interface. The kernel's counters since the interface exists; of those kept in the list only
 * the six that have rates are in use. */
struct net_interface {
    char name[16];
    unsigned long long rx_packets, tx_packets, rx_bytes, tx_bytes;
    unsigned long rx_errors, tx_errors, rx_dropped, tx_dropped, rx_multicast, rx_compressed,
        tx_compressed, collisions;
    unsigned long rx_length_errors, rx_over_errors, rx_crc_errors, rx_frame_errors, rx_fifo_errors,
        rx_missed_errors;
    unsigned long tx_aborted_errors, tx_carrier_errors, tx_fifo_errors, tx_heartbeat_errors,
        tx_window_errors;
    unsigned long pi_rx_bytes, pi_rx_packets, pi_rx_errors, pi_tx_bytes, pi_tx_packets,
        pi_tx_errors; /* smoothed, per second */
};

/* Lists the interfaces and starts both threads: 1, or 0 (message logged at level 0). */
int init_net_mon();
void* net_worker_thread(void* arg);
void* net_calc_worker_thread(void* arg); /* the sampler */
int get_net_check_interval();
void set_net_check_interval(int t_sec);

/* Poll thread. Texts are copied. What is refused is logged as an error. Each add and modify causes
 * a pass at once, whose results are sent at once. */
void add_nettest(int tid, int lid, char* adapter, int max_pkts_sent, int max_pkts_recv,
                 int max_bytes_sent, int max_bytes_recv, int max_errors_sent, int max_errors_recv);
void modify_nettest(int tid, int lid, char* adapter, int max_pkts_sent, int max_pkts_recv,
                    int max_bytes_sent, int max_bytes_recv, int max_errors_sent,
                    int max_errors_recv);
void rem_nettest(int tid);

/* One pass over all tests. */
void do_net_check();

/* Brings the list of interfaces up to date: 1, or 0 when there is none (logged). With `rez` the
 * inventory record, too (caller frees). Poll thread, and main at the start. */
int get_adapter_list(char** rez, int* rez_size);

/* Takes a sample, 10 seconds after the previous one: `speed` becomes the mean of itself and the new
 * rate, or the new rate when it was 0; 0 on the first sample, which finds a `value` of 0. */
void avg(unsigned long* value, unsigned long* speed, unsigned long new_value);
void avg_ll(unsigned long long* value, unsigned long* speed, unsigned long long new_value);

void add_net_result(char* rez, int rez_size);
int get_net_results(char** rez, int* rez_size);
void shutdown_net_checker();

#endif

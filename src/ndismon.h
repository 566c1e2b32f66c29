/* Network discovery: scans of IPv4 address ranges. */
#ifndef VINDRAL_NDISMON_H
#define VINDRAL_NDISMON_H

#include <netinet/in.h>

/* One scan thread's share of a test. */
struct thread_scan_args {
    int id; /* index within the test; the ICMP identifier too */
    int tid;
    int lid;
    char* oids;
    in_addr* addrs;
    int addrs_len;
    int* thread_count; /* shared by the threads of one scan: how many still run */
};

/* One test. */
struct ndis_args {
    int tid;
    int lid;
    char* oids;
    in_addr* addresses_list; /* network byte order */
    int addresses_list_len;
    thread_scan_args* threadargs_list;
    int threadargs_list_len;
    int scan_started;
};

int init_ndis_mon();
void* ndis_worker_thread(void* arg);
int get_ndis_check_interval();
void set_ndis_check_interval(int t_sec);

void add_ndis(int _tid, int _lid, char* ipstart, char* ipend, char* oids);
void mod_ndis(int _tid, int _lid, char* ipstart, char* ipend, char* oids);
void rem_ndis(int _tid);
int is_new_ndis(int tID);

long nextipaddress(long ipaddr);
void run_discovery();
void* discovery_thread(void* args);
void send_finished(int tid, int lid);

void add_ndis_result(char* rez, int rez_size);
int get_ndis_results(char** rez, int* rez_size);
void shutdown_ndis();

#endif

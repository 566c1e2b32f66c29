/* Network discovery: scans ranges of IPv4 addresses, each range once. Every address is sent one
 * ICMP echo request (ping.h); a host that answers is asked over SNMPv2c, community "public", for
 * its system objects (RFC 3418) and for the OIDs that the test adds, and is reported. Behind the
 * last address of a test comes a "finished" record, which is sent at once.
 *
 * Records, type code 40. Both declare a D64 that is never filled: eight zero bytes on the wire.
 *   host      (0 I32, 3 UI32, 1 I64, 0 UI64, 1 D64, 5 strings, then the nested records)
 *     UI32    40, tid, lid
 *     I64     time of the answer, seconds since the epoch
 *     texts   address; value of sysName.0; of sysDescr.0; of the object that sysObjectID.0 names;
 *             of sysObjectID.0
 *     nested  one per extra OID, in their order: texts OID, value
 *   finished  (0 I32, 3 UI32, 1 I64, 0 UI64, 1 D64, 1 string)
 *     UI32    40, tid, lid
 *     I64     time of the report
 *     text    "finished"
 * A value that the host did not give is "N/A"; so is every value while the SNMP library is not
 * loaded.
 *
 * Lifecycle, threads and locks are those of checker.h, but for two things. The worker runs
 * run_discovery when it starts and then only when a whole interval is over: no command causes a
 * scan, and a new interval only begins a new wait. And the tests are scanned by detached threads,
 * 32 at most per scan, which work on copies; of what is here they touch the result buffer and, at
 * their end, the list mutex. Modify, remove and a stop do not wait for them: a scan that runs goes
 * on to its end and reports. */
#ifndef VINDRAL_NDISMON_H
#define VINDRAL_NDISMON_H

#include <netinet/in.h>

/* One scan thread's share of a test. In the test's list it refers to the addresses and the OIDs of
 * the test; a thread's own copy is one with copies of both. */
struct thread_scan_args {
    int id; /* index within the test; the ICMP identifier too, so those of two scans may meet */
    int tid;
    int lid;
    char* oids;        /* as in the test */
    in_addr* addrs;    /* null when there is nothing left for this share */
    int addrs_len;     /* then 0 or less */
    int* thread_count; /* how many threads of the scan still run; list mutex, freed by the last one;
                        * null in the test's list */
};

/* One test. Owns all that it points to. */
struct ndis_args {
    int tid;
    int lid;
    char* oids;              /* extra OIDs, separated by ';'; null: none */
    in_addr* addresses_list; /* network byte order; null: nothing to scan */
    int addresses_list_len;  /* at most 65536 */
    thread_scan_args* threadargs_list;
    int threadargs_list_len; /* at most 32 */
    int scan_started;        /* 1 once the scan threads have been started; then the test is idle */
};

/* 1 when the worker runs, 0 otherwise (message logged at level 0). */
int init_ndis_mon();
void* ndis_worker_thread(void* arg);
int get_ndis_check_interval();

/* Begins a new wait; the tests not scanned yet are scanned when it is over. */
void set_ndis_check_interval(int t_sec);

/* Poll thread. An id of 0, a missing address (add, modify), an id already present (add) and an
 * unknown id (modify, remove) change nothing and are logged. Texts are copied; `oids` may be null.
 *
 * The range is [ipstart, ipend), as inet_addr reads the two. Without an address in it (start equals
 * end, one is invalid, the start is 0.0.0.0 or 255.255.255.0) or with more than 65536, so also when
 * the end is never met, "finished" is reported at once and the test stays without addresses. A
 * modified test is scanned again. */
void add_ndis(int _tid, int _lid, char* ipstart, char* ipend, char* oids);
void mod_ndis(int _tid, int _lid, char* ipstart, char* ipend, char* oids);
void rem_ndis(int _tid);

/* 1 when no test has this id. */
int is_new_ndis(int tID);

/* The address to probe after this one, both as in an in_addr: one up, but a.b.c.255 leads to .1 of
 * the next c, past its .0; 255.255.255.255 to 0.0.0.1. */
long nextipaddress(long ipaddr);

/* Starts the scan of every test whose scan was not started yet. The share of a thread that is not
 * to be had is not probed (logged); "finished" comes all the same. Without the attributes for the
 * threads (logged) nothing is started and the next call tries again. */
void run_discovery();

/* Scans the share that `args` is a copy of, which it frees. Null. */
void* discovery_thread(void* args);

/* Reports that a scan has come to its end and wakes the poll loop. The caller may hold the list
 * mutex. */
void send_finished(int tid, int lid);

void add_ndis_result(char* rez, int rez_size);
int get_ndis_results(char** rez, int* rez_size);
void shutdown_ndis();

#endif

/* ICMP echo engine: sends echo requests to an IPv4 host over a raw socket and measures the round
 * trips (RFC 792). Raw sockets need root or CAP_NET_RAW.
 *
 * A request, `icmp_pkt_size` bytes, all that is not listed zero:
 *     0  type 8   1  code 0   2  checksum   4  identifier   6  sequence   (16 bits, host order)
 *     8  icmp_ping_data: time of day, 10
 *
 * Every raw socket receives every ICMP message that reaches the machine; a call tells its own by
 * identifier and sequence. Nothing is shared between calls: any number of threads may be in here.
 * Calls block, for 100 ms and up to the time-out for each probe. */
#ifndef VINDRAL_PING_H
#define VINDRAL_PING_H

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/time.h>
#include <sys/types.h>

/* What follows the ICMP header of a request. */
struct icmp_ping_data {
    struct timeval stime;   /* when the request was built */
    unsigned short ping_id; /* always 10 */
};

/* Sends `pCount` probes of `ping_data_size` bytes of data one after the other and waits `nTimeout`
 * ms for the reply to each. Returns their round trips in ms, 0.0 for one that is lost (caller
 * frees), or null with the reason logged: no host, no address, no socket; without a message when
 * pCount is less than 1. Data sizes from 25 to 65507 give packets of 8 bytes more, at least 52; all
 * others 76. */
double* ping(const char* pDest, unsigned int nTimeout, int pCount, unsigned short ping_data_size,
             unsigned short instID);

/* Builds and sends one request to `addr`. Returns its size and the time that the sending took in
 * ms, or -1. */
int send_ping(int sock, struct addrinfo* addr, unsigned short icmp_pkt_size, unsigned short pid,
              unsigned short sid, double* el_time);

/* Waits for the reply to request `sid`: the duration of the receive that brought it, in ms; 0.0
 * when it is lost. Each receive has the time-out less the duration of the one before. */
double wait_for_reply(int sock, u_int time_out, unsigned short icmp_pkt_size, unsigned short pid,
                      unsigned short sid);

/* One receive within `timo` ms: what recvfrom returns, or 0 when the time is over. */
int recvfrom_wto(int sock, char* buf, unsigned int len, struct sockaddr* saddr, double timo);

/* Judges a message of at least 28 bytes behind `p` that is no reply of ours: 0 when it reports an
 * error about our request, 1 otherwise. */
int handle_random_icmp(struct icmp* p, struct sockaddr_in* addr, unsigned short pid,
                       unsigned short sid);

/* What an ICMP error says; static text, "" for a type that is no error. */
char* get_icmp_error_msg(unsigned char icmp_type, unsigned char icmp_code);

/* The Internet checksum of `n` bytes (RFC 1071). */
unsigned short icmp_checksum(unsigned short* p, int n);

/* Sleeps for less than a second: `t` ms. 1, or 0 with the reason logged. */
int Sleep(int t);

#endif

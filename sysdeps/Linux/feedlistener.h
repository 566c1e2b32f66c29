/* Feed listener: local programs and permitted hosts push data to the agent over TCP or a unix
 * domain socket. A peer sends chunks (feedlistener_frame.h); every chunk becomes one line of text
 * in the feed cache:
 *
 *   TSV \t test id \t time \t peer address \t chunk \t status \n     from a TCP peer
 *   USV \t test id \t time \t localhost    \t chunk \t status \n     everything else
 *
 * The time is in seconds since the epoch. The chunk is URL-encoded twice (get_URL_Encode), so each
 * byte outside of letters and digits takes five characters. Status 0 is data; 1 is the text of an
 * error that the agent reports by itself: of a connection, with its peer's address, or of a
 * listener, whose peer name is "localhost" and whose line is therefore a USV line for TCP, too.
 *
 * The agent's result sources do not include the feed cache: nothing empties it. get_feed is there
 * for whoever will.
 *
 * Threads: one per listener ("feed tcp", "feed unix"), one per connection ("feed peer"), and the
 * poll thread, the only one that adds, modifies and removes listeners; the lists have no lock. A
 * listener that cannot open, bind or listen says so in the log and in a status line, and tries
 * again every 10 seconds. Its removal cancels the thread in its wait and joins it; when that is
 * done its socket is closed and its port or file can be used again. Connection threads are
 * detached, own all they touch and go on after the listener's removal until their peer ends.
 *
 * Locks: a record's u_mutex, FEED_DATA_MUTEX and the one round the encoding are never held
 * together, except that the encoding's holder takes FEED_DATA_MUTEX.
 *
 * Bounds, so that no peer can take all memory or descriptors:
 *   - a chunk has 1 MB at most, its length 20 digits. Something else where a length belongs waits
 *     like a length that is not complete. A connection that announces more than 1 MB, or lets more
 *     than that wait for a length, ends like one with a receive error: it is logged and gives a
 *     line with status 1 ("Message too long", "Protocol error");
 *   - 256 connections are served at once, of all listeners together; a further one is closed at
 *     once and logged. Nothing limits idle time, but a TCP peer that vanished is found out by the
 *     kernel's keep-alive (tcp(7)) and gives a line with status 1;
 *   - TCP peers that are not on the list stay connected and are not served. A listener keeps the
 *     latest 64 of them so, past rebinding, and closes older ones; all of them when it is removed;
 *   - chunks are encoded one at a time (some 15 MB for the largest);
 *   - the feed cache holds 16 MB. A line that does not fit is dropped; the first one is logged,
 *     then none until the cache has been handed over. */
#ifndef VINDRAL_FEEDLISTENER_H
#define VINDRAL_FEEDLISTENER_H

#include "guards.h"

#include <pthread.h>

/* The listener on a TCP port, of any local address. */
struct tcp_server {
    int tid;
    char** iplist GUARDED_BY(u_mutex);  /* peers that may send, owned; compared as text */
    int iplist_len GUARDED_BY(u_mutex); /* 0: everyone may */
    int port GUARDED_BY(u_mutex);
    pthread_t thread_id;
    mutex u_mutex{};                          /* between poll thread and listener */
    int tcp_socket_state GUARDED_BY(u_mutex); /* 1: to be bound (again) */
    pthread_attr_t tattr;                     /* of the connections' threads, which are detached */
};

/* The listener on a unix domain stream socket. */
struct unix_server {
    int tid;
    char* unix_path GUARDED_BY(u_mutex); /* owned; the socket has its first 107 characters */
    pthread_t thread_id;
    mutex u_mutex{};                           /* as above */
    int unix_socket_state GUARDED_BY(u_mutex); /* 1: to be bound (again) */
    pthread_attr_t tattr;                      /* as above */
};

/* What a connection's thread gets, and frees. */
struct acc {
    char* ip; /* the peer's address, or "localhost"; owned */
    int peer; /* connected socket, owned */
    int tid;
};

/* Returns 1. Everything here works without it. */
int init_feed();

/* Poll thread. `ip_list`, an array of `ip_list_len` new strings as from uparser, is taken over in
 * any case; at length 0 it is not looked at.
 *
 * add does nothing when a listener has the id or the port. modify does nothing for id or port 0 or
 * an unknown id. A new list counts for the next peer; a new port is bound within 20 seconds, in the
 * last 10 of which nobody listens. That another listener has the port is not looked at by modify:
 * binding fails then, as it does for a number that is no port. remove waits for the thread, which
 * takes no longer than the encoding of chunks that came first. */
void add_tcp_server(int tid, int port, char** ip_list, int ip_list_len);
void modify_tcp_server(int tid, int port, char** ip_list, int ip_list_len);
void remove_tcp_server(int tid);

/* Poll thread. The path is copied. Whatever file is there is deleted before binding, and again by
 * remove; a modify leaves the old socket file behind. The umask decides who may connect: with the
 * daemon's 022 the agent's own user, and root. An empty path gives an abstract address that the
 * kernel chooses.
 *
 * add does nothing for id 0, without a path, or when a listener has the id or the path; modify
 * without a path or for an unknown id, and it binds again even when the path is the same. */
void add_unix_server(int tid, char* us_path);
void modify_unix_server(int tid, char* new_upath);
void remove_unix_server(int tid);

/* Shutdown, when the poll thread has ended. */
void remove_all_tcp_servers();
void remove_all_unix_servers();

/* Free a record whose thread does not run. */
void free_tcp_server(tcp_server* server);
void free_unix_server(unix_server* server);

/* Hand the cache over and empty it; from any thread, the caller frees. get_feed returns 1, with
 * null and 0 when there is nothing; the other one the text, or null. */
int get_feed(char** p, int* l);
char* get_feed_results();

/* Appends the line of one chunk of `chl` bytes, which may hold anything, to the cache. Nothing for
 * a null or empty one. From any thread. */
void addchunk(char* chd, int chl, int tid, const char* incoming_host, int status_val);

/* Bodies of the threads. The first two take a record and end by cancellation only; the last takes
 * an acc from malloc. */
void* run_tcp_server(void* arg);
void* run_unix_server(void* arg);
void* accepting(void* arg);

#endif

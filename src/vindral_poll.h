/* The poll loop and the result cache: the only thread that talks to the collection server and the
 * only one that executes its commands.
 *
 * Each turn collects every checker's results into one block, posts it, acts on the answer and waits
 * for the poll interval or a wake-up (send_pending_data); fresh results that became ready meanwhile
 * are collected without a wait. A block that was not accepted is sent again, unchanged, until it
 * is; new results meanwhile stay with the checkers. */
#ifndef VINDRAL_POLL_H
#define VINDRAL_POLL_H

#include "guards.h"
#include "vindral_common.h"
#include "vindral_interval.h"
#include "vindral_wake.h"

extern int isAuthorized;       /* 1 between a login and the end of the session; poll thread only */
extern mutex cache_mutex;      /* data_cache and its hand-over to data_cache_copy */
extern bdata* data_cache;      /* the checkers' buffers one after the other, in collection order */
extern bdata* data_cache_copy; /* the block that is being sent; kept until it is accepted */

/* The thread. Returns when the poll interval becomes -1. Runs with cancellation off and opens it
 * only in its waits, where it holds no lock and nothing is half-done. */
void* main_worker_thread(void* arg);

/* Drains every checker into the cache. */
void collect_results();

/* Appends to the cache; nothing for a null buffer or length 0. The buffer stays the caller's. */
void add_to_cache(char* buff, size_t buff_len);

/* Moves the cache to the end of the pending block and returns that; null when both are empty. */
const bdata* get_cache_copy();

/* Drops the pending block. */
void free_cache_copy();

/* Takes the disk checker's stored text results and posts them through the custom-monitor API, which
 * accepts the first of them; all are dropped afterwards. Nothing in the agent calls it. */
void send_results();

/* Frees an array of results with its entries; only the array when res_count is below 1. */
void free_results(test_result** results, int res_count);

#endif

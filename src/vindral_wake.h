/* What wakes the poll loop, apart from the loop itself: a checker that calls this knows nothing of
 * who starts, steers or drains it. */
#ifndef VINDRAL_WAKE_H
#define VINDRAL_WAKE_H

#include "guards.h"

extern mutex poll_cond_mutex; /* held only round the signal and the wait */
extern condition poll_cond;

/* Ends the poll loop's current wait, so that fresh results go out at once. From any thread; a
 * signal sent while the loop is not waiting is lost; see fresh_results in checker.h. */
void send_pending_data();

#endif

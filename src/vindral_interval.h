/* The poll interval: set by the server's commands, read by the poll loop, which stands above them.
 */
#ifndef VINDRAL_INTERVAL_H
#define VINDRAL_INTERVAL_H

#include <atomic>

extern std::atomic<int> current_poll_interval;

/* Seconds between two polls; -1 ends the poll loop. Starts at 60. */
void set_poll_interval(int poll_interval);
int get_poll_interval();

#endif

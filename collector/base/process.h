/* What this process takes of its machine. */
#ifndef VINDRAL_COLLECTOR_PROCESS_H
#define VINDRAL_COLLECTOR_PROCESS_H

#include <cstdint>

/* What is not known is 0. */
struct process_figures {
    double started = 0;     /* seconds since the epoch; the same at each call */
    double cpu_seconds = 0; /* user and system */
    uint64_t resident_bytes = 0;
    uint64_t descriptors = 0, most_descriptors = 0; /* open, and how many may be */
};

process_figures read_process_figures();

#endif

/* What the network hands in, and what becomes of it. */
#ifndef VINDRAL_COLLECTOR_POLL_BLOCK_H
#define VINDRAL_COLLECTOR_POLL_BLOCK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

/* One poll's block, verified and unpacked. */
struct poll_block {
    std::string account;      /* the agent's e-mail address */
    std::string agent;        /* its name */
    std::string plain;        /* run of records */
    int64_t received = 0;     /* seconds since the epoch */
    std::string address = {}; /* where it came from, as text; empty: not known */
    std::string version = {}; /* what the agent calls its version; empty: not known */
};

enum class store_result {
    stored,    /* committed and synced */
    duplicate, /* the agent's last block once more: its answer was lost; nothing was stored again */
    failed     /* not kept: the agent must send it again */
};

/* What waits to be stored, the batch that is being written included. */
struct queue_load {
    size_t blocks = 0, bytes = 0;
};

/* How far the writer is behind: how long the oldest block has waited that is not answered; and of
 * those larger than `large_from`, which take turns, the one whose last turn is longest ago. */
struct queue_delay {
    std::chrono::milliseconds small{}, large{};
    size_t large_from = SIZE_MAX; /* bytes */
};

#endif

/* Where results are kept: SQLite in the state directory, one writer thread, one transaction for the
 * blocks that arrive together. No network in here. The tables are described in database.h.
 *
 * In the state directory: results.db (with -wal and -shm beside it while it is open), lock (held by
 * the collector that uses the directory), undecodable/, with a file for each block of which
 * something did not decode, and results-damaged-*.db, what results.db was before it was damaged.
 * The files are for their owner alone, and so is the directory when it is made here. */
#ifndef VINDRAL_COLLECTOR_STORE_H
#define VINDRAL_COLLECTOR_STORE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

struct record; /* record.h */

/* One poll's block, verified and unpacked. */
struct poll_block {
    std::string account;      /* the agent's e-mail address */
    std::string agent;        /* its name */
    std::string plain;        /* run of records */
    int64_t received = 0;     /* seconds since the epoch */
    std::string address = {}; /* where it came from, as text; empty: not known */
    std::string version = {}; /* what the agent calls its version; empty: not known */
};

/* An agent, as the store knows it. The views end with the call. */
struct known_agent {
    std::string_view account, agent, address, version;
    int64_t first_seen = 0, last_seen = 0; /* seconds since the epoch */
};

/* The last result of one test of an agent, or its last inventory of a kind. The views end with the
 * call. */
struct latest_result {
    std::string_view account, agent;
    int64_t received = 0;    /* seconds since the epoch */
    std::string_view record; /* bytes as sent */
};

enum class store_result {
    stored,    /* committed and synced */
    duplicate, /* the agent's last block once more: its answer was lost; nothing was stored again */
    failed     /* not kept: the agent must send it again */
};

/* Told of each record once it is committed, and of what could not be decoded. Called on the writer
 * thread, in order, before the block's `done`. The record is a view that ends with the call. */
struct store_listener {
    virtual ~store_listener() = default;
    virtual void on_record(const poll_block& from, const record& r) = 0;
    virtual void on_undecodable(const poll_block& from, size_t offset, size_t bytes,
                                const std::string& reason, const std::string& kept_as) = 0;
    /* Something the operator should see: storing fails, storing works again. The collector's other
     * parts may report here too, from any thread. */
    virtual void on_problem(const std::string& text) { (void)text; }
};

struct store_options {
    std::string directory; /* state directory; created when missing */
    /* Of the days on which results arrived, those before the newest that are kept; 0 keeps all. At
     * most one is dropped an hour, unless fewer are to be kept than in the last run. */
    int keep_days = 30;
    /* Bytes of blocks waiting for the writer; beyond it: failed. Of one agent a sixteenth of it
     * may wait, or a single block. */
    size_t max_queued = 64u << 20;
    /* Larger blocks are written in slices, and wait on their own: one of an agent, and in all what
     * is below this when the next one comes. */
    size_t large = 256u << 10;
    size_t max_large_queued = 512u << 20;
};

class store {
public:
    /* Null with the reason in `error` when the directory cannot be used, another collector uses it,
     * or the database cannot be opened, is not ours or comes from a newer program. `listener` may
     * be null; it has to outlive the store. */
    static std::unique_ptr<store> open(const store_options& options, store_listener* listener,
                                       std::string& error);
    virtual ~store() = default; /* finishes what is queued, then closes */

    /* Queues a block. `done` runs on the writer thread after the commit (or failure) that covers
     * it. An empty block is answered `stored` and one beyond max_queued `failed` at once, on this
     * thread. Any thread may call; `done` must not wait for the store. A database that fails (a
     * full disk) is opened again with the next block; until then every block fails. One that is
     * damaged, or was removed, is followed by a new one, and the listener is told. */
    virtual void submit(poll_block block, std::function<void(store_result)> done) = 0;

    /* What was known when the store was opened, for those who begin where an earlier run ended: to
     * be called before the first submit(), on the thread that opened it. In no order. A result that
     * is gone with its day is left out. What cannot be read is reported to the listener. */
    virtual void for_each_agent(const std::function<void(const known_agent&)>& each) const {
        (void)each;
    }
    virtual void for_each_latest(const std::function<void(const latest_result&)>& each) const {
        (void)each;
    }
};

#endif

/* Blocks that wait for the writer, and how much of them each agent and each address may have there.
 * Small ones wait together; large ones on their own, one slice of one of them at a time. Any thread
 * puts a block in, one takes. */
#ifndef VINDRAL_COLLECTOR_QUEUE_H
#define VINDRAL_COLLECTOR_QUEUE_H

#include "ingest/hash.h"
#include "ingest/poll_block.h"
#include "ingest/undecodable.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

/* A block on its way. But for the first six all is the writer's. */
struct queued_block {
    poll_block block;
    std::function<void(store_result)> done;
    std::string agent; /* as shares are kept of it */
    bool large = false;
    int64_t submitted = 0;                                  /* by steady_clock */
    std::chrono::steady_clock::time_point waits_since = {}; /* for its next turn */

    store_result result = store_result::failed;
    bool repeated = false;   /* it was stored before, as far as is known */
    bool unfinished = false; /* its next slice is for a later transaction */
    std::optional<running_hash> hashing;
    size_t hashed = 0;    /* bytes */
    block_hash hash = {}; /* once it is known */
    bool hash_is_known = false;
    size_t stored = 0;       /* bytes in slices that are committed */
    unsigned generation = 0; /* and which file these are in: engine::generation() */
    size_t from = 0, to = 0; /* the slice, in `plain`; all of a block that is not large */
    size_t first_record = 0, records = 0; /* of the slice, among those of the transaction */
    size_t work = SIZE_MAX;               /* its agent, among those of the transaction */
    undecodable_summary bad;              /* of the slice */
    std::string kept_as;                  /* empty when it was not kept */

    std::string_view part() const { return std::string_view(block.plain).substr(from, to - from); }
    bool last_part() const { return to == block.plain.size(); }
};

/* In bytes of blocks; ingest_options says what for. */
struct queue_limits {
    size_t max_queued, large, max_large_queued;
};

class block_queue {
public:
    explicit block_queue(const queue_limits& limits) : limits_(limits) {}

    /* False when it does not fit: then nothing is taken from `block` and `done`, as when there is
     * no memory, which is the one thing that it throws. What follows, but for put_back(), can do
     * without. */
    bool put(poll_block& block, std::function<void(store_result)>& done);

    /* Everything that waits, and, unless they have to wait longer, one large block behind it.
     * Returns with nothing after `most`. False when the queue is stopped and nothing is left. */
    bool take(std::deque<queued_block>& batch, std::chrono::milliseconds most, bool with_large);

    bool is_stopped();
    /* The next take() returns at once. Any thread. */
    void nudge();

    queue_load waiting_now();
    queue_delay delay();

    /* Until it is stopped, or `most` has passed. */
    void wait_for_stop(std::chrono::milliseconds most);

    /* A large block of which slices are left, behind the others of its kind. Where that throws, it
     * is as it was. */
    void put_back(queued_block&& block);

    /* Makes room for others of its agent, and frees its bytes. What was taken counts until then.
     * Small ones leave in the order in which they came. */
    void leave(queued_block& block);

    void stop();

private:
    /* Blocks of a kind, the batch that is being written included. */
    struct waiting {
        std::deque<queued_block> blocks;
        size_t bytes = 0, count = 0;
        std::unordered_map<std::string, size_t> shares;
        std::chrono::steady_clock::time_point since = {}; /* of small ones, about, the oldest that
                                                             was taken and has not left */

        bool fits(const std::string& owner, size_t more, size_t most) const;
    };

    const queue_limits limits_;
    std::mutex mutex_; /* guards what follows */
    std::condition_variable wake_;
    waiting small_, large_; /* of large_ the first is in work; one of an agent */
    bool stopping_ = false, nudged_ = false;
};

#endif

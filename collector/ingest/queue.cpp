#include "ingest/queue.h"

#include "ingest/clock.h"

#include <chrono>
#include <new>
#include <utility>

static std::string agent_of(const poll_block& b) {
    std::string owner;
    owner.reserve(b.account.size() + 1 + b.agent.size());
    return owner.append(b.account).append(1, '\0').append(b.agent);
}

/* One that nothing of the same agent or address waits before is let in whatever its size, or the
 * largest would never be. */
bool block_queue::waiting::fits(const std::string& owner, size_t more, size_t most) const {
    auto share = shares.find(owner);
    return owner.empty() || share == shares.end() || share->second == 0 ||
           share->second + more <= most;
}

bool block_queue::put(poll_block& block, std::function<void(store_result)>& done) {
    const size_t size = block.plain.size();
    const bool large = size > limits_.large;
    const size_t most = large ? limits_.max_large_queued : limits_.max_queued;
    {
        std::lock_guard hold(mutex_);
        waiting& queue = large ? large_ : small_;
        std::string agent = agent_of(block);
        if (queue.bytes >= most || !queue.fits(agent, size, large ? 0 : most / 16) ||
            !queue.fits(block.address, size, large ? most : most / 4)) {
            return false;
        }
        size_t& of_agent = queue.shares[agent]; /* where memory is short, one of nothing */
        size_t& of_address = queue.shares[block.address];
        queued_block& queued = queue.blocks.emplace_back();
        of_agent += size;
        of_address += size;
        queue.bytes += size;
        queue.count++;
        queued.block = std::move(block);
        queued.done = std::move(done);
        queued.agent = std::move(agent);
        queued.large = large;
        queued.submitted = steady_clock();
        queued.waits_since = std::chrono::steady_clock::now();
    }
    wake_.notify_one();
    return true;
}

bool block_queue::take(std::deque<queued_block>& batch, std::chrono::milliseconds most,
                       bool with_large) {
    std::unique_lock hold(mutex_);
    auto has_large = [&] { return !large_.blocks.empty() && (with_large || stopping_); };
    wake_.wait_for(hold, most,
                   [&] { return stopping_ || nudged_ || !small_.blocks.empty() || has_large(); });
    nudged_ = false;
    batch.swap(small_.blocks);
    if (!batch.empty()) {
        small_.since = batch.front().waits_since;
    }
    if (has_large()) {
        try {
            batch.push_back(std::move(large_.blocks.front()));
            large_.blocks.pop_front();
        } catch (const std::bad_alloc&) { /* its turn comes with the next ones */
        }
    }
    return !batch.empty() || !large_.blocks.empty() || !stopping_;
}

bool block_queue::is_stopped() {
    std::lock_guard hold(mutex_);
    return stopping_;
}

void block_queue::wait_for_stop(std::chrono::milliseconds most) {
    std::unique_lock hold(mutex_);
    wake_.wait_for(hold, most, [this] { return stopping_; });
}

void block_queue::put_back(queued_block&& block) {
    std::lock_guard hold(mutex_);
    block.waits_since = std::chrono::steady_clock::now();
    large_.blocks.push_back(std::move(block));
}

void block_queue::leave(queued_block& block) {
    std::lock_guard hold(mutex_);
    waiting& queue = block.large ? large_ : small_;
    const size_t size = block.block.plain.size();
    queue.bytes -= size;
    queue.count--;
    queue.since = block.waits_since; /* the next one came soon after it */
    for (const std::string* owner : {&block.agent, &block.block.address}) {
        auto share = queue.shares.find(*owner);
        share->second -= size;
        if (share->second == 0) {
            queue.shares.erase(share);
        }
    }
    std::string().swap(block.block.plain);
}

void block_queue::nudge() {
    {
        std::lock_guard hold(mutex_);
        nudged_ = true;
    }
    wake_.notify_one();
}

queue_load block_queue::waiting_now() {
    std::lock_guard hold(mutex_);
    return {small_.count + large_.count, small_.bytes + large_.bytes};
}

queue_delay block_queue::delay() {
    const auto now = std::chrono::steady_clock::now();
    auto passed = [&](std::chrono::steady_clock::time_point since) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(now - since);
    };
    queue_delay found{.large_from = limits_.large};
    std::lock_guard hold(mutex_);
    if (small_.count > small_.blocks.size()) {
        found.small = passed(small_.since);
    } else if (!small_.blocks.empty()) {
        found.small = passed(small_.blocks.front().waits_since);
    }
    if (!large_.blocks.empty()) {
        found.large = passed(large_.blocks.front().waits_since);
    }
    return found;
}

void block_queue::stop() {
    {
        std::lock_guard hold(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
}

/* A number of bytes that all share. Any thread. */
#ifndef VINDRAL_COLLECTOR_WEB_BUDGET_H
#define VINDRAL_COLLECTOR_WEB_BUDGET_H

#include "base/rates.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <unordered_map>
#include <utility>

class memory_budget {
public:
    explicit memory_budget(size_t most) : most_(most) {}

    /* A part of it, given back by scope; the budget has to outlive it. */
    class share {
    public:
        share() = default;
        share(share&& other) noexcept
            : of_(std::exchange(other.of_, nullptr)), bytes_(std::exchange(other.bytes_, 0)) {}
        share& operator=(share&& other) noexcept {
            std::swap(of_, other.of_);
            std::swap(bytes_, other.bytes_);
            return *this;
        }
        ~share() {
            if (of_) {
                of_->used_.fetch_sub(bytes_, std::memory_order_relaxed);
            }
        }
        explicit operator bool() const { return of_ != nullptr; }

    private:
        friend class memory_budget;
        memory_budget* of_ = nullptr;
        size_t bytes_ = 0;
    };

    /* An empty one when there is not that much. */
    share take(size_t bytes) {
        share taken;
        size_t used = used_.load(std::memory_order_relaxed);
        do {
            if (bytes > most_ - used) {
                return taken;
            }
        } while (!used_.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
        taken.of_ = this;
        taken.bytes_ = bytes;
        return taken;
    }
    size_t used() const { return used_.load(std::memory_order_relaxed); }

private:
    const size_t most_;
    std::atomic<size_t> used_{0};
};

/* A budget of which one caller has a part at most, so that some is left for the others. Any thread.
 */
class caller_budget {
public:
    /* Out of `all`, which has to outlive it. */
    caller_budget(memory_budget& all, size_t most_of_one) : all_(all), most_of_one_(most_of_one) {}

    class share {
    public:
        share() = default;
        share(share&& other) noexcept
            : held_(std::move(other.held_)), of_(std::exchange(other.of_, nullptr)),
              who_(other.who_), bytes_(other.bytes_) {}
        share& operator=(share&& other) noexcept {
            std::swap(held_, other.held_);
            std::swap(of_, other.of_);
            std::swap(who_, other.who_);
            std::swap(bytes_, other.bytes_);
            return *this;
        }
        ~share() {
            if (of_) {
                of_->give_back(who_, bytes_);
            }
        }
        explicit operator bool() const { return of_ != nullptr; }

    private:
        friend class caller_budget;
        memory_budget::share held_;
        caller_budget* of_ = nullptr;
        caller_key who_;
        size_t bytes_ = 0;
    };

    /* An empty one when there is not that much, or not for this caller. */
    share take(const caller_key& who, size_t bytes) {
        share taken;
        memory_budget::share held = all_.take(bytes);
        if (!held) {
            return taken;
        }
        std::lock_guard<std::mutex> guard(mutex_);
        size_t& mine = of_callers_[who];
        if (bytes > most_of_one_ - std::min(most_of_one_, mine)) {
            if (mine == 0) {
                of_callers_.erase(who);
            }
            return taken;
        }
        mine += bytes;
        taken.held_ = std::move(held);
        taken.of_ = this;
        taken.who_ = who;
        taken.bytes_ = bytes;
        return taken;
    }

private:
    void give_back(const caller_key& who, size_t bytes) {
        std::lock_guard<std::mutex> guard(mutex_);
        auto mine = of_callers_.find(who);
        mine->second -= bytes;
        if (mine->second == 0) {
            of_callers_.erase(mine);
        }
    }

    memory_budget& all_;
    const size_t most_of_one_;
    std::mutex mutex_;
    std::unordered_map<caller_key, size_t> of_callers_;
};

#endif

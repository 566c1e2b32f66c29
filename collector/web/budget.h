/* A number of bytes that all share. Any thread. */
#ifndef VINDRAL_COLLECTOR_WEB_BUDGET_H
#define VINDRAL_COLLECTOR_WEB_BUDGET_H

#include <atomic>
#include <cstddef>
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

#endif

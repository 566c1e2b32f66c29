#include "web/readers.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <pthread.h>
#include <utility>

using std::chrono::steady_clock;

readers::readers(size_t threads, size_t waiting, size_t waiting_of_one,
                 std::function<void()> at_times)
    : most_waiting_(waiting), most_of_one_(waiting_of_one),
      most_under_way_of_one_(std::max<size_t>(threads, 2) - 1), at_times_(std::move(at_times)),
      next_time_(steady_clock::now()) {
    try {
        for (size_t i = 0; i < threads; i++) {
            threads_.emplace_back([this] { run(); });
            pthread_setname_np(threads_.back().native_handle(), "reader");
        }
    } catch (...) { /* a thread that cannot be had leaves none behind */
        stop();
        throw;
    }
}

readers::~readers() {
    stop();
}

readers::verdict readers::put(const caller_key& who, std::function<void()> work) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (waiting_ >= most_waiting_) {
            return verdict::full;
        }
        line& of = lines_[who];
        if (of.waiting.size() >= most_of_one_) {
            return verdict::full_of_one;
        }
        of.waiting.push_back(std::move(work));
        if (of.waiting.size() == 1) {
            try {
                turns_.push_back(who);
            } catch (...) { /* no memory: nothing is changed */
                of.waiting.pop_back();
                throw;
            }
        }
        ++waiting_;
    }
    more_.notify_one();
    return verdict::taken;
}

/* Null when nobody may have a turn now. Takes no memory: a thread that fails here takes all with
 * it. */
std::function<void()> readers::next(caller_key& who) {
    auto turn = std::find_if(turns_.begin(), turns_.end(), [this](const caller_key& key) {
        return lines_[key].under_way < most_under_way_of_one_;
    });
    if (turn == turns_.end()) {
        return nullptr;
    }
    who = *turn;
    line& of = lines_[who];
    std::function<void()> work = std::move(of.waiting.front());
    of.waiting.pop_front();
    --waiting_;
    ++of.under_way;
    std::rotate(turn, std::next(turn), turns_.end());
    if (of.waiting.empty()) {
        turns_.pop_back();
    }
    return work;
}

void readers::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        caller_key who;
        if (std::function<void()> work = next(who)) {
            lock.unlock();
            work();
            work = nullptr; /* what it holds, before the lock */
            lock.lock();
            line& of = lines_[who];
            if (--of.under_way == 0 && of.waiting.empty()) {
                lines_.erase(who);
            }
            more_.notify_one(); /* it may be somebody's turn who had to wait for this one's end */
            continue;
        }
        if (stopping_ && waiting_ == 0) {
            return;
        }
        auto now = steady_clock::now();
        if (at_times_ && !stopping_ && now >= next_time_) {
            next_time_ = now + std::chrono::seconds(1);
            lock.unlock();
            try {
                at_times_();
            } catch (const std::exception&) { /* no memory: the next time */
            }
            lock.lock();
            continue;
        }
        if (at_times_ && !stopping_) {
            more_.wait_until(lock, next_time_);
        } else {
            more_.wait(lock);
        }
    }
}

void readers::stop() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stopping_ = true;
    }
    more_.notify_all();
    for (std::thread& thread : threads_) {
        if (thread.joinable()) {
            thread.join();
        }
    }
}

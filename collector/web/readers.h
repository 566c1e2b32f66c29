/* The threads on which requests are answered, and the line in front of them: whoever has the
 * longest to wait for a turn of his own comes first, so that one caller with many requests delays
 * another by no more than the one under way; and of one caller fewer are under way than there are
 * threads. No sockets. */
#ifndef VINDRAL_COLLECTOR_WEB_READERS_H
#define VINDRAL_COLLECTOR_WEB_READERS_H

#include "base/rates.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

class readers {
public:
    /* Throws std::system_error when a thread cannot be had. `at_times` runs about once a second on
     * one of the threads, when one is free. */
    readers(size_t threads, size_t waiting, size_t waiting_of_one,
            std::function<void()> at_times = nullptr);
    ~readers(); /* stop() */
    readers(const readers&) = delete;
    readers& operator=(const readers&) = delete;

    enum class verdict { taken, full, full_of_one };
    /* Any thread. `work` must not throw. */
    verdict put(const caller_key& who, std::function<void()> work);

    /* Waits for all that was put. */
    void stop();

private:
    struct line {
        std::deque<std::function<void()>> waiting;
        size_t under_way = 0;
    };
    void run();
    std::function<void()> next(caller_key& who);

    const size_t most_waiting_, most_of_one_, most_under_way_of_one_;
    const std::function<void()> at_times_;
    std::mutex mutex_;
    std::condition_variable more_;
    std::unordered_map<caller_key, line> lines_;
    std::deque<caller_key> turns_; /* those with somebody waiting */
    size_t waiting_ = 0;
    bool stopping_ = false;
    std::chrono::steady_clock::time_point next_time_;
    std::vector<std::thread> threads_;
};

#endif

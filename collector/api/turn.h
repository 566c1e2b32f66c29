/* Of those who do something that takes long one at a time, the others wait for their turn, and not
 * for long: they would have all reading threads, and nothing could be read. */
#ifndef VINDRAL_COLLECTOR_API_TURN_H
#define VINDRAL_COLLECTOR_API_TURN_H

#include <chrono>
#include <condition_variable>
#include <mutex>

/* One for all who take turns; outlives them. */
struct turnstile {
    std::mutex mutex = {};
    std::condition_variable given_back = {};
    bool is_taken = false;
};

/* False when it did not come in that time. */
class turn {
public:
    turn(turnstile& of, std::chrono::milliseconds longest_wait) : of_(of) {
        std::unique_lock hold(of_.mutex);
        is_mine_ = of_.given_back.wait_for(hold, longest_wait, [this] { return !of_.is_taken; });
        of_.is_taken = true;
    }
    ~turn() {
        if (is_mine_) {
            std::lock_guard hold(of_.mutex);
            of_.is_taken = false;
            of_.given_back.notify_one();
        }
    }
    turn(const turn&) = delete;
    turn& operator=(const turn&) = delete;
    explicit operator bool() const { return is_mine_; }

private:
    turnstile& of_;
    bool is_mine_;
};

#endif

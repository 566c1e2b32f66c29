/* Whether what comes is stored, as the store's thread knows it: set there, read by any thread
 * without waiting. */
#ifndef VINDRAL_COLLECTOR_PULSE_H
#define VINDRAL_COLLECTOR_PULSE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

enum class storing_state : uint8_t {
    starts,     /* the thread does not run yet */
    takes_over, /* what an earlier version left comes first; blocks wait */
    works,      /* the last transaction was committed, or there was none yet */
    fails,      /* it was not */
    disk_full   /* and for that reason */
};

class store_pulse {
public:
    using clock = std::chrono::steady_clock;

    /* The thread has got so far. Between two beats is a step of its work, or two seconds of rest.
     */
    void beat(clock::time_point now) { beat_.store(now.time_since_epoch().count(), relaxed); }
    void set(storing_state now) { state_.store(now, relaxed); }
    /* What failed, in the words of whoever noticed. */
    void set_failed(std::string_view reason);
    storing_state state() const { return state_.load(relaxed); }

    /* Empty when results are stored; else a sentence for people without a token: no paths, no
     * names. */
    std::string trouble(clock::time_point now) const;

private:
    static constexpr auto relaxed = std::memory_order_relaxed;
    std::atomic<storing_state> state_{storing_state::starts};
    std::atomic<clock::rep> beat_{0};
};

#endif

/* Who goes on at once while the collector catches up, after an outage or because the store is slow,
 * and who has to come again. One thread; no network in here.
 *
 * What comes again waits out its interval, keeps its results, and costs a handshake each time. So
 * who is let in must not depend on when in the interval an agent comes: whoever is sent away is so
 * after a time by chance (server_options::spread), and comes at another one the next time. */
#ifndef VINDRAL_COLLECTOR_PACING_H
#define VINDRAL_COLLECTOR_PACING_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>

/* Closed while those that wait have waited too long. */
class backlog_gate {
public:
    explicit backlog_gate(std::chrono::milliseconds most) : most_(most) {}

    /* Closes when the oldest has waited longer than `most`, and opens when it has no longer than
     * half of that. Whether it is closed now. */
    bool look(std::chrono::milliseconds oldest) {
        closed_ = oldest > (closed_ ? most_ / 2 : most_);
        return closed_;
    }
    bool is_closed() const { return closed_; } /* at the last look */

private:
    const std::chrono::milliseconds most_;
    bool closed_ = false;
};

struct login_limits {
    size_t rate = 200;                    /* a second; at least 1 */
    std::chrono::seconds idle{2};         /* what was not used of so long may be used at once */
    std::chrono::milliseconds wait{5000}; /* the longest wait for a turn */
};

/* Logins, one behind the other at a steady rate. Those that come too quickly wait for their turn,
 * in the order in which they came, as long as that is not too far off; of one address no more wait
 * than a quarter of all that could. */
class login_pace {
public:
    using time = std::chrono::steady_clock::time_point;

    explicit login_pace(const login_limits& limits);
    login_pace(const login_pace&) = delete;
    login_pace& operator=(const login_pace&) = delete;

    /* From its making to its end it counts among those of its address that wait. */
    class place {
    public:
        /* One that logs in has the turn of one that was sent away, if there is any. */
        place(login_pace& all, uint64_t address, time now, bool logs_in);
        ~place();
        place(const place&) = delete;
        place& operator=(const place&) = delete;

        bool refused() const { return refused_; } /* no turn in time */
        std::chrono::milliseconds wait() const { return wait_; }

    private:
        login_pace& all_;
        const uint64_t address_;
        std::chrono::milliseconds wait_{0};
        bool refused_ = false;
    };

    /* Somebody whose turn it was has been told to log in, and will within seconds. */
    void sent_away(time now);

private:
    void forget_late(time now);
    bool is_expected(time now);

    const login_limits limits_;
    const std::chrono::nanoseconds each_; /* from one turn to the next */
    const size_t most_of_address_;
    time next_{}; /* turn that nobody has */
    std::deque<time> expected_;
    std::unordered_map<uint64_t, size_t> waiting_; /* by address */
};

#endif

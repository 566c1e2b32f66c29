/* Who is logged in. One thread; no network in here. */
#ifndef VINDRAL_COLLECTOR_SESSION_H
#define VINDRAL_COLLECTOR_SESSION_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

/* The two answers that are no session: an agent compares with them as whole strings. */
inline constexpr std::string_view answer_log_in_again = "111111";
inline constexpr std::string_view answer_not_authorised = "666666";

struct session {
    std::string id; /* 32 hexadecimal digits, random */
    std::string account;
    std::string agent;

    /* How far the agent has the plan, as serials: everything up to `delivered` has arrived. Its
     * last answer began after `answered_from`; when that answer turns out lost, it is given again.
     */
    uint64_t delivered = 0;
    uint64_t answered_from = 0;
};

struct session_limits {
    size_t most = 200000; /* sessions; the one unused longest makes room */
    std::chrono::seconds idle{24 * 60 * 60};
};

class session_table {
public:
    using time = std::chrono::steady_clock::time_point;

    explicit session_table(session_limits limits = {}) : limits_(limits) {}

    /* A new session. An older one of the same account and agent ends. Null when the system has no
     * random numbers. */
    std::shared_ptr<session> log_in(std::string account, std::string agent, time now);

    /* The session of that id, now used again; null when there is none. A poll under way may keep it
     * after its end. */
    std::shared_ptr<session> find(std::string_view id, time now);

    size_t size() const { return by_id_.size(); }

private:
    struct entry {
        std::shared_ptr<session> held;
        time used;
    };
    using place = std::list<entry>::iterator;

    void end(place which);
    void end_idle(time now);

    session_limits limits_;
    std::list<entry> entries_;                          /* in order of use, the latest in front */
    std::unordered_map<std::string_view, place> by_id_; /* the key lives in the session */
    std::unordered_map<std::string, place> by_agent_;
};

#endif

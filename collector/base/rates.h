/* How often somebody may do something: so many times a minute, and after a pause as many at once.
 * No sockets, no clock. Any thread. */
#ifndef VINDRAL_COLLECTOR_RATES_H
#define VINDRAL_COLLECTOR_RATES_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <unordered_map>

/* Who: a token by its id, with the sessions begun with it, or an address by a key as admission.h
 * has it. */
struct caller_key {
    bool is_token = false;
    uint64_t number = 0;
    bool operator==(const caller_key& other) const {
        return is_token == other.is_token && number == other.number;
    }
};

template <>
struct std::hash<caller_key> {
    size_t operator()(const caller_key& key) const {
        return std::hash<uint64_t>()(key.number * 0x9e3779b97f4a7c15u ^ (key.is_token ? 1 : 0));
    }
};

class rate_limit {
public:
    using time = std::chrono::steady_clock::time_point;

    /* Remembers `most_keys` callers at a time; when there are more that have not had a pause, those
     * beyond share one allowance. */
    explicit rate_limit(int a_minute, size_t most_keys = 16384)
        : a_minute_(a_minute), most_keys_(most_keys) {}

    /* 0, and counted; or the seconds until it is allowed again, and not counted. */
    int take(const caller_key& who, time now);

    size_t remembered() const;

private:
    struct allowance {
        double left = 0;
        time since{};
    };
    allowance& find(const caller_key& who, time now);
    void refill(allowance& of, time now) const;
    int seconds_until_one(const allowance& of) const;

    const int a_minute_;
    const size_t most_keys_;
    mutable std::mutex mutex_;
    std::unordered_map<caller_key, allowance> all_;
    allowance others_;
    bool others_used_ = false;
    time swept_{};
};

#endif

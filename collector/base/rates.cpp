#include "base/rates.h"

#include <algorithm>
#include <cmath>

void rate_limit::refill(allowance& of, time now) const {
    double minutes = std::chrono::duration<double, std::ratio<60>>(now - of.since).count();
    if (minutes > 0) {
        of.left = std::min<double>(a_minute_, of.left + minutes * a_minute_);
        of.since = now;
    }
}

rate_limit::allowance& rate_limit::find(const caller_key& who, time now) {
    auto found = all_.find(who);
    if (found == all_.end()) {
        if (all_.size() >= most_keys_ && now - swept_ >= std::chrono::seconds(1)) {
            swept_ = now;
            for (auto at = all_.begin(); at != all_.end();) {
                refill(at->second, now);
                at = at->second.left >= a_minute_ ? all_.erase(at) : std::next(at);
            }
        }
        if (all_.size() >= most_keys_) {
            if (!others_used_) {
                others_used_ = true;
                others_ = {double(a_minute_), now};
            }
            refill(others_, now);
            return others_;
        }
        found = all_.emplace(who, allowance{double(a_minute_), now}).first;
    }
    refill(found->second, now);
    return found->second;
}

int rate_limit::seconds_until_one(const allowance& of) const {
    if (of.left >= 1) {
        return 0;
    }
    return std::max(1, int(std::ceil((1 - of.left) * 60 / std::max(1, a_minute_))));
}

int rate_limit::take(const caller_key& who, time now) {
    std::lock_guard<std::mutex> guard(mutex_);
    allowance& of = find(who, now);
    int seconds = seconds_until_one(of);
    of.left -= seconds == 0 ? 1 : 0;
    return seconds;
}

size_t rate_limit::remembered() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return all_.size();
}

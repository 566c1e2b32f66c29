#include "ingest/pacing.h"

#include <algorithm>

/* An agent that is told to log in again does so after a second. */
static constexpr std::chrono::seconds until_login{5};

login_pace::login_pace(const login_limits& limits)
    : limits_(limits),
      each_(std::chrono::nanoseconds(std::chrono::seconds(1)) / std::max<size_t>(limits.rate, 1)),
      most_of_address_(std::max<size_t>(limits.wait / each_ / 4, 1)) {}

void login_pace::forget_late(time now) {
    while (!expected_.empty() && now - expected_.front() > until_login) {
        expected_.pop_front();
    }
}

void login_pace::sent_away(time now) {
    forget_late(now);
    expected_.push_back(now);
}

bool login_pace::is_expected(time now) {
    forget_late(now);
    if (expected_.empty()) {
        return false;
    }
    expected_.pop_front();
    return true;
}

login_pace::place::place(login_pace& all, uint64_t address, time now, bool logs_in)
    : all_(all), address_(address) {
    size_t& waiting = all_.waiting_[address_];
    ++waiting;
    if (logs_in && all_.is_expected(now)) {
        return;
    }
    const time turn = std::max(all_.next_, now - all_.limits_.idle + all_.each_);
    wait_ = std::max(std::chrono::ceil<std::chrono::milliseconds>(turn - now),
                     std::chrono::milliseconds(0));
    refused_ = wait_ > all_.limits_.wait || (wait_.count() > 0 && waiting > all_.most_of_address_);
    if (!refused_) {
        all_.next_ = turn + all_.each_;
    }
}

login_pace::place::~place() {
    auto waiting = all_.waiting_.find(address_);
    if (--waiting->second == 0) {
        all_.waiting_.erase(waiting);
    }
}

#include "plan/known.h"

#include "base/record_summary.h"
#include "protocol/record.h"

#include <algorithm>

static constexpr int64_t recent_s = 86400;

/* A NUL cannot stand in a request's header, so it parts the two names. */
static std::string key_of(std::string_view account, std::string_view agent) {
    return std::string(account).append(1, '\0').append(agent);
}

void known_tests::add(const latest_result& latest) {
    record r;
    std::string reason;
    if (!decode_record(latest.record, r, reason)) {
        return;
    }
    record_summary what = summarize(r);
    if (!what.test || *what.test == 0) {
        return;
    }
    if (size_ >= most_) {
        ++left_out_;
        return;
    }
    agents_[key_of(latest.account, latest.agent)].push_back(
        {latest.received, what.type, *what.test});
    ++size_;
}

std::vector<known_test> known_tests::of(const std::string& account,
                                        const std::string& agent) const {
    std::vector<known_test> tests;
    auto found = agents_.find(key_of(account, agent));
    if (found == agents_.end()) {
        return tests;
    }
    int64_t newest = INT64_MIN;
    for (const entry& e : found->second) {
        newest = std::max(newest, e.received);
    }
    for (const entry& e : found->second) {
        /* no overflow: a wrong clock may have left any time */
        bool recent = static_cast<uint64_t>(newest) - static_cast<uint64_t>(e.received) <= recent_s;
        tests.push_back({e.type, e.id, recent});
    }
    return tests;
}

void known_tests::forget(const std::string& account, const std::string& agent) {
    auto found = agents_.find(key_of(account, agent));
    if (found != agents_.end()) {
        size_ -= found->second.size();
        agents_.erase(found);
    }
}

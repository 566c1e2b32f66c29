#include "plan/known.h"

#include <algorithm>

static constexpr int64_t recent_s = 86400;

/* A NUL cannot stand in a request's header, so it parts the two names. */
static std::string key_of(std::string_view account, std::string_view agent) {
    return std::string(account).append(1, '\0').append(agent);
}

void known_tests::add(std::string_view account, std::string_view agent, const agent_state& known) {
    std::vector<entry>* entries = nullptr;
    for (const test_status& test : known.tests) {
        int32_t id = test.number.value_or(0);
        if (id == 0) {
            continue;
        }
        if (size_ >= most_) {
            ++left_out_;
            continue;
        }
        if (entries == nullptr) {
            entries = &agents_[key_of(account, agent)];
        }
        entries->push_back({test.received, test.type, id});
        ++size_;
    }
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

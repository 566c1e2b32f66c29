#include "plan/known.h"

#include <algorithm>
#include <utility>

static constexpr int64_t recent_s = 86400;

/* A NUL cannot stand in a request's header, so it parts the two names. */
static std::string key_of(std::string_view account, std::string_view agent) {
    return std::string(account).append(1, '\0').append(agent);
}

static int32_t number_of(const test_status& test) {
    return test.number.value_or(0);
}

static int32_t number_of(const left_test& test) {
    return test.number;
}

template <typename Tests>
void known_tests::add_all(std::string_view account, std::string_view agent, const Tests& tests) {
    std::vector<entry>* entries = nullptr;
    for (const auto& test : tests) {
        int32_t id = number_of(test);
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

void known_tests::add(std::string_view account, std::string_view agent, const agent_state& known) {
    add_all(account, agent, known.tests);
}

void known_tests::add_left(std::string_view account, std::string_view agent,
                           std::span<const left_test> left) {
    add_all(account, agent, left);
}

std::vector<known_test> known_tests::of(const std::string& account,
                                        const std::string& agent) const {
    std::vector<known_test> tests;
    auto found = agents_.find(key_of(account, agent));
    if (found == agents_.end()) {
        return tests;
    }
    std::vector<entry> entries = found->second;
    auto key = [](const entry& e) { return std::pair(e.type, e.id); };
    std::sort(entries.begin(), entries.end(), [&](const entry& a, const entry& b) {
        return key(a) != key(b) ? key(a) < key(b) : a.received > b.received;
    });
    int64_t newest = INT64_MIN;
    for (const entry& e : entries) {
        newest = std::max(newest, e.received);
    }
    for (const entry& e : entries) {
        /* no overflow: a wrong clock may have left any time */
        bool recent = static_cast<uint64_t>(newest) - static_cast<uint64_t>(e.received) <= recent_s;
        bool again = !tests.empty() && tests.back().type == e.type && tests.back().id == e.id;
        if (!again) {
            tests.push_back({e.type, e.id, recent});
        }
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

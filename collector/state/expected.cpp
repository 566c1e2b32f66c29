#include "state/expected.h"

#include "protocol/record_types.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int64_t least_patience = 60;

} // namespace

void expected::follow(const plan_summary& plan, int64_t now) {
    if (is_followed_ && plan.every != now_) {
        intervals old = at(now);
        longer_ = {std::max(old.poll, plan.every.poll), std::max(old.check, plan.every.check)};
        longer_until_ = now + 3 * int64_t{std::max(longer_.poll, longer_.check)};
        if (now_.check <= 0 && plan.every.check > 0) {
            repeating_since_ = now;
        }
    }
    now_ = plan.every;
    changes_++;
    is_followed_ = true;
    followed_ = now;
    if (plan.is_planned) {
        follow_tests(plan, now);
    } else if (is_planned_) {
        unplanned_since_ = now; /* those of the plan that is over since before */
    }
    is_planned_ = plan.is_planned;
}

void expected::resume(const intervals& every) {
    now_ = every;
    longer_until_ = INT64_MIN;
    is_followed_ = true;
    changes_++;
}

void expected::follow_tests(const plan_summary& plan, int64_t now) {
    std::vector<planned> before;
    before.reserve(plan.tests.size()); /* or nothing is changed */
    before.swap(tests_);
    for (const auto& test : plan.tests) {
        tests_.push_back({test, is_planned_ ? now : unplanned_since_});
    }
    auto by_test = [](const planned& a, const planned& b) { return a.test < b.test; };
    std::sort(tests_.begin(), tests_.end(), by_test);
    auto same = [](const planned& a, const planned& b) { return a.test == b.test; };
    tests_.erase(std::unique(tests_.begin(), tests_.end(), same), tests_.end());
    auto repeats = [](const planned& p) { return p.test.first != protocol::discovery.code; };
    repeating_ = static_cast<size_t>(std::count_if(tests_.begin(), tests_.end(), repeats));
    auto known = before.begin();
    for (planned& p : tests_) {
        known = std::lower_bound(known, before.end(), p, by_test);
        if (known != before.end() && known->test == p.test) {
            p.since = known->since;
        }
    }
}

intervals expected::at(int64_t now) const {
    return now < longer_until_ ? longer_ : now_;
}

int64_t expected::silent_after(int64_t now) const {
    return std::max(3 * int64_t{at(now).poll}, least_patience);
}

int64_t expected::stale_after(int64_t now) const {
    intervals every = at(now);
    return std::max(3 * int64_t{std::max(every.poll, every.check)}, least_patience);
}

const expected::planned* expected::find(uint32_t type, int32_t number) const {
    std::pair test(type, number);
    auto found =
        std::lower_bound(tests_.begin(), tests_.end(), test,
                         [](const planned& p, const auto& wanted) { return p.test < wanted; });
    return found != tests_.end() && found->test == test ? &*found : nullptr;
}

std::optional<int64_t> expected::repeats_since(uint32_t type, int32_t number) const {
    if (type == protocol::discovery.code || now_.check <= 0) {
        return std::nullopt;
    }
    const planned* known = find(type, number);
    if (is_planned_ && known == nullptr) {
        return std::nullopt;
    }
    return std::max(repeating_since_, known != nullptr ? known->since : unplanned_since_);
}

bool expected::has_ended(uint32_t type, int32_t number) const {
    return is_planned_ && type != protocol::discovery.code && find(type, number) == nullptr;
}

#include "state/expectations.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

namespace {

/* What two agents have to have in common to share what follows. */
struct likeness {
    const expected* had; /* null: it had none of its own, */
    intervals before;    /* and was told these */
    const plan_summary* plan;
    std::vector<std::pair<uint32_t, int32_t>> tests; /* rising */

    auto order() const {
        return std::tie(had, before.poll, before.check, plan->every.poll, plan->every.check,
                        plan->is_planned, tests);
    }
    bool operator<(const likeness& other) const { return order() < other.order(); }
};

} // namespace

void expectations::set_key(std::string& key, std::string_view account, std::string_view agent) {
    key.assign(account).append(1, '\0').append(agent);
}

void expectations::follow(const plan_summary& plan, int64_t now) {
    others_.follow(plan, now);
    changes_++;
    longest_ = {};
}

void expectations::follow(std::span<const own> plans, int64_t now) {
    std::map<likeness, shared> made;
    std::vector<shared> kept; /* what they had: an address means one thing until the end */
    for (const own& one : plans) {
        set_key(key_, one.account, one.agent);
        shared& place = own_[key_];
        likeness like{place.get(), one.before.value_or(intervals{.poll = -1, .check = -1}),
                      one.plan, one.plan->tests};
        like.before = place ? intervals{} : like.before;
        std::sort(like.tests.begin(), like.tests.end());
        like.tests.erase(std::unique(like.tests.begin(), like.tests.end()), like.tests.end());
        shared& fresh = made[like];
        if (!fresh) {
            expected next = place ? *place : others_;
            if (!place && one.before) {
                next.resume(*one.before);
            }
            next.follow({one.plan->every, one.plan->is_planned, like.tests}, now);
            fresh = std::make_shared<const expected>(std::move(next));
        }
        kept.push_back(std::exchange(place, fresh));
    }
    changes_++;
    longest_ = {};
}

expectations::shared expectations::find(std::string_view account, std::string_view agent) const {
    if (own_.empty()) {
        return nullptr;
    }
    set_key(key_, account, agent);
    auto found = own_.find(key_);
    return found != own_.end() ? found->second : nullptr;
}

const expectations::longest_now& expectations::look_at_all(int64_t now) const {
    if (now >= longest_.from && now < longest_.until) {
        return longest_;
    }
    longest_ = {.every = others_.at(now),
                .stale_after = others_.stale_after(now),
                .from = now,
                .until = others_.until(now)};
    const expected* last = nullptr;
    for (const auto& [key, own] : own_) {
        if (own.get() == last) {
            continue;
        }
        last = own.get();
        const intervals every = last->at(now);
        longest_.every = {std::max(longest_.every.poll, every.poll),
                          std::max(longest_.every.check, every.check)};
        longest_.stale_after = std::max(longest_.stale_after, last->stale_after(now));
        longest_.until = std::min(longest_.until, last->until(now));
    }
    return longest_;
}

intervals expectations::longest(int64_t now) const {
    return look_at_all(now).every;
}

int64_t expectations::longest_stale_after(int64_t now) const {
    return look_at_all(now).stale_after;
}

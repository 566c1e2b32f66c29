#include "state/watch.h"

#include "state/agent_state.h"

#include <algorithm>

namespace {

constexpr size_t max_tests = agent_state::max_tests;
constexpr int64_t never = INT64_MAX;

/* Since when something is to come of it. */
int64_t wanted_since(const expected& plan, const watch::test_key& test) {
    return plan.repeats_since(test.first, test.second).value_or(never);
}

} // namespace

void watch::know(int64_t agent, bool silent, int64_t now) {
    agents_[agent] = {
        .heard = now, .back = now, .found = now, .oldest = now, .silent = silent, .tests = {}};
}

void watch::know(int64_t agent, const test_key& test, bool stale, int64_t now) {
    put(known(agent, now), {test, now, stale});
}

bool watch::heard(int64_t agent, int64_t now) {
    watch::agent& a = known(agent, now);
    a.heard = std::max(a.heard, now);
    if (!a.silent || now < a.found) {
        return false;
    }
    a.silent = false;
    a.back = now;
    return true;
}

bool watch::is_news(int64_t agent, int64_t heard) const {
    auto known = agents_.find(agent);
    return known == agents_.end() ||
           heard >= (known->second.silent ? known->second.found : known->second.back);
}

void watch::came(int64_t agent, const test_key& test, int64_t now) {
    put(known(agent, now), {test, now, false});
}

void watch::held_up(int64_t agent, int64_t now) {
    watch::agent& a = known(agent, now);
    a.back = std::max(a.back, now);
}

void watch::forget(int64_t agent) {
    agents_.erase(agent);
}

watch::agent& watch::known(int64_t id, int64_t now) {
    auto [found, added] = agents_.try_emplace(id);
    if (added) {
        found->second = {
            .heard = now, .back = now, .found = now, .oldest = now, .silent = false, .tests = {}};
    }
    return found->second;
}

void watch::put(agent& of, const test& fresh) {
    auto is_before = [](const test& t, const test_key& key) { return t.key < key; };
    auto found = std::lower_bound(of.tests.begin(), of.tests.end(), fresh.key, is_before);
    if (found != of.tests.end() && found->key == fresh.key) {
        *found = fresh;
        return;
    }
    if (of.tests.size() >= max_tests) {
        forget_half(of);
        found = std::lower_bound(of.tests.begin(), of.tests.end(), fresh.key, is_before);
    }
    of.oldest = of.tests.empty() ? fresh.came : std::min(of.oldest, fresh.came);
    of.tests.insert(found, fresh);
}

/* So that one that invents tests does not make this slow. */
void watch::forget_half(agent& of) {
    auto later = [](const test& a, const test& b) {
        return a.came != b.came ? a.came > b.came : a.key < b.key;
    };
    auto middle = of.tests.begin() + static_cast<std::ptrdiff_t>(of.tests.size() / 2);
    std::nth_element(of.tests.begin(), middle, of.tests.end(), later);
    of.tests.erase(middle, of.tests.end());
    std::sort(of.tests.begin(), of.tests.end(),
              [](const test& a, const test& b) { return a.key < b.key; });
}

void watch::find_overdue(const expected& plan, int64_t now, size_t most,
                         std::vector<overdue>& found) {
    found.clear();
    const int64_t silent_after = plan.silent_after(now), stale_after = plan.stale_after(now);
    for (auto& [id, a] : agents_) {
        if (found.size() >= most) {
            return;
        }
        if (a.silent) {
            continue;
        }
        const int64_t unheard = now - std::max(a.heard, since_);
        if (unheard > silent_after) {
            a.silent = true;
            a.found = now;
            found.push_back({.agent = id, .silent = true, .tests = {}});
            continue;
        }
        if (unheard > silent_after / 2) {
            continue;
        }
        int64_t counted_from = std::max(a.back, since_);
        if (now - std::max(a.oldest, counted_from) <= stale_after) {
            continue;
        }
        overdue late{.agent = id, .silent = false, .tests = {}};
        a.oldest = now;
        for (test& t : a.tests) {
            int64_t since = std::max(t.came, counted_from);
            if (t.stale) {
                continue;
            }
            if (now - since > stale_after) {
                int64_t wanted = wanted_since(plan, t.key);
                t.stale = wanted != never && now - std::max(since, wanted) > stale_after;
                if (t.stale) {
                    late.tests.push_back(t.key);
                    continue;
                }
            }
            a.oldest = std::min(a.oldest, t.came);
        }
        if (!late.tests.empty()) {
            found.push_back(std::move(late));
        }
    }
}

bool watch::still_holds(overdue& what) const {
    auto found = agents_.find(what.agent);
    if (found == agents_.end() || found->second.silent != what.silent) {
        return false;
    }
    const std::vector<test>& tests = found->second.tests;
    std::erase_if(what.tests, [&](const test_key& key) {
        auto is_before = [](const test& t, const test_key& wanted) { return t.key < wanted; };
        auto at = std::lower_bound(tests.begin(), tests.end(), key, is_before);
        return at == tests.end() || at->key != key || !at->stale;
    });
    return what.silent || !what.tests.empty();
}

void watch::take_back(const overdue& what) {
    auto found = agents_.find(what.agent);
    if (found == agents_.end()) {
        return;
    }
    agent& a = found->second;
    a.silent = a.silent && !what.silent;
    for (test& t : a.tests) {
        if (t.stale && std::binary_search(what.tests.begin(), what.tests.end(), t.key)) {
            t.stale = false;
            a.oldest = std::min(a.oldest, t.came);
        }
    }
}

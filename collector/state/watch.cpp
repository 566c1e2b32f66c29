#include "state/watch.h"

#include "state/agent_state.h"

#include <algorithm>

namespace {

constexpr size_t max_tests = agent_state::max_tests;

/* From when on it counts that nothing comes of a test: of one that has ended, of others. Nothing:
 * it stays what it is. */
std::optional<int64_t> counts_from(const expected& plan, const watch::test_key& test,
                                   watch::standing is, bool has_ended) {
    using enum watch::standing;
    if (has_ended) {
        return is == gone ? std::nullopt : std::optional(INT64_MIN);
    }
    if (is == stale || (is == gone && !plan.has_plan())) {
        return std::nullopt;
    }
    return plan.repeats_since(test.first, test.second);
}

} // namespace

watch::agent watch::fresh(int64_t now, bool silent) {
    return {.heard = now,
            .back = now,
            .found = now,
            .oldest = now,
            .plan = 0,
            .silent = silent,
            .tests = {}};
}

void watch::know(int64_t agent, bool silent, int64_t now) {
    agents_[agent] = fresh(now, silent);
}

void watch::know(int64_t agent, const test_key& test, standing as, int64_t now) {
    put(known(agent, now), {test, now, as});
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
    put(known(agent, now), {test, now, standing::awaited});
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
        found->second = fresh(now, false);
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

void watch::find_overdue(const plan_of& of, int64_t now, size_t most, std::vector<overdue>& found) {
    found.clear();
    for (auto& [id, a] : agents_) {
        if (found.size() >= most) {
            return;
        }
        if (a.silent) {
            continue;
        }
        const expected& plan = of(id);
        const int64_t silent_after = plan.silent_after(now), stale_after = plan.stale_after(now);
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
        if (a.plan == plan.changes() && now - std::max({a.oldest, a.back, since_}) <= stale_after) {
            continue;
        }
        overdue late{.agent = id, .silent = false, .tests = {}, .gone = {}};
        look_at_tests(a, plan, now, late);
        if (!late.tests.empty() || !late.gone.empty()) {
            found.push_back(std::move(late));
        }
    }
}

void watch::look_at_tests(agent& a, const expected& plan, int64_t now, overdue& late) const {
    const int64_t counted_from = std::max(a.back, since_), stale_after = plan.stale_after(now);
    a.oldest = now;
    a.plan = plan.changes();
    for (test& t : a.tests) {
        const int64_t since = std::max(t.came, counted_from);
        if (t.is == standing::awaited && now - since <= stale_after) {
            a.oldest = std::min(a.oldest, t.came);
            continue;
        }
        const bool has_ended = plan.has_ended(t.key.first, t.key.second);
        const std::optional<int64_t> from = counts_from(plan, t.key, t.is, has_ended);
        if (from && now - std::max(since, *from) <= stale_after) {
            a.oldest = std::min(a.oldest, t.came);
        } else if (from) {
            t.is = has_ended ? standing::gone : standing::stale;
            (has_ended ? late.gone : late.tests).push_back(t.key);
        }
    }
}

bool watch::still_holds(overdue& what) const {
    auto found = agents_.find(what.agent);
    if (found == agents_.end() || found->second.silent != what.silent) {
        return false;
    }
    const std::vector<test>& tests = found->second.tests;
    auto leave = [&](std::vector<test_key>& keys, standing as) {
        std::erase_if(keys, [&](const test_key& key) {
            auto is_before = [](const test& t, const test_key& wanted) { return t.key < wanted; };
            auto at = std::lower_bound(tests.begin(), tests.end(), key, is_before);
            return at == tests.end() || at->key != key || at->is != as;
        });
    };
    leave(what.tests, standing::stale);
    leave(what.gone, standing::gone);
    return what.silent || !what.tests.empty() || !what.gone.empty();
}

void watch::take_back(const overdue& what) {
    auto found = agents_.find(what.agent);
    if (found == agents_.end()) {
        return;
    }
    agent& a = found->second;
    a.silent = a.silent && !what.silent;
    auto has = [](const std::vector<test_key>& keys, const test& t) {
        return std::binary_search(keys.begin(), keys.end(), t.key);
    };
    for (test& t : a.tests) {
        if ((t.is == standing::stale && has(what.tests, t)) ||
            (t.is == standing::gone && has(what.gone, t))) {
            t.is = standing::awaited;
            a.oldest = std::min(a.oldest, t.came);
        }
    }
}

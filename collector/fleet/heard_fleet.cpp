#include "fleet/heard_fleet.h"

#include <algorithm>
#include <cmath>

static constexpr size_t most_strays = 1000; /* of an agent that are removed at a time */

void heard_fleet::begin_block(const poll_block& from) {
    block_ = {};
    block_.from = &from;
    std::lock_guard hold(state_.mutex);
    block_.of = state_.find_or_make(from.account, from.agent);
    if (block_.of != nullptr) {
        block_.given = block_.of->given;
        block_.highest = block_.of->highest;
    }
}

void heard_fleet::on_record(const poll_block& from, const decoded_record& result) {
    if (block_.from != &from) {
        begin_block(from);
    }
    if (block_.of == nullptr) {
        return;
    }
    const record_summary& summary = result.summary;
    if (is_searched(summary.type)) {
        std::string_view items = items_of(result);
        (summary.type == protocol::file_systems.code ? block_.has_disks : block_.has_interfaces) =
            true;
        /* It is another thread's to read, this one's alone to change. */
        if (known_inventory::with(block_.of->has, summary.type, items)) {
            block_.inventories.emplace_back(summary.type, items);
        }
    } else if (const int32_t number = summary.test.value_or(0); number > 0) {
        if (number <= highest_believed) {
            block_.highest = std::max(block_.highest, number);
        }
        note_result(result, {summary.type, number});
    }
}

/* The size of a disk in GB; 0 where there is none to be had. */
static double whole_of(const decoded_record& result) {
    const auto& values = result.content.d64;
    if (result.summary.type != protocol::disk.code || values.size() == 0) {
        return 0;
    }
    const double whole = values[0];
    return std::isfinite(whole) && whole > 0 ? whole : 0;
}

void heard_fleet::note_result(const decoded_record& result, test_key test) {
    const assigned_test* known = block_.given->find(test);
    seen_test seen = {.test = test,
                      .location = result.summary.location.value_or(0),
                      .is_given = known != nullptr};
    bool is_news = known == nullptr;
    if (known != nullptr) {
        const double whole = whole_of(result);
        seen.whole_gb =
            whole > 0 && std::abs(whole - known->whole_gb) > 0.005 * known->whole_gb ? whole : 0;
        seen.is_other = seen.location != known->revision && known->confirmed == known->revision &&
                        known->impossible.empty() && !known->kind->runs_once;
        is_news = seen.whole_gb > 0 || seen.is_other ||
                  (seen.location == known->revision && known->confirmed < known->revision);
    }
    const bool is_same = !block_.tests.empty() && block_.tests.back().test == test &&
                         block_.tests.back().location == seen.location;
    if (is_news && !is_same) {
        block_.tests.push_back(seen);
    }
}

void heard_fleet::on_agent(int64_t, std::string_view account, std::string_view agent,
                           const agent_state& now_is, std::span<const change>) {
    const bool is_block = block_.from != nullptr;
    bool is_woken = false;
    {
        std::lock_guard hold(state_.mutex);
        kept_agent* of = is_block ? block_.of : state_.find(account, agent);
        if (of != nullptr) {
            if (of->presence.is_silent != now_is.silent) {
                of->presence.is_silent = now_is.silent;
                of->presence.silent_since = now_is.since;
                of->changes.look_soon();
            }
            if (is_block) {
                end_block(*of);
            }
            is_woken = state_.is_woken = state_.is_woken || of->is_due;
        }
    }
    block_ = {};
    if (is_woken) {
        state_.changed.notify_all();
    }
}

/* With the mutex. */
void heard_fleet::end_block(kept_agent& of) {
    const moment at = present_moment();
    if (!of.is_there) {
        of.is_there = true;
        state_.make_due(of);
    }
    of.highest = block_.highest;
    of.presence.polled = at.steady;
    for (const auto& [type, items] : block_.inventories) {
        if (auto now_has = known_inventory::with(of.has, type, items)) {
            of.has = std::move(now_has);
            state_.make_due(of);
        }
    }
    /* It has none that is up, so it says nothing of them. */
    if (block_.has_disks && !block_.has_interfaces && !of.has->has().interfaces) {
        of.has = known_inventory::with(of.has, protocol::network_interfaces.code, "");
        state_.make_due(of);
    }
    if (state_.file && of.is_ready) {
        take_seen(of, at);
    }
}

/* With the mutex, of an agent that is given its tests. */
void heard_fleet::take_seen(kept_agent& of, moment at) {
    std::optional<assigned_agent> next;
    auto changing = [&]() -> assigned_agent& {
        return next ? *next : next.emplace(of.given->all());
    };
    std::vector<test_key> gone, others;
    for (const seen_test& seen : block_.tests) {
        const assigned_test* known = of.given->find(seen.test);
        const auto& [type, number] = seen.test;
        if (known != nullptr) {
            if (seen.is_other && known->confirmed == known->revision) {
                others.push_back(seen.test);
            }
            if (seen.location == known->revision && known->confirmed < known->revision) {
                changing().find(type, number)->confirmed = known->revision;
                of.changes.came(seen.test, seen.location, at);
            }
            if (seen.whole_gb > 0 && (!of.has || is_mounted(*known, of.has->has()))) {
                assigned_test* test = changing().find(type, number);
                if (note_whole(*test, seen.whole_gb) && test->what && test->what->free_share) {
                    state_.make_due(of);
                }
            }
        } else if (kind_of_record(type) != nullptr) {
            take_stray(of, seen.test, changing);
        }
    }
    put_right(of, others, at);
    of.changes.polled(*of.given, at, gone);
    for (const auto& [type, number] : gone) {
        for (removed_test& test : changing().removed) {
            test.is_over = test.is_over || (test.type == type && test.number == number);
        }
    }
    if (next) {
        of.given = std::make_shared<given_agent>(std::move(*next));
        of.changes.follow(*of.given);
        of.is_unsaved = true;
    }
    if (next || of.changes.has_unsaved()) {
        state_.note(of);
    }
}

/* It had the present revisions, and has others now, as a machine that was put back to an earlier
 * state. A result that took long may have one, too; so it is not done again and again. */
void heard_fleet::put_right(kept_agent& of, const std::vector<test_key>& others, moment at) {
    if (others.empty() || at.steady < of.not_before) {
        return;
    }
    of.not_before = at.steady + patience_for(of.given->slowest());
    for (const test_key& test : others) {
        if (std::find(of.again.begin(), of.again.end(), test) == of.again.end()) {
            of.again.push_back(test);
        }
    }
}

/* A result of a test that it is not to have. */
void heard_fleet::take_stray(kept_agent& of, test_key test,
                             const std::function<assigned_agent&()>& changing) {
    const removed_test* known = of.given->find_removed(test);
    of.changes.came_still(test, present_moment());
    if (known != nullptr && !known->is_over) {
        return;
    }
    const size_t leaving = static_cast<size_t>(
        std::count_if(of.given->all().removed.begin(), of.given->all().removed.end(),
                      [](const removed_test& each) { return !each.is_over; }));
    if (leaving + of.again.size() >= most_strays ||
        std::find(of.again.begin(), of.again.end(), test) != of.again.end()) {
        return;
    }
    std::vector<removed_test>& removed = changing().removed;
    auto again = std::find_if(removed.begin(), removed.end(), [&](const removed_test& each) {
        return test_key(each.type, each.number) == test;
    });
    if (again != removed.end()) {
        again->is_over = false;
    } else {
        removed.push_back(
            {.type = test.first, .number = test.second, .revision = of.given->all().newest});
    }
    of.again.push_back(test);
}

void heard_fleet::on_retired(int64_t, std::string_view account, std::string_view agent, int64_t) {
    std::lock_guard hold(state_.mutex);
    kept_agent* of = state_.find(account, agent);
    if (of == nullptr) {
        return;
    }
    assigned_agent next = of->given->all();
    for (const assigned_test& test : next.tests) {
        if (test.number != 0 && test.kind != nullptr) {
            next.removed.push_back({.name = test.name,
                                    .type = test.kind->record->code,
                                    .number = test.number,
                                    .revision = next.newest});
        }
    }
    next.tests.clear();
    of->given = std::make_shared<given_agent>(std::move(next));
    of->is_there = of->is_ready = false;
    of->is_unsaved = of->is_given;
    of->has = nullptr;
    of->again.clear();
    of->presence = {};
    of->changes.give_up(present_moment());
    state_.note(*of);
}

#include "fleet/fleet_state.h"

#include "ingest/clock.h"

#include <utility>

static constexpr size_t most_kept = 250'000; /* agents: more are strangers' inventions */

/* A NUL cannot stand in a request's header, so it parts the two names. */
static std::string name_key(std::string_view account, std::string_view agent) {
    return std::string(account).append(1, '\0').append(agent);
}

kept_agent* fleet_state::find(std::string_view account, std::string_view agent) const {
    auto found = agents.find(name_key(account, agent));
    return found != agents.end() ? found->second.get() : nullptr;
}

kept_agent* fleet_state::find_or_make(std::string_view account, std::string_view agent) {
    std::string key = name_key(account, agent);
    auto found = agents.find(key);
    if (found == agents.end() && agents.size() < most_kept) {
        found = agents.emplace(std::move(key), std::make_unique<kept_agent>(account, agent)).first;
    }
    return found != agents.end() ? found->second.get() : nullptr;
}

void fleet_state::make_due(kept_agent& of) {
    if (file && !of.is_due) {
        due.push_back(&of);
        of.is_due = true;
    }
}

void fleet_state::note(kept_agent& of) {
    count(of);
    if (of.changes.next_look() != INT64_MAX) {
        open.insert(&of);
    } else {
        open.erase(&of);
    }
    if (!of.is_noted && (of.is_unsaved || of.changes.has_unsaved())) {
        noted.push_back(&of);
        of.is_noted = true;
    }
}

void fleet_state::count(kept_agent& of) {
    kept_agent::tally now;
    for (const assigned_test& test : of.given->all().tests) {
        if (!of.is_there) {
            break;
        }
        now.tests++;
        const kept_change* open = nullptr;
        if (!test.impossible.empty()) {
            now.impossible++;
        } else if (test.confirmed >= test.revision) {
            now.confirmed++;
        } else if ((open = of.changes.newest_of(key_of(test))) != nullptr &&
                   open->outcome == change_outcome::sent) {
            now.sent++;
        } else {
            now.unanswered++;
        }
    }
    for (const kept_change& one : of.changes.open()) {
        now.waiting += !one.is_over && one.sent == 0;
    }
    auto exchange = [&](size_t kept_agent::tally::*member) {
        counted.*member += now.*member - of.counted.*member;
    };
    with_tests += size_t{now.tests > 0} - size_t{of.counted.tests > 0};
    using tally = kept_agent::tally;
    for (auto member : {&tally::tests, &tally::sent, &tally::confirmed, &tally::unanswered,
                        &tally::impossible, &tally::waiting}) {
        exchange(member);
    }
    of.counted = now;
}

bool fleet_state::take_turn(std::unique_lock<std::mutex>& hold, std::chrono::milliseconds most) {
    const bool is_free =
        changed.wait_for(hold, most, [&] { return !is_busy || is_stopping; }) && !is_stopping;
    is_busy = is_busy || is_free;
    return is_free;
}

void fleet_state::give_turn_back() {
    is_busy = false;
    is_woken = true;
    changed.notify_all();
}

void fleet_state::break_off_turn() {
    retry = clock::now() + std::chrono::seconds(1);
    give_turn_back(); /* whatever there is no memory for in what follows */
    for (const auto& [key, agent] : agents) {
        if (std::exchange(agent->is_awaited, false)) {
            make_due(*agent);
        }
        note(*agent);
    }
}

/* Without memory nobody else would ever have a turn. */
void with_turn(fleet_state& state, const std::function<void()>& what) {
    try {
        what();
    } catch (...) {
        std::lock_guard hold(state.mutex);
        state.break_off_turn();
        throw;
    }
}

moment present_moment() {
    return {.wall = arrival_clock(), .steady = steady_clock()};
}

/* The agents: found, counted, noted. With the mutex. */
#include "fleet/keeper_body.h"

static constexpr size_t most_kept = 250'000; /* agents: more are strangers' inventions */

/* A NUL cannot stand in a request's header, so it parts the two names. */
static std::string name_key(std::string_view account, std::string_view agent) {
    return std::string(account).append(1, '\0').append(agent);
}

kept_agent* keeper_body::find(std::string_view account, std::string_view agent) const {
    auto found = agents_.find(name_key(account, agent));
    return found != agents_.end() ? found->second.get() : nullptr;
}

kept_agent* keeper_body::find_or_make(std::string_view account, std::string_view agent) {
    std::string key = name_key(account, agent);
    auto found = agents_.find(key);
    if (found == agents_.end() && agents_.size() < most_kept) {
        found = agents_.emplace(std::move(key), std::make_unique<kept_agent>(account, agent)).first;
    }
    return found != agents_.end() ? found->second.get() : nullptr;
}

void keeper_body::make_due(kept_agent& of) {
    if (file_ && !of.is_due) {
        of.is_due = true;
        due_.push_back(&of);
    }
}

void keeper_body::note(kept_agent& of) {
    count(of);
    if (of.changes.next_look() != INT64_MAX) {
        open_.insert(&of);
    } else {
        open_.erase(&of);
    }
    if (!of.is_noted && (of.is_unsaved || of.changes.has_unsaved())) {
        of.is_noted = true;
        noted_.push_back(&of);
    }
}

void keeper_body::count(kept_agent& of) {
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
        counted_.*member += now.*member - of.counted.*member;
    };
    with_tests_ += size_t{now.tests > 0} - size_t{of.counted.tests > 0};
    using tally = kept_agent::tally;
    for (auto member : {&tally::tests, &tally::sent, &tally::confirmed, &tally::unanswered,
                        &tally::impossible, &tally::waiting}) {
        exchange(member);
    }
    of.counted = now;
}

bool keeper_body::take_turn(std::unique_lock<std::mutex>& hold, std::chrono::milliseconds most) {
    const bool is_free =
        changed_.wait_for(hold, most, [&] { return !is_busy_ || is_stopping_; }) && !is_stopping_;
    is_busy_ = is_busy_ || is_free;
    return is_free;
}

#include "fleet/outcomes.h"

#include "base/text.h"

#include <algorithm>

namespace {

constexpr int64_t least_patience_s = 20; /* a test may take that long by itself */
constexpr int64_t between_looks_s = 10;
constexpr size_t blocks_of_patience = 3;

bool is_about_test(const kept_change& one) {
    return one.action == change_action::add || one.action == change_action::change;
}

void settle(kept_change& one, change_outcome outcome, std::string reason, moment now) {
    if (one.outcome == outcome && one.reason == reason) {
        return;
    }
    if (one.outcome != outcome) {
        one.settled = now.wall;
    }
    one.outcome = outcome;
    one.reason = std::move(reason);
    one.is_unsaved = true;
}

void end(kept_change& one, change_outcome outcome, std::string reason, moment now) {
    settle(one, outcome, std::move(reason), now);
    one.is_over = true;
    one.due = INT64_MAX;
}

/* Whether an agent that has not proven who it is goes without. */
bool needs_proof(const kept_change& one, const given_agent& agent) {
    const assigned_test* test = is_about_test(one) ? agent.find(one.key()) : nullptr;
    return test != nullptr && agent.has_secrets(*test);
}

std::string why_not_sent(const kept_change& one, const given_agent& agent,
                         const agent_presence& here, moment now) {
    if (!here.kept_away.empty()) {
        return here.kept_away;
    }
    if (here.is_silent) {
        return "the agent is silent since " + utc_time(here.silent_since);
    }
    if (!here.is_here) {
        return "the agent has not polled since the collector was started";
    }
    if (here.polled <= one.since && now.steady - one.since >= patience_for(agent.slowest())) {
        return "the agent has not polled since";
    }
    if (!here.is_proven && needs_proof(one, agent)) {
        return "the test has secrets, and the agent has not proven who it is";
    }
    return "it goes out with the agent's next poll";
}

/* What is likely of a kind whose results do not come. */
const char* likely_of(uint32_t type) {
    using namespace protocol;
    if (type == network.code) {
        return "; an interface that is not up brings none";
    }
    if (type == snmp.code || type == snmp_table.code) {
        return "; an agent whose host has no SNMP library (libnetsnmp) brings none";
    }
    if (type == mysql.code) {
        return "; an agent whose host has no MySQL client library brings none";
    }
    if (type == http.code || type == ping.code) {
        return "; the test may take longer than that";
    }
    return "";
}

std::string why_unanswered(const kept_change& one, const agent_presence& here) {
    if (!here.kept_away.empty()) {
        return here.kept_away;
    }
    if (here.is_silent) {
        return "the agent is silent since " + utc_time(here.silent_since);
    }
    if (!here.is_here || here.polled <= one.told) {
        return "the agent has not polled since";
    }
    if (one.action == change_action::remove) {
        return "results of the test come still";
    }
    if (one.type == protocol::discovery.code) {
        return "the scan is under way, most likely, and has found nothing yet";
    }
    return std::string("no result has come in three intervals") + likely_of(one.type);
}

/* As far as it is stored. */
bool is_same(const kept_change& a, const kept_change& b) {
    return a.outcome == b.outcome && a.sent == b.sent && a.settled == b.settled &&
           a.reason == b.reason;
}

} // namespace

int64_t patience_for(int32_t interval) {
    return std::max(least_patience_s, 3 * int64_t{interval});
}

stored_change view_of(const kept_change& one, std::string_view account, std::string_view agent) {
    return {.id = one.id,
            .revision = one.revision,
            .time = one.time,
            .account = account,
            .agent = agent,
            .test = one.test,
            .was = one.was,
            .action = static_cast<uint8_t>(one.action),
            .type = one.type,
            .number = one.number,
            .sent = one.sent,
            .settled = one.settled,
            .outcome = one.outcome,
            .reason = one.reason};
}

kept_change copy_of(const stored_change& one) {
    return {.id = one.id,
            .revision = one.revision,
            .time = one.time,
            .test = std::string(one.test),
            .was = std::string(one.was),
            .action = static_cast<change_action>(one.action),
            .type = one.type,
            .number = one.number,
            .sent = one.sent,
            .settled = one.settled,
            .outcome = one.outcome,
            .reason = std::string(one.reason)};
}

kept_change make_change(const fleet_change& what, int64_t id, int32_t revision, int64_t now) {
    kept_change one = {.id = id,
                       .revision = revision,
                       .time = now,
                       .test = what.test,
                       .was = what.was,
                       .action = what.action,
                       .type = what.type,
                       .number = what.number,
                       .settled = now,
                       .about = what.reason};
    const bool needs_nothing = what.action == change_action::rename ||
                               (what.action == change_action::remove && what.number == 0);
    if (!what.impossible.empty()) {
        one.outcome = change_outcome::impossible;
        one.reason = what.impossible;
        one.is_over = true;
    } else if (needs_nothing) {
        one.outcome = change_outcome::confirmed;
        one.reason = one.about;
        one.is_over = true;
    } else {
        one.reason = "it goes out with the agent's next poll";
    }
    return one;
}

bool is_in_force(const kept_change& change, const given_agent& agent) {
    if (change.action == change_action::intervals) {
        return change.revision == agent.all().intervals_revision();
    }
    if (change.action == change_action::remove) {
        const removed_test* gone = agent.find_removed(change.key());
        return gone != nullptr && !gone->is_over && gone->revision == change.revision;
    }
    const assigned_test* test = is_about_test(change) ? agent.find(change.key()) : nullptr;
    return test != nullptr && test->impossible.empty() && test->revision == change.revision &&
           test->confirmed < test->revision;
}

/* ---- of one agent ---- */

void agent_changes::note_open() {
    has_intervals_ = std::any_of(open_.begin(), open_.end(), [](const kept_change& one) {
        return one.action == change_action::intervals && !one.is_over;
    });
    look_soon();
}

void agent_changes::restore(kept_change one, moment now) {
    one.since = now.steady;
    one.about = one.outcome == change_outcome::sent ? one.reason : "";
    auto behind = std::find_if(open_.begin(), open_.end(),
                               [&](const kept_change& each) { return each.id > one.id; });
    open_.insert(behind, std::move(one));
    note_open();
}

void agent_changes::overtake(const kept_change& by, size_t before, moment now) {
    for (size_t i = 0; i < before; i++) {
        kept_change& one = open_[i];
        const bool same_test =
            by.number != 0 ? one.key() == by.key() && one.number != 0 : one.test == by.test;
        const bool same = by.action == change_action::intervals
                              ? one.action == change_action::intervals
                              : one.action != change_action::intervals && same_test;
        if (same && !one.is_over && by.action != change_action::rename) {
            end(one, change_outcome::unanswered,
                "revision " + std::to_string(by.revision) + " took its place before it was " +
                    (one.sent != 0 ? "confirmed" : "sent"),
                now);
        }
    }
}

void agent_changes::take(std::vector<kept_change> fresh, moment now) {
    const size_t before = open_.size();
    for (kept_change& one : fresh) {
        overtake(one, before, now);
        one.since = now.steady;
        if (!one.is_over) {
            open_.push_back(std::move(one));
        }
    }
    std::erase_if(open_, [](const kept_change& one) { return one.is_over && !one.is_unsaved; });
    note_open();
}

void agent_changes::follow(const given_agent& agent) {
    std::vector<leaving> now;
    for (const removed_test& test : agent.all().removed) {
        if (test.is_over) {
            continue;
        }
        leaving one = {.test = {test.type, test.number}, .revision = test.revision};
        auto known = std::find_if(leaving_.begin(), leaving_.end(),
                                  [&](const leaving& each) { return each.test == one.test; });
        now.push_back(known != leaving_.end() && known->revision == one.revision ? *known : one);
    }
    leaving_.swap(now);
    note_open();
}

void agent_changes::give_up(moment now) {
    for (kept_change& one : open_) {
        if (!one.is_over) {
            end(one, change_outcome::unanswered, "the agent was retired", now);
        }
    }
    leaving_.clear();
    note_open();
}

void agent_changes::tell(kept_change& one, const given_agent& agent, moment now) {
    if (one.sent == 0) {
        one.sent = now.wall;
        one.is_unsaved = true;
    }
    one.told = now.steady;
    one.due = now.steady + patience_for(agent.slowest());
    settle(one, change_outcome::sent, one.about, now);
}

void agent_changes::answered(const given_agent& agent, int32_t upto, bool proven, bool login,
                             moment now) {
    for (kept_change& one : open_) {
        const bool is_news = one.told == INT64_MIN || login;
        if (!one.is_over && one.revision <= upto && is_news &&
            (proven || !needs_proof(one, agent))) {
            tell(one, agent, now);
        }
    }
    for (leaving& one : leaving_) {
        if (one.revision <= upto && (one.sent == INT64_MIN || login)) {
            one.sent = one.quiet = now.steady;
            one.polls = one.blocks_with = 0;
        }
    }
    look_soon();
}

void agent_changes::repeated(const given_agent& agent, const std::vector<test_key>& tests,
                             moment now) {
    auto is_told = [&](test_key test) {
        return std::find(tests.begin(), tests.end(), test) != tests.end();
    };
    for (kept_change& one : open_) {
        if (is_about_test(one) && !one.is_over && is_told(one.key())) {
            tell(one, agent, now);
        }
    }
    for (leaving& one : leaving_) {
        if (is_told(one.test)) {
            one.sent = one.quiet = now.steady;
            one.polls = one.blocks_with = 0;
        }
    }
    look_soon();
}

void agent_changes::arrived(int32_t upto, moment now) {
    for (kept_change& one : open_) {
        if (one.action == change_action::intervals && !one.is_over && one.told != INT64_MIN &&
            one.revision <= upto) {
            end(one, change_outcome::confirmed, one.about, now);
        }
    }
    note_open();
}

void agent_changes::came(test_key test, int32_t revision, moment now) {
    for (kept_change& one : open_) {
        if (is_about_test(one) && !one.is_over && one.key() == test && one.revision == revision) {
            one.sent = one.sent == 0 ? now.wall : one.sent; /* a run that ended amid it sent it */
            end(one, change_outcome::confirmed, one.about, now);
        }
    }
}

void agent_changes::came_still(test_key test, moment now) {
    for (leaving& one : leaving_) {
        if (one.test == test) {
            one.quiet = now.steady;
            one.polls = 0;
            one.blocks_with++;
        }
    }
}

void agent_changes::polled(const given_agent& agent, moment now, std::vector<test_key>& gone) {
    const int64_t quiet = 2 * int64_t{agent.slowest()};
    for (leaving& one : leaving_) {
        if (one.sent == INT64_MIN) {
            continue;
        }
        if (++one.polls >= 2 && now.steady - one.quiet >= quiet) {
            gone.push_back(one.test);
        }
    }
    for (const test_key& test : gone) {
        std::erase_if(leaving_, [&](const leaving& one) { return one.test == test; });
        for (kept_change& one : open_) {
            if (one.action == change_action::remove && !one.is_over && one.key() == test) {
                end(one, change_outcome::confirmed, one.about, now);
            }
        }
    }
}

void agent_changes::look(const given_agent& agent, const agent_presence& here, moment now,
                         std::vector<test_key>& again) {
    next_look_ = open_.empty() && leaving_.empty() ? INT64_MAX : now.steady + between_looks_s;
    for (kept_change& one : open_) {
        if (one.is_over) {
            continue;
        }
        if (one.sent == 0) {
            settle(one, change_outcome::unanswered, why_not_sent(one, agent, here, now), now);
            continue;
        }
        if (one.due == INT64_MAX && one.outcome == change_outcome::sent) {
            one.due = now.steady + patience_for(agent.slowest()); /* sent by the last run */
        }
        if (now.steady < one.due) {
            next_look_ = std::min(next_look_, one.due);
            continue;
        }
        const bool was_sent = one.outcome == change_outcome::sent;
        settle(one, change_outcome::unanswered, why_unanswered(one, here), now);
        if (was_sent && is_about_test(one) && !one.is_repeated && !here.is_silent &&
            here.polled > one.told && one.type != protocol::discovery.code) {
            one.is_repeated = true;
            again.push_back(one.key());
        }
    }
    const int64_t patience = patience_for(agent.slowest());
    for (leaving& one : leaving_) {
        if (one.sent != INT64_MIN && one.blocks_with >= blocks_of_patience &&
            now.steady - one.sent >= patience) {
            one.sent = now.steady;
            one.blocks_with = 0;
            again.push_back(one.test);
        }
    }
}

bool agent_changes::has_unsaved() const {
    return std::any_of(open_.begin(), open_.end(),
                       [](const kept_change& one) { return one.is_unsaved; });
}

void agent_changes::unsaved(std::vector<kept_change>& into) const {
    std::copy_if(open_.begin(), open_.end(), std::back_inserter(into),
                 [](const kept_change& one) { return one.is_unsaved; });
}

void agent_changes::note_saved(const std::vector<kept_change>& saved) {
    for (const kept_change& each : saved) {
        auto one =
            std::lower_bound(open_.begin(), open_.end(), each.id,
                             [](const kept_change& before, int64_t id) { return before.id < id; });
        if (one != open_.end() && one->id == each.id && one->is_unsaved) {
            one->is_unsaved = !is_same(*one, each);
        }
    }
    std::erase_if(open_, [](const kept_change& one) { return one.is_over && !one.is_unsaved; });
    note_open();
}

const kept_change* agent_changes::newest_of(test_key test) const {
    const kept_change* newest = nullptr;
    for (const kept_change& one : open_) {
        if (one.key() == test && is_about_test(one) && !one.is_over &&
            (newest == nullptr || one.revision > newest->revision)) {
            newest = &one;
        }
    }
    return newest;
}

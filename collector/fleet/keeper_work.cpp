/* What is wanted becomes what is given. */
#include "fleet/keeper_body.h"

#include "ingest/clock.h"
#include "plan/placeholder.h"

#include <algorithm>
#include <set>

static constexpr std::chrono::seconds before_retry{5};

moment keeper_body::now() {
    return {.wall = arrival_clock(), .steady = steady_clock()};
}

uint64_t keeper_body::serial_of(std::string_view secret) const {
    return options_.secrets != nullptr ? options_.secrets->serial_of(secret) : 0;
}

/* ---- making it: any thread that has the turn, without the mutex ---- */

agent_basis keeper_body::basis_of(kept_agent& of) {
    return {.of = &of,
            .given = of.given,
            .is_given = of.is_given,
            .is_ready = of.is_ready,
            .has = of.has,
            .strays = of.strays,
            .highest = of.highest};
}

/* What it may have and nobody gave it. */
static bool add_strays(assigned_agent& next, const std::vector<test_key>& strays,
                       int32_t revision) {
    bool any = false;
    for (const auto& [type, number] : strays) {
        const bool is_known =
            next.find(type, number) != nullptr ||
            std::any_of(next.removed.begin(), next.removed.end(), [&](const removed_test& each) {
                return each.type == type && each.number == number && !each.is_over;
            });
        if (!is_known) {
            next.removed.push_back({.type = type, .number = number, .revision = revision});
            any = true;
        }
    }
    next.newest = any ? std::max(next.newest, revision) : next.newest;
    return any;
}

static std::string packed(const given_agent& agent) {
    std::string text;
    agent.all().pack(text);
    return text;
}

void keeper_body::make_agent(fleet_work::agent& made, const agent_basis& basis, const fleet& file,
                             int32_t revision) const {
    assigned_agent next = basis.given->all();
    const auto first = static_cast<int32_t>(basis.is_given ? 1 : facts_.first_number);
    const int32_t behind = basis.highest < INT32_MAX ? basis.highest + 1 : INT32_MAX;
    next.next_number = std::max({next.next_number, first, behind});
    static const agent_inventory nothing;
    wanted_agent wanted = wanted_of(file, basis.of->account, basis.of->name,
                                    basis.has ? basis.has->has() : nothing, next.found());
    made.of = basis.of;
    made.base = basis.given;
    made.is_first = !basis.is_ready;
    made.revision = revision;
    made.groups = std::move(wanted.groups);
    made.about_intervals = wanted.about_intervals;
    made.differences =
        assign(next, wanted, revision, [this](std::string_view name) { return serial_of(name); });
    const bool is_stray =
        add_strays(next, basis.strays, made.differences.empty() ? next.newest : revision);
    made.is_changed = is_stray || !made.differences.empty();
    made.now = std::make_shared<given_agent>(std::move(next));
}

/* Everybody's changes get their ids; and what they overtake is stored with them. */
void keeper_body::number_changes(fleet_work& work) {
    for (fleet_work::agent& made : work.agents) {
        if (made.differences.empty()) {
            continue;
        }
        std::lock_guard hold(mutex_);
        for (const fleet_change& what : made.differences) {
            made.changes.push_back(
                make_change(what, ++newest_change_, made.revision, work.now.wall));
        }
        if (!made.of->changes.open().empty()) {
            agent_changes then = made.of->changes;
            then.take(made.changes, work.now);
            then.unsaved(made.outcomes);
        }
    }
}

static std::string counted(size_t count, const char* what) {
    return count == 0 ? "" : std::to_string(count) + " " + what + ", ";
}

/* "3 added, 1 changed, on 2 agents" */
static std::string about(const fleet_work& work) {
    size_t by_action[8] = {}, impossible = 0, agents = 0;
    for (const fleet_work::agent& made : work.agents) {
        agents += !made.differences.empty();
        for (const fleet_change& each : made.differences) {
            (each.impossible.empty() ? by_action[static_cast<size_t>(each.action)] : impossible)++;
        }
    }
    auto of = [&](change_action action) { return by_action[static_cast<size_t>(action)]; };
    std::string text = counted(of(change_action::add), "added") +
                       counted(of(change_action::change), "changed") +
                       counted(of(change_action::rename), "renamed") +
                       counted(of(change_action::remove), "removed") +
                       counted(of(change_action::intervals), "other intervals") +
                       counted(impossible, "impossible");
    return text.empty()
               ? "nothing is another for any agent"
               : text + "on " + std::to_string(agents) + (agents == 1 ? " agent" : " agents");
}

/* Agents of which something else has changed than the file: a new one has the revision that is in
 * force, others get one of their own. */
void keeper_body::make_due(fleet_work& work, const std::vector<agent_basis>& due) {
    int32_t present = 0, present_highest = 0;
    {
        std::lock_guard hold(mutex_);
        work.file = file_;
        present = newest_.revision;
        present_highest = std::max(highest_revision_, present);
    }
    const int32_t fresh = present_highest + 1;
    bool is_used = false;
    work.agents.resize(due.size());
    for (size_t i = 0; i < due.size(); i++) {
        make_agent(work.agents[i], due[i], *work.file, due[i].is_given ? fresh : present);
        is_used = is_used || (due[i].is_given && work.agents[i].is_changed);
    }
    if (is_used) {
        work.revision = {
            .revision = fresh, .time = work.now.wall, .author = "collector", .about = about(work)};
    }
    work.file = nullptr;
    number_changes(work);
}

/* With a turn. */
keeper_body::work_pointer keeper_body::make_application(std::string_view text,
                                                        std::shared_ptr<const fleet> file,
                                                        const std::string& author) {
    auto work = std::make_shared<fleet_work>();
    work->now = now();
    work->file = std::move(file);
    std::vector<agent_basis> all;
    {
        std::lock_guard hold(mutex_);
        all.reserve(agents_.size());
        for (const auto& [key, agent] : agents_) {
            if (agent->is_there) {
                all.push_back(basis_of(*agent));
                agent->is_awaited = std::exchange(agent->is_due, false);
            }
        }
    }
    const int32_t revision = next_revision();
    work->agents.resize(all.size());
    for (size_t i = 0; i < all.size(); i++) {
        fleet_work::agent& made = work->agents[i];
        make_agent(made, all[i], *work->file, revision);
        made.is_changed = made.is_changed || packed(*made.now) != packed(*made.base);
    }
    work->revision = {.revision = revision,
                      .time = work->now.wall,
                      .author = author,
                      .about = about(*work),
                      .text = std::string(text),
                      .has_text = true};
    number_changes(*work);
    return work;
}

/* In how many tests of the file each is used. */
static std::map<std::string, size_t, std::less<>> uses_of_secrets(const fleet& file) {
    std::map<std::string, size_t, std::less<>> uses;
    for (const fleet_group& group : file.groups) {
        for (const auto& test : group.tests) {
            std::set<std::string> names;
            for (const std::string& field : test->fields) {
                for (std::string& name : secrets_in(field)) {
                    names.insert(std::move(name));
                }
            }
            for (const std::string& name : names) {
                uses[name]++;
            }
        }
    }
    return uses;
}

/* What agents send of the values is hidden, before they are told them; also of what was removed,
 * for they may have it yet. With a turn. */
void keeper_body::hide_secrets(const fleet_work& work) {
    if (options_.secrets == nullptr) {
        return;
    }
    bool any = work.file != nullptr;
    for (const fleet_work::agent& made : work.agents) {
        if (made.now && made.now->has_secrets()) {
            add_secrets(*made.now, ever_named_);
            any = true;
        }
    }
    std::shared_ptr<const fleet> file = work.file;
    if (!file) {
        std::lock_guard hold(mutex_);
        file = file_;
    }
    if (any && file) {
        options_.secrets->note_uses(uses_of_secrets(*file), ever_named_);
    }
}

/* ---- storing it ---- */

void keeper_body::submit(const work_pointer& work) {
    hide_secrets(*work);
    auto writing = std::make_shared<fleet_writing>();
    writing->revision = work->revision;
    if (work->is_ground || work->revision.has_text) {
        writing->facts = facts_;
    }
    for (const fleet_work::agent& made : work->agents) {
        if (!made.is_changed && made.outcomes.empty()) {
            continue;
        }
        fleet_writing::agent& one = writing->agents.emplace_back();
        one.account = made.of->account;
        one.name = made.of->name;
        one.packed = made.is_changed ? packed(made.now ? *made.now : *made.base) : "";
        one.changes = made.changes;
        one.changes.insert(one.changes.end(), made.outcomes.begin(), made.outcomes.end());
    }
    if (writing->is_empty()) {
        finish(work, true, "");
        return;
    }
    results_->update(
        [writing](engine& store) { return write_fleet(store, *writing); },
        [this, work](bool ok, const std::string& reason) { finish(work, ok, reason); });
}

/* On the store's thread, unless there was nothing to store. */
void keeper_body::finish(const work_pointer& work, bool ok, const std::string& reason) {
    {
        std::lock_guard hold(mutex_);
        work->ok = ok;
        work->reason = ok || !reason.empty() ? reason : "the store refused it";
        if (ok) {
            take_work(*work);
        } else {
            retry_ = steady::now() + before_retry;
            for (const fleet_work::agent& made : work->agents) {
                made.of->is_awaited = false;
                if (made.now) {
                    make_due(*made.of);
                } else {
                    note(*made.of);
                }
            }
        }
        is_busy_ = false;
        is_woken_ = true;
        finished_.push_back(work);
    }
    changed_.notify_all();
    if (work->done) {
        work->done(*work);
    }
}

/* What was stored is in force. With the mutex. */
void keeper_body::take_work(fleet_work& work) {
    if (work.revision.revision != 0) {
        newest_ = work.revision;
        newest_.text.clear();
        if (work.revision.has_text) {
            in_force_ = work.revision;
            file_ = work.file;
            file_trouble_.clear();
        }
    }
    is_lost_ = is_lost_ && !work.is_ground;
    for (fleet_work::agent& made : work.agents) {
        take_given(made, work.now);
    }
    if (work.revision.has_text) { /* who came while it was made */
        for (const auto& [key, agent] : agents_) {
            if (agent->is_there && !agent->is_ready) {
                make_due(*agent);
            }
        }
    }
}

/* What came to be known of the agent meanwhile is so still. */
std::shared_ptr<const given_agent> keeper_body::merged(const fleet_work::agent& made) {
    assigned_agent next = made.now->all();
    const given_agent& meanwhile = *made.of->given;
    for (assigned_test& test : next.tests) {
        const assigned_test* known = test.number != 0 ? meanwhile.find(key_of(test)) : nullptr;
        if (known != nullptr) {
            test.confirmed = std::max(test.confirmed, known->confirmed);
            test.whole_gb = known->whole_gb > 0 ? known->whole_gb : test.whole_gb;
        }
    }
    for (const removed_test& test : meanwhile.all().removed) {
        auto known =
            std::find_if(next.removed.begin(), next.removed.end(), [&](const removed_test& each) {
                return each.type == test.type && each.number == test.number;
            });
        if (known == next.removed.end()) {
            next.removed.push_back(test);
        } else if (known->revision == test.revision) {
            known->is_over = test.is_over;
        }
    }
    next.next_number = std::max(next.next_number, meanwhile.all().next_number);
    return std::make_shared<given_agent>(std::move(next));
}

void keeper_body::take_given(fleet_work::agent& made, moment at) {
    kept_agent& of = *made.of;
    const bool is_same = of.given == made.base;
    of.is_awaited = false;
    if (!made.now) { /* it was only stored */
        of.is_unsaved = of.is_unsaved && !(made.is_changed && is_same);
        of.changes.note_saved(made.outcomes);
    } else if (!of.is_there) { /* it was retired meanwhile: its numbers are gone all the same */
        assigned_agent next = of.given->all();
        next.next_number = std::max(next.next_number, made.now->all().next_number);
        of.given = std::make_shared<given_agent>(std::move(next));
        of.is_unsaved = true;
    } else {
        of.given = is_same ? made.now : merged(made);
        of.is_unsaved = made.is_changed ? !is_same : of.is_unsaved;
        of.is_given = of.is_ready = true;
        of.strays.clear();
        of.changes.take(made.changes, at);
        of.changes.follow(*of.given);
        of.changes.note_saved(made.outcomes);
    }
    note(of);
}

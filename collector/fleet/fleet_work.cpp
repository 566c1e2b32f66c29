#include "fleet/fleet_work.h"

#include <algorithm>

static constexpr size_t most_agents = 2000; /* in one piece of work, but when a file is applied */
static constexpr size_t most_saved = 2000;  /* changes, likewise */

uint64_t work_maker::serial_of(std::string_view secret) const {
    return secrets_ != nullptr ? secrets_->serial_of(secret) : 0;
}

/* ---- making it: any thread that has the turn, without the mutex ---- */

agent_basis work_maker::basis_of(kept_agent& of) {
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

void work_maker::make_agent(fleet_work::agent& made, const agent_basis& basis, const fleet& file,
                            int32_t revision) const {
    assigned_agent next = basis.given->all();
    const auto first = static_cast<int32_t>(basis.is_given ? 1 : state_.facts.first_number);
    next.next_number = std::max({next.next_number, first, basis.highest + 1});
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
void work_maker::number_changes(fleet_work& work) {
    for (fleet_work::agent& made : work.agents) {
        if (made.differences.empty()) {
            continue;
        }
        std::lock_guard hold(state_.mutex);
        for (const fleet_change& what : made.differences) {
            made.changes.push_back(
                make_change(what, ++state_.newest_change, made.revision, work.now.wall));
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

void work_maker::make_due(fleet_work& work, const std::vector<agent_basis>& due) {
    int32_t present = 0, present_highest = 0;
    {
        std::lock_guard hold(state_.mutex);
        work.file = state_.file;
        present = state_.newest.revision;
        present_highest = std::max(state_.highest_revision, present);
    }
    const int32_t fresh = present_highest + 1;
    bool is_used = false;
    work.agents.resize(due.size());
    for (size_t i = 0; i < due.size(); i++) {
        make_agent(work.agents[i], due[i], *work.file, due[i].is_given ? fresh : present);
        is_used = is_used || (due[i].is_given && work.agents[i].is_changed);
    }
    if (is_used) {
        work.revision = {.revision = revisions_.next(), /* the same */
                         .time = work.now.wall,
                         .author = "collector",
                         .about = about(work)};
    }
    work.file = nullptr;
    number_changes(work);
}

void work_maker::complete(fleet_work& all) {
    all.now = present_moment();
    all.revision.revision = revisions_.next();
    all.revision.time = all.now.wall;
}

work_maker::pointer work_maker::make_application(std::string_view text,
                                                 std::shared_ptr<const fleet> file,
                                                 const std::string& author) {
    auto work = std::make_shared<fleet_work>();
    work->now = present_moment();
    work->file = std::move(file);
    std::vector<agent_basis> all;
    {
        std::lock_guard hold(state_.mutex);
        all.reserve(state_.agents.size());
        for (const auto& [key, agent] : state_.agents) {
            if (agent->is_there) {
                all.push_back(basis_of(*agent));
                agent->is_awaited = std::exchange(agent->is_due, false);
            }
        }
    }
    const int32_t revision = revisions_.next();
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

void work_maker::take_due(std::vector<agent_basis>& due) {
    auto take = [&](kept_agent* of) {
        if (of->is_due && of->is_there && state_.file) {
            due.push_back(basis_of(*of));
            of->is_awaited = true;
        }
        of->is_due = false;
    };
    for (const fleet_state::waiting_answer& each : state_.waiting) {
        if (due.size() < most_agents) {
            take(each.of);
        }
    }
    while (!state_.due.empty() && due.size() < most_agents) {
        take(state_.due.back());
        state_.due.pop_back();
    }
}

work_maker::pointer work_maker::collect_unsaved() {
    auto work = std::make_shared<fleet_work>();
    work->now = present_moment();
    size_t changes = 0;
    while (!state_.noted.empty() && changes < most_saved) {
        kept_agent& of = *state_.noted.back();
        state_.noted.pop_back();
        of.is_noted = false;
        fleet_work::agent saved = {.of = &of, .base = of.given, .is_changed = of.is_unsaved};
        of.changes.unsaved(saved.outcomes);
        if (saved.is_changed || !saved.outcomes.empty()) {
            changes += 1 + saved.outcomes.size();
            work->agents.push_back(std::move(saved));
        }
    }
    return work->agents.empty() ? nullptr : work;
}

work_maker::pointer work_maker::collect_all(const char* why, bool with_text) {
    auto work = std::make_shared<fleet_work>();
    work->is_all = true;
    for (const auto& [key, agent] : state_.agents) {
        if (agent->is_given) {
            fleet_work::agent& saved = work->agents.emplace_back();
            saved.of = agent.get();
            saved.base = agent->given;
            saved.is_changed = true;
            saved.outcomes = agent->changes.open();
        }
    }
    work->revision.author = "collector";
    work->revision.about = why;
    if (with_text && state_.in_force.has_text) {
        work->revision.text = state_.in_force.text;
        work->revision.has_text = true;
        work->file = state_.file;
    }
    return work;
}

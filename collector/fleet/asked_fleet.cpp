#include "fleet/asked_fleet.h"

#include "base/text.h"
#include "fleet/wanted.h"

#include <algorithm>
#include <tuple>
#include <unordered_set>

static constexpr std::chrono::seconds longest_turn{5};

fleet_standing asked_fleet::standing() const {
    std::lock_guard hold(state_.mutex);
    return {.revision = state_.newest.revision,
            .time = state_.newest.time,
            .author = state_.newest.author,
            .about = state_.newest.about,
            .text_revision = state_.in_force.revision,
            .file = file_,
            .file_trouble = state_.file_trouble,
            .agents = state_.with_tests,
            .tests = state_.counted.tests,
            .waiting = state_.counted.waiting,
            .sent = state_.counted.sent,
            .confirmed = state_.counted.confirmed,
            .unanswered = state_.counted.unanswered,
            .impossible = state_.counted.impossible};
}

std::string asked_fleet::text(int32_t& revision) const {
    std::lock_guard hold(state_.mutex);
    revision = state_.in_force.revision;
    return state_.in_force.text;
}

/* ---- what would be, and what is to be ---- */

static fleet_difference::agent difference_of(const fleet_work::agent& made) {
    fleet_difference::agent one = {.account = made.of->account,
                                   .name = made.of->name,
                                   .groups = made.groups,
                                   .poll = made.now->all().poll,
                                   .check = made.now->all().check,
                                   .about_intervals = made.about_intervals,
                                   .changes = made.differences};
    std::stable_sort(one.changes.begin(), one.changes.end(),
                     [](const fleet_change& a, const fleet_change& b) {
                         return a.action != b.action ? a.action < b.action : a.test < b.test;
                     });
    return one;
}

static void count(const std::vector<fleet_change>& changes, fleet_difference& all) {
    for (const fleet_change& each : changes) {
        size_t& count = !each.impossible.empty()               ? all.impossible
                        : each.action == change_action::add    ? all.added
                        : each.action == change_action::change ? all.changed
                        : each.action == change_action::rename ? all.renamed
                        : each.action == change_action::remove ? all.removed
                                                               : all.intervals;
        count++;
    }
}

static fleet_difference difference_of(const fleet_work& work, const fleet& file) {
    fleet_difference all;
    std::unordered_set<std::string_view> used;
    for (const fleet_work::agent& made : work.agents) {
        all.agents_in_all++;
        all.agents_without += made.groups.empty();
        used.insert(made.groups.begin(), made.groups.end());
        std::unordered_set<std::string_view> other;
        for (const fleet_change& each : made.differences) {
            other.insert(each.test);
        }
        for (const assigned_test& test : made.now->all().tests) {
            all.unchanged += !other.contains(test.name);
        }
        count(made.differences, all);
        if (!made.differences.empty()) {
            all.agents.push_back(difference_of(made));
        }
    }
    std::sort(all.agents.begin(), all.agents.end(), [](const auto& a, const auto& b) {
        return std::tie(a.account, a.name) < std::tie(b.account, b.name);
    });
    for (const fleet_group& group : file.groups) {
        if (!used.contains(group.name)) {
            all.groups_without.push_back(group.name);
        }
    }
    return all;
}

/* A small text can come to more than there is memory for. */
std::string asked_fleet::why_too_many(const fleet& file) const {
    std::vector<std::pair<std::string, std::string>> names;
    {
        std::lock_guard hold(state_.mutex);
        for (const auto& [key, agent] : state_.agents) {
            if (agent->is_there) {
                names.emplace_back(agent->account, agent->name);
            }
        }
    }
    size_t count = 0;
    for (const auto& [account, name] : names) {
        const size_t more = tests_given(file, account, name);
        if (more > most_tests_of_agent) {
            return "Of one agent there may be " + std::to_string(most_tests_of_agent) +
                   " tests, and " + printable(name) + " would have " + std::to_string(more) + ".";
        }
        count += more;
    }
    return count <= most_tests_of_fleet
               ? ""
               : "There may be " + std::to_string(most_tests_of_fleet) +
                     " tests of all agents together, and these are " + std::to_string(count) + ".";
}

fleet_outcome asked_fleet::try_out(std::string_view text) {
    fleet_outcome outcome;
    auto file = std::make_shared<fleet>();
    if (!read_fleet(text, *file, outcome.wrong)) {
        return outcome;
    }
    outcome.error = why_too_many(*file);
    outcome.is_too_large = !outcome.error.empty();
    if (outcome.is_too_large) {
        return outcome;
    }
    outcome.notes = file->notes;
    fleet_work work;
    std::vector<agent_basis> all;
    int32_t revision = 0;
    {
        std::lock_guard hold(state_.mutex);
        outcome.revision = state_.in_force.revision;
        outcome.is_same = state_.file && state_.in_force.text == text;
        revision = std::max(state_.highest_revision, state_.newest.revision) + 1;
        for (const auto& [key, agent] : state_.agents) {
            if (agent->is_there) {
                all.push_back(work_maker::basis_of(*agent));
            }
        }
    }
    work.agents.resize(all.size());
    for (size_t i = 0; i < all.size(); i++) {
        made_.make_agent(work.agents[i], all[i], *file, revision);
    }
    outcome.difference = difference_of(work, *file);
    return outcome;
}

std::string asked_fleet::why_conflict(std::optional<int32_t> expected) const {
    if (!file_.empty()) {
        return "The file " + file_ + " of the collector's host rules: change it there.";
    }
    if (expected && *expected > state_.newest.revision) {
        return "There is no revision " + std::to_string(*expected) + " yet.";
    }
    if (expected && *expected < state_.in_force.revision) {
        return "Revision " + std::to_string(state_.in_force.revision) + " was applied by " +
               state_.in_force.author + " in between: look at the difference again.";
    }
    return "";
}

fleet_outcome asked_fleet::apply(std::string_view text, const std::string& author,
                                 std::optional<int32_t> expected) {
    fleet_outcome outcome;
    auto file = std::make_shared<fleet>();
    const bool is_read = read_fleet(text, *file, outcome.wrong);
    const std::string too_many = is_read ? why_too_many(*file) : "";
    {
        std::unique_lock hold(state_.mutex);
        outcome.revision = state_.in_force.revision;
        outcome.error = why_conflict(expected);
        outcome.is_conflict = !outcome.error.empty();
        if (outcome.is_conflict) {
            outcome.wrong.clear();
            return outcome;
        }
        outcome.error = too_many;
        outcome.is_too_large = !too_many.empty();
        if (!is_read || !too_many.empty()) {
            return outcome;
        }
        if (!state_.is_started || !state_.take_turn(hold, longest_turn)) {
            outcome.error = "The store is busy, and nothing was applied: try again.";
            return outcome;
        }
        outcome.revision = state_.in_force.revision;
        outcome.error = why_conflict(expected); /* somebody else had the turn meanwhile */
        outcome.is_conflict = !outcome.error.empty();
        outcome.is_same = state_.file && state_.in_force.text == text;
        if (outcome.is_conflict || outcome.is_same) {
            state_.give_turn_back();
            return outcome;
        }
    }
    outcome.notes = file->notes;
    int32_t revision = 0;
    fleet_storing::ending end = fleet_storing::ending::failed;
    work_maker::pointer work;
    with_turn(state_, [&] {
        work = made_.make_application(text, file, author);
        outcome.difference = difference_of(*work, *file);
        revision = work->revision.revision;
        end = stored_.submit_and_wait(work);
    });
    if (end == fleet_storing::ending::late) {
        outcome.error = "The store took longer than ten seconds: whether the fleet was applied is "
                        "known when it has answered.";
    } else if (end == fleet_storing::ending::failed) {
        outcome.error = "It cannot be stored, and nothing was applied: " + work->reason + ".";
    }
    if (!outcome.error.empty()) {
        outcome.difference = {};
        return outcome;
    }
    outcome.revision = revision;
    return outcome;
}

/* ---- names and tests ---- */

std::vector<std::string> asked_fleet::groups_of(std::string_view account,
                                                std::string_view agent) const {
    std::shared_ptr<const fleet> file;
    {
        std::lock_guard hold(state_.mutex);
        file = state_.file;
    }
    std::vector<std::string> names;
    for (size_t i = 0; file && i < file->groups.size(); i++) {
        const fleet_group& group = file->groups[i];
        if (std::any_of(group.agents.begin(), group.agents.end(),
                        [&](const agent_pattern& p) { return p.matches(account, agent); })) {
            names.push_back(group.name);
        }
    }
    return names;
}

static fleet_test_standing standing_of(const assigned_test& test) {
    fleet_test_standing one = {.name = test.name,
                               .group = test.group,
                               .target = {},
                               .kind = test.kind,
                               .number = test.number,
                               .revision = test.revision,
                               .confirmed = test.confirmed,
                               .impossible = test.impossible,
                               .shown = {},
                               .at = {}};
    if (test.what) {
        one.target = test.what->target;
        one.shown = test.what->shown;
        one.at = test.what->at;
    }
    return one;
}

std::vector<fleet_test_standing> asked_fleet::tests_of(std::string_view account,
                                                       std::string_view agent) const {
    std::shared_ptr<const given_agent> given;
    {
        std::lock_guard hold(state_.mutex);
        const kept_agent* of = state_.file ? state_.find(account, agent) : nullptr;
        given = of != nullptr && of->is_there ? of->given : nullptr;
    }
    std::vector<fleet_test_standing> all;
    if (given) {
        for (const assigned_test& test : given->all().tests) {
            all.push_back(standing_of(test));
        }
    }
    return all;
}

std::optional<fleet_test_standing> asked_fleet::test_of(std::string_view account,
                                                        std::string_view agent, uint32_t type,
                                                        int32_t number) const {
    std::shared_ptr<const given_agent> given;
    {
        std::lock_guard hold(state_.mutex);
        const kept_agent* of = state_.file ? state_.find(account, agent) : nullptr;
        given = of != nullptr && of->is_there ? of->given : nullptr;
    }
    const assigned_test* test = given ? given->find({type, number}) : nullptr;
    return test != nullptr ? std::optional(standing_of(*test)) : std::nullopt;
}

std::optional<called_test> asked_fleet::name_of(std::string_view account, std::string_view agent,
                                                uint32_t type, int32_t number) const {
    std::shared_ptr<const given_agent> given;
    {
        std::lock_guard hold(state_.mutex);
        const kept_agent* of = state_.find(account, agent);
        given = of != nullptr ? of->given : nullptr;
    }
    const assigned_test* test = given ? given->find({type, number}) : nullptr;
    if (test != nullptr) {
        return called_test{.name = test->name, .target = test->what ? test->what->target : ""};
    }
    const removed_test* gone = given ? given->find_removed({type, number}) : nullptr;
    if (gone != nullptr && !gone->name.empty()) {
        return called_test{.name = gone->name, .target = ""};
    }
    return std::nullopt;
}

/* What the API asks, and those who show results. Any thread. */
#include "fleet/keeper_body.h"

#include <algorithm>
#include <future>

static constexpr std::chrono::seconds longest_turn{5}, longest_storing{10};

fleet_standing keeper_body::standing() const {
    std::lock_guard hold(mutex_);
    return {.revision = newest_.revision,
            .time = newest_.time,
            .author = newest_.author,
            .about = newest_.about,
            .text_revision = in_force_.revision,
            .file = options_.file,
            .file_trouble = file_trouble_,
            .agents = with_tests_,
            .tests = counted_.tests,
            .waiting = counted_.waiting,
            .sent = counted_.sent,
            .confirmed = counted_.confirmed,
            .unanswered = counted_.unanswered,
            .impossible = counted_.impossible};
}

std::string keeper_body::text(int32_t& revision) const {
    std::lock_guard hold(mutex_);
    revision = in_force_.revision;
    return in_force_.text;
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

fleet_outcome keeper_body::try_out(std::string_view text) {
    fleet_outcome outcome;
    auto file = std::make_shared<fleet>();
    if (!read_fleet(text, *file, outcome.wrong)) {
        return outcome;
    }
    outcome.notes = file->notes;
    fleet_work work;
    std::vector<agent_basis> all;
    int32_t revision = 0;
    {
        std::lock_guard hold(mutex_);
        outcome.revision = in_force_.revision;
        outcome.is_same = file_ && in_force_.text == text;
        revision = std::max(highest_revision_, newest_.revision) + 1;
        for (const auto& [key, agent] : agents_) {
            if (agent->is_there) {
                all.push_back(basis_of(*agent));
            }
        }
    }
    work.agents.resize(all.size());
    for (size_t i = 0; i < all.size(); i++) {
        make_agent(work.agents[i], all[i], *file, revision);
    }
    outcome.difference = difference_of(work, *file);
    return outcome;
}

std::string keeper_body::why_conflict(std::optional<int32_t> expected) const {
    if (!options_.file.empty()) {
        return "The file " + options_.file + " of the collector's host rules: change it there.";
    }
    if (expected && *expected > newest_.revision) {
        return "There is no revision " + std::to_string(*expected) + " yet.";
    }
    if (expected && *expected < in_force_.revision) {
        return "Revision " + std::to_string(in_force_.revision) + " was applied by " +
               in_force_.author + " in between: look at the difference again.";
    }
    return "";
}

fleet_outcome keeper_body::apply(std::string_view text, const std::string& author,
                                 std::optional<int32_t> expected) {
    fleet_outcome outcome;
    auto file = std::make_shared<fleet>();
    const bool is_read = read_fleet(text, *file, outcome.wrong);
    {
        std::unique_lock hold(mutex_);
        outcome.revision = in_force_.revision;
        outcome.error = why_conflict(expected);
        outcome.is_conflict = !outcome.error.empty();
        if (outcome.is_conflict) {
            outcome.wrong.clear();
            return outcome;
        }
        if (!is_read) {
            return outcome;
        }
        if (!is_started_ || !take_turn(hold, longest_turn)) {
            outcome.error = "The store is busy, and nothing was applied: try again.";
            return outcome;
        }
        outcome.revision = in_force_.revision;
        outcome.error = why_conflict(expected); /* somebody else had the turn meanwhile */
        outcome.is_conflict = !outcome.error.empty();
        outcome.is_same = file_ && in_force_.text == text;
        if (outcome.is_conflict || outcome.is_same) {
            give_turn_back();
            return outcome;
        }
    }
    outcome.notes = file->notes;
    struct answer {
        bool ok;
        std::string reason;
    };
    auto ended = std::make_shared<std::promise<answer>>();
    std::future<answer> end = ended->get_future();
    int32_t revision = 0;
    with_turn([&] {
        work_pointer work = make_application(text, file, author);
        outcome.difference = difference_of(*work, *file);
        revision = work->revision.revision;
        work->done = [ended](const fleet_work& done) { ended->set_value({done.ok, done.reason}); };
        submit(work);
    });
    if (end.wait_for(longest_storing) != std::future_status::ready) {
        outcome.error = "The store took longer than ten seconds: whether the fleet was applied is "
                        "known when it has answered.";
        outcome.difference = {};
        return outcome;
    }
    const answer stored = end.get();
    if (!stored.ok) {
        outcome.error = "It cannot be stored, and nothing was applied: " + stored.reason + ".";
        outcome.difference = {};
        return outcome;
    }
    outcome.revision = revision;
    return outcome;
}

/* ---- names and tests ---- */

std::vector<std::string> keeper_body::groups_of(std::string_view account,
                                                std::string_view agent) const {
    std::shared_ptr<const fleet> file;
    {
        std::lock_guard hold(mutex_);
        file = file_;
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

std::vector<fleet_test_standing> keeper_body::tests_of(std::string_view account,
                                                       std::string_view agent) const {
    std::shared_ptr<const given_agent> given;
    {
        std::lock_guard hold(mutex_);
        const kept_agent* of = file_ ? find(account, agent) : nullptr;
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

std::optional<fleet_test_standing> keeper_body::test_of(std::string_view account,
                                                        std::string_view agent, uint32_t type,
                                                        int32_t number) const {
    std::shared_ptr<const given_agent> given;
    {
        std::lock_guard hold(mutex_);
        const kept_agent* of = file_ ? find(account, agent) : nullptr;
        given = of != nullptr && of->is_there ? of->given : nullptr;
    }
    const assigned_test* test = given ? given->find({type, number}) : nullptr;
    return test != nullptr ? std::optional(standing_of(*test)) : std::nullopt;
}

std::optional<called_test> keeper_body::name_of(std::string_view account, std::string_view agent,
                                                uint32_t type, int32_t number) const {
    std::shared_ptr<const given_agent> given;
    {
        std::lock_guard hold(mutex_);
        const kept_agent* of = find(account, agent);
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

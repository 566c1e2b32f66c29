#include "fleet/told_fleet.h"

#include "base/text.h"

#include <algorithm>

static constexpr std::chrono::seconds longest_wait{2};

std::optional<std::string> told_fleet::expand(std::string_view line) const {
    std::string missing;
    return secrets_ != nullptr ? secrets_->expand(line, missing) : std::nullopt;
}

bool told_fleet::prepare(const session& of, std::function<void()> ready) {
    {
        std::lock_guard hold(state_.mutex);
        if (state_.is_stopping) {
            return true;
        }
        kept_agent* agent = state_.find_or_make(of.account, of.agent);
        if (agent == nullptr) {
            return true;
        }
        agent->presence.is_here = true;
        agent->presence.is_proven = of.proven;
        if (!agent->is_there || !agent->is_ready) {
            agent->is_there = true;
            if (!agent->is_awaited) {
                state_.make_due(*agent);
            }
        }
        if (!agent->is_due && !agent->is_awaited) {
            return true;
        }
        state_.waiting.push_back({.of = agent,
                                  .ready = std::move(ready),
                                  .until = fleet_state::clock::now() + longest_wait});
        state_.is_woken = true;
    }
    state_.changed.notify_all();
    return false;
}

void told_fleet::tell_kept_back(const session& of, const given_agent& given) {
    if (!of.proven && given.has_secrets()) {
        kept_back_(event::session, printable(of.agent) + " of " + printable(of.account) +
                                       " is not told of tests with secrets: it has not proven who "
                                       "it is");
    }
}

/* One that was told to log in again by another run of the collector has run, too, and nobody knows.
 */
told_commands told_fleet::for_login(const session& of) {
    std::shared_ptr<const given_agent> given;
    bool has_run = of.running;
    {
        std::lock_guard hold(state_.mutex);
        kept_agent* agent = state_.file ? state_.find(of.account, of.agent) : nullptr;
        if (agent == nullptr || !agent->is_ready) {
            return {}; /* it comes with a later answer */
        }
        agent->again_given.clear(); /* all is put right */
        agent->again.clear();
        has_run = has_run || agent->may_run;
        given = agent->given;
    }
    tell_kept_back(of, *given);
    return {.text = commands_for_login(given->all(), has_run, of.proven,
                                       [this](std::string_view line) { return expand(line); }),
            .upto = static_cast<uint64_t>(given->all().newest)};
}

void told_fleet::login_arrived(const session& of) {
    std::lock_guard hold(state_.mutex);
    kept_agent* agent = state_.find(of.account, of.agent);
    if (agent != nullptr && agent->is_ready && of.delivered > 0) {
        agent->may_run = false;
    }
}

/* What is to be put right once more. */
static std::string commands_again(const given_agent& given, const std::vector<test_key>& tests,
                                  bool proven, const expand_function& expand) {
    std::string text;
    for (const test_key& key : tests) {
        if (const assigned_test* test = given.find(key)) {
            text += commands_for_test(given.all(), *test, proven, expand);
        } else if (const removed_test* gone = given.find_removed(key)) {
            assigned_agent only;
            only.removed = {*gone};
            only.removed.front().revision = only.newest = 1;
            text += commands_after(only, 0, proven, expand);
        }
    }
    return text;
}

told_commands told_fleet::after(const session& of, uint64_t serial) {
    std::shared_ptr<const given_agent> given;
    std::vector<test_key> again;
    {
        std::lock_guard hold(state_.mutex);
        kept_agent* agent = state_.file ? state_.find(of.account, of.agent) : nullptr;
        if (agent == nullptr || !agent->is_ready) {
            return {.text = "", .upto = serial};
        }
        if (agent->changes.has_intervals()) {
            agent->changes.arrived(static_cast<int32_t>(serial), present_moment());
            state_.note(*agent);
        }
        given = agent->given;
        again = agent->again;
        agent->again_given = again;
    }
    const expand_function with = [this](std::string_view line) { return expand(line); };
    const auto upto = std::max(serial, static_cast<uint64_t>(given->all().newest));
    if (serial == 0) { /* it was told nothing at its login, and has run since */
        return {.text = commands_for_login(given->all(), true, of.proven, with), .upto = upto};
    }
    return {.text = commands_after(given->all(), static_cast<int32_t>(serial), of.proven, with) +
                    commands_again(*given, again, of.proven, with),
            .upto = upto};
}

std::string told_fleet::text_for_check(const session& of) {
    std::shared_ptr<const given_agent> given;
    {
        std::lock_guard hold(state_.mutex);
        kept_agent* agent = state_.file ? state_.find(of.account, of.agent) : nullptr;
        if (agent == nullptr || !agent->is_ready) {
            return "";
        }
        given = agent->given;
    }
    return commands_for_check(given->all(), of.proven,
                              [this](std::string_view line) { return expand(line); });
}

void told_fleet::answer_arrived(const session& of) {
    std::lock_guard hold(state_.mutex);
    kept_agent* agent = state_.file ? state_.find(of.account, of.agent) : nullptr;
    if (agent == nullptr || !agent->is_ready ||
        (agent->changes.next_look() == INT64_MAX && agent->again_given.empty())) {
        return;
    }
    const moment at = present_moment();
    const bool login = of.polls == 0 || of.answered_from == 0;
    if (of.delivered > 0) {
        agent->changes.answered(*agent->given, static_cast<int32_t>(of.delivered), of.proven, login,
                                at);
    }
    if (!agent->again_given.empty()) {
        agent->changes.repeated(*agent->given, agent->again_given, at);
        std::erase_if(agent->again, [&](const test_key& test) {
            const std::vector<test_key>& given = agent->again_given;
            return std::find(given.begin(), given.end(), test) != given.end();
        });
        agent->again_given.clear();
    }
    state_.note(*agent);
}

std::chrono::seconds told_fleet::poll_interval(const session& of) const {
    std::lock_guard hold(state_.mutex);
    const kept_agent* agent = state_.file ? state_.find(of.account, of.agent) : nullptr;
    const int32_t poll = agent != nullptr ? agent->given->all().poll : 0;
    return std::chrono::seconds(poll > 0 ? poll : default_interval_s);
}

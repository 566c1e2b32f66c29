/* What became of each change of a test, newest first. */
#include "api/answer.h"
#include "api/difference.h"
#include "api/find.h"
#include "api/in_group.h"
#include "api/parameters.h"
#include "api/resources.h"

#include <algorithm>
#include <limits>

namespace json = boost::json;

namespace {

const parameter_def list_parameters[] = {
    agent_parameter,
    group_parameter,
    {.name = "test", .kind = parameter_kind::text, .text = "Only of the test of this name."},
    {.name = "outcome",
     .kind = parameter_kind::choice,
     .text = "Only those of which that became.",
     .choices = "sent|confirmed|unanswered|impossible",
     .many = true},
    {.name = "open",
     .kind = parameter_kind::flag,
     .text = "Only those that are not confirmed and that nothing has taken the place of: what is "
             "still to be, or cannot be."},
    {.name = "revision",
     .kind = parameter_kind::number,
     .text = "Only those of this revision.",
     .least = 1,
     .most = std::numeric_limits<int32_t>::max()},
    {.name = "from", .kind = parameter_kind::time, .text = "Only changes from this time on."},
    {.name = "to", .kind = parameter_kind::time, .text = "Only changes before this time."},
    limit_parameter,
    next_parameter};

/* That are looked at for one answer; it may have fewer than asked for then, and a `next`. */
constexpr size_t most_looked_at = 10000;

uint8_t outcomes_asked_for(const api_request& asked) {
    const chosen words(asked, "outcome");
    if (!words.is_given() && is_set(asked, "open")) {
        return 0xff & ~(1u << static_cast<unsigned>(change_outcome::confirmed));
    }
    unsigned bits = 0;
    for (change_outcome each : {change_outcome::sent, change_outcome::confirmed,
                                change_outcome::unanswered, change_outcome::impossible}) {
        bits |= words.is_given() && words.has(outcome_word(each))
                    ? 1u << static_cast<unsigned>(each)
                    : 0u;
    }
    return static_cast<uint8_t>(bits);
}

/* Whether changes are what the fleet wants still. */
class open_filter {
public:
    open_filter(const api_request& asked, const api_services& with)
        : is_on_(is_set(asked, "open")), fleet_(with.fleet) {}

    bool has(const stored_change& change) {
        if (!is_on_) {
            return true;
        }
        if (fleet_ == nullptr || change.outcome == change_outcome::confirmed) {
            return false;
        }
        switch (static_cast<change_action>(change.action)) {
        case change_action::intervals:
            return !is_over(change);
        case change_action::remove:
            return !is_over(change) && find(change) == nullptr;
        default:
            break;
        }
        const fleet_test_standing* test = find(change);
        return test != nullptr && (change.outcome == change_outcome::impossible
                                       ? is_same_reason(change.reason, test->impossible)
                                       : test->revision == change.revision);
    }

private:
    /* Nobody waits for it any more, as it says itself. */
    static bool is_over(const stored_change& change) {
        return change.reason.find("took its place") != change.reason.npos ||
               change.reason == "the agent was retired";
    }

    /* A test that cannot be has no revision, so it is the reason that tells the present change from
     * earlier ones. What there is instead stands behind the semicolon, and comes and goes. */
    static bool is_same_reason(std::string_view one, std::string_view other) {
        return one.substr(0, one.find(';')) == other.substr(0, other.find(';'));
    }

    /* What the agent has by that number, or by that name when the change has none. Changes of an
     * agent come together mostly. */
    const fleet_test_standing* find(const stored_change& change) {
        if (change.account != account_ || change.agent != agent_) {
            account_ = change.account;
            agent_ = change.agent;
            tests_ = fleet_->tests_of(account_, agent_);
        }
        auto found =
            std::find_if(tests_.begin(), tests_.end(), [&change](const fleet_test_standing& each) {
                return change.number == 0 ? each.name == change.test
                                          : each.number == change.number && each.kind != nullptr &&
                                                each.kind->record->code == change.type;
            });
        return found != tests_.end() ? &*found : nullptr;
    }

    const bool is_on_;
    const fleet_service* const fleet_;
    std::string account_, agent_;
    std::vector<fleet_test_standing> tests_;
};

api_answer list_changes(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    const size_t limit = limit_of(asked);
    const std::string test = text_of(asked, "test");
    change_filter which;
    std::optional<found_agent> agent;
    if (const std::string* called = asked.parameter("agent")) {
        agent.emplace(find_agent(*store, *called));
        which.account = agent->account;
        which.agent = agent->name;
    }
    which.test = test;
    which.outcomes = outcomes_asked_for(asked);
    which.revision = static_cast<int32_t>(number_or(asked, "revision", 0));
    which.from = time_of(asked, "from").value_or(which.from);
    which.to = time_of(asked, "to").value_or(which.to);
    check_span(which.from, which.to);
    if (auto behind = place_of(asked, 1)) {
        which.below = number_in((*behind)[0]);
    }
    in_group group(text_of(asked, "group"), with);
    open_filter open(asked, with);
    agent_ids ids(&*store);
    json::array items;
    std::string next, error;
    size_t looked_at = 0;
    int64_t last = 0;
    auto take = [&](const stored_change& change) {
        if (items.size() == limit || looked_at == most_looked_at) {
            next = next_text({std::to_string(last)});
            return false;
        }
        if (++looked_at % 256 == 0) {
            check_deadline(asked);
        }
        last = change.id;
        if (group.has(change.account, change.agent) && open.has(change)) {
            items.push_back(json_change(change, ids.of(change.account, change.agent)));
        }
        return true;
    };
    bool ok = store->for_each_change(which, take, error);
    return answer_with(list_of(asked, std::move(items), next, ok ? "" : error));
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/changes",
     .least = role::viewer,
     .summary = "Each change of a test of an agent and what became of it, newest first. Where a "
                "filter lets little through, an answer may have fewer than asked for and go on "
                "all the same: only a `next` of null is the end.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "changes",
     .status = 200,
     .handler = list_changes}};

} // namespace

std::span<const route> change_routes() {
    return rows;
}

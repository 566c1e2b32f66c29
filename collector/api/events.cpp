/* Changes of state, newest first. */
#include "api/answer.h"
#include "api/encoding.h"
#include "api/find.h"
#include "api/in_group.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"
#include "base/record_summary.h"
#include "state/definition.h"

#include <limits>
#include <map>

namespace json = boost::json;

namespace {

const parameter_def list_parameters[] = {
    agent_parameter,
    {.name = "test", .kind = parameter_kind::id, .text = "Only of this test."},
    group_parameter,
    type_parameter,
    {.name = "state",
     .kind = parameter_kind::choice,
     .text = "Only changes to these states; stale ones are unknown, too.",
     .choices = "ok|problem|unknown|stale|silent",
     .many = true},
    {.name = "q",
     .kind = parameter_kind::text,
     .text = "Only events with this text in their message, in the names of their agent and test "
             "or in what the test looks at, whatever the case."},
    {.name = "from", .kind = parameter_kind::time, .text = "Only events from this time on."},
    {.name = "to", .kind = parameter_kind::time, .text = "Only events before this time."},
    limit_parameter,
    next_parameter};

/* That are looked at for one answer; it may have fewer than asked for then, and a `next`. */
constexpr size_t most_looked_at = 10000;

class event_list {
public:
    event_list(result_reader& store, const api_request& asked, const api_services& with)
        : store_(store), asked_(asked), types_(asked, "type"), states_(asked, "state"),
          q_(text_of(asked, "q")), limit_(limit_of(asked)), group_(text_of(asked, "group"), with),
          names_(store), definitions_(store) {
        which_.agent = agent_asked_for(store, asked);
        which_.test = number_or(asked, "test", 0);
        if (which_.test != 0) {
            int64_t agent = find_test(store, which_.test).agent;
            is_empty_ = which_.agent != 0 && which_.agent != agent;
        }
        which_.from = time_of(asked, "from").value_or(which_.from);
        which_.to = time_of(asked, "to").value_or(which_.to);
        check_span(which_.from, which_.to);
        if (auto behind = place_of(asked, 2)) {
            int64_t time = number_in((*behind)[0]);
            which_.below = number_in((*behind)[1]);
            if (time >= which_.to || time < which_.from) {
                throw_bad_request(
                    "`next` goes on outside of the time asked for: ask for the same one.");
            }
            which_.to = time + 1;
        }
    }

    json::object read() {
        std::string error, next;
        json::array items;
        size_t looked_at = 0;
        int64_t last_time = 0, last_id = 0;
        auto take = [&](const stored_event& event) {
            if (items.size() == limit_ || looked_at == most_looked_at) {
                next = next_text({std::to_string(last_time), std::to_string(last_id)});
                return false;
            }
            if (++looked_at % 256 == 0) {
                check_deadline(asked_);
            }
            last_time = event.time;
            last_id = event.id;
            if (is_wanted(event)) {
                items.push_back(object_of(event));
            }
            return true;
        };
        bool ok = is_empty_ || store_.for_each_event(which_, take, error);
        return list_of(asked_, std::move(items), next, ok ? error_ : error);
    }

private:
    const std::optional<known_test_row>& test_of(const stored_event& event) {
        auto [place, is_new] = tests_.try_emplace(event.test);
        if (is_new && event.test != 0) {
            place->second = store_.find_test(event.test);
        }
        return place->second;
    }

    definition_pointer definition_of(const known_test_row& test, int64_t time) {
        return definitions_.of(test.agent, test.type, test.number, std::nullopt, time, error_);
    }

    bool is_wanted(const stored_event& event) {
        if (states_.is_given() && !has_state(states_, static_cast<state>(event.to))) {
            return false;
        }
        if (has_group_) {
            const agent_names::name& agent = names_.of(event.agent);
            if (!group_.has(agent.account, agent.agent)) {
                return false;
            }
        }
        if (!types_.is_given() && q_.empty()) {
            return true;
        }
        const std::optional<known_test_row>& test = test_of(event);
        if (types_.is_given() && (!test || !types_.has(type_name(test->type)))) {
            return false;
        }
        if (q_.empty() || has_text(event.message, q_)) {
            return true;
        }
        const agent_names::name& agent = names_.of(event.agent);
        if (has_text(agent.agent, q_) || has_text(agent.account, q_)) {
            return true;
        }
        return test &&
               test_has_text(test->type, test->number, definition_of(*test, event.time).get(), q_);
    }

    json::object object_of(const stored_event& event) {
        const agent_names::name& agent = names_.of(event.agent);
        json::value test;
        if (const std::optional<known_test_row>& row = test_of(event)) {
            test = test_reference(row->id, row->type, row->number,
                                  definition_of(*row, event.time).get());
        }
        return json_event(event, agent_reference(event.agent, agent.account, agent.agent),
                          std::move(test));
    }

    result_reader& store_;
    const api_request& asked_;
    const chosen types_, states_;
    const std::string q_;
    const size_t limit_;
    event_filter which_;
    bool is_empty_ = false;
    const bool has_group_ = asked_.parameter("group") != nullptr;
    in_group group_;
    agent_names names_;
    definition_reader definitions_;
    std::map<int64_t, std::optional<known_test_row>> tests_;
    std::string error_;
};

api_answer list_events(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    return answer_with(event_list(*store, asked, with).read());
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/events",
     .least = role::viewer,
     .summary = "Changes of state of tests and agents, newest first. Where a filter lets little "
                "through, an answer may have fewer than asked for and go on all the same: only a "
                "`next` of null is the end.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "events",
     .status = 200,
     .handler = list_events}};

} // namespace

std::span<const route> event_routes() {
    return rows;
}

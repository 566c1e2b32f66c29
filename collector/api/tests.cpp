/* Tests: all of them, and one, each with its state and its last result. */
#include "api/answer.h"
#include "api/encoding.h"
#include "api/find.h"
#include "api/in_group.h"
#include "api/last_results.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/shapes.h"
#include "base/record_summary.h"
#include "base/text.h"

#include <tuple>

namespace json = boost::json;

namespace {

const parameter_def list_parameters[] = {
    agent_parameter,
    group_parameter,
    type_parameter,
    {.name = "state",
     .kind = parameter_kind::choice,
     .text = "Only tests in these states; stale ones are unknown, too.",
     .choices = "ok|problem|unknown|stale",
     .many = true},
    {.name = "q",
     .kind = parameter_kind::text,
     .text = "Only tests with this text in their name, in what they look at or in their agent's "
             "name, whatever the case."},
    limit_parameter,
    next_parameter};

/* `now` is the state of the test's agent, `last` the test's last result. */
json::object test_object(json::object agent, const agent_state& now, const test_status& test,
                         const definition* what, const result& last) {
    state shown = shown_state(now, test);
    int64_t since = shown_since(now, test);
    json::object object{{"id", test.id},
                        {"agent", std::move(agent)},
                        {"group", nullptr},
                        {"type", type_name(test.type)},
                        {"number", nullptr},
                        {"name", test_name(test.type, test.number, what)},
                        {"target", test_target(what)},
                        {"state", shown_word(shown)}};
    if (test.number) {
        object["number"] = *test.number;
    }
    if (what != nullptr && !what->group.empty()) {
        object["group"] = what->group;
    }
    if (shown == state::stale) {
        object.emplace("stale", true);
    }
    object.emplace("since", json_time(since));
    object.emplace("time", json_time(test.time));
    object.emplace("status", json_status(last.type, last.status));
    object.emplace("message", json_or_null(shown_message(last.message)));
    object.emplace("values", json_values(last.type, last.values));
    object.emplace("definition", json_definition(what));
    return object;
}

/* Of a message: no test makes a page so large that nobody gets it. */
constexpr size_t most_of_message = 64u << 10;

/* By the agent's account and name, then type and number. */
class test_list {
public:
    test_list(result_reader& store, const api_request& asked, const api_services& with)
        : store_(store), asked_(asked), types_(asked, "type"), states_(asked, "state"),
          q_(text_of(asked, "q")), limit_(limit_of(asked)), agent_(agent_asked_for(store, asked)),
          group_(text_of(asked, "group"), with), definitions_(store) {
        if (auto behind = place_of(asked, 4)) {
            goes_on_ = true;
            account_ = (*behind)[0];
            name_ = (*behind)[1];
            type_ = number_in((*behind)[2]);
            number_ = number_in((*behind)[3]);
        }
    }

    json::object read() {
        std::string error;
        auto take = [&](const known_agent& row) {
            take_agent(row);
            return next_.empty();
        };
        bool ok = true;
        if (agent_ != 0) {
            ok = store_.read_agent(agent_, take, error);
        } else {
            ok = store_.for_each_agent_from(account_, name_, take, error);
        }
        json::array items;
        last_results last(store_);
        size_t bytes = 0;
        for (const row& each : page_) {
            check_deadline(asked_);
            const found& of = agents_[each.agent];
            definition_pointer what = definitions_.of(of.id, each.test, error_);
            result latest = last.of(each.test, error_);
            latest.message = shortened(std::move(latest.message), most_of_message);
            json::object item = test_object(agent_reference(of.id, of.account, of.name), of.state,
                                            each.test, what.get(), latest);
            bytes += weight_of(item);
            if (bytes > most_list_bytes && !items.empty()) {
                next_ = next_behind(page_[items.size() - 1]);
                break;
            }
            items.push_back(std::move(item));
        }
        return list_of(asked_, std::move(items), next_, ok ? error_ : error);
    }

private:
    struct found {
        int64_t id;
        std::string account, name;
        agent_state state; /* without its tests */
    };
    struct row {
        size_t agent;
        test_status test;
    };

    std::string next_behind(const row& last) const {
        const found& of = agents_[last.agent];
        return next_text({of.account, of.name, std::to_string(last.test.type),
                          std::to_string(last.test.number.value_or(0))});
    }

    void take_agent(const known_agent& row) {
        check_deadline(asked_);
        if (row.retired != 0) {
            return;
        }
        int order = goes_on_ ? compare(row) : 1;
        if (order < 0 || !group_.has(row.account, row.agent)) {
            return;
        }
        if (!now_.unpack(row.state) && error_.empty()) {
            error_ = "the state of " + std::string(row.account) + "/" + std::string(row.agent) +
                     " is damaged";
        }
        looked_at_ = row.id;
        is_named_ = has_text(row.agent, q_) || has_text(row.account, q_);
        bool is_there = false;
        size_t looked_at = 0;
        for (const test_status& test : now_.tests) {
            if (++looked_at % 64 == 0) {
                check_deadline(asked_);
            }
            if ((order == 0 && !is_behind(test)) || !is_wanted(test)) {
                continue;
            }
            if (page_.size() == limit_) {
                next_ = next_behind(page_.back());
                return;
            }
            if (!is_there) {
                is_there = true;
                agents_.push_back({row.id, std::string(row.account), std::string(row.agent), {}});
                agents_.back().state.silent = now_.silent;
                agents_.back().state.since = now_.since;
            }
            page_.push_back({agents_.size() - 1, test});
        }
    }

    /* To the agent of the last page's last test. */
    int compare(const known_agent& row) const {
        int order = row.account.compare(account_);
        return order != 0 ? order : row.agent.compare(name_);
    }
    bool is_behind(const test_status& test) const {
        return std::pair<int64_t, int64_t>(test.type, test.number.value_or(0)) >
               std::pair(type_, number_);
    }

    bool is_wanted(const test_status& test) {
        if (!test.number || (types_.is_given() && !types_.has(type_name(test.type))) ||
            (states_.is_given() && !has_state(states_, shown_state(now_, test)))) {
            return false;
        }
        if (q_.empty() || is_named_) {
            return true;
        }
        definition_pointer what = definitions_.of(looked_at_, test, error_);
        return test_has_text(test.type, test.number, what.get(), q_);
    }

    result_reader& store_;
    const api_request& asked_;
    const chosen types_, states_;
    const std::string q_;
    const size_t limit_;
    const int64_t agent_;
    in_group group_;
    bool goes_on_ = false; /* behind this test: */
    std::string account_, name_;
    int64_t type_ = 0, number_ = 0;
    definition_reader definitions_;
    int64_t looked_at_ = 0; /* the agent that is */
    agent_state now_;       /* of that */
    bool is_named_ = false;
    std::vector<found> agents_;
    std::vector<row> page_;
    std::string next_, error_;
};

api_answer list_tests(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    return answer_with(test_list(*store, asked, with).read());
}

api_answer one_test(const api_request& asked, api_services& with) {
    reader_pool::lent store = with.stored.lend(asked.deadline);
    known_test_row row = find_test(*store, id_in_path(asked, "test"));
    found_agent agent = find_agent(*store, std::to_string(row.agent));
    test_status test{.id = row.id, .type = row.type, .number = row.number};
    if (const test_status* known = agent.state.find(row.type, row.number)) {
        if (known->id == row.id) {
            test = *known;
        }
    }
    std::string error;
    definition_pointer what =
        definition_reader(*store).of(agent.id, test.type, test.number, test.location,
                                     test.time != 0 ? test.time : with.now(), error);
    json::object object =
        test_object(agent_reference(agent.id, agent.account, agent.name), agent.state, test,
                    what.get(), last_results(*store).of(test, error));
    if (!error.empty()) {
        check_deadline(asked);
        object.emplace("incomplete", error);
    }
    return answer_with(object);
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/tests",
     .least = role::viewer,
     .summary = "Tests of the agents that are not retired, by agent, type and number, each with "
                "its state and last result.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "tests",
     .status = 200,
     .handler = list_tests},
    {.method = "GET",
     .pattern = "/api/v1/tests/{test}",
     .least = role::viewer,
     .summary = "A test, with its state and last result.",
     .parameters = {},
     .takes = "",
     .answers = "test",
     .status = 200,
     .handler = one_test}};

} // namespace

std::span<const route> test_routes() {
    return rows;
}

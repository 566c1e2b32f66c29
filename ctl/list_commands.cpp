/* agents, tests, results, events, ledger: a list each. */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/standing.h"

namespace json = boost::json;

namespace {

/* Whether a thing in this state is what --fail fails by: a problem or a silent agent, unless
 * --state says what to look for; then all that is listed is. */
bool is_failing(const place& here, const json::object& item) {
    const std::string state = text_in(item, "state");
    return !here.said.state.empty() || state == "problem" || state == "silent";
}

/* With --fail and something to fail by. */
int judged(const place& here, int status, size_t failing) {
    return status == status_well && here.said.fail && failing > 0 ? status_wrong : status;
}

} // namespace

int run_agents(const place& here) {
    const list_def list = {"/api/v1/agents",
                           "agents",
                           {{"STATE"},
                            {.head = "SINCE", .is_right = true},
                            {.head = "AGENT", .least = 10, .keeps_end = true, .is_agent = true},
                            {.head = "ID", .is_right = true},
                            {.head = "OK", .is_right = true},
                            {.head = "PROBLEM", .is_right = true},
                            {.head = "UNKNOWN", .is_right = true},
                            {.head = "POLLED", .is_right = true},
                            {"IDENTITY"},
                            {.head = "ADDRESS", .least = 8},
                            {.head = "VERSION", .least = 4}},
                           0,
                           true};
    size_t failing = 0;
    auto row_of = [&](const json::object& agent) -> std::vector<table_cell> {
        const json::object& tests = object_in(agent, "tests");
        const bool has_problems = number_in(tests, "problem") > 0;
        return {state_cell(agent, "state"),
                {age_cell(here, agent, "since")},
                {text_cell(here, agent, "account") + "/" + text_cell(here, agent, "name")},
                {number_cell(agent, "id")},
                {number_cell(tests, "ok")},
                {number_cell(tests, "problem"), has_problems ? tint::bad : tint::none},
                {number_cell(tests, "unknown")},
                {age_cell(here, agent, "last_poll")},
                identity_cell(agent, "identity"),
                {text_cell(here, agent, "address")},
                {text_cell(here, agent, "version")}};
    };
    auto look = [&](const json::object& agent) { failing += is_failing(here, agent) ? 1 : 0; };
    int status = put_list(
        here, list, {{"state", here.said.state}, {"group", here.said.group}, {"q", here.said.q}},
        row_of, look);
    if (here.on.width != 0 && !here.said.json) {
        if (const size_t count = count_waiting(here); count > 0) {
            tell(std::to_string(count) + (count == 1 ? " name waits" : " names wait") +
                 " to be admitted: vindralctl agents waiting");
        }
    }
    return judged(here, status, failing);
}

int run_tests(const place& here) {
    const list_def list = {
        "/api/v1/tests",
        "tests",
        {{"STATE"},
         {.head = "SINCE", .is_right = true},
         {.head = "AGENT", .least = 8, .keeps_end = true, .is_agent = true, .share = 2},
         {.head = "ID", .is_right = true},
         {.head = "TYPE", .least = 7, .share = 2},
         {.head = "NAME", .least = 8, .share = 2},
         {.head = "RESULT", .least = 8, .share = 3}},
        0,
        true};
    size_t failing = 0;
    auto row_of = [&](const json::object& test) -> std::vector<table_cell> {
        return {state_cell(test, "state"),       {age_cell(here, test, "since")},
                {agent_cell(here, test)},        {number_cell(test, "id")},
                {text_cell(here, test, "type")}, {test_cell(here, test)},
                {finding_cell(here, test)}};
    };
    auto look = [&](const json::object& test) { failing += is_failing(here, test) ? 1 : 0; };
    int status = put_list(here, list,
                          {{"agent", agent_parameter(here)},
                           {"group", here.said.group},
                           {"type", here.said.type},
                           {"state", here.said.state},
                           {"q", here.said.q}},
                          row_of, look);
    return judged(here, status, failing);
}

int run_results(const place& here) {
    const found_thing test = find_test(here.with, here.said.word);
    const std::string path = "/api/v1/tests/" + std::to_string(test.id) + "/results";
    const list_def list = {path.c_str(),
                           "results",
                           {{"TIME"},
                            {"STATE"},
                            {"STATUS"},
                            {.head = "PARTS", .is_right = true},
                            {.head = "RESULT", .least = 8, .share = 3}},
                           20};
    auto row_of = [&](const json::object& result) -> std::vector<table_cell> {
        const size_t parts = list_in(result, "parts").size();
        return {{short_time_cell(here, result, "time")},
                state_cell(result, "state"),
                {text_cell(here, result, "status")},
                {parts > 0 ? std::to_string(parts) : ""},
                {finding_cell(here, result)}};
    };
    return put_list(here, list,
                    {{"from", time_parameter(here, here.said.from, "--from")},
                     {"to", time_parameter(here, here.said.to, "--to")}},
                    row_of);
}

int run_events(const place& here) {
    const list_def list = {"/api/v1/events",
                           "events",
                           {{"TIME"},
                            {"STATE"},
                            {"BEFORE"},
                            {.head = "AGENT", .least = 8, .keeps_end = true, .is_agent = true},
                            {.head = "TEST", .least = 8},
                            {.head = "MESSAGE", .least = 8, .share = 2}},
                           100};
    auto row_of = [&](const json::object& event) -> std::vector<table_cell> {
        const std::string from = text_cell(here, event, "from");
        return {{short_time_cell(here, event, "time")},
                state_cell(event, "to"),
                {from, tint_of_state(from)},
                {agent_cell(here, event)},
                {test_cell(here, object_in(event, "test"))},
                {text_cell(here, event, "message")}};
    };
    return put_list(here, list,
                    {{"agent", agent_parameter(here)},
                     {"test", test_parameter(here)},
                     {"group", here.said.group},
                     {"type", here.said.type},
                     {"state", here.said.state},
                     {"q", here.said.q},
                     {"from", time_parameter(here, here.said.from, "--from")},
                     {"to", time_parameter(here, here.said.to, "--to")}},
                    row_of);
}

int run_ledger(const place& here) {
    const list_def list = {"/api/v1/ledger",
                           "hours",
                           {{"HOUR"},
                            {.head = "AGENT", .least = 8, .keeps_end = true, .is_agent = true},
                            {.head = "EXPECTED", .is_right = true},
                            {.head = "RECEIVED", .is_right = true},
                            {.head = "REPEATED", .is_right = true},
                            {.head = "MISSING", .is_right = true}},
                           0};
    size_t failing = 0;
    auto row_of = [&](const json::object& hour) -> std::vector<table_cell> {
        const bool is_whole = number_in(hour, "missing") == 0;
        return {{short_time_cell(here, hour, "hour")},
                {agent_cell(here, hour)},
                {number_cell(hour, "expected")},
                {number_cell(hour, "received")},
                {number_cell(hour, "repeated")},
                {number_cell(hour, "missing"), is_whole ? tint::none : tint::bad}};
    };
    auto look = [&](const json::object& hour) {
        failing += number_in(hour, "missing") > 0 ? 1 : 0;
    };
    int status = put_list(here, list,
                          {{"agent", agent_parameter(here)},
                           {"from", time_parameter(here, here.said.from, "--from")},
                           {"to", time_parameter(here, here.said.to, "--to")}},
                          row_of, look);
    return judged(here, status, failing);
}

/* watch: what happens, a line each, as it happens. */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/text.h"
#include "ctl/times.h"

#include <algorithm>
#include <cstring>
#include <ctime>

namespace json = boost::json;

namespace {

constexpr size_t event_width = 8, state_width = 9, name_width = 24, short_name_width = 12;

std::string padded(std::string text, size_t width) {
    text.append(width - std::min(width, display_width(text)), ' ');
    return text;
}

/* As a list has it; on a screen the name alone of those with the account that came first. */
std::string agent_text(const place& here, const json::object& agent, std::string& account) {
    const std::string own = text_cell(here, agent, "account");
    if (account.empty()) {
        account = own;
    }
    return (here.on.width != 0 && own == account ? "" : own + "/") + text_cell(here, agent, "name");
}

/* Time and kind, state, then the rest: on a screen as much as there is room for. */
std::string fitted(const place& here, const std::string& begin, const table_cell& state,
                   std::string rest) {
    const std::string head =
        begin + tinted(padded(state.text, state_width), state.color, here.on) + " ";
    if (here.on.width != 0) {
        size_t taken = display_width(begin) + std::max(state_width, display_width(state.text)) + 1;
        rest = shortened(rest, here.on.width - std::min(here.on.width, taken), here.on.cut_mark());
    }
    rest.erase(rest.find_last_not_of(' ') + 1);
    return head + rest + "\n";
}

/* "2026-05-01 14:00:00  change  confirmed  a@b/web-1  root disk  change, revision 7" */
std::string line_of_change(const place& here, const json::object& what, std::string& account) {
    const std::string outcome = text_cell(here, what, "outcome");
    const std::string test = text_cell(here, what, "test");
    const std::string reason = text_cell(here, what, "reason");
    const size_t names = here.on.width != 0 ? short_name_width : name_width;
    std::string rest = padded(agent_text(here, object_in(what, "agent"), account), names) + "  " +
                       (test.empty() ? "" : padded(test, names) + "  ") +
                       text_cell(here, what, "action") + ", revision " +
                       number_cell(what, "revision") + (reason.empty() ? "" : "; ") + reason;
    return fitted(here,
                  short_time_cell(here, what, "settled") + "  " + padded("change", event_width),
                  {outcome, tint_of_outcome(outcome)}, std::move(rest));
}

/* "2026-05-01 14:00:00  result  ok       a@b/web-1  root disk  free 12 GB", on a screen without the
 * day. `account`: see agent_text(). */
std::string line_of(const place& here, const std::string& event, const json::object& what,
                    std::string& account) {
    if (event == "change") {
        return line_of_change(here, what, account);
    }
    const bool is_agent = event == "agent", is_event = event == "event";
    std::string time =
        is_agent ? local_time(here.now).substr(here.on.width != 0 ? strlen("2026-05-01 ") : 0)
                 : short_time_cell(here, what, "time");
    table_cell state = state_cell(what, is_event ? "to" : "state");
    std::string agent = agent_text(here, is_agent ? what : object_in(what, "agent"), account);
    std::string test = test_cell(here, object_in(what, "test"));
    std::string rest;
    if (is_agent && what.contains("retired")) {
        rest = "retired";
    } else if (is_agent) {
        const json::object& tests = object_in(what, "tests");
        rest = number_cell(tests, "ok") + " ok, " + number_cell(tests, "problem") + " problem, " +
               number_cell(tests, "unknown") + " unknown";
    } else {
        rest = is_event ? "was " + text_cell(here, what, "from") : finding_cell(here, what);
        std::string message = is_event ? text_cell(here, what, "message") : "";
        rest += (message.empty() ? "" : "; ") + message;
    }
    const size_t names = here.on.width != 0 ? short_name_width : name_width;
    std::string tail = padded(agent, names) + "  ";
    tail += is_agent || test.empty() ? "" : padded(test, names) + "  ";
    tail += rest;
    return fitted(here, time + "  " + padded(printable(event, true), event_width), state,
                  std::move(tail));
}

} // namespace

int run_watch(const place& here) {
    std::string account;                                               /* of the first message */
    int64_t left = here.said.limit == not_given ? 0 : here.said.limit; /* 0: until it is ended */
    auto take = [&](const sse_message& message) {
        if (message.event == "lost") {
            tell("some messages were lost: they came faster than they could be read, or the "
                 "collector was started anew");
            return true;
        }
        boost::system::error_code error;
        json::value what = json::parse(message.data, error);
        if (error || !what.is_object()) {
            throw failure{status_unreached, "a message of the stream is no JSON object"};
        }
        if (here.said.json) {
            put(json_text(json::object{
                    {"event", message.event}, {"id", message.id}, {"data", std::move(what)}}) +
                "\n");
        } else {
            const place now{here.said, here.with, here.on, time(nullptr)};
            put(line_of(now, message.event, what.get_object(), account));
        }
        return left == 0 || --left > 0;
    };
    here.with.listen({{"kind", here.said.kind},
                      {"agent", agent_parameter(here)},
                      {"test", test_parameter(here)}},
                     take, [](const std::string& note) { tell(note); });
    return status_well;
}

/* One agent: what is known of it, retiring it, having it do its tests now. And the version. */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/standing.h"
#include "ctl/text.h"

namespace json = boost::json;

namespace {

/* Inventories can be long: on a screen this many lines of each; --json has all. */
constexpr size_t inventory_lines = 3;

/* What is wrong with it, the newest first; nothing of one that is well. */
void put_failing(const place& here, int64_t id) {
    table rows({{"PROBLEM"},
                {.head = "SINCE", .is_right = true},
                {.head = "ID", .is_right = true},
                {.head = "TYPE", .least = 7, .share = 2},
                {.head = "NAME", .least = 8, .share = 2},
                {.head = "RESULT", .least = 8, .share = 3}});
    here.with.list("/api/v1/tests", {{"agent", std::to_string(id)}, {"state", "problem"}}, 0,
                   [&](const json::object& test) {
                       rows.add({{text_cell(here, test, "status"), tint::bad},
                                 {age_cell(here, test, "since")},
                                 {number_cell(test, "id")},
                                 {text_cell(here, test, "type")},
                                 {test_cell(here, test)},
                                 {finding_cell(here, test)}});
                   });
    if (!rows.is_empty()) {
        put("\n" + rows.text(here.on) + "\n");
    }
}

} // namespace

/* One that has never polled: only whether it is let in is known of it. False when that is not,
 * either. */
static bool show_name(const place& here) {
    const std::string path = "/api/v1/agents/" + percent_encoded(here.said.word) + "/enrolment";
    const std::optional<json::object> standing = here.with.find(path);
    if (!standing) {
        return false;
    }
    if (here.said.json) {
        put(json_text(*standing) + "\n");
        return true;
    }
    put_fact(here, "agent",
             text_cell(here, *standing, "account") + "/" + text_cell(here, *standing, "name"));
    put_standing(here, *standing);
    return true;
}

int run_show_agent(const place& here) {
    int64_t id = 0;
    try {
        id = find_agent(here.with, here.said.word).id;
    } catch (const failure& f) {
        if (f.status != status_absent || !show_name(here)) {
            throw;
        }
        return status_well;
    }
    const json::object agent = here.with.get("/api/v1/agents/" + std::to_string(id));
    if (here.said.json) {
        put(json_text(agent) + "\n");
        return status_well;
    }
    const json::object& tests = object_in(agent, "tests");
    const table_cell state = state_cell(agent, "state");
    put_fact(here, "agent",
             text_cell(here, agent, "account") + "/" + text_cell(here, agent, "name"));
    put_fact(here, "id", number_cell(agent, "id"));
    if (agent.contains("retired")) {
        put_fact(here, "state", "retired", tint::faint);
        put_fact(here, "retired", time_and_age(here, agent, "retired"));
    } else {
        put_fact(here, "state", state.text, state.color);
        put_fact(here, "since", time_and_age(here, agent, "since"));
    }
    std::string groups;
    for (const json::value& each : list_in(agent, "groups")) {
        if (each.is_string()) {
            groups += (groups.empty() ? "" : ", ") + std::string(each.get_string());
        }
    }
    put_fact(here, "groups", printable(groups, here.on.ascii));
    put_fact(here, "last poll", time_and_age(here, agent, "last_poll"));
    put_fact(here, "first poll", time_and_age(here, agent, "first_poll"));
    put_fact(here, "address", text_cell(here, agent, "address"));
    put_fact(here, "version", text_cell(here, agent, "version"));
    if (auto standing = here.with.find("/api/v1/agents/" + std::to_string(id) + "/enrolment")) {
        put_standing(here, *standing);
    }
    if (!agent.contains("retired")) {
        put_fact(here, "tests",
                 number_cell(tests, "ok") + " ok, " + number_cell(tests, "problem") + " problem, " +
                     number_cell(tests, "unknown") + " unknown");
        put_failing(here, id);
    }
    for (const json::key_value_pair& each : object_in(agent, "inventories")) {
        if (!each.value().is_object()) {
            continue;
        }
        std::string items;
        for (const json::value& item : list_in(each.value().get_object(), "items")) {
            if (item.is_string()) {
                items += (items.empty() ? "" : ", ") + std::string(item.get_string());
            }
        }
        put_fact(here, printable(each.key(), true), printable(items, here.on.ascii), tint::none,
                 inventory_lines);
    }
    return status_well;
}

int run_retire_agent(const place& here) {
    const found_thing agent = find_agent(here.with, here.said.word);
    here.with.ask("DELETE", "/api/v1/agents/" + std::to_string(agent.id));
    tell(agent.called + " is retired; when it polls again it begins anew");
    return status_well;
}

int run_check(const place& here) {
    const found_thing agent = find_agent(here.with, here.said.word);
    const json::object answer =
        here.with.ask("POST", "/api/v1/agents/" + std::to_string(agent.id) + "/check");
    if (here.said.json) {
        put(json_text(answer) + "\n");
    } else {
        tell(agent.called + " is told with its next poll to do all its tests");
    }
    return status_well;
}

int run_version(const place& here) {
    if (!here.said.json) { /* which is known, whatever the collector says */
        put("vindralctl " VINDRAL_VERSION "\n");
    }
    const json::object health = here.with.get("/healthz");
    const std::string version = text_in(health, "version");
    if (here.said.json) {
        put(json_text(json::object{
                {"vindralctl", VINDRAL_VERSION},
                {"collector", version.empty() ? json::value(nullptr) : json::value(version)}}) +
            "\n");
    } else {
        put(version.empty() ? "the collector runs, and tells its version to those with a token\n"
                            : "vindral-collector " + printable(version) + "\n");
    }
    return status_well;
}

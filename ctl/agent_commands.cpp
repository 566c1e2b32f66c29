/* One agent: what is known of it, retiring it, having it do its tests now. And the version. */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/text.h"

#include <algorithm>

namespace json = boost::json;

namespace {

constexpr size_t label_width = 16;

/* "label           text", broken where the screen ends. */
void put_fact(const place& here, std::string_view label, const std::string& text,
              tint color = tint::none) {
    if (text.empty()) {
        return;
    }
    const size_t room = here.on.width > label_width + 20 ? here.on.width - label_width : 4096;
    std::string head = shortened(label, label_width - 1, here.on.cut_mark());
    for (const std::string& line : wrapped(text, room)) {
        size_t blanks = label_width - std::min(label_width, display_width(head));
        put(tinted(head, tint::faint, here.on) + std::string(blanks, ' ') +
            tinted(line, color, here.on) + "\n");
        head.clear();
    }
}

/* "2026-05-01 14:00:00 (5m ago)" */
std::string time_and_age(const place& here, const json::object& of, std::string_view name) {
    std::string time = time_cell(of, name);
    return time.empty() ? "" : time + " (" + age_cell(here, of, name) + " ago)";
}

} // namespace

int run_show_agent(const place& here) {
    const int64_t id = find_agent(here.with, here.said.word).id;
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
    put_fact(here, "state", state.text, state.color);
    put_fact(here, "since", time_and_age(here, agent, "since"));
    put_fact(here, "retired", time_and_age(here, agent, "retired"));
    put_fact(here, "last poll", time_and_age(here, agent, "last_poll"));
    put_fact(here, "first poll", time_and_age(here, agent, "first_poll"));
    put_fact(here, "address", text_cell(here, agent, "address"));
    put_fact(here, "version", text_cell(here, agent, "version"));
    put_fact(here, "tests",
             number_cell(tests, "ok") + " ok, " + number_cell(tests, "problem") + " problem, " +
                 number_cell(tests, "unknown") + " unknown");
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
        put_fact(here, printable(each.key(), true), printable(items, here.on.ascii));
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

/* One test: how it stands, what it found last, and what it was told to be. */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace json = boost::json;

int run_show_test(const place& here) {
    const found_thing found = find_test(here.with, here.said.word);
    const json::object test = here.with.get("/api/v1/tests/" + std::to_string(found.id));
    if (here.said.json) {
        put(json_text(test) + "\n");
        return status_well;
    }
    const table_cell state = state_cell(test, "state");
    put_fact(here, "test", text_cell(here, test, "name"));
    put_fact(here, "looks at", text_cell(here, test, "target"));
    put_fact(here, "group", text_cell(here, test, "group"));
    put_fact(here, "agent", agent_cell(here, test));
    put_fact(here, "id", number_cell(test, "id"));
    put_fact(here, "type", text_cell(here, test, "type") + " " + number_cell(test, "number"));
    put_fact(here, "state", state.text, state.color);
    put_fact(here, "since", time_and_age(here, test, "since"));
    put_fact(here, "status", text_cell(here, test, "status"));
    put_fact(here, "message", text_cell(here, test, "message"));
    put_fact(here, "found", time_and_age(here, test, "time"));
    const char* label = "values";
    for (const json::key_value_pair& each : object_in(test, "values")) {
        if (each.value().is_object()) {
            put_fact(
                here, *label != 0 ? label : " ",
                printable(std::string(each.key()) + " " + value_text(each.value().get_object()),
                          here.on.ascii));
            label = "";
        }
    }
    std::string fields;
    for (const json::key_value_pair& each : object_in(object_in(test, "definition"), "fields")) {
        fields += fields.empty() ? "" : ", ";
        fields += std::string(each.key()) + ": " +
                  (each.value().is_string() ? std::string(each.value().get_string())
                                            : json_text(each.value()));
    }
    put_fact(here, "told to be", printable(fields, here.on.ascii));
    return status_well;
}

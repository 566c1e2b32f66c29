/* Tokens: who may ask. A new one is the only secret that is ever put down, and only by adding it.
 */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace json = boost::json;

int run_list_tokens(const place& here) {
    const list_def list = {"/api/v1/tokens",
                           "tokens",
                           {{.head = "ID", .is_right = true},
                            {"ROLE"},
                            {"KIND"},
                            {"MADE"},
                            {"ENDS"},
                            {.head = "NAME", .least = 12}},
                           0};
    auto row_of = [&](const json::object& token) -> std::vector<table_cell> {
        return {{number_cell(token, "id")},       {text_cell(here, token, "role")},
                {text_cell(here, token, "kind")}, {time_cell(token, "made")},
                {time_cell(token, "ends")},       {text_cell(here, token, "name")}};
    };
    return put_list(here, list, {}, row_of);
}

int run_add_token(const place& here) {
    if (here.said.role.empty()) {
        throw failure{status_usage, "tokens add needs --role: viewer, operator or admin"};
    }
    json::object wanted{{"name", here.said.word}, {"role", here.said.role}};
    if (!here.said.ends.empty()) {
        wanted.emplace("ends", time_parameter(here, here.said.ends, "--ends"));
    }
    const json::object token = here.with.ask("POST", "/api/v1/tokens", wanted);
    if (here.said.json) {
        put(json_text(token) + "\n");
        return status_well;
    }
    put(printable(text_in(token, "token"), true) + "\n");
    tell("the token of \"" + printable(here.said.word) + "\", " + text_cell(here, token, "role") +
         "; it is shown this once");
    return status_well;
}

int run_remove_token(const place& here) {
    const std::string& called = here.said.word;
    const std::string quoted = "\"" + printable(called) + "\"";
    int64_t named = 0, numbered = 0; /* no two tokens have one name */
    here.with.list("/api/v1/tokens", {}, 0, [&](const json::object& token) {
        const int64_t id = number_in(token, "id");
        if (text_in(token, "kind") == "token" && text_in(token, "name") == called) {
            named = id;
        } else if (is_id(called) && std::to_string(id) == called) {
            numbered = id;
        }
    });
    const int64_t id = named != 0 ? named : numbered;
    if (id == 0) {
        throw failure{status_absent, "there is no token " + quoted +
                                         "; \"vindralctl tokens list\" shows those there are"};
    }
    here.with.ask("DELETE", "/api/v1/tokens/" + std::to_string(id));
    tell("the token " + quoted + " and the sessions begun with it are removed");
    return status_well;
}

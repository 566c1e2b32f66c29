/* Secrets of tests: their values go in, and never come back. */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/secret_input.h"
#include "ctl/text.h"

#include <strings.h>
#include <unistd.h>

namespace json = boost::json;

namespace {

std::string path_of(const place& here) {
    return "/api/v1/secrets/" + percent_encoded(here.said.word);
}

std::string quoted_word(const place& here) {
    return "\"" + printable(here.said.word) + "\"";
}

std::string uses_text(int64_t used) {
    return used == 0   ? "no test uses it"
           : used == 1 ? "1 test uses it"
                       : std::to_string(used) + " tests use it";
}

} // namespace

int run_list_secrets(const place& here) {
    const list_def list = {"/api/v1/secrets",
                           "secrets",
                           {{.head = "NAME", .least = 12},
                            {"SET"},
                            {.head = "BY", .least = 8},
                            {.head = "TESTS", .is_right = true},
                            {""}},
                           0};
    auto row_of = [&](const json::object& secret) -> std::vector<table_cell> {
        const json::value* readable = secret.if_contains("readable");
        const bool is_closed = readable != nullptr && readable->is_bool() && !readable->get_bool();
        return {{text_cell(here, secret, "name")},
                {time_cell(secret, "made")},
                {text_cell(here, secret, "by")},
                {number_cell(secret, "used")},
                {is_closed ? "cannot be opened" : "", tint::bad}};
    };
    return put_list(here, list, {}, row_of);
}

int run_set_secret(const place& here) {
    secret_text value;
    read_secret(STDIN_FILENO, "the secret " + quoted_word(here), value);
    json::object body{{"value", *value}};
    const json::object kept = here.with.ask("PUT", path_of(here), body);
    json::string& copy = body["value"].get_string();
    explicit_bzero(copy.data(), copy.size());
    if (here.said.json) {
        put(json_text(kept) + "\n");
        return status_well;
    }
    tell("the secret " + quoted_word(here) + " is set; " + uses_text(number_in(kept, "used")));
    return status_well;
}

int run_remove_secret(const place& here) {
    int64_t used = 0;
    bool is_there = false;
    here.with.list("/api/v1/secrets", {}, 0, [&](const json::object& secret) {
        if (text_in(secret, "name") == here.said.word) {
            is_there = true;
            used = number_in(secret, "used");
        }
    });
    if (!is_there) {
        throw failure{status_absent, "there is no secret " + quoted_word(here) +
                                         "; \"vindralctl secret list\" shows those there are"};
    }
    here.with.ask("DELETE", path_of(here));
    tell("the secret " + quoted_word(here) + " is removed" +
         (used == 0 ? ""
                    : "; " + uses_text(used) +
                          ": these tests are sent to nobody now, and agents that have them keep "
                          "them as they are"));
    return status_well;
}

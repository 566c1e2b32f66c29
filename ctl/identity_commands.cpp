/* Who may be an agent: a token for a host, names that wait, admitting, refusing, revoking. The API
 * finds out who is meant, because a name need not have polled yet. */
#include "ctl/failure.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/lookup.h"
#include "ctl/output.h"
#include "ctl/standing.h"
#include "ctl/text.h"
#include "ctl/times.h"

namespace json = boost::json;

namespace {

/* "/api/v1/agents/me%40example.org%2Fweb-1/admit" */
std::string path_of(const place& here, const char* what) {
    const std::string& account = here.said.account;
    const std::string called = account.empty() ? here.said.word : account + "/" + here.said.word;
    return "/api/v1/agents/" + percent_encoded(called) + "/" + what;
}

std::string agent_text(const place& here, const json::object& of) {
    return text_cell(here, of, "account") + "/" + text_cell(here, of, "name");
}

/* What becomes of who has that name now, when the token is used. */
std::string consequence(const std::string& state) {
    return state == "proven"
               ? "a host goes by that name already: its certificate is of no use any more when the "
                 "new one is first used"
           : state == "revoked" ? "that name is revoked: it is let in again when this is used"
           : state == "waiting"
               ? "a host waits under that name: if it is the right one, \"vindralctl agents "
                 "admit\" lets it in without this"
               : "";
}

/* A collector that listens nowhere else, as it does without --listen. */
bool is_loopback(std::string_view url) {
    return url.starts_with("https://127.") || url.starts_with("https://localhost:") ||
           url.starts_with("https://[::1]");
}

} // namespace

int run_enrol(const place& here) {
    const json::object made = here.with.ask("POST", path_of(here, "enrolment"));
    if (here.said.json) {
        put(json_text(made) + "\n");
        return status_well;
    }
    if (!here.said.quiet) {
        tell("type this on the host that is to be " + agent_text(here, made) + ", as root, until " +
             time_cell(made, "ends") + "; it works once, and is shown this once:");
    }
    put(printable(text_in(made, "command"), true) + "\n");
    const std::string more = consequence(text_in(made, "state"));
    if (!here.said.quiet && !more.empty()) {
        tell(more);
    }
    if (!here.said.quiet && is_loopback(text_in(made, "url"))) {
        tell("no other host reaches that address: start the collector with --listen, then make "
             "another token");
    }
    return status_well;
}

int run_revoke(const place& here) {
    here.with.ask("DELETE", path_of(here, "enrolment"));
    tell(printable(here.said.word) + " is revoked: from its next poll on it is not let in. What it "
                                     "reported stays; \"vindralctl agents retire\" takes it off "
                                     "the lists");
    return status_well;
}

int run_list_waiting(const place& here) {
    const list_def list = {"/api/v1/enrolments",
                           "names that wait",
                           {{.head = "WAITS", .is_right = true},
                            {.head = "AGENT", .least = 10, .keeps_end = true, .is_agent = true},
                            {.head = "ADDRESS", .least = 8},
                            {.head = "ASKED", .is_right = true},
                            {"KEY"}},
                           0,
                           false,
                           "no names wait"};
    auto row_of = [&](const json::object& item) -> std::vector<table_cell> {
        const json::object& waiting = object_in(item, "waiting");
        return {{age_cell(here, waiting, "since")},
                {agent_text(here, item)},
                {text_cell(here, waiting, "address")},
                {age_cell(here, waiting, "last")},
                {waiting_key(here, waiting)}};
    };
    return put_list(here, list, {{"state", "waiting"}}, row_of);
}

int run_admit(const place& here) {
    json::object which;
    if (!here.said.key.empty()) {
        which.emplace("key", here.said.key);
    }
    const json::object standing = here.with.ask("POST", path_of(here, "admit"), which);
    if (here.said.json) {
        put(json_text(standing) + "\n");
    } else {
        tell(agent_text(here, standing) + " is admitted" +
             (standing.contains("needs_certificate")
                  ? "; it polls once it has its certificate: run vindral-enrol there, or with a "
                    "token of \"vindralctl enrol\""
                  : ""));
    }
    return status_well;
}

int run_refuse(const place& here) {
    here.with.ask("POST", path_of(here, "refuse"));
    tell(printable(here.said.word) + " is refused, and waits no more");
    return status_well;
}

#include "ctl/commands.h"

#include "ctl/handlers.h"

namespace {

/* ---- options ---- */

const option_def url = {.name = "--url",
                        .value = "URL",
                        .help = "VINDRAL_URL, else http://127.0.0.1:8080",
                        .text = &given::url};
const option_def token = {.name = "--token",
                          .value = "TOKEN",
                          .help = "who asks; better VINDRAL_TOKEN or --token-file",
                          .text = &given::token};
const option_def token_file = {.name = "--token-file",
                               .value = "FILE",
                               .help = "the token is the first line of FILE",
                               .text = &given::token_file};
const option_def ca = {.name = "--ca",
                       .value = "FILE",
                       .help = "trust the authorities in FILE (PEM) alone",
                       .text = &given::ca};
const option_def as_json = {.name = "--json",
                            .value = nullptr,
                            .help = "JSON as the API answered; lists: an item a line",
                            .flag = &given::json};
const option_def ascii = {.name = "--ascii",
                          .value = nullptr,
                          .help = "nothing but ASCII, also where the locale has more",
                          .flag = &given::ascii};
const option_def no_color = {.name = "--no-color",
                             .value = nullptr,
                             .help = "no colours, also on a terminal; as NO_COLOR",
                             .flag = &given::no_color};

const option_def agent = {.name = "--agent",
                          .value = "AGENT",
                          .help = "only of this agent: its id, account/name or name",
                          .text = &given::agent};
const option_def test = {.name = "--test",
                         .value = "TEST",
                         .help = "only of this test: its id or AGENT:NAME",
                         .text = &given::test};
const option_def type = {.name = "--type",
                         .value = "TYPE",
                         .help = "only tests of these types, with commas between",
                         .text = &given::type,
                         .choices = "network|discovery|process|cpu|disk|memory|ping|http|snmp|"
                                    "load average|snmp table|mysql"};
const option_def agent_state = {.name = "--state",
                                .value = "STATE",
                                .help = "only in these states, with commas between",
                                .text = &given::state,
                                .choices = "ok|problem|unknown|stale|silent"};
const option_def test_state = {.name = "--state",
                               .value = "STATE",
                               .help = "only in these states, with commas between",
                               .text = &given::state,
                               .choices = "ok|problem|unknown|stale"};
const option_def q = {.name = "--q",
                      .value = "TEXT",
                      .help = "only with this text in their names",
                      .text = &given::q};
const option_def event_q = {.name = "--q",
                            .value = "TEXT",
                            .help = "only with this text in message or names",
                            .text = &given::q};
const option_def from = {
    .name = "--from", .value = "TIME", .help = "from this time on", .text = &given::from};
const option_def to = {
    .name = "--to", .value = "TIME", .help = "before this time", .text = &given::to};
constexpr int64_t most_limit = 1000000000;
const option_def limit_all = {.name = "--limit",
                              .value = "N",
                              .help = "N of them at the most; all by default",
                              .number = &given::limit,
                              .least = 0,
                              .most = most_limit};
const option_def limit_20 = {.name = "--limit",
                             .value = "N",
                             .help = "N of them at the most, 0 for all; 20 by default",
                             .number = &given::limit,
                             .least = 0,
                             .most = most_limit};
const option_def limit_100 = {.name = "--limit",
                              .value = "N",
                              .help = "N of them at the most, 0 for all; 100 by default",
                              .number = &given::limit,
                              .least = 0,
                              .most = most_limit};
const option_def limit_watch = {.name = "--limit",
                                .value = "N",
                                .help = "end after N messages",
                                .number = &given::limit,
                                .least = 0,
                                .most = most_limit};
const option_def fail = {.name = "--fail",
                         .value = nullptr,
                         .help = "status 1 if a problem or a silent one is listed",
                         .flag = &given::fail};
const option_def fail_missing = {.name = "--fail",
                                 .value = nullptr,
                                 .help = "status 1 when any result is missing",
                                 .flag = &given::fail};
const option_def points = {.name = "--points",
                           .value = "N",
                           .help = "about N points, or fewer; by the width by default",
                           .number = &given::points,
                           .least = 1,
                           .most = most_limit};
const option_def rate = {.name = "--rate",
                         .value = nullptr,
                         .help = "counters: how much a second",
                         .flag = &given::rate};
const option_def value = {.name = "--value",
                          .value = "NAME",
                          .help = "plot this value; may be repeated; all by default",
                          .texts = &given::values};
const option_def height = {.name = "--height",
                           .value = "ROWS",
                           .help = "rows of each plot; 12 by default, 6 of several",
                           .number = &given::height,
                           .least = 2,
                           .most = 100};
const option_def kind = {.name = "--kind",
                         .value = "KIND",
                         .help = "only messages of these kinds, with commas between",
                         .text = &given::kind,
                         .choices = "result|event|agent|change"};
const option_def role = {.name = "--role",
                         .value = "ROLE",
                         .help = "what it may: viewer, operator or admin",
                         .text = &given::role,
                         .choices = "viewer|operator|admin"};
const option_def ends = {.name = "--ends",
                         .value = "TIME",
                         .help = "when it ends; never by default",
                         .text = &given::ends};

const option_def account = {.name = "--account",
                            .value = "EMAIL",
                            .help = "under which it logs in; left out where there is one",
                            .text = &given::account};
const option_def quiet = {
    .name = "--quiet", .value = nullptr, .help = "nothing but the command", .flag = &given::quiet};
const option_def key = {.name = "--key",
                        .value = "SHA256:...",
                        .help = "only the host with this key, as it says itself",
                        .text = &given::key};

const option_def in_group = {.name = "--group",
                             .value = "GROUP",
                             .help = "only of agents that are in this group now",
                             .text = &given::group};
const option_def group = {.name = "--group",
                          .value = "GROUP",
                          .help = "only those that are in this group",
                          .text = &given::group};
const option_def name_of_test = {.name = "--test",
                                 .value = "NAME",
                                 .help = "only of the tests of this name",
                                 .text = &given::test};
const option_def outcome = {.name = "--outcome",
                            .value = "OUTCOME",
                            .help = "only of these outcomes, with commas between",
                            .text = &given::outcome,
                            .choices = "sent|confirmed|unanswered|impossible"};
constexpr int64_t most_revision = 2147483647;
const option_def of_revision = {.name = "--revision",
                                .value = "N",
                                .help = "only of this revision",
                                .number = &given::revision,
                                .least = 1,
                                .most = most_revision};
const option_def revision = {.name = "--revision",
                             .value = "N",
                             .help = "the text that was in force with this revision",
                             .number = &given::revision,
                             .least = 1,
                             .most = most_revision};
const option_def open_only = {.name = "--open",
                              .value = nullptr,
                              .help = "only what is still to be, or cannot be",
                              .flag = &given::open};
const option_def yes = {.name = "--yes",
                        .value = nullptr,
                        .help = "do not ask, also on a terminal",
                        .flag = &given::yes};
const option_def wait_for = {.name = "--wait",
                             .value = "SECONDS",
                             .help = "wait so long for the agents' confirmation",
                             .number = &given::wait,
                             .least = 0,
                             .most = 86400};
const option_def all = {.name = "--all",
                        .value = nullptr,
                        .help = "also what the collector did by itself",
                        .flag = &given::all};
const option_def fail_open = {.name = "--fail",
                              .value = nullptr,
                              .help = "status 1 if a change is not confirmed",
                              .flag = &given::fail};

const option_def* const of_all[] = {&url, &token, &token_file, &ca, &as_json, &ascii, &no_color};

const option_def* const of_agents[] = {&agent_state, &group, &q, &limit_all, &fail};
const option_def* const of_tests[] = {&agent, &in_group, &test_state, &type, &q, &limit_all, &fail};
const option_def* const of_results[] = {&from, &to, &limit_20};
const option_def* const of_series[] = {&from, &to, &points, &rate, &value, &height};
const option_def* const of_events[] = {&agent,   &test, &in_group, &type,     &agent_state,
                                       &event_q, &from, &to,       &limit_100};
const option_def* const of_ledger[] = {&agent, &from, &to, &limit_all, &fail_missing};
const option_def* const of_watch[] = {&kind, &agent, &test, &limit_watch};
const option_def* const of_waiting[] = {&limit_all};
const option_def* const of_admission[] = {&key};
const option_def* const of_enrolment[] = {&account, &quiet};
const option_def* const of_secrets[] = {&limit_all};
const option_def* const of_tokens[] = {&limit_all};
const option_def* const of_new_token[] = {&role, &ends};
const option_def* const of_applying[] = {&yes, &wait_for};
const option_def* const of_export[] = {&revision};
const option_def* const of_fleet_status[] = {&limit_100, &fail_open};
const option_def* const of_fleet_log[] = {&all, &limit_20};
const option_def* const of_changes[] = {
    &agent, &in_group, &name_of_test, &outcome, &of_revision, &open_only, &from, &to, &limit_100};

/* ---- commands ---- */

const command_def commands[] = {
    {.name = "agents",
     .word = nullptr,
     .help = "list the agents, what is wrong first",
     .options = of_agents,
     .run = run_agents},
    {.name = "agents show",
     .word = "AGENT",
     .help = "show one: state, what is wrong, inventories",
     .options = {},
     .run = run_show_agent},
    {.name = "agents retire",
     .word = "AGENT",
     .help = "retire one: it is in no list, until it polls again",
     .options = {},
     .run = run_retire_agent},
    {.name = "agents waiting",
     .word = nullptr,
     .help = "list the names that wait to be admitted",
     .options = of_waiting,
     .run = run_list_waiting},
    {.name = "agents admit",
     .word = "AGENT",
     .help = "admit a name that waits, or polls already",
     .options = of_admission,
     .run = run_admit},
    {.name = "agents refuse",
     .word = "AGENT",
     .help = "refuse a name that waits",
     .options = {},
     .run = run_refuse},
    {.name = "tests",
     .word = nullptr,
     .help = "list the tests, what is wrong first",
     .options = of_tests,
     .run = run_tests},
    {.name = "tests show",
     .word = "TEST",
     .help = "show one: its state, last result and definition",
     .options = {},
     .run = run_show_test},
    {.name = "results",
     .word = "TEST",
     .help = "list the results of a test, newest first",
     .options = of_results,
     .run = run_results},
    {.name = "series",
     .word = "TEST",
     .help = "plot the values of a test, of a day by default",
     .options = of_series,
     .run = run_series},
    {.name = "events",
     .word = nullptr,
     .help = "list the changes of state, newest first",
     .options = of_events,
     .run = run_events},
    {.name = "ledger",
     .word = nullptr,
     .help = "list how many results came, and are missing",
     .options = of_ledger,
     .run = run_ledger},
    {.name = "watch",
     .word = nullptr,
     .help = "print what happens as it happens",
     .options = of_watch,
     .run = run_watch},
    {.name = "check",
     .word = "AGENT",
     .help = "have an agent do all its tests now",
     .options = {},
     .run = run_check},
    {.name = "enrol",
     .word = "NAME",
     .help = "print what makes a host an agent, typed there",
     .options = of_enrolment,
     .run = run_enrol},
    {.name = "revoke",
     .word = "AGENT",
     .help = "let a name in no more: its certificates are void",
     .options = {},
     .run = run_revoke},
    {.name = "tokens",
     .word = nullptr,
     .help = "list the tokens, and who is signed in; for admins",
     .options = of_tokens,
     .run = run_list_tokens},
    {.name = "tokens list",
     .word = nullptr,
     .help = "the same",
     .options = of_tokens,
     .run = run_list_tokens},
    {.name = "tokens add",
     .word = "NAME",
     .help = "make one, and print it: this once",
     .options = of_new_token,
     .run = run_add_token},
    {.name = "tokens remove",
     .word = "NAME",
     .help = "remove one by name or id, with its sessions",
     .options = {},
     .run = run_remove_token},
    {.name = "secret",
     .word = nullptr,
     .help = "list the secrets of tests; for admins",
     .options = of_secrets,
     .run = run_list_secrets},
    {.name = "secret list",
     .word = nullptr,
     .help = "the same, without their values",
     .options = of_secrets,
     .run = run_list_secrets},
    {.name = "secret set",
     .word = "NAME",
     .help = "set one, read from the terminal or a pipe",
     .options = {},
     .run = run_set_secret},
    {.name = "secret remove",
     .word = "NAME",
     .help = "remove one by its name",
     .options = {},
     .run = run_remove_secret},
    {.name = "fleet",
     .word = nullptr,
     .help = "what agents are to do: the fleet file",
     .options = {},
     .run = nullptr},
    {.name = "fleet check",
     .word = "FILE",
     .help = "read a file and list its mistakes",
     .options = {},
     .run = run_check_fleet},
    {.name = "fleet diff",
     .word = "FILE",
     .help = "show what a file would change, and change nothing",
     .options = {},
     .run = run_diff_fleet},
    {.name = "fleet apply",
     .word = "FILE",
     .help = "show what a file changes, and apply it",
     .options = of_applying,
     .run = run_apply_fleet},
    {.name = "fleet rollback",
     .word = "[REVISION]",
     .help = "apply an older text again",
     .options = of_applying,
     .run = run_roll_back_fleet},
    {.name = "fleet export",
     .word = nullptr,
     .help = "print the text in force, as it was written",
     .options = of_export,
     .run = run_export_fleet},
    {.name = "fleet status",
     .word = nullptr,
     .help = "show what is in force and what is not confirmed",
     .options = of_fleet_status,
     .run = run_fleet_status},
    {.name = "fleet log",
     .word = nullptr,
     .help = "list what was applied, newest first",
     .options = of_fleet_log,
     .run = run_fleet_log},
    {.name = "fleet schema",
     .word = nullptr,
     .help = "print the JSON Schema of fleet files, for editors",
     .options = {},
     .run = run_fleet_schema},
    {.name = "changes",
     .word = nullptr,
     .help = "list the changes of tests and what became of them",
     .options = of_changes,
     .run = run_changes},
    {.name = "version",
     .word = nullptr,
     .help = "print this program's version and the collector's",
     .options = {},
     .run = run_version},
};

} // namespace

std::span<const command_def> all_commands() {
    return commands;
}

std::span<const option_def* const> global_options() {
    return of_all;
}

/* The fleet file: checking, comparing and applying one, and what is in force. */
#include "ctl/difference.h"
#include "ctl/failure.h"
#include "ctl/fleet_input.h"
#include "ctl/handlers.h"
#include "ctl/json.h"
#include "ctl/output.h"
#include "ctl/text.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <unistd.h>

namespace json = boost::json;

namespace {

constexpr const char fleet_path[] = "/api/v1/fleet";
constexpr const char yaml[] = "application/yaml";
constexpr std::chrono::milliseconds between_looks{500};

/* ---- mistakes ---- */

/* "fleet.yaml:3:7: TEXT", a line each; nothing in them steers a terminal. */
std::string remark_lines(const place& here, const std::string& called, const json::array& all,
                         const char* kind) {
    std::string lines;
    for (const json::value& each : all) {
        if (each.is_object()) {
            const json::object& one = each.get_object();
            lines.append(called)
                .append(":")
                .append(std::to_string(number_in(one, "line")))
                .append(":")
                .append(std::to_string(number_in(one, "column")))
                .append(": ")
                .append(kind)
                .append(text_cell(here, one, "text"))
                .append("\n");
        }
    }
    return lines;
}

void tell_lines(const std::string& lines) {
    (void)fwrite(lines.data(), 1, lines.size(), stderr);
}

std::string counted(size_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/* What is to be known of a file that has no mistake. */
void tell_notes(const place& here, const std::string& called, const json::object& outcome) {
    tell_lines(remark_lines(here, called, list_in(outcome, "notes"), "note: "));
    const json::object& summary = object_in(outcome, "summary");
    if (int64_t count = number_in(summary, "agents_without"); count > 0) {
        tell(counted(static_cast<size_t>(count), "agent") +
             (count == 1 ? " is in no group" : " are in no group"));
    }
    std::string groups;
    for (const json::value& each : list_in(summary, "groups_without")) {
        if (each.is_string()) {
            groups += (groups.empty() ? "\"" : ", \"") + printable(each.get_string()) + "\"";
        }
    }
    if (!groups.empty()) {
        tell("no agent is in " + groups);
    }
}

/* ---- trying and applying ---- */

/* What a text would change; with mistakes an empty object, and they are in `wrong`. */
json::object try_text(const place& here, const fleet_input& input, json::object& wrong) {
    return here.with.put_text(fleet_path, {{"dry_run", "1"}}, input.text, yaml, wrong);
}

/* With mistakes, which are told, it ends with that status. */
json::object try_sound_text(const place& here, const fleet_input& input, int status) {
    json::object wrong;
    json::object outcome = try_text(here, input, wrong);
    if (!wrong.empty()) {
        const json::array& mistakes = list_in(wrong, "errors");
        tell_lines(remark_lines(here, input.called, mistakes, ""));
        throw failure{status, input.called + " has " + counted(mistakes.size(), "mistake") +
                                  "; nothing was changed"};
    }
    return outcome;
}

bool flag_in(const json::object& of, std::string_view name) {
    const json::value* found = of.if_contains(name);
    return found != nullptr && found->is_bool() && found->get_bool();
}

void put_difference(const place& here, const std::string& called, const json::object& outcome) {
    put(difference_text(outcome, here.on) + difference_summary(outcome) + "\n");
    tell_notes(here, called, outcome);
}

/* Whether somebody sits there who can be asked, and said yes. */
bool may_go_on(const place& here) {
    if (here.said.yes || isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
        return true;
    }
    return ask_yes_or_no(STDIN_FILENO, "Apply this? [y/N] ");
}

/* Whether any change of the revision may still be confirmed. */
bool is_pending(const place& here, const std::string& revision) {
    bool is_any = false;
    here.with.list("/api/v1/changes",
                   {{"revision", revision}, {"open", "1"}, {"outcome", "sent,unanswered"}}, 1,
                   [&](const json::object&) { is_any = true; });
    return is_any;
}

std::string change_name(const place& here, const json::object& change) {
    const std::string name = text_cell(here, change, "test"), was = text_cell(here, change, "was");
    return name.empty() ? "(intervals)" : was.empty() ? name : name + " (was " + was + ")";
}

/* Of changes that are open: what is to be seen is why. */
std::vector<table_column> open_columns() {
    return {{.head = "AGENT", .least = 8, .keeps_end = true, .is_agent = true},
            {.head = "TEST", .least = 8},
            {"ACTION"},
            {"OUTCOME"},
            {.head = "REASON", .least = 8, .share = 3}};
}

std::vector<table_cell> open_row(const place& here, const json::object& change) {
    const std::string outcome = text_cell(here, change, "outcome");
    return {{agent_cell(here, change)},
            {change_name(here, change)},
            {text_cell(here, change, "action")},
            {outcome, tint_of_outcome(outcome)},
            {text_cell(here, change, "reason")}};
}

/* Until every change of the revision is confirmed or cannot be, and no longer than `seconds`. What
 * is not is listed. */
int wait_for_agents(const place& here, int64_t revision, int64_t seconds) {
    const std::string of = std::to_string(revision);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool is_open = is_pending(here, of);
    while (is_open && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(between_looks);
        is_open = is_pending(here, of);
    }
    size_t count = 0;
    table rows(open_columns());
    here.with.list("/api/v1/changes", {{"revision", of}, {"open", "1"}}, 0,
                   [&](const json::object& change) {
                       count++;
                       rows.add(open_row(here, change));
                   });
    if (count == 0) {
        tell("every change is confirmed");
        return status_well;
    }
    put(rows.text(here.on));
    tell(counted(count, "change") + (count == 1 ? " is" : " are") + " not confirmed");
    return is_open ? status_wrong : status_well;
}

int apply_text(const place& here, const fleet_input& input) {
    const json::object trial = try_sound_text(here, input, status_wrong);
    const int64_t before = number_in(trial, "revision");
    const bool as_json = here.said.json;
    if (flag_in(trial, "same")) {
        if (as_json) {
            put(json_text(trial) + "\n");
        }
        tell(input.called + " is in force already, as revision " + std::to_string(before));
        return status_well;
    }
    if (!as_json) {
        put_difference(here, input.called, trial);
    }
    if (!may_go_on(here)) {
        throw failure{status_wrong, "nothing was changed"};
    }
    json::object wrong;
    const json::object done = here.with.put_text(fleet_path, {{"revision", std::to_string(before)}},
                                                 input.text, yaml, wrong);
    if (!wrong.empty()) { /* it was not wrong a moment ago */
        throw failure{status_wrong, printable(text_in(wrong, "detail"))};
    }
    if (as_json) {
        put(json_text(done) + "\n");
    }
    const int64_t revision = number_in(done, "revision");
    tell("revision " + std::to_string(revision) +
         " is in force; agents are told with their next "
         "polls");
    return here.said.wait == not_given ? status_well
                                       : wait_for_agents(here, revision, here.said.wait);
}

/* ---- what is in force ---- */

std::string ruler_of(const place& here, const json::object& fleet) {
    const std::string file = text_cell(here, fleet, "file");
    return flag_in(fleet, "plan") ? "a plan of raw commands (--plan): there is no fleet"
           : !file.empty()        ? "the file " + file + " (--fleet)"
                                  : "what is applied by the API";
}

std::string counts_text(const json::object& counts) {
    std::string text;
    for (const char* each : {"confirmed", "waiting", "sent", "unanswered", "impossible"}) {
        if (int64_t count = number_in(counts, each); count > 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + each;
        }
    }
    return text;
}

void put_revision(const place& here, const char* label, const json::object& one) {
    put_fact(here, label,
             number_cell(one, "revision") + " by " + text_cell(here, one, "author") + ", " +
                 time_and_age(here, one, "time"));
    put_fact(here, "about", text_cell(here, one, "about"));
}

/* What was applied last, and how far the collector went on from that by itself. */
void put_standing_of_fleet(const place& here, const json::object& fleet) {
    put_fact(here, "ruled by", ruler_of(here, fleet));
    const int64_t revision = number_in(fleet, "revision");
    if (revision == 0 && !flag_in(fleet, "plan")) {
        put_fact(here, "revision",
                 "nothing was ever applied; \"vindralctl fleet apply FILE\" does");
    }
    if (revision != 0 && revision != number_in(fleet, "text_revision")) {
        here.with.list("/api/v1/fleet/revisions", {{"applied", "1"}}, 1,
                       [&](const json::object& one) { put_revision(here, "applied", one); });
    }
    if (revision != 0) {
        put_revision(here, "revision", fleet);
    }
    put_fact(here, "trouble", text_cell(here, fleet, "trouble"), tint::bad);
    put_fact(here, "agents", number_cell(fleet, "agents"));
    put_fact(here, "tests", number_cell(fleet, "tests"));
    put_fact(here, "changes", counts_text(object_in(fleet, "changes")));
}

/* The text that was applied before the one in force. */
int64_t revision_before(const place& here) {
    std::vector<int64_t> applied;
    here.with.list("/api/v1/fleet/revisions", {{"applied", "1"}}, 2,
                   [&](const json::object& one) { applied.push_back(number_in(one, "revision")); });
    if (applied.size() < 2) {
        throw failure{status_absent, "there is no text before the one in force"};
    }
    return applied[1];
}

} // namespace

int run_check_fleet(const place& here) {
    const fleet_input input = read_fleet_input(here.said.word);
    json::object wrong;
    const json::object outcome = try_text(here, input, wrong);
    if (here.said.json) {
        put(json_text(wrong.empty() ? outcome : wrong) + "\n");
        return wrong.empty() ? status_well : status_wrong;
    }
    if (!wrong.empty()) {
        const json::array& mistakes = list_in(wrong, "errors");
        put(remark_lines(here, input.called, mistakes, ""));
        throw failure{status_wrong, input.called + " has " + counted(mistakes.size(), "mistake")};
    }
    tell_notes(here, input.called, outcome);
    tell(input.called + " has no mistake");
    return status_well;
}

/* As diff(1): 0 no difference, 1 a difference, 2 and above trouble. */
int run_diff_fleet(const place& here) {
    const fleet_input input = read_fleet_input(here.said.word);
    json::object outcome;
    try {
        outcome = try_sound_text(here, input, status_usage);
    } catch (failure& f) {
        f.status = f.status == status_wrong ? status_usage : f.status;
        throw;
    }
    if (here.said.json) {
        put(json_text(outcome) + "\n");
    } else {
        put_difference(here, input.called, outcome);
    }
    return makes_difference(outcome) ? status_wrong : status_well;
}

int run_apply_fleet(const place& here) {
    return apply_text(here, read_fleet_input(here.said.word));
}

int run_roll_back_fleet(const place& here) {
    std::string revision = here.said.word;
    if (revision.empty()) {
        revision = std::to_string(revision_before(here));
    } else if (revision.size() > 10 ||
               revision.find_first_not_of("0123456789") != std::string::npos) {
        throw failure{status_usage, "\"" + printable(revision) +
                                        "\" is no revision; \"vindralctl fleet log\" lists those "
                                        "there are"};
    }
    fleet_input input{"revision " + revision,
                      here.with.get_text(fleet_path, {{"revision", revision}}, yaml)};
    if (input.text.empty()) { /* an empty body is no file */
        input.text = "\n";
    }
    return apply_text(here, input);
}

int run_export_fleet(const place& here) {
    const std::string text =
        here.with.get_text(fleet_path, {{"revision", number_parameter(here.said.revision)}}, yaml);
    put(isatty(STDOUT_FILENO) != 0 ? printable_lines(text) : text);
    return status_well;
}

int run_fleet_schema(const place& here) {
    put(json_text(here.with.get("/api/v1/fleet/schema")) + "\n");
    return status_well;
}

int run_fleet_status(const place& here) {
    const json::object fleet = here.with.get(fleet_path);
    const json::object& counts = object_in(fleet, "changes");
    const int64_t open = number_in(counts, "waiting") + number_in(counts, "sent") +
                         number_in(counts, "unanswered") + number_in(counts, "impossible");
    const int status = here.said.fail && open > 0 ? status_wrong : status_well;
    if (here.said.json) {
        put(json_text(fleet) + "\n");
        return status;
    }
    put_standing_of_fleet(here, fleet);
    if (open == 0) {
        return status;
    }
    put("\n");
    const list_def list = {"/api/v1/changes", "changes", open_columns(), 100};
    const int listed = put_list(here, list, {{"open", "1"}},
                                [&](const json::object& one) { return open_row(here, one); });
    return std::max(status, listed);
}

int run_fleet_log(const place& here) {
    const list_def list = {"/api/v1/fleet/revisions",
                           "revisions",
                           {{.head = "REV", .is_right = true},
                            {"TIME"},
                            {.head = "BY", .least = 8},
                            {.head = "TEXT"},
                            {.head = "ABOUT", .least = 8, .share = 3}},
                           20,
                           false,
                           "nothing was ever applied"};
    auto row_of = [&](const json::object& one) -> std::vector<table_cell> {
        return {{number_cell(one, "revision")},
                {time_cell(one, "time")},
                {text_cell(here, one, "author")},
                {here.said.all ? (flag_in(one, "has_text") ? "applied" : "as before") : ""},
                {text_cell(here, one, "about")}};
    };
    return put_list(here, list, {{"applied", here.said.all ? "" : "1"}}, row_of);
}

int run_changes(const place& here) {
    std::vector<table_column> columns = open_columns();
    columns.insert(columns.begin(), {{"TIME"}, {.head = "REV", .is_right = true}});
    auto row_of = [&](const json::object& one) {
        std::vector<table_cell> row = open_row(here, one);
        row.insert(row.begin(),
                   {{short_time_cell(here, one, "time")}, {number_cell(one, "revision")}});
        return row;
    };
    return put_list(here, {"/api/v1/changes", "changes", columns, 100},
                    {{"agent", agent_parameter(here)},
                     {"group", here.said.group},
                     {"test", here.said.test},
                     {"outcome", here.said.outcome},
                     {"revision", number_parameter(here.said.revision)},
                     {"open", here.said.open ? "1" : ""},
                     {"from", time_parameter(here, here.said.from, "--from")},
                     {"to", time_parameter(here, here.said.to, "--to")}},
                    row_of);
}

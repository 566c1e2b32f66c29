/* The fleet: the text in force and those before it, what a text would change, applying it. */
#include "api/accept.h"
#include "api/answer.h"
#include "api/difference.h"
#include "api/encoding.h"
#include "api/fleet_schema.h"
#include "api/json.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/turn.h"

#include <algorithm>
#include <limits>
#include <optional>

namespace json = boost::json;

namespace {

constexpr int64_t highest_revision = std::numeric_limits<int32_t>::max();
constexpr const char yaml_type[] = "application/yaml";
constexpr std::chrono::milliseconds longest_wait_for_turn{1000};

const parameter_def get_parameters[] = {
    {.name = "revision",
     .kind = parameter_kind::number,
     .text = "An older one: the text that was in force with that revision.",
     .least = 1,
     .most = highest_revision}};
const parameter_def list_parameters[] = {{.name = "applied",
                                          .kind = parameter_kind::flag,
                                          .text = "Only those with which a text was applied."},
                                         limit_parameter,
                                         next_parameter};
const parameter_def apply_parameters[] = {
    {.name = "dry_run", .kind = parameter_kind::flag, .text = "Nothing is changed."},
    {.name = "revision",
     .kind = parameter_kind::number,
     .text = "Only when nobody has applied another text since that revision; 0: when none ever "
             "was.",
     .least = 0,
     .most = highest_revision}};

/* Null: a plan of raw commands rules. */
fleet_service* ruling_fleet(const api_services& with) {
    return with.fleet != nullptr && !with.fleet->standing().is_planned ? with.fleet : nullptr;
}

/* ---- reading ---- */

/* One text, with what is known of it. */
struct fleet_text {
    int32_t revision = 0; /* 0: there is none */
    int64_t time = 0;
    std::string author = {}, about = {};
    int32_t text_revision = 0;
    std::string text = {};
    std::optional<fleet_standing> now = {}; /* of the one in force */
};

fleet_text older_text(const api_request& asked, api_services& with, int32_t revision) {
    fleet_text found;
    std::string error;
    reader_pool::lent store = with.stored.lend(asked.deadline);
    bool ok = store->read_fleet(
        revision,
        [&](const fleet_revision& row) {
            found = {row.revision,           row.time,     std::string(row.author),
                     std::string(row.about), row.revision, std::string(row.text)};
        },
        error);
    if (!ok) {
        check_deadline(asked);
        throw_unavailable("The fleet of revision " + std::to_string(revision) +
                          " cannot be read: " + error + ".");
    }
    if (found.revision == 0) {
        throw_not_found("No text was in force with revision " + std::to_string(revision) +
                        ", or it is not kept any more.");
    }
    return found;
}

fleet_text text_asked_for(const api_request& asked, api_services& with) {
    fleet_text found;
    const fleet_service* fleet = ruling_fleet(with);
    found.now = with.fleet != nullptr ? with.fleet->standing() : fleet_standing();
    found.now->is_planned = fleet == nullptr;
    const auto wanted = static_cast<int32_t>(number_or(asked, "revision", 0));
    if (wanted > found.now->revision) {
        throw_not_found("There is no revision " + std::to_string(wanted) + "; the newest is " +
                        std::to_string(found.now->revision) + ".");
    }
    if (wanted != 0 && wanted < found.now->text_revision) {
        return older_text(asked, with, wanted);
    }
    for (int tries = 0; fleet != nullptr && tries < 3; tries++) {
        found.text = fleet->text(found.text_revision);
        if (found.text_revision == found.now->text_revision) {
            break;
        }
        found.now = fleet->standing(); /* somebody applied another one in between */
    }
    found.revision = found.now->revision;
    found.time = found.now->time;
    found.author = found.now->author;
    found.about = found.now->about;
    return found;
}

/* A text may have what is nobody's business: literal passwords. */
bool may_read_text(const caller& who) {
    return who.may >= role::operates;
}

/* The file as a tree; null for what can no longer be read. */
json::value tree_of(const std::string& text) {
    json::error_code error;
    json::value tree = json::parse(fleet_as_json(text), error);
    return error ? json::value() : tree;
}

json::object json_counts_of(const fleet_standing& now) {
    return {{"waiting", now.waiting},
            {"sent", now.sent},
            {"confirmed", now.confirmed},
            {"unanswered", now.unanswered},
            {"impossible", now.impossible}};
}

json::object fleet_object(const fleet_text& what, const caller& who) {
    json::object object{{"revision", what.revision},           {"time", json_time(what.time)},
                        {"author", json_or_null(what.author)}, {"about", json_or_null(what.about)},
                        {"text_revision", what.text_revision}, {"in_force", what.now.has_value()}};
    const bool has_text = what.text_revision != 0 && may_read_text(who);
    object.emplace("text", has_text ? json::value(what.text) : json::value());
    object.emplace("content", has_text ? tree_of(what.text) : json::value());
    if (what.now) {
        object.emplace("plan", what.now->is_planned);
        object.emplace("file", json_or_null(what.now->file));
        object.emplace("read_only", what.now->is_planned || !what.now->file.empty());
        object.emplace("trouble", json_or_null(what.now->file_trouble));
        object.emplace("agents", what.now->agents);
        object.emplace("tests", what.now->tests);
        object.emplace("changes", json_counts_of(*what.now));
    }
    return object;
}

bool wants_yaml(const std::string& accept) {
    double yaml = 0;
    for (const char* type : {yaml_type, "text/yaml", "application/x-yaml"}) {
        yaml = std::max(yaml, wanted(accept, type));
    }
    return yaml > wanted(accept, "application/json");
}

api_answer get_fleet(const api_request& asked, api_services& with) {
    fleet_text found = text_asked_for(asked, with);
    if (!wants_yaml(asked.accept)) {
        return answer_with(fleet_object(found, asked.who));
    }
    if (!may_read_text(asked.who)) {
        throw problem{403, "",
                      "The text needs the role operator, and \"" + asked.who.name + "\" is " +
                          std::string(role_word(asked.who.may)) +
                          ": ask for JSON, which has the rest."};
    }
    if (found.text_revision == 0) {
        throw_not_found(found.now && found.now->is_planned
                            ? "There is no fleet: a plan of raw commands rules."
                            : "There is no fleet yet: nothing was ever applied.");
    }
    api_answer answer;
    answer.type = yaml_type;
    answer.body = std::move(found.text);
    return answer;
}

api_answer list_revisions(const api_request& asked, api_services& with) {
    const size_t limit = limit_of(asked);
    const bool only_applied = is_set(asked, "applied");
    const auto behind = place_of(asked, 1);
    const int64_t below = behind ? number_in((*behind)[0]) : highest_revision + 1;
    json::array items;
    std::string next, error;
    int32_t last = 0;
    reader_pool::lent store = with.stored.lend(asked.deadline);
    bool ok = store->for_each_fleet_revision(
        false,
        [&](const fleet_revision& row) {
            if (row.revision >= below || (only_applied && !row.has_text)) {
                return true;
            }
            if (items.size() == limit) {
                next = next_text({std::to_string(last)});
                return false;
            }
            items.push_back(json::object{{"revision", row.revision},
                                         {"time", json_time(row.time)},
                                         {"author", row.author},
                                         {"about", row.about},
                                         {"has_text", row.has_text}});
            last = row.revision;
            return true;
        },
        error);
    return answer_with(list_of(asked, std::move(items), next, ok ? "" : error));
}

api_answer get_schema(const api_request&, api_services&) {
    api_answer answer;
    answer.body = fleet_schema();
    return answer;
}

/* ---- applying ---- */

/* As it is said to people: "3 mistakes". */
std::string counted(size_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/* "applied fleet revision 7: 3 added, 1 removed" */
std::string audit_of(const fleet_outcome& done) {
    const fleet_difference& changes = done.difference;
    std::string text;
    for (const auto& [count, word] :
         {std::pair(changes.added, "added"), std::pair(changes.changed, "changed"),
          std::pair(changes.renamed, "renamed"), std::pair(changes.removed, "removed"),
          std::pair(changes.intervals, "intervals"), std::pair(changes.impossible, "impossible")}) {
        if (count > 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + word;
        }
    }
    return "applied fleet revision " + std::to_string(done.revision) + ": " +
           (text.empty() ? "no test changes" : text);
}

/* What stands against it whatever the text says. */
void check_may_apply(const fleet_service* fleet, bool is_trial, std::optional<int32_t> expected) {
    if (fleet == nullptr) {
        throw problem{409, "",
                      "A plan of raw commands rules (--plan): a collector with one has no "
                      "fleet. Start it without, or with --fleet FILE."};
    }
    const fleet_standing now = fleet->standing();
    if (!is_trial && !now.file.empty()) {
        throw problem{409, "",
                      "The file " + now.file +
                          " rules (--fleet): change that, and the collector reads it."};
    }
    if (expected && (now.text_revision > *expected || *expected > now.revision)) {
        throw problem{409, "",
                      "The fleet is at revision " + std::to_string(now.revision) + ", and not at " +
                          std::to_string(*expected) +
                          (now.text_revision > *expected
                               ? ": somebody applied another text since. Look at the difference "
                                 "again."
                               : ".")};
    }
}

void check_outcome(const fleet_outcome& done) {
    if (!done.wrong.empty()) {
        problem what{422, "",
                     "The fleet file has " + counted(done.wrong.size(), "mistake") +
                         ": nothing was changed."};
        for (const remark& each : done.wrong) {
            what.errors.push_back({each.at.line, each.at.column, each.text});
        }
        throw what;
    }
    if (!done.error.empty() && done.is_conflict) {
        throw problem{409, "", done.error};
    }
    if (done.is_too_large) {
        throw problem{422, "", done.error};
    }
    if (!done.error.empty()) {
        throw_unavailable(done.error);
    }
}

fleet_outcome apply_text(const api_request& asked, fleet_service& fleet, bool is_trial,
                         std::optional<int32_t> expected) {
    static turnstile one_at_a_time; /* a text of 1 MB, read, is some hundreds of them */
    const turn mine(one_at_a_time, longest_wait_for_turn);
    if (!mine) {
        throw_unavailable("Another fleet file is being read: nothing was changed. Try again in a "
                          "few seconds.");
    }
    return is_trial ? fleet.try_out(asked.body) : fleet.apply(asked.body, asked.who.name, expected);
}

api_answer put_fleet(const api_request& asked, api_services& with) {
    const bool is_trial = is_set(asked, "dry_run");
    std::optional<int32_t> expected;
    if (asked.parameter("revision") != nullptr) {
        expected = static_cast<int32_t>(number_or(asked, "revision", 0));
    }
    if (asked.body.empty()) {
        throw_bad_request("The body is empty: it has to be the fleet file. \"version: 1\" alone is "
                          "one that has no tests.");
    }
    fleet_service* fleet = ruling_fleet(with);
    check_may_apply(fleet, is_trial, expected);
    const fleet_outcome done = apply_text(asked, *fleet, is_trial, expected);
    check_outcome(done);
    api_answer answer;
    answer.body = text_of_outcome(done, is_trial, asked, with);
    answer.audit = is_trial || done.is_same ? "" : audit_of(done);
    return answer;
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/fleet",
     .least = role::viewer,
     .summary = "The fleet: its revision, what became of its changes, and, for operators, the file "
                "in force, as text and as JSON; as it was written where Accept wants YAML.",
     .parameters = get_parameters,
     .takes = "",
     .answers = "fleet",
     .status = 200,
     .handler = get_fleet,
     .other_type = yaml_type,
     .other_answers = "text"},
    {.method = "PUT",
     .pattern = "/api/v1/fleet",
     .least = role::operates,
     .summary = "Applies a fleet file, or with `dry_run` says what it would change. Agents are "
                "told with their next polls. 422 with line and column of each mistake; 409 when "
                "somebody else was faster, or a file of the collector's rules.",
     .parameters = apply_parameters,
     .takes = "fleet_file",
     .answers = "fleet_outcome",
     .status = 200,
     .handler = put_fleet,
     .takes_type = yaml_type},
    {.method = "GET",
     .pattern = "/api/v1/fleet/revisions",
     .least = role::viewer,
     .summary = "What was applied, and what the collector went on from by itself, newest first.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "fleet_revisions",
     .status = 200,
     .handler = list_revisions},
    {.method = "GET",
     .pattern = "/api/v1/fleet/schema",
     .least = role::viewer,
     .summary = "The JSON Schema of fleet files, for editors.",
     .parameters = {},
     .takes = "",
     .answers = "fleet_schema",
     .status = 200,
     .handler = get_schema}};

} // namespace

std::span<const route> fleet_routes() {
    return rows;
}

#include "api/fleet_schema.h"

#include "api/json.h"
#include "fleet/kinds.h"
#include "fleet/node.h"

#include <algorithm>

namespace json = boost::json;

namespace {

/* ---- the schema: values ---- */

/* Of what editors and JSON may write otherwise: quoted numbers are numbers, too. */
constexpr const char whole_pattern[] = "^[0-9]{1,15}$";
constexpr const char real_pattern[] = "^[0-9]+([.][0-9]+)?$";
constexpr const char share_pattern[] = "^[0-9]+([.][0-9]+)? *%?$";
constexpr const char size_pattern[] =
    "^[0-9]+([.][0-9]+)? *([KkMmGgTt][Ii]?)?[Bb]([Yy][Tt][Ee][Ss]?)?$";
constexpr const char size_or_share_pattern[] =
    "^[0-9]+([.][0-9]+)? *(%|([KkMmGgTt][Ii]?)?[Bb]([Yy][Tt][Ee][Ss]?)?)$";
constexpr const char rate_pattern[] =
    "^[0-9]+([.][0-9]+)? *([KkMmGgTt][Ii]?[Bb]|[Bb]([Yy][Tt][Ee][Ss]?)?|[KkMmGg]?[Bb][Ii][Tt])"
    "(/s)?$";
constexpr const char time_pattern[] =
    "^[0-9]+([.][0-9]+)?( *[A-Za-z]+ *([0-9]+([.][0-9]+)? *[A-Za-z]+ *)*)?$";
constexpr const char page_pattern[] = "^https?://[^ #]+$";
constexpr const char range_pattern[] = "^[0-9.]+( *- *[0-9.]+|/[0-9]+)?$";

json::object typed(json::array types, const char* pattern = nullptr) {
    json::object schema{{"type", std::move(types)}};
    if (pattern != nullptr) {
        schema["pattern"] = pattern;
    }
    return schema;
}

/* Any text: one that looks like a number is none to the file. */
json::object any_text() {
    json::object schema = typed({"string", "number", "boolean"});
    schema["minLength"] = 1;
    return schema;
}

json::object number(const key_def& key, const char* type, const char* pattern) {
    json::object schema = typed({type, "string"}, pattern);
    schema["minimum"] = static_cast<int64_t>(key.least);
    schema["maximum"] = static_cast<int64_t>(key.most);
    return schema;
}

json::object choice(std::string_view choices) {
    json::array all;
    while (!choices.empty()) {
        const std::string_view one = choices.substr(0, choices.find('|'));
        choices.remove_prefix(std::min(one.size() + 1, choices.size()));
        all.emplace_back(one);
        if (one.size() == 1 && one[0] >= '0' && one[0] <= '9') {
            all.emplace_back(one[0] - '0');
        }
    }
    return {{"enum", std::move(all)}};
}

json::object one_or_several(const json::object& what) {
    return {{"anyOf", {what, {{"type", "array"}, {"items", what}}}}};
}

json::object limits(bool are_whole) {
    const json::object bound = typed({are_whole ? "integer" : "number", "string"},
                                     are_whole ? "^-?[0-9]{1,15}$" : real_pattern);
    const json::object both = {{"type", {"object", "null"}},
                               {"additionalProperties", false},
                               {"properties", {{"at least", bound}, {"at most", bound}}}};
    return {{"anyOf",
             {any_text(),
              {{"type", "array"}, {"items", any_text()}},
              {{"type", "object"}, {"minProperties", 1}, {"additionalProperties", both}}}}};
}

json::object value_schema(const key_def& key) {
    switch (key.form) {
    case value_form::url:
        return typed({"string"}, page_pattern);
    case value_form::addresses:
        return typed({"string"}, range_pattern);
    case value_form::whole:
        return number(key, "integer", whole_pattern);
    case value_form::percent:
        return number(key, "integer", share_pattern);
    case value_form::megabytes:
        return typed({"string"}, size_pattern);
    case value_form::gigabytes:
        return typed({"string"}, size_or_share_pattern);
    case value_form::rate:
        return typed({"string"}, rate_pattern);
    case value_form::seconds:
        return number(key, "integer", time_pattern);
    case value_form::milliseconds:
        return typed({"number", "string"}, time_pattern);
    case value_form::flag:
        return {{"enum", {true, false, "true", "false"}}};
    case value_form::choice:
        return choice(key.choices);
    case value_form::list:
        return one_or_several(any_text());
    case value_form::limits:
        return limits(false);
    case value_form::whole_limits:
        return limits(true);
    default:
        return any_text();
    }
}

json::object described(json::object schema, std::string_view help) {
    if (!help.empty()) {
        schema["description"] = help;
    }
    return schema;
}

/* ---- the schema: tests ---- */

json::object keys_schema(const test_kind& kind, bool inside) {
    json::object all;
    for (const key_def& key : kind.keys) {
        if ((kind.keys_inside && !key.beside) == inside) {
            all[key.name] = described(value_schema(key), key.help);
        }
    }
    return all;
}

json::object test_schema(const test_kind& kind) {
    json::object keys = keys_schema(kind, false);
    json::array required{kind.word};
    for (const key_def& key : kind.keys) {
        if (key.required) {
            required.emplace_back(key.name);
        }
    }
    keys[kind.word] = kind.keys_inside ? described({{"type", {"object", "null"}},
                                                    {"additionalProperties", false},
                                                    {"properties", keys_schema(kind, true)}},
                                                   kind.help)
                                       : described(value_schema(kind.value), kind.value.help);
    keys["was"] = {{"$ref", "#/$defs/name"}};
    return {{"title", std::string(kind.word)},
            {"description", kind.help},
            {"type", "object"},
            {"required", std::move(required)},
            {"additionalProperties", false},
            {"properties", std::move(keys)}};
}

/* An empty place is a map without keys. */
json::object map_of(json::object properties, json::array required = {}) {
    const json::array types =
        required.empty() ? json::array{"object", "null"} : json::array{"object"};
    return {{"type", types},
            {"required", std::move(required)},
            {"additionalProperties", false},
            {"properties", std::move(properties)}};
}

json::object each_named(json::value what) {
    return {{"type", {"object", "null"}}, {"additionalProperties", std::move(what)}};
}

json::object interval() {
    return number({.name = "",
                   .form = value_form::seconds,
                   .help = "",
                   .least = 1,
                   .most = protocol::longest_interval_s},
                  "integer", time_pattern);
}

json::object definitions() {
    json::array tests{{{"const", "off"}, {"description", "takes the test of that name away"}}};
    for (const test_kind& kind : test_kinds()) {
        tests.push_back(test_schema(kind));
    }
    json::object name = any_text();
    name["maxLength"] = 100;
    return {{"name", described(name, "of the operator's choice")},
            {"test", {{"anyOf", std::move(tests)}}},
            {"intervals",
             map_of({{"poll", described(interval(), "how often agents come; default: 60s")},
                     {"check", described(interval(), "how often they test; default: 60s")}})}};
}

json::object group_schema() {
    return {{"type", "object"},
            {"required", {"name", "agents"}},
            {"additionalProperties", false},
            {"properties",
             {{"name", {{"$ref", "#/$defs/name"}}},
              {"agents", described(one_or_several(any_text()),
                                   "patterns of names, or account/name; * stands for anything")},
              {"intervals", {{"$ref", "#/$defs/intervals"}}},
              {"tests", each_named({{"$ref", "#/$defs/test"}})}}}};
}

/* ---- the schema: who is told ---- */

json::object smtp_schema() {
    return map_of({{"server", typed({"string"})},
                   {"from", typed({"string"})},
                   {"user", any_text()},
                   {"password", any_text()}},
                  {"server", "from"});
}

json::object notify_schema() {
    json::object way = map_of({{"mail", one_or_several(typed({"string"}))},
                               {"webhook", typed({"string"})},
                               {"alertmanager", typed({"string"})}});
    way["type"] = "object";
    way["minProperties"] = 1;
    return each_named(std::move(way));
}

json::object alert_schema() {
    return map_of({{"when", one_or_several(choice("problem|silent|unknown"))},
                   {"for", interval()},
                   {"groups", one_or_several(any_text())},
                   {"notify", one_or_several(any_text())},
                   {"repeat", interval()}},
                  {"when", "notify"});
}

/* ---- a file ---- */

bool is_whole(std::string_view text) {
    text.remove_prefix(text.starts_with('-') && text != "-0" ? 1 : 0);
    return !text.empty() && text.size() < 16 && (text[0] != '0' || text.size() == 1) &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

json::value scalar(const node& from) {
    if (!from.is_quoted && (from.text == "true" || from.text == "false")) {
        return from.text == "true";
    }
    if (!from.is_quoted && is_whole(from.text)) {
        return std::stoll(from.text);
    }
    return json::value(from.text);
}

json::value tree(const node& from) { // NOLINT(misc-no-recursion): as deep as a file may be
    switch (from.is) {
    case node::kind::nothing:
        return nullptr;
    case node::kind::text:
        return scalar(from);
    case node::kind::list: {
        json::array items;
        for (const node& each : from.items) {
            items.push_back(tree(each));
        }
        return items;
    }
    default: {
        json::object members;
        for (const auto& [key, value] : from.members) {
            members.emplace(key.text, tree(value));
        }
        return members;
    }
    }
}

} // namespace

std::string fleet_schema() {
    const json::array groups{"array", "null"};
    json::object properties{
        {"version", {{"enum", {1, "1"}}}},
        {"intervals", {{"$ref", "#/$defs/intervals"}}},
        {"groups",
         {{"type", groups},
          {"items", group_schema()},
          {"description", "in order: a later one overrides a test of the same name"}}},
        {"smtp", smtp_schema()},
        {"notify", notify_schema()},
        {"alerts", each_named(alert_schema())}};
    return json_text(json::object{{"$schema", "https://json-schema.org/draft/2020-12/schema"},
                                  {"title", "Vindral fleet file"},
                                  {"type", "object"},
                                  {"required", {"version"}},
                                  {"additionalProperties", false},
                                  {"properties", std::move(properties)},
                                  {"$defs", definitions()}});
}

std::string fleet_as_json(std::string_view text) {
    node root;
    remark wrong;
    read_nodes(text, root, wrong);
    return json_text(root.is == node::kind::nothing ? json::value{{"version", 1}} : tree(root));
}

#include "api/open_api.h"

#include "api/json.h"
#include "api/schemas.h"

#include <algorithm>

#include <string>

namespace json = boost::json;

namespace {

json::value reference_to(const char* schema) {
    return json::object{{"$ref", std::string("#/components/schemas/") + schema}};
}

json::array words_of(std::string_view choices) {
    json::array words;
    while (!choices.empty()) {
        std::string_view next = choices.substr(0, choices.find('|'));
        words.push_back(json::value(next));
        choices.remove_prefix(std::min(next.size() + 1, choices.size()));
    }
    return words;
}

json::object array_of(json::object&& one) {
    return {{"type", "array"}, {"items", std::move(one)}};
}

json::object schema_of(const parameter_def& parameter) {
    switch (parameter.kind) {
    case parameter_kind::number:
        return {{"type", "integer"}, {"minimum", parameter.least}, {"maximum", parameter.most}};
    case parameter_kind::id: {
        json::object one{{"type", "integer"}, {"minimum", 1}};
        return parameter.many ? array_of(std::move(one)) : std::move(one);
    }
    case parameter_kind::time:
        return {{"type", "string"}, {"format", "date-time"}};
    case parameter_kind::choice: {
        json::object one{{"type", "string"}, {"enum", words_of(parameter.choices)}};
        return parameter.many ? array_of(std::move(one)) : std::move(one);
    }
    case parameter_kind::flag:
        return {{"type", "boolean"}};
    case parameter_kind::text:
    case parameter_kind::next:
        break;
    }
    return {{"type", "string"}};
}

json::array parameters_of(const route& row) {
    json::array all;
    std::string_view rest = row.pattern;
    for (size_t at; (at = rest.find('{')) != std::string_view::npos;) {
        size_t end = rest.find('}', at);
        std::string_view name = rest.substr(at + 1, end - at - 1);
        bool is_agent = name == "agent";
        json::object schema{{"type", is_agent ? "string" : "integer"}};
        all.push_back(json::object{
            {"name", name},
            {"in", "path"},
            {"required", true},
            {"description",
             is_agent ? "Its id, or \"account/name\", with %2F for the slash." : "Its id."},
            {"schema", std::move(schema)}});
        rest.remove_prefix(end);
    }
    for (const parameter_def& each : row.parameters) {
        json::object one{{"name", each.name},
                         {"in", "query"},
                         {"required", each.required},
                         {"description", each.text},
                         {"schema", schema_of(each)}};
        if (each.many) {
            one.emplace("style", "form");
            one.emplace("explode", false);
        }
        all.push_back(std::move(one));
    }
    return all;
}

json::object body_of(const char* schema, const char* type) {
    return {{type, json::object{{"schema", reference_to(schema)}}}};
}

const char* words_for(int status) {
    switch (status) {
    case 201:
        return "It is made.";
    case 202:
        return "It will be done.";
    case 204:
        return "It is done.";
    default:
        return "What was asked for.";
    }
}

/* "get_agents_agent": a name for whoever makes a client of this. */
std::string operation_id(const route& row) {
    std::string id;
    for (char c : row.method) {
        id += static_cast<char>(c - 'A' + 'a');
    }
    std::string_view path = row.pattern;
    path.remove_prefix(path.starts_with("/api/v1") ? 7 : 0);
    for (char c : path) {
        bool is_letter = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (is_letter) {
            id += c;
        } else if (c == '/' || c == '-' || c == '.') {
            id += '_';
        }
    }
    return id;
}

json::object security_of(const char* scheme) {
    return {{scheme, json::array()}};
}

json::object operation_of(const route& row) {
    json::object answer{{"description", words_for(row.status)}};
    if (*row.answers != '\0') {
        json::object content = body_of(row.answers, row.type);
        if (*row.other_type != '\0') {
            content.emplace(
                row.other_type,
                json::object{{"schema", reference_to(*row.other_answers != '\0' ? row.other_answers
                                                                                : row.answers)}});
        }
        answer.emplace("content", std::move(content));
    }
    if (row.session != session_change::none) {
        answer.emplace(
            "headers",
            json::object{
                {"Set-Cookie",
                 json::object{{"description",
                               row.session == session_change::begins
                                   ? "The session, which lasts 30 days, and no longer than the "
                                     "token: HttpOnly, SameSite=Strict, Path=/, Secure over TLS."
                                   : "Has the browser forget the session."},
                              {"schema", json::object{{"type", "string"}}}}}});
    }
    json::object operation{{"operationId", operation_id(row)}, {"summary", row.summary}};
    json::array parameters = parameters_of(row);
    if (!parameters.empty()) {
        operation.emplace("parameters", std::move(parameters));
    }
    if (*row.takes != '\0') {
        operation.emplace("requestBody",
                          json::object{{"required", !row.may_lack_body},
                                       {"content", body_of(row.takes, row.takes_type)}});
    }
    operation.emplace(
        "responses",
        json::object{{std::to_string(row.status), std::move(answer)},
                     {"default",
                      json::object{{"description", "What is wrong, in words."},
                                   {"content", body_of("problem", "application/problem+json")}}}});
    if (row.session == session_change::ends) { /* without one as well */
        operation.emplace("security", json::array{security_of("cookie"), json::object()});
    } else if (row.least == role::none) {
        operation.emplace("security", json::array());
    } else {
        operation.emplace("description",
                          "Needs the role " + std::string(role_word(row.least)) + ".");
    }
    return operation;
}

} // namespace

std::string describe(std::span<const route> rows, std::string_view cookie) {
    json::object paths;
    for (const route& row : rows) {
        std::string method;
        for (char c : row.method) {
            method += static_cast<char>(c - 'A' + 'a');
        }
        json::value& path = paths[row.pattern];
        if (!path.is_object()) {
            path.emplace_object();
        }
        path.get_object().emplace(method, operation_of(row));
    }
    json::object schemas;
    for (const schema_def& each : all_schemas()) {
        schemas.emplace(each.name, json::parse(each.text));
    }
    json::object token{{"type", "http"},
                       {"scheme", "bearer"},
                       {"description", "A token of `vindral-collector token add`, \"vt_...\"."}};
    json::object session{
        {"type", "apiKey"},
        {"in", "cookie"},
        {"name", cookie},
        {"description",
         "A session that POST /sign-in began. The name has the port of this address in it. What "
         "changes something needs, with the cookie, the Origin header that browsers send."}};
    return json_text(json::object{
        {"openapi", "3.1.0"},
        {"info", json::object{{"title", "Vindral collector"},
                              {"version", "1"},
                              {"description",
                               "What agents report: states, results, curves, events. Times "
                               "are RFC 3339. Lists are had page by page: ask again with "
                               "`next`. What is wrong is told as application/problem+json."}}},
        {"servers", json::array{json::object{{"url", "/"}}}},
        {"security", json::array{security_of("token"), security_of("cookie")}},
        {"paths", std::move(paths)},
        {"components",
         json::object{{"schemas", std::move(schemas)},
                      {"securitySchemes", json::object{{"token", std::move(token)},
                                                       {"cookie", std::move(session)}}}}}});
}

#include "api/request.h"

#include "api/json.h"

#include <algorithm>

namespace json = boost::json;

static const char* title_of(int status) {
    switch (status) {
    case 400:
        return "Bad request";
    case 401:
        return "Not signed in";
    case 403:
        return "Not allowed";
    case 404:
        return "Not found";
    case 405:
        return "Method not allowed";
    case 409:
        return "Conflict";
    case 422:
        return "Unprocessable content";
    case 503:
        return "Not available";
    default:
        return "Internal error";
    }
}

std::string_view role_word(role r) {
    switch (r) {
    case role::none:
        break;
    case role::viewer:
        return "viewer";
    case role::operates:
        return "operator";
    case role::admin:
        return "admin";
    }
    return "";
}

std::optional<role> role_of(std::string_view word) {
    for (role r : {role::viewer, role::operates, role::admin}) {
        if (role_word(r) == word) {
            return r;
        }
    }
    return std::nullopt;
}

const std::string* api_request::parameter(std::string_view name) const {
    auto found = std::find_if(parameters.begin(), parameters.end(),
                              [&](const auto& each) { return each.first == name; });
    return found != parameters.end() ? &found->second : nullptr;
}

api_answer answer_of(const problem& what) {
    json::object object{{"type", "about:blank"},
                        {"title", what.title.empty() ? title_of(what.status) : what.title},
                        {"status", what.status},
                        {"detail", what.detail}};
    json::array errors; /* there also when there are none, as every member of an answer is */
    for (const problem::line& each : what.errors) {
        errors.push_back(
            json::object{{"line", each.line}, {"column", each.column}, {"text", each.text}});
    }
    object.emplace("errors", std::move(errors));
    api_answer answer;
    answer.status = what.status;
    answer.type = "application/problem+json";
    answer.body = json_text(object);
    answer.audit = what.audit;
    return answer;
}

void throw_not_found(std::string detail) {
    throw problem{404, title_of(404), std::move(detail)};
}

void throw_bad_request(std::string detail) {
    throw problem{400, title_of(400), std::move(detail)};
}

void throw_unavailable(std::string detail) {
    throw problem{503, title_of(503), std::move(detail)};
}

/* Tokens: who may ask, made and removed by admins. */
#include "api/answer.h"
#include "api/encoding.h"
#include "api/parameters.h"
#include "api/resources.h"
#include "api/secrets.h"
#include "base/text.h"

#include <algorithm>

namespace json = boost::json;

namespace {

const parameter_def list_parameters[] = {limit_parameter, next_parameter};

json::object token_object(const stored_token& token) {
    return {{"id", token.id},
            {"name", token.name},
            {"role", role_word(static_cast<role>(token.role))},
            {"kind", token.kind == token_kind::session ? "session" : "token"},
            {"made", json_time(token.made)},
            {"ends", json_time(token.ends)}};
}

[[noreturn]] void throw_unkept(const std::string& error) {
    throw_unavailable("The tokens cannot be read or changed: " + error + ".");
}

/* By id. Links are not among them: they end by themselves soon. */
std::vector<stored_token> read_tokens(api_services& with) {
    std::vector<stored_token> all;
    std::string error;
    const int64_t now = with.now();
    auto take = [&](const stored_token& token) {
        if (token.kind != token_kind::link && (token.ends == 0 || token.ends > now)) {
            all.push_back(token);
        }
    };
    if (!with.kept.for_each_token(take, error)) {
        throw_unkept(error);
    }
    std::sort(all.begin(), all.end(),
              [](const stored_token& a, const stored_token& b) { return a.id < b.id; });
    return all;
}

api_answer list_tokens(const api_request& asked, api_services& with) {
    const size_t limit = limit_of(asked);
    auto behind = place_of(asked, 1);
    const int64_t after = behind ? number_in((*behind)[0]) : 0;
    json::array items;
    std::string next;
    int64_t last = 0;
    for (const stored_token& token : read_tokens(with)) {
        if (token.id <= after) {
            continue;
        }
        if (items.size() == limit) {
            next = next_text({std::to_string(last)});
            break;
        }
        items.push_back(token_object(token));
        items.back().as_object().emplace("own", token.id == asked.who.token);
        last = token.id;
    }
    return answer_with(list_of(asked, std::move(items), next, ""));
}

/* The text of a member; throws when it is something else. */
std::optional<std::string> text_in(const json::object& body, std::string_view name) {
    const json::value* value = body.if_contains(name);
    if (value == nullptr || value->is_null()) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        throw_bad_request("`" + std::string(name) + "` has to be a text.");
    }
    return std::string(value->get_string());
}

stored_token read_new_token(const api_request& asked, int64_t now) {
    json::object body = read_object(asked.body);
    for (const auto& member : body) {
        std::string_view name = member.key();
        if (name != "name" && name != "role" && name != "ends") {
            throw_bad_request("There is no member \"" + std::string(name.substr(0, 100)) +
                              "\" here; there are name, role and ends.");
        }
    }
    std::optional<std::string> name = text_in(body, "name"), may = text_in(body, "role"),
                               ends = text_in(body, "ends");
    if (!name || !is_token_name(*name)) {
        throw_bad_request("`name` has to be " + token_name_rule() + ".");
    }
    std::optional<role> r = role_of(may.value_or(""));
    if (!r) {
        throw_bad_request("`role` has to be viewer, operator or admin.");
    }
    stored_token token;
    token.name = *name;
    token.role = static_cast<uint8_t>(*r);
    token.made = now;
    if (ends) {
        std::optional<int64_t> time = read_time(*ends);
        if (!time || *time <= now) {
            throw_bad_request("`ends` has to be a time in the future such as "
                              "2030-05-01T12:00:00Z, or not there: then the token lasts until it "
                              "is removed.");
        }
        token.ends = *time;
    }
    return token;
}

api_answer add_token(const api_request& asked, api_services& with) {
    stored_token token = read_new_token(asked, with.now());
    bool is_taken = false;
    std::string error;
    std::string secret = keep_secret(with.kept, token, is_taken, error);
    if (is_taken) {
        throw problem{409, "Conflict",
                      "There is a token of the name \"" + token.name +
                          "\" already: remove it first, or choose another name."};
    }
    if (secret.empty()) {
        throw_unkept(error);
    }
    json::object object = token_object(token);
    object.emplace("token", secret);
    api_answer answer = answer_with(object, 201);
    answer.headers.emplace_back("Cache-Control", "no-store");
    answer.audit = "added token " + token.name + " with the role " +
                   std::string(role_word(static_cast<role>(token.role)));
    return answer;
}

api_answer drop_token(const api_request& asked, api_services& with) {
    const int64_t id = id_in_path(asked, "token");
    std::vector<stored_token> all = read_tokens(with);
    auto found = std::find_if(all.begin(), all.end(),
                              [&](const stored_token& token) { return token.id == id; });
    std::string error;
    bool ok = found != all.end() && with.kept.drop_token(id, error);
    if (!error.empty()) {
        throw_unkept(error);
    }
    if (!ok) {
        throw_not_found("There is no token " + std::to_string(id) + ".");
    }
    api_answer answer;
    answer.status = 204;
    answer.audit = "removed token " + found->name;
    return answer;
}

const route rows[] = {{.method = "GET",
                       .pattern = "/api/v1/tokens",
                       .least = role::admin,
                       .summary = "All tokens and the sessions of browsers, without their secrets.",
                       .parameters = list_parameters,
                       .takes = "",
                       .answers = "tokens",
                       .status = 200,
                       .handler = list_tokens},
                      {.method = "POST",
                       .pattern = "/api/v1/tokens",
                       .least = role::admin,
                       .summary = "Makes a token. Its secret is in this answer and nowhere else.",
                       .parameters = {},
                       .takes = "new_token",
                       .answers = "added_token",
                       .status = 201,
                       .handler = add_token},
                      {.method = "DELETE",
                       .pattern = "/api/v1/tokens/{id}",
                       .least = role::admin,
                       .summary = "Removes a token, and the sessions that were begun with it.",
                       .parameters = {},
                       .takes = "",
                       .answers = "",
                       .status = 204,
                       .handler = drop_token}};

} // namespace

std::span<const route> token_routes() {
    return rows;
}

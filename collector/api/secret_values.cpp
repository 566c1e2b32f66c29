/* Secrets of tests: which there are, and setting and removing them. Their values come in and never
 * go out: no answer, line of the log or ETag has one, or anything made of one. */
#include "api/answer.h"
#include "api/json.h"
#include "api/parameters.h"
#include "api/resources.h"

#include <algorithm>
#include <openssl/crypto.h>

namespace json = boost::json;

namespace {

const parameter_def list_parameters[] = {limit_parameter, next_parameter};

json::object secret_object(const known_secrets::entry& secret) {
    return {{"name", secret.name},
            {"made", json_time(secret.made)},
            {"by", secret.by},
            {"readable", secret.readable},
            {"used", secret.used}};
}

api_answer list_secrets(const api_request& asked, api_services& with) {
    const size_t limit = limit_of(asked);
    auto behind = place_of(asked, 1);
    json::array items;
    std::string next, last;
    for (const known_secrets::entry& secret : with.secrets.list()) { /* by name */
        if (behind && secret.name <= (*behind)[0]) {
            continue;
        }
        if (items.size() == limit) {
            next = next_text({last});
            break;
        }
        items.push_back(secret_object(secret));
        last = secret.name;
    }
    return answer_with(list_of(asked, std::move(items), next, ""));
}

/* A name that can be one, so that it may be said. */
const std::string& name_in_path(const api_request& asked) {
    if (!is_secret_name(asked.in_path[0])) {
        throw_bad_request("The name of a secret has to be 1 to " +
                          std::to_string(longest_secret_name) +
                          " letters, digits, '-', '_' and '.'.");
    }
    return asked.in_path[0];
}

/* What was read of a body with a value in it; overwritten when it goes. */
struct read_body {
    explicit read_body(std::string_view text) : object(read_object(text)) {}
    ~read_body() {
        for (auto& member : object) {
            if (json::string* text = member.value().if_string()) {
                OPENSSL_cleanse(text->data(), text->size());
            }
        }
    }
    read_body(const read_body&) = delete;
    read_body& operator=(const read_body&) = delete;

    json::object object;
};

api_answer set_secret(const api_request& asked, api_services& with) {
    const std::string& name = name_in_path(asked);
    const read_body body(asked.body);
    const json::value* value = body.object.if_contains("value");
    if (body.object.size() != 1 || value == nullptr || !value->is_string()) {
        throw_bad_request(R"(The body has to be {"value": "..."}.)"); /* and is not said again */
    }
    const std::string_view text = value->get_string();
    if (!is_secret_value(text)) {
        throw_bad_request("`value` has to be " + secret_value_rule() + ".");
    }
    std::string error;
    if (!with.secrets.set(name, text, asked.who.name, with.now(), error)) {
        throw_unavailable("The secret cannot be kept: " + error + ".");
    }
    std::vector<known_secrets::entry> all = with.secrets.list();
    auto kept = std::find_if(all.begin(), all.end(),
                             [&](const known_secrets::entry& each) { return each.name == name; });
    if (kept == all.end()) { /* somebody removed it again */
        throw_not_found("There is no secret " + name + ".");
    }
    api_answer answer = answer_with(secret_object(*kept));
    answer.audit = "set secret " + name;
    return answer;
}

api_answer drop_secret(const api_request& asked, api_services& with) {
    const std::string& name = name_in_path(asked);
    std::string error;
    if (!with.secrets.remove(name, error)) {
        if (!error.empty()) {
            throw_unavailable("The secret cannot be removed: " + error + ".");
        }
        throw_not_found("There is no secret " + name + ".");
    }
    api_answer answer;
    answer.status = 204;
    answer.audit = "removed secret " + name;
    return answer;
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/secrets",
     .least = role::admin,
     .summary = "The secrets that tests use, without their values.",
     .parameters = list_parameters,
     .takes = "",
     .answers = "secrets",
     .status = 200,
     .handler = list_secrets},
    {.method = "PUT",
     .pattern = "/api/v1/secrets/{name}",
     .least = role::admin,
     .summary = "Sets a secret. Agents that have tests with it get the new value with their next "
                "poll; no answer says it.",
     .parameters = {},
     .takes = "secret_value",
     .answers = "secret",
     .status = 200,
     .handler = set_secret},
    {.method = "DELETE",
     .pattern = "/api/v1/secrets/{name}",
     .least = role::admin,
     .summary = "Removes a secret. Tests with it are sent to nobody any more; agents that have "
                "them keep them as they are.",
     .parameters = {},
     .takes = "",
     .answers = "",
     .status = 204,
     .handler = drop_secret}};

} // namespace

std::span<const route> secret_value_routes() {
    return rows;
}

/* Whether the collector is there, and whether it is as it should be. */
#include "api/answer.h"
#include "api/resources.h"

namespace json = boost::json;

namespace {

/* What it is made of is nobody's business who has not signed in. */
api_answer health(const api_request& asked, api_services& with) {
    json::object object{{"status", "ok"}};
    if (asked.who.may != role::none) {
        object.emplace("version", with.version);
        object.emplace("name", asked.who.name);
        object.emplace("role", role_word(asked.who.may));
    }
    return answer_with(object);
}

/* Answered on the network's thread, as the one above: nothing here waits. */
api_answer readiness(const api_request&, api_services& with) {
    bool ready = true;
    std::vector<std::string> notes = with.readiness(ready);
    if (!ready) {
        std::string all;
        for (const std::string& each : notes) {
            all.append(all.empty() ? "" : " ").append(each);
        }
        throw_unavailable(all.empty() ? "The collector is not ready." : all);
    }
    return answer_with(
        json::object{{"status", "ready"}, {"notes", json::array(notes.begin(), notes.end())}});
}

const route rows[] = {
    {.method = "GET",
     .pattern = "/healthz",
     .least = role::none,
     .summary = "Whether the collector runs.",
     .parameters = {},
     .takes = "",
     .answers = "health",
     .status = 200,
     .handler = health},
    {.method = "GET",
     .pattern = "/readyz",
     .least = role::none,
     .summary = "Whether the collector stores results; a problem answer says why it does not.",
     .parameters = {},
     .takes = "",
     .answers = "readiness",
     .status = 200,
     .handler = readiness}};

} // namespace

std::span<const route> health_routes() {
    return rows;
}

#include "ctl/api.h"

#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/text.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace json = boost::json;

namespace {

constexpr size_t most_a_page = 1000;
constexpr std::chrono::milliseconds shortest_wait{100}, longest_wait{60000};

json::object object_of(const http_answer& answer) {
    boost::system::error_code error;
    json::value what = json::parse(answer.body, error);
    if (error || !what.is_object()) {
        throw failure{status_unreached,
                      "what answers is not the API: its answer is no JSON object"};
    }
    return std::move(what.get_object());
}

int status_of(int http_status) {
    switch (http_status) {
    case 401:
    case 403:
        return status_refused;
    case 404:
        return status_absent;
    case 408:
    case 429:
        return status_unreached;
    case 409:
        return status_wrong;
    default:
        return http_status >= 400 && http_status < 500 ? status_usage : status_unreached;
    }
}

} // namespace

failure failure_of(const http_answer& answer, bool with_token) {
    failure what{status_of(answer.status), ""};
    if (answer.type.starts_with("application/problem+json")) {
        json::object problem = object_of(answer);
        if (answer.status == 401) { /* in our words: the API's are about headers */
            what.text = with_token
                            ? "the token is not known, or has ended"
                            : "a token is needed: --token-file or VINDRAL_TOKEN gives it, and "
                              "\"vindral-collector token add NAME --role ROLE\" makes one";
            return what;
        }
        what.text = printable(text_in(problem, "detail"));
        if (what.text.empty()) {
            what.text = printable(text_in(problem, "title"));
        }
        for (const json::value& each : list_in(problem, "errors")) {
            if (each.is_object()) {
                const json::object& line = each.get_object();
                what.text += "\n  line " + std::to_string(number_in(line, "line")) + ", column " +
                             std::to_string(number_in(line, "column")) + ": " +
                             printable(text_in(line, "text"));
            }
        }
    } else {
        /* Of a proxy, or of something else altogether. */
        what.status = status_unreached;
        what.text = "what answers is not the API";
    }
    what.text += " (status " + std::to_string(answer.status) + ")";
    return what;
}

json::object api::well_answered(const http_answer& answer) const {
    if (answer.status < 200 || answer.status > 299) {
        throw failure_of(answer, with_token_);
    }
    return answer.body.empty() ? json::object() : object_of(answer);
}

json::object api::get(std::string_view path, const parameters& with) {
    return well_answered(client_.ask({.target = target_of(path, with)}));
}

std::optional<json::object> api::find(std::string_view path) {
    http_answer answer = client_.ask({.target = std::string(path)});
    if (answer.status == 404 && answer.type.starts_with("application/problem+json")) {
        return std::nullopt;
    }
    return well_answered(answer);
}

json::object api::ask(const char* method, std::string_view path, const json::object& body) {
    http_request what{.method = method, .target = std::string(path)};
    if (!body.empty()) {
        what.body = json_text(body);
    }
    return well_answered(client_.ask(what));
}

std::string api::get_text(std::string_view path, const parameters& with, const std::string& type) {
    http_answer answer = client_.ask({.target = target_of(path, with), .accept = type});
    if (answer.status < 200 || answer.status > 299) {
        throw failure_of(answer, with_token_);
    }
    if (!answer.type.starts_with(type)) {
        throw failure{status_unreached, "what answers is not the API: its answer is no " + type};
    }
    return std::move(answer.body);
}

json::object api::put_text(std::string_view path, const parameters& with, std::string text,
                           const std::string& type, json::object& wrong) {
    http_answer answer = client_.ask(
        {.method = "PUT", .target = target_of(path, with), .body = std::move(text), .type = type});
    if (answer.status == 422 && answer.type.starts_with("application/problem+json")) {
        wrong = object_of(answer);
        return {};
    }
    return well_answered(answer);
}

std::string api::list(std::string_view path, const parameters& with, size_t limit,
                      const std::function<void(const json::object&)>& take) {
    std::string next, incomplete;
    size_t count = 0;
    do {
        parameters page = with;
        size_t wanted = limit == 0 ? most_a_page : std::min(most_a_page, limit - count);
        page.emplace_back("limit", std::to_string(wanted));
        page.emplace_back("next", next);
        const json::object answer = get(path, page);
        for (const json::value& each : list_in(answer, "items")) {
            if (each.is_object() && (limit == 0 || count < limit)) {
                take(each.get_object());
                count++;
            }
        }
        if (incomplete.empty()) {
            incomplete = printable(text_in(answer, "incomplete"));
        }
        std::string behind = text_in(answer, "next");
        if (!behind.empty() && behind == next) {
            throw failure{status_unreached, "the list does not go on: the API says the same "
                                            "`next` again"};
        }
        next = std::move(behind);
    } while (!next.empty() && (limit == 0 || count < limit));
    return incomplete;
}

void api::listen(const parameters& with, const std::function<bool(const sse_message&)>& take,
                 const std::function<void(const std::string&)>& note) {
    sse_parser messages;
    const std::string target = target_of("/api/v1/stream", with);
    bool was_open = false, is_over = false, is_final = false;
    std::chrono::milliseconds wait{0};
    while (true) {
        std::string end;
        messages.begin_anew();
        auto take_bytes = [&](std::string_view bytes) {
            was_open = true;
            wait = std::chrono::milliseconds(0);
            is_final = true; /* what `take` throws ends it all */
            bool goes_on = messages.feed(bytes, take);
            is_final = messages.is_too_long();
            is_over = !goes_on && !is_final;
            return goes_on;
        };
        try {
            http_answer answer = client_.follow(
                {.target = target, .last_event_id = messages.last_id()}, take_bytes, end);
            if (is_over) {
                return;
            }
            if (messages.is_too_long()) {
                throw failure{status_unreached, "a message of the stream is too long"};
            }
            if (answer.status != 200) {
                throw failure_of(answer, with_token_);
            }
            if (end.empty()) { /* no stream's */
                throw failure{status_unreached, "what answers is not the API: it sends no stream"};
            }
            was_open = true;
        } catch (const failure& f) {
            if (!was_open || is_final || f.status != status_unreached) {
                throw;
            }
            end = f.text;
        }
        const std::chrono::milliseconds asked_for(messages.retry_ms());
        wait = wait.count() == 0 ? std::max(asked_for, shortest_wait)
                                 : std::min(wait * 2, longest_wait);
        note("the stream has ended: " + end + "; trying again");
        std::this_thread::sleep_for(wait);
    }
}

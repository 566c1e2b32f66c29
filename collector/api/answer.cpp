#include "api/answer.h"

#include "api/json.h"

#include <algorithm>

namespace json = boost::json;

[[noreturn]] static void throw_no_json(std::string_view body, size_t at, const std::string& why) {
    std::string_view before = body.substr(0, std::min(at, body.size()));
    size_t line_begin = before.rfind('\n') + 1; /* 0 when there is none */
    auto line = 1 + std::count(before.begin(), before.end(), '\n');
    throw problem{
        400,
        "Bad request",
        "The body is no JSON object: " + why + ".",
        {{static_cast<int>(line), static_cast<int>(before.size() - line_begin) + 1, why}}};
}

api_answer answer_with(const json::value& what, int status) {
    api_answer answer;
    answer.status = status;
    answer.body = json_text(what);
    return answer;
}

/* Each has a colon, and no other colon is outside of texts. */
static size_t count_members(std::string_view text) {
    size_t count = 0;
    bool is_quoted = false, is_escaped = false;
    for (char c : text) {
        if (is_escaped) {
            is_escaped = false;
        } else if (c == '"') {
            is_quoted = !is_quoted;
        } else if (is_quoted) {
            is_escaped = c == '\\';
        } else if (c == ':') {
            count++;
        }
    }
    return count;
}

static size_t count_members(const json::value& of) {
    size_t count = 0;
    if (const json::object* object = of.if_object()) {
        count = object->size();
        for (const auto& member : *object) {
            count += count_members(member.value());
        }
    } else if (const json::array* array = of.if_array()) {
        for (const json::value& each : *array) {
            count += count_members(each);
        }
    }
    return count;
}

bool has_member_twice(std::string_view text, const json::value& read) {
    return count_members(text) != count_members(read);
}

json::object read_object(std::string_view body) {
    if (body.empty()) {
        throw_no_json(body, 0, "it is empty");
    }
    json::parser parser;
    json::error_code error;
    size_t taken = parser.write_some(body.data(), body.size(), error);
    if (error == json::error::incomplete) {
        throw_no_json(body, body.size(), "it ends in the middle");
    }
    if (error) {
        throw_no_json(body, taken, error.message());
    }
    size_t more = body.find_first_not_of(" \t\r\n", taken);
    if (more != std::string_view::npos) {
        throw_no_json(body, more, "there is more behind its end");
    }
    json::value value = parser.release();
    if (!value.is_object()) {
        throw_no_json(body, 0, "it is something else");
    }
    if (has_member_twice(body, value)) {
        throw_no_json(body, 0, "a member is there twice");
    }
    return std::move(value.get_object());
}

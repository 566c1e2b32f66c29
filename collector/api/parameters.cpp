#include "api/parameters.h"

#include "api/encoding.h"
#include "base/text.h"

#include <algorithm>

namespace json = boost::json;

/* Ahead of what stands in `next`, for what comes to look otherwise one day. */
static constexpr char place_version = '1';

int64_t number_or(const api_request& asked, std::string_view name, int64_t otherwise) {
    const std::string* text = asked.parameter(name);
    return text != nullptr ? read_integer(*text).value_or(otherwise) : otherwise;
}

std::vector<int64_t> ids_of(const api_request& asked, std::string_view name) {
    std::vector<int64_t> ids;
    if (const std::string* text = asked.parameter(name); text != nullptr) {
        for_each_part(*text, ',', [&](std::string_view id) {
            ids.push_back(read_integer(id).value_or(0)); /* the table has let it through */
        });
    }
    std::ranges::sort(ids);
    return ids;
}

std::optional<int64_t> time_of(const api_request& asked, std::string_view name) {
    const std::string* text = asked.parameter(name);
    return text != nullptr ? read_time(*text) : std::nullopt;
}

void check_span(int64_t from, int64_t to) {
    if (from >= to) {
        throw_bad_request("`from` (" + time_text(from) + ") does not lie before `to` (" +
                          time_text(to) + ").");
    }
}

bool is_set(const api_request& asked, std::string_view flag) {
    const std::string* text = asked.parameter(flag);
    return text != nullptr && (*text == "1" || *text == "true");
}

std::string text_of(const api_request& asked, std::string_view name) {
    const std::string* text = asked.parameter(name);
    return text != nullptr ? *text : "";
}

chosen::chosen(const api_request& asked, std::string_view name) {
    const std::string* text = asked.parameter(name);
    if (text != nullptr && !text->empty()) {
        for_each_part(*text, ',', [&](std::string_view word) { words_.push_back(word); });
    }
}

bool chosen::has(std::string_view word) const {
    return words_.empty() || std::find(words_.begin(), words_.end(), word) != words_.end();
}

int64_t id_in_path(const api_request& asked, const char* what, size_t place) {
    const std::string& text = asked.in_path.at(place);
    std::optional<int64_t> id = read_integer(text);
    if (!id || *id <= 0) {
        throw_not_found("There is no " + std::string(what) + " \"" + text +
                        "\": what stands there has to be its id, a whole number.");
    }
    return *id;
}

size_t limit_of(const api_request& asked) {
    return static_cast<size_t>(number_or(asked, "limit", usual_limit));
}

std::string next_text(std::initializer_list<std::string> place) {
    std::string text(1, place_version);
    for (const std::string& field : place) {
        text += field;
        text += '\n'; /* which is in no name */
    }
    return base64url(text);
}

[[noreturn]] static void throw_no_place() {
    throw_bad_request(
        "`next` is not what an answer of this list said: leave it out to begin anew.");
}

std::optional<std::vector<std::string>> place_of(const api_request& asked, size_t fields) {
    const std::string* text = asked.parameter("next");
    if (text == nullptr) {
        return std::nullopt;
    }
    std::string plain = from_base64url(*text).value_or("");
    std::vector<std::string> place;
    if (!plain.empty() && plain[0] == place_version) {
        for (size_t begin = 1, end; (end = plain.find('\n', begin)) != std::string::npos;
             begin = end + 1) {
            place.push_back(plain.substr(begin, end - begin));
        }
    }
    if (place.size() != fields) {
        throw_no_place();
    }
    return place;
}

int64_t number_in(const std::string& field) {
    std::optional<int64_t> number = read_integer(field);
    if (!number) {
        throw_no_place();
    }
    return *number;
}

json::object list_of(const api_request& asked, json::array items, const std::string& next,
                     const std::string& error) {
    if (!error.empty()) {
        check_deadline(asked);
    }
    if (!error.empty() && items.empty()) {
        throw_unavailable("What is stored cannot be read: " + error + ".");
    }
    json::object list{{"items", std::move(items)}, {"next", json_or_null(next)}};
    if (!error.empty()) {
        list.emplace("incomplete", error);
    }
    return list;
}

void check_deadline(const api_request& asked) {
    if (std::chrono::steady_clock::now() > asked.deadline) {
        throw_unavailable("The request took too long and was given up: ask for less at a time, a "
                          "shorter span or a smaller limit.");
    }
}

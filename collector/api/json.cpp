#include "api/json.h"

#include "api/encoding.h"
#include "base/text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace json = boost::json;

namespace {

void append_escaped(std::string& to, unsigned code) {
    char escaped[8];
    snprintf(escaped, sizeof(escaped), "\\u%04x", code);
    to += escaped;
}

/* Of UTF-8. */
void append_characters(std::string& to, std::string_view text) {
    for (size_t i = 0; i < text.size(); i++) {
        auto c = static_cast<unsigned char>(text[i]);
        auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (c == '"' || c == '\\') {
            to += '\\';
            to += text[i];
        } else if (c == '\n') {
            to += "\\n";
        } else if (c == '\t') {
            to += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            append_escaped(to, c);
        } else if (c == 0xc2 && next < 0xa0) {
            append_escaped(to, next);
            i++;
        } else {
            to += text[i];
        }
    }
}

void append_string(std::string& to, std::string_view text) {
    to += '"';
    bool is_simple = std::all_of(text.begin(), text.end(), [](char c) {
        return c >= ' ' && c < 0x7f && c != '"' && c != '\\';
    });
    if (is_simple) {
        to += text;
    } else {
        append_characters(to, valid_utf8(text));
    }
    to += '"';
}

template <typename T>
void append_number(std::string& to, T number) {
    char text[32];
    auto [end, failure] = std::to_chars(text, text + sizeof(text), number);
    to.append(text, end);
}

void append(std::string& to, const json::value& what) {
    switch (what.kind()) {
    case json::kind::null:
        to += "null";
        break;
    case json::kind::bool_:
        to += what.get_bool() ? "true" : "false";
        break;
    case json::kind::int64:
        append_number(to, what.get_int64());
        break;
    case json::kind::uint64:
        append_number(to, what.get_uint64());
        break;
    case json::kind::double_:
        if (std::isfinite(what.get_double())) {
            append_number(to, what.get_double());
        } else {
            to += "null";
        }
        break;
    case json::kind::string:
        append_string(to, what.get_string());
        break;
    case json::kind::array: {
        char before = '[';
        for (const json::value& each : what.get_array()) {
            to += before;
            append(to, each);
            before = ',';
        }
        to += what.get_array().empty() ? "[]" : "]";
        break;
    }
    case json::kind::object: {
        char before = '{';
        for (const json::key_value_pair& each : what.get_object()) {
            to += before;
            append_string(to, each.key());
            to += ':';
            append(to, each.value());
            before = ',';
        }
        to += what.get_object().empty() ? "{}" : "}";
        break;
    }
    }
}

size_t weight_of_string(std::string_view text) {
    size_t weight = text.size() + 2;
    bool is_ascii = true;
    for (char each : text) {
        auto c = static_cast<unsigned char>(each);
        weight += c < 0x20 || c == 0x7f || c == 0xc2 ? 5 : c == '"' || c == '\\' ? 1 : 0;
        is_ascii = is_ascii && c < 0x80;
    }
    return is_ascii || valid_utf8(text) == text ? weight : weight + 2 * text.size();
}

} // namespace

size_t weight_of(const json::value& what) {
    constexpr size_t usual = 8; /* numbers and the like, and what stands between */
    size_t weight = usual;
    if (const json::string* text = what.if_string()) {
        weight += weight_of_string(*text);
    } else if (const json::array* items = what.if_array()) {
        for (const json::value& each : *items) {
            weight += weight_of(each);
        }
    } else if (const json::object* members = what.if_object()) {
        for (const json::key_value_pair& each : *members) {
            weight += weight_of_string(each.key()) + weight_of(each.value());
        }
    }
    return weight;
}

std::string json_text(const json::value& what) {
    std::string text;
    append(text, what);
    return text;
}

json::value json_time(int64_t seconds) {
    return seconds != 0 ? json::value(time_text(seconds)) : json::value(nullptr);
}

json::value json_or_null(std::string_view text) {
    return !text.empty() ? json::value(text) : json::value(nullptr);
}

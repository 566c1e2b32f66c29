#include "ctl/json.h"

#include "ctl/text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace json = boost::json;

namespace {

void append_unit(std::string& to, unsigned code) {
    char escaped[8];
    snprintf(escaped, sizeof escaped, "\\u%04x", code & 0xffff);
    to += escaped;
}

void append_character(std::string& to, std::string_view text, code_point c) {
    if (c.bytes == 0) {
        to += "\xef\xbf\xbd";
    } else if (c.value == '"' || c.value == '\\') {
        to += '\\';
        to += text[0];
    } else if (c.value == '\n') {
        to += "\\n";
    } else if (c.value == '\t') {
        to += "\\t";
    } else if (!is_unsafe(c.value)) {
        to += text.substr(0, c.bytes);
    } else if (c.value < 0x10000) {
        append_unit(to, c.value);
    } else {
        append_unit(to, 0xd800 + ((c.value - 0x10000) >> 10));
        append_unit(to, 0xdc00 + ((c.value - 0x10000) & 0x3ff));
    }
}

void append_string(std::string& to, std::string_view text) {
    to += '"';
    while (!text.empty()) {
        code_point c = decode_utf8(text);
        append_character(to, text, c);
        text.remove_prefix(std::max<size_t>(c.bytes, 1));
    }
    to += '"';
}

template <typename T>
void append_number(std::string& to, T number) {
    char text[32];
    auto [end, failed] = std::to_chars(text, text + sizeof text, number);
    to.append(text, end);
}

void append(std::string& to, const json::value& what) {
    char before;
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
        append_number(to, what.get_double());
        break;
    case json::kind::string:
        append_string(to, what.get_string());
        break;
    case json::kind::array:
        before = '[';
        for (const json::value& each : what.get_array()) {
            to += before;
            append(to, each);
            before = ',';
        }
        to += what.get_array().empty() ? "[]" : "]";
        break;
    case json::kind::object:
        before = '{';
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

} // namespace

std::string json_text(const json::value& what) {
    std::string text;
    append(text, what);
    return text;
}

std::string text_in(const json::object& of, std::string_view name) {
    const json::value* found = of.if_contains(name);
    return found != nullptr && found->is_string() ? std::string(found->get_string()) : "";
}

int64_t number_in(const json::object& of, std::string_view name) {
    const json::value* found = of.if_contains(name);
    return found != nullptr && found->is_int64() ? found->get_int64() : 0;
}

const json::object& object_in(const json::object& of, std::string_view name) {
    static const json::object nothing;
    const json::value* found = of.if_contains(name);
    return found != nullptr && found->is_object() ? found->get_object() : nothing;
}

const json::array& list_in(const json::object& of, std::string_view name) {
    static const json::array nothing;
    const json::value* found = of.if_contains(name);
    return found != nullptr && found->is_array() ? found->get_array() : nothing;
}

double real_of(const json::value& what) {
    switch (what.kind()) {
    case json::kind::int64:
        return static_cast<double>(what.get_int64());
    case json::kind::uint64:
        return static_cast<double>(what.get_uint64());
    case json::kind::double_:
        return what.get_double();
    default:
        return std::numeric_limits<double>::quiet_NaN();
    }
}

#include "ingest/request.h"

#include "base/text.h"
#include "protocol/enrolment.h"

#include <algorithm>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <charconv>
#include <optional>

namespace http = boost::beast::http;

size_t find_head(std::string_view text, size_t seen) {
    size_t end = text.find("\r\n\r\n", seen < 3 ? 0 : seen - 3);
    return end == std::string_view::npos ? 0 : end + 4;
}

/* The value of a header; nothing when it is missing. Twice is an error. */
static std::optional<std::string_view> single(const http::fields& fields, const char* name,
                                              std::string& error) {
    auto [first, last] = fields.equal_range(name);
    if (first == last) {
        return {};
    }
    if (std::next(first) != last) {
        error = std::string(name) + " is there twice";
    }
    return std::string_view(first->value().data(), first->value().size());
}

/* A number in a header; 0 when the header is missing. */
static uint64_t read_number(const http::fields& fields, const char* name, std::string& error) {
    auto value = single(fields, name, error);
    uint64_t number = 0;
    if (value) {
        const char* last = value->data() + value->size();
        auto [end, failed] = std::from_chars(value->data(), last, number);
        if (failed != std::errc() || end != last) {
            error = std::string(name) + " is not a number: " + printable(value->substr(0, 40));
        }
    }
    return number;
}

static std::string read_name(const http::fields& fields, const char* name, std::string& error) {
    std::string_view value = single(fields, name, error).value_or("");
    auto control = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
    if (value.empty() || value.size() > max_name ||
        std::any_of(value.begin(), value.end(), control)) {
        error = std::string(name) + " is empty, too long or has control characters";
    }
    return std::string(value);
}

/* No version is worth a refusal: one that cannot be one is none. */
static std::string read_version(const http::fields& fields, std::string& error) {
    std::string_view value = single(fields, "Vnd-Version", error).value_or("");
    bool fine = value.size() <= max_version && std::all_of(value.begin(), value.end(), [](char c) {
                    return c >= 0x20 && c < 0x7f;
                });
    return std::string(fine ? value : "");
}

static boost::beast::string_view target_of(std::string_view path) {
    return {path.data(), path.size()};
}

static void read_enrolment(const http::fields& fields, request& out, std::string& error) {
    const std::string token_header(protocol::token_header);
    out.token = single(fields, token_header.c_str(), error).value_or("");
    if (fields.count("Vnd-EMail")) {
        out.account = read_name(fields, "Vnd-EMail", error);
    }
    if (fields.count("Vnd-AName")) {
        out.agent = read_name(fields, "Vnd-AName", error);
    }
}

bool parse_head(std::string_view head, request& out, std::string& error) {
    http::request_parser<http::empty_body> parser;
    parser.header_limit(max_head);
    parser.body_limit(boost::none); /* the caller decides */
    boost::beast::error_code failed;
    parser.put(boost::asio::buffer(head.data(), head.size()), failed);
    if (!parser.is_header_done()) {
        error = failed ? failed.message() : "not a whole head";
        return false;
    }
    const auto& message = parser.get();
    out = {};
    error.clear();
    if (parser.chunked()) {
        error = "Transfer-Encoding is not supported";
    }
    out.content_length = read_number(message, "Content-Length", error);
    if (message.method() != http::verb::post) {
        if (message.method() == http::verb::get && message.target() == "/") {
            out.what = request::kind::page;
        } else if (message.method() == http::verb::get &&
                   message.target() == target_of(protocol::authority_path)) {
            out.what = request::kind::authority;
        }
        return error.empty();
    }
    if (auto id = single(message, "Vnd-SessionID", error)) {
        out.what = request::kind::poll;
        out.session = *id;
        out.compression = read_number(message, "Vnd-Compression", error);
        out.checksum = read_number(message, "Vnd-CheckSum", error);
    } else if (message.target() == target_of(protocol::enrol_path)) {
        out.what = request::kind::enrol;
        read_enrolment(message, out, error);
    } else if (message.count("Vnd-EMail") || message.count("Vnd-AName")) {
        out.what = request::kind::login;
        out.account = read_name(message, "Vnd-EMail", error);
        out.agent = read_name(message, "Vnd-AName", error);
    }
    if (out.what != request::kind::other) {
        out.version = read_version(message, error);
    }
    return error.empty();
}

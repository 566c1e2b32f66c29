#include "web/request_head.h"

#include "base/text.h"

#include <algorithm>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/status.hpp>
#include <charconv>

namespace http = boost::beast::http;

namespace {

std::string_view view(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

bool same(std::string_view a, std::string_view b) {
    return boost::beast::iequals({a.data(), a.size()}, {b.data(), b.size()});
}

/* The value of a header that may be there once; `often`: it is there more often. */
std::string_view single(const http::fields& fields, const char* name, bool& there, bool& often) {
    auto [first, last] = fields.equal_range(name);
    there = first != last;
    if (!there) {
        return {};
    }
    often = often || std::next(first) != last;
    return view(first->value());
}

/* "gzip", "x-gzip" or "*", but not with the weight 0. */
bool takes_gzip(const http::fields& fields) {
    bool named = false, refused = false, any = false;
    auto [first, last] = fields.equal_range(http::field::accept_encoding);
    for (; first != last; ++first) {
        for_each_part(view(first->value()), ',', [&](std::string_view part) {
            part = trimmed(part);
            size_t semicolon = part.find(';');
            std::string_view coding = trimmed(part.substr(0, semicolon));
            bool zero = false;
            if (semicolon != part.npos) {
                for_each_part(part.substr(semicolon + 1), ';', [&](std::string_view weight) {
                    weight = trimmed(weight);
                    zero = zero ||
                           (weight.size() > 2 && (weight[0] == 'q' || weight[0] == 'Q') &&
                            weight[1] == '=' && weight.find_first_not_of("0.", 2) == weight.npos);
                });
            }
            bool gzip = same(coding, "gzip") || same(coding, "x-gzip");
            named = named || (gzip && !zero);
            refused = refused || (gzip && zero);
            any = any || (coding == "*" && !zero);
        });
    }
    return named || (any && !refused);
}

std::string find_cookie(const http::fields& fields, std::string_view wanted) {
    std::string found;
    auto [first, last] = fields.equal_range(http::field::cookie);
    for (; first != last; ++first) {
        for_each_part(view(first->value()), ';', [&](std::string_view pair) {
            pair = trimmed(pair);
            size_t equals = pair.find('=');
            if (found.empty() && equals != pair.npos && pair.substr(0, equals) == wanted) {
                found = pair.substr(equals + 1);
            }
        });
    }
    return found;
}

/* "http://host/path" has the path as its target; its host has to be the one in Host. */
bool take_authority(request_head& out) {
    for (std::string_view scheme : {"http://", "https://"}) {
        if (same(std::string_view(out.target).substr(0, scheme.size()), scheme)) {
            size_t end = out.target.find_first_of("/?", scheme.size());
            std::string authority = out.target.substr(
                scheme.size(), end == std::string::npos ? end : end - scheme.size());
            std::string rest = end == std::string::npos ? "" : out.target.substr(end);
            out.target = rest.empty() || rest[0] == '?' ? "/" + rest : rest;
            return same(authority, out.host);
        }
    }
    return true;
}

std::optional<problem> read_length(const http::fields& fields, request_head& out) {
    bool there = false, often = false;
    std::string_view length = single(fields, "Content-Length", there, often);
    if (fields.count(http::field::transfer_encoding) > 0) {
        return web_problem(
            411, "Bodies are taken whole: send a Content-Length and no Transfer-Encoding.");
    }
    if (!there) {
        return {};
    }
    auto [end, failed] =
        std::from_chars(length.data(), length.data() + length.size(), out.content_length);
    if (often || failed != std::errc() || end != length.data() + length.size()) {
        return web_problem(400, "Content-Length has to be there once, and to be a number.");
    }
    return {};
}

void read_authorization(std::string_view value, request_head& out) {
    constexpr std::string_view scheme = "Bearer";
    size_t blank = value.find(' ');
    if (same(value.substr(0, blank), scheme) && blank != value.npos) {
        out.bearer = trimmed(value.substr(blank));
    }
}

std::optional<problem> read_fields(const http::fields& fields, bool tls, request_head& out) {
    bool there = false, often = false;
    out.host = single(fields, "Host", there, often);
    if (!there || often) {
        return web_problem(400, "A request needs one Host header.");
    }
    out.origin = single(fields, "Origin", out.has_origin, often);
    read_authorization(single(fields, "Authorization", out.has_authorization, often), out);
    out.if_none_match = single(fields, "If-None-Match", there, often);
    out.last_event_id = single(fields, "Last-Event-ID", there, often);
    std::string_view expects = single(fields, "Expect", there, often);
    if (often) {
        return web_problem(400,
                           "One of Host, Origin, Authorization, If-None-Match, Last-Event-ID and "
                           "Expect is there twice.");
    }
    out.expects_continue = same(expects, "100-continue");
    if (there && !out.expects_continue) {
        return web_problem(417, "Expect can only be 100-continue.");
    }
    auto [first, last] = fields.equal_range(http::field::accept);
    for (; first != last; ++first) {
        out.accept.append(out.accept.empty() ? "" : ", ").append(view(first->value()));
    }
    out.cookie = find_cookie(fields, cookie_name(tls, out.host));
    out.takes_gzip = takes_gzip(fields);
    return {};
}

} // namespace

std::string_view status_words(int status) {
    auto words = http::obsolete_reason(http::int_to_status(static_cast<unsigned>(status)));
    return {words.data(), words.size()};
}

problem web_problem(int status, std::string detail) {
    return {.status = status,
            .title = std::string(status_words(status)),
            .detail = std::move(detail),
            .errors = {}};
}

std::string cookie_name(bool tls, std::string_view host) {
    constexpr size_t longest_port = 5;
    size_t digits = 0;
    while (digits < host.size() && host[host.size() - 1 - digits] >= '0' &&
           host[host.size() - 1 - digits] <= '9') {
        digits++;
    }
    std::string_view port = host.substr(host.size() - digits);
    const bool has_port = digits > 0 && digits <= longest_port && digits < host.size() &&
                          host[host.size() - digits - 1] == ':' &&
                          (host[0] != '[' || host[host.size() - digits - 2] == ']');
    if (!has_port) {
        port = tls ? "443" : "80";
    }
    return (tls ? "__Host-vindral-" : "vindral-") + std::string(port);
}

size_t leading_blank(std::string_view text) {
    size_t end = text.find_first_not_of("\r\n");
    return end == text.npos ? text.size() : end;
}

size_t head_end(std::string_view text, size_t seen) {
    size_t end = text.find("\r\n\r\n", seen < 3 ? 0 : seen - 3);
    return end == text.npos ? 0 : end + 4;
}

std::optional<problem> read_head(std::string_view head, const web_limits& limits, bool tls,
                                 request_head& out) {
    out = {};
    if (head.size() > limits.head) {
        return too_long_a_head(head, limits);
    }
    http::request_parser<http::empty_body> parser;
    parser.header_limit(static_cast<uint32_t>(limits.head + 1));
    parser.body_limit(boost::none); /* the caller decides */
    boost::beast::error_code failed;
    parser.put(boost::asio::buffer(head.data(), head.size()), failed);
    if (failed == http::error::bad_version) {
        return web_problem(505, "This is HTTP/1.1.");
    }
    if (!parser.is_header_done()) {
        return web_problem(400, "This is no request of HTTP/1.1: " +
                                    (failed ? failed.message() : "it has no whole head") + ".");
    }
    const auto& message = parser.get();
    if (message.version() != 11 && message.version() != 10) {
        return web_problem(505, "This is HTTP/1.1.");
    }
    out.method = view(message.method_string());
    out.target = view(message.target());
    if (out.target.size() > limits.target) {
        return too_long_a_head(head, limits);
    }
    if (std::any_of(out.target.begin(), out.target.end(),
                    [](char c) { return c <= ' ' || c >= 0x7f; })) {
        return web_problem(400, "The address has bytes that have to be percent-encoded.");
    }
    if (auto bad = read_fields(message, tls, out)) {
        return bad;
    }
    if (!take_authority(out)) {
        return web_problem(400, "The address and the Host header name different hosts.");
    }
    if (!out.target.starts_with('/') && out.target != "*") {
        return web_problem(400, "The address has to begin with a slash.");
    }
    out.keep_alive = message.version() == 11 && message.keep_alive();
    return read_length(message, out);
}

problem too_long_a_head(std::string_view text, const web_limits& limits) {
    size_t line = std::min(text.find("\r\n"), text.size());
    if (line > limits.target) {
        return web_problem(414, "The address is longer than " + std::to_string(limits.target) +
                                    " bytes.");
    }
    return web_problem(431, "The head of the request is longer than " +
                                std::to_string(limits.head) + " bytes.");
}

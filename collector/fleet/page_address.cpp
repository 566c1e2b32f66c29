#include "fleet/page_address.h"

#include "fleet/addresses.h"
#include "fleet/text_check.h"
#include "plan/placeholder.h"

#include <algorithm>
#include <charconv>

namespace {

bool take_prefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

std::string take_port(std::string_view text, page_address& page) {
    if (!take_prefix(text, ":")) {
        return text.empty() ? "" : "behind a bracket only a port can follow";
    }
    int port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port < 1 || port > 65535) {
        return in_ticks(text) + " is no port: 1 to 65535";
    }
    page.port = port;
    return "";
}

/* "host", "host:8080", "[::1]:8080". */
std::string take_server(std::string_view server, page_address& page) {
    placeholder secret;
    if (find_placeholder(server, 0, secret)) {
        return "a secret cannot stand in the name of the host";
    }
    if (server.find('@') != server.npos) {
        return "a user does not stand in the address: there are `user` and `password` for that";
    }
    const size_t bracket = server.starts_with('[') ? server.find(']') : server.npos;
    const bool is_bracketed = bracket != server.npos;
    const size_t colon = server.find(':');
    page.host = server.substr(is_bracketed ? 1 : 0, is_bracketed ? bracket - 1 : colon);
    if (std::string why = why_no_host(page.host); !why.empty()) {
        return why;
    }
    server.remove_prefix(is_bracketed ? bracket + 1 : std::min(colon, server.size()));
    return take_port(server, page);
}

/* Servers know what is no ASCII by its bytes. */
std::string in_ascii(std::string_view path) {
    static constexpr std::string_view digits = "0123456789ABCDEF";
    std::string ascii;
    for (char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            ascii += c;
        } else {
            ascii.append("%").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
        }
    }
    return ascii;
}

} // namespace

std::string read_page_address(std::string_view text, page_address& page) {
    page.is_tls = text.starts_with("https://");
    page.port = page.is_tls ? 443 : 80;
    if (!take_prefix(text, "https://") && !take_prefix(text, "http://")) {
        return in_ticks(text) + " is no address of a page: it begins with http:// or https://";
    }
    if (text.find(' ') != text.npos) {
        return "a blank in the address is written %20";
    }
    if (text.find('#') != text.npos) {
        return "what follows the # is never sent to a server: leave it out";
    }
    const size_t end = std::min(text.find_first_of("/?"), text.size());
    page.path = in_ascii(text.substr(end));
    if (!page.path.starts_with('/')) {
        page.path.insert(0, "/");
    }
    return take_server(text.substr(0, end), page);
}

std::string shown_page(std::string_view text, std::string_view instead) {
    const size_t query = text.find('?');
    std::string shown(text.substr(0, query));
    return query == text.npos ? shown : shown.append(instead);
}

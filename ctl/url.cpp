#include "ctl/url.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <algorithm>
#include <arpa/inet.h>

namespace {

[[noreturn]] void refuse(std::string_view text, const char* why, std::string_view example) {
    throw failure{status_usage, "\"" + printable(text) + "\" " + why + "; an address is such as " +
                                    std::string(example)};
}

bool is_v6(const std::string& host) {
    in6_addr address{};
    return inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

bool is_v4(const std::string& host) {
    in_addr address{};
    return inet_pton(AF_INET, host.c_str(), &address) == 1;
}

bool is_port(std::string_view text) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != text.npos) {
        return false;
    }
    int port = std::stoi(std::string(text));
    return port > 0 && port <= 65535;
}

bool is_host_name(std::string_view text) {
    return !text.empty() && text.size() <= 253 && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '.' || c == '_';
    });
}

} // namespace

bool base_url::is_loopback() const {
    return host == "localhost" || host == "::1" || (is_v4(host) && host.starts_with("127."));
}

bool base_url::is_address() const {
    return is_v4(host) || is_v6(host);
}

std::string base_url::authority() const {
    std::string name = is_v6(host) ? "[" + host + "]" : host;
    return port == (tls ? "443" : "80") ? name : name + ":" + port;
}

std::string base_url::text() const {
    return (tls ? "https://" : "http://") + authority() + prefix;
}

base_url read_url(std::string_view text, std::string_view example) {
    base_url url;
    std::string_view rest = text;
    if (rest.starts_with("https://")) {
        url.tls = true;
        rest.remove_prefix(8);
    } else if (rest.starts_with("http://")) {
        rest.remove_prefix(7);
    } else {
        refuse(text, "does not begin with http:// or https://", example);
    }
    if (rest.find_first_of("?#@") != rest.npos) {
        /* Nothing of it is shown: it may hold a secret. */
        throw failure{status_usage, "the address has more than an address may have: ?, # or @; "
                                    "one is such as " +
                                        std::string(example)};
    }
    std::string_view authority = rest.substr(0, rest.find('/'));
    std::string_view path = rest.substr(authority.size());
    std::string_view port;
    if (authority.starts_with('[')) {
        size_t end = authority.find(']');
        url.host = authority.substr(1, end == authority.npos ? 0 : end - 1);
        if (!is_v6(url.host)) {
            refuse(text, "has no IPv6 address in its brackets", example);
        }
        port = authority.substr(end + 1);
    } else {
        url.host = authority.substr(0, authority.find(':'));
        port = authority.substr(url.host.size());
        if (!is_host_name(url.host)) {
            refuse(text, "has no name of a host", example);
        }
    }
    std::transform(url.host.begin(), url.host.end(), url.host.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    if (!port.empty() && (port[0] != ':' || !is_port(port.substr(1)))) {
        refuse(text, "has a port that is none", example);
    }
    url.port = port.empty() ? (url.tls ? "443" : "80") : port.substr(1);
    while (path.ends_with('/')) {
        path.remove_suffix(1);
    }
    if (std::any_of(path.begin(), path.end(), [](char c) { return c <= ' ' || c >= 0x7f; })) {
        refuse(text, "has a path with characters that have to be percent-encoded", example);
    }
    url.prefix = path;
    return url;
}

std::string percent_encoded(std::string_view text) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~') {
            out += c;
        } else {
            out += '%';
            out += digits[byte >> 4];
            out += digits[byte & 15];
        }
    }
    return out;
}

std::string target_of(std::string_view path, const parameters& with) {
    std::string target(path);
    char before = '?';
    for (const auto& [name, value] : with) {
        if (!value.empty()) {
            target += before;
            target += name + "=" + percent_encoded(value);
            before = '&';
        }
    }
    return target;
}

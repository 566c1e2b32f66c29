#include "web/trust.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>

namespace {

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; });
    return out;
}

bool is_port(std::string_view text) {
    return text.size() <= 5 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/* The one spelling of it that is compared. */
std::string plain_address(const std::string& name) {
    boost::system::error_code failed;
    boost::asio::ip::address address = boost::asio::ip::make_address(name, failed);
    if (!failed && address.is_v6() && address.to_v6().is_v4_mapped()) {
        address = boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6());
    }
    return failed ? "" : address.to_string();
}

/* Without the port that is usual for the scheme. */
std::string plain_authority(std::string_view text, bool tls) {
    std::string out = lower(text);
    std::string_view usual = tls ? ":443" : ":80";
    if (out.ends_with(usual)) {
        out.resize(out.size() - usual.size());
    }
    return out;
}

} // namespace

std::string host_name(std::string_view host) {
    std::string_view name, port;
    if (host.starts_with('[')) {
        size_t end = host.find(']');
        if (end == host.npos) {
            return "";
        }
        name = host.substr(1, end - 1);
        port = host.substr(end + 1);
        if (!is_address(std::string(name)) || name.find(':') == name.npos) {
            return "";
        }
    } else {
        size_t colon = host.find(':');
        name = host.substr(0, colon);
        port = colon == host.npos ? std::string_view() : host.substr(colon);
        bool good = std::all_of(name.begin(), name.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                   c == '-' || c == '.' || c == '_';
        });
        if (!good) {
            return "";
        }
    }
    if (!port.empty() && (port[0] != ':' || !is_port(port.substr(1)))) {
        return "";
    }
    if (name.size() > 1 && name.ends_with('.')) {
        name.remove_suffix(1);
    }
    return lower(name);
}

bool is_address(const std::string& name) {
    return !plain_address(name).empty();
}

bool is_own_host(std::string_view host, const std::vector<std::string>& names,
                 const std::string& local, bool on_loopback) {
    const std::string name = host_name(host);
    if (name.empty()) {
        return false;
    }
    if (name == "localhost") {
        return true;
    }
    if (const std::string address = plain_address(name); !address.empty()) {
        return on_loopback || address == plain_address(local) ||
               std::any_of(names.begin(), names.end(),
                           [&](const std::string& own) { return plain_address(own) == address; });
    }
    return std::any_of(names.begin(), names.end(), [&](const std::string& own) {
        if (own.starts_with("*.")) {
            size_t dot = name.find('.');
            return dot != name.npos && dot > 0 && name.substr(dot + 1) == lower(own.substr(2));
        }
        return name == lower(own);
    });
}

bool is_own_origin(std::string_view origin, std::string_view host, bool tls) {
    const std::string_view scheme = tls ? "https://" : "http://";
    if (lower(origin.substr(0, scheme.size())) != scheme || host_name(host).empty()) {
        return false;
    }
    return plain_authority(origin.substr(scheme.size()), tls) == plain_authority(host, tls);
}

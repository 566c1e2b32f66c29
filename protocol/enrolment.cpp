#include "protocol/enrolment.h"

#include "protocol/base64url.h"

#include <algorithm>

namespace protocol {

static constexpr std::string_view token_prefix = "ve_";
static constexpr std::string_view identity_prefix = "vindral:";
static constexpr size_t longest_name = 254; /* bytes */
static constexpr std::string_view hex_digits = "0123456789ABCDEF";

std::string text_of(const enrolment_token& token) {
    std::string bytes(token.secret.begin(), token.secret.end());
    bytes.append(token.authority.begin(), token.authority.end());
    return std::string(token_prefix) + base64url(bytes);
}

std::optional<enrolment_token> read_enrolment_token(std::string_view text) {
    enrolment_token token;
    const size_t half = token.secret.size();
    constexpr size_t whole = 89; /* nothing longer is looked at */
    if (text.size() != whole || !text.starts_with(token_prefix)) {
        return std::nullopt;
    }
    std::optional<std::string> bytes = from_base64url(text.substr(token_prefix.size()));
    if (!bytes || bytes->size() != half + token.authority.size()) {
        return std::nullopt;
    }
    std::copy_n(bytes->begin(), half, token.secret.begin());
    std::copy(bytes->begin() + static_cast<std::ptrdiff_t>(half), bytes->end(),
              token.authority.begin());
    return token;
}

/* --- names ----------------------------------------------------------------------------------- */

/* Whatever the locale. */
static bool is_plain(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

static bool is_name(std::string_view name) {
    auto is_control = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
    return !name.empty() && name.size() <= longest_name &&
           std::none_of(name.begin(), name.end(), is_control);
}

static void append_name(std::string& uri, std::string_view name) {
    for (char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_plain(byte)) {
            uri += c;
        } else {
            uri += '%';
            uri += hex_digits[byte >> 4];
            uri += hex_digits[byte & 15];
        }
    }
}

/* The way back; "" for what append_name() never wrote. */
static std::string read_name(std::string_view text) {
    std::string name;
    for (size_t i = 0; i < text.size(); i++) {
        if (is_plain(static_cast<unsigned char>(text[i]))) {
            name += text[i];
            continue;
        }
        if (text[i] != '%' || text.size() - i < 3) {
            return "";
        }
        const size_t high = hex_digits.find(text[i + 1]), low = hex_digits.find(text[i + 2]);
        if (high == std::string_view::npos || low == std::string_view::npos ||
            is_plain(static_cast<unsigned char>(16 * high + low))) {
            return "";
        }
        name += static_cast<char>(16 * high + low);
        i += 2;
    }
    return is_name(name) ? name : "";
}

std::string identity_uri(const agent_identity& of) {
    if (!is_name(of.account) || !is_name(of.agent)) {
        return "";
    }
    std::string uri(identity_prefix);
    append_name(uri, of.account);
    uri += '/';
    append_name(uri, of.agent);
    return uri;
}

std::optional<agent_identity> read_identity_uri(std::string_view uri) {
    constexpr size_t longest = identity_prefix.size() + 2 * 3 * longest_name + 1;
    const size_t slash = uri.find('/');
    if (uri.size() > longest || !uri.starts_with(identity_prefix) || slash == uri.npos) {
        return std::nullopt;
    }
    agent_identity found;
    found.account = read_name(uri.substr(0, slash).substr(identity_prefix.size()));
    found.agent = read_name(uri.substr(slash + 1));
    return found.account.empty() || found.agent.empty() ? std::nullopt : std::optional(found);
}

} // namespace protocol

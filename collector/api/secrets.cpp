#include "api/secrets.h"

#include "api/encoding.h"

#include <algorithm>
#include <openssl/evp.h>
#include <openssl/rand.h>

static const char* prefix_of(token_kind kind) {
    switch (kind) {
    case token_kind::token:
        break;
    case token_kind::session:
        return "vs_";
    case token_kind::link:
        return "vl_";
    }
    return "vt_";
}

std::string make_secret(token_kind kind, token_hash& hash) {
    unsigned char random[32];
    if (RAND_bytes(random, sizeof(random)) != 1) {
        return "";
    }
    std::string_view bytes(reinterpret_cast<const char*>(random), sizeof(random));
    std::string secret = prefix_of(kind) + base64url(bytes);
    hash = hash_of(secret);
    return secret;
}

token_hash hash_of(std::string_view secret) {
    token_hash hash{};
    EVP_Digest(secret.data(), secret.size(), hash.data(), nullptr, EVP_sha256(), nullptr);
    return hash;
}

/* Of good UTF-8, which gets shorter. */
static char32_t take_character(std::string_view& text) {
    auto first = static_cast<unsigned char>(text[0]);
    const size_t length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    char32_t code = length == 1 ? first : first & (0xffu >> (length + 1));
    for (char each : text.substr(1, length - 1)) {
        code = code << 6 | (static_cast<unsigned char>(each) & 0x3f);
    }
    text.remove_prefix(std::min(length, text.size()));
    return code;
}

static bool is_blank(char32_t c) {
    return c == ' ' || c == 0xa0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200a) || c == 0x202f ||
           c == 0x205f || c == 0x3000;
}

/* Turns what follows around, ends the line, or has no width; but the joiners, which some scripts
 * cannot be written without. */
static bool is_deceiving(char32_t c) {
    return c == 0x61c || c == 0x200b || (c >= 0x200e && c <= 0x200f) ||
           (c >= 0x2028 && c <= 0x202e) || (c >= 0x2060 && c <= 0x206f) || c == 0xfeff;
}

bool is_token_name(std::string_view name) {
    if (name.empty() || name.size() > max_token_name || !is_plain_text(name)) {
        return false;
    }
    bool is_first = true;
    char32_t last = 0;
    while (!name.empty()) {
        last = take_character(name);
        if (is_deceiving(last) || (is_first && is_blank(last))) {
            return false;
        }
        is_first = false;
    }
    return !is_blank(last);
}

std::string token_name_rule() {
    return "a text of 1 to " + std::to_string(max_token_name) +
           " bytes of UTF-8, without control characters, without characters that cannot be seen or "
           "change the direction of text, and without blanks at its ends";
}

std::string keep_secret(settings& kept, stored_token& what, bool& is_taken, std::string& error) {
    is_taken = false;
    error.clear();
    if (!is_token_name(what.name)) {
        error = "a token's name has to be " + token_name_rule();
        return "";
    }
    std::string secret = make_secret(what.kind, what.hash);
    if (secret.empty()) {
        error = "there are no random numbers";
        return "";
    }
    if (!kept.add_token(what, what.id, error)) {
        is_taken = error.empty();
        if (is_taken) {
            error = "there is a token of the name " + what.name + " already";
        }
        return "";
    }
    return secret;
}

std::string add_secret(settings& kept, token_kind kind, role may, const std::string& name,
                       int64_t now, int64_t parent, std::string& error) {
    stored_token what;
    what.kind = kind;
    what.role = static_cast<uint8_t>(may);
    what.name = name;
    what.made = now;
    what.parent = parent;
    if (kind != token_kind::token) {
        what.ends = now + (kind == token_kind::link ? link_lasts_s : session_lasts_s);
    }
    bool is_taken = false;
    return keep_secret(kept, what, is_taken, error);
}

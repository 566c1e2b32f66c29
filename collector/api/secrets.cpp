#include "api/secrets.h"

#include "api/encoding.h"

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

bool is_token_name(std::string_view name) {
    return !name.empty() && name.size() <= max_token_name && is_plain_text(name);
}

std::string keep_secret(settings& kept, stored_token& what, bool& is_taken, std::string& error) {
    is_taken = false;
    error.clear();
    if (!is_token_name(what.name)) {
        error = "a token's name has 1 to " + std::to_string(max_token_name) +
                " bytes of UTF-8 without control characters";
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

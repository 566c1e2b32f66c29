#include "web/sign_in.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace {

constexpr size_t random_chars = 43;

const char* prefix_of(token_kind kind) {
    switch (kind) {
    case token_kind::token:
        return "vt_";
    case token_kind::session:
        return "vs_";
    case token_kind::link:
        return "vl_";
    }
    return "";
}

bool has_form(std::string_view secret) {
    auto is_digit = [](unsigned char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               c == '-' || c == '_';
    };
    return secret.size() == 3 + random_chars && std::all_of(secret.begin(), secret.end(), is_digit);
}

struct hash_of_hash {
    size_t operator()(const token_hash& hash) const {
        size_t value; /* they are random themselves */
        memcpy(&value, hash.data(), sizeof value);
        return value;
    }
};

} // namespace

bool is_secret(token_kind kind, std::string_view secret) {
    return has_form(secret) && secret.starts_with(prefix_of(kind));
}

struct known_callers::state {
    settings& kept;
    std::mutex reading; /* one reads the settings, others wait for it; before `mutex` */
    std::mutex mutex;   /* of what follows */
    std::unordered_map<token_hash, stored_token, hash_of_hash> all = {};
    uint64_t seen = 0; /* version of the settings */

    explicit state(settings& k) : kept(k) {}

    /* What cannot be read now stays as it was. */
    void refresh() {
        std::lock_guard<std::mutex> one(reading);
        const uint64_t now = kept.version();
        if (now == seen) {
            return;
        }
        std::unordered_map<token_hash, stored_token, hash_of_hash> fresh;
        std::string error;
        auto add = [&](const stored_token& t) {
            if (t.kind != token_kind::link) {
                fresh.emplace(t.hash, t);
            }
        };
        if (!kept.for_each_token(add, error)) {
            return;
        }
        seen = now;
        std::lock_guard<std::mutex> guard(mutex);
        all.swap(fresh);
    }

    caller look_up(std::string_view secret, int64_t now) {
        caller found;
        if (!has_form(secret)) {
            return found;
        }
        token_hash hash = hash_of(secret);
        std::lock_guard<std::mutex> guard(mutex);
        auto at = all.find(hash);
        if (at != all.end() && (at->second.ends == 0 || now < at->second.ends) &&
            at->second.role <= static_cast<uint8_t>(role::admin)) {
            found.may = static_cast<role>(at->second.role);
            found.token = at->second.id;
            found.holder = at->second.parent != 0 ? at->second.parent : at->second.id;
            found.name = at->second.name;
        }
        return found;
    }
};

known_callers::known_callers(settings& kept) : state_(std::make_unique<state>(kept)) {}

known_callers::~known_callers() = default;

caller known_callers::find(std::string_view secret, int64_t now) {
    if (!has_form(secret)) {
        return {};
    }
    state_->refresh();
    return state_->look_up(secret, now);
}

caller known_callers::remembered(std::string_view secret, int64_t now) {
    return state_->look_up(secret, now);
}

void known_callers::refresh() {
    state_->refresh();
}

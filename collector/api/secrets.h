/* What tokens, one-time links and sessions are known by.
 *
 * A token is "vt_" and 43 characters (256 random bits, base64url); a link's secret "vl_", a
 * session's "vs_". Shown once, kept as SHA-256. */
#ifndef VINDRAL_COLLECTOR_SECRETS_H
#define VINDRAL_COLLECTOR_SECRETS_H

#include "api/request.h"
#include "store/settings.h"

#include <cstdint>
#include <string>
#include <string_view>

constexpr int64_t link_lasts_s = 15 * 60;
constexpr int64_t session_lasts_s = 30 * 86400;
constexpr size_t max_token_name = 100;

/* A new secret of the kind, and its hash. Empty when the system has no random numbers. */
std::string make_secret(token_kind kind, token_hash& hash);
token_hash hash_of(std::string_view secret);

/* 1 to max_token_name bytes of UTF-8, of which people can see what they are: no control characters,
 * none that turn the direction of a text around or cannot be seen, no blanks at the ends. */
bool is_token_name(std::string_view name);
/* That, behind "has to be" or the like. */
std::string token_name_rule();

/* Makes and keeps one of `what`, whose id and hash are set. The secret, or empty with one line in
 * `error`; `is_taken` when that is because there is a token of the name. */
std::string keep_secret(settings& kept, stored_token& what, bool& is_taken, std::string& error);

/* Makes and keeps one, which lasts as long as its kind does; the secret, or empty with one line in
 * `error`. */
std::string add_secret(settings& kept, token_kind kind, role may, const std::string& name,
                       int64_t now, int64_t parent, std::string& error);

#endif

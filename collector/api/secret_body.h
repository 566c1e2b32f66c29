/* What somebody signs in with: {"token": "vt_..."} or {"link": "vl_..."}. */
#ifndef VINDRAL_COLLECTOR_SECRET_BODY_H
#define VINDRAL_COLLECTOR_SECRET_BODY_H

#include "store/settings.h"

#include <optional>
#include <string>
#include <string_view>

struct secret_body {
    token_kind kind = token_kind::token;
    std::string secret;
};

/* Nothing when it is anything else. */
std::optional<secret_body> read_secret_body(std::string_view json);

#endif

/* How texts are written in addresses, and times in requests. */
#ifndef VINDRAL_COLLECTOR_ENCODING_H
#define VINDRAL_COLLECTOR_ENCODING_H

#include "protocol/base64url.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/* "%2F" and the like become what they stand for, and '+' a space where `plus_is_space`. None for a
 * '%' without two digits behind it. */
std::optional<std::string> percent_decoded(std::string_view text, bool plus_is_space);

using protocol::base64url;
using protocol::from_base64url;

/* RFC 3339: "2026-05-01T12:00:00Z", "2026-05-01t14:00:00.5+02:00"; fractions are cut off, a leap
 * second is the one after it. In place of the '+' there may be a space, which is what becomes of it
 * in an address. Years 0001 to 9999. */
std::optional<int64_t> read_time(std::string_view text);

/* The way back, in UTC: "2026-05-01T12:00:00Z". Agents say what they like: what lies outside of
 * those years is the nearest that does not. */
std::string time_text(int64_t seconds);

/* A whole number, and nothing else. */
std::optional<int64_t> read_integer(std::string_view text);

/* Whether `text` has `part` in it, whatever the case of ASCII letters is. */
bool has_text(std::string_view text, std::string_view part);

/* Of UTF-8, without control characters. */
bool is_plain_text(std::string_view text);

#endif

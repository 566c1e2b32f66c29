/* Texts of a fleet file: what may stand in them, and how remarks repeat them. Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_TEXT_CHECK_H
#define VINDRAL_COLLECTOR_FLEET_TEXT_CHECK_H

#include <cstddef>
#include <string>
#include <string_view>

/* Offset of the first byte that is no UTF-8; npos: there is none. */
size_t first_no_utf8(std::string_view text);

/* Offset of the first control character (up to U+001F, U+007F to U+009F) that is none of `but`. */
size_t first_control(std::string_view text, std::string_view but = "");

/* Of a carriage return without a line feed behind it. */
size_t first_lone_return(std::string_view text);

/* Characters of a text that is UTF-8. */
size_t characters_of(std::string_view text);

/* For a remark: its beginning, without what would steer a terminal. */
std::string one_line(std::string_view text);

/* Likewise, between "`". */
std::string in_ticks(std::string_view text);

/* "; `http`?", or nothing for an empty word. */
std::string or_close(std::string_view word);

#endif

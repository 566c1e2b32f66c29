/* JSON as text: out of values of Boost.JSON. */
#ifndef VINDRAL_COLLECTOR_API_JSON_H
#define VINDRAL_COLLECTOR_API_JSON_H

#include <boost/json.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/* As text, in one line: numbers as short as they can be read back exactly, null for those that JSON
 * does not have, U+FFFD for bytes that are no UTF-8, and control characters escaped, also those
 * that JSON would let pass and a terminal obey. */
std::string json_text(const boost::json::value& what);

/* About how many bytes that text has, and never far fewer: for what an answer has room for. */
size_t weight_of(const boost::json::value& what);

/* Null for 0. */
boost::json::value json_time(int64_t seconds);
/* Null for an empty one. */
boost::json::value json_or_null(std::string_view text);

#endif

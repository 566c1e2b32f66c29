/* JSON of the API: read without trusting it, and written for a terminal. */
#ifndef VINDRAL_CTL_JSON_H
#define VINDRAL_CTL_JSON_H

#include <boost/json.hpp>
#include <cstdint>
#include <string>
#include <string_view>

/* In one line, as it came: members in their order, numbers as short as they can be read back
 * exactly. Characters that steer a terminal are escaped. */
std::string json_text(const boost::json::value& what);

/* Of a member that is missing or something else: "", 0, an empty object or list. */
std::string text_in(const boost::json::object& of, std::string_view name);
int64_t number_in(const boost::json::object& of, std::string_view name);
const boost::json::object& object_in(const boost::json::object& of, std::string_view name);
const boost::json::array& list_in(const boost::json::object& of, std::string_view name);

/* Of any number; NaN for all else. */
double real_of(const boost::json::value& what);

#endif

#include "api/secret_body.h"

#include "api/answer.h"

#include <boost/json/parse.hpp>
#include <new>

std::optional<secret_body> read_secret_body(std::string_view json) {
    constexpr size_t longest = 1000; /* bytes; a secret has 46 */
    if (json.size() > longest) {
        return {};
    }
    boost::json::parse_options strict;
    strict.max_depth = 2;
    boost::system::error_code failed;
    boost::json::value read = boost::json::parse({json.data(), json.size()}, failed, {}, strict);
    const boost::json::object* object = failed ? nullptr : read.if_object();
    if (!object || object->size() != 1 || has_member_twice(json, read)) {
        return {};
    }
    const auto& [name, value] = *object->begin();
    const boost::json::string* text = value.if_string();
    if (!text || (name != "token" && name != "link")) {
        return {};
    }
    return secret_body{name == "token" ? token_kind::token : token_kind::link,
                       std::string(text->data(), text->size())};
}

/* JSON in requests and answers. */
#ifndef VINDRAL_COLLECTOR_ANSWER_H
#define VINDRAL_COLLECTOR_ANSWER_H

#include "api/request.h"

#include <boost/json.hpp>
#include <string_view>

/* An answer that is this. */
api_answer answer_with(const boost::json::value& what, int status = 200);

/* Whether an object in this has a member twice; `read` is what `text` was read as. Readers differ
 * in which of them counts. */
bool has_member_twice(std::string_view text, const boost::json::value& read);

/* The object that a request's body is; throws a problem that tells line and column. */
boost::json::object read_object(std::string_view body);

#endif

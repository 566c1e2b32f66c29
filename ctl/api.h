/* The API as the commands use it: JSON in and out, lists whole, problems as failures with the
 * sentence that the API has for them. */
#ifndef VINDRAL_CTL_API_H
#define VINDRAL_CTL_API_H

#include "ctl/failure.h"
#include "ctl/http_client.h"
#include "ctl/sse.h"

#include <boost/json.hpp>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

class api {
public:
    /* Throws failure, as http_client does. */
    explicit api(http_access access)
        : with_token_(!access.token.empty()), client_(std::move(access)) {}

    /* An object. All throw failure: usage for 400 and the like, refused for 401 and 403, absent for
     * 404, wrong for 409, unreached for 5xx, 429 and what is no answer of the API. */
    boost::json::object get(std::string_view path, const parameters& with = {});
    /* None for 404. */
    std::optional<boost::json::object> find(std::string_view path);
    /* POST and DELETE; an empty object for an answer without a body. */
    boost::json::object ask(const char* method, std::string_view path,
                            const boost::json::object& body = {});

    /* A text as it is. */
    std::string get_text(std::string_view path, const parameters& with, const std::string& type);
    /* PUT of a text that is no JSON. What is wrong in it (422) is the problem in `wrong`, and what
     * is returned is empty then. */
    boost::json::object put_text(std::string_view path, const parameters& with, std::string text,
                                 const std::string& type, boost::json::object& wrong);

    /* Hands over the items of a list, page by page, `limit` at most; 0: all of them. Returns why
     * not everything could be read, "" when it could: printable. */
    std::string list(std::string_view path, const parameters& with, size_t limit,
                     const std::function<void(const boost::json::object&)>& take);

    /* Listens to the stream until `take` returns false; connects again, with the id of the last
     * message, whenever it ends. `note` gets a printable line each time. Throws failure when the
     * first connection fails, or the API refuses. */
    void listen(const parameters& with, const std::function<bool(const sse_message&)>& take,
                const std::function<void(const std::string&)>& note);

private:
    boost::json::object well_answered(const http_answer& answer) const;

    const bool with_token_;
    http_client client_;
};

/* What the API said against it. */
failure failure_of(const http_answer& answer, bool with_token);

#endif

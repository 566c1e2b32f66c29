/* The table of everything that can be asked: the router finds a request's row here, parameters and
 * bodies are checked by it, /openapi.json is made of it, and a test calls each row. Adding a
 * resource means a file with its rows and one line in routes.cpp. */
#ifndef VINDRAL_COLLECTOR_API_ROUTE_H
#define VINDRAL_COLLECTOR_API_ROUTE_H

#include "api/request.h"
#include "api/services.h"

#include <span>
#include <string_view>
#include <vector>

/* How a parameter is written. What does not fit is a problem 400 that names the parameter, what was
 * given and what was expected; so is a parameter that the route does not have, or one given twice.
 */
enum class parameter_kind : uint8_t {
    text,   /* up to 1,000 bytes of UTF-8 without control characters */
    number, /* a whole number from `least` to `most` */
    id,     /* a whole number above 0, or up to 100 with commas between when `many` */
    time,   /* RFC 3339: "2026-05-01T12:00:00Z", with an offset too; fractions are cut off */
    choice, /* one of the words of `choices`, or several with commas between when `many` */
    flag,   /* 0, 1, true, false; given without a value: true */
    next    /* what `next` of the answer before said; opaque */
};

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct parameter_def {
    const char* name;
    parameter_kind kind;
    const char* text; /* for people: a sentence in the description of the API */
    int64_t least = 0, most = INT64_MAX;
    const char* choices = ""; /* "ok|problem|unknown" */
    bool many = false;
    bool required = false;
};

/* What becomes of the session's cookie, for the description. */
enum class session_change : uint8_t { none, begins, ends };

/* Names of schemas in schemas.h; "" : none. */
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct route {
    std::string_view method;  /* GET, POST, PUT, DELETE; GET answers HEAD too */
    std::string_view pattern; /* "/api/v1/tests/{test}/series"; {names} are ids */
    role least;               /* none: without signing in */
    const char* summary;      /* for people: a sentence */
    std::span<const parameter_def> parameters;
    const char* takes;   /* schema of the body */
    const char* answers; /* schema of the answer */
    int status;          /* of an answer that is no problem */
    api_answer (*handler)(const api_request& asked, api_services& with); /* null: the web server
                                                                            answers it itself */
    bool is_stream = false;                                              /* of server-sent events */
    const char* type = "application/json";                               /* of the answer */
    const char* other_type = ""; /* that it has instead where Accept wants that; "": none */
    session_change session = session_change::none;
    bool may_lack_body = false;     /* where it takes one */
    const char* other_answers = ""; /* schema of the answer of other_type; "": as answers */
    const char* takes_type = "application/json"; /* of the body */
};

/* All rows, by pattern. */
std::span<const route> all_routes();

/* The row of a request, and what stands where its pattern has {names}, decoded. `path` is as it
 * came, percent-encoded, without parameters. Null: `allowed` has the methods of the path ("DELETE,
 * GET, HEAD"), or is empty when there is no such path. */
const route* find_route(std::string_view method, std::string_view path,
                        std::vector<std::string>& in_path, std::string& allowed);

/* Reads what stands behind the question mark into `asked.parameters`; throws problem. */
void read_parameters(const route& of, std::string_view query, api_request& asked);

/* Throws problem 401 or 403 when who asks may not. */
void check_role(const route& of, const caller& who);

/* Finds the row, checks role and parameters, and calls it. Of `asked` body, if_none_match, who and
 * deadline are set by the caller, the rest here. Never throws: what goes wrong is a problem answer,
 * 500 for what nobody thought of. An answer to GET has an ETag, and is a 304 without a body where
 * if_none_match has that. HEAD is answered as GET is, body and all. Any thread, several at once. */
api_answer answer_request(std::string_view method, std::string_view target, api_request& asked,
                          api_services& with);

/* The description of all rows, OpenAPI 3.1; with the name of the session's cookie, which depends on
 * the address at which the collector is asked. */
std::string open_api(std::string_view cookie = "vindral-8080");

#endif

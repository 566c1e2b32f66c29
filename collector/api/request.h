/* What is asked of the API and what it answers, without sockets: the web server makes the one out
 * of a request and the other into an answer. A resource is a function of route.h. */
#ifndef VINDRAL_COLLECTOR_API_REQUEST_H
#define VINDRAL_COLLECTOR_API_REQUEST_H

#include "store/engine.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* Who may do what: each may do what those before it may. The numbers are stored. */
enum class role : uint8_t { none = 0, viewer = 1, operates = 2, admin = 3 };

/* "viewer", "operator", "admin"; "" for none. */
std::string_view role_word(role r);
std::optional<role> role_of(std::string_view word);

/* Who asks. */
struct caller {
    role may = role::none;
    int64_t token = 0;     /* id of the token or session; 0: nobody signed in */
    std::string name = {}; /* of the token, for the audit line */
    std::string address = {};
    int64_t holder = 0; /* of the token that the session was begun with, else as `token` */
};

struct api_request {
    std::string_view method, path;         /* as it came, without parameters */
    std::vector<std::string> in_path = {}; /* what stands where the pattern has {names} */
    std::vector<std::pair<std::string, std::string>> parameters = {}; /* decoded, checked by the
                                                                         route's table, each once */
    std::string_view body = {};
    std::string if_none_match = {};
    std::string accept = {}; /* types of answers, for resources that have several; empty: any */
    caller who = {};
    /* Reading ends with a problem 503 "took too long" when this has passed: see api_store. */
    std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();

    std::string session_cookie = {}; /* name of the cookie that a browser sends here */

    /* Null when it was not given. */
    const std::string* parameter(std::string_view name) const;
};

struct api_answer {
    int status = 200;
    std::string type = "application/json";
    std::string body = {};
    std::vector<std::pair<std::string, std::string>> headers =
        {};                 /* besides those of every answer */
    std::string audit = {}; /* who changed what is logged with this, which is printable: "retired
                               agent a@b/web-1" */
    const std::string* packed = nullptr; /* the body by gzip, where it is there already. Not owned:
                                            lives as long as the program */
};

/* Thrown by resources; becomes application/problem+json (RFC 9457). `detail` is a sentence that a
 * person can act on. */
struct problem {
    struct line {
        int line = 0, column = 0;
        std::string text;
    };
    int status = 400;
    std::string title, detail;
    std::vector<line> errors = {};
    std::string audit = {}; /* of what may have been changed all the same: see api_answer */
};

api_answer answer_of(const problem& what);

/* ---- what most resources throw ---- */
[[noreturn]] void throw_not_found(std::string detail);   /* 404 */
[[noreturn]] void throw_bad_request(std::string detail); /* 400 */
[[noreturn]] void throw_unavailable(std::string detail); /* 503 */

#endif

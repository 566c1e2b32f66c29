/* HTTP/1.1 to the API, over TLS that is verified. One request at a time, each on a connection of
 * its own. */
#ifndef VINDRAL_CTL_HTTP_CLIENT_H
#define VINDRAL_CTL_HTTP_CLIENT_H

#include "ctl/url.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

struct http_request {
    std::string method = "GET";
    std::string target;    /* below the prefix of the address */
    std::string body = {}; /* empty: none */
    std::string last_event_id = {};
    std::string type = "application/json"; /* of the body */
    std::string accept = {};               /* empty: any */
};

struct http_answer {
    int status = 0;
    std::string type; /* Content-Type */
    std::string body;
};

struct http_access {
    base_url where;
    std::string token;   /* empty: none is sent */
    std::string ca_file; /* authorities that the server's certificate is verified with; empty: those
                            of this system */
};

class http_client {
public:
    /* Throws failure when the file of authorities cannot be read. */
    explicit http_client(http_access access);
    ~http_client();

    /* The answer, whatever its status is; redirections are not followed. Throws failure (unreached)
     * when there is no connection, no trust in it, or no whole answer within 30 seconds. */
    http_answer ask(const http_request& what);

    /* A stream: `take` gets the bytes of an answer with status 200 and the type of a stream as they
     * come, until it returns false, the stream ends, or nothing comes for 45 seconds. Returns the
     * answer as ask() does, without the body of a stream; `end` then says why it ended, "" when
     * `take` wanted that. */
    http_answer follow(const http_request& what, const std::function<bool(std::string_view)>& take,
                       std::string& end);

private:
    struct state;
    std::unique_ptr<state> state_;
};

#endif

/* The head of a request: what is asked, who says so, and how much comes behind it. No sockets. */
#ifndef VINDRAL_COLLECTOR_WEB_REQUEST_HEAD_H
#define VINDRAL_COLLECTOR_WEB_REQUEST_HEAD_H

#include "api/request.h"
#include "web/limits.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/* Of the session's cookie, for the request's Host header. It has the port in it, as the browser
 * knows it: browsers keep cookies by host only, and two collectors on one host would overwrite each
 * other's. Over TLS with the prefix that keeps other hosts of the domain from setting it. */
std::string cookie_name(bool tls, std::string_view host);

struct request_head {
    std::string method, target; /* target without scheme and authority */
    std::string host;
    std::string origin;
    std::string bearer, cookie; /* secrets; empty: none */
    std::string if_none_match, last_event_id;
    std::string accept; /* of several headers: with commas between */
    size_t content_length = 0;
    bool has_origin = false;
    bool has_authorization = false; /* of whatever kind: the cookie does not count then */
    bool takes_gzip = false;
    bool expects_continue = false;
    bool keep_alive = false;

    std::string_view path() const { return std::string_view(target).substr(0, target.find('?')); }
    bool only_reads() const { return method == "GET" || method == "HEAD" || method == "OPTIONS"; }
    const std::string& secret() const { return has_authorization ? bearer : cookie; }
};

/* "Not Found" */
std::string_view status_words(int status);

/* With those words as its title. */
problem web_problem(int status, std::string detail);

/* How much of the text is in front of the first line: empty lines that some put behind a body. */
size_t leading_blank(std::string_view text);

/* The end of the head, the empty line included; 0 when it is not all there. `seen`: how much has
 * been looked at before. */
size_t head_end(std::string_view text, size_t seen);

/* Reads a whole head. What is wrong with it, to be answered before the connection is closed. */
std::optional<problem> read_head(std::string_view head, const web_limits& limits, bool tls,
                                 request_head& out);

/* What is wrong with text that is longer than a head may be and has no end. */
problem too_long_a_head(std::string_view text, const web_limits& limits);

#endif

/* An answer as it goes over the wire. No sockets. */
#ifndef VINDRAL_COLLECTOR_WEB_ANSWER_H
#define VINDRAL_COLLECTOR_WEB_ANSWER_H

#include "api/request.h"
#include "web/request_head.h"

#include <string>
#include <string_view>

struct wire_answer {
    std::string head, body; /* the body empty for HEAD */
};

/* With the headers that every answer has: nothing is stored, sniffed, framed or told to others, and
 * nothing is loaded by it. Compressed when the request takes that and it is worth it; dear when it
 * is large. `now`: seconds since the epoch, for Date. */
wire_answer to_wire(api_answer&& answer, const request_head& asked, bool keep_alive, int64_t now);

/* By gzip. Effort 1 to 9: by 3 a megabyte takes some ten milliseconds. Empty when it did not work
 * or is no smaller. */
std::string gzipped(std::string_view text, int effort);

/* The head of a stream of events, which lasts as long as the connection. */
std::string stream_head(int64_t now);

#endif

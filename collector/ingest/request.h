/* The head of an agent's request. Pure text; no network in here. */
#ifndef VINDRAL_COLLECTOR_REQUEST_H
#define VINDRAL_COLLECTOR_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr size_t max_head = 8192; /* bytes up to and including the empty line */
inline constexpr size_t max_name = 254;  /* bytes of an account or an agent name */
inline constexpr size_t max_version = 32;

struct request {
    enum class kind {
        login,     /* POST with Vnd-EMail and Vnd-AName */
        poll,      /* POST with Vnd-SessionID */
        page,      /* GET of "/": somebody looks whether a collector is here */
        authority, /* GET of protocol::authority_path */
        enrol,     /* POST of protocol::enrol_path without Vnd-SessionID */
        other      /* well-formed, but nothing that an agent sends */
    } what = kind::other;
    std::string session; /* poll */
    std::string account,
        agent;           /* login; printable as far as ASCII goes, 1 to max_name bytes. enrol:
                            "" for what is missing */
    std::string token;   /* enrol, whatever it is; "": none */
    std::string version; /* printable ASCII, at most max_version bytes; "": not known */
    uint64_t content_length = 0;
    uint64_t compression = 0; /* size of the body unpacked; 0: it is not packed */
    uint64_t checksum = 0;    /* Adler-32 of the body as sent; 0: none */
};

/* The length of the head at the start of `text`, with its empty line; 0 when it is not whole yet.
 * Only what follows the first `seen` bytes is new since the last call. */
size_t find_head(std::string_view text, size_t seen);

/* Reads one whole head. Any path will do: agents are configured with a URL, and what they want
 * stands in the headers. False with the reason in `error` (printable, no line end) for what is
 * malformed: not HTTP, a number that is none, a header of ours twice, a name with control
 * characters. */
bool parse_head(std::string_view head, request& out, std::string& error);

#endif

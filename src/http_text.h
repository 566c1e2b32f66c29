/* What an HTTP exchange reads as text, below any socket: the header block of a response and its
 * length, one header's value, the parts of a URL.
 *
 * No function here does any I/O or keeps state. What comes from a peer may hold anything; it ends
 * with a NUL of the reader's own. */
#ifndef VINDRAL_HTTP_TEXT_H
#define VINDRAL_HTTP_TEXT_H

#include "bytes.h"

/* What a response may take in memory at most, in bytes. The peer decides how much it sends. */
inline constexpr int MAX_RESPONSE_SIZE = 64 * 1024 * 1024;

/* What the text about a failed step takes at most, its NUL included. */
inline constexpr size_t ADD_INFO_SIZE = 4096;

/* The parts of a URL: pointers into the text that urlparse was given, null for absent ones. */
struct url_t {
    char* protocol;
    char* username;
    char* password;
    char* host;
    char* port;
    char* path; /* without its leading '/' */
};

/* Cuts [protocol]://[user:password@]host[:port][/path] into its parts, in place. Returns 1, or 0
 * when there is no "://", or an '@' without a user and password in front of it; `tokens` is then
 * partly filled. An '@' or ':' of the path is taken for one of the authority. */
int urlparse(char* url, url_t* tokens);

/* The value of the first `strName` (with its colon: "Vnd-SessionID:", case matters) that begins and
 * whose line ends ("\r\n") within the first iHSize bytes of the NUL-terminated response. Leading
 * white space is left out. Returns a malloc'd copy, or null when there is none or it is empty. */
char* get_header_value(char* sResp, int iHSize, const char* strName);

/* The size of the header block at the start of `doc`: every byte up to and including the empty
 * line, "\n\r\n" or "\n\n"; 0 when it is not complete. A "\n\n" is seen only when one more byte
 * follows. `scanned` is the length of a shorter `doc` that had no end, so that growing data is
 * scanned once. */
int is_header_loaded(const char* doc, int doc_len);
int is_header_loaded(const char* doc, int doc_len, int scanned);

/* The sum of the Content-Length values of a header block. Only "Content-", the first eight
 * characters of the name, is compared, in any case: the digits that begin a Content-Type value
 * count as well. A name ends at white space as well as at its colon: where white space comes first
 * there is no header. Values that do not fit a long count nothing; the sum wraps. Readable up to a
 * NUL at or behind hdrs[hdrs_len]. */
long get_content_length(const char* hdrs, size_t hdrs_len);

/* A response as it grows, with what its headers say. */
struct http_response {
    bytes data;              /* a NUL behind the last byte once something was read */
    int header_size = 0;     /* 0 until the end of the headers has come */
    long content_length = 0; /* as the headers announce it; 0 before */
};

/* Looks at the headers once they are in; bytes behind the first `scanned` are new. */
void look_at_headers(http_response& r, int scanned);

/* The size that the headers announce for the whole; meaningless before they have come. */
unsigned long announced_size(const http_response& r);

#endif

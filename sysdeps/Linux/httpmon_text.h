/* The text side of an HTTP check: the request that goes out, the status line and the redirection
 * that come back. HTTP/1.0 (RFC 1945) with a Host header, basic authentication (RFC 7617).
 *
 * No function here does any I/O or keeps state. What is handed out is malloc'd and freed by the
 * caller. Texts come from the peer and may hold anything but a NUL.
 *
 * addInfo, where a function takes it, is a buffer of ADD_INFO_SIZE bytes for the outcome of the
 * check in words; longer texts are cut. The header block (is_header_loaded, get_content_length) is
 * read as http_text.h says. */
#ifndef VINDRAL_HTTPMON_TEXT_H
#define VINDRAL_HTTPMON_TEXT_H

#include "http_text.h"

#include <cstddef>

/* Room for a status line with its NUL, in bytes. */
inline constexpr size_t STATUS_LINE_SIZE = 256;

/* The whole request: method 1 is POST, 2 HEAD, any other GET. A null user agent is sent as
 * "(null)". Credentials are sent when both are there. With post_data, whatever the method, the data
 * follows the header as a form. Nothing is escaped. Null when there is no memory. */
char* make_http_request(const char* host, const char* url, int req_method, const char* post_data,
                        char* userAgent, char* auth_user, char* auth_pass);

/* Base64 of `len` bytes (RFC 4648, padded); null when there is no memory. */
char* base64(const char* bin, size_t len);

/* The status code of a response: the three digits behind the first blank. Copies the status line,
 * which ends at the first CR, LF or NUL, to `s` (STATUS_LINE_SIZE bytes), cut when it is too long.
 * Returns 0 with a text in addInfo when the line is too long, has no blank or no such digits there,
 * and 0 without one for the code "000". */
int get_status_code(const char* hdr, char* addInfo, char* s);

/* Where a response with hdr_len bytes of headers sends the client that asked for server_url at
 * host_name:server_port. *isSSL says whether that went over TLS and receives whether the next
 * request does. Returns 1 with the new target: a path with a leading '/' and a decimal port.
 * Returns 0 with a text in addInfo and the outputs untouched when there is no location, an empty or
 * unreadable one, one that leads back to the same host, port and path (the scheme does not count),
 * or one with a port above 65535; without a text when there are no headers or no memory.
 *
 * The scheme is TLS when it is exactly "https". A path is cut at the first character that has no
 * place in a URL; a query right behind a host is dropped. A location that is no http URL counts as
 * a path, relative to the directory of server_url when it has no leading '/'. */
int get_redir(char* host_name, char* server_url, int server_port, char* hdr, size_t hdr_len,
              char* status_line, int* isSSL, char** new_host, char** new_url, char** new_port,
              char* addInfo);

/* 1 for exactly "https", else 0. */
int server_type_check(const char* type);

/* The usual port: 443 with TLS, else 80. */
int server_port_check(int ssl_flag);

#endif

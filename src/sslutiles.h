/* The connection layer under every exchange that the agent starts with a server: open a TCP
 * connection, send a buffer, receive one HTTP response; over TLS when the caller brings a session.
 *
 * The caller opens the socket, wraps it in TLS if it wants to, sends once or more, receives once
 * and closes the socket and the session itself. Nothing is kept between calls: exchanges on
 * different sockets may run in different threads.
 *
 * Time. All steps of one exchange draw on one budget in microseconds that the caller owns. Each
 * wait and each transfer is measured with the wall clock and subtracted, so the exchange as a whole
 * never takes longer than the budget it began with; the budget may end negative. A budget that is
 * negative before a wait is a time-out at once. Only the resolution of a name (resolve.h) is
 * outside of it.
 *
 * Cancellation. Waits open cancellation (cancel_on) even when the caller has it off; nothing else
 * does. On a thread that is cancelled in a wait all that these functions hold is given back; the
 * caller's socket and session are the caller's to guard.
 *
 * Errors are logged here at level 0, once, with the text that says which step failed.
 *
 * SIGPIPE: plain sends suppress it; for TLS the process has to ignore it, as OpenSSL writes by
 * itself. */
#ifndef VINDRAL_SSLUTILES_H
#define VINDRAL_SSLUTILES_H

#include <cstddef>
#include <openssl/types.h>

/* The parts of a URL: pointers into the text that urlparse was given, null for absent ones. */
struct url_t {
    char* protocol;
    char* username;
    char* password;
    char* host;
    char* port;
    char* path; /* without its leading '/' */
};

/* What a response may take in memory at most, in bytes. The peer decides how much it sends. */
inline constexpr int MAX_RESPONSE_SIZE = 64 * 1024 * 1024;

/* What the text about a failed step takes at most, its NUL included. */
inline constexpr size_t ADD_INFO_SIZE = 4096;

/* Connects to an IPv4 address of `_host`; `_port` is a service such as "443". Returns the socket,
 * non-blocking and close-on-exec, which the caller closes, or -1.
 *
 * Only the first address for which a socket can be made is tried. An interrupted wait counts as a
 * time-out. */
int make_connection(const char* _host, const char* _port, long* t_out);

/* The same for a caller that reports failures by itself: _addInfo, ADD_INFO_SIZE bytes or null,
 * receives the text of a resolver's error and of a time-out. Other failures leave it alone. */
int make_connection(const char* _host, const char* _port, long* t_out, char* _addInfo);

/* Sends sd_len bytes, over TLS when pSSL is not null. Returns 1 when all of them went out, else 0.
 *
 * Over TLS a write of a single byte counts as failed, and a write that ends after the budget as
 * successful. At most INT_MAX bytes go over TLS. */
int send_request(int sk, const char* sd, size_t sd_len, long* tout, SSL* pSSL);

/* Receives one HTTP response of at most MAX_RESPONSE_SIZE bytes. Returns 1 with the malloc'd
 * response in *out_buf (caller frees; a NUL follows the data), the bytes up to and including the
 * empty line in *size_h and the announced content length in *icnt_len; 0 on failure, with *out_buf
 * null.
 *
 * Complete is a response with exactly as many bytes as its headers announce, or one that the peer
 * ended, over TLS with the closing alert: then the header size and the content length may be 0, the
 * latter may exceed what arrived, be exceeded by it, or be negative. A response that goes on beyond
 * what it announced is read until the peer ends it or the budget does. */
int receive_response(int sk, long* tout, char** out_buf, int* size_h, int* icnt_len, SSL* pSSL);

/* Cuts [protocol]://[user:password@]host[:port][/path] into its parts, in place. Returns 1, or 0
 * when there is no "://", or an '@' without a user and password in front of it; `tokens` is then
 * partly filled. An '@' or ':' of the path is taken for one of the authority. */
int urlparse(char* url, url_t* tokens);

/* The value of the first `strName` (with its colon: "Vnd-SessionID:", case matters) that begins and
 * whose line ends ("\r\n") within the first iHSize bytes of the NUL-terminated response. Leading
 * white space is left out. Returns a malloc'd copy, or null when there is none or it is empty. */
char* get_header_value(char* sResp, int iHSize, const char* strName);

/* --- what the exchanges are made of ---------------------------------------------------------- */

/* Waits until `sk` is ready for `events` (POLLIN or POLLOUT, errors count as ready) or the budget
 * is used up, and charges the time. Returns 1 when ready, 0 on time-out, -1 with errno. Any
 * descriptor number will do. */
int wait_socket(int sk, short events, long* budget_us);

/* Subtracts the microseconds since `start` from the budget. */
void charge_budget(long* budget_us, struct timeval* start);

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
long sum_content_lengths(const char* hdrs, size_t hdrs_len);

#endif

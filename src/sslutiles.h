/* The connection layer under every exchange that the agent starts with a server: open a TCP
 * connection, send a buffer, receive one HTTP response; over TLS when the caller brings a session.
 *
 * The caller opens the socket, wraps it in TLS if it wants to, sends once or more, receives once
 * and closes the socket and the session itself. Nothing is kept between calls: exchanges on
 * different sockets may run in different threads.
 *
 * Time. All steps of one exchange draw on one budget that the caller owns (budget.h). Only the
 * resolution of a name (resolve.h) is outside of it.
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

#include "budget.h"
#include "http_text.h"

#include <openssl/types.h>

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

/* --- what the exchanges with the service share ----------------------------------------------- */

/* One exchange and what is left of its time. */
struct service_exchange {
    const char* name; /* as the log shows it */
    long budget_us;   /* of the whole */
    long left_us = budget_us;
};

struct service_reply {
    heap_text text;
    int header_size = 0;
    int content_length = 0;
};

/* What they tell at level 5. */
void log_connected(const service_exchange& e);
void log_reply(const service_exchange& e, const service_reply& answer);

/* As send_request, and tells at level 5 what came of it. */
int send_part(service_exchange& e, int sk, const char* data, size_t length, SSL* session);

/* As send_part, for text that level 5 shows. */
int send_text(service_exchange& e, int sk, const char* text, SSL* session);

/* As receive_response. */
int receive_reply(service_exchange& e, int sk, service_reply& answer, SSL* session);

#endif

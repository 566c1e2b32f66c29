/* The poll exchange with the collection server: one HTTPS request that posts the agent's results,
 * one response whose body is the server's commands.
 *
 * The first poll of a session names the account and the agent; the response's "Vnd-SessionID:"
 * header is the session id that all later polls carry, until the server ends the session with the
 * body "111111" (log in again) or "666666" (not authorised). A later response's header never renews
 * it. The HTTP status line is not looked at.
 *
 * Without CAFILE the server is neither authenticated (no certificate is verified) nor named in the
 * handshake: TLS keeps passive listeners out, not somebody who can take the server's place on the
 * way. With it both is done (sslutiles_verify.h), and nothing is sent to a server that fails. With
 * CERTFILE and KEYFILE the agent shows a certificate of its own (sslutiles_context.h). */
#ifndef VINDRAL_SSLUTILES_POLL_H
#define VINDRAL_SSLUTILES_POLL_H

#include <cstddef>

/* What came of a poll. */
enum poll_result {
    POLL_REFUSED = 0,        /* not authorised: the server said so, or no e-mail address or agent
                              * name is configured */
    POLL_OK = 1,             /* success */
    POLL_NO_CONNECTION = 2,  /* connecting, sending or receiving failed */
    POLL_LOGIN_AGAIN = 3,    /* the server wants a new login */
    POLL_INTERNAL_ERROR = 4, /* TLS set-up with its files, handshake, with the verification of the
                              * server, a first poll without a session id, no memory */
};

extern char* alt_version; /* nothing in the agent sets it: "3.0" goes out */
extern char* szSessionID; /* malloc'd; null when not logged in; poll thread only */

/* Posts `sendsize` bytes (null and 0 for a poll without results) and takes the answer, all within
 * 15 seconds, the resolution of a host name apart. Poll thread only. Returns a poll_result.
 *
 * On POLL_OK with a body, *strresp is a malloc'd, NUL-terminated copy of it up to its first NUL
 * (caller frees) and *respsize the length that its headers announced, which may be more or less
 * than that text. Otherwise they are null and 0. Failures leave the session as it is.
 *
 * When logged in the body is compressed and checksummed if zlib is there; should either fail, it
 * goes out as it is.
 *
 * Cancellation ends the thread in any of the waits, wherever the exchange is by then; all that it
 * holds is given back. Everything between the waits runs with cancellation off. */
int make_poll(const char* bdatasend, unsigned long sendsize, char** strresp, size_t* respsize);

#endif

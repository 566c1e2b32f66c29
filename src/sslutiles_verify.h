/* Whom the agent takes for its collection server, when CAFILE is configured: a host whose
 * certificate leads to one of that file's, is valid now, is meant for servers and bears the name or
 * the address that USEHOST gives. Without CAFILE nothing of this is called.
 *
 * Names and addresses are the subject alternative names of the certificate; its common name is not
 * looked at. A wildcard stands for one whole label, the first: "*.example.org" is www.example.org,
 * "w*.example.org" is nobody.
 *
 * Poll thread only, with cancellation off. Nothing here waits for a peer. Failures are logged here
 * at level 0, once. */
#ifndef VINDRAL_SSLUTILES_VERIFY_H
#define VINDRAL_SSLUTILES_VERIFY_H

#include <openssl/types.h>

/* Makes a session, of a context with that file (sslutiles_context.h), name `host` in the handshake
 * and accept nobody else; a host that is an IP address is looked for among the certificate's
 * addresses and not named. A dot at the end of the host does not count. Returns 1, or 0 for a host
 * that is empty or begins with a dot, and without memory. */
int expect_server(SSL* session, const char* host);

/* What came of it, after SSL_connect; `connected` says that it succeeded. Returns 1 when the server
 * is the one expected, or the handshake failed for another reason, else 0. */
int check_server(SSL* session, bool connected, const char* host, const char* ca_file);

#endif

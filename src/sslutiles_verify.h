/* Whom the agent takes for its collection server, when CAFILE is configured: a host whose
 * certificate leads to one of that file's, is valid now, is meant for servers and bears the name or
 * the address that USEHOST gives. Without CAFILE nothing of this is called.
 *
 * Names and addresses are the subject alternative names of the certificate; its common name is not
 * looked at. A wildcard stands for one whole label, the first: "*.example.org" is www.example.org,
 * "w*.example.org" is nobody.
 *
 * The file is PEM, of as many certificates as one likes. Each is trusted as it is, be it a root, an
 * authority below one, or the server's own; revocation lists are not looked at. It is read by the
 * first poll and again by the first poll after it has changed (another file under the name, another
 * size, another time), so authorities are exchanged without a restart. A file that will not do
 * makes polls fail until it is mended: what was trusted before it is not trusted any more.
 *
 * Poll thread only, with cancellation off. Nothing here waits for a peer. Failures are logged here
 * at level 0, once. */
#ifndef VINDRAL_SSLUTILES_VERIFY_H
#define VINDRAL_SSLUTILES_VERIFY_H

#include <openssl/types.h>

/* The context for sessions that verify with `ca_file`; it stays this module's and serves until the
 * next call. Null when the library lacks a function that this takes, or the file cannot be read or
 * holds no certificate. */
SSL_CTX* verifying_context(const char* ca_file);

/* Makes a session of that context name `host` in the handshake and accept nobody else; a host that
 * is an IP address is looked for among the certificate's addresses and not named. A dot at the end
 * of the host does not count. Returns 1, or 0 for a host that is empty or begins
 * with a dot, and without memory. */
int expect_server(SSL* session, const char* host);

/* What came of it, after SSL_connect; `connected` says that it succeeded. Returns 1 when the server
 * is the one expected, or the handshake failed for another reason, else 0. */
int check_server(SSL* session, bool connected, const char* host, const char* ca_file);

#endif

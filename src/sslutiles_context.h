/* What the TLS sessions of polls are made from when the configuration names files for them: CAFILE,
 * whom the agent takes for its server (sslutiles_verify.h), and CERTFILE with KEYFILE, by which the
 * server knows the agent. Without any of the three nothing of this is called, but for the start's
 * check_certificate, which then does nothing.
 *
 * CAFILE is PEM, of as many certificates as one likes. Each is trusted as it is, be it a root, an
 * authority below one, or the server's own; revocation lists are not looked at.
 *
 * CERTFILE is PEM: the agent's own certificate, then those that lead from it to the authority, if
 * there are any between. KEYFILE is PEM, the key of that certificate, not encrypted; it may be the
 * same file. The handshake shows them to a server that asks for a certificate. Whether it will do
 * is for the server to say: the agent looks at its dates only to warn.
 *
 * All are read by the first poll and again by the first poll after one of them has changed (another
 * file under the name, another size, another time), so they are exchanged without a restart. Files
 * that will not do make polls fail until they are mended: what was read before does not count any
 * more.
 *
 * Poll thread only, with cancellation off; check_certificate also before that thread exists.
 * Nothing here waits for a peer. Failures are logged here at level 0, once. */
#ifndef VINDRAL_SSLUTILES_CONTEXT_H
#define VINDRAL_SSLUTILES_CONTEXT_H

#include <openssl/types.h>

/* Null is a key that the configuration does not have, empty one without a value. */
struct poll_files {
    const char* authorities; /* CAFILE */
    const char* certificate; /* CERTFILE */
    const char* key;         /* KEYFILE */
};

/* The context for sessions with these files, of which at least one is configured; it stays this
 * module's and serves until the next call. Null when the library lacks a function that this takes,
 * a file cannot be read or does not hold what it should, the key is not that of the certificate, or
 * one of these two is not configured. */
SSL_CTX* poll_context(const poll_files& files);

/* Logs at the start what poll_context would say against certificate and key, and keeps nothing. */
void check_certificate(const char* certificate, const char* key);

/* A server that takes the certificate may let later handshakes resume this one, which saves both
 * ends certificates and signatures. What that takes is kept here, with the context, from each poll
 * that was answered, and dropped by one that was not. There are servers that offer it and cannot:
 * so none is resumed any more after such a handshake has failed, until one of the files changes. */
void resume_session(SSL* session);
void keep_session(SSL* session);
void drop_session(bool handshake_failed);

/* After a poll with a certificate that failed: says so if it was the certificate that the server
 * did not like. */
void log_refusal(const char* certificate);

/* To be called before that when it was a send that failed. Under TLS 1.3 a server looks at the
 * certificate when the agent has begun to send: its word may lie unread in the session. */
void read_refusal(SSL* session);

#endif

/* The client of the custom-monitor API: posts text results one by one, in HTTP/1.0 over plain TCP,
 * so the account's keys, the token and the results travel in the clear.
 *
 * api_server, api_port and api_url say where the token comes from, data_server, data_port and
 * data_url where results go; api_key and secret_key are the account's (all in vindral_config.h).
 * The keys and the token stand in the request line as they are, not encoded; a key that is not
 * configured goes out as "(null)". The Host header names the API's host even when results go to
 * another one.
 *
 * A reply counts by one key of its JSON body and the text in quotes behind it, whatever that is and
 * whatever the HTTP status says. The key has to end within the announced content length, so a reply
 * without a Content-Length is none; the value may lie beyond that length.
 *
 * Each call opens one connection and gives it 10 seconds, the resolution of a host name apart;
 * nothing is tried again. Failures are logged here at level 0. At level 1 the log shows the token,
 * at level 5 whole requests and replies.
 *
 * From one thread at a time: auth_token has no lock. A cancellation ends the thread in a wait; all
 * that the call holds is given back. */
#ifndef VINDRAL_SSLUTILES_API_H
#define VINDRAL_SSLUTILES_API_H

#include "vindral_common.h"

/* malloc'd; null until the first is fetched, then kept until the next is: a token that the API no
 * longer accepts is noticed by nobody. */
extern char* auth_token;

/* Fetches a token into auth_token. Returns 1, or 0 with the token as it was. */
int get_auth_token();

/* Posts results in order, after fetching a token when there is none. A result whose text is null or
 * empty goes out without one. Returns how many were answered with a status, 0 for null or a count
 * below 1. The results stay the caller's.
 *
 * The first reply ends the connection, so a second result fails: callers that want more than one
 * posted call once for each. */
int send_data(test_result** results, int res_count);

#endif

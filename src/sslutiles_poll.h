/* The poll exchange with the collection server. */
#ifndef VINDRAL_SSLUTILES_POLL_H
#define VINDRAL_SSLUTILES_POLL_H

#include <cstddef>

extern char* alt_version; /* nothing in the agent sets it: "3.0" goes out */
extern char* szSessionID; /* malloc'd; null when not logged in */

int make_poll(const char* bdatasend, unsigned long sendsize, char** strresp, size_t* respsize);

#endif

/* Name resolution for threads with small stacks that may be cancelled.
 *
 * getaddrinfo is neither: the resolver's modules take tens of kilobytes of stack, and a thread that
 * is cancelled inside them leaves their locks taken and their memory lost. So a numeric host is
 * converted right here, which needs no module, and a name goes to a short-lived detached thread
 * ("resolver", 256 KB of stack, all signals blocked but SIGSEGV) for which the caller waits. A
 * caller that is cancelled leaves the resolver behind; the last of the two frees what they share.
 */
#ifndef VINDRAL_RESOLVE_H
#define VINDRAL_RESOLVE_H

#include <memory>
#include <netdb.h>

/* What a resolution has found. */
struct free_addresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using host_addresses = std::unique_ptr<addrinfo, free_addresses>;

/* Resolves like getaddrinfo with the same arguments and returns its code, EAI_MEMORY also when
 * there is no memory for the helper's order. On 0 the caller frees *list with freeaddrinfo;
 * otherwise *list is untouched.
 *
 * Waits as long as the resolver takes: its own time-outs (/etc/resolv.conf) are the only limit. The
 * wait is a cancellation point even when the caller has cancellation off. From any thread. When no
 * helper thread can be created, the name is resolved on the calling thread. */
int resolve_host(const char* host, const char* port, const addrinfo* hints, addrinfo** list);

#endif

#include "budget.h"
#include "resolve.h"
#include "stream.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

struct free_address_list {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, free_address_list>;

/* A socket for the first address of the list that one can be made for; *chosen is that address.
 * Requests go out at once: otherwise the first one behind a TLS handshake is held back until the
 * peer has acknowledged the handshake's end, which it may put off for 40 ms. */
static unique_fd open_socket(addrinfo* list, addrinfo** chosen) {
    for (addrinfo* a = list; a != nullptr; a = a->ai_next) {
        unique_fd sk(socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol));
        if (sk) {
            const int at_once = 1;
            (void)setsockopt(sk.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
            *chosen = a;
            return sk;
        }
    }
    return unique_fd();
}

static connect_end make_nonblocking(int sk) {
    int flags = fcntl(sk, F_GETFL, 0);
    if (flags < 0) {
        return connect_end::flags_unknown;
    }
    return fcntl(sk, F_SETFL, flags | O_NONBLOCK) < 0 ? connect_end::stays_blocking
                                                      : connect_end::connected;
}

/* Waits for a connect that is under way. */
static connect_end finish_connect(int sk, long budget_us) {
    int ready = wait_socket(sk, POLLOUT, &budget_us);
    if (ready < 0 && errno != EINTR) {
        return connect_end::failed;
    }
    if (ready <= 0) {
        return connect_end::timed_out;
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(sk, SOL_SOCKET, SO_ERROR, &error, &size) < 0) {
        return connect_end::outcome_unknown;
    }
    errno = error;
    return error != 0 ? connect_end::failed_in_the_end : connect_end::connected;
}

static connect_end connect_within(int sk, const addrinfo* address, long budget_us) {
    if (connect(sk, address->ai_addr, address->ai_addrlen) == 0) {
        return connect_end::connected;
    }
    return errno == EINPROGRESS ? finish_connect(sk, budget_us) : connect_end::failed;
}

/* Errors are in errno. */
static connect_end open_within(const addrinfo* address, int sk, long* budget_us) {
    connect_end end = make_nonblocking(sk);
    if (end != connect_end::connected) {
        return end;
    }
    struct timeval start;
    gettimeofday(&start, nullptr);
    end = connect_within(sk, address, *budget_us);
    int error = errno;
    charge_budget(budget_us, &start);
    errno = error;
    return end;
}

connect_outcome stream_connect(const char* host, const char* port, long* budget_us) {
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* resolved = nullptr;
    int failed = resolve_host(host, port, &hints, &resolved);
    if (failed) {
        return {unique_fd(), connect_end::not_resolved, failed};
    }
    address_list list(resolved);
    addrinfo* address = nullptr;
    unique_fd sk = open_socket(list.get(), &address);
    if (!sk) {
        return {unique_fd(), connect_end::no_socket, errno};
    }
    connect_end end = open_within(address, sk.get(), budget_us);
    if (end != connect_end::connected) {
        return {unique_fd(), end, errno};
    }
    return {std::move(sk), end, 0};
}

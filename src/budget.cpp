#include "budget.h"

#include "guards.h"
#include "vindral_common.h"

#include <algorithm>
#include <poll.h>

void charge_budget(long* budget_us, struct timeval* start) {
    *budget_us -= get_timevaldiff(start, nullptr);
}

/* As ppoll, with cancellation on, charged. */
static int charged_poll(pollfd* waited, nfds_t count, long us, long* budget_us) {
    struct timeval start;
    gettimeofday(&start, nullptr);
    timespec timeout = {us / US_PER_SECOND, us % US_PER_SECOND * 1000};
    int ready;
    {
        cancel_on may_end;
        ready = ppoll(waited, count, &timeout, nullptr);
    }
    charge_budget(budget_us, &start);
    return ready;
}

int wait_socket(int sk, short events, long* budget_us) {
    if (sk < 0) {
        errno = EBADF;
        return -1;
    }
    if (*budget_us < 0) {
        return 0;
    }
    pollfd waited = {sk, events, 0};
    int ready = charged_poll(&waited, 1, *budget_us, budget_us);
    if (ready == 0) {
        *budget_us = std::min(*budget_us, 0L); /* whatever the clock says */
    }
    if (ready > 0 && (waited.revents & POLLNVAL)) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

void pause_within(long us, long* budget_us) {
    charged_poll(nullptr, 0, std::min(*budget_us, us), budget_us);
}

/* Waiting for a descriptor within a budget of time.
 *
 * The steps of one exchange draw on one budget in microseconds, which the caller owns. What a step
 * takes by the wall clock is subtracted, so the exchange as a whole never takes longer than the
 * budget that it began with; the budget may end negative. A budget that is negative before a wait
 * is a time-out at once.
 *
 * Waits open cancellation (cancel_on) even when the caller has it off. */
#ifndef VINDRAL_BUDGET_H
#define VINDRAL_BUDGET_H

inline constexpr long US_PER_SECOND = 1000000;

/* Waits until `sk` is ready for `events` (POLLIN or POLLOUT, errors count as ready) or the budget
 * is used up, and charges the time. Returns 1 when ready, 0 on time-out, -1 with errno. Any
 * descriptor number will do. */
int wait_socket(int sk, short events, long* budget_us);

/* Waits for nothing but the time, `us` or what is left of the budget, and charges it. */
void pause_within(long us, long* budget_us);

/* Subtracts the microseconds since `start` from the budget. */
void charge_budget(long* budget_us, struct timeval* start);

#endif

/* Waits until a time of day, by a clock that nobody sets. */
#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>
#include <pthread.h>

/* What the two clocks show, and the end of the last wait. */
static timespec real, steady, end;
static clockid_t clock_of_wait;

static int shown_time(clockid_t clock, timespec* now) {
    *now = clock == CLOCK_REALTIME ? real : steady;
    return 0;
}
static int recorded_wait(pthread_cond_t*, pthread_mutex_t*, clockid_t clock,
                         const timespec* until) {
    clock_of_wait = clock;
    end = *until;
    return ETIMEDOUT;
}
#define clock_gettime shown_time
#define pthread_cond_clockwait recorded_wait
#include "guards.h"
#undef clock_gettime
#undef pthread_cond_clockwait

static int wait_until(timespec deadline) {
    static condition c;
    static mutex m;
    lock hold(m);
    return condition_wait_until(c, m, deadline);
}

TEST(guards, a_wait_lasts_as_long_as_the_clock_says_now) {
    const timespec cases[][4] = {
        /* time of day, the other clock, deadline, end of the wait */
        {{1000, 0}, {50, 0}, {1060, 0}, {110, 0}},
        {{1000, 400000000}, {50, 200000000}, {1060, 0}, {109, 800000000}},
        {{1000, 400000000}, {50, 900000000}, {1060, 700000000}, {111, 200000000}},
        {{1000, 1}, {50, 0}, {1000, 0}, {49, 999999999}},
        {{1000, 0}, {50, 500000000}, {1001, 500000000}, {52, 0}},
        {{1000, 999999999}, {50, 0}, {2000, 0}, {1049, 1}},
        {{86400 * 365, 0}, {50, 0}, {86400, 0}, {50 - 86400 * 364, 0}}, /* over long ago */
    };
    for (const auto& c : cases) {
        real = c[0];
        steady = c[1];
        EXPECT_EQ(wait_until(c[2]), ETIMEDOUT);
        EXPECT_EQ(clock_of_wait, CLOCK_MONOTONIC);
        EXPECT_EQ(end.tv_sec, c[3].tv_sec);
        EXPECT_EQ(end.tv_nsec, c[3].tv_nsec);
    }
}

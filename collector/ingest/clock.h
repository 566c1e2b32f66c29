/* The clocks of the thread that stores; a test pins them. */
#ifndef VINDRAL_COLLECTOR_CLOCK_H
#define VINDRAL_COLLECTOR_CLOCK_H

#include <cstdint>

/* Seconds since the epoch, by which polls arrive. May jump. */
extern int64_t (*arrival_clock)();
/* Seconds since the start of the machine, its sleep included. Never jumps. */
extern int64_t (*steady_clock)();
/* A number of this start of the machine, from which on steady_clock counts. */
extern int64_t (*boot_number)();

/* What they are outside of tests. */
int64_t epoch_seconds();
int64_t boot_seconds();
int64_t read_boot_number();

/* Day of a time, in days since the epoch, and where it begins. */
constexpr int64_t day_seconds = 86400;
constexpr int64_t day_of(int64_t seconds) {
    return seconds / day_seconds - (seconds % day_seconds < 0);
}
constexpr int64_t start_of(int64_t day) {
    return day * day_seconds;
}

/* 2026-01-01. A clock that says less is wrong: there was no collector yet. */
constexpr int64_t earliest_day = 20454;

#endif

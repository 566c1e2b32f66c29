/* A library for which time goes by without any passing: the clocks of the program are put forward,
 * by ten minutes while a session opens and by five minutes and a half second during an exchange.
 * To be included by one file of a program, because it brings clock_gettime along. */
#ifndef VINDRAL_SLOW_LIBRARY_H
#define VINDRAL_SLOW_LIBRARY_H

#include "snmpmon_lib.h"

#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

inline long clock_ahead_ms = 0;

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    long nanoseconds = now->tv_nsec + clock_ahead_ms % 1000 * 1000000;
    now->tv_sec += clock_ahead_ms / 1000 + nanoseconds / 1000000000;
    now->tv_nsec = nanoseconds % 1000000000;
    return result;
}

/* In place of the library's functions for its lifetime. */
struct slow_library {
    static constexpr long OPEN_MS = 600000, EXCHANGE_MS = 300500;

    slow_library() {
        open() = libpo_snmp_open;
        exchange() = libpo_snmp_synch_response;
        libpo_snmp_open = [](netsnmp_session* settings) {
            netsnmp_session* opened = open()(settings);
            clock_ahead_ms = OPEN_MS;
            return opened;
        };
        libpo_snmp_synch_response = [](netsnmp_session* session, netsnmp_pdu* request,
                                       netsnmp_pdu** response) {
            int status = exchange()(session, request, response);
            clock_ahead_ms += EXCHANGE_MS;
            return status;
        };
    }
    ~slow_library() {
        libpo_snmp_open = open();
        libpo_snmp_synch_response = exchange();
        clock_ahead_ms = 0;
    }
    slow_library(const slow_library&) = delete;
    slow_library& operator=(const slow_library&) = delete;

private:
    static decltype(libpo_snmp_open)& open() {
        static decltype(libpo_snmp_open) real;
        return real;
    }
    static decltype(libpo_snmp_synch_response)& exchange() {
        static decltype(libpo_snmp_synch_response) real;
        return real;
    }
};

#endif

/* What the collector counts of itself, for whoever watches it. Written by the threads that do the
 * work, relaxed; read by any. All but gauges only rise from the start of the process. */
#ifndef VINDRAL_COLLECTOR_COUNTERS_H
#define VINDRAL_COLLECTOR_COUNTERS_H

#include "ingest/pulse.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

class counter {
public:
    void operator+=(uint64_t n) { value_.fetch_add(n, std::memory_order_relaxed); }
    void operator++() { *this += 1; }
    void set(uint64_t n) { value_.store(n, std::memory_order_relaxed); } /* of a gauge */
    uint64_t get() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> value_{0};
};

/* Why a connection or an exchange was refused or given up. Each has a word (refusal_word). */
enum class refusal : uint8_t {
    connections, /* all places taken */
    address,     /* those of its address taken */
    memory,      /* its body or answer did not fit, or it made room for another's */
    tls,         /* no handshake, or none in time */
    request,     /* no sense in it, or not whole in time */
    account,     /* may not log in */
    unknown,     /* has to be admitted before it may log in */
    unproven,    /* has shown no certificate where it has to */
    identity,    /* its certificate is no good, or of another name */
    enrolment,   /* gets no certificate, or not now */
    name,        /* another host has the name */
    session,     /* to log in again */
    body,        /* too large, or cannot be unpacked */
    storing,     /* cannot be stored now */
    behind,      /* others wait too long to be stored already */
    logins,      /* too many log in at a time */
    count
};
const char* refusal_word(refusal r);

/* How long something took: cumulative counts up to each bound, in seconds. */
class duration_counter {
public:
    static constexpr std::array<double, 10> bounds = {0.001, 0.0025, 0.005, 0.01, 0.025,
                                                      0.05,  0.1,    0.25,  1,    5};
    void add(double seconds);
    uint64_t count(size_t bound) const { return counts_[bound].get(); } /* below or equal */
    uint64_t all() const { return all_.get(); }
    double sum() const { return static_cast<double>(sum_us_.get()) / 1e6; }

private:
    std::array<counter, bounds.size()> counts_;
    counter all_, sum_us_;
};

struct counters {
    counter connections;                   /* accepted */
    counter open_connections;              /* gauge */
    counter logins, polls, repeated_polls; /* answered as such */
    std::array<counter, static_cast<size_t>(refusal::count)> refusals;
    void refused(refusal why) { ++refusals[static_cast<size_t>(why)]; }
    counter body_bytes;           /* as sent */
    counter results, undecodable; /* records */
    duration_counter commits;     /* a batch, begun to committed */
    counter stored_bytes;         /* of records */
    counter store_failures;       /* blocks that could not be stored when they came */
    duration_counter waited;      /* a block, from its arrival to its commit: the lag */
    counter events;
    counter sessions; /* gauge */
    store_pulse pulse;
};

#endif

/* The directory undecodable/: what agents sent that is no record, for somebody to look at.
 *
 * Whoever reaches the port can send such bytes, so there are limits on how much is there, on how
 * much of that is one agent's, and on how many files are written in an hour. Within them nothing is
 * dropped unseen: what is new takes the place of the agent's own oldest files, and where all agents
 * together have too much, of the oldest of whoever has most. Only what comes faster than the rate
 * is not kept; it is counted, and the count is for the log. Results are never refused for the sake
 * of such bytes: an agent would send them again for ever, with all its results behind them.
 *
 * A file is named YYYYMMDD-AGENT-BLOCK.bin: the day of arrival in UTC and the beginnings of two
 * hashes. What is there is read from the directory whenever something is added, so files may be
 * removed at any time. One thread. */
#ifndef VINDRAL_COLLECTOR_UNDECODABLE_H
#define VINDRAL_COLLECTOR_UNDECODABLE_H

#include "protocol/record.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

struct undecodable_limits {
    size_t file = 16u << 20; /* bytes of one file; what is longer is cut */
    size_t bytes = 256u << 20, bytes_per_agent = 32u << 20;
    size_t files = 1000, files_per_agent = 100;
    size_t rate = 200, rate_per_agent = 20; /* files written in an hour */
};

/* What the pieces of a run of records amount to that are none. */
struct undecodable_summary {
    size_t bytes = 0, pieces = 0;
    size_t offset = 0; /* of the first, in what was walked */
    std::string reason;

    void add(const block_reader& at); /* which is not good */
    std::string text() const;         /* the reason, and how many more pieces there are */
};

class undecodable_files {
public:
    using clock = std::chrono::steady_clock;

    explicit undecodable_files(std::string directory, const undecodable_limits& limits = {});

    enum class outcome {
        kept,    /* synced to disk */
        dropped, /* too many came; counted */
        failed   /* no disk, most likely; nothing is left of it */
    };

    /* Keeps the pieces of `records` that are no records. `account` and `agent` say whose they are,
     * `hash` what they came in: the same hash means the same file, which is not written twice. On
     * `kept`, `path` is the file; on `failed`, `error` is why. */
    outcome keep(std::string_view account, std::string_view agent, int64_t received,
                 std::string_view hash, std::string_view records, size_t bytes,
                 clock::time_point now, std::string& path, std::string& error);

    /* Removes what came on other days (YYYYMMDD). */
    void keep_days(const std::vector<std::string>& days);

    /* A line about what was dropped since the last one; empty when nothing was, or when the last
     * one is less than an hour ago. */
    std::string report(clock::time_point now);

private:
    struct file;
    bool make_room(const std::string& agent, size_t bytes);
    bool within_rate(const std::string& agent, clock::time_point now);

    const std::string directory_;
    const undecodable_limits limits_;
    struct written {
        clock::time_point when;
        std::string agent;
    };
    std::deque<written> written_; /* in the last hour */
    size_t dropped_ = 0, dropped_bytes_ = 0;
    std::string dropped_from_;
    clock::time_point reported_{};
    bool reported_once_ = false;
};

#endif

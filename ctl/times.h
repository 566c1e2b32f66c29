/* Times as people write and read them. Those without a zone are local ones (TZ). Seconds since the
 * epoch. */
#ifndef VINDRAL_CTL_TIMES_H
#define VINDRAL_CTL_TIMES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/* What read_time() takes, for messages and help. */
inline constexpr const char time_forms[] = "-2h or +30d (s, m, h, d, w), now, today, yesterday, "
                                           "12:30, 2026-05-01, \"2026-05-01 12:30\" or "
                                           "2026-05-01T12:30:00Z";

/* One of the time_forms: "-1h30m" is that long before `now`, "+1d" after it, a day is its first
 * second, a time without a day is one of today. None for what is no time, or no year from 1970 to
 * 9999. */
std::optional<int64_t> read_time(std::string_view text, int64_t now);

/* RFC 3339 only: "2026-05-01T12:00:00Z", with an offset and a fraction, which is cut off, too. */
std::optional<int64_t> read_rfc3339(std::string_view text);

/* "2026-05-01T12:00:00Z" */
std::string rfc3339(int64_t seconds);

/* "2026-05-01 14:00:00", local. */
std::string local_time(int64_t seconds);

/* How long, in one or two units: "12s", "3m", "4h05m", "5d03h", "120d". Negative ones are "0s". */
std::string span_text(int64_t seconds);

struct time_tick {
    int64_t time = 0;
    std::string label; /* "14:00", "1 May" at midnight, "14:00:30" or "2026-05-01" where that says
                          more */
};

/* Round local times within [from, to), about as many as `most` and never more. */
std::vector<time_tick> time_ticks(int64_t from, int64_t to, size_t most);

#endif

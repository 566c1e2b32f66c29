#include "ctl/times.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iterator>

namespace {

constexpr int64_t minute_s = 60, hour_s = 3600, day_s = 86400;
constexpr int64_t last_second = 253402300799; /* of the year 9999 */

const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::string formatted(const char* format, int a, int b, int c) {
    char text[48];
    snprintf(text, sizeof text, format, a, b, c);
    return text;
}

tm local_parts(int64_t seconds) {
    time_t when = seconds;
    tm parts{};
    localtime_r(&when, &parts);
    return parts;
}

/* Of local parts, which may lie outside of their bounds. */
int64_t local_seconds(tm parts) {
    parts.tm_isdst = -1;
    return mktime(&parts);
}

/* The first second of the local day `days` after that of `seconds`. */
int64_t local_midnight(int64_t seconds, int days = 0) {
    tm parts = local_parts(seconds);
    parts.tm_mday += days;
    parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
    return local_seconds(parts);
}

/* Reads from the front, and is no good any more once something was not there. */
class reader {
public:
    explicit reader(std::string_view text) : rest_(text) {}

    /* That many digits. */
    int digits(size_t count) {
        int number = 0;
        for (size_t i = 0; i < count; i++) {
            if (i >= rest_.size() || rest_[i] < '0' || rest_[i] > '9') {
                good_ = false;
                return 0;
            }
            number = number * 10 + (rest_[i] - '0');
        }
        rest_.remove_prefix(count);
        return number;
    }
    /* Whether one of these stood there, which is then behind us. */
    bool skip(std::string_view any) {
        if (rest_.empty() || any.find(rest_[0]) == std::string_view::npos) {
            return false;
        }
        rest_.remove_prefix(1);
        return true;
    }
    void want(std::string_view any) { good_ = skip(any) && good_; }
    bool is_good() const { return good_; }
    bool is_at_end() const { return rest_.empty(); }

private:
    std::string_view rest_;
    bool good_ = true;
};

bool is_day(int year, int month, int day) {
    static const int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (year < 1970 || month < 1 || month > 12 || day < 1) {
        return false;
    }
    bool is_leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return day <= lengths[month - 1] + (month == 2 && is_leap ? 1 : 0);
}

struct clock_time {
    int hour = 0, minute = 0, second = 0;
    bool is_one() const { return hour < 24 && minute < 60 && second <= 60; }
};

/* "12:30" or "12:30:15"; `whole`: the seconds have to be there. */
clock_time read_clock(reader& from, bool whole) {
    clock_time t;
    t.hour = from.digits(2);
    from.want(":");
    t.minute = from.digits(2);
    if (whole) {
        from.want(":");
        t.second = from.digits(2);
    } else if (from.skip(":")) {
        t.second = from.digits(2);
    }
    return t;
}

std::optional<int64_t> within_years(int64_t seconds) {
    return seconds >= 0 && seconds <= last_second ? std::optional(seconds) : std::nullopt;
}

/* A day, or a day and a time, or a time of today: local. */
std::optional<int64_t> read_local(std::string_view text, int64_t now) {
    tm parts = local_parts(now);
    reader from(text);
    clock_time clock;
    if (text.size() > 2 && text[2] == ':') {
        clock = read_clock(from, false);
    } else {
        int year = from.digits(4);
        from.want("-");
        int month = from.digits(2);
        from.want("-");
        int day = from.digits(2);
        if (from.is_good() && from.skip(" T")) {
            clock = read_clock(from, false);
        }
        if (!is_day(year, month, day)) {
            return std::nullopt;
        }
        parts.tm_year = year - 1900;
        parts.tm_mon = month - 1;
        parts.tm_mday = day;
    }
    if (!from.is_good() || !from.is_at_end() || !clock.is_one()) {
        return std::nullopt;
    }
    parts.tm_hour = clock.hour;
    parts.tm_min = clock.minute;
    parts.tm_sec = clock.second;
    return within_years(local_seconds(parts));
}

/* "2h", "1h30m": behind the minus. */
std::optional<int64_t> read_span(std::string_view text) {
    int64_t sum = 0;
    if (text.empty()) {
        return std::nullopt;
    }
    while (!text.empty()) {
        int64_t number = 0;
        size_t digits = 0;
        while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9' && digits < 12) {
            number = number * 10 + (text[digits++] - '0');
        }
        if (digits == 0 || digits == text.size()) {
            return std::nullopt;
        }
        switch (text[digits]) {
        case 's':
            break;
        case 'm':
            number *= minute_s;
            break;
        case 'h':
            number *= hour_s;
            break;
        case 'd':
            number *= day_s;
            break;
        case 'w':
            number *= 7 * day_s;
            break;
        default:
            return std::nullopt;
        }
        sum += number;
        if (sum > last_second) {
            return std::nullopt;
        }
        text.remove_prefix(digits + 1);
    }
    return sum;
}

} // namespace

std::optional<int64_t> read_rfc3339(std::string_view text) {
    reader from(text);
    tm parts{};
    int year = from.digits(4);
    from.want("-");
    int month = from.digits(2);
    from.want("-");
    int day = from.digits(2);
    from.want("Tt ");
    clock_time clock = read_clock(from, true);
    if (from.skip(".")) {
        from.digits(1);
        while (from.skip("0123456789")) {
        }
    }
    int64_t ahead = 0;
    if (!from.skip("Zz")) {
        bool is_west = from.skip("-");
        if (!is_west) {
            from.want("+");
        }
        int hours = from.digits(2);
        from.want(":");
        int minutes = from.digits(2);
        if (hours > 23 || minutes > 59) {
            return std::nullopt;
        }
        ahead = (hours * hour_s + minutes * minute_s) * (is_west ? -1 : 1);
    }
    if (!from.is_good() || !from.is_at_end() || !clock.is_one() || !is_day(year, month, day)) {
        return std::nullopt;
    }
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = clock.hour;
    parts.tm_min = clock.minute;
    parts.tm_sec = clock.second;
    return within_years(timegm(&parts) - ahead);
}

std::optional<int64_t> read_time(std::string_view text, int64_t now) {
    if (text == "now") {
        return now;
    }
    if (text == "today" || text == "yesterday") {
        return local_midnight(now, text == "today" ? 0 : -1);
    }
    if (text.starts_with('-') || text.starts_with('+')) {
        std::optional<int64_t> span = read_span(text.substr(1));
        return span ? within_years(text[0] == '-' ? now - *span : now + *span) : std::nullopt;
    }
    std::optional<int64_t> exact = read_rfc3339(text);
    return exact ? exact : read_local(text, now);
}

std::string rfc3339(int64_t seconds) {
    time_t when = seconds;
    tm parts{};
    gmtime_r(&when, &parts);
    char text[64];
    return std::string(text, strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts));
}

std::string local_time(int64_t seconds) {
    tm parts = local_parts(seconds);
    char text[64];
    return std::string(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts));
}

std::string span_text(int64_t seconds) {
    seconds = std::max<int64_t>(seconds, 0);
    if (seconds < minute_s) {
        return std::to_string(seconds) + "s";
    }
    if (seconds < hour_s) {
        return std::to_string(seconds / minute_s) + "m";
    }
    if (seconds < day_s) {
        return formatted("%dh%02dm", static_cast<int>(seconds / hour_s),
                         static_cast<int>(seconds % hour_s / minute_s), 0);
    }
    if (seconds < 100 * day_s) {
        return formatted("%dd%02dh", static_cast<int>(seconds / day_s),
                         static_cast<int>(seconds % day_s / hour_s), 0);
    }
    return std::to_string(seconds / day_s) + "d";
}

namespace {

std::string tick_label(int64_t time, int64_t step) {
    tm parts = local_parts(time);
    if (step >= 28 * day_s) {
        return formatted("%04d-%02d-%02d", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday);
    }
    if (parts.tm_hour == 0 && parts.tm_min == 0 && parts.tm_sec == 0) {
        return std::to_string(parts.tm_mday) + " " + months[parts.tm_mon];
    }
    if (step < minute_s) {
        return formatted("%02d:%02d:%02d", parts.tm_hour, parts.tm_min, parts.tm_sec);
    }
    return formatted("%02d:%02d", parts.tm_hour, parts.tm_min, 0);
}

/* All of a step, by the local clock: each day begins anew. */
std::vector<time_tick> ticks_of_step(int64_t from, int64_t to, int64_t step) {
    std::vector<time_tick> ticks;
    const int64_t days_a_step = std::max<int64_t>(step / day_s, 1);
    for (int64_t day = local_midnight(from); day < to;) {
        tm parts = local_parts(day);
        /* Of the same days whatever the range begins with. */
        tm as_utc = parts;
        const int64_t number = timegm(&as_utc) / day_s;
        const int64_t next = local_midnight(day, 1);
        if (number % days_a_step == 0) {
            /* By the clock, which a change of time moves by two hours at the most. */
            const int64_t least = std::max<int64_t>((from - day - 2 * hour_s) / step * step, 0);
            int64_t last = INT64_MIN;
            for (int64_t second = least; second < (step < day_s ? day_s : 1); second += step) {
                parts.tm_hour = static_cast<int>(second / hour_s);
                parts.tm_min = static_cast<int>(second % hour_s / minute_s);
                parts.tm_sec = static_cast<int>(second % minute_s);
                int64_t time = local_seconds(parts);
                if (time >= to) {
                    break;
                }
                if (time >= from && time > last && time < next) {
                    ticks.push_back({time, tick_label(time, step)});
                    last = time;
                }
            }
        }
        if (next <= day) { /* no such calendar */
            break;
        }
        day = next;
    }
    return ticks;
}

} // namespace

std::vector<time_tick> time_ticks(int64_t from, int64_t to, size_t most) {
    static const int64_t steps[] = {
        1,          2,          5,           10,          15,          30,          60,
        120,        300,        600,         900,         1800,        3600,        2 * hour_s,
        3 * hour_s, 6 * hour_s, 12 * hour_s, day_s,       2 * day_s,   7 * day_s,   14 * day_s,
        28 * day_s, 56 * day_s, 91 * day_s,  182 * day_s, 364 * day_s, 728 * day_s, 3640 * day_s};
    if (from >= to || most == 0) {
        return {};
    }
    for (int64_t step : steps) {
        if ((to - from) / step > static_cast<int64_t>(most)) {
            continue;
        }
        std::vector<time_tick> ticks = ticks_of_step(from, to, step);
        if (ticks.size() <= most) {
            return ticks;
        }
    }
    return {};
}

#include "api/encoding.h"

#include "base/text.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>

namespace {

int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/* Takes a number of so many digits from the beginning. */
bool take_number(std::string_view& text, size_t count, int& value) {
    value = 0;
    if (text.size() < count) {
        return false;
    }
    for (char c : text.substr(0, count)) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = 10 * value + (c - '0');
    }
    text.remove_prefix(count);
    return true;
}

bool take(std::string_view& text, std::string_view any_of) {
    if (text.empty() || any_of.find(text[0]) == std::string_view::npos) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

} // namespace

std::optional<std::string> percent_decoded(std::string_view text, bool plus_is_space) {
    std::string plain;
    plain.reserve(text.size());
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '+' && plus_is_space) {
            plain += ' ';
        } else if (text[i] != '%') {
            plain += text[i];
        } else {
            int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
            int low = high >= 0 ? hex_digit(text[i + 2]) : -1;
            if (low < 0) {
                return std::nullopt;
            }
            plain += static_cast<char>(16 * high + low);
            i += 2;
        }
    }
    return plain;
}

std::optional<int64_t> read_time(std::string_view text) {
    int year, month, day, hour, minute, second;
    if (!take_number(text, 4, year) || !take(text, "-") || !take_number(text, 2, month) ||
        !take(text, "-") || !take_number(text, 2, day) || !take(text, "Tt ") ||
        !take_number(text, 2, hour) || !take(text, ":") || !take_number(text, 2, minute) ||
        !take(text, ":") || !take_number(text, 2, second)) {
        return std::nullopt;
    }
    if (take(text, ".")) {
        size_t count = std::min(text.find_first_not_of("0123456789"), text.size());
        if (count == 0) {
            return std::nullopt;
        }
        text.remove_prefix(count);
    }
    int ahead = 0;
    if (!take(text, "Zz")) {
        bool is_behind = !text.empty() && text[0] == '-';
        int hours, minutes;
        if (!take(text, "+- ") || !take_number(text, 2, hours) || !take(text, ":") ||
            !take_number(text, 2, minutes) || hours > 23 || minutes > 59) {
            return std::nullopt;
        }
        ahead = (60 * hours + minutes) * (is_behind ? -60 : 60);
    }
    std::chrono::year_month_day date{std::chrono::year(year),
                                     std::chrono::month(static_cast<unsigned>(month)),
                                     std::chrono::day(static_cast<unsigned>(day))};
    if (!text.empty() || year < 1 || !date.ok() || hour > 23 || minute > 59 || second > 60) {
        return std::nullopt;
    }
    int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
    return days * 86400 + hour * 3600 + minute * 60 + second - ahead;
}

std::string time_text(int64_t seconds) {
    constexpr int64_t first = -62135596800, last = 253402300799;
    seconds = std::clamp(seconds, first, last);
    if (seconds >= 0) {
        return utc_time(seconds);
    }
    const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
    const auto midnight = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(midnight);
    const std::chrono::hh_mm_ss clock(time - midnight);
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
             static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
             static_cast<int>(clock.seconds().count()));
    return text;
}

std::optional<int64_t> read_integer(std::string_view text) {
    int64_t value = 0;
    auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    bool whole = failure == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(value) : std::nullopt;
}

bool has_text(std::string_view text, std::string_view part) {
    return part.empty() ||
           std::search(text.begin(), text.end(), part.begin(), part.end(),
                       [](char a, char b) { return lower(a) == lower(b); }) != text.end();
}

bool is_plain_text(std::string_view text) {
    for (size_t i = 0; i < text.size(); i++) {
        auto c = static_cast<unsigned char>(text[i]);
        bool is_c1 =
            c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0;
        if (c < 0x20 || c == 0x7f || is_c1) {
            return false;
        }
    }
    return valid_utf8(text) == text;
}

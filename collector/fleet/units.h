/* Quantities as people write them: "5 GB", "500MB", "10 %", "3m", "90s", "1h30m", "250ms", "1.5".
 * A time without a unit is one of seconds, a share may be without "%", a size has a unit; megabytes
 * and gigabytes are of 2^20 and 2^30 bytes, as in everything that agents report ("MiB" and "GiB"
 * are the same). Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_UNITS_H
#define VINDRAL_COLLECTOR_FLEET_UNITS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/* Each returns none with what was expected in `expected` ("a size such as 500 MB"). Neither
 * negative numbers, exponents, infinities nor blanks inside of numbers are read. */
std::optional<double> read_bytes(std::string_view text, std::string& expected);
/* Bytes a second: "10 MB", "10 MB/s"; of "kbit", "Mbit" and "Gbit" eight are a byte, and each is a
 * thousand of the one before. */
std::optional<double> read_byte_rate(std::string_view text, std::string& expected);
std::optional<double> read_percent(std::string_view text, std::string& expected); /* "80 %", "80" */
std::optional<int64_t> read_milliseconds(std::string_view text, std::string& expected);
std::optional<int64_t> read_whole(std::string_view text, std::string& expected);
std::optional<double> read_real(std::string_view text, std::string& expected);

/* "1m30s", "250ms": as it would be written in a file. */
std::string duration_text(int64_t milliseconds);

/* What of `known` is likely to be meant: one or two letters away, or longer by its end; "" for
 * nothing. */
template <typename Words> /* of what a std::string_view can be made of */
std::string_view closest(std::string_view word, const Words& known);
size_t distance_of(std::string_view one, std::string_view other); /* of edits, of swaps too */
std::string in_small_letters(std::string_view text);              /* of ASCII */

template <typename Words>
std::string_view closest(std::string_view word, const Words& known) {
    const std::string meant = in_small_letters(word);
    std::string_view best, longer;
    size_t least = meant.size() < 4 ? 2 : 3; /* as many are too many */
    for (std::string_view each : known) {
        const size_t distance = distance_of(meant, in_small_letters(each));
        if (distance < least && distance < meant.size()) {
            least = distance;
            best = each;
        }
        if (meant.size() > 2 && each.starts_with(meant)) {
            longer = each;
        }
    }
    return best.empty() ? longer : best;
}

#endif

/* Text from outside made fit for a terminal, and times as text. */
#ifndef VINDRAL_COLLECTOR_TEXT_H
#define VINDRAL_COLLECTOR_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/* A copy that is safe to print: line ends, tabs and other blanks become a space (none at the end),
 * every other control or formatting character and every byte that is no UTF-8 becomes '?'. */
std::string printable(std::string_view text);

/* The columns that printable text takes on a terminal. */
size_t display_width(std::string_view text);

/* The longest beginning of printable text that takes at most `columns`, filled up with spaces. */
std::string fit_columns(std::string_view text, size_t columns);

/* The text, or what of it fits into `most` bytes as whole characters and " ..." behind them. */
std::string shortened(std::string text, size_t most);

/* A copy in which every byte that is no UTF-8 has become U+FFFD. */
std::string valid_utf8(std::string_view text);

/* "2026-05-01T12:00:00Z", or the plain number for a time that has no such form. */
std::string utc_time(int64_t seconds);

/* "20260501": the day, in UTC, of a time in the years 1970 to 9999; the nearest such day otherwise.
 */
std::string utc_day(int64_t seconds);

/* Without the blanks and tabs at both ends. */
std::string_view trimmed(std::string_view text);

/* Calls `each` with what stands between the separators, blanks and all: once for a text without
 * any, empty or not.
 */
template <typename Each>
void for_each_part(std::string_view text, char separator, const Each& each) {
    for (;;) {
        const size_t end = text.find(separator);
        each(text.substr(0, end));
        if (end == text.npos) {
            return;
        }
        text.remove_prefix(end + 1);
    }
}

#endif

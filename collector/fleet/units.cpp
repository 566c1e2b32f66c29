#include "fleet/units.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <system_error>

namespace {

constexpr size_t most_digits = 15; /* which a double holds exactly */

void skip_blanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

/* Takes "12" or "1.5" from the beginning. */
std::optional<double> take_number(std::string_view& text) {
    size_t digits = 0, length = 0;
    bool has_point = false;
    for (; length < text.size(); length++) {
        if (is_digit(text[length])) {
            digits++;
        } else if (text[length] == '.' && !has_point && length > 0) {
            has_point = true;
        } else {
            break;
        }
    }
    if (digits == 0 || digits > most_digits || text[length - 1] == '.') {
        return std::nullopt;
    }
    double number = 0;
    std::from_chars(text.data(), text.data() + length, number);
    text.remove_prefix(length);
    return number;
}

struct unit {
    std::string_view name; /* in small letters */
    double size;
};

/* Takes the letters from the beginning, small ones made of all. */
std::string take_letters(std::string_view& text) {
    std::string letters;
    while (!text.empty() && ((text[0] | 0x20) >= 'a' && (text[0] | 0x20) <= 'z')) {
        letters += static_cast<char>(text[0] | 0x20);
        text.remove_prefix(1);
    }
    return letters;
}

template <size_t N>
const unit* find_unit(const unit (&units)[N], std::string_view name) {
    const auto* found = std::find_if(std::begin(units), std::end(units),
                                     [&](const unit& u) { return u.name == name; });
    return found == std::end(units) ? nullptr : found;
}

constexpr double kilobyte = 1024, megabyte = kilobyte * 1024, gigabyte = megabyte * 1024,
                 terabyte = gigabyte * 1024;
constexpr unit sizes[] = {{"b", 1},          {"byte", 1},      {"bytes", 1},      {"kb", kilobyte},
                          {"kib", kilobyte}, {"mb", megabyte}, {"mib", megabyte}, {"gb", gigabyte},
                          {"gib", gigabyte}, {"tb", terabyte}, {"tib", terabyte}};
/* Networks count bits, and by thousands. */
constexpr unit bits[] = {{"bit", 1.0 / 8}, {"kbit", 1e3 / 8}, {"mbit", 1e6 / 8}, {"gbit", 1e9 / 8}};

constexpr double second = 1000, minute = 60 * second, hour = 60 * minute, day = 24 * hour;
constexpr unit times[] = {
    {"ms", 1},       {"s", second},       {"sec", second},     {"second", second}, {"m", minute},
    {"min", minute}, {"minute", minute},  {"h", hour},         {"hour", hour},     {"d", day},
    {"day", day},    {"seconds", second}, {"minutes", minute}, {"hours", hour},    {"days", day}};

/* "500 MB", of `units` or, where `more` is not null, of those. */
template <size_t N>
std::optional<double> read_in(std::string_view text, const unit (&units)[N]) {
    std::optional<double> number = take_number(text);
    skip_blanks(text);
    const unit* found = find_unit(units, take_letters(text));
    if (!number || found == nullptr || !text.empty()) {
        return std::nullopt;
    }
    return *number * found->size;
}

/* Each unit once, the greater ones first. A number alone is one of seconds. */
std::optional<double> read_times(std::string_view text) {
    double sum = 0, last = 2 * day;
    if (std::string_view alone = text; std::optional<double> number = take_number(alone)) {
        if (alone.empty()) {
            return *number * second;
        }
    }
    while (!text.empty()) {
        std::optional<double> number = take_number(text);
        skip_blanks(text);
        const unit* found = find_unit(times, take_letters(text));
        if (!number || found == nullptr || found->size >= last) {
            return std::nullopt;
        }
        last = found->size;
        sum += *number * found->size;
        skip_blanks(text);
    }
    return last < 2 * day ? std::optional<double>(sum) : std::nullopt;
}

} // namespace

std::optional<double> read_bytes(std::string_view text, std::string& expected) {
    expected = "a size with its unit, such as 500 MB or 5 GB";
    return read_in(text, sizes);
}

std::optional<double> read_byte_rate(std::string_view text, std::string& expected) {
    expected = "an amount per second with its unit, such as 10 MB or 100 Mbit";
    if (text.ends_with("/s")) {
        text.remove_suffix(2);
    }
    const std::optional<double> bytes = read_in(text, sizes);
    return bytes ? bytes : read_in(text, bits);
}

std::optional<double> read_percent(std::string_view text, std::string& expected) {
    expected = "a share in percent, such as 80 %";
    if (text.ends_with('%')) {
        text.remove_suffix(1);
        while (text.ends_with(' ')) {
            text.remove_suffix(1);
        }
    }
    const std::optional<double> number = take_number(text);
    return text.empty() ? number : std::nullopt;
}

std::optional<int64_t> read_milliseconds(std::string_view text, std::string& expected) {
    expected = "a time such as 5s, 250ms, 3m or 1h30m";
    const std::optional<double> found = read_times(text);
    if (!found || *found > 1e15 || std::abs(*found - std::round(*found)) > 1e-6) {
        return std::nullopt;
    }
    return std::llround(*found);
}

std::optional<int64_t> read_whole(std::string_view text, std::string& expected) {
    expected = "a whole number";
    int64_t number = 0;
    const bool is_number = !text.empty() && text.size() <= most_digits &&
                           std::all_of(text.begin(), text.end(), is_digit);
    if (!is_number) {
        return std::nullopt;
    }
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::optional<double> read_real(std::string_view text, std::string& expected) {
    expected = "a number, such as 5 or 1.5";
    const std::optional<double> number = take_number(text);
    return text.empty() ? number : std::nullopt;
}

std::string duration_text(int64_t milliseconds) {
    static constexpr struct {
        int64_t size;
        const char* name;
    } units[] = {{86'400'000, "d"}, {3'600'000, "h"}, {60'000, "m"}, {1000, "s"}, {1, "ms"}};
    std::string text;
    for (const auto& each : units) {
        if (milliseconds >= each.size) {
            text.append(std::to_string(milliseconds / each.size)).append(each.name);
            milliseconds %= each.size;
        }
    }
    return text.empty() ? "0s" : text;
}

size_t distance_of(std::string_view one, std::string_view other) {
    constexpr size_t longest = 64; /* what is longer is far from everything */
    if (one.size() > longest || other.size() > longest) {
        return std::max(one.size(), other.size());
    }
    using row = std::array<size_t, longest + 1>;
    row before_last{}, last{}, now{};
    for (size_t j = 0; j <= other.size(); j++) {
        last[j] = j;
    }
    for (size_t i = 1; i <= one.size(); i++) {
        now[0] = i;
        for (size_t j = 1; j <= other.size(); j++) {
            const size_t changed = one[i - 1] == other[j - 1] ? 0 : 1;
            now[j] = std::min({last[j] + 1, now[j - 1] + 1, last[j - 1] + changed});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1]) {
                now[j] = std::min(now[j], before_last[j - 2] + 1);
            }
        }
        before_last = last;
        last = now;
    }
    return last[other.size()];
}

std::string in_small_letters(std::string_view text) {
    std::string small(text);
    for (char& c : small) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    }
    return small;
}

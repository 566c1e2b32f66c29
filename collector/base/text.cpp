#include "base/text.h"

#include <algorithm>
#include <ctime>

namespace {

struct code_point {
    char32_t value;
    size_t bytes; /* 0: no UTF-8 here */
};

/* Decodes the first character; overlong forms, surrogates and values above U+10FFFF are no UTF-8.
 */
code_point decode_utf8(std::string_view text) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned first = byte(0);
    if (first < 0x80) {
        return {first, 1};
    }
    size_t bytes = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < bytes) {
        return {0, 0};
    }
    char32_t value = first & (0xffu >> (bytes + 1));
    for (size_t i = 1; i < bytes; i++) {
        if ((byte(i) & 0xc0) != 0x80) {
            return {0, 0};
        }
        value = value << 6 | (byte(i) & 0x3f);
    }
    static const char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < least[bytes] || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) {
        return {0, 0};
    }
    return {value, bytes};
}

struct range {
    char32_t first, last;
};

template <size_t N>
bool within(char32_t c, const range (&ranges)[N]) {
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [c](const range& r) { return c >= r.first && c <= r.last; });
}

bool is_blank(char32_t c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/* Characters that steer a terminal or reorder and hide what stands round them. */
bool is_unsafe(char32_t c) {
    static const range unsafe[] = {{0, 0x1f},        {0x7f, 0x9f},     {0xad, 0xad},
                                   {0x61c, 0x61c},   {0x180e, 0x180e}, {0x200b, 0x200f},
                                   {0x2028, 0x202e}, {0x2060, 0x206f}, {0xfeff, 0xfeff},
                                   {0xfff9, 0xfffb}, {0xe000, 0xf8ff}, {0xe0000, 0x10ffff}};
    return within(c, unsafe);
}

size_t columns_of(char32_t c) {
    static const range none[] = {
        {0x300, 0x36f}, {0x1ab0, 0x1aff}, {0x20d0, 0x20ff}, {0xfe00, 0xfe0f}};
    static const range two[] = {{0x1100, 0x115f}, {0x2e80, 0xa4cf},   {0xac00, 0xd7a3},
                                {0xf900, 0xfaff}, {0xfe30, 0xfe6f},   {0xff00, 0xff60},
                                {0xffe0, 0xffe6}, {0x1f300, 0x1faff}, {0x20000, 0x3fffd}};
    return within(c, none) ? 0 : within(c, two) ? 2 : 1;
}

/* The bytes of `text` that fit into `columns`, and the columns they take. */
size_t measure(std::string_view text, size_t columns, size_t& taken) {
    size_t at = 0;
    taken = 0;
    while (at < text.size()) {
        code_point c = decode_utf8(text.substr(at));
        size_t width = c.bytes > 0 ? columns_of(c.value) : 1;
        if (taken + width > columns) {
            break;
        }
        taken += width;
        at += std::max<size_t>(c.bytes, 1);
    }
    return at;
}

} // namespace

std::string printable(std::string_view text) {
    while (!text.empty() && is_blank(static_cast<unsigned char>(text.back()))) {
        text.remove_suffix(1);
    }
    std::string safe;
    safe.reserve(text.size());
    while (!text.empty()) {
        code_point c = decode_utf8(text);
        size_t bytes = std::max<size_t>(c.bytes, 1);
        if (is_blank(c.value) && c.bytes > 0) {
            safe += ' ';
        } else if (c.bytes == 0 || is_unsafe(c.value)) {
            safe += '?';
        } else {
            safe += text.substr(0, bytes);
        }
        text.remove_prefix(bytes);
    }
    return safe;
}

size_t display_width(std::string_view text) {
    size_t taken;
    measure(text, std::string_view::npos, taken);
    return taken;
}

std::string fit_columns(std::string_view text, size_t columns) {
    size_t taken;
    std::string fitting(text.substr(0, measure(text, columns, taken)));
    return fitting.append(columns - taken, ' ');
}

std::string shortened(std::string text, size_t most) {
    if (text.size() > most) {
        while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xc0) == 0x80) {
            most--;
        }
        text.resize(most);
        text += " ...";
    }
    return text;
}

std::string valid_utf8(std::string_view text) {
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) {
        code_point c = decode_utf8(text);
        if (c.bytes > 0) {
            valid += text.substr(0, c.bytes);
        } else {
            valid += "\xef\xbf\xbd";
        }
        text.remove_prefix(std::max<size_t>(c.bytes, 1));
    }
    return valid;
}

static const int64_t last_second = 253402300799; /* of the year 9999 */

static std::string time_text(int64_t seconds, const char* format) {
    time_t when = seconds;
    tm parts{};
    gmtime_r(&when, &parts);
    char text[32];
    return std::string(text, strftime(text, sizeof(text), format, &parts));
}

std::string utc_time(int64_t seconds) {
    if (seconds < 0 || seconds > last_second) {
        return std::to_string(seconds);
    }
    return time_text(seconds, "%Y-%m-%dT%H:%M:%SZ");
}

std::string utc_day(int64_t seconds) {
    return time_text(std::clamp<int64_t>(seconds, 0, last_second), "%Y%m%d");
}

std::string_view trimmed(std::string_view text) {
    const size_t begin = text.find_first_not_of(" \t");
    return begin == text.npos ? std::string_view()
                              : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

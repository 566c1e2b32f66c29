#include "ctl/text.h"

#include <algorithm>
#include <iterator>

namespace {

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

code_point decode_utf8(std::string_view text) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned first = byte(0);
    if (first < 0x80) {
        return {first, 1};
    }
    size_t bytes = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < bytes) {
        return {};
    }
    char32_t value = first & (0xffu >> (bytes + 1));
    for (size_t i = 1; i < bytes; i++) {
        if ((byte(i) & 0xc0) != 0x80) {
            return {};
        }
        value = value << 6 | (byte(i) & 0x3f);
    }
    static const char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < least[bytes] || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) {
        return {};
    }
    return {value, bytes};
}

bool is_unsafe(char32_t c) {
    static const range unsafe[] = {{0, 0x1f},        {0x7f, 0x9f},     {0xad, 0xad},
                                   {0x61c, 0x61c},   {0x180e, 0x180e}, {0x200b, 0x200f},
                                   {0x2028, 0x202e}, {0x2060, 0x206f}, {0xfeff, 0xfeff},
                                   {0xfff9, 0xfffb}, {0xe000, 0xf8ff}, {0xe0000, 0x10ffff}};
    return within(c, unsafe);
}

std::string printable(std::string_view text, bool ascii) {
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
        } else if (c.bytes == 0 || is_unsafe(c.value) || (ascii && c.value > 0x7e)) {
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

std::string shortened(std::string_view text, size_t columns, std::string_view mark) {
    size_t taken;
    if (measure(text, columns, taken) == text.size()) {
        return std::string(text);
    }
    if (columns == 0) {
        return "";
    }
    return std::string(text.substr(0, measure(text, columns - 1, taken))).append(mark);
}

std::string shortened_left(std::string_view text, size_t columns, std::string_view mark) {
    size_t wide = display_width(text);
    if (wide <= columns) {
        return std::string(text);
    }
    if (columns == 0) {
        return "";
    }
    while (wide > columns - 1) {
        code_point c = decode_utf8(text);
        wide -= c.bytes > 0 ? columns_of(c.value) : 1;
        text.remove_prefix(std::max<size_t>(c.bytes, 1));
    }
    return std::string(mark).append(text);
}

std::vector<std::string> wrapped(std::string_view text, size_t columns) {
    std::vector<std::string> lines;
    columns = std::max<size_t>(columns, 2); /* the widest character fits */
    while (true) {
        size_t taken;
        size_t bytes = measure(text, columns, taken);
        if (bytes == text.size()) {
            lines.emplace_back(text);
            return lines;
        }
        size_t end = text[bytes] == ' ' ? bytes : text.substr(0, bytes).rfind(' ');
        if (end == std::string_view::npos || end == 0) {
            end = bytes;
        }
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(end);
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    }
}

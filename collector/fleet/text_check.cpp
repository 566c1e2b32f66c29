#include "fleet/text_check.h"

#include "base/text.h"

#include <algorithm>

namespace {

constexpr size_t longest_repeated = 60; /* bytes of a file's text in a remark */

/* Bytes of the character that begins there; 0: it is none. Overlong forms, surrogates and what is
 * above U+10FFFF are none. */
size_t character_at(std::string_view text, size_t at) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[at + i]); };
    const unsigned first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    const size_t bytes = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() - at < bytes) {
        return 0;
    }
    for (size_t i = 1; i < bytes; i++) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    const unsigned second = byte(1);
    const bool is_character =
        !(first == 0xe0 && second < 0xa0) && !(first == 0xed && second > 0x9f) &&
        !(first == 0xf0 && second < 0x90) && !(first == 0xf4 && second > 0x8f);
    return is_character ? bytes : 0;
}

} // namespace

size_t first_no_utf8(std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        const size_t bytes = character_at(text, at);
        if (bytes == 0) {
            return at;
        }
        at += bytes;
    }
    return text.npos;
}

size_t first_control(std::string_view text, std::string_view but) {
    for (size_t at = 0; at < text.size(); at++) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const bool is_c1 =
            byte == 0xc2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xa0;
        if (is_c1 || byte == 0x7f || (byte < 0x20 && but.find(text[at]) == but.npos)) {
            return at;
        }
    }
    return text.npos;
}

size_t first_lone_return(std::string_view text) {
    for (size_t at = 0; (at = text.find('\r', at)) != text.npos; at++) {
        if (at + 1 == text.size() || text[at + 1] != '\n') {
            return at;
        }
    }
    return text.npos;
}

size_t characters_of(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

std::string one_line(std::string_view text) {
    /* Cut first: a text may be a megabyte. What is cut within a character is put right by the
     * second cut. */
    return shortened(printable(text.substr(0, 4 * longest_repeated)), longest_repeated);
}

std::string in_ticks(std::string_view text) {
    std::string ticked = "`";
    return ticked.append(one_line(text)).append("`");
}

std::string or_close(std::string_view word) {
    return word.empty() ? std::string() : "; " + in_ticks(word) + "?";
}

#include "protocol/base64url.h"

#include <cstdint>

static constexpr std::string_view digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string protocol::base64url(std::string_view bytes) {
    std::string text;
    uint32_t held = 0;
    int bits = 0;
    for (char c : bytes) {
        held = held << 8 | static_cast<unsigned char>(c);
        for (bits += 8; bits >= 6; bits -= 6) {
            text += digits[held >> (bits - 6) & 63];
        }
    }
    if (bits > 0) {
        text += digits[held << (6 - bits) & 63];
    }
    return text;
}

std::optional<std::string> protocol::from_base64url(std::string_view text) {
    std::string bytes;
    uint32_t held = 0;
    int bits = 0;
    for (char c : text) {
        size_t digit = digits.find(c);
        if (digit == std::string_view::npos) {
            return std::nullopt;
        }
        held = held << 6 | static_cast<uint32_t>(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>(held >> bits & 255);
        }
    }
    return bits < 6 && (held & ((1u << bits) - 1)) == 0 ? std::optional(bytes) : std::nullopt;
}

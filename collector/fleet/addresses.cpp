#include "fleet/addresses.h"

#include "fleet/text_check.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace {

constexpr uint32_t most_addresses = 65536;
constexpr size_t longest_host = 253;

bool is_of_hosts(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view(".-_:%").find(c) != std::string_view::npos;
}

/* A decimal number up to `most` from the beginning, without zeros before it. */
std::optional<uint32_t> take_number(std::string_view& text, uint32_t most) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto length = static_cast<size_t>(end - text.data());
    if (error != std::errc() || number > most || (length > 1 && text[0] == '0')) {
        return std::nullopt;
    }
    text.remove_prefix(length);
    return number;
}

std::optional<uint32_t> take_address(std::string_view& text) {
    uint32_t address = 0;
    for (int i = 0; i < 4; i++) {
        if (i > 0) {
            if (!text.starts_with('.')) {
                return std::nullopt;
            }
            text.remove_prefix(1);
        }
        const std::optional<uint32_t> byte = take_number(text, 255);
        if (!byte) {
            return std::nullopt;
        }
        address = address << 8 | *byte;
    }
    return address;
}

/* "/24": what is left of the text. */
std::string take_network(std::string_view text, address_range& range) {
    text.remove_prefix(1);
    const std::optional<uint32_t> bits = take_number(text, 32);
    if (!bits || !text.empty() || *bits < 16) {
        return "the length of a network is 16 to 32 bits, as in 10.0.0.0/24";
    }
    const uint32_t hosts = *bits == 32 ? 0 : UINT32_MAX >> *bits;
    if ((range.first & hosts) != 0) {
        return "the network of that length begins at " + address_text(range.first & ~hosts);
    }
    range.last = range.first | hosts;
    if (hosts > 1) {
        range.first++;
        range.last--;
    }
    return "";
}

std::string take_range(std::string_view text, address_range& range) {
    auto skip_blanks = [&] {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    };
    const std::optional<uint32_t> first = take_address(text);
    if (!first) {
        return "expected two IPv4 addresses, such as 10.0.0.1 - 10.0.0.254";
    }
    range = {*first, *first};
    skip_blanks();
    if (text.empty()) {
        return "";
    }
    if (text[0] == '/') {
        return take_network(text, range);
    }
    const bool is_range = text[0] == '-';
    text.remove_prefix(1);
    skip_blanks();
    const std::optional<uint32_t> last = is_range ? take_address(text) : std::nullopt;
    if (!last || !text.empty()) {
        return "expected two IPv4 addresses, such as 10.0.0.1 - 10.0.0.254";
    }
    range.last = *last;
    return "";
}

/* How many an agent comes to, whatever it is told to be the end. */
uint64_t count_of(const address_range& range) {
    const uint64_t passed_over = (range.last >> 8) - (range.first >> 8);
    return uint64_t{range.last} - range.first + 1 - passed_over;
}

} // namespace

std::string why_no_host(std::string_view text) {
    if (text.empty() || text.size() > longest_host || text[0] == '-' ||
        !std::all_of(text.begin(), text.end(), is_of_hosts)) {
        return in_ticks(text) + " is neither a host name nor an address";
    }
    if (std::count(text.begin(), text.end(), ':') == 1) {
        return in_ticks(text) +
               " is neither a host name nor an address: a port does not belong to it";
    }
    return "";
}

std::string read_addresses(std::string_view text, address_range& range) {
    std::string why = take_range(text, range);
    if (!why.empty()) {
        return why;
    }
    if (range.first > range.last) {
        return "the first address is above the last one";
    }
    if (range.first < 0x01000000 || range.last >= 0xe0000000) {
        return "there are no hosts at such addresses";
    }
    if ((range.last & 0xff) == 0 && range.last != range.first) {
        return "addresses that end in .0 are not scanned: let it end with " +
               address_text(range.last - 1);
    }
    if (count_of(range) > most_addresses) {
        return "these are " + std::to_string(count_of(range)) +
               " addresses: " + std::to_string(most_addresses) + " at the most";
    }
    return "";
}

uint32_t address_behind(uint32_t last) {
    return last + ((last & 0xff) == 0xff ? 2 : 1);
}

std::string address_text(uint32_t address) {
    std::string text = std::to_string(address >> 24);
    for (int shift : {16, 8, 0}) {
        text.append(".").append(std::to_string(address >> shift & 0xff));
    }
    return text;
}

/* What the network hands to a raw ICMP socket, one datagram, IP header included. */
#include "ping.cpp"

#include "silent_log.h"

static const unsigned short IDENTIFIER = 0x3412, SEQUENCE = 5;

/* The byte at this place of the datagram; 0 behind its end. */
static unsigned at(std::string_view datagram, size_t place) {
    return place < datagram.size() ? static_cast<unsigned char>(datagram[place]) : 0;
}

static unsigned short number_at(std::string_view datagram, size_t place) {
    return static_cast<unsigned short>(at(datagram, place) | at(datagram, place + 1) << 8);
}

static verdict expected(std::string_view datagram) {
    if (datagram.size() < 28) {
        return WAIT_ON;
    }
    unsigned type = at(datagram, 20);
    bool ours = number_at(datagram, 24) == IDENTIFIER;
    if (ours && (type == 8 || (type == 0 && number_at(datagram, 26) == SEQUENCE))) {
        return ACCEPTED;
    }
    bool report = type == 3 || type == 4 || type == 11 || type == 12;
    bool quotes_us = at(datagram, 48) == 8 && number_at(datagram, 52) == IDENTIFIER &&
                     number_at(datagram, 54) == SEQUENCE;
    return report && quotes_us ? LOST : WAIT_ON;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view datagram(reinterpret_cast<const char*>(data), std::min<size_t>(size, 4096));
    require_no_growth([&] {
        std::vector<char> buffer(std::max<size_t>(datagram.size(), QUOTED_END), 'x');
        std::ranges::copy(datagram, buffer.begin());
        sockaddr_in from{};
        require(judge_datagram(3, buffer.data(), static_cast<int>(datagram.size()), &from, 1.0, 64,
                               IDENTIFIER, SEQUENCE) == expected(datagram));
        icmp_checksum(reinterpret_cast<unsigned short*>(buffer.data()),
                      static_cast<int>(buffer.size()));
    });
    return 0;
}

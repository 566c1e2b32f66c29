/* Hosts and IPv4 addresses in a fleet file. Each reader returns what is wrong, "" for nothing.
 * Pure.
 */
#ifndef VINDRAL_COLLECTOR_FLEET_ADDRESSES_H
#define VINDRAL_COLLECTOR_FLEET_ADDRESSES_H

#include <cstdint>
#include <string>
#include <string_view>

/* ": `x y` is neither a host name nor an address" is in words, too: "" when it is one. Letters,
 * digits and . - _ : %, as agents take them. */
std::string why_no_host(std::string_view text);

/* Both included, the first one not above the last. */
struct address_range {
    uint32_t first = 0, last = 0;
};

/* "10.0.0.1 - 10.0.0.254", "10.0.0.0/24" (without the first and the last one of it), "10.0.0.7". A
 * range that agents can scan: 65,536 addresses at the most, and the last one is one of those that
 * they come to. */
std::string read_addresses(std::string_view text, address_range& range);

/* Where a scan ends that is to include this one: agents pass over addresses that end in .0. */
uint32_t address_behind(uint32_t last);

std::string address_text(uint32_t address);

#endif

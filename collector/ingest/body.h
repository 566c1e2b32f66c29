/* From what came over the wire to the plain bytes of a block of records. No network in here. */
#ifndef VINDRAL_COLLECTOR_BODY_H
#define VINDRAL_COLLECTOR_BODY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/* An agent keeps its results while the collector is away, some 130 bytes for a test and check: 20
 * tests a minute make 12 MB in three days, 2,000 tests 250 MB in 15 hours. As sent that is a fifth
 * to a fortieth of it. */
struct body_limits {
    size_t max_wire = 16u << 20;   /* bytes as sent */
    size_t max_plain = 256u << 20; /* bytes after decompression */
};

/* Checks and unpacks one poll body. `compression` is the uncompressed size that the agent
 * announced, 0 for a body sent raw; `checksum` the Adler-32 of the bytes as sent, 0 for none. On
 * success `plain` holds the block. On failure returns false with the reason in `error` and `plain`
 * empty; the agent must keep its block and send it again. Takes what is announced, which is bounded
 * by max_plain and by what that many bytes can become at most, and nothing beside it; throws
 * std::bad_alloc when it cannot be had. */
bool unpack_body(std::string_view wire, uint64_t compression, uint64_t checksum,
                 const body_limits& limits, std::string& plain, std::string& error);

#endif

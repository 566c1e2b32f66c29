/* What a peer of the feed listener can send, cut into packets in any way: the chunks, where they
 * end, and what ends the connection are the same as for the stream in one piece.
 * Input: one byte for the sizes of the packets, then the stream. */
#include "feedlistener_frame.h"
#include "fuzz.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

struct outcome {
    std::vector<std::string> chunks;
    size_t taken = 0;
    int error = EAGAIN;
    bool operator==(const outcome&) const = default;
};

/* Reads what there is behind `o.taken`, from an exact copy. */
static void read_on(const std::string& received, outcome& o) {
    std::vector<char> data(received.begin() + static_cast<long>(o.taken), received.end());
    size_t at = 0;
    feed_frame frame;
    while ((o.error = read_frame(data.data() + at, data.size() - at, &frame)) == 0) {
        require(frame.length <= CHUNK_MOST && frame.size <= FRAME_MOST);
        require(frame.payload + frame.length == data.data() + at + frame.size);
        require(frame.size <= data.size() - at);
        o.chunks.emplace_back(frame.payload, frame.length);
        at += frame.size;
    }
    size_t left = data.size() - at;
    require(o.error == EMSGSIZE || o.error == (left < FRAME_MOST ? EAGAIN : EPROTO));
    o.taken += at;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    unsigned seed = data[0];
    std::string stream(reinterpret_cast<const char*>(data + 1), size - 1);
    outcome whole;
    read_on(stream, whole);

    outcome cut;
    for (size_t received = 0; received < stream.size() && cut.error == EAGAIN;) {
        seed = seed * 1103515245 + 12345;
        received = std::min(stream.size(), received + 1 + (seed >> 16) % 7);
        read_on(stream.substr(0, received), cut);
    }
    require(cut == whole);
    return 0;
}

#include "feedlistener_frame.h"

#include <algorithm>
#include <cerrno>

int read_frame(char* data, size_t size, feed_frame* frame) {
    size_t length = 0;
    size_t at = 0;
    for (; at < size && at < LENGTH_DIGITS_MOST && data[at] >= '0' && data[at] <= '9'; at++) {
        length = std::min(10 * length + static_cast<size_t>(data[at] - '0'), CHUNK_MOST + 1);
    }
    if (at == 0 || size - at < 2 || data[at] != '\r' || data[at + 1] != '\n') {
        return size < FRAME_MOST ? EAGAIN : EPROTO;
    }
    if (length > CHUNK_MOST) {
        return EMSGSIZE;
    }
    at += 2;
    if (size - at < length) {
        return EAGAIN;
    }
    *frame = {data + at, length, at + length};
    return 0;
}

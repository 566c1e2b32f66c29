#include "feedlistener_frame.h"

#include <cerrno>

int read_frame(char* data, size_t size, feed_frame* frame) {
    size_t length = 0;
    size_t at = 0;
    for (; at < size && data[at] >= '0' && data[at] <= '9'; at++) {
        if (at == LENGTH_DIGITS_MOST) {
            return EPROTO;
        }
        length = 10 * length + static_cast<size_t>(data[at] - '0');
        if (length > CHUNK_MOST) {
            return EMSGSIZE;
        }
    }
    if (at == size) {
        return EAGAIN;
    }
    if (at == 0 || data[at] != '\r') {
        return EPROTO;
    }
    if (++at == size) {
        return EAGAIN;
    }
    if (data[at] != '\n') {
        return EPROTO;
    }
    at++;
    if (size - at < length) {
        return EAGAIN;
    }
    *frame = {data + at, length, at + length};
    return 0;
}

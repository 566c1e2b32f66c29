/* The framing of the feed: what a peer sends is a sequence of chunks, each a decimal length in
 * bytes, CR LF, and exactly that many bytes of any value. Nothing stands between two chunks. */
#ifndef VINDRAL_FEEDLISTENER_FRAME_H
#define VINDRAL_FEEDLISTENER_FRAME_H

#include <cstddef>

inline constexpr size_t CHUNK_MOST = 1024 * 1024;                         /* bytes of one chunk */
inline constexpr size_t LENGTH_DIGITS_MOST = 20;                          /* leading zeros count */
inline constexpr size_t FRAME_MOST = LENGTH_DIGITS_MOST + 2 + CHUNK_MOST; /* in bytes */

struct feed_frame {
    char* payload; /* inside the data that was read */
    size_t length; /* of the payload; 0 is possible */
    size_t size;   /* of the whole frame */
};

/* Reads the frame at the start of `size` bytes. Returns
 *   0         a whole frame, in *frame
 *   EAGAIN    more bytes are needed: there is no length with its CR LF yet, whatever there is
 *             instead, or not the whole payload; never at FRAME_MOST bytes or more
 *   EMSGSIZE  the length, with its CR LF, is above CHUNK_MOST
 *   EPROTO    FRAME_MOST bytes and still no length: something else than digits and CR LF, or too
 *             many digits
 * After the last two nobody can tell where the next chunk begins. The outcome does not depend on
 * how the stream was cut: what fails has failed for all that may follow. Looks at the length only,
 * so that a peer who sends single bytes costs no more. No I/O, no state, any thread. */
int read_frame(char* data, size_t size, feed_frame* frame);

#endif

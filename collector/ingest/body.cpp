#include "ingest/body.h"

#include <algorithm>
#include <new>
#include <zlib.h>

namespace {

bool fail(std::string& error, std::string reason) {
    error = std::move(reason);
    return false;
}

bool checksum_matches(std::string_view wire, uint64_t checksum) {
    uLong sum = adler32_z(adler32_z(0, nullptr, 0), reinterpret_cast<const Bytef*>(wire.data()),
                          wire.size());
    return checksum == sum;
}

struct inflate_stream {
    z_stream z{};
    bool open = inflateInit(&z) == Z_OK;
    inflate_stream() = default;
    inflate_stream(const inflate_stream&) = delete;
    inflate_stream& operator=(const inflate_stream&) = delete;
    ~inflate_stream() {
        if (open) {
            inflateEnd(&z);
        }
    }
};

constexpr size_t most_to_one = 1032; /* what a byte of zlib's can become */

/* Room for what is announced is set aside in one go, because growing means copying; memory is
 * filled, and so really taken, with what comes out. One byte more than announced is asked for: that
 * is how a longer one shows. */
bool inflate_body(std::string_view wire, size_t announced, std::string& plain, std::string& error) {
    const char* other_size = "the body does not have the announced size when decompressed";
    if (announced / most_to_one > wire.size()) {
        return fail(error, other_size);
    }
    inflate_stream stream;
    if (!stream.open) {
        throw std::bad_alloc();
    }
    plain.reserve(announced + 1);
    /* wire.size() fits: body_limits are far below 4 GiB, and the caller checked them. */
    stream.z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(wire.data()));
    stream.z.avail_in = static_cast<uInt>(wire.size());
    int result = Z_OK;
    size_t filled = 0;
    while (result == Z_OK && filled <= announced) {
        size_t room = std::min(announced + 1 - filled, size_t{256} << 10);
        plain.resize(filled + room);
        stream.z.next_out = reinterpret_cast<Bytef*>(plain.data() + filled);
        stream.z.avail_out = static_cast<uInt>(room);
        result = inflate(&stream.z, Z_NO_FLUSH);
        filled += room - stream.z.avail_out;
        if (result == Z_OK && stream.z.avail_out > 0 && stream.z.avail_in == 0) {
            return fail(error, "the compressed body ends too early");
        }
    }
    plain.resize(filled);
    if (result != Z_STREAM_END && filled <= announced) {
        return fail(error, "the body is not what zlib compresses");
    }
    if (filled != announced) {
        return fail(error, other_size);
    }
    if (stream.z.avail_in > 0) {
        return fail(error, "there are bytes behind the compressed body");
    }
    return true;
}

} // namespace

bool unpack_body(std::string_view wire, uint64_t compression, uint64_t checksum,
                 const body_limits& limits, std::string& plain, std::string& error) {
    std::string().swap(plain); /* gives back its memory, which assigning an empty string does not */
    if (wire.size() > std::min<size_t>(limits.max_wire, UINT32_MAX)) {
        return fail(error, "the body is larger than the limit");
    }
    uint64_t announced = compression > 0 ? compression : wire.size();
    if (announced > std::min<size_t>(limits.max_plain, UINT32_MAX - 1)) {
        return fail(error, "the decompressed body would be larger than the limit");
    }
    if (checksum != 0 && !checksum_matches(wire, checksum)) {
        return fail(error, "the checksum is wrong");
    }
    if (compression == 0) {
        plain.assign(wire);
        return true;
    }
    try {
        if (inflate_body(wire, announced, plain, error)) {
            return true;
        }
    } catch (const std::bad_alloc&) {
        std::string().swap(plain);
        throw;
    }
    std::string().swap(plain);
    return false;
}

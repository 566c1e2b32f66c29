/* What a server sent by gzip, as it was. */
#ifndef UNZIPPED_H
#define UNZIPPED_H

#include <gtest/gtest.h>
#include <string>
#include <zlib.h>

inline std::string unzipped(const std::string& text) {
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
    std::string out(10u << 20, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = uInt(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = uInt(out.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(stream.total_out);
    inflateEnd(&stream);
    return out;
}

#endif

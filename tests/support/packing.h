/* Bodies as an agent sends them, packed by zlib itself. */
#ifndef VINDRAL_PACKING_H
#define VINDRAL_PACKING_H

#include <cstdint>
#include <string>
#include <zlib.h>

inline std::string pack(const std::string& plain) {
    uLongf length = compressBound(plain.size());
    std::string out(length, '\0');
    compress(reinterpret_cast<Bytef*>(out.data()), &length,
             reinterpret_cast<const Bytef*>(plain.data()), plain.size());
    out.resize(length);
    return out;
}

inline uint64_t sum_of(const std::string& bytes) {
    return adler32(adler32(0, nullptr, 0), reinterpret_cast<const Bytef*>(bytes.data()),
                   uInt(bytes.size()));
}

#endif

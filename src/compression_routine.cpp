#include "compression_routine.h"

#include "dynlib.h"
#include "vindral_log.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <iterator>

static const char* const ZLIB_NAMES[] = {"libz.so", "libz.so.1"};

static const dynlib_symbol ZLIB_SYMBOLS[] = {
    {"adler32", reinterpret_cast<void**>(&lib_adler32), nullptr},
    {"compress2", reinterpret_cast<void**>(&lib_compress2), nullptr},
    {"uncompress", reinterpret_cast<void**>(&lib_uncompress), nullptr},
};

int init_zlib() {
    if (zlib_handle != nullptr) {
        return 1;
    }
    zlib_handle = dynlib_open(ZLIB_NAMES, std::size(ZLIB_NAMES));
    if (zlib_handle == nullptr) {
        leveledadd2log(0, "ZLIB: failed on loading %s, %s", ZLIB_NAMES[0], dynlib_error());
        return 0;
    }
    if (!dynlib_bind(zlib_handle, ZLIB_SYMBOLS, std::size(ZLIB_SYMBOLS))) {
        dlclose(zlib_handle);
        zlib_handle = nullptr;
        return 0;
    }
    return 1;
}

static const Bytef* as_bytes(const char* data) {
    return reinterpret_cast<const Bytef*>(data);
}

unsigned long calculate_checksum(const char* bData, size_t uiLen) {
    uLong start = lib_adler32(0, nullptr, 0);
    return lib_adler32(start, as_bytes(bData), static_cast<uInt>(uiLen));
}

static void log_compress_failure(int code) {
    switch (code) {
    case Z_MEM_ERROR:
        leveledadd2log(0, "ERROR: compress_data: there was not enough memory");
        break;
    case Z_STREAM_ERROR:
        leveledadd2log(0, "ERROR: compress_data: the level parameter is invalid");
        break;
    case Z_BUF_ERROR:
        leveledadd2log(0, "ERROR: compress_data: there was not enough room in the output buffer");
        break;
    }
}

int compress_data(const char* srcData, unsigned long srcLen, char** dstData,
                  unsigned long* dstLen) {
    /* What no allocation can hold must not overflow on its way to malloc. */
    double bound = static_cast<double>(srcLen) * 1.001;
    *dstLen = bound < 0x1p63 ? static_cast<unsigned long>(bound) + 13 : ULONG_MAX;
    *dstData = static_cast<char*>(malloc(*dstLen));
    uLongf length = *dstLen;
    int code = Z_MEM_ERROR;
    if (*dstData != nullptr) {
        code = lib_compress2(reinterpret_cast<Bytef*>(*dstData), &length, as_bytes(srcData), srcLen,
                             Z_DEFAULT_COMPRESSION);
    }
    if (code != Z_OK) {
        log_compress_failure(code);
        free(*dstData);
        return 0;
    }
    *dstLen = length;
    return 1;
}

static void log_decompress_failure(int code) {
    switch (code) {
    case Z_MEM_ERROR:
        leveledadd2log(0, "ERROR: decompress_data: there was not enough memory");
        break;
    case Z_DATA_ERROR:
        leveledadd2log(0, "ERROR: decompress_data: the input data was corrupted");
        break;
    case Z_BUF_ERROR:
        leveledadd2log(0, "ERROR: decompress_data: there was not enough room in the output buffer");
        break;
    }
}

int decompress_data(const char* srcData, unsigned long srcLen, const char* szCmprsVal,
                    char** dstData, unsigned long* dstLen) {
    if (szCmprsVal == nullptr) {
        return 0;
    }
    errno = 0;
    unsigned long size = strtoul(szCmprsVal, nullptr, 10);
    if ((size == ULONG_MAX && errno == ERANGE) || (size == 0 && errno != 0)) {
        leveledadd2log(0, "Wrong Compress Value: %s, %s", szCmprsVal, strerrordesc_np(errno));
        return 0;
    }
    *dstLen = size;
    *dstData = static_cast<char*>(malloc(size > 0 ? size : 1));
    uLongf length = size;
    int code = Z_MEM_ERROR;
    if (*dstData != nullptr) {
        code =
            lib_uncompress(reinterpret_cast<Bytef*>(*dstData), &length, as_bytes(srcData), srcLen);
    }
    if (code != Z_OK) {
        log_decompress_failure(code);
        free(*dstData);
        return 0;
    }
    *dstLen = length;
    return 1;
}

int validate_data(const char* bData, size_t uiLen, const char* szChkSum) {
    if (szChkSum == nullptr) {
        return 0;
    }
    errno = 0;
    unsigned long expected = strtoul(szChkSum, nullptr, 10);
    if (expected == 0) {
        return 1;
    }
    if (expected == ULONG_MAX && errno == ERANGE) {
        leveledadd2log(0, "Wrong CheckSum format: %s, %s", szChkSum, strerrordesc_np(ERANGE));
        return 0;
    }
    return expected == calculate_checksum(bData, uiLen);
}

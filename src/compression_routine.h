/* Run-time binding of zlib, and the compression and checksum routines built on it. */
#ifndef VINDRAL_COMPRESSION_ROUTINE_H
#define VINDRAL_COMPRESSION_ROUTINE_H

#include <cstddef>
#include <zlib.h>

extern void* zlib_handle;
extern decltype(&adler32) lib_adler32;
extern decltype(&compress2) lib_compress2;
extern decltype(&uncompress) lib_uncompress;
extern int isZLIBloaded; /* 1 when zlib was bound; set once at start-up */

int init_zlib();
unsigned long calculate_checksum(const char* bData, size_t uiLen);
int compress_data(const char* srcData, unsigned long srcLen, char** dstData, unsigned long* dstLen);
int decompress_data(const char* srcData, unsigned long srcLen, const char* szCmprsVal,
                    char** dstData, unsigned long* dstLen);
int validate_data(const char* bData, size_t uiLen, const char* szChkSum);

#endif

/* Run-time binding of zlib, and the compression and checksum routines built on it.
 *
 * zlib is optional: without it the agent posts its data uncompressed and without a checksum. The
 * pointers are written at start-up, before any other thread exists, and only read afterwards. The
 * routines below may be called only when isZLIBloaded is 1; they keep no state and may run in any
 * thread. */
#ifndef VINDRAL_COMPRESSION_ROUTINE_H
#define VINDRAL_COMPRESSION_ROUTINE_H

#include <cstddef>
#include <zlib.h>

/* Null while zlib is not loaded; never closed once it is bound. */
inline void* zlib_handle = nullptr;
inline decltype(&adler32) lib_adler32 = nullptr;
inline decltype(&compress2) lib_compress2 = nullptr;
inline decltype(&uncompress) lib_uncompress = nullptr;
inline int isZLIBloaded = 0; /* 1 when zlib was bound, set by init_ssl_variables */

/* Opens "libz.so" or "libz.so.1" and binds the three functions. Returns 1 when they are bound or
 * already were. Returns 0 with a line at level 0 when neither file opens, and 0 without one when a
 * function is missing; the library is closed again then. */
int init_zlib();

/* Adler-32 (RFC 1950) of the first uiLen % 2^32 bytes; 1 for none. */
unsigned long calculate_checksum(const char* bData, size_t uiLen);

/* Compresses into a zlib stream (RFC 1950) at the default level. Returns 1 with the stream in
 * *dstData (malloc'd, caller frees) and its length in *dstLen. On failure returns 0 with the reason
 * logged at level 0; *dstData is then worthless, not to be read or freed, and *dstLen holds the
 * size of the attempt. */
int compress_data(const char* srcData, unsigned long srcLen, char** dstData, unsigned long* dstLen);

/* Restores a zlib stream whose uncompressed size is announced in szCmprsVal, in decimal. The size
 * bounds the result: a stream that holds more fails, one that holds less leaves the rest of the
 * buffer unset. Returns 1 with the data in *dstData (malloc'd, caller frees) and the announced size
 * updated to the real one in *dstLen. On failure returns 0 with the reason logged at level 0;
 * *dstData is then worthless, not to be read or freed. */
int decompress_data(const char* srcData, unsigned long srcLen, const char* szCmprsVal,
                    char** dstData, unsigned long* dstLen);

/* Compares with a checksum given in decimal. Returns 1 when it matches, and for "0", which stands
 * for no checksum; text that is no number reads as 0. Returns 0 when it does not match or is null,
 * and with a line at level 0 when the number is too large to be read. */
int validate_data(const char* bData, size_t uiLen, const char* szChkSum);

#endif

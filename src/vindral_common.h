/* Byte buffers and text utilities shared across the agent, and levelled logging with them.
 *
 * Everything handed out is malloc'd and freed by the caller with free() (a bdata with bdata_free).
 * Null input is taken as "nothing there". Out of memory shows as "nothing appended" or a null
 * result and is never logged here. No function keeps state: each is safe on any thread as long as
 * the caller guards its own data. Character classes are those of the C locale, which the agent
 * never leaves. */
#ifndef VINDRAL_COMMON_H
#define VINDRAL_COMMON_H

#include "vindral_log.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/time.h>

/* A growable byte buffer; a null bdata* is the empty one. */
struct bdata {
    uint32_t data_size; /* bytes */
    char* data_buffer;  /* the bytes, no terminating NUL */
};

/* One stored text result. */
struct test_result {
    int test_id;
    time_t check_time;
    char* test_data; /* malloc'd */
};

/* Appends szData bytes to *pBData and creates the buffer when that is null. Nothing happens for
 * null data, size 0, without memory, or when the buffer would reach 4 GiB. pData must lie outside
 * the buffer. Many small appends cost no more than one large one: room is taken in powers of two.
 */
void bdata_append(bdata** pBData, const char* pData, size_t szData);

/* A new buffer with the same bytes; null for null. */
bdata* bdata_copy(bdata* p);

/* Frees the bytes (only when data_size is not 0) and the buffer, and sets *p to null. */
void bdata_free(bdata** p);

/* Appends src to the string *dst, which moves; a null *dst starts a new string, a null src changes
 * nothing. src must lie outside *dst. */
void adv_strcat(char** dst, const char* src);

/* The text behind the first delim, inside str. Null for null or empty text, without a delimiter, or
 * when the first one ends the text. */
char* get_next_token(const char* str, char delim);

/* A comparison result, not a truth value: 0 when str1 begins with str2 in any case of letters, and
 * also when either is null or str2 is empty; 1 otherwise. */
int starts_with_string(const char* str1, const char* str2);

/* Every byte as two upper-case hexadecimal digits and a blank ("0A FF "); null for null or length
 * 0. */
char* get_hexstring(const unsigned char* src, size_t src_len);

/* A copy in which every byte that is neither printable nor white space is a dot; null for null or
 * length 0. */
char* get_asciistring(const unsigned char* src, size_t src_len);

/* Percent-encoding of l bytes: letters and digits stay, 0x00 to 0x7F become "%" and two upper-case
 * digits, and every byte from 0x80 on becomes "%FF", which servers have come to expect. Null for
 * null or length 0. */
char* get_URL_Encode(const char* s, size_t l);

/* Splits scheme://host[:port]/path. Returns 1 and three new strings: the host, the path from its
 * "/" on with the query, and the port as decimal text. Without a port in the URL that is "443" for
 * a scheme that starts with "https" and "80" for one that starts with "http" (lower case); for any
 * other scheme *iPort is left as it is. A port of 0 or above 65535, or that is no number, reads as
 * "443" whatever the scheme; a negative one stays, and no resolver takes it. Returns 0 and changes
 * nothing for null or empty text, without "://", without a "/" behind the host, and without memory.
 * What the outputs held before is not freed. */
int crackURL(const char* szURL, char** szHost, char** szPath, char** iPort);

/* Microseconds from early to later, null later meaning now; 0 when later is the earlier of the two,
 * as after a step of the clock. */
long get_timevaldiff(struct timeval* early, struct timeval* later);

#endif

/* Byte buffers and text utilities shared across the agent. */
#ifndef VINDRAL_COMMON_H
#define VINDRAL_COMMON_H

#include "vindral_log.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/time.h>

struct bdata {
    uint32_t data_size;
    char* data_buffer;
};

/* One stored text result. */
struct test_result {
    int test_id;
    time_t check_time;
    char* test_data;
};

void bdata_append(bdata** pBData, const char* pData, size_t szData);
bdata* bdata_copy(bdata* p);
void bdata_free(bdata** p);
void adv_strcat(char** dst, const char* src);
char* get_next_token(const char* str, char delim);
int starts_with_string(const char* str1, const char* str2);
char* get_hexstring(const unsigned char* src, size_t src_len);
char* get_asciistring(const unsigned char* src, size_t src_len);
char* get_URL_Encode(const char* s, size_t l);
int crackURL(const char* szURL, char** szHost, char** szPath, char** iPort);
long get_timevaldiff(struct timeval* early, struct timeval* later);

#endif

#include "vindral_common.h"

#include "bytes.h"

#include <bit>
#include <cctype>
#include <cstring>

void bdata_append(bdata** pBData, const char* pData, size_t szData) {
    if (pBData == nullptr || pData == nullptr || szData == 0) {
        return;
    }
    size_t old_size = *pBData != nullptr ? (*pBData)->data_size : 0;
    if (szData > UINT32_MAX - old_size) {
        return;
    }
    heap<bdata> created;
    bdata* buffer = *pBData;
    if (buffer == nullptr) {
        created.reset(static_cast<bdata*>(calloc(1, sizeof(bdata))));
        buffer = created.get();
        if (buffer == nullptr) {
            return;
        }
    }
    /* Asking for the size that the block already has costs next to nothing, so there is no capacity
     * to remember and buffers made elsewhere may be appended to. */
    char* grown = old_size != 0 ? buffer->data_buffer : nullptr;
    if (!resize_array(grown, std::bit_ceil(old_size + szData))) {
        return;
    }
    buffer->data_buffer = grown;
    memcpy(buffer->data_buffer + old_size, pData, szData);
    buffer->data_size = static_cast<uint32_t>(old_size + szData);
    (void)created.release();
    *pBData = buffer;
}

bdata* bdata_copy(bdata* p) {
    if (p == nullptr) {
        return nullptr;
    }
    heap<bdata> copy(static_cast<bdata*>(calloc(1, sizeof(bdata))));
    if (copy == nullptr || p->data_size == 0) {
        return copy.release();
    }
    copy->data_buffer = static_cast<char*>(malloc(p->data_size));
    if (copy->data_buffer == nullptr) {
        return nullptr;
    }
    memcpy(copy->data_buffer, p->data_buffer, p->data_size);
    copy->data_size = p->data_size;
    return copy.release();
}

void bdata_free(bdata** p) {
    if (p == nullptr || *p == nullptr) {
        return;
    }
    if ((*p)->data_size != 0) {
        free((*p)->data_buffer);
    }
    free(*p);
    *p = nullptr;
}

void adv_strcat(char** dst, const char* src) {
    if (dst == nullptr || src == nullptr) {
        return;
    }
    size_t old_length = *dst != nullptr ? strlen(*dst) : 0;
    size_t added = strlen(src);
    if (resize_array(*dst, old_length + added + 1)) {
        memcpy(*dst + old_length, src, added + 1);
    }
}

char* get_next_token(const char* str, char delim) {
    if (str == nullptr || delim == '\0') {
        return nullptr;
    }
    const char* found = strchr(str, delim);
    return found != nullptr && found[1] != '\0' ? const_cast<char*>(found + 1) : nullptr;
}

static int lower(char c) {
    return tolower(static_cast<unsigned char>(c));
}

int starts_with_string(const char* str1, const char* str2) {
    if (str1 == nullptr || str2 == nullptr) {
        return 0;
    }
    for (; *str2 != '\0'; str1++, str2++) {
        if (lower(*str1) != lower(*str2)) {
            return 1;
        }
    }
    return 0;
}

/* Room for `count` pieces of `size` characters and a NUL; null when there are none or too many. */
static char* room_for(size_t count, size_t size) {
    if (count == 0 || count > (SIZE_MAX - 1) / size) {
        return nullptr;
    }
    return static_cast<char*>(malloc(count * size + 1));
}

static const char HEX_DIGITS[] = "0123456789ABCDEF";

char* get_hexstring(const unsigned char* src, size_t src_len) {
    char* text = src != nullptr ? room_for(src_len, 3) : nullptr;
    if (text == nullptr) {
        return nullptr;
    }
    char* end = text;
    for (size_t i = 0; i < src_len; i++) {
        *end++ = HEX_DIGITS[src[i] >> 4];
        *end++ = HEX_DIGITS[src[i] & 0xF];
        *end++ = ' ';
    }
    *end = '\0';
    return text;
}

char* get_asciistring(const unsigned char* src, size_t src_len) {
    char* text = src != nullptr ? room_for(src_len, 1) : nullptr;
    if (text == nullptr) {
        return nullptr;
    }
    for (size_t i = 0; i < src_len; i++) {
        text[i] = isprint(src[i]) || isspace(src[i]) ? static_cast<char>(src[i]) : '.';
    }
    text[src_len] = '\0';
    return text;
}

char* get_URL_Encode(const char* s, size_t l) {
    char* text = s != nullptr ? room_for(l, 3) : nullptr;
    if (text == nullptr) {
        return nullptr;
    }
    char* end = text;
    for (size_t i = 0; i < l; i++) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (isalnum(c)) {
            *end++ = s[i];
            continue;
        }
        unsigned char code = c < 0x80 ? c : 0xFF;
        *end++ = '%';
        *end++ = HEX_DIGITS[code >> 4];
        *end++ = HEX_DIGITS[code & 0xF];
    }
    *end = '\0';
    return text;
}

/* The port of a URL as new text, from the digits at `digits`. */
static char* port_text(const char* digits) {
    long port = strtol(digits, nullptr, 10);
    char text[24];
    snprintf(text, sizeof text, "%ld", port == 0 || port > 65535 ? 443 : port);
    return strdup(text);
}

int crackURL(const char* szURL, char** szHost, char** szPath, char** iPort) {
    const char* scheme_end = szURL != nullptr ? strstr(szURL, "://") : nullptr;
    const char* host = scheme_end != nullptr ? scheme_end + 3 : nullptr;
    const char* path = host != nullptr ? strchr(host, '/') : nullptr;
    if (path == nullptr) {
        return 0;
    }
    const char* colon =
        static_cast<const char*>(memchr(host, ':', static_cast<size_t>(path - host)));
    bool has_port = true;
    heap_text new_port;
    if (colon != nullptr) {
        new_port.reset(port_text(colon + 1));
    } else if (strncmp(szURL, "https", 5) == 0) {
        new_port.reset(strdup("443"));
    } else if (strncmp(szURL, "http", 4) == 0) {
        new_port.reset(strdup("80"));
    } else {
        has_port = false;
    }
    const char* host_end = colon != nullptr ? colon : path;
    heap_text new_host(strndup(host, static_cast<size_t>(host_end - host)));
    heap_text new_path(strdup(path));
    if (new_host == nullptr || new_path == nullptr || (has_port && new_port == nullptr)) {
        return 0;
    }
    *szHost = new_host.release();
    *szPath = new_path.release();
    if (has_port) {
        *iPort = new_port.release();
    }
    return 1;
}

long get_timevaldiff(struct timeval* early, struct timeval* later) {
    if (early == nullptr) {
        return 0;
    }
    struct timeval now;
    if (later == nullptr) {
        gettimeofday(&now, nullptr);
        later = &now;
    }
    if (timercmp(early, later, >)) {
        return 0;
    }
    return (later->tv_sec - early->tv_sec) * 1000000L + (later->tv_usec - early->tv_usec);
}

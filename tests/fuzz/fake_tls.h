/* A TLS library that gives out the bytes of an input, in pieces, over no network. */
#ifndef VINDRAL_FAKE_TLS_H
#define VINDRAL_FAKE_TLS_H

#include "fuzz.h"
#include "libsslloader.h"

#include <algorithm>
#include <cstring>
#include <string_view>

struct fake_tls_stream {
    std::string_view left;           /* what the peer has sent */
    size_t piece = SIZE_MAX;         /* bytes of a record */
    int end = SSL_ERROR_ZERO_RETURN; /* what comes behind the last byte */
    bool wait_first = false;         /* the next read has to be repeated */
};
inline fake_tls_stream fake_tls;
inline char fake_tls_handle; /* stands for the library's objects */

inline int fake_tls_read(SSL*, void* buffer, int room) {
    if (fake_tls.wait_first) {
        return -1;
    }
    size_t length = std::min({fake_tls.left.size(), fake_tls.piece, static_cast<size_t>(room)});
    memcpy(buffer, fake_tls.left.data(), length);
    fake_tls.left.remove_prefix(length);
    return length > 0 ? static_cast<int>(length) : fake_tls.end == SSL_ERROR_SSL ? -1 : 0;
}

inline int fake_tls_error(const SSL*, int) {
    if (fake_tls.wait_first) {
        fake_tls.wait_first = false;
        return SSL_ERROR_WANT_READ;
    }
    return fake_tls.end;
}

inline void bind_fake_tls() {
    lib_SSLv23_client_method = [] { return reinterpret_cast<const SSL_METHOD*>(&fake_tls_handle); };
    lib_SSL_CTX_new = [](const SSL_METHOD*) {
        return reinterpret_cast<SSL_CTX*>(&fake_tls_handle);
    };
    lib_SSL_CTX_free = [](SSL_CTX*) {};
    lib_SSL_new = [](SSL_CTX*) { return reinterpret_cast<SSL*>(&fake_tls_handle); };
    lib_SSL_free = [](SSL*) {};
    lib_SSL_set_fd = [](SSL*, int) { return 1; };
    lib_SSL_connect = [](SSL*) { return 1; };
    lib_SSL_shutdown = [](SSL*) { return 1; };
    lib_SSL_write = [](SSL*, const void*, int length) { return length; };
    lib_SSL_read = fake_tls_read;
    lib_SSL_get_error = fake_tls_error;
    lib_ERR_get_error = [] { return 0UL; };
    lib_ERR_error_string = [](unsigned long, char* text) { return strcpy(text, "broken off"); };
}

#endif

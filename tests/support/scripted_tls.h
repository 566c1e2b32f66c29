/* A TLS library that plays a script, and a connection that leads no farther than the test. */
#ifndef VINDRAL_SCRIPTED_TLS_H
#define VINDRAL_SCRIPTED_TLS_H

#include "guards.h"
#include "libsslloader.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <vector>

/* A connected pair of local sockets; ours does not block. */
struct socket_pair {
    unique_fd ours, theirs;
    explicit socket_pair(int type = SOCK_STREAM) {
        int both[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, type, 0, both));
        ours.reset(both[0]);
        theirs.reset(both[1]);
        fcntl(both[0], F_SETFL, O_NONBLOCK);
    }
    void feed(const std::string& bytes) {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  write(theirs.get(), bytes.data(), bytes.size()));
    }
};

inline SSL* const fake_session = reinterpret_cast<SSL*>(&lib_SSL_write);

/* What a call returns, and what SSL_get_error says about it. */
struct tls_step {
    int result, code;
};
inline std::vector<tls_step> tls_script; /* the last step repeats */
inline size_t tls_calls;
inline std::string tls_read_data; /* what successful reads bring, as many bytes as they say */

inline int play_tls() {
    size_t i = std::min(tls_calls++, tls_script.size() - 1);
    return tls_script[i].result;
}

/* The library plays the script as long as this lives. */
class scripted_tls {
public:
    scripted_tls() {
        tls_calls = 0;
        tls_read_data.clear();
        lib_SSL_write = [](SSL*, const void*, int) { return play_tls(); };
        lib_SSL_read = [](SSL*, void* room, int size) {
            int got = play_tls();
            EXPECT_EQ(4095, size);
            if (got > 0) {
                memcpy(room, tls_read_data.data(), static_cast<size_t>(got));
                tls_read_data.erase(0, static_cast<size_t>(got));
            }
            return got;
        };
        lib_SSL_get_error = [](const SSL*, int result) {
            size_t i = std::min(tls_calls - 1, tls_script.size() - 1);
            EXPECT_EQ(tls_script[i].result, result);
            return tls_script[i].code;
        };
        lib_ERR_get_error = [] { return 42UL; };
        lib_ERR_error_string = [](unsigned long error, char* text) {
            snprintf(text, 256, "error text %lu", error);
            return text;
        };
    }
    ~scripted_tls() {
        lib_SSL_write = write_;
        lib_SSL_read = read_;
        lib_SSL_get_error = get_error_;
        lib_ERR_get_error = err_get_error_;
        lib_ERR_error_string = err_error_string_;
    }
    scripted_tls(const scripted_tls&) = delete;
    scripted_tls& operator=(const scripted_tls&) = delete;

private:
    decltype(lib_SSL_write) write_ = lib_SSL_write;
    decltype(lib_SSL_read) read_ = lib_SSL_read;
    decltype(lib_SSL_get_error) get_error_ = lib_SSL_get_error;
    decltype(lib_ERR_get_error) err_get_error_ = lib_ERR_get_error;
    decltype(lib_ERR_error_string) err_error_string_ = lib_ERR_error_string;
};

#endif

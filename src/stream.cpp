#include "stream.h"

#include "budget.h"

#include <algorithm>
#include <climits>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

static const int CHUNK = 4095;                  /* most bytes that one read asks for */
static const size_t BUFFER_STEP = CHUNK + 4096; /* the least by which the buffer grows */

/* --- TLS ------------------------------------------------------------------------------------- */

void forget_tls_errors() {
    for (int i = 0; i < 16 && lib_ERR_get_error() != 0; i++) {
    }
}

const char* tls_reason(char (&text)[256]) {
    return lib_ERR_error_string(lib_ERR_get_error(), text);
}

session_end make_session(stream_connection& c, SSL_CTX* context) {
    if (context == nullptr) {
        c.context.reset(lib_SSL_CTX_new(lib_SSLv23_client_method()));
        context = c.context.get();
    }
    if (context == nullptr) {
        return session_end::no_context;
    }
    c.session.reset(lib_SSL_new(context));
    if (!c.session) {
        return session_end::no_session;
    }
    lib_SSL_set_fd(c.session.get(), c.socket.get());
    return session_end::made;
}

void say_goodbye(stream_connection& c) {
    if (c.session) {
        lib_SSL_shutdown(c.session.get());
    }
    c.session.reset();
    c.context.reset();
    c.socket.reset();
}

/* What a session waits for that could not go on: POLLIN or POLLOUT; 0 when it cannot at all. */
static short awaited_by_tls(int code) {
    return code == SSL_ERROR_WANT_READ ? POLLIN : code == SSL_ERROR_WANT_WRITE ? POLLOUT : 0;
}

/* How a call of the library ended that brought nothing and waits for nothing. */
static stream_end end_of_tls(int code, int result) {
    return code == SSL_ERROR_ZERO_RETURN || (code == SSL_ERROR_SYSCALL && result == 0)
               ? stream_end::ended
               : stream_end::failed;
}

stream_outcome stream_shake_hands(const stream& s, handshake_clock clock) {
    const int64_t end_us = monotonic_us() + *s.budget_us;
    for (;;) {
        struct timeval start;
        gettimeofday(&start, nullptr);
        int connected = lib_SSL_connect(s.session);
        if (clock == handshake_clock::wall) {
            charge_budget(s.budget_us, &start);
        }
        if (connected > 0) {
            return {stream_end::done, SSL_ERROR_NONE, connected};
        }
        int code = lib_SSL_get_error(s.session, connected);
        short awaited = awaited_by_tls(code);
        if (awaited == 0) {
            return {stream_end::failed, code, connected};
        }
        if (wait_socket(s.sk, awaited, s.budget_us) == 0) {
            return {stream_end::wait_timed_out, code, connected};
        }
        if (clock == handshake_clock::steady) {
            *s.budget_us = end_us - monotonic_us();
        }
    }
}

/* --- sending --------------------------------------------------------------------------------- */

/* `done` also after an interrupted wait. */
static stream_outcome wait_for(const stream& s, short events) {
    int ready = wait_socket(s.sk, events, s.budget_us);
    if (ready < 0 && errno != EINTR) {
        return {stream_end::wait_failed, errno};
    }
    return {ready != 0 ? stream_end::done : stream_end::wait_timed_out};
}

static stream_outcome send_plain(const stream& s, const char* data, size_t length) {
    for (;;) {
        stream_outcome waited = wait_for(s, POLLOUT);
        if (waited.end != stream_end::done) {
            return waited;
        }
        struct timeval start;
        gettimeofday(&start, nullptr);
        ssize_t sent = send(s.sk, data, length, MSG_NOSIGNAL);
        int error = errno;
        charge_budget(s.budget_us, &start);
        if (*s.budget_us < 1) {
            return {stream_end::timed_out};
        }
        if (sent < 0 && error != EAGAIN) {
            return {stream_end::failed, error, -1};
        }
        if (sent >= 0) {
            if (static_cast<size_t>(sent) == length) {
                return {stream_end::done};
            }
            data += sent;
            length -= static_cast<size_t>(sent);
        }
    }
}

/* The session takes the whole buffer in one write that succeeds; until then the same write is
 * repeated whenever the socket is ready for what the session is waiting for. */
static stream_outcome send_tls(const stream& s, const char* data, size_t length) {
    if (length > INT_MAX) {
        return {stream_end::too_much};
    }
    stream_outcome sent = wait_for(s, POLLOUT);
    while (sent.end == stream_end::done) {
        struct timeval start;
        gettimeofday(&start, nullptr);
        sent.count = lib_SSL_write(s.session, data, static_cast<int>(length));
        charge_budget(s.budget_us, &start);
        if (*s.budget_us < 1) {
            sent.end = stream_end::timed_out;
        } else if (sent.count > 0) {
            break;
        } else {
            sent.error = lib_SSL_get_error(s.session, sent.count);
            if (short awaited = awaited_by_tls(sent.error)) {
                wait_socket(s.sk, awaited, s.budget_us);
                continue; /* after a wait in vain for the last time */
            }
            sent.end = end_of_tls(sent.error, sent.count);
        }
    }
    return sent;
}

stream_outcome stream_send(const stream& s, const char* data, size_t length) {
    return s.session == nullptr ? send_plain(s, data, length) : send_tls(s, data, length);
}

/* --- receiving ------------------------------------------------------------------------------- */

/* Makes room for another chunk and a NUL. */
static stream_outcome reserve_chunk(bytes& data) {
    if (data.size() > MAX_RESPONSE_SIZE) {
        return {stream_end::too_much};
    }
    if (data.room() - data.size() > CHUNK) {
        return {stream_end::done};
    }
    size_t room = data.room() + std::max(BUFFER_STEP, data.room() / 2);
    if (!data.set_room(room)) {
        return {stream_end::no_memory, static_cast<int>(room)};
    }
    return {stream_end::done};
}

/* A plain read that brought no bytes; `done` to read again. An error that stays makes the socket
 * look readable, hence the pause. */
static stream_outcome judge_plain_read(const stream& s, int got, int error) {
    if (got == 0) {
        return {stream_end::ended};
    }
    if (error == EINTR || error == EAGAIN) {
        return {stream_end::failed, error, got};
    }
    if (s.retry_pause_us > 0) {
        pause_within(s.retry_pause_us, s.budget_us);
        if (*s.budget_us < 1) {
            return {stream_end::timed_out};
        }
    }
    return {stream_end::done};
}

/* A TLS read that brought no bytes; `done` to read again, when *awaited has come. */
static stream_outcome judge_tls_read(const stream& s, int got, short* awaited) {
    int code = lib_SSL_get_error(s.session, got);
    *awaited = awaited_by_tls(code);
    return {*awaited != 0 ? stream_end::done : end_of_tls(code, got), code, got};
}

stream_outcome stream_receive(stream& s, http_response& r) {
    bytes& data = r.data;
    short awaited = s.may_hold_more ? 0 : POLLIN;
    for (;;) {
        stream_outcome step = awaited != 0 ? wait_for(s, awaited) : stream_outcome{};
        if (step.end == stream_end::done) {
            step = reserve_chunk(data);
        }
        if (step.end != stream_end::done) {
            return step;
        }
        struct timeval start;
        gettimeofday(&start, nullptr);
        int got = s.session != nullptr ? lib_SSL_read(s.session, data.end(), CHUNK)
                                       : static_cast<int>(read(s.sk, data.end(), CHUNK));
        int error = errno;
        charge_budget(s.budget_us, &start);
        bool in_time = *s.budget_us >= 1;
        data.added(in_time && got > 0 ? static_cast<size_t>(got) : 0);
        *data.end() = '\0'; /* also when nothing came at all */
        if (!in_time) {
            return {stream_end::timed_out};
        }
        if (got > 0) {
            look_at_headers(r, static_cast<int>(data.size()) - got);
            /* A full chunk may have left bytes of the same record in the session, where a wait on
             * the socket would not see them. */
            s.may_hold_more = s.session != nullptr && got == CHUNK;
            return {stream_end::done, 0, got};
        }
        awaited = POLLIN;
        step = s.session != nullptr ? judge_tls_read(s, got, &awaited)
                                    : judge_plain_read(s, got, error);
        if (step.end != stream_end::done) {
            return step;
        }
    }
}

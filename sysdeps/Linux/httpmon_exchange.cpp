#include "httpmon_exchange.h"

#include "guards.h"
#include "libsslloader.h"
#include "vindral_common.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#define STARS "*************************************************************"

static const long US_PER_SECOND = 1000000;
static const int MAX_REDIRECTIONS = 16;
static const int CHUNK = 4095;               /* most bytes that one read asks for */
static const int BUFFER_STEP = CHUNK + 4096; /* least growth of the response buffer */

namespace {

struct free_context {
    void operator()(SSL_CTX* context) const { lib_SSL_CTX_free(context); }
};
struct free_session {
    void operator()(SSL* session) const { lib_SSL_free(session); }
};

/* One connection; going out of scope gives everything back. */
struct connection {
    unique_fd socket;
    std::unique_ptr<SSL_CTX, free_context> context;
    std::unique_ptr<SSL, free_session> session; /* null: plain */
};

/* A check under way. */
struct exchange {
    const aHost& test;
    char* info; /* the outcome in words */
    const long budget_us;
    long left_us = budget_us;

    heap_text host, port, url; /* the current target; a redirection replaces them */
    int ssl;
    int redirections = 0;

    heap_text data{}; /* the last response; null: none */
    int header_size = 0;
    int code = 0;
    char status_line[STATUS_LINE_SIZE] = "";
};

/* The response as it grows. */
struct page {
    heap_text data; /* NUL behind the last byte, when there is a buffer */
    int capacity = 0;
    int length = 0;
    int header_size = 0;     /* 0 until the end of the headers has come */
    long content_length = 0; /* as the headers announce it */
};

enum class read_outcome { retry, ended, failed };

} // namespace

static float seconds_spent(const exchange& e) {
    return static_cast<float>(e.budget_us - e.left_us) / 1000000;
}

/* --- TLS ------------------------------------------------------------------------------------- */

/* SSL_get_error takes whatever lies in this thread's queue, at most 16 errors, for the error of the
 * last call; an earlier request of this check may have left some. */
static void forget_old_errors() {
    for (int i = 0; i < 16 && lib_ERR_get_error() != 0; i++) {
    }
}

static int tls_failed(char* info) {
    char text[256];
    snprintf(info, ADD_INFO_SIZE, "CRITICAL - Cannot establish SSL connection. %s",
             lib_ERR_error_string(lib_ERR_get_error(), text));
    return 0;
}

/* Returns the last result of SSL_connect: 1 when the handshake is done. */
static int shake_hands(SSL* session, int sk, long patience_us) {
    const int64_t end_us = monotonic_us() + patience_us;
    for (;;) {
        int connected = lib_SSL_connect(session);
        if (connected > 0) {
            return connected;
        }
        int code = lib_SSL_get_error(session, connected);
        if (code != SSL_ERROR_WANT_READ && code != SSL_ERROR_WANT_WRITE) {
            return connected;
        }
        if (wait_socket(sk, code == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, &patience_us) == 0) {
            return connected;
        }
        patience_us = end_us - monotonic_us();
    }
}

/* Builds the TLS session on the connected socket. Returns 1, or 0 with a text; without one when the
 * library reports a success that is none. */
static int start_tls(exchange& e, connection& c) {
    forget_old_errors();
    c.context.reset(lib_SSL_CTX_new(lib_SSLv23_client_method()));
    if (!c.context) {
        snprintf(e.info, ADD_INFO_SIZE, "CRITICAL - Cannot create SSL context. ");
        return 0;
    }
    c.session.reset(lib_SSL_new(c.context.get()));
    if (!c.session) {
        return tls_failed(e.info);
    }
    lib_SSL_set_fd(c.session.get(), c.socket.get());
    struct timeval start;
    gettimeofday(&start, nullptr);
    int connected = shake_hands(c.session.get(), c.socket.get(), HANDSHAKE_PATIENCE_US);
    charge_budget(&e.left_us, &start);
    return connected > 0 ? connected == 1 : tls_failed(e.info);
}

/* --- sending --------------------------------------------------------------------------------- */

static int timed_out(char* addInfo) {
    snprintf(addInfo, ADD_INFO_SIZE, "Connection timed out.");
    return 0;
}

/* Returns 1 to carry on, also after an interrupted wait, 0 when the send has failed. */
static int wait_to_send(int sk, long* tout, char* addInfo) {
    int ready = wait_socket(sk, POLLOUT, tout);
    if (ready < 0 && errno != EINTR) {
        leveledadd2log(0, "Error %d - %s", errno, strerror(errno));
        return 0;
    }
    return ready != 0 ? 1 : timed_out(addInfo);
}

static int send_plain(int sk, const char* sd, size_t sd_len, long* tout, char* addInfo) {
    for (;;) {
        if (!wait_to_send(sk, tout, addInfo)) {
            return 0;
        }
        struct timeval start;
        gettimeofday(&start, nullptr);
        ssize_t sent = send(sk, sd, sd_len, MSG_NOSIGNAL);
        int error = errno;
        charge_budget(tout, &start);
        if (*tout < 1) {
            return timed_out(addInfo);
        }
        if (sent < 0 && error != EAGAIN) {
            return 0;
        }
        if (sent >= 0) {
            if (static_cast<size_t>(sent) == sd_len) {
                return 1;
            }
            sd += sent;
            sd_len -= static_cast<size_t>(sent);
        }
    }
}

/* The session takes the whole buffer in one write that succeeds; until then the same write is
 * repeated whenever the socket is ready for what the session is waiting for. Written whole is 2
 * bytes or more. */
static int send_tls(int sk, const char* sd, size_t sd_len, long* tout, char* addInfo, SSL* pSSL) {
    if (!wait_to_send(sk, tout, addInfo)) {
        return 0;
    }
    for (;;) {
        struct timeval start;
        gettimeofday(&start, nullptr);
        int written = lib_SSL_write(pSSL, sd, static_cast<int>(sd_len));
        charge_budget(tout, &start);
        if (*tout < 1) {
            timed_out(addInfo);
            return written > 1;
        }
        int code = written > 0 ? SSL_ERROR_NONE : lib_SSL_get_error(pSSL, written);
        if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) {
            wait_socket(sk, code == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, tout);
            continue; /* after a wait in vain for the last time */
        }
        leveledadd2log(5, "SSL_write: retV = %d ret = %d", code, written);
        return written > 1;
    }
}

int send_request(int sk, const char* sd, size_t sd_len, long* tout, char* addInfo, SSL* pSSL) {
    addInfo[0] = '\0';
    return pSSL == nullptr ? send_plain(sk, sd, sd_len, tout, addInfo)
                           : send_tls(sk, sd, sd_len, tout, addInfo, pSSL);
}

/* --- receiving ------------------------------------------------------------------------------- */

static int receive_timed_out(char* addInfo) {
    snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL - Connection timed out.");
    return 0;
}

/* Makes room for another chunk and a NUL. */
static int reserve_chunk(page& p, char* addInfo) {
    if (p.length > MAX_RESPONSE_SIZE) {
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL - more than %d bytes received.",
                 MAX_RESPONSE_SIZE);
        return 0;
    }
    if (p.capacity - p.length > CHUNK) {
        return 1;
    }
    int capacity = p.capacity + std::max(BUFFER_STEP, p.capacity / 2);
    char* grown = static_cast<char*>(realloc(p.data.get(), static_cast<size_t>(capacity)));
    if (grown == nullptr) {
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL - no memory for %d bytes.", capacity);
        return 0;
    }
    (void)p.data.release();
    p.data.reset(grown);
    p.capacity = capacity;
    return 1;
}

/* Takes `count` bytes that were read behind the data, and looks at the headers once they are in. */
static void add_chunk(page& p, int count) {
    int scanned = p.length;
    p.length += count;
    p.data.get()[p.length] = '\0';
    if (p.header_size == 0) {
        p.header_size = is_header_loaded(p.data.get(), p.length, scanned);
        p.content_length = get_content_length(p.data.get(), static_cast<size_t>(p.header_size));
    }
}

/* Exactly as many bytes as announced are there. */
static bool is_complete(const page& p) {
    unsigned long announced =
        static_cast<unsigned long>(p.header_size) + static_cast<unsigned long>(p.content_length);
    return p.header_size != 0 && announced == static_cast<unsigned long>(p.length);
}

static int wait_to_receive(int sk, short events, long* tout, char* addInfo) {
    int ready = wait_socket(sk, events, tout);
    if (ready < 0 && errno != EINTR) {
        leveledadd2log(0, "Error %d - %s", errno, strerror(errno));
        return 0;
    }
    return ready != 0 ? 1 : receive_timed_out(addInfo);
}

/* A plain read that brought no bytes. The transient errors end the check, all others are tried
 * again within the budget: a connection that was reset reads as ended the next time. */
static read_outcome judge_plain_read(int got, int error) {
    if (got == 0) {
        return read_outcome::ended;
    }
    if (error == EINTR || error == EAGAIN) {
        leveledadd2log(0, "Error %d - %s", error, strerror(error));
        return read_outcome::failed;
    }
    return read_outcome::retry;
}

/* A TLS read that brought no bytes; *awaited is what the session waits for. OpenSSL 3 reports a
 * connection that ended without the closing alert as an error, older releases as an end. */
static read_outcome judge_tls_read(SSL* pSSL, int got, short* awaited, char* addInfo) {
    int code = lib_SSL_get_error(pSSL, got);
    if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) {
        *awaited = code == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        return read_outcome::retry;
    }
    if (code == SSL_ERROR_ZERO_RETURN || (code == SSL_ERROR_SYSCALL && got == 0)) {
        return read_outcome::ended;
    }
    char text[256];
    lib_ERR_error_string(lib_ERR_get_error(), text);
    snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL - %s", text);
    leveledadd2log(0, "%s", text);
    return read_outcome::failed;
}

/* Reads until the page is complete or the peer has ended it. Returns 1, or 0 on failure. */
static int receive_page(int sk, page& p, long* tout, char* addInfo, int loadFullPage, SSL* pSSL) {
    short awaited = POLLIN;
    for (;;) {
        if (awaited != 0 && !wait_to_receive(sk, awaited, tout, addInfo)) {
            return 0;
        }
        if (!reserve_chunk(p, addInfo)) {
            return 0;
        }
        char* room = p.data.get() + p.length;
        struct timeval start;
        gettimeofday(&start, nullptr);
        int got = pSSL != nullptr ? lib_SSL_read(pSSL, room, CHUNK)
                                  : static_cast<int>(read(sk, room, CHUNK));
        int error = errno;
        charge_budget(tout, &start);
        if (*tout < 1) {
            return receive_timed_out(addInfo);
        }
        awaited = POLLIN;
        if (got <= 0) {
            read_outcome outcome = pSSL != nullptr ? judge_tls_read(pSSL, got, &awaited, addInfo)
                                                   : judge_plain_read(got, error);
            if (outcome != read_outcome::retry) {
                return outcome == read_outcome::ended;
            }
            continue;
        }
        add_chunk(p, got);
        if (loadFullPage && is_complete(p)) {
            return 1;
        }
        /* A full chunk may have left bytes of the same record in the session, where a wait on the
         * socket would not see them. */
        if (pSSL != nullptr && got == CHUNK) {
            awaited = 0;
        }
    }
}

int receive_response(int sk, long, long* tout, char* addInfo, int loadFullPage, char** out_buf,
                     int* size_h, SSL* pSSL) {
    addInfo[0] = '\0';
    *out_buf = nullptr;
    *size_h = 0;
    page p;
    int received = receive_page(sk, p, tout, addInfo, loadFullPage, pSSL);
    if (p.data) {
        p.data.get()[p.length] = '\0'; /* also when nothing came at all */
    }
    *out_buf = p.data.release();
    *size_h = p.header_size;
    return received;
}

/* --- the check ------------------------------------------------------------------------------- */

static int send_page_request(exchange& e, const connection& c) {
    heap_text request(make_http_request(e.host.get(), e.url.get(), e.test.method, e.test.post,
                                        e.test.userAgent, e.test.user, e.test.pass));
    if (!request) {
        leveledadd2log(0, "make_http_request FAILED!!!");
        return 0;
    }
    leveledadd2log(5, "Sending request:\n\n" STARS "\n\n%s\n\n" STARS "\n\n", request.get());
    if (!send_request(c.socket.get(), request.get(), strlen(request.get()), &e.left_us, e.info,
                      c.session.get())) {
        leveledadd2log(0, "Request failed: %s\n\n", e.info);
        return 0;
    }
    leveledadd2log(5, "Request Sent!\ntime spent:\t%.3f\ntime left:\t%d\n\n", seconds_spent(e),
                   static_cast<int>(e.left_us));
    return 1;
}

/* One request to the current target and its response. Returns 1, or 0 with the text of the failure,
 * if it has one. */
static int fetch(exchange& e) {
    connection c;
    c.socket.reset(make_connection(e.host.get(), e.port.get(), &e.left_us, e.info));
    if (!c.socket) {
        if (e.info[0] == '\0') {
            snprintf(e.info, ADD_INFO_SIZE, "Connection Failed.");
        }
        return 0;
    }
    leveledadd2log(5, "Connected!\ntime spent:\t%.3f\ntime  left:\t%d\n\n", seconds_spent(e),
                   static_cast<int>(e.left_us));
    if (e.ssl && !start_tls(e, c)) {
        return 0;
    }
    if (!send_page_request(e, c)) {
        return 0;
    }
    leveledadd2log(5, "Starting receive...");
    char* data = nullptr;
    int received = receive_response(c.socket.get(), e.budget_us, &e.left_us, e.info,
                                    e.test.loadFullPage, &data, &e.header_size, c.session.get());
    e.data.reset(data);
    if (c.session) {
        lib_SSL_shutdown(c.session.get());
    }
    return received;
}

/* Takes the target of a 3xx response over. Returns 1, or 0 with a text. */
static int follow_redirection(exchange& e) {
    if (e.redirections == MAX_REDIRECTIONS) {
        /* The text has always named one less than are followed. */
        snprintf(e.info, ADD_INFO_SIZE,
                 "HTTP WARNING - maximum redirection depth %d exceeded - %s://%s:%s%s",
                 MAX_REDIRECTIONS - 1, e.ssl ? "https" : "http", e.host.get(), e.port.get(),
                 e.url.get());
        return 0;
    }
    char *host = nullptr, *url = nullptr, *port = nullptr;
    if (!get_redir(e.host.get(), e.url.get(), static_cast<int>(strtol(e.port.get(), nullptr, 10)),
                   e.data.get(), static_cast<size_t>(e.header_size), e.status_line, &e.ssl, &host,
                   &url, &port, e.info)) {
        return 0;
    }
    e.host.reset(host);
    e.url.reset(url);
    e.port.reset(port);
    e.redirections++;
    return 1;
}

static bool is_good_code(int code) {
    return (code >= 100 && code <= 399) || code == 401 || code == 403;
}

/* The text of the test is in the body, or is not, as it should be. */
static int match_body(exchange& e) {
    if (e.test.mutch == nullptr || !e.test.loadFullPage) {
        return 1;
    }
    bool found = strstr(e.data.get() + e.header_size, e.test.mutch) != nullptr;
    if (found == (e.test.mustbefound != 0)) {
        return 1;
    }
    snprintf(e.info, ADD_INFO_SIZE, "HTTP CRITICAL - string%sfound", found ? " " : " not ");
    return 0;
}

/* Judges a response that is not followed further. Returns 1 when it is OK. */
static int judge(exchange& e) {
    int ok = is_good_code(e.code) && match_body(e);
    if (e.info[0] == '\0') {
        snprintf(e.info, ADD_INFO_SIZE, "%s %s - %.3f second response time",
                 ok ? "HTTP OK" : "HTTP CRITICAL", e.status_line, seconds_spent(e));
    }
    return ok;
}

/* One request with all that follows from its response. Returns 1 when the page is OK, 0 when the
 * check has failed, and sets *again when a redirection has to be followed. */
static int take_turn(exchange& e, bool* again) {
    *again = false;
    e.info[0] = '\0';
    leveledadd2log(5, "connecting...\nhost:\t%s\nurl:\t%s\nport:\t%s\nmutch:\t%s\n\n", e.host.get(),
                   e.url.get(), e.port.get(), e.test.mutch != nullptr ? e.test.mutch : "");
    if (!fetch(e)) {
        return 0;
    }
    e.code = get_status_code(e.data.get(), e.info, e.status_line);
    if (e.code == 0) {
        return 0;
    }
    if (e.test.Redirect && e.code >= 300 && e.code <= 399) {
        *again = follow_redirection(e);
        return 0;
    }
    return judge(e);
}

/* Seconds as text in microseconds; no number is 0. */
static long time_budget(const char* seconds) {
    const long most = LONG_MAX / US_PER_SECOND;
    return std::clamp(strtol(seconds, nullptr, 10), -most, most) * US_PER_SECOND;
}

com_result* make_http_check(aHost* t_v, char* addInfo) {
    heap<com_result> result(static_cast<com_result*>(calloc(1, sizeof(com_result))));
    exchange e{.test = *t_v,
               .info = addInfo,
               .budget_us = time_budget(t_v->tout),
               .host = heap_text(strdup(t_v->host)),
               .port = heap_text(strdup(t_v->port)),
               .url = heap_text(strdup(t_v->uri)),
               .ssl = t_v->isSSL};
    if (!result || !e.host || !e.port || !e.url) {
        return nullptr;
    }
    int ok;
    bool again;
    do {
        ok = take_turn(e, &again);
    } while (again);
    result->spentTime = static_cast<float>(e.budget_us - e.left_us) / 1000;
    result->newStatus = ok ? 0 : 2;
    result->rsp_code = e.code;
    result->header_size = e.header_size;
    result->content_length = e.data ? static_cast<int>(strlen(e.data.get() + e.header_size)) : 0;
    result->tid = static_cast<int>(t_v->id);
    result->loc_id = t_v->loc_id;
    return result.release();
}

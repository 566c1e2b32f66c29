#include "sslutiles.h"

#include "guards.h"
#include "libsslloader.h"
#include "resolve.h"
#include "vindral_common.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

static const long US_PER_SECOND = 1000000;
static const long RETRY_PAUSE_US = 10000;
static const int CHUNK = 4095;               /* most bytes that one read asks for */
static const int BUFFER_STEP = CHUNK + 4096; /* least growth of the response buffer */

struct free_address_list {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, free_address_list>;

void charge_budget(long* budget_us, struct timeval* start) {
    *budget_us -= get_timevaldiff(start, nullptr);
}

static timespec in_timespec(long us) {
    return {us / US_PER_SECOND, us % US_PER_SECOND * 1000};
}

int wait_socket(int sk, short events, long* budget_us) {
    if (sk < 0) {
        errno = EBADF;
        return -1;
    }
    if (*budget_us < 0) {
        return 0;
    }
    struct timeval start;
    gettimeofday(&start, nullptr);
    pollfd waited = {sk, events, 0};
    timespec timeout = in_timespec(*budget_us);
    int ready;
    {
        cancel_on may_end;
        ready = ppoll(&waited, 1, &timeout, nullptr);
    }
    charge_budget(budget_us, &start);
    if (ready == 0) {
        *budget_us = std::min(*budget_us, 0L); /* whatever the clock says */
    }
    if (ready > 0 && (waited.revents & POLLNVAL)) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

/* --- opening a connection -------------------------------------------------------------------- */

/* A socket for the first address of the list that one can be made for; *chosen is that address.
 * Requests go out at once: otherwise the first one behind a TLS handshake is held back until the
 * peer has acknowledged the handshake's end, which it may put off for 40 ms. */
static unique_fd open_socket(addrinfo* list, addrinfo** chosen) {
    for (addrinfo* a = list; a != nullptr; a = a->ai_next) {
        unique_fd sk(socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol));
        if (sk) {
            const int at_once = 1;
            (void)setsockopt(sk.get(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
            *chosen = a;
            return sk;
        }
    }
    return unique_fd();
}

static int make_nonblocking(int sk) {
    int flags = fcntl(sk, F_GETFL, 0);
    if (flags < 0) {
        leveledadd2log(0, "Error: %s", strerror(errno));
        return 0;
    }
    if (fcntl(sk, F_SETFL, flags | O_NONBLOCK) < 0) {
        leveledadd2log(0, "Error fcntl(..., F_SETFL) (%s)\n", strerror(errno));
        return 0;
    }
    return 1;
}

/* Logs what went wrong, and tells the caller where that has asked for it. */
template <typename... T>
static void report(char* _addInfo, const char* format, T... values) {
    if (_addInfo != nullptr) {
        snprintf(_addInfo, ADD_INFO_SIZE, format, values...);
    }
    leveledadd2log(0, format, values...);
}

/* Waits for a connect that is under way. Returns 1 when connected, else 0. */
static int finish_connect(int sk, const char* host, long budget_us, char* _addInfo) {
    long left_us = budget_us;
    int ready = wait_socket(sk, POLLOUT, &left_us);
    if (ready < 0 && errno != EINTR) {
        leveledadd2log(0, "Error connecting %d - %s", errno, strerror(errno));
        return 0;
    }
    if (ready <= 0) {
        report(_addInfo, "Connection to host: \"%s\" timed out after %ld seconds", host,
               budget_us / US_PER_SECOND);
        return 0;
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(sk, SOL_SOCKET, SO_ERROR, &error, &size) < 0) {
        leveledadd2log(0, "Error in getsockopt() %d - %s", errno, strerror(errno));
        return 0;
    }
    if (error != 0) {
        leveledadd2log(0, "Error in delayed connection() %d - %s", error, strerror(error));
        return 0;
    }
    return 1;
}

static int connect_within(int sk, const addrinfo* address, const char* host, long budget_us,
                          char* _addInfo) {
    if (connect(sk, address->ai_addr, address->ai_addrlen) == 0) {
        return 1;
    }
    if (errno == EINPROGRESS) {
        return finish_connect(sk, host, budget_us, _addInfo);
    }
    leveledadd2log(0, "Error connecting %d - %s", errno, strerror(errno));
    return 0;
}

int make_connection(const char* _host, const char* _port, long* t_out) {
    return make_connection(_host, _port, t_out, nullptr);
}

int make_connection(const char* _host, const char* _port, long* t_out, char* _addInfo) {
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* resolved = nullptr;
    int failed = resolve_host(_host, _port, &hints, &resolved);
    if (failed) {
        report(_addInfo, "Host: %s Error: %s", _host, gai_strerror(failed));
        return -1;
    }
    address_list list(resolved);

    addrinfo* address = nullptr;
    unique_fd sk = open_socket(list.get(), &address);
    if (!sk) {
        leveledadd2log(0, "Error creating socket (%d %s)\n", errno, strerror(errno));
        return -1;
    }
    if (!make_nonblocking(sk.get())) {
        return -1;
    }
    struct timeval start;
    gettimeofday(&start, nullptr);
    int connected = connect_within(sk.get(), address, _host, *t_out, _addInfo);
    charge_budget(t_out, &start);
    return connected ? sk.release() : -1;
}

/* --- sending --------------------------------------------------------------------------------- */

/* Returns 1 to carry on, also after an interrupted wait, 0 when the send has failed. */
static int wait_to_send(int sk, long* tout) {
    int ready = wait_socket(sk, POLLOUT, tout);
    if (ready < 0 && errno != EINTR) {
        leveledadd2log(0, "ERROR: send_request: select failed with errno: %d, %s", errno,
                       strerror(errno));
        return 0;
    }
    if (ready == 0) {
        leveledadd2log(0, "send_request: select: timed out.");
        return 0;
    }
    return 1;
}

static int send_plain(int sk, const char* sd, size_t sd_len, long* tout) {
    for (;;) {
        if (!wait_to_send(sk, tout)) {
            return 0;
        }
        struct timeval start;
        gettimeofday(&start, nullptr);
        ssize_t sent = send(sk, sd, sd_len, MSG_NOSIGNAL);
        int error = errno;
        charge_budget(tout, &start);
        if (*tout < 1) {
            leveledadd2log(0, "send_request: send: timed out.");
            return 0;
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
 * repeated whenever the socket is ready for what the session is waiting for. */
static int send_tls(int sk, const char* sd, size_t sd_len, long* tout, SSL* pSSL) {
    if (sd_len > INT_MAX) {
        leveledadd2log(0, "ERROR: send_request: %zu bytes are too many for TLS.", sd_len);
        return 0;
    }
    if (!wait_to_send(sk, tout)) {
        return 0;
    }
    int code = static_cast<int>(sd_len);
    for (;;) {
        struct timeval start;
        gettimeofday(&start, nullptr);
        int written = lib_SSL_write(pSSL, sd, static_cast<int>(sd_len));
        charge_budget(tout, &start);
        /* Written whole is 2 bytes or more: what peers have always been sent. */
        int whole = written > 1;
        if (*tout < 1) {
            leveledadd2log(0, "send_request: takes too long time, timing out.");
            return whole;
        }
        int level = 1;
        if (written <= 0) {
            code = lib_SSL_get_error(pSSL, written);
            if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) {
                wait_socket(sk, code == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, tout);
                continue; /* after a wait in vain for the last time */
            }
            if (code == SSL_ERROR_ZERO_RETURN || (code == SSL_ERROR_SYSCALL && written == 0)) {
                level = 0;
            }
        }
        leveledadd2log(level, "send_request: SSL_write: retV = %d ret = %d", code, written);
        return whole;
    }
}

int send_request(int sk, const char* sd, size_t sd_len, long* tout, SSL* pSSL) {
    return pSSL == nullptr ? send_plain(sk, sd, sd_len, tout)
                           : send_tls(sk, sd, sd_len, tout, pSSL);
}

/* --- receiving ------------------------------------------------------------------------------- */

int is_header_loaded(const char* doc, int doc_len) {
    return is_header_loaded(doc, doc_len, 0);
}

int is_header_loaded(const char* doc, int doc_len, int scanned) {
    for (int i = std::max(scanned - 2, 0); i < doc_len - 2; i++) {
        if (doc[i] != '\n') {
            continue;
        }
        if (doc[i + 1] == '\n') {
            return i + 2;
        }
        if (doc[i + 1] == '\r' && doc[i + 2] == '\n') {
            return i + 3;
        }
    }
    return 0;
}

static bool is_white_space(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

/* One past the end of the header that begins at `line`, with the lines that are folded into it. */
static const char* header_end(const char* line, const char* end) {
    while (line < end) {
        const char* feed = static_cast<const char*>(memchr(line, '\n', end - line));
        if (feed == nullptr) {
            return end;
        }
        line = feed + 1;
        if (line < end && *line != ' ' && *line != '\t') {
            break;
        }
    }
    return line;
}

/* What one header adds to the content length. */
static long content_length_of(const char* header, const char* end) {
    static const char PREFIX[] = "Content-";
    const size_t prefix_length = sizeof PREFIX - 1;
    if (static_cast<size_t>(end - header) < prefix_length ||
        strncasecmp(header, PREFIX, prefix_length) != 0) {
        return 0;
    }
    const char* name_end =
        std::find_if(header, end, [](char c) { return c == ':' || is_white_space(c); });
    if (name_end == end || *name_end != ':') {
        return 0;
    }
    const char* value = std::find_if_not(name_end + 1, end, is_white_space);
    if (value == end) {
        return 0;
    }
    errno = 0;
    long number = strtol(value, nullptr, 10);
    return errno != 0 || number == LONG_MAX || number == LONG_MIN ? 0 : number;
}

long sum_content_lengths(const char* hdrs, size_t hdrs_len) {
    const char* end = hdrs + hdrs_len;
    unsigned long sum = 0;
    while (hdrs < end) {
        const char* next = header_end(hdrs, end);
        sum += static_cast<unsigned long>(content_length_of(hdrs, next));
        hdrs = next;
    }
    return static_cast<long>(sum);
}

static long get_content_length(const char* hdrs, int hdrs_len) {
    return sum_content_lengths(hdrs, static_cast<size_t>(hdrs_len));
}

namespace {

struct response {
    heap_text data; /* NUL behind the last byte, when there is a buffer */
    int capacity = 0;
    int length = 0;
    int header_size = 0;     /* 0 until the end of the headers has come */
    long content_length = 0; /* 0 until known */
};

enum class read_outcome { retry, ended, failed };

} // namespace

static bool is_complete(const response& r) {
    unsigned long announced =
        static_cast<unsigned long>(r.header_size) + static_cast<unsigned long>(r.content_length);
    return r.content_length != 0 && static_cast<int>(announced) == r.length;
}

/* Makes room for another chunk and a NUL. */
static int reserve_chunk(response& r) {
    if (r.length > MAX_RESPONSE_SIZE) {
        leveledadd2log(0, "ERROR: receive_response: more than %d bytes received.",
                       MAX_RESPONSE_SIZE);
        return 0;
    }
    if (r.capacity - r.length > CHUNK) {
        return 1;
    }
    int capacity = r.capacity + std::max(BUFFER_STEP, r.capacity / 2);
    char* grown = static_cast<char*>(realloc(r.data.get(), static_cast<size_t>(capacity)));
    if (grown == nullptr) {
        leveledadd2log(0, "ERROR: receive_response: no memory for %d bytes.", capacity);
        return 0;
    }
    (void)r.data.release();
    r.data.reset(grown);
    r.capacity = capacity;
    return 1;
}

/* Takes `count` bytes that were read behind the data, and looks at the headers once they are in. */
static void add_chunk(response& r, int count) {
    int scanned = r.length;
    r.length += count;
    r.data.get()[r.length] = '\0';
    if (r.header_size == 0) {
        r.header_size = is_header_loaded(r.data.get(), r.length, scanned);
        r.content_length = get_content_length(r.data.get(), r.header_size);
    }
}

static int wait_to_receive(int sk, short events, long* tout) {
    int ready = wait_socket(sk, events, tout);
    if (ready < 0 && errno != EINTR) {
        leveledadd2log(0, "ERROR: receive_response: failed on select: errno: %d, %s", errno,
                       strerror(errno));
        return 0;
    }
    if (ready == 0) {
        leveledadd2log(0, "ERROR: receive_response: select: Connection timed out.");
        return 0;
    }
    return 1;
}

static int within_budget(long tout) {
    if (tout < 1) {
        leveledadd2log(0, "ERROR: receive_response: SSL_read: Connection timed out.");
        return 0;
    }
    return 1;
}

/* A read on plain TCP that brought no bytes. The transient errors end the exchange, all others are
 * tried again within the budget: a connection that was reset reads as ended the next time. An error
 * that stays makes the socket look readable, hence the pause. */
static read_outcome judge_plain_read(ssize_t got, int error, long* tout) {
    if (got == 0) {
        leveledadd2log(5, "receive_response: read(): 0 EOF");
        return read_outcome::ended;
    }
    if (error == EINTR || error == EAGAIN) {
        leveledadd2log(0, "receive_response: Error %d - %s", error, strerror(error));
        return read_outcome::failed;
    }
    struct timeval start;
    gettimeofday(&start, nullptr);
    timespec pause = in_timespec(std::min(*tout, RETRY_PAUSE_US));
    {
        cancel_on may_end;
        ppoll(nullptr, 0, &pause, nullptr);
    }
    charge_budget(tout, &start);
    return within_budget(*tout) ? read_outcome::retry : read_outcome::failed;
}

/* A read on TLS that brought no bytes; *awaited is what the session waits for. Only a peer that
 * said good-bye has ended the response: a connection that just broke off, which OpenSSL 3 reports
 * as a protocol error, has not, and the poll's results must not pass for accepted. */
static read_outcome judge_tls_read(SSL* pSSL, int got, short* awaited) {
    int code = lib_SSL_get_error(pSSL, got);
    if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) {
        *awaited = code == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        return read_outcome::retry;
    }
    if (code == SSL_ERROR_ZERO_RETURN || (code == SSL_ERROR_SYSCALL && got == 0)) {
        return read_outcome::ended;
    }
    char text[256];
    leveledadd2log(0, "ERROR: receive_response: SSL_read: %s",
                   lib_ERR_error_string(lib_ERR_get_error(), text));
    return read_outcome::failed;
}

/* Reads until the response is complete or the peer has ended it. Returns 1, or 0 on failure. */
static int receive_all(int sk, response& r, long* tout, SSL* pSSL) {
    short awaited = POLLIN;
    for (;;) {
        if (awaited != 0 && !wait_to_receive(sk, awaited, tout)) {
            return 0;
        }
        if (!reserve_chunk(r)) {
            return 0;
        }
        char* room = r.data.get() + r.length;
        struct timeval start;
        gettimeofday(&start, nullptr);
        int got = pSSL != nullptr ? lib_SSL_read(pSSL, room, CHUNK)
                                  : static_cast<int>(read(sk, room, CHUNK));
        int error = errno;
        charge_budget(tout, &start);
        if (!within_budget(*tout)) {
            return 0;
        }
        awaited = POLLIN;
        if (got <= 0) {
            read_outcome outcome = pSSL != nullptr ? judge_tls_read(pSSL, got, &awaited)
                                                   : judge_plain_read(got, error, tout);
            if (outcome != read_outcome::retry) {
                return outcome == read_outcome::ended;
            }
            continue;
        }
        add_chunk(r, got);
        if (is_complete(r)) {
            return 1;
        }
        /* A full chunk may have left bytes of the same record in the session, where a wait on the
         * socket would not see them. */
        if (pSSL != nullptr && got == CHUNK) {
            awaited = 0;
        }
    }
}

int receive_response(int sk, long* tout, char** out_buf, int* size_h, int* icnt_len, SSL* pSSL) {
    *out_buf = nullptr;
    *size_h = 0;
    response r;
    if (!receive_all(sk, r, tout, pSSL)) {
        return 0;
    }
    r.data.get()[r.length] = '\0'; /* also when nothing came at all */
    *out_buf = r.data.release();
    *size_h = r.header_size;
    *icnt_len = static_cast<int>(r.content_length);
    return 1;
}

/* --- text helpers ---------------------------------------------------------------------------- */

/* Cuts `text` at the first `c` and returns what follows it; null when there is none. */
static char* cut_at(char* text, char c) {
    char* found = strchr(text, c);
    if (found == nullptr) {
        return nullptr;
    }
    *found = '\0';
    return found + 1;
}

int urlparse(char* url, url_t* tokens) {
    static const char SEPARATOR[] = "://";
    *tokens = {};
    char* rest = strstr(url, SEPARATOR);
    if (rest == nullptr) {
        return 0;
    }
    *rest = '\0';
    tokens->protocol = url;
    rest += sizeof SEPARATOR - 1;

    if (strchr(rest, '@') != nullptr) {
        char* password = strchr(rest, ':');
        if (password == nullptr || strchr(password, '@') == nullptr) {
            return 0;
        }
        tokens->username = rest;
        tokens->password = cut_at(rest, ':');
        rest = cut_at(tokens->password, '@');
    }
    tokens->host = rest;
    tokens->port = cut_at(rest, ':');
    char* path = cut_at(tokens->port != nullptr ? tokens->port : tokens->host, '/');
    tokens->path = path != nullptr && *path != '\0' ? path : nullptr;
    return 1;
}

char* get_header_value(char* sResp, int iHSize, const char* strName) {
    if (strName == nullptr || *strName == '\0' || sResp == nullptr || *sResp == '\0' ||
        iHSize < 1) {
        return nullptr;
    }
    const char* name = strstr(sResp, strName);
    if (name == nullptr || name - sResp > iHSize) {
        return nullptr;
    }
    const char* end = strstr(name, "\r\n");
    if (end == nullptr || end - sResp > iHSize) {
        return nullptr;
    }
    const char* value = name + strlen(strName);
    while (value < end && is_white_space(*value)) {
        value++;
    }
    return value < end ? strndup(value, static_cast<size_t>(end - value)) : nullptr;
}

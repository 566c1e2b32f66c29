#include "sslutiles.h"

#include "stream.h"
#include "vindral_common.h"

#include <cstring>
#include <netdb.h>

#define STARS                                                                                      \
    "*******************************************************************************************"

static const long RETRY_PAUSE_US = 10000;

/* --- opening a connection -------------------------------------------------------------------- */

/* Logs what went wrong, and tells the caller where that has asked for it. */
template <typename... T>
static void report(char* _addInfo, const char* format, T... values) {
    if (_addInfo != nullptr) {
        snprintf(_addInfo, ADD_INFO_SIZE, format, values...);
    }
    leveledadd2log(0, format, values...);
}

int make_connection(const char* _host, const char* _port, long* t_out) {
    return make_connection(_host, _port, t_out, nullptr);
}

int make_connection(const char* _host, const char* _port, long* t_out, char* _addInfo) {
    const long budget_us = *t_out;
    connect_outcome made = stream_connect(_host, _port, t_out);
    const char* reason = strerror(made.error);
    switch (made.end) {
    case connect_end::connected:
        break;
    case connect_end::not_resolved:
        report(_addInfo, "Host: %s Error: %s", _host, gai_strerror(made.error));
        break;
    case connect_end::no_socket:
        leveledadd2log(0, "Error creating socket (%d %s)\n", made.error, reason);
        break;
    case connect_end::flags_unknown:
        leveledadd2log(0, "Error: %s", reason);
        break;
    case connect_end::stays_blocking:
        leveledadd2log(0, "Error fcntl(..., F_SETFL) (%s)\n", reason);
        break;
    case connect_end::failed:
        leveledadd2log(0, "Error connecting %d - %s", made.error, reason);
        break;
    case connect_end::timed_out:
        report(_addInfo, "Connection to host: \"%s\" timed out after %ld seconds", _host,
               budget_us / US_PER_SECOND);
        break;
    case connect_end::outcome_unknown:
        leveledadd2log(0, "Error in getsockopt() %d - %s", made.error, reason);
        break;
    case connect_end::failed_in_the_end:
        leveledadd2log(0, "Error in delayed connection() %d - %s", made.error, reason);
        break;
    }
    return made.socket.release();
}

/* --- sending --------------------------------------------------------------------------------- */

static void log_tls_write(int level, size_t length, const stream_outcome& sent) {
    leveledadd2log(level, "send_request: SSL_write: retV = %d ret = %d",
                   sent.error != 0 ? sent.error : static_cast<int>(length), sent.count);
}

int send_request(int sk, const char* sd, size_t sd_len, long* tout, SSL* pSSL) {
    stream_outcome sent = stream_send({sk, pSSL, tout}, sd, sd_len);
    switch (sent.end) {
    case stream_end::wait_failed:
        leveledadd2log(0, "ERROR: send_request: select failed with errno: %d, %s", sent.error,
                       strerror(sent.error));
        return 0;
    case stream_end::wait_timed_out:
        leveledadd2log(0, "send_request: select: timed out.");
        return 0;
    case stream_end::too_much:
        leveledadd2log(0, "ERROR: send_request: %zu bytes are too many for TLS.", sd_len);
        return 0;
    case stream_end::timed_out:
        if (pSSL == nullptr) {
            leveledadd2log(0, "send_request: send: timed out.");
            return 0;
        }
        leveledadd2log(0, "send_request: takes too long time, timing out.");
        break;
    default:
        if (pSSL == nullptr) {
            return sent.end == stream_end::done;
        }
        log_tls_write(sent.end == stream_end::ended ? 0 : 1, sd_len, sent);
    }
    return sent.count > 1;
}

/* --- receiving ------------------------------------------------------------------------------- */

/* Logs how it failed, or that a plain socket came to its end. Returns 1 when the peer has ended the
 * response, else 0. */
static int judge_end(const stream_outcome& last, bool tls) {
    char text[256];
    switch (last.end) {
    case stream_end::done:
        return 1;
    case stream_end::ended:
        if (!tls) {
            leveledadd2log(5, "receive_response: read(): 0 EOF");
        }
        return 1;
    case stream_end::wait_failed:
        leveledadd2log(0, "ERROR: receive_response: failed on select: errno: %d, %s", last.error,
                       strerror(last.error));
        return 0;
    case stream_end::wait_timed_out:
        leveledadd2log(0, "ERROR: receive_response: select: Connection timed out.");
        return 0;
    case stream_end::timed_out:
        leveledadd2log(0, "ERROR: receive_response: SSL_read: Connection timed out.");
        return 0;
    case stream_end::too_much:
        leveledadd2log(0, "ERROR: receive_response: more than %d bytes received.",
                       MAX_RESPONSE_SIZE);
        return 0;
    case stream_end::no_memory:
        leveledadd2log(0, "ERROR: receive_response: no memory for %d bytes.", last.error);
        return 0;
    case stream_end::failed:
        if (tls) {
            leveledadd2log(0, "ERROR: receive_response: SSL_read: %s", tls_reason(text));
        } else {
            leveledadd2log(0, "receive_response: Error %d - %s", last.error, strerror(last.error));
        }
        return 0;
    }
    return 0;
}

static bool is_complete(const http_response& r) {
    return r.content_length != 0 &&
           static_cast<int>(announced_size(r)) == static_cast<int>(r.data.size());
}

int receive_response(int sk, long* tout, char** out_buf, int* size_h, int* icnt_len, SSL* pSSL) {
    *out_buf = nullptr;
    *size_h = 0;
    stream from = {sk, pSSL, tout, RETRY_PAUSE_US};
    http_response r;
    stream_outcome last;
    do {
        last = stream_receive(from, r);
    } while (last.end == stream_end::done && !is_complete(r));
    if (!judge_end(last, pSSL != nullptr)) {
        return 0;
    }
    *out_buf = r.data.release();
    *size_h = r.header_size;
    *icnt_len = static_cast<int>(r.content_length);
    return 1;
}

/* --- what the exchanges with the service share ----------------------------------------------- */

static double seconds_spent(const service_exchange& e) {
    return static_cast<double>(e.budget_us - e.left_us) / US_PER_SECOND;
}

void log_connected(const service_exchange& e) {
    leveledadd2log(5, "INFO: %s: Connected, time spent:\t%.3f time left:\t%d", e.name,
                   seconds_spent(e), static_cast<int>(e.left_us));
}

void log_reply(const service_exchange& e, const service_reply& answer) {
    leveledadd2log(5,
                   "INFO: %s: Response received!\ntime spent:\t%.3f; time  left:\t%d\n" STARS
                   "\n%s\n" STARS "\nContent Length: %d; Header Size: %d\n",
                   e.name, seconds_spent(e), static_cast<int>(e.left_us), answer.text.get(),
                   answer.content_length, answer.header_size);
}

int send_part(service_exchange& e, int sk, const char* data, size_t length, SSL* session) {
    int sent = send_request(sk, data, length, &e.left_us, session);
    leveledadd2log(5, "INFO: %s: send_request: %d", e.name, sent);
    return sent;
}

int send_text(service_exchange& e, int sk, const char* text, SSL* session) {
    leveledadd2log(5, "INFO: %s: sending request:\n" STARS "\n%s\n" STARS, e.name, text);
    return send_part(e, sk, text, strlen(text), session);
}

int receive_reply(service_exchange& e, int sk, service_reply& answer, SSL* session) {
    char* text = nullptr;
    int received = receive_response(sk, &e.left_us, &text, &answer.header_size,
                                    &answer.content_length, session);
    answer.text.reset(text);
    return received;
}

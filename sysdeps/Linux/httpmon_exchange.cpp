#include "httpmon_exchange.h"

#include "budget.h"
#include "sslutiles.h"
#include "stream.h"
#include "vindral_common.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#define STARS "*************************************************************"

static const int MAX_REDIRECTIONS = 16;

namespace {

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

} // namespace

static float seconds_spent(const exchange& e) {
    return static_cast<float>(e.budget_us - e.left_us) / 1000000;
}

/* --- TLS ------------------------------------------------------------------------------------- */

static int tls_failed(char* info) {
    char text[256];
    snprintf(info, ADD_INFO_SIZE, "CRITICAL - Cannot establish SSL connection. %s",
             tls_reason(text));
    return 0;
}

/* Builds the TLS session on the connected socket. Returns 1, or 0 with a text; without one when the
 * library reports a success that is none. */
static int start_tls(exchange& e, stream_connection& c) {
    forget_tls_errors(); /* an earlier request of this check may have left some */
    switch (make_session(c)) {
    case session_end::no_context:
        snprintf(e.info, ADD_INFO_SIZE, "CRITICAL - Cannot create SSL context. ");
        return 0;
    case session_end::no_session:
        return tls_failed(e.info);
    case session_end::made:
        break;
    }
    long patience_us = HANDSHAKE_PATIENCE_US;
    struct timeval start;
    gettimeofday(&start, nullptr);
    stream_outcome shaken = stream_shake_hands({c.socket.get(), c.session.get(), &patience_us},
                                               handshake_clock::steady);
    charge_budget(&e.left_us, &start);
    return shaken.end == stream_end::done ? shaken.count == 1 : tls_failed(e.info);
}

/* --- sending --------------------------------------------------------------------------------- */

static void log_error(int error) {
    leveledadd2log(0, "Error %d - %s", error, strerror(error));
}

int send_request(int sk, const char* sd, size_t sd_len, long* tout, char* addInfo, SSL* pSSL) {
    addInfo[0] = '\0';
    stream_outcome sent = stream_send({sk, pSSL, tout}, sd, sd_len);
    switch (sent.end) {
    case stream_end::wait_failed:
        log_error(sent.error);
        break;
    case stream_end::wait_timed_out:
    case stream_end::timed_out:
        snprintf(addInfo, ADD_INFO_SIZE, "Connection timed out.");
        break;
    default:
        if (pSSL == nullptr) {
            return sent.end == stream_end::done;
        }
        leveledadd2log(5, "SSL_write: retV = %d ret = %d", sent.count > 0 ? 0 : sent.error,
                       sent.count);
    }
    return sent.count > 1;
}

/* --- receiving ------------------------------------------------------------------------------- */

/* Returns 1 when the page is there or the peer has ended it, else 0, mostly with a text. */
static int judge_end(const stream_outcome& last, bool tls, char* addInfo) {
    char text[256];
    switch (last.end) {
    case stream_end::done:
    case stream_end::ended:
        return 1;
    case stream_end::wait_failed:
        log_error(last.error);
        break;
    case stream_end::wait_timed_out:
    case stream_end::timed_out:
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL - Connection timed out.");
        break;
    case stream_end::too_much:
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL - more than %d bytes received.",
                 MAX_RESPONSE_SIZE);
        break;
    case stream_end::no_memory:
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL - no memory for %d bytes.", last.error);
        break;
    case stream_end::failed:
        if (!tls) {
            log_error(last.error);
            break;
        }
        tls_reason(text);
        snprintf(addInfo, ADD_INFO_SIZE, "HTTP CRITICAL - %s", text);
        leveledadd2log(0, "%s", text);
        break;
    }
    return 0;
}

/* Exactly as many bytes as announced are there. */
static bool is_complete(const http_response& page) {
    return page.header_size != 0 && announced_size(page) == page.data.size();
}

int receive_response(int sk, long, long* tout, char* addInfo, int loadFullPage, char** out_buf,
                     int* size_h, SSL* pSSL) {
    addInfo[0] = '\0';
    stream from = {sk, pSSL, tout};
    http_response page;
    stream_outcome last;
    do {
        last = stream_receive(from, page);
    } while (last.end == stream_end::done && !(loadFullPage && is_complete(page)));
    *out_buf = page.data.release();
    *size_h = page.header_size;
    return judge_end(last, pSSL != nullptr, addInfo);
}

/* --- the check ------------------------------------------------------------------------------- */

static int send_page_request(exchange& e, const stream_connection& c) {
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
    stream_connection c;
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
    say_goodbye(c);
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

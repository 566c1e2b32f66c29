#include "sslutiles_api.h"

#include "guards.h"
#include "sslutiles.h"
#include "vindral_config.h"
#include "vindral_log.h"
#include "vindral_text.h"

#include <cstdio>
#include <cstring>

char* auth_token = nullptr;

static long api_budget_us = 10000000; /* of one connection; only tests change it */

namespace {

/* What the two operations differ in. */
struct operation {
    const char* name;  /* as the log shows it */
    const char* token; /* what the log calls the value of the reply */
    const char* key;   /* of that value, with its quotes */
};

} // namespace

static const operation GET_AUTH_TOKEN = {"get_auth_token", "auth", "\"authToken\""};
static const operation SEND_DATA = {"send_data", "status", "\"status\""};

static const char* or_null(const char* key) {
    return or_default(key, "(null)");
}

/* --- the requests; null without memory -------------------------------------------------------- */

static heap_text encode(const char* text) {
    return heap_text(get_URL_Encode(text, strlen(text)));
}

static heap_text encoded_now() {
    time_t now = now_in_seconds();
    struct tm utc;
    gmtime_r(&now, &utc);
    char text[80];
    snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u",
             static_cast<unsigned>(utc.tm_year + 1900), static_cast<unsigned>(utc.tm_mon + 1),
             static_cast<unsigned>(utc.tm_mday), static_cast<unsigned>(utc.tm_hour),
             static_cast<unsigned>(utc.tm_min), static_cast<unsigned>(utc.tm_sec));
    return encode(text);
}

static heap_text token_request() {
    heap_text now = encoded_now();
    char* text = nullptr;
    if (!now ||
        asprintf(&text,
                 "GET %s?action=authToken&apikey=%s&secretkey=%s&timestamp=%s HTTP/1.0\r\n"
                 "Host: %s\r\n\r\n",
                 or_default(api_url, DEFAULT_API_URL), or_null(api_key), or_null(secret_key),
                 now.get(), or_default(api_server, DEFAULT_API_SERVER)) < 0) {
        return nullptr;
    }
    return heap_text(text);
}

static heap_text result_request(const test_result& result) {
    heap_text now = encoded_now();
    bool has_text = !is_empty(result.test_data);
    heap_text data = has_text ? encode(result.test_data) : nullptr;
    char* text = nullptr;
    if (!now || (has_text && !data) ||
        asprintf(&text,
                 "POST %s?apikey=%s&validation=token&authToken=%s&timestamp=%s&version=2"
                 "&action=addResult&monitorId=%d&checktime=%lu%s%s HTTP/1.0\r\n"
                 "Connection: Keep-Alive\r\nHost: %s\r\n"
                 "Content-Type: application/octet-stream\r\nContent-Length: 0\r\n\r\n",
                 or_default(data_url, DEFAULT_DATA_URL), or_null(api_key), auth_token, now.get(),
                 result.test_id, static_cast<unsigned long>(result.check_time),
                 has_text ? "&results=" : "", has_text ? data.get() : "",
                 or_default(api_server, DEFAULT_API_SERVER)) < 0) {
        return nullptr;
    }
    return heap_text(text);
}

/* --- one exchange; each step logs what failed ------------------------------------------------- */

static unique_fd connect_to(service_exchange& e, const char* host, const char* port) {
    unique_fd socket(make_connection(or_default(host, DEFAULT_API_SERVER),
                                     or_default(port, DEFAULT_API_PORT), &e.left_us));
    if (!socket) {
        leveledadd2log(0, "ERROR: %s: make_connection() failed", e.name);
        return socket;
    }
    log_connected(e);
    return socket;
}

static int send_whole(service_exchange& e, int sk, const char* request) {
    if (request == nullptr) {
        leveledadd2log(0, "ERROR: %s: no memory for the request", e.name);
        return 0;
    }
    int sent = send_text(e, sk, request, nullptr);
    if (!sent) {
        leveledadd2log(0, "ERROR: %s: send_request() failed. retVal:%d", e.name, sent);
    }
    return sent;
}

/* Ends the connection in any case. */
static int receive_last(service_exchange& e, unique_fd& socket, service_reply& answer) {
    int received = receive_reply(e, socket.get(), answer, nullptr);
    socket.reset();
    if (!received) {
        leveledadd2log(0, "ERROR: %s: receive_response() failed. retVal:%d", e.name, received);
        return 0;
    }
    log_reply(e, answer);
    return 1;
}

/* The text in quotes that follows the key in the body; null when there is none. */
static heap_text extract_value(const operation& op, const service_reply& answer) {
    const char* body = strstr(answer.text.get(), "\r\n\r\n");
    if (body == nullptr) {
        leveledadd2log(0, "ERROR: %s: No content received", op.name);
        return nullptr;
    }
    body += 4;
    const char* key = strstr(body, op.key);
    if (key == nullptr) {
        leveledadd2log(0, "ERROR: %s: No %s token in the content.", op.name, op.token);
        return nullptr;
    }
    const char* key_end = key + strlen(op.key);
    const char* open = key_end - body <= answer.content_length ? strchr(key_end, '"') : nullptr;
    const char* close = open != nullptr ? strchr(open + 1, '"') : nullptr;
    if (close == nullptr) {
        leveledadd2log(0, "ERROR: %s: No value for %s token in the content.", op.name, op.token);
        return nullptr;
    }
    heap_text value(strndup(open + 1, static_cast<size_t>(close - open - 1)));
    if (!value) {
        leveledadd2log(0, "ERROR: %s: no memory for the reply", op.name);
    }
    return value;
}

/* Sends the request and returns the value of the reply; null on failure. The socket is none after
 * the first reply. */
static heap_text exchange(const operation& op, service_exchange& e, unique_fd& socket,
                          const heap_text& request) {
    service_reply answer;
    if (!send_whole(e, socket.get(), request.get()) || !receive_last(e, socket, answer)) {
        return nullptr;
    }
    heap_text value = extract_value(op, answer);
    if (value) {
        leveledadd2log(1, "INFO: %s: %s token: %s.", op.name, op.token, value.get());
    }
    return value;
}

/* --- the operations -------------------------------------------------------------------------- */

int get_auth_token() {
    cancel_off except_in_waits;
    service_exchange e = {.name = GET_AUTH_TOKEN.name, .budget_us = api_budget_us};
    unique_fd socket = connect_to(e, api_server, api_port);
    if (!socket) {
        return 0;
    }
    heap_text token = exchange(GET_AUTH_TOKEN, e, socket, token_request());
    if (!token) {
        return 0;
    }
    free(auth_token);
    auth_token = token.release();
    return 1;
}

int send_data(test_result** results, int res_count) {
    if (results == nullptr || res_count < 1) {
        return 0;
    }
    cancel_off except_in_waits;
    if (is_empty(auth_token) && !get_auth_token()) {
        leveledadd2log(0, "ERROR: send_data: get_auth_token() failed");
        return 0;
    }
    service_exchange e = {.name = SEND_DATA.name, .budget_us = api_budget_us};
    unique_fd socket = connect_to(e, data_server, data_port);
    if (!socket) {
        return 0;
    }
    int sent = 0;
    while (sent < res_count && results[sent] != nullptr &&
           exchange(SEND_DATA, e, socket, result_request(*results[sent]))) {
        sent++;
    }
    return sent;
}

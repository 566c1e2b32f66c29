#include "sslutiles_poll.h"

#include "compression_routine.h"
#include "sslutiles.h"
#include "sslutiles_context.h"
#include "sslutiles_verify.h"
#include "stream.h"
#include "vindral_config.h"
#include "vindral_log.h"
#include "vindral_text.h"

#include <cstring>

char* alt_version = nullptr;
char* szSessionID = nullptr;

static const long POLL_BUDGET_US = 15000000;

static const char ANSWER_REFUSED[] = "666666";
static const char ANSWER_LOGIN_AGAIN[] = "111111";

namespace {

struct request {
    heap_text head;
    heap_text compressed; /* the body, when it goes out compressed */
    const char* body = nullptr;
    unsigned long length = 0;
};

} // namespace

static const char* server_host() {
    return or_default(alt_server, DEFAULT_SERVER);
}

/* --- TLS ------------------------------------------------------------------------------------- */

static int tls_failed(const char* what) {
    char text[256];
    leveledadd2log(0, "%s%s", what, tls_reason(text));
    return POLL_INTERNAL_ERROR;
}

/* Returns a result code; a handshake that the budget ends is not logged. */
static int shake_hands(const stream_connection& c, long* budget_us) {
    stream_outcome shaken = stream_shake_hands({c.socket.get(), c.session.get(), budget_us});
    if (shaken.end == stream_end::wait_timed_out) {
        return POLL_INTERNAL_ERROR;
    }
    bool connected = shaken.count == 1;
    if (ca_file != nullptr && !check_server(c.session.get(), connected, server_host(), ca_file)) {
        return POLL_INTERNAL_ERROR;
    }
    return connected ? POLL_OK : tls_failed("ERROR: make_poll: Cannot make SSL connection. ");
}

/* Builds the TLS session on the connected socket. Returns a result code. */
static int start_tls(stream_connection& c, long* budget_us) {
    forget_tls_errors();
    const bool with_files = ca_file != nullptr || cert_file != nullptr || key_file != nullptr;
    SSL_CTX* context = with_files ? poll_context({ca_file, cert_file, key_file}) : nullptr;
    if (with_files && context == nullptr) {
        return POLL_INTERNAL_ERROR;
    }
    switch (make_session(c, context)) {
    case session_end::no_context:
        return tls_failed("ERROR: make_poll: Cannot create SSL context. ");
    case session_end::no_session:
        return tls_failed("ERROR: make_poll: Cannot create new SSL object. ");
    case session_end::made:
        break;
    }
    if (ca_file != nullptr && !expect_server(c.session.get(), server_host())) {
        return POLL_INTERNAL_ERROR;
    }
    if (cert_file != nullptr) {
        resume_session(c.session.get());
    }
    return shake_hands(c, budget_us);
}

/* --- the request ----------------------------------------------------------------------------- */

/* Compresses the body of a logged-in poll where that is possible and fills in the values of its
 * headers: a compression value of 0 says that the body goes out as it is. */
static void pack_body(request& r, unsigned long* compression, unsigned long* checksum) {
    *compression = 0;
    *checksum = 0;
    if (isZLIBloaded != 1 || r.length == 0) {
        return;
    }
    char* packed = nullptr;
    unsigned long packed_length = 0;
    if (!compress_data(r.body, r.length, &packed, &packed_length)) {
        *checksum = calculate_checksum(r.body, r.length);
        return;
    }
    heap_text compressed(packed);
    *checksum = calculate_checksum(packed, packed_length);
    if (*checksum == 0) {
        return;
    }
    *compression = r.length;
    r.compressed = std::move(compressed);
    r.body = packed;
    r.length = packed_length;
}

/* Packs the body and writes the head. Returns 1, or 0 when there is no memory. */
static int build_request(request& r) {
    static const char platform[] = "linux64";
    const char* path = or_default(alt_url, DEFAULT_SERVER_URL);
    const char* version = or_default(alt_version, AGENT_VERSION);
    char* head = nullptr;
    int length;
    if (szSessionID != nullptr) {
        unsigned long compression, checksum;
        pack_body(r, &compression, &checksum);
        length = asprintf(&head,
                          "POST %s HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
                          "Content-Length: %lu\r\nVnd-SessionID: %s\r\nVnd-Compression: %lu\r\n"
                          "Vnd-CheckSum: %lu\r\nVnd-Platform: %s\r\nVnd-Version: %s\r\n\r\n",
                          path, r.length, szSessionID, compression, checksum, platform, version);
    } else {
        length = asprintf(&head,
                          "POST %s HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
                          "Content-Length: %lu\r\nVnd-EMail: %s\r\nVnd-AName: %s\r\n"
                          "Vnd-Platform: %s\r\nVnd-Version: %s\r\n\r\n",
                          path, r.length, user_email, agent_name, platform, version);
    }
    if (length < 0) {
        leveledadd2log(0, "ERROR: make_poll: no memory for the request");
        return 0;
    }
    r.head.reset(head);
    return 1;
}

static int send_poll(service_exchange& e, const stream_connection& c, const request& r) {
    if (!send_text(e, c.socket.get(), r.head.get(), c.session.get())) {
        return 0;
    }
    if (r.length == 0) {
        return 1;
    }
    leveledadd2log(5, "INFO: make_poll: sending data: %lu bytes", r.length);
    return send_part(e, c.socket.get(), r.body, r.length, c.session.get());
}

/* --- the exchange ---------------------------------------------------------------------------- */

/* Connects, posts and receives. Returns POLL_OK with the reply, or the code of what failed. */
static int exchange(request& r, service_reply& answer) {
    service_exchange e = {.name = "make_poll", .budget_us = POLL_BUDGET_US};
    stream_connection c;
    c.socket.reset(
        make_connection(server_host(), or_default(alt_port, DEFAULT_SERVER_PORT), &e.left_us));
    if (!c.socket) {
        leveledadd2log(0, "ERROR: make_poll: make_connection() failed");
        return POLL_NO_CONNECTION;
    }
    log_connected(e);
    int code = start_tls(c, &e.left_us);
    if (code != POLL_OK) {
        return code;
    }
    if (!build_request(r)) {
        return POLL_INTERNAL_ERROR;
    }
    if (!send_poll(e, c, r)) {
        if (cert_file != nullptr) {
            read_refusal(c.session.get());
        }
        return POLL_NO_CONNECTION;
    }
    int received = receive_reply(e, c.socket.get(), answer, c.session.get());
    if (received && cert_file != nullptr) {
        keep_session(c.session.get());
    }
    say_goodbye(c);
    if (!received) {
        return POLL_NO_CONNECTION;
    }
    log_reply(e, answer);
    return POLL_OK;
}

static void end_session() {
    free(szSessionID);
    szSessionID = nullptr;
}

/* What one of the server's two fixed answers means; POLL_OK for any other text. */
static int judge_answer(const char* text) {
    if (strcmp(text, ANSWER_REFUSED) == 0) {
        return POLL_REFUSED;
    }
    return strcmp(text, ANSWER_LOGIN_AGAIN) == 0 ? POLL_LOGIN_AGAIN : POLL_OK;
}

/* A server that knows agents by their certificates says in the first line of its body why it does
 * not let this one in. The rest of the world's answers are not for the log: so not more than a line
 * of text. */
static void log_why_not(const service_reply& answer) {
    char line[101] = "";
    const char* body = answer.content_length > 0 ? answer.text.get() + answer.header_size : line;
    size_t length = 0;
    for (; length < sizeof line - 1 && body[length] >= ' ' && body[length] <= '~'; length++) {
        line[length] = body[length];
    }
    line[length] = '\0';
    leveledadd2log(0, "ERROR: make_poll: The server began no session: \"%s\"", line);
}

/* Takes the session id of a first poll's reply. Returns a result code. */
static int log_in(const service_reply& answer) {
    heap_text id(get_header_value(answer.text.get(), answer.header_size, "Vnd-SessionID:"));
    if (!id) {
        if (cert_file != nullptr) {
            log_why_not(answer);
        }
        return POLL_INTERNAL_ERROR;
    }
    int code = judge_answer(id.get());
    if (code == POLL_OK) {
        szSessionID = id.release();
    }
    return code;
}

/* Hands the body out, unless it ends the session. Returns a result code. */
static int take_body(const service_reply& answer, char** strresp, size_t* respsize) {
    if (answer.content_length <= 0) {
        return POLL_OK;
    }
    const char* body = answer.text.get() + answer.header_size;
    int code = judge_answer(body);
    if (code != POLL_OK) {
        end_session();
        return code;
    }
    *strresp = strdup(body);
    if (*strresp == nullptr) {
        leveledadd2log(0, "ERROR: make_poll: no memory for the reply");
        return POLL_INTERNAL_ERROR;
    }
    *respsize = static_cast<size_t>(answer.content_length);
    return POLL_OK;
}

int make_poll(const char* bdatasend, unsigned long sendsize, char** strresp, size_t* respsize) {
    *strresp = nullptr;
    *respsize = 0;
    if (is_empty(user_email) || is_empty(agent_name)) {
        return POLL_REFUSED;
    }
    cancel_off except_in_waits;
    request r;
    r.body = bdatasend;
    r.length = bdatasend != nullptr ? sendsize : 0;
    service_reply answer;
    int code = exchange(r, answer);
    if (code != POLL_OK && cert_file != nullptr) {
        drop_session(code == POLL_INTERNAL_ERROR);
        log_refusal(cert_file);
    }
    if (code == POLL_OK && szSessionID == nullptr) {
        code = log_in(answer);
    }
    if (code == POLL_OK) {
        code = take_body(answer, strresp, respsize);
    }
    return code;
}

#include "sslutiles_poll.h"

#include "compression_routine.h"
#include "guards.h"
#include "libsslloader.h"
#include "sslutiles.h"
#include "sslutiles_verify.h"
#include "vindral_config.h"
#include "vindral_log.h"

#include <cstring>
#include <poll.h>
#include <sys/time.h>

#define STARS                                                                                      \
    "*******************************************************************************************"

char* alt_version = nullptr;
char* szSessionID = nullptr;

static const long POLL_BUDGET_US = 15000000;

enum {
    POLL_REFUSED = 0,
    POLL_OK = 1,
    POLL_NO_CONNECTION = 2,
    POLL_LOGIN_AGAIN = 3,
    POLL_INTERNAL_ERROR = 4
};

static const char ANSWER_REFUSED[] = "666666";
static const char ANSWER_LOGIN_AGAIN[] = "111111";

namespace {

struct free_context {
    void operator()(SSL_CTX* context) const { lib_SSL_CTX_free(context); }
};
struct free_session {
    void operator()(SSL* session) const { lib_SSL_free(session); }
};

/* One connection to the server. Going out of scope gives everything back without a word to the
 * peer; a finished exchange says good-bye first. */
struct tls_connection {
    unique_fd socket;
    std::unique_ptr<SSL_CTX, free_context> context; /* none when the server is verified */
    std::unique_ptr<SSL, free_session> session;
};

struct request {
    heap_text head;
    heap_text compressed; /* the body, when it goes out compressed */
    const char* body = nullptr;
    unsigned long length = 0;
};

struct reply {
    heap_text text;
    int header_size = 0;
    int content_length = 0;
};

} // namespace

static const char* or_default(const char* configured, const char* otherwise) {
    return configured != nullptr ? configured : otherwise;
}

static bool is_empty(const char* text) {
    return text == nullptr || *text == '\0';
}

static const char* server_host() {
    return or_default(alt_server, DEFAULT_SERVER);
}

static double seconds_spent(long budget_us) {
    return static_cast<float>(POLL_BUDGET_US - budget_us) / 1000000;
}

/* --- TLS ------------------------------------------------------------------------------------- */

static int tls_failed(const char* what) {
    char text[256];
    leveledadd2log(0, "%s%s", what, lib_ERR_error_string(lib_ERR_get_error(), text));
    return POLL_INTERNAL_ERROR;
}

/* SSL_get_error takes whatever lies in this thread's queue, at most 16 errors, for the error of the
 * last call. */
static void forget_old_errors() {
    for (int i = 0; i < 16 && lib_ERR_get_error() != 0; i++) {
    }
}

/* Returns a result code; a handshake that the budget ends is not logged. */
static int shake_hands(SSL* session, int sk, long* budget_us) {
    for (;;) {
        struct timeval start;
        gettimeofday(&start, nullptr);
        int connected = lib_SSL_connect(session);
        charge_budget(budget_us, &start);
        int code = connected == 1 ? SSL_ERROR_NONE : lib_SSL_get_error(session, connected);
        if (code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE) {
            if (wait_socket(sk, code == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, budget_us) == 0) {
                return POLL_INTERNAL_ERROR;
            }
            continue;
        }
        if (ca_file != nullptr && !check_server(session, connected == 1, server_host(), ca_file)) {
            return POLL_INTERNAL_ERROR;
        }
        return connected == 1 ? POLL_OK
                              : tls_failed("ERROR: make_poll: Cannot make SSL connection. ");
    }
}

/* Makes the session. Returns a result code. */
static int make_session(tls_connection& c, SSL_CTX* context) {
    c.session.reset(lib_SSL_new(context));
    return c.session ? POLL_OK : tls_failed("ERROR: make_poll: Cannot create new SSL object. ");
}

static int make_plain_session(tls_connection& c) {
    c.context.reset(lib_SSL_CTX_new(lib_SSLv23_client_method()));
    return c.context ? make_session(c, c.context.get())
                     : tls_failed("ERROR: make_poll: Cannot create SSL context. ");
}

static int make_verifying_session(tls_connection& c) {
    SSL_CTX* context = verifying_context(ca_file);
    int code = context != nullptr ? make_session(c, context) : POLL_INTERNAL_ERROR;
    return code == POLL_OK && !expect_server(c.session.get(), server_host()) ? POLL_INTERNAL_ERROR
                                                                             : code;
}

/* Builds the TLS session on the connected socket. Returns a result code. */
static int start_tls(tls_connection& c, long* budget_us) {
    forget_old_errors();
    int code = ca_file != nullptr ? make_verifying_session(c) : make_plain_session(c);
    if (code != POLL_OK) {
        return code;
    }
    lib_SSL_set_fd(c.session.get(), c.socket.get());
    return shake_hands(c.session.get(), c.socket.get(), budget_us);
}

static void say_goodbye(tls_connection& c) {
    lib_SSL_shutdown(c.session.get());
    c.session.reset();
    c.context.reset();
    c.socket.reset();
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

static int send_part(const tls_connection& c, const char* data, size_t length, long* budget_us) {
    int sent = send_request(c.socket.get(), data, length, budget_us, c.session.get());
    leveledadd2log(5, "INFO: make_poll: send_request: %d", sent);
    return sent;
}

static int send_poll(const tls_connection& c, const request& r, long* budget_us) {
    leveledadd2log(5, "INFO: make_poll: sending request:\n" STARS "\n%s\n" STARS, r.head.get());
    if (!send_part(c, r.head.get(), strlen(r.head.get()), budget_us)) {
        return 0;
    }
    if (r.length == 0) {
        return 1;
    }
    leveledadd2log(5, "INFO: make_poll: sending data: %lu bytes", r.length);
    return send_part(c, r.body, r.length, budget_us);
}

/* --- the exchange ---------------------------------------------------------------------------- */

static int receive_reply(const tls_connection& c, reply& answer, long* budget_us) {
    char* text = nullptr;
    int received = receive_response(c.socket.get(), budget_us, &text, &answer.header_size,
                                    &answer.content_length, c.session.get());
    answer.text.reset(text);
    return received;
}

/* Connects, posts and receives. Returns POLL_OK with the reply, or the code of what failed. */
static int exchange(request& r, reply& answer) {
    long budget_us = POLL_BUDGET_US;
    tls_connection c;
    c.socket.reset(
        make_connection(server_host(), or_default(alt_port, DEFAULT_SERVER_PORT), &budget_us));
    if (!c.socket) {
        leveledadd2log(0, "ERROR: make_poll: make_connection() failed");
        return POLL_NO_CONNECTION;
    }
    leveledadd2log(5, "INFO: make_poll: Connected, time spent:\t%.3f time left:\t%d",
                   seconds_spent(budget_us), static_cast<int>(budget_us));
    int code = start_tls(c, &budget_us);
    if (code != POLL_OK) {
        return code;
    }
    if (!build_request(r)) {
        return POLL_INTERNAL_ERROR;
    }
    if (!send_poll(c, r, &budget_us)) {
        return POLL_NO_CONNECTION;
    }
    int received = receive_reply(c, answer, &budget_us);
    say_goodbye(c);
    if (!received) {
        return POLL_NO_CONNECTION;
    }
    leveledadd2log(5,
                   "INFO: make_poll: Response received!\ntime spent:\t%.3f; time  left:\t%d\n" STARS
                   "\n%s\n" STARS "\nContent Length: %d; Header Size: %d\n",
                   seconds_spent(budget_us), static_cast<int>(budget_us), answer.text.get(),
                   answer.content_length, answer.header_size);
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

/* Takes the session id of a first poll's reply. Returns a result code. */
static int log_in(const reply& answer) {
    heap_text id(get_header_value(answer.text.get(), answer.header_size, "Vnd-SessionID:"));
    if (!id) {
        return POLL_INTERNAL_ERROR;
    }
    int code = judge_answer(id.get());
    if (code == POLL_OK) {
        szSessionID = id.release();
    }
    return code;
}

/* Hands the body out, unless it ends the session. Returns a result code. */
static int take_body(const reply& answer, char** strresp, size_t* respsize) {
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
    reply answer;
    int code = exchange(r, answer);
    if (code == POLL_OK && szSessionID == nullptr) {
        code = log_in(answer);
    }
    if (code == POLL_OK) {
        code = take_body(answer, strresp, respsize);
    }
    return code;
}

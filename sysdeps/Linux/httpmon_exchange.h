/* How one HTTP or HTTPS check is done: connect, TLS handshake, request, response, redirections,
 * judgement. What is pure text in that stands in httpmon_text.h.
 *
 * A check runs in a thread of its own with its own connection, TLS context and buffers; the stack
 * of 32768 bytes is enough for it. Nothing is kept between checks.
 *
 * Time. One budget of microseconds covers the whole check with all its redirections; every step is
 * charged with what it took by the wall clock, and every wait ends with the budget. Two things are
 * not bounded by it: the resolution of a name (resolve.h), which is not charged either, and the TLS
 * handshake. That is charged, but may take HANDSHAKE_PATIENCE_US in all, be the budget smaller or
 * larger; the step after it may then find the budget used up.
 *
 * TLS. No certificate is verified and no server name is sent. The process has to ignore SIGPIPE. */
#ifndef VINDRAL_HTTPMON_EXCHANGE_H
#define VINDRAL_HTTPMON_EXCHANGE_H

#include "httpmon_text.h"

#include <ctime>
#include <openssl/types.h>

/* One test. It owns its texts (malloc); host, uri, port and tout are always set. */
struct aHost {
    long id;
    int loc_id;
    char* host; /* to connect to */
    char* uri;  /* path and query */
    char* port;
    int interval = 0; /* no command sets it: copied only, as the next two */
    time_t nextcheck = 0;
    int htype = 0;
    char* mutch;            /* text to look for in the body; null: none */
    char* regexp = nullptr; /* copied only, as are dns, expIP and expAuth */
    char* post;             /* form data; null: none */
    char* dns = nullptr;
    char* expIP = nullptr;
    char* expAuth = nullptr;
    char* user; /* basic authentication needs both; null: none */
    char* pass;
    char* tout;           /* seconds for the whole check, decimal; no number gives no time */
    int isSSL;            /* 1: TLS */
    int ReCheckCnt = 0;   /* copied only */
    int ReCheckInt = 0;   /* copied only */
    int Redirect;         /* 1: follow 3xx */
    int loadFullPage;     /* 1: end with the announced length, and look for `mutch` */
    int mustbefound;      /* 1: `mutch` must be in the body, 0: it must not */
    int method;           /* 1 POST, 2 HEAD, others GET */
    int timeout = 0;      /* never set */
    char* userAgent;      /* header line with its line end; a copy for a check does not carry it */
    int currNokCount = 0; /* never set */
    int isFirstCheck = 0; /* 1 after add or modify until a round has started the test */
};

/* What came of one check. The sizes are those of the last response, as much of it as came. */
struct com_result {
    float spentTime;    /* milliseconds */
    int newStatus;      /* 0 OK, 2 failed */
    int rsp_code;       /* of the last status line that was read; 0: none or an invalid one */
    int header_size;    /* bytes, the empty line included; 0: no response, or no end of it */
    int content_length; /* bytes behind the header up to the first NUL */
    int tid;
    int loc_id;
};

/* How long a peer may keep a TLS handshake waiting, all its waits together, in microseconds. */
inline constexpr long HANDSHAKE_PATIENCE_US = 60L * 1000000;

/* Does one check and writes its outcome in words to addInfo (ADD_INFO_SIZE bytes), which stays
 * empty where the failing step has no words. Returns the result, which the caller frees, or null
 * when there is no memory for it. */
com_result* make_http_check(aHost* t_v, char* addInfo);

/* --- its steps ------------------------------------------------------------------------------- */

/* make_connection(host, port, budget, addInfo) is declared in sslutiles.h. */

/* Sends sd_len bytes, over TLS when pSSL is not null. Returns 1 when all of them went out, else 0,
 * with a text in addInfo when the time was up. Over TLS a single byte counts as failed, and a write
 * that ends after the budget as successful although the text is set. */
int send_request(int sk, const char* sd, size_t sd_len, long* tout, char* addInfo, SSL* pSSL);

/* Receives one response of at most MAX_RESPONSE_SIZE bytes. Returns 1 with the malloc'd response in
 * *out_buf (caller frees; a NUL follows the data) and the size of its header block in *size_h, 0
 * when that has no end. Returns 0 on failure with what had come until then in the same way, or null
 * and 0, and with a text in addInfo unless a plain socket was not readable after all.
 *
 * A response ends with the stream, over TLS with the closing alert; on a plain socket a reset
 * counts as an end. With loadFullPage it also ends when there are exactly as many bytes as the
 * headers announce, which for headers that announce nothing means none behind them: a peer that
 * sends such headers alone and the body later has its body cut off. testMaxTime is not used. */
int receive_response(int sk, long testMaxTime, long* tout, char* addInfo, int loadFullPage,
                     char** out_buf, int* size_h, SSL* pSSL);

#endif

/* A whole check of a web page: what the servers answer, one after the other, to the check and the
 * redirections it follows. Input: a byte of settings, one for the size of the packets, then the
 * responses with a line of "====" between them; a connection beyond the last one fails. */
#include "httpmon_exchange.h"
#include "sslutiles.h"

#include "fake_tls.h"
#include "silent_log.h"

#include <sys/socket.h>

static int connect_to_input(const char* host, const char* port, long* t_out, char* info);
#define make_connection connect_to_input
#include "httpmon_exchange.cpp"

enum { TLS = 1, FOLLOW = 2, WHOLE_PAGE = 4, MUST_BE_FOUND = 8, BREAKS_OFF = 16, WAITS = 32 };

static std::vector<std::string> responses;
static size_t next_response;
static unsigned settings;
static size_t packet;          /* bytes */
static std::vector<int> peers; /* the servers' ends of the connections */

static void send_in_packets(int sk, std::string_view text) {
    size_t most = std::max(packet, text.size() / 64 + 1); /* a queue holds some hundred packets */
    while (!text.empty()) {
        size_t length = std::min(text.size(), most);
        require(send(sk, text.data(), length, 0) == static_cast<ssize_t>(length));
        text.remove_prefix(length);
    }
}

/* Where a redirection leads is a host, a port and nothing that could break out of a header. */
static int connect_to_input(const char* host, const char* port, long*, char* info) {
    require(*host != '\0' && *port != '\0' && info != nullptr);
    require(next_response == 0 || strpbrk(host, "\r\n /") == nullptr);
    if (next_response == responses.size()) {
        return -1;
    }
    const std::string& text = responses[next_response++];
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0);
    fake_tls = {.left = text,
                .piece = packet,
                .end = settings & BREAKS_OFF ? SSL_ERROR_SSL : SSL_ERROR_ZERO_RETURN,
                .wait_first = (settings & WAITS) != 0};
    send_in_packets(ends[1], text);
    shutdown(ends[1], SHUT_WR);
    peers.push_back(ends[1]);
    return ends[0];
}

struct verdict {
    int status, code, header_size, content_length;
    size_t connections;
    bool operator==(const verdict&) const = default;
};

static verdict check(size_t packet_size) {
    packet = packet_size;
    next_response = 0;
    char host[] = "example.org", port[] = "80", uri[] = "/", text[] = "text", seconds[] = "10";
    aHost test = {};
    test.id = 7;
    test.host = host;
    test.port = port;
    test.uri = uri;
    test.mutch = text;
    test.tout = seconds;
    test.isSSL = settings & TLS ? 1 : 0;
    test.Redirect = settings & FOLLOW ? 1 : 0;
    test.loadFullPage = settings & WHOLE_PAGE ? 1 : 0;
    test.mustbefound = settings & MUST_BE_FOUND ? 1 : 0;
    heap_text info(static_cast<char*>(calloc(1, ADD_INFO_SIZE)));
    heap<com_result> result(make_http_check(&test, info.get()));
    for (int peer : peers) {
        close(peer);
    }
    peers.clear();
    require(result && result->tid == 7);
    require(strnlen(info.get(), ADD_INFO_SIZE) < ADD_INFO_SIZE);
    require(result->newStatus == 0 || result->newStatus == 2);
    require(result->newStatus == 2 || *info.get() != '\0');
    require(result->rsp_code >= 0 && result->rsp_code <= 999);
    require(result->header_size >= 0 && result->content_length >= 0);
    require(next_response <= 17);
    return {result->newStatus, result->rsp_code, result->header_size, result->content_length,
            next_response};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    bind_fake_tls();
    settings = data[0];
    responses = split({reinterpret_cast<const char*>(data + 2), size - 2}, "\n====\n");
    peers.reserve(responses.size());
    size_t packet_size = data[1] % 64U * 16 + 1;
    require_no_growth([&] {
        verdict in_packets = check(packet_size);
        /* How it was cut on its way makes no difference, but for a page that counts as whole as
         * soon as there is what was announced. */
        require((settings & WHOLE_PAGE) != 0 || in_packets == check(4000));
    });
    return 0;
}

/* A request to the web server, as far as that is decided without the API: its head, whose it is,
 * the body that signs in, the head of the answer. Input: one byte for TLS and what listens, then
 * the bytes of the stream. */
#include "api/secret_body.h"
#include "fuzz.h"
#include "web/answer.h"
#include "web/request_head.h"
#include "web/trust.h"

#include <algorithm>

static bool is_line(std::string_view text) {
    return std::none_of(text.begin(), text.end(),
                        [](unsigned char c) { return c == '\r' || c == '\n' || c == 0; });
}

/* Lines that are none of ours cannot come out, whatever is put in. */
static void check_answer(const request_head& asked, std::string_view given) {
    api_answer answer;
    answer.body = given;
    answer.headers.emplace_back("X-Given", std::string(given));
    wire_answer wire = to_wire(std::move(answer), asked, true, 0);
    require(wire.head.find("\r\n\r\n") == wire.head.size() - 4);
    require(std::count(wire.head.begin(), wire.head.end(), '\n') >= 9);
    require(std::count(wire.head.begin(), wire.head.end(), '\n') <= 13);
}

static void serve(std::string_view stream, bool tls, bool on_loopback) {
    web_limits limits;
    limits.head = 4000;
    limits.target = 1000;
    stream.remove_prefix(leading_blank(stream));
    size_t end = head_end(stream, 0);
    if (end == 0) {
        if (stream.size() > limits.head) {
            problem late = too_long_a_head(stream, limits);
            require(late.status == 414 || late.status == 431);
        }
        return;
    }
    request_head head;
    if (auto bad = read_head(stream.substr(0, end), limits, tls, head)) {
        require(bad->status >= 400 && bad->status < 600 && !bad->detail.empty() &&
                is_line(bad->detail) && !bad->title.empty());
        return;
    }
    require(end <= limits.head && head.target.size() <= limits.target);
    require(!head.method.empty() && (head.target[0] == '/' || head.target == "*"));
    for (const std::string* text : {&head.method, &head.target, &head.host, &head.origin,
                                    &head.bearer, &head.cookie, &head.last_event_id}) {
        require(is_line(*text));
    }
    const std::string name = host_name(head.host);
    bool own = is_own_host(head.host, {"own.example.org"}, "192.0.2.1", on_loopback);
    require(!own || name == "localhost" || name == "own.example.org" || is_address(name));
    if (is_own_origin(head.origin, head.host, tls)) {
        require(head.origin.find(tls ? "s://" : "p://") == (tls ? 4u : 3u));
    }
    std::string_view body = stream.substr(end);
    body = body.substr(0, std::min(body.size(), head.content_length));
    if (auto secret = read_secret_body(body)) {
        require(body.front() != 0 && secret->secret.size() <= body.size());
    }
    check_answer(head, body);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    std::vector<char> bytes(data + 1, data + size); /* without a byte behind it */
    require_no_growth([&] {
        serve({bytes.data(), bytes.size()}, (data[0] & 1) != 0, (data[0] & 2) != 0);
    });
    return 0;
}

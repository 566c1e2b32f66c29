#include "web/answer.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <strings.h>
#include <zlib.h>

namespace {

constexpr size_t worth_it = 1024; /* bytes: less fits into one packet anyway */
constexpr int effort = 3;         /* for what is made for one request */

const char common[] = "X-Content-Type-Options: nosniff\r\n"
                      "Referrer-Policy: no-referrer\r\n"
                      "Cross-Origin-Resource-Policy: same-origin\r\n";
const char loads_nothing[] =
    "Content-Security-Policy: default-src 'none'; frame-ancestors 'none'\r\n";

bool may_be_compressed(std::string_view type) {
    return type.starts_with("application/json") || type.starts_with("application/problem+json") ||
           type.starts_with("application/openmetrics-text") || type.starts_with("text/");
}

std::string date(int64_t now) {
    time_t seconds = now;
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    size_t length = strftime(text, sizeof text, "Date: %a, %d %b %Y %H:%M:%S GMT\r\n", &parts);
    return {text, length};
}

void append(std::string& head, std::string_view name, std::string_view value) {
    head.append(name).append(": ");
    /* A line end would begin a header of somebody's choice. */
    std::copy_if(value.begin(), value.end(), std::back_inserter(head),
                 [](unsigned char c) { return c >= ' ' && c != 0x7f; });
    head.append("\r\n");
}

bool same(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string status_line(int status) {
    return "HTTP/1.1 " + std::to_string(status) + " " + std::string(status_words(status)) + "\r\n";
}

} // namespace

std::string gzipped(std::string_view text, int effort) {
    z_stream stream{};
    constexpr int with_gzip_head = 15 + 16;
    if (deflateInit2(&stream, effort, Z_DEFLATED, with_gzip_head, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        return "";
    }
    std::string out(text.size(), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    bool whole = deflate(&stream, Z_FINISH) == Z_STREAM_END;
    out.resize(whole ? stream.total_out : 0);
    deflateEnd(&stream);
    return out;
}

wire_answer to_wire(api_answer&& answer, const request_head& asked, bool keep_alive, int64_t now) {
    wire_answer out{status_line(answer.status), std::move(answer.body)};
    const bool without_body = answer.status == 204 || answer.status == 304;
    const bool varies = !without_body && may_be_compressed(answer.type);
    bool compressed = false;
    if (varies && asked.takes_gzip && out.body.size() >= worth_it && asked.method != "HEAD") {
        std::string smaller = answer.packed ? *answer.packed : gzipped(out.body, effort);
        compressed = !smaller.empty();
        if (compressed) {
            out.body = std::move(smaller);
        }
    }
    out.head += date(now);
    if (without_body) {
        out.body.clear();
    } else {
        append(out.head, "Content-Type", answer.type);
        append(out.head, "Content-Length", std::to_string(out.body.size()));
    }
    if (compressed) {
        append(out.head, "Content-Encoding", "gzip");
    }
    if (varies) {
        append(out.head, "Vary", "Accept-Encoding");
    }
    bool caches = false, policy = false, challenge = false;
    for (const auto& [name, value] : answer.headers) {
        caches = caches || same(name, "Cache-Control");
        policy = policy || same(name, "Content-Security-Policy");
        challenge = challenge || same(name, "WWW-Authenticate");
        /* Other bytes with the same meaning. */
        bool weaker = compressed && same(name, "ETag") && !value.starts_with("W/");
        append(out.head, name, weaker ? "W/" + value : value);
    }
    if (!caches) {
        append(out.head, "Cache-Control", "no-store");
    }
    if (answer.status == 401 && !challenge) {
        append(out.head, "WWW-Authenticate", "Bearer");
    }
    out.head += common;
    out.head += policy ? "" : loads_nothing;
    out.head += keep_alive ? "\r\n" : "Connection: close\r\n\r\n";
    if (asked.method == "HEAD") {
        out.body.clear();
    }
    return out;
}

std::string stream_head(int64_t now) {
    return status_line(200) + date(now) +
           "Content-Type: text/event-stream\r\n"
           "Cache-Control: no-store\r\n"
           "X-Accel-Buffering: no\r\n" + /* a proxy that collects would hold it back */
           common +
           loads_nothing + "Connection: close\r\n\r\n";
}

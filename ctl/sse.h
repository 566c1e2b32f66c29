/* Server-sent events out of the bytes of a stream. */
#ifndef VINDRAL_CTL_SSE_H
#define VINDRAL_CTL_SSE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

struct sse_message {
    std::string id;    /* of the last message that had one */
    std::string event; /* "message" when it has none */
    std::string data;  /* its lines, with \n between */
};

class sse_parser {
public:
    explicit sse_parser(size_t most_bytes = 16u << 20) : most_bytes_(most_bytes) {}

    /* Hands over the messages that end in these bytes, which may begin and end anywhere; false from
     * the moment on at which `take` has returned false, or a message has become too long: see
     * is_too_long(). */
    bool feed(std::string_view bytes, const std::function<bool(const sse_message&)>& take);
    bool is_too_long() const { return too_long_; }

    /* For a new connection: what is half there is dropped; the id and the time to wait stay. */
    void begin_anew();

    /* For Last-Event-ID; empty when none was given. */
    const std::string& last_id() const { return last_id_; }
    /* How long to wait until the next connection. */
    int64_t retry_ms() const { return retry_ms_; }

private:
    bool end_line(const std::function<bool(const sse_message&)>& take);
    void read_field();

    const size_t most_bytes_;
    std::string line_, event_, data_, last_id_, id_;
    int64_t retry_ms_ = 3000;
    bool has_data_ = false, after_return_ = false, at_begin_ = true, too_long_ = false;
};

#endif

#include "ingest/exchange.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace asio = boost::asio;
using asio::awaitable;

bool packed_body::append(std::string_view piece, size_t expected) {
    size_t needed = size_ + piece.size();
    if (needed > share_.held()) {
        size_t room = std::min(expected, std::max({needed, 2 * share_.held(), size_t(64) << 10}));
        if (!share_.add(room - share_.held())) {
            return false;
        }
        void* grown = realloc(bytes_, room);
        if (!grown) {
            throw std::bad_alloc();
        }
        bytes_ = static_cast<char*>(grown);
    }
    if (!piece.empty()) {
        memcpy(bytes_ + size_, piece.data(), piece.size());
    }
    size_ = needed;
    return true;
}

void packed_body::drop() {
    free(bytes_);
    bytes_ = nullptr;
    size_ = 0;
}

uint64_t exchange::key_of(const asio::ip::address& address) {
    if (address.is_v4()) {
        return address.to_v4().to_uint();
    }
    if (address.to_v6().is_v4_mapped()) {
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_uint();
    }
    auto bytes = address.to_v6().to_bytes();
    uint64_t prefix = 0;
    for (size_t i = 0; i < 8; ++i) {
        prefix = prefix << 8 | bytes[i];
    }
    return prefix;
}

void exchange::begin_phase(server_deadlines::duration length, admission::stage stage) {
    auto now = clock::now();
    link.set_deadline(std::min(now + length, accepted + room_.options.deadlines.whole));
    set_stage(stage, now);
}

/* Until it is whole, or so long that it will be refused. */
awaitable<bool> exchange::read_head() {
    begin_phase(room_.options.deadlines.head, admission::stage::unheard);
    auto& scratch = room_.scratch;
    size_t seen = 0;
    while (find_head(input_, seen) == 0 && input_.size() <= max_head) {
        seen = input_.size();
        size_t got = co_await link.read_some(scratch.data(), scratch.size());
        if (got == 0) {
            co_return false;
        }
        input_.append(scratch.data(), got);
    }
    co_return true;
}

bool exchange::parse(std::string& error) {
    size_t length = find_head(input_, 0);
    bool good = parse_head(std::string_view(input_).substr(0, length), head, error);
    input_.erase(0, length);
    return good;
}

awaitable<bool> exchange::read_body(packed_body* into, admission::stage stage) {
    const server_options& limits = room_.options;
    size_t left = head.content_length;
    if (left > limits.body.max_wire || head.compression > limits.body.max_plain) {
        room_.refuse(refusal::body, event::body,
                     "body from " + address + " is too large (" + std::to_string(left) +
                         " bytes, " + std::to_string(head.compression) +
                         " unpacked): connection reset");
        co_return false;
    }
    begin_phase(limits.deadlines.body + std::chrono::seconds(left / limits.deadlines.body_rate),
                stage);
    auto& scratch = room_.scratch;
    std::string_view piece = input_;
    for (;;) {
        piece = piece.substr(0, left);
        left -= piece.size();
        if (into && !into->append(piece, head.content_length)) {
            no_memory_ = true;
            room_.refuse(refusal::memory, event::memory,
                         "no memory left for bodies: reset " + address);
            co_return false;
        }
        if (left == 0) {
            co_return true;
        }
        size_t got = co_await link.read_some(scratch.data(), std::min(scratch.size(), left));
        if (got == 0) {
            room_.refuse(refusal::request, event::request,
                         "no whole body from " + address + ": " + link.problem());
            co_return false;
        }
        piece = {scratch.data(), got};
    }
}

awaitable<bool> exchange::answer(std::string_view status, std::string_view session,
                                 std::string_view body) {
    return answer_with(status, "Vnd-SessionID", session, body);
}

awaitable<bool> exchange::answer_with(std::string_view status, std::string_view header,
                                      std::string_view value, std::string_view body) {
    const std::string length = std::to_string(body.size());
    const std::string_view line = "\r\n", colon = ": ";
    const bool more = !value.empty();
    output_.clear();
    output_.reserve(64 + status.size() + header.size() + value.size() + body.size());
    for (std::string_view part :
         {std::string_view("HTTP/1.0 "), status, std::string_view("\r\nContent-Length: "),
          std::string_view(length), more ? line : "", more ? header : "", more ? colon : "", value,
          std::string_view("\r\n\r\n"), body}) {
        output_ += part;
    }
    return send();
}

awaitable<bool> exchange::send() {
    const server_deadlines& limits = room_.options.deadlines;
    admission::memory_share share(*this);
    if (!share.add(output_.size())) {
        room_.refuse(refusal::memory, event::memory,
                     "no memory left for answers: reset " + address);
        co_return false;
    }
    if (link.given_up()) {
        co_return false;
    }
    bool heard = in() == admission::stage::busy || in() == admission::stage::heard;
    begin_phase(limits.answer, heard ? admission::stage::heard : admission::stage::unheard);
    bool written = co_await link.write(output_);
    if (!written) {
        co_return false;
    }
    link.set_deadline(clock::now() + limits.drain);
    co_return co_await link.end_cleanly();
}

/* What an agent's connection brings, as the server takes it: the head as it comes in, the session,
 * the body unpacked. Input: one byte for the sizes of the packets, then the bytes of the stream. */
#include "base/text.h"
#include "fuzz.h"
#include "ingest/body.h"
#include "ingest/request.h"
#include "ingest/session.h"

#include <algorithm>
#include <zlib.h>

static const body_limits limits = {.max_wire = 3000, .max_plain = 1 << 16};

/* One line for the log, which may end with what the agent left empty. */
static bool is_sound(const std::string& error) {
    return !error.empty() && printable(error + ".") == error + ".";
}

/* The length of the head, found while the stream comes in. */
static size_t receive_head(std::string_view stream, size_t packet) {
    size_t seen = 0, length = 0;
    while (length == 0 && seen < stream.size()) {
        size_t received = std::min(stream.size(), seen + packet);
        length = find_head(stream.substr(0, received), seen);
        require(length == find_head(stream.substr(0, received), 0));
        seen = received;
    }
    require(length <= stream.size());
    return length;
}

static void check_unpacked(const request& head, std::string_view wire) {
    std::string plain, error;
    if (!unpack_body(wire, head.compression, head.checksum, limits, plain, error)) {
        require(plain.empty() && is_sound(error));
        return;
    }
    require(wire.size() <= limits.max_wire && plain.size() <= limits.max_plain);
    if (head.compression == 0) {
        require(plain == wire);
        return;
    }
    require(plain.size() == head.compression);

    /* What came out goes in again. */
    uLongf length = compressBound(plain.size());
    std::string packed(length, '\0'), again;
    require(compress(reinterpret_cast<Bytef*>(packed.data()), &length,
                     reinterpret_cast<const Bytef*>(plain.data()), plain.size()) == Z_OK);
    packed.resize(length);
    require(packed.size() > limits.max_wire ||
            (unpack_body(packed, plain.size(), 0, limits, again, error) && again == plain));
}

/* Who logs in has the name; the older session keeps it when it is used twice afterwards. */
static void check_session(session_table& sessions, const request& head) {
    session_table::time now{};
    if (head.what == request::kind::poll) {
        require(sessions.find(head.session, now) == nullptr);
        return;
    }
    for (std::string_view name : {std::string_view(head.account), std::string_view(head.agent)}) {
        require(!name.empty() && name.size() <= max_name);
        require(printable(name).find('\n') == std::string::npos);
    }
    auto first = sessions.log_in(head.account, head.agent, now);
    require(first != nullptr && first->id.size() == 32 && sessions.size() == 1);
    require(sessions.find(first->id, now) == first);
    auto second = sessions.log_in(head.account, head.agent, now);
    require(second != nullptr && second->id != first->id && sessions.size() == 2);
    require(sessions.find(second->id, now) == second && sessions.find(first->id, now) == first);
    require(sessions.find(first->id, now) == first && sessions.find(second->id, now) == nullptr);
    require(sessions.log_in(head.account, head.agent, now) == nullptr && sessions.size() == 1);
}

static void serve(std::string_view stream, size_t packet) {
    size_t length = receive_head(stream, packet);
    if (length == 0) {
        return;
    }
    request head;
    std::string error;
    if (!parse_head(stream.substr(0, length), head, error)) {
        require(is_sound(error));
        return;
    }
    session_table sessions;
    if (head.what == request::kind::login || head.what == request::kind::poll) {
        check_session(sessions, head);
    }
    std::string_view body = stream.substr(length);
    check_unpacked(head, body.substr(0, std::min<uint64_t>(body.size(), head.content_length)));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    std::vector<char> bytes(data + 1, data + size); /* without a byte behind it */
    require_no_growth([&] { serve({bytes.data(), bytes.size()}, 1 + data[0] % 64U); });
    return 0;
}

/* One exchange: a connection, the request that comes over it and the answer that goes back. One
 * thread. Reading and answering are here; who is served, and what is answered, is not. */
#ifndef VINDRAL_COLLECTOR_EXCHANGE_H
#define VINDRAL_COLLECTOR_EXCHANGE_H

#include "base/agent_proof.h"
#include "ingest/admission.h"
#include "ingest/connection.h"
#include "ingest/counters.h"
#include "ingest/event_log.h"
#include "ingest/request.h"
#include "ingest/server_options.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

/* What all exchanges of a server share. */
struct exchange_room {
    server_options options;
    event_log log;
    counters& counted;
    std::array<char, 16384> scratch; /* from a read to its use, never across a wait */

    void refuse(refusal why, event kind, const std::string& line) {
        counted.refused(why);
        log(kind, line);
    }
};

/* A body as it comes in. Grows without copying, as far as the system can: it moves the pages. */
class packed_body {
public:
    explicit packed_body(admission::place& of) : share_(of) {}
    ~packed_body() { drop(); }
    packed_body(const packed_body&) = delete;
    packed_body& operator=(const packed_body&) = delete;

    /* `expected` is the size of the whole body: no more memory than that is taken, and no more than
     * 64 KiB on the word for it alone. False when there is none left. */
    bool append(std::string_view piece, size_t expected);

    std::string_view wire() const { return {bytes_, size_}; }
    void drop(); /* the share stays: what was unpacked from it is there yet */

private:
    admission::memory_share share_;
    char* bytes_ = nullptr;
    size_t size_ = 0;
};

class exchange : public admission::place {
public:
    using clock = connection::clock;

    static uint64_t key_of(const boost::asio::ip::address& address);

    exchange(exchange_room& room, boost::asio::ip::tcp::socket socket,
             const boost::asio::ip::address& peer, clock::time_point now)
        : link(std::move(socket), now + room.options.deadlines.handshake),
          address(peer.to_string()), address_key(key_of(peer)), accepted(now), room_(room) {}

    connection link;
    const std::string address;  /* of the peer, as text */
    const uint64_t address_key; /* what counts as one: an IPv4 address, or the /64 of an IPv6 one */
    const clock::time_point accepted;
    request head;
    bool idle = false; /* nothing is done for it now but wait: where the server ends, so may it */
    std::optional<agent_proof> proof; /* what the certificate says that it has shown, if any */

    /* The connection has so long from now on, but never longer than the whole exchange may take. */
    void begin_phase(server_deadlines::duration length, admission::stage stage);

    /* Reads until the head is whole. False when the connection is of no more use. */
    boost::asio::awaitable<bool> read_head();
    /* Takes it apart, into `head`. False with the reason in `error` when it makes no sense. */
    bool parse(std::string& error);

    /* Reads the body, into `into` or, when that is null, to nowhere. What comes after it is
     * ignored: one exchange a connection. False when the connection broke or is not worth going on
     * with. */
    boost::asio::awaitable<bool> read_body(packed_body* into, admission::stage stage);
    /* It broke for want of room here, for the body or for the connection. */
    bool had_no_room() const { return no_memory_ || in() == admission::stage::out; }

    /* Writes the whole answer and ends the connection. True when the agent has it. A session that
     * is not empty is what the agent takes for its id. The texts need not outlive the call. */
    boost::asio::awaitable<bool> answer(std::string_view status, std::string_view session,
                                        std::string_view body);
    /* The same with another header, unless its value is empty. */
    boost::asio::awaitable<bool> answer_with(std::string_view status, std::string_view header,
                                             std::string_view value, std::string_view body);

private:
    boost::asio::awaitable<bool> send();

    exchange_room& room_;
    std::string input_;      /* read but not used yet: the head, then the beginning of the body */
    std::string output_;     /* the answer */
    bool no_memory_ = false; /* for the body */
};

#endif

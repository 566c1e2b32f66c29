/* Has agents wait, or come again, while the collector catches up: pacing.h says who and why.
 * Network thread only. */
#ifndef VINDRAL_COLLECTOR_CATCHING_UP_H
#define VINDRAL_COLLECTOR_CATCHING_UP_H

#include "ingest/exchange.h"
#include "ingest/ingest.h"
#include "ingest/pacing.h"

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <random>

class catching_up {
public:
    /* What waits may be destroyed with `context`, which this must outlive. */
    catching_up(boost::asio::io_context& context, exchange_room& room, ingest& results);

    /* Whose head has been read, and nothing of the body that it announces. False when the exchange
     * is over: it is to be reset, which is counted and logged, or of no more use. May take some
     * seconds either way. */
    boost::asio::awaitable<bool> may_bring_results(exchange& x);
    boost::asio::awaitable<bool> may_log_in(exchange& x);
    /* It may be told to: then sent_away() is to be called. */
    boost::asio::awaitable<bool> may_be_sent_away(exchange& x);
    void sent_away() { logins_.sent_away(exchange::clock::now()); }

private:
    /* Blocks of one kind. */
    struct kind {
        const char* name;
        backlog_gate gate;
        uint64_t reset = 0; /* since it closed */
    };
    /* For what somebody comes; a login brings who knows what. */
    enum class brings : uint8_t { small, large, login };
    kind* behind_with(brings what);
    bool is_behind(kind& of, std::chrono::milliseconds oldest);
    boost::asio::awaitable<bool> come_through(exchange& x, brings what);
    boost::asio::awaitable<bool> take_turn(exchange& x, bool logs_in);
    boost::asio::awaitable<bool> wait(exchange& x, std::chrono::milliseconds length);
    boost::asio::awaitable<bool> wait_by_chance(exchange& x);

    boost::asio::io_context& context_;
    exchange_room& room_;
    ingest& results_;
    kind small_, large_;
    login_pace logins_;
    const size_t most_by_chance_;
    size_t by_chance_ = 0; /* connections that wait so */
    std::minstd_rand chance_{std::random_device()()};
};

#endif

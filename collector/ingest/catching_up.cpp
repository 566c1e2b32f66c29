#include "ingest/catching_up.h"

#include "ingest/short_of_memory.h"

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstdio>

namespace asio = boost::asio;
using asio::awaitable;
using std::chrono::milliseconds;

static constexpr auto look = 5 * tick; /* so often at whether it is of use yet to wait */

/* Connections that wait leave room for others. */
static size_t some_of(const server_options& o) {
    return std::max<size_t>(o.max_connections / 4, 1);
}

static login_limits limits_in(const server_options& o) {
    login_limits limits = o.logins;
    limits.rate = std::max<size_t>(limits.rate, 1);
    limits.wait = std::min(limits.wait, milliseconds(1000 * some_of(o) / limits.rate));
    return limits;
}

catching_up::catching_up(asio::io_context& context, exchange_room& room, ingest& results)
    : context_(context), room_(room), results_(results),
      small_(kind{"results", backlog_gate(room.options.max_behind)}),
      large_(kind{"large blocks of results", backlog_gate(room.options.max_behind)}),
      logins_(limits_in(room.options)),
      most_by_chance_(std::min(room.options.max_spread, some_of(room.options))) {}

/* Says when it begins, and when it is over. */
bool catching_up::is_behind(kind& of, milliseconds oldest) {
    const bool was = of.gate.is_closed();
    const bool is = of.gate.look(oldest);
    if (is && !was) {
        of.reset = 0;
        char seconds[32];
        snprintf(seconds, sizeof seconds, "%.1f", static_cast<double>(oldest.count()) / 1000);
        room_.log(event::behind, std::string("the store is behind, ") + of.name + " have waited " +
                                     seconds + " s: agents that bring such are to come again");
    } else if (was && !is) {
        room_.log(event::behind, std::string("the store has caught up with ") + of.name + "; " +
                                     std::to_string(of.reset) +
                                     " times an agent had to come again");
    }
    return is;
}

/* Null when it may go on. */
catching_up::kind* catching_up::behind_with(brings what) {
    const queue_delay now = results_.behind();
    if (what != brings::large && is_behind(small_, now.small)) {
        return &small_;
    }
    return what != brings::small && is_behind(large_, now.large) ? &large_ : nullptr;
}

/* False when it was given up meanwhile. */
awaitable<bool> catching_up::wait(exchange& x, milliseconds length) {
    const exchange::clock::time_point until = exchange::clock::now() + length;
    x.begin_phase(length + room_.options.deadlines.answer, admission::stage::unheard);
    x.idle = true;
    asio::steady_timer timer(context_);
    while (!x.link.given_up() && exchange::clock::now() < until) {
        timer.expires_at(std::min(until, exchange::clock::now() + look));
        co_await timer.async_wait(asio::as_tuple(asio::use_awaitable));
    }
    x.idle = false;
    co_return !x.link.given_up();
}

awaitable<bool> catching_up::wait_by_chance(exchange& x) {
    const milliseconds most = room_.options.spread;
    if (by_chance_ >= most_by_chance_ || most.count() == 0) {
        co_return true;
    }
    struct one {
        explicit one(size_t& of) : of_(of) { ++of_; }
        ~one() { --of_; }
        one(const one&) = delete;
        one& operator=(const one&) = delete;
        size_t& of_;
    } const counted(by_chance_);
    std::uniform_int_distribution<int64_t> any(0, most.count());
    const bool there = co_await wait(x, milliseconds(any(chance_)));
    co_return there;
}

/* The wait is not in vain where the store catches up meanwhile. */
awaitable<bool> catching_up::come_through(exchange& x, brings what) {
    if (!behind_with(what)) {
        co_return true;
    }
    const bool there = co_await wait_by_chance(x);
    kind* behind = behind_with(what);
    if (behind) {
        ++behind->reset;
        room_.counted.refused(refusal::behind);
    }
    co_return there && !behind;
}

awaitable<bool> catching_up::may_bring_results(exchange& x) {
    if (x.head.content_length == 0) {
        co_return true;
    }
    const size_t size = std::max(x.head.content_length, x.head.compression);
    const bool large = size > results_.behind().large_from;
    const bool come = co_await come_through(x, large ? brings::large : brings::small);
    co_return come;
}

awaitable<bool> catching_up::take_turn(exchange& x, bool logs_in) {
    {
        login_pace::place place(logins_, x.address_key, exchange::clock::now(), logs_in);
        if (!place.refused()) {
            const bool there = co_await wait(x, place.wait());
            co_return there;
        }
    }
    room_.refuse(refusal::logins, event::logins,
                 "too many log-ins at a time: one from " + x.address + " is to come again");
    co_await wait_by_chance(x);
    co_return false;
}

awaitable<bool> catching_up::may_log_in(exchange& x) {
    bool come = co_await come_through(x, brings::login);
    if (come) {
        come = co_await take_turn(x, true);
    }
    co_return come;
}

awaitable<bool> catching_up::may_be_sent_away(exchange& x) {
    bool come = co_await come_through(x, brings::login);
    if (come) {
        come = co_await take_turn(x, false);
    }
    co_return come;
}

#include "ingest/listener.h"

#include "ingest/accepting.h"
#include "ingest/short_of_memory.h"

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace asio = boost::asio;
using asio::awaitable;
using asio::ip::tcp;
using boost::system::error_code;

static constexpr int most_at_once = 200; /* connections ended in one go */

/* What is set here holds for every connection accepted (Linux copies it): answers leave at once,
 * and a connection that is not ended in the proper way is reset. */
static void open_port(tcp::acceptor& acceptor, const tcp::endpoint& at) {
    acceptor.open(at.protocol());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    acceptor.set_option(tcp::no_delay(true));
    acceptor.set_option(asio::socket_base::linger(true, 0));
    acceptor.bind(at);
    acceptor.listen(asio::socket_base::max_listen_connections);
    acceptor.non_blocking(true); /* as accept_one() wants it */
}

bool listener::listen(std::string& error) {
    const server_options& o = room_.options;
    error = "cannot listen on " + o.address + " port " + std::to_string(o.port) + ": ";
    error_code failed;
    auto address = asio::ip::make_address(o.address, failed);
    if (failed) {
        error += "not an IP address";
        return false;
    }
    try {
        open_port(acceptor_, {address, o.port});
    } catch (const boost::system::system_error& e) {
        error += e.code().message();
        return false;
    }
    error.clear();
    asio::co_spawn(context_, accept_all(), asio::detached);
    return true;
}

awaitable<void> listener::accept_all() {
    asio::steady_timer pause(context_);
    while (!stopping_) {
        try {
            accepted next = co_await accept_one(acceptor_);
            if (!next.failed) {
                begin(std::move(next.socket), next.from);
            } else if (!stopping_ && next.failed != asio::error::connection_aborted) {
                /* Out of descriptors or memory: the connection stays in the queue, so trying again
                 * at once would spin. */
                room_.log(event::accept, "cannot accept connections: " + next.failed.message());
                pause.expires_after(tick);
                co_await pause.async_wait(asio::as_tuple(asio::use_awaitable));
            }
        } catch (const std::exception& e) {
            room_.log.failure("cannot accept connections", e.what());
            wait_for_memory();
        }
    }
}

void listener::begin(tcp::socket socket, const tcp::endpoint& from) {
    auto ended = [this](std::exception_ptr thrown) {
        room_.counted.open_connections.set(slots_.connections());
        if (stopping_ && slots_.connections() == 0) {
            sweep_timer_.cancel();
        }
        try {
            if (thrown) {
                std::rethrow_exception(thrown);
            }
        } catch (const std::exception& e) { /* memory is short */
            room_.log.failure("a connection was dropped", e.what());
        }
    };
    asio::co_spawn(context_, serve_one(std::move(socket), from), ended);
}

awaitable<void> listener::serve_one(tcp::socket socket, tcp::endpoint from) {
    exchange x(room_, std::move(socket), from.address(), exchange::clock::now());
    if (admit(x)) {
        co_await serve_(x);
    }
}

/* False when there is no place for it: it has to be reset. */
bool listener::admit(exchange& x) {
    ++room_.counted.connections;
    auto verdict = slots_.admit(x, x.address_key, x.accepted);
    room_.counted.open_connections.set(slots_.connections());
    if (verdict == admission::verdict::admitted) {
        begin_sweep();
        return true;
    }
    bool crowded = verdict == admission::verdict::too_many_of_address;
    room_.refuse(crowded ? refusal::address : refusal::connections, event::refused,
                 "too many connections" + (crowded ? " from " + x.address : "") +
                     ": a new one was reset");
    return false;
}

void end_for_others(exchange_room& room, admission::place& gone, admission::need what) {
    exchange& x = static_cast<exchange&>(gone);
    x.link.give_up(connection::reason::made_room);
    if (what == admission::need::connection) {
        room.refuse(refusal::connections, event::refused,
                    "too many connections: one from " + x.address + " had to make room");
    } else {
        room.refuse(refusal::memory, event::memory,
                    "no memory left: a connection from " + x.address + " had to make room");
    }
}

void listener::begin_sweep() {
    if (sweeping_) {
        return;
    }
    sweeping_ = true;
    try {
        asio::co_spawn(context_, sweep(), asio::detached);
    } catch (const std::exception&) {
        sweeping_ = false;
        throw;
    }
}

/* Gives up what is past its deadline, some at a time: thousands may have come together. Runs as
 * long as there are connections. */
awaitable<void> listener::sweep() {
    bool more = false;
    while (slots_.connections() > 0) {
        try {
            sweep_timer_.expires_after(more ? exchange::clock::duration() : tick);
            co_await sweep_timer_.async_wait(asio::as_tuple(asio::use_awaitable));
        } catch (const std::exception&) {
            wait_for_memory();
        }
        auto now = exchange::clock::now();
        int left = most_at_once;
        slots_.for_each([&](admission::place& p) {
            connection& link = static_cast<exchange&>(p).link;
            if (left > 0 && now >= std::min(link.deadline(), stop_by_) && !link.given_up()) {
                link.give_up();
                --left;
            }
        });
        more = left == 0;
    }
    sweeping_ = false;
}

void listener::stop() {
    if (stopping_) {
        return;
    }
    stopping_ = true;
    stop_by_ = exchange::clock::now() + room_.options.deadlines.stop;
    error_code ignored;
    acceptor_.close(ignored);
    slots_.for_each([](admission::place& p) {
        exchange& x = static_cast<exchange&>(p);
        if (x.link.silent() || x.idle) {
            x.link.give_up();
        }
    });
    sweep_timer_.cancel(); /* one sweep now; it ends with the last connection */
    room_.log.flush();
}

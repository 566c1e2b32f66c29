/* The next connection of a port. */
#ifndef VINDRAL_COLLECTOR_ACCEPTING_H
#define VINDRAL_COLLECTOR_ACCEPTING_H

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_awaitable.hpp>

struct accepted {
    boost::asio::ip::tcp::socket socket; /* open unless `failed` */
    boost::asio::ip::tcp::endpoint from = {};
    boost::system::error_code failed = {};
};

/* The acceptor must not block. Waits and accepts itself: where there is no memory for the new
 * socket, async_accept() ends the coroutine that waits for it, without a word, and with it the
 * port. Here that is an exception, and the connection is closed. */
inline boost::asio::awaitable<accepted> accept_one(boost::asio::ip::tcp::acceptor& acceptor) {
    accepted next{boost::asio::ip::tcp::socket(acceptor.get_executor())};
    do {
        auto [failed] =
            co_await acceptor.async_wait(boost::asio::ip::tcp::acceptor::wait_read,
                                         boost::asio::as_tuple(boost::asio::use_awaitable));
        next.failed = failed;
        if (!failed) {
            acceptor.accept(next.socket, next.from, next.failed);
        }
    } while (next.failed == boost::asio::error::would_block); /* it has gone again */
    co_return next;
}

#endif

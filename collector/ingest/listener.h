/* Who is let in, and for how long: the port, a place for each connection (see admission.h), and the
 * deadlines of all. Network thread only. */
#ifndef VINDRAL_COLLECTOR_LISTENER_H
#define VINDRAL_COLLECTOR_LISTENER_H

#include "ingest/exchange.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <string>

class listener {
public:
    /* `serve` is what becomes of a connection that has a place. `slots` must outlive `context`,
     * which destroys the exchanges that are under way, `room` likewise. */
    listener(boost::asio::io_context& context, exchange_room& room, admission& slots,
             std::function<boost::asio::awaitable<void>(exchange&)> serve)
        : context_(context), room_(room), slots_(slots), serve_(std::move(serve)) {}

    /* Opens the port and begins. False with one line in `error`. */
    bool listen(std::string& error);
    boost::asio::ip::tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }

    /* Closes the port, resets connections that have not said anything or are idle, and those under
     * way after server_deadlines::stop at the latest. */
    void stop();

private:
    boost::asio::awaitable<void> accept_all();
    void begin(boost::asio::ip::tcp::socket socket, const boost::asio::ip::tcp::endpoint& from);
    boost::asio::awaitable<void> serve_one(boost::asio::ip::tcp::socket socket,
                                           boost::asio::ip::tcp::endpoint from);
    bool admit(exchange& x);
    void begin_sweep();
    boost::asio::awaitable<void> sweep();

    boost::asio::io_context& context_;
    exchange_room& room_;
    admission& slots_;
    std::function<boost::asio::awaitable<void>(exchange&)> serve_;
    boost::asio::ip::tcp::acceptor acceptor_{context_};
    boost::asio::steady_timer sweep_timer_{context_};
    bool sweeping_ = false;
    bool stopping_ = false;
    exchange::clock::time_point stop_by_ = exchange::clock::time_point::max();
};

/* Tells the connection of a place that had to make room for another, and the log. */
void end_for_others(exchange_room& room, admission::place& gone, admission::need what);

#endif

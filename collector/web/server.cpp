#include "web/server.h"

#include "base/certificate.h"
#include "ingest/accepting.h"
#include "ingest/exchange.h"
#include "ingest/short_of_memory.h"
#include "web/visit.h"

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace asio = boost::asio;
using asio::awaitable;
using asio::ip::tcp;
using boost::system::error_code;

static constexpr auto look_every = std::chrono::milliseconds(100);
static constexpr auto stop_time = std::chrono::seconds(2);

struct web_server::state {
    state(web_options o, SSL_CTX* t, settings& kept, api_services& with,
          std::function<void(const std::string&)> l)
        : options(std::move(o)), log(std::move(l)), callers(kept),
          on_loopback(is_loopback(options.address)),
          at(options, t != nullptr, on_loopback, kept, callers, with, log),
          room(with_limits(options, on_loopback), t, at, callers, with) {}

    web_options options;
    const std::function<void(const std::string&)> log;
    known_callers callers;
    const bool on_loopback;
    desk at;
    visit_room room;
    tcp::acceptor acceptor{room.context};
    asio::steady_timer look_timer{room.context};
    asio::executor_work_guard<asio::io_context::executor_type> running{room.context.get_executor()};
    visit::clock::time_point stop_by = visit::clock::time_point::max();
    bool looking = false;
    uint16_t port = 0;
    std::thread network;

    static bool is_loopback(const std::string& address);
    static const web_options& with_limits(web_options& options, bool on_loopback);
    awaitable<void> accept_all();
    void begin(tcp::socket socket, const tcp::endpoint& from);
    awaitable<void> serve_one(tcp::socket socket, tcp::endpoint from);
    void begin_looking();
    awaitable<void> look();
    void run();
    void stop();
};

bool web_server::state::is_loopback(const std::string& address) {
    error_code failed;
    asio::ip::address read = asio::ip::make_address(address, failed);
    return !failed && read.is_loopback();
}

/* On loopback all have one address. Streams make room for nobody, so some places are not theirs. */
const web_options& web_server::state::with_limits(web_options& options, bool on_loopback) {
    const size_t places = options.limits.connections;
    options.limits.streams = std::min(options.limits.streams, places - (places + 7) / 8);
    if (on_loopback) {
        options.limits.connections_of_one = options.limits.connections;
    }
    return options;
}

awaitable<void> web_server::state::accept_all() {
    asio::steady_timer pause(room.context);
    while (!room.stopping) {
        try {
            accepted next = co_await accept_one(acceptor);
            if (!next.failed) {
                begin(std::move(next.socket), next.from);
            } else if (!room.stopping && next.failed != asio::error::connection_aborted) {
                /* Out of descriptors: the connection stays in the queue, so trying again at once
                 * would spin. */
                pause.expires_after(tick);
                co_await pause.async_wait(asio::as_tuple(asio::use_awaitable));
            }
        } catch (const std::exception&) {
            wait_for_memory();
        }
    }
}

void web_server::state::begin(tcp::socket socket, const tcp::endpoint& from) {
    auto ended = [this](std::exception_ptr) { /* if any: memory is short */
                                              if (room.stopping && room.places.connections() == 0) {
                                                  look_timer.cancel();
                                              }
    };
    asio::co_spawn(room.context, serve_one(std::move(socket), from), ended);
}

awaitable<void> web_server::state::serve_one(tcp::socket socket, tcp::endpoint from) {
    error_code failed;
    tcp::endpoint here = socket.local_endpoint(failed);
    web_peer peer{from.address().to_string(), here.address().to_string(),
                  exchange::key_of(from.address())};
    const uint64_t key = peer.address_key;
    visit v(room, std::move(socket), std::move(peer));
    auto verdict = room.places.admit(v, key, visit::clock::now());
    if (verdict == admission::verdict::admitted && !room.stopping) {
        begin_looking();
        co_await v.serve();
    }
}

void web_server::state::begin_looking() {
    if (!looking) {
        looking = true;
        try {
            asio::co_spawn(room.context, look(), asio::detached);
        } catch (const std::exception&) {
            looking = false;
            throw;
        }
    }
}

awaitable<void> web_server::state::look() {
    while (room.places.connections() > 0) {
        try {
            look_timer.expires_after(look_every);
            co_await look_timer.async_wait(asio::as_tuple(asio::use_awaitable));
        } catch (const std::exception&) {
            wait_for_memory();
        }
        try {
            room.look_at_bell();
        } catch (const std::exception&) { /* at the next bell */
        }
        auto now = visit::clock::now();
        room.places.for_each(
            [&](admission::place& p) { static_cast<visit&>(p).look(now, stop_by); });
    }
    looking = false;
}

void web_server::state::run() {
    run_surely(room.context);
}

void web_server::state::stop() {
    room.stop();
    stop_by = visit::clock::now() + stop_time;
    error_code ignored;
    acceptor.close(ignored);
    room.places.for_each([](admission::place& p) { static_cast<visit&>(p).on_stop(); });
    running.reset();
}

web_server::web_server(web_options options, SSL_CTX* tls, settings& kept, api_services& with,
                       std::function<void(const std::string&)> log)
    : state_(std::make_unique<state>(std::move(options), tls, kept, with, std::move(log))) {}

web_server::~web_server() {
    stop();
}

void web_server::exchange_tls(tls_context next) {
    if (!next) {
        return;
    }
    std::shared_ptr<SSL_CTX> kept(std::move(next));
    asio::post(state_->room.context, [&room = state_->room, kept] {
        if (room.tls) { /* its thread's, which may be exchanging it right now */
            room.tls = kept.get();
            room.own_tls = kept;
        }
    });
}

bool web_server::listen(std::string& error) {
    state& s = *state_;
    const web_options& o = s.options;
    error = "cannot listen on " + o.address + " port " + std::to_string(o.port) + ": ";
    error_code failed;
    asio::ip::address address = asio::ip::make_address(o.address, failed);
    if (failed) {
        error += "not an IP address";
        return false;
    }
    if (!s.on_loopback && !s.room.tls) {
        error += "without TLS only on loopback";
        return false;
    }
    try {
        /* What is set here holds for every connection accepted: see listener.cpp. */
        tcp::endpoint at(address, o.port);
        s.acceptor.open(at.protocol());
        s.acceptor.set_option(tcp::acceptor::reuse_address(true));
        s.acceptor.set_option(tcp::no_delay(true));
        s.acceptor.set_option(asio::socket_base::linger(true, 0));
        s.acceptor.bind(at);
        s.acceptor.listen(asio::socket_base::max_listen_connections);
        s.acceptor.non_blocking(true); /* as accept_one() wants it */
        s.port = s.acceptor.local_endpoint().port();
    } catch (const boost::system::system_error& e) {
        s.acceptor.close(failed);
        error += e.code().message();
        return false;
    }
    error.clear();
    asio::co_spawn(s.room.context, s.accept_all(), asio::detached);
    try {
        s.network = std::thread([&s] { s.run(); });
        pthread_setname_np(s.network.native_handle(), "web");
    } catch (const std::system_error& e) {
        s.acceptor.close(failed);
        error = "cannot start a thread: " + e.code().message();
        return false;
    }
    return true;
}

uint16_t web_server::port() const {
    return state_->port;
}

std::string web_server::url() const {
    const web_options& o = state_->options;
    std::string host = o.address;
    if (host == "0.0.0.0" || host == "::") {
        host = own_host_name();
    } else if (host.find(':') != std::string::npos) {
        host = "[" + host + "]";
    }
    return (state_->room.tls ? "https://" : "http://") + host + ":" + std::to_string(port());
}

void web_server::stop() {
    if (state_->network.joinable()) {
        asio::post(state_->room.context, [s = state_.get()] { s->stop(); });
        state_->network.join();
    }
    state_->room.readers_.stop();
}

#include "ingest/server.h"

#include "ingest/listener.h"
#include "ingest/page.h"
#include "ingest/polls.h"

namespace asio = boost::asio;
using asio::awaitable;

/* The context destroys the exchanges that are under way. So what they hold something of stands
 * before it, and what refers to them from other threads behind it. */
struct server::state {
    state(server_options options, SSL_CTX* t, ingest& results, instructions& commands,
          counters& counted, log_function log)
        : room{std::move(options), event_log(std::move(log)), counted, {}}, tls(t),
          agents(context, room, bodies, results, commands) {}

    exchange_room room;
    SSL_CTX* tls;
    admission slots{
        {room.options.max_connections, room.options.max_per_address,
         room.options.deadlines.patience, room.options.body_memory},
        [this](admission::place& p, admission::need what) { end_for_others(room, p, what); }};
    polls agents;
    asio::io_context context{1};
    unpacker bodies{context, room.options};
    listener door{context, room, slots, [this](exchange& x) { return serve(x); }};

    awaitable<void> serve(exchange& x);
    awaitable<void> converse(exchange& x);
    awaitable<void> converse_plainly(exchange& x);
};

awaitable<void> server::state::serve(exchange& x) {
    bool good = co_await x.link.first_byte();
    if (!good) {
        co_return;
    }
    if (x.link.plain()) {
        co_await converse_plainly(x);
    } else {
        co_await converse(x);
    }
}

/* The page and nothing else: what an agent says never goes without TLS. */
awaitable<void> server::state::converse_plainly(exchange& x) {
    bool whole = co_await x.read_head();
    std::string error;
    if (whole && x.parse(error) && x.head.what == request::kind::page) {
        co_await answer_page(x);
    } else {
        room.refuse(refusal::tls, event::tls, "no TLS with " + x.address + ": plain text");
    }
}

awaitable<void> server::state::converse(exchange& x) {
    bool secure = co_await x.link.handshake(tls);
    if (!secure) {
        room.refuse(refusal::tls, event::tls, "no TLS with " + x.address + ": " + x.link.problem());
        co_return;
    }
    bool whole = co_await x.read_head();
    if (!whole) {
        room.refuse(refusal::request, event::request,
                    "no request from " + x.address + ": " + x.link.problem());
        co_return;
    }
    std::string error;
    if (!x.parse(error)) {
        co_await agents.answer_nonsense(x, error);
        co_return;
    }
    switch (x.head.what) {
    case request::kind::login:
        co_await agents.answer_login(x);
        break;
    case request::kind::poll:
        co_await agents.answer_poll(x);
        break;
    case request::kind::page:
    case request::kind::other:
        co_await answer_page(x);
    }
}

server::server(server_options options, SSL_CTX* tls, ingest& results, instructions& commands,
               counters& counted, log_function log)
    : state_(std::make_unique<state>(std::move(options), tls, results, commands, counted,
                                     std::move(log))) {}

server::~server() = default;

bool server::listen(std::string& error) {
    return state_->door.listen(error);
}

uint16_t server::port() const {
    return state_->door.endpoint().port();
}

std::string server::where() const {
    auto at = state_->door.endpoint();
    std::string address = at.address().to_string();
    return (at.address().is_v6() ? "[" + address + "]" : address) + ":" + std::to_string(at.port());
}

void server::run() {
    state_->context.run();
}

void server::stop() {
    asio::post(state_->context, [this] { state_->door.stop(); });
}

bool server::check_now(const std::string& account, const std::string& agent) {
    return state_->agents.check_now(account, agent);
}

bool server::send_away(const std::string& account, const std::string& agent) {
    return state_->agents.send_away(account, agent);
}

asio::io_context& server::context() {
    return state_->context;
}

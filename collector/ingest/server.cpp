#include "ingest/server.h"

#include "ingest/enrolment.h"
#include "ingest/listener.h"
#include "ingest/page.h"
#include "ingest/polls.h"
#include "ingest/short_of_memory.h"

#include <boost/asio/thread_pool.hpp>
#include <optional>

namespace asio = boost::asio;
using asio::awaitable;

/* The context destroys the exchanges that are under way. So what they hold something of stands
 * before it, and what refers to them from other threads behind it. */
struct server::state {
    state(server_options options, std::shared_ptr<agents_tls> t, known_agents* known,
          ingest& results, instructions& commands, counters& counted, log_function log)
        : room{std::move(options), event_log(std::move(log)), counted, {}}, tls(std::move(t)),
          hosts(known ? std::make_unique<enrolment>(context, worker, room, *known) : nullptr),
          agents(context, room, bodies, results, commands, known, hosts.get()) {}
    ~state() { worker.join(); } /* what is to be kept is kept */

    exchange_room room;
    std::shared_ptr<agents_tls> tls;
    admission slots{
        {room.options.max_connections, room.options.max_per_address,
         room.options.deadlines.patience, room.options.body_memory},
        [this](admission::place& p, admission::need what) { end_for_others(room, p, what); }};
    const std::unique_ptr<enrolment> hosts; /* null: none may enrol */
    polls agents;
    asio::io_context context{1};
    unpacker bodies{context, room.options};
    asio::thread_pool worker{1};
    listener door{context, room, slots, [this](exchange& x) { return serve(x); }};

    awaitable<void> serve(exchange& x);
    awaitable<void> converse(exchange& x);
    awaitable<void> converse_plainly(exchange& x);
    awaitable<bool> secure(exchange& x, agents_tls& by);
};

namespace {
/* What the peer of one handshake shows. */
class shown_certificate : public client_look {
public:
    explicit shown_certificate(certificate_check* by) : by_(by) {}

    int look(X509* certificate) override {
        try {
            agent_proof says;
            int reason =
                by_ ? by_->look(certificate, says, refused_) : X509_V_ERR_APPLICATION_VERIFICATION;
            if (reason == X509_V_OK) {
                says_ = std::move(says);
            }
            return reason;
        } catch (const std::exception&) { /* memory is short */
            return X509_V_ERR_OUT_OF_MEM;
        }
    }

    std::optional<agent_proof>& says() { return says_; }
    const std::string& refused() const { return refused_; } /* why; "": it was not */

private:
    certificate_check* const by_;
    std::optional<agent_proof> says_;
    std::string refused_;
};
} // namespace

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

/* The handshake. With it the peer has proven that it has the key of what it has shown. */
awaitable<bool> server::state::secure(exchange& x, agents_tls& by) {
    shown_certificate shown(by.check());
    bool done = co_await x.link.handshake(by.context(), &shown);
    if (done) {
        x.proof = std::move(shown.says());
        co_return true;
    }
    if (shown.refused().empty()) {
        room.refuse(refusal::tls, event::tls, "no TLS with " + x.address + ": " + x.link.problem());
        co_return false;
    }
    room.refuse(refusal::identity, event::identity,
                "certificate refused from " + x.address + ": " + shown.refused());
    x.begin_phase(room.options.deadlines.drain, admission::stage::unheard);
    co_await x.link.let_read_alert();
    co_return false;
}

awaitable<void> server::state::converse(exchange& x) {
    std::shared_ptr<agents_tls> by = tls; /* until the end, also when it is exchanged */
    bool good = co_await secure(x, *by);
    if (!good) {
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
    case request::kind::authority:
        if (hosts) {
            co_await hosts->answer_authority(x, by);
            break;
        }
        [[fallthrough]];
    case request::kind::enrol:
        if (hosts) {
            co_await hosts->answer(x, by);
            break;
        }
        [[fallthrough]];
    case request::kind::page:
    case request::kind::other:
        co_await answer_page(x);
    }
}

server::server(server_options options, std::shared_ptr<agents_tls> tls, known_agents* known,
               ingest& results, instructions& commands, counters& counted, log_function log)
    : state_(std::make_unique<state>(std::move(options), std::move(tls), known, results, commands,
                                     counted, std::move(log))) {}

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
    run_surely(state_->context);
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

void server::exchange_tls(std::shared_ptr<agents_tls> next) {
    state_->tls = std::move(next);
}

void server::refresh_known(std::function<std::string()> more) {
    if (state_->hosts) {
        state_->hosts->refresh(std::move(more));
    }
}

asio::io_context& server::context() {
    return state_->context;
}

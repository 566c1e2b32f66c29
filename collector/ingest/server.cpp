#include "ingest/server.h"

#include "base/text.h"
#include "ingest/admission.h"
#include "ingest/connection.h"
#include "ingest/request.h"
#include "ingest/turns.h"

#include <algorithm>
#include <array>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <optional>
#include <thread>
#include <unordered_set>

namespace asio = boost::asio;
using asio::awaitable;
using asio::ip::tcp;
using clock_type = connection::clock;
using boost::system::error_code;

static constexpr auto tick = std::chrono::milliseconds(100); /* how often deadlines are looked at */
static constexpr int most_at_once = 200;                     /* connections ended in one go */

/* ---- what strangers can make us log ---- */

namespace {
enum class event {
    accept,
    refused,
    tls,
    request,
    session,
    login,
    name,
    body,
    memory,
    storing,
    failure,
    count
};

/* Lets a few lines of each kind through a minute and says how many it kept back. */
class log_limiter {
public:
    explicit log_limiter(server::log_function log) : log_(std::move(log)) {}

    void operator()(event kind, const std::string& line) {
        constexpr size_t lines_a_minute = 20;
        window& w = windows_[size_t(kind)];
        auto now = clock_type::now();
        if (now - w.begun >= std::chrono::minutes(1)) {
            report_dropped(w);
            w.begun = now;
            w.lines = 0;
        }
        if (w.lines++ < lines_a_minute) {
            log_(line);
        } else {
            ++w.dropped;
            w.last = line;
        }
    }

    void flush() {
        for (window& w : windows_) {
            report_dropped(w);
        }
    }

private:
    struct window {
        clock_type::time_point begun{};
        size_t lines = 0, dropped = 0;
        std::string last; /* of those dropped */
    };

    void report_dropped(window& w) {
        if (w.dropped > 0) {
            log_(w.last + " (the last of " + std::to_string(w.dropped) + " such lines left out)");
        }
        w.dropped = 0;
    }

    server::log_function log_;
    std::array<window, size_t(event::count)> windows_;
};

/* What counts as one address: an IPv4 address, or the /64 that an IPv6 host owns. */
uint64_t address_key(const asio::ip::address& address) {
    if (address.is_v4()) {
        return address.to_v4().to_uint();
    }
    auto bytes = address.to_v6().to_bytes();
    if (address.to_v6().is_v4_mapped()) {
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_uint();
    }
    uint64_t prefix = 0;
    for (size_t i = 0; i < 8; ++i) {
        prefix = prefix << 8 | bytes[i];
    }
    return prefix;
}

/* A whole answer. `session_value` is what the agent takes as its session id; none when empty. */
std::string make_answer(std::string_view status, std::string_view session_value,
                        std::string_view body) {
    std::string answer = "HTTP/1.0 ";
    answer += status;
    answer += "\r\nContent-Length: ";
    answer += std::to_string(body.size());
    if (!session_value.empty()) {
        answer += "\r\nVnd-SessionID: ";
        answer += session_value;
    }
    answer += "\r\n\r\n";
    answer += body;
    return answer;
}

/* A body as it comes in. Grows without copying, as far as the system can: it moves the pages. */
class packed_body {
public:
    explicit packed_body(admission::place& of) : share_(of) {}
    ~packed_body() { free(bytes_); }
    packed_body(const packed_body&) = delete;
    packed_body& operator=(const packed_body&) = delete;

    /* `expected` is the size of the whole body: no more memory than that is taken, and no more than
     * 64 KiB on the word for it alone. False when there is none left. */
    bool append(std::string_view piece, size_t expected) {
        size_t needed = size_ + piece.size();
        if (needed > share_.held()) {
            size_t room =
                std::min(expected, std::max({needed, 2 * share_.held(), size_t(64) << 10}));
            if (!share_.add(room - share_.held())) {
                return false;
            }
            void* grown = realloc(bytes_, room);
            if (!grown) {
                throw std::bad_alloc();
            }
            bytes_ = static_cast<char*>(grown);
        }
        if (!piece.empty()) {
            memcpy(bytes_ + size_, piece.data(), piece.size());
        }
        size_ = needed;
        return true;
    }
    std::string_view wire() const { return {bytes_, size_}; }
    void drop() { /* the share stays: what was unpacked from it is there yet */
        free(bytes_);
        bytes_ = nullptr;
        size_ = 0;
    }

private:
    admission::memory_share share_;
    char* bytes_ = nullptr;
    size_t size_ = 0;
};
} // namespace

/* ---- one exchange, and what all share ---- */

namespace {
struct exchange : admission::place {
    exchange(tcp::socket socket, const tcp::endpoint& peer, clock_type::time_point now,
             server_deadlines::duration limit)
        : link(std::move(socket), now + limit), from(peer), accepted(now) {}

    connection link;
    tcp::endpoint from;
    clock_type::time_point accepted;
    std::string input; /* read but not used yet: the head, then the beginning of the body */
    request head;
    std::string output; /* the answer */
};

/* How the exchange of a block ended. */
enum class block_end {
    stored,
    duplicate, /* stored already: its answer was lost */
    again,     /* the agent shall send it once more */
    broken     /* no use in answering */
};
} // namespace

struct server::state {
    state(server_options o, SSL_CTX* t, store& r, plan& p, log_function l)
        : options(std::move(o)), tls(t), results(r), commands(p), log(std::move(l)),
          allowed(options.allow.begin(), options.allow.end()), sessions(options.sessions),
          slots({options.max_connections, options.max_per_address, options.deadlines.patience,
                 options.body_memory},
                [this](admission::place& p, admission::need what) { end_for_others(p, what); }) {}

    server_options options;
    SSL_CTX* tls;
    store& results;
    plan& commands;
    log_limiter log;
    std::unordered_set<std::string> allowed;
    session_table sessions;
    known_tests earlier; /* of agents that have not been put right yet */
    /* These outlive the exchanges, which the context destroys. */
    admission slots;
    turns large_bodies{options.large_memory}, huge_bodies{options.body.max_plain};

    bool sweeping = false;
    bool stopping = false;
    clock_type::time_point stop_by = clock_type::time_point::max();
    std::array<char, 16384> scratch; /* from a read to its use, never across a wait */

    asio::io_context context{1};
    tcp::acceptor acceptor{context};
    asio::steady_timer sweep_timer{context};
    asio::thread_pool unpacker{1}, huge_unpacker{1};

    awaitable<void> accept_all();
    void begin(tcp::socket socket, const tcp::endpoint& from);
    void begin_sweep();
    awaitable<void> sweep();
    void stop();

    awaitable<void> serve(tcp::socket socket, tcp::endpoint from);
    bool admit(exchange& x);
    awaitable<void> converse(exchange& x);
    awaitable<void> converse_plainly(exchange& x);
    awaitable<void> answer_page(exchange& x);
    awaitable<bool> read_head(exchange& x);
    awaitable<bool> read_body(exchange& x, packed_body* into, admission::stage stage);
    awaitable<void> answer_login(exchange& x);
    awaitable<void> answer_poll(exchange& x);
    awaitable<block_end> take_block(exchange& x, const session& from);
    awaitable<bool> wait_for_turn(exchange& x, turns& all, std::optional<turns::place>& place,
                                  const session& from, size_t bytes);
    awaitable<bool> unpack(const request& head, std::string_view wire, std::string& plain,
                           std::string& error);
    awaitable<store_result> keep(poll_block block);
    awaitable<bool> answer(exchange& x);

    void tell(const name_conflict& conflict);
    void end_for_others(admission::place& p, admission::need what);
    void begin_phase(exchange& x, server_deadlines::duration length, admission::stage stage);
    void log_failure(const char* what, const char* why) noexcept;
};

/* For want of memory nothing can be made to wait for, and nobody served meanwhile. */
static void wait_for_memory() {
    std::this_thread::sleep_for(tick);
}

/* Hands `work` to the context from another thread, which has to succeed in the end. */
template <typename Work>
static void post_surely(asio::io_context& context, const Work& work) {
    for (;;) {
        try {
            asio::post(context, work);
            return;
        } catch (const std::exception&) {
            wait_for_memory();
        }
    }
}

void server::state::log_failure(const char* what, const char* why) noexcept {
    try {
        log(event::failure, std::string(what) + ": " + why);
    } catch (const std::exception&) { /* not even memory for that */
    }
}

static std::string describe(const tcp::endpoint& from) {
    return from.address().to_string();
}

static std::string describe(const session& s, const exchange& x) {
    return printable(s.agent) + " of " + printable(s.account) + " at " + describe(x.from);
}

/* ---- accepting and deadlines ---- */

awaitable<void> server::state::accept_all() {
    asio::steady_timer pause(context);
    while (!stopping) {
        try {
            tcp::endpoint from;
            auto [failed, socket] =
                co_await acceptor.async_accept(from, asio::as_tuple(asio::use_awaitable));
            if (!failed) {
                begin(std::move(socket), from);
            } else if (!stopping && failed != asio::error::connection_aborted) {
                /* Out of descriptors or memory: the connection stays in the queue, so trying again
                 * at once would spin. */
                log(event::accept, "cannot accept connections: " + failed.message());
                pause.expires_after(tick);
                co_await pause.async_wait(asio::as_tuple(asio::use_awaitable));
            }
        } catch (const std::exception& e) {
            log_failure("cannot accept connections", e.what());
            wait_for_memory();
        }
    }
}

void server::state::end_for_others(admission::place& p, admission::need what) {
    exchange& gone = static_cast<exchange&>(p);
    gone.link.give_up(connection::reason::made_room);
    if (what == admission::need::connection) {
        log(event::refused,
            "too many connections: one from " + describe(gone.from) + " had to make room");
    } else {
        log(event::memory,
            "no memory left: a connection from " + describe(gone.from) + " had to make room");
    }
}

/* Starts serving a connection. */
void server::state::begin(tcp::socket socket, const tcp::endpoint& from) {
    asio::co_spawn(context, serve(std::move(socket), from), [this](std::exception_ptr thrown) {
        if (stopping && slots.connections() == 0) {
            sweep_timer.cancel();
        }
        try {
            if (thrown) {
                std::rethrow_exception(thrown);
            }
        } catch (const std::exception& e) { /* memory is short */
            log_failure("a connection was dropped", e.what());
        }
    });
}

void server::state::begin_sweep() {
    if (sweeping) {
        return;
    }
    sweeping = true;
    try {
        asio::co_spawn(context, sweep(), asio::detached);
    } catch (const std::exception&) {
        sweeping = false;
        throw;
    }
}

/* Gives up what is past its deadline, some at a time: thousands may have come together. Runs as
 * long as there are connections. */
awaitable<void> server::state::sweep() {
    bool more = false;
    while (slots.connections() > 0) {
        try {
            sweep_timer.expires_after(more ? clock_type::duration() : tick);
            co_await sweep_timer.async_wait(asio::as_tuple(asio::use_awaitable));
        } catch (const std::exception&) {
            wait_for_memory();
        }
        auto now = clock_type::now();
        int left = most_at_once;
        slots.for_each([&](admission::place& p) {
            connection& link = static_cast<exchange&>(p).link;
            if (left > 0 && now >= std::min(link.deadline(), stop_by) && !link.given_up()) {
                link.give_up();
                --left;
            }
        });
        more = left == 0;
    }
    sweeping = false;
}

void server::state::begin_phase(exchange& x, server_deadlines::duration length,
                                admission::stage stage) {
    auto now = clock_type::now();
    x.link.set_deadline(std::min(now + length, x.accepted + options.deadlines.whole));
    x.set_stage(stage, now);
}

void server::state::stop() {
    if (stopping) {
        return;
    }
    stopping = true;
    stop_by = clock_type::now() + options.deadlines.stop;
    error_code ignored;
    acceptor.close(ignored);
    slots.for_each([](admission::place& p) {
        connection& link = static_cast<exchange&>(p).link;
        if (link.silent()) {
            link.give_up();
        }
    });
    sweep_timer.cancel(); /* one sweep now; it ends with the last connection */
    log.flush();
}

/* ---- one exchange ---- */

/* False when there is no place for it: it has to be reset. */
bool server::state::admit(exchange& x) {
    auto verdict = slots.admit(x, address_key(x.from.address()), x.accepted);
    if (verdict == admission::verdict::admitted) {
        begin_sweep();
        return true;
    }
    bool crowded = verdict == admission::verdict::too_many_of_address;
    log(event::refused, "too many connections" + (crowded ? " from " + describe(x.from) : "") +
                            ": a new one was reset");
    return false;
}

awaitable<void> server::state::serve(tcp::socket socket, tcp::endpoint from) {
    exchange x(std::move(socket), from, clock_type::now(), options.deadlines.handshake);
    if (!admit(x)) {
        co_return;
    }
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

awaitable<void> server::state::answer_page(exchange& x) {
    bool found = x.head.what == request::kind::page;
    x.output = make_answer(found ? "200 OK" : "404 Not Found", "",
                           "This is a vindral collection server.\n");
    co_await answer(x);
}

/* The page and nothing else: what an agent says never goes without TLS. */
awaitable<void> server::state::converse_plainly(exchange& x) {
    bool whole = co_await read_head(x);
    size_t length = find_head(x.input, 0);
    std::string error;
    if (whole && parse_head(std::string_view(x.input).substr(0, length), x.head, error) &&
        x.head.what == request::kind::page) {
        co_await answer_page(x);
    } else {
        log(event::tls, "no TLS with " + describe(x.from) + ": plain text");
    }
}

awaitable<void> server::state::converse(exchange& x) {
    bool secure = co_await x.link.handshake(tls);
    if (!secure) {
        log(event::tls, "no TLS with " + describe(x.from) + ": " + x.link.problem());
        co_return;
    }
    bool whole = co_await read_head(x);
    if (!whole) {
        log(event::request, "no request from " + describe(x.from) + ": " + x.link.problem());
        co_return;
    }
    std::string error;
    size_t length = find_head(x.input, 0);
    if (!parse_head(std::string_view(x.input).substr(0, length), x.head, error)) {
        log(event::request, "bad request from " + describe(x.from) + ": " + error);
        x.output = make_answer("400 " + error, "", answer_log_in_again);
        co_await answer(x);
        co_return;
    }
    x.input.erase(0, length);
    switch (x.head.what) {
    case request::kind::login:
        co_await answer_login(x);
        break;
    case request::kind::poll:
        co_await answer_poll(x);
        break;
    case request::kind::page:
    case request::kind::other:
        co_await answer_page(x);
    }
}

/* Reads until a head is whole, or so long that it will be refused. */
awaitable<bool> server::state::read_head(exchange& x) {
    begin_phase(x, options.deadlines.head, admission::stage::unheard);
    size_t seen = 0;
    while (find_head(x.input, seen) == 0 && x.input.size() <= max_head) {
        seen = x.input.size();
        size_t got = co_await x.link.read_some(scratch.data(), scratch.size());
        if (got == 0) {
            co_return false;
        }
        x.input.append(scratch.data(), got);
    }
    co_return true;
}

/* Reads the body, into `into` or, when that is null, to nowhere. What comes after it is ignored:
 * one exchange a connection. False when the connection broke or is not worth going on with. */
awaitable<bool> server::state::read_body(exchange& x, packed_body* into, admission::stage stage) {
    const server_deadlines& limits = options.deadlines;
    size_t left = x.head.content_length;
    if (left > options.body.max_wire || x.head.compression > options.body.max_plain) {
        log(event::body, "body from " + describe(x.from) + " is too large (" +
                             std::to_string(left) + " bytes, " +
                             std::to_string(x.head.compression) + " unpacked): connection reset");
        co_return false;
    }
    begin_phase(x, limits.body + std::chrono::seconds(left / limits.body_rate), stage);
    std::string_view piece = x.input;
    for (;;) {
        piece = piece.substr(0, left);
        left -= piece.size();
        if (into && !into->append(piece, x.head.content_length)) {
            log(event::memory, "no memory left for bodies: reset " + describe(x.from));
            co_return false;
        }
        if (left == 0) {
            co_return true;
        }
        size_t got = co_await x.link.read_some(scratch.data(), std::min(scratch.size(), left));
        if (got == 0) {
            log(event::request, "no whole body from " + describe(x.from) + ": " + x.link.problem());
            co_return false;
        }
        piece = {scratch.data(), got};
    }
}

/* Writes the whole answer and ends the connection. True when the agent has it. */
awaitable<bool> server::state::answer(exchange& x) {
    admission::memory_share share(x);
    if (!share.add(x.output.size())) {
        log(event::memory, "no memory left for answers: reset " + describe(x.from));
        co_return false;
    }
    if (x.link.given_up()) {
        co_return false;
    }
    bool heard = x.in() == admission::stage::busy || x.in() == admission::stage::heard;
    begin_phase(x, options.deadlines.answer,
                heard ? admission::stage::heard : admission::stage::unheard);
    bool written = co_await x.link.write(x.output);
    if (!written) {
        co_return false;
    }
    x.link.set_deadline(clock_type::now() + options.deadlines.drain);
    co_return co_await x.link.end_cleanly();
}

void server::state::tell(const name_conflict& c) {
    if (c.found && c.tell) {
        log(event::name, "two hosts under one name: " + printable(c.agent) + " of " +
                             printable(c.account) + " polls from " + c.kept + ", the other at " +
                             c.refused + " is refused meanwhile");
    }
}

awaitable<void> server::state::answer_login(exchange& x) {
    bool whole =
        co_await read_body(x, nullptr, admission::stage::unheard); /* an agent sends none */
    if (!whole) {
        co_return;
    }
    const std::string name =
        printable(x.head.agent) + " of " + printable(x.head.account) + " at " + describe(x.from);
    if (!allowed.empty() && !allowed.contains(x.head.account)) {
        log(event::session, "login refused, account not allowed: " + name);
        x.output = options.end_refused
                       ? make_answer("200 OK", answer_not_authorised, answer_not_authorised)
                       : make_answer("403 Forbidden", "", "This account is not allowed here.\n");
        co_await answer(x);
        co_return;
    }
    name_conflict conflict;
    auto fresh = sessions.log_in(x.head.account, x.head.agent, clock_type::now(), describe(x.from),
                                 &conflict);
    if (conflict.found) {
        tell(conflict);
        x.output = make_answer("403 Forbidden", "", "Another host is using this name.\n");
        co_await answer(x);
        co_return;
    }
    if (!fresh) {
        log(event::failure, "no random numbers for a session: connection reset");
        co_return;
    }
    log(event::login, "login: " + name);
    commands.refresh();
    fresh->version = x.head.version;
    fresh->delivered = fresh->answered_from = commands.newest(); /* all of it, in this answer */
    fresh->told(commands.poll_interval());
    x.output = make_answer("200 OK", fresh->id,
                           fresh->running
                               ? commands.text_for_running(earlier.of(fresh->account, fresh->agent))
                               : commands.text_for_new());
    co_await answer(x);
}

awaitable<void> server::state::answer_poll(exchange& x) {
    name_conflict conflict;
    std::shared_ptr<session> s =
        sessions.find(x.head.session, clock_type::now(), describe(x.from), &conflict);
    tell(conflict);
    block_end end = block_end::again;
    if (s) {
        if (s->polls == 1) { /* it has the answer to its login */
            earlier.forget(s->account, s->agent);
        }
        end = co_await take_block(x, *s);
    } else {
        bool whole = co_await read_body(x, nullptr, admission::stage::unheard);
        end = whole ? block_end::again : block_end::broken;
        log(event::session, "unknown session, must log in again: " + describe(x.from));
    }
    if (end == block_end::broken) {
        co_return;
    }
    if (end == block_end::again) {
        sessions.sent_away(x.head.session, clock_type::now());
        x.output = make_answer("200 OK", "", answer_log_in_again);
        co_await answer(x);
        co_return;
    }
    commands.refresh();
    uint64_t from = end == block_end::duplicate ? s->answered_from : s->delivered;
    uint64_t newest = commands.newest();
    x.output = make_answer("200 OK", "", commands.text_after(from));
    bool arrived = co_await answer(x);
    if (arrived) {
        s->told(commands.poll_interval());
        s->answered_from = from;
        s->delivered = std::max(s->delivered, newest);
    }
}

/* Reads, unpacks and stores the block of a poll. */
awaitable<block_end> server::state::take_block(exchange& x, const session& from) {
    admission::visit visit(x, from.account, from.agent);
    packed_body body(x);
    bool whole = co_await read_body(
        x, &body, visit.one_of_few() ? admission::stage::heard : admission::stage::unheard);
    if (!whole) {
        co_return block_end::broken;
    }
    const size_t size = std::max<size_t>(body.wire().size(), x.head.compression);
    begin_phase(x, options.deadlines.whole, x.in());
    admission::memory_share unpacked(x);
    std::optional<turns::place> turn;
    if (size > options.unpack_here) {
        turns& all = size > options.huge ? huge_bodies : large_bodies;
        bool come = co_await wait_for_turn(x, all, turn, from, size);
        if (!come) {
            co_return block_end::broken;
        }
    } else if (!unpacked.add(size)) {
        log(event::memory, "no memory left to unpack: reset " + describe(from, x));
        co_return block_end::broken;
    }
    begin_phase(x, options.deadlines.whole, admission::stage::busy);
    poll_block block{.account = from.account,
                     .agent = from.agent,
                     .plain = "",
                     .received = time(nullptr),
                     .address = describe(x.from),
                     .version = x.head.version};
    std::string error;
    bool good = co_await unpack(x.head, body.wire(), block.plain, error);
    if (!good) {
        log(event::body, "bad body, must come again: " + describe(from, x) + ": " + error);
        co_return block_end::again;
    }
    body.drop();
    if (block.plain.empty()) {
        co_return block_end::stored;
    }
    store_result result = co_await keep(std::move(block));
    switch (result) {
    case store_result::stored:
        co_return block_end::stored;
    case store_result::duplicate:
        co_return block_end::duplicate;
    case store_result::failed:
        break;
    }
    log(event::storing, "not stored, must come again: " + describe(from, x));
    co_return block_end::broken;
}

/* Until there is room for another large body. False when the connection was given up meanwhile, or
 * the agent has one under way: that comes again after its interval, and is known as stored then. */
awaitable<bool> server::state::wait_for_turn(exchange& x, turns& all,
                                             std::optional<turns::place>& place,
                                             const session& from, size_t bytes) {
    asio::steady_timer come(context);
    place.emplace(all, address_key(x.from.address()), from.account + '\0' + from.agent, bytes,
                  [&come] { come.cancel(); });
    if (place->refused()) {
        log(event::memory, "another large body is under way: reset " + describe(from, x));
        co_return false;
    }
    while (!place->begun() && !x.link.given_up()) {
        come.expires_after(tick);
        co_await come.async_wait(asio::as_tuple(asio::use_awaitable));
    }
    co_return place->begun() && !x.link.given_up();
}

/* unpack_body(), on another thread when that may take long; on yet another one when that may take
 * very long. Without memory the connection ends. */
awaitable<bool> server::state::unpack(const request& head, std::string_view wire,
                                      std::string& plain, std::string& error) {
    auto work = [&, wire] {
        return unpack_body(wire, head.compression, head.checksum, options.body, plain, error);
    };
    if (std::max<size_t>(wire.size(), head.compression) <= options.unpack_here) {
        co_return work();
    }
    auto& thread = head.compression > options.huge ? huge_unpacker : unpacker;
    auto elsewhere = [this, work, &thread](auto handler) {
        auto held = std::make_shared<decltype(handler)>(std::move(handler));
        asio::post(thread, [this, work, held, guard = asio::make_work_guard(context)] {
            bool good = false;
            std::exception_ptr thrown;
            try {
                good = work();
            } catch (const std::exception&) {
                thrown = std::current_exception();
            }
            post_surely(context, [thrown, good, held] { std::move (*held)(thrown, good); });
        });
    };
    co_return co_await asio::async_initiate<const asio::use_awaitable_t<>,
                                            void(std::exception_ptr, bool)>(elsewhere,
                                                                            asio::use_awaitable);
}

/* Hands a block to the store and waits until it is committed. */
awaitable<store_result> server::state::keep(poll_block block) {
    auto submit = [this](auto handler, poll_block what) {
        auto held =
            std::make_shared<decltype(handler)>(std::move(handler)); /* std::function copies */
        results.submit(std::move(what),
                       [this, held, guard = asio::make_work_guard(context)](store_result result) {
                           post_surely(context, [result, held] { std::move (*held)(result); });
                       });
    };
    return asio::async_initiate<const asio::use_awaitable_t<>, void(store_result)>(
        submit, asio::use_awaitable, std::move(block));
}

/* ---- the outside ---- */

server::server(server_options options, SSL_CTX* tls, store& results, plan& commands,
               log_function log)
    : state_(std::make_unique<state>(std::move(options), tls, results, commands, std::move(log))) {}

server::~server() = default;

void server::remember(known_tests earlier) {
    state_->earlier = std::move(earlier);
}

bool server::listen(std::string& error) {
    state& s = *state_;
    std::string name = s.options.address + " port " + std::to_string(s.options.port);
    error_code failed;
    auto address = asio::ip::make_address(s.options.address, failed);
    if (failed) {
        error = "cannot listen on " + name + ": not an IP address";
        return false;
    }
    tcp::endpoint at(address, s.options.port);
    tcp::acceptor& a = s.acceptor;
    /* What is set here holds for every connection accepted (Linux copies it): answers leave at
     * once, and a connection that is not ended in the proper way is reset. */
    a.open(at.protocol(), failed);
    failed || a.set_option(tcp::acceptor::reuse_address(true), failed);
    failed || a.set_option(tcp::no_delay(true), failed);
    failed || a.set_option(asio::socket_base::linger(true, 0), failed);
    failed || a.bind(at, failed);
    failed || a.listen(asio::socket_base::max_listen_connections, failed);
    if (failed) {
        error = "cannot listen on " + name + ": " + failed.message();
        return false;
    }
    asio::co_spawn(s.context, s.accept_all(), asio::detached);
    return true;
}

uint16_t server::port() const {
    return state_->acceptor.local_endpoint().port();
}

std::string server::where() const {
    tcp::endpoint at = state_->acceptor.local_endpoint();
    std::string address = at.address().to_string();
    return (at.address().is_v6() ? "[" + address + "]" : address) + ":" + std::to_string(at.port());
}

void server::run() {
    state_->context.run();
}

void server::stop() {
    asio::post(state_->context, [this] { state_->stop(); });
}

asio::io_context& server::context() {
    return state_->context;
}

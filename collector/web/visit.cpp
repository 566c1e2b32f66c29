#include "web/visit.h"

#include "base/wipe.h"
#include "ingest/short_of_memory.h"

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <utility>

/* g++ 12 makes wrong code for a co_await behind && or ||, and for temporaries that live across one.
 * Here a co_await therefore stands alone, and what it uses has a name. */
namespace asio = boost::asio;
using asio::awaitable;
using namespace std::chrono_literals;

static constexpr auto ending_time = 2s;
static constexpr size_t rate = 64u
                               << 10;  /* bytes a second that a reader of an answer has to take */
static constexpr size_t little = 1024; /* bytes, that each connection may have */
static constexpr int full_stream_pause_s = 5;
static constexpr size_t woken_at_once = 16;
static constexpr auto look_at_token_every = 1s; /* before a stream goes on */
static constexpr size_t most_said = 64u << 10;  /* bytes, by who listens to a stream */

/* ---- what all share ---- */

/* Rung on the publishing thread, until it is taken down. */
struct visit_room::bell {
    std::mutex mutex;
    visit_room* room = nullptr;
    bool rung = false;

    bool was_rung() {
        std::lock_guard<std::mutex> guard(mutex);
        return std::exchange(rung, false);
    }
};

visit_room::visit_room(const web_options& o, SSL_CTX* t, desk& d, known_callers& c, api_services& w)
    : options(o), tls(t), at(d), callers(c), with(w), requests(o.limits.requests_a_minute),
      answers(o.limits.answers), answers_of_callers(answers, o.limits.answers_of_one),
      source(w.hub, o.limits.stream_buffer, answers),
      places({o.limits.connections, o.limits.connections_of_one, 2s, o.limits.bodies},
             [](admission::place& p, admission::need) {
                 static_cast<visit&>(p).give_up(connection::reason::made_room);
             }),
      readers_(2, o.limits.waiting, o.limits.waiting_of_one, [this] { callers.refresh(); }) {}

/* All of it, or, when memory is short, nothing: a visit that is not in the list would be there when
 * it has gone. */
visit_room::entry visit_room::enter(visit& v, int64_t holder) {
    if (streams_.size() >= options.limits.streams) {
        return entry::full;
    }
    auto of_one = streams_of_.try_emplace(holder, 0).first;
    if (of_one->second >= options.limits.streams_of_one) {
        return entry::full_of_one;
    }
    std::list<visit*> place(1, &v);
    if (!bell_) {
        auto fresh = std::make_shared<bell>();
        fresh->room = this;
        subscriber_ = with.hub.subscribe([b = fresh] {
            std::lock_guard<std::mutex> guard(b->mutex);
            if (!b->room || b->rung) {
                return;
            }
            b->rung = true;
            try {
                asio::post(b->room->context, [b] {
                    if (b->was_rung() && b->room) { /* taken down on this thread */
                        b->room->on_bell();
                    }
                });
            } catch (const std::exception&) { /* no memory: the publisher does not wait for it */
            }
        });
        bell_ = std::move(fresh);
    }
    ++of_one->second;
    streams_.splice(streams_.end(), place);
    return entry::entered;
}

void visit_room::leave(visit& v, int64_t holder) {
    streams_.remove(&v);
    auto of_one = streams_of_.find(holder);
    if (--of_one->second == 0) {
        streams_of_.erase(of_one);
    }
    if (streams_.empty() && bell_) {
        with.hub.unsubscribe(subscriber_);
        std::shared_ptr<bell> down = std::move(bell_); /* outlives the lock */
        std::lock_guard<std::mutex> guard(down->mutex);
        down->room = nullptr;
    }
}

/* Many listeners are woken less often: what came meanwhile goes in one piece. */
void visit_room::wave() {
    next_wave_ = visit::clock::now() + 20ms + 200us * streams_.size();
    const bool is_rolling = to_wake_ > 0;
    to_wake_ = streams_.size();
    if (!is_rolling) {
        roll_on();
    }
}

/* Some of them: whoever asks something comes in between. Those who were woken go to the end; when
 * some have left meanwhile others are woken twice, which does no harm. */
void visit_room::roll_on() {
    for (size_t i = 0; i < woken_at_once && to_wake_ > 0 && !streams_.empty(); i++) {
        visit* first = streams_.front();
        streams_.splice(streams_.end(), streams_, streams_.begin());
        to_wake_--;
        first->wake();
    }
    to_wake_ = stopping || streams_.empty() ? 0 : to_wake_;
    if (to_wake_ > 0) {
        post_surely(context, [this] { roll_on(); });
    }
}

void visit_room::on_bell() {
    if (pausing_ || stopping) {
        return;
    }
    if (visit::clock::now() >= next_wave_) {
        wave();
        return;
    }
    pause_.expires_at(next_wave_);
    surely([this] {
        pause_.async_wait([this](const boost::system::error_code& failed) {
            pausing_ = false;
            if (!failed) {
                wave();
            }
        });
    });
    pausing_ = true;
}

void visit_room::look_at_bell() {
    if (bell_ && bell_->was_rung()) {
        on_bell();
    }
}

void visit_room::stop() {
    stopping = true;
    pause_.cancel();
}

/* ---- one ---- */

struct visit::task {
    explicit task(asio::io_context& context) : until(context, clock::time_point::max()) {}
    std::string body;
    std::optional<admission::memory_share> held; /* for the body, until it is dealt with */
    desk_answer decided;
    wire_answer wire;
    caller_budget::share share;
    asio::steady_timer until;
    bool keep = false, done = false;
    bool failed = false; /* there was no memory even for a problem answer */
};

visit::visit(visit_room& room, asio::ip::tcp::socket socket, web_peer from)
    : room_(room), link_(std::move(socket), clock::now() + room.options.limits.head_time),
      from_(std::move(from)) {}

visit::~visit() {
    if (hears_) {
        room_.leave(*this, hears_->holder);
    }
}

void visit::begin(phase what, clock::duration at_most) {
    auto now = clock::now();
    phase_ = what;
    timed_out_ = false;
    link_.set_deadline(at_most == clock::duration::max() ? clock::time_point::max()
                                                         : now + at_most);
    bool ours =
        what == phase::busy || what == phase::listening || (what == phase::answering && hears_);
    set_stage(ours     ? admission::stage::busy
              : known_ ? admission::stage::heard
                       : admission::stage::unheard,
              now);
}

/* A wake-up that came between a look at the stream and the wait is made up for here. */
void visit::look(clock::time_point now, clock::time_point stop_by) {
    if (link_.given_up()) {
        return;
    }
    if (now >= stop_by) {
        link_.give_up();
    } else if (now >= link_.deadline()) {
        on_time();
    } else if (woken_ && waits_) {
        link_.interrupt();
    }
}

/* What is late while it sends is answered, or told that nothing happens. */
void visit::on_time() {
    switch (phase_) {
    case phase::idle:
    case phase::head:
    case phase::body:
    case phase::listening:
        timed_out_ = true;
        link_.interrupt();
        break;
    case phase::busy:
        break;
    case phase::opening:
    case phase::answering:
    case phase::ending:
        link_.give_up();
    }
}

void visit::on_stop() {
    if (phase_ == phase::opening || phase_ == phase::idle || phase_ == phase::head ||
        phase_ == phase::listening || hears_) {
        link_.give_up();
    }
}

void visit::wake() {
    woken_ = true;
    if (waits_) {
        link_.interrupt();
    }
}

awaitable<void> visit::serve() {
    bool good = co_await open();
    if (!good) {
        co_return;
    }
    next what = next::request;
    while (what == next::request) {
        what = co_await serve_one();
        asked_.reset();
        if (what == next::request && room_.stopping) {
            what = next::end;
        }
    }
    if (what == next::stream) {
        good = co_await follow();
        what = good ? next::end : next::reset;
    }
    if (what == next::end && !link_.given_up()) {
        begin(phase::ending, ending_time);
        co_await link_.end_cleanly();
    }
}

/* Where there is TLS, who speaks without it is told so, but nothing else. */
awaitable<bool> visit::open() {
    bool good = co_await link_.first_byte();
    if (!good || !room_.tls) {
        co_return good;
    }
    if (!link_.plain()) {
        good = co_await link_.handshake(room_.tls);
        co_return good;
    }
    api_answer told = answer_of(web_problem(400, "This port speaks HTTPS only."));
    next what = co_await refuse(std::move(told), false);
    if (what == next::end) {
        begin(phase::ending, ending_time);
        co_await link_.end_cleanly();
    }
    co_return false;
}

/* Half a head of so many connections would be a lot. */
bool visit::has_room() {
    const size_t held = share_ ? share_->held() : 0, needed = input_.size();
    if (needed <= little || needed <= held) {
        return true;
    }
    if (!share_) {
        share_.emplace(*this);
    }
    return share_->add(needed - held);
}

awaitable<visit::next> visit::read_whole_head() {
    const web_limits& limits = room_.options.limits;
    input_.erase(0, leading_blank(input_));
    if (input_.empty()) {
        std::string().swap(input_); /* many are idle */
        share_.reset();
    }
    begin(input_.empty() ? phase::idle : phase::head,
          input_.empty() ? limits.idle : limits.head_time);
    size_t seen = 0;
    while (head_end(input_, seen) == 0 && input_.size() <= limits.head) {
        seen = input_.size();
        size_t got = co_await link_.read_some(room_.scratch.data(), room_.scratch.size());
        if (got > 0) {
            input_.append(room_.scratch.data(), got);
            if (seen == 0) {
                input_.erase(0, leading_blank(input_));
            }
            if (!has_room()) {
                std::string().swap(input_);
                share_.reset();
                api_answer full = answer_of(web_problem(503, "There is no memory for this now."));
                next what = co_await refuse(std::move(full), false);
                co_return what;
            }
            if (phase_ == phase::idle && !input_.empty()) {
                begin(phase::head, limits.head_time);
            }
        }
        if (got == 0 || timed_out_) {
            if (!timed_out_ || link_.given_up()) {
                co_return next::reset; /* its end; there is nothing under way */
            }
            if (input_.empty()) {
                co_return next::end;
            }
            api_answer late = answer_of(web_problem(408, "The request did not come in time."));
            next what = co_await refuse(std::move(late), false);
            co_return what;
        }
    }
    co_return next::request;
}

awaitable<visit::next> visit::read_body(task& of) {
    const web_limits& limits = room_.options.limits;
    const size_t length = asked_->content_length;
    if (length == 0) {
        co_return next::request;
    }
    of.held.emplace(*this);
    begin(phase::body, limits.body_time);
    if (asked_->expects_continue && input_.empty()) {
        bool written = co_await link_.write("HTTP/1.1 100 Continue\r\n\r\n");
        if (!written) {
            co_return next::reset;
        }
        link_.flush();
    }
    of.body.swap(input_);
    if (of.body.size() > length) {
        input_ = of.body.substr(length);
        of.body.resize(length);
    }
    bool fits = of.held->add(length);
    if (!fits) {
        api_answer full = answer_of(web_problem(503, "There is no memory for the body now."));
        full.headers.emplace_back("Retry-After", "1");
        next what = co_await refuse(std::move(full), false);
        co_return what;
    }
    while (of.body.size() < length) {
        size_t got = co_await link_.read_some(room_.scratch.data(), room_.scratch.size());
        size_t mine = std::min(got, length - of.body.size());
        of.body.append(room_.scratch.data(), mine);
        input_.append(room_.scratch.data() + mine, got - mine);
        if (timed_out_ && !link_.given_up() && of.body.size() < length) {
            api_answer late = answer_of(web_problem(408, "The body did not come in time."));
            next what = co_await refuse(std::move(late), false);
            co_return what;
        }
        if (got == 0) {
            co_return next::reset;
        }
    }
    co_return next::request;
}

awaitable<visit::next> visit::send(const wire_answer& what, bool keep) {
    size_t size = what.head.size() + what.body.size();
    begin(phase::answering, room_.options.limits.answer_time + std::chrono::seconds(size / rate));
    bool written = co_await link_.write(what.head);
    if (written && !what.body.empty()) {
        written = co_await link_.write(what.body);
    }
    if (!written) {
        co_return next::reset;
    }
    if (!keep) {
        co_return next::end; /* the last bytes leave with the end */
    }
    link_.flush();
    co_return next::request;
}

awaitable<visit::next> visit::refuse(api_answer what, bool keep) {
    static const request_head nobody;
    wire_answer wire = to_wire(std::move(what), asked_ ? *asked_ : nobody, keep, room_.with.now());
    next then = co_await send(wire, keep);
    co_return then;
}

/* On a reading thread. */
void visit::work_out(task& of, const caller_key& who, clock::time_point by) {
    if (room_.stopping) { /* those in line are not waited for one after the other */
        of.decided.answer = answer_of(web_problem(503, "The collector is stopping."));
    } else {
        of.decided = room_.at.answer(*asked_, of.body, from_, by);
    }
    wipe(of.body); /* it may have been a token or a secret */
    std::string().swap(of.body);
    if (of.decided.is_stream) {
        return;
    }
    const int64_t now = room_.with.now();
    of.wire = to_wire(std::move(of.decided.answer), *asked_, of.keep, now);
    of.share = room_.answers_of_callers.take(who, of.wire.head.size() + of.wire.body.size());
    if (!of.share) {
        api_answer full =
            answer_of(web_problem(503, "Too many answers are waiting to be read; try again."));
        full.headers.emplace_back("Retry-After", "1");
        of.wire = to_wire(std::move(full), *asked_, of.keep, now);
    }
}

/* Whatever happens it waits for the reading thread, which has references to all of this. */
awaitable<void> visit::decide(task& of, const caller_key& who) {
    const auto by = clock::now() + room_.options.limits.request_time;
    begin(phase::busy, clock::duration::max());
    auto work = [this, &of, who, by] {
        try {
            work_out(of, who, by);
        } catch (const std::exception&) { /* no memory */
            of.failed = true;
        }
        post_surely(room_.context, [&of] {
            of.done = true;
            of.until.cancel();
        });
    };
    readers::verdict taken = room_.readers_.put(who, work);
    if (taken != readers::verdict::taken) {
        api_answer full = answer_of(web_problem(
            503, taken == readers::verdict::full
                     ? "Too many requests are waiting; try again in a moment."
                     : "Too many of your requests are waiting; ask for less at a time."));
        full.headers.emplace_back("Retry-After", "1");
        of.wire = to_wire(std::move(full), *asked_, of.keep, room_.with.now());
        co_return;
    }
    while (!of.done) {
        try {
            co_await of.until.async_wait(asio::as_tuple(asio::use_awaitable));
        } catch (const std::exception&) {
            wait_for_memory();
        }
    }
    of.held.reset();
}

/* What is said without looking any further; nothing when the request is to be dealt with. */
std::optional<api_answer> visit::take_head(caller_key& who, bool& keep) {
    const web_limits& limits = room_.options.limits;
    asked_ = std::make_unique<request_head>();
    keep = false;
    size_t end = head_end(input_, 0);
    std::optional<problem> bad =
        end == 0 ? too_long_a_head(input_, limits)
                 : read_head(std::string_view(input_).substr(0, end), limits, room_.tls, *asked_);
    input_.erase(0, end);
    if (!bad) {
        bad = room_.at.refuse(*asked_, from_);
    }
    if (bad) {
        return answer_of(*bad);
    }
    keep = asked_->keep_alive && !room_.stopping;
    /* Counted for nobody: whoever starts what does not answer anew must not be told to wait because
     * others at its address ask for much. */
    if (auto at_once = room_.at.answer_at_once(*asked_, from_)) {
        return at_once;
    }
    /* Somebody who signs in ten times is one still. */
    const int64_t holder = room_.callers.remembered(asked_->secret(), room_.with.now()).holder;
    known_ = holder != 0;
    who = {known_, known_ ? uint64_t(holder) : from_.address_key};
    int seconds = desk::counts(*asked_) ? room_.requests.take(who, clock::now()) : 0;
    if (seconds > 0) {
        keep = keep && asked_->content_length == 0;
        return too_often("More than " + std::to_string(limits.requests_a_minute) +
                             " requests a minute.",
                         seconds);
    }
    return {};
}

/* The refusal, if it cannot. */
std::optional<api_answer> visit::begin_to_listen(const desk_answer& to) {
    std::unique_ptr<listening> hears(
        new listening{to.which, to.position, to.lost, asked_->secret(), to.holder});
    if (room_.stopping) {
        return answer_of(web_problem(503, "The collector is stopping."));
    }
    switch (room_.enter(*this, to.holder)) {
    case visit_room::entry::full:
        return answer_of(web_problem(503, "Too many streams are open."));
    case visit_room::entry::full_of_one:
        return too_often("This token has " + std::to_string(room_.options.limits.streams_of_one) +
                             " streams open, its sessions included: end one of them first.",
                         full_stream_pause_s);
    case visit_room::entry::entered:
        break;
    }
    hears_ = std::move(hears);
    return {};
}

awaitable<visit::next> visit::serve_one() {
    next what = co_await read_whole_head();
    if (what != next::request) {
        co_return what;
    }
    task mine(room_.context);
    caller_key who;
    std::optional<api_answer> refusal = take_head(who, mine.keep);
    if (!refusal) {
        what = co_await read_body(mine);
        if (what != next::request) {
            co_return what;
        }
        co_await decide(mine, who);
        if (link_.given_up() || mine.failed) {
            co_return next::reset;
        }
        if (!mine.decided.is_stream) {
            what = co_await send(mine.wire, mine.keep);
            co_return what;
        }
        refusal = begin_to_listen(mine.decided);
        if (!refusal) {
            co_return next::stream;
        }
        mine.keep = false;
    }
    what = co_await refuse(std::move(*refusal), mine.keep);
    co_return what;
}

/* ---- a stream ---- */

awaitable<bool> visit::write(std::string_view text) {
    begin(phase::answering, room_.options.limits.answer_time);
    bool written = co_await link_.write(text);
    link_.flush();
    co_return written;
}

/* Until there may be something to say. False: it has ended. */
awaitable<bool> visit::listen() {
    begin(phase::listening, room_.options.limits.beat);
    waits_ = true;
    size_t got = co_await link_.read_some(room_.scratch.data(), room_.scratch.size());
    waits_ = false;
    said_ += got;
    co_return ((got > 0 && said_ <= most_said) || woken_ || timed_out_) && !link_.given_up();
}

awaitable<bool> visit::follow() {
    std::string().swap(input_);
    share_.reset();
    const std::string begin_with =
        stream_head(room_.with.now()) + room_.source.greeting(hears_->position, hears_->lost);
    /* The system counts twice that, and what it holds for thousands who do not read is taken from
     * all. */
    link_.bound_unsent(int(room_.options.limits.stream_buffer / 4));
    bool good = co_await write(begin_with);
    if (good) {
        good = co_await follow_on(room_.source);
    }
    co_return good;
}

/* False: nobody is there any more. */
awaitable<bool> visit::follow_on(stream_source& source) {
    auto last_word = clock::now(), checked = last_word;
    const auto beat = room_.options.limits.beat;
    for (bool good = true; !room_.stopping;) {
        woken_ = false;
        const auto now = clock::now();
        if (now - checked >= std::min<clock::duration>(beat, look_at_token_every)) {
            checked = now;
            caller who = room_.callers.remembered(hears_->secret, room_.with.now());
            if (who.may == role::none) {
                co_return true; /* the token was removed, or the session ended */
            }
        }
        bool short_of_memory = false;
        auto piece = source.next(hears_->position, hears_->which, short_of_memory);
        if (short_of_memory) {
            co_return false; /* it comes back, from where it was */
        }
        if (piece) {
            hears_->position = piece->position;
        }
        if (piece && !piece->text.empty()) {
            good = co_await write(piece->text);
            last_word = clock::now();
        } else if (!piece) {
            good = co_await listen();
        }
        if (!good) {
            co_return false;
        }
        if (clock::now() - last_word >= beat) {
            good = co_await write(stream_beat);
            last_word = clock::now();
            if (!good) {
                co_return false;
            }
        }
    }
    co_return true;
}

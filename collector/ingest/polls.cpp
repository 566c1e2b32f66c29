#include "ingest/polls.h"

#include "base/text.h"
#include "ingest/short_of_memory.h"

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <ctime>
#include <memory>

namespace asio = boost::asio;
using asio::awaitable;
using stage = admission::stage;

/* An agent as the log names it. */
static std::string describe(const std::string& account, const std::string& agent) {
    return printable(agent) + " of " + printable(account);
}

static std::string describe(const session& s, const exchange& x) {
    return describe(s.account, s.agent) + " at " + x.address;
}

void polls::tell(const name_conflict& c) {
    if (c.found && c.tell) {
        room_.log(event::name, "two hosts under one name: " + describe(c.account, c.agent) +
                                   " polls from " + c.kept + ", the other at " + c.refused +
                                   " is refused meanwhile");
    }
}

awaitable<void> polls::answer_nonsense(exchange& x, const std::string& error) {
    room_.refuse(refusal::request, event::request, "bad request from " + x.address + ": " + error);
    co_await x.answer("400 " + error, "", answer_log_in_again);
}

standing polls::may_go_by(const exchange& x, const std::string& account, const std::string& agent) {
    if (!known_) {
        return standing::good;
    }
    bool promoted = false;
    const agent_proof* shown = x.proof ? &*x.proof : nullptr;
    standing is = known_->may_go_by(account, agent, shown, x.address, promoted);
    if (promoted && kept_ && shown) {
        kept_->keep_promotion(*shown);
    }
    return is;
}

/* The session's polls: a proven one's have to be proven, each. */
standing polls::may_use(const exchange& x, const session& s) {
    standing is = may_go_by(x, s.account, s.agent);
    return is == standing::good && s.proven && !x.proof ? standing::unproven : is;
}

static refusal counted_as(standing why) {
    return why == standing::waits      ? refusal::unknown
           : why == standing::unproven ? refusal::unproven
                                       : refusal::identity;
}

/* What the log says of it, and what the one that logs in is told. */
struct standing_words {
    const char* log;
    const char* body;
};
static standing_words words_of(standing why) {
    switch (why) {
    case standing::waits:
        return {"not admitted", "This agent is not admitted yet.\n"};
    case standing::unproven:
        return {"it has to show its certificate", "This agent has to show its certificate.\n"};
    case standing::other_name:
        return {"its certificate is of another name", "The certificate is of another name.\n"};
    case standing::revoked:
        return {"it is revoked", "This agent is revoked.\n"};
    case standing::good:
        break;
    }
    return {"", ""};
}

/* Of whose certificate it is, for the log. */
static std::string shown_by(const exchange& x, standing why) {
    return why == standing::other_name && x.proof
               ? ", of " + describe(x.proof->who.account, x.proof->who.agent)
               : "";
}

awaitable<void> polls::refuse_login(exchange& x, standing why) {
    /* Who waits asks again with each interval; the list of those who wait has it. */
    bool told = false;
    if (why == standing::waits) {
        auto kept = known_->find(x.head.account, x.head.agent);
        told = kept && kept->waiting && kept->waiting->since < kept->waiting->last;
    }
    room_.counted.refused(counted_as(why));
    const standing_words words = words_of(why);
    if (!told) {
        room_.log(event::identity, std::string("login refused, ") + words.log + ": " +
                                       describe(x.head.account, x.head.agent) + " at " + x.address +
                                       shown_by(x, why));
    }
    co_await x.answer("403 Forbidden", "", words.body);
}

void polls::refuse_poll(const exchange& x, const session& s, standing why) {
    room_.refuse(counted_as(why), event::identity,
                 std::string("poll refused, ") + words_of(why).log + ": " + describe(s, x) +
                     shown_by(x, why));
}

awaitable<void> polls::answer_login(exchange& x) {
    bool whole = co_await x.read_body(nullptr, stage::unheard); /* an agent sends none */
    if (!whole) {
        co_return;
    }
    const std::string name = describe(x.head.account, x.head.agent) + " at " + x.address;
    if (!allowed_.empty() && !allowed_.contains(x.head.account)) {
        room_.refuse(refusal::account, event::session,
                     "login refused, account not allowed: " + name);
        if (room_.options.end_refused) {
            co_await x.answer("200 OK", answer_not_authorised, answer_not_authorised);
        } else {
            co_await x.answer("403 Forbidden", "", "This account is not allowed here.\n");
        }
        co_return;
    }
    const standing is = may_go_by(x, x.head.account, x.head.agent);
    if (is != standing::good) {
        co_await refuse_login(x, is);
        co_return;
    }
    const bool come = co_await catching_up_.may_log_in(x);
    if (!come) {
        note_turned_away(x.head.account, x.head.agent, x);
        co_return;
    }
    if (x.proof) {
        auto other = sessions_.polling(x.head.account, x.head.agent, exchange::clock::now());
        if (other && !other->proven) { /* whoever that is: this one is who it says */
            sessions_.end_all(x.head.account, x.head.agent);
        }
    }
    name_conflict conflict;
    auto fresh = sessions_.log_in(x.head.account, x.head.agent, exchange::clock::now(), x.address,
                                  &conflict);
    if (conflict.found) {
        tell(conflict);
        room_.counted.refused(refusal::name);
        co_await x.answer("403 Forbidden", "", "Another host is using this name.\n");
        co_return;
    }
    if (!fresh) {
        room_.log(event::failure, "no random numbers for a session: connection reset");
        co_return;
    }
    room_.log(event::login, "login: " + name);
    ++room_.counted.logins;
    room_.counted.sessions.set(sessions_.size());
    results_.heard(x.head.account, x.head.agent, time(nullptr), x.address, x.head.version);
    fresh->version = x.head.version;
    fresh->proven = x.proof.has_value();
    co_await prepare_commands(*fresh);
    commands_.refresh();
    const told_commands told = commands_.for_login(*fresh);
    fresh->delivered = fresh->answered_from = told.upto; /* all of it, in this answer */
    fresh->told(commands_.poll_interval(*fresh));
    auto sent = x.answer("200 OK", fresh->id, told.text);
    const bool arrived = co_await std::move(sent);
    if (arrived) {
        commands_.answer_arrived(*fresh);
    }
}

/* It was here, and has kept its results for reasons of ours. */
void polls::note_turned_away(const std::string& account, const std::string& agent,
                             const exchange& x) {
    results_.heard(account, agent, time(nullptr), x.address, x.head.version);
    results_.held_up(account, agent);
}

/* Of one that has no session, as far as can be said. */
standing polls::may_log_in(const exchange& x) {
    if (x.proof) {
        return may_go_by(x, x.proof->who.account, x.proof->who.agent);
    }
    return known_ && known_->mode() == agents_mode::proven ? standing::unproven : standing::good;
}

/* Whoever would not be let in then does not wait for it. */
awaitable<void> polls::answer_unknown(exchange& x) {
    const bool may = may_log_in(x) == standing::good;
    if (may) {
        const bool come = co_await catching_up_.may_be_sent_away(x);
        if (!come) {
            if (x.proof) {
                note_turned_away(x.proof->who.account, x.proof->who.agent, x);
            }
            co_return;
        }
    }
    const bool whole = co_await x.read_body(nullptr, stage::unheard);
    room_.refuse(refusal::session, event::session,
                 "unknown session, must log in again: " + x.address);
    if (whole) {
        sessions_.sent_away(x.head.session, exchange::clock::now());
        if (may) {
            catching_up_.sent_away();
        }
        co_await x.answer("200 OK", "", answer_log_in_again);
    }
}

/* Until it is known what the agent is to be told. */
awaitable<void> polls::prepare_commands(const session& of) {
    auto wait = [this, &of](auto handler) {
        auto held =
            std::make_shared<decltype(handler)>(std::move(handler)); /* std::function copies */
        auto ready = [this, held, guard = asio::make_work_guard(context_)] {
            post_surely(context_, [held] { std::move (*held)(); });
        };
        if (commands_.prepare(of, ready)) {
            ready();
        }
    };
    return asio::async_initiate<const asio::use_awaitable_t<>, void()>(wait, asio::use_awaitable);
}

awaitable<void> polls::answer_poll(exchange& x) {
    name_conflict conflict;
    std::shared_ptr<session> s =
        sessions_.find(x.head.session, exchange::clock::now(), x.address, &conflict);
    tell(conflict);
    if (!s) {
        co_await answer_unknown(x);
        co_return;
    }
    fate end = fate::again;
    const standing is = may_use(x, *s);
    if (is != standing::good) {
        bool whole = co_await x.read_body(nullptr, stage::unheard);
        end = whole ? fate::again : fate::broken;
        refuse_poll(x, *s, is);
    } else { /* also one whose block will not be stored */
        results_.heard(s->account, s->agent, time(nullptr), x.address, x.head.version);
        if (s->polls == 1) {
            commands_.login_arrived(*s);
        }
        try {
            const bool come = co_await catching_up_.may_bring_results(x);
            end = fate::broken;
            if (come) {
                end = co_await take_block(x, *s);
            } else {
                results_.held_up(s->account, s->agent);
            }
        } catch (const std::exception&) { /* memory is short */
            results_.held_up(s->account, s->agent);
            throw;
        }
    }
    if (end == fate::broken) {
        co_return;
    }
    if (end == fate::again) {
        sessions_.sent_away(x.head.session, exchange::clock::now());
        co_await x.answer("200 OK", "", answer_log_in_again);
        co_return;
    }
    ++(end == fate::duplicate ? room_.counted.repeated_polls : room_.counted.polls);
    co_await prepare_commands(*s);
    commands_.refresh();
    uint64_t from = end == fate::duplicate ? s->answered_from : s->delivered;
    const bool check = s->check_now || (end == fate::duplicate && s->told_to_check);
    told_commands told = commands_.after(*s, from);
    if (check) {
        told.text += commands_.text_for_check(*s);
    }
    auto sent = x.answer("200 OK", "", told.text);
    bool arrived = co_await std::move(sent);
    if (arrived) {
        s->told(commands_.poll_interval(*s));
        s->answered_from = from;
        s->delivered = std::max(s->delivered, told.upto);
        commands_.answer_arrived(*s);
        s->told_to_check = check;
        s->check_now = s->check_now && !check;
    }
}

bool polls::check_now(const std::string& account, const std::string& agent) {
    std::shared_ptr<session> s = sessions_.polling(account, agent, exchange::clock::now());
    if (s) {
        s->check_now = true;
    }
    return s != nullptr;
}

bool polls::send_away(const std::string& account, const std::string& agent) {
    bool there = sessions_.end_all(account, agent);
    room_.counted.sessions.set(sessions_.size());
    return there;
}

/* Reads, unpacks and stores the block of a poll. */
awaitable<polls::fate> polls::take_block(exchange& x, const session& from) {
    const server_options& limits = room_.options;
    admission::visit visit(x, from.account, from.agent);
    packed_body body(x);
    bool whole = co_await x.read_body(&body, visit.one_of_few() ? stage::heard : stage::unheard);
    if (!whole) {
        if (x.had_no_room()) {
            results_.held_up(from.account, from.agent);
        }
        co_return fate::broken;
    }
    room_.counted.body_bytes += body.wire().size();
    const size_t size = std::max<size_t>(body.wire().size(), x.head.compression);
    x.begin_phase(limits.deadlines.whole, x.in());
    admission::memory_share unpacked(x);
    std::optional<turns::place> turn;
    if (size > limits.unpack_here) {
        turns& all = size > limits.huge ? huge_ : large_;
        bool come = co_await wait_for_turn(x, all, turn, from, size);
        if (!come) {
            results_.held_up(from.account, from.agent);
            co_return fate::broken;
        }
    } else if (!unpacked.add(size)) {
        results_.held_up(from.account, from.agent);
        room_.refuse(refusal::memory, event::memory,
                     "no memory left to unpack: reset " + describe(from, x));
        co_return fate::broken;
    }
    x.begin_phase(limits.deadlines.whole, stage::busy);
    poll_block block{.account = from.account,
                     .agent = from.agent,
                     .plain = "",
                     .received = time(nullptr),
                     .address = x.address,
                     .version = x.head.version};
    std::string error;
    bool good = co_await bodies_.unpack(x.head, body.wire(), block.plain, error);
    if (!good) {
        room_.refuse(refusal::body, event::body,
                     "bad body, must come again: " + describe(from, x) + ": " + error);
        co_return fate::again;
    }
    body.drop();
    if (block.plain.empty()) {
        co_return fate::stored;
    }
    const exchange::clock::time_point begun = exchange::clock::now();
    store_result result = co_await keep(std::move(block));
    room_.counted.waited.add(std::chrono::duration<double>(exchange::clock::now() - begun).count());
    switch (result) {
    case store_result::stored:
        co_return fate::stored;
    case store_result::duplicate:
        co_return fate::duplicate;
    case store_result::failed:
        break;
    }
    room_.refuse(refusal::storing, event::storing,
                 "not stored, must come again: " + describe(from, x));
    co_return fate::broken;
}

/* Until there is room for another large body. False when the connection was given up meanwhile, or
 * the agent has one under way: that comes again after its interval, and is known as stored then. */
awaitable<bool> polls::wait_for_turn(exchange& x, turns& all, std::optional<turns::place>& place,
                                     const session& from, size_t bytes) {
    asio::steady_timer come(context_);
    place.emplace(all, x.address_key, from.account + '\0' + from.agent, bytes,
                  [&come] { come.cancel(); });
    if (place->refused()) {
        room_.refuse(refusal::memory, event::memory,
                     "another large body is under way: reset " + describe(from, x));
        co_return false;
    }
    while (!place->begun() && !x.link.given_up()) {
        come.expires_after(tick);
        co_await come.async_wait(asio::as_tuple(asio::use_awaitable));
    }
    co_return place->begun() && !x.link.given_up();
}

/* Hands a block to the store and waits until it is committed. */
awaitable<store_result> polls::keep(poll_block block) {
    auto submit = [this](auto handler, poll_block what) {
        auto held =
            std::make_shared<decltype(handler)>(std::move(handler)); /* std::function copies */
        results_.submit(std::move(what),
                        [this, held, guard = asio::make_work_guard(context_)](store_result result) {
                            post_surely(context_, [result, held] { std::move (*held)(result); });
                        });
    };
    return asio::async_initiate<const asio::use_awaitable_t<>, void(store_result)>(
        submit, asio::use_awaitable, std::move(block));
}

#include "ingest/enrolment.h"

#include "base/files.h"
#include "base/text.h"
#include "ingest/short_of_memory.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cstring>
#include <optional>

namespace asio = boost::asio;
using asio::awaitable;
using stage = admission::stage;

static constexpr const char* not_now = "503 Service Unavailable";
static constexpr size_t most_of_a_reason = 200; /* bytes, there before anything goes wrong */

/* What a host asks for. */
struct enrolment::asked {
    std::shared_ptr<agents_tls> by;
    std::string request;                    /* PEM */
    std::optional<protocol::sha256> secret; /* of a token */
    std::optional<agent_proof> shown;
    std::string account, agent, address;
};

struct enrolment::outcome {
    const char* status = not_now;
    std::string body;     /* the certificate, or why there is none, as the host is told */
    std::string trouble;  /* what the log is told; "": `body` */
    const char* how = ""; /* a certificate was given out */
    agent_proof says;     /* that certificate */
    bool refused = false; /* for good */
    bool told = false;    /* nothing new for the log */
};

/* Of those who wait for the thread, from its making to its end. */
class enrolment::place {
public:
    place(enrolment& of, const exchange& x)
        : of_(of), address_(x.address_key), stranger_(!x.proof) {
        ++of_.waiting_;
        if (stranger_) {
            ++of_.strangers_of_[address_];
            ++of_.strangers_;
        }
    }
    ~place() {
        --of_.waiting_;
        auto here = of_.strangers_of_.find(address_);
        if (stranger_ && here != of_.strangers_of_.end()) {
            --of_.strangers_;
            if (--here->second == 0) {
                of_.strangers_of_.erase(here);
            }
        }
    }
    place(const place&) = delete;
    place& operator=(const place&) = delete;

private:
    enrolment& of_;
    const uint64_t address_;
    const bool stranger_;
};

static std::string describe(const protocol::agent_identity& who) {
    return printable(who.agent) + " of " + printable(who.account);
}

/* ---- on the thread that signs ---- */

static void sign(known_agents& known, const agents_tls& by, std::string_view request,
                 const protocol::agent_identity& who, uint32_t generation, std::string& pem,
                 agent_proof& says, std::string& bad_request, std::string& trouble) {
    pem = by.authority().sign(request, who, generation, agent_certificate_days, says, bad_request);
    if (!pem.empty() && !known.note_issued(says, trouble)) {
        pem.clear();
        trouble = trouble.empty() ? "it was revoked meanwhile" : trouble;
    }
}

enrolment::outcome enrolment::decide(known_agents& known, const asked& what) {
    outcome is;
    std::string error;
    const std::optional<protocol::sha256> key = key_of_request(what.request, error);
    if (!key) {
        is.status = "400 Bad Request";
        is.body = error;
        return is;
    }
    protocol::agent_identity who;
    uint32_t generation = 0;
    std::string why;
    known_agents::answer answer;
    if (what.secret) {
        is.how = "by a token";
        answer = known.enrol_by_token(*what.secret, *key, what.account, what.agent, who, generation,
                                      why);
    } else if (what.shown) {
        is.how = "renewed";
        answer = known.enrol_by_proof(*what.shown, *key, who, generation, why);
    } else {
        is.how = "admitted";
        answer =
            known.enrol_by_name(what.account, what.agent, *key, what.address, who, generation, why);
    }
    switch (answer) {
    case known_agents::answer::sign:
        sign(known, *what.by, what.request, who, generation, is.body, is.says, error, is.trouble);
        if (!is.body.empty()) {
            is.status = "200 OK";
            return is;
        }
        if (is.trouble.empty()) {
            is.status = "400 Bad Request";
            is.body = error;
        }
        break;
    case known_agents::answer::waits: {
        is.status = "202 Accepted";
        is.body = "It waits to be admitted.";
        auto kept = known.find(what.account, what.agent);
        is.told = kept && kept->waiting && kept->waiting->since < kept->waiting->last;
        is.trouble = "asks to be admitted: " + describe({what.account, what.agent}) + " at " +
                     what.address + ", key " + fingerprint(*key);
        break;
    }
    case known_agents::answer::refused:
        is.status = "403 Forbidden";
        is.body = why;
        is.refused = true;
        break;
    case known_agents::answer::unavailable:
        is.trouble = why;
    }
    is.how = "";
    return is;
}

/* ---- on the network thread ---- */

awaitable<enrolment::outcome> enrolment::elsewhere(std::shared_ptr<const asked> what) {
    auto work = [this, what](auto handler) {
        auto held = std::make_shared<decltype(handler)>(std::move(handler));
        auto is = std::make_shared<outcome>(); /* that thread has nobody to tell that it cannot */
        asio::post(worker_, [this, what, held, is, guard = asio::make_work_guard(context_)] {
            std::exception_ptr thrown;
            try {
                *is = decide(known_, *what);
            } catch (const std::exception&) {
                thrown = std::current_exception();
            }
            post_surely(context_,
                        [thrown, is, held] { std::move (*held)(thrown, std::move(*is)); });
        });
    };
    co_return co_await asio::async_initiate<const asio::use_awaitable_t<>,
                                            void(std::exception_ptr, outcome)>(work,
                                                                               asio::use_awaitable);
}

/* Something that nobody waits for. What goes wrong is logged, and `failed` called, here. */
void enrolment::do_elsewhere(std::function<std::string()> work, std::function<void()> failed) {
    auto ended = std::make_shared<std::pair<std::string, std::function<void()>>>();
    ended->first.reserve(most_of_a_reason);
    ended->second = std::move(failed); /* that thread has nobody to tell that it cannot */
    asio::post(worker_, [this, work = std::move(work), ended] {
        std::string& error = ended->first;
        try {
            error = work();
        } catch (const std::exception& e) {
            error.assign(e.what(), std::min(strlen(e.what()), most_of_a_reason));
        }
        if (!error.empty()) {
            post_surely(context_, [this, ended] {
                ended->second();
                room_.log(event::failure, ended->first);
            });
        }
    });
}

void enrolment::keep_promotion(agent_proof shown) {
    do_elsewhere(
        [this, shown] {
            std::string error;
            known_.keep_promotion(shown, error);
            return error;
        },
        [this, shown] { not_kept_.insert_or_assign(shown.who, shown); });
}

void enrolment::refresh(std::function<std::string()> more) {
    for (const auto& [who, shown] : std::exchange(not_kept_, {})) {
        keep_promotion(shown);
    }
    do_elsewhere(
        [this] {
            std::string error;
            known_.refresh(error);
            return error;
        },
        [] {});
    if (more) {
        do_elsewhere(std::move(more), [] {});
    }
}

awaitable<void> enrolment::answer_authority(exchange& x, std::shared_ptr<agents_tls> by) {
    const std::string& text = by->published().pem;
    if (text.empty()) {
        co_await x.answer("404 Not Found", "", "This server does not know its authority.\n");
        co_return;
    }
    const protocol::sha256& hash = by->authority().signing();
    const std::string signing = hex({reinterpret_cast<const char*>(hash.data()), hash.size()});
    bool arrived = co_await x.answer_with("200 OK", protocol::authority_header, signing, text);
    if (arrived && x.proof) {
        do_elsewhere(
            [this, who = x.proof->who, hash = by->published().hash] {
                std::string error;
                known_.note_authorities(who, hash, error);
                return error;
            },
            [] {});
    }
}

/* Whether there is a place for it among those who wait. */
bool enrolment::may_ask(const exchange& x) {
    if (waiting_ >= most_waiting) {
        return false;
    }
    if (x.proof) {
        const protocol::agent_identity& who = x.proof->who;
        const size_t number = std::hash<std::string>()(who.account + '\0' + who.agent);
        return renewals_.take({false, number}, exchange::clock::now()) == 0;
    }
    auto here = strangers_of_.find(x.address_key);
    return strangers_ < most_strangers &&
           (here == strangers_of_.end() || here->second < most_strangers_of_address) &&
           asked_.take({false, x.address_key}, exchange::clock::now()) == 0;
}

/* What is wrong with it at first sight, as the host is told; "": nothing. */
std::string enrolment::objection(const exchange& x) const {
    if (!x.head.token.empty() || x.proof) {
        return "";
    }
    if (x.head.account.empty() || x.head.agent.empty()) {
        return "Neither a token nor a certificate, nor a name to wait under.";
    }
    const auto& allowed = room_.options.allow;
    bool may = allowed.empty() ||
               std::find(allowed.begin(), allowed.end(), x.head.account) != allowed.end();
    return may ? "" : "This account is not allowed here.";
}

awaitable<enrolment::outcome> enrolment::take(exchange& x, std::shared_ptr<const asked> what) {
    place in_line(*this, x);
    x.begin_phase(room_.options.deadlines.whole, stage::busy);
    outcome is = co_await elsewhere(std::move(what));
    co_return is;
}

/* What is answered to a whole request. */
awaitable<enrolment::outcome> enrolment::outcome_of(exchange& x, std::shared_ptr<agents_tls> by,
                                                    std::string_view request) {
    outcome is;
    is.body = objection(x);
    if (!is.body.empty()) {
        const bool named = !x.head.account.empty() && !x.head.agent.empty();
        is.status = named ? "403 Forbidden" : "400 Bad Request";
        co_return is;
    }
    auto what = std::make_shared<asked>();
    what->by = std::move(by);
    what->request = request;
    what->shown = x.proof;
    what->account = x.head.account;
    what->agent = x.head.agent;
    what->address = x.address;
    bool token = !x.head.token.empty();
    if (token) {
        auto read = protocol::read_enrolment_token(x.head.token);
        what->secret = read ? std::optional(read->secret) : std::nullopt;
    }
    if (!may_ask(x)) {
        is.body = "Too many ask for certificates now.";
    } else if (token && !what->secret) {
        is.status = "403 Forbidden";
        is.body = "This is no token.";
        is.refused = true;
    } else {
        is = co_await take(x, what);
    }
    if (is.refused && token &&
        wrong_tokens_.take({false, x.address_key}, exchange::clock::now()) != 0) {
        is.status = not_now;
        is.body = "Too many tokens that open nothing.";
    }
    co_return is;
}

awaitable<void> enrolment::answer(exchange& x, std::shared_ptr<agents_tls> by) {
    if (x.head.content_length > protocol::max_request) {
        room_.refuse(refusal::body, event::body,
                     "certificate request from " + x.address + " is too large (" +
                         std::to_string(x.head.content_length) + " bytes): connection reset");
        co_return;
    }
    std::optional<admission::visit> visit; /* has to end behind the body */
    if (x.proof) {
        visit.emplace(x, x.proof->who.account, x.proof->who.agent);
    }
    packed_body body(x);
    stage as = visit && visit->one_of_few() ? stage::heard : stage::unheard;
    bool whole = co_await x.read_body(&body, as);
    if (!whole) {
        co_return;
    }
    outcome is = co_await outcome_of(x, std::move(by), body.wire());
    tell(x, is);
    if (!*is.how) {
        is.body += is.body.empty() ? "Not now.\n" : "\n";
    }
    co_await x.answer(is.status, "", is.body);
}

void enrolment::tell(const exchange& x, const outcome& what) {
    if (*what.how) {
        room_.log(event::enrolled, "certificate: " + describe(what.says.who) + " at " + x.address +
                                       ", " + what.how + ", generation " +
                                       std::to_string(what.says.generation) + ", ends " +
                                       utc_time(what.says.ends));
    } else if (what.status[0] == '2') {
        if (!what.told) {
            room_.log(event::enrolment, what.trouble);
        }
    } else {
        room_.refuse(refusal::enrolment, event::enrolment,
                     "no certificate for " + x.address + ": " +
                         (what.trouble.empty() ? what.body : what.trouble));
    }
}

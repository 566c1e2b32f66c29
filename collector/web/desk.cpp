#include "web/desk.h"

#include "api/secret_body.h"
#include "base/text.h"
#include "web/page_files.h"
#include "web/trust.h"

#include <algorithm>
#include <exception>

namespace {

constexpr int64_t most_failures_told = 10; /* a minute */

/* Gone with max_age 0. */
std::string cookie(bool tls, const std::string& host, const std::string& value, int64_t max_age) {
    return cookie_name(tls, host) + "=" + value +
           "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(max_age) +
           (tls ? "; Secure" : "");
}

} // namespace

api_answer too_often(const std::string& detail, int seconds) {
    api_answer answer = answer_of(web_problem(429, detail));
    answer.headers.emplace_back("Retry-After", std::to_string(seconds));
    return answer;
}

desk::desk(const web_options& options, bool tls, bool on_loopback, settings& kept,
           known_callers& callers, api_services& with, std::function<void(const std::string&)> log)
    : options_(options), tls_(tls), on_loopback_(on_loopback), kept_(kept), callers_(callers),
      with_(with), log_(std::move(log)), failed_sign_ins_(options.limits.sign_ins_a_minute),
      told_of_(most_failures_told) {}

std::optional<problem> desk::refuse(const request_head& head, const web_peer& from) const {
    if (!is_own_host(head.host, options_.names, from.local, on_loopback_)) {
        return web_problem(421,
                           "This collector is not known as \"" + printable(head.host) +
                               "\": start it with --name, or use one of its names or addresses.");
    }
    if (!head.only_reads()) {
        if (head.has_origin && !is_own_origin(head.origin, head.host, tls_)) {
            return web_problem(403, "A page of another site may change nothing here.");
        }
        if (!head.has_origin && !head.has_authorization && !head.cookie.empty()) {
            return web_problem(403,
                               "With the cookie, what changes something needs the Origin header "
                               "that browsers send; scripts use a token.");
        }
    }
    if (head.content_length > options_.limits.body) {
        return web_problem(413, "The body is longer than " + std::to_string(options_.limits.body) +
                                    " bytes.");
    }
    return {};
}

bool desk::counts(const request_head& head) {
    return head.only_reads() ? !is_of_page(head.path())
                             : head.path() != "/sign-in" || head.method != "POST";
}

std::optional<api_answer> desk::answer_at_once(const request_head& head, const web_peer& from) {
    if ((head.path() != "/healthz" && head.path() != "/readyz") || !head.only_reads() ||
        head.content_length > 0) {
        return {};
    }
    api_request asked;
    asked.if_none_match = head.if_none_match;
    asked.who = callers_.remembered(head.secret(), with_.now());
    asked.who.address = from.address;
    return options_.answer(head.method, head.target, asked, with_);
}

void desk::audit(const caller& who, const std::string& what) {
    log_("audit: " + printable(who.name) + " (" + std::string(role_word(who.may)) + ") from " +
         who.address + ": " + printable(what));
}

desk_answer desk::answer(const request_head& head, std::string_view body, const web_peer& from,
                         clock::time_point deadline) {
    desk_answer out;
    try {
        if (clock::now() >= deadline) {
            throw web_problem(503, "Too many requests are waiting; try again in a moment.");
        }
        out.answer = answer_itself(head, body, from);
        if (out.answer.status != 0) {
            return out;
        }
        api_request asked;
        asked.body = body;
        asked.if_none_match = head.if_none_match;
        asked.accept = head.accept;
        asked.session_cookie = cookie_name(tls_, head.host);
        asked.deadline = deadline;
        asked.who = callers_.find(head.secret(), with_.now());
        asked.who.address = from.address;
        if (head.path() == "/api/v1/stream" && head.method == "GET") {
            return open_stream(head, asked);
        }
        out.answer = options_.answer(head.method, head.target, asked, with_);
        if (!out.answer.audit.empty()) {
            audit(asked.who, out.answer.audit);
        }
        if (out.answer.body.size() > options_.limits.answer) {
            throw web_problem(500, "The answer has more than " +
                                       std::to_string(options_.limits.answer >> 20) +
                                       " MB: ask for less of it, with limit, from and to.");
        }
    } catch (const problem& p) {
        out.answer = answer_of(p);
    } catch (const std::exception& e) {
        log_("web: " + printable(e.what()));
        out.answer =
            answer_of(web_problem(500, "That did not work; the collector's log says more."));
    }
    const bool for_a_person = head.only_reads() && !head.path().starts_with("/api/") &&
                              head.accept.find("text/html") != std::string::npos;
    if (out.answer.status == 404 && for_a_person) {
        out.answer = page_of_nothing();
    }
    return out;
}

desk_answer desk::open_stream(const request_head& head, api_request& asked) {
    desk_answer out;
    out.which = options_.stream(head.target, asked, with_);
    out.is_stream = true;
    out.holder = asked.who.holder;
    out.position = with_.hub.newest();
    if (!head.last_event_id.empty()) {
        std::optional<uint64_t> heard = with_.hub.position_of(head.last_event_id);
        out.lost = !heard;
        out.position = heard.value_or(out.position);
    }
    return out;
}

/* Status 0: it is for the API. */
api_answer desk::answer_itself(const request_head& head, std::string_view body,
                               const web_peer& from) {
    const bool posts = head.method == "POST";
    if (head.path() == "/sign-in" && posts) {
        return sign_in(head, body, from);
    }
    if (head.path() == "/sign-out" && posts) {
        return sign_out(head, from);
    }
    std::optional<api_answer> of_page = page_answer(head.path());
    if (of_page && head.method != "GET" && head.method != "HEAD") {
        of_page = answer_of(web_problem(405, "There is only GET of this."));
        of_page->headers.emplace_back("Allow", "GET, HEAD");
    }
    return of_page ? std::move(*of_page) : api_answer{.status = 0};
}

/* Whatever is wrong, the answer is the same: it says nothing of what there is. Nobody guesses 256
 * random bits, so those who are right are let in however many were wrong before them: behind a
 * proxy, and on loopback, all have one address. */
api_answer desk::sign_in(const request_head& head, std::string_view body, const web_peer& from) {
    if (head.target.find('?') != std::string::npos) {
        throw web_problem(400, "This takes no parameters.");
    }
    std::optional<secret_body> given = read_secret_body(body);
    if (!given) {
        throw web_problem(400, R"(The body has to be {"token": "vt_..."} or {"link": "vl_..."}.)");
    }
    const int64_t now = with_.now();
    std::optional<stored_token> found;
    std::string error;
    if (is_secret(given->kind, given->secret) &&
        !kept_.find_token(hash_of(given->secret), now, found, error)) {
        throw web_problem(503, "The tokens cannot be read now: " + error);
    }
    if (!found || found->kind != given->kind) {
        return not_signed_in(from);
    }
    const bool with_token = found->kind == token_kind::token;
    stored_token session{.kind = token_kind::session,
                         .role = found->role,
                         .name = found->name,
                         .made = now,
                         .ends = now + session_lasts_s,
                         .parent = with_token ? found->id : 0};
    if (with_token && found->ends != 0) { /* it does not outlast its token */
        session.ends = std::min(session.ends, found->ends);
    }
    bool is_gone = false; /* the token, meanwhile */
    std::string secret = keep_secret(kept_, session, is_gone, error);
    if (is_gone) {
        return not_signed_in(from);
    }
    if (secret.empty()) {
        throw web_problem(503, "The session cannot be stored now: " + error);
    }
    audit({.may = static_cast<role>(found->role), .name = found->name, .address = from.address},
          with_token ? "signed in" : "signed in with a link");
    api_answer answer;
    answer.status = 204;
    answer.headers.emplace_back("Set-Cookie", cookie(tls_, head.host, secret, session.ends - now));
    return answer;
}

api_answer desk::not_signed_in(const web_peer& from) {
    if (int seconds = failed_sign_ins_.take({false, from.address_key}, clock::now())) {
        return too_often("Too many attempts to sign in failed.", seconds);
    }
    if (told_of_.take({}, clock::now()) == 0) {
        log_("web: somebody at " + from.address + " could not sign in");
    }
    return answer_of(
        web_problem(401, "This does not sign in, or no longer: links do once and for 15 minutes; "
                         "'vindral-collector link' makes another."));
}

api_answer desk::sign_out(const request_head& head, const web_peer& from) {
    if (head.has_authorization) {
        throw web_problem(400, "Only sessions are signed out; tokens are removed.");
    }
    caller who; /* nobody when it is a token: that stays */
    if (is_secret(token_kind::session, head.cookie)) {
        who = callers_.find(head.cookie, with_.now());
    }
    std::string error;
    if (who.token != 0 && !kept_.drop_token(who.token, error) && !error.empty()) {
        throw web_problem(503, "The session cannot be ended now: " + error);
    }
    if (who.token != 0) {
        who.address = from.address;
        audit(who, "signed out");
    }
    api_answer answer;
    answer.status = 204;
    answer.headers.emplace_back("Set-Cookie", cookie(tls_, head.host, "", 0));
    return answer;
}

/* Agents that prove who they are: in the handshake, at the login, in each poll. */
#include "decisions_in_memory.h"
#include "proving.h"

using namespace std::chrono_literals;

namespace {
/* The alert that ends a connection whose certificate is refused: its code in TLS; -1: none. In TLS
 * 1.3 the peer's own part is over by then. */
int alert_of(uint16_t port, const shown_key& who, int max_version = 0) {
    client c(port);
    c.show(who.certificate.get(), who.key.get());
    bool done = c.handshake(max_version);
    if (done) {
        char byte = 0;
        ERR_clear_error();
        if (SSL_read(c.ssl(), &byte, 1) > 0) {
            return -1;
        }
    }
    unsigned long error = ERR_peek_error();
    int reason = ERR_GET_REASON(error);
    return reason > SSL_AD_REASON_OFFSET ? reason - SSL_AD_REASON_OFFSET : -1;
}

const char poll_refused[] = "HTTP/1.0 200 OK\r\nContent-Length: 6\r\n\r\n111111";
} // namespace

/* ---- the handshake ---- */

TEST_F(proving_server, a_good_certificate_is_known_to_the_exchange) {
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1");
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        client c(port_);
        c.show(web.certificate.get(), web.key.get());
        ASSERT_TRUE(c.handshake(version));
        ASSERT_TRUE(c.send(login_text("me@example.org", "web-1")));
        EXPECT_EQ(c.read_reply().session.size(), 32u);
    }
    EXPECT_EQ(shown_->check()->remembered(), 1u);
    finish();
    EXPECT_TRUE(logged("login: web-1 of me@example.org at 127.0.0.1"));
}

TEST_F(proving_server, what_ended_or_has_not_begun_is_refused_with_its_alert) {
    start_with(agents_mode::any);
    shown_key ended = enrolled("ended"), early = enrolled("early");
    redate(ended.certificate.get(), authority_key().get(), -9 * day_s, -60);
    redate(early.certificate.get(), authority_key().get(), 3600, 90 * day_s);
    for (int version : {0, TLS1_2_VERSION}) {
        EXPECT_EQ(alert_of(port_, ended, version), SSL_AD_CERTIFICATE_EXPIRED);
        EXPECT_EQ(alert_of(port_, early, version), SSL_AD_BAD_CERTIFICATE);
    }
    EXPECT_TRUE(are_refused(refusal::identity, 4));
    EXPECT_TRUE(are_refused(refusal::tls, 0));
    finish();
    EXPECT_TRUE(
        logged("certificate refused from 127.0.0.1: it has ended: ended of me@example.org"));
    EXPECT_TRUE(
        logged("certificate refused from 127.0.0.1: it has not begun: early of me@example.org"));
}

/* What is remembered is only who signed it. */
TEST_F(proving_server, a_certificate_that_ends_while_it_is_remembered_is_refused) {
    start_with(agents_mode::any);
    shown_key web = enrolled("web-1");
    EXPECT_EQ(log_in_as(web, "web-1").size(), 32u);
    now_ += 91 * day_s;
    EXPECT_EQ(alert_of(port_, web), SSL_AD_CERTIFICATE_EXPIRED);
    now_ -= 93 * day_s;
    EXPECT_EQ(alert_of(port_, web), SSL_AD_BAD_CERTIFICATE);
    EXPECT_EQ(shown_->check()->remembered(), 1u);
}

TEST_F(proving_server, what_another_authority_signed_is_refused_whatever_it_says) {
    start_with(agents_mode::any);
    shown_key web = enrolled("web-1"), fake{new_key(), nullptr};
    scratch_directory elsewhere;
    agent_authority other;
    std::string error;
    ASSERT_TRUE(other.open(elsewhere.path(), error)) << error;
    agent_proof says;
    fake.certificate = certificate_of(
        other.sign(request_for(fake.key.get()), {"me@example.org", "web-1"}, 1, 90, says, error));
    ASSERT_TRUE(fake.certificate) << error;
    int alert = alert_of(port_, fake);
    EXPECT_TRUE(alert == SSL_AD_UNKNOWN_CA || alert == SSL_AD_DECRYPT_ERROR ||
                alert == SSL_AD_BAD_CERTIFICATE)
        << alert;
    EXPECT_EQ(shown_->check()->remembered(), 0u);
    EXPECT_TRUE(are_refused(refusal::identity, 1));
}

TEST_F(proving_server, a_server_s_certificate_is_no_agent_s) {
    start_with(agents_mode::any);
    std::string error;
    shown_key server{read_key(directory_->path() + "/key.pem", error),
                     read_certificate(directory_->path() + "/certificate.pem")};
    ASSERT_TRUE(server.key && server.certificate);
    EXPECT_NE(alert_of(port_, server), -1);
    /* Nor would one be that the agents' authority signed. */
    authority agents;
    ASSERT_TRUE(read_authority(agent_authority_place(place_.path()).now, agents, error)) << error;
    shown_key odd{new_key(), nullptr};
    odd.certificate = make_server_certificate(odd.key.get(), agents, {"localhost"});
    EXPECT_NE(alert_of(port_, odd), -1);
    EXPECT_TRUE(are_refused(refusal::identity, 2));
    EXPECT_EQ(shown_->check()->remembered(), 0u);
}

/* The certificate alone is no proof: everybody may have seen it. */
TEST_F(proving_server, a_certificate_without_its_key_proves_nothing) {
    start_with(agents_mode::any);
    shown_key web = enrolled("web-1");
    EXPECT_EQ(log_in_as(web, "web-1").size(), 32u); /* remembered from now on */
    shown_key thief{stolen_key(web.key.get(), new_key().get()),
                    x509_ptr(X509_dup(web.certificate.get()))};
    for (int version : {0, TLS1_2_VERSION}) {
        EXPECT_EQ(alert_of(port_, thief, version), SSL_AD_DECRYPT_ERROR);
    }
    EXPECT_TRUE(are_refused(refusal::tls, 2));
    finish();
    EXPECT_TRUE(logged("no TLS with 127.0.0.1: bad signature"));
}

TEST_F(proving_server, more_certificates_than_an_agent_has_are_not_read) {
    start_with(agents_mode::any);
    shown_key web = enrolled("web-1");
    STACK_OF(X509)* chain = sk_X509_new_null();
    for (int i = 0; i < 200; ++i) {
        sk_X509_push(chain, web.certificate.get());
    }
    {
        client c(port_);
        c.show(web.certificate.get(), web.key.get(), chain);
        bool done = c.handshake();
        char byte = 0;
        EXPECT_FALSE(done && SSL_read(c.ssl(), &byte, 1) > 0);
    }
    sk_X509_free(chain);
    EXPECT_EQ(log_in_as(web, "web-1").size(), 32u); /* alone, or with the authority's, it is fine */
    chain = sk_X509_new_null();
    sk_X509_push(chain, authority_.accepted()[0].get());
    {
        client c(port_);
        c.show(web.certificate.get(), web.key.get(), chain);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(login_text("me@example.org", "web-1")));
        EXPECT_EQ(c.read_reply().session.size(), 32u);
    }
    sk_X509_free(chain);
    finish();
    EXPECT_TRUE(logged("no TLS with 127.0.0.1: excessive message size"));
}

TEST_F(proving_server, who_hangs_on_after_an_alert_is_reset_in_the_end) {
    options_.deadlines.drain = 50ms;
    start_with(agents_mode::any);
    shown_key ended = enrolled("ended");
    redate(ended.certificate.get(), authority_key().get(), -9 * day_s, -60);
    client c(port_);
    c.show(ended.certificate.get(), ended.key.get());
    c.handshake();
    char byte = 0;
    EXPECT_LE(SSL_read(c.ssl(), &byte, 1), 0); /* the alert */
    EXPECT_TRUE(eventually(
        [&] { return recv(c.fd(), &byte, 1, MSG_DONTWAIT) < 0 && errno == ECONNRESET; }));
    EXPECT_TRUE(eventually([&] { return counted_.open_connections.get() == 0; }));
}

/* ---- what is remembered ---- */

TEST_F(proving_server, so_many_are_remembered_and_no_more) {
    start_with(agents_mode::any);
    certificate_check few(
        authority_, *known_, [this] { return now_.load(); }, 2);
    std::vector<shown_key> all;
    for (int i = 0; i < 5; ++i) {
        all.push_back(enrolled("host-" + std::to_string(i)));
    }
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 5; ++i) {
            agent_proof says;
            std::string why;
            EXPECT_EQ(few.look(all[size_t(i)].certificate.get(), says, why), X509_V_OK) << why;
            EXPECT_EQ(says.who.agent, "host-" + std::to_string(i));
            EXPECT_EQ(says.generation, 1u);
            EXPECT_LE(few.remembered(), 2u);
        }
    }
}

/* ---- logins ---- */

TEST_F(proving_server, a_certificate_is_good_for_its_own_name_only) {
    for (agents_mode mode : {agents_mode::any, agents_mode::known, agents_mode::proven}) {
        start_with(mode);
        shown_key web = enrolled("web-1");
        enrolled("web-2");
        for (const auto& [account, agent] :
             std::vector<std::pair<std::string, std::string>>{{"me@example.org", "web-2"},
                                                              {"you@example.org", "web-1"},
                                                              {"me@example.org", "WEB-1"},
                                                              {"me@example.org", "new"}}) {
            reply r = ask_as(web, login_text(account, agent));
            EXPECT_EQ(r.text, "HTTP/1.0 403 Forbidden\r\nContent-Length: 36\r\n\r\n"
                              "The certificate is of another name.\n")
                << account << agent;
            EXPECT_EQ(r.end, ending::clean);
        }
        EXPECT_EQ(log_in_as(web, "web-1").size(), 32u);
        finish();
        EXPECT_TRUE(logged("login refused, its certificate is of another name: web-2 of "
                           "me@example.org at 127.0.0.1, of web-1 of me@example.org"));
    }
    EXPECT_TRUE(are_refused(refusal::identity, 12));
}

TEST_F(proving_server, who_shows_nothing_logs_in_where_nothing_is_asked) {
    start_with(agents_mode::any);
    reply r = ask(login_text("me@example.org", "agent"));
    EXPECT_EQ(r.text, "HTTP/1.0 200 OK\r\nContent-Length: 9\r\nVnd-SessionID: " + r.session +
                          "\r\n\r\nPOL\t0\t30\n");
    EXPECT_EQ(ask(poll_text(r.session, "block")).text, empty_text);
    finish();
    EXPECT_EQ(log(), std::vector<std::string>{"login: agent of me@example.org at 127.0.0.1"});
}

TEST_F(proving_server, who_is_not_admitted_waits) {
    start_with(agents_mode::known);
    for (int i = 0; i < 3; ++i) {
        now_ += 30;
        reply r = ask(login_text("me@example.org", "new"));
        EXPECT_EQ(r.text, "HTTP/1.0 403 Forbidden\r\nContent-Length: 32\r\n\r\n"
                          "This agent is not admitted yet.\n");
        EXPECT_EQ(r.end, ending::clean);
    }
    auto seen = known_->find("me@example.org", "new");
    ASSERT_TRUE(seen && seen->waiting);
    EXPECT_EQ(seen->waiting->address, "127.0.0.1");
    EXPECT_TRUE(are_refused(refusal::unknown, 3));
    EXPECT_EQ(store_->heard_so_far(), std::vector<std::string>());
    std::string error;
    ASSERT_TRUE(known_->admit("me@example.org", "new", std::nullopt, false, "test", error));
    EXPECT_EQ(log_in("new").size(), 32u);
    finish();
    std::vector<std::string> lines = log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "login refused, not admitted: new of me@example.org at 127.0.0.1"),
              1);
}

TEST_F(proving_server, who_has_to_prove_himself_has_to) {
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1");
    reply r = ask(login_text("me@example.org", "web-1"));
    EXPECT_EQ(r.text, "HTTP/1.0 403 Forbidden\r\nContent-Length: 40\r\n\r\n"
                      "This agent has to show its certificate.\n");
    EXPECT_TRUE(are_refused(refusal::unproven, 1));
    EXPECT_EQ(log_in_as(web, "web-1").size(), 32u);
}

TEST_F(proving_server, a_revoked_name_is_refused_from_the_next_handshake) {
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1");
    std::string session = log_in_as(web, "web-1"), error;
    EXPECT_EQ(ask_as(web, poll_text(session, "first")).text, empty_text);
    ASSERT_TRUE(known_->revoke("me@example.org", "web-1", false, "test", error)) << error;
    EXPECT_EQ(alert_of(port_, web), SSL_AD_CERTIFICATE_REVOKED);
    EXPECT_EQ(ask(poll_text(session, "second")).text, poll_refused);
    reply r = ask(login_text("me@example.org", "web-1"));
    EXPECT_EQ(r.head.substr(0, 12), "HTTP/1.0 403");
    EXPECT_EQ(store_->blocks().size(), 1u);
    finish();
    EXPECT_TRUE(
        logged("certificate refused from 127.0.0.1: it is revoked: web-1 of me@example.org"));
}

TEST_F(proving_server, a_later_generation_ends_the_earlier_when_it_is_used) {
    start_with(agents_mode::proven);
    shown_key first = enrolled("web-1"), second = enrolled("web-1");
    EXPECT_EQ(log_in_as(first, "web-1").size(), 32u); /* the other is not in use yet */
    std::string session = log_in_as(second, "web-1");
    ASSERT_EQ(session.size(), 32u);
    EXPECT_EQ(alert_of(port_, first), SSL_AD_CERTIFICATE_REVOKED);
    EXPECT_EQ(ask_as(second, poll_text(session, "x")).text, empty_text);
    finish(); /* which is not over before it is kept */
    uint32_t good_from = 0;
    std::string error;
    kept_->for_each_identity([&](const stored_identity& i) { good_from = i.good_from; }, error);
    EXPECT_EQ(good_from, 2u);
}

namespace {
/* A settings.db that nothing can be written into any more. */
struct unwritable_settings : decisions_alone {
    std::atomic<int> asked = 0;
    std::atomic<bool> is_full = false;

    bool change_identity(std::string_view account, std::string_view agent,
                         const std::function<bool(stored_identity&)>& change,
                         std::string& error) override {
        ++asked;
        if (is_full) {
            error = "the disk is full";
            return false;
        }
        return decisions_in_memory::change_identity(account, agent, change, error);
    }
};
} // namespace

/* However often it has been tried: an agent's first polls with a new certificate may go on for days
 * while the disk is full. */
TEST_F(proving_server, what_cannot_be_kept_is_tried_again_once_a_name) {
    auto owned = std::make_unique<unwritable_settings>();
    unwritable_settings& full = *owned;
    kept_ = std::move(owned);
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1");
    full.is_full = true;
    full.asked = 0;
    std::string session = log_in_as(web, "web-1");
    for (int tried = 1; tried <= 5; ++tried) {
        ASSERT_TRUE(eventually([&] { return full.asked == tried; }));
        now_ += 61;
        EXPECT_EQ(ask_as(web, poll_text(session, "x")).text, empty_text);
    }
    ASSERT_TRUE(eventually([&] { return full.asked == 6; }));
    full.asked = 0;
    std::atomic<bool> done = false;
    auto is_over = [&] {
        done = true;
        return std::string();
    };
    ASSERT_TRUE(on_network([&] {
        server_->refresh_known(is_over);
        return true;
    }));
    ASSERT_TRUE(eventually([&] { return done.load(); }));
    EXPECT_EQ(full.asked, 1);
    finish();
}

/* ---- polls ---- */

TEST_F(proving_server, a_session_that_began_proven_is_proven_in_each_poll) {
    start_with(agents_mode::any);
    shown_key web = enrolled("web-1"), other = enrolled("web-2");
    std::string session = log_in_as(web, "web-1");
    size_t heard = store_->heard_so_far().size();
    EXPECT_EQ(ask(poll_text(session, "stolen")).text, poll_refused);
    EXPECT_EQ(ask_as(other, poll_text(session, "stolen")).text, poll_refused);
    EXPECT_EQ(store_->heard_so_far().size(), heard);
    EXPECT_TRUE(store_->blocks().empty());
    EXPECT_EQ(ask_as(web, poll_text(session, "mine")).text, empty_text);
    EXPECT_EQ(store_->blocks().size(), 1u);
    EXPECT_TRUE(are_refused(refusal::unproven, 1));
    EXPECT_TRUE(are_refused(refusal::identity, 1));
    finish();
    EXPECT_TRUE(logged("poll refused, it has to show its certificate: web-1 of me@example.org at "
                       "127.0.0.1"));
    EXPECT_TRUE(logged("poll refused, its certificate is of another name: web-1 of me@example.org "
                       "at 127.0.0.1, of web-2 of me@example.org"));
}

TEST_F(proving_server, an_unproven_session_makes_way_for_the_proven_agent) {
    start_with(agents_mode::any);
    std::string taken = log_in("web-1");
    EXPECT_EQ(ask(poll_text(taken, "a")).text, empty_text);
    shown_key web = enrolled("web-1");
    std::string session = log_in_as(web, "web-1");
    ASSERT_EQ(session.size(), 32u);
    EXPECT_EQ(ask(poll_text(taken, "b")).text, poll_refused);
    EXPECT_EQ(ask_as(web, poll_text(session, "c")).text, empty_text);
}

/* ---- resumption ---- */

namespace {
struct free_session {
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};
using session_ptr = std::unique_ptr<SSL_SESSION, free_session>;

/* One exchange, and what the next one may resume. */
struct resuming {
    bool answered = false, resumed = false, offered = false;
    reply answer = {};
    session_ptr next = {};
};

resuming ask_resuming(uint16_t port, const shown_key* who, const std::string& text,
                      SSL_SESSION* from, int version = 0) {
    resuming r;
    client c(port);
    if (who) {
        c.show(who->certificate.get(), who->key.get());
    }
    c.resume(from);
    if (!c.handshake(version) || !c.send(text)) {
        return r;
    }
    r.answer = c.read_reply();
    r.answered = !r.answer.text.empty();
    r.resumed = SSL_session_reused(c.ssl()) == 1;
    r.next.reset(SSL_get1_session(c.ssl()));
    r.offered = SSL_SESSION_is_resumable(r.next.get()) == 1;
    SSL_shutdown(c.ssl());
    return r;
}
} // namespace

TEST_F(proving_server, who_has_proven_himself_resumes_and_is_known) {
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1"), other = enrolled("web-2");
    resuming first = ask_resuming(port_, &web, login_text("me@example.org", "web-1"), nullptr);
    ASSERT_EQ(first.answer.session.size(), 32u);
    EXPECT_FALSE(first.resumed);
    ASSERT_TRUE(first.offered);
    const std::string session = first.answer.session;
    session_ptr kept = std::move(first.next);
    for (const char* block : {"a", "b", "c"}) { /* the same over and over */
        resuming poll = ask_resuming(port_, &web, poll_text(session, block), kept.get());
        EXPECT_TRUE(poll.resumed);
        EXPECT_EQ(poll.answer.text, empty_text);
        kept = std::move(poll.next);
    }
    EXPECT_EQ(store_->blocks().size(), 3u);
    /* It is whom he proved to be, whoever he says he is and whatever he would show now. */
    resuming as_other =
        ask_resuming(port_, &other, login_text("me@example.org", "web-2"), kept.get());
    EXPECT_EQ(as_other.answer.head.substr(0, 12), "HTTP/1.0 403");
    EXPECT_TRUE(are_refused(refusal::identity, 1));
}

TEST_F(proving_server, who_is_revoked_or_has_expired_resumes_nothing) {
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1"), old = enrolled("old");
    resuming first = ask_resuming(port_, &web, login_text("me@example.org", "web-1"), nullptr);
    resuming aged = ask_resuming(port_, &old, login_text("me@example.org", "old"), nullptr);
    ASSERT_TRUE(first.offered && aged.offered);
    std::string error;
    ASSERT_TRUE(known_->revoke("me@example.org", "web-1", false, "test", error)) << error;
    const std::string poll = poll_text(first.answer.session, "x");
    EXPECT_FALSE(ask_resuming(port_, &web, poll, first.next.get()).answered);
    EXPECT_TRUE(are_refused(refusal::identity, 1));
    EXPECT_EQ(alert_of(port_, web), SSL_AD_CERTIFICATE_REVOKED);
    now_ += 91 * day_s;
    const std::string late = poll_text(aged.answer.session, "x");
    EXPECT_FALSE(ask_resuming(port_, &old, late, aged.next.get()).answered);
    EXPECT_EQ(alert_of(port_, old), SSL_AD_CERTIFICATE_EXPIRED);
    EXPECT_TRUE(store_->blocks().empty());
    finish();
    EXPECT_TRUE(
        logged("certificate refused from 127.0.0.1: it is revoked: web-1 of me@example.org"));
}

TEST_F(proving_server, who_shows_nothing_has_nothing_to_resume) {
    start_with(agents_mode::any);
    shown_key web = enrolled("web-1");
    for (int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        resuming r =
            ask_resuming(port_, nullptr, login_text("me@example.org", "host"), nullptr, version);
        EXPECT_EQ(r.answer.session.size(), 32u);
        EXPECT_FALSE(version == TLS1_3_VERSION && r.offered);
        resuming again =
            ask_resuming(port_, nullptr, poll_text(r.answer.session, "x"), r.next.get(), version);
        EXPECT_EQ(again.answer.text, empty_text);
        EXPECT_FALSE(again.resumed);
    }
    resuming old =
        ask_resuming(port_, &web, login_text("me@example.org", "web-1"), nullptr, TLS1_2_VERSION);
    EXPECT_FALSE(ask_resuming(port_, &web, poll_text(old.answer.session, "x"), old.next.get(),
                              TLS1_2_VERSION)
                     .resumed);
    EXPECT_EQ(SSL_CTX_sess_number(shown_->context()), 0);
}

TEST_F(proving_server, what_is_resumed_ends_with_what_it_was_begun_with) {
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1");
    resuming first = ask_resuming(port_, &web, login_text("me@example.org", "web-1"), nullptr);
    ASSERT_TRUE(first.offered);
    EXPECT_EQ(SSL_CTX_sess_number(shown_->context()), 1);
    std::shared_ptr<agents_tls> next = make_tls();
    EXPECT_TRUE(on_network([&] {
        server_->exchange_tls(next);
        return true;
    }));
    resuming poll =
        ask_resuming(port_, &web, poll_text(first.answer.session, "x"), first.next.get());
    EXPECT_FALSE(poll.resumed);
    EXPECT_EQ(poll.answer.text, empty_text);
}

/* ---- exchange ---- */

TEST_F(proving_server, the_authority_is_exchanged_while_connections_are_under_way) {
    start_with(agents_mode::proven);
    shown_key before = enrolled("before");
    std::string session = log_in_as(before, "before"), error;
    client under_way(port_);
    under_way.show(before.certificate.get(), before.key.get());
    ASSERT_TRUE(under_way.handshake());

    auto exchange = [&] {
        std::shared_ptr<agents_tls> next = make_tls();
        EXPECT_TRUE(on_network([&] {
            server_->exchange_tls(next);
            return true;
        }));
    };
    ASSERT_TRUE(renew_agent_authority(place_.path(), error)) << error;
    ASSERT_TRUE(authority_.open(place_.path(), error)) << error;
    exchange();
    ASSERT_TRUE(under_way.send(poll_text(session, "a")));
    EXPECT_EQ(under_way.read_reply().text, empty_text);
    shown_key after = enrolled("after");
    EXPECT_EQ(log_in_as(after, "after").size(), 32u); /* both are good */
    EXPECT_EQ(ask_as(before, poll_text(session, "b")).text, empty_text);

    ASSERT_TRUE(finish_agent_authority(place_.path(), error)) << error;
    exchange();
    EXPECT_NE(alert_of(port_, before), -1);
    EXPECT_EQ(log_in_as(after, "after").size(), 32u);
}

/* How hosts get the certificates of their agents, over the port that agents poll. */
#include "decisions_in_memory.h"
#include "ingest/enrolment.h"
#include "proving.h"

#include <future>
#include <map>
#include <sys/socket.h>

using namespace std::chrono_literals;

namespace {
constexpr char authority_text[] = "GET /authority HTTP/1.0\r\n\r\n";

std::string enrol_text(const std::string& body, const std::string& headers = "") {
    return "POST /enrol HTTP/1.0\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           headers + "\r\n" + body;
}

std::string names(const std::string& agent, const std::string& account = "me@example.org") {
    return "Vnd-EMail: " + account + "\r\nVnd-AName: " + agent + "\r\n";
}

int status_of(const reply& r) {
    return r.head.size() > 12 ? std::stoi(r.head.substr(9, 3)) : 0;
}

class enrolling : public proving_server {
protected:
    void start_with(agents_mode mode) {
        proving_server::start_with(mode, "");
        key_ = new_key();
        request_ = request_for(key_.get());
    }

    std::string token_for(const std::string& agent, int64_t lasts_s = 3600) {
        std::string error;
        auto secret = known_->invite("me@example.org", agent, lasts_s, "test", error);
        EXPECT_TRUE(secret) << error;
        return "Vnd-Token: " + protocol::text_of({secret.value_or(protocol::sha256()), {}}) +
               "\r\n";
    }

    /* What a certificate that was answered says. */
    agent_proof proof_in(const reply& r) {
        x509_ptr certificate = certificate_of(r.body);
        EXPECT_TRUE(certificate) << r.text;
        auto says = certificate ? authority_.read(certificate.get()) : std::nullopt;
        EXPECT_TRUE(says);
        return says.value_or(agent_proof());
    }

    shown_key shown_by(const reply& r) {
        EVP_PKEY_up_ref(key_.get());
        return {key_ptr(key_.get()), certificate_of(r.body)};
    }

    key_ptr key_;
    std::string request_;
};
} // namespace

/* ---- the authority ---- */

TEST_F(enrolling, the_authority_is_told_to_anybody_over_tls) {
    start_with(agents_mode::proven);
    reply r = ask(authority_text);
    EXPECT_EQ(r.end, ending::clean);
    std::string error;
    published_authorities known;
    ASSERT_TRUE(
        publish_authorities(directory_->path(), own_identity(directory_->path()), known, error))
        << error;
    EXPECT_EQ(r.body, known.pem);
    x509_ptr first = certificate_of(r.body);
    ASSERT_TRUE(first);
    EXPECT_EQ(hash_of_certificate(first.get()), known.first);
    std::string signing;
    for (unsigned char byte : authority_.signing()) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", byte);
        signing += digits;
    }
    EXPECT_EQ(r.head, "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(r.body.size()) +
                          "\r\nVnd-Authority: " + signing + "\r\n\r\n");
    client plain(port_);
    plain.send_raw(authority_text);
    EXPECT_EQ(plain.wait_for_end(), ending::reset);
    EXPECT_EQ(status_of(ask("GET /authority/ HTTP/1.0\r\n\r\n")), 404);
    EXPECT_EQ(status_of(ask("HEAD /authority HTTP/1.0\r\n\r\n")), 404);
}

TEST_F(enrolling, who_proves_himself_is_noted_with_the_authorities_that_he_was_told) {
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1");
    ask(authority_text); /* of nobody: nothing to note */
    reply r = ask_as(web, authority_text);
    EXPECT_EQ(status_of(r), 200);
    EXPECT_TRUE(eventually([&] {
        auto is = known_->find("me@example.org", "web-1");
        return is && is->kept.knows == shown_->published().hash;
    }));
}

TEST_F(enrolling, an_authority_that_is_not_known_cannot_be_told) {
    std::string error;
    known_ =
        std::make_unique<known_agents>(*kept_, agents_mode::any, [this] { return now_.load(); });
    agent_authority by;
    ASSERT_TRUE(by.open(place_.path(), error)) << error;
    shown_ = std::make_shared<agents_tls>(make_tls_context(own_identity(directory_->path()), error),
                                          std::move(by), published_authorities(), *known_,
                                          [this] { return now_.load(); });
    start();
    EXPECT_EQ(status_of(ask(authority_text)), 404);
}

/* ---- by a token ---- */

TEST_F(enrolling, a_token_opens_once_for_one_key) {
    start_with(agents_mode::proven);
    const std::string token = token_for("web-1");
    reply r = ask(enrol_text(request_, token));
    ASSERT_EQ(status_of(r), 200) << r.text;
    EXPECT_EQ(r.end, ending::clean);
    agent_proof says = proof_in(r);
    EXPECT_EQ(says.who.account, "me@example.org");
    EXPECT_EQ(says.who.agent, "web-1");
    EXPECT_EQ(says.generation, 1u);
    std::string error;
    EXPECT_EQ(says.key, key_of_request(request_, error));
    EXPECT_EQ(log_in_as(shown_by(r), "web-1").size(), 32u);

    reply again = ask(enrol_text(request_, token)); /* its answer may have been lost */
    ASSERT_EQ(status_of(again), 200);
    EXPECT_EQ(proof_in(again).generation, 1u);
    reply other = ask(enrol_text(request_for(new_key().get()), token));
    EXPECT_EQ(status_of(other), 403);
    EXPECT_NE(other.body, "");
    EXPECT_EQ(other.body.back(), '\n');
    EXPECT_EQ(refused(refusal::enrolment), 1u);
    finish();
    std::vector<std::string> lines = log();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.starts_with("certificate: web-1 of me@example.org at 127.0.0.1, by a token, "
                                "generation 1, ends ");
    }));
}

TEST_F(enrolling, a_token_is_for_its_name_and_time) {
    start_with(agents_mode::proven);
    std::string token = token_for("web-1");
    EXPECT_EQ(status_of(ask(enrol_text(request_, token + names("web-2")))), 403);
    EXPECT_EQ(status_of(ask(enrol_text(request_, token + names("web-1", "you@example.org")))), 403);
    EXPECT_EQ(status_of(ask(enrol_text(request_, token + names("web-1")))), 200);
    token = token_for("web-3");
    now_ += 3601;
    EXPECT_EQ(status_of(ask(enrol_text(request_, token))), 403);
}

TEST_F(enrolling, a_token_is_not_used_up_by_what_cannot_be_certified) {
    start_with(agents_mode::proven);
    const std::string token = token_for("web-1");
    key_ptr small(EVP_RSA_gen(1024));
    for (const std::string& bad :
         {std::string(), std::string("nonsense"), request_.substr(0, request_.size() / 2),
          std::string(8192, '\0'), request_for(small.get())}) {
        reply r = ask(enrol_text(bad, token));
        EXPECT_EQ(status_of(r), 400) << r.text;
        EXPECT_EQ(r.end, ending::clean);
    }
    EXPECT_EQ(status_of(ask(enrol_text(request_, token))), 200);
}

TEST_F(enrolling, guessing_tokens_has_a_rate) {
    start_with(agents_mode::proven);
    protocol::enrolment_token wrong;
    int forbidden = 0, later = 0;
    for (int i = 0; i < 2 * enrolment::wrong_tokens_a_minute; ++i) {
        wrong.secret[0] = static_cast<unsigned char>(i);
        std::string token = i % 2 ? "nonsense" : protocol::text_of(wrong);
        int status = status_of(ask(enrol_text(request_, "Vnd-Token: " + token + "\r\n")));
        (status == 403 ? forbidden : later)++;
        EXPECT_TRUE(status == 403 || status == 503) << status;
    }
    EXPECT_GE(forbidden, enrolment::wrong_tokens_a_minute);
    EXPECT_GT(later, 0);
    /* Neighbours, and what is right, are not held up. */
    EXPECT_EQ(status_of(ask(enrol_text(request_, "Vnd-Token: x\r\n"), "127.0.0.2")), 403);
    EXPECT_EQ(status_of(ask(enrol_text(request_, token_for("web-1")))), 200);
}

/* ---- renewal ---- */

TEST_F(enrolling, a_certificate_gets_the_next_one_of_its_name) {
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1");
    reply r = ask_as(web, enrol_text(request_, names("web-2", "you@example.org")));
    ASSERT_EQ(status_of(r), 200) << r.text;
    agent_proof says = proof_in(r);
    EXPECT_EQ(says.who.account + " " + says.who.agent, "me@example.org web-1");
    EXPECT_EQ(says.generation, 2u);
    EXPECT_EQ(log_in_as(web, "web-1").size(), 32u); /* the answer may have been lost */
    EXPECT_EQ(log_in_as(shown_by(r), "web-1").size(), 32u);
    EXPECT_EQ(log_in_as(web, "web-1"), "");
    EXPECT_EQ(ask_as(web, enrol_text(request_)).text, "");
}

TEST_F(enrolling, what_is_no_good_renews_nothing) {
    start_with(agents_mode::any);
    shown_key ended = enrolled("ended"), revoked = enrolled("revoked"), fake{new_key(), nullptr};
    redate(ended.certificate.get(), authority_key().get(), -9 * day_s, -60);
    std::string error;
    ASSERT_TRUE(known_->revoke("me@example.org", "revoked", false, "test", error)) << error;
    scratch_directory elsewhere;
    agent_authority other;
    ASSERT_TRUE(other.open(elsewhere.path(), error)) << error;
    agent_proof says;
    fake.certificate = certificate_of(
        other.sign(request_for(fake.key.get()), {"me@example.org", "fake"}, 1, 90, says, error));
    for (const shown_key* who : {&ended, &revoked, &fake}) {
        EXPECT_EQ(ask_as(*who, enrol_text(request_)).text, "");
    }
    EXPECT_TRUE(are_refused(refusal::identity, 3));
}

TEST_F(enrolling, two_hundred_renewals_at_once_all_get_one) {
    start_with(agents_mode::proven);
    constexpr int count = 200;
    std::vector<shown_key> all;
    for (int i = 0; i < count; ++i) {
        all.push_back(enrolled("host-" + std::to_string(i)));
    }
    std::deque<client> clients;
    for (const shown_key& who : all) {
        client& c = clients.emplace_back(port_);
        c.show(who.certificate.get(), who.key.get());
        ASSERT_TRUE(c.handshake());
    }
    for (client& c : clients) {
        ASSERT_TRUE(c.send(enrol_text(request_)));
    }
    for (int i = 0; i < count; ++i) {
        reply r = clients[size_t(i)].read_reply();
        ASSERT_EQ(status_of(r), 200) << i << r.text;
        agent_proof says = proof_in(r);
        EXPECT_EQ(says.who.agent, "host-" + std::to_string(i));
        EXPECT_EQ(says.generation, 2u);
    }
}

/* Nor is what others got pushed out of the log, which has a few such lines a minute. */
TEST_F(enrolling, an_agent_that_renews_without_end_leaves_the_line_to_others) {
    start_with(agents_mode::proven);
    shown_key greedy = enrolled("greedy"), other = enrolled("other");
    constexpr int count = 100;
    std::deque<client> clients;
    for (int i = 0; i < count; ++i) {
        client& c = clients.emplace_back(port_);
        c.show(greedy.certificate.get(), greedy.key.get());
        ASSERT_TRUE(c.handshake());
    }
    for (client& c : clients) {
        ASSERT_TRUE(c.send(enrol_text(request_)));
    }
    int renewed = 0, later = 0;
    for (client& c : clients) {
        int status = status_of(c.read_reply());
        EXPECT_TRUE(status == 200 || status == 503) << status;
        (status == 200 ? renewed : later)++;
    }
    EXPECT_GE(renewed, enrolment::renewals_a_minute);
    EXPECT_GT(later, 0);
    /* Its token does not help it. */
    EXPECT_EQ(status_of(ask_as(greedy, enrol_text(request_, token_for("greedy")))), 503);
    EXPECT_EQ(status_of(ask_as(other, enrol_text(request_))), 200);
    EXPECT_EQ(status_of(ask(enrol_text(request_, token_for("new")))), 200);
    finish();
    std::vector<std::string> lines = log();
    for (const char* name : {"other", "new"}) {
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.starts_with(std::string("certificate: ") + name + " of ");
        }));
    }
}

/* ---- by name ---- */

TEST_F(enrolling, a_name_waits_until_its_key_is_admitted) {
    start_with(agents_mode::proven);
    for (int i = 0; i < 3; ++i) {
        now_ += 5;
        reply r = ask(enrol_text(request_, names("new")));
        EXPECT_EQ(status_of(r), 202) << r.text;
    }
    std::string error;
    auto key = key_of_request(request_, error);
    auto seen = known_->find("me@example.org", "new");
    ASSERT_TRUE(key && seen && seen->waiting);
    EXPECT_EQ(seen->waiting->key, key);
    ASSERT_TRUE(known_->admit("me@example.org", "new", key, false, "test", error)) << error;
    EXPECT_EQ(status_of(ask(enrol_text(request_for(new_key().get()), names("new")))), 202);
    reply r = ask(enrol_text(request_, names("new")));
    ASSERT_EQ(status_of(r), 200) << r.text;
    EXPECT_EQ(proof_in(r).who.agent, "new");
    finish();
    std::vector<std::string> lines = log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "asks to be admitted: new of me@example.org at 127.0.0.1, key " +
                             fingerprint(*key)),
              1);
}

TEST_F(enrolling, without_token_certificate_and_name_it_is_refused) {
    options_.allow = {"me@example.org"};
    start_with(agents_mode::known);
    EXPECT_EQ(status_of(ask(enrol_text(request_))), 400);
    EXPECT_EQ(status_of(ask(enrol_text(request_, "Vnd-AName: x\r\n"))), 400);
    EXPECT_EQ(status_of(ask(enrol_text(request_, names("x", "you@example.org")))), 403);
    reply r = ask(enrol_text(request_, "Vnd-Token: x\r\nVnd-Token: y\r\n"));
    EXPECT_EQ(r.head.substr(0, r.head.find('\r')), "HTTP/1.0 400 Vnd-Token is there twice");
}

TEST_F(enrolling, thousands_of_names_of_one_address_leave_room_for_others) {
    start_with(agents_mode::proven);
    for (int i = 0; i < 100; ++i) {
        int status =
            status_of(ask(enrol_text(request_, names("flood-" + std::to_string(i))), "127.0.0.9"));
        EXPECT_TRUE(status == 202 || status == 503) << status;
    }
    EXPECT_EQ(status_of(ask(enrol_text(request_, names("new")))), 202);
    size_t of_flood = 0;
    bool mine = false;
    for (const agent_standing& is : known_->all()) {
        of_flood += is.waiting && is.kept.agent.starts_with("flood-");
        mine = mine || (is.waiting && is.kept.agent == "new");
    }
    EXPECT_LE(of_flood, known_agents::most_waiting_of_address);
    EXPECT_TRUE(mine);
}

/* ---- what is too much, or too little ---- */

TEST_F(enrolling, a_request_that_is_too_large_is_reset_before_it_is_read) {
    start_with(agents_mode::proven);
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send("POST /enrol HTTP/1.0\r\nContent-Length: 8193\r\n" + names("x") + "\r\n"));
    EXPECT_EQ(c.wait_for_end(), ending::reset);
    EXPECT_EQ(refused(refusal::body), 1u);
    finish();
    EXPECT_TRUE(logged("certificate request from 127.0.0.1 is too large (8193 bytes): connection "
                       "reset"));
}

TEST_F(enrolling, half_a_request_is_given_up_at_the_deadline) {
    options_.deadlines.body = 100ms;
    start_with(agents_mode::proven);
    std::string text = enrol_text(request_, names("x"));
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(text.substr(0, text.size() - 1)));
    EXPECT_EQ(c.wait_for_end(), ending::reset);
    EXPECT_TRUE(known_->all().empty());
}

namespace {
/* Tokens are looked up as long as it takes. */
struct held_settings : decisions_alone {
    std::promise<void> release;
    std::shared_future<void> released = release.get_future();

    bool open_enrolment(const token_hash& hash, const token_hash& key, std::string_view account,
                        std::string_view agent, int64_t now, opened& what, stored_enrolment& found,
                        std::string& error) override {
        if (hash != key) { /* an admitted key is its own */
            released.wait();
        }
        return decisions_in_memory::open_enrolment(hash, key, account, agent, now, what, found,
                                                   error);
    }
};
} // namespace

TEST_F(enrolling, as_many_strangers_wait_as_there_are_places) {
    auto owned = std::make_unique<held_settings>();
    held_settings& held = *owned;
    kept_ = std::move(owned);
    options_.deadlines.whole = 5min;
    start_with(agents_mode::proven);
    shown_key web = enrolled("web-1");
    const std::string token = token_for("web-2");

    constexpr size_t of_address = enrolment::most_strangers_of_address, too_many = 5;
    constexpr size_t all = enrolment::most_strangers;
    std::deque<client> clients;
    auto ask_from = [&](const std::string& address, size_t count) {
        for (size_t i = 0; i < count; ++i) {
            client& c = clients.emplace_back(port_, address.c_str());
            EXPECT_TRUE(c.handshake());
            EXPECT_TRUE(c.send(enrol_text(request_, token)));
        }
    };
    ask_from("127.0.1.1", of_address + too_many);
    EXPECT_TRUE(are_refused(refusal::enrolment, too_many));
    for (size_t i = 1; i < all / of_address; ++i) {
        ask_from("127.0.2." + std::to_string(i), of_address);
    }
    ask_from("127.0.3.1", too_many);
    EXPECT_TRUE(are_refused(refusal::enrolment, 2 * too_many));
    /* Who has proven himself has a place all the same. */
    client proven(port_);
    proven.show(web.certificate.get(), web.key.get());
    EXPECT_TRUE(proven.handshake());
    EXPECT_TRUE(proven.send(enrol_text(request_)));

    held.release.set_value();
    EXPECT_EQ(status_of(proven.read_reply()), 200);
    std::map<int, size_t> answered;
    for (client& c : clients) {
        answered[status_of(c.read_reply())]++;
    }
    EXPECT_EQ(answered, (std::map<int, size_t>{{200, all}, {503, 2 * too_many}}));
    EXPECT_EQ(status_of(ask(enrol_text(request_, token), "127.0.1.1")), 200);
}

TEST_F(enrolling, who_leaves_while_his_certificate_is_made_holds_up_nobody) {
    start_with(agents_mode::proven);
    const std::string token = token_for("web-1");
    for (int i = 0; i < 20; ++i) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(enrol_text(request_, token)));
        c.vanish();
    }
    EXPECT_EQ(status_of(ask(enrol_text(request_, token))), 200);
}

TEST_F(enrolling, the_server_may_end_while_certificates_are_made) {
    start_with(agents_mode::proven);
    const std::string token = token_for("web-1");
    std::deque<client> clients;
    for (int i = 0; i < 20; ++i) {
        client& c = clients.emplace_back(port_);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(enrol_text(request_, token)));
    }
    boost::asio::post(server_->context(), [this] { server_->context().stop(); });
    thread_.join();
    finish();
}

/* An agent may be configured with any path. */
TEST_F(enrolling, a_poll_to_that_path_is_a_poll) {
    start_with(agents_mode::any);
    std::string text = poll_text(log_in(), "block");
    text.replace(text.find("/fcgi-bin/agentgateway"), 22, "/enrol");
    EXPECT_EQ(ask(text).text, empty_text);
    EXPECT_EQ(store_->blocks().size(), 1u);
}

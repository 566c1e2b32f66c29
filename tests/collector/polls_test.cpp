/* What agents are answered. */
#include "collector_server.h"

#include <boost/asio/post.hpp>

using namespace std::chrono_literals;

/* ---- logging in ---- */

TEST_F(collector_server, login_answers_a_session_and_the_whole_plan) {
    start("POL\t0\t30\nLAA\t1\t1\t5\t5\t5\n");
    reply r = ask(login_text("me@example.org", "agent"));
    EXPECT_EQ(r.end, ending::clean);
    ASSERT_EQ(r.session.size(), 32u);
    EXPECT_EQ(r.session.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(r.text, "HTTP/1.0 200 OK\r\nContent-Length: 23\r\nVnd-SessionID: " + r.session +
                          "\r\n\r\nPOL\t0\t30\nLAA\t1\t1\t5\t5\t5\n");
}

/* The older session is in use after a login: there are two hosts. The first one keeps the name. */
TEST_F(collector_server, of_two_hosts_under_one_name_the_first_keeps_it) {
    start("POL\t0\t30\n");
    std::string first = log_in("one"), other = log_in("two");
    reply second = ask(login_text("me@example.org", "one"), "127.0.0.2");
    ASSERT_EQ(second.session.size(), 32u);
    EXPECT_EQ(ask(poll_text(second.session, "a"), "127.0.0.2").text, empty_text);
    EXPECT_EQ(ask(poll_text(first, "b")).text, empty_text);
    EXPECT_EQ(ask(poll_text(first, "c")).text, empty_text);
    EXPECT_EQ(ask(poll_text(second.session, "d"), "127.0.0.2").text, refused_text);
    for (int i = 0; i < 3; ++i) {
        reply refused = ask(login_text("me@example.org", "one"), "127.0.0.2");
        EXPECT_EQ(refused.head.substr(0, refused.head.find('\r')), "HTTP/1.0 403 Forbidden");
        EXPECT_EQ(refused.session, "");
        EXPECT_EQ(refused.body, "Another host is using this name.\n");
        EXPECT_EQ(refused.end, ending::clean);
    }
    EXPECT_EQ(ask(poll_text(first, "")).text, empty_text);
    EXPECT_EQ(ask(poll_text(other, "")).text, empty_text);
    finish();
    std::vector<std::string> lines = log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "two hosts under one name: one of me@example.org polls from 127.0.0.1, "
                         "the other at 127.0.0.2 is refused meanwhile"),
              1);
}

TEST_F(collector_server, an_agent_that_starts_again_and_again_is_let_in) {
    start("POL\t0\t30\n");
    std::string session;
    for (int i = 0; i < 10; ++i) {
        session = log_in("one");
        ASSERT_EQ(session.size(), 32u);
        EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
    }
    EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
    finish();
    for (const std::string& line : log()) {
        EXPECT_EQ(line, "login: one of me@example.org at 127.0.0.1");
    }
}

TEST_F(collector_server, an_account_that_is_not_on_the_list_is_told_nothing_that_ends_its_agent) {
    options_.allow = {"me@example.org", "you@example.org"};
    start("POL\t0\t30\n");
    reply r = ask(login_text("stranger@example.org", "agent"));
    EXPECT_EQ(r.head.substr(0, r.head.find('\r')), "HTTP/1.0 403 Forbidden");
    EXPECT_EQ(r.session, "");
    EXPECT_EQ(r.body, "This account is not allowed here.\n");
    EXPECT_EQ(r.end, ending::clean);
    EXPECT_EQ(ask(login_text("you@example.org", "agent")).session.size(), 32u);
}

TEST_F(collector_server, agents_of_other_accounts_are_ended_where_that_is_wanted) {
    options_.allow = {"me@example.org", "you@example.org"};
    options_.end_refused = true;
    start("POL\t0\t30\n");
    reply r = ask(login_text("stranger@example.org", "agent"));
    EXPECT_EQ(r.text,
              "HTTP/1.0 200 OK\r\nContent-Length: 6\r\nVnd-SessionID: 666666\r\n\r\n666666");
    EXPECT_EQ(r.end, ending::clean);
    EXPECT_EQ(ask(login_text("you@example.org", "agent")).session.size(), 32u);
}

TEST_F(collector_server, a_body_sent_with_a_login_is_read_and_ignored) {
    start();
    std::string text = login_text("me@example.org", "agent");
    text.replace(text.find("Content-Length: 0"), 17, "Content-Length: 70000");
    reply r = ask(text + std::string(70000, 'x'));
    EXPECT_EQ(r.session.size(), 32u);
    EXPECT_TRUE(store_->blocks().empty());
}

TEST_F(collector_server, a_name_that_no_agent_may_have_is_refused) {
    start();
    for (const std::string& agent : {std::string("a\tb"), std::string(), std::string(255, 'x')}) {
        reply r = ask(login_text("me@example.org", agent));
        EXPECT_EQ(r.text, "HTTP/1.0 400 Vnd-AName is empty, too long or has control characters\r\n"
                          "Content-Length: 6\r\n\r\n111111");
        EXPECT_EQ(r.end, ending::clean);
    }
    EXPECT_EQ(log_in(std::string(254, 'x')).size(), 32u);
}

/* ---- polls ---- */

TEST_F(collector_server, who_logs_in_or_polls_is_heard_whatever_becomes_of_the_block) {
    options_.allow = {"me@example.org"};
    start();
    ask(login_text("stranger@example.org", "agent"));
    EXPECT_EQ(store_->heard_so_far(), std::vector<std::string>());
    std::string session = log_in();
    ASSERT_EQ(store_->heard_so_far().size(), 1u);
    EXPECT_TRUE(store_->heard_so_far()[0].starts_with("me@example.org agent 127.0.0.1 "));
    ask(poll_text(session, ""));
    store_->will_answer(store_result::failed);
    ask(poll_text(session, "block"));
    EXPECT_EQ(store_->heard_so_far().size(), 3u);
    ask(poll_text(std::string(32, 'f'), "block")); /* of no session */
    EXPECT_EQ(store_->heard_so_far(), std::vector<std::string>(3, store_->heard_so_far()[0]));
}

TEST_F(collector_server, a_poll_is_stored_and_answered_with_nothing) {
    start();
    std::string body = "block of records";
    std::string session = log_in();
    auto begin = time(nullptr);
    reply r = ask(poll_text(session, body, 0, sum_of(body)));
    EXPECT_EQ(r.text, empty_text);
    EXPECT_EQ(r.end, ending::clean);
    auto blocks = store_->blocks();
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].account, "me@example.org");
    EXPECT_EQ(blocks[0].agent, "agent");
    EXPECT_EQ(blocks[0].plain, body);
    EXPECT_EQ(blocks[0].address, "127.0.0.1");
    EXPECT_EQ(blocks[0].version, "3.0");
    EXPECT_GE(blocks[0].received, begin);
    EXPECT_LE(blocks[0].received, time(nullptr));
}

TEST_F(collector_server, a_packed_body_is_unpacked_large_ones_on_the_other_thread) {
    start();
    std::string session = log_in();
    std::string small(2000, 'a'), large;
    for (int i = 0; large.size() < 1000000; ++i) {
        large += std::to_string(i * 7919);
    }
    for (const std::string& plain : {small, large}) {
        std::string wire = pack(plain);
        EXPECT_EQ(ask(poll_text(session, wire, plain.size(), sum_of(wire))).text, empty_text);
    }
    auto blocks = store_->blocks();
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0].plain, small);
    EXPECT_EQ(blocks[1].plain, large);
}

/* One large body is being stored; the next waits unpacked by nobody, and all else goes on. */
TEST_F(collector_server, nobody_but_another_large_body_waits_for_a_large_one) {
    options_.large_memory = 1u << 20;
    options_.body_memory = 512u << 10; /* less than such a body: it has no part in this */
    start();
    std::string first = log_in("first"), second = log_in("second"), small = log_in("small");
    std::string large(1u << 20, 'a'), wire = pack(large);
    auto send = [&](client& c, const std::string& session) {
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(poll_text(session, wire, large.size(), sum_of(wire))));
    };
    store_->hold_back(true);
    client one(port_), again(port_), two(port_), three(port_);
    send(one, first);
    store_->wait_for_blocks(1);
    send(again, first);
    EXPECT_EQ(again.wait_for_end(), ending::reset); /* one of an agent */
    send(two, second);
    ASSERT_TRUE(three.handshake());
    ASSERT_TRUE(three.send(poll_text(small, "block of records")));
    store_->wait_for_blocks(2);
    store_->hold_back(false);
    for (client* c : {&one, &two, &three}) {
        ending how;
        EXPECT_EQ(c->read_all(how), empty_text);
    }
    auto blocks = store_->blocks();
    ASSERT_EQ(blocks.size(), 3u);
    EXPECT_EQ(blocks[0].agent, "first");
    EXPECT_EQ(blocks[1].agent, "small");
    EXPECT_EQ(blocks[2].agent, "second");
    EXPECT_EQ(blocks[2].plain, large);
    EXPECT_EQ(ask(poll_text(first, wire, large.size(), sum_of(wire))).text, empty_text);
}

/* Whoever has the context may end run() at once: what waits or is stored then goes with the server.
 */
TEST_F(collector_server, large_bodies_under_way_end_with_the_server) {
    options_.large_memory = 1u << 20;
    start();
    std::string first = log_in("first"), second = log_in("second"), third = log_in("third");
    std::string large(1u << 20, 'a'), wire = pack(large);
    store_->hold_back(true);
    client one(port_), two(port_), three(port_);
    std::pair<client*, std::string> all[] = {{&one, first}, {&two, second}, {&three, third}};
    for (auto& [c, session] : all) {
        ASSERT_TRUE(c->handshake());
        ASSERT_TRUE(c->send(poll_text(session, wire, large.size(), sum_of(wire))));
        store_->wait_for_blocks(1);
    }
    boost::asio::post(server_->context(), [this] { server_->context().stop(); });
    thread_.join();
    finish();
    EXPECT_EQ(one.wait_for_end(), ending::reset);
}

TEST_F(collector_server, a_large_body_that_waits_too_long_is_reset) {
    options_.large_memory = 1u << 20;
    options_.deadlines.whole = 1s;
    start();
    std::string first = log_in("first"), second = log_in("second");
    std::string large(1u << 20, 'a'), wire = pack(large);
    auto send = [&](const std::string& session) {
        auto c = std::make_unique<client>(port_);
        EXPECT_TRUE(c->handshake());
        c->send(poll_text(session, wire, large.size(), sum_of(wire)));
        return c;
    };
    store_->hold_back(true);
    std::unique_ptr<client> one;
    for (int i = 0; i < 100 && store_->blocks().empty(); i++) { /* until one comes in time */
        one = send(first);
        for (int j = 0; j < 150 && store_->blocks().empty(); j++) {
            std::this_thread::sleep_for(10ms);
        }
    }
    ASSERT_EQ(store_->blocks().size(), 1u);
    EXPECT_EQ(send(second)->wait_for_end(), ending::reset);
    EXPECT_EQ(store_->blocks().size(), 1u);
    for (int i = 0; i < 2000 && store_->held_up_so_far().empty(); i++) {
        std::this_thread::sleep_for(10ms); /* told once it has noticed */
    }
    EXPECT_TRUE(std::ranges::count(store_->held_up_so_far(), "me@example.org second") > 0);
    store_->hold_back(false);
    /* There is room again when the first is stored, whatever became of its connection. */
    reply r;
    for (int i = 0; i < 100 && r.text.empty(); i++) {
        r = split(send(second)->read_all(r.end), ending::error);
    }
    EXPECT_EQ(r.text, empty_text);
}

TEST_F(collector_server, huge_bodies_have_a_thread_and_a_bound_of_their_own) {
    options_.large_memory = 1u << 20;
    options_.huge = 2u << 20;
    start();
    std::string first = log_in("first"), second = log_in("second");
    std::string huge(4u << 20, 'a'), large(1u << 20, 'b');
    store_->hold_back(true);
    client one(port_), two(port_);
    std::string huge_wire = pack(huge), wire = pack(large);
    ASSERT_TRUE(one.handshake());
    ASSERT_TRUE(one.send(poll_text(first, huge_wire, huge.size(), sum_of(huge_wire))));
    store_->wait_for_blocks(1);
    ASSERT_TRUE(two.handshake());
    ASSERT_TRUE(two.send(poll_text(second, wire, large.size(), sum_of(wire))));
    store_->wait_for_blocks(2);
    store_->hold_back(false);
    for (client* c : {&one, &two}) {
        ending how;
        EXPECT_EQ(c->read_all(how), empty_text);
    }
    EXPECT_EQ(store_->blocks()[0].plain, huge);
}

TEST_F(collector_server, the_answer_comes_after_the_commit) {
    start();
    std::string session = log_in();
    store_->hold_back(true);
    std::atomic<bool> committed = false;
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(poll_text(session, "x")));
    std::thread reader([&] {
        ending end;
        EXPECT_EQ(c.read_all(end), empty_text);
        EXPECT_TRUE(committed);
    });
    store_->wait_for_blocks(1);
    committed = true;
    store_->hold_back(false);
    reader.join();
}

TEST_F(collector_server, an_unknown_session_is_asked_to_log_in_again) {
    start();
    for (const char* id : {"0123456789abcdef0123456789abcdef", "111111", "666666", ""}) {
        reply r = ask(poll_text(id, "some body"));
        EXPECT_EQ(r.text, refused_text);
        EXPECT_EQ(r.end, ending::clean);
    }
    EXPECT_EQ(ask(poll_text("x", std::string(300000, 'x'))).text, refused_text);
    EXPECT_TRUE(store_->blocks().empty());
}

TEST_F(collector_server, a_body_that_does_not_verify_must_come_again) {
    start();
    std::string session = log_in();
    std::string plain(3000, 'a'), wire = pack(plain), large(300000, 'b'), large_wire = pack(large);
    EXPECT_EQ(ask(poll_text(session, wire, plain.size(), sum_of(wire) + 1)).text, refused_text);
    EXPECT_EQ(ask(poll_text(session, wire, plain.size() - 1, sum_of(wire))).text, refused_text);
    EXPECT_EQ(ask(poll_text(session, wire, plain.size() + 1, sum_of(wire))).text, refused_text);
    EXPECT_EQ(ask(poll_text(session, large_wire, large.size() - 1, sum_of(large_wire))).text,
              refused_text);
    EXPECT_EQ(ask(poll_text(session, "no zlib", 100, sum_of("no zlib"))).text, refused_text);
    EXPECT_TRUE(store_->blocks().empty());
    EXPECT_EQ(ask(poll_text(session, wire, plain.size(), sum_of(wire))).text, empty_text);
}

/* An answer that keeps the block would have every agent log in and send it again each second. */
TEST_F(collector_server, what_cannot_be_stored_now_is_reset_and_keeps_its_session) {
    start();
    std::string session = log_in();
    store_->will_answer(store_result::failed);
    reply r = ask(poll_text(session, "x"));
    EXPECT_EQ(r.text, "");
    EXPECT_EQ(r.end, ending::reset);
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
}

TEST_F(collector_server, pieces_of_any_size_make_a_request) {
    start();
    std::string session = log_in();
    client c(port_);
    ASSERT_TRUE(c.handshake());
    for (char byte : poll_text(session, "abc")) {
        ASSERT_TRUE(c.send({&byte, 1}));
    }
    ending end;
    EXPECT_EQ(c.read_all(end), empty_text);
    EXPECT_EQ(store_->blocks().at(0).plain, "abc");
}

TEST_F(collector_server, a_second_request_on_the_connection_is_ignored) {
    start();
    std::string session = log_in();
    reply r = ask(poll_text(session, "one") + poll_text(session, "two"));
    EXPECT_EQ(r.text, empty_text);
    EXPECT_EQ(r.end, ending::clean);
    ASSERT_EQ(store_->blocks().size(), 1u);
    EXPECT_EQ(store_->blocks()[0].plain, "one");
}

TEST_F(collector_server, a_client_that_has_ended_its_half_is_answered) {
    start();
    std::string session = log_in();
    for (bool tls_end : {true, false}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(poll_text(session, "x")));
        if (tls_end) {
            SSL_shutdown(c.ssl());
        }
        shutdown(c.fd(), SHUT_WR);
        ending end;
        EXPECT_EQ(c.read_all(end), empty_text);
        EXPECT_EQ(end, ending::clean);
    }
}

/* ---- the plan ---- */

TEST_F(collector_server, lines_added_are_sent_once_at_the_next_poll) {
    start("POL\t0\t30\n");
    std::string session = log_in(), other = log_in("other");
    EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    reply r = ask(poll_text(session, "x"));
    EXPECT_EQ(r.text, "HTTP/1.0 200 OK\r\nContent-Length: 14\r\n\r\nLAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "y")).text, empty_text);
    EXPECT_EQ(ask(poll_text(other, "")).body, "LAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(other, "")).text, empty_text);
}

TEST_F(collector_server, who_is_to_check_now_is_told_once) {
    start("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    const std::string check = "LAM\t7\t1\t5\t5\t5\n";
    EXPECT_FALSE(on_network([&] { return server_->check_now("me@example.org", "agent"); }));
    std::string session = log_in(), other = log_in("other");
    EXPECT_FALSE(on_network([&] { return server_->check_now("me@example.org", "none"); }));
    auto tell = [&] {
        return on_network([&] { return server_->check_now("me@example.org", "agent"); });
    };
    EXPECT_TRUE(tell());
    EXPECT_TRUE(tell());
    EXPECT_EQ(ask(poll_text(other, "")).text, empty_text);
    EXPECT_EQ(ask(poll_text(session, "x")).body, check);
    EXPECT_EQ(ask(poll_text(session, "y")).text, empty_text);
    /* its answer was lost: it is given again with the block */
    EXPECT_TRUE(tell());
    EXPECT_EQ(ask(poll_text(session, "z")).body, check);
    store_->will_answer(store_result::duplicate);
    EXPECT_EQ(ask(poll_text(session, "z")).body, check);
    EXPECT_EQ(ask(poll_text(session, "w")).text, empty_text);
    store_->will_answer(store_result::duplicate);
    EXPECT_EQ(ask(poll_text(session, "w")).text, empty_text);
    /* not stored, so not answered: it stands */
    EXPECT_TRUE(tell());
    store_->will_answer(store_result::failed);
    EXPECT_EQ(ask(poll_text(session, "v")).end, ending::reset);
    /* behind what is new */
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\nLAA\t8\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "v")).body,
              "LAA\t8\t1\t5\t5\t5\n" + check + "LAM\t8\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "u")).text, empty_text);
}

TEST_F(collector_server, who_is_sent_away_logs_in_again_and_is_known_to_run) {
    start("LAA\t7\t1\t5\t5\t5\n");
    auto send_away = [&] {
        return on_network([&] { return server_->send_away("me@example.org", "agent"); });
    };
    EXPECT_FALSE(send_away());
    std::string session = log_in(), other = log_in("other");
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
    EXPECT_TRUE(send_away());
    EXPECT_FALSE(send_away());
    EXPECT_EQ(counted_.sessions.get(), 1u);
    EXPECT_EQ(ask(poll_text(session, "y")).text, refused_text);
    EXPECT_EQ(ask(poll_text(other, "")).text, empty_text);
    EXPECT_EQ(store_->blocks().size(), 1u); /* the agent has the other one yet */
    EXPECT_EQ(ask(login_text("me@example.org", "agent")).body,
              "LAA\t7\t1\t5\t5\t5\nLAM\t7\t1\t5\t5\t5\n");
}

/* What is known from before is removed once, from an agent that ran already. */
TEST_F(collector_server, an_agent_that_ran_before_the_start_is_put_right) {
    known_tests earlier;
    agent_state results; /* the store's */
    for (int32_t test : {6, 7}) {
        results.tests.push_back({.type = type_load_average, .number = test, .received = 1000});
    }
    for (const char* agent : {"one", "two", "three"}) {
        earlier.add("me@example.org", agent, results);
    }
    start("LAA\t6\t1\t5\t5\t5\n");
    std::string old_one = log_in("one"), old_two = log_in("two");
    finish();
    start("LAA\t7\t1\t5\t5\t5\nDKA\t8\t1\t/\t1\n", earlier);
    const std::string adds = "LAA\t7\t1\t5\t5\t5\nDKA\t8\t1\t/\t1\n", change = "DKM\t8\t1\t/\t1\n";
    EXPECT_EQ(ask(poll_text(old_one, "")).text, refused_text);
    EXPECT_EQ(ask(login_text("me@example.org", "three")).body, adds); /* it has just started */
    reply lost = ask(login_text("me@example.org", "one"));
    EXPECT_EQ(lost.body, "LAD\t6\t0\nLAD\t7\t0\n" + adds + change);
    reply again = ask(login_text("me@example.org", "one")); /* the answer was lost */
    EXPECT_EQ(again.body, lost.body);
    EXPECT_EQ(ask(poll_text(again.session, "")).text, empty_text);
    /* A restart. */
    EXPECT_EQ(ask(login_text("me@example.org", "one")).body, adds);
    /* Told to log in again by this collector: that it was removed is known by now. */
    store_->will_answer(store_result::stored);
    EXPECT_EQ(ask(poll_text(again.session, "x", 100, 1)).text, refused_text);
    EXPECT_EQ(ask(login_text("me@example.org", "one")).body,
              "LAA\t7\t1\t5\t5\t5\nLAM\t7\t1\t5\t5\t5\nDKA\t8\t1\t/\t1\n" + change);
}

/* An agent stops reading at Content-Length and closes: what is left unread makes that a reset. */
TEST_F(collector_server, an_agent_that_closes_before_the_end_of_tls_has_its_lines) {
    start("POL\t0\t30\n");
    std::string session = log_in();
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(poll_text(session, "x")));
        char answer[4095];
        int got = SSL_read(c.ssl(), answer, sizeof answer);
        ASSERT_GT(got, 0);
        EXPECT_EQ(std::string(answer, size_t(got)),
                  "HTTP/1.0 200 OK\r\nContent-Length: 14\r\n\r\nLAA\t7\t1\t5\t5\t5\n");
        SSL_shutdown(c.ssl());
    }
    EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
}

TEST_F(collector_server, a_lost_answer_is_given_again) {
    start("POL\t0\t30\n");
    std::string session = log_in();
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "x")).body, "LAA\t7\t1\t5\t5\t5\n");
    store_->will_answer(store_result::duplicate);
    EXPECT_EQ(ask(poll_text(session, "x")).body, "LAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "y")).text, empty_text);
}

TEST_F(collector_server, a_block_repeated_after_a_new_login_is_not_given_the_plan_again) {
    start("POL\t0\t30\n");
    std::string session = log_in();
    store_->will_answer(store_result::duplicate);
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
}

TEST_F(collector_server, lines_that_never_reached_the_agent_are_given_again) {
    start("POL\t0\t30\n");
    std::string session = log_in();
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    store_->hold_back(true);
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(poll_text(session, "x")));
    store_->wait_for_blocks(1);
    c.vanish();
    store_->hold_back(false);
    EXPECT_EQ(ask(poll_text(session, "")).body, "LAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "")).text, empty_text);
}

TEST_F(collector_server, a_long_plan_arrives_whole) {
    std::string lines = long_plan(500000);
    start(lines);
    reply r = ask(login_text("me@example.org", "agent"));
    EXPECT_EQ(r.body.size(), lines.size());
    EXPECT_TRUE(r.body == lines);
    EXPECT_EQ(r.end, ending::clean);
}

/* ---- what is no poll ---- */

TEST_F(collector_server, a_malformed_request_is_never_taken_for_an_accepted_poll) {
    start();
    std::string session = log_in();
    const std::string bad[] = {
        "nonsense\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session + "\r\nContent-Length: -1\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session +
            "\r\nContent-Length: 18446744073709551616\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session +
            "\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nx",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session + "\r\nVnd-CheckSum: 1x\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session + "\r\nVnd-SessionID: y\r\n\r\n",
        "POST /x HTTP/1.0\r\nVnd-SessionID: " + session + "\r\nTransfer-Encoding: chunked\r\n\r\n",
        "POST /x HTTP/1.0\r\nX: " + std::string(9000, 'x') + "\r\n\r\n",
        std::string(9000, 'x'),
    };
    for (const std::string& text : bad) {
        reply r = ask(text);
        EXPECT_EQ(r.head.substr(0, 13), "HTTP/1.0 400 ") << r.text;
        EXPECT_EQ(r.body, "111111");
        EXPECT_NE(r.head.find("\r\nContent-Length: 6\r\n"), std::string::npos);
        EXPECT_EQ(r.end, ending::clean);
    }
}

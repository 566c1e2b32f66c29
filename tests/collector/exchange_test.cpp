/* What becomes of requests and answers that are cut short, or are too much. */
#include "collector_server.h"

#include <poll.h>

using namespace std::chrono_literals;

TEST_F(collector_server, an_answer_that_comes_too_late_is_not_begun) {
    options_.deadlines.whole = 100ms;
    start();
    std::string session = log_in();
    store_->hold_back(true);
    client c(port_);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(poll_text(session, "x")));
    store_->wait_for_blocks(1);
    std::this_thread::sleep_for(400ms);
    store_->hold_back(false);
    ending end;
    EXPECT_EQ(c.read_all(end), "");
    EXPECT_EQ(end, ending::reset);
}

TEST_F(collector_server, an_end_before_the_whole_request_is_reset) {
    start();
    std::string session = log_in();
    std::string text = poll_text(session, "1234567890");
    for (size_t length : {size_t(0), size_t(20), text.size() - 1}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        if (length) {
            ASSERT_TRUE(c.send(text.substr(0, length)));
        }
        shutdown(c.fd(), SHUT_WR);
        EXPECT_EQ(c.wait_for_end(), ending::error); /* OpenSSL says decode_error before the reset */
        client polite(port_);
        ASSERT_TRUE(polite.handshake());
        if (length) {
            ASSERT_TRUE(polite.send(text.substr(0, length)));
        }
        SSL_shutdown(polite.ssl());
        EXPECT_EQ(polite.wait_for_end(), ending::reset);
    }
    EXPECT_TRUE(store_->blocks().empty());
}

TEST_F(collector_server, a_body_that_is_too_large_is_reset_before_it_is_read) {
    options_.body.max_wire = 1000;
    options_.body.max_plain = 5000;
    start();
    std::string session = log_in();
    for (const std::string& text :
         {poll_text(session, std::string(1001, 'x')), poll_text("unknown", std::string(1001, 'x')),
          poll_text(session, std::string(1000, 'x'), 5001)}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        ASSERT_TRUE(c.send(text.substr(0, text.find("\r\n\r\n") + 4)));
        EXPECT_EQ(c.wait_for_end(), ending::reset);
    }
    std::string most(1000, 'x');
    EXPECT_EQ(ask(poll_text(session, most, 0, sum_of(most))).text, empty_text);
}

TEST_F(collector_server, bodies_beyond_the_memory_for_them_are_reset) {
    options_.body_memory = 300000;
    start();
    std::string session = log_in();
    std::string half(200000, 'x');
    client first(port_);
    ASSERT_TRUE(first.handshake());
    std::string text = poll_text(session, half);
    ASSERT_TRUE(first.send(text.substr(0, text.size() - 1)));
    client second(port_);
    ASSERT_TRUE(second.handshake());
    if (second.send(text)) { /* otherwise the sending has met the reset */
        EXPECT_EQ(second.wait_for_end(), ending::reset);
    }
    first.vanish();
    /* The share of a connection that is gone comes back. */
    std::string body(100000, 'y');
    reply r;
    for (int i = 0; i < 1000 && r.text.empty(); ++i) {
        client third(port_);
        ASSERT_TRUE(third.handshake());
        third.send(poll_text(session, body));
        r = split(third.read_all(r.end), ending::error);
    }
    EXPECT_EQ(r.text, empty_text);
}

/* They did come: the tests of their agents are not to become stale meanwhile. */
TEST_F(collector_server, who_is_cut_off_for_want_of_memory_is_held_up) {
    options_.body_memory = 300000;
    start();
    std::string mine = log_in("mine"), other = log_in("other");
    std::string half = poll_text(mine, std::string(200000, 'x'));
    auto held_up = [&](const std::string& agent) {
        return std::ranges::count(store_->held_up_so_far(), "me@example.org " + agent);
    };
    client first(port_);
    ASSERT_TRUE(first.handshake());
    ASSERT_TRUE(first.send(half.substr(0, half.size() - 1)));
    for (int i = 0; i < 1000 && held_up("other") == 0; ++i) { /* until the first one is there */
        client second(port_);
        ASSERT_TRUE(second.handshake());
        second.send(poll_text(other, std::string(200000, 'y')));
        ending ignored;
        second.read_all(ignored);
    }
    EXPECT_GT(held_up("other"), 0);
    EXPECT_EQ(held_up("mine"), 0);
    first.vanish(); /* which is its own affair */
    reply r;
    for (int i = 0; i < 1000 && r.text.empty(); ++i) {
        client again(port_);
        ASSERT_TRUE(again.handshake());
        again.send(poll_text(other, std::string(100000, 'y')));
        r = split(again.read_all(r.end), ending::error);
    }
    EXPECT_EQ(held_up("mine"), 0);
}

TEST_F(collector_server, who_has_to_make_room_is_held_up) {
    options_.body_memory = 1000000;
    start();
    std::string most = poll_text(log_in("large"), std::string(600000, 'x'));
    client first(port_, "127.0.1.1");
    ASSERT_TRUE(first.handshake());
    ASSERT_TRUE(first.send(most.substr(0, most.size() - 1)));
    std::deque<client> others; /* small ones, which go first */
    for (int i = 0; i < 20; ++i) {
        const std::string number = std::to_string(i);
        client& c = others.emplace_back(port_, ("127.0.2." + number).c_str());
        ASSERT_TRUE(c.handshake());
        std::string text = poll_text(log_in("small " + number), std::string(60000, 'y'));
        c.send(text.substr(0, text.size() - 1));
    }
    for (int i = 0; i < 2000 && store_->held_up_so_far().empty(); ++i) {
        std::this_thread::sleep_for(10ms); /* told once it has noticed */
    }
    EXPECT_TRUE(std::ranges::count(store_->held_up_so_far(), "me@example.org large") > 0);
}

TEST_F(collector_server, a_client_that_does_not_read_is_reset_at_the_deadline) {
    options_.deadlines.answer = 50ms;
    start(long_plan(8000000)); /* more than the kernel takes off the server's hands */
    client c(port_);
    int small = 4096;
    setsockopt(c.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ASSERT_TRUE(c.handshake());
    ASSERT_TRUE(c.send(login_text("me@example.org", "agent")));
    pollfd broken{c.fd(), 0, 0};
    EXPECT_EQ(poll(&broken, 1, 10000), 1);
    EXPECT_EQ(c.wait_for_end(), ending::reset);
}

/* ---- shares of the memory ---- */

namespace {
/* Sends bodies that lack their last byte, of smaller and smaller size: as many as are taken. */
void fill_memory(uint16_t port, const char* from, const std::vector<std::string>& sessions,
                 std::deque<client>& held) {
    size_t next = 0;
    for (size_t size = 1 << 20; size > 4096; size /= 2) {
        for (int i = 0; i < 3; ++i) {
            client& c = held.emplace_back(port, from);
            std::string text =
                poll_text(sessions[next++ % sessions.size()], std::string(size, 'x'));
            if (c.handshake()) {
                c.send(text.substr(0, text.size() - 1));
            }
        }
    }
}
} // namespace

TEST_F(collector_server, an_address_that_fills_the_memory_leaves_others_theirs) {
    options_.body_memory = 4000000;
    start();
    std::string mine = log_in("mine");
    std::vector<std::string> theirs;
    for (int i = 0; i < 12; ++i) {
        theirs.push_back(log_in("evil " + std::to_string(i)));
    }
    std::deque<client> held;
    fill_memory(port_, "127.0.1.1", theirs, held);
    EXPECT_EQ(ask(poll_text(mine, std::string(300000, 'm'))).text, empty_text);
    fill_memory(port_, "127.0.1.2", theirs, held);
    fill_memory(port_, "127.0.1.3", theirs, held);
    fill_memory(port_, "127.0.1.4", theirs, held);
    EXPECT_EQ(ask(poll_text(mine, std::string(60000, 'm'))).text, empty_text);
}

TEST_F(collector_server, an_agent_that_fills_the_memory_leaves_its_neighbours_theirs) {
    options_.body_memory = 4000000;
    start();
    std::string mine = log_in("mine"), evil = log_in("evil");
    std::deque<client> held;
    fill_memory(port_, "127.0.0.1", std::vector<std::string>(12, evil), held);
    EXPECT_EQ(ask(poll_text(mine, std::string(150000, 'm'))).text, empty_text);
}

TEST_F(collector_server, the_largest_body_passes_when_no_other_is_held) {
    options_.body.max_wire = 1 << 20;
    options_.body.max_plain = 4 << 20;
    options_.body_memory = (options_.body.max_wire + options_.body.max_plain) / 2 * 3;
    start();
    std::string plain(4 << 20, 'x');
    for (size_t i = 0, x = 1; i < 1000000; ++i) { /* nothing to be saved in these */
        x = x * 6364136223846793005u + 1442695040888963407u;
        plain[i] = char(x >> 56);
    }
    std::string packed = pack(plain);
    ASSERT_GT(packed.size(), 1000000u);
    std::string text = poll_text(log_in(), packed, plain.size(), sum_of(packed));
    EXPECT_EQ(ask(text).text, empty_text);
    EXPECT_TRUE(store_->blocks().at(0).plain == plain);
}

/* Who is let in, for how long, and who makes room. */
#include "collector_server.h"

#include <malloc.h>
#include <sys/resource.h>

using namespace std::chrono_literals;

TEST_F(collector_server, a_port_in_use_is_one_clear_line) {
    start();
    server_options same = options_;
    same.port = port_;
    server second(same, shown_, nullptr, *store_, *commands_, counted_, [](const std::string&) {});
    std::string error;
    EXPECT_FALSE(second.listen(error));
    EXPECT_EQ(error, "cannot listen on 127.0.0.1 port " + std::to_string(port_) +
                         ": Address already in use");
    same.address = "localhost";
    server third(same, shown_, nullptr, *store_, *commands_, counted_, [](const std::string&) {});
    EXPECT_FALSE(third.listen(error));
    EXPECT_EQ(error,
              "cannot listen on localhost port " + std::to_string(port_) + ": not an IP address");
}

TEST_F(collector_server, an_ipv6_address_is_written_in_brackets) {
    options_.address = "::1";
    start();
    EXPECT_EQ(server_->where(), "[::1]:" + std::to_string(port_));
    int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 there{};
    there.sin6_family = AF_INET6;
    there.sin6_port = htons(port_);
    there.sin6_addr = in6addr_loopback;
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&there), sizeof there), 0);
    close(fd);
}

/* ---- deadlines: always a reset ---- */

TEST_F(collector_server, a_silent_client_is_reset_at_the_deadline) {
    options_.deadlines.handshake = 50ms;
    start();
    client c(port_);
    EXPECT_EQ(c.wait_for_end(), ending::reset);
}

TEST_F(collector_server, a_slow_handshake_is_reset_at_the_deadline) {
    options_.deadlines.handshake = 50ms;
    start();
    client c(port_);
    c.send_raw("\x16\x03\x01\x02"); /* the beginning of a ClientHello */
    EXPECT_EQ(c.wait_for_end(), ending::reset);
}

TEST_F(collector_server, a_slow_head_is_reset_at_the_deadline) {
    options_.deadlines.head = 50ms;
    start();
    for (const char* text : {"", "POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Le"}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        if (*text) {
            ASSERT_TRUE(c.send(text));
        }
        EXPECT_EQ(c.wait_for_end(), ending::reset);
    }
}

TEST_F(collector_server, a_slow_body_is_reset_at_the_deadline) {
    options_.deadlines.body = 50ms;
    start();
    for (const std::string& session : {log_in(), std::string("unknown")}) {
        client c(port_);
        ASSERT_TRUE(c.handshake());
        std::string text = poll_text(session, "1234567890");
        ASSERT_TRUE(c.send(text.substr(0, text.size() - 1)));
        EXPECT_EQ(c.wait_for_end(), ending::reset);
    }
}

TEST_F(collector_server, trickling_does_not_stretch_the_deadline_of_the_whole) {
    options_.deadlines.whole = 300ms;
    start();
    client c(port_);
    ASSERT_TRUE(c.handshake());
    auto begin = std::chrono::steady_clock::now();
    while (c.send("P") && std::chrono::steady_clock::now() - begin < 10s) {
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
}

/* ---- limits ---- */

TEST_F(collector_server, connections_beyond_the_limit_of_one_address_are_reset) {
    options_.max_per_address = 3;
    start();
    std::deque<client> held;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(held.emplace_back(port_).handshake());
    }
    client fourth(port_);
    EXPECT_EQ(fourth.wait_for_end(), ending::reset);
    client elsewhere(port_, "127.0.0.2");
    EXPECT_TRUE(elsewhere.handshake());
    held.pop_front();
    bool again = false;
    for (int i = 0; i < 1000 && !again; ++i) {
        client c(port_);
        again = c.handshake();
    }
    EXPECT_TRUE(again);
}

TEST_F(collector_server, connections_beyond_the_limit_in_all_are_reset) {
    options_.max_connections = 2;
    start();
    client one(port_, "127.0.0.1"), two(port_, "127.0.0.2");
    ASSERT_TRUE(one.handshake());
    ASSERT_TRUE(two.handshake());
    client three(port_, "127.0.0.3");
    EXPECT_EQ(three.wait_for_end(), ending::reset);
}

/* ---- shares ---- */

namespace {
/* What those do that want all the places. */
enum class siege { silent, half_a_hello, no_head, half_a_head, unknown_session, known_sessions };

std::string address_of(int i) {
    return "127.0.1." + std::to_string(i);
}
} // namespace

class collector_siege : public collector_server, public testing::WithParamInterface<siege> {
protected:
    void besiege(client& c, int number) {
        siege how = GetParam();
        if (how == siege::silent) {
            return;
        }
        if (how == siege::half_a_hello) {
            c.send_raw("\x16\x03\x01\x02");
            return;
        }
        ASSERT_TRUE(c.handshake());
        std::string session =
            how == siege::known_sessions ? log_in("evil " + std::to_string(number)) : "nobody's";
        std::string text = poll_text(session, "1234567890");
        if (how == siege::half_a_head) {
            ASSERT_TRUE(c.send(text.substr(0, 20)));
        } else if (how != siege::no_head) {
            ASSERT_TRUE(c.send(text.substr(0, text.size() - 1)));
        }
    }
};

TEST_P(collector_siege, eight_addresses_cannot_keep_others_out) {
    options_.max_connections = 80;
    options_.max_per_address = 10;
    options_.deadlines.patience = 1h; /* only because they are so many do they make room */
    start("POL\t0\t30\n");
    std::deque<client> hostile;
    for (int i = 0; i < 80; ++i) {
        ASSERT_NO_FATAL_FAILURE(
            besiege(hostile.emplace_back(port_, address_of(1 + i / 10).c_str()), i));
    }
    for (const char* from : {"127.0.0.1", "127.0.0.2", "127.0.0.3"}) {
        std::string session = ask_from(from, login_text("me@example.org", from)).session;
        ASSERT_EQ(session.size(), 32u) << from;
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(ask_from(from, poll_text(session, "x")).text, empty_text) << from;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(all, collector_siege,
                         testing::Values(siege::silent, siege::half_a_hello, siege::no_head,
                                         siege::half_a_head, siege::unknown_session,
                                         siege::known_sessions));

TEST_F(collector_server, a_poll_that_waits_for_the_store_makes_no_room) {
    options_.max_connections = 3;
    options_.deadlines.patience = 0s;
    start();
    std::string session = log_in();
    store_->hold_back(true);
    client poll(port_);
    ASSERT_TRUE(poll.handshake());
    ASSERT_TRUE(poll.send(poll_text(session, "x")));
    store_->wait_for_blocks(1);
    for (int i = 0; i < 20; ++i) {
        client c(port_, address_of(i + 1).c_str());
        EXPECT_TRUE(c.handshake()) << i;
    }
    store_->hold_back(false);
    ending end;
    EXPECT_EQ(poll.read_all(end), empty_text);
    EXPECT_EQ(end, ending::clean);
}

TEST_F(collector_server, among_equals_the_oldest_makes_room_once_it_has_had_its_time) {
    options_.max_connections = 3;
    options_.deadlines.patience = 0s;
    start();
    client oldest(port_, "127.0.1.1"), second(port_, "127.0.1.2"), third(port_, "127.0.1.3");
    client newcomer(port_, "127.0.0.1");
    EXPECT_TRUE(newcomer.handshake());
    EXPECT_EQ(oldest.wait_for_end(), ending::reset);
    EXPECT_TRUE(second.handshake());
    EXPECT_TRUE(third.handshake());
    EXPECT_EQ(log().at(0), "too many connections: one from 127.0.1.1 had to make room");
}

TEST_F(collector_server, agents_behind_one_address_get_past_a_neighbour_that_says_nothing) {
    options_.max_per_address = 10;
    options_.deadlines.patience = 0s;
    start();
    std::deque<client> silent;
    for (int i = 0; i < 10; ++i) {
        silent.emplace_back(port_);
    }
    for (int i = 0; i < 20; ++i) {
        std::string session = log_in("agent " + std::to_string(i));
        EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
    }
}

/* Polls of a hundred agents at a time, all from one address, among strangers who are silent. */
TEST_F(collector_server, many_agents_behind_one_address_all_get_through) {
    options_.max_connections = 160;
    options_.max_per_address = 120;
    start();
    std::deque<client> hostile;
    for (int i = 0; i < 60; ++i) {
        hostile.emplace_back(port_, address_of(1 + i % 2).c_str());
    }
    std::deque<client> agents;
    std::vector<std::string> sessions;
    for (int i = 0; i < 100; ++i) {
        sessions.push_back(log_in("agent " + std::to_string(i)));
    }
    store_->hold_back(true);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(agents.emplace_back(port_).handshake()) << i;
        ASSERT_TRUE(agents.back().send(poll_text(sessions[size_t(i)], "x")));
    }
    store_->wait_for_blocks(100);
    store_->hold_back(false);
    for (client& c : agents) {
        ending end;
        EXPECT_EQ(c.read_all(end), empty_text);
        EXPECT_EQ(end, ending::clean);
    }
}

/* ---- many ---- */

/* Memory in use; the resident size would show what earlier tests have left to reuse. */
static size_t used_bytes() {
    struct mallinfo2 all = mallinfo2();
    return all.uordblks + all.hblkhd;
}

TEST_F(collector_server, thousands_of_silent_clients_cost_little_and_hinder_nobody) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const size_t count = std::min<size_t>(3000, limit.rlim_cur / 2 - 100);
    options_.max_per_address = count + 10;
    start();
    std::string session = log_in();
    size_t before = used_bytes();
    std::deque<client> silent;
    for (size_t i = 0; i < count; ++i) {
        silent.emplace_back(port_);
    }
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text); /* all are accepted by now */
    size_t each = (used_bytes() - before) / count;
    RecordProperty("bytes_each", int(each));
    if (!sanitized) {
        EXPECT_LT(each, 4096u);
    }
}

TEST_F(collector_server, a_client_in_the_middle_of_its_head_costs_some_kilobytes) {
    const size_t count = 300;
    start();
    std::string session = log_in();
    size_t before = used_bytes();
    std::deque<client> slow;
    for (size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(slow.emplace_back(port_).handshake());
        ASSERT_TRUE(slow.back().send("POST /"));
    }
    EXPECT_EQ(ask(poll_text(session, "x")).text, empty_text);
    size_t each = (used_bytes() - before) / count; /* both ends, each with its TLS state */
    RecordProperty("bytes_each", int(each));
    if (!sanitized) {
        EXPECT_LT(each, 100000u);
    }
}

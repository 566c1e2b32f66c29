/* Streams over sockets: what is heard, who comes back, who does not read, and many. */
#include "web_client.h"

#include <fstream>
#include <sys/resource.h>

using namespace std::chrono_literals;

struct web_streams : web_server_test {
    web_reply open(web_client& c, const std::string& target = "/api/v1/stream",
                   const std::string& lines = "") {
        c.send(web_client::text("GET", target, bearer() + lines));
        return c.reply(false);
    }
    std::string id(uint64_t position) const {
        return "id: " + hub.run() + "-" + std::to_string(position) + "\n";
    }
};

TEST_F(web_streams, what_happens_is_heard) {
    start();
    EXPECT_FALSE(hub.is_heard());
    web_client c(port());
    web_reply r = open(c);
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.value("Content-Type"), "text/event-stream");
    EXPECT_EQ(r.value("Cache-Control"), "no-store");
    EXPECT_EQ(r.value("Content-Length"), "");
    uint64_t at = hub.newest();
    EXPECT_EQ(c.until("\n\n"), "retry: 3000\n" + id(at) + "\n");
    EXPECT_TRUE(hub.is_heard());
    for (int i = 1; i <= 20; i++) {
        tell(hub_kind::result, 1, std::to_string(i));
        EXPECT_EQ(c.until("\n\n"),
                  id(at + uint64_t(i)) + "event: result\ndata: " + std::to_string(i) + "\n\n");
    }
}

TEST_F(web_streams, nobody_listens_any_more) {
    start();
    {
        web_client a(port()), b(port());
        EXPECT_EQ(open(a).status, 200);
        EXPECT_EQ(open(b).status, 200);
        EXPECT_TRUE(hub.is_heard());
    }
    EXPECT_TRUE(eventually([&] { return !hub.is_heard(); }));
    web_client again(port());
    EXPECT_EQ(open(again).status, 200);
    EXPECT_TRUE(hub.is_heard());
}

TEST_F(web_streams, only_who_may) {
    start();
    web_client c(port());
    EXPECT_EQ(c.get("/api/v1/stream").status, 401);
    EXPECT_EQ(c.ask("HEAD", "/api/v1/stream", bearer()).status, 404); /* the API's to answer */
}

TEST_F(web_streams, filters) {
    start();
    web_client c(port());
    open(c, "/api/v1/stream?test=7");
    c.until("\n\n");
    for (int i = 0; i < 10; i++) {
        tell(hub_kind::event, i, std::to_string(i));
    }
    EXPECT_NE(c.until("\n\n").find("data: 7\n"), std::string::npos);
}

TEST_F(web_streams, who_comes_back_misses_nothing) {
    start();
    for (int i = 0; i < 5; i++) {
        tell(hub_kind::event, 1, std::to_string(i));
    }
    uint64_t at = hub.newest();
    web_client c(port());
    open(c, "/api/v1/stream",
         "Last-Event-ID: " + hub.run() + "-" + std::to_string(at - 2) + "\r\n");
    EXPECT_EQ(c.until("\n\n"), "retry: 3000\n" + id(at - 2) + "\n");
    EXPECT_EQ(c.until("\n\n"), id(at - 1) + "event: event\ndata: 3\n\n");
    EXPECT_EQ(c.until("\n\n"), id(at) + "event: event\ndata: 4\n\n");
    for (const char* other : {"another.run-5", "nonsense", "-1"}) {
        web_client lost(port());
        open(lost, "/api/v1/stream", "Last-Event-ID: " + std::string(other) + "\r\n");
        EXPECT_EQ(lost.until("\n\n"), "retry: 3000\n" + id(at) + "\n");
        EXPECT_EQ(lost.until("\n\n"), "event: lost\ndata: {}\n\n");
    }
}

TEST_F(web_streams, a_quiet_one_is_kept_open_until_the_token_goes) {
    options.limits.beat = 200ms;
    start();
    web_client c(port());
    open(c);
    c.until("\n\n");
    EXPECT_EQ(c.until("\n\n"), ":\n\n");
    EXPECT_EQ(c.until("\n\n"), ":\n\n");
    ASSERT_TRUE(kept->drop_token(1, error)) << error;
    while (c.until("\n\n") == ":\n\n") {
    }
    EXPECT_TRUE(c.ends());
}

TEST_F(web_streams, a_busy_one_ends_with_the_token_too) {
    options.limits.beat = 1h; /* it does not wait for that */
    start();
    web_client c(port());
    open(c);
    ASSERT_TRUE(kept->drop_token(1, error)) << error;
    std::atomic<bool> over = false;
    std::thread teller([&] {
        while (!over) {
            tell(hub_kind::result, 1, "{}");
            std::this_thread::sleep_for(5ms);
        }
    });
    while (!c.until("\n\n").empty()) {
    }
    over = true;
    teller.join();
}

TEST_F(web_streams, over_tls) {
    start(true);
    web_client c(port(), true);
    EXPECT_EQ(open(c).status, 200);
    c.until("\n\n");
    for (int i = 0; i < 5; i++) {
        tell(hub_kind::agent, 1, std::to_string(i));
        EXPECT_NE(c.until("\n\n").find("data: " + std::to_string(i)), std::string::npos);
    }
}

TEST_F(web_streams, so_many_and_no_more) {
    options.limits.streams = 2;
    start();
    web_client a(port()), b(port()), c(port());
    EXPECT_EQ(open(a).status, 200);
    EXPECT_EQ(open(b).status, 200);
    c.send(web_client::text("GET", "/api/v1/stream", bearer()));
    EXPECT_EQ(c.reply().status, 503);
}

/* A token may have many sessions: these share its streams. */
TEST_F(web_streams, so_many_of_one_and_no_more) {
    options.limits.streams_of_one = 2;
    start();
    const std::string other =
        add_secret(*kept, token_kind::token, role::viewer, "other", now, 0, error);
    stored_token session;
    session.kind = token_kind::session;
    session.role = static_cast<uint8_t>(role::viewer);
    session.name = "tester";
    session.made = now;
    session.ends = now + 1000;
    session.parent = 1;
    bool is_taken = false;
    std::string of_tester = keep_secret(*kept, session, is_taken, error);
    ASSERT_NE(of_tester, "") << error;
    auto status = [&](web_client& c, const std::string& secret) {
        c.send(web_client::text("GET", "/api/v1/stream", bearer(secret)));
        return c.reply(false);
    };
    web_client b(port()), third(port()), of_session(port()), of_other(port());
    {
        web_client a(port());
        EXPECT_EQ(status(a, token).status, 200);
        EXPECT_EQ(status(b, of_tester).status, 200);
        web_reply r = status(third, token);
        EXPECT_EQ(r.status, 429);
        EXPECT_EQ(r.value("Retry-After"), "5");
        EXPECT_NE(third.until("}").find("This token has 2 streams open, its sessions included: end "
                                        "one of them first."),
                  std::string::npos);
        EXPECT_EQ(status(of_session, of_tester).status, 429);
        EXPECT_EQ(status(of_other, other).status, 200);
    }
    EXPECT_TRUE(eventually([&] { /* what has ended counts no longer */
                                 web_client again(port());
                                 return status(again, token).status == 200;
    }));
}

/* They make room for nobody: with all places theirs nobody could ask anything. */
TEST_F(web_streams, leave_places_to_others) {
    options.limits.connections = 16;
    start();
    std::vector<std::unique_ptr<web_client>> all;
    for (int i = 0; i < 14; i++) {
        all.push_back(std::make_unique<web_client>(port()));
        EXPECT_EQ(open(*all.back()).status, 200);
    }
    web_client more(port()), other(port());
    more.send(web_client::text("GET", "/api/v1/stream", bearer()));
    EXPECT_EQ(more.reply().status, 503);
    EXPECT_EQ(other.get("/echo", bearer()).status, 200);
}

TEST_F(web_streams, who_says_too_much_is_ended) {
    start();
    web_client c(port());
    open(c);
    c.until("\n\n");
    bool sent = true;
    for (int i = 0; sent && i < 10000; i++) {
        sent = c.send(std::string(10000, 'x'));
    }
    EXPECT_FALSE(sent);
}

/* One that does not read holds up nobody and is let go; who reads gets everything, in order. */
TEST_F(web_streams, slow_ones_cost_others_nothing) {
    options.limits.answer_time = 500ms;
    start();
    web_client slow(port()), quick(port());
    int small = 4096;
    setsockopt(slow.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    open(slow);
    open(quick);
    quick.until("\n\n");
    enum { count = 3000 };
    std::thread teller([&] {
        for (int i = 0; i < count; i++) {
            hub.publish(hub_kind::result, 1, 1, std::to_string(i) + " " + std::string(1000, 'x'));
            if (i % 10 == 0) {
                hub.flush();
            }
        }
        hub.flush();
    });
    for (int i = 0; i < count; i++) {
        std::string text = quick.until("\n\n");
        ASSERT_NE(text.find("data: " + std::to_string(i) + " x"), std::string::npos) << i;
    }
    teller.join();
    EXPECT_TRUE(eventually([&] {
        int problem = 0;
        socklen_t size = sizeof problem;
        getsockopt(slow.fd(), SOL_SOCKET, SO_ERROR, &problem, &size);
        return problem == ECONNRESET;
    }));
}

/* As many as descriptors allow, both ends being here. */
TEST_F(web_streams, a_thousand) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const size_t count = std::min<size_t>(1000, limit.rlim_cur / 2 - 100);
    start();
    std::vector<std::unique_ptr<web_client>> all;
    for (size_t i = 0; i < count; i++) {
        all.push_back(std::make_unique<web_client>(port()));
        ASSERT_EQ(open(*all.back()).status, 200) << i;
    }
    for (int i = 0; i < 5; i++) {
        tell(hub_kind::result, 1, std::to_string(i));
    }
    for (const auto& c : all) {
        for (int i = 0; i < 5; i++) {
            ASSERT_NE(c->until("event: result\n"), "");
            ASSERT_EQ(c->until("\n\n"), "data: " + std::to_string(i) + "\n\n");
        }
    }
}

/* Who has to come again while the collector catches up, and that nothing is lost by it. */
#include "collector_server.h"
#include "eventually.h"

using namespace std::chrono_literals;

struct catching_up_test : collector_server {
    catching_up_test() { options_.spread = 0ms; }

    uint64_t refused(refusal why) { return counted_.refusals[static_cast<size_t>(why)].get(); }

    /* Sends a head alone: what follows it would take longer than the test. */
    ending bring_head(const std::string& session, size_t bytes, size_t unpacked = 0) {
        client c(port_);
        EXPECT_TRUE(c.handshake());
        std::string head = poll_text(session, std::string(bytes, 'x'), unpacked);
        head.resize(head.size() - bytes);
        EXPECT_TRUE(c.send(head));
        return c.wait_for_end();
    }

    /* Eight that bring something, once all are there. */
    std::vector<std::unique_ptr<client>> eight_wait(const std::string& session) {
        std::vector<std::unique_ptr<client>> agents;
        for (int i = 0; i < 8; i++) {
            agents.push_back(std::make_unique<client>(port_));
            EXPECT_TRUE(agents.back()->handshake() &&
                        agents.back()->send(poll_text(session, "block" + std::to_string(i))));
        }
        EXPECT_TRUE(eventually([&] { return store_->heard_so_far().size() == 9; }));
        return agents;
    }

    std::vector<std::string> lines_with(const std::string& words) {
        std::vector<std::string> found;
        for (const std::string& line : log()) {
            if (line.find(words) != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    }
};

TEST_F(catching_up_test, who_brings_results_is_reset_before_the_body_and_comes_again) {
    start("POL\t0\t30\n");
    const std::string session = log_in();
    store_->behind_ms = 5001;
    EXPECT_EQ(bring_head(session, 3000), ending::reset);
    EXPECT_EQ(ask(poll_text(session, "block")).end, ending::reset);
    EXPECT_TRUE(store_->blocks().empty());
    EXPECT_EQ(refused(refusal::behind), 2u);
    /* It was here, and its tests are not missed. */
    EXPECT_EQ(store_->heard_so_far().size(), 3u);
    EXPECT_EQ(store_->held_up_so_far(), std::vector<std::string>(2, "me@example.org agent"));
    store_->behind_ms = 0;
    EXPECT_EQ(ask(poll_text(session, "block")).text, empty_text); /* the same session */
    ASSERT_EQ(store_->blocks().size(), 1u);
    EXPECT_EQ(store_->blocks()[0].plain, "block");
    EXPECT_EQ(refused(refusal::session), 0u);
}

TEST_F(catching_up_test, half_of_the_limit_has_to_be_left_before_it_is_over) {
    options_.max_behind = 2s;
    start();
    const std::string session = log_in();
    store_->behind_ms = 2000;
    EXPECT_EQ(ask(poll_text(session, "a")).text, empty_text);
    store_->behind_ms = 2001;
    EXPECT_EQ(ask(poll_text(session, "b")).end, ending::reset);
    store_->behind_ms = 1001;
    EXPECT_EQ(ask(poll_text(session, "b")).end, ending::reset);
    store_->behind_ms = 1000;
    EXPECT_EQ(ask(poll_text(session, "b")).text, empty_text);
    finish();
    EXPECT_EQ(lines_with("the store is behind"),
              (std::vector<std::string>{"the store is behind, results have waited 2.0 s: agents "
                                        "that bring such are to come again"}));
    EXPECT_EQ(lines_with("has caught up"),
              (std::vector<std::string>{"the store has caught up with results; 2 times an agent "
                                        "had to come again"}));
}

TEST_F(catching_up_test, a_poll_without_results_is_answered) {
    start("POL\t0\t30\n");
    const std::string session = log_in();
    store_->behind_ms = 60000;
    write_plan("POL\t0\t30\nLAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(ask(poll_text(session, "")).body, "LAA\t7\t1\t5\t5\t5\n");
    EXPECT_EQ(refused(refusal::behind), 0u);
}

/* What takes turns is held to its own kind, whichever size it has on the way. */
TEST_F(catching_up_test, large_blocks_and_others_do_not_wait_for_each_other) {
    start();
    const std::string session = log_in(), other = log_in("other");
    const std::string large(200000, 'a'), wire = pack(large);
    ASSERT_LT(wire.size(), 100000u);
    store_->large_behind_ms = 9000;
    EXPECT_EQ(bring_head(session, wire.size(), large.size()), ending::reset);
    EXPECT_EQ(bring_head(session, 150000), ending::reset);
    EXPECT_EQ(ask(poll_text(other, "small")).text, empty_text);
    EXPECT_EQ(ask(login_text("me@example.org", "third")).end,
              ending::reset); /* who knows what it has */
    store_->large_behind_ms = 0;
    store_->behind_ms = 9000;
    EXPECT_EQ(ask(poll_text(session, wire, large.size(), sum_of(wire))).text, empty_text);
    EXPECT_EQ(bring_head(other, 5), ending::reset);
}

TEST_F(catching_up_test, nobody_logs_in_meanwhile) {
    start("POL\t0\t30\n");
    const std::string old(32, 'f');
    store_->behind_ms = 6000;
    reply r = ask(login_text("me@example.org", "agent"));
    EXPECT_EQ(r.text, "");
    EXPECT_EQ(r.end, ending::reset);
    EXPECT_EQ(store_->heard_so_far().size(), 1u);    /* not silent, */
    EXPECT_EQ(store_->held_up_so_far().size(), 1u);  /* and its tests not stale */
    EXPECT_EQ(bring_head(old, 2000), ending::reset); /* nor is it told to */
    EXPECT_EQ(refused(refusal::behind), 2u);
    EXPECT_EQ(counted_.logins.get(), 0u);
    store_->behind_ms = 0;
    EXPECT_EQ(ask(poll_text(old, "block")).text, refused_text);
    EXPECT_EQ(log_in().size(), 32u);
}

TEST_F(catching_up_test, an_account_that_is_not_on_the_list_is_told_so_all_the_same) {
    options_.allow = {"me@example.org"};
    start();
    store_->behind_ms = 6000;
    EXPECT_EQ(ask(login_text("stranger@example.org", "agent")).body,
              "This account is not allowed here.\n");
    EXPECT_TRUE(store_->heard_so_far().empty());
}

/* Each at another time of the interval, so that those who come together do not stay together. */
TEST_F(catching_up_test, who_is_sent_away_is_so_after_a_time_by_chance) {
    options_.spread = 400ms;
    start();
    const std::string session = log_in();
    store_->behind_ms = 6000;
    std::vector<std::thread> agents;
    std::mutex mutex;
    std::vector<int64_t> took;
    for (int i = 0; i < 20; i++) {
        agents.emplace_back([&] {
            const auto begun = std::chrono::steady_clock::now();
            EXPECT_EQ(bring_head(session, 100), ending::reset);
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - begun);
            std::lock_guard hold(mutex);
            took.push_back(ms.count());
        });
    }
    for (std::thread& agent : agents) {
        agent.join();
    }
    const auto [first, last] = std::ranges::minmax(took);
    EXPECT_GE(last, 150) << "none of twenty was kept for long";
    EXPECT_GE(last - first, 50) << "all were kept for the same time";
}

TEST_F(catching_up_test, who_waits_when_the_store_has_caught_up_goes_on) {
    options_.spread = 3s;
    start();
    const std::string session = log_in();
    store_->behind_ms = 6000;
    std::vector<std::unique_ptr<client>> agents = eight_wait(session);
    store_->behind_ms = 0;
    int through = 0;
    for (auto& agent : agents) {
        through += agent->read_reply().text == empty_text;
    }
    EXPECT_GE(through, 1);
    EXPECT_EQ(store_->blocks().size(), static_cast<size_t>(through));
    EXPECT_EQ(refused(refusal::behind), 8u - static_cast<size_t>(through));
}

TEST_F(catching_up_test, what_waits_ends_with_the_server) {
    options_.spread = 60s;
    options_.deadlines.stop = 60s;
    start();
    const std::string session = log_in();
    store_->behind_ms = 6000;
    std::vector<std::unique_ptr<client>> agents = eight_wait(session);
    const auto begun = std::chrono::steady_clock::now();
    finish();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 10s);
    for (auto& agent : agents) {
        EXPECT_EQ(agent->wait_for_end(), ending::reset);
    }
}

/* ---- logins ---- */

TEST_F(catching_up_test, logins_wait_for_their_turn_and_beyond_that_come_again) {
    options_.logins = {.rate = 1, .idle = 2s, .wait = 1500ms};
    options_.max_per_address = 100;
    start("POL\t0\t30\n");
    /* Two at once, one that waits; the others are reset, unless the machine takes ten seconds. */
    std::vector<std::unique_ptr<client>> agents;
    for (int i = 0; i < 12; i++) {
        agents.push_back(std::make_unique<client>(port_, i % 2 ? "127.0.0.1" : "127.0.0.2"));
        ASSERT_TRUE(agents.back()->handshake());
    }
    for (int i = 0; i < 12; i++) {
        ASSERT_TRUE(agents[static_cast<size_t>(i)]->send(
            login_text("me@example.org", "agent" + std::to_string(i))));
    }
    size_t in = 0, reset = 0;
    for (auto& agent : agents) {
        reply r = agent->read_reply();
        in += r.session.size() == 32;
        reset += r.end == ending::reset;
    }
    EXPECT_EQ(in + reset, 12u);
    EXPECT_GE(in, 2u);
    EXPECT_GE(reset, 1u);
    EXPECT_EQ(counted_.logins.get(), in);
    EXPECT_EQ(refused(refusal::logins), reset);
    EXPECT_EQ(store_->heard_so_far().size(), 12u);
    EXPECT_EQ(store_->held_up_so_far().size(), reset);
    EXPECT_EQ(lines_with("too many log-ins at a time").size(), reset);
    /* Whoever comes again is let in, one after the other. */
    for (int i = 0; i < 3; i++) {
        for (int tries = 0; log_in("late" + std::to_string(i)).size() != 32; tries++) {
            ASSERT_LT(tries, 1000);
            std::this_thread::sleep_for(20ms);
        }
    }
}

/* It costs one handshake, not two, to be sent away at the wrong time. */
TEST_F(catching_up_test, an_unknown_session_is_told_so_when_it_may_log_in) {
    options_.logins = {.rate = 1, .idle = 2s, .wait = 0ms};
    start("POL\t0\t30\n");
    std::vector<std::unique_ptr<client>> agents;
    for (int i = 0; i < 12; i++) {
        agents.push_back(std::make_unique<client>(port_));
        ASSERT_TRUE(agents.back()->handshake());
    }
    for (auto& agent : agents) {
        ASSERT_TRUE(agent->send(poll_text(std::string(32, 'a'), "block")));
    }
    std::vector<std::string> told;
    for (auto& agent : agents) {
        reply r = agent->read_reply();
        if (r.text == refused_text) {
            told.push_back("agent" + std::to_string(told.size()));
        } else {
            EXPECT_EQ(r.end, ending::reset);
        }
    }
    ASSERT_GE(told.size(), 2u);
    ASSERT_LT(told.size(), 12u);
    EXPECT_EQ(refused(refusal::session), told.size());
    EXPECT_EQ(refused(refusal::logins), 12 - told.size());
    /* The turns are theirs: two, at the least, are not gone by now. */
    EXPECT_EQ(log_in("one").size(), 32u);
    EXPECT_EQ(log_in("two").size(), 32u);
}

/* What the collector counts of itself. */
#include "collector_server.h"
#include "ingest/counters.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

namespace {

uint64_t of(const counters& c, refusal why) {
    return c.refusals[static_cast<size_t>(why)].get();
}

} // namespace

TEST(counters, every_refusal_has_a_word_of_its_own) {
    std::set<std::string> words;
    for (size_t i = 0; i < static_cast<size_t>(refusal::count); i++) {
        words.insert(refusal_word(static_cast<refusal>(i)));
    }
    EXPECT_EQ(words.size(), static_cast<size_t>(refusal::count));
    EXPECT_FALSE(words.contains(""));
}

TEST(counters, a_duration_counts_up_to_each_bound) {
    duration_counter d;
    for (double s : {0.0, 0.001, 0.0011, 0.3, 7.0, -1.0}) {
        d.add(s);
    }
    EXPECT_EQ(d.count(0), 3u); /* a clock that went back took no time */
    EXPECT_EQ(d.count(1), 4u);
    EXPECT_EQ(d.count(7), 4u); /* 0.25 s */
    EXPECT_EQ(d.count(8), 5u); /* 1 s */
    EXPECT_EQ(d.count(9), 5u);
    EXPECT_EQ(d.all(), 6u);
    EXPECT_NEAR(d.sum(), 7.3021, 0.00001);
}

TEST(pulse, says_why_results_are_not_stored) {
    using std::chrono::seconds;
    const store_pulse::clock::time_point noon = store_pulse::clock::now();
    store_pulse pulse;
    EXPECT_EQ(pulse.trouble(noon), "The collector is starting.");
    pulse.beat(noon);
    pulse.set(storing_state::takes_over);
    EXPECT_EQ(pulse.trouble(noon), "Results are not stored yet: what an earlier version stored is "
                                   "being taken over.");
    pulse.set(storing_state::works);
    EXPECT_EQ(pulse.trouble(noon + seconds(30)), "");
    EXPECT_EQ(pulse.trouble(noon + seconds(31)),
              "Results are not stored: storing has been stuck for more than 30 seconds.");
    pulse.beat(noon + seconds(31));
    EXPECT_EQ(pulse.trouble(noon + seconds(31)), "");
    for (const char* full : {"/var/lib/x/results.db: database or disk is full",
                             "write: No space left on device", "x: Disk quota exceeded"}) {
        pulse.set_failed(full);
        EXPECT_EQ(pulse.trouble(noon), "Results cannot be stored: the disk is full.");
    }
    for (const char* other : {"", "/var/lib/x/results.db: disk I/O error"}) {
        pulse.set_failed(other);
        EXPECT_EQ(pulse.trouble(noon), "Results cannot be stored; the collector's log says why.");
    }
}

TEST_F(collector_server, what_becomes_of_connections_and_polls_is_counted) {
    options_.allow = {"me@example.org"};
    options_.body.max_wire = 1000;
    start();
    std::string session = log_in();
    ask(login_text("stranger@example.org", "agent"));
    ask(poll_text(session, "x"));
    store_->will_answer(store_result::duplicate);
    ask(poll_text(session, "x"));
    store_->will_answer(store_result::failed);
    ask(poll_text(session, "y"));
    ask(poll_text("0123456789abcdef0123456789abcdef", "z"));
    ask(poll_text(session, "no zlib", 100, sum_of("no zlib")));
    ask(poll_text(session, std::string(1001, 'x')));
    ask("GARBAGE\r\n\r\n");
    client plain(port_);
    plain.send_raw("GARBAGE\r\n\r\n");
    EXPECT_EQ(plain.wait_for_end(), ending::reset);
    finish();
    EXPECT_EQ(counted_.connections.get(), 10u);
    EXPECT_EQ(counted_.open_connections.get(), 0u);
    EXPECT_EQ(counted_.logins.get(), 1u);
    EXPECT_EQ(counted_.sessions.get(), 1u);
    EXPECT_EQ(counted_.polls.get(), 1u);
    EXPECT_EQ(counted_.repeated_polls.get(), 1u);
    EXPECT_EQ(counted_.body_bytes.get(), 10u);
    EXPECT_EQ(counted_.waited.all(), 3u);
    EXPECT_EQ(of(counted_, refusal::account), 1u);
    EXPECT_EQ(of(counted_, refusal::storing), 1u);
    EXPECT_EQ(of(counted_, refusal::session), 1u);
    EXPECT_EQ(of(counted_, refusal::body), 2u);
    EXPECT_EQ(of(counted_, refusal::request), 1u);
    EXPECT_EQ(of(counted_, refusal::tls), 1u);
}

TEST_F(collector_server, who_finds_no_place_or_goes_by_anothers_name_is_counted) {
    options_.max_per_address = 2;
    start();
    std::string first = log_in("one");
    reply second = ask(login_text("me@example.org", "one"), "127.0.0.2");
    ask(poll_text(second.session, "a"), "127.0.0.2");
    ask(poll_text(first, "b"));
    ask(poll_text(first, "c"));
    ask(login_text("me@example.org", "one"), "127.0.0.2");
    client a(port_), b(port_);
    ASSERT_TRUE(a.handshake());
    ASSERT_TRUE(b.handshake());
    EXPECT_EQ(counted_.open_connections.get(), 2u);
    client third(port_);
    EXPECT_EQ(third.wait_for_end(), ending::reset);
    EXPECT_EQ(of(counted_, refusal::name), 1u);
    EXPECT_EQ(of(counted_, refusal::address), 1u);
}

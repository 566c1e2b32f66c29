/* The web server without sockets: heads, hosts, rates, the line for the reading threads, answers,
 * pieces of a stream. */
#include "base/rates.h"
#include "unzipped.h"
#include "web/answer.h"
#include "web/budget.h"
#include "web/readers.h"
#include "web/request_head.h"
#include "web/stream.h"
#include "web/trust.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>

using namespace std::chrono_literals;

/* ---- request_head ---- */

namespace {

struct heard {
    request_head head;
    int status = 0;
    std::string detail;
};

heard take(const std::string& text, const web_limits& limits = {}, bool tls = false) {
    heard out;
    if (auto bad = read_head(text, limits, tls, out.head)) {
        out.status = bad->status;
        out.detail = bad->detail;
    }
    return out;
}

heard with(const std::string& lines) {
    return take("GET /a HTTP/1.1\r\nHost: h\r\n" + lines + "\r\n");
}

} // namespace

TEST(web_head, what_is_asked) {
    heard r = take("GET /api/v1/tests?q=a%20b HTTP/1.1\r\nHost: localhost:8080\r\n\r\n");
    EXPECT_EQ(r.status, 0) << r.detail;
    EXPECT_EQ(r.head.method, "GET");
    EXPECT_EQ(r.head.target, "/api/v1/tests?q=a%20b");
    EXPECT_EQ(r.head.path(), "/api/v1/tests");
    EXPECT_EQ(r.head.host, "localhost:8080");
    EXPECT_TRUE(r.head.keep_alive);
    EXPECT_TRUE(r.head.only_reads());
    EXPECT_FALSE(r.head.has_authorization || r.head.has_origin || r.head.takes_gzip);
    EXPECT_EQ(r.head.content_length, 0u);
    r = with("Authorization: bearer  vt_x \r\nOrigin: null\r\nIf-None-Match: \"1\"\r\n"
             "Last-Event-ID: 1-2\r\nContent-Length: 17\r\nExpect: 100-Continue\r\n");
    EXPECT_EQ(r.status, 0) << r.detail;
    EXPECT_EQ(r.head.bearer, "vt_x");
    EXPECT_EQ(r.head.secret(), "vt_x");
    EXPECT_TRUE(r.head.has_origin && r.head.expects_continue);
    EXPECT_EQ(r.head.origin, "null");
    EXPECT_EQ(r.head.if_none_match, "\"1\"");
    EXPECT_EQ(r.head.last_event_id, "1-2");
    EXPECT_EQ(r.head.content_length, 17u);
    EXPECT_EQ(r.head.accept, "");
    EXPECT_EQ(with("Accept: a/b;q=0.5\r\nX: y\r\nAccept: c/d, */*\r\n").head.accept,
              "a/b;q=0.5, c/d, */*");
}

TEST(web_head, keep_alive) {
    EXPECT_FALSE(with("Connection: close\r\n").head.keep_alive);
    EXPECT_FALSE(take("GET / HTTP/1.0\r\nHost: h\r\n\r\n").head.keep_alive);
    EXPECT_FALSE(
        take("GET / HTTP/1.0\r\nHost: h\r\nConnection: keep-alive\r\n\r\n").head.keep_alive);
}

TEST(web_head, cookies) {
    EXPECT_EQ(with("Cookie: a=b; vindral-80=vs_1; vindral-80=vs_2\r\n").head.cookie, "vs_1");
    EXPECT_EQ(with("Cookie: a=b\r\nCookie: vindral-80=vs_1\r\n").head.cookie, "vs_1");
    for (const char* other : {"xvindral-80=vs_1", "vindral-80", "__Host-vindral-80=vs_1",
                              "Vindral-80=vs_1", ";;=;", "vindral=vs_1", "vindral-8080=vs_1"}) {
        EXPECT_EQ(with("Cookie: " + std::string(other) + "\r\n").head.cookie, "") << other;
    }
    const std::string head =
        "GET / HTTP/1.1\r\nHost: h\r\nCookie: vindral-80=1; __Host-vindral-443=2\r\n\r\n";
    EXPECT_EQ(take(head).head.cookie, "1");
    EXPECT_EQ(take(head, {}, true).head.cookie, "2");
    /* a token that is wrong is not made good by a cookie */
    heard r = with("Cookie: vindral-80=vs_1\r\nAuthorization: Basic dTpw\r\n");
    EXPECT_EQ(r.head.secret(), "");
}

/* Browsers send a host's cookies to all of its ports. */
TEST(web_head, a_cookie_of_each_port) {
    const std::string both = "\r\nCookie: vindral-8080=1; vindral-8081=2; vindral-80=3\r\n\r\n";
    for (auto [host, cookie] : {std::pair("h:8080", "1"),
                                {"h:8081", "2"},
                                {"h", "3"},
                                {"h:80", "3"},
                                {"h:8082", ""},
                                {"[::1]:8080", "1"}}) {
        EXPECT_EQ(take("GET / HTTP/1.1\r\nHost: " + std::string(host) + both).head.cookie, cookie)
            << host;
    }
    EXPECT_EQ(cookie_name(true, "h"), "__Host-vindral-443");
    EXPECT_EQ(cookie_name(true, "h:8443"), "__Host-vindral-8443");
    for (const char* none :
         {"", ":", "h:", "8080", "[::1]", "[::8080", "h:123456", "h:80x", "h80"}) {
        EXPECT_EQ(cookie_name(false, none), "vindral-80") << none;
    }
}

TEST(web_head, gzip) {
    for (const char* yes :
         {"gzip", "deflate, GZIP", "x-gzip", "*", "gzip;q=0.5", "br;q=1,gzip; q=1.0"}) {
        EXPECT_TRUE(with("Accept-Encoding: " + std::string(yes) + "\r\n").head.takes_gzip) << yes;
    }
    for (const char* no :
         {"", "br", "gzip;q=0", "gzip; q=0.000", "*;q=0", "gzip;q=0, *", "identity"}) {
        EXPECT_FALSE(with("Accept-Encoding: " + std::string(no) + "\r\n").head.takes_gzip) << no;
    }
}

TEST(web_head, absolute_targets) {
    EXPECT_EQ(take("GET http://h/a?b HTTP/1.1\r\nHost: h\r\n\r\n").head.target, "/a?b");
    EXPECT_EQ(take("GET HTTP://h:80 HTTP/1.1\r\nHost: h:80\r\n\r\n").head.target, "/");
    EXPECT_EQ(take("GET http://h?b HTTP/1.1\r\nHost: h\r\n\r\n").head.target, "/?b");
    EXPECT_EQ(take("GET http://evil/a HTTP/1.1\r\nHost: h\r\n\r\n").status, 400);
}

TEST(web_head, nonsense_is_refused) {
    const std::pair<int, std::string> cases[] = {
        {400, "GARBAGE\r\n\r\n"},
        {400, "\r\n\r\n"},
        {400, "GET /a\r\n\r\n"},
        {400, "GET /a HTTP/1.1\r\n\r\n"},
        {400, "GET /a HTTP/1.1\r\nHost: a\r\nHost: a\r\n\r\n"},
        {505, "GET /a HTTP/1.1\nHost: a\n\r\n\r\n"},
        {400, "GET a HTTP/1.1\r\nHost: a\r\n\r\n"},
        {400, "GET /\xc3\xa4 HTTP/1.1\r\nHost: a\r\n\r\n"},
        {400, std::string("GET /\0 HTTP/1.1\r\nHost: a\r\n\r\n", 28)},
        {400, "GET /a HTTP/1.1\r\nHost : a\r\n\r\n"},
        {400, "GET /a HTTP/1.1\r\nHost: a\r\nAuthorization: Bearer 1\r\nAuthorization: Bearer "
              "2\r\n\r\n"},
        {400, "GET /a HTTP/1.1\r\nHost: a\r\nOrigin: http://a\r\nOrigin: http://b\r\n\r\n"},
        {400, "POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n"},
        {400, "POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n"},
        {400, "POST /a HTTP/1.1\r\nHost: a\r\nContent-Length: 99999999999999999999999\r\n\r\n"},
        {411, "POST /a HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"},
        {411,
         "POST /a HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: identity\r\nContent-Length: 3\r\n\r\n"},
        {417, "POST /a HTTP/1.1\r\nHost: a\r\nExpect: the unexpected\r\n\r\n"},
        {505, "GET /a HTTP/1.2\r\nHost: a\r\n\r\n"},
        {505, "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"},
    };
    for (const auto& [status, text] : cases) {
        heard r = take(text);
        EXPECT_EQ(r.status, status) << text << r.detail;
        EXPECT_TRUE(r.detail.ends_with(".")) << r.detail;
    }
}

TEST(web_head, what_is_too_long) {
    web_limits limits;
    limits.head = 1000;
    limits.target = 500;
    auto with_target = [](size_t length) {
        return "GET /" + std::string(length - 1, 'a') + " HTTP/1.1\r\nHost: h\r\n\r\n";
    };
    EXPECT_EQ(take(with_target(500), limits).status, 0);
    EXPECT_EQ(take(with_target(501), limits).status, 414);
    EXPECT_EQ(take(with_target(5000), limits).status, 414);
    const std::string head = "GET / HTTP/1.1\r\nHost: h\r\nX: ";
    EXPECT_EQ(take(head + std::string(1000 - head.size() - 4, 'x') + "\r\n\r\n", limits).status, 0);
    EXPECT_EQ(take(head + std::string(1001 - head.size() - 4, 'x') + "\r\n\r\n", limits).status,
              431);
    EXPECT_EQ(too_long_a_head(head + std::string(2000, 'x'), limits).status, 431);
    EXPECT_EQ(too_long_a_head("GET /" + std::string(2000, 'x'), limits).status, 414);
}

TEST(web_head, where_it_ends) {
    EXPECT_EQ(head_end("GET / HTTP/1.1\r\n\r\nmore", 0), 18u);
    EXPECT_EQ(head_end("GET / HTTP/1.1\r\n\r\nmore", 17), 18u);
    EXPECT_EQ(head_end("GET / HTTP/1.1\r\n\r", 0), 0u);
    EXPECT_EQ(leading_blank("\r\n\r\nGET"), 4u);
    EXPECT_EQ(leading_blank("\r\n"), 2u);
    EXPECT_EQ(leading_blank("GET\r\n"), 0u);
}

/* ---- trust ---- */

TEST(web_trust, hosts) {
    const std::vector<std::string> names = {"mon.example.org", "*.lab.example.org", "192.0.2.7",
                                            "2001:db8::7"};
    for (const char* own : {"mon.example.org", "MON.Example.ORG:8080", "mon.example.org.",
                            "localhost", "localhost:1", "a.lab.example.org", "192.0.2.7:443",
                            "[2001:db8::7]", "[2001:DB8:0::7]:8443", "198.51.100.1"}) {
        EXPECT_TRUE(is_own_host(own, names, "::ffff:198.51.100.1", false)) << own;
    }
    for (const char* other : {"",
                              "evil.org",
                              "mon.example.org.evil.org",
                              "xmon.example.org",
                              "a.b.lab.example.org",
                              "lab.example.org",
                              ".lab.example.org",
                              "192.0.2.8",
                              "[::1]",
                              "127.0.0.1",
                              "localhost.evil.org",
                              "mon.example.org:x",
                              "mon.example.org:123456",
                              "[mon.example.org]",
                              "[::1",
                              "2001:db8::7",
                              "user@mon.example.org",
                              "mon.example.org/",
                              "mon example.org",
                              "127.1",
                              "[192.0.2.7]"}) {
        EXPECT_FALSE(is_own_host(other, names, "198.51.100.1", false)) << other;
    }
    for (const char* address : {"127.0.0.1:8080", "[::1]", "10.1.2.3"}) {
        EXPECT_TRUE(is_own_host(address, {}, "127.0.0.1", true)) << address;
    }
    EXPECT_FALSE(is_own_host("rebound.evil.org:8080", {}, "127.0.0.1", true));
}

TEST(web_trust, origins) {
    EXPECT_TRUE(is_own_origin("http://localhost:8080", "localhost:8080", false));
    EXPECT_TRUE(is_own_origin("HTTP://LocalHost:8080", "localhost:8080", false));
    EXPECT_TRUE(is_own_origin("https://mon", "mon:443", true));
    EXPECT_TRUE(is_own_origin("http://mon:80", "mon", false));
    for (const char* other : {"", "null", "http://", "http://localhost", "http://localhost:8081",
                              "https://localhost:8080", "http://localhost:8080/",
                              "http://localhost:8080.evil.org", "localhost:8080"}) {
        EXPECT_FALSE(is_own_origin(other, "localhost:8080", false)) << other;
    }
    EXPECT_FALSE(is_own_origin("http://mon", "mon", true));
    EXPECT_FALSE(is_own_origin("http://", "", false));
}

/* ---- rates ---- */

TEST(web_rates, so_many_a_minute) {
    rate_limit limit(60);
    rate_limit::time now{1h};
    const caller_key one{true, 1}, other{false, 1};
    for (int i = 0; i < 60; i++) {
        EXPECT_EQ(limit.take(one, now), 0);
    }
    EXPECT_EQ(limit.take(one, now), 1);
    EXPECT_EQ(limit.take(other, now), 0);
    EXPECT_EQ(limit.take(one, now + 500ms), 1);
    EXPECT_EQ(limit.take(one, now + 1001ms), 0);
    EXPECT_EQ(limit.take(one, now + 1002ms), 1);
    for (int i = 0; i < 60; i++) { /* a pause does not save up more */
        EXPECT_EQ(limit.take(one, now + 1h), 0);
    }
    EXPECT_EQ(limit.take(one, now + 1h), 1);
    EXPECT_EQ(limit.take(one, now), 1); /* a clock that goes back */
}

TEST(web_rates, remembers_so_many) {
    rate_limit limit(2, 10);
    rate_limit::time now{1h};
    for (uint64_t i = 0; i < 10; i++) {
        EXPECT_EQ(limit.take({false, i}, now), 0);
    }
    EXPECT_EQ(limit.take({false, 100}, now), 0);
    EXPECT_EQ(limit.take({false, 101}, now), 0);
    EXPECT_NE(limit.take({false, 102}, now), 0);
    EXPECT_NE(limit.take({false, 103}, now), 0);
    EXPECT_EQ(limit.remembered(), 10u);
    EXPECT_EQ(limit.take({false, 1}, now), 0);
    EXPECT_EQ(limit.take({false, 104}, now + 2min), 0); /* those who paused are forgotten */
    EXPECT_EQ(limit.remembered(), 1u);
}

TEST(web_budget, is_given_back) {
    memory_budget budget(100);
    {
        memory_budget::share a = budget.take(60);
        EXPECT_TRUE(a);
        EXPECT_FALSE(budget.take(41));
        memory_budget::share b = budget.take(40);
        EXPECT_TRUE(b);
        memory_budget::share c = std::move(a);
        a = memory_budget::share();
        EXPECT_EQ(budget.used(), 100u);
        EXPECT_FALSE(budget.take(SIZE_MAX));
    }
    EXPECT_EQ(budget.used(), 0u);
}

TEST(web_budget, is_nobodys_alone) {
    memory_budget budget(100);
    caller_budget of_callers(budget, 60);
    const caller_key one{true, 1}, other{false, 1};
    {
        caller_budget::share a = of_callers.take(one, 50);
        EXPECT_TRUE(a);
        EXPECT_FALSE(of_callers.take(one, 11));
        EXPECT_FALSE(of_callers.take(other, 61));
        caller_budget::share b = of_callers.take(one, 10);
        caller_budget::share c = of_callers.take(other, 40);
        EXPECT_TRUE(b && c);
        EXPECT_FALSE(of_callers.take(other, 1)) << "there is no more";
        EXPECT_EQ(budget.used(), 100u);
        caller_budget::share d = std::move(a);
        a = caller_budget::share();
        EXPECT_EQ(budget.used(), 100u);
        d = caller_budget::share();
        EXPECT_EQ(budget.used(), 50u);
        EXPECT_TRUE(of_callers.take(one, 50));
    }
    EXPECT_EQ(budget.used(), 0u);
    EXPECT_TRUE(of_callers.take(one, 60));
    EXPECT_FALSE(of_callers.take(one, SIZE_MAX));
}

/* ---- readers ---- */

TEST(web_readers, a_caller_waits_for_one_request_of_another_at_most) {
    std::mutex mutex;
    std::string order;
    std::promise<void> begin;
    std::shared_future<void> begun = begin.get_future().share();
    {
        readers line(1, 100, 100);
        auto put = [&](uint64_t who, char letter) {
            return line.put({true, who}, [&, letter] {
                begun.wait();
                std::lock_guard<std::mutex> guard(mutex);
                order += letter;
            });
        };
        for (int i = 0; i < 5; i++) {
            EXPECT_EQ(put(1, 'a'), readers::verdict::taken);
        }
        put(2, 'b');
        put(3, 'c');
        put(2, 'b');
        begin.set_value();
    }
    /* the first may or may not have begun before the others came */
    EXPECT_TRUE(order == "abcabaaa" || order == "aabcabaa") << order;
}

TEST(web_readers, one_caller_does_not_take_all_threads) {
    std::promise<void> end;
    std::shared_future<void> over = end.get_future().share();
    std::promise<void> other;
    readers line(2, 100, 100);
    std::atomic<int> begun = 0;
    for (int i = 0; i < 3; i++) {
        line.put({true, 1}, [&] {
            ++begun;
            over.wait();
        });
    }
    line.put({true, 2}, [&] { other.set_value(); });
    EXPECT_EQ(other.get_future().wait_for(1min), std::future_status::ready);
    EXPECT_LE(begun, 1);
    end.set_value();
    line.stop();
    EXPECT_EQ(begun, 3);
}

TEST(web_readers, lines_have_an_end) {
    std::promise<void> end, first;
    std::shared_future<void> over = end.get_future().share();
    readers line(1, 5, 3);
    std::atomic<int> done = 0;
    line.put({true, 9}, [&] {
        first.set_value();
        over.wait();
    });
    first.get_future().wait();
    auto work = [&] { ++done; };
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(line.put({true, 1}, work), readers::verdict::taken);
    }
    EXPECT_EQ(line.put({true, 1}, work), readers::verdict::full_of_one);
    EXPECT_EQ(line.put({true, 2}, work), readers::verdict::taken);
    EXPECT_EQ(line.put({false, 1}, work), readers::verdict::taken);
    EXPECT_EQ(line.put({true, 4}, work), readers::verdict::full);
    end.set_value();
    line.stop();
    EXPECT_EQ(done, 5);
}

TEST(web_readers, from_time_to_time) {
    std::promise<void> twice;
    std::atomic<int> count = 0;
    readers line(2, 5, 3, [&] {
        if (++count == 2) {
            twice.set_value();
        }
    });
    EXPECT_EQ(twice.get_future().wait_for(1min), std::future_status::ready);
}

/* ---- answers ---- */

namespace {

bool has(const wire_answer& answer, const std::string& line) {
    return answer.head.find("\r\n" + line + "\r\n") != std::string::npos;
}

} // namespace

TEST(web_answer, what_every_answer_says) {
    request_head asked = with("").head;
    wire_answer wire =
        to_wire({.status = 200, .type = "application/json", .body = "{}"}, asked, true, 1777636800);
    EXPECT_EQ(wire.head,
              "HTTP/1.1 200 OK\r\n"
              "Date: Fri, 01 May 2026 12:00:00 GMT\r\n"
              "Content-Type: application/json\r\n"
              "Content-Length: 2\r\n"
              "Vary: Accept-Encoding\r\n"
              "Cache-Control: no-store\r\n"
              "X-Content-Type-Options: nosniff\r\n"
              "Referrer-Policy: no-referrer\r\n"
              "Cross-Origin-Resource-Policy: same-origin\r\n"
              "Content-Security-Policy: default-src 'none'; frame-ancestors 'none'\r\n\r\n");
    EXPECT_EQ(wire.body, "{}");
    EXPECT_TRUE(has(to_wire({}, asked, false, 0), "Connection: close"));
    EXPECT_TRUE(has(to_wire({.status = 401}, asked, true, 0), "WWW-Authenticate: Bearer"));
}

TEST(web_answer, heads_alone) {
    request_head asked = with("Accept-Encoding: gzip\r\n").head;
    for (int status : {204, 304}) {
        wire_answer wire = to_wire({.status = status, .body = "x"}, asked, true, 0);
        EXPECT_EQ(wire.body, "");
        EXPECT_EQ(wire.head.find("\r\nContent-"), wire.head.find("\r\nContent-Security-Policy"))
            << wire.head;
    }
    asked.method = "HEAD";
    wire_answer wire = to_wire({.body = std::string(5000, 'x')}, asked, true, 0);
    EXPECT_TRUE(has(wire, "Content-Length: 5000"));
    EXPECT_EQ(wire.body, "");
}

TEST(web_answer, compressed_where_it_is_worth_it) {
    request_head asked = with("Accept-Encoding: gzip\r\n").head;
    const std::string text(5000, 'x');
    auto answer = [&](const std::string& type, const std::string& body) {
        return to_wire({.type = type, .body = body, .headers = {{"ETag", "\"7\""}}}, asked, true,
                       0);
    };
    wire_answer wire = answer("application/json", text);
    EXPECT_TRUE(has(wire, "Content-Encoding: gzip") && has(wire, "ETag: W/\"7\""));
    EXPECT_TRUE(has(wire, "Content-Length: " + std::to_string(wire.body.size())));
    EXPECT_EQ(unzipped(wire.body), text);
    EXPECT_FALSE(has(answer("image/png", text), "Content-Encoding: gzip"));
    wire = answer("text/plain", text.substr(0, 1000));
    EXPECT_FALSE(has(wire, "Content-Encoding: gzip"));
    EXPECT_TRUE(has(wire, "ETag: \"7\""));
    std::string noise; /* no smaller by it */
    for (int i = 0; i < 5000; i++) {
        noise += char(rand());
    }
    EXPECT_EQ(answer("text/plain", noise).body, noise);
    asked.takes_gzip = false;
    EXPECT_EQ(answer("text/plain", text).body, text);
}

TEST(web_answer, no_header_begins_another) {
    wire_answer wire = to_wire({.headers = {{"X", "a\r\nEvil: b\n\x7f"}}}, request_head(), true, 0);
    EXPECT_TRUE(has(wire, "X: aEvil: b")) << wire.head;
}

/* ---- streams ---- */

namespace {
struct web_stream : testing::Test {
    event_hub hub;
    memory_budget budget{1u << 20};
    stream_source source{hub, 1000, budget};
    bool failed = false;
    std::string id(uint64_t position) const {
        return "id: " + hub.run() + "-" + std::to_string(position) + "\n";
    }
};
} // namespace

TEST_F(web_stream, what_is_sent) {
    EXPECT_EQ(source.next(hub.newest(), {}, failed), nullptr);
    EXPECT_FALSE(failed);
    uint64_t before = hub.newest();
    hub.publish(hub_kind::result, 1, 2, "{\"a\":1}");
    hub.publish(hub_kind::event, 1, 3, "{\"b\":1}");
    hub.publish(hub_kind::agent, 4, 0, "{}");
    hub.flush();
    auto piece = source.next(before, {}, failed);
    ASSERT_TRUE(piece);
    EXPECT_EQ(piece->text, id(before + 1) + "event: result\ndata: {\"a\":1}\n\n" + id(before + 2) +
                               "event: event\ndata: {\"b\":1}\n\n" + id(before + 3) +
                               "event: agent\ndata: {}\n\n");
    EXPECT_EQ(piece->position, before + 3);
    EXPECT_EQ(source.next(before, {}, failed), piece); /* the same for all */
    auto other = source.next(before, {.test = 3}, failed);
    ASSERT_TRUE(other);
    EXPECT_EQ(other->text, id(before + 2) + "event: event\ndata: {\"b\":1}\n\n");
    EXPECT_EQ(source.next(piece->position, {}, failed), nullptr);
}

TEST_F(web_stream, greetings) {
    EXPECT_EQ(source.greeting(7, false), "retry: 3000\n" + id(7) + "\n");
    EXPECT_EQ(source.greeting(7, true), "retry: 3000\n" + id(7) + "\nevent: lost\ndata: {}\n\n");
}

TEST_F(web_stream, who_is_left_behind_is_told) {
    event_hub small(1000, 5);
    stream_source of_small(small, 1000, budget);
    uint64_t before = small.newest();
    for (int i = 0; i < 20; i++) {
        small.publish(hub_kind::result, 1, 1, "{}");
    }
    small.flush();
    auto piece = of_small.next(before, {}, failed);
    ASSERT_TRUE(piece);
    EXPECT_TRUE(piece->text.starts_with("event: lost\ndata: {}\n\nid: ")) << piece->text;
    EXPECT_EQ(piece->position, before + 20);
}

TEST_F(web_stream, pieces_are_bounded_and_so_are_all) {
    uint64_t at = hub.newest();
    for (int i = 0; i < 100; i++) {
        hub.publish(hub_kind::result, 1, 1, "{\"x\":\"" + std::string(100, 'x') + "\"}");
    }
    hub.flush();
    size_t all = 0, pieces = 0;
    for (; auto piece = source.next(at, {}, failed); pieces++) {
        EXPECT_LE(piece->text.size(), 3000u);
        all += piece->text.size();
        at = piece->position;
    }
    EXPECT_GT(all, 10000u);
    EXPECT_GT(pieces, 5u);
    memory_budget none(10);
    stream_source poor(hub, 1000, none);
    EXPECT_EQ(poor.next(at - 1, {}, failed), nullptr);
    EXPECT_TRUE(failed);
}

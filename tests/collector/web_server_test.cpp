/* The web server over sockets: requests, limits, who is let in, the end. */
#include "web_client.h"

#include "refuse_syscall.h"
#include "unzipped.h"
#include "web/page_files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sys/wait.h>
#include <system_error>

using namespace std::chrono_literals;

TEST_F(web_server_test, requests_one_after_the_other) {
    start();
    web_client c(port());
    for (int i = 0; i < 3; i++) {
        web_reply r = c.get("/healthz");
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "ok\n");
        EXPECT_FALSE(r.has("Connection: close"));
        EXPECT_TRUE(r.has("X-Content-Type-Options: nosniff") && r.has("Cache-Control: no-store") &&
                    r.has("Referrer-Policy: no-referrer"));
    }
    web_reply r = c.get("/nothing");
    EXPECT_EQ(r.status, 404);
    EXPECT_EQ(r.value("Content-Type"), "application/problem+json");
    EXPECT_NE(r.body.find("\"detail\":\"no such thing\""), std::string::npos) << r.body;
    r = c.get("/healthz", "Connection: close\r\n");
    EXPECT_TRUE(r.has("Connection: close"));
    EXPECT_TRUE(c.ends());
    EXPECT_EQ(server->url(), "http://127.0.0.1:" + std::to_string(port()));
}

TEST_F(web_server_test, pipelined_requests_are_answered_in_order) {
    start();
    web_client c(port());
    std::string all;
    for (int i = 0; i < 50; i++) {
        all += web_client::text("POST", "/echo?" + std::to_string(i), bearer(),
                                "body" + std::to_string(i));
        all += i % 2 ? "\r\n" : "";
    }
    ASSERT_TRUE(c.send(all));
    for (int i = 0; i < 50; i++) {
        web_reply r = c.reply();
        EXPECT_EQ(r.status, 200);
        EXPECT_NE(r.body.find("/echo?" + std::to_string(i) + "\""), std::string::npos) << r.body;
        EXPECT_NE(r.body.find("body" + std::to_string(i) + "\""), std::string::npos) << r.body;
    }
}

TEST_F(web_server_test, byte_by_byte) {
    start();
    web_client c(port());
    for (char byte : web_client::text("POST", "/echo", bearer() + "Expect: 100-continue\r\n")) {
        ASSERT_TRUE(c.send({&byte, 1}));
    }
    EXPECT_EQ(c.reply().status, 200);
    int yes = 1;
    setsockopt(c.fd(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    for (char byte : web_client::text("POST", "/echo", bearer(), "a body in pieces")) {
        ASSERT_TRUE(c.send({&byte, 1}));
    }
    EXPECT_NE(c.reply().body.find("a body in pieces"), std::string::npos);
}

TEST_F(web_server_test, a_body_is_asked_for) {
    start();
    web_client c(port());
    c.send("POST /echo HTTP/1.1\r\nHost: localhost\r\n" + bearer() +
           "Content-Length: 4\r\nExpect: 100-continue\r\n\r\n");
    EXPECT_EQ(c.until("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
    c.send("late");
    EXPECT_NE(c.reply().body.find("late"), std::string::npos);
}

TEST_F(web_server_test, heads_and_what_has_not_changed) {
    start();
    web_client c(port());
    web_reply r = c.ask("HEAD", "/large?5000");
    EXPECT_EQ(r.value("Content-Length"), "5000");
    r = c.get("/etag", "If-None-Match: \"1\"\r\n");
    EXPECT_EQ(r.status, 304);
    EXPECT_EQ(r.value("Content-Length"), "");
    r = c.get("/etag", "Accept-Encoding: gzip\r\n");
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.value("ETag"), "W/\"1\"");
    EXPECT_EQ(r.value("Content-Encoding"), "gzip");
    EXPECT_LT(r.body.size(), 500u);
    EXPECT_EQ(c.get("/etag", "If-None-Match: W/\"1\"\r\n").status, 304);
    EXPECT_EQ(c.get("/header").value("X-Evil"), "");
}

/* Texts that stand between `before` and the next quotation mark, and begin like that. */
static std::vector<std::string> quoted(const std::string& text, const std::string& before,
                                       const std::string& begin) {
    std::vector<std::string> found;
    for (size_t at = text.find(before + begin); at != text.npos;
         at = text.find(before + begin, at + 1)) {
        const size_t from = at + before.size();
        found.push_back(text.substr(from, text.find('"', from) - from));
    }
    return found;
}

/* Each screen has an address of its own, and all have the same shell. */
TEST_F(web_server_test, the_shell_of_the_page) {
    start();
    web_client c(port());
    const web_reply shell = c.get("/");
    EXPECT_EQ(shell.status, 200);
    EXPECT_EQ(shell.value("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(shell.value("Cache-Control"), "no-store");
    EXPECT_EQ(shell.value("Content-Security-Policy"),
              "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
              "connect-src 'self'; worker-src 'self'; base-uri 'none'; form-action 'none'; "
              "frame-ancestors 'none'");
    for (const char* no : {"@VERSION@", "://", "<style", " style=", " onclick", "<script>"}) {
        EXPECT_EQ(shell.body.find(no), std::string::npos) << no;
    }
    for (const char* path :
         {"/agents/12", "/agents/a%40b%2Fweb-1", "/tests/7?range=1d", "/events?q=x", "/fleet",
          "/fleet/changes", "/admission", "/tokens", "/secrets"}) {
        EXPECT_EQ(c.get(path).body, shell.body) << path;
    }
    for (const char* path : {"/agents", "/agents/", "/agents/1/2", "/tests", "/event", "/page",
                             "/page/", "/fleet/", "/index.html"}) {
        EXPECT_EQ(c.get(path).status, 404) << path;
    }
    const char* by_hand = "Accept: text/html,application/xhtml+xml,*/*;q=0.8\r\n";
    const web_reply nothing = c.get("/no/such", by_hand);
    EXPECT_EQ(nothing.status, 404);
    EXPECT_EQ(nothing.body, shell.body);
    EXPECT_EQ(c.get("/api/v1/nothing", by_hand).value("Content-Type"), "application/problem+json");
    for (const char* method : {"OPTIONS", "POST", "DELETE"}) {
        const web_reply r = c.ask(method, "/events");
        EXPECT_EQ(r.status, 405) << method;
        EXPECT_EQ(r.value("Allow"), "GET, HEAD");
        EXPECT_EQ(r.value("Access-Control-Allow-Origin"), "");
    }
}

/* Whatever a file of the page refers to is there, and nothing is anywhere else. */
TEST_F(web_server_test, the_files_of_the_page) {
    start();
    web_client c(port());
    std::vector<std::string> to_read = quoted(c.get("/").body, "\"", "/page/");
    ASSERT_GT(to_read.size(), 5u);
    const std::string folder = "/page/" + page_version() + "/";
    for (const page_file& file : page_files()) {
        if (file.name != "index.html") {
            to_read.push_back(folder + std::string(file.name));
        }
    }
    std::set<std::string> read;
    while (!to_read.empty()) {
        const std::string path = to_read.back();
        to_read.pop_back();
        if (!read.insert(path).second) {
            continue;
        }
        const web_reply r = c.get(path);
        ASSERT_EQ(r.status, 200) << path;
        EXPECT_EQ(r.value("Cache-Control"), "public, max-age=31536000, immutable");
        EXPECT_TRUE(r.value("Content-Security-Policy").starts_with("default-src 'none';"));
        EXPECT_EQ(r.value("Content-Type"), path.ends_with(".js") ? "text/javascript; charset=utf-8"
                                           : path.ends_with(".css") ? "text/css; charset=utf-8"
                                                                    : "image/svg+xml")
            << path;
        if (!path.ends_with(".js") || path.ends_with("/dygraph.js")) {
            continue;
        }
        for (const char* no : {"innerHTML", "eval(", "https://", "insertAdjacentHTML"}) {
            EXPECT_EQ(r.body.find(no), std::string::npos) << path << ": " << no;
        }
        for (const char* before : {"from \"", "import(\""}) {
            for (const std::string& name : quoted(r.body, before, ".")) {
                to_read.push_back(
                    std::filesystem::path(path).parent_path().append(name).lexically_normal());
            }
        }
    }
    EXPECT_GT(read.size(), 25u);
    EXPECT_EQ(c.get(folder + "index.html").status, 404);
    EXPECT_EQ(c.get("/page/0123456789abcdef/main.js").status, 404) << "of another version";
    EXPECT_EQ(c.get(folder + "nothing.js").status, 404);
}

/* A page that is slow to come is not looked at: all of it, besides what draws curves, in 150 KB. */
TEST_F(web_server_test, the_page_is_small) {
    start();
    web_client c(port());
    const std::string folder = "/page/" + page_version() + "/";
    size_t all = 0;
    for (const page_file& file : page_files()) {
        if (file.name == "index.html") {
            continue;
        }
        const web_reply r = c.get(folder + std::string(file.name), "Accept-Encoding: gzip\r\n");
        if (r.value("Content-Encoding") == "gzip") {
            EXPECT_EQ(unzipped(r.body), file.bytes) << file.name;
        } else {
            EXPECT_EQ(r.body, file.bytes) << file.name;
            EXPECT_LT(r.body.size(), 1024u) << file.name;
        }
        all += file.name.starts_with("dygraph") ? 0 : r.body.size();
    }
    EXPECT_GT(all, 50'000u);
    EXPECT_LT(all, 150'000u);
}

/* ---- who asks ---- */

TEST_F(web_server_test, tokens) {
    start();
    web_client c(port());
    EXPECT_NE(c.get("/echo", bearer()).body.find("\"name\":\"tester\",\"from\":\"127.0.0.1\""),
              std::string::npos);
    web_reply r = c.get("/echo");
    EXPECT_EQ(r.status, 401);
    EXPECT_EQ(r.value("WWW-Authenticate"), "Bearer");
    EXPECT_EQ(c.get("/echo", "Authorization: Bearer vt_" + std::string(43, 'x') + "\r\n").status,
              401);
    EXPECT_EQ(c.get("/echo", "Authorization: Basic " + token + "\r\n").status, 401);
    EXPECT_EQ(c.get("/echo?token=" + token).status, 401);
    std::string later = add_secret(*kept, token_kind::token, role::viewer, "later", now, 0, error);
    EXPECT_EQ(c.get("/echo", "Authorization: Bearer " + later + "\r\n").status, 200);
    EXPECT_TRUE(log().empty());
}

TEST_F(web_server_test, what_is_changed_is_logged) {
    start();
    web_client c(port());
    EXPECT_EQ(c.ask("POST", "/echo", bearer(), "x").status, 200);
    EXPECT_EQ(log(), std::vector<std::string>{"audit: tester (operator) from 127.0.0.1: echoed"});
}

TEST_F(web_server_test, a_session) {
    start();
    web_client c(port());
    web_reply r = c.ask("POST", "/sign-in", "", "{\"token\":\"" + token + "\"}");
    EXPECT_EQ(r.status, 204);
    std::string cookie = r.value("Set-Cookie");
    EXPECT_TRUE(cookie.starts_with("vindral-80=vs_")) << cookie;
    EXPECT_TRUE(cookie.ends_with("; Path=/; HttpOnly; SameSite=Strict; Max-Age=2592000")) << cookie;
    cookie = "Cookie: " + cookie.substr(0, cookie.find(';')) + "\r\n";
    const std::string own = "Origin: http://localhost\r\n";
    EXPECT_EQ(c.get("/echo", cookie).status, 200);
    EXPECT_EQ(c.ask("POST", "/echo", cookie + own).status, 200);
    EXPECT_EQ(c.ask("POST", "/sign-out", cookie + own).status, 204);
    EXPECT_EQ(c.get("/echo", cookie).status, 401);
    EXPECT_EQ(log(),
              (std::vector<std::string>{"audit: tester (operator) from 127.0.0.1: signed in",
                                        "audit: tester (operator) from 127.0.0.1: echoed",
                                        "audit: tester (operator) from 127.0.0.1: signed out"}));
    EXPECT_EQ(c.ask("POST", "/sign-out", cookie + own).status, 204); /* no harm */
    EXPECT_EQ(c.ask("POST", "/sign-out", bearer()).status, 400);
}

/* In one browser, whose cookies know no ports. */
TEST_F(web_server_test, two_collectors_on_one_host) {
    start();
    std::unique_ptr<settings> others = settings::open(directory / "other", note, error);
    ASSERT_TRUE(others) << error;
    web_server other(options, nullptr, *others, *services, [](const std::string&) {});
    ASSERT_TRUE(other.listen(error)) << error;
    const std::pair<uint16_t, std::string> both[] = {
        {port(), token},
        {other.port(),
         add_secret(*others, token_kind::token, role::viewer, "tester", now, 0, error)}};
    std::string cookies;
    for (const auto& [each, secret] : both) {
        const std::string host = "localhost:" + std::to_string(each);
        web_client c(each);
        const std::string body = "{\"token\":\"" + secret + "\"}";
        c.send("POST /sign-in HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
               "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
        std::string cookie = c.reply().value("Set-Cookie");
        EXPECT_TRUE(cookie.starts_with("vindral-" + std::to_string(each) + "=vs_")) << cookie;
        cookies += (cookies.empty() ? "" : "; ") + cookie.substr(0, cookie.find(';'));
    }
    for (const auto& [each, secret] : both) {
        const std::string host = "localhost:" + std::to_string(each);
        web_client c(each);
        auto ask = [&](const std::string& method, const std::string& target) {
            c.send(method + " " + target + " HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" +
                   host + "\r\nCookie: " + cookies + "\r\n\r\n");
            return c.reply();
        };
        EXPECT_EQ(ask("GET", "/echo").status, 200);
        EXPECT_TRUE(ask("POST", "/sign-out")
                        .value("Set-Cookie")
                        .starts_with("vindral-" + std::to_string(each) + "=;"));
        EXPECT_EQ(ask("GET", "/echo").status, 401);
    }
}

TEST_F(web_server_test, sessions_end_with_their_token) {
    start();
    web_client c(port());
    web_reply r = c.ask("POST", "/sign-in", "", "{\"token\":\"" + token + "\"}");
    std::string cookie = r.value("Set-Cookie");
    cookie = "Cookie: " + cookie.substr(0, cookie.find(';')) + "\r\n";
    EXPECT_EQ(c.get("/echo", cookie).status, 200);
    ASSERT_TRUE(kept->drop_token(1, error)) << error;
    EXPECT_EQ(c.get("/echo", cookie).status, 401);
    EXPECT_EQ(c.get("/echo", bearer()).status, 401);
}

TEST_F(web_server_test, a_session_does_not_outlast_its_token) {
    stored_token brief;
    brief.name = "brief";
    brief.role = static_cast<uint8_t>(role::viewer);
    brief.made = now;
    brief.ends = now + 100;
    bool is_taken = false;
    std::string secret = keep_secret(*kept, brief, is_taken, error);
    ASSERT_NE(secret, "") << error;
    start();
    web_client c(port());
    web_reply r = c.ask("POST", "/sign-in", "", "{\"token\":\"" + secret + "\"}");
    EXPECT_EQ(r.status, 204);
    std::string cookie = r.value("Set-Cookie");
    EXPECT_TRUE(cookie.ends_with("; Max-Age=100")) << cookie;
    cookie = "Cookie: " + cookie.substr(0, cookie.find(';')) + "\r\n";
    now += 99;
    EXPECT_EQ(c.get("/echo", cookie).status, 200);
    now += 1;
    EXPECT_EQ(c.get("/echo", cookie).status, 401);
}

TEST_F(web_server_test, signing_out_ends_no_token) {
    start();
    web_client c(port());
    const std::string lines = "Cookie: vindral-80=" + token + "\r\nOrigin: http://localhost\r\n";
    EXPECT_EQ(c.ask("POST", "/sign-out", lines).status, 204);
    EXPECT_EQ(c.get("/echo", bearer()).status, 200);
}

TEST_F(web_server_test, a_link_signs_in_once) {
    start();
    std::string link = add_secret(*kept, token_kind::link, role::admin, "link", now, 0, error);
    web_client c(port());
    const std::string body = "{\"link\":\"" + link + "\"}";
    EXPECT_EQ(c.get("/echo", "Authorization: Bearer " + link + "\r\n").status, 401);
    EXPECT_EQ(c.ask("POST", "/sign-in", "", "{\"token\":\"" + link + "\"}").status, 401);
    EXPECT_EQ(c.ask("POST", "/sign-in", "", body).status, 204);
    EXPECT_EQ(c.ask("POST", "/sign-in", "", body).status, 401);
    link = add_secret(*kept, token_kind::link, role::admin, "link", now, 0, error);
    now += link_lasts_s;
    EXPECT_EQ(c.ask("POST", "/sign-in", "", "{\"link\":\"" + link + "\"}").status, 401);
}

TEST_F(web_server_test, guessing_is_slow_and_bodies_have_a_form) {
    options.limits.sign_ins_a_minute = 5;
    start();
    web_client c(port());
    for (const char* body : {"{}", "[]", "", "{\"token\":1}", "{\"token\":\"a\",\"link\":\"b\"}",
                             "{\"token\":\"a\",\"token\":\"b\"}", "{\"other\":\"a\"}",
                             "{\"token\":\"a\"", "[[[[[[[["}) {
        EXPECT_EQ(c.ask("POST", "/sign-in", "", body).status, 400) << body;
    }
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(c.ask("POST", "/sign-in", "", "{\"token\":\"vt_x\"}").status, 401);
    }
    web_reply r = c.ask("POST", "/sign-in", "", "{\"token\":\"vt_x\"}");
    EXPECT_EQ(r.status, 429);
    EXPECT_NE(r.value("Retry-After"), "");
    EXPECT_EQ(c.get("/echo", bearer()).status, 200);
    /* Who guesses locks nobody out. */
    EXPECT_EQ(c.ask("POST", "/sign-in", "", "{\"token\":\"" + token + "\"}").status, 204);
}

TEST_F(web_server_test, names_of_others_and_pages_of_others) {
    start();
    auto status = [&](const std::string& text) {
        web_client c(port());
        c.send(text);
        web_reply r = c.reply();
        return r.status == 0 || !c.ends() ? -r.status : r.status;
    };
    EXPECT_EQ(status("GET /healthz HTTP/1.1\r\nHost: rebound.example.org\r\n\r\n"), 421);
    EXPECT_EQ(status("GET /healthz HTTP/1.1\r\n\r\n"), 400);
    for (const char* origin :
         {"http://evil.example.org", "null", "https://localhost", "http://localhost:1"}) {
        EXPECT_EQ(status(web_client::text(
                      "POST", "/echo", bearer() + "Origin: " + std::string(origin) + "\r\n", "x")),
                  403);
        EXPECT_EQ(status(web_client::text("POST", "/sign-in",
                                          "Origin: " + std::string(origin) + "\r\n", "{}")),
                  403);
    }
    EXPECT_EQ(status(web_client::text("POST", "/echo", "Cookie: vindral-80=vs_x\r\n", "x")), 403);
    EXPECT_EQ(status(web_client::text("DELETE", "/echo", "Cookie: vindral-80=vs_x\r\n")), 403);
    EXPECT_TRUE(log().empty());
}

TEST_F(web_server_test, an_error_that_nobody_thought_of) {
    start();
    web_client c(port());
    EXPECT_EQ(c.get("/throws").status, 500);
    EXPECT_EQ(log(), std::vector<std::string>{"web: a thing that failed"});
    EXPECT_EQ(c.get("/healthz").status, 200);
}

/* ---- TLS ---- */

TEST_F(web_server_test, tls) {
    start(true);
    web_client c(port(), true);
    EXPECT_EQ(c.get("/echo", bearer()).status, 200);
    web_reply r = c.get("/large?3000000");
    EXPECT_EQ(r.body, std::string(3000000, 'x'));
    r = c.ask("POST", "/sign-in", "Origin: https://localhost\r\n", "{\"token\":\"" + token + "\"}");
    EXPECT_EQ(r.status, 204);
    EXPECT_TRUE(r.value("Set-Cookie").starts_with("__Host-vindral-443=vs_"));
    EXPECT_TRUE(r.value("Set-Cookie").ends_with("; Secure"));
    EXPECT_TRUE(server->url().starts_with("https://127.0.0.1:"));
    web_client plain(port());
    r = plain.get("/healthz");
    EXPECT_EQ(r.status, 400);
    EXPECT_TRUE(plain.ends());
}

TEST_F(web_server_test, its_certificate_is_exchanged_while_it_serves) {
    start(true);
    const identity_files files = own_identity(directory / "state");
    web_client before(port(), true);
    EXPECT_EQ(before.get("/echo", bearer()).status, 200);
    for (int i = 0; i < 50; ++i) {
        server->exchange_tls(make_tls_context(files, error));
        server->exchange_tls(nullptr); /* that one stays */
    }
    web_client after(port(), true);
    EXPECT_EQ(after.get("/echo", bearer()).status, 200);
    EXPECT_EQ(before.get("/echo", bearer()).status, 200);
    web_client plain(port());
    EXPECT_EQ(plain.get("/healthz").status, 400);
}

TEST_F(web_server_test, nothing_is_plain_off_loopback) {
    for (const char* address : {"0.0.0.0", "::", "192.0.2.1"}) {
        options.address = address;
        web_server one(options, nullptr, *kept, *services, [](const std::string&) {});
        EXPECT_FALSE(one.listen(error));
        EXPECT_EQ(error, "cannot listen on " + std::string(address) +
                             " port 0: without TLS only on loopback");
    }
    options.address = "nowhere";
    web_server one(options, nullptr, *kept, *services, [](const std::string&) {});
    EXPECT_FALSE(one.listen(error));
    EXPECT_EQ(error, "cannot listen on nowhere port 0: not an IP address");
    options.address = "127.0.0.1";
    start();
    options.port = port();
    web_server other(options, nullptr, *kept, *services, [](const std::string&) {});
    EXPECT_FALSE(other.listen(error));
    EXPECT_NE(error.find("Address already in use"), std::string::npos) << error;
}

/* ---- limits ---- */

TEST_F(web_server_test, what_is_too_large_is_answered) {
    options.limits.body = 1000;
    options.limits.answer = 5000;
    start();
    auto status = [&](const std::string& text) {
        web_client c(port());
        c.send(text);
        web_reply r = c.reply();
        EXPECT_EQ(r.value("Content-Type"), "application/problem+json");
        EXPECT_TRUE(r.has("Connection: close"));
        EXPECT_TRUE(c.ends());
        return r.status;
    };
    EXPECT_EQ(status(web_client::text("POST", "/echo", bearer(), std::string(1001, 'x'))), 413);
    EXPECT_EQ(status(web_client::text("POST", "/echo", bearer(), std::string(300000, 'x'))), 413);
    EXPECT_EQ(status(web_client::text("GET", "/" + std::string(9000, 'x'))), 414);
    EXPECT_EQ(status("GET /" + std::string(60000, 'x')), 414);
    EXPECT_EQ(status("GET / HTTP/1.1\r\nX: " + std::string(60000, 'x')), 431);
    EXPECT_EQ(status("POST /echo HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: "
                     "chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"),
              411);
    EXPECT_EQ(status("NONSENSE\r\n\r\n"), 400);
    EXPECT_EQ(status(std::string(1, '\x16') + "\x03\x01\r\n\r\n"), 400); /* TLS */
    web_client c(port());
    EXPECT_EQ(c.ask("POST", "/echo", bearer(), std::string(1000, 'x')).status, 200);
    EXPECT_EQ(c.get("/large?5000").status, 200);
    EXPECT_EQ(c.get("/large?5001").status, 500);
}

TEST_F(web_server_test, memory_for_bodies_and_answers_has_an_end) {
    options.limits.bodies = 100000;
    options.limits.body = 90000;
    options.limits.answers = 100000;
    start();
    web_client c(port());
    EXPECT_EQ(c.get("/large?99000").status, 200);
    EXPECT_EQ(c.get("/large?101000").status, 503);
    EXPECT_EQ(c.get("/large?99000").status, 200); /* given back */
    EXPECT_EQ(c.ask("POST", "/echo", bearer(), std::string(90000, 'x')).status,
              503); /* of one address */
}

/* Many that never end cost no more than bodies may, and those who say little are served. */
/* Also while they wait for a thread, and no longer. */
TEST_F(web_server_test, bodies_count_until_they_are_dealt_with) {
    options.limits.bodies = 1u << 20;
    start();
    web_client a(port()), b(port());
    EXPECT_EQ(a.get("/echo", bearer()).status, 200); /* who asks is known from then on */
    const std::string body(300u << 10, 'b');
    a.send(web_client::text("POST", "/wait", bearer(), body));
    b.send(web_client::text("POST", "/wait", bearer(), body));
    auto status = [&] {
        web_client stranger(port());
        return stranger.ask("POST", "/echo", "", body).status;
    };
    EXPECT_TRUE(eventually([&] { return status() == 503; }));
    held.open();
    EXPECT_EQ(a.reply().status, 200);
    EXPECT_EQ(b.reply().status, 200);
    EXPECT_TRUE(eventually([&] { return status() == 401; }));
}

TEST_F(web_server_test, half_heads_have_an_end) {
    options.limits.bodies = 100000;
    start();
    std::vector<std::unique_ptr<web_client>> half;
    int refused = 0;
    for (int i = 0; i < 20; i++) {
        half.push_back(std::make_unique<web_client>(port()));
        half.back()->send("GET / HTTP/1.1\r\nX: " + std::string(14000, 'x'));
        web_client other(port());
        EXPECT_EQ(other.get("/healthz").status, 200);
    }
    for (const auto& c : half) {
        c->send("\r\nHost: localhost\r\n\r\n");
        int status = c->reply().status;
        EXPECT_TRUE(status == 200 || status == 503 || status == 0) << status;
        refused += status != 200;
    }
    EXPECT_GE(refused, 10);
    EXPECT_LT(refused, 20);
}

TEST_F(web_server_test, slow_requests_are_told) {
    options.limits.head_time = 200ms;
    options.limits.body_time = 200ms;
    options.limits.idle = 300ms;
    start();
    web_client head(port()), body(port()), idle(port()), silent(port());
    head.send("GET /healthz HT");
    body.send("POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 10\r\n\r\nhalf");
    EXPECT_EQ(idle.get("/healthz").status, 200);
    EXPECT_EQ(head.reply().status, 408);
    EXPECT_TRUE(head.ends());
    EXPECT_EQ(body.reply().status, 408);
    EXPECT_TRUE(body.ends());
    EXPECT_TRUE(idle.ends());
    EXPECT_TRUE(silent.ends());
}

TEST_F(web_server_test, who_does_not_read_is_reset) {
    options.limits.answer_time = 200ms;
    start();
    web_client c(port());
    int small = 4096;
    setsockopt(c.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    std::string all;
    for (int i = 0; i < 200; i++) {
        all += web_client::text("GET", "/large?60000");
    }
    c.send(all);
    EXPECT_TRUE(eventually([&] {
        int problem = 0;
        socklen_t size = sizeof problem;
        getsockopt(c.fd(), SOL_SOCKET, SO_ERROR, &problem, &size);
        return problem == ECONNRESET;
    }));
}

TEST_F(web_server_test, too_many_requests) {
    options.limits.requests_a_minute = 10;
    start();
    web_client c(port());
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(c.get("/etag").status, 200);
    }
    web_reply r = c.get("/etag");
    EXPECT_EQ(r.status, 429);
    EXPECT_EQ(r.value("Retry-After"), "6");
    EXPECT_FALSE(r.has("Connection: close"));
    r = c.get("/echo", bearer()); /* not known until the settings have been looked at */
    EXPECT_TRUE(r.status == 429 || r.status == 200) << r.status;
    EXPECT_TRUE(eventually([&] { return c.get("/echo", bearer()).status == 200; }));
    EXPECT_EQ(c.get("/etag").status, 429);
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(c.get("/healthz").status, 200) << "it is there, whoever asks for much";
    }
    /* Others at that address may look at the page and sign in, though nobody may ask for more. */
    const std::string main = "/page/" + page_version() + "/main.js";
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(c.get("/").status, 200);
        EXPECT_EQ(c.get(main).status, 200);
        EXPECT_EQ(c.get("/agents/7").status, 200);
        EXPECT_EQ(c.ask("POST", "/sign-in", "", "{\"token\":\"" + token + "\"}").status, 204);
    }
    for (const char* path : {"/page/x/main.js", "/page/", "/nothing", "/sign-in"}) {
        EXPECT_EQ(c.get(path).status, 429) << path;
    }
    EXPECT_EQ(c.ask("PUT", "/sign-in", "", "{}").status, 429);
    EXPECT_EQ(web_client(port()).ask("POST", "/", "", "{}").status, 429);
}

TEST_F(web_server_test, a_session_takes_from_its_token) {
    start();
    web_client c(port());
    std::vector<std::string> cookies;
    for (int i = 0; i < 2; i++) {
        web_reply r = c.ask("POST", "/sign-in", "", "{\"token\":\"" + token + "\"}");
        const std::string cookie = r.value("Set-Cookie");
        cookies.push_back("Cookie: " + cookie.substr(0, cookie.find(';')) + "\r\n");
    }
    known_callers callers(*kept);
    const int64_t holder = callers.find(token, now).holder;
    EXPECT_NE(holder, 0);
    for (const std::string& each : cookies) {
        const std::string secret = each.substr(each.find("vs_"), 46);
        EXPECT_EQ(callers.find(secret, now).holder, holder);
        EXPECT_NE(callers.find(secret, now).token, holder);
    }
    options.limits.requests_a_minute = 1;
    server = nullptr;
    start();
    web_client again(port());
    EXPECT_TRUE(eventually([&] { return again.get("/echo", bearer()).status == 429; }));
    for (const std::string& each : cookies) {
        EXPECT_EQ(again.get("/echo", each).status, 429);
    }
}

TEST_F(web_server_test, a_request_that_takes_long_holds_up_nobody_else) {
    options.limits.waiting_of_one = 4;
    start();
    std::vector<std::unique_ptr<web_client>> slow;
    for (int i = 0; i < 5; i++) {
        slow.push_back(std::make_unique<web_client>(port()));
        slow.back()->send(web_client::text("GET", "/wait"));
        ASSERT_TRUE(held.wait_for(1));
    }
    web_client other(port());
    /* known from here on; before, it waits behind its address */
    ASSERT_TRUE(eventually([&] { return other.get("/echo", bearer()).status == 200; }));
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(other.get("/echo", bearer()).status, 200);
    }
    web_client one_more(port());
    web_reply r = one_more.get("/etag"); /* of the same address as those that wait */
    EXPECT_EQ(r.status, 503);
    EXPECT_EQ(r.value("Retry-After"), "1");
    EXPECT_EQ(one_more.get("/healthz").status, 200) << "it is there";
    EXPECT_EQ(one_more.get("/readyz").status, 200);
    held.open();
    for (const auto& c : slow) {
        EXPECT_EQ(c->reply().status, 200);
    }
}

TEST_F(web_server_test, who_waited_too_long_is_told) {
    options.limits.request_time = 100ms;
    start();
    web_client slow(port()), next(port());
    slow.send(web_client::text("GET", "/wait"));
    ASSERT_TRUE(held.wait_for(1));
    next.send(web_client::text("GET", "/etag"));
    std::this_thread::sleep_for(300ms);
    held.open();
    EXPECT_EQ(slow.reply().status, 200);
    EXPECT_EQ(next.reply().status, 503);
}

TEST_F(web_server_test, idle_connections_make_room) {
    options.limits.connections = 20;
    start();
    std::vector<std::unique_ptr<web_client>> idle;
    for (int i = 0; i < 20; i++) {
        idle.push_back(std::make_unique<web_client>(port()));
        EXPECT_EQ(idle.back()->get("/healthz").status, 200);
    }
    /* from the third second on, for those who have waited that long */
    EXPECT_TRUE(eventually([&] {
        web_client late(port());
        return late.get("/healthz").status == 200;
    }));
}

TEST_F(web_server_test, of_one_address) {
    options.address = "0.0.0.0";
    options.limits.connections_of_one = 3;
    start(true);
    std::vector<std::unique_ptr<web_client>> of_one;
    for (int i = 0; i < 3; i++) {
        of_one.push_back(std::make_unique<web_client>(port(), true, "127.0.0.2"));
        EXPECT_EQ(of_one.back()->get("/healthz").status, 200);
    }
    web_client fourth(port(), true, "127.0.0.2"), other(port(), true, "127.0.0.3");
    EXPECT_FALSE(fourth.connected() && fourth.get("/healthz").status == 200);
    EXPECT_EQ(other.get("/healthz").status, 200);
}

/* ---- the end ---- */

TEST_F(web_server_test, an_answer_under_way_is_not_cut_off) {
    start();
    web_client busy(port()), idle(port());
    EXPECT_EQ(idle.get("/healthz").status, 200);
    busy.send(web_client::text("GET", "/wait"));
    ASSERT_TRUE(held.wait_for(1));
    std::thread stopper([&] { server->stop(); });
    EXPECT_TRUE(idle.ends());
    held.open();
    web_reply r = busy.reply();
    EXPECT_EQ(r.status, 200);
    EXPECT_TRUE(busy.ends());
    stopper.join();
    web_client late(port());
    EXPECT_FALSE(late.connected());
}

TEST_F(web_server_test, stops_while_nobody_reads_and_many_wait) {
    start();
    std::vector<std::unique_ptr<web_client>> all;
    for (int i = 0; i < 30; i++) {
        all.push_back(std::make_unique<web_client>(port()));
        all.back()->send(i % 3 == 0   ? "GET /half"
                         : i % 3 == 1 ? web_client::text("GET", "/large?30000000")
                                      : web_client::text("GET", "/api/v1/stream", bearer()));
    }
    for (int i = 2; i < 30; i += 3) {
        EXPECT_EQ(all[size_t(i)]->reply().status, 200);
    }
    server->stop();
    server->stop();
    server.reset();
}

TEST_F(web_server_test, who_waits_in_line_at_the_end_is_told) {
    start();
    std::vector<std::unique_ptr<web_client>> all;
    for (int i = 0; i < 3; i++) { /* of one address: one is under way, the others wait */
        all.push_back(std::make_unique<web_client>(port()));
        all.back()->send(web_client::text("GET", "/wait"));
        ASSERT_TRUE(held.wait_for(1));
    }
    std::thread stopping([&] { server->stop(); });
    EXPECT_TRUE(eventually([&] { return !web_client(port()).connected(); }));
    held.open();
    stopping.join();
    int answered = 0;
    for (const auto& c : all) {
        answered += c->reply().status == 200;
    }
    EXPECT_LE(answered, 1);
}

TEST_F(web_server_test, a_thread_that_cannot_be_had_is_said) {
    pid_t child = fork();
    if (child == 0) {
        int status = 3;
        if (refuse_syscall(SYS_clone3, EAGAIN) && refuse_syscall(SYS_clone, EAGAIN)) {
            try {
                web_server none(options, nullptr, *kept, *services, [](const std::string&) {});
                status = 1;
            } catch (const std::system_error& e) {
                status = e.code() == std::errc::resource_unavailable_try_again ? 0 : 2;
            }
        }
        _exit(status);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(web_server_test, is_made_and_never_begun) {
    web_server never(options, nullptr, *kept, *services, [](const std::string&) {});
    never.stop();
}

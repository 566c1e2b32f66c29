/* Tokens, addresses, fingerprints and the command line. */
#include "ctl/failure.h"
#include "enrol/credentials.h"
#include "enrol/exchange.h"
#include "enrol/options.h"
#include "enrol/renewal.h"
#include "enrol/steps.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string good_token() {
    protocol::enrolment_token token;
    for (size_t i = 0; i < token.secret.size(); i++) {
        token.secret[i] = static_cast<unsigned char>(7 * i + 1);
        token.authority[i] = static_cast<unsigned char>(255 - i);
    }
    return protocol::text_of(token);
}

/* What reading a command line throws, or "". */
std::string refusal(std::vector<std::string> words) {
    words.insert(words.begin(), "vindral-enrol");
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    try {
        (void)read_options(static_cast<int>(words.size()), argv.data());
    } catch (const failure& f) {
        EXPECT_EQ(f.status, status_usage);
        return f.text;
    }
    return "";
}

std::string url_refusal(const std::string& text) {
    try {
        (void)read_collector_url(text);
    } catch (const failure& f) {
        EXPECT_EQ(f.status, status_usage);
        return f.text;
    }
    return "";
}

} // namespace

TEST(Token, WhatIsWrongWithItIsSaid) {
    const std::string token = good_token();
    ASSERT_EQ(token.size(), 89u);
    EXPECT_EQ(what_is_wrong_with(token), "");
    for (size_t i = 3; i < token.size(); i++) {
        std::string less = token;
        less.erase(i, 1);
        EXPECT_EQ(what_is_wrong_with(less), "the token is not whole: it lacks one character");
    }
    EXPECT_EQ(what_is_wrong_with(token.substr(0, 80)),
              "the token is not whole: it lacks 9 characters");
    EXPECT_EQ(what_is_wrong_with(token + "A"), "the token has one character too many");
    EXPECT_EQ(what_is_wrong_with(token + "\n"),
              "the token has a character that no token has, at place 90");
    std::string odd = token;
    odd[10] = ' ';
    EXPECT_EQ(what_is_wrong_with(odd), "the token has a character that no token has, at place 11");
    for (const char* none : {"", "ve", "xe_", "VE_aaaa", "https://x"}) {
        EXPECT_NE(what_is_wrong_with(none).find("this is no token"), std::string::npos) << none;
    }
    /* Nothing of it is shown. */
    EXPECT_EQ(what_is_wrong_with(odd).find(token.substr(3, 5)), std::string::npos);
}

TEST(Address, OfACollector) {
    for (const char* good : {"https://c.example.org:8443", "https://C.example.org:8443/",
                             "https://c.example.org:8443/fcgi-bin/agentgateway"}) {
        EXPECT_EQ(read_collector_url(good).text(), "https://c.example.org:8443") << good;
    }
    EXPECT_EQ(read_collector_url("https://c").text(), "https://c");
    EXPECT_EQ(read_collector_url("https://c").port, "443");
    EXPECT_EQ(read_collector_url("https://192.0.2.1:1").host, "192.0.2.1");
    EXPECT_NE(url_refusal("http://c:8443").find("https:// only"), std::string::npos);
    EXPECT_NE(url_refusal("c:8443").find("no address"), std::string::npos);
    EXPECT_NE(url_refusal("https://[::1]:8443").find("IPv6"), std::string::npos);
    EXPECT_NE(url_refusal("https://c:8443/api").find("path"), std::string::npos);
    EXPECT_NE(url_refusal("https://c:0").find("port"), std::string::npos);
    EXPECT_NE(url_refusal("https://c:70000").find("port"), std::string::npos);
    EXPECT_NE(url_refusal("https://").find("name of a host"), std::string::npos);
    EXPECT_NE(url_refusal("https://.c").find("name of a host"), std::string::npos);
    EXPECT_NE(url_refusal("https://a@c").find("more than"), std::string::npos);
    EXPECT_NE(url_refusal("https://c c").find("name of a host"), std::string::npos);
}

TEST(Fingerprint, IsReadInEachWayInWhichItIsShown) {
    const protocol::sha256 hash = hash_of(std::string_view("x"));
    EXPECT_EQ(read_fingerprint(fingerprint(hash)), hash);
    EXPECT_EQ(read_fingerprint(fingerprint(hash) + "="), hash);
    EXPECT_EQ(read_fingerprint(hex(hash)), hash);
    EXPECT_EQ(read_fingerprint("SHA256:" + hex(hash)), hash);
    std::string with_colons;
    for (size_t i = 0; i < 64; i += 2) {
        with_colons += (i > 0 ? ":" : "") + hex(hash).substr(i, 2);
    }
    EXPECT_EQ(read_fingerprint(with_colons), hash);
    for (const std::string& bad :
         {std::string(), std::string("SHA256:"), fingerprint(hash).substr(0, 49),
          fingerprint(hash) + "A", hex(hash).substr(1), fingerprint(hash).replace(9, 1, "!"),
          fingerprint(hash).replace(9, 1, "=")}) {
        EXPECT_FALSE(read_fingerprint(bad)) << bad;
    }
}

TEST(CommandLine, WhatDoesNotFitTogetherIsSaid) {
    const std::string token = good_token(), url = "https://c:8443";
    EXPECT_EQ(refusal({url, token}), "");
    EXPECT_EQ(refusal({url, token, "--replace", "--no-start", "--wait", "90s"}), "");
    EXPECT_EQ(refusal({url, "--ca", "x.pem", "--name", "a", "--account", "b"}), "");
    EXPECT_EQ(refusal({"--renew"}), "");
    EXPECT_EQ(refusal({"--renew", "--force", "--conf=/x", "--dir=/y/"}), "");
    EXPECT_EQ(refusal({"--show"}), "");
    EXPECT_NE(refusal({}), "");
    EXPECT_NE(refusal({url}).find("--authority"), std::string::npos);
    EXPECT_NE(refusal({url, "--ca", "x", "--authority", "y"}), "");
    EXPECT_NE(refusal({url, token, "--name", "a"}), "");
    EXPECT_NE(refusal({url, token, "more"}), "");
    EXPECT_NE(refusal({url, ""}), "");
    EXPECT_NE(refusal({token, url}).find("address"), std::string::npos);
    EXPECT_NE(refusal({"--renew", url}), "");
    EXPECT_NE(refusal({url, token, "--force"}), "");
    EXPECT_NE(refusal({url, token, "--conf", "relative"}), "");
    EXPECT_NE(refusal({url, token, "--wait", "10"}), "");
    EXPECT_NE(refusal({url, token, "--wait", "0s"}), "");
    EXPECT_NE(refusal({url, token, "--wait", "25h"}), "");
    EXPECT_NE(refusal({url, token, "--wait", "99999999999999999999s"}), "");
    EXPECT_NE(refusal({url, token, "--wait"}), "");
    EXPECT_NE(refusal({"--nonsense"}), "");
    EXPECT_EQ(refusal({"--token=" + token}).find(token.substr(5)), std::string::npos);
}

TEST(CommandLine, TheTokenIsMadeUnreadable) {
    std::string program = "vindral-enrol", url = "https://c", token = good_token();
    char* argv[] = {program.data(), url.data(), token.data(), nullptr};
    hide_token(3, argv);
    EXPECT_EQ(url, "https://c");
    EXPECT_EQ(token, std::string(89, '*'));
}

TEST(Renewal, IsDueWhenLessThanAThirdIsLeft) {
    EXPECT_FALSE(is_due(0, 90, 0));
    EXPECT_FALSE(is_due(0, 90, 60));
    EXPECT_TRUE(is_due(0, 90, 61));
    EXPECT_TRUE(is_due(0, 90, 100));
}

#include "ctl/failure.h"
#include "ctl/url.h"

#include <gtest/gtest.h>

TEST(url, parts_of_an_address) {
    base_url plain = read_url("http://127.0.0.1:8080");
    EXPECT_FALSE(plain.tls);
    EXPECT_EQ(plain.host, "127.0.0.1");
    EXPECT_EQ(plain.port, "8080");
    EXPECT_EQ(plain.prefix, "");
    EXPECT_TRUE(plain.is_loopback());
    EXPECT_TRUE(plain.is_address());
    EXPECT_EQ(plain.authority(), "127.0.0.1:8080");

    base_url named = read_url("https://Collector.Example.ORG/vindral/");
    EXPECT_TRUE(named.tls);
    EXPECT_EQ(named.host, "collector.example.org");
    EXPECT_EQ(named.port, "443");
    EXPECT_EQ(named.authority(), "collector.example.org");
    EXPECT_EQ(named.text(), "https://collector.example.org/vindral");
    EXPECT_FALSE(named.is_loopback());
    EXPECT_FALSE(named.is_address());

    base_url v6 = read_url("https://[2001:db8::1]:8443");
    EXPECT_EQ(v6.host, "2001:db8::1");
    EXPECT_EQ(v6.authority(), "[2001:db8::1]:8443");
    EXPECT_TRUE(v6.is_address());
    EXPECT_TRUE(read_url("http://[::1]").is_loopback());
    EXPECT_TRUE(read_url("http://localhost").is_loopback());
    EXPECT_FALSE(read_url("http://127.example.org").is_loopback());
}

TEST(url, what_is_no_address_is_refused) {
    for (const char* text :
         {"", "127.0.0.1:8080", "ftp://a", "http://", "http:///x", "http://a:", "http://a:0",
          "http://a:65536", "http://a:8080x", "http://[::1", "http://[]:80", "http://[x]:80",
          "http://[::1]80", "http://a b", "http://a/b c", "http://a\r\n", "http://a/\r\nX: 1",
          "http://a?x", "http://u@a"}) {
        EXPECT_THROW(read_url(text), failure) << text;
    }
}

TEST(url, a_secret_in_it_is_not_shown) {
    for (const char* text : {"http://127.0.0.1:8080/#link=vl_secret", "http://vl_secret@a"}) {
        try {
            read_url(text);
            FAIL() << text;
        } catch (const failure& f) {
            EXPECT_EQ(f.status, status_usage);
            EXPECT_EQ(f.text.find("secret"), std::string::npos) << f.text;
            EXPECT_EQ(f.text.find("link"), std::string::npos) << f.text;
        }
    }
}

TEST(url, targets_are_encoded) {
    EXPECT_EQ(percent_encoded("a/b c:\xc3\xa4-._~"), "a%2Fb%20c%3A%C3%A4-._~");
    EXPECT_EQ(target_of("/x", {}), "/x");
    EXPECT_EQ(target_of("/x", {{"a", "1&2"}, {"b", ""}, {"c", "d=e"}}), "/x?a=1%262&c=d%3De");
}

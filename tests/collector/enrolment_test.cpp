#include "protocol/enrolment.h"

#include "protocol/base64url.h"

#include <gtest/gtest.h>

using namespace protocol;

static enrolment_token some_token() {
    enrolment_token token;
    for (size_t i = 0; i < token.secret.size(); i++) {
        token.secret[i] = static_cast<unsigned char>(i * 37 + 200);
        token.authority[i] = static_cast<unsigned char>(255 - i);
    }
    return token;
}

TEST(base64url, there_is_one_text_a_value) {
    EXPECT_EQ(base64url(""), "");
    EXPECT_EQ(base64url("f"), "Zg");
    EXPECT_EQ(base64url("fo"), "Zm8");
    EXPECT_EQ(base64url("foo"), "Zm9v");
    EXPECT_EQ(from_base64url("Zm8"), "fo");
    for (const char* wrong : {"Z", "Zh", "Zm9", "Zm8=", "Zm+v", "Zm/v", "Zm9v\n", " Zm9v"}) {
        EXPECT_EQ(from_base64url(wrong), std::nullopt) << wrong;
    }
}

TEST(enrolment_token, it_is_a_text_of_89_characters_and_back) {
    const enrolment_token token = some_token();
    const std::string text = text_of(token);
    EXPECT_EQ(text.size(), 89u);
    EXPECT_TRUE(text.starts_with("ve_"));
    EXPECT_EQ(
        text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
        text.npos);
    std::optional<enrolment_token> read = read_enrolment_token(text);
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->secret, token.secret);
    EXPECT_EQ(read->authority, token.authority);
    EXPECT_EQ(text_of(enrolment_token()), "ve_" + std::string(86, 'A'));
}

TEST(enrolment_token, no_other_length_is_one) {
    const std::string text = text_of(some_token()) + std::string(400, 'A');
    for (size_t length = 0; length <= text.size(); length++) {
        EXPECT_EQ(read_enrolment_token(text.substr(0, length)).has_value(), length == 89) << length;
    }
    EXPECT_FALSE(read_enrolment_token(text.substr(0, 89) + "="));
    EXPECT_FALSE(read_enrolment_token(text.substr(0, 89) + "\n"));
    EXPECT_FALSE(read_enrolment_token(" " + text.substr(0, 88)));
    EXPECT_FALSE(read_enrolment_token(std::string(1 << 20, 'A')));
}

TEST(enrolment_token, no_other_character_is_in_it) {
    const std::string good = text_of(some_token());
    for (size_t at = 0; at < good.size(); at++) {
        for (int c = 0; c < 256; c++) {
            std::string text = good;
            text[at] = static_cast<char>(c);
            std::optional<enrolment_token> read = read_enrolment_token(text);
            /* What is read is written the same way again: no two texts are one token. */
            if (read) {
                ASSERT_EQ(text_of(*read), text) << at << " " << c;
            }
            const bool of_alphabet = isalnum(c) || c == '-' || c == '_';
            const bool may = at < 3    ? text == good
                             : at < 88 ? of_alphabet
                                       : c == 'A' || c == 'Q' || c == 'g' || c == 'w';
            ASSERT_EQ(read.has_value(), may) << at << " " << c;
        }
    }
}

/* --- names ----------------------------------------------------------------------------------- */

static void expect_uri(const agent_identity& who, const std::string& uri) {
    EXPECT_EQ(identity_uri(who), uri);
    EXPECT_EQ(read_identity_uri(uri), who) << uri;
}

TEST(identity_uri, names_and_back) {
    expect_uri({"ops@example.org", "web1.example.org"},
               "vindral:ops%40example.org/web1.example.org");
    expect_uri({"a", "b"}, "vindral:a/b");
    expect_uri({"A-Z_.~", "0-9"}, "vindral:A-Z_.~/0-9");
    expect_uri({"a/b", "c/d/"}, "vindral:a%2Fb/c%2Fd%2F");
    expect_uri({"%41", "100% +1"}, "vindral:%2541/100%25%20%2B1");
    expect_uri({"gr\xc3\xbc\xc3\x9f", "\xff"}, "vindral:gr%C3%BC%C3%9F/%FF");
    expect_uri({"vindral:a", ".."}, "vindral:vindral%3Aa/..");
    expect_uri({std::string(254, '@'), std::string(254, 'b')}, [] {
        std::string uri = "vindral:";
        for (int i = 0; i < 254; i++) {
            uri += "%40";
        }
        return uri + "/" + std::string(254, 'b');
    }());
    expect_uri({std::string(254, '/'), std::string(254, '%')},
               identity_uri({std::string(254, '/'), std::string(254, '%')}));
}

TEST(identity_uri, every_byte_stands_in_one_way) {
    for (int byte = 0; byte < 256; byte++) {
        const std::string name(1, static_cast<char>(byte));
        const bool may = byte >= 0x20 && byte != 0x7f;
        const std::string uri = identity_uri({"a", name});
        EXPECT_EQ(uri.empty(), !may) << byte;
        EXPECT_EQ(identity_uri({name, "a"}).empty(), !may) << byte;
        if (may) {
            EXPECT_EQ(read_identity_uri(uri), (agent_identity{"a", name})) << byte;
        }
        char encoded[16];
        snprintf(encoded, sizeof(encoded), "vindral:a/%%%02X", static_cast<unsigned>(byte));
        EXPECT_EQ(read_identity_uri(encoded).has_value(), uri == encoded) << encoded;
        const std::string as_it_is = "vindral:a/" + name;
        EXPECT_EQ(read_identity_uri(as_it_is).has_value(), uri == as_it_is) << byte;
    }
}

TEST(identity_uri, names_have_1_to_254_bytes_and_no_control_characters) {
    for (const std::string& name :
         {std::string(), std::string(255, 'a'), std::string(1 << 20, 'a'), std::string("a\0b", 3),
          std::string("a\nb"), std::string("\x7f")}) {
        EXPECT_EQ(identity_uri({name, "agent"}), "");
        EXPECT_EQ(identity_uri({"account", name}), "");
    }
    const std::string long_name(255, 'a');
    EXPECT_FALSE(read_identity_uri("vindral:" + long_name + "/b"));
    EXPECT_FALSE(read_identity_uri("vindral:b/" + long_name));
    EXPECT_FALSE(read_identity_uri("vindral:b/" + std::string(1 << 20, 'a')));
    EXPECT_FALSE(read_identity_uri("vindral:a%0Ab/c"));
    EXPECT_FALSE(read_identity_uri("vindral:a/b%00"));
    EXPECT_FALSE(read_identity_uri("vindral:a/b%7F"));
}

TEST(identity_uri, what_is_written_in_another_way_is_none) {
    for (const char* wrong : {"",
                              "vindral",
                              "vindral:",
                              "vindral:/",
                              "vindral:a",
                              "vindral:a/",
                              "vindral:/b",
                              "a/b",
                              "Vindral:a/b",
                              "VINDRAL:a/b",
                              " vindral:a/b",
                              "vindral:a/b ",
                              "vindral: a/b",
                              "vindral:a/b/c",
                              "vindral:a/b/",
                              "vindral://a/b",
                              "vindral:a//b",
                              "vindral:a/b?c",
                              "vindral:a/b#c",
                              "vindral:a%2fb/c",
                              "vindral:a%c3%bc/b",
                              "vindral:a%2Fb/%c3%BC",
                              "vindral:%61/b",
                              "vindral:a/%2D",
                              "vindral:a/%7E",
                              "vindral:a/b%",
                              "vindral:a/b%2",
                              "vindral:a%/b",
                              "vindral:a%2/b",
                              "vindral:a/b%2G",
                              "vindral:a/b%G2",
                              "vindral:a/b%%20",
                              "vindral:a/b%+2",
                              "vindral:a/b+c",
                              "vindral:a/\xc3\xbc",
                              "vindral:a@b/c",
                              "spiffe://a/b",
                              "vindral:a%2Fb"}) {
        EXPECT_FALSE(read_identity_uri(wrong)) << wrong;
    }
    EXPECT_FALSE(read_identity_uri(std::string_view("vindral:a/b\0", 12)));
    EXPECT_FALSE(read_identity_uri(std::string_view("vindral:a/b%4\0", 14)));
}

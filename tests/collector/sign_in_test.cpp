/* Secrets, and who has them. */
#include "web/sign_in.h"

#include "collector_test_support.h"

#include <gtest/gtest.h>
#include <set>

struct sign_in_test : testing::Test {
    scratch_directory directory;
    std::string note, error;
    std::unique_ptr<settings> kept;
    static constexpr int64_t now = 1777636800;

    void SetUp() override {
        kept = settings::open(directory / "state", note, error);
        ASSERT_TRUE(kept) << error;
    }
    std::string add(token_kind kind, role may, const std::string& name, int64_t parent = 0) {
        std::string secret = add_secret(*kept, kind, may, name, now, parent, error);
        EXPECT_NE(secret, "") << error;
        return secret;
    }
    stored_token last() {
        stored_token found;
        EXPECT_TRUE(kept->for_each_token([&](const stored_token& t) { found = t; }, error));
        return found;
    }
};

TEST_F(sign_in_test, secrets_are_random_and_of_one_form) {
    std::set<std::string> all;
    const std::pair<token_kind, std::string> kinds[] = {
        {token_kind::token, "vt_"}, {token_kind::session, "vs_"}, {token_kind::link, "vl_"}};
    for (int i = 0; i < 100; i++) {
        for (const auto& [kind, prefix] : kinds) {
            token_hash hash{};
            std::string secret = make_secret(kind, hash);
            EXPECT_EQ(secret.size(), 46u);
            EXPECT_TRUE(secret.starts_with(prefix)) << secret;
            EXPECT_EQ(
                secret.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                         "0123456789-_"),
                std::string::npos)
                << secret;
            EXPECT_EQ(hash, hash_of(secret));
            all.insert(secret);
        }
    }
    EXPECT_EQ(all.size(), 300u);
}

TEST_F(sign_in_test, a_hash_is_sha_256) {
    token_hash hash = hash_of("abc");
    EXPECT_EQ(hash[0], 0xba);
    EXPECT_EQ(hash[1], 0x78);
    EXPECT_EQ(hash[31], 0xad);
}

TEST_F(sign_in_test, no_secret_is_kept_in_clear) {
    std::string secret = add(token_kind::token, role::viewer, "name that can be found");
    std::string file = read_text(directory / "state/settings.db");
    EXPECT_NE(file.find("name that can be found"), std::string::npos);
    EXPECT_EQ(file.find(secret.substr(3)), std::string::npos);
}

TEST_F(sign_in_test, links_and_sessions_end_tokens_do_not) {
    add(token_kind::token, role::viewer, "t");
    EXPECT_EQ(last().ends, 0);
    add(token_kind::link, role::admin, "l");
    EXPECT_EQ(last().ends, now + 15 * 60);
    EXPECT_EQ(last().role, static_cast<uint8_t>(role::admin));
    add(token_kind::session, role::operates, "s");
    EXPECT_EQ(last().ends, now + 30 * 86400);
}

TEST_F(sign_in_test, names_are_for_people) {
    for (const std::string& name :
         {std::string(), std::string(101, 'x'), std::string("a\nb"), std::string("a\x1b[0m"),
          std::string("\xff"), std::string(1, '\0'), std::string(" "), std::string(" a"),
          std::string("a "), std::string("a\u00a0"), std::string("\u3000a"),
          std::string("a\u202eb"), std::string("\u200fa"), std::string("a\u2066b\u2069"),
          std::string("a\u061c"), std::string("a\u200bb"), std::string("\ufeffa"),
          std::string("a\u2028b")}) {
        EXPECT_EQ(add_secret(*kept, token_kind::token, role::viewer, name, now, 0, error), "");
        EXPECT_EQ(error,
                  "a token's name has to be a text of 1 to 100 bytes of UTF-8, without control "
                  "characters, without characters that cannot be seen or change the direction of "
                  "text, and without blanks at its ends");
    }
    for (const std::string& name :
         {std::string(100, 'x'), std::string("Grüße 日本"), std::string("-"), std::string("سلام"),
          std::string("a \U0001f4bb b"), std::string("می\u200cخواهم")}) {
        add(token_kind::token, role::viewer, name);
    }
    EXPECT_EQ(add_secret(*kept, token_kind::token, role::viewer, "-", now, 0, error), "");
    EXPECT_EQ(error, "there is a token of the name - already");
}

TEST_F(sign_in_test, who_has_a_secret) {
    known_callers callers(*kept);
    std::string token = add(token_kind::token, role::operates, "script");
    std::string session = add(token_kind::session, role::admin, "browser");
    std::string link = add(token_kind::link, role::admin, "link");
    caller found = callers.find(token, now);
    EXPECT_EQ(found.may, role::operates);
    EXPECT_EQ(found.name, "script");
    EXPECT_NE(found.token, 0);
    EXPECT_EQ(callers.find(session, now).may, role::admin);
    EXPECT_EQ(callers.find(session, now + session_lasts_s - 1).may, role::admin);
    EXPECT_EQ(callers.find(session, now + session_lasts_s).may, role::none);
    token_hash unused{};
    for (const std::string& wrong : {link, std::string(), token.substr(0, 45), token + "x",
                                     "vs" + token.substr(2), make_secret(token_kind::token, unused),
                                     std::string(46, '\0'), std::string(100000, 'v')}) {
        EXPECT_EQ(callers.find(wrong, now).may, role::none);
        EXPECT_EQ(callers.find(wrong, now).token, 0);
    }
    /* looked up for nobody: it still opens */
    std::optional<stored_token> opened;
    EXPECT_TRUE(kept->find_token(hash_of(link), now, opened, error));
    EXPECT_TRUE(opened.has_value());
}

TEST_F(sign_in_test, what_was_removed_is_forgotten_at_once) {
    known_callers callers(*kept);
    std::string token = add(token_kind::token, role::viewer, "script");
    EXPECT_EQ(callers.remembered(token, now).may, role::none);
    int64_t id = callers.find(token, now).token;
    std::string session = add(token_kind::session, role::viewer, "script", id);
    EXPECT_EQ(callers.find(session, now).may, role::viewer);
    EXPECT_EQ(callers.remembered(session, now).may, role::viewer);
    ASSERT_TRUE(kept->drop_token(id, error));
    EXPECT_EQ(callers.remembered(token, now).may, role::viewer);
    EXPECT_EQ(callers.find(token, now).may, role::none);
    EXPECT_EQ(callers.remembered(session, now).may, role::none);
}

/* A role that this version does not know gives nothing. */
TEST_F(sign_in_test, roles_that_are_none) {
    known_callers callers(*kept);
    for (unsigned number : {0u, 4u, 255u}) {
        std::string secret =
            add(token_kind::token, static_cast<role>(number), std::to_string(number));
        EXPECT_EQ(callers.find(secret, now).may, role::none);
    }
}

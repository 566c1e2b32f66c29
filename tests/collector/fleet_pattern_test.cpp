/* Which agents a pattern is for. */
#include "fleet/pattern.h"

#include <gtest/gtest.h>
#include <string>

TEST(fleet_pattern, stars_and_question_marks) {
    const struct {
        const char *text, *pattern;
        bool does;
    } cases[] = {
        {"web-1", "web-1", true},
        {"web-1", "web-*", true},
        {"web-", "web-*", true},
        {"web-1", "*", true},
        {"", "*", true},
        {"", "", true},
        {"web-1", "", false},
        {"web-1", "web", false},
        {"web-1", "eb-1", false},
        {"web-1", "web-?", true},
        {"web-12", "web-?", false},
        {"web-12", "web-??", true},
        {"web-1", "w*-*1", true},
        {"web-1", "**", true},
        {"web-1", "*b*b*", false},
        {"abcabd", "*abd", true},
        {"aab", "*ab", true},
        {"a*b", "a*b", true},
        {"Web-1", "web-*", false},
        {"w.b", "w.b", true},
        {"wxb", "w.b", false},
        {"\xc3\xbc-1", "?-1", true},
        {"x\xc3\xbc", "*?\xc3\xbc", true},
        {"\xc3\xbc", "??", false},
        {"db[1]", "db[1]", true},
        {"db1", "db[1]", false},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(matches_pattern(each.text, each.pattern), each.does)
            << each.text << " " << each.pattern;
    }
}

TEST(fleet_pattern, an_account_stands_before_the_last_slash) {
    const agent_pattern any = pattern_of("web-*");
    EXPECT_EQ(any.account, "");
    EXPECT_TRUE(any.matches("me@example.org", "web-1"));
    EXPECT_FALSE(any.matches("me@example.org", "db-1"));
    const agent_pattern one = pattern_of("me@example.org/web-1");
    EXPECT_TRUE(one.matches("me@example.org", "web-1"));
    EXPECT_FALSE(one.matches("you@example.org", "web-1"));
    EXPECT_FALSE(one.matches("me@example.org", "web-11"));
    const agent_pattern slashed = pattern_of("a/b@example.org/web-?");
    EXPECT_EQ(slashed.account, "a/b@example.org");
    EXPECT_TRUE(slashed.matches("a/b@example.org", "web-1"));
    EXPECT_TRUE(pattern_of("*@example.org/*").matches("me@example.org", "x"));
    EXPECT_FALSE(pattern_of("*@example.org/*").matches("me@example.com", "x"));
    /* a name that has a slash itself is met by stars only */
    EXPECT_TRUE(pattern_of("*").matches("me@example.org", "a/b"));
}

TEST(fleet_pattern, many_stars_end_soon) {
    const std::string text(20'000, 'a');
    std::string pattern;
    for (int i = 0; i < 1000; i++) {
        pattern += "a*";
    }
    EXPECT_FALSE(matches_pattern(text, pattern + "b"));
    EXPECT_TRUE(matches_pattern(text, pattern));
}

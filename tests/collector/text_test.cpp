#include "base/text.h"

#include <gtest/gtest.h>
#include <limits>

TEST(text, printable_has_no_controls) {
    EXPECT_EQ(printable("plain text"), "plain text");
    EXPECT_EQ(printable("two\nlines\t\n"), "two lines");
    EXPECT_EQ(printable("\x1b[31mred\x07"), "?[31mred?");
    EXPECT_EQ(printable("\xc2\x9b"
                        "1m \x7f"),
              "?1m ?");
    EXPECT_EQ(printable("gr\xc3\xbc\xc3\x9f \xe6\xbc\xa2"), "gr\xc3\xbc\xc3\x9f \xe6\xbc\xa2");
    EXPECT_EQ(printable("a\xe2\x80\xae"
                        "b\xe2\x80\x8b"
                        "c\xef\xbb\xbf"),
              "a?b?c?"); /* right-to-left override, zero-width space, byte order mark */
    EXPECT_EQ(printable("\xff\xc3"), "??");
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a?b");
}

TEST(text, what_is_no_utf8_becomes_the_replacement_character) {
    const std::string no = "\xef\xbf\xbd";
    EXPECT_EQ(valid_utf8("gr\xc3\xbc\xc3\x9f \xe6\xbc\xa2 \xf0\x9f\x98\x80"),
              "gr\xc3\xbc\xc3\x9f \xe6\xbc\xa2 \xf0\x9f\x98\x80");
    EXPECT_EQ(valid_utf8(std::string("a\0b\x1b", 4)), std::string("a\0b\x1b", 4));
    EXPECT_EQ(valid_utf8("\xff"
                         "a\x80"),
              no + "a" + no);
    EXPECT_EQ(valid_utf8("\xc0\xaf"), no + no) << "overlong";
    EXPECT_EQ(valid_utf8("\xe0\x80\xaf"), no + no + no) << "overlong";
    EXPECT_EQ(valid_utf8("\xed\xa0\x80"), no + no + no) << "a surrogate";
    EXPECT_EQ(valid_utf8("\xf4\x90\x80\x80"), no + no + no + no) << "beyond U+10FFFF";
    EXPECT_EQ(valid_utf8("\xf4\x8f\xbf\xbf"), "\xf4\x8f\xbf\xbf") << "the last character";
    EXPECT_EQ(valid_utf8("\xe6\xbc"), no + no) << "cut off";
}

TEST(text, parts_between_separators) {
    auto parts = [](std::string_view text) {
        std::string found;
        for_each_part(text, ',', [&](std::string_view part) {
            found.append("[").append(part).append("]").append(trimmed(part));
        });
        return found;
    };
    EXPECT_EQ(parts(""), "[]");
    EXPECT_EQ(parts("a"), "[a]a");
    EXPECT_EQ(parts("a, b\t,,c d "), "[a]a[ b\t]b[][c d ]c d");
    EXPECT_EQ(parts(" ,"), "[ ][]");
}

TEST(text, shortened_between_characters) {
    EXPECT_EQ(shortened("abc", 3), "abc");
    EXPECT_EQ(shortened("abcd", 3), "abc ...");
    EXPECT_EQ(shortened("a\xc3\xbc"
                        "b",
                        2),
              "a ...");
    EXPECT_EQ(shortened("a\xc3\xbc"
                        "b",
                        3),
              "a\xc3\xbc ...");
    EXPECT_EQ(shortened("\x80\x80\x80", 2), " ...");
    EXPECT_EQ(shortened("a", 0), " ...");
    EXPECT_EQ(shortened("", 0), "");
}

TEST(text, columns) {
    EXPECT_EQ(display_width("abc"), 3u);
    EXPECT_EQ(display_width("\xe6\xbc\xa2\xc3\xbc"), 3u);
    EXPECT_EQ(fit_columns("abc", 5), "abc  ");
    EXPECT_EQ(fit_columns("abcdef", 3), "abc");
    EXPECT_EQ(fit_columns("a\xe6\xbc\xa2", 2), "a "); /* a wide character is not halved */
    EXPECT_EQ(display_width("e\xcc\x81"), 1u);        /* an accent stands over what it follows */
    EXPECT_EQ(fit_columns("e\xcc\x81"
                          "f",
                          1),
              "e\xcc\x81");
    EXPECT_EQ(display_width(""), 0u);
    EXPECT_EQ(fit_columns("abc", 0), "");
}

TEST(text, times) {
    EXPECT_EQ(utc_time(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(utc_time(1777636800), "2026-05-01T12:00:00Z");
    EXPECT_EQ(utc_time(-1), "-1");
    EXPECT_EQ(utc_time(std::numeric_limits<int64_t>::max()), "9223372036854775807");
    EXPECT_EQ(utc_day(1777636800), "20260501");
    EXPECT_EQ(utc_day(1777593599), "20260430");
    EXPECT_EQ(utc_day(1777593600), "20260501");
    EXPECT_EQ(utc_day(std::numeric_limits<int64_t>::min()), "19700101");
    EXPECT_EQ(utc_day(std::numeric_limits<int64_t>::max()), "99991231");
}

#include "ctl/json.h"
#include "ctl/quantity.h"
#include "ctl/text.h"

#include <cmath>
#include <gtest/gtest.h>

TEST(text, control_characters_become_printable) {
    EXPECT_EQ(printable("a\tb\nc \r\n"), "a b c");
    EXPECT_EQ(printable("\x1b[31mred\x07"), "?[31mred?");
    EXPECT_EQ(printable("\xc2\x9b"
                        "31m"),
              "?31m");
    EXPECT_EQ(printable("x\xe2\x80\xaey"), "x?y"); /* reorders what follows */
    EXPECT_EQ(printable("\xff\xc3"), "??");
    EXPECT_EQ(printable("gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(printable("gr\xc3\xbc\xc3\x9f", true), "gr??");
}

TEST(text, is_cut_by_columns) {
    EXPECT_EQ(display_width("\xe6\xbc\xa2\xe5\xad\x97"), 4u);
    EXPECT_EQ(shortened("abc", 3, "~"), "abc");
    EXPECT_EQ(shortened("abcd", 3, "~"), "ab~");
    EXPECT_EQ(shortened("\xe6\xbc\xa2\xe5\xad\x97", 3, "~"), "\xe6\xbc\xa2~");
    EXPECT_EQ(shortened("abc", 0, "~"), "");
    EXPECT_EQ(shortened_left("abcd", 4, "~"), "abcd");
    EXPECT_EQ(shortened_left("abcd", 3, "~"), "~cd");
    EXPECT_EQ(shortened_left("\xe6\xbc\xa2\xe5\xad\x97", 2, "~"), "~");
    EXPECT_EQ(shortened_left("abcd", 0, "~"), "");
}

TEST(text, is_broken_at_blanks) {
    using lines = std::vector<std::string>;
    EXPECT_EQ(wrapped("", 10), lines{""});
    EXPECT_EQ(wrapped("one two three", 7), (lines{"one two", "three"}));
    EXPECT_EQ(wrapped("one two three", 8), (lines{"one two", "three"}));
    EXPECT_EQ(wrapped("abcdefgh", 3), (lines{"abc", "def", "gh"}));
    EXPECT_EQ(wrapped("\xe6\xbc\xa2\xe5\xad\x97", 1), (lines{"\xe6\xbc\xa2", "\xe5\xad\x97"}));
}

TEST(quantity, has_as_many_digits_as_help) {
    EXPECT_EQ(quantity(0, ""), "0");
    EXPECT_EQ(quantity(0.25, ""), "0.25");
    EXPECT_EQ(quantity(12.34567, "%"), "12.3 %");
    EXPECT_EQ(quantity(9999, ""), "9999");
    EXPECT_EQ(quantity(12345, ""), "12.3k");
    EXPECT_EQ(quantity(123456789, "/s"), "123M/s");
    EXPECT_EQ(quantity(123, "bytes"), "123 bytes");
    EXPECT_EQ(quantity(12345678, "bytes"), "12.3 MB");
    EXPECT_EQ(quantity(12345678, "B/s"), "12.3 MB/s");
    EXPECT_EQ(quantity(9999, "MB"), "9999 MB");
    EXPECT_EQ(quantity(24105, "MB"), "23.5 GB");
    EXPECT_EQ(quantity(0.5003, "%"), "0.5 %");
    EXPECT_EQ(quantity(-12345, ""), "-12.3k");
    EXPECT_EQ(quantity(NAN, "MB"), "-");
    EXPECT_EQ(quantity(INFINITY, ""), "-");
}

TEST(quantity, labels_of_an_axis_are_alike) {
    EXPECT_EQ(quantity(0, "", 0.5, 2), "0.0");
    EXPECT_EQ(quantity(1.5, "", 0.5, 2), "1.5");
    EXPECT_EQ(quantity(0, "B/s", 5000, 20000), "0 kB/s");
    EXPECT_EQ(quantity(15000, "B/s", 5000, 20000), "15 kB/s");
    EXPECT_EQ(quantity(-1e-17, "", 0.1, 1), "0.0");
    EXPECT_EQ(quantity(40, "%", 20, 100), "40 %");
}

TEST(quantity, steps_are_round) {
    EXPECT_DOUBLE_EQ(round_step(0.3), 0.5);
    EXPECT_DOUBLE_EQ(round_step(1), 1);
    EXPECT_DOUBLE_EQ(round_step(1.1), 2);
    EXPECT_DOUBLE_EQ(round_step(51), 100);
    EXPECT_DOUBLE_EQ(round_step(0), 1);
    EXPECT_DOUBLE_EQ(round_step(NAN), 1);
}

TEST(json, is_written_as_it_came) {
    const char text[] = R"({"b":1,"a":[0.1,-2,18446744073709551615,null,true],"c":{},"d":[]})";
    EXPECT_EQ(json_text(boost::json::parse(text)), text);
}

TEST(json, steers_no_terminal) {
    EXPECT_EQ(json_text(boost::json::value("\x1b[2J\"\\\n\xc2\x9b\xe2\x80\xae\xc3\xbc")),
              "\"\\u001b[2J\\\"\\\\\\n\\u009b\\u202e\xc3\xbc\"");
    EXPECT_EQ(json_text(boost::json::value("\xf3\xa0\x80\x81")), "\"\\udb40\\udc01\"");
}

TEST(json, what_is_missing_is_empty) {
    boost::json::object of{{"text", 5}, {"number", "x"}, {"list", nullptr}};
    EXPECT_EQ(text_in(of, "text"), "");
    EXPECT_EQ(text_in(of, "none"), "");
    EXPECT_EQ(number_in(of, "number"), 0);
    EXPECT_TRUE(list_in(of, "list").empty());
    EXPECT_TRUE(object_in(of, "list").empty());
    EXPECT_TRUE(std::isnan(real_of(of["number"])));
}

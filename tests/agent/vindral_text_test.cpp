#include "vindral_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

using fields = std::vector<std::string>;

static fields split(const char* text, char delimiter) {
    char** array = nullptr;
    size_t count = 0;
    EXPECT_EQ(uparser(text, &array, &count, delimiter), 1);
    fields result(array, array + count);
    free_uparser_array(&array, &count);
    EXPECT_EQ(count, 0U);
    return result;
}

TEST(uparser, splits_at_every_delimiter) {
    EXPECT_EQ(split("a\tbc\td", '\t'), (fields{"a", "bc", "d"}));
    EXPECT_EQ(split("abc", '\t'), (fields{"abc"}));
    EXPECT_EQ(split("a", 'a'), (fields{"a"}));
}

TEST(uparser, two_delimiters_in_a_row_give_an_empty_field_and_a_last_one_gives_none) {
    EXPECT_EQ(split("a\t\tb\t", '\t'), (fields{"a", "", "b"}));
    EXPECT_EQ(split("a\t", '\t'), (fields{"a"}));
    EXPECT_EQ(split("a\t\t", '\t'), (fields{"a", ""}));
    EXPECT_EQ(split("a\t\t\t", '\t'), (fields{"a", "", ""}));
}

TEST(uparser, the_first_field_keeps_a_delimiter_at_the_start) {
    EXPECT_EQ(split("\tx", '\t'), (fields{"\tx"}));
    EXPECT_EQ(split("\t", '\t'), (fields{"\t"}));
    EXPECT_EQ(split("\t\t", '\t'), (fields{"\t"}));
    EXPECT_EQ(split("\t\tx", '\t'), (fields{"\t", "x"}));
    EXPECT_EQ(split("\tx\ty", '\t'), (fields{"\tx", "y"}));
}

TEST(uparser, nul_as_delimiter_splits_nothing) {
    EXPECT_EQ(split("a b", '\0'), (fields{"a b"}));
}

TEST(uparser, a_delimiter_may_be_any_byte) {
    EXPECT_EQ(split("a\xFF"
                    "b",
                    '\xFF'),
              (fields{"a", "b"}));
}

TEST(uparser, empty_input_leaves_the_outputs_untouched) {
    char* mark = nullptr;
    char** array = &mark;
    size_t count = 77;
    EXPECT_EQ(uparser(nullptr, &array, &count, '\t'), 0);
    EXPECT_EQ(uparser("", &array, &count, '\t'), 0);
    EXPECT_EQ(array, &mark);
    EXPECT_EQ(count, 77U);
}

TEST(uparser, a_million_fields) {
    std::string text = "x" + std::string(1000000, ';') + "y";
    char** array = nullptr;
    size_t count = 0;
    ASSERT_EQ(uparser(text.c_str(), &array, &count, ';'), 1);
    EXPECT_EQ(count, 1000001U);
    EXPECT_STREQ(array[count - 1], "y");
    free_uparser_array(&array, &count);
}

TEST(free_uparser_array, leaves_the_pointer_and_may_be_called_again) {
    char** array = nullptr;
    size_t count = 0;
    ASSERT_EQ(uparser("a;b", &array, &count, ';'), 1);
    char** before = array;
    free_uparser_array(&array, &count);
    EXPECT_EQ(array, before);
    EXPECT_EQ(count, 0U);
    free_uparser_array(&array, &count);
}

TEST(free_uparser_array, takes_null) {
    char** none = nullptr;
    size_t count = 0;
    free_uparser_array(nullptr, &count);
    free_uparser_array(&none, &count);
    free_uparser_array(&none, nullptr);
    EXPECT_EQ(count, 0U);
}

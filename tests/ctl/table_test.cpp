#include "ctl/table.h"
#include "ctl/text.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {

table sample() {
    table t({{"STATE"},
             {.head = "ID", .is_right = true},
             {"EMPTY"},
             {.head = "NAME", .least = 6},
             {.head = "MESSAGE", .least = 6}});
    t.add({{"ok", tint::good}, {"7"}, {}, {"root disk"}, {"well"}});
    t.add({{"problem", tint::bad}, {"1234"}, {}, {"x"}, {"free 12 MB, less than 5000"}});
    return t;
}

} // namespace

TEST(table, columns_are_as_wide_as_they_need) {
    EXPECT_EQ(sample().text({.width = 0, .ascii = true, .color = false}),
              "STATE      ID  NAME       MESSAGE\n"
              "ok          7  root disk  well\n"
              "problem  1234  x          free 12 MB, less than 5000\n");
}

TEST(table, wide_columns_are_cut_to_the_screen) {
    EXPECT_EQ(sample().text({.width = 40, .ascii = true, .color = false}),
              "STATE      ID  NAME       MESSAGE\n"
              "ok          7  root disk  well\n"
              "problem  1234  x          free 12 MB, l~\n");
    std::istringstream lines(sample().text({.width = 30, .ascii = true, .color = false}));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(display_width(line), 30u) << line;
    }
    /* What is not to be cut is not; the last columns go. */
    EXPECT_EQ(sample().text({.width = 20, .ascii = true, .color = false}),
              "STATE      ID\nok          7\nproblem  1234\n");
}

TEST(table, colours_take_no_columns) {
    std::string plain = sample().text({.width = 40, .ascii = true, .color = false});
    std::string colored = sample().text({.width = 40, .ascii = true, .color = true});
    EXPECT_NE(colored.find("\x1b[1;31mproblem\x1b[0m  1234"), std::string::npos);
    std::string bare;
    for (size_t i = 0; i < colored.size(); i++) {
        if (colored[i] == '\x1b') {
            i = colored.find('m', i);
        } else {
            bare += colored[i];
        }
    }
    EXPECT_EQ(bare, plain);
}

TEST(table, wide_characters_line_up) {
    table t({{.head = "NAME", .least = 4}, {"ID"}});
    t.add({{"\xe6\xbc\xa2\xe5\xad\x97\xe6\xbc\xa2"}, {"1"}});
    t.add({{"abc"}, {"2"}});
    EXPECT_EQ(t.text({.width = 0, .ascii = false, .color = false}),
              "NAME    ID\n\xe6\xbc\xa2\xe5\xad\x97\xe6\xbc\xa2  1\nabc     2\n");
    EXPECT_EQ(t.text({.width = 9, .ascii = false, .color = false}),
              "NAME   ID\n\xe6\xbc\xa2\xe5\xad\x97\xe2\x80\xa6  1\nabc    2\n");
}

TEST(table, of_names_the_end_is_kept) {
    table t({{.head = "AGENT", .least = 6, .keeps_end = true}});
    t.add({{"ops@example.org/web-1"}});
    EXPECT_EQ(t.text({.width = 7, .ascii = true, .color = false}), "AGENT\n~/web-1\n");
}

TEST(table, without_rows_is_nothing) {
    table t({{"A"}});
    EXPECT_TRUE(t.is_empty());
    EXPECT_EQ(t.text({}), "");
    t.add({});
    EXPECT_FALSE(t.is_empty());
}

TEST(table, on_a_screen_the_account_that_all_have_is_left_out) {
    const screen wide{.width = 80, .ascii = true, .color = false};
    table t({{.head = "AGENT", .least = 6, .is_agent = true}, {"ID"}});
    t.add({{"ops@example.org/web-1"}, {"1"}});
    t.add({{"ops@example.org/db/2"}, {"2"}});
    EXPECT_EQ(t.text(wide), "AGENT  ID\nweb-1  1\ndb/2   2\n");
    /* What programs may read has it. */
    EXPECT_EQ(t.text({.width = 0, .ascii = true, .color = false}),
              "AGENT                  ID\nops@example.org/web-1  1\nops@example.org/db/2   2\n");
    t.add({{"dev@example.org/web-1"}, {"3"}});
    EXPECT_NE(t.text(wide).find("ops@example.org/web-1  1\n"), std::string::npos);
}

TEST(table, of_columns_that_are_cut_one_may_get_more) {
    table t({{.head = "NAME", .least = 2}, {.head = "RESULT", .least = 2, .share = 3}});
    t.add({{"abcdefghijklmnop"}, {"abcdefghijklmnopqrstuvwxyz"}});
    EXPECT_EQ(t.text({.width = 22, .ascii = true, .color = false}),
              "NAME   RESULT\nabcd~  abcdefghijklmn~\n");
}

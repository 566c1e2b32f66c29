/* YAML as the fleet file has it: the tree with its places, and what is refused before anything is
 * made of it. */
#include "fleet/node.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string shown(const node& what) { // NOLINT(misc-no-recursion)
    std::string text = std::to_string(what.at.line) + ":" + std::to_string(what.at.column);
    switch (what.is) {
    case node::kind::nothing:
        return text + " nothing";
    case node::kind::text:
        return text + (what.is_quoted ? " \"" + what.text + "\"" : " " + what.text);
    case node::kind::list:
        text += " [";
        for (const node& each : what.items) {
            text.append(shown(each)).append(",");
        }
        return text + "]";
    default:
        text += " {";
        for (const auto& [key, value] : what.members) {
            text.append(shown(key)).append("=").append(shown(value)).append(",");
        }
        return text + "}";
    }
}

std::string read(const std::string& text) {
    node root;
    remark wrong;
    if (read_nodes(text, root, wrong)) {
        return shown(root);
    }
    EXPECT_EQ(root.is, node::kind::nothing);
    return std::to_string(wrong.at.line) + ":" + std::to_string(wrong.at.column) + " " + wrong.text;
}

std::string repeated(const std::string& text, size_t times) {
    std::string all;
    for (size_t i = 0; i < times; i++) {
        all += text;
    }
    return all;
}

} // namespace

TEST(fleet_node, everything_knows_where_it_stands) {
    EXPECT_EQ(read("a: b\nc:\n  - d\n  - {e: \"f\"}\n"),
              "1:1 {1:1 a=1:4 b,2:1 c=3:3 [3:5 d,4:5 {4:6 e=4:9 \"f\",},],}");
    EXPECT_EQ(read("\xc3\xbc: {\xc3\xb6\xc3\xb6: 1, x: 2}\n"),
              "1:1 {1:1 \xc3\xbc=1:4 {1:5 \xc3\xb6\xc3\xb6=1:9 1,1:12 x=1:15 2,},}");
    EXPECT_EQ(read("a: b\r\nc: d\r\n"), "1:1 {1:1 a=1:4 b,2:1 c=2:4 d,}");
    EXPECT_EQ(read("\xef\xbb\xbf"
                   "a: b"),
              "1:1 {1:1 a=1:4 b,}");
    EXPECT_EQ(read("{\"a\":\t[1,\n\t2]}"), "1:1 {1:2 \"a\"=1:7 [1:8 1,2:2 2,],}");
    EXPECT_EQ(read("a: ~\nb:\nc: null\nd: \"\"\n"),
              "1:1 {1:1 a=1:4 nothing,2:1 b=2:1 nothing,3:1 c=3:4 nothing,4:1 d=4:4 \"\",}");
    EXPECT_EQ(read("a: |\n  x\n  y\n"), "1:1 {1:1 a=1:4 \"x\ny\n\",}");
    EXPECT_EQ(read("a: 'it''s'\nb: \"\\\"\\u00fc\"\n"),
              "1:1 {1:1 a=1:4 \"it's\",2:1 b=2:4 \"\"\xc3\xbc\",}");
    EXPECT_EQ(read("text"), "1:1 text");
}

TEST(fleet_node, nothing_is_there) {
    for (const char* text : {"", "\n\n", "# only words\n", "---\n", "~", "\xef\xbb\xbf"}) {
        EXPECT_NE(read(text).find("nothing"), std::string::npos) << text;
    }
}

TEST(fleet_node, what_is_not_read) {
    const struct {
        const char *text, *said;
    } cases[] = {
        {"a: &x 1", "1:4 anchors (\"&NAME\") are not read here: write it out, or in quotes"},
        {"a: &x 1\nb: *x", "1:4 anchors (\"&NAME\") are not read here: write it out, or in quotes"},
        {"b: *x", "1:4 aliases (\"*NAME\") are not read here: a text that begins with a star goes "
                  "into quotes"},
        {"b: [*]", "1:6 a star that begins a text means something else to YAML: write it in "
                   "quotes, \"*\""},
        {"a: !!str b",
         "1:4 tags (\"!NAME\") are not read here: leave it out, or write it in quotes"},
        {"a: !x {b: c}",
         "1:4 tags (\"!NAME\") are not read here: leave it out, or write it in quotes"},
        {"!x a: b", "1:1 tags (\"!NAME\") are not read here: leave it out, or write it in quotes"},
        {"a: 1\nb: 2\na: 3", "3:1 `a`: this key is there already"},
        {"{a: 1, \"a\": 2}", "1:8 `a`: this key is there already"},
        {"? [a]\n: b", "1:3 a key is a text: \"key: value\""},
        {"[a]: b", "1:1 a key is a text, or the bracket that begins here has no end"},
        {"{~: a}", "1:2 a key is a text: \"key: value\""},
        {"a: 1\n---\nb: 2", "2:1 a second document begins here: the file is one, without \"---\""},
        {"%YAML 1.2\n---\na: b", "1:1 directives (\"%NAME\") are not read here"},
        {"# x\n%TAG ! x\n---\na: b", "2:1 directives (\"%NAME\") are not read here"},
        {"a: \"b\n", "1:4 the quotes that begin here have no end"},
        {"a: 'b''\n", "1:4 the quotes that begin here have no end"},
        {"a: \"b\\\"", "1:8 quotes before here have no end"},
        {"a: \"b\\N\"",
         "1:4 an escape in these quotes is not read here: write the character itself"},
        {"a: \"\\ud83d\\ude00\"", "1:11 this \\u is no character"},
        {"a: \"\\q\"", "1:7 no such escape in quotes: a backslash is written \"\\\\\""},
        {"a: b: c", "1:5 a colon with a blank behind it cannot stand here: a text that has one "
                    "goes into quotes, a key stands below the one before"},
        {"a: b\n\tc: d", "2:1 the line begins with a tab: indent with blanks"},
        {"a: @b", "1:4 this character cannot begin a text: write the text in quotes"},
        {"a: [b\nc: d", "2:2 a \"[\" before here has no \"]\", or a comma is missing"},
        {"a: {b: c", "1:9 a \"{\" before here has no \"}\", or a comma is missing"},
        {"a:\n  - b\n c: d", "3:2 this line is indented differently from the others of its map"},
        {"a: \x01", "1:4 a control character stands here"},
        {"a: \xc2\x85", "1:4 a control character stands here"},
        {"a: \x7f", "1:4 a control character stands here"},
        {"a: b\rc: d", "1:5 a carriage return stands here without a line feed"},
        {"\xc3\xbc: \xff", "1:4 this is not UTF-8"},
        {"a: \xed\xa0\x80", "1:4 this is not UTF-8"},
        {"a: \xc0\xaf", "1:4 this is not UTF-8"},
        {"a: \xf4\x90\x80\x80", "1:4 this is not UTF-8"},
        {"a: \xc3", "1:4 this is not UTF-8"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(read(each.text), each.said) << each.text;
    }
    EXPECT_EQ(read(std::string("a: \0b", 5)), "1:4 a control character stands here");
    /* two bytes to a character: no other encoding is guessed */
    EXPECT_EQ(read(std::string("a\0:\0 \0b\0", 8)), "1:2 a control character stands here");
}

TEST(fleet_node, a_megabyte_and_no_more) {
    const std::string full =
        repeated("a: # some words\n", 1).substr(0, 3) + std::string(longest_fleet_text - 3, 'x');
    EXPECT_EQ(read(full).substr(0, 8), "1:1 {1:1");
    EXPECT_EQ(read(full + "x"), "1:1000001 the text is longer than 1 MB (1000001 bytes)");
}

TEST(fleet_node, twenty_levels_and_no_more) {
    const std::string said = " more than 20 levels of lists and maps within each other";
    EXPECT_EQ(read(repeated("[", 20) + repeated("]", 20)).substr(0, 5), "1:1 [");
    EXPECT_EQ(read(repeated("[", 21) + repeated("]", 21)), "1:21" + said);
    EXPECT_EQ(read(repeated("{a: ", 21) + "b" + repeated("}", 21)), "1:81" + said);
    EXPECT_EQ(read(repeated("{a: ", 21)),
              "1:1 a key is a text, or the bracket that begins here has no end");
    EXPECT_EQ(read(repeated("- ", 21) + "a"), "1:41" + said);
    EXPECT_EQ(read(repeated("? ", 21) + "a"), "1:3 a key is a text: \"key: value\"");
}

/* What parsers have been brought down with: each is refused, or read, within moments and without a
 * deep stack. */
TEST(fleet_node, hostile_texts_end_soon) {
    for (const char* piece :
         {"[",      "{",     "- ",    "? ",          ": ",   "{a: ",    "[a: ",  "[,",
          "[]",     "{},",   "a:\n",  "\"",          "'",    "&a ",     "*a ",   "!a ",
          "!",      "&",     "*",     "%A\n",        "%",    "|",       "|\n",   ">\n ",
          "#",      "\n",    "- [",   "a,",          "--- ", "---\n",   "...\n", "\"\\",
          "a: b\n", "- a\n", "[a]: ", "a: &a [*a, ", " ",    "\xc3\xbc"}) {
        const bool is_worst =
            std::string_view("[ { - ? : [,").find(piece) != std::string_view::npos;
        for (size_t size : {1000, 100'000, is_worst ? 999'999 : 1}) {
            const std::string text = repeated(piece, size / std::string(piece).size());
            node root;
            remark wrong;
            const bool is_sound = read_nodes(text, root, wrong);
            EXPECT_EQ(is_sound, wrong.text.empty()) << piece;
            EXPECT_GE(is_sound ? root.at.line : wrong.at.line, 1) << piece;
            EXPECT_EQ(wrong.text.find('\n'), std::string::npos) << piece;
        }
    }
}

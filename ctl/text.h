/* Text from outside made fit for a terminal. */
#ifndef VINDRAL_CTL_TEXT_H
#define VINDRAL_CTL_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/* A character and how many bytes it takes; 0 bytes: what stands there is no UTF-8. */
struct code_point {
    char32_t value = 0;
    size_t bytes = 0;
};

/* The first character of a text that is not empty. */
code_point decode_utf8(std::string_view text);

/* Whether it steers a terminal, or reorders or hides what stands round it; blanks are not meant. */
bool is_unsafe(char32_t c);

/* A copy that is safe to print: line ends, tabs and other blanks become a space (none at the end),
 * every other control or formatting character and every byte that is no UTF-8 becomes '?'. With
 * `ascii` so does every character beyond it. */
std::string printable(std::string_view text, bool ascii = false);

/* The columns that printable text takes on a terminal. */
size_t display_width(std::string_view text);

/* The text when it fits into the columns, else its beginning with `mark` behind, which takes one
 * column. */
std::string shortened(std::string_view text, size_t columns, std::string_view mark);

/* The same, with its end behind the mark. */
std::string shortened_left(std::string_view text, size_t columns, std::string_view mark);

/* Lines that take at most `columns`, broken at blanks where there are any; one at least. */
std::vector<std::string> wrapped(std::string_view text, size_t columns);

#endif

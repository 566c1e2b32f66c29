/* Splitting text at a separator: server replies, command fields, address lists; text that may not
 * be there. */
#ifndef VINDRAL_TEXT_H
#define VINDRAL_TEXT_H

#include <cstddef>

/* Splits sInput at every dl into new strings: *outAr receives a malloc'd array of *outAl of them,
 * to be freed with free_uparser_array. Returns 1; or 0, with both outputs untouched, for null or
 * empty input and without memory. Time and memory are linear in the input.
 *
 * The first field starts at the first character whatever that is, so it is never empty and a
 * separator there belongs to it. After that two separators in a row give an empty field, but one at
 * the very end closes the last field and opens none: "a\t\tb\t" is "a", "", "b", and "\tx" is one
 * field. A dl of NUL splits nothing. */
int uparser(const char* sInput, char*** outAr, size_t* outAl, char dl);

/* Frees every field and the array, and sets the count to 0; the array pointer stays as it was, so
 * the count alone tells whether there is anything. Nothing happens at a count of 0. */
void free_uparser_array(char*** inAr, size_t* inArl);

/* A piece of somebody else's text, without a NUL behind it. */
struct text_piece {
    const char* begin;
    const char* end;
};

/* The same fields one by one, in place, for text that is too large to be copied as a whole. The
 * first of a text, and the one behind `field`, which is overwritten. 1, or 0 when there is none. */
int first_field(const text_piece& text, char dl, text_piece* field);
int next_field(const text_piece& text, char dl, text_piece* field);

inline bool is_empty(const char* text) {
    return text == nullptr || *text == '\0';
}

/* For what may be unset, which is null. */
inline const char* or_default(const char* text, const char* otherwise) {
    return text != nullptr ? text : otherwise;
}

#endif

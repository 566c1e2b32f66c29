#include "vindral_text.h"

#include <cstdlib>
#include <cstring>

/* The field that begins at `begin`; its first `skipped` characters are not searched. */
static text_piece field_at(const char* begin, size_t skipped, const char* text_end, char dl) {
    const char* from = begin + skipped;
    const void* found = memchr(from, dl, static_cast<size_t>(text_end - from));
    return {begin, found != nullptr ? static_cast<const char*>(found) : text_end};
}

int first_field(const text_piece& text, char dl, text_piece* field) {
    if (text.begin == text.end) {
        return 0;
    }
    *field = field_at(text.begin, 1, text.end, dl);
    return 1;
}

int next_field(const text_piece& text, char dl, text_piece* field) {
    if (text.end - field->end < 2) {
        return 0;
    }
    *field = field_at(field->end + 1, 0, text.end, dl);
    return 1;
}

int uparser(const char* sInput, char*** outAr, size_t* outAl, char dl) {
    if (sInput == nullptr) {
        return 0;
    }
    const text_piece text = {sInput, sInput + strlen(sInput)};
    text_piece field;
    size_t count = 0;
    for (int more = first_field(text, dl, &field); more; more = next_field(text, dl, &field)) {
        count++;
    }
    char** fields = count > 0 ? static_cast<char**>(calloc(count, sizeof(char*))) : nullptr;
    if (fields == nullptr) {
        return 0;
    }
    size_t copied = 0;
    for (int more = first_field(text, dl, &field); more; more = next_field(text, dl, &field)) {
        fields[copied] = strndup(field.begin, static_cast<size_t>(field.end - field.begin));
        if (fields[copied++] == nullptr) {
            free_uparser_array(&fields, &count);
            return 0;
        }
    }
    *outAr = fields;
    *outAl = count;
    return 1;
}

void free_uparser_array(char*** inAr, size_t* inArl) {
    if (inAr == nullptr || *inAr == nullptr || inArl == nullptr || *inArl == 0) {
        return;
    }
    for (size_t i = 0; i < *inArl; i++) {
        free((*inAr)[i]);
    }
    free(*inAr);
    *inArl = 0;
}

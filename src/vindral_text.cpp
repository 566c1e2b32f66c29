#include "vindral_text.h"

#include <cstdlib>
#include <cstring>

/* Where the field that starts at `field` ends: at a separator or at the end of the text. The first
 * character of the text is never searched. */
static const char* field_end(const char* text, const char* field, char dl) {
    const char* end = field == text ? field + 1 : field;
    while (*end != '\0' && *end != dl) {
        end++;
    }
    return end;
}

/* The start of the field behind the one that ends at `end`; null when that was the last. */
static const char* next_field(const char* end) {
    return end[0] != '\0' && end[1] != '\0' ? end + 1 : nullptr;
}

int uparser(const char* sInput, char*** outAr, size_t* outAl, char dl) {
    if (sInput == nullptr || *sInput == '\0') {
        return 0;
    }
    size_t count = 0;
    for (const char* field = sInput; field != nullptr; count++) {
        field = next_field(field_end(sInput, field, dl));
    }
    char** fields = static_cast<char**>(calloc(count, sizeof(char*)));
    if (fields == nullptr) {
        return 0;
    }
    size_t copied = 0;
    for (const char* field = sInput; field != nullptr; copied++) {
        const char* end = field_end(sInput, field, dl);
        fields[copied] = strndup(field, static_cast<size_t>(end - field));
        if (fields[copied] == nullptr) {
            free_uparser_array(&fields, &count);
            return 0;
        }
        field = next_field(end);
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

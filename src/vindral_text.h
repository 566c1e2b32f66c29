/* Splitting text at a separator: server replies, command fields, address lists. */
#ifndef VINDRAL_TEXT_H
#define VINDRAL_TEXT_H

#include <cstddef>

int uparser(const char* sInput, char*** outAr, size_t* outAl, char dl);
void free_uparser_array(char*** inAr, size_t* inArl);

#endif

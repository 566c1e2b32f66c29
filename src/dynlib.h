/* Opening a library at run time and binding a list of names from it. */
#ifndef VINDRAL_DYNLIB_H
#define VINDRAL_DYNLIB_H

#include <cstddef>

/* Opens the first candidate that loads (RTLD_NOW), in order. Returns its handle, or null when none
 * loads; dlerror() then still holds the reason of the last one. */
void* dynlib_open(const char* const* names, size_t count);

/* A name to bind and where its address goes. `fallback` may be null; otherwise it is called when the
 * library does not export `name` and returns the address to use instead, or null. */
struct dynlib_symbol {
    const char* name;
    void** target;
    void* (*fallback)(void* handle);
};

/* Binds in order up to the first name that is missing. Returns 1 when all are bound, else 0. */
int dynlib_bind(void* handle, const dynlib_symbol* symbols, size_t count);

#endif

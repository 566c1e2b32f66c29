/* Opening a library at run time and binding a list of names from it.
 *
 * The candidate file names and the names to bind are tables of the module that needs the library;
 * the two loops over them are here (the TLS library's module tries its names one by one, to choose
 * among the reasons). What follows from a failure differs per library and stays with
 * its module; nothing is logged here. Called at start-up, before any other thread exists: what is
 * bound is read without a lock ever after. */
#ifndef VINDRAL_DYNLIB_H
#define VINDRAL_DYNLIB_H

#include <cstddef>

/* Opens the first candidate that loads (RTLD_NOW), in order. Returns its handle, or null when none
 * loads; dynlib_error() then tells the reason of the last one. The handle is the caller's to
 * dlclose. */
void* dynlib_open(const char* const* names, size_t count);

/* The loader's reason for the last failure in this thread, and forgets it; "" when there is none.
 * The text is valid until the next call into the loader. */
const char* dynlib_error();

/* A name to bind and where its address goes: the address of a function pointer, or of any other
 * pointer. `fallback` may be null; otherwise it is called when the library does not export `name`
 * and returns the address to use instead, or null. */
struct dynlib_symbol {
    const char* name;
    void** target;
    void* (*fallback)(void* handle);
};

/* One, for a function pointer of any type. */
template <typename P>
dynlib_symbol dynlib_entry(const char* name, P* target, void* (*fallback)(void*) = nullptr) {
    return {name, reinterpret_cast<void**>(target), fallback};
}

/* Binds in order up to the first name that is missing: the targets before it are set, it and those
 * behind it are left alone. Names of the libraries that this one depends on are found as well.
 * Returns 1 when all are bound, else 0. */
int dynlib_bind(void* handle, const dynlib_symbol* symbols, size_t count);

#endif

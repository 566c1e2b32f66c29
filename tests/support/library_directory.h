/* Lets a test say what libraries the host has: dlopen looks into one directory instead of the
 * system's. To be included by a test in place of dynlib.cpp. */
#ifndef VINDRAL_LIBRARY_DIRECTORY_H
#define VINDRAL_LIBRARY_DIRECTORY_H

#include <dlfcn.h>
#include <string>
#include <vector>

/* Directory that every file name is taken from; empty for the system's own search. */
inline std::string library_directory;

/* The names and modes that were tried since the test cleared it. */
struct library_attempt {
    std::string name;
    int mode;
};
inline std::vector<library_attempt> library_attempts;

inline void* open_from_directory(const char* name, int mode) {
    library_attempts.push_back({name, mode});
    return dlopen(library_directory.empty() ? name : (library_directory + "/" + name).c_str(),
                  mode);
}

#define dlopen open_from_directory
#include "dynlib.cpp"
#undef dlopen

#endif

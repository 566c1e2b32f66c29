#include "dynlib.h"

#include <cstring>
#include <dlfcn.h>

void* dynlib_open(const char* const* names, size_t count) {
    dynlib_error();
    void* handle = nullptr;
    for (size_t i = 0; i < count && handle == nullptr; i++) {
        handle = dlopen(names[i], RTLD_NOW);
    }
    return handle;
}

const char* dynlib_error() {
    const char* reason = dlerror(); // NOLINT(concurrency-mt-unsafe): glibc keeps one per thread
    return reason != nullptr ? reason : "";
}

int dynlib_bind(void* handle, const dynlib_symbol* symbols, size_t count) {
    for (size_t i = 0; i < count; i++) {
        const dynlib_symbol& symbol = symbols[i];
        void* address = dlsym(handle, symbol.name);
        if (address == nullptr && symbol.fallback != nullptr) {
            address = symbol.fallback(handle);
        }
        if (address == nullptr) {
            return 0;
        }
        /* Copied as bytes: the target is a function pointer and must not be written as a void*. */
        memcpy(symbol.target, &address, sizeof address);
    }
    return 1;
}

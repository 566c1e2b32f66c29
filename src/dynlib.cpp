#include "dynlib.h"

#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

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

static bool has_relocated_code(const dl_phdr_info& object) {
    for (size_t i = 0; i < object.dlpi_phnum; i++) {
        if (object.dlpi_phdr[i].p_type != PT_DYNAMIC) {
            continue;
        }
        ElfW(Addr) address = object.dlpi_addr + object.dlpi_phdr[i].p_vaddr;
        for (auto entry = reinterpret_cast<const ElfW(Dyn)*>(address); entry->d_tag != DT_NULL;
             entry++) {
            if (entry->d_tag == DT_TEXTREL ||
                (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL))) {
                return true;
            }
        }
    }
    return false;
}

static int forget_pages_of(dl_phdr_info* object, size_t, void*) {
    if (has_relocated_code(*object)) {
        return 0;
    }
    const ElfW(Addr) page = static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE));
    for (size_t i = 0; i < object->dlpi_phnum; i++) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W)) {
            continue;
        }
        ElfW(Addr) begin = object->dlpi_addr + segment.p_vaddr, end = begin + segment.p_memsz;
        begin -= begin % page;
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
    }
    return 0;
}

void dynlib_forget_pages() {
    dl_iterate_phdr(forget_pages_of, nullptr);
}

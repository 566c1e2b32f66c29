/* What the targets share. */
#ifndef VINDRAL_FUZZ_H
#define VINDRAL_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <source_location>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VINDRAL_COUNTS_MEMORY
#endif
#endif
#ifdef VINDRAL_COUNTS_MEMORY
#include <sanitizer/allocator_interface.h>
#endif

/* A property that must hold. */
inline void require(bool holds, std::source_location place = std::source_location::current()) {
    if (!holds) {
        fprintf(stderr, "%s:%u: a property does not hold\n", place.file_name(), place.line());
        abort();
    }
}

/* Bytes that are allocated; 0 where nobody counts them. */
inline size_t memory_in_use() {
#ifdef VINDRAL_COUNTS_MEMORY
    return __sanitizer_get_current_allocated_bytes();
#else
    return 0;
#endif
}

/* The lowest descriptor that is free. */
inline int free_descriptor() {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd;
}

/* Runs what leaves no memory and no descriptor behind. The first runs may fill a buffer that is
 * kept for good; something that grows each time is a leak, reachable or not. */
template <typename F>
void require_no_growth(F run) {
    int descriptor = free_descriptor();
    size_t before = memory_in_use();
    int left = 4;
    for (run(); memory_in_use() > before; run()) {
        before = memory_in_use();
        require(--left > 0);
    }
    require(free_descriptor() == descriptor);
}

/* A new directory, in memory where there is such a place. */
inline std::string make_directory() {
    std::string parent = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string name = parent + "/vindral_fuzz.XXXXXX";
    require(mkdtemp(name.data()) != nullptr);
    return name;
}

/* The pieces between separators; one for no separator. */
inline std::vector<std::string> split(std::string_view text, std::string_view separator) {
    std::vector<std::string> pieces;
    for (size_t end; (end = text.find(separator)) != std::string_view::npos;) {
        pieces.emplace_back(text.substr(0, end));
        text.remove_prefix(end + separator.size());
    }
    pieces.emplace_back(text);
    return pieces;
}

#endif

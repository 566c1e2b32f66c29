/* What operator new gives out in this process, counted. A sanitizer has its own way of that: then
 * `sanitized` is true and nothing is counted. For one source of a program. */
#ifndef COUNTED_MEMORY_H
#define COUNTED_MEMORY_H

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <new>
#include <utility>

/* Bytes in use and the most that were, and how often memory was asked for. */
static std::atomic<size_t> held = 0, most_held = 0, allocations = 0;

/* No larger block is there to be had; nor by this thread. */
[[maybe_unused]] static std::atomic<size_t> refused_above = SIZE_MAX;
[[maybe_unused]] static thread_local size_t refused_here_above = SIZE_MAX;

/* After so many times this thread gets none once. */
[[maybe_unused]] static thread_local size_t refused_here_after = SIZE_MAX;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr bool sanitized = true;
#else
static constexpr bool sanitized = false;

[[gnu::noinline]] static void* count_in(void* p) {
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    allocations++;
    size_t now = held += malloc_usable_size(p);
    for (size_t most = most_held; now > most && !most_held.compare_exchange_weak(most, now);) {
    }
    return p;
}
/* Not inlined: the compiler would see free() meet what came from operator new. */
[[gnu::noinline]] static void count_out(void* p) {
    if (p != nullptr) {
        held -= malloc_usable_size(p);
        free(p);
    }
}

void* operator new(size_t size) {
    if (refused_here_after != SIZE_MAX && refused_here_after-- == 0) {
        return count_in(nullptr);
    }
    return count_in(size <= refused_above && size <= refused_here_above ? malloc(size) : nullptr);
}
void operator delete(void* p) noexcept {
    count_out(p);
}
void operator delete(void* p, size_t) noexcept {
    count_out(p);
}
#endif

/* Does it with each time in turn that it asks for memory refused, until none is: `each` begins
 * anew, and `check` looks whether what is left lacks nothing. */
template <typename Each, typename Check>
void refuse_in_turn(Each each, Check check) {
    bool is_refused = true;
    for (size_t after = 0; is_refused && !sanitized; after++) {
        refused_here_after = after;
        try {
            each();
        } catch (const std::bad_alloc&) {
        }
        is_refused = std::exchange(refused_here_after, SIZE_MAX) == SIZE_MAX;
        check(after);
    }
}

#endif

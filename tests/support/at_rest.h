/* Whether a checker's worker waits for its next pass. What a pass brings is seen before the worker
 * is back from it, and a wake-up that comes until then is lost. */
#ifndef VINDRAL_AT_REST_H
#define VINDRAL_AT_REST_H

#include "eventually.h"

#include <filesystem>
#include <fstream>
#include <linux/futex.h>
#include <string>
#include <sys/syscall.h>

/* By the kernel: the thread is in a wait with a time limit. Where it waits for a lock there is
 * none. */
inline bool is_at_rest(const std::string& name) {
    std::error_code gone; /* threads come and go */
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", gone)) {
        std::string found, call; /* the call's number, then what it was given; or "running" */
        std::getline(std::ifstream(task.path() / "comm"), found);
        if (found != name) {
            continue;
        }
        std::ifstream file(task.path() / "syscall");
        unsigned long address, operation, value, limit;
        return file >> call >> std::hex >> address >> operation >> value >> limit &&
               call == std::to_string(SYS_futex) &&
               (operation & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET && limit != 0;
    }
    return false;
}

inline bool await_rest(const std::string& name) {
    return eventually([&] { return is_at_rest(name); });
}

#endif

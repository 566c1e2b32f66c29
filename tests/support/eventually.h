/* For what has to happen, but not at a known time. */
#ifndef VINDRAL_EVENTUALLY_H
#define VINDRAL_EVENTUALLY_H

#include <chrono>
#include <thread>

/* Whether the condition has come true within a minute. */
template <typename F>
bool eventually(F condition) {
    const auto last = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > last) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

#endif

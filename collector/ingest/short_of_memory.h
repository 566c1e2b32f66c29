/* For want of memory nothing can be made to wait for, and nobody served meanwhile. */
#ifndef VINDRAL_COLLECTOR_SHORT_OF_MEMORY_H
#define VINDRAL_COLLECTOR_SHORT_OF_MEMORY_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <exception>
#include <thread>

/* How often deadlines are looked at, and how long what failed waits before it is tried again. */
inline constexpr auto tick = std::chrono::milliseconds(100);

inline void wait_for_memory() {
    std::this_thread::sleep_for(tick);
}

/* Until it does not throw: what has to be done in the end, and changes nothing when it fails. */
template <typename Do>
void surely(const Do& what) {
    for (;;) {
        try {
            what();
            return;
        } catch (const std::exception&) {
            wait_for_memory();
        }
    }
}

/* Hands `work` to the context from another thread. */
template <typename Work>
void post_surely(boost::asio::io_context& context, const Work& work) {
    surely([&] { boost::asio::post(context, work); });
}

/* Does what is handed to the context, until it ends: a handler that finds no memory is one handler
 * less. */
inline void run_surely(boost::asio::io_context& context) {
    surely([&] { context.run(); });
}

#endif

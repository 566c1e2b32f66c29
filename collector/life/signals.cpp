#include "life/signals.h"

#include "ingest/short_of_memory.h"

#include <csignal>

void ignore_broken_pipes() {
    signal(SIGPIPE, SIG_IGN);
}

void heed_signals(boost::asio::signal_set& set, const std::function<void()>& end,
                  const std::function<void()>& read_again) {
    auto heed = [&](boost::system::error_code failed, int number) {
        if (failed) {
            return;
        }
        if (number == SIGHUP) {
            try {
                read_again();
            } catch (const std::exception&) { /* no memory: what was read before stays */
            }
            heed_signals(set, end, read_again);
        } else {
            surely(end);
        }
    };
    surely([&] { set.async_wait(heed); });
}

#include "life/signals.h"

#include <csignal>

void ignore_broken_pipes() {
    signal(SIGPIPE, SIG_IGN);
}

void heed_signals(boost::asio::signal_set& set, const std::function<void()>& end,
                  const std::function<void()>& read_again) {
    set.async_wait([&](boost::system::error_code failed, int number) {
        if (failed) {
            return;
        }
        if (number == SIGHUP) {
            read_again();
            heed_signals(set, end, read_again);
        } else {
            end();
        }
    });
}

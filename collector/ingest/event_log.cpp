#include "ingest/event_log.h"

#include <exception>

void event_log::operator()(event kind, const std::string& line) {
    constexpr size_t lines_a_minute = 20;
    window& w = windows_[size_t(kind)];
    auto now = std::chrono::steady_clock::now();
    if (now - w.begun >= std::chrono::minutes(1)) {
        report_dropped(w);
        w.begun = now;
        w.lines = 0;
    }
    if (w.lines++ < lines_a_minute) {
        write_(line);
    } else {
        ++w.dropped;
        w.last = line;
    }
}

void event_log::failure(const char* what, const char* why) noexcept {
    try {
        (*this)(event::failure, std::string(what) + ": " + why);
    } catch (const std::exception&) {
    }
}

void event_log::flush() {
    for (window& w : windows_) {
        report_dropped(w);
    }
}

void event_log::report_dropped(window& w) {
    if (w.dropped > 0) {
        write_(w.last + " (the last of " + std::to_string(w.dropped) + " such lines left out)");
    }
    w.dropped = 0;
}

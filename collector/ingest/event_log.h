/* What strangers can make the collector log: a few lines of each kind a minute, and how many were
 * kept back. One thread. */
#ifndef VINDRAL_COLLECTOR_EVENT_LOG_H
#define VINDRAL_COLLECTOR_EVENT_LOG_H

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

enum class event {
    accept,
    refused,
    tls,
    request,
    session,
    login,
    name,
    identity,
    enrolment,
    enrolled,
    body,
    memory,
    storing,
    behind,
    logins,
    failure,
    count
};

class event_log {
public:
    /* `write` gets lines without a line end. */
    explicit event_log(std::function<void(const std::string&)> write) : write_(std::move(write)) {}

    void operator()(event kind, const std::string& line);

    /* An event::failure; says nothing when there is not even memory for that. */
    void failure(const char* what, const char* why) noexcept;

    /* Says now what was kept back. */
    void flush();

private:
    struct window {
        std::chrono::steady_clock::time_point begun{};
        size_t lines = 0, dropped = 0;
        std::string last; /* of those dropped */
    };
    void report_dropped(window& w);

    std::function<void(const std::string&)> write_;
    std::array<window, size_t(event::count)> windows_;
};

#endif

/* Waiting that ends: by a deadline, and by whoever stops the program (SIGINT, SIGTERM, SIGHUP). */
#ifndef VINDRAL_ENROL_WAITING_H
#define VINDRAL_ENROL_WAITING_H

#include <chrono>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

using moment = std::chrono::steady_clock::time_point;
using std::chrono::milliseconds;
using std::chrono::seconds;
inline moment in(milliseconds time) {
    return std::chrono::steady_clock::now() + time;
}

/* Thrown in a wait, or in check_stop(), after a signal. */
struct stopped {
    int signal = 0;
};

/* From now on signals that stop the program are seen in waits alone. */
void catch_stops();
/* And from now on they are not seen any more: what has been begun is being undone. */
void ignore_stops();
void check_stop();

/* Whether the descriptor is ready for `events` (poll) before the deadline; -1: none is waited for.
 */
bool wait_for(int fd, short events, moment deadline);
inline void wait_until(moment when) {
    (void)wait_for(-1, 0, when);
}

/* An open descriptor, or none; closed with it. */
class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~unique_fd();
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

/* What a program said and how it ended: its exit status, 128 and the number of the signal, or -1
 * when it could not be started or took longer than that (then it is killed). */
struct program_end {
    int status = -1;
    std::string said; /* the first 4 KB of its standard output and error, printable */
};
program_end run_program(const std::vector<std::string>& command, milliseconds longest);

/* In a child between fork and exec: signals as a program expects them. */
void restore_signals();

#endif

#include "ctl/secret_input.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

secret_text::~secret_text() {
    text_.resize(text_.capacity());
    explicit_bzero(text_.data(), text_.size());
}

namespace {

volatile sig_atomic_t came = 0;

void note_signal(int number) {
    came = number;
}

/* The terminal shows nothing, until this goes. Signals are let in while somebody waits for what is
 * typed, and at no other time: one that came right before the wait would not end it. */
class silence {
public:
    explicit silence(int terminal) : terminal_(terminal) {
        struct sigaction noted {};
        noted.sa_handler = note_signal;
        sigset_t held;
        sigemptyset(&held);
        for (int number : signals) {
            sigaddset(&held, number);
        }
        sigprocmask(SIG_BLOCK, &held, &let_in_);
        for (size_t i = 0; i < signals.size(); i++) {
            sigaction(signals[i], &noted, &before_[i]);
        }
        if (tcgetattr(terminal_, &shown_) == 0) {
            termios silent = shown_;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK);
            silent.c_lflag |= ECHONL;
            changed_ = tcsetattr(terminal_, TCSAFLUSH, &silent) == 0;
        }
    }
    ~silence() {
        if (changed_) {
            tcsetattr(terminal_, TCSAFLUSH, &shown_);
        }
        for (size_t i = 0; i < signals.size(); i++) {
            sigaction(signals[i], &before_[i], nullptr);
        }
        sigprocmask(SIG_SETMASK, &let_in_, nullptr);
        if (came != 0) {
            raise(came);
        }
    }
    silence(const silence&) = delete;
    silence& operator=(const silence&) = delete;

    bool holds() const { return changed_; }

    /* Until there is something to read, or a signal came. */
    void wait() const {
        pollfd typed = {.fd = terminal_, .events = POLLIN, .revents = 0};
        while (came == 0 && ppoll(&typed, 1, nullptr, &let_in_) < 0 && errno == EINTR) {
        }
    }

private:
    static constexpr std::array signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    const int terminal_;
    termios shown_{};
    bool changed_ = false;
    std::array<struct sigaction, signals.size()> before_{};
    sigset_t let_in_{}; /* the mask as it was */
};

/* Up to the end of the line, which is not among it. False when nothing came but the end. `quiet` is
 * null where no terminal is read. */
bool read_line(int from, const std::string& what, std::string& line,
               const silence* quiet = nullptr) {
    line.clear();
    char c = 0;
    bool any = false;
    for (;;) {
        if (quiet != nullptr) {
            quiet->wait();
        }
        if (came != 0) {
            break;
        }
        ssize_t got = read(from, &c, 1); /* what follows the line stays where it is */
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw failure{status_wrong,
                          "standard input cannot be read: " + std::string(strerror(errno))};
        }
        if (got == 0) {
            break;
        }
        any = true;
        if (c == '\n') {
            break;
        }
        if (line.size() > secret_text::most) {
            throw failure{status_usage, what +
                                            " is too long: " + std::to_string(secret_text::most) +
                                            " bytes at the most"};
        }
        line.push_back(c);
    }
    if (line.ends_with('\r')) {
        line.pop_back();
    }
    return any;
}

void ask(const std::string& question) {
    fputs(question.c_str(), stderr);
    fflush(stderr);
}

void read_twice(int terminal, const std::string& what, std::string& line) {
    secret_text again;
    const silence quiet(terminal);
    if (!quiet.holds()) {
        throw failure{status_wrong, "this terminal cannot be kept from showing what is typed; give "
                                    "it on standard input"};
    }
    ask("Value of " + what + ", which is not shown: ");
    read_line(terminal, what, line, &quiet);
    if (came == 0 && !line.empty()) {
        ask("Once more: ");
        read_line(terminal, what, *again, &quiet);
    }
    if (came != 0) {
        throw failure{status_wrong, "nothing was changed"};
    }
    if (!line.empty() && line != *again) {
        throw failure{status_usage, "the two were not the same; nothing was changed"};
    }
}

} // namespace

void read_secret(int from, const std::string& what, secret_text& into) {
    came = 0;
    if (isatty(from) != 0) {
        read_twice(from, what, *into);
    } else {
        char more = 0;
        if (read_line(from, what, *into) && read(from, &more, 1) > 0) {
            throw failure{status_usage, "there is more than one line on standard input; nothing "
                                        "was changed"};
        }
    }
    if ((*into).empty()) {
        throw failure{status_usage, what + " has to be given on standard input, as one line; "
                                           "nothing was changed"};
    }
    if ((*into).size() > secret_text::most) {
        throw failure{status_usage, what + " is too long: " + std::to_string(secret_text::most) +
                                        " bytes at the most"};
    }
}

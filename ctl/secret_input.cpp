#include "ctl/secret_input.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
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

/* The terminal shows nothing, until this goes. */
class silence {
public:
    explicit silence(int terminal) : terminal_(terminal) {
        struct sigaction noted {};
        noted.sa_handler = note_signal; /* without SA_RESTART: reading ends */
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
        if (came != 0) {
            raise(came);
        }
    }
    silence(const silence&) = delete;
    silence& operator=(const silence&) = delete;

    bool holds() const { return changed_; }

private:
    static constexpr std::array signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    const int terminal_;
    termios shown_{};
    bool changed_ = false;
    std::array<struct sigaction, signals.size()> before_{};
};

/* Up to the end of the line, which is not among it. False when nothing came but the end. */
bool read_line(int from, const std::string& what, std::string& line) {
    line.clear();
    char c = 0;
    bool any = false;
    for (;;) {
        ssize_t got = read(from, &c, 1); /* what follows the line stays where it is */
        if (got < 0 && errno == EINTR && came == 0) {
            continue;
        }
        if (got < 0 && came == 0) {
            throw failure{status_wrong,
                          "standard input cannot be read: " + std::string(strerror(errno))};
        }
        if (got <= 0 || came != 0) {
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
    read_line(terminal, what, line);
    if (came == 0 && !line.empty()) {
        ask("Once more: ");
        read_line(terminal, what, *again);
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

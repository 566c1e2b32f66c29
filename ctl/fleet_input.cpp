#include "ctl/fleet_input.h"

#include "ctl/failure.h"
#include "ctl/text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t most_bytes = 1'000'000;

/* Until its end, or until it is too long. */
bool read_all(int from, std::string& text) {
    std::string piece(64u << 10, 0);
    while (text.size() <= most_bytes) {
        const ssize_t got = read(from, piece.data(), piece.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0;
        }
        text.append(piece, 0, static_cast<size_t>(got));
    }
    return true;
}

} // namespace

fleet_input read_fleet_input(const std::string& name) {
    const bool is_stdin = name == "-";
    fleet_input input{is_stdin ? "<stdin>" : printable(name), ""};
    const int file = is_stdin ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    const bool is_read = file >= 0 && read_all(file, input.text);
    const int why = errno;
    if (file >= 0 && !is_stdin) {
        close(file);
    }
    if (!is_read) {
        throw failure{status_usage, input.called + " cannot be read: " + strerror(why)};
    }
    if (input.text.size() > most_bytes) {
        throw failure{status_usage, input.called + " has more than 1,000,000 bytes, which is what "
                                                   "a fleet file may have"};
    }
    if (input.text.empty()) {
        throw failure{status_usage, input.called + " is empty; \"version: 1\" alone is a fleet "
                                                   "file that has no tests"};
    }
    return input;
}

bool ask_yes_or_no(int from, const std::string& question) {
    fputs(question.c_str(), stderr);
    fflush(stderr);
    std::string line;
    char c = 0;
    for (;;) {
        const ssize_t got = read(from, &c, 1); /* what follows the line stays where it is */
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0 || c == '\n' || line.size() > 10) {
            break;
        }
        line += c;
    }
    return line == "y" || line == "Y" || line == "yes";
}

std::string printable_lines(std::string_view text) {
    std::string safe;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        safe += printable(text.substr(0, end));
        safe += end == text.npos ? "" : "\n";
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
    return safe;
}

#include "ctl/screen.h"

#include <cstdlib>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr size_t least_width = 20, most_width = 1000;

size_t width_of_environment() {
    const char* text = getenv("COLUMNS");
    long number = text != nullptr ? strtol(text, nullptr, 10) : 0;
    return number >= static_cast<long>(least_width) && number <= static_cast<long>(most_width)
               ? static_cast<size_t>(number)
               : 0;
}

bool is_set(const char* name) {
    const char* text = getenv(name);
    return text != nullptr && *text != 0;
}

} // namespace

screen look_at_screen(bool ascii, bool no_color) {
    screen found;
    const bool is_terminal = isatty(STDOUT_FILENO) == 1;
    found.width = width_of_environment();
    if (is_terminal) {
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= least_width) {
            found.width = size.ws_col;
        }
        found.width = found.picture_width();
    }
    found.ascii = ascii || std::string_view(nl_langinfo(CODESET)) != "UTF-8";
    const char* term = getenv("TERM");
    found.color = is_terminal && !no_color && !is_set("NO_COLOR") && term != nullptr &&
                  std::string_view(term) != "dumb";
    return found;
}

std::string tinted(std::string_view text, tint color, const screen& on) {
    if (!on.color || color == tint::none || text.empty()) {
        return std::string(text);
    }
    const char* code = "";
    switch (color) {
    case tint::good:
        code = "32";
        break;
    case tint::bad:
        code = "1;31";
        break;
    case tint::unsure:
        code = "33";
        break;
    case tint::away:
        code = "1;35";
        break;
    case tint::faint:
        code = "2";
        break;
    case tint::strong:
        code = "1";
        break;
    case tint::none:
        break;
    }
    return std::string("\x1b[").append(code).append("m").append(text).append("\x1b[0m");
}

tint tint_of_state(std::string_view state) {
    return state == "ok"        ? tint::good
           : state == "problem" ? tint::bad
           : state == "unknown" ? tint::unsure
           : state == "silent"  ? tint::away
                                : tint::none;
}

tint tint_of_outcome(std::string_view outcome) {
    return outcome == "confirmed"                               ? tint::good
           : outcome == "sent"                                  ? tint::faint
           : outcome == "impossible" || outcome == "unanswered" ? tint::bad
                                                                : tint::none;
}

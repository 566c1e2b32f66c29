#include "fake_core.h"
#include "vindral_log.h"

#include <cstdarg>
#include <mutex>
#include <utility>

char* log_file = nullptr;
int log_level = 6;

static std::mutex lines_mutex;
static std::vector<logged_line> lines;

void leveledadd2log(int loglevel, const char* fmt, ...) {
    char* text = nullptr;
    va_list args;
    va_start(args, fmt);
    int length = vasprintf(&text, fmt, args);
    va_end(args);
    if (length < 0) {
        return;
    }
    std::lock_guard hold(lines_mutex);
    lines.push_back({loglevel, text});
    free(text);
}

std::vector<logged_line> take_log() {
    std::lock_guard hold(lines_mutex);
    return std::exchange(lines, {});
}

std::string take_log_text() {
    std::string all;
    for (const logged_line& line : take_log()) {
        all += std::to_string(line.level) + " " + line.text + "\n";
    }
    return all;
}

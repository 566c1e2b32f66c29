#include "plan/file.h"

#include "base/files.h"

#include <algorithm>
#include <ctime>
#include <sys/stat.h>

namespace {

const size_t max_file = 8u << 20;
const int64_t quiet_ns = 2000000000;

int64_t nanoseconds(const timespec& t) {
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

int64_t clock_ns(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return nanoseconds(now);
}
int64_t (*read_clock_ns)(clockid_t) = clock_ns; /* a test pins it */

} // namespace

/* The time of the last change may be in the future, after a wrong clock; then we time it ourselves.
 */
bool plan_file::is_quiet() const {
    return read_clock_ns(CLOCK_MONOTONIC) - seen_at_ns_ >= quiet_ns ||
           read_clock_ns(CLOCK_REALTIME) - seen_.changed_ns >= quiet_ns;
}

/* Whether there may be something to read that was not there at the last reading. */
bool plan_file::is_due(const identity& now) {
    bool changed = now != seen_;
    if (changed) {
        seen_ = now;
        seen_at_ns_ = read_clock_ns(CLOCK_MONOTONIC);
    }
    quiet_ = is_quiet();
    if (!changed && (settled_ || !quiet_)) {
        return false;
    }
    settled_ = quiet_;
    return true;
}

plan_file::state plan_file::read(const std::vector<plan_line>& in_force, std::string& text,
                                 std::string& trouble) {
    struct stat status;
    if (stat(path_.c_str(), &status) != 0) {
        seen_ = {};
        trouble = system_error(path_);
        return state::failed;
    }
    if (!is_due({status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                 nanoseconds(status.st_ctim)})) {
        return state::same;
    }
    if (!read_whole_file(path_, max_file, text, trouble)) {
        return state::failed;
    }
    if (text.empty() && !in_force.empty()) {
        trouble = path_ + ": is empty; the lines that were in it stay in force (one with only a "
                          "comment drops them)";
        return state::failed;
    }
    bool same_file =
        accepted_ && accepted_from_.inode == seen_.inode && accepted_from_.device == seen_.device;
    if (same_file && !quiet_ && !text.starts_with(text_)) {
        return state::same; /* being rewritten */
    }
    std::string_view tail = std::string_view(text).substr(text.rfind('\n') + 1);
    bool known = std::any_of(in_force.begin(), in_force.end(),
                             [&](const plan_line& line) { return line.text == tail; });
    if (accepted_ && !quiet_ && !known) {
        text.resize(text.size() - tail.size()); /* being written */
        if (text.empty() && !in_force.empty()) {
            return state::same;
        }
    }
    return state::text;
}

void plan_file::accept(std::string text) {
    text_ = std::move(text);
    accepted_ = true;
    accepted_from_ = seen_;
}

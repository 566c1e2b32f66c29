#include "fleet/file_watch.h"

#include "base/files.h"
#include "fleet/node.h"

#include <ctime>
#include <sys/stat.h>

static constexpr int64_t quiet_ns = 2'000'000'000;

static int64_t nanoseconds(const timespec& t) {
    return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec;
}

static int64_t steady_now_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return nanoseconds(now);
}

bool file_watch::is_due(const identity& now) {
    const int64_t clock = steady_now_ns();
    if (now != seen_) {
        seen_ = now;
        seen_at_ns_ = clock;
    }
    if (now == read_) {
        return false;
    }
    const bool is_first = read_.size < 0,
               is_another = now.inode != read_.inode || now.device != read_.device;
    return is_first || is_another || failed_ || clock - seen_at_ns_ >= quiet_ns;
}

file_watch::state file_watch::look(bool at_once, std::string& text, std::string& trouble) {
    struct stat status;
    if (stat(path_.c_str(), &status) != 0) {
        const bool is_news = !failed_ || at_once;
        failed_ = true;
        read_ = {};
        trouble = system_error(path_);
        return is_news ? state::failed : state::same;
    }
    const identity now = {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                          nanoseconds(status.st_ctim)};
    if (!is_due(now) && !at_once) {
        return state::same;
    }
    read_ = now;
    text.clear();
    failed_ = !read_whole_file(path_, longest_fleet_text, text, trouble);
    if (!failed_ && text.empty()) {
        failed_ = true;
        trouble = path_ + ": is empty; \"version: 1\" alone takes all tests away";
    }
    return failed_ ? state::failed : state::text;
}

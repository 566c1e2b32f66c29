#include "base/process.h"

#include <ctime>
#include <dirent.h>
#include <fstream>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

static double seconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/* By the clock as it is now; so it is asked once. */
static double read_start() {
    std::ifstream file("/proc/self/stat");
    std::string text;
    std::getline(file, text);
    size_t name_end = text.rfind(')'); /* field 2, which may hold anything */
    constexpr int started_field = 22;
    size_t at = name_end;
    for (int field = 2; field < started_field && at != std::string::npos; field++) {
        at = text.find(' ', at + 1);
    }
    if (at == std::string::npos) {
        return 0;
    }
    double since_boot =
        std::strtod(text.c_str() + at, nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return seconds_of(CLOCK_REALTIME) - seconds_of(CLOCK_BOOTTIME) + since_boot;
}

static double seconds_of(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

static uint64_t count_descriptors() {
    std::unique_ptr<DIR, int (*)(DIR*)> all(opendir("/proc/self/fd"), closedir);
    uint64_t count = 0;
    while (all && readdir(all.get()) != nullptr) {
        count++;
    }
    constexpr uint64_t not_ours = 3; /* ".", "..", and the one by which they are read */
    return count > not_ours ? count - not_ours : 0;
}

process_figures read_process_figures() {
    static const double started = read_start();
    process_figures now;
    now.started = started;
    rusage used{};
    if (getrusage(RUSAGE_SELF, &used) == 0) {
        now.cpu_seconds = seconds_of(used.ru_utime) + seconds_of(used.ru_stime);
    }
    std::ifstream file("/proc/self/statm");
    uint64_t pages = 0;
    if (file >> pages >> pages) { /* the first is all of its address space */
        now.resident_bytes = pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    }
    now.descriptors = count_descriptors();
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        now.most_descriptors = limit.rlim_cur;
    }
    return now;
}

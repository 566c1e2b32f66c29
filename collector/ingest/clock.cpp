#include "ingest/clock.h"

#include "base/files.h"

#include <algorithm>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <string_view>
#include <unistd.h>

int64_t (*arrival_clock)() = epoch_seconds;
int64_t (*steady_clock)() = boot_seconds;
int64_t (*boot_number)() = read_boot_number;

int64_t epoch_seconds() {
    return time(nullptr);
}

int64_t boot_seconds() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}

int64_t read_boot_number() {
    unique_fd file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    char text[64];
    ssize_t got = file ? read(file.get(), text, sizeof(text)) : 0;
    return static_cast<int64_t>(
        std::hash<std::string_view>()({text, static_cast<size_t>(std::max<ssize_t>(got, 0))}) >> 1);
}

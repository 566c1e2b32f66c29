#include "ingest/expiry.h"

#include "base/files.h"

#include <algorithm>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

const int64_t between_drops = 3600; /* seconds */

/* Never jumps. */
int64_t boot_seconds() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec;
}
int64_t (*steady_clock)() = boot_seconds; /* a test pins it */

/* A number of this start of the machine, from which on steady_clock counts. */
int64_t read_boot_number() {
    unique_fd file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    char text[64];
    ssize_t got = file ? read(file.get(), text, sizeof(text)) : 0;
    return static_cast<int64_t>(
        std::hash<std::string_view>()({text, static_cast<size_t>(std::max<ssize_t>(got, 0))}) >> 1);
}
int64_t (*boot_number)() = read_boot_number;

} // namespace

void expiry::begin() {
    std::optional<int64_t> last_run = engine_.read_fact("keep_days"); /* none in a renewed file */
    int64_t before = last_run.value_or(keep_days_);
    drop_at_once_ = keep_days_ > 0 && (before == 0 || keep_days_ < before);
    if (!drop_at_once_ && last_run != keep_days_) {
        engine_.set_fact("keep_days", keep_days_); /* otherwise with the drop */
    }
    next_drop_ = steady_clock();
    std::optional<int64_t> dropped = engine_.read_fact("dropped");
    if (dropped && !drop_at_once_) {
        /* Of another start of the machine: when that was cannot be known. */
        int64_t due =
            engine_.read_fact("boot") == boot_number() ? *dropped + between_drops : INT64_MAX;
        next_drop_ = std::clamp(due, next_drop_, next_drop_ + between_drops);
    }
}

bool expiry::is_due() {
    days_changed_ = engine_.days_changed() || days_changed_;
    return keep_days_ > 0 && days_changed_ && engine_.is_open() && steady_clock() >= next_drop_;
}

void expiry::run() {
    if (!is_due()) {
        return;
    }
    std::string failure;
    auto note = [&](drop_outcome outcome) {
        failure = outcome == drop_outcome::done ? failure : engine_.reason();
        return outcome;
    };
    std::vector<std::string> days;
    note(engine_.days(days));
    size_t kept = static_cast<size_t>(keep_days_) + 1;
    size_t over = days.size() > kept ? days.size() - kept : 0;
    size_t dropped = 0, damaged = 0;
    for (size_t i = 0; i < over && (dropped == 0 || drop_at_once_); i++) {
        drop_outcome outcome = note(drop(days[i]));
        dropped += outcome == drop_outcome::done;
        damaged += outcome == drop_outcome::damaged; /* does not keep the next from going */
        if (outcome == drop_outcome::failed) {
            break;
        }
    }
    bool ok = failure.empty() || damaged > 0;
    ok = ok && (!drop_at_once_ || engine_.set_fact("keep_days", keep_days_));
    trouble_.report(failure.empty() ? "" : "an old day cannot be dropped: " + failure);
    if (dropped > 0 || !ok) {
        next_drop_ = steady_clock() + between_drops;
    }
    drop_at_once_ = drop_at_once_ && !ok;
    days_changed_ = !ok || over > dropped + damaged;
}

drop_outcome expiry::drop(const std::string& day) {
    const engine::fact facts[] = {{"dropped", steady_clock()}, {"boot", boot_number()}};
    drop_outcome outcome = engine_.drop_day(day, facts);
    if (outcome == drop_outcome::done) {
        tell_("the results of day " + day + " are dropped: --keep-days " +
              std::to_string(keep_days_));
        std::vector<std::string> kept;
        if (engine_.days(kept) == drop_outcome::done) {
            aside_.keep_days(kept);
        }
    }
    return outcome;
}

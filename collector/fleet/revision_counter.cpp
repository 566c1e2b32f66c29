#include "fleet/revision_counter.h"

#include <algorithm>

static constexpr int32_t at_a_time = 1000;

bool revision_counter::read(std::optional<fleet_copy>& copy, std::string& error) {
    if (kept_ != nullptr && !kept_->read_fleet_copy(copy, error)) {
        return false;
    }
    reserved_ = copy ? copy->newest : 0;
    return true;
}

bool revision_counter::is_older(const fleet_copy& copy) const {
    return copy.revision > state_.in_force.revision ||
           copy.newest - at_a_time > state_.highest_revision;
}

int32_t revision_counter::next() {
    int32_t next = 0;
    {
        std::lock_guard hold(state_.mutex);
        state_.highest_revision = std::max(state_.highest_revision, state_.newest.revision);
        next = ++state_.highest_revision;
    }
    if (next > reserved_) {
        keep(next + at_a_time);
    }
    return next;
}

void revision_counter::keep(int32_t newest) {
    if (kept_ == nullptr) {
        return;
    }
    std::lock_guard one_at_a_time(copying_);
    fleet_copy copy;
    {
        std::lock_guard hold(state_.mutex);
        copy = {.newest = newest,
                .revision = state_.in_force.revision,
                .time = state_.in_force.time,
                .author = state_.in_force.author,
                .text = state_.in_force.text};
    }
    std::string error;
    if (!kept_->keep_fleet(copy, error)) {
        log_("fleet: the copy in the settings cannot be written: " + error);
        return;
    }
    reserved_ = std::max(reserved_.load(), newest);
}

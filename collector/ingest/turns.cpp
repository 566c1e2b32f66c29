#include "ingest/turns.h"

#include <algorithm>

turns::place::place(turns& all, uint64_t address, std::string agent, size_t bytes,
                    std::function<void()> begin)
    : all_(all), address_(address), agent_(std::move(agent)), bytes_(bytes),
      begin_(std::move(begin)) {
    refused_ = !all_.agents_.insert(agent_).second;
    if (refused_) {
        return;
    }
    try {
        uint64_t& had = all_.had_[address_];
        start_ = std::max(had, all_.now_);
        all_.waiting_.emplace(start_, this);
        had = start_ + bytes_;
    } catch (...) {
        all_.agents_.erase(agent_);
        throw;
    }
    all_.begin_next();
}

turns::place::~place() {
    if (refused_) {
        return;
    }
    all_.agents_.erase(agent_);
    if (begun_) {
        all_.used_ -= bytes_;
        all_.under_way_--;
    } else {
        auto [first, last] = all_.waiting_.equal_range(start_);
        all_.waiting_.erase(
            std::find_if(first, last, [this](auto& w) { return w.second == this; }));
    }
    all_.begin_next();
}

/* The first that waits holds up those behind it, however small they are, or a large one would never
 * find room. */
void turns::begin_next() {
    while (!waiting_.empty()) {
        place& next = *waiting_.begin()->second;
        if (under_way_ > 0 && used_ + next.bytes_ > capacity_) {
            break;
        }
        waiting_.erase(waiting_.begin());
        now_ = next.start_;
        used_ += next.bytes_;
        under_way_++;
        next.begun_ = true;
        if (next.begin_) {
            next.begin_();
        }
    }
    bool idle = under_way_ == 0;
    std::erase_if(had_, [&](const auto& h) { return idle || h.second <= now_; });
    now_ = idle ? 0 : now_;
}

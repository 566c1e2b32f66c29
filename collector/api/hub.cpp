#include "api/hub.h"

#include "api/encoding.h"

#include <algorithm>
#include <chrono>
#include <unistd.h>

std::string event_hub::name_of_run() {
    auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::to_string(getpid()) + "." +
           std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

bool event_hub::is_heard() const {
    std::lock_guard hold(mutex_);
    return !wake_.empty();
}

void event_hub::publish(hub_kind kind, int64_t agent, int64_t test, std::string json) {
    auto text = std::make_shared<const std::string>(std::move(json));
    std::lock_guard hold(mutex_);
    const size_t bytes = text->size();
    ring_.push_back({newest_ + 1, kind, agent, test, std::move(text)});
    bytes_ += bytes;
    newest_++;
    flushed_ = false;
    while (!ring_.empty() && (bytes_ > most_bytes_ || ring_.size() > most_messages_)) {
        bytes_ -= ring_.front().json->size();
        ring_.pop_front();
    }
}

void event_hub::skip() {
    std::lock_guard hold(mutex_);
    newest_++;
    flushed_ = false;
    ring_.clear();
    bytes_ = 0;
}

void event_hub::flush() {
    std::unique_lock hold(mutex_);
    if (flushed_) {
        return;
    }
    flushed_ = true;
    for (uint64_t next = 0;;) {
        auto at = std::find_if(wake_.begin(), wake_.end(),
                               [&](const auto& each) { return each.first >= next; });
        if (at == wake_.end()) {
            return;
        }
        next = at->first + 1;
        const std::shared_ptr<const std::function<void()>> wake = at->second;
        hold.unlock(); /* what others do is not waited for */
        (*wake)();
        hold.lock();
    }
}

uint64_t event_hub::newest() const {
    std::lock_guard hold(mutex_);
    return newest_;
}

std::optional<uint64_t> event_hub::position_of(std::string_view id) const {
    if (!id.starts_with(run_) || id.substr(run_.size(), 1) != "-") {
        return std::nullopt;
    }
    std::optional<int64_t> position = read_integer(id.substr(run_.size() + 1));
    if (!position || *position < 0 || static_cast<uint64_t>(*position) > newest()) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(*position);
}

bool hub_filter::lets_through(const hub_message& message) const {
    if ((static_cast<uint8_t>(message.kind) & kinds) == 0 ||
        (agent != 0 && agent != message.agent) || (test != 0 && test != message.test)) {
        return false;
    }
    return message.kind != hub_kind::result || (result_agents.empty() && result_tests.empty()) ||
           std::ranges::binary_search(result_agents, message.agent) ||
           std::ranges::binary_search(result_tests, message.test);
}

void event_hub::read(uint64_t& position, const hub_filter& which, size_t most_bytes,
                     std::vector<hub_message>& found, bool& lost) const {
    found.clear();
    lost = false;
    std::lock_guard hold(mutex_);
    position = std::min(position, newest_);
    const uint64_t before_ring = newest_ - ring_.size();
    if (position < before_ring) {
        lost = true;
        position = before_ring;
    }
    size_t bytes = 0;
    while (position < newest_ && bytes < most_bytes) {
        const hub_message& next = ring_[static_cast<size_t>(position - before_ring)];
        position++;
        if (which.lets_through(next)) {
            bytes += next.json->size();
            found.push_back(next);
        }
    }
}

uint64_t event_hub::subscribe(std::function<void()> wake) {
    std::lock_guard hold(mutex_);
    wake_.emplace_back(next_subscriber_,
                       std::make_shared<const std::function<void()>>(std::move(wake)));
    return next_subscriber_++;
}

void event_hub::unsubscribe(uint64_t subscriber) {
    std::lock_guard hold(mutex_);
    std::erase_if(wake_, [&](const auto& each) { return each.first == subscriber; });
}

#include "show/event_queue.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

static const size_t chunk_size = 64 << 10; /* bytes, unless one event has more */
static const size_t chunk_events = 256;

static size_t bytes_of(const event& e) {
    return e.account.size() + e.agent.size() + e.text.size() + e.result.content.raw.size();
}

/* The same record where a copy of its bytes is. */
static record moved_to(const record& r, std::string_view copy) {
    auto moved = [&](const char* place) { return copy.data() + (place - r.raw.data()); };
    record m = r;
    m.raw = copy;
    m.i32.bytes = moved(r.i32.bytes);
    m.ui32.bytes = moved(r.ui32.bytes);
    m.i64.bytes = moved(r.i64.bytes);
    m.ui64.bytes = moved(r.ui64.bytes);
    m.d64.bytes = moved(r.d64.bytes);
    const char* strings = m.d64.bytes + r.d64.size() * sizeof(double);
    const char* nested =
        r.nested.empty() ? copy.data() + copy.size() : moved((*r.nested.begin()).data());
    m.strings = {{strings, nested}, r.strings.size()};
    m.nested = {{nested, copy.data() + copy.size()}, r.nested.size()};
    return m;
}

bool event_chunk::has_room(const event& e) const {
    return used_ + bytes_of(e) <= size_ && events.size() < chunk_events;
}

std::string_view event_chunk::keep(std::string_view text) {
    char* place = bytes_.get() + used_;
    used_ += text.size();
    text.copy(place, text.size());
    return {place, text.size()};
}

void event_chunk::add(const event& e) {
    if (!has_room(e)) { /* only of an empty one */
        size_ = std::max(chunk_size, bytes_of(e));
        bytes_ = std::make_unique_for_overwrite<char[]>(size_);
        events.reserve(chunk_events);
    }
    event& kept = events.emplace_back(e);
    kept.account = keep(e.account);
    kept.agent = keep(e.agent);
    kept.text = keep(e.text);
    std::string_view raw = e.result.content.raw;
    if (!raw.empty()) {
        record_summary& summary = kept.result.summary;
        std::string_view copy = keep(raw);
        kept.result.content = moved_to(e.result.content, copy);
        if (!summary.message.empty()) {
            size_t at = static_cast<size_t>(summary.message.data() - raw.data());
            summary.message = copy.substr(at, summary.message.size());
        }
    }
}

void event_chunk::clear() {
    events.clear();
    next = used_ = 0;
    if (size_ > chunk_size) {
        bytes_.reset();
        size_ = 0;
    }
}

size_t event_queue::add(const event& e) {
    if (chunks_.empty() || !chunks_.back().has_room(e)) {
        if (spare_.empty()) {
            chunks_.emplace_back();
        } else {
            chunks_.push_back(std::move(spare_.back()));
            spare_.pop_back();
        }
    }
    chunks_.back().add(e);
    bytes_ += sizeof(event) + bytes_of(e);
    count_++;
    size_t dropped = 0;
    for (; bytes_ > most_ && count_ > 1; dropped++) {
        drop_first();
    }
    return dropped;
}

void event_queue::drop_first() {
    event_chunk& first = chunks_.front();
    bytes_ -= sizeof(event) + bytes_of(first.events[first.next]);
    count_--;
    if (++first.next == first.events.size()) {
        first.clear();
        spare_.push_back(std::move(first));
        chunks_.erase(chunks_.begin());
    }
}

void event_queue::take(std::vector<event_chunk>& chunks) {
    for (event_chunk& chunk : chunks) {
        if (spare_.size() < most_spare) {
            chunk.clear();
            spare_.push_back(std::move(chunk));
        }
    }
    chunks.clear();
    chunks.swap(chunks_);
    bytes_ = count_ = 0;
}

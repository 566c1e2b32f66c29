#include "show/event_queue.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

/* Of a chunk: bytes, and events. What has more than a quarter of the bytes has memory of its own.
 */
static const size_t chunk_size = 16 << 10, chunk_events = 64;

/* What an event counts for beside its bytes. Less than it takes: how many wait for a slow reader
 * must not depend on how they are kept. */
static const size_t event_charge = 160;

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

static bool is_large(const event& e) {
    return bytes_of(e) > chunk_size / 4;
}

event_chunk::event_chunk() : bytes_(std::make_unique_for_overwrite<char[]>(chunk_size)) {
    events.reserve(chunk_events);
}

bool event_chunk::has_room(const event& e) const {
    return events.size() < chunk_events && (is_large(e) || used_ + bytes_of(e) <= chunk_size);
}

static std::string_view append(char*& place, std::string_view text) {
    std::string_view copy(place, text.copy(place, text.size()));
    place += text.size();
    return copy;
}

void event_chunk::add(const event& e) {
    /* Memory may be short here, and nowhere below: then nothing has been added. */
    std::shared_ptr<char[]> own;
    if (is_large(e)) {
        own = std::make_shared_for_overwrite<char[]>(bytes_of(e));
    }
    event& kept = events.emplace_back(e); /* there is room for it: see event_chunk() */
    char* place = own ? own.get() : bytes_.get() + used_;
    used_ += own ? 0 : bytes_of(e);
    kept.own = std::move(own);
    kept.account = append(place, e.account);
    kept.agent = append(place, e.agent);
    kept.text = append(place, e.text);
    std::string_view raw = e.result.content.raw;
    if (!raw.empty()) {
        record_summary& summary = kept.result.summary;
        std::string_view copy = append(place, raw);
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
    bytes_ += event_charge + bytes_of(e);
    count_++;
    size_t dropped = 0;
    for (; bytes_ > most_ && count_ > 1; dropped++) {
        drop_first();
    }
    return dropped;
}

void event_queue::drop_first() {
    event_chunk& first = chunks_.front();
    bytes_ -= event_charge + bytes_of(first.events[first.next]);
    count_--;
    first.events[first.next] = {};
    if (++first.next == first.events.size()) {
        if (spare_.size() < most_spare) {
            first.clear();
            spare_.push_back(std::move(first));
        }
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

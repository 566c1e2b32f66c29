#include "store/sqlite/latest.h"

#include <algorithm>

namespace {

/* What stands in an entry beside type, received and row. */
enum { has_test = 1, has_time = 2, has_status = 4 };

/* Seven bits a byte, the lowest first. */
void pack(std::string& to, uint64_t value) {
    for (; value >= 0x80; value >>= 7) {
        to += static_cast<char>(value | 0x80);
    }
    to += static_cast<char>(value);
}

/* Small numbers of either sign are short. */
void pack_signed(std::string& to, uint64_t value) {
    pack(to, value << 1 ^ (value >> 63 != 0 ? ~uint64_t{0} : 0));
}

bool unpack(std::string_view& from, uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; shift < 64 && !from.empty(); shift += 7) {
        auto byte = static_cast<unsigned char>(from.front());
        from.remove_prefix(1);
        value |= uint64_t{byte & 0x7fu} << shift;
        if (byte < 0x80) {
            return true;
        }
    }
    return false;
}

bool unpack_signed(std::string_view& from, uint64_t& value) {
    bool whole = unpack(from, value);
    value = value >> 1 ^ ((value & 1) != 0 ? ~uint64_t{0} : 0);
    return whole;
}

/* Times are packed as differences: to the entry before, and of the check to its arrival. */
void pack(std::string& to, const latest_entry& e, int64_t before) {
    auto bits = [](int64_t value) { return static_cast<uint64_t>(value); };
    to += static_cast<char>((e.test ? has_test : 0) | (e.time ? has_time : 0) |
                            (e.status ? has_status : 0));
    pack(to, e.type);
    pack_signed(to, bits(e.received) - bits(before));
    pack(to, bits(e.row));
    if (e.test) {
        pack_signed(to, bits(*e.test));
    }
    if (e.time) {
        pack_signed(to, bits(*e.time) - bits(e.received));
    }
    if (e.status) {
        pack_signed(to, bits(*e.status));
    }
}

bool unpack(std::string_view& from, latest_entry& e, int64_t before) {
    uint64_t flags, type, received, row, test = 0, time = 0, status = 0;
    if (!unpack(from, flags) || !unpack(from, type) || !unpack_signed(from, received) ||
        !unpack(from, row) || ((flags & has_test) != 0 && !unpack_signed(from, test)) ||
        ((flags & has_time) != 0 && !unpack_signed(from, time)) ||
        ((flags & has_status) != 0 && !unpack_signed(from, status))) {
        return false;
    }
    received += static_cast<uint64_t>(before);
    e = {.type = static_cast<uint32_t>(type),
         .test = {},
         .received = static_cast<int64_t>(received),
         .row = static_cast<int64_t>(row),
         .time = {},
         .status = {}};
    if ((flags & has_test) != 0) {
        e.test = static_cast<int32_t>(test);
    }
    if ((flags & has_time) != 0) {
        e.time = static_cast<int64_t>(time + received);
    }
    if ((flags & has_status) != 0) {
        e.status = static_cast<int32_t>(status);
    }
    return true;
}

bool by_key(const latest_entry& a, const latest_entry& b) {
    return a.key() < b.key();
}

} // namespace

void latest_results::unpack(std::string_view packed) {
    entries_.clear();
    int64_t before = 0;
    for (latest_entry e; !packed.empty() && ::unpack(packed, e, before); before = e.received) {
        entries_.push_back(e);
    }
    auto out_of_order = [](const latest_entry& a, const latest_entry& b) {
        return a.key() >= b.key();
    };
    bool whole =
        std::adjacent_find(entries_.begin(), entries_.end(), out_of_order) == entries_.end();
    settled_ = whole ? entries_.size() : 0;
}

void latest_results::put(const record_summary& summary, int64_t received, int64_t row) {
    latest_entry fresh{summary.type, summary.test, received, row, summary.time, summary.status};
    auto end = entries_.begin() + static_cast<std::ptrdiff_t>(settled_);
    auto known = std::lower_bound(entries_.begin(), end, fresh, by_key);
    if (known != end && known->key() == fresh.key()) {
        *known = fresh;
        return;
    }
    entries_.push_back(fresh);
    if (entries_.size() > settled_ + latest_max) { /* one block may hold millions of records */
        settle();
    }
}

void latest_results::settle() {
    if (settled_ == entries_.size()) {
        return;
    }
    auto middle = entries_.begin() + static_cast<std::ptrdiff_t>(settled_);
    std::stable_sort(middle, entries_.end(), by_key);
    std::inplace_merge(entries_.begin(), middle, entries_.end(), by_key);
    /* Of equal ones the last holds. */
    auto kept = entries_.begin();
    for (auto e = entries_.begin(); e != entries_.end(); ++e) {
        if (std::next(e) == entries_.end() || std::next(e)->key() != e->key()) {
            *kept++ = *e;
        }
    }
    entries_.erase(kept, entries_.end());
    if (entries_.size() > latest_max) {
        auto newer = [](const latest_entry& a, const latest_entry& b) {
            return std::pair(a.received, a.row) > std::pair(b.received, b.row);
        };
        std::nth_element(entries_.begin(), entries_.begin() + latest_max, entries_.end(), newer);
        entries_.resize(latest_max);
        std::sort(entries_.begin(), entries_.end(), by_key);
    }
    settled_ = entries_.size();
}

bool latest_results::forget_unless(const std::function<bool(int64_t received)>& kept) {
    settle();
    size_t gone = std::erase_if(entries_, [&](const latest_entry& e) { return !kept(e.received); });
    settled_ = entries_.size();
    return gone > 0;
}

const std::vector<latest_entry>& latest_results::entries() & {
    settle();
    return entries_;
}

void latest_results::pack(std::string& into) {
    settle();
    into.clear();
    int64_t before = 0;
    for (const latest_entry& e : entries_) {
        ::pack(into, e, before);
        before = e.received;
    }
}

std::string latest_results::packed() {
    std::string text;
    pack(text);
    return text;
}

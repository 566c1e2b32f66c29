#include "protocol/record.h"

#include <algorithm>
#include <bit>

namespace {

using header = protocol::record_header;

/* Where the parts of a record lie. */
struct layout {
    header head;
    size_t strings_at;
    size_t string_count;
    size_t nested_at;
};

/* What one decoding may still cost, in bytes looked at; a step to another string counts for some
 * more. A record with missing strings is tried with each possible number of them, on every level of
 * nesting: without this, a block made for the purpose would take time that grows with a power of
 * its size. */
struct budget {
    size_t left;
    bool exhausted = false;
    const char* reason = "";

    bool spend(size_t bytes) {
        exhausted = exhausted || bytes > left;
        left -= exhausted ? 0 : bytes;
        return !exhausted;
    }
    bool fail(const char* why) {
        reason =
            exhausted ? "it takes too much work to tell its strings from its nested records" : why;
        return false;
    }
};

/* The size of the record at the start of `bytes`, 0 when there cannot be one. */
size_t size_at(std::string_view bytes) {
    if (bytes.size() < record_header_size) {
        return 0;
    }
    size_t size = length_of_record(bytes);
    return size < record_header_size || size > bytes.size() ? 0 : size;
}

/* The end of the string at `at`, its NUL included; 0 when there is none. */
size_t string_end(std::string_view bytes, size_t at, budget& work) {
    const size_t step = 8;
    size_t end = bytes.find('\0', at);
    if (!work.spend((end == bytes.npos ? bytes.size() : end) - at + step) || end == bytes.npos ||
        end == at) {
        return 0;
    }
    return end + 1;
}

bool find_layout(std::string_view bytes, int depth, budget& work, layout& found);

/* Whether `bytes` is a run of `count` records and nothing else. */
bool is_run(std::string_view bytes, size_t count, int depth, budget& work) {
    if (count > bytes.size() / record_header_size) {
        return false;
    }
    std::string_view rest = bytes;
    for (size_t i = 0; i < count; i++) {
        size_t size = size_at(rest);
        if (!work.spend(record_header_size) || size == 0) {
            return false;
        }
        rest.remove_prefix(size);
    }
    if (!rest.empty()) {
        return false;
    }
    for (rest = bytes; !rest.empty();) {
        size_t size = size_at(rest);
        layout unused;
        if (!find_layout(rest.substr(0, size), depth, work, unused)) {
            return false;
        }
        rest.remove_prefix(size);
    }
    return true;
}

/* 0x80 for each byte of eight that is 0, and 0 for every other. */
uint64_t zero_bytes(uint64_t word) {
    const uint64_t low = 0x7f7f7f7f7f7f7f7f;
    return ~(((word & low) + low) | word | low);
}

/* Whether `bytes` are strings, none of them empty, to the last byte; how many. Eight bytes at a
 * time, because a string may have one. */
bool are_strings(std::string_view bytes, size_t& count) {
    count = 0;
    size_t i = 0;
    uint64_t before = 0x80; /* as if a string had just ended: the first is not empty either */
    uint64_t empty = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        uint64_t word;
        memcpy(&word, bytes.data() + i, sizeof(word));
        uint64_t zeros = zero_bytes(word);
        count += static_cast<size_t>(std::popcount(zeros));
        empty |= zeros & (zeros << 8 | before);
        before = zeros >> 56;
    }
    for (; i < bytes.size(); i++) {
        uint64_t zero = bytes[i] == '\0' ? 0x80 : 0;
        count += zero != 0;
        empty |= zero & before;
        before = zero;
    }
    return empty == 0 && (bytes.empty() || bytes.back() == '\0');
}

/* Only strings behind the values: they fill the record, and there are at most as many as declared.
 */
bool find_strings(std::string_view bytes, budget& work, layout& found) {
    std::string_view rest = bytes.substr(found.strings_at);
    if (!work.spend(rest.size()) || !are_strings(rest, found.string_count) ||
        found.string_count > found.head.strings) {
        return work.fail("bytes behind its values are not the strings it declares");
    }
    found.nested_at = bytes.size();
    return true;
}

/* Strings and nested records behind the values. As many strings as declared is what an honest
 * record has, unless one was empty; then exactly one smaller number must make sense. */
bool find_strings_and_nested(std::string_view bytes, int depth, budget& work, layout& found) {
    size_t declared = found.head.strings;
    size_t readings = 0;
    size_t at = found.strings_at;
    size_t held = 0;
    for (; held < declared; held++) {
        size_t next = string_end(bytes, at, work);
        if (next == 0) {
            break;
        }
        at = next;
    }
    if (held == declared && is_run(bytes.substr(at), found.head.nested, depth + 1, work)) {
        found.string_count = held;
        found.nested_at = at;
        return true;
    }
    size_t most = held == declared ? declared : held + 1;
    at = found.strings_at;
    for (size_t count = 0; count < most && !work.exhausted; count++) {
        if (is_run(bytes.substr(at), found.head.nested, depth + 1, work)) {
            found.string_count = count;
            found.nested_at = at;
            readings++;
        }
        if (count + 1 < most) {
            at = string_end(bytes, at, work);
        }
    }
    if (readings == 0 || work.exhausted) {
        return work.fail("its strings and nested records do not fill it");
    }
    return readings == 1 || work.fail("its strings cannot be told from its nested records");
}

bool find_layout(std::string_view bytes, int depth, budget& work, layout& found) {
    if (depth > record_max_depth) {
        return work.fail("records are nested too deep");
    }
    if (size_at(bytes) != bytes.size() || bytes.empty()) {
        return work.fail("its size is not the number of its bytes");
    }
    if (!work.spend(record_header_size)) {
        return work.fail("");
    }
    memcpy(&found.head, bytes.data(), sizeof(header));
    uint64_t narrow = uint64_t{found.head.i32} + found.head.ui32;
    uint64_t wide = uint64_t{found.head.i64} + found.head.ui64 + found.head.d64;
    uint64_t values_end = record_header_size + 4 * narrow + 8 * wide;
    if (values_end > bytes.size()) {
        return work.fail("it is too small for the values it declares");
    }
    found.strings_at = values_end;
    if (found.head.nested == 0) {
        return find_strings(bytes, work, found);
    }
    return find_strings_and_nested(bytes, depth, work, found);
}

template <typename T>
const char* take_values(value_array<T>& values, const char* at, uint32_t count) {
    values.bytes = at;
    values.count = count;
    return at + sizeof(T) * count;
}

} // namespace

bool decode_record(std::string_view bytes, record& r, std::string& reason) {
    if (bytes.size() > record_max_size) {
        reason = "no record is as large as " + std::to_string(bytes.size()) + " bytes";
        return false;
    }
    /* An honest record is looked at once; the rest is for missing strings, which only small records
     * have together with many strings that are there. */
    budget work{4 * bytes.size() + std::min<size_t>(28 * bytes.size(), 4 << 20) + 4096};
    layout found;
    if (!find_layout(bytes, 1, work, found)) {
        reason = work.reason;
        return false;
    }
    r.raw = bytes;
    const char* at = bytes.data() + record_header_size;
    at = take_values(r.i32, at, found.head.i32);
    at = take_values(r.ui32, at, found.head.ui32);
    at = take_values(r.i64, at, found.head.i64);
    at = take_values(r.ui64, at, found.head.ui64);
    take_values(r.d64, at, found.head.d64);

    r.declared_strings = found.head.strings;
    r.strings = {bytes.substr(found.strings_at, found.nested_at - found.strings_at),
                 found.string_count};
    r.nested = {bytes.substr(found.nested_at), found.head.nested};
    return true;
}

bool block_reader::next() {
    offset += bytes;
    std::string_view rest = block_.substr(offset);
    good = false;
    bytes = rest.size();
    if (rest.empty()) {
        return false;
    }
    size_t size = size_at(rest);
    if (size == 0) {
        reason = rest.size() < record_header_size
                     ? "too short for a record"
                     : "no record has the size " + std::to_string(length_of_record(rest));
        return true;
    }
    bytes = size;
    good = decode_record(rest.substr(0, size), current, reason);
    if (good && current.ui32.size() == 0) {
        good = false;
        reason = "it has no type";
    }
    return true;
}

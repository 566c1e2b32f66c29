/* An assigned_agent as bytes: a piece (store/columns.h) of kind 0x31, in which stand, each in turn
 *
 *   a number        of the layout: 1
 *   numbers         next_number, poll, check, their revisions, newest
 *   a number        of tests; for each
 *     a number        type of its records
 *     numbers         number, added, revision, confirmed, returned
 *     16 bytes        digest
 *     eight bytes     whole_gb
 *     texts           name, group, was, found, impossible: a number of bytes, and these
 *   a number        of removed ones; for each
 *     numbers         type, 1 when it is over
 *     numbers         number, revision
 *     a text          name */
#include "fleet/assigned.h"
#include "store/columns.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <set>

namespace {

constexpr uint8_t piece_kind = 0x31;
constexpr uint64_t layout = 1;
constexpr size_t most_bytes = 64u << 20, most_tests = 1u << 20, longest_text = 1u << 20;

void write_text(column_writer& out, std::string_view text) {
    out.number(text.size());
    out.text(text);
}

bool read_text(column_reader& in, std::string& text) {
    uint64_t size = 0;
    std::string_view found;
    if (!in.number(size, longest_text) || !in.text(static_cast<size_t>(size), found)) {
        return false;
    }
    text = found;
    return true;
}

/* Numbers and revisions are never below 0. */
bool read_count(column_reader& in, int32_t& count) {
    uint64_t value = 0;
    if (!in.number(value, INT32_MAX)) {
        return false;
    }
    count = static_cast<int32_t>(value);
    return true;
}

bool read_counts(column_reader& in, std::initializer_list<int32_t*> counts) {
    return std::all_of(counts.begin(), counts.end(),
                       [&](int32_t* count) { return read_count(in, *count); });
}

bool read_type(column_reader& in, uint32_t& type) {
    uint64_t value = 0;
    if (!in.number(value, UINT32_MAX)) {
        return false;
    }
    type = static_cast<uint32_t>(value);
    return true;
}

void write_test(column_writer& out, const assigned_test& test) {
    out.number(test.kind->record->code);
    for (int32_t count : {test.number, test.added, test.revision, test.confirmed, test.returned}) {
        out.number(static_cast<uint32_t>(count));
    }
    out.text({reinterpret_cast<const char*>(test.digest.data()), test.digest.size()});
    auto whole = std::bit_cast<std::array<char, 8>>(test.whole_gb);
    out.text({whole.data(), whole.size()});
    for (const std::string* text :
         {&test.name, &test.group, &test.was, &test.found, &test.impossible}) {
        write_text(out, *text);
    }
}

bool read_test(column_reader& in, assigned_test& test) {
    uint32_t type = 0;
    std::string_view digest, whole;
    if (!read_type(in, type) || (test.kind = kind_of_record(type)) == nullptr ||
        !read_counts(
            in, {&test.number, &test.added, &test.revision, &test.confirmed, &test.returned}) ||
        !in.text(test.digest.size(), digest) || !in.text(sizeof(double), whole)) {
        return false;
    }
    memcpy(test.digest.data(), digest.data(), digest.size());
    memcpy(&test.whole_gb, whole.data(), whole.size());
    return std::isfinite(test.whole_gb) && test.whole_gb >= 0 && test.added <= test.revision &&
           read_text(in, test.name) && read_text(in, test.group) && read_text(in, test.was) &&
           read_text(in, test.found) && read_text(in, test.impossible);
}

bool read_removed(column_reader& in, removed_test& test) {
    uint64_t is_over = 0;
    if (!read_type(in, test.type) || !in.number(is_over, 1) ||
        !read_counts(in, {&test.number, &test.revision}) || !read_text(in, test.name)) {
        return false;
    }
    test.is_over = is_over != 0;
    return true;
}

template <typename Item, typename Read>
bool read_list(column_reader& in, std::vector<Item>& list, Read read) {
    uint64_t count = 0;
    if (!in.number(count, most_tests)) {
        return false;
    }
    for (uint64_t i = 0; i < count; ++i) {
        if (!read(in, list.emplace_back())) {
            return false;
        }
    }
    return true;
}

bool read_agent(column_reader& in, assigned_agent& agent) {
    uint64_t version = 0;
    return in.number(version, layout) && version == layout &&
           read_counts(in, {&agent.next_number, &agent.poll, &agent.check, &agent.poll_revision,
                            &agent.check_revision, &agent.newest}) &&
           read_list(in, agent.tests, read_test) && read_list(in, agent.removed, read_removed) &&
           in.at_end();
}

/* Names rise, and no number stands there twice. */
bool is_sane(const assigned_agent& agent) {
    std::set<int32_t> numbers;
    const std::string* before = nullptr;
    for (const assigned_test& test : agent.tests) {
        if (test.name.empty() || (before != nullptr && test.name <= *before) ||
            (test.number == 0 ? test.impossible.empty()
                              : test.revision == 0 || !numbers.insert(test.number).second)) {
            return false;
        }
        before = &test.name;
    }
    return agent.next_number > 0 && std::all_of(numbers.begin(), numbers.end(),
                                                [&](int32_t n) { return n < agent.next_number; });
}

} // namespace

void assigned_agent::pack(std::string& into) const {
    column_writer out;
    out.number(layout);
    for (int32_t count : {next_number, poll, check, poll_revision, check_revision, newest}) {
        out.number(static_cast<uint32_t>(count));
    }
    out.number(tests.size());
    for (const assigned_test& test : tests) {
        write_test(out, test);
    }
    out.number(removed.size());
    for (const removed_test& test : removed) {
        out.number(test.type);
        out.number(test.is_over);
        out.number(static_cast<uint32_t>(test.number));
        out.number(static_cast<uint32_t>(test.revision));
        write_text(out, test.name);
    }
    out.seal(piece_kind, into);
}

bool assigned_agent::unpack(std::string_view packed) {
    assigned_agent found;
    column_reader in;
    bool good = in.open(packed, piece_kind, most_bytes) && read_agent(in, found) && is_sane(found);
    *this = good ? std::move(found) : assigned_agent();
    return good;
}

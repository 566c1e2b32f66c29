#include "store/pack.h"

#include "protocol/record.h"
#include "store/columns.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <unordered_map>

static constexpr uint8_t chunk_kind = 0x11, roll_up_kind = 0x21;

/* Of records that all have a shape nothing is gained by columns when they are fewer, or are so
 * large that each is a table in itself. */
static constexpr size_t shape_min_records = 8, shape_max_columns = 512;
/* Columns of small records may take more room than these, but never twice as much. */
static constexpr size_t max_text = 2 * chunk_max_bytes + 4096;

/* ---- shapes ---- */

enum value_kind : uint8_t { kind_i32, kind_ui32, kind_i64, kind_ui64, kind_d64, kinds };
static constexpr size_t value_sizes[kinds] = {4, 4, 8, 8, 8};

/* A record or nested record of a shape. */
struct shape_node {
    uint32_t values[kinds] = {};
    uint32_t declared = 0, held = 0; /* strings */
    uint32_t nested = 0;

    bool operator==(const shape_node&) const = default;

    size_t value_bytes() const {
        size_t bytes = 0;
        for (size_t kind = 0; kind < kinds; kind++) {
            bytes += values[kind] * value_sizes[kind];
        }
        return bytes;
    }
};

/* Nested records behind the one that holds them. */
struct shape {
    std::vector<shape_node> nodes = {};
    size_t columns = 0;     /* values, strings, and a node each */
    size_t value_bytes = 0; /* of all nodes */
    size_t strings = 0;

    void clear() { /* keeps the memory */
        nodes.clear();
        columns = value_bytes = strings = 0;
    }
    void add(const shape_node& node) {
        nodes.push_back(node);
        columns += 1 + node.held;
        for (uint32_t count : node.values) {
            columns += count;
        }
        value_bytes += node.value_bytes();
        strings += node.held;
    }
    /* Bytes of a record without its strings. */
    size_t fixed_bytes() const { return nodes.size() * record_header_size + value_bytes; }
};

/* The shape of a record, with its values and strings. */
struct record_parts {
    shape of = {};
    std::string values = {};                    /* of all nodes */
    std::vector<std::string_view> strings = {}; /* in the record */
};

/* False for one that is no record, or has too many columns. */
static bool take_apart(std::string_view bytes, record_parts& parts) {
    record r;
    std::string reason;
    if (!decode_record(bytes, r, reason)) {
        return false;
    }
    uint64_t columns = parts.of.columns + 1 + r.strings.size() + r.nested.size();
    for (size_t count : {r.i32.size(), r.ui32.size(), r.i64.size(), r.ui64.size(), r.d64.size()}) {
        columns += count;
    }
    if (columns > shape_max_columns) {
        return false;
    }
    shape_node node;
    node.values[kind_i32] = static_cast<uint32_t>(r.i32.size());
    node.values[kind_ui32] = static_cast<uint32_t>(r.ui32.size());
    node.values[kind_i64] = static_cast<uint32_t>(r.i64.size());
    node.values[kind_ui64] = static_cast<uint32_t>(r.ui64.size());
    node.values[kind_d64] = static_cast<uint32_t>(r.d64.size());
    node.declared = r.declared_strings;
    node.held = static_cast<uint32_t>(r.strings.size());
    node.nested = static_cast<uint32_t>(r.nested.size());
    parts.of.add(node);
    parts.values += bytes.substr(record_header_size, node.value_bytes());
    for (std::string_view text : r.strings) {
        parts.strings.push_back(text);
    }
    for (std::string_view inner : r.nested) {
        if (!take_apart(inner, parts)) {
            return false;
        }
    }
    return true;
}

static void write_shape(column_writer& out, const shape& s) {
    for (const shape_node& node : s.nodes) {
        for (uint32_t count : node.values) {
            out.number(count);
        }
        for (uint32_t count : {node.declared, node.held, node.nested}) {
            out.number(count);
        }
    }
}

static bool read_shape(column_reader& in, int depth, shape& s) {
    shape_node node;
    auto read = [&in](uint32_t& count, uint64_t most) {
        uint64_t value;
        bool good = in.number(value, most);
        count = good ? static_cast<uint32_t>(value) : 0;
        return good;
    };
    for (uint32_t& count : node.values) {
        if (!read(count, shape_max_columns)) {
            return false;
        }
    }
    if (depth > record_max_depth || !read(node.declared, UINT32_MAX) ||
        !read(node.held, shape_max_columns) || !read(node.nested, shape_max_columns)) {
        return false;
    }
    s.add(node);
    for (uint32_t i = 0; i < node.nested; i++) {
        if (s.columns > shape_max_columns || !read_shape(in, depth + 1, s)) {
            return false;
        }
    }
    return s.columns <= shape_max_columns;
}

/* ---- packing records ---- */

/* Records of one shape: rows of values, and of strings. */
struct shape_group {
    shape of;
    std::vector<size_t> places = {}; /* of the records */
    std::string values = {};
    std::vector<std::string_view> strings = {};
};

template <typename T>
static int64_t whole_at(const char* bytes) {
    T value;
    memcpy(&value, bytes, sizeof(value));
    return static_cast<int64_t>(value);
}

static int64_t whole_at(value_kind kind, const char* bytes) {
    switch (kind) {
    case kind_i32:
        return whole_at<int32_t>(bytes);
    case kind_ui32:
        return whole_at<uint32_t>(bytes);
    default:
        return whole_at<int64_t>(bytes);
    }
}

static void write_values(column_writer& out, const shape_group& group) {
    std::vector<int64_t> wholes(group.places.size());
    std::vector<double> reals(group.places.size());
    size_t offset = 0;
    for (const shape_node& node : group.of.nodes) {
        for (size_t kind = 0; kind < kinds; kind++) {
            for (uint32_t i = 0; i < node.values[kind]; i++, offset += value_sizes[kind]) {
                const char* at = group.values.data() + offset;
                for (size_t row = 0; row < wholes.size(); row++, at += group.of.value_bytes) {
                    if (kind == kind_d64) {
                        memcpy(&reals[row], at, sizeof(double));
                    } else {
                        wholes[row] = whole_at(static_cast<value_kind>(kind), at);
                    }
                }
                if (kind == kind_d64) {
                    out.real(reals);
                } else {
                    out.whole(wholes);
                }
            }
        }
    }
}

static void write_strings(column_writer& out, const shape_group& group) {
    std::unordered_map<std::string_view, int64_t> known;
    std::vector<std::string_view> texts;
    std::vector<int64_t> which(group.places.size());
    for (size_t column = 0; column < group.of.strings; column++) {
        known.clear();
        texts.clear();
        for (size_t row = 0; row < which.size(); row++) {
            std::string_view text = group.strings[row * group.of.strings + column];
            auto [at, added] = known.try_emplace(text, static_cast<int64_t>(known.size()));
            which[row] = at->second;
            if (added) {
                texts.push_back(text);
            }
        }
        out.whole(which);
        for (std::string_view text : texts) {
            out.text(text);
            out.text(std::string_view("\0", 1));
        }
    }
}

/* By shape, those that gain by it. */
static std::vector<shape_group> find_shapes(const std::vector<arrived_record>& records) {
    std::vector<shape_group> groups;
    std::unordered_map<std::string, size_t> known; /* by the nodes' bytes */
    if (records.size() < shape_min_records) {
        return groups; /* a record alone may be of 32 MB: it is not taken apart for nothing */
    }
    record_parts parts;
    std::string key;
    size_t last = 0; /* group: most are of the same as the one before */
    for (size_t i = 0; i < records.size(); i++) {
        parts.of.clear();
        parts.values.clear();
        parts.strings.clear();
        if (!take_apart(records[i].record, parts)) {
            continue;
        }
        if (groups.empty() || groups[last].of.nodes != parts.of.nodes) {
            static_assert(std::has_unique_object_representations_v<shape_node>);
            key.assign(reinterpret_cast<const char*>(parts.of.nodes.data()),
                       parts.of.nodes.size() * sizeof(shape_node));
            auto [at, added] = known.try_emplace(key, groups.size());
            if (added) {
                groups.push_back({.of = parts.of});
            }
            last = at->second;
        }
        shape_group& group = groups[last];
        group.places.push_back(i);
        group.values += parts.values;
        group.strings.insert(group.strings.end(), parts.strings.begin(), parts.strings.end());
    }
    std::erase_if(groups,
                  [](const shape_group& group) { return group.places.size() < shape_min_records; });
    return groups;
}

static bool is_as_long_as_it_says(std::string_view bytes) {
    return bytes.size() >= sizeof(uint32_t) && length_of_record(bytes) == bytes.size();
}

bool pack_chunk(const std::vector<arrived_record>& records, std::string& packed) {
    size_t bytes = 0;
    for (const arrived_record& one : records) {
        bytes += one.record.size();
        if (!is_as_long_as_it_says(one.record) || bytes > chunk_max_bytes) {
            return false;
        }
    }
    if (records.size() > chunk_max_records) {
        return false;
    }
    std::vector<shape_group> groups = find_shapes(records);
    std::vector<int64_t> shapes(records.size()), received;
    for (size_t i = 0; i < groups.size(); i++) {
        for (size_t place : groups[i].places) {
            shapes[place] = static_cast<int64_t>(i + 1);
        }
    }
    received.reserve(records.size());
    for (const arrived_record& one : records) {
        received.push_back(one.received);
    }
    column_writer out;
    out.number(records.size());
    out.number(groups.size());
    for (const shape_group& group : groups) {
        write_shape(out, group.of);
    }
    out.whole(shapes);
    out.whole(received);
    for (const shape_group& group : groups) {
        write_values(out, group);
        write_strings(out, group);
    }
    for (size_t i = 0; i < records.size(); i++) {
        if (shapes[i] == 0) {
            out.text(records[i].record);
        }
    }
    out.seal(chunk_kind, packed);
    return true;
}

/* ---- unpacking records ---- */

/* Records of one shape, to be put together. */
struct unpacked_shape {
    shape of = {};
    size_t records = 0, next = 0;
    std::string values = {}; /* as in shape_group */
    std::vector<uint32_t> strings = {};
    std::vector<std::vector<std::string_view>> texts = {}; /* by column */
};

static void put_whole(value_kind kind, int64_t value, char* to) {
    memcpy(to, &value, value_sizes[kind]); /* the lower half of an I32 or UI32 */
}

static bool read_values(column_reader& in, unpacked_shape& s) {
    s.values.resize(s.records * s.of.value_bytes);
    std::vector<int64_t> wholes;
    std::vector<double> reals;
    size_t offset = 0;
    for (const shape_node& node : s.of.nodes) {
        for (size_t kind = 0; kind < kinds; kind++) {
            for (uint32_t i = 0; i < node.values[kind]; i++, offset += value_sizes[kind]) {
                if (kind == kind_d64 ? !in.real(s.records, reals) : !in.whole(s.records, wholes)) {
                    return false;
                }
                char* to = s.values.data() + offset;
                for (size_t row = 0; row < s.records; row++, to += s.of.value_bytes) {
                    if (kind == kind_d64) {
                        memcpy(to, &reals[row], sizeof(double));
                    } else {
                        put_whole(static_cast<value_kind>(kind), wholes[row], to);
                    }
                }
            }
        }
    }
    return true;
}

static bool read_strings(column_reader& in, unpacked_shape& s) {
    s.strings.resize(s.records * s.of.strings);
    s.texts.resize(s.of.strings);
    std::vector<int64_t> which;
    for (size_t column = 0; column < s.of.strings; column++) {
        if (!in.whole(s.records, which)) {
            return false;
        }
        std::vector<std::string_view>& texts = s.texts[column];
        int64_t known = 0;
        for (size_t row = 0; row < s.records; row++) {
            if (which[row] < 0 || which[row] > known) {
                return false;
            }
            known += which[row] == known;
            s.strings[row * s.of.strings + column] = static_cast<uint32_t>(which[row]);
        }
        texts.resize(static_cast<size_t>(known));
        for (std::string_view& text : texts) {
            if (!in.string(text)) {
                return false;
            }
        }
    }
    return true;
}

/* Where the next piece of the record that is put together comes from. */
struct shape_cursor {
    const shape_node* node;
    const char* values;
    size_t string;
};

/* False when it grows beyond `most`. */
static bool put_record(const unpacked_shape& s, shape_cursor& at, size_t most, std::string& out) {
    const shape_node& node = *at.node++;
    size_t begin = out.size();
    protocol::record_header head = {.size = 0,
                                    .i32 = node.values[kind_i32],
                                    .ui32 = node.values[kind_ui32],
                                    .i64 = node.values[kind_i64],
                                    .ui64 = node.values[kind_ui64],
                                    .d64 = node.values[kind_d64],
                                    .strings = node.declared,
                                    .nested = node.nested};
    out.append(reinterpret_cast<const char*>(&head), sizeof(head));
    out.append(at.values, node.value_bytes());
    at.values += node.value_bytes();
    for (uint32_t i = 0; i < node.held; i++, at.string++) {
        size_t which = s.strings[s.next * s.of.strings + at.string];
        std::string_view text = s.texts[at.string][which];
        if (out.size() + text.size() > most) {
            return false;
        }
        out.append(text).push_back('\0');
    }
    for (uint32_t i = 0; i < node.nested; i++) {
        if (!put_record(s, at, most, out)) {
            return false;
        }
    }
    auto size = static_cast<uint32_t>(out.size() - begin);
    memcpy(out.data() + begin, &size, sizeof(size));
    return out.size() <= most;
}

/* A record without a shape, off the front of the text. */
static bool take_plain(std::string_view& rest, std::string_view& bytes) {
    if (rest.size() < sizeof(uint32_t)) {
        return false;
    }
    size_t size = length_of_record(rest);
    if (size < sizeof(uint32_t) || size > rest.size()) {
        return false;
    }
    bytes = rest.substr(0, size);
    rest.remove_prefix(size);
    return true;
}

struct unpacked_chunk {
    std::vector<unpacked_shape> shapes = {};
    std::vector<int64_t> shape_of = {}, received = {};
};

static bool read_chunk(column_reader& in, unpacked_chunk& chunk) {
    uint64_t records, shapes;
    if (!in.number(records, chunk_max_records) || !in.number(shapes, records / shape_min_records)) {
        return false;
    }
    chunk.shapes.resize(shapes);
    for (unpacked_shape& s : chunk.shapes) {
        if (!read_shape(in, 1, s.of)) {
            return false;
        }
    }
    if (!in.whole(records, chunk.shape_of) || !in.whole(records, chunk.received)) {
        return false;
    }
    for (int64_t which : chunk.shape_of) {
        if (which < 0 || static_cast<uint64_t>(which) > shapes) {
            return false;
        }
        if (which > 0) {
            chunk.shapes[static_cast<size_t>(which - 1)].records++;
        }
    }
    size_t bytes = 0; /* of all records, at least: before memory is taken for them */
    for (const unpacked_shape& s : chunk.shapes) {
        bytes += s.records * (s.of.fixed_bytes() + 2 * s.of.strings);
    }
    if (bytes > chunk_max_bytes) {
        return false;
    }
    return std::all_of(chunk.shapes.begin(), chunk.shapes.end(), [&in](unpacked_shape& s) {
        return read_values(in, s) && read_strings(in, s);
    });
}

size_t inflated_size(std::string_view packed) {
    size_t size = 0;
    for (unsigned at = 1, shift = 0; at < packed.size() && shift < 63; at++, shift += 7) {
        size |= size_t{static_cast<uint8_t>(packed[at]) & 0x7fu} << shift;
        if (static_cast<uint8_t>(packed[at]) < 0x80) {
            break;
        }
    }
    return std::min<size_t>(size, max_text);
}

bool unpack_chunk(std::string_view packed, const std::function<bool(const arrived_record&)>& each) {
    column_reader in;
    unpacked_chunk chunk;
    if (!in.open(packed, chunk_kind, max_text) || !read_chunk(in, chunk)) {
        return false;
    }
    std::string_view rest;
    if (!in.text(in.rest().size(), rest) || !in.at_end()) {
        return false;
    }
    std::string built;
    size_t left = chunk_max_bytes;
    for (size_t i = 0; i < chunk.received.size(); i++) {
        std::string_view bytes;
        if (chunk.shape_of[i] == 0) {
            if (!take_plain(rest, bytes) || bytes.size() > left) {
                return false;
            }
        } else {
            unpacked_shape& s = chunk.shapes[static_cast<size_t>(chunk.shape_of[i] - 1)];
            shape_cursor at = {.node = s.of.nodes.data(),
                               .values = s.values.data() + s.next * s.of.value_bytes,
                               .string = 0};
            built.clear();
            if (!put_record(s, at, left, built)) {
                return false;
            }
            s.next++;
            bytes = built;
        }
        left -= bytes.size();
        if (!each({chunk.received[i], bytes})) {
            return true;
        }
    }
    return rest.empty();
}

/* ---- roll-ups ---- */

static constexpr double mean_steps = 65535;

static int64_t step_of_mean(double mean, double min, double max) {
    /* by halves, lest the distance is beyond what a number can be */
    double step = std::round((mean / 2 - min / 2) / (max / 2 - min / 2) * mean_steps);
    return step > 0 ? static_cast<int64_t>(std::min(step, mean_steps)) : 0; /* 0: no number, too */
}

static double mean_of_step(int64_t step, double min, double max) {
    double part = static_cast<double>(step) / mean_steps;
    double mean = min * (1 - part) + max * part;
    return !(mean <= max) ? max : !(mean >= min) ? min : mean; /* no number between infinities */
}

/* Of one value over the day. */
struct value_columns {
    std::vector<int64_t> there = {}, lacking = {}, mean = {};
    std::vector<double> ends = {}; /* the lowest, then the highest: shortened alike */
};

static void write_value(column_writer& out, const std::vector<bucket>& buckets, uint32_t id) {
    value_columns c;
    std::vector<const value_summary*> found;
    for (const bucket& b : buckets) {
        auto at = std::lower_bound(
            b.values.begin(), b.values.end(), id,
            [](const value_summary& value, uint32_t wanted) { return value.id < wanted; });
        bool there = at != b.values.end() && at->id == id;
        c.there.push_back(there);
        if (there) {
            c.lacking.push_back(int64_t{b.count} - at->count);
            found.push_back(&*at);
        }
    }
    out.number(id);
    bool everywhere = found.size() == buckets.size();
    out.number(everywhere);
    if (!everywhere) {
        out.whole(c.there);
    }
    out.whole(c.lacking);
    bool same = true;
    for (const value_summary* value : found) {
        c.ends.push_back(value->min);
        same = same && std::bit_cast<uint64_t>(value->min) == std::bit_cast<uint64_t>(value->max);
    }
    for (size_t i = 0; i < found.size() && !same; i++) {
        c.ends.push_back(found[i]->max);
    }
    out.number(same);
    out.real_shortened(c.ends);
    if (!same) {
        for (size_t i = 0; i < found.size(); i++) {
            c.mean.push_back(step_of_mean(found[i]->mean, c.ends[i], c.ends[found.size() + i]));
        }
        out.whole(c.mean);
    }
}

/* One number of each bucket. */
template <typename Of>
static void write_of_each(column_writer& out, const std::vector<bucket>& buckets, Of of) {
    std::vector<int64_t> values;
    for (const bucket& b : buckets) {
        values.push_back(of(b));
    }
    out.whole(values);
}

void pack_roll_up(const std::vector<bucket>& buckets, std::string& packed) {
    column_writer out;
    out.number(buckets.size());
    write_of_each(out, buckets, [](const bucket& b) { return b.start; });
    write_of_each(out, buckets, [](const bucket& b) { return b.count; });
    write_of_each(out, buckets, [](const bucket& b) { return b.ok; });
    write_of_each(out, buckets, [](const bucket& b) { return b.problem; });
    std::vector<uint32_t> ids;
    for (const bucket& b : buckets) {
        for (const value_summary& value : b.values) {
            ids.push_back(value.id);
        }
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    ids.resize(std::min(ids.size(), roll_up_max_values / std::max<size_t>(buckets.size(), 1)));
    out.number(ids.size());
    for (uint32_t id : ids) {
        write_value(out, buckets, id);
    }
    out.seal(roll_up_kind, packed);
}

/* One number of each bucket, to where `to` says. */
template <typename To>
static bool read_of_each(column_reader& in, std::vector<bucket>& buckets, To to) {
    std::vector<int64_t> values;
    if (!in.whole(buckets.size(), values)) {
        return false;
    }
    for (size_t i = 0; i < values.size(); i++) {
        if (values[i] < 0 || values[i] > UINT32_MAX) {
            return false;
        }
        to(buckets[i]) = static_cast<uint32_t>(values[i]);
    }
    return true;
}

static bool read_value(column_reader& in, uint32_t id, std::vector<bucket>& buckets) {
    value_columns c;
    uint64_t everywhere, same;
    if (!in.number(everywhere, 1)) {
        return false;
    }
    if (everywhere != 0) {
        c.there.assign(buckets.size(), 1);
    } else if (!in.whole(buckets.size(), c.there)) {
        return false;
    }
    auto have = static_cast<size_t>(std::count(c.there.begin(), c.there.end(), 1));
    if (have == 0 || !in.whole(have, c.lacking) || !in.number(same, 1) ||
        !in.real(same != 0 ? have : 2 * have, c.ends) || (same == 0 && !in.whole(have, c.mean))) {
        return false;
    }
    size_t next = 0;
    for (size_t i = 0; i < buckets.size(); i++) {
        if (c.there[i] != 1) {
            continue;
        }
        int64_t lacking = c.lacking[next], step = same != 0 ? 0 : c.mean[next];
        int64_t most = buckets[i].count;
        if (lacking > most || lacking < most - UINT32_MAX || step < 0 || step > 65535) {
            return false;
        }
        double min = c.ends[next], max = same != 0 ? min : c.ends[have + next];
        buckets[i].values.push_back({.id = id,
                                     .count = static_cast<uint32_t>(most - lacking),
                                     .min = min,
                                     .mean = mean_of_step(step, min, max),
                                     .max = max});
        next++;
    }
    return true;
}

static bool read_roll_up(column_reader& in, std::vector<bucket>& buckets) {
    uint64_t count, values, id = 0;
    if (!in.number(count, roll_up_max_buckets)) {
        return false;
    }
    buckets.resize(count);
    if (!read_of_each(in, buckets, [](bucket& b) -> uint32_t& { return b.start; }) ||
        !read_of_each(in, buckets, [](bucket& b) -> uint32_t& { return b.count; }) ||
        !read_of_each(in, buckets, [](bucket& b) -> uint32_t& { return b.ok; }) ||
        !read_of_each(in, buckets, [](bucket& b) -> uint32_t& { return b.problem; }) ||
        !in.number(values, roll_up_max_values / std::max<size_t>(count, 1))) {
        return false;
    }
    for (size_t i = 1; i < buckets.size(); i++) {
        if (buckets[i].start <= buckets[i - 1].start) {
            return false;
        }
    }
    for (uint64_t i = 0; i < values; i++) {
        uint64_t before = id;
        if (!in.number(id, UINT32_MAX) || (i > 0 && id <= before) ||
            !read_value(in, static_cast<uint32_t>(id), buckets)) {
            return false;
        }
    }
    return in.at_end();
}

bool unpack_roll_up(std::string_view packed, std::vector<bucket>& buckets) {
    buckets.clear();
    column_reader in;
    /* A value takes three columns of eight bytes and a few bytes more. */
    constexpr size_t most = 40 * (roll_up_max_values + 4 * roll_up_max_buckets);
    if (in.open(packed, roll_up_kind, most) && read_roll_up(in, buckets)) {
        return true;
    }
    buckets.clear();
    return false;
}

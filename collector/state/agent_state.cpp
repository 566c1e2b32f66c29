#include "state/agent_state.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace {

constexpr char version = 1;

/* What stands first. */
constexpr uint64_t is_silent = 1, has_intervals = 2;

/* More kinds of inventories than there will ever be; one beyond it is damage. */
constexpr uint64_t max_inventories = 64;

/* What is not said with a test is what most tests have. The lowest two bits are the state. */
enum test_flags : uint64_t {
    has_number = 1 << 2,
    has_location = 1 << 3,
    has_status = 1 << 4,
    has_bad_status = 1 << 5, /* one that is not 0 */
    is_next_type = 1 << 6,   /* of another type than the test before */
    has_claimed = 1 << 7,    /* another time than the one reckoned */
    has_parts = 1 << 8,      /* other parts than usual_parts() */
    has_pid = 1 << 9,
    has_reached = 1 << 10, /* another time than that of the last pass */
    has_overtaken = 1 << 11,
    all_flags = (1 << 12) - 1
};

uint64_t bits(int64_t value) {
    return static_cast<uint64_t>(value);
}

/* Differences of any two times fit, modulo 2^64. */
uint64_t difference(int64_t a, int64_t b) {
    return bits(a) - bits(b);
}

class packer {
public:
    explicit packer(std::string& into) : into_(into) {}

    /* Seven bits a byte, the lowest first. */
    void put(uint64_t value) {
        for (; value >= 0x80; value >>= 7) {
            into_ += static_cast<char>(value | 0x80);
        }
        into_ += static_cast<char>(value);
    }
    /* Small numbers of either sign are short. */
    void put_signed(uint64_t value) { put(value << 1 ^ (value >> 63 != 0 ? ~uint64_t{0} : 0)); }
    void put_bytes(const char* bytes, size_t size) { into_.append(bytes, size); }

private:
    std::string& into_;
};

/* Behind the end, and for a number that is too long, it gives 0 and is not good any more. */
class unpacker {
public:
    explicit unpacker(std::string_view from) : at_(from.data()), end_(from.data() + from.size()) {}

    uint64_t get() {
        if (at_ < end_ && static_cast<unsigned char>(*at_) < 0x80) {
            return static_cast<unsigned char>(*at_++);
        }
        uint64_t value = 0;
        for (unsigned shift = 0; shift < 64 && at_ < end_; shift += 7) {
            auto byte = static_cast<unsigned char>(*at_++);
            value |= uint64_t{byte & 0x7fu} << shift;
            if (byte < 0x80) {
                return value;
            }
        }
        fail();
        return 0;
    }
    uint64_t get_signed() {
        uint64_t value = get();
        return value >> 1 ^ ((value & 1) != 0 ? ~uint64_t{0} : 0);
    }
    /* Of a number that has to fit. */
    template <typename T>
    T get_as() {
        uint64_t value = get();
        if (value > std::numeric_limits<T>::max()) {
            fail();
        }
        return static_cast<T>(value);
    }
    void get_bytes(char* to, size_t size) {
        if (static_cast<size_t>(end_ - at_) < size) {
            fail();
            return;
        }
        memcpy(to, at_, size);
        at_ += size;
    }
    bool is_good() const { return good_; }
    bool is_at_end() const { return at_ == end_; }
    void fail() {
        good_ = false;
        at_ = end_;
    }

private:
    const char *at_, *end_;
    bool good_ = true;
};

/* One record a pass. */
bool usual_parts(const test_status& t) {
    return t.parts == 1 && t.parts_before == 1 && t.bad_parts == (t.now == state::problem ? 1 : 0);
}

uint64_t flags_of(const test_status& t, const test_status& before) {
    uint64_t flags = static_cast<uint64_t>(t.now) & 3;
    auto set = [&](test_flags flag, bool on) { flags |= on ? flag : uint64_t{0}; };
    set(has_number, t.number.has_value());
    set(has_location, t.location.has_value());
    set(has_status, t.status.has_value());
    set(has_bad_status, t.status.value_or(0) != 0);
    set(is_next_type, t.type != before.type);
    set(has_claimed, t.claimed != t.time);
    set(has_parts, !usual_parts(t));
    set(has_pid, t.pid != 0);
    set(has_reached, t.reached != t.time);
    set(has_overtaken, t.overtaken.has_value());
    return flags;
}

void pack_test(packer& to, const test_status& t, const test_status& before) {
    uint64_t flags = flags_of(t, before);
    to.put(flags);
    if ((flags & is_next_type) != 0) {
        to.put(t.type - before.type);
    }
    if (t.number) {
        to.put_signed(difference(*t.number, before.number.value_or(0)));
    }
    to.put_signed(difference(t.id, before.id));
    to.put_signed(difference(t.received, before.received));
    to.put_signed(difference(t.received, t.since));
    to.put_signed(difference(t.received, t.time));
    to.put_signed(difference(t.block, before.block));
    if ((flags & has_claimed) != 0) {
        to.put_signed(difference(t.claimed, t.time));
    }
    if (t.location) {
        to.put_signed(difference(*t.location, before.location.value_or(0)));
    }
    if ((flags & has_bad_status) != 0) {
        to.put_signed(bits(t.status.value_or(0)));
    }
    if ((flags & has_parts) != 0) {
        to.put(t.parts);
        to.put(t.bad_parts);
        to.put(t.parts_before);
    }
    if ((flags & has_pid) != 0) {
        to.put(t.pid);
    }
    if ((flags & has_reached) != 0) {
        to.put_signed(difference(t.reached, t.time));
    }
    if (t.overtaken) {
        to.put_signed(difference(t.overtaken->claimed, t.time));
        to.put(t.overtaken->location ? 1 : 0);
        to.put_signed(bits(t.overtaken->location.value_or(0)));
        to.put(t.overtaken->pid);
    }
}

/* What a number of 32 bits was packed as a difference to. */
int32_t number_at(unpacker& from, std::optional<int32_t> before) {
    auto value = static_cast<int64_t>(bits(before.value_or(0)) + from.get_signed());
    if (value != static_cast<int32_t>(value)) {
        from.fail();
    }
    return static_cast<int32_t>(value);
}

std::optional<intervals> unpack_intervals(unpacker& from, uint64_t flags) {
    if ((flags & has_intervals) == 0) {
        return std::nullopt;
    }
    const int32_t poll = number_at(from, {});
    return intervals{.poll = poll, .check = number_at(from, {})};
}

void unpack_test(unpacker& from, test_status& t, const test_status& before) {
    auto time_at = [&](int64_t other) {
        return static_cast<int64_t>(bits(other) - from.get_signed());
    };
    auto time_behind = [&](int64_t other) {
        return static_cast<int64_t>(bits(other) + from.get_signed());
    };
    uint64_t flags = from.get();
    if (flags > all_flags) {
        from.fail();
        return;
    }
    t.now = static_cast<state>(flags & 3);
    t.type = before.type;
    if ((flags & is_next_type) != 0) {
        t.type += from.get_as<uint32_t>();
    }
    if ((flags & has_number) != 0) {
        t.number = number_at(from, before.number);
    }
    t.id = time_behind(before.id);
    t.received = time_behind(before.received);
    t.since = time_at(t.received);
    t.time = time_at(t.received);
    t.block = time_behind(before.block);
    t.claimed = (flags & has_claimed) != 0 ? time_behind(t.time) : t.time;
    if ((flags & has_location) != 0) {
        t.location = number_at(from, before.location);
    }
    if ((flags & has_status) != 0) {
        t.status = (flags & has_bad_status) != 0 ? number_at(from, {}) : 0;
    }
    if ((flags & has_parts) != 0) {
        t.parts = from.get_as<uint32_t>();
        t.bad_parts = from.get_as<uint32_t>();
        t.parts_before = from.get_as<uint32_t>();
    } else {
        t.parts = t.parts_before = 1;
        t.bad_parts = t.now == state::problem ? 1 : 0;
    }
    t.pid = (flags & has_pid) != 0 ? from.get_as<uint32_t>() : 0;
    t.reached = (flags & has_reached) != 0 ? time_behind(t.time) : t.time;
    if ((flags & has_overtaken) != 0) {
        pass_mark& o = t.overtaken.emplace();
        o.claimed = time_behind(t.time);
        bool has = from.get_as<bool>();
        int32_t location = number_at(from, {});
        o.location = has ? std::optional(location) : std::nullopt;
        o.pid = from.get_as<uint32_t>();
    }
}

/* What the first test is packed as a difference to. */
test_status before_first(const agent_state& agent) {
    return {.received = agent.counts.hour, .block = agent.last_block};
}

bool is_before(const test_status& a, uint32_t type, std::optional<int32_t> number) {
    return a.type != type ? a.type < type : a.number < number;
}

/* Better to worse; what is unknown counts for nothing. */
int badness(state s) {
    switch (s) {
    case state::unknown:
        return 0;
    case state::ok:
        return 1;
    case state::stale:
        return 2;
    case state::problem:
        return 3;
    case state::silent:
        break;
    }
    return 4;
}

} // namespace

std::string_view state_word(state s) {
    switch (s) {
    case state::unknown:
        break;
    case state::ok:
        return "ok";
    case state::problem:
        return "problem";
    case state::stale:
        return "stale";
    case state::silent:
        return "silent";
    }
    return "unknown";
}

void agent_state::pack(std::string& into) const {
    into.clear();
    into += version;
    packer to(into);
    to.put((silent ? is_silent : 0) | (every ? has_intervals : 0));
    if (every) {
        to.put_signed(bits(every->poll));
        to.put_signed(bits(every->check));
    }
    to.put_signed(bits(counts.hour));
    to.put(counts.received);
    to.put(counts.repeated);
    to.put(counts.missing);
    to.put_signed(difference(since, counts.hour));
    to.put_signed(bits(last_block));
    to.put_signed(difference(open_since, counts.hour));
    to.put(open_bytes);
    to.put(inventories.size());
    for (const inventory_status& i : inventories) {
        to.put(i.type);
        to.put_signed(bits(i.row));
        to.put_signed(difference(i.received, counts.hour));
        to.put_signed(difference(i.received, i.time));
        to.put_bytes(i.hash.data(), i.hash.size());
    }
    test_status first = before_first(*this);
    const test_status* before = &first;
    for (const test_status& t : tests) {
        pack_test(to, t, *before);
        before = &t;
    }
}

bool agent_state::unpack(std::string_view packed) {
    tests.clear();
    inventories.clear();
    silent = false;
    every.reset();
    since = last_block = open_since = 0;
    open_bytes = 0;
    counts = {};
    if (packed.empty()) {
        return true;
    }
    unpacker from(packed.substr(1));
    auto get_behind = [&](int64_t other) {
        return static_cast<int64_t>(bits(other) + from.get_signed());
    };
    const uint64_t flags = from.get();
    silent = (flags & is_silent) != 0;
    every = unpack_intervals(from, flags);
    counts.hour = get_behind(0);
    counts.received = from.get();
    counts.repeated = from.get();
    counts.missing = from.get();
    since = get_behind(counts.hour);
    last_block = get_behind(0);
    open_since = get_behind(counts.hour);
    open_bytes = from.get();
    uint64_t count = from.get();
    bool good = packed.front() == version && flags <= (is_silent | has_intervals) &&
                count <= max_inventories;
    for (; good && from.is_good() && count > 0; count--) {
        inventory_status& i = inventories.emplace_back();
        i.type = from.get_as<uint32_t>();
        i.row = get_behind(0);
        i.received = get_behind(counts.hour);
        i.time = static_cast<int64_t>(bits(i.received) - from.get_signed());
        from.get_bytes(i.hash.data(), i.hash.size());
    }
    test_status first = before_first(*this);
    while (good && !from.is_at_end()) {
        test_status& t = tests.emplace_back();
        const test_status& before = tests.size() > 1 ? tests[tests.size() - 2] : first;
        unpack_test(from, t, before);
        good =
            tests.size() <= max_tests && (tests.size() == 1 || is_before(before, t.type, t.number));
    }
    if (!good || !from.is_good()) {
        unpack({});
        return false;
    }
    return true;
}

std::optional<hour_counts> packed_counts(std::string_view packed) {
    if (packed.empty() || packed.front() != version) {
        return std::nullopt;
    }
    unpacker from(packed.substr(1));
    unpack_intervals(from, from.get());
    hour_counts counts;
    counts.hour = static_cast<int64_t>(bits(0) + from.get_signed());
    counts.received = from.get();
    counts.repeated = from.get();
    counts.missing = from.get();
    bool any = counts.received + counts.repeated + counts.missing > 0;
    return from.is_good() && any ? std::optional(counts) : std::nullopt;
}

const test_status* agent_state::find(uint32_t type, std::optional<int32_t> number) const {
    auto found = std::lower_bound(
        tests.begin(), tests.end(), number,
        [&](const test_status& t, std::optional<int32_t> n) { return is_before(t, type, n); });
    return found != tests.end() && found->type == type && found->number == number ? &*found
                                                                                  : nullptr;
}

test_status* agent_state::find(uint32_t type, std::optional<int32_t> number) {
    return const_cast<test_status*>(std::as_const(*this).find(type, number));
}

state agent_state::worst() const {
    if (silent) {
        return state::silent;
    }
    state worst = state::unknown;
    for (const test_status& t : tests) {
        if (t.number && badness(t.now) > badness(worst)) {
            worst = t.now;
        }
    }
    return worst;
}

state shown_state(const agent_state& agent, const test_status& test) {
    return agent.silent ? state::unknown : test.now;
}

int64_t shown_since(const agent_state& agent, const test_status& test) {
    bool was_known = test.now == state::ok || test.now == state::problem;
    return agent.silent && was_known ? agent.since : test.since;
}

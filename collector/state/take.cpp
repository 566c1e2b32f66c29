#include "state/take.h"

#include "base/text.h"

#include <algorithm>
#include <limits>
#include <map>
#include <utility>

namespace {

constexpr int64_t hour_s = 3600;
constexpr std::string_view cut_mark = " ..."; /* what shortened() puts behind */
constexpr int64_t least = std::numeric_limits<int64_t>::min();
constexpr int64_t most = std::numeric_limits<int64_t>::max();

/* Times come from outside: the nearest that there is instead of one too far. */
int64_t minus(int64_t a, int64_t b) {
    int64_t difference;
    return __builtin_sub_overflow(a, b, &difference) ? (b > 0 ? least : most) : difference;
}

int64_t plus(int64_t a, int64_t b) {
    int64_t sum;
    return __builtin_add_overflow(a, b, &sum) ? (b > 0 ? most : least) : sum;
}

/* The beginning of its hour. */
int64_t hour_of(int64_t time) {
    int64_t into = time % hour_s;
    into = into < 0 ? into + hour_s : into;
    return time < least + into ? least - least % hour_s : time - into;
}

bool is_type(const record_summary& what, const protocol::record_def& type) {
    return what.type == type.code && what.schema != nullptr;
}

/* The process id of a record of a process test. */
constexpr size_t pid_slot = [] {
    std::span<const protocol::value_def> table = protocol::process.values;
    for (size_t i = 0; i < table.size(); i++) {
        if (std::string_view(table[i].name) == "pid") {
            return protocol::index_of(table, i);
        }
    }
    return table.size();
}();
static_assert(pid_slot < protocol::count_of(protocol::process.values, protocol::value_type::ui32));

/* What a record says of its test. */
state state_of(const decoded_record& r) {
    const record_summary& what = r.summary;
    if (!what.test) {
        return state::unknown;
    }
    const protocol::part_def* parts = what.schema != nullptr ? what.schema->parts : nullptr;
    bool is_ok = what.status.value_or(protocol::status_ok) == protocol::status_ok;
    if (is_ok && parts != nullptr && parts->judged_alone) {
        is_ok = judge(r.content, what).status.value_or(protocol::status_ok) == protocol::status_ok;
    }
    return is_ok ? state::ok : state::problem;
}

/* Hours that are added up, in the order in which they come; those of one block are mostly one. */
class hour_sums {
public:
    explicit hour_sums(std::vector<hour_counts>& into) : sums_(into), from_(into.size()) {}

    hour_counts& of(int64_t hour) {
        if (sums_.size() == from_ || sums_.back().hour != hour) {
            if (sums_.size() - from_ > 2 * settled_ + 256) {
                settle();
            }
            sums_.push_back({.hour = hour});
        }
        return sums_.back();
    }

    /* What was counted of an hour, which then is not there any more. Each other stands once. */
    hour_counts take_out(int64_t hour) {
        settle();
        hour_counts taken{.hour = hour};
        auto found = std::lower_bound(begin(), sums_.end(), hour, is_earlier);
        if (found != sums_.end() && found->hour == hour) {
            taken = *found;
            sums_.erase(found);
        }
        return taken;
    }

    void settle() {
        if (sums_.size() - from_ > 1) {
            std::sort(begin(), sums_.end(),
                      [](const hour_counts& a, const hour_counts& b) { return a.hour < b.hour; });
            auto last = begin();
            for (auto next = last + 1; next != sums_.end(); ++next) {
                if (next->hour == last->hour) {
                    add(*last, *next);
                } else {
                    *++last = *next;
                }
            }
            sums_.erase(last + 1, sums_.end());
        }
        settled_ = sums_.size() - from_;
    }

    static void add(hour_counts& to, const hour_counts& more) {
        to.received += more.received;
        to.repeated += more.repeated;
        to.missing += more.missing;
    }

private:
    std::vector<hour_counts>::iterator begin() {
        return sums_.begin() + static_cast<std::ptrdiff_t>(from_);
    }
    static bool is_earlier(const hour_counts& counts, int64_t hour) { return counts.hour < hour; }

    std::vector<hour_counts>& sums_;
    const size_t from_;
    size_t settled_ = 0;
};

/* A pass that was a part of what a process test had before, and without problems; its test is still
 * a problem. */
bool is_awaited(const test_status& t) {
    return t.type == protocol::process.code && t.now == state::problem && t.parts > 0 &&
           t.bad_parts == 0;
}

pass_mark mark_of(const test_status& t) {
    return {.claimed = t.claimed, .location = t.location, .pid = t.pid};
}

/* When something happens that is seen at `time`, in place of a state that began at `since`. */
int64_t not_before(int64_t since, int64_t time) {
    return since > time && minus(since, time) <= skew_s ? since : time;
}

void put_change(test_status& t, state to, int64_t time, std::string message, outcome& out) {
    out.changes.push_back({.type = t.type,
                           .number = t.number,
                           .of_agent = false,
                           .time = time,
                           .from = t.now,
                           .to = to,
                           .message = std::move(message)});
    t.now = to;
    t.since = time;
}

void put_change(agent_state& agent, bool silent, int64_t time, outcome& out) {
    state from = agent.worst();
    agent.silent = silent;
    agent.since = not_before(agent.since, time);
    out.changes.push_back(
        {.of_agent = true, .time = agent.since, .from = from, .to = agent.worst()});
}

using test_key = std::pair<uint32_t, std::optional<int32_t>>;

/* The tests of an agent while records are taken: those that were known in order, behind them those
 * that are new. One block may name millions. */
class test_table {
public:
    explicit test_table(std::vector<test_status>& tests) : tests_(tests), known_(tests.size()) {}

    static constexpr size_t none = SIZE_MAX;

    size_t find(const test_key& key) {
        /* They come in the order in which they came the last time, one like the other. */
        if (is_at(last_, key) || is_at(last_ + 1, key)) {
            last_ += is_at(last_, key) ? 0 : 1;
            return last_;
        }
        auto end = tests_.begin() + static_cast<std::ptrdiff_t>(known_);
        auto found = std::lower_bound(tests_.begin(), end, key, is_before);
        if (found != end && found->key() == key) {
            last_ = static_cast<size_t>(found - tests_.begin());
            return last_;
        }
        auto fresh = fresh_.find(key);
        return fresh != fresh_.end() ? fresh->second : none;
    }

    bool is_full() const { return fresh_.size() >= agent_state::max_tests; }
    size_t add(const test_key& key) {
        was_changed_ = true;
        fresh_.emplace(key, tests_.size());
        tests_.push_back({.type = key.first, .number = key.second});
        return tests_.size() - 1;
    }

    /* Puts all in order, and forgets those that are too many. */
    void settle() {
        if (fresh_.empty()) {
            return;
        }
        auto by_key = [](const test_status& a, const test_status& b) { return a.key() < b.key(); };
        auto middle = tests_.begin() + static_cast<std::ptrdiff_t>(known_);
        std::sort(middle, tests_.end(), by_key);
        std::inplace_merge(tests_.begin(), middle, tests_.end(), by_key);
        if (tests_.size() > agent_state::max_tests) {
            /* Of those heard of at the same time the ones that have been there. */
            auto is_kept_rather = [](const test_status& a, const test_status& b) {
                return a.received != b.received     ? a.received > b.received
                       : (a.id != 0) != (b.id != 0) ? a.id != 0
                                                    : a.key() < b.key();
            };
            std::nth_element(tests_.begin(), tests_.begin() + agent_state::max_tests, tests_.end(),
                             is_kept_rather);
            tests_.resize(agent_state::max_tests);
            std::sort(tests_.begin(), tests_.end(), by_key);
        }
        known_ = tests_.size();
        fresh_.clear();
        last_ = 0;
    }

    /* Whether places are others than those that find() and add() said. */
    bool was_changed() const { return was_changed_; }

private:
    static bool is_before(const test_status& t, const test_key& key) { return t.key() < key; }
    bool is_at(size_t place, const test_key& key) const {
        return place < known_ && tests_[place].type == key.first &&
               tests_[place].number == key.second;
    }

    std::vector<test_status>& tests_;
    size_t known_, last_ = 0;
    std::map<test_key, size_t> fresh_;
    bool was_changed_ = false;
};

class taking {
public:
    taking(agent_state& agent, std::span<const decoded_record> records, int64_t arrival,
           const patience& now, outcome& out)
        : agent_(agent), records_(records), arrival_(arrival), now_(now), out_(out),
          late_(minus(std::min(newest_time(), arrival), now.stale_after)), table_(agent.tests),
          hours_(out.hours), speaks_(agent.tests.size()) {}

    void run(std::vector<size_t>& places) {
        note_awaited();
        places.assign(records_.size(), SIZE_MAX);
        for (size_t i = 0; i < records_.size(); i++) {
            if (!is_inventory(records_[i].summary)) {
                places[i] = take(i);
            }
        }
        end_parts();
        end_awaited();
        table_.settle();
        for (size_t i = 0; table_.was_changed() && i < records_.size(); i++) {
            places[i] = place_of(records_[i].summary);
        }
        count_hours();
    }

private:
    /* The record of a pass in this block that is a problem, the first one of these, or the first
     * one of all. */
    struct spokesman {
        size_t record = SIZE_MAX;
        bool is_problem = false;
    };
    struct awaited_pass {
        test_key key;
        int64_t claimed;
        uint32_t parts;
    };

    int64_t newest_time() const {
        int64_t newest = least;
        bool any = false;
        for (const decoded_record& r : records_) {
            if (r.summary.test && r.summary.time && !is_type(r.summary, protocol::mysql)) {
                newest = std::max(newest, reckoned_time(r.summary, arrival_));
                any = true;
            }
        }
        return any ? newest : most;
    }

    /* Which passes of process tests may go on in this block. */
    void note_awaited() {
        for (const test_status& t : agent_.tests) {
            if (is_awaited(t)) {
                awaited_.push_back({t.key(), t.claimed, t.parts});
            }
        }
    }

    void end_awaited() {
        for (const awaited_pass& a : awaited_) {
            size_t place = table_.find(a.key);
            if (place == test_table::none) {
                continue;
            }
            test_status& t = agent_.tests[place];
            if (is_awaited(t) && t.claimed == a.claimed && t.parts == a.parts) {
                end_pass(t);
            }
        }
    }

    /* There are no more parts of it than came. */
    void end_pass(test_status& t) {
        if (is_awaited(t)) {
            put_change(t, state::ok, event_time(t), {}, out_);
        }
    }

    int64_t event_time(const test_status& t) const {
        return t.time >= t.since ? t.time : not_before(t.since, arrival_);
    }

    /* The test of the record. */
    size_t take(size_t i) {
        const decoded_record& r = records_[i];
        test_key key(r.summary.type, r.summary.test);
        size_t place = table_.find(key);
        bool is_new = place == test_table::none;
        if (is_new) {
            if (table_.is_full()) {
                end_parts();
                table_.settle();
            }
            place = table_.add(key);
            speaks_.resize(agent_.tests.size());
        }
        test_status& t = agent_.tests[place];
        pass_mark mark = mark_of(r, arrival_);
        t.received = arrival_;
        if (t.overtaken && continues(r.summary, *t.overtaken, mark) != continuation::another_pass) {
            t.overtaken->pid = std::max(t.overtaken->pid, mark.pid);
            return place;
        }
        continuation what =
            is_new ? continuation::another_pass : continues(r.summary, mark_of(t), mark);
        if (what == continuation::repetition) {
            return place;
        }
        if (what == continuation::another_pass) {
            int64_t time = reckoned_time(r.summary, arrival_);
            if (!is_new && is_overtaken(t, time)) {
                count_received(time);
                t.reached = std::max(t.reached, time);
                t.overtaken = mark;
                return place;
            }
            end_part(place);
            end_pass(t);
            begin_pass(t, r.summary, mark, time, is_new);
        } else if (is_overtaken(t, t.time)) {
            t.pid = mark.pid;
            return place;
        }
        add_part(t, i, place, mark);
        return place;
    }

    bool is_overtaken(const test_status& t, int64_t time) const {
        return time < late_ && (time < t.reached || time < t.since);
    }

    void begin_pass(test_status& t, const record_summary& what, const pass_mark& mark, int64_t time,
                    bool is_new) {
        count_received(time);
        if (is_new) {
            t.reached = t.since = time;
        } else {
            count_missing(t, what, mark, time);
        }
        bool was_set_back = time < minus(t.reached, now_.stale_after);
        t.reached = was_set_back ? time : std::max(t.reached, time);
        t.time = time;
        t.claimed = mark.claimed;
        t.overtaken.reset();
        t.parts_before = t.parts;
        t.parts = t.bad_parts = 0;
    }

    void add_part(test_status& t, size_t i, size_t place, const pass_mark& mark) {
        const record_summary& what = records_[i].summary;
        bool is_problem = state_of(records_[i]) == state::problem;
        t.parts++;
        t.bad_parts += is_problem ? 1 : 0;
        t.location = what.location;
        t.status = what.status;
        t.pid = mark.pid;
        spokesman& speaks = speaks_[place];
        if (speaks.record == SIZE_MAX || (is_problem && !speaks.is_problem)) {
            speaks = {i, is_problem};
        }
    }

    /* What came of a pass is judged together. */
    void end_part(size_t place) {
        if (speaks_[place].record == SIZE_MAX) {
            return;
        }
        const decoded_record& r = records_[std::exchange(speaks_[place], {}).record];
        test_status& t = agent_.tests[place];
        if (!t.number || (is_awaited(t) && t.parts < t.parts_before)) {
            return;
        }
        state fresh = t.bad_parts > 0 ? state::problem : state::ok;
        if (fresh != t.now) {
            put_change(t, fresh, event_time(t),
                       shortened(judge(r.content, r.summary).reason, max_message - cut_mark.size()),
                       out_);
        }
    }

    void end_parts() {
        for (size_t place = 0; place < speaks_.size(); place++) {
            end_part(place);
        }
    }

    void count_received(int64_t time) {
        latest_pass_ = has_pass_ ? std::max(latest_pass_, time) : time;
        has_pass_ = true;
        hours_.of(hour_of(time)).received++;
    }

    void count_missing(const test_status& t, const record_summary& what, const pass_mark& mark,
                       int64_t time) {
        int64_t interval = now_.interval;
        if (interval <= 0 || !t.number || t.now == state::unknown ||
            is_type(what, protocol::discovery) || time <= t.reached ||
            time < minus(arrival_, max_gap_s) || mark.location != t.location) {
            return;
        }
        int64_t coarse = is_type(what, protocol::mysql) ? coarse_s : 0;
        int64_t distance =
            std::min(minus(minus(mark.claimed, t.claimed), coarse), minus(time, t.reached));
        if (distance > max_gap_s || 2 * std::max<int64_t>(distance, 0) <= 3 * interval) {
            return;
        }
        auto missing = (2 * distance + interval) / (2 * interval) - 1;
        for (int64_t at = time; missing > 0;) {
            at -= interval;
            int64_t hour = hour_of(at);
            int64_t in_hour = std::min(missing, 1 + std::max<int64_t>(at - hour, 0) / interval);
            hours_.of(hour).missing += static_cast<uint64_t>(in_hour);
            missing -= in_hour;
            at -= (in_hour - 1) * interval;
        }
    }

    size_t place_of(const record_summary& what) const {
        const test_status* found =
            is_inventory(what) ? nullptr : std::as_const(agent_).find(what.type, what.test);
        return found != nullptr ? static_cast<size_t>(found - agent_.tests.data()) : SIZE_MAX;
    }

    /* The hour of the latest pass stays with the agent. */
    void count_hours() {
        if (!has_pass_) {
            return;
        }
        hour_counts& counts = agent_.counts;
        int64_t hour = hour_of(latest_pass_);
        if (counts.hour != hour) {
            if ((counts.received | counts.repeated | counts.missing) != 0) {
                hour_sums::add(hours_.of(counts.hour), counts);
            }
            counts = {.hour = hour};
        }
        hour_sums::add(counts, hours_.take_out(hour));
    }

    agent_state& agent_;
    const std::span<const decoded_record> records_;
    const int64_t arrival_;
    const patience now_;
    outcome& out_;
    const int64_t late_;
    test_table table_;
    hour_sums hours_;
    std::vector<spokesman> speaks_; /* of each test */
    std::vector<awaited_pass> awaited_;
    int64_t latest_pass_ = 0;
    bool has_pass_ = false;
};

} // namespace

int64_t reckoned_time(const record_summary& what, int64_t arrival) {
    bool is_told =
        what.time && !is_type(what, protocol::mysql) && *what.time <= plus(arrival, skew_s);
    return is_told ? what.time.value_or(arrival) : arrival;
}

bool is_inventory(const record_summary& what) {
    return what.schema != nullptr && !what.test;
}

pass_mark mark_of(const decoded_record& r, int64_t arrival) {
    const record_summary& what = r.summary;
    return {.claimed = what.time.value_or(arrival),
            .location = what.location,
            .pid = is_type(what, protocol::process) ? r.content.ui32[pid_slot] : 0};
}

continuation continues(const record_summary& what, const pass_mark& pass, const pass_mark& next) {
    if (!what.test || is_type(what, protocol::mysql) || next.location != pass.location) {
        return continuation::another_pass;
    }
    bool is_same_time = next.claimed == pass.claimed;
    if (!is_type(what, protocol::process)) {
        return is_same_time ? continuation::same_pass : continuation::another_pass;
    }
    bool rises = next.pid > pass.pid;
    if (is_same_time) {
        return rises ? continuation::same_pass : continuation::repetition;
    }
    bool is_soon = next.claimed > pass.claimed && minus(next.claimed, pass.claimed) <= pass_s;
    return is_soon && rises && pass.pid != 0 ? continuation::same_pass : continuation::another_pass;
}

void take_results(agent_state& agent, std::span<const decoded_record> records, int64_t arrival,
                  const patience& now, outcome& out, std::vector<size_t>& places) {
    taking(agent, records, arrival, now, out).run(places);
}

void take_repetition(agent_state& agent, std::span<const decoded_record> records, int64_t arrival,
                     outcome& out) {
    agent_state alone;
    outcome found;
    std::vector<size_t> places;
    take_results(alone, records, arrival, {.interval = 0}, found, places);
    found.hours.push_back(alone.counts);
    for (const hour_counts& h : found.hours) {
        if (h.hour == agent.counts.hour) {
            agent.counts.repeated += h.received;
        } else if (h.received > 0) {
            out.hours.push_back({.hour = h.hour, .repeated = h.received});
        }
    }
}

void take_heard(agent_state& agent, int64_t time, outcome& out) {
    if (agent.silent) {
        put_change(agent, false, time, out);
    } else if (agent.since == 0) {
        agent.since = time;
    }
}

void take_silence(agent_state& agent, int64_t time, outcome& out) {
    if (!agent.silent) {
        put_change(agent, true, time, out);
    }
}

static void take_all(agent_state& agent, std::span<const std::pair<uint32_t, int32_t>> tests,
                     state to, const char* message, int64_t time, outcome& out) {
    for (const auto& [type, number] : tests) {
        test_status* t = agent.find(type, number);
        if (t != nullptr && t->now != to) {
            put_change(*t, to, not_before(t->since, time), message, out);
        }
    }
}

void take_stale(agent_state& agent, std::span<const std::pair<uint32_t, int32_t>> tests,
                int64_t time, outcome& out) {
    take_all(agent, tests, state::stale, "", time, out);
}

void take_gone(agent_state& agent, std::span<const std::pair<uint32_t, int32_t>> tests,
               int64_t time, outcome& out) {
    take_all(agent, tests, state::unknown, gone_message, time, out);
}
